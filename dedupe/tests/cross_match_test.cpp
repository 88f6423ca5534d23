// Leads matched against Contacts: which pairs are reported and why, what is
// never compared, and the refusals of snapshots that cannot be matched.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <utility>
#include <vector>

#include "dedupe/cross_match_task.hpp"
#include "dedupe/cross_matcher.hpp"
#include "dedupe/dedupe_error.hpp"
#include "dedupe/record_store.hpp"
#include "platform/tests/temporary_folder.hpp"

namespace corvane {
namespace {

using Role = CrossMatcher::Role;

struct Row {
  std::string id;
  std::vector<std::string> values;
  std::vector<std::string> extras = {};
};

class CrossMatchTest : public ::testing::Test {
 protected:
  std::filesystem::path snapshot(const std::string& file, const std::string& object,
                                 const std::vector<MatchField>& fields,
                                 const std::vector<std::string>& extras,
                                 const std::vector<Row>& rows, const std::string& orgId = "00Dx") {
    RecordStore::Creation creation;
    creation.orgId = orgId;
    creation.objectName = object;
    creation.objectLabel = object;
    creation.nameFieldLabel = "Full Name";
    creation.matchFields = fields;
    creation.extraFields = extras;
    creation.totalExpected = static_cast<std::int64_t>(rows.size());
    creation.downloadedBy = "admin@example.org";
    const auto url = folder_.path() / file;
    auto store = RecordStore::create(url, creation);
    std::vector<RecordStore::Incoming> page;
    for (const Row& row : rows) {
      std::string name;
      for (std::size_t f = 0; f < 2 && f < row.values.size(); ++f)
        name += (name.empty() ? "" : " ") + row.values[f];
      page.push_back({row.id, name, "2024-01-01T00:00:00.000Z", "2024-01-01T00:00:00.000Z",
                      row.values, row.extras});
    }
    store->ingest(page, "null");
    store->markComplete();
    return url;
  }

  static std::vector<MatchField> leadFields() {
    return {{"FirstName", "First Name", MatchKind::personName, MatchMode::close},
            {"LastName", "Last Name", MatchKind::personName, MatchMode::close},
            {"Company", "Company", MatchKind::companyName, MatchMode::close},
            {"Email", "Email", MatchKind::email, MatchMode::exact},
            {"Phone", "Phone", MatchKind::phone, MatchMode::close}};
  }
  // The name fields the other way round: first names are read first anyway.
  static std::vector<MatchField> contactFields() {
    return {{"LastName", "Last Name", MatchKind::personName, MatchMode::close},
            {"FirstName", "First Name", MatchKind::personName, MatchMode::close},
            {"Email", "Email", MatchKind::email, MatchMode::exact},
            {"MobilePhone", "Mobile", MatchKind::phone, MatchMode::close}};
  }

  std::filesystem::path leads() {
    return snapshot("leads.sqlite", "Lead", leadFields(), {},
                    {
                        // Only the address is the same: still the same person.
                        {"00QEMAIL", {"Robert", "Fox", "Globex", "rfox@acme.com", ""}},
                        // Name and company; the account name loses its legal form.
                        {"00QNAMECO", {"Jane", "Doe", "Acme Corp", "jane.d@gmail.com", ""}},
                        // Same name at another company, nothing else: a namesake.
                        {"00QNAMESAKE", {"Jane", "Doe", "Initrode", "", ""}},
                        // A typo in the name, the company without "Inc".
                        {"00QTYPO", {"Jonh", "Smith", "Hooli", "", ""}},
                        // Name and phone, the lead's with the country code.
                        {"00QPHONE", {"Anna", "Lee", "", "", "+1 (415) 555-0100"}},
                        // A similar name at the same company is someone else.
                        {"00QNEAR", {"Mark", "Tanaka", "Hooli", "", ""}},
                        // Two leads alike in every way, and no contact like them.
                        {"00QTWIN1", {"Zed", "Solo", "Nowhere", "zed@solo.org", "5550000"}},
                        {"00QTWIN2", {"Zed", "Solo", "Nowhere", "zed@solo.org", "5550000"}},
                    });
  }
  std::filesystem::path contacts(const std::string& orgId = "00Dx",
                                 const std::string& file = "contacts.sqlite") {
    return snapshot(file, "Contact", contactFields(), {"Title", "Account.Name"},
                    {
                        {"003BOB", {"Fox", "Bob", "rfox@acme.com", ""}, {"", "Initech"}},
                        {"003JANE", {"Doe", "Jane", "jdoe@acme.com", ""}, {"CEO", "ACME Corporation"}},
                        {"003JOHN", {"Smith", "John", "", ""}, {"", "Hooli Inc"}},
                        {"003ANNA", {"Lee", "Anna", "", "415-555-0100"}, {"", ""}},
                        {"003YUKI", {"Tanaka", "Yuki", "", ""}, {"", "Hooli"}},
                    },
                    orgId);
  }

  TemporaryFolder folder_;
};

std::set<std::pair<std::string, std::string>> idsOf(const CrossMatchTask::Outcome& outcome) {
  std::set<std::pair<std::string, std::string>> ids;
  for (const auto& pair : outcome.pairs) ids.emplace(pair.record.sfid, pair.match.sfid);
  return ids;
}

const CrossMatchTask::Pair& pairOf(const CrossMatchTask::Outcome& outcome, const std::string& id) {
  for (const auto& pair : outcome.pairs) {
    if (pair.record.sfid == id) return pair;
  }
  throw std::runtime_error("no pair for " + id);
}

TEST_F(CrossMatchTest, ReportsLeadsThatAreContactsByEmailOrByNameWithCompanyOrPhone) {
  const auto leadsFile = leads();
  const auto contactsFile = contacts();
  std::vector<DedupeProgress> steps;
  const CrossMatchTask::Outcome outcome = CrossMatchTask::run(
      leadsFile, contactsFile, MatchSettings{}, {},
      [&steps](const DedupeProgress& step) { steps.push_back(step); });

  EXPECT_EQ(idsOf(outcome), (std::set<std::pair<std::string, std::string>>{
                                {"00QEMAIL", "003BOB"},
                                {"00QNAMECO", "003JANE"},
                                {"00QTYPO", "003JOHN"},
                                {"00QPHONE", "003ANNA"},
                            }));
  EXPECT_EQ(outcome.recordsMatched, 4);
  EXPECT_EQ(outcome.companyFrom, "Account.Name");
  EXPECT_EQ(outcome.compared,
            (std::vector<Role>{Role::email, Role::name, Role::company, Role::phone}));

  const auto& byEmail = pairOf(outcome, "00QEMAIL");
  EXPECT_EQ(byEmail.score, 1.0);
  EXPECT_EQ(byEmail.why, "E-mail the same, name different, company different.");
  EXPECT_EQ(byEmail.match.name, "Fox Bob");
  EXPECT_EQ(pairOf(outcome, "00QNAMECO").why,
            "E-mail different, name the same, company the same.");
  const auto& typo = pairOf(outcome, "00QTYPO");
  EXPECT_LT(typo.score, 1.0);
  EXPECT_LE(typo.score, 0.9998);
  EXPECT_EQ(typo.why, "Name very close, company the same.");
  EXPECT_EQ(pairOf(outcome, "00QPHONE").why, "Name the same, phone the same.");

  // Progress is data: every step is a matching step, and the last says all
  // leads were compared.
  ASSERT_FALSE(steps.empty());
  for (const DedupeProgress& step : steps) EXPECT_EQ(step.phase, DedupeProgress::Phase::matching);
  EXPECT_EQ(steps.back().done, 8);
  EXPECT_EQ(steps.back().total, 8);
}

TEST_F(CrossMatchTest, ASimilarNameAtTheSameCompanyIsSomeoneElseAtAnyStrictness) {
  const auto leadsFile = leads();
  const auto contactsFile = contacts();
  for (Strictness strictness : {Strictness::strict, Strictness::normal, Strictness::loose}) {
    MatchSettings settings;
    settings.strictness = strictness;
    const auto ids = idsOf(CrossMatchTask::run(leadsFile, contactsFile, settings, {}));
    EXPECT_EQ(ids.count({"00QEMAIL", "003BOB"}), 1u);
    EXPECT_EQ(ids.count({"00QNAMECO", "003JANE"}), 1u);
    // "jonh smith" against "john smith" is 0.97 by Jaro-Winkler: close even when strict.
    EXPECT_EQ(ids.count({"00QTYPO", "003JOHN"}), 1u);
    for (const auto& [lead, contact] : ids) {
      EXPECT_NE(lead, "00QNEAR") << contact << " at " << rawValue(strictness);
      EXPECT_NE(lead, "00QNAMESAKE") << contact << " at " << rawValue(strictness);
    }
  }
}

TEST_F(CrossMatchTest, APlusTagIsTheSameInboxAndBlankOrFillerValuesNeverAgree) {
  const auto leadsFile = snapshot("tagged.sqlite", "Lead", leadFields(), {},
                                  {{"00QTAG", {"Ann", "Other", "", "rfox+news@acme.com", ""}},
                                   {"00QFILLER", {"Unknown", "", "", "unknown", "unknown"}}});
  const auto outcome = CrossMatchTask::run(leadsFile, contacts(), MatchSettings{}, {});
  ASSERT_EQ(outcome.pairs.size(), 1u);
  EXPECT_EQ(outcome.pairs[0].match.sfid, "003BOB");
  EXPECT_EQ(outcome.pairs[0].score, 0.99);
}

TEST_F(CrossMatchTest, RefusesSnapshotsThatCannotHoldTheSameRecords) {
  const auto leadsFile = leads();
  const auto expectKind = [](const auto& call, CrossMatchError::Kind kind) {
    try {
      call();
      ADD_FAILURE() << "matched";
    } catch (const CrossMatchError& error) {
      EXPECT_EQ(error.kind(), kind) << error.description();
    }
  };
  expectKind([&] { CrossMatchTask::run(leadsFile, leadsFile, MatchSettings{}, {}); },
             CrossMatchError::Kind::sameObject);
  const auto elsewhere = contacts("00Dother", "elsewhere.sqlite");
  expectKind([&] { CrossMatchTask::run(leadsFile, elsewhere, MatchSettings{}, {}); },
             CrossMatchError::Kind::otherOrg);
  const auto companies = snapshot(
      "companies.sqlite", "Account",
      {{"Name", "Account Name", MatchKind::companyName, MatchMode::close}}, {},
      {{"001ACME", {"Acme"}}});
  expectKind([&] { CrossMatchTask::run(leadsFile, companies, MatchSettings{}, {}); },
             CrossMatchError::Kind::nothingInCommon);

  EXPECT_THROW(CrossMatchTask::run(leadsFile, folder_.path() / "none.sqlite", MatchSettings{}, {}),
               DedupeError);
  std::stop_source stop;
  stop.request_stop();
  try {
    CrossMatchTask::run(leadsFile, contacts(), MatchSettings{}, stop.get_token());
    FAIL() << "a stop request was not honoured";
  } catch (const DedupeError& error) {
    EXPECT_EQ(error.kind(), DedupeError::Kind::stopped);
  }
}

TEST(CrossMatcherTest, ComparesEveryRecordOfOneSideWithItsNeighboursOnTheOther) {
  // 3,000 leads against 3,000 contacts, each lead the contact with the same
  // number under a typo'd e-mail: found through the sorted e-mail lists alone.
  CrossMatcher::Side leads, contacts;
  leads.emails.resize(1);
  contacts.emails.resize(1);
  leads.closeEmail = true;
  for (int i = 0; i < 3000; ++i) {
    const std::string number = std::to_string(100000 + i * 7);
    contacts.emails[0].append("person" + number + "@example.org");
    leads.emails[0].append("person" + number + "@exampel.org");
  }
  const auto outcome = CrossMatcher::find(leads, contacts, MatchSettings{}, "Contacts", {}, {});
  ASSERT_EQ(outcome.pairs.size(), 3000u);
  for (const CrossMatcher::Pair& pair : outcome.pairs) EXPECT_EQ(pair.a, pair.b);
  // Bounded by the window, never all 9 million pairs.
  EXPECT_LT(outcome.comparisons, 3000 * 40);
}

}  // namespace
}  // namespace corvane

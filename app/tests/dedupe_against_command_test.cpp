// `corvane dedupe match LEADS --against CONTACTS` against the sample org:
// Leads and Contacts downloaded into snapshots (the Contacts with their
// account's name), the pairs printed as text and JSON, the decision
// workbook that marks the Leads already there, and the apply that deletes
// those marked Delete.
#include "app/dedupe_command.hpp"

#include <cstdlib>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "app/dedupe_workbook_command.hpp"
#include "app/production_guard.hpp"
#include "connections/tests/fake_cli.hpp"
#include "dedupe/decision_workbook.hpp"
#include "platform/tests/temporary_folder.hpp"
#include "dedupe/tests/typed_decisions.hpp"
#include "tools/orgsim/tests/sample_org.hpp"
#include "tools/orgsim/tests/sample_org_api.hpp"
#include "workbook/xlsx_reader.hpp"

namespace corvane {
namespace {

using ::testing::HasSubstr;

class DedupeAgainstCommandTest : public orgsim::testing::ServerFixture {
 protected:
  void SetUp() override {
    ServerFixture::SetUp();
    ::setenv("CORVANE_HOME", home_.path().c_str(), 1);
    fake_.script(testing::orgListScript(store().identity().adminUsername, server_->baseUrl()));
    cli_ = std::make_unique<SalesforceCLI>(fake_.options());
    api_ = orgsim::testing::adminClient(*server_);
    const std::string initech = create("Account", {{"Name", "Initech"}});
    const std::string acme = create("Account", {{"Name", "ACME Corporation"}});
    bob_ = create("Contact", {{"FirstName", "Bob"}, {"LastName", "Fox"},
                              {"Email", "rfox@acme.com"}, {"AccountId", initech}});
    jane_ = create("Contact", {{"FirstName", "Jane"}, {"LastName", "Doe"},
                               {"Email", "jdoe@acme.com"}, {"AccountId", acme}});
    create("Contact", {{"FirstName", "Yuki"}, {"LastName", "Tanaka"}, {"AccountId", acme}});
    byEmail_ = create("Lead", {{"FirstName", "Robert"}, {"LastName", "Fox"},
                               {"Company", "Globex"}, {"Email", "rfox@acme.com"}});
    byCompany_ = create("Lead", {{"FirstName", "Jane"}, {"LastName", "Doe"},
                                 {"Company", "Acme Corp"}, {"Email", "jane.d@gmail.com"}});
    namesake_ = create("Lead", {{"FirstName", "Jane"}, {"LastName", "Doe"},
                                {"Company", "Initrode"}});
    create("Lead", {{"FirstName", "Mark"}, {"LastName", "Tanaka"}, {"Company", "Acme"}});
  }
  void TearDown() override {
    ProductionGuard::Answers::standard().yes = false;
    ::unsetenv("CORVANE_HOME");
    ServerFixture::TearDown();
  }

  std::string create(const std::string& object, const nlohmann::json& fields) {
    auto made = admin("records/create", {{"object", object}, {"fields", fields}});
    return made["id"];
  }

  std::filesystem::path download(const std::string& object, const std::vector<std::string>& match,
                                 const std::vector<std::string>& extra = {}) {
    auto ctx = context();
    DedupeCommand::DownloadOptions options;
    for (const std::string& choice : match)
      options.match.push_back(DedupeCommand::parseMatchChoice(choice));
    options.extra = extra;
    options.runner.firstPollDelay = std::chrono::milliseconds(5);
    return DedupeCommand::download(ctx, *api_, "sample", object, options);
  }

  std::filesystem::path leads() {
    return download("Lead", {"FirstName:personName:close", "LastName:personName:close",
                             "Company:companyName:close", "Email", "Phone"});
  }
  // The company of a Contact is its account's name, kept as an extra field.
  std::filesystem::path contacts() {
    return download("Contact", {"FirstName:personName:close", "LastName:personName:close",
                                "Email", "Phone"},
                    {"Account.Name"});
  }

  CommandContext context() { return CommandContext{*cli_, out_}; }

  TemporaryFolder home_;
  testing::FakeCLI fake_;
  std::unique_ptr<SalesforceCLI> cli_;
  std::unique_ptr<SalesforceAPI::Client> api_;
  std::ostringstream out_;
  std::string bob_, jane_, byEmail_, byCompany_, namesake_;
};

TEST_F(DedupeAgainstCommandTest, ListsTheLeadsThatAreAlreadyContactsAsTextAndJSON) {
  const auto leadFile = leads();
  const auto contactFile = contacts();
  auto ctx = context();
  out_.str("");
  const auto outcome =
      DedupeCommand::crossMatch(ctx, leadFile, contactFile, MatchSettings{}, false);
  ASSERT_EQ(outcome.pairs.size(), 2u) << out_.str();
  const std::string text = out_.str();
  EXPECT_THAT(text, HasSubstr("Lead " + byEmail_ + " \"Robert Fox\" is already Contact " + bob_ +
                              " \"Bob Fox\" (1.0000). E-mail the same, name different, company "
                              "different."));
  EXPECT_THAT(text, HasSubstr("Lead " + byCompany_ + " \"Jane Doe\" is already Contact " + jane_));
  EXPECT_THAT(text, HasSubstr("2 of 4 Leads are already Contacts (2 pairs among 3 Contacts"));
  EXPECT_THAT(text, HasSubstr("company (the Contact's Account.Name)"));
  EXPECT_THAT(text, HasSubstr("corvane dedupe export"));
  EXPECT_EQ(text.find(namesake_), std::string::npos) << "a namesake at another company matched";

  out_.str("");
  DedupeCommand::crossMatch(ctx, leadFile, contactFile, MatchSettings{}, true);
  const auto json = nlohmann::json::parse(out_.str());
  EXPECT_EQ(json["object"], "Lead");
  EXPECT_EQ(json["against"], "Contact");
  EXPECT_EQ(json["companyFrom"], "Account.Name");
  EXPECT_EQ(json["compared"], nlohmann::json({"email", "name", "company", "phone"}));
  EXPECT_EQ(json["complete"], true);
  ASSERT_EQ(json["pairs"].size(), 2u);
  for (const auto& pair : json["pairs"]) {
    for (const char* key :
         {"id", "name", "againstId", "againstName", "score", "matchedOn", "differ", "why"}) {
      EXPECT_TRUE(pair.contains(key)) << key;
    }
  }
  const auto& byCompany = json["pairs"][0]["id"] == byCompany_ ? json["pairs"][0] : json["pairs"][1];
  EXPECT_EQ(byCompany["againstId"], jane_);
  EXPECT_EQ(byCompany["matchedOn"], nlohmann::json({"name", "company"}));
  EXPECT_EQ(byCompany["differ"], nlohmann::json({"email"}));
  EXPECT_EQ(json["stats"]["records"], 4);
  EXPECT_EQ(json["stats"]["againstRecords"], 3);
  EXPECT_EQ(json["stats"]["recordsMatched"], 2);
  EXPECT_EQ(json["stats"]["pairs"], 2);
  EXPECT_GT(json["stats"]["comparisons"], 0);

  // Only a lookup the object has leads to another record's field.
  try {
    download("Contact", {"Email", "Nobody.Name"});
    FAIL() << "a field of an unknown lookup was accepted";
  } catch (const DedupeError& error) {
    EXPECT_EQ(error.kind(), DedupeError::Kind::unknownField);
  }

  // A snapshot matched against one of the same object is a duplicate match.
  EXPECT_THROW(DedupeCommand::crossMatch(ctx, leadFile, leadFile, MatchSettings{}, false),
               CrossMatchError);
}

TEST_F(DedupeAgainstCommandTest,
       TheWorkbookMarksTheLeadsAlreadyThereAndApplyDeletesThoseMarkedDelete) {
  const auto leadFile = leads();
  const auto contactFile = contacts();
  auto ctx = context();
  const auto workbook = home_.path() / "leads.xlsx";
  DedupeWorkbookCommand::ExportOptions options;
  options.against = contactFile;
  out_.str("");
  DedupeWorkbookCommand::exportWorkbook(ctx, leadFile, workbook, options);
  EXPECT_THAT(out_.str(), HasSubstr("Marked 2 records already there as Contacts"));

  auto grid = XlsxReader(workbook).readSheet(0);
  ASSERT_TRUE(grid);
  const auto column = [&](const std::string& header) {
    return std::find(grid->headers.begin(), grid->headers.end(), header) - grid->headers.begin();
  };
  const auto already = column("Already a Contact");
  const auto otherName = column("Contact Name");
  const auto why = column("Why These Are Together");
  ASSERT_LT(static_cast<std::size_t>(already), grid->headers.size());
  ASSERT_EQ(grid->rows.size(), 2u);  // no group among the leads: only the two marked
  for (std::size_t r = 0; r < grid->rows.size(); ++r) {
    const auto at = static_cast<std::ptrdiff_t>(r);
    if (grid->cell(at, 1) != byEmail_) continue;
    EXPECT_EQ(grid->cell(at, already), bob_);
    EXPECT_EQ(grid->cell(at, otherName), "Bob Fox");
    EXPECT_EQ(grid->cell(at, why), "Already a Contact: E-mail the same, name different, company "
                                   "different.");
  }

  // Typed Delete on one of them: read back as such, planned, left alone by a
  // dry run, then deleted by the apply.
  const auto edited = home_.path() / "edited.xlsx";
  testing::typeDecisions(workbook, {{byEmail_, "Delete"}}, edited);
  out_.str("");
  const auto decisions = DedupeWorkbookCommand::showDecisions(ctx, leadFile, edited, {}, false);
  EXPECT_EQ(decisions.alreadyDeletes, std::vector<std::string>{byEmail_});
  EXPECT_TRUE(decisions.problems.empty());

  DedupeCommand::ResolveOptions resolve;
  resolve.decisions = edited;
  resolve.dryRun = true;
  out_.str("");
  DedupeCommand::apply(ctx, *api_, leadFile, resolve);
  EXPECT_THAT(out_.str(),
              HasSubstr("Already there as Contact, marked Delete:\n  delete " + byEmail_ +
                        " (Robert Fox). Already there as Contact " + bob_ + " (Bob Fox).\n"));
  EXPECT_THAT(out_.str(), HasSubstr("1 record already there to delete."));
  EXPECT_THAT(out_.str(), HasSubstr("Dry run: nothing was changed."));
  EXPECT_EQ(query("SELECT Id FROM Lead")["totalSize"], 4);

  // A production org asks first, as for every apply.
  resolve.dryRun = false;
  fake_.script(testing::orgListScript(store().identity().adminUsername, server_->baseUrl(),
                                      R"("orgId":"00D000000000001AAA","isSandbox":false,)"));
  cli_ = std::make_unique<SalesforceCLI>(fake_.options());
  auto production = context();
  if (!ProductionGuard::Answers::standard().inputIsTerminal()) {
    try {
      DedupeCommand::apply(production, *api_, leadFile, resolve);
      FAIL() << "a production org was written without --yes";
    } catch (const ProductionWriteRefused& error) {
      EXPECT_THAT(error.description(), HasSubstr("and delete 1 record already there"));
    }
    EXPECT_EQ(query("SELECT Id FROM Lead")["totalSize"], 4);
  }
  ProductionGuard::Answers::standard().yes = true;
  out_.str("");
  DedupeCommand::apply(production, *api_, leadFile, resolve);
  EXPECT_THAT(out_.str(), HasSubstr("Deleted " + byEmail_ + " (already there)\n"));
  EXPECT_THAT(out_.str(), HasSubstr("1 done, 0 failed"));
  EXPECT_THAT(out_.str(), HasSubstr("Results: "));
  EXPECT_EQ(query("SELECT Id FROM Lead")["totalSize"], 3);
  EXPECT_EQ(query("SELECT Id FROM Lead WHERE Id = '" + byEmail_ + "'")["totalSize"], 0);
}

}  // namespace
}  // namespace corvane

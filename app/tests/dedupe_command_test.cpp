// `corvane dedupe` against the sample org: a download into a snapshot,
// listing (as text and JSON) and deleting.
#include "app/dedupe_command.hpp"

#include <cstdlib>
#include <sstream>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "app/command_error.hpp"
#include "connections/tests/fake_cli.hpp"
#include "dedupe/record_store.hpp"
#include "dedupe/snapshot_catalog.hpp"
#include "platform/tests/temporary_folder.hpp"
#include "tools/orgsim/tests/sample_org.hpp"

namespace corvane {
namespace {

class DedupeCommandTest : public orgsim::testing::ServerFixture {
 protected:
  void SetUp() override {
    ServerFixture::SetUp();
    ::setenv("CORVANE_HOME", home_.path().c_str(), 1);
    orgsim::testing::addAccounts(store(), 25);
    fake_.script(R"(echo '{"status":0,"result":{"nonScratchOrgs":[{"username":")" +
                 store().identity().adminUsername +
                 R"(","alias":"sample","instanceUrl":")" + server_->baseUrl() +
                 R"("},{"username":"other@sample.org","alias":"other","instanceUrl":")" +
                 server_->baseUrl() + R"("}]}}')");
    cli_ = std::make_unique<SalesforceCLI>(fake_.options());
    api_ = std::make_unique<SalesforceAPI::Client>([this](const std::string&) {
      // Once signed out, the CLI only has the ended session to give.
      return SalesforceAPI::Session{
          signedOut_ ? "00D000000000001!ended" : orgsim::Sessions::issue(store(), "").token,
          server_->baseUrl(), "62.0", {}};
    });
  }
  void TearDown() override {
    ::unsetenv("CORVANE_HOME");
    ServerFixture::TearDown();
  }

  DedupeCommand::DownloadOptions accountOptions() {
    DedupeCommand::DownloadOptions options;
    options.match = {DedupeCommand::parseMatchChoice("name"),
                     DedupeCommand::parseMatchChoice("Industry:text:close")};
    options.extra = {"AnnualRevenue"};
    options.pageSize = 7;
    options.runner.firstPollDelay = std::chrono::milliseconds(5);
    return options;
  }

  CommandContext context() { return CommandContext{*cli_, out_}; }

  TemporaryFolder home_;
  testing::FakeCLI fake_;
  std::unique_ptr<SalesforceCLI> cli_;
  std::unique_ptr<SalesforceAPI::Client> api_;
  bool signedOut_ = false;
  std::ostringstream out_;
};

TEST_F(DedupeCommandTest, DownloadsAnObjectIntoANewSnapshot) {
  auto ctx = context();
  auto url = DedupeCommand::download(ctx, *api_, "sample", "Account", accountOptions());
  EXPECT_EQ(url.parent_path().parent_path(), SnapshotCatalog::base());
  EXPECT_NE(out_.str().find("Stored "), std::string::npos) << out_.str();

  auto snapshot = RecordStore::open(url);
  SnapshotInfo info = snapshot->info();
  EXPECT_TRUE(info.complete);
  EXPECT_GE(info.recordCount, 25);
  EXPECT_EQ(info.recordCount, info.totalExpected);
  EXPECT_EQ(info.downloadedBy, store().identity().adminUsername);
  ASSERT_EQ(info.matchFields.size(), 2u);
  EXPECT_EQ(info.matchFields[0].name, "Name");  // the describe's spelling
  EXPECT_EQ(info.matchFields[0].kind, MatchKind::companyName);
  EXPECT_EQ(info.matchFields[0].mode, MatchMode::close);
  EXPECT_EQ(info.matchFields[1].mode, MatchMode::close);
  auto hits = snapshot->searchRids("Account 0007");
  ASSERT_EQ(hits.size(), 1u);
  auto record = snapshot->records(hits)[0];
  EXPECT_EQ(record.extras[0], "7000");
  EXPECT_EQ(snapshot->normalized(hits)[0].second[0], "account 0007");

  out_.str("");
  DedupeCommand::listSnapshots(ctx, *api_, "sample");
  EXPECT_NE(out_.str().find("complete"), std::string::npos) << out_.str();
  EXPECT_NE(out_.str().find(url.string()), std::string::npos) << out_.str();

  snapshot.reset();
  DedupeCommand::remove(ctx, url);
  EXPECT_FALSE(std::filesystem::exists(url));
  EXPECT_THROW(DedupeCommand::remove(ctx, url), DedupeCommandError);
}

TEST_F(DedupeCommandTest, SnapshotsListAsJSONWithStableKeys) {
  auto ctx = context();
  DedupeCommand::listSnapshots(ctx, *api_, "sample", true);
  auto empty = nlohmann::json::parse(out_.str());
  EXPECT_EQ(empty["login"], store().identity().adminUsername);
  EXPECT_TRUE(empty["snapshots"].empty());
  EXPECT_EQ(empty["bytesUsed"], 0);

  auto url = DedupeCommand::download(ctx, *api_, "sample", "Account", accountOptions());
  out_.str("");
  DedupeCommand::listSnapshots(ctx, *api_, "sample", true);
  const auto json = nlohmann::json::parse(out_.str());
  ASSERT_EQ(json["snapshots"].size(), 1u);
  const auto& entry = json["snapshots"][0];
  EXPECT_EQ(entry["file"], url.string());
  EXPECT_EQ(entry["object"], "Account");
  EXPECT_EQ(entry["objectLabel"], "Account");
  EXPECT_EQ(entry["records"], 25);
  EXPECT_EQ(entry["expected"], 25);
  EXPECT_EQ(entry["complete"], true);
  EXPECT_GT(entry["bytes"].get<std::int64_t>(), 0);
  EXPECT_EQ(entry["downloadedBy"], store().identity().adminUsername);
  EXPECT_EQ(entry["downloadedAt"].get<std::string>().substr(10, 1), "T") << entry["downloadedAt"];
  EXPECT_GT(json["bytesUsed"].get<std::int64_t>(), 0);

  // A snapshot from before logins were recorded says so with null.
  RecordStore::Creation older;
  older.orgId = store().identity().orgId;
  older.objectName = "Lead";
  older.matchFields = {{"Email", "Email", MatchKind::email, MatchMode::exact}};
  RecordStore::create(SnapshotCatalog::newURL(older.orgId, "Lead"), older)->close();
  out_.str("");
  DedupeCommand::listSnapshots(ctx, *api_, "sample", true);
  const auto both = nlohmann::json::parse(out_.str());
  ASSERT_EQ(both["snapshots"].size(), 2u);
  for (const auto& snapshot : both["snapshots"]) {
    if (snapshot["object"] != "Lead") continue;
    EXPECT_TRUE(snapshot["downloadedBy"].is_null()) << snapshot;
    EXPECT_TRUE(snapshot["objectLabel"].is_null()) << snapshot;
    EXPECT_EQ(snapshot["complete"], false);
  }
}

TEST_F(DedupeCommandTest, UnknownFieldsAndBadChoicesAreRefusedBeforeAnythingIsMade) {
  auto ctx = context();
  auto options = accountOptions();
  options.match.push_back({"NoSuchField__c", std::nullopt, std::nullopt});
  EXPECT_THROW(DedupeCommand::download(ctx, *api_, "sample", "Account", options),
               DedupeCommandError);
  EXPECT_THROW(DedupeCommand::parseMatchChoice("Name:surname"), DedupeCommandError);
  EXPECT_THROW(DedupeCommand::parseMatchChoice(":email"), DedupeCommandError);
  EXPECT_EQ(DedupeCommand::parseMatchChoice("Email:email:exact"),
            (DedupeCommand::MatchChoice{"Email", MatchKind::email, MatchMode::exact}));

  // A query the org refuses is reported in its words and leaves no file behind.
  std::ostringstream err;
  DedupeCommand::DownloadOptions recent = accountOptions();
  recent.match = {DedupeCommand::parseMatchChoice("Name")};
  recent.extra.clear();
  int status = runReportingFailures(
      [&] { DedupeCommand::download(ctx, *api_, "sample", "RecentlyViewed", recent); }, err);
  EXPECT_EQ(status, 1);
  EXPECT_EQ(err.str().rfind("Salesforce could not prepare the download: ", 0), 0u)
      << err.str();
  EXPECT_TRUE(SnapshotCatalog::snapshots(store().identity().orgId).empty() ||
              std::filesystem::is_empty(SnapshotCatalog::directory(store().identity().orgId)));
}

}  // namespace
}  // namespace corvane

namespace corvane {
namespace {

// Matching a snapshot on disk: the printed groups, the JSON form, and records
// marked "not a duplicate" left out afterwards.
class DedupeMatchCommandTest : public ::testing::Test {
 protected:
  void SetUp() override {
    RecordStore::Creation creation;
    creation.orgId = "00D000000000001";
    creation.objectName = "Contact";
    creation.nameFieldLabel = "Full Name";
    creation.matchFields = {{"Name", "Full Name", MatchKind::personName, MatchMode::close},
                            {"Email", "Email", MatchKind::email, MatchMode::exact}};
    url_ = folder_.path() / "contacts.sqlite";
    auto store = RecordStore::create(url_, creation);
    const auto row = [](std::string id, std::string name, std::string email) {
      return RecordStore::Incoming{id, name, "", "", {name, email}, {}};
    };
    store->ingest({row("003000000000001", "Martha Jones", "m@x.com"),
                   row("003000000000002", "Marhta Jones", "m@x.com"),
                   row("003000000000003", "Peter Quinn", "p@x.com"),
                   row("003000000000004", "Peter Quinn", "p@x.com"),
                   row("003000000000005", "Anna Lee", "a@x.com")},
                  "null");
  }

  CommandContext context() { return CommandContext{cli_, out_}; }

  TemporaryFolder folder_;
  std::filesystem::path url_;
  testing::FakeCLI fake_;
  SalesforceCLI cli_{fake_.options()};
  std::ostringstream out_;
};

TEST_F(DedupeMatchCommandTest, PrintsGroupsWithWhyAndStatistics) {
  auto ctx = context();
  DedupeCommand::MatchOptions options;
  const MatchOutcome outcome = DedupeCommand::match(ctx, url_, options);
  ASSERT_EQ(outcome.groups.size(), 2U);
  const std::string text = out_.str();
  EXPECT_NE(text.find("Finding exact matches"), std::string::npos) << text;
  EXPECT_NE(text.find("Matching fields are the same or very close."), std::string::npos) << text;
  EXPECT_NE(text.find("All matching fields are exactly the same."), std::string::npos) << text;
  EXPECT_NE(text.find("003000000000002  Marhta Jones"), std::string::npos) << text;
  EXPECT_NE(text.find("2 groups holding 4 records"), std::string::npos) << text;

  out_.str("");
  options.json = true;
  DedupeCommand::match(ctx, url_, options);
  const auto json = nlohmann::json::parse(out_.str());
  ASSERT_EQ(json["groups"].size(), 2U);
  EXPECT_EQ(json["groups"][1]["weakestLink"], 1.0);
  EXPECT_EQ(json["groups"][0]["members"][1]["values"]["Name"], "Marhta Jones");
  EXPECT_EQ(json["stats"]["groupCount"], 2);
}

TEST_F(DedupeMatchCommandTest, ExcludedRecordsStayOutOfLaterMatches) {
  auto ctx = context();
  DedupeCommand::exclude(ctx, url_, {"003000000000004"});
  EXPECT_NE(out_.str().find("Marked 1 record"), std::string::npos) << out_.str();
  const MatchOutcome outcome = DedupeCommand::match(ctx, url_, {});
  ASSERT_EQ(outcome.groups.size(), 1U);
  EXPECT_EQ(outcome.stats.excludedByUser, 1);

  // An unknown Id marks nothing, not even the known ones given with it.
  EXPECT_THROW(DedupeCommand::exclude(ctx, url_, {"003000000000001", "003999999999999"}),
               DedupeCommandError);
  EXPECT_EQ(RecordStore::open(url_)->exclusions().size(), 1U);
}

}  // namespace
}  // namespace corvane

namespace corvane {
namespace {

// Resolving duplicates in the sample org: Contacts matched, planned with the
// oldest record kept and merged; a row lock retried; a sign-out part-way; a
// group of Cases skipped; records changed since the snapshot stopping the run.
class DedupeResolveCommandTest : public DedupeCommandTest {
 protected:
  void SetUp() override {
    DedupeCommandTest::SetUp();
    // Groups: two Marthas (the older one has no title), three Peters, two
    // Annas; Zed has no twin.
    martha1_ = contact("Martha", "Jones", "martha@x.org", "", "2020-02-01T09:00:00.000Z");
    martha2_ = contact("Marhta", "Jones", "martha@x.org", "CFO & <Board>", "2023-05-01T09:00:00.000Z");
    peter1_ = contact("Peter", "Quinn", "peter@x.org", "", "2022-01-01T09:00:00.000Z");
    peter2_ = contact("Peter", "Quinn", "peter@x.org", "Pilot", "2019-01-01T09:00:00.000Z");
    peter3_ = contact("Peter", "Quinn", "peter@x.org", "", "2024-01-01T09:00:00.000Z");
    anna1_ = contact("Anna", "Lee", "anna@x.org", "", "2021-01-01T09:00:00.000Z");
    anna2_ = contact("Anna", "Lee", "anna@x.org", "", "2021-06-01T09:00:00.000Z");
    zed_ = contact("Zed", "Solo", "zed@x.org", "", "2021-06-01T09:00:00.000Z");
  }

  std::string contact(const std::string& first, const std::string& last, const std::string& email,
                      const std::string& title, const std::string& created) {
    auto made = admin("records/create",
                      {{"object", "Contact"},
                       {"fields", {{"FirstName", first}, {"LastName", last}, {"Email", email},
                                   {"Title", title}, {"Department", "Show"}}}});
    std::string id = made["id"];
    admin("records/update", {{"id", id}, {"fields", {{"CreatedDate", created}}}});
    return id;
  }

  std::filesystem::path downloadContacts() {
    auto ctx = context();
    DedupeCommand::DownloadOptions options;
    options.match = {DedupeCommand::parseMatchChoice("Name:personName:close"),
                     DedupeCommand::parseMatchChoice("Email:email:exact")};
    options.extra = {"Title"};
    options.scope = "Department = 'Show'";
    options.runner.firstPollDelay = std::chrono::milliseconds(5);
    return DedupeCommand::download(ctx, *api_, "sample", "Contact", options);
  }

  DedupeCommand::ResolveOptions mergeOldest() {
    DedupeCommand::ResolveOptions options;
    options.keeper = KeeperRule::oldest;
    options.action = ResolutionAction::merge();
    options.lockPause = std::chrono::milliseconds(20);
    return options;
  }

  // The record's row, whether in the Recycle Bin or not; null when purged.
  nlohmann::json row(const std::string& id) {
    auto reply = query("SELECT Id, IsDeleted, MasterRecordId, Title FROM Contact WHERE Id = '" +
                           id + "'",
                       200, "queryAll");
    return reply["records"].empty() ? nlohmann::json() : reply["records"][0];
  }

  std::string martha1_, martha2_, peter1_, peter2_, peter3_, anna1_, anna2_, zed_;
};

TEST_F(DedupeResolveCommandTest, MergesIntoTheOldestRecordAfterALockAndKeepsTheChosenValues) {
  auto url = downloadContacts();
  auto ctx = context();
  out_.str("");
  ResolutionPlan plan = DedupeCommand::plan(ctx, *api_, url, mergeOldest());
  ASSERT_EQ(plan.merges.size(), 4u) << out_.str();
  EXPECT_TRUE(plan.skipped.empty());
  EXPECT_NE(out_.str().find("Kept because it was created first (2019-01-01)"), std::string::npos)
      << out_.str();
  EXPECT_NE(out_.str().find("3 groups: 3 to resolve (4 merges"), std::string::npos) << out_.str();

  admin("faults", {{"path", "/services/Soap/*"}, {"fault", "UNABLE_TO_LOCK_ROW"}, {"count", 1}});
  client().Delete("/_admin/requests");
  out_.str("");
  DedupeCommand::apply(ctx, *api_, url, mergeOldest());
  const std::string text = out_.str();
  EXPECT_NE(text.find("All 7 records are as they were in the snapshot."), std::string::npos) << text;
  EXPECT_NE(text.find("Merged " + martha2_ + " into " + martha1_), std::string::npos) << text;
  EXPECT_NE(text.find("4 done, 0 failed, 0 to check in Salesforce, 0 not done."),
            std::string::npos)
      << text;

  for (const auto& [loser, keeper] : {std::pair{martha2_, martha1_}, {peter1_, peter2_},
                                      {peter3_, peter2_}, {anna2_, anna1_}}) {
    auto gone = row(loser);
    EXPECT_EQ(gone["IsDeleted"], true) << loser;
    EXPECT_EQ(gone["MasterRecordId"], keeper) << loser;
    EXPECT_EQ(row(keeper)["IsDeleted"], false) << keeper;
  }
  // The kept Martha had no title: it took her twin's, unchanged by the envelope.
  EXPECT_EQ(row(martha1_)["Title"], "CFO & <Board>");
  EXPECT_EQ(row(peter2_)["Title"], "Pilot");
  EXPECT_EQ(row(zed_)["IsDeleted"], false);
  // The lock was met once and tried again: five merge calls for four merges.
  auto log = client().Get("/_admin/requests?limit=1000");
  ASSERT_TRUE(log);
  int locked = 0;
  int calls = 0;
  const auto requests = nlohmann::json::parse(log->body)["requests"];
  for (const auto& request : requests) {
    if (request["path"].get<std::string>().rfind("/services/Soap/", 0) != 0) continue;
    ++calls;
    if (request["fault"] == "UNABLE_TO_LOCK_ROW") ++locked;
  }
  EXPECT_EQ(locked, 1);
  EXPECT_EQ(calls, 5);
}

TEST_F(DedupeResolveCommandTest, ASignOutPartWayStopsTheRunAndSaysWhatWasAndWasNotDone) {
  auto url = downloadContacts();
  auto ctx = context();
  auto options = mergeOldest();
  options.progress = [this](std::size_t done, std::size_t) {
    if (done != 1) return;
    signedOut_ = true;  // a fresh session would be taken, and the run go on, otherwise
    admin("tokens/expire", {{"username", store().identity().adminUsername}});
  };
  out_.str("");
  std::ostringstream err;
  int status = runReportingFailures([&] { DedupeCommand::apply(ctx, *api_, url, options); }, err);
  EXPECT_EQ(status, 1);
  token_ = orgsim::Sessions::issue(store(), "").token;  // for the checks below
  EXPECT_EQ(err.str(),
            "Salesforce signed you out part-way: 1 change was made, 3 were not. Log in again, "
            "then download a fresh copy and apply again to finish.\n");
  const std::string text = out_.str();
  EXPECT_NE(text.find("Merged " + martha2_ + " into " + martha1_), std::string::npos) << text;
  EXPECT_NE(text.find("Not merged " + peter1_ + " into " + peter2_ +
                      " (group 2): Not attempted: Salesforce signed you out before this merge."),
            std::string::npos)
      << text;
  EXPECT_EQ(row(martha2_)["IsDeleted"], true);
  for (const auto& id : {peter1_, peter3_, anna2_}) EXPECT_EQ(row(id)["IsDeleted"], false) << id;
}

TEST_F(DedupeResolveCommandTest, RecordsChangedSinceTheSnapshotStopTheRunBeforeAnyChange) {
  auto url = downloadContacts();
  admin("clock", {{"advanceSeconds", 60}});
  admin("records/update", {{"id", peter3_}, {"fields", {{"Title", "Changed"}}}});
  auto ctx = context();
  out_.str("");
  std::ostringstream err;
  EXPECT_EQ(runReportingFailures([&] { DedupeCommand::apply(ctx, *api_, url, mergeOldest()); }, err),
            1);
  EXPECT_EQ(err.str(), "Download a fresh copy before changing these records.\n");
  EXPECT_NE(out_.str().find(peter3_ + " was changed in Salesforce after the snapshot."),
            std::string::npos)
      << out_.str();
  for (const auto& id : {martha2_, peter1_, peter3_, anna2_}) {
    EXPECT_EQ(row(id)["IsDeleted"], false) << id;
  }
}

TEST_F(DedupeResolveCommandTest, NotADuplicateMarksKeepRecordsOutAndDryRunChangesNothing) {
  auto url = downloadContacts();
  auto ctx = context();
  DedupeCommand::exclude(ctx, url, {anna2_});
  auto options = mergeOldest();
  options.dryRun = true;
  out_.str("");
  DedupeCommand::apply(ctx, *api_, url, options);
  EXPECT_NE(out_.str().find("2 groups: 2 to resolve (3 merges"), std::string::npos) << out_.str();
  EXPECT_NE(out_.str().find("Dry run: nothing was changed."), std::string::npos) << out_.str();
  EXPECT_EQ(row(martha2_)["IsDeleted"], false);
}

TEST_F(DedupeResolveCommandTest, FillingGapsCopiesALosersValueIntoTheKeptRecordOnly) {
  auto url = downloadContacts();
  auto ctx = context();
  auto options = mergeOldest();
  options.action = ResolutionAction::fillGaps();
  out_.str("");
  DedupeCommand::apply(ctx, *api_, url, options);
  EXPECT_NE(out_.str().find("Updated " + martha1_), std::string::npos) << out_.str();
  EXPECT_NE(out_.str().find("1 done, 0 failed"), std::string::npos) << out_.str();
  EXPECT_EQ(row(martha1_)["Title"], "CFO & <Board>");
  EXPECT_EQ(row(martha2_)["IsDeleted"], false);
  EXPECT_EQ(row(peter2_)["Title"], "Pilot");  // already filled: not overwritten
  const auto blank = row(peter1_)["Title"];
  EXPECT_TRUE(blank.is_null() || blank == "") << blank;
}

TEST_F(DedupeResolveCommandTest, CasesAreNotMergedAndTheGroupSaysWhy) {
  for (int i = 0; i < 2; ++i) {
    admin("records/create", {{"object", "Case"}, {"fields", {{"Subject", "Printer on fire"}}}});
  }
  auto ctx = context();
  DedupeCommand::DownloadOptions download;
  download.match = {DedupeCommand::parseMatchChoice("Subject:text:exact")};
  download.runner.firstPollDelay = std::chrono::milliseconds(5);
  auto url = DedupeCommand::download(ctx, *api_, "sample", "Case", download);
  out_.str("");
  ResolutionPlan plan = DedupeCommand::plan(ctx, *api_, url, mergeOldest());
  ASSERT_EQ(plan.skipped.size(), 1u) << out_.str();
  EXPECT_EQ(plan.skipped[0].second,
            "Corvane merges only Accounts, Contacts and Leads, so these Case records cannot be "
            "merged.");
  EXPECT_NE(out_.str().find("skipped: Corvane merges only"), std::string::npos) << out_.str();

  out_.str("");
  auto json = mergeOldest();
  json.json = true;
  DedupeCommand::plan(ctx, *api_, url, json);
  auto parsed = nlohmann::json::parse(out_.str());
  EXPECT_EQ(parsed["skipped"][0]["reason"], plan.skipped[0].second);
  EXPECT_EQ(parsed["merges"].size(), 0u);
}

}  // namespace
}  // namespace corvane

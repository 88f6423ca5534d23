// `corvane dedupe` against the sample org: a download into a snapshot,
// listing (as text and JSON) and deleting.
#include "app/dedupe_command.hpp"

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <sstream>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "app/command_error.hpp"
#include "app/dedupe_workbook_command.hpp"
#include "connections/tests/fake_cli.hpp"
#include "dedupe/record_store.hpp"
#include "dedupe/snapshot_catalog.hpp"
#include "platform/child_process.hpp"
#include "platform/tests/temporary_folder.hpp"
#include "tools/orgsim/tests/sample_org.hpp"
#include "workbook/xlsx_reader.hpp"
#include "workbook/xlsx_writer.hpp"

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

// The program itself: repeated --keep-values before the snapshot, and a bad rule.
TEST_F(DedupeMatchCommandTest, KeepValuesParseOneChoicePerOptionInTheProgram) {
  const auto run = [this](std::vector<std::string> arguments) {
    ProcessRequest request;
    request.executable = CORVANE_EXECUTABLE;
    request.arguments = std::move(arguments);
    request.environment = {{"PATH", "/usr/bin:/bin"},
                           {"HOME", folder_.path().string()},
                           {"CORVANE_HOME", (folder_.path() / "support").string()},
                           {"CORVANE_SF_PATH", fake_.path()}};
    request.timeout = std::chrono::seconds(60);
    return ChildProcess::run(request);
  };
  auto result = run({"dedupe", "plan", "--action", "deleteLosers", "--keep-values", "mostRecent",
                     "--keep-values", "Email=longest,name=keeper", url_.string()});
  EXPECT_EQ(result.exitStatus, 0) << result.standardError;
  EXPECT_NE(result.standardOutput.find("2 groups: 2 to resolve (0 merges, 2 deletes"),
            std::string::npos)
      << result.standardOutput;

  result = run({"dedupe", "plan", "--keep-values", "Email=newest", url_.string()});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_EQ(result.standardError, DedupeError::badValueRule("Email=newest").description() + "\n");
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

namespace corvane {
namespace {

// Applying a decision workbook in the sample org: the export edited the way
// a person does in a spreadsheet program (rows sorted, a column added,
// actions typed in any case), saved again by LibreOffice when it is
// installed, then applied; and the results workbook that every apply writes.
class DedupeDecisionsCommandTest : public DedupeResolveCommandTest {
 protected:
  static std::vector<std::vector<std::string>> plainRows(const ImportGrid& grid) {
    std::vector<std::vector<std::string>> rows(grid.rows.size());
    for (std::size_t r = 0; r < rows.size(); ++r) {
      for (std::size_t c = 0; c < grid.headers.size(); ++c) {
        rows[r].push_back(
            std::string(grid.cell(static_cast<std::ptrdiff_t>(r), static_cast<std::ptrdiff_t>(c))));
      }
    }
    return rows;
  }

  // The exported workbook with actions typed by Record Id, its rows sorted by
  // name (last first) and a "Notes" column put in front of the others.
  std::filesystem::path edited(const std::filesystem::path& exported,
                               const std::map<std::string, std::string>& actions) {
    auto grid = XlsxReader(exported).readSheet(0);
    EXPECT_TRUE(grid);
    const std::size_t idColumn = 1, actionColumn = 2, nameColumn = 4;
    auto rows = plainRows(*grid);
    for (auto& row : rows) {
      if (auto found = actions.find(row[idColumn]); found != actions.end()) {
        row[actionColumn] = found->second;
      }
    }
    std::stable_sort(rows.begin(), rows.end(),
                     [&](const auto& a, const auto& b) { return a[nameColumn] > b[nameColumn]; });
    const auto path = home_.path() / "edited.xlsx";
    XlsxWriter writer(path);
    writer.addSheet(*grid->sheetName);
    writer.writeText(0, 0, "Notes");
    for (std::size_t c = 0; c < grid->headers.size(); ++c)
      writer.writeText(0, c + 1, grid->headers[c]);
    for (std::size_t r = 0; r < rows.size(); ++r) {
      writer.writeText(r + 1, 0, r % 2 == 0 ? "checked" : "");
      for (std::size_t c = 0; c < rows[r].size(); ++c) {
        writer.writeText(r + 1, c + 1, rows[r][c]);
      }
    }
    writer.close();
    return path;
  }

  // The workbook opened and saved again as .xlsx by LibreOffice Calc; none
  // when soffice is not installed (scripts/setup installs it).
  std::optional<std::filesystem::path> resavedByLibreOffice(const std::filesystem::path& workbook) {
    if (std::system("command -v soffice >/dev/null 2>&1") != 0) return std::nullopt;
    const auto out = home_.path() / "libreoffice";
    std::filesystem::create_directories(out);
    const std::string command = "soffice -env:UserInstallation=file://" +
                                (home_.path() / "lo-profile").string() +
                                " --headless --convert-to xlsx --outdir '" + out.string() + "' '" +
                                workbook.string() + "' >/dev/null 2>&1";
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
    return out / workbook.filename();
  }

  std::filesystem::path exported(const std::filesystem::path& snapshot) {
    auto ctx = context();
    const auto path = home_.path() / "decisions.xlsx";
    DedupeWorkbookCommand::exportWorkbook(ctx, snapshot, path, {});
    return path;
  }

  // The results workbook's rows by Record Id, from the path the apply printed.
  std::map<std::string, std::vector<std::string>> results(const std::string& text) {
    const std::string marker = "Results: ";
    const auto at = text.find(marker);
    EXPECT_NE(at, std::string::npos) << text;
    if (at == std::string::npos) return {};
    const auto end = text.find('\n', at);
    const std::filesystem::path path = text.substr(at + marker.size(), end - at - marker.size());
    XlsxReader reader(path);
    EXPECT_EQ(reader.sheetNames(), std::vector<std::string>{"Results - Contact"});
    auto grid = reader.readSheet(0);
    EXPECT_EQ(grid->headers, (std::vector<std::string>{"Group", "Record Id", "Name", "Action",
                                                       "Outcome", "Message"}));
    std::map<std::string, std::vector<std::string>> rows;
    for (const auto& row : plainRows(*grid)) rows[row[1]] = row;
    return rows;
  }
};

TEST_F(DedupeDecisionsCommandTest, AWorkbookSavedByASpreadsheetProgramDrivesTheApply) {
  auto url = downloadContacts();
  auto workbook = edited(
      exported(url),
      {{martha2_, "keep"}, {martha1_, "Delete"}, {peter1_, "DELETE "}, {peter3_, "not duplicate"}});
  if (auto resaved = resavedByLibreOffice(workbook)) {
    workbook = *resaved;
  } else {
    std::cout << "soffice is not installed: the workbook is applied as written, not as LibreOffice "
                 "saves it.\n";
  }
  auto ctx = context();
  auto options = mergeOldest();
  options.decisions = workbook;
  out_.str("");
  DedupeCommand::apply(ctx, *api_, url, options);
  const std::string text = out_.str();
  // Martha: the newer record was marked Keep against the rule. Peter: no
  // Keep, so the oldest of the rows left blank stays. Anna: all blank.
  EXPECT_NE(text.find("keep " + martha2_ + " (Marhta Jones). Marked Keep in the workbook."),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("no record was marked Keep"), std::string::npos) << text;
  EXPECT_NE(text.find("2 groups: 2 to resolve (2 merges"), std::string::npos) << text;
  EXPECT_NE(text.find("2 done, 0 failed"), std::string::npos) << text;
  EXPECT_NE(text.find("Remembered 1 record as not a duplicate"), std::string::npos) << text;

  EXPECT_EQ(row(martha1_)["MasterRecordId"], martha2_);
  EXPECT_EQ(row(peter1_)["MasterRecordId"], peter2_);
  for (const auto& id : {martha2_, peter2_, peter3_, anna1_, anna2_, zed_}) {
    EXPECT_EQ(row(id)["IsDeleted"], false) << id;
  }
  EXPECT_EQ(RecordStore::open(url)->exclusions().size(), 1u);

  const auto rows = results(text);
  ASSERT_EQ(rows.size(), 7u);
  EXPECT_EQ(rows.at(martha1_)[3], "Merge into " + martha2_);
  EXPECT_EQ(rows.at(martha1_)[4], "Merged");
  EXPECT_EQ(rows.at(martha2_)[4], "Kept");
  EXPECT_EQ(rows.at(peter3_)[3], "Not a duplicate");
  EXPECT_EQ(rows.at(peter3_)[4], "Remembered");
  EXPECT_EQ(rows.at(anna1_)[4], "Left untouched");
  EXPECT_EQ(rows.at(peter1_)[0], "2");

  // Peter 3 stays out of later matches; Anna's pair is still found.
  out_.str("");
  DedupeCommand::MatchOptions match;
  auto again = DedupeCommand::match(ctx, url, match);
  EXPECT_EQ(again.stats.excludedByUser, 1);
}

TEST_F(DedupeDecisionsCommandTest, AWorkbookWithProblemsChangesNothingAndListsThem) {
  auto url = downloadContacts();
  const auto workbook = exported(url);
  auto ctx = context();
  auto options = mergeOldest();
  options.decisions = edited(workbook, {{martha1_, "Delete"},
                                        {martha2_, "Delete"},
                                        {peter1_, "Keep"},
                                        {peter2_, "Keep"},
                                        {peter3_, "Delete"},
                                        {anna1_, "Merge"}});
  out_.str("");
  std::ostringstream err;
  EXPECT_EQ(runReportingFailures([&] { DedupeCommand::apply(ctx, *api_, url, options); }, err), 1);
  EXPECT_EQ(err.str(),
            "The workbook edited.xlsx has 3 problems, listed above; nothing was changed. Correct "
            "them in the workbook, save it and read it again.\n");
  const std::string text = out_.str();
  EXPECT_NE(text.find("\"Merge\" is not an action."), std::string::npos) << text;
  EXPECT_NE(text.find("every record marked Delete"), std::string::npos) << text;
  EXPECT_NE(text.find("Group 2 has 2 records marked Keep"), std::string::npos) << text;
  for (const auto& id : {martha1_, martha2_, peter3_}) EXPECT_EQ(row(id)["IsDeleted"], false) << id;

  // A workbook says what to remove; an action that removes nothing is refused.
  auto filling = options;
  filling.action = ResolutionAction::fillGaps();
  err.str("");
  EXPECT_EQ(runReportingFailures([&] { DedupeCommand::plan(ctx, *api_, url, filling); }, err), 1);
  EXPECT_EQ(err.str(),
            "A decision workbook says which records to remove, and the action fillGaps removes "
            "none. Use --action merge, --action deleteLosers or --action tag:FIELD with "
            "--decisions.\n");

  // Deleting needs no single record to merge into: two Keeps are fine.
  options.action = ResolutionAction::deleteLosers();
  options.decisions = edited(
      workbook, {{martha1_, "Delete"}, {peter1_, "Keep"}, {peter2_, "Keep"}, {peter3_, "Delete"}});
  options.results = home_.path() / "chosen results.xlsx";
  out_.str("");
  DedupeCommand::apply(ctx, *api_, url, options);
  EXPECT_NE(out_.str().find("Results: " + options.results.string()), std::string::npos)
      << out_.str();
  EXPECT_NE(out_.str().find("To put these changes back: corvane dedupe undo " + url.string() +
                            "\n"),
            std::string::npos)
      << out_.str();
  for (const auto& id : {martha1_, peter3_}) {
    EXPECT_EQ(row(id)["IsDeleted"], true) << id;
    EXPECT_TRUE(row(id)["MasterRecordId"].is_null()) << id;
  }
  for (const auto& id : {martha2_, peter1_, peter2_, anna1_})
    EXPECT_EQ(row(id)["IsDeleted"], false) << id;
  const auto rows = results(out_.str());
  EXPECT_EQ(rows.at(peter3_)[4], "Deleted");
  EXPECT_EQ(rows.at(martha2_)[4], "Kept");  // the rule's choice among the rows left blank
  EXPECT_EQ(rows.at(anna1_)[4], "Left untouched");
}

TEST_F(DedupeDecisionsCommandTest, ARefusedMergeIsInTheResultsWorkbookInSalesforcesWords) {
  auto url = downloadContacts();
  admin("faults", {{"path", "/services/Soap/*"},
                   {"fault", "500"},
                   {"message", "Entity is locked for approval"},
                   {"count", 1}});
  auto ctx = context();
  out_.str("");
  std::ostringstream err;
  EXPECT_EQ(
      runReportingFailures([&] { DedupeCommand::apply(ctx, *api_, url, mergeOldest()); }, err), 1);
  const auto rows = results(out_.str());
  ASSERT_EQ(rows.size(), 7u) << out_.str();
  EXPECT_EQ(rows.at(martha2_)[4], "Failed");
  EXPECT_NE(rows.at(martha2_)[5].find("Entity is locked for approval"), std::string::npos)
      << rows.at(martha2_)[5];
  EXPECT_EQ(rows.at(martha1_)[4], "Kept");
  EXPECT_EQ(rows.at(martha1_)[5].rfind("Its values were not changed", 0), 0u)
      << rows.at(martha1_)[5];
  EXPECT_EQ(rows.at(peter3_)[3], "Merge into " + peter2_);
  EXPECT_EQ(rows.at(peter3_)[4], "Merged");
  EXPECT_EQ(rows.count(zed_), 0u);  // in no group
}

TEST_F(DedupeDecisionsCommandTest, KeptValuesComeFromTheRecordTheRuleNamesAndThePlanSaysWhich) {
  // Peter 3 was changed last and has the longest title.
  admin("clock", {{"advanceSeconds", 60}});
  admin("records/update", {{"id", peter3_}, {"fields", {{"Title", "Chief Pilot"}}}});
  auto url = downloadContacts();
  auto ctx = context();
  auto options = mergeOldest();
  ASSERT_TRUE(options.keepValues.add("mostRecent"));
  options.json = true;
  out_.str("");
  DedupeCommand::plan(ctx, *api_, url, options);
  auto json = nlohmann::json::parse(out_.str());
  bool seen = false;
  for (const auto& merge : json["merges"]) {
    if (merge["primary"] != peter2_ || merge["fieldValues"].empty()) continue;
    seen = true;
    EXPECT_EQ(merge["fieldValues"]["Title"], "Chief Pilot") << merge;
    EXPECT_EQ(merge["fieldSources"]["Title"], peter3_) << merge;
  }
  EXPECT_TRUE(seen) << json.dump(2);

  // A rule for one field wins over the one for all.
  ASSERT_TRUE(options.keepValues.add("Title=keeper"));
  options.json = false;
  out_.str("");
  DedupeCommand::plan(ctx, *api_, url, options);
  EXPECT_EQ(out_.str().find("Chief Pilot"), std::string::npos) << out_.str();

  ASSERT_TRUE(options.keepValues.add("title=longest"));
  out_.str("");
  DedupeCommand::apply(ctx, *api_, url, options);
  EXPECT_NE(out_.str().find("setting Title = \"Chief Pilot\" (from " + peter3_ + " (Peter Quinn))"),
            std::string::npos)
      << out_.str();
  EXPECT_EQ(row(peter2_)["Title"], "Chief Pilot");
  EXPECT_EQ(row(martha1_)["Title"], "CFO & <Board>");
  const auto rows = results(out_.str());
  EXPECT_EQ(rows.at(peter2_)[5], "Took Title = \"Chief Pilot\" (from " + peter3_ + ")");

  options.keepValues.fields = {{"Phone", ValueRule::longest}};
  std::ostringstream err;
  EXPECT_EQ(runReportingFailures([&] { DedupeCommand::plan(ctx, *api_, url, options); }, err), 1);
  EXPECT_EQ(err.str(),
            "The snapshot has no field Phone, so no rule can choose its value. Its fields are "
            "Name, Email, Title.\n");
}

}  // namespace
}  // namespace corvane

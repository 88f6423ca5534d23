// `corvane dedupe` against the sample org: a download into a snapshot, a
// paused one resumed, the owner check, listing and deleting.
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
      return SalesforceAPI::Session{orgsim::Sessions::issue(store(), "").token,
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

TEST_F(DedupeCommandTest, PausedDownloadResumesToTheSameRows) {
  auto ctx = context();
  auto whole = DedupeCommand::download(ctx, *api_, "sample", "Account", accountOptions());

  auto options = accountOptions();
  int asked = 0;
  options.shouldCancel = [&asked] { return ++asked > 3; };
  auto paused = DedupeCommand::download(ctx, *api_, "sample", "Account", options);
  EXPECT_NE(out_.str().find("Download stopped."), std::string::npos);
  auto partial = RecordStore::open(paused)->info();
  EXPECT_FALSE(partial.complete);

  // Another login may not continue it.
  try {
    DedupeCommand::resume(ctx, *api_, paused, "other", accountOptions());
    FAIL();
  } catch (const DedupeCommandError& error) {
    EXPECT_EQ(error.kind(), DedupeCommandError::Kind::otherLogin);
  }
  DedupeCommand::resume(ctx, *api_, paused, "", accountOptions());
  auto a = RecordStore::open(whole);
  auto b = RecordStore::open(paused);
  ASSERT_TRUE(b->info().complete);
  std::vector<Rid> all;
  for (Rid rid = 1; rid <= static_cast<Rid>(a->recordCount()); ++rid) all.push_back(rid);
  EXPECT_EQ(a->records(all), b->records(all));
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

// The bulk download against a scripted org: paging with locators, resume
// after a stop, a page with the wrong columns, and the org's refusals.
#include <gtest/gtest.h>

#include <deque>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "dedupe/snapshot_downloader.hpp"
#include "platform/tests/temporary_folder.hpp"

namespace corvane {
namespace {

// A failure with an HTTP status, as the real transport throws them.
struct ScriptedFailure : std::runtime_error {
  ScriptedFailure(int httpStatus, std::string message)
      : std::runtime_error(message), status(httpStatus), text(std::move(message)) {}
  int status;
  std::string text;
};

// One Bulk query job over fixed rows. Locators are row numbers.
class ScriptedOrg : public DedupeTransport {
 public:
  std::vector<std::string> columns{"Id", "Name", "CreatedDate", "LastModifiedDate", "Email"};
  std::vector<std::vector<std::string>> rows;
  std::deque<std::string> states{"InProgress", "JobComplete"};
  std::string errorMessage;
  std::optional<ScriptedFailure> failNextPoll;
  std::optional<ScriptedFailure> failCreate;
  // When set, the page at this locator comes with a different header.
  std::optional<std::string> wrongHeaderAt;
  bool jobGone = false;
  std::vector<std::string> soqls;
  int polls = 0;
  int deletes = 0;
  int pages = 0;

  std::string send(const std::string& method, const std::string& path, const QueryItems&,
                   const std::optional<std::string>& body) override {
    if (method == "POST" && path == "/jobs/query") {
      if (failCreate) throw *failCreate;
      soqls.push_back(nlohmann::json::parse(*body).at("query"));
      return R"({"id":"750J1","createdDate":"2024-01-05T10:00:00.000+0000"})";
    }
    if (method == "DELETE") {
      ++deletes;
      return {};
    }
    ++polls;
    if (jobGone) throw ScriptedFailure(404, "The requested resource does not exist");
    if (failNextPoll) {
      ScriptedFailure failure = *failNextPoll;
      failNextPoll.reset();
      throw failure;
    }
    std::string state = states.front();
    if (states.size() > 1) states.pop_front();
    nlohmann::json reply{{"id", "750J1"}, {"state", state}};
    if (state == "JobComplete") reply["numberRecordsProcessed"] = rows.size();
    if (state == "Failed") reply["errorMessage"] = errorMessage;
    return reply.dump();
  }

  std::pair<std::string, ResponseHeaders> getRaw(const std::string&, const QueryItems& query,
                                                 const std::string& accept) override {
    EXPECT_EQ(accept, "text/csv");
    if (jobGone) throw ScriptedFailure(404, "The requested resource does not exist");
    ++pages;
    std::size_t max = 0;
    std::size_t first = 0;
    for (const auto& [name, value] : query) {
      if (name == "maxRecords") max = std::stoul(value);
      if (name == "locator") first = std::stoul(value);
    }
    std::size_t last = std::min(rows.size(), first + max);
    bool wrong = wrongHeaderAt && *wrongHeaderAt == std::to_string(first);
    std::string csv = line(wrong ? renamed() : columns);
    for (std::size_t i = first; i < last; ++i) csv += line(rows[i]);
    std::string next = last < rows.size() ? std::to_string(last) : "null";
    return {csv, {{"Sforce-Locator", next}, {"Sforce-NumberOfRecords", std::to_string(last - first)}}};
  }

  std::string postSOAP(const std::string&, const std::string&) override { return {}; }

  TransportFailure classify(const std::exception& error) const override {
    const auto* failure = dynamic_cast<const ScriptedFailure*>(&error);
    if (!failure) return {};
    return {failure->status == 401, failure->status, failure->text};
  }

 private:
  static std::string line(const std::vector<std::string>& values) {
    std::string out;
    for (std::size_t i = 0; i < values.size(); ++i) {
      if (i > 0) out += ',';
      out += '"';
      for (char c : values[i]) out += c == '"' ? std::string("\"\"") : std::string(1, c);
      out += '"';
    }
    return out + "\n";
  }
  std::vector<std::string> renamed() const {
    auto copy = columns;
    copy.back() = "Email__c";
    return copy;
  }
};

SnapshotDownloader::Request contactRequest() {
  SnapshotDownloader::Request request;
  request.objectName = "Contact";
  request.matchFieldNames = {"Name", "Email"};
  request.pageSize = 2;
  return request;
}

BulkQueryRunner::Options fastOptions() {
  BulkQueryRunner::Options options;
  options.firstPollDelay = std::chrono::milliseconds(1);
  options.maxPollDelay = std::chrono::milliseconds(2);
  return options;
}

class DownloadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (int i = 0; i < 5; ++i) {
      std::string n = std::to_string(i);
      org_.rows.push_back({"003" + n, "Person, \"" + n + "\"\nSecond line", "2024-01-0" + n,
                           "2024-02-0" + n, "P" + n + "@Example.com"});
    }
  }

  std::shared_ptr<RecordStore> newStore(const std::string& name = "snapshot.sqlite") {
    RecordStore::Creation creation;
    creation.orgId = "00D1";
    creation.objectName = "Contact";
    creation.matchFields = {{"Name", "Name", MatchKind::personName, MatchMode::close},
                            {"Email", "Email", MatchKind::email, MatchMode::exact}};
    creation.downloadedBy = "admin@sample.org";
    return RecordStore::create(folder_.path() / name, creation);
  }

  std::vector<SnapshotRecord> everything(RecordStore& store) {
    return store.records({1, 2, 3, 4, 5, 6, 7, 8, 9, 10});
  }

  TemporaryFolder folder_;
  ScriptedOrg org_;
  int refusals_ = 0;
};

TEST_F(DownloadTest, BuildsOneQueryWithEachColumnOnce) {
  SnapshotDownloader::Request request = contactRequest();
  request.extraFieldNames = {"Title", "email"};
  request.scope = "CreatedDate = LAST_N_DAYS:30";
  EXPECT_EQ(SnapshotDownloader::soql(request),
            "SELECT Id, Name, CreatedDate, LastModifiedDate, Email, Title FROM Contact WHERE "
            "CreatedDate = LAST_N_DAYS:30");
}

TEST_F(DownloadTest, StoresEveryPageAndRemovesTheJob) {
  auto store = newStore();
  std::vector<DownloadPhase> phases;
  SnapshotDownloader downloader(org_, fastOptions());
  DownloadPhase result = downloader.download(
      {contactRequest()}, *store, [&](const DownloadPhase& p) { phases.push_back(p); }, {});
  EXPECT_EQ(result, DownloadPhase::finished(5));
  EXPECT_EQ(org_.pages, 3);
  EXPECT_EQ(org_.deletes, 1);
  EXPECT_TRUE(store->info().complete);
  EXPECT_EQ(store->info().totalExpected, 5);
  ASSERT_GE(phases.size(), 4u);
  EXPECT_EQ(phases.front().kind, DownloadPhase::Kind::preparing);
  EXPECT_EQ(phases[phases.size() - 2].done, 5);
  auto records = everything(*store);
  ASSERT_EQ(records.size(), 5u);
  EXPECT_EQ(records[4].name, "Person, \"4\"\nSecond line");
  EXPECT_EQ(store->normalized({5})[0].second[1], "p4@example.com");
}

TEST_F(DownloadTest, ResumedDownloadEndsWithTheRowsOfAnUninterruptedOne) {
  auto whole = newStore("whole.sqlite");
  SnapshotDownloader(org_, fastOptions()).download({contactRequest()}, *whole, {}, {});

  auto store = newStore("stopped.sqlite");
  int pagesBefore = org_.pages;
  SnapshotDownloader downloader(org_, fastOptions());
  // Pause once the first page is stored.
  DownloadPhase paused = downloader.download({contactRequest()}, *store, {}, [&] {
    return org_.pages > pagesBefore;
  });
  EXPECT_EQ(paused.kind, DownloadPhase::Kind::paused);
  EXPECT_EQ(store->recordCount(), 2);
  EXPECT_EQ(store->meta("locator"), "2");
  int deletes = org_.deletes;
  store.reset();

  auto reopened = RecordStore::open(folder_.path() / "stopped.sqlite");
  auto requests = SnapshotDownloader::requestsFor(*reopened);
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(SnapshotDownloader::soql(requests[0]), SnapshotDownloader::soql(contactRequest()));
  EXPECT_EQ(downloader.download(requests, *reopened, {}, {}), DownloadPhase::finished(5));
  EXPECT_EQ(org_.soqls.size(), 2u);  // the same job went on; no new one was made
  EXPECT_EQ(org_.deletes, deletes + 1);
  auto resumed = everything(*reopened);
  auto expected = everything(*whole);
  ASSERT_EQ(resumed.size(), expected.size());
  for (std::size_t i = 0; i < resumed.size(); ++i) {
    EXPECT_EQ(resumed[i], expected[i]) << i;
  }
  // A finished snapshot asks nothing more.
  int pages = org_.pages;
  EXPECT_EQ(downloader.download(requests, *reopened, {}, {}), DownloadPhase::finished(5));
  EXPECT_EQ(org_.pages, pages);
}

TEST_F(DownloadTest, PageWithOtherColumnsStoresNothingAndKeepsTheLocator) {
  auto store = newStore();
  org_.wrongHeaderAt = "2";
  DownloadPhase last;
  SnapshotDownloader downloader(org_, fastOptions());
  try {
    downloader.download({contactRequest()}, *store, [&](const DownloadPhase& p) { last = p; }, {});
    FAIL();
  } catch (const DownloadError& error) {
    EXPECT_EQ(error.kind(), DownloadError::Kind::unexpectedColumns);
    EXPECT_STREQ(error.what(),
                 "Salesforce sent columns that do not match what was asked for. Nothing was "
                 "stored from this page.");
  }
  EXPECT_EQ(last.kind, DownloadPhase::Kind::paused);
  EXPECT_EQ(store->recordCount(), 2);
  EXPECT_EQ(store->meta("locator"), "2");
  EXPECT_FALSE(store->info().complete);
}

TEST_F(DownloadTest, SignOutWhilePreparingKeepsTheJobForResume) {
  auto store = newStore();
  org_.failNextPoll = ScriptedFailure(401, "Session expired or invalid");
  SnapshotDownloader downloader(org_, fastOptions());
  try {
    downloader.download({contactRequest()}, *store, {}, {});
    FAIL();
  } catch (const DownloadError& error) {
    EXPECT_EQ(error.kind(), DownloadError::Kind::authExpired);
    EXPECT_EQ(error.shortTitle(), "Salesforce signed you out");
    EXPECT_STREQ(error.what(), "Salesforce signed you out. Log in again, then press Resume \u2014 "
                               "nothing downloaded so far is lost.");
  }
  EXPECT_EQ(store->meta("jobId"), "750J1");
  EXPECT_EQ(downloader.download({contactRequest()}, *store, {}, {}), DownloadPhase::finished(5));
  EXPECT_EQ(org_.soqls.size(), 1u);
}

TEST_F(DownloadTest, RefusalsOfTheOrgInTheirOwnWords) {
  SnapshotDownloader downloader(org_, fastOptions());
  auto failWith = [&](auto setUp) -> DownloadError {
    ScriptedOrg fresh;
    fresh.rows = org_.rows;
    setUp(fresh);
    auto store = newStore("refusal" + std::to_string(refusals_++) + ".sqlite");
    try {
      SnapshotDownloader(fresh, fastOptions()).download({contactRequest()}, *store, {}, {});
    } catch (const DownloadError& error) {
      EXPECT_EQ(store->recordCount(), 0);
      return error;
    }
    ADD_FAILURE() << "the download went through";
    return DownloadError::authExpired();
  };

  DownloadError failed = failWith([](ScriptedOrg& o) {
    o.states = {"InProgress", "Failed"};
    o.errorMessage = "InvalidBatch : Failed to process query";
  });
  EXPECT_EQ(failed.kind(), DownloadError::Kind::jobFailed);
  EXPECT_STREQ(failed.what(),
               "Salesforce could not prepare the download: InvalidBatch : Failed to process query");

  DownloadError unsupported = failWith([](ScriptedOrg& o) {
    o.states = {"Failed"};
    o.errorMessage = "Entity 'RecentlyViewed' is not supported by the Bulk API.";
  });
  EXPECT_EQ(unsupported.kind(), DownloadError::Kind::objectNotSupported);
  EXPECT_STREQ(unsupported.what(),
               "Salesforce cannot prepare a bulk download for this object. Entity "
               "'RecentlyViewed' is not supported by the Bulk API.");

  DownloadError refused = failWith([](ScriptedOrg& o) {
    o.failCreate = ScriptedFailure(400, "No such column 'Emial' on entity 'Contact'.");
  });
  EXPECT_EQ(refused.kind(), DownloadError::Kind::jobFailed);

  DownloadError expired = failWith([](ScriptedOrg& o) { o.jobGone = true; });
  EXPECT_EQ(expired.kind(), DownloadError::Kind::jobExpired);
}

TEST_F(DownloadTest, LowDiskSpaceStopsBeforeAPageIsAskedFor) {
  auto store = newStore();
  BulkQueryRunner::Options options = fastOptions();
  options.freeSpaceFloor = 1'000'000;
  options.freeSpace = [] { return std::optional<std::int64_t>(900'000); };
  try {
    SnapshotDownloader(org_, options).download({contactRequest()}, *store, {}, {});
    FAIL();
  } catch (const DownloadError& error) {
    EXPECT_EQ(error.kind(), DownloadError::Kind::lowDiskSpace);
    EXPECT_EQ(error.free(), 900'000);
    EXPECT_GT(error.needed(), 1'000'000);
    EXPECT_EQ(error.shortTitle(), "Disk space ran low");
    EXPECT_EQ(std::string(error.what()).rfind("Not enough disk space: this download needs about 1.0 MB "
                                              "and only 900.0 KB is free.", 0), 0u);
  }
  EXPECT_EQ(org_.pages, 0);
  EXPECT_EQ(byteCountText(999), "999 bytes");
  EXPECT_EQ(byteCountText(2'500'000'000), "2.5 GB");
}

TEST_F(DownloadTest, MultiObjectSnapshotFillsSlotsPerObject) {
  RecordStore::Creation creation;
  creation.orgId = "00D1";
  creation.objectName = "Contact";
  creation.matchFields = {{"Name", "Name", MatchKind::personName, MatchMode::close},
                          {"Email", "Email", MatchKind::email, MatchMode::exact}};
  creation.objects = {{"Contact", "Contact", {"Name", "Email"}, {}},
                      {"Account", "Account", {"Name", ""}, {}}};
  auto store = RecordStore::create(folder_.path() / "multi.sqlite", creation);
  auto requests = SnapshotDownloader::requestsFor(*store);
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(SnapshotDownloader::soql(requests[1]),
            "SELECT Id, Name, CreatedDate, LastModifiedDate FROM Account");
  // The scripted org answers every job with the same rows; the Account job's
  // header lacks Email.
  SnapshotDownloader downloader(org_, fastOptions());
  DownloadPhase paused = downloader.download(requests, *store, {}, [&] {
    return store->meta("objectsDone").has_value();
  });
  ASSERT_EQ(paused.kind, DownloadPhase::Kind::paused);
  EXPECT_EQ(store->meta("objectsDone"), "1");
  org_.columns.pop_back();
  for (auto& row : org_.rows) row.pop_back();
  EXPECT_EQ(downloader.download(requests, *store, {}, {}), DownloadPhase::finished(10));
  auto kinds = store->sfidsAndKinds({1, 10});
  EXPECT_EQ(std::get<2>(kinds[0]), "Contact");
  EXPECT_EQ(std::get<2>(kinds[1]), "Account");
  EXPECT_EQ(store->records({10})[0].values[1], "");
}

}  // namespace
}  // namespace corvane

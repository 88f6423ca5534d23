#include "query/query_task.hpp"

#include <fstream>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/durable_file.hpp"
#include "platform/tests/temporary_folder.hpp"
#include "query/completion_task.hpp"
#include "query/result_writer.hpp"
#include "tools/orgsim/tests/sample_org.hpp"
#include "tools/orgsim/tests/sample_org_api.hpp"
#include "workbook/xlsx_reader.hpp"

namespace corvane {
namespace {

using ::testing::HasSubstr;

class QueryTaskTest : public orgsim::testing::ServerFixture {
 protected:
  void SetUp() override {
    ServerFixture::SetUp();
    org_.username = store().identity().adminUsername;
    org_.instanceUrl = server_->baseUrl();
  }

  SalesforceAPI::Client& api() {
    if (!api_) {
      api_ = orgsim::testing::adminClient(*server_);
    }
    return *api_;
  }

  Org org_;
  std::unique_ptr<SalesforceAPI::Client> api_;
};

TEST_F(QueryTaskTest, FollowsEveryPageAndReportsEachAsItArrives) {
  orgsim::testing::addAccounts(store(), 2100);
  std::vector<std::size_t> pageSizes;
  std::vector<QueryProgress> progress;
  std::vector<std::string> firstRow;
  auto outcome = QueryTask::run(
      api(), org_,
      {"SELECT name, Owner.Name FROM Account WHERE Name LIKE 'Account%' ORDER BY Name"}, {},
      [&](QueryRows&& rows) {
        if (pageSizes.empty()) firstRow = rows.cells.front();
        pageSizes.push_back(rows.cells.size());
        EXPECT_EQ(rows.columns.size(), 2u);
        EXPECT_TRUE(rows.records.empty());
        return true;
      },
      [&](const QueryProgress& step) { progress.push_back(step); });
  EXPECT_THAT(pageSizes, ::testing::ElementsAre(2000, 100));
  EXPECT_EQ(outcome.rows, 2100);
  EXPECT_EQ(outcome.totalSize, 2100);
  EXPECT_FALSE(outcome.stopped);
  ASSERT_EQ(outcome.columns.size(), 2u);
  EXPECT_EQ(outcome.columns[0].name, "Name");  // the org's own spelling
  EXPECT_EQ(outcome.columns[1].name, "Owner.Name");
  EXPECT_EQ(firstRow[0], "Account 0000");
  EXPECT_FALSE(firstRow[1].empty());
  ASSERT_EQ(progress.size(), 4u);
  EXPECT_EQ(progress[0].phase, QueryProgress::Phase::asking);
  EXPECT_EQ(progress[1].rows, 2000);
  EXPECT_EQ(progress[1].totalSize, 2100);
  EXPECT_EQ(progress[3].phase, QueryProgress::Phase::finished);
  EXPECT_EQ(progress[3].pages, 2);
}

TEST_F(QueryTaskTest, AStopRequestEndsTheQueryAfterThePageInFlight) {
  orgsim::testing::addAccounts(store(), 4500);
  std::stop_source stop;
  int pages = 0;
  auto outcome =
      QueryTask::run(api(), org_, {"SELECT Id FROM Account"}, stop.get_token(), [&](QueryRows&&) {
        ++pages;
        stop.request_stop();
        return true;
      });
  EXPECT_EQ(pages, 1);
  EXPECT_TRUE(outcome.stopped);
  EXPECT_EQ(outcome.rows, 2000);
  EXPECT_GE(outcome.totalSize, 4500);
}

TEST_F(QueryTaskTest, ARefusedQueryCarriesSalesforcesWordsAndThePosition) {
  try {
    QueryTask::run(api(), org_, {"SELECT Id, NoSuchField__c FROM Account"}, {},
                   [](QueryRows&&) { return true; });
    FAIL() << "the query should have been refused";
  } catch (const QueryError& error) {
    EXPECT_EQ(error.kind(), QueryError::Kind::refused);
    EXPECT_EQ(error.status(), 400);
    EXPECT_THAT(error.description(), HasSubstr("NoSuchField__c"));
    ASSERT_TRUE(error.position());
    EXPECT_EQ(error.position()->row, 1);
    EXPECT_EQ(error.position()->column, 12);
  }
}

TEST_F(QueryTaskTest, CountOnlyGivesOneRowAndRecordsLoseTheirAttributes) {
  orgsim::testing::addAccounts(store(), 3);
  std::vector<std::vector<std::string>> cells;
  auto outcome =
      QueryTask::run(api(), org_, {"SELECT COUNT() FROM Account WHERE Name LIKE 'Account%'"}, {},
                     [&](QueryRows&& rows) {
                       cells = rows.cells;
                       return true;
                     });
  EXPECT_TRUE(outcome.countOnly);
  ASSERT_EQ(outcome.columns.size(), 1u);
  EXPECT_EQ(outcome.columns[0].name, "COUNT()");
  EXPECT_EQ(cells, (std::vector<std::vector<std::string>>{{"3"}}));

  std::string json;
  QueryTask::run(api(), org_,
                 {"SELECT Name, Owner.Name FROM Account WHERE Name = 'Account 0001'",
                  QueryTask::Shape::records},
                 {}, [&](QueryRows&& rows) {
                   EXPECT_TRUE(rows.cells.empty());
                   for (const auto& record : rows.records) record.dump(json);
                   return true;
                 });
  EXPECT_EQ(json.rfind(R"({"Name":"Account 0001","Owner":{"Name":)", 0), 0u) << json;
  EXPECT_EQ(json.find("attributes"), std::string::npos);
}

TEST(QueryErrorPosition, ReadsSalesforcesRowAndColumnLine) {
  EXPECT_EQ(QueryError::positionIn("\nSELECT Nope FROM Account\n       ^\nERROR at Row:2:Column:8\n"
                                   "No such column 'Nope'"),
            (QueryErrorPosition{2, 8}));
  EXPECT_FALSE(QueryError::positionIn("Session expired or invalid"));
  EXPECT_FALSE(QueryError::positionIn("ERROR at Row:x:Column:1"));
}

TEST_F(QueryTaskTest, ExportsAppearWholeInEveryFormatAndAFailureLeavesTheOldFile) {
  orgsim::testing::addAccounts(store(), 2100);
  TemporaryFolder folder;
  const std::string soql = "SELECT Name, Industry FROM Account WHERE Name LIKE 'Account%'";
  auto exportTo = [&](const std::filesystem::path& file) {
    const auto format = *ResultWriter::formatOf(file);
    ResultWriter writer(file, format);
    auto outcome = QueryTask::run(api(), org_, {soql, ResultWriter::shapeFor(format)}, {},
                                  [&](QueryRows&& rows) { return writer.write(rows); });
    writer.finish(outcome);
    return writer.rows();
  };
  EXPECT_EQ(exportTo(folder.path() / "a.csv"), 2100);
  auto csv = Durable::readWhole(folder.path() / "a.csv");
  ASSERT_TRUE(csv);
  EXPECT_EQ(csv->substr(0, csv->find('\n')), "Name,Industry");
  EXPECT_EQ(std::count(csv->begin(), csv->end(), '\n'), 2101);

  EXPECT_EQ(exportTo(folder.path() / "a.xlsx"), 2100);
  XlsxReader reader(folder.path() / "a.xlsx");
  auto grid = reader.readSheet(0);
  ASSERT_TRUE(grid);
  EXPECT_THAT(grid->headers, ::testing::ElementsAre("Name", "Industry"));
  EXPECT_EQ(grid->rows.size(), 2100u);
  EXPECT_EQ(std::string(grid->cell(0, 0)), "Account 0000");

  const auto old = folder.path() / "a.tsv";
  Durable::writeWhole(old, "old\n");
  EXPECT_THROW(
      {
        ResultWriter writer(old, ResultWriter::Format::tsv);
        QueryTask::run(api(), org_, {"SELECT Nope__c FROM Account"}, {},
                       [&](QueryRows&& rows) { return writer.write(rows); });
      },
      QueryError);
  EXPECT_EQ(Durable::readWhole(old), "old\n");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.path()),
                          std::filesystem::directory_iterator()),
            3);
}

TEST(ResultWriter, StreamsAndWritesAHeaderForAnEmptyResult) {
  std::ostringstream out;
  ResultWriter writer(out, ResultWriter::Format::tsv);
  QueryOutcome outcome;
  outcome.columns = {{"Id", {"Id"}}, {"Owner.Name", {"Owner", "Name"}}};
  writer.finish(outcome);
  EXPECT_EQ(out.str(), "Id\tOwner.Name\n");

  std::ostringstream table;
  ResultWriter whole(table, ResultWriter::Format::csv);
  whole.writeTable({"A", "B"}, {{"1", "x,y"}, {"2", ""}});
  EXPECT_EQ(table.str(), "A,B\n1,\"x,y\"\n2,\n");
  EXPECT_EQ(whole.rows(), 2);
  EXPECT_EQ(ResultWriter::formatOf("x.XLSX"), ResultWriter::Format::xlsx);
  EXPECT_FALSE(ResultWriter::formatOf("x.pdf"));
}

TEST_F(QueryTaskTest, CompletionReadsTheOrgsFieldsThroughTheCache) {
  TemporaryFolder cacheFolder;
  DescribeCache cache(cacheFolder.path(), org_.username,
                      QueryCompletion::describeSource(api(), org_));
  auto suggestions = QueryCompletion::complete(cache, {"SELECT Indu FROM Account", 11});
  ASSERT_FALSE(suggestions.completions.empty());
  EXPECT_EQ(suggestions.completions.front().text, "Industry");
  EXPECT_EQ(suggestions.replace, (CharRange{7, 11}));
  auto owner = QueryCompletion::complete(cache, {"SELECT Owner.Na FROM Account", 15});
  ASSERT_FALSE(owner.completions.empty());
  EXPECT_EQ(owner.completions.front().display, "Owner.Name");
  EXPECT_THROW(QueryCompletion::complete(cache, {"SELECT", 7}), CompletionRequestError);
}

}  // namespace
}  // namespace corvane

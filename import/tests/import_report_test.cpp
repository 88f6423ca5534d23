#include "import/import_report.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace corvane {
namespace {

using ::testing::HasSubstr;

TEST(ImportReport, AGridKeepsEachRowOnOneLineWhateverItsCellsHold) {
  ImportGrid grid;
  grid.sheetName = "Leads\t2024";
  grid.headers = {"Name", "Notes"};
  grid.rows = {{"Ann", "first\nsecond"}, {"Bob", "C:\\temp"}};
  EXPECT_EQ(ImportReport::gridText(grid),
            "Sheet: Leads\\t2024\nName\tNotes\nAnn\tfirst\\nsecond\nBob\tC:\\\\temp\n(2 rows)\n");
  EXPECT_EQ(ImportReport::gridJSON(grid),
            "{\"headers\":[\"Name\",\"Notes\"],\"rows\":[[\"Ann\",\"first\\nsecond\"],[\"Bob\","
            "\"C:\\\\temp\"]],\"sheetName\":\"Leads\\t2024\"}\n");
}

TEST(ImportReport, TheOutcomeSaysWhatWasWrittenAndWhereTheRestWent) {
  ImportPlan plan;
  plan.operation = *ImportOperation::parse("upsert:External_Id__c");
  ImportTask::Written written;
  written.summary.created = 1;
  written.summary.changed = 2;
  written.summary.failed = 1;
  written.summary.notSent = 3;
  written.summary.resumed = true;
  written.failedRowsFile = "/data/leads - failed rows.csv";
  const std::string text = ImportReport::outcomeText(plan, written);
  EXPECT_THAT(text, HasSubstr("This run continued an earlier one"));
  EXPECT_THAT(text, HasSubstr("Created 1 record and updated 2 records; Salesforce refused 1 row; "
                              "3 rows were not sent because of the problems above.\n"));
  EXPECT_THAT(text, HasSubstr("/data/leads - failed rows.csv"));
  EXPECT_EQ(text.find("The outcome of every row"), std::string::npos);
}

}  // namespace
}  // namespace corvane

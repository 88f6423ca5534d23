#include "import/run_results_workbook.hpp"

#include <gtest/gtest.h>

#include "workbook/xlsx_reader.hpp"
#include "workbook/xlsx_writer.hpp"
#include "platform/tests/temporary_folder.hpp"

namespace corvane {
namespace {

using Rows = std::vector<std::vector<std::string>>;

TEST(RunResultsWorkbook, ReadsBackOneRowPerEntryUnderTheObjectsSheet) {
  TemporaryFolder folder;
  const auto path = folder.path() / "results.xlsx";
  RunResultsWorkbook::write(path, "Contact",
                            {{"003A", 1, "Merged", "Merged into 003B."},
                             {"003C", std::nullopt, "Failed", "UNABLE_TO_LOCK_ROW: try again"},
                             {"=SUM(A1)", 12, "Deleted", "0012"}});
  XlsxReader reader(path);
  ASSERT_EQ(reader.sheetNames(), std::vector<std::string>{"Results - Contact"});
  auto grid = reader.readSheet(0);
  ASSERT_TRUE(grid);
  EXPECT_EQ(grid->headers, (std::vector<std::string>{"Record Id", "Group", "Outcome", "Detail"}));
  // Text that looks like a formula or a number stays text; groups are numbers.
  EXPECT_EQ(grid->rows, (Rows{{"003A", "1", "Merged", "Merged into 003B."},
                              {"003C", "", "Failed", "UNABLE_TO_LOCK_ROW: try again"},
                              {"=SUM(A1)", "12", "Deleted", "0012"}}));
  // Nothing is left beside the workbook.
  int files = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(folder.path())) ++files;
  EXPECT_EQ(files, 1);
}

TEST(RunResultsWorkbook, ReplacesAnOlderFileOnlyWhenTheNewOneIsWhole) {
  TemporaryFolder folder;
  const auto path = folder.path() / "results.xlsx";
  RunResultsWorkbook::write(path, "Lead", {{"00QA", 1, "Deleted", ""}});
  RunResultsWorkbook::write(path, "Lead", {{"00QB", 2, "Failed", "gone"}});
  auto grid = XlsxReader(path).readSheet(0);
  ASSERT_TRUE(grid);
  EXPECT_EQ(grid->rows, (Rows{{"00QB", "2", "Failed", "gone"}}));

  const auto nowhere = folder.path() / "missing" / "results.xlsx";
  EXPECT_THROW(RunResultsWorkbook::write(nowhere, "Lead", {}), WorkbookWriteError);
  EXPECT_FALSE(std::filesystem::exists(nowhere.parent_path()));
}

TEST(XlsxWriter, MakesSheetNamesThatSpreadsheetProgramsAccept) {
  EXPECT_EQ(XlsxWriter::validSheetName("Duplicates - Opportunity Line Items"),
            "Duplicates - Opportunity Line I");  // 31 characters at most
  EXPECT_EQ(XlsxWriter::validSheetName("A/B: [x]?"), "A B   x");
  EXPECT_EQ(XlsxWriter::validSheetName("'"), "Sheet");
  // Cut between characters, never inside one: 30 letters then a two-unit emoji.
  EXPECT_EQ(XlsxWriter::validSheetName(std::string(30, 'a') + "\xF0\x9F\x98\x80"),
            std::string(30, 'a'));

  TemporaryFolder folder;
  const auto path = folder.path() / "two.xlsx";
  XlsxWriter writer(path);
  EXPECT_EQ(writer.addSheet("Results - Lead"), "Results - Lead");
  EXPECT_EQ(writer.addSheet("results - lead"), "results - lead (2)");
  writer.writeText(0, 0, std::string(40'000, 'x'));
  writer.close();
  XlsxReader reader(path);
  auto grid = reader.readSheet(1);
  ASSERT_TRUE(grid);
  EXPECT_EQ(grid->headers[0].size(), XlsxWriter::maximumCellText);
}

}  // namespace
}  // namespace corvane

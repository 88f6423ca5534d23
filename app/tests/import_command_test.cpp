#include "app/import_command.hpp"

#include <fstream>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "app/command_error.hpp"
#include "platform/tests/temporary_folder.hpp"

namespace corvane {
namespace {

using ::testing::HasSubstr;

std::filesystem::path fixtureWorkbook() {
  // The fixtures live in the source tree, found from this file's own path.
  return std::filesystem::path(__FILE__).parent_path().parent_path().parent_path() /
         "import/tests/fixtures/libreoffice-mixed.xlsx";
}

std::string printed(const ImportGrid& grid, bool json) {
  std::ostringstream out;
  ImportCommand::print(grid, json, out);
  return out.str();
}

std::string failure(const std::function<void()>& work) {
  std::ostringstream err;
  EXPECT_EQ(runReportingFailures(work, err), 1);
  return err.str();
}

TEST(ImportRead, AWorkbookReadsItsFirstOrNamedSheet) {
  ImportGrid first = ImportCommand::readFile(fixtureWorkbook(), std::nullopt);
  EXPECT_EQ(first.sheetName, "People");
  ImportGrid second = ImportCommand::readFile(fixtureWorkbook(), "Ünïcödé sheet");
  EXPECT_EQ(
      printed(second, false),
      "Sheet: Ünïcödé sheet\nId\tValue\n001\t1E-020\n😀 emoji\t123456789012346000\n(2 rows)\n");
  EXPECT_EQ(
      printed(second, true),
      R"({"headers":["Id","Value"],"rows":[["001","1E-020"],["😀 emoji","123456789012346000"]],)"
      R"("sheetName":"Ünïcödé sheet"})"
      "\n");
  EXPECT_THAT(failure([] { ImportCommand::readFile(fixtureWorkbook(), "Nope"); }),
              HasSubstr("has no sheet named \u201cNope\u201d. Its sheets are"));
}

TEST(ImportRead, TextFilesAreDelimitedAndHaveNoSheets) {
  TemporaryFolder folder;
  auto path = folder.path() / "people.txt";
  std::ofstream(path) << "Name\tNote\nAda\t\"two\nlines\" and \\ a tab\t!\n";
  ImportGrid grid = ImportCommand::readFile(path, std::nullopt);
  EXPECT_EQ(printed(grid, false), "Name\tNote\nAda\ttwo\\nlines and \\\\ a tab\t!\n(1 row)\n");
  EXPECT_EQ(
      printed(grid, true),
      R"({"headers":["Name","Note"],"rows":[["Ada","two\nlines and \\ a tab","!"]],"sheetName":null})"
      "\n");
  EXPECT_THAT(failure([&] { ImportCommand::readFile(path, "Sheet1"); }),
              HasSubstr("people.txt is delimited text, which has no sheets."));
  EXPECT_THAT(failure([&] { ImportCommand::readFile(folder.path() / "old.xls", std::nullopt); }),
              HasSubstr("old.xls is an old-style Excel workbook (.xls)"));
}

TEST(ImportPaste, PastedTextOrItsAbsenceIsReported) {
  std::istringstream pasted("Id\n001A\n001B\n");
  EXPECT_EQ(printed(ImportCommand::readPasted(pasted), false), "Id\n001A\n001B\n(2 rows)\n");
  std::istringstream blank("\n\n");
  EXPECT_EQ(failure([&] { ImportCommand::readPasted(blank); }),
            "The pasted text holds no rows. Copy the cells again, header row included, and paste "
            "them.\n");
}

}  // namespace
}  // namespace corvane

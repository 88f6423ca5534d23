#include "app/import_command.hpp"

#include <fstream>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "app/command_error.hpp"
#include "connections/tests/fake_cli.hpp"
#include "platform/tests/temporary_folder.hpp"
#include "tools/orgsim/tests/sample_org.hpp"

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

class ImportRunTest : public orgsim::testing::ServerFixture {
 protected:
  std::string dryRun(const std::string& csv, ImportCommand::RunOptions options) {
    TemporaryFolder folder;
    options.file = (folder.path() / "accounts.csv").string();
    std::ofstream(options.file) << csv;
    testing::FakeCLI fake;
    fake.script(R"(echo '{"status":0,"result":{"nonScratchOrgs":[{"username":")" +
                store().identity().adminUsername + R"(","alias":"sample","instanceUrl":")" +
                server_->baseUrl() + R"("}]}}')");
    SalesforceCLI cli(fake.options());
    std::ostringstream out;
    CommandContext context{cli, out};
    SalesforceAPI::Client api([this](const std::string&) {
      return SalesforceAPI::Session{
          orgsim::Sessions::issue(store(), "").token, server_->baseUrl(), "62.0", {}};
    });
    options.login = "sample";
    options.object = "account";
    options.dryRun = true;
    std::istringstream none;
    ImportCommand::run(context, api, options, none);
    return out.str();
  }
};

TEST_F(ImportRunTest, ADryRunShowsTheMappingAndEveryProblemByRowAndColumn) {
  ImportCommand::RunOptions options;
  options.operation = *ImportOperation::parse("insert");
  options.overrides = {"Note=Description"};
  std::string out = dryRun(
      "Account Name,Industy,Annual Revenue,Rating,Note,Shoe size\n"
      "Acme,technology,\"$1,200\",hot,fine,42\n"
      ",Banking,12abc,Tepid,,\n",
      options);
  EXPECT_THAT(out, HasSubstr("Account Name    -> Name (by label)"));
  EXPECT_THAT(out, HasSubstr("Industy         -> Industry (close match: check it)"));
  EXPECT_THAT(out, HasSubstr("Note            -> Description (as you mapped it)"));
  EXPECT_THAT(out, HasSubstr("Shoe size       (not imported)"));
  EXPECT_THAT(out, HasSubstr("3 values to fix:\n"
                             "  Row 3, column \u201cAccount Name\u201d (Name): The field is "
                             "required but the cell is empty. Fill it in.\n"
                             "  Row 3, column \u201cAnnual Revenue\u201d (AnnualRevenue): "
                             "\u201c12abc\u201d is not a number."));
  EXPECT_THAT(out, HasSubstr("(Rating): \u201cTepid\u201d is not an active value"));
  EXPECT_THAT(out, HasSubstr("1 of 2 rows are ready to insert; 1 row has problems.\n"));
}

TEST_F(ImportRunTest, AnUpdateWithoutIdsIsRefusedBeforeAnythingIsSent) {
  ImportCommand::RunOptions options;
  options.operation = *ImportOperation::parse("update");
  std::string out = dryRun("Name\nAcme\n", options);
  EXPECT_THAT(out, HasSubstr("To update records every row needs its Id, but no column holds it."));
  EXPECT_THAT(out, HasSubstr("Nothing can be imported until the columns above are fixed."));
  options.overrides = {"Name=Nope"};
  EXPECT_THAT(failure([&] { dryRun("Name\nAcme\n", options); }),
              HasSubstr("Account has no field \u201cNope\u201d."));
}

}  // namespace
}  // namespace corvane

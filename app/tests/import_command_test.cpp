#include "app/import_command.hpp"

#include <fmt/format.h>
#include <signal.h>

#include <fstream>
#include <random>
#include <sstream>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "app/command_error.hpp"
#include "import/import_task.hpp"
#include "connections/tests/fake_cli.hpp"
#include "workbook/xlsx_reader.hpp"
#include "platform/child_process.hpp"
#include "platform/tests/temporary_folder.hpp"
#include "tools/orgsim/tests/sample_org.hpp"

namespace corvane {
namespace {

using ::testing::HasSubstr;

std::filesystem::path fixtureWorkbook() {
  return std::filesystem::path(CORVANE_WORKBOOK_FIXTURES) / "libreoffice-mixed.xlsx";
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
  ImportGrid first = ImportTask::readFile(fixtureWorkbook(), std::nullopt);
  EXPECT_EQ(first.sheetName, "People");
  ImportGrid second = ImportTask::readFile(fixtureWorkbook(), "Ünïcödé sheet");
  EXPECT_EQ(
      printed(second, false),
      "Sheet: Ünïcödé sheet\nId\tValue\n001\t1E-020\n😀 emoji\t123456789012346000\n(2 rows)\n");
  EXPECT_EQ(
      printed(second, true),
      R"({"headers":["Id","Value"],"rows":[["001","1E-020"],["😀 emoji","123456789012346000"]],)"
      R"("sheetName":"Ünïcödé sheet"})"
      "\n");
  EXPECT_THAT(failure([] { ImportTask::readFile(fixtureWorkbook(), "Nope"); }),
              HasSubstr("has no sheet named \u201cNope\u201d. Its sheets are"));
}

TEST(ImportRead, TextFilesAreDelimitedAndHaveNoSheets) {
  TemporaryFolder folder;
  auto path = folder.path() / "people.txt";
  std::ofstream(path) << "Name\tNote\nAda\t\"two\nlines\" and \\ a tab\t!\n";
  ImportGrid grid = ImportTask::readFile(path, std::nullopt);
  EXPECT_EQ(printed(grid, false), "Name\tNote\nAda\ttwo\\nlines and \\\\ a tab\t!\n(1 row)\n");
  EXPECT_EQ(
      printed(grid, true),
      R"({"headers":["Name","Note"],"rows":[["Ada","two\nlines and \\ a tab","!"]],"sheetName":null})"
      "\n");
  EXPECT_THAT(failure([&] { ImportTask::readFile(path, "Sheet1"); }),
              HasSubstr("people.txt is delimited text, which has no sheets."));
  EXPECT_THAT(failure([&] { ImportTask::readFile(folder.path() / "old.xls", std::nullopt); }),
              HasSubstr("old.xls is an old-style Excel workbook (.xls)"));
}

TEST(ImportPaste, PastedTextOrItsAbsenceIsReported) {
  EXPECT_EQ(printed(ImportTask::readPasted("Id\n001A\n001B\n"), false),
            "Id\n001A\n001B\n(2 rows)\n");
  EXPECT_EQ(failure([&] { ImportTask::readPasted("\n\n"); }),
            "The pasted text holds no rows. Copy the cells again, header row included, and paste "
            "them.\n");
}

class ImportRunTest : public orgsim::testing::ServerFixture {
 protected:
  std::string dryRun(const std::string& csv, ImportCommand::RunOptions options) {
    options.dryRun = true;
    return importRun(csv, options);
  }

  std::string importRun(const std::string& csv, ImportCommand::RunOptions options) {
    options.file = (work_.path() / "accounts.csv").string();
    std::ofstream(options.file) << csv;
    options.journal = work_.path() / "journal.sqlite";
    testing::FakeCLI fake;
    fake.script(testing::orgListScript(store().identity().adminUsername, server_->baseUrl()));
    SalesforceCLI cli(fake.options());
    std::ostringstream out;
    CommandContext context{cli, out};
    SalesforceAPI::Client api([this](const std::string&) {
      return SalesforceAPI::Session{
          orgsim::Sessions::issue(store(), "").token, server_->baseUrl(), "62.0", {}};
    });
    options.login = "sample";
    options.object = "account";
    std::istringstream none;
    ImportCommand::run(context, api, options, none);
    return out.str();
  }

  TemporaryFolder work_;
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

TEST_F(ImportRunTest, AnImportWritesTheRowsAndHandsBackTheOnesThatFailed) {
  ImportCommand::RunOptions options;
  options.operation = *ImportOperation::parse("insert");
  options.results = work_.path() / "results.xlsx";
  std::string out = importRun(
      "Account Name,Rating,Note\nAcme,Hot,\"first, of two\"\n,Warm,no name\nBeta,,\n", options);
  EXPECT_THAT(out, HasSubstr("Created 2 records; 1 row was not sent because of the problems "
                             "above.\n"));
  EXPECT_THAT(out, HasSubstr("accounts - failed rows.csv, with a column \u201cError\u201d"));
  std::ifstream failed(work_.path() / "accounts - failed rows.csv");
  std::string text{std::istreambuf_iterator<char>(failed), std::istreambuf_iterator<char>()};
  EXPECT_EQ(text,
            "Account Name,Rating,Note,Error\r\n,Warm,no name,\"Not sent: Row 3, column "
            "\u201cAccount Name\u201d (Name): The field is required but the cell is empty. Fill it "
            "in.\"\r\n");
  EXPECT_EQ(query("SELECT Id FROM Account WHERE Name = 'Acme' AND Rating = 'Hot'")["totalSize"], 1);

  XlsxReader results(*options.results);
  std::optional<ImportGrid> sheet = results.readSheet(results.sheetNames().at(0));
  ASSERT_TRUE(sheet);
  ASSERT_EQ(sheet->rows.size(), 3u);
  std::vector<std::string> created = sheet->rows[0];
  std::vector<std::string> notSent = sheet->rows[1];
  EXPECT_EQ(created.at(0).substr(0, 3), "001");
  EXPECT_THAT(created, ::testing::Contains("Created"));
  EXPECT_THAT(notSent, ::testing::Contains("Not sent"));
}

// The `corvane` program, killed with SIGKILL at random moments while it
// imports, and started again each time: the org ends with one record per row.
TEST_F(ImportRunTest, KilledAtRandomMomentsAndResumedTheOrgHasEachRowOnce) {
  const char* build = std::getenv("CORVANE_BUILD_DIR");
  std::filesystem::path buildDir = build ? build : "";
  std::filesystem::path corvane = buildDir / "app" / "corvane";
  std::filesystem::path sf = buildDir / "tools" / "orgsim" / "sf" / "sf";
  if (!ChildProcess::isExecutableFile(corvane) || !ChildProcess::isExecutableFile(sf)) {
    GTEST_SKIP() << "skipped: corvane or the sf stand-in is not built in " << buildDir;
  }
  std::map<std::string, std::string> environment = ChildProcess::currentEnvironment();
  environment["HOME"] = work_.path().string();
  environment["XDG_DATA_HOME"] = (work_.path() / "data").string();
  environment["CORVANE_SF_PATH"] = sf.string();
  ProcessRequest login{sf,
                       {"org", "login", "access-token", "--instance-url", server_->baseUrl(),
                        "--alias", "sample", "--no-prompt", "--json"},
                       std::nullopt,
                       environment,
                       std::chrono::seconds(60),
                       {}};
  login.environment["SF_ACCESS_TOKEN"] = token_;
  ASSERT_EQ(ChildProcess::run(login).exitStatus, 0);

  // 1,500 rows go in collections of 200, 3,000 in Bulk API ingest jobs.
  for (int rows : {1500, 3000}) {
    SCOPED_TRACE(rows);
    std::string prefix = fmt::format("Kill{} ", rows);
    std::filesystem::path file = work_.path() / fmt::format("many-{}.csv", rows);
    {
      std::ofstream csv(file);
      csv << "Name,Industry,NumberOfEmployees\n";
      for (int row = 0; row < rows; ++row) {
        csv << fmt::format("{}{:04d},{},{}\n", prefix, row, row % 2 ? "Banking" : "Energy",
                           row % 7);
      }
    }
    ProcessRequest import{
        corvane,
        {"import", "run", "sample", "Account", file.string(), "--operation", "insert", "--yes"},
        std::nullopt,
        environment,
        std::chrono::seconds(300),
        {}};
    std::mt19937 random(std::random_device{}());
    int kills = 0;
    // A resumed run waits for a batch it lost to settle in the org (ten
    // seconds), so a few kills are enough.
    for (int attempt = 0; attempt < 3; ++attempt) {
      RunningProcess running = RunningProcess::start(import);
      std::this_thread::sleep_for(
          std::chrono::milliseconds(std::uniform_int_distribution<int>(300, 2500)(random)));
      if (running.poll()) break;  // it finished before the kill
      ::kill(running.pid(), SIGKILL);
      while (!running.poll()) std::this_thread::sleep_for(std::chrono::milliseconds(5));
      ++kills;
    }
    // The last run finishes the import, or finds that a killed run had
    // finished it just before its end.
    ProcessResult last = ChildProcess::run(import);
    if (last.exitStatus != 0) {
      EXPECT_THAT(last.standardError, HasSubstr("These rows were already imported into this org"))
          << last.standardOutput;
    }

    std::map<std::string, int> names;
    std::string path = "/services/data/v62.0/query?q=" +
                       encode("SELECT Name FROM Account WHERE Name LIKE '" + prefix + "%'");
    while (true) {
      nlohmann::json page = getJson(path);
      for (const auto& record : page["records"]) ++names[record["Name"].get<std::string>()];
      if (page.value("done", true)) break;
      path = page["nextRecordsUrl"].get<std::string>();
    }
    EXPECT_EQ(names.size(), static_cast<std::size_t>(rows)) << kills << " kills";
    int twice = 0;
    for (const auto& [name, count] : names) twice += count > 1;
    EXPECT_EQ(twice, 0) << kills << " kills";
  }
}

}  // namespace
}  // namespace corvane

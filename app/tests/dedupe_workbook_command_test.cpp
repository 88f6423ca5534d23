// `corvane dedupe export` and `dedupe decisions` on a snapshot on disk: the
// workbook written with the suggested keepers, edited, and read back against
// the groups it was made from.
#include "app/dedupe_workbook_command.hpp"

#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "app/dedupe_command.hpp"
#include "connections/tests/fake_cli.hpp"
#include "dedupe/record_store.hpp"
#include "dedupe/tests/typed_decisions.hpp"
#include "workbook/xlsx_reader.hpp"
#include "platform/tests/temporary_folder.hpp"

namespace corvane {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

class DedupeWorkbookCommandTest : public ::testing::Test {
 protected:
  void SetUp() override {
    RecordStore::Creation creation;
    creation.orgId = "00D000000000001";
    creation.objectName = "Contact";
    creation.objectLabel = "Contact";
    creation.nameFieldLabel = "Full Name";
    creation.matchFields = {{"Name", "Full Name", MatchKind::personName, MatchMode::close},
                            {"Email", "Email", MatchKind::email, MatchMode::exact}};
    creation.extraFields = {"Phone"};
    url_ = folder_.path() / "contacts.sqlite";
    auto store = RecordStore::create(url_, creation);
    const auto row = [](std::string id, std::string name, std::string email, std::string created) {
      return RecordStore::Incoming{id, name, created, created, {name, email}, {"555"}};
    };
    store->ingest({row("003000000000001", "Martha Jones", "m@x.com", "2024-05-01T00:00:00Z"),
                   row("003000000000002", "Marhta Jones", "m@x.com", "2021-01-01T00:00:00Z"),
                   row("003000000000003", "Peter Quinn", "p@x.com", "2020-01-01T00:00:00Z"),
                   row("003000000000004", "Peter Quinn", "p@x.com", "2023-01-01T00:00:00Z"),
                   row("003000000000005", "Anna Lee", "a@x.com", "2020-01-01T00:00:00Z")},
                  "null");
  }

  CommandContext context() { return CommandContext{cli_, out_}; }

  // The exported workbook with Actions typed by Record Id, saved again.
  std::filesystem::path edited(const std::filesystem::path& exported,
                               const std::map<std::string, std::string>& actions) {
    const auto path = folder_.path() / "edited.xlsx";
    testing::typeDecisions(exported, actions, path);
    return path;
  }

  TemporaryFolder folder_;
  std::filesystem::path url_;
  testing::FakeCLI fake_;
  SalesforceCLI cli_{fake_.options()};
  std::ostringstream out_;
};

TEST_F(DedupeWorkbookCommandTest, ExportMarksTheKeeperOfTheChosenRuleAndDecisionsReadBack) {
  auto ctx = context();
  const auto workbook = folder_.path() / "decisions.xlsx";
  DedupeWorkbookCommand::ExportOptions options;
  options.keeper = KeeperRule::newest;
  const auto groups = DedupeWorkbookCommand::exportWorkbook(ctx, url_, workbook, options);
  ASSERT_EQ(groups.size(), 2U);
  EXPECT_THAT(out_.str(), HasSubstr("Wrote 2 groups holding 4 records to "));

  XlsxReader reader(workbook);
  EXPECT_THAT(reader.sheetNames(), ElementsAre("Duplicates - Contact", "How To Use"));
  auto grid = reader.readSheet(0);
  ASSERT_TRUE(grid);
  std::vector<std::string> kept;
  for (const auto& row : grid->rows) {
    if (row.size() > 3 && row[3] == "KEEP") kept.push_back(row[1]);
  }
  // Newest: the Martha Jones created in 2024 and the Peter Quinn of 2023.
  EXPECT_THAT(kept, ::testing::UnorderedElementsAre("003000000000001", "003000000000004"));

  // Marking a record "not a duplicate" after the export changes the groups a
  // new match finds, not those the workbook is read against.
  DedupeCommand::exclude(ctx, url_, {"003000000000003"});
  const auto path = edited(workbook, {{"003000000000001", "Keep"},
                                      {"003000000000002", "Delete"},
                                      {"003000000000003", "Not a duplicate"}});
  out_.str("");
  auto decisions = DedupeWorkbookCommand::showDecisions(ctx, url_, path, {}, false);
  EXPECT_THAT(decisions.deletes, ElementsAre("003000000000002"));
  EXPECT_THAT(decisions.notDuplicates, ElementsAre("003000000000003"));
  EXPECT_EQ(decisions.untouched, 1);
  EXPECT_THAT(out_.str(), HasSubstr("Keep: 1   Delete: 1   Not a duplicate: 1   Left blank: 1"));
}

TEST_F(DedupeWorkbookCommandTest, ProblemsArePrintedAndFailTheCommand) {
  auto ctx = context();
  const auto workbook = folder_.path() / "decisions.xlsx";
  DedupeWorkbookCommand::exportWorkbook(ctx, url_, workbook, {});
  const auto path = edited(workbook, {{"003000000000001", "Delete"},
                                      {"003000000000002", "delete"},
                                      {"003000000000003", "Merge"}});
  out_.str("");
  try {
    DedupeWorkbookCommand::showDecisions(ctx, url_, path, {}, true);
    FAIL() << "problems must fail the command";
  } catch (const DedupeWorkbookError& error) {
    EXPECT_EQ(error.kind(), DedupeWorkbookError::Kind::problems);
    EXPECT_THAT(error.what(), HasSubstr("has 2 problems"));
  }
  const auto json = nlohmann::json::parse(out_.str());
  ASSERT_EQ(json["problems"].size(), 2U);
  EXPECT_EQ(json["problems"][0],
            "\"Merge\" is not an action. Use Keep, Delete, Not a duplicate, or leave it blank.");
  EXPECT_THAT(json["problems"][1].get<std::string>(), HasSubstr(" every record marked Delete"));

  // A snapshot without duplicates writes no workbook.
  const auto single = folder_.path() / "single.sqlite";
  RecordStore::Creation creation;
  creation.objectName = "Lead";
  creation.matchFields = {{"Email", "Email", MatchKind::email, MatchMode::exact}};
  RecordStore::create(single, creation)
      ->ingest({{"00Q1", "A", "", "", {"a@x.com"}, {}}, {"00Q2", "B", "", "", {"b@x.com"}, {}}},
               "null");
  EXPECT_THROW(DedupeWorkbookCommand::exportWorkbook(ctx, single, folder_.path() / "none.xlsx", {}),
               DedupeWorkbookError);
  EXPECT_FALSE(std::filesystem::exists(folder_.path() / "none.xlsx"));
}

}  // namespace
}  // namespace corvane

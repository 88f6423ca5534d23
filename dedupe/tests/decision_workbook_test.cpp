#include "dedupe/decision_workbook.hpp"

#include <zip.h>

#include <algorithm>
#include <map>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "workbook/xlsx_reader.hpp"
#include "platform/tests/temporary_folder.hpp"

namespace corvane {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::UnorderedElementsAre;
using Rows = std::vector<std::vector<std::string>>;

SnapshotRecord record(Rid rid, std::string sfid, std::string name, std::string email,
                      std::string extra) {
  SnapshotRecord r;
  r.rid = rid;
  r.sfid = std::move(sfid);
  r.name = std::move(name);
  r.values = {r.name, std::move(email)};
  r.extras = {std::move(extra)};
  return r;
}

DecisionWorkbook::Layout contactLayout() {
  DecisionWorkbook::Layout layout;
  layout.objectName = "Contact";
  layout.objectLabel = "Contact";
  layout.nameLabel = "Full Name";
  layout.matchFields = {{"Name", "Full Name", MatchKind::personName, MatchMode::close},
                        {"Action__c", "Action", MatchKind::email, MatchMode::exact}};
  layout.extraFields = {"Phone"};
  return layout;
}

std::vector<DecisionWorkbook::ExportGroup> twoGroups() {
  DuplicateGroup exact{1, {10, 11}, 1.0, 0, false};
  DuplicateGroup close{2, {20, 21, 22}, 0.93, 3, false};
  return {{exact,
           {record(10, "003A", "Ann Lee", "ann@x.org", "555"),
            record(11, "003B", "Ann Lee", "ann@x.org", "")},
           1},
          {close,
           {record(20, "003C", "Ed Stone", "ed@x.org", "1"),
            record(21, "003D", "Edward Stone", "ed@x.org", "2"),
            record(22, "003E", "Edw. Stone", "ed@x.org", "3")},
           0}};
}

std::vector<DecisionWorkbook::DecidedGroup> decidedGroups() {
  return {{1, {"003A", "003B"}}, {2, {"003C", "003D", "003E"}}};
}

std::filesystem::path fixtures() {
  return CORVANE_DEDUPE_FIXTURES;
}

std::string part(const std::filesystem::path& path, const char* name) {
  int error = 0;
  zip_t* zip = zip_open(path.c_str(), ZIP_RDONLY, &error);
  if (!zip) return {};
  zip_stat_t stat;
  std::string bytes;
  if (zip_stat(zip, name, 0, &stat) == 0) {
    bytes.resize(stat.size);
    zip_file_t* file = zip_fopen(zip, name, 0);
    zip_fread(file, bytes.data(), stat.size);
    zip_fclose(file);
  }
  zip_close(zip);
  return bytes;
}

TEST(DecisionWorkbook, ExportsGroupsWithTheSuggestedKeeperAndTheInstructions) {
  TemporaryFolder folder;
  const auto path = folder.path() / "decisions.xlsx";
  DecisionWorkbook::write(path, contactLayout(), twoGroups());

  XlsxReader reader(path);
  EXPECT_THAT(reader.sheetNames(), ElementsAre("Duplicates - Contact", "How To Use"));
  auto groups = reader.readSheet(0);
  ASSERT_TRUE(groups);
  // A field labelled like a fixed column keeps its API name beside it, so
  // reading back never takes it for the Action column.
  EXPECT_THAT(groups->headers,
              ElementsAre("Group", "Record Id", "Action", "Kept By Rule", "Full Name", "Full Name",
                          "Action (Action__c)", "Phone", "Kind of Record",
                          "Why These Are Together"));
  const std::string same = "All matching fields are exactly the same.";
  const std::string close = "Matching fields are the same or very close.";
  EXPECT_EQ(groups->rows,
            (Rows{{"1", "003A", "", "", "Ann Lee", "Ann Lee", "ann@x.org", "555", "Contact", same},
                  {"1", "003B", "", "KEEP", "Ann Lee", "Ann Lee", "ann@x.org", "", "Contact", same},
                  {"2", "003C", "", "KEEP", "Ed Stone", "Ed Stone", "ed@x.org", "1", "Contact", close},
                  {"2", "003D", "", "", "Edward Stone", "Edward Stone", "ed@x.org", "2", "Contact",
                   close},
                  {"2", "003E", "", "", "Edw. Stone", "Edw. Stone", "ed@x.org", "3", "Contact",
                   close}}));

  auto howTo = reader.readSheet(1);
  ASSERT_TRUE(howTo);
  std::vector<std::string> lines{howTo->headers[0]};
  for (const auto& row : howTo->rows) lines.push_back(row[0]);
  EXPECT_THAT(
      lines,
      ElementsAre(
          "Each numbered group is a set of records that look like the same contact (a real-world "
          "thing).",
          "The record marked KEEP in the 'Kept By Rule' column is the suggested one to keep.",
          "In the Action column, type Keep on the record to keep and Delete on records to remove.",
          "Not a duplicate on any record that is not really a duplicate \u2014 it will stop being "
          "suggested.",
          "Leave the Action blank for any record that should not be touched at all.",
          "Do not change the Record Id column \u2014 it is how each row is recognized.",
          "Rows can be re-sorted or filtered freely. Only the Action column is read back.",
          "The green row in each group is the one suggested to keep."));

  // The suggested rows (3 and 4) carry the green fill on every cell, the
  // others none.
  EXPECT_THAT(part(path, "xl/styles.xml"), HasSubstr("C6EFCE"));
  const std::string sheet = part(path, "xl/worksheets/sheet1.xml");
  auto rowXML = [&sheet](int n) {
    std::size_t start = sheet.find("<row r=\"" + std::to_string(n) + "\"");
    return sheet.substr(start, sheet.find("</row>", start) - start);
  };
  auto styled = [](const std::string& row) {
    std::size_t cells = 0;
    std::size_t styledCells = 0;
    for (std::size_t at = row.find("<c "); at != std::string::npos; at = row.find("<c ", at + 1)) {
      ++cells;
      std::size_t end = row.find('>', at);
      if (row.substr(at, end - at).find(" s=\"") != std::string::npos) ++styledCells;
    }
    return std::pair{cells, styledCells};
  };
  EXPECT_EQ(styled(rowXML(3)), (std::pair<std::size_t, std::size_t>{10, 10}));
  EXPECT_EQ(styled(rowXML(4)), (std::pair<std::size_t, std::size_t>{10, 10}));
  EXPECT_EQ(styled(rowXML(2)).second, 0u);
  EXPECT_EQ(styled(rowXML(5)).second, 0u);
}

// A sheet as a person might leave it: headers in another order, extra columns.
ImportGrid sheet(Rows rows) {
  ImportGrid grid;
  grid.sheetName = "Duplicates - Contact";
  grid.headers = {"Name", "Action", "Group", "Record Id"};
  grid.rows = std::move(rows);
  return grid;
}

TEST(DecisionWorkbook, ReadsActionsInAnyCaseAndOrderFromTheFirstSheetWithBothColumns) {
  ImportGrid notes;
  notes.headers = {"Notes"};
  notes.rows = {{"Action"}};
  const Rows rows{{"Ann", "Keep", "1", "003A"},
                  {"Ann", " delete ", "1", "003B"},
                  {"Ed", "NOT DUPLICATE", "2", "003C"},
                  {"Ed", "not dup", "2", "003D"},
                  {"Ed", "Not  a duplicate", "2", "003E"}};
  auto decisions = DecisionWorkbook::decide({notes, sheet(rows)}, decidedGroups());
  EXPECT_THAT(decisions.keeps, ElementsAre("003A"));
  EXPECT_THAT(decisions.deletes, ElementsAre("003B"));
  EXPECT_THAT(decisions.notDuplicates, ElementsAre("003C", "003D", "003E"));
  EXPECT_EQ(decisions.untouched, 0);
  EXPECT_TRUE(decisions.problems.empty()) << decisions.problems[0];

  // Re-sorted and with a blank action: the same decisions, one untouched.
  Rows resorted(rows.rbegin(), rows.rend());
  resorted.push_back({"Ann", "", "1", "003Z"});
  auto again = DecisionWorkbook::decide({sheet(resorted)}, decidedGroups());
  EXPECT_THAT(again.keeps, ElementsAre("003A"));
  EXPECT_THAT(again.deletes, ElementsAre("003B"));
  EXPECT_THAT(again.notDuplicates, UnorderedElementsAre("003C", "003D", "003E"));
  EXPECT_EQ(again.untouched, 1);
  EXPECT_TRUE(again.problems.empty());
}

TEST(DecisionWorkbook, EveryBadRowAndGroupIsAProblemInItsOwnWords) {
  auto decisions = DecisionWorkbook::decide(
      {sheet({{"Ann", "Delete", "1", "003A"},
              {"Ann", "Delete", "1", "003B"},
              {"Ed", "Delete", "2", ""},
              {"Ed", "Keep", "2", "003X"},
              {"Ed", "Keep", "2", "003C"},
              {"Ed", "Delete", "2", "003C"},
              {"Ed", "Merge", "2", "003D"}})},
      decidedGroups());
  EXPECT_THAT(
      decisions.problems,
      ElementsAre(
          "Row 4 has an Action but no Record Id.",
          "\"003X\" is not a record from this duplicate check. The Record Id column may have been "
          "edited.",
          "\"003C\" appears more than once. Remove the duplicate row so each record has one "
          "decision.",
          "\"Merge\" is not an action. Use Keep, Delete, Not a duplicate, or leave it blank.",
          "At least one record in a group must survive. Mark one record of group 1 Keep, or leave "
          "its Action blank, instead of having every record marked Delete."));
  EXPECT_THAT(decisions.problems[4], HasSubstr(" every record marked Delete"));

  // Deletes beside records that are not duplicates leave nothing to keep.
  auto setApart = DecisionWorkbook::decide({sheet({{"Ed", "Delete", "2", "003C"},
                                                   {"Ed", "Not a duplicate", "2", "003D"},
                                                   {"Ed", "delete", "2", "003E"}})},
                                           decidedGroups());
  EXPECT_THAT(setApart.problems,
              ElementsAre("Group 2 has records marked Delete but none left to keep: the others "
                          "are marked Not a duplicate. Mark one record Keep, or leave its Action "
                          "blank."));

  auto nothing = DecisionWorkbook::decide({sheet({{"Ann", "Keep", "1", "003A"}, {"Ed", "", "2", "003C"}})},
                                          decidedGroups());
  EXPECT_THAT(nothing.problems,
              ElementsAre("No record is marked Delete or Not a duplicate, so there is nothing to "
                          "do. That may be exactly right \u2014 or the Action column was left "
                          "unfilled."));

  ImportGrid other;
  other.headers = {"Id", "Action"};
  EXPECT_THAT(DecisionWorkbook::decide({other}, decidedGroups()).problems,
              ElementsAre("This file has no sheet with both a \"Record Id\" and an \"Action\" "
                          "column. Was it exported from here?"));
}

TEST(DecisionWorkbook, LibreOfficeResavedWorkbookReadsBackToTheSameDecisions) {
  // decisions-libreoffice.xlsx: exported by write() with twoGroups(), Actions
  // typed, then sorted by name and filtered on Group and saved by LibreOffice
  // Calc (see make_decisions_fixture.py beside it).
  const auto fixture = fixtures() / "decisions-libreoffice.xlsx";
  auto decisions = DecisionWorkbook::read(fixture, decidedGroups());
  EXPECT_THAT(decisions.keeps, ElementsAre("003B"));
  EXPECT_THAT(decisions.deletes, UnorderedElementsAre("003A", "003E"));
  EXPECT_THAT(decisions.notDuplicates, ElementsAre("003D"));
  EXPECT_EQ(decisions.untouched, 1);
  EXPECT_TRUE(decisions.problems.empty());
}

// Writes the export the LibreOffice fixture starts from, to the path in
// CORVANE_DECISIONS_EXPORT (run with --gtest_also_run_disabled_tests).
TEST(DecisionWorkbook, DISABLED_WritesTheExportTheLibreOfficeFixtureStartsFrom) {
  const char* target = std::getenv("CORVANE_DECISIONS_EXPORT");
  ASSERT_NE(target, nullptr);
  DecisionWorkbook::write(target, contactLayout(), twoGroups());
}

}  // namespace
}  // namespace corvane

namespace corvane {
namespace {

// Leads matched against Contacts: a lead in a group carries the mark on its
// group row, any other has a row of its own, and only Delete acts on it.
TEST(DecisionWorkbookAlreadyThere, MarksRecordsAlreadyThereAndReadsOnlyDeleteAsAnAction) {
  TemporaryFolder folder;
  const auto path = folder.path() / "leads.xlsx";
  DecisionWorkbook::Layout layout = contactLayout();
  layout.objectName = "Lead";
  layout.objectLabel = "Lead";
  layout.otherLabel = "Contact";
  const std::vector<DecisionWorkbook::AlreadyThere> already{
      {record(20, "003C", "Ed Stone", "ed@x.org", "1"), "003OTHER", "Edward Stone", "E-mail the same."},
      {record(30, "00QALONE", "Zoe Park", "zoe@x.org", ""), "003ZOE", "Zoe Park", "Name the same, company the same."},
      // A second contact for the same lead is not a second row.
      {record(30, "00QALONE", "Zoe Park", "zoe@x.org", ""), "003ZOE2", "Zoe Parks", "Name very close."}};
  DecisionWorkbook::write(path, layout, twoGroups(), already);

  XlsxReader reader(path);
  auto grid = reader.readSheet(0);
  ASSERT_TRUE(grid);
  EXPECT_THAT(grid->headers, ::testing::Contains("Already a Contact"));
  EXPECT_THAT(grid->headers, ::testing::Contains("Contact Name"));
  const auto column = [&](const std::string& header) {
    return std::find(grid->headers.begin(), grid->headers.end(), header) - grid->headers.begin();
  };
  ASSERT_EQ(grid->rows.size(), 6u);  // five in groups, one of its own
  std::map<std::string, std::ptrdiff_t> rowOf;
  for (std::size_t r = 0; r < grid->rows.size(); ++r)
    rowOf[grid->rows[r][1]] = static_cast<std::ptrdiff_t>(r);
  EXPECT_EQ(grid->cell(rowOf["003C"], column("Already a Contact")), "003OTHER");
  EXPECT_EQ(grid->cell(rowOf["003C"], column("Group")), "2");
  EXPECT_EQ(grid->cell(rowOf["003D"], column("Already a Contact")), "");
  const auto alone = rowOf["00QALONE"];
  EXPECT_EQ(grid->cell(alone, column("Group")), "");
  EXPECT_EQ(grid->cell(alone, column("Already a Contact")), "003ZOE");
  EXPECT_EQ(grid->cell(alone, column("Contact Name")), "Zoe Park");
  EXPECT_EQ(grid->cell(alone, column("Kind of Record")), "Lead");
  EXPECT_EQ(grid->cell(alone, column("Why These Are Together")),
            "Already a Contact: Name the same, company the same.");
  auto howTo = reader.readSheet(1);
  ASSERT_TRUE(howTo);
  EXPECT_EQ(howTo->headers.size() + howTo->rows.size(), 10u);  // two lines more

  const std::vector<std::string> alreadyIds{"003C", "00QALONE", "00QKEPT"};
  auto deleted = DecisionWorkbook::decide(
      {sheet({{"Zoe", "Delete", "", "00QALONE"}, {"Kim", "Keep", "", "00QKEPT"}})},
      decidedGroups(), alreadyIds);
  EXPECT_THAT(deleted.alreadyDeletes, ElementsAre("00QALONE"));
  EXPECT_TRUE(deleted.deletes.empty());
  EXPECT_EQ(deleted.untouched, 1);
  EXPECT_TRUE(deleted.problems.empty()) << deleted.problems[0];

  // In a group, the row is the group's: Delete merges it there as usual.
  auto grouped = DecisionWorkbook::decide({sheet({{"Ed", "Delete", "2", "003C"}})},
                                          decidedGroups(), alreadyIds);
  EXPECT_THAT(grouped.deletes, ElementsAre("003C"));
  EXPECT_TRUE(grouped.alreadyDeletes.empty());

  auto bad = DecisionWorkbook::decide(
      {sheet({{"Zoe", "Merge", "", "00QALONE"}, {"Zoe", "Delete", "", "00QALONE"}})},
      decidedGroups(), alreadyIds);
  EXPECT_THAT(bad.problems,
              ::testing::IsSupersetOf({HasSubstr("\"Merge\" is not an action."),
                                       HasSubstr("\"00QALONE\" appears more than once.")}));
}

}  // namespace
}  // namespace corvane

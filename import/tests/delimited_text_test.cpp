#include "import/delimited_text.hpp"

#include <fstream>

#include <gtest/gtest.h>

#include "import/import_error.hpp"
#include "platform/file_error.hpp"
#include "platform/tests/temporary_folder.hpp"

namespace corvane {
namespace {

using Rows = std::vector<std::vector<std::string>>;

ImportGrid parsed(std::string_view text, char delimiter = ',') {
  auto grid = DelimitedText::parse(text, delimiter);
  EXPECT_TRUE(grid.has_value()) << text;
  return grid.value_or(ImportGrid{});
}

TEST(DelimitedTextParse, QuotingFollowsTheCharactersNotTheBytes) {
  auto grid = parsed("a,b,c\n\"x, \"\"y\"\"\",mid\"dle,\"two\nlines\"\n\"closed\"tail,,\n");
  EXPECT_EQ(grid.headers, (std::vector<std::string>{"a", "b", "c"}));
  EXPECT_EQ(grid.rows, (Rows{{"x, \"y\"", "mid\"dle", "two\nlines"}, {"closedtail", "", ""}}));

  // An unclosed quote runs to the end of the text.
  EXPECT_EQ(parsed("h\n\"open,\nrest").rows, (Rows{{"open,\nrest"}}));

  // A comma or quote that carries a combining mark is an ordinary character.
  EXPECT_EQ(parsed("h\na,\u0301b,\"\u0301c").rows, (Rows{{"a,\u0301b", "\"\u0301c"}}));
  // Non-ASCII text beside the delimiters is kept whole.
  EXPECT_EQ(parsed("h\nZoë,東京,\"😀,x\"").rows, (Rows{{"Zoë", "東京", "😀,x"}}));
}

TEST(DelimitedTextParse, BlankLinesAndEveryLineEndingEndRows) {
  auto grid = parsed("\xEF\xBB\xBF  id \t,\tname\r\n\r\n1,a\r2,b\n\n,\n\"\"\n3, c \n\n");
  EXPECT_EQ(grid.headers, (std::vector<std::string>{"id", "name"}));
  EXPECT_EQ(grid.rows, (Rows{{"1", "a"}, {"2", "b"}, {"", ""}, {"3", " c "}}));
  EXPECT_FALSE(grid.sheetName);

  EXPECT_FALSE(DelimitedText::parse("", ','));
  EXPECT_FALSE(DelimitedText::parse("\n\r\n\r", ','));
  EXPECT_FALSE(DelimitedText::parse("\xEF\xBB\xBF", ','));
}

TEST(DelimitedTextParse, HeadersLoseBlanksAndTabsButNotOtherText) {
  auto grid = parsed("\u00A0 Name\u3000\t, Email\n");
  EXPECT_EQ(grid.headers, (std::vector<std::string>{"Name", "Email"}));
}

TEST(DelimitedTextPasted, ChoosesTheDelimiterFromTheText) {
  // A tab anywhere makes it tab-separated, commas included in cells.
  auto tabbed = DelimitedText::parsePasted("Name,Title\nAcme, Inc\nOne\tTwo\n");
  ASSERT_TRUE(tabbed);
  EXPECT_EQ(tabbed->headers, (std::vector<std::string>{"Name,Title"}));
  EXPECT_EQ(tabbed->rows, (Rows{{"Acme, Inc"}, {"One", "Two"}}));

  // A comma on the first line only decides it.
  auto commas = DelimitedText::parsePasted("Id,Name\r\n1,a\r\n");
  ASSERT_TRUE(commas);
  EXPECT_EQ(commas->rows, (Rows{{"1", "a"}}));
  auto later = DelimitedText::parsePasted("Id\n1,a\n");
  ASSERT_TRUE(later);
  EXPECT_EQ(later->rows, (Rows{{"1,a"}}));

  // A list of single values is one column.
  auto ids = DelimitedText::parsePasted("001A\n001B\n001C");
  ASSERT_TRUE(ids);
  EXPECT_EQ(ids->headers, (std::vector<std::string>{"001A"}));
  EXPECT_EQ(ids->rows, (Rows{{"001B"}, {"001C"}}));
  EXPECT_FALSE(DelimitedText::parsePasted("\n\n"));
}

class DelimitedTextFile : public ::testing::Test {
 protected:
  std::filesystem::path write(const std::string& name, std::string_view bytes) {
    auto path = folder_.path() / name;
    std::ofstream(path, std::ios::binary)
        .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return path;
  }
  TemporaryFolder folder_;
};

TEST_F(DelimitedTextFile, DecodesUTF16BothWaysUTF8AndLatin1) {
  // "Nä,x\n1,😀" in UTF-16 little- and big-endian.
  std::string little(
      "\xFF\xFEN\0\xE4\0,\0x\0\n\0"
      "1\0,\0\x3D\xD8\x00\xDE",
      20);
  std::string big(
      "\xFE\xFF\0N\0\xE4\0,\0x\0\n\0"
      "1\0,\xD8\x3D\xDE\x00",
      20);
  for (const auto& bytes : {little, big}) {
    auto grid = DelimitedText::parseFile(write("u16.csv", bytes));
    EXPECT_EQ(grid.headers, (std::vector<std::string>{"Nä", "x"}));
    EXPECT_EQ(grid.rows, (Rows{{"1", "😀"}}));
  }
  EXPECT_EQ(DelimitedText::parseFile(write("latin.csv", "Caf\xE9,ok\n")).headers,
            (std::vector<std::string>{"Café", "ok"}));
  EXPECT_EQ(DelimitedText::parseFile(write("bom.csv", "\xEF\xBB\xBFId\n1\n")).headers,
            (std::vector<std::string>{"Id"}));

  try {
    DelimitedText::parseFile(write("broken.txt", std::string("\xFF\xFE\x00\xD8x\0", 6)));
    FAIL() << "an unpaired surrogate must not decode";
  } catch (const ImportError& error) {
    EXPECT_EQ(error.kind(), ImportError::Kind::badFile);
    EXPECT_EQ(error.description(), "Could not read broken.txt as text.");
  }
}

TEST_F(DelimitedTextFile, TheExtensionAndTheTextChooseTheDelimiter) {
  EXPECT_EQ(DelimitedText::parseFile(write("data.CSV", "a\tb,c\n")).headers,
            (std::vector<std::string>{"a\tb", "c"}));
  EXPECT_EQ(DelimitedText::parseFile(write("data.txt", "a,b\tc\n")).headers,
            (std::vector<std::string>{"a,b", "c"}));
  EXPECT_EQ(DelimitedText::parseFile(write("data.tsv", "a,b\n")).headers,
            (std::vector<std::string>{"a", "b"}));
}

TEST_F(DelimitedTextFile, FilesWithoutRowsOrUnreadableFail) {
  try {
    DelimitedText::parseFile(write("empty.csv", "\r\n\n  \n"));
  } catch (const ImportError&) {
    FAIL() << "a line of blanks is a row";
  }
  try {
    DelimitedText::parseFile(write("blank.csv", "\r\n\n\n"));
    FAIL();
  } catch (const ImportError& error) {
    EXPECT_EQ(error.description(), "blank.csv has no header row.");
  }
  EXPECT_THROW(DelimitedText::parseFile(folder_.path() / "missing.csv"), FileError);
}

TEST(ImportGridCells, ReadsAndWritesOutsideTheRowsWithoutFailing) {
  ImportGrid grid{std::nullopt, {"a", "b", "c"}, {{"1"}, {"2", "x", "y", "z"}}};
  EXPECT_EQ(grid.cell(0, 0), "1");
  EXPECT_EQ(grid.cell(0, 2), "");
  EXPECT_EQ(grid.cell(1, 3), "z");
  EXPECT_EQ(grid.cell(-1, 0), "");
  EXPECT_EQ(grid.cell(0, -1), "");
  EXPECT_EQ(grid.cell(2, 0), "");

  grid.setCell(0, 2, "new");
  EXPECT_EQ(grid.rows[0], (std::vector<std::string>{"1", "", "new"}));
  ImportGrid before = grid;
  grid.setCell(2, 0, "no such row");
  grid.setCell(-1, 0, "x");
  grid.setCell(0, -1, "x");
  EXPECT_EQ(grid, before);
}

TEST(ImportGridCells, CompactRowsKeepEveryCellAcrossBlocksCopiesAndChanges) {
  // Enough text to fill several storage blocks, one row longer than a block,
  // and empty cells and rows in between.
  ImportRows rows;
  std::vector<std::vector<std::string>> expected;
  for (int i = 0; i < 20'000; ++i) {
    std::vector<std::string> row{"row " + std::to_string(i), std::string(i % 97, 'x'), ""};
    if (i == 7'000) row.push_back(std::string(3'000'000, 'L'));
    if (i == 9'000) row.clear();
    rows.push_back(row);
    expected.push_back(std::move(row));
  }
  ASSERT_EQ(rows, expected);
  EXPECT_EQ(rows[7'000][3].size(), 3'000'000u);
  EXPECT_EQ(rows[7'001][0], "row 7001");
  EXPECT_TRUE(rows[9'000].empty());

  // A copy is independent of the original; a changed row reads back whole
  // and compares equal to the same text built afresh.
  ImportGrid grid{std::nullopt, {"a"}, rows};
  ImportGrid copy = grid;
  grid.setCell(5, 4, "far out");
  grid.setCell(7'000, 3, "short now");
  EXPECT_EQ(copy.rows, expected);
  expected[5].resize(5);
  expected[5][4] = "far out";
  expected[7'000][3] = "short now";
  EXPECT_EQ(grid.rows, expected);
  EXPECT_EQ(grid, (ImportGrid{std::nullopt, {"a"}, expected}));
  EXPECT_EQ(std::string(grid.cell(5, 4)), "far out");

  rows.dropFirst();
  EXPECT_EQ(rows.size(), 19'999u);
  EXPECT_EQ(rows.front()[0], "row 1");
}

}  // namespace
}  // namespace corvane

#include "backup/backup_csv.hpp"

#include <gtest/gtest.h>

namespace corvane {
namespace {

using BackupCSV::Range;

TEST(BackupCSV, WritesEveryFieldQuotedWithQuotesDoubledAndOneLineFeed) {
  EXPECT_EQ(BackupCSV::line(std::vector<std::string>{"a", "", "say \"hi\"", "x,y", "two\nlines"}),
            "\"a\",\"\",\"say \"\"hi\"\"\",\"x,y\",\"two\nlines\"\n");
  EXPECT_EQ(BackupCSV::line(std::vector<std::string>{}), "\n");
}

TEST(BackupCSV, TerminatedAddsALineFeedOnlyWhenMissing) {
  EXPECT_EQ(BackupCSV::terminated(""), "");
  EXPECT_EQ(BackupCSV::terminated("a"), "a\n");
  EXPECT_EQ(BackupCSV::terminated("a\n"), "a\n");
  EXPECT_EQ(BackupCSV::terminated("a\r"), "a\r");
  EXPECT_EQ(BackupCSV::terminated("a\r\n"), "a\r\n");
}

TEST(BackupCSV, ScanReadsWhatItWroteBack) {
  std::vector<std::string> header{"Id", "Name", "Notes"};
  std::vector<std::string> row{"001", "Smith, \"Jo\"", "line one\r\nline two\n"};
  std::string data = BackupCSV::line(header) + BackupCSV::line(row);
  auto page = BackupCSV::scan(data);
  EXPECT_EQ(page.header, header);
  ASSERT_EQ(page.records.size(), 1u);
  EXPECT_EQ(page.records[0].fields, row);
  EXPECT_EQ(BackupCSV::slice(data, page.records[0].range), BackupCSV::line(row));
}

TEST(BackupCSV, ScanKeepsEachRecordsBytesWithCRLFAndQuotedLineBreaks) {
  const std::string data =
      "Id,Name\r\n"
      "1,\"a\r\nb\"\r\n"
      "2,plain\n"
      "\n"
      "3,\"\"\"q\"\"\"";
  auto page = BackupCSV::scan(data);
  EXPECT_EQ(page.header, (std::vector<std::string>{"Id", "Name"}));
  EXPECT_EQ(page.headerRange, (Range{0, 9}));
  ASSERT_EQ(page.records.size(), 3u);
  EXPECT_EQ(page.records[0].fields, (std::vector<std::string>{"1", "a\r\nb"}));
  EXPECT_EQ(BackupCSV::slice(data, page.records[0].range), "1,\"a\r\nb\"\r\n");
  EXPECT_EQ(page.records[1].fields, (std::vector<std::string>{"2", "plain"}));
  EXPECT_EQ(BackupCSV::slice(data, page.records[1].range), "2,plain\n");
  // The last record has no line ending; its range stops at the data's end.
  EXPECT_EQ(page.records[2].fields, (std::vector<std::string>{"3", "\"q\""}));
  EXPECT_EQ(page.records[2].range.end, data.size());
}

TEST(BackupCSV, ScanKeepsEmptyFieldsAndUTF8Text) {
  auto page = BackupCSV::scan("a,b,c\n,,\"\"\n\"Zoë\",日本,\n");
  ASSERT_EQ(page.records.size(), 2u);
  EXPECT_EQ(page.records[0].fields, (std::vector<std::string>{"", "", ""}));
  EXPECT_EQ(page.records[1].fields, (std::vector<std::string>{"Zoë", "日本", ""}));
}

TEST(BackupCSV, ScanRefusesBytesThatAreNotTextAndACutOffQuote) {
  auto reasonOf = [](std::string_view data) {
    try {
      BackupCSV::scan(data);
    } catch (const BackupCSV::Unreadable& error) {
      return std::string(error.what());
    }
    return std::string("scanned");
  };
  const std::string notText =
      "Its contents are not text, so it is not one of this backup's own files.";
  EXPECT_EQ(reasonOf("Id,Name\n1,Caf\xE9\n"), notText);  // Latin-1
  EXPECT_EQ(reasonOf("Id\n\xC0\xAF\n"), notText);        // overlong encoding
  EXPECT_EQ(reasonOf("Id\n\xED\xA0\x80\n"), notText);    // a UTF-16 surrogate
  EXPECT_EQ(reasonOf("Id\n\xE6\x97"), notText);          // cut inside a character
  EXPECT_EQ(reasonOf("Id,Name\n1,\"never closed\n2,x\n"),
            "It stops part-way through a quoted value.");
  EXPECT_EQ(reasonOf(""), "scanned");
}

TEST(BackupCSV, StreamingScanStopsWhenAsked) {
  std::string data = "Id\n1\n2\n3\n";
  std::vector<std::string> seen;
  std::vector<std::string> header;
  BackupCSV::scan(
      data, [&](const BackupCSV::Record& record) { header = record.fields; },
      [&](const BackupCSV::Record& record) {
        seen.push_back(record.fields.at(0));
        return seen.size() < 2;
      });
  EXPECT_EQ(header, std::vector<std::string>{"Id"});
  EXPECT_EQ(seen, (std::vector<std::string>{"1", "2"}));
}

}  // namespace
}  // namespace corvane

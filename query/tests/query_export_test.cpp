#include "query/query_export.hpp"

#include <gtest/gtest.h>

namespace corvane {
namespace {

TEST(QueryExport, NoRowsGiveTheHeaderLineAlone) {
  EXPECT_EQ(QueryExport::csv({"Id", "Name"}, {}), "Id,Name\n");
  EXPECT_EQ(QueryExport::tsv({"Id", "Name"}, {}), "Id\tName\n");
}

TEST(QueryExport, CSVQuotesOnlyCellsWithACommaQuoteOrLoneLineBreak) {
  const std::vector<std::vector<std::string>> rows = {
      {"plain", "a,b", "say \"hi\"", "\""},
      {"tab\there", "line\nfeed", "carriage\rreturn", "crlf\r\nonly"},
      {"", "caf\u00E9 \U0001F44D", "\r\n\r\n", "\n\r"}};
  EXPECT_EQ(QueryExport::csv({"A", "B,C", "D\"", "E"}, rows),
            "A,\"B,C\",\"D\"\"\",E\n"
            "plain,\"a,b\",\"say \"\"hi\"\"\",\"\"\"\"\n"
            "tab\there,\"line\nfeed\",\"carriage\rreturn\",crlf\r\nonly\n"
            ",caf\u00E9 \U0001F44D,\r\n\r\n,\"\n\r\"\n");
}

TEST(QueryExport, TSVNeverQuotesAndFlattensTabsAndLineBreaksToOneBlankEach) {
  const std::vector<std::vector<std::string>> rows = {
      {"\"quoted\"", "a\tb", "one\r\ntwo", "x\ny\rz", "\r\r\n\n"}};
  // Column names are written exactly as they are, a tab in one splitting the header.
  EXPECT_EQ(QueryExport::tsv({"A", "B\tC", "D", "E\nF", "G"}, rows),
            "A\tB\tC\tD\tE\nF\tG\n"
            "\"quoted\"\ta b\tone two\tx y z\t   \n");
}

}  // namespace
}  // namespace corvane

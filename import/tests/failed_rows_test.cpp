#include "import/failed_rows.hpp"

#include <gtest/gtest.h>

#include "import/delimited_text.hpp"

namespace corvane {
namespace {

TEST(FailedRows, KeepTheFilesCellsAndAddTheReasonAsLastColumn) {
  ImportGrid grid = *DelimitedText::parse(
      "Name,Note\nOk\n\"Acme, Inc.\",\"said \"\"hi\"\"\nthen left\"\nShort\nLong,b,extra\n", ',');
  std::vector<RowOutcome> outcomes{{0, true, "001A", "", true},
                                   {1, false, "", "REQUIRED_FIELD_MISSING: Required fields", false},
                                   {2, false, "", "Not sent: bad", false},
                                   {3, false, "", "x", false}};
  std::string csv = FailedRows::csv(grid, outcomes);
  EXPECT_EQ(csv,
            "Name,Note,,Error\r\n"
            "\"Acme, Inc.\",\"said \"\"hi\"\"\nthen left\",,REQUIRED_FIELD_MISSING: Required "
            "fields\r\n"
            "Short,,,Not sent: bad\r\n"
            "Long,b,extra,x\r\n");
  // Read back as an import file, the rows are the same cells again.
  ImportGrid again = *DelimitedText::parse(csv, ',');
  EXPECT_EQ(again.rows[0][0], "Acme, Inc.");
  EXPECT_EQ(again.rows[0][1], "said \"hi\"\nthen left");
  EXPECT_EQ(again.rows.size(), 3u);

  EXPECT_EQ(FailedRows::standardPath("/data/accounts.xlsx"), "/data/accounts - failed rows.csv");
}

}  // namespace
}  // namespace corvane

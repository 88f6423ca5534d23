#include "workbook/xlsx_cells.hpp"

#include <gtest/gtest.h>

namespace corvane {
namespace {

TEST(XlsxClassify, BuiltInIdsDecideBeforeCodes) {
  for (int id : {14, 17, 27, 36, 50, 58}) EXPECT_EQ(classify(id, ""), FormatKind::date) << id;
  for (int id : {18, 21, 45, 47}) EXPECT_EQ(classify(id, ""), FormatKind::time) << id;
  for (int id : {22, 32, 33}) EXPECT_EQ(classify(id, ""), FormatKind::dateTime) << id;
  EXPECT_EQ(classify(9, ""), FormatKind::percent);
  EXPECT_EQ(classify(10, "yyyy"), FormatKind::percent);
  EXPECT_EQ(classify(46, ""), FormatKind::elapsed);
  EXPECT_EQ(classify(0, ""), FormatKind::general);
  EXPECT_EQ(classify(164, ""), FormatKind::general);
}

TEST(XlsxClassify, CustomCodesByTheirLettersOutsideQuotesAndBrackets) {
  EXPECT_EQ(classify(164, "[h]:mm"), FormatKind::elapsed);
  EXPECT_EQ(classify(164, "[MM]:SS"), FormatKind::elapsed);
  EXPECT_EQ(classify(164, "mmm"), FormatKind::date);
  EXPECT_EQ(classify(164, "0.0%"), FormatKind::percent);
  EXPECT_EQ(classify(164, "yyyy\\-mm\\-dd"), FormatKind::date);
  EXPECT_EQ(classify(164, "DD/MM/YYYY\\ hh:mm"), FormatKind::dateTime);
  EXPECT_EQ(classify(164, "hh:mm:ss AM/PM"), FormatKind::time);
  EXPECT_EQ(classify(164, "[$-409]h:mm"), FormatKind::time);
  EXPECT_EQ(classify(164, "#,##0.00\" days\""), FormatKind::general);
  EXPECT_EQ(classify(164, "[Red]0.00"), FormatKind::general);
  EXPECT_EQ(classify(164, "0\\d"), FormatKind::general);
  EXPECT_EQ(classify(164, "\"TRUE\";\"TRUE\";\"FALSE\""), FormatKind::general);
  EXPECT_EQ(classify(164, "General"), FormatKind::general);
}

TEST(XlsxSerial, BecomesUTCTextInEitherDateSystem) {
  EXPECT_EQ(serialToString(25569, FormatKind::date, false), "1970-01-01");
  EXPECT_EQ(serialToString(25569, FormatKind::dateTime, false), "1970-01-01 00:00:00");
  EXPECT_EQ(serialToString(0.5, FormatKind::time, false), "12:00:00");
  EXPECT_EQ(serialToString(45351.5732638889, FormatKind::dateTime, false), "2024-02-29 13:45:30");
  EXPECT_EQ(serialToString(45351.25, FormatKind::percent, false), "2024-02-29");
  // Half a millisecond rounds away from zero; seconds are never rounded up.
  EXPECT_EQ(serialToString(25569 + 0.9999999, FormatKind::time, false), "23:59:59");
  EXPECT_EQ(serialToString(61, FormatKind::date, false), "1900-03-01");
  EXPECT_EQ(serialToString(1, FormatKind::dateTime, false), "1899-12-31 00:00:00");
  // 1462 days later in the 1904 system.
  EXPECT_EQ(serialToString(25569, FormatKind::date, true), "1974-01-02");
  EXPECT_EQ(serialToString(-1e300, FormatKind::date, false), "-1e+300");
}

TEST(XlsxNumber, CleanTextNeverShowsNoiseOrExponents) {
  EXPECT_EQ(cleanNumber("12.0"), "12");
  EXPECT_EQ(cleanNumber("0.1"), "0.1");
  EXPECT_EQ(cleanNumber("42"), "42");
  EXPECT_EQ(cleanNumber("0.30000000000000004"), "0.3");
  EXPECT_EQ(cleanNumber("1.55208333333333"), "1.55208333333333");
  EXPECT_EQ(cleanNumber("-0.0"), "0");
  EXPECT_EQ(cleanNumber("1e-5"), "0.00001");
  EXPECT_EQ(cleanNumber("1.23456789012346E+017"), "123456789012346000");
  EXPECT_EQ(cleanNumber("123456789012345.6"), "123456789012346");
  EXPECT_EQ(cleanNumber("2.5e20"), "250000000000000000000");
  EXPECT_EQ(cleanNumber("not.a number"), "not.a number");
}

TEST(XlsxRender, EachCellTypeReadsAsASpreadsheetShowsIt) {
  std::vector<std::string> shared{"zero", "one"};
  StyleInfo styles{{FormatKind::general, FormatKind::date, FormatKind::dateTime, FormatKind::time,
                    FormatKind::percent}};
  CellContext context{&shared, &styles, false};
  EXPECT_EQ(renderCell("s", 0, "1", context), "one");
  EXPECT_EQ(renderCell("s", 0, "", context), "");
  EXPECT_THROW(renderCell("s", 0, "2", context), WorkbookFormatError);
  EXPECT_THROW(renderCell("s", 0, "-1", context), WorkbookFormatError);
  EXPECT_EQ(renderCell("inlineStr", 0, " text ", context), " text ");
  EXPECT_EQ(renderCell("str", 1, "ab", context), "ab");
  EXPECT_EQ(renderCell("e", 0, "#DIV/0!", context), "#DIV/0!");
  EXPECT_EQ(renderCell("b", 0, "1", context), "TRUE");
  EXPECT_EQ(renderCell("b", 0, "0", context), "FALSE");
  EXPECT_EQ(renderCell("", 1, "25569", context), "1970-01-01");
  EXPECT_EQ(renderCell("n", 2, "25569.5", context), "1970-01-01 12:00:00");
  EXPECT_EQ(renderCell("", 3, "0.75", context), "18:00:00");
  EXPECT_EQ(renderCell("", 4, "0.125", context), "0.125");
  EXPECT_EQ(renderCell("", 99, "3.0", context), "3");
  EXPECT_EQ(renderCell("", std::nullopt, "", context), "");

  // ISO text cells follow the style, else show what they hold.
  EXPECT_EQ(renderCell("d", 1, "2024-03-05T10:20:30Z", context), "2024-03-05");
  EXPECT_EQ(renderCell("d", 0, "2024-03-05T10:20:30", context), "2024-03-05 10:20:30");
  EXPECT_EQ(renderCell("d", 0, "2024-03-05T00:00:00", context), "2024-03-05");
  EXPECT_EQ(renderCell("d", 0, "10:20", context), "10:20:00");
  EXPECT_EQ(renderCell("d", 0, "soon", context), "soon");

  CellContext mac{&shared, &styles, true};
  EXPECT_EQ(renderCell("", 1, "0", mac), "1904-01-01");
}

TEST(XlsxText, EscapesOfControlCharactersAreUndone) {
  EXPECT_EQ(unescapeCellText("a_x000D__x000A_b"), "a\r\nb");
  EXPECT_EQ(unescapeCellText("_x005F_x0041_"), "_x0041_");
  EXPECT_EQ(unescapeCellText("_xZZZZ_ and _x00"), "_xZZZZ_ and _x00");
}

}  // namespace
}  // namespace corvane

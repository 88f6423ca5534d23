#include "workbook/xlsx_reader.hpp"

#include <zip.h>

#include <map>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "workbook/workbook_error.hpp"
#include "platform/tests/temporary_folder.hpp"

namespace corvane {
namespace {

using Rows = std::vector<std::vector<std::string>>;
using Headers = std::vector<std::string>;
using ::testing::HasSubstr;

// libreoffice-*.xlsx were written by LibreOffice Calc 7.4 from the .fods files beside
// them: soffice --headless --convert-to xlsx libreoffice-mixed.fods
std::filesystem::path fixture(const char* name) {
  return std::filesystem::path(CORVANE_WORKBOOK_FIXTURES) / name;
}

// The bytes of a ZIP archive holding parts (path → content).
std::string archive(const std::map<std::string, std::string>& parts) {
  zip_error_t error;
  zip_error_init(&error);
  zip_source_t* buffer = zip_source_buffer_create(nullptr, 0, 0, &error);
  zip_t* zip = zip_open_from_source(buffer, ZIP_TRUNCATE, &error);
  zip_source_keep(buffer);
  for (const auto& [name, content] : parts) {
    zip_source_t* source = zip_source_buffer(zip, content.data(), content.size(), 0);
    zip_file_add(zip, name.c_str(), source, ZIP_FL_OVERWRITE);
  }
  zip_close(zip);
  zip_source_open(buffer);
  zip_source_seek(buffer, 0, SEEK_END);
  auto size = zip_source_tell(buffer);
  zip_source_seek(buffer, 0, SEEK_SET);
  std::string bytes(static_cast<std::size_t>(size), '\0');
  zip_source_read(buffer, bytes.data(), static_cast<zip_uint64_t>(size));
  zip_source_close(buffer);
  zip_source_free(buffer);
  return bytes;
}

constexpr const char* mainNS = "http://schemas.openxmlformats.org/spreadsheetml/2006/main";

// A one-sheet workbook ("Data") whose sheetData is given; shared strings and
// styles optional.
std::string workbook(const std::string& sheetData, const std::string& shared = "",
                     const std::string& styles = "", bool date1904 = false) {
  std::string rels =
      R"(<Relationships xmlns="http://schemas.openxmlformats.org/package/2006/relationships">)"
      R"(<Relationship Id="rId1" Type="http://schemas.openxmlformats.org/officeDocument/2006/relationships/worksheet" Target="/xl/worksheets/sheet1.xml"/>)"
      R"(<Relationship Id="rId2" Type="http://schemas.openxmlformats.org/officeDocument/2006/relationships/sharedStrings" Target="sharedStrings.xml"/>)"
      R"(<Relationship Id="rId3" Type="http://schemas.openxmlformats.org/officeDocument/2006/relationships/styles" Target="styles.xml"/>)"
      "</Relationships>";
  std::map<std::string, std::string> parts{
      {"_rels/.rels",
       R"(<Relationships xmlns="http://schemas.openxmlformats.org/package/2006/relationships">)"
       R"(<Relationship Id="r" Type="http://schemas.openxmlformats.org/officeDocument/2006/relationships/officeDocument" Target="xl/workbook.xml"/></Relationships>)"},
      {"xl/workbook.xml",
       std::string("<workbook xmlns=\"") + mainNS +
           R"(" xmlns:r="http://schemas.openxmlformats.org/officeDocument/2006/relationships">)" +
           (date1904 ? R"(<workbookPr date1904="1"/>)" : "") +
           R"(<sheets><sheet name="Data" sheetId="1" r:id="rId1"/></sheets></workbook>)"},
      {"xl/_rels/workbook.xml.rels", rels},
      {"xl/worksheets/sheet1.xml", std::string("<worksheet xmlns=\"") + mainNS + "\"><sheetData>" +
                                       sheetData + "</sheetData></worksheet>"},
  };
  if (!shared.empty())
    parts["xl/sharedStrings.xml"] =
        std::string("<sst xmlns=\"") + mainNS + "\">" + shared + "</sst>";
  if (!styles.empty())
    parts["xl/styles.xml"] =
        std::string("<styleSheet xmlns=\"") + mainNS + "\">" + styles + "</styleSheet>";
  return archive(parts);
}

ImportGrid readData(const std::string& bytes) {
  XlsxReader reader(bytes, "book.xlsx");
  auto grid = reader.readSheet("Data");
  EXPECT_TRUE(grid);
  return grid.value_or(ImportGrid{});
}

// The sentence of the badFile error that reading the workbook raises.
std::string failureOf(const std::string& bytes,
                      std::size_t limit = XlsxReader::defaultMaximumPartSize) {
  try {
    XlsxReader reader(bytes, "book.xlsx", limit);
    for (std::size_t index = 0; index < reader.sheetNames().size(); ++index)
      reader.readSheet(index);
  } catch (const WorkbookError& error) {
    return error.description();
  }
  ADD_FAILURE() << "the workbook was read";
  return {};
}

TEST(XlsxReaderLibreOffice, ReadsCellsAsLibreOfficeShowsThem) {
  XlsxReader reader(fixture("libreoffice-mixed.xlsx"));
  EXPECT_EQ(reader.sheetNames(), (std::vector<std::string>{"People", "Ünïcödé sheet"}));
  EXPECT_FALSE(reader.date1904());

  auto people = reader.readSheet("People");
  ASSERT_TRUE(people);
  EXPECT_EQ(people->sheetName, "People");
  EXPECT_EQ(people->headers, (Headers{"Name", "Born", "Meeting", "Start", "Worked", "Share",
                                      "Month", "Amount", "Active", "Double", "Note"}));
  // Percent and elapsed cells show their number; a custom number format does not
  // change the number's text.
  EXPECT_EQ(people->rows, (Rows{{"Zoë Ångström", "1987-06-15", "2024-02-29 13:45:30", "08:30:00",
                                 "1.55208333333333", "0.125", "2023-03-01", "1234.5", "TRUE",
                                 "2469", "東京, \"quoted\""},
                                {"Gap Row", "", "", "", "0.1", "", "12", "", "FALSE", "ab"},
                                {"After blank", "1900-03-01", "", "", "", "", "", "", "", "#DIV/0!",
                                 "line one\nline two"}}));

  auto second = reader.readSheet(1);
  ASSERT_TRUE(second);
  EXPECT_EQ(second->sheetName, "Ünïcödé sheet");
  EXPECT_EQ(second->rows, (Rows{{"001", "1E-020"}, {"😀 emoji", "123456789012346000"}}));
}

TEST(XlsxReaderLibreOffice, A1904WorkbookKeepsItsDates) {
  XlsxReader reader(fixture("libreoffice-1904.xlsx"));
  EXPECT_TRUE(reader.date1904());
  auto grid = reader.readSheet("Old Mac");
  ASSERT_TRUE(grid);
  EXPECT_EQ(grid->headers, (Headers{"Event", "When"}));
  EXPECT_EQ(grid->rows, (Rows{{"Launch", "1984-01-24"}, {"Leap day", "2024-02-29"}}));
}

TEST(XlsxReaderCells, InlineAndRichTextGapsAndCellsWithoutReferences) {
  std::string shared =
      R"(<si><r><t>Ri</t></r><r><rPr><b/></rPr><t xml:space="preserve">ch </t></r><rPh><t>ふり</t></rPh></si>)"
      R"(<si><t>line_x000D__x000A_break</t></si>)";
  std::string styles =
      R"(<numFmts><numFmt numFmtId="164" formatCode="d/m/yy"/></numFmts>)"
      R"(<cellStyleXfs><xf numFmtId="22"/></cellStyleXfs><cellXfs><xf numFmtId="0"/><xf numFmtId="164"/></cellXfs>)";
  std::string sheet =
      R"(<row r="2"><c t="inlineStr"><is><t> Id </t></is></c><c t="s"><v>0</v></c><c r="D2" t="s"><v>1</v></c></row>)"
      R"(<row r="3"><c r="A3" s="1"><v>45000</v></c><c r="B3" s="0"><v>45000</v></c><c r="C3" t="d"><v>2024-01-02T03:04:05</v></c><c r="E3" s="1"/></row>)"
      R"(<row r="4"><c r="A4" s="1"/><c r="B4" t="s"/></row>)"
      R"(<row r="6"><c r="C6" t="inlineStr"><is><r><t>a</t></r><r><t>b</t></r></is></c><c t="e"><f>NA()</f><v>#N/A</v></c></row>)"
      R"(<row r="7" spans="1:3"/>)";
  auto grid = readData(workbook(sheet, shared, styles));
  EXPECT_EQ(grid.headers, (Headers{"Id", "Rich", "", "line\r\nbreak"}));
  EXPECT_EQ(grid.rows,
            (Rows{{"2023-03-15", "45000", "2024-01-02 03:04:05"}, {"", "", "ab", "#N/A"}}));
}

TEST(XlsxReaderCells, ASheetOfBlankCellsHasNoGrid) {
  XlsxReader reader(workbook(R"(<row r="1"><c r="A1" s="3"/></row>)"), "book.xlsx");
  EXPECT_FALSE(reader.readSheet("Data"));
}

TEST(XlsxReaderBadInput, EachBecomesASentenceNamingTheFile) {
  EXPECT_THAT(failureOf("PK\x03\x04 but no archive at all"),
              HasSubstr("book.xlsx could not be read as a workbook: it is not an .xlsx file"));
  EXPECT_THAT(failureOf(archive({{"word/document.xml", "<w/>"}})),
              HasSubstr("it holds no workbook part"));
  EXPECT_THAT(failureOf(workbook(R"(<row><c r="AAAAAAAAAA1"><v>1</v></c></row>)")),
              HasSubstr("beyond the last column a sheet can have, XFD"));
  EXPECT_THAT(failureOf(workbook(R"(<row><c r="XFE1"><v>1</v></c></row>)")), HasSubstr("XFD"));
  EXPECT_THAT(failureOf(workbook(R"(<row><c t="s"><v>5</v></c></row>)", "<si><t>only</t></si>")),
              HasSubstr("in the sheet \u201cData\u201d, a cell refers to shared text number 5, but "
                        "the workbook holds only 1"));
  EXPECT_THAT(failureOf(workbook(R"(<row><c><v>1</v></row>)")),
              HasSubstr("xl/worksheets/sheet1.xml holds broken XML (line 1"));
  // A part that unpacks past the bound is refused before it is read.
  EXPECT_THAT(failureOf(workbook(std::string(4096, ' ')), 1024),
              HasSubstr("its part xl/worksheets/sheet1.xml would unpack to more than 1024 bytes"));
  std::string sentence = failureOf(workbook("<row><c><v>1</v></c></row>", "<si><t>x</t>"));
  EXPECT_THAT(sentence, HasSubstr("Nothing was imported; open it in your spreadsheet program, save "
                                  "it again as an .xlsx workbook (or as CSV) and try again."));
}

TEST(XlsxReaderBadInput, AnUnknownSheetNameListsTheSheets) {
  XlsxReader reader(fixture("libreoffice-mixed.xlsx"));
  try {
    reader.readSheet("Peeple");
    FAIL();
  } catch (const WorkbookError& error) {
    EXPECT_EQ(error.description(),
              "libreoffice-mixed.xlsx has no sheet named \u201cPeeple\u201d. Its sheets are "
              "\u201cPeople\u201d, \u201cÜnïcödé sheet\u201d; choose one of them.");
  }
}

}  // namespace
}  // namespace corvane

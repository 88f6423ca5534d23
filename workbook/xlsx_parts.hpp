// The parsers of a workbook's XML parts, each a pull parser over libxml2's
// text reader, so that no part is ever held in memory whole: the workbook
// (sheets and date system), relationships, shared strings, styles and sheets.
//
// Each throws WorkbookFormatError when its part is broken or breaks a limit.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "workbook/import_grid.hpp"

#include "workbook/xlsx_cells.hpp"

namespace corvane {

// The bytes of one part, read in order.
class PartInput {
 public:
  virtual ~PartInput() = default;
  // Fills up to capacity bytes; returns the count, 0 at the end, -1 on failure.
  virtual int read(char* buffer, int capacity) = 0;
  // Why the last read failed, in words that fit after "could not be read as a workbook: ".
  virtual std::string failure() const { return {}; }
  // The part's name in messages ("xl/worksheets/sheet1.xml").
  virtual std::string name() const { return "an XML part"; }
};

// A part held in memory (small parts, tests).
class TextPartInput : public PartInput {
 public:
  explicit TextPartInput(std::string_view text, std::string name = "an XML part")
      : text_(text), name_(std::move(name)) {}
  int read(char* buffer, int capacity) override;
  std::string name() const override { return name_; }

 private:
  std::string_view text_;
  std::string name_;
};

namespace WorkbookParser {

struct Sheet {
  std::string name;
  std::string relationshipID;
  bool operator==(const Sheet&) const = default;
};

struct Workbook {
  std::vector<Sheet> sheets;  // in the workbook's order
  bool date1904 = false;
};

Workbook parse(PartInput& input);

}  // namespace WorkbookParser

namespace RelsParser {

struct Relationship {
  std::string id;
  std::string type;    // the full type URI
  std::string target;  // as written: relative to the source part's folder, or absolute
  bool external = false;
  bool operator==(const Relationship&) const = default;
};

std::vector<Relationship> parse(PartInput& input);

// The path inside the archive of a target written in sourcePart's
// relationships ("worksheets/sheet1.xml" from "xl/workbook.xml" is
// "xl/worksheets/sheet1.xml"; "/xl/styles.xml" is "xl/styles.xml").
std::string resolve(std::string_view sourcePart, std::string_view target);

// The relationships part of a part ("xl/workbook.xml" → "xl/_rels/workbook.xml.rels").
std::string relsPath(std::string_view part);

// The first relationship whose type ends with "/" + kind ("officeDocument", "styles").
const Relationship* findType(const std::vector<Relationship>& relationships, std::string_view kind);

}  // namespace RelsParser

namespace SharedStringsParser {

// Each <si> as the text a person reads: runs joined, phonetic guides left out.
// Throws when the strings together pass maximumBytes.
std::vector<std::string> parse(PartInput& input, std::size_t maximumBytes);

}  // namespace SharedStringsParser

namespace StylesParser {

StyleInfo parse(PartInput& input);

}  // namespace StylesParser

namespace SheetParser {

// The last column a sheet may have (XFD).
inline constexpr std::size_t maximumColumns = 16384;

// The 0-based column of a cell reference's letters ("B7" → 1); nothing when
// the reference has no letters. Throws past column XFD.
std::optional<std::size_t> columnOf(std::string_view reference);

// The non-blank rows of a sheet in order, cells as rendered by renderCell,
// empty cells between two present ones as empty text, trailing empty cells
// left out.
ImportRows parse(PartInput& input, const CellContext& context);

}  // namespace SheetParser

}  // namespace corvane

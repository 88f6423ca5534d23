#include "workbook/xlsx_parts.hpp"

#include <libxml/xmlreader.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <span>

#include <fmt/format.h>

namespace corvane {

namespace {

// libxml2's text reader over a PartInput, with errors collected instead of
// printed. Not copyable; one reader per part.
class PullReader {
 public:
  explicit PullReader(PartInput& input) : input_(input) {
    reader_ = xmlReaderForIO(
        &PullReader::readBytes, nullptr, this, nullptr, nullptr,
        XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING | XML_PARSE_COMPACT);
    if (!reader_) throw WorkbookFormatError("there was not enough memory to read " + input.name());
    xmlTextReaderSetStructuredErrorHandler(reader_, &PullReader::onError, this);
  }
  ~PullReader() { xmlFreeTextReader(reader_); }
  PullReader(const PullReader&) = delete;
  PullReader& operator=(const PullReader&) = delete;

  // Moves to the next node; false at the end of the part.
  bool next() {
    int status = xmlTextReaderRead(reader_);
    type_ = status == 1 ? xmlTextReaderNodeType(reader_) : -1;
    if (status == 1) return true;
    if (status == 0 && error_.empty()) return false;
    if (!inputFailure_.empty()) throw WorkbookFormatError(inputFailure_);
    throw WorkbookFormatError(fmt::format("{} holds broken XML{}", input_.name(),
                                          error_.empty() ? "" : " (" + error_ + ")"));
  }

  int type() const { return type_; }
  bool isElement(const char* name) const {
    return type() == XML_READER_TYPE_ELEMENT && std::strcmp(localName(), name) == 0;
  }
  bool isEnd(const char* name) const {
    return type() == XML_READER_TYPE_END_ELEMENT && std::strcmp(localName(), name) == 0;
  }
  bool isText() const {
    int t = type();
    return t == XML_READER_TYPE_TEXT || t == XML_READER_TYPE_CDATA ||
           t == XML_READER_TYPE_SIGNIFICANT_WHITESPACE || t == XML_READER_TYPE_WHITESPACE;
  }
  const char* localName() const {
    const xmlChar* name = xmlTextReaderConstLocalName(reader_);
    return name ? reinterpret_cast<const char*>(name) : "";
  }
  bool isEmptyElement() const { return xmlTextReaderIsEmptyElement(reader_) == 1; }
  std::string_view value() const {
    const xmlChar* text = xmlTextReaderConstValue(reader_);
    return text ? std::string_view(reinterpret_cast<const char*>(text)) : std::string_view();
  }

  // Calls visit(localName, prefix, value) for each attribute of the element.
  template <class Visit>
  void attributes(Visit visit) {
    if (xmlTextReaderMoveToFirstAttribute(reader_) != 1) return;
    do {
      const xmlChar* prefix = xmlTextReaderConstPrefix(reader_);
      visit(std::string_view(localName()),
            prefix ? std::string_view(reinterpret_cast<const char*>(prefix)) : std::string_view(),
            value());
    } while (xmlTextReaderMoveToNextAttribute(reader_) == 1);
    xmlTextReaderMoveToElement(reader_);
  }

 private:
  static int readBytes(void* context, char* buffer, int capacity) {
    auto* self = static_cast<PullReader*>(context);
    int got = self->input_.read(buffer, capacity);
    if (got < 0) {
      self->inputFailure_ = self->input_.failure();
      if (self->inputFailure_.empty()) self->inputFailure_ = self->input_.name() + " is damaged";
    }
    return got;
  }

  static void onError(void* context, xmlErrorPtr error) {
    auto* self = static_cast<PullReader*>(context);
    if (!self->error_.empty() || !error || error->level < XML_ERR_ERROR) return;
    std::string message = error->message ? error->message : "unknown error";
    while (!message.empty() && (message.back() == '\n' || message.back() == ' '))
      message.pop_back();
    self->error_ = fmt::format("line {}: {}", error->line, message);
  }

  PartInput& input_;
  xmlTextReaderPtr reader_ = nullptr;
  int type_ = -1;
  std::string error_;
  std::string inputFailure_;
};

template <class Number>
std::optional<Number> number(std::string_view text) {
  Number value{};
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

// Collects the text of <t> elements until the end of the element `until`,
// leaving out phonetic guides (<rPh>). The reader stands on until's start.
std::string richText(PullReader& reader, const char* until) {
  std::string text;
  if (reader.isEmptyElement()) return text;
  bool inText = false;
  int phoneticDepth = 0;
  while (reader.next()) {
    if (reader.type() == XML_READER_TYPE_ELEMENT) {
      if (std::strcmp(reader.localName(), "rPh") == 0 && !reader.isEmptyElement())
        ++phoneticDepth;
      else if (std::strcmp(reader.localName(), "t") == 0 && !reader.isEmptyElement())
        inText = true;
    } else if (reader.type() == XML_READER_TYPE_END_ELEMENT) {
      if (std::strcmp(reader.localName(), "t") == 0)
        inText = false;
      else if (std::strcmp(reader.localName(), "rPh") == 0)
        phoneticDepth = std::max(0, phoneticDepth - 1);
      else if (std::strcmp(reader.localName(), until) == 0)
        break;
    } else if (inText && phoneticDepth == 0 && reader.isText()) {
      text += reader.value();
    }
  }
  return unescapeCellText(text);
}

std::string columnName(std::size_t column) {
  std::string name;
  for (std::size_t n = column + 1; n > 0; n = (n - 1) / 26)
    name.insert(name.begin(), static_cast<char>('A' + (n - 1) % 26));
  return name;
}

}  // namespace

int TextPartInput::read(char* buffer, int capacity) {
  std::size_t count = std::min(text_.size(), static_cast<std::size_t>(std::max(capacity, 0)));
  std::memcpy(buffer, text_.data(), count);
  text_.remove_prefix(count);
  return static_cast<int>(count);
}

WorkbookParser::Workbook WorkbookParser::parse(PartInput& input) {
  Workbook workbook;
  PullReader reader(input);
  while (reader.next()) {
    if (reader.isElement("workbookPr")) {
      reader.attributes([&](std::string_view name, std::string_view, std::string_view value) {
        if (name == "date1904") workbook.date1904 = value == "1" || value == "true";
      });
    } else if (reader.isElement("sheet")) {
      Sheet sheet;
      reader.attributes(
          [&](std::string_view name, std::string_view prefix, std::string_view value) {
            if (name == "name" && prefix.empty())
              sheet.name = value;
            else if (name == "id" && !prefix.empty())
              sheet.relationshipID = value;
          });
      workbook.sheets.push_back(std::move(sheet));
    }
  }
  return workbook;
}

std::vector<RelsParser::Relationship> RelsParser::parse(PartInput& input) {
  std::vector<Relationship> relationships;
  PullReader reader(input);
  while (reader.next()) {
    if (!reader.isElement("Relationship")) continue;
    Relationship relationship;
    reader.attributes([&](std::string_view name, std::string_view, std::string_view value) {
      if (name == "Id")
        relationship.id = value;
      else if (name == "Type")
        relationship.type = value;
      else if (name == "Target")
        relationship.target = value;
      else if (name == "TargetMode")
        relationship.external = value == "External";
    });
    relationships.push_back(std::move(relationship));
  }
  return relationships;
}

std::string RelsParser::resolve(std::string_view sourcePart, std::string_view target) {
  std::vector<std::string> parts;
  auto push = [&](std::string_view path) {
    std::size_t at = 0;
    while (at <= path.size()) {
      std::size_t end = path.find('/', at);
      if (end == std::string_view::npos) end = path.size();
      std::string_view piece = path.substr(at, end - at);
      if (piece == "..") {
        if (!parts.empty()) parts.pop_back();
      } else if (!piece.empty() && piece != ".") {
        parts.emplace_back(piece);
      }
      at = end + 1;
    }
  };
  if (target.empty() || target.front() != '/') {
    std::size_t slash = sourcePart.rfind('/');
    if (slash != std::string_view::npos) push(sourcePart.substr(0, slash));
  }
  push(target);
  std::string path;
  for (const auto& piece : parts) {
    if (!path.empty()) path += '/';
    path += piece;
  }
  return path;
}

std::string RelsParser::relsPath(std::string_view part) {
  std::size_t slash = part.rfind('/');
  std::string_view folder = slash == std::string_view::npos ? "" : part.substr(0, slash + 1);
  std::string_view file = slash == std::string_view::npos ? part : part.substr(slash + 1);
  return fmt::format("{}_rels/{}.rels", folder, file);
}

const RelsParser::Relationship* RelsParser::findType(const std::vector<Relationship>& relationships,
                                                     std::string_view kind) {
  for (const auto& relationship : relationships) {
    std::string_view type = relationship.type;
    if (type.size() > kind.size() && type.substr(type.size() - kind.size()) == kind &&
        type[type.size() - kind.size() - 1] == '/')
      return &relationship;
  }
  return nullptr;
}

std::vector<std::string> SharedStringsParser::parse(PartInput& input, std::size_t maximumBytes) {
  std::vector<std::string> strings;
  std::size_t total = 0;
  PullReader reader(input);
  while (reader.next()) {
    if (reader.isElement("sst")) {
      reader.attributes([&](std::string_view name, std::string_view, std::string_view value) {
        if (name == "uniqueCount") {
          // A hint only; never trusted beyond what a part of this size could hold.
          if (auto count = number<std::size_t>(value))
            strings.reserve(std::min<std::size_t>(*count, 1 << 20));
        }
      });
    } else if (reader.isElement("si")) {
      strings.push_back(richText(reader, "si"));
      total += strings.back().size() + sizeof(std::string);
      if (total > maximumBytes)
        throw WorkbookFormatError(
            fmt::format("its shared text would take more than {} MB", maximumBytes >> 20));
    }
  }
  return strings;
}

StyleInfo StylesParser::parse(PartInput& input) {
  std::vector<std::pair<int, std::string>> customFormats;
  std::vector<int> styleFormats;
  bool inCellXfs = false;
  PullReader reader(input);
  while (reader.next()) {
    if (reader.isElement("numFmt")) {
      std::optional<int> id;
      std::string code;
      reader.attributes([&](std::string_view name, std::string_view, std::string_view value) {
        if (name == "numFmtId")
          id = number<int>(value);
        else if (name == "formatCode")
          code = value;
      });
      if (id) customFormats.emplace_back(*id, std::move(code));
    } else if (reader.isElement("cellXfs")) {
      inCellXfs = !reader.isEmptyElement();
    } else if (reader.isEnd("cellXfs")) {
      inCellXfs = false;
    } else if (inCellXfs && reader.isElement("xf")) {
      int id = 0;
      reader.attributes([&](std::string_view name, std::string_view, std::string_view value) {
        if (name == "numFmtId") id = number<int>(value).value_or(0);
      });
      styleFormats.push_back(id);
    }
  }
  StyleInfo info;
  info.kinds.reserve(styleFormats.size());
  for (int id : styleFormats) {
    std::string_view code;
    for (const auto& [customID, customCode] : customFormats) {
      if (customID == id) code = customCode;
    }
    info.kinds.push_back(classify(id, code));
  }
  return info;
}

std::optional<std::size_t> SheetParser::columnOf(std::string_view reference) {
  std::size_t column = 0;
  std::size_t letters = 0;
  for (char c : reference) {
    int value;
    if (c >= 'A' && c <= 'Z')
      value = c - 'A' + 1;
    else if (c >= 'a' && c <= 'z')
      value = c - 'a' + 1;
    else
      break;
    column = column * 26 + static_cast<std::size_t>(value);
    if (++letters > 3 || column > maximumColumns) {
      std::string_view shown = reference.substr(0, std::min<std::size_t>(reference.size(), 20));
      throw WorkbookFormatError(
          fmt::format("a cell reference (\"{}\") lies beyond the last column a sheet can have, XFD",
                      std::string(shown)));
    }
  }
  if (letters == 0) return std::nullopt;
  return column - 1;
}

ImportRows SheetParser::parse(PartInput& input, const CellContext& context) {
  ImportRows rows;
  // The current row's cells: the first `width` of them; kept between rows so
  // that their allocations are reused.
  std::vector<std::string> row;
  std::size_t width = 0;
  std::size_t presentCells = 0;
  std::size_t filledGaps = 0;
  std::size_t nextColumn = 0;

  std::string type;
  std::optional<std::size_t> style;
  std::size_t column = 0;
  std::string value;
  bool inValue = false;
  bool inCell = false;

  auto endRow = [&] {
    if (width > 0) rows.appendRow(std::span<const std::string>(row.data(), width));
    for (std::size_t i = 0; i < width; ++i) row[i].clear();
    width = 0;
    nextColumn = 0;
  };
  auto endCell = [&] {
    inCell = false;
    std::string text = renderCell(type, style, value, context);
    nextColumn = column + 1;
    if (text.empty()) return;
    ++presentCells;
    if (column >= width) {
      filledGaps += column - width;
      // Gaps cost memory without holding anything; a sane sheet has few.
      if (filledGaps > 4'000'000 + 4 * presentCells)
        throw WorkbookFormatError(fmt::format("{} has cells too far apart (such as column {})",
                                              input.name(), columnName(column)));
      if (row.size() < column + 1) row.resize(column + 1);
      width = column + 1;
    }
    row[column] = std::move(text);
  };

  PullReader reader(input);
  while (reader.next()) {
    int nodeType = reader.type();
    if (nodeType == XML_READER_TYPE_ELEMENT) {
      const char* name = reader.localName();
      if (std::strcmp(name, "c") == 0) {
        type.clear();
        style.reset();
        value.clear();
        column = nextColumn;
        reader.attributes([&](std::string_view attribute, std::string_view, std::string_view text) {
          if (attribute == "r") {
            if (auto at = columnOf(text)) column = *at;
          } else if (attribute == "t") {
            type = text;
          } else if (attribute == "s") {
            style = number<std::size_t>(text);
          }
        });
        if (column >= maximumColumns)
          throw WorkbookFormatError(fmt::format(
              "{} has more cells in a row than a sheet can hold (16384)", input.name()));
        inCell = true;
        if (reader.isEmptyElement()) endCell();
      } else if (std::strcmp(name, "v") == 0) {
        inValue = inCell && !reader.isEmptyElement();
      } else if (std::strcmp(name, "is") == 0) {
        if (inCell) value = richText(reader, "is");
      } else if (std::strcmp(name, "row") == 0) {
        endRow();
        if (reader.isEmptyElement()) endRow();
      }
    } else if (nodeType == XML_READER_TYPE_END_ELEMENT) {
      const char* name = reader.localName();
      if (std::strcmp(name, "v") == 0)
        inValue = false;
      else if (std::strcmp(name, "c") == 0 && inCell)
        endCell();
      else if (std::strcmp(name, "row") == 0)
        endRow();
    } else if (inValue && reader.isText()) {
      value += reader.value();
    }
  }
  endRow();
  return rows;
}

}  // namespace corvane

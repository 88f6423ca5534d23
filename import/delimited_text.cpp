#include "import/delimited_text.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <span>
#include <vector>

#include "import/import_error.hpp"
#include "platform/file_error.hpp"
#include "platform/unicode.hpp"

namespace corvane::DelimitedText {

namespace {

// The bytes a run of ordinary text stops at. Bytes of 0x80 and above stop it
// too: they start a character that needs grapheme segmentation.
using StopTable = std::array<bool, 256>;

StopTable stopTable(std::initializer_list<unsigned char> specials) {
  StopTable table{};
  for (unsigned char c : specials) table[c] = true;
  for (int c = 0x80; c < 256; ++c) table[static_cast<std::size_t>(c)] = true;
  return table;
}

// The length in bytes of the user-perceived character that starts at offset.
std::size_t characterLength(std::string_view text, std::size_t offset) {
  Unicode::CharacterCursor cursor(text.substr(offset));
  return cursor.next().size();
}

// Whether the ASCII byte at offset is a character of its own. Only a
// following non-ASCII code point (a combining mark, a joiner) can extend it:
// the caller arrives at offset on a character boundary, and control
// characters never join what follows.
bool standsAlone(std::string_view text, std::size_t offset) {
  std::size_t next = offset + 1;
  if (next >= text.size() || static_cast<unsigned char>(text[next]) < 0x80) return true;
  if (static_cast<unsigned char>(text[offset]) < 0x20) return true;
  return characterLength(text.substr(offset, 5), 0) == 1;
}

class Parser {
 public:
  Parser(std::string_view text, char delimiter)
      : text_(text),
        delimiter_(delimiter),
        unquotedStops_(stopTable({static_cast<unsigned char>(delimiter), '"', '\r', '\n'})),
        quotedStops_(stopTable({'"'})) {}

  ImportRows run() {
    std::size_t i = 0;
    if (text_.substr(0, 3) == "\xEF\xBB\xBF") i = 3;
    const std::size_t n = text_.size();
    const char* data = text_.data();
    while (i < n) {
      if (inQuotes_) {
        std::size_t start = i;
        while (i < n && !quotedStops_[static_cast<unsigned char>(data[i])]) ++i;
        field_.append(data + start, i - start);
        if (i >= n) break;
        if (static_cast<unsigned char>(data[i]) >= 0x80 || !standsAlone(text_, i)) {
          appendCharacterAt(i);
          continue;
        }
        // A lone double quote: doubled it is one quote, else it ends the quoting.
        if (i + 1 < n && data[i + 1] == '"' && standsAlone(text_, i + 1)) {
          field_ += '"';
          i += 2;
        } else {
          inQuotes_ = false;
          ++i;
        }
        continue;
      }
      std::size_t start = i;
      while (i < n && !unquotedStops_[static_cast<unsigned char>(data[i])]) ++i;
      field_.append(data + start, i - start);
      if (i >= n) break;
      char c = data[i];
      if (static_cast<unsigned char>(c) >= 0x80 || !standsAlone(text_, i)) {
        appendCharacterAt(i);
        continue;
      }
      if (c == delimiter_) {
        endField();
        ++i;
      } else if (c == '\r' || c == '\n') {
        endRow();
        i += (c == '\r' && i + 1 < n && data[i + 1] == '\n') ? 2 : 1;
      } else if (field_.empty()) {  // a double quote at the start of a field
        inQuotes_ = true;
        ++i;
      } else {
        field_ += c;
        ++i;
      }
    }
    endRow();
    return std::move(rows_);
  }

 private:
  // Appends the whole character at i as ordinary text and moves past it.
  void appendCharacterAt(std::size_t& i) {
    std::size_t length = characterLength(text_, i);
    field_.append(text_.data() + i, length);
    i += length;
  }

  void endField() {
    // Cells are reused row after row, keeping their allocations.
    if (used_ < row_.size())
      row_[used_].assign(field_);
    else
      row_.push_back(field_);
    ++used_;
    field_.clear();
  }

  void endRow() {
    endField();
    inQuotes_ = false;
    const std::size_t count = used_;
    used_ = 0;
    if (count == 1 && row_[0].empty()) return;
    rows_.appendRow(std::span<const std::string>(row_.data(), count));
  }

  std::string_view text_;
  char delimiter_;
  StopTable unquotedStops_;
  StopTable quotedStops_;
  bool inQuotes_ = false;
  std::string field_;
  std::vector<std::string> row_;  // the first used_ are the current row's
  std::size_t used_ = 0;
  ImportRows rows_;
};

std::string fileName(const std::filesystem::path& path) { return path.filename().string(); }

std::string readAll(const std::filesystem::path& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw FileError(FileError::Kind::open, path, errno);
  std::string bytes;
  struct stat info {};
  if (::fstat(fd, &info) == 0 && info.st_size > 0)
    bytes.reserve(static_cast<std::size_t>(info.st_size));
  char buffer[1 << 16];
  for (;;) {
    ssize_t got = ::read(fd, buffer, sizeof buffer);
    if (got < 0) {
      if (errno == EINTR) continue;
      int error = errno;
      ::close(fd);
      throw FileError(FileError::Kind::read, path, error);
    }
    if (got == 0) break;
    bytes.append(buffer, static_cast<std::size_t>(got));
  }
  ::close(fd);
  return bytes;
}

std::optional<std::string> decodeUTF16(std::string_view bytes, bool bigEndian) {
  if (bytes.size() % 2 != 0) return std::nullopt;
  std::string out;
  out.reserve(bytes.size());
  auto unit = [&](std::size_t at) -> char32_t {
    auto a = static_cast<unsigned char>(bytes[at]);
    auto b = static_cast<unsigned char>(bytes[at + 1]);
    return bigEndian ? static_cast<char32_t>((a << 8) | b) : static_cast<char32_t>((b << 8) | a);
  };
  for (std::size_t at = 2; at < bytes.size(); at += 2) {  // past the byte-order mark
    char32_t c = unit(at);
    if (c >= 0xD800 && c <= 0xDBFF) {
      if (at + 3 >= bytes.size()) return std::nullopt;
      char32_t low = unit(at + 2);
      if (low < 0xDC00 || low > 0xDFFF) return std::nullopt;
      c = 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
      at += 2;
    } else if (c >= 0xDC00 && c <= 0xDFFF) {
      return std::nullopt;
    }
    Unicode::append(out, c);
  }
  return out;
}

std::string decodeLatin1(std::string_view bytes) {
  std::string out;
  out.reserve(bytes.size() + bytes.size() / 8);
  for (char byte : bytes) Unicode::append(out, static_cast<unsigned char>(byte));
  return out;
}

}  // namespace

std::optional<ImportGrid> parse(std::string_view text, char delimiter) {
  auto rows = Parser(text, delimiter).run();
  if (rows.empty()) return std::nullopt;
  ImportGrid grid;
  grid.headers.reserve(rows.front().size());
  for (ImportCell header : rows.front()) grid.headers.push_back(trimmedHeader(header));
  rows.dropFirst();
  grid.rows = std::move(rows);
  return grid;
}

std::optional<ImportGrid> parsePasted(std::string_view text) {
  if (text.find('\t') != std::string_view::npos) return parse(text, '\t');
  std::string_view firstLine = text.substr(0, text.find_first_of("\r\n"));
  if (firstLine.find(',') != std::string_view::npos) return parse(text, ',');
  return parse(text, '\0');
}

std::optional<std::string> decodeText(std::string_view bytes) {
  if (bytes.size() >= 2) {
    if (bytes[0] == '\xFF' && bytes[1] == '\xFE') return decodeUTF16(bytes, false);
    if (bytes[0] == '\xFE' && bytes[1] == '\xFF') return decodeUTF16(bytes, true);
  }
  if (Unicode::isValidUTF8(bytes)) return std::string(bytes);
  return decodeLatin1(bytes);
}

ImportGrid parseFile(const std::filesystem::path& path) {
  std::string bytes = readAll(path);
  std::optional<std::string> text = decodeText(bytes);
  if (!text) throw ImportError::badFile("Could not read " + fileName(path) + " as text.");
  bytes = {};
  std::string extension = path.extension().string();
  for (char& c : extension) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  char delimiter = ',';
  if (extension != ".csv" && text->find('\t') != std::string::npos) delimiter = '\t';
  std::optional<ImportGrid> grid = parse(*text, delimiter);
  if (!grid) throw ImportError::badFile(fileName(path) + " has no header row.");
  return std::move(*grid);
}

}  // namespace corvane::DelimitedText

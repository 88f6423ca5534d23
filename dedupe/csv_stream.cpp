#include "dedupe/csv_stream.hpp"

#include <cstring>
#include <string>

#include "platform/unicode.hpp"

namespace corvane {

CsvError CsvError::unterminatedQuote() {
  return CsvError(Kind::unterminatedQuote,
                  "A page of the download could not be read: a quoted value never ends. Nothing "
                  "was stored from this page; press Resume to ask for it again.");
}

CsvError CsvError::notUTF8() {
  return CsvError(Kind::notUTF8,
                  "A page of the download could not be read: it is not UTF-8 text. Nothing was "
                  "stored from this page; press Resume to ask for it again.");
}

namespace CsvStream {

namespace {

// True when every byte belongs to a well-formed UTF-8 sequence. Runs of ASCII
// are skipped eight bytes at a time.
bool isUTF8(std::string_view text) {
  const char* data = text.data();
  std::size_t size = text.size();
  std::size_t offset = 0;
  while (offset < size) {
    if (offset + 8 <= size) {
      std::uint64_t word;
      std::memcpy(&word, data + offset, 8);
      if ((word & 0x8080808080808080ULL) == 0) {
        offset += 8;
        continue;
      }
    }
    if (static_cast<unsigned char>(data[offset]) < 0x80) {
      ++offset;
      continue;
    }
    std::size_t length = 0;
    char32_t codePoint = Unicode::decode(text, offset, length);
    if (codePoint == Unicode::replacementCharacter && length == 1) return false;
    offset += length;
  }
  return true;
}

}  // namespace

void parsePage(std::string_view page, const std::function<void(const Row&)>& onHeader,
               const std::function<void(const Row&)>& onRow) {
  if (!isUTF8(page)) throw CsvError::notUTF8();

  // The values of the current row, unquoted, back to back; ends_ marks where
  // each stops. Views are made once the row is complete.
  std::string cells;
  std::vector<std::size_t> ends;
  Row row;
  bool headerSeen = false;
  const std::size_t size = page.size();
  std::size_t i = 0;

  auto deliver = [&] {
    row.clear();
    std::size_t start = 0;
    for (std::size_t end : ends) {
      row.emplace_back(cells.data() + start, end - start);
      start = end;
    }
    if (!headerSeen) {
      headerSeen = true;
      onHeader(row);
    } else {
      onRow(row);
    }
    cells.clear();
    ends.clear();
  };

  while (i < size) {
    // At the start of a line: skip empty lines.
    if (ends.empty() && (page[i] == '\n' || page[i] == '\r')) {
      ++i;
      continue;
    }
    // One field.
    if (page[i] == '"') {
      ++i;
      while (true) {
        const void* quote = std::memchr(page.data() + i, '"', size - i);
        if (!quote) throw CsvError::unterminatedQuote();
        std::size_t at = static_cast<std::size_t>(static_cast<const char*>(quote) - page.data());
        cells.append(page.data() + i, at - i);
        i = at + 1;
        if (i < size && page[i] == '"') {
          cells.push_back('"');
          ++i;
          continue;
        }
        break;
      }
      // Anything between the closing quote and the next separator is kept.
      while (i < size && page[i] != ',' && page[i] != '\n' && page[i] != '\r') {
        cells.push_back(page[i++]);
      }
    } else {
      std::size_t start = i;
      while (i < size && page[i] != ',' && page[i] != '\n' && page[i] != '\r') ++i;
      cells.append(page.data() + start, i - start);
    }
    ends.push_back(cells.size());
    if (i >= size) {
      deliver();
      break;
    }
    char separator = page[i++];
    if (separator == ',') {
      if (i >= size) {  // a row that ends with a comma has one more, empty value
        ends.push_back(cells.size());
        deliver();
      }
      continue;
    }
    if (separator == '\r' && i < size && page[i] == '\n') ++i;
    deliver();
  }
}

}  // namespace CsvStream

}  // namespace corvane

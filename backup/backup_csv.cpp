#include "backup/backup_csv.hpp"

#include <cstring>

namespace corvane::BackupCSV {

namespace {

const char* reasonText(Unreadable::Kind kind) {
  switch (kind) {
    case Unreadable::Kind::notText:
      return "Its contents are not text, so it is not one of this backup's own files.";
    case Unreadable::Kind::cutOff:
      return "It stops part-way through a quoted value.";
  }
  return "";
}

template <typename Fields>
void appendFields(std::string& out, const Fields& fields) {
  bool first = true;
  for (const auto& field : fields) {
    if (!first) out += ',';
    first = false;
    out += '"';
    std::string_view rest(field);
    for (std::size_t quote; (quote = rest.find('"')) != std::string_view::npos;) {
      out.append(rest.substr(0, quote + 1));
      out += '"';
      rest.remove_prefix(quote + 1);
    }
    out.append(rest);
    out += '"';
  }
  out += '\n';
}

}  // namespace

Unreadable::Unreadable(Kind kind) : UserFacingError(reasonText(kind)), kind_(kind) {}

std::string line(const std::vector<std::string>& fields) {
  std::string out;
  appendFields(out, fields);
  return out;
}

std::string line(const std::vector<std::string_view>& fields) {
  std::string out;
  appendFields(out, fields);
  return out;
}

void appendLine(std::string& out, const std::vector<std::string_view>& fields) {
  appendFields(out, fields);
}

std::string terminated(std::string_view data) {
  std::string out(data);
  if (!out.empty() && out.back() != '\n' && out.back() != '\r') out += '\n';
  return out;
}

bool isUTF8(std::string_view data) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(data.data());
  const std::size_t size = data.size();
  std::size_t i = 0;
  while (i < size) {
    // Eight ASCII bytes at a time: the common case for CSV.
    if (i + 8 <= size) {
      std::uint64_t block;
      std::memcpy(&block, bytes + i, 8);
      if ((block & 0x8080808080808080ULL) == 0) {
        i += 8;
        continue;
      }
    }
    const unsigned char c = bytes[i];
    if (c < 0x80) {
      ++i;
      continue;
    }
    std::size_t length;
    std::uint32_t lowest;
    std::uint32_t code;
    if ((c & 0xE0) == 0xC0) {
      length = 2, lowest = 0x80, code = c & 0x1F;
    } else if ((c & 0xF0) == 0xE0) {
      length = 3, lowest = 0x800, code = c & 0x0F;
    } else if ((c & 0xF8) == 0xF0) {
      length = 4, lowest = 0x10000, code = c & 0x07;
    } else {
      return false;
    }
    if (i + length > size) return false;
    for (std::size_t k = 1; k < length; ++k) {
      const unsigned char next = bytes[i + k];
      if ((next & 0xC0) != 0x80) return false;
      code = (code << 6) | (next & 0x3F);
    }
    if (code < lowest || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return false;
    i += length;
  }
  return true;
}

void scan(std::string_view data, const std::function<void(const Record& header)>& onHeader,
          const std::function<bool(const Record& record)>& onRecord) {
  if (!isUTF8(data)) throw Unreadable(Unreadable::Kind::notText);
  const char* bytes = data.data();
  const std::size_t size = data.size();
  Record record;
  std::size_t fieldCount = 0;
  // Reuses the record's strings, so that a long file allocates only for its widest row.
  auto nextField = [&]() -> std::string& {
    if (fieldCount == record.fields.size()) record.fields.emplace_back();
    std::string& field = record.fields[fieldCount++];
    field.clear();
    return field;
  };
  bool sawHeader = false;
  std::size_t i = 0;
  while (i < size) {
    const std::size_t start = i;
    // An empty line is not a record.
    if (bytes[i] == '\n') {
      ++i;
      continue;
    }
    if (bytes[i] == '\r' && i + 1 < size && bytes[i + 1] == '\n') {
      i += 2;
      continue;
    }
    fieldCount = 0;
    bool ended = false;
    while (!ended) {
      std::string& field = nextField();
      if (i < size && bytes[i] == '"') {
        ++i;
        for (;;) {
          const void* found = std::memchr(bytes + i, '"', size - i);
          if (found == nullptr) throw Unreadable(Unreadable::Kind::cutOff);
          const std::size_t quote =
              static_cast<std::size_t>(static_cast<const char*>(found) - bytes);
          field.append(bytes + i, quote - i);
          i = quote + 1;
          if (i < size && bytes[i] == '"') {
            field += '"';
            ++i;
            continue;
          }
          break;
        }
      }
      // Unquoted bytes, or anything after a closing quote, up to the separator.
      std::size_t run = i;
      while (run < size) {
        const char c = bytes[run];
        if (c == ',' || c == '\n' || (c == '\r' && run + 1 < size && bytes[run + 1] == '\n')) break;
        ++run;
      }
      field.append(bytes + i, run - i);
      i = run;
      if (i >= size) {
        ended = true;
      } else if (bytes[i] == ',') {
        ++i;
      } else {
        i += bytes[i] == '\r' ? 2 : 1;
        ended = true;
      }
    }
    record.fields.resize(fieldCount);
    record.range = {start, i};
    if (!sawHeader) {
      sawHeader = true;
      if (onHeader) onHeader(record);
    } else if (onRecord && !onRecord(record)) {
      return;
    }
  }
}

Page scan(std::string_view data) {
  Page page;
  scan(
      data,
      [&](const Record& header) {
        page.header = header.fields;
        page.headerRange = header.range;
      },
      [&](const Record& record) {
        page.records.push_back(record);
        return true;
      });
  return page;
}

std::string_view slice(std::string_view data, Range range) {
  if (range.begin > data.size()) return {};
  return data.substr(range.begin, range.end - range.begin);
}

}  // namespace corvane::BackupCSV

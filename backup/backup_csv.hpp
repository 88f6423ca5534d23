// The CSV of a backup: how rows are written, and how the CSV that Salesforce
// sends (and that earlier runs kept) is read back.
//
// Written rows quote every field, double the quotes inside, join with "," and
// end with one line feed; no byte-order mark, no carriage return. The scanner
// reads RFC 4180 as Salesforce writes it: CR LF or LF ends a record, and line
// breaks inside quotes are data. Each record keeps the bytes it came from, so a
// run copies rows exactly as received and never re-encodes a value.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/user_facing_error.hpp"

namespace corvane::BackupCSV {

// Why data could not be scanned. what() is the reason alone; callers name the file.
class Unreadable : public UserFacingError {
 public:
  enum class Kind { notText, cutOff };
  explicit Unreadable(Kind kind);
  Kind kind() const { return kind_; }

 private:
  Kind kind_;
};

// Byte offsets [begin, end) into the scanned data.
struct Range {
  std::size_t begin = 0;
  std::size_t end = 0;
  std::size_t size() const { return end - begin; }
  bool operator==(const Range&) const = default;
};

struct Record {
  std::vector<std::string> fields;
  // The record's bytes, its line ending included when it has one.
  Range range;
  bool operator==(const Record&) const = default;
};

struct Page {
  std::vector<std::string> header;
  Range headerRange;
  std::vector<Record> records;
};

// One written row: "\"a\",\"b \"\"c\"\"\",\"\"\n".
std::string line(const std::vector<std::string>& fields);
std::string line(const std::vector<std::string_view>& fields);
// Appends the row to out, for writers that build a page at a time.
void appendLine(std::string& out, const std::vector<std::string_view>& fields);

// data with "\n" added when it is not empty and ends in neither "\n" nor "\r".
std::string terminated(std::string_view data);

// The first record is the header; the rest are records. Empty lines are skipped.
// Throws Unreadable (notText) when the bytes are not UTF-8, before any record
// is delivered, and (cutOff) when the data ends inside a quoted value.
Page scan(std::string_view data);

// The same, delivered one record at a time (the Record is reused between
// calls; copy what you keep). onRecord returns false to stop early.
void scan(std::string_view data, const std::function<void(const Record& header)>& onHeader,
          const std::function<bool(const Record& record)>& onRecord);

// The bytes of range in data.
std::string_view slice(std::string_view data, Range range);

// Whether data is well-formed UTF-8.
bool isUTF8(std::string_view data);

}  // namespace corvane::BackupCSV

// Reads one CSV result page as the Bulk API writes it: comma separated,
// double-quote quoting with doubled quotes inside, line breaks (LF or CRLF)
// between rows and also inside quoted values.
#pragma once

#include <functional>
#include <string_view>
#include <vector>

#include "platform/user_facing_error.hpp"

namespace corvane {

class CsvError : public UserFacingError {
 public:
  enum class Kind { unterminatedQuote, notUTF8 };
  static CsvError unterminatedQuote();
  static CsvError notUTF8();
  Kind kind() const { return kind_; }

 private:
  CsvError(Kind kind, const std::string& sentence) : UserFacingError(sentence), kind_(kind) {}
  Kind kind_;
};

namespace CsvStream {

using Row = std::vector<std::string_view>;

// Calls onHeader with the first row and onRow with each further row; the
// views are valid during the call only. Empty lines are skipped. The whole
// page is checked to be UTF-8 before the first call, so a page refused with
// notUTF8 has delivered nothing; unterminatedQuote is only known at the end
// (the last row is then not delivered).
void parsePage(std::string_view page, const std::function<void(const Row&)>& onHeader,
               const std::function<void(const Row&)>& onRow);

}  // namespace CsvStream

}  // namespace corvane

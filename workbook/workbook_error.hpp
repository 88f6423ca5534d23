// A workbook that cannot be read: the file is not a workbook, is broken, or
// lacks the sheet asked for. The sentence names the file and what to do.
#pragma once

#include <string>

#include "platform/user_facing_error.hpp"

namespace corvane {

class WorkbookError : public UserFacingError {
 public:
  // sentence is the whole message a user reads, naming the file.
  explicit WorkbookError(const std::string& sentence) : UserFacingError(sentence) {}
};

}  // namespace corvane

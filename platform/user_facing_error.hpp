// The common base of typed failures whose message is the sentence a user
// reads: what happened and what to do. Each subsystem's error class derives
// from it, adds its own kind and values, and the command runner prints
// description() without further decoration.
#pragma once

#include <stdexcept>
#include <string>

namespace corvane {

class UserFacingError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;

  std::string description() const { return what(); }
};

}  // namespace corvane

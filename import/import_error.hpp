// The import engine's failures. Each carries the sentence a user reads: what
// went wrong, that nothing was imported, and what to do next.
#pragma once

#include <string>

#include "platform/user_facing_error.hpp"

namespace corvane {

class ImportError : public UserFacingError {
 public:
  enum class Kind {
    badFile,      // the source file could not be read as a table
    http,         // Salesforce refused a request of the import
    badDescribe,  // the object's describe data could not be understood
  };

  // message is the whole sentence, naming the file.
  static ImportError badFile(const std::string& message);
  static ImportError http(int status, const std::string& body);
  static ImportError badDescribe(const std::string& detail);

  Kind kind() const { return kind_; }
  // For badFile and badDescribe: the message; for http: the body.
  const std::string& message() const { return message_; }
  int status() const { return status_; }

 private:
  ImportError(Kind kind, std::string message, int status, const std::string& description)
      : UserFacingError(description), kind_(kind), message_(std::move(message)), status_(status) {}

  Kind kind_;
  std::string message_;
  int status_ = 0;
};

}  // namespace corvane

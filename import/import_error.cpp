#include "import/import_error.hpp"

#include <fmt/format.h>

namespace corvane {

ImportError ImportError::badFile(const std::string& message) {
  return ImportError(Kind::badFile, message, 0, message);
}

ImportError ImportError::http(int status, const std::string& body) {
  std::string shown = body.size() > 500 ? body.substr(0, 500) + "…" : body;
  return ImportError(Kind::http, body, status,
                     fmt::format("Salesforce refused the import request (HTTP {}): {} No further "
                                 "rows were sent; fix the cause and run the import again.",
                                 status, shown));
}

ImportError ImportError::badDescribe(const std::string& detail) {
  return ImportError(Kind::badDescribe, detail, 0,
                     fmt::format("The object's description from Salesforce could not be read ({}). "
                                 "Nothing was imported; try again, and if it persists check the "
                                 "object's setup in the org.",
                                 detail));
}

}  // namespace corvane

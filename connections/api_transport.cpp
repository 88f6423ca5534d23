#include "connections/api_transport.hpp"

namespace corvane {

std::string DedupeAPITransport::send(const std::string& method, const std::string& path,
                                     const QueryItems& query,
                                     const std::optional<std::string>& body) {
  return api_.send(method, path, query, body, org_);
}

std::pair<std::string, ResponseHeaders> DedupeAPITransport::getRaw(const std::string& path,
                                                                   const QueryItems& query,
                                                                   const std::string& accept) {
  return api_.getWithHeaders(path, query, accept, org_);
}

std::string DedupeAPITransport::postSOAP(const std::string& action, const std::string& envelope) {
  return api_.soap(action, envelope, org_);
}

TransportFailure DedupeAPITransport::classify(const std::exception& error) const {
  const auto* failure = dynamic_cast<const SalesforceAPI::APIError*>(&error);
  if (!failure) return {};
  using Kind = SalesforceAPI::APIError::Kind;
  TransportFailure result;
  // A SOAP call whose session ended even after the retry with a fresh one
  // answers 500 with the INVALID_SESSION_ID fault, whose text leads with it.
  result.signedOut = failure->kind() == Kind::noSession ||
                     (failure->kind() == Kind::http &&
                      (failure->status() == 401 ||
                       failure->message().rfind("INVALID_SESSION_ID", 0) == 0));
  if (failure->kind() == Kind::http) {
    result.httpStatus = failure->status();
    result.message = failure->message();
  }
  return result;
}

std::int64_t APITransport::download(const std::string& path, const std::filesystem::path& file) {
  return api_.download(path, file, org_);
}

}  // namespace corvane

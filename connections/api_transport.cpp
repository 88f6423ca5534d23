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

std::int64_t APITransport::download(const std::string& path, const std::filesystem::path& file) {
  return api_.download(path, file, org_);
}

}  // namespace corvane

#include "connections/counting_transport.hpp"

namespace corvane {

void CountingTransport::countOne() {
  std::lock_guard guard(lock_);
  ++count_;
}

std::int64_t CountingTransport::count() const {
  std::lock_guard guard(lock_);
  return count_;
}

std::string CountingTransport::send(const std::string& method, const std::string& path,
                                    const QueryItems& query,
                                    const std::optional<std::string>& body) {
  countOne();
  return inner_.send(method, path, query, body);
}

std::pair<std::string, ResponseHeaders> CountingTransport::getRaw(const std::string& path,
                                                                  const QueryItems& query,
                                                                  const std::string& accept) {
  countOne();
  return inner_.getRaw(path, query, accept);
}

std::string CountingTransport::postSOAP(const std::string& action, const std::string& envelope) {
  countOne();
  return inner_.postSOAP(action, envelope);
}

std::int64_t CountingTransport::download(const std::string& path,
                                         const std::filesystem::path& file) {
  countOne();
  return inner_.download(path, file);
}

}  // namespace corvane

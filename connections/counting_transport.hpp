// Counts the API requests of a backup run: every call through it is one.
#pragma once

#include <mutex>

#include "connections/backup_transport.hpp"

namespace corvane {

// Forwards every call to inner and adds one to the count per call, failed ones
// included (Salesforce counts them too). Safe to call from several threads.
class CountingTransport : public BackupTransport {
 public:
  explicit CountingTransport(BackupTransport& inner) : inner_(inner) {}

  std::string send(const std::string& method, const std::string& path, const QueryItems& query,
                   const std::optional<std::string>& body) override;
  std::pair<std::string, ResponseHeaders> getRaw(const std::string& path, const QueryItems& query,
                                                 const std::string& accept) override;
  std::string postSOAP(const std::string& action, const std::string& envelope) override;
  std::int64_t download(const std::string& path, const std::filesystem::path& file) override;
  TransportFailure classify(const std::exception& error) const override {
    return inner_.classify(error);
  }

  std::int64_t count() const;

 private:
  void countOne();

  BackupTransport& inner_;
  mutable std::mutex lock_;  // guards count_
  std::int64_t count_ = 0;
};

}  // namespace corvane

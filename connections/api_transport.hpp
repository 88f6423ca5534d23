// The app's transports: one login's way to Salesforce for the engines, which
// never see the CLI or the session.
#pragma once

#include "connections/backup_transport.hpp"
#include "connections/org.hpp"
#include "connections/salesforce_api.hpp"
#include "connections/dedupe_transport.hpp"

namespace corvane {

// For the duplicate engine. Thread-safe, like the client it uses. The SOAP
// envelope carries SalesforceAPI::sessionPlaceholder where the session ID goes.
class DedupeAPITransport : public DedupeTransport {
 public:
  DedupeAPITransport(SalesforceAPI::Client& api, Org org) : api_(api), org_(std::move(org)) {}

  std::string send(const std::string& method, const std::string& path, const QueryItems& query,
                   const std::optional<std::string>& body) override;
  std::pair<std::string, ResponseHeaders> getRaw(const std::string& path, const QueryItems& query,
                                                 const std::string& accept) override;
  std::string postSOAP(const std::string& action, const std::string& envelope) override;
  // A 401 or a missing session is signedOut; other replies give their status.
  TransportFailure classify(const std::exception& error) const override;

 private:
  SalesforceAPI::Client& api_;
  Org org_;
};

// For the backup engine: the same, plus downloads of file bodies.
class APITransport : public BackupTransport {
 public:
  APITransport(SalesforceAPI::Client& api, Org org) : inner_(api, org), api_(api), org_(org) {}

  std::string send(const std::string& method, const std::string& path, const QueryItems& query,
                   const std::optional<std::string>& body) override {
    return inner_.send(method, path, query, body);
  }
  std::pair<std::string, ResponseHeaders> getRaw(const std::string& path, const QueryItems& query,
                                                 const std::string& accept) override {
    return inner_.getRaw(path, query, accept);
  }
  std::string postSOAP(const std::string& action, const std::string& envelope) override {
    return inner_.postSOAP(action, envelope);
  }
  std::int64_t download(const std::string& path, const std::filesystem::path& file) override;
  TransportFailure classify(const std::exception& error) const override {
    return inner_.classify(error);
  }

 private:
  DedupeAPITransport inner_;
  SalesforceAPI::Client& api_;
  Org org_;
};

}  // namespace corvane

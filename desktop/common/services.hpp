// What every screen shares: the Salesforce CLI bridge, the REST client, the
// query history file and the app's own small preferences.
//
// One instance lives for the whole run (made in main, or by a test). The
// bridge and the client are thread-safe and are only called from worker
// threads; the history is opened on first use, off the interface thread.
#pragma once

#include <filesystem>
#include <memory>
#include <mutex>

#include <QSettings>
#include <QString>

#include "connections/salesforce_api.hpp"
#include "connections/salesforce_cli.hpp"
#include "query/query_history.hpp"

namespace corvane::desktop {

class Services {
 public:
  Services();
  ~Services();
  Services(const Services&) = delete;
  Services& operator=(const Services&) = delete;

  SalesforceCLI& cli() { return cli_; }
  // The REST client. Work in hand keeps the client it started with; a new
  // one (with no cached sessions) replaces it when the CLI's logins change
  // on disk, so a login renewed or moved to another address is used afresh.
  std::shared_ptr<SalesforceAPI::Client> api();
  void renewSessions();
  // Opens the history file the first time; call from worker threads only.
  QueryHistory& history();
  // Window geometry, splitters, the last login: "desktop.ini" in the
  // application-support folder (interface thread only).
  QSettings& preferences() { return *preferences_; }

  // The folder of the CLI's logins, watched for changes.
  std::filesystem::path loginFolder() const;

 private:
  SalesforceCLI cli_;
  std::mutex apiMutex_;  // guards api_
  std::shared_ptr<SalesforceAPI::Client> api_;
  std::unique_ptr<QSettings> preferences_;
  std::mutex historyMutex_;  // guards history_
  std::unique_ptr<QueryHistory> history_;
};

}  // namespace corvane::desktop

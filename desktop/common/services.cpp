#include "desktop/common/services.hpp"

#include "desktop/common/worker.hpp"
#include "platform/app_support.hpp"

namespace corvane::desktop {

Services::Services()
    : preferences_(std::make_unique<QSettings>(
          QString::fromStdString((AppSupport::folder() / "desktop.ini").string()),
          QSettings::IniFormat)) {}

// Work in hand uses the bridge and the client: it ends before they go.
Services::~Services() { Worker::waitForAll(); }

std::shared_ptr<SalesforceAPI::Client> Services::api() {
  std::lock_guard lock(apiMutex_);
  if (!api_) {
    api_ = std::make_shared<SalesforceAPI::Client>(
        [this](const std::string& username) { return cli_.session(username); });
  }
  return api_;
}

void Services::renewSessions() {
  std::lock_guard lock(apiMutex_);
  api_.reset();
}

QueryHistory& Services::history() {
  std::lock_guard lock(historyMutex_);
  if (!history_) history_ = std::make_unique<QueryHistory>(QueryHistory::standardFile());
  return *history_;
}

std::filesystem::path Services::loginFolder() const { return AppSupport::homeFolder() / ".sfdx"; }

}  // namespace corvane::desktop

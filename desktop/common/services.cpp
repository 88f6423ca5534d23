#include "desktop/common/services.hpp"

#include "platform/app_support.hpp"

namespace corvane::desktop {

Services::Services()
    : api_([this](const std::string& username) { return cli_.session(username); }),
      preferences_(std::make_unique<QSettings>(
          QString::fromStdString((AppSupport::folder() / "desktop.ini").string()),
          QSettings::IniFormat)) {}

Services::~Services() = default;

QueryHistory& Services::history() {
  std::lock_guard lock(historyMutex_);
  if (!history_) history_ = std::make_unique<QueryHistory>(QueryHistory::standardFile());
  return *history_;
}

std::filesystem::path Services::loginFolder() const { return AppSupport::homeFolder() / ".sfdx"; }

}  // namespace corvane::desktop

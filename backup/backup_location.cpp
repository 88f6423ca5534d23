#include "backup/backup_location.hpp"

#include "connections/org.hpp"
#include "platform/app_support.hpp"

namespace corvane {

std::string BackupLocation::safeName(std::string_view text) {
  std::string name(text);
  for (char& c : name) {
    if (c == '/' || c == ':' || c == '\0') c = '_';
  }
  if (name.empty() || name == "." || name == "..") name.insert(0, "_");
  return name;
}

std::filesystem::path BackupLocation::folder() const {
  return root / safeName(orgKey) / safeName(username);
}

std::filesystem::path BackupLocation::defaultRoot() { return AppSupport::folder() / "Backups"; }

BackupLocation BackupLocation::of(const Org& org, const std::filesystem::path& root) {
  return {root.empty() ? defaultRoot() : root, org.orgId.value_or("unknown-org"), org.username};
}

}  // namespace corvane

#include "dedupe/snapshot_info.hpp"

namespace corvane {

namespace {
bool equalIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    char x = a[i] >= 'A' && a[i] <= 'Z' ? static_cast<char>(a[i] - 'A' + 'a') : a[i];
    char y = b[i] >= 'A' && b[i] <= 'Z' ? static_cast<char>(b[i] - 'A' + 'a') : b[i];
    if (x != y) return false;
  }
  return true;
}
}  // namespace

SnapshotOwner snapshotOwner(std::string_view downloadedBy, std::string_view currentLogin) {
  if (downloadedBy.empty()) return SnapshotOwner::notRecorded;
  return equalIgnoringCase(downloadedBy, currentLogin) ? SnapshotOwner::thisLogin
                                                       : SnapshotOwner::anotherLogin;
}

}  // namespace corvane

#include "backup/backup_activity_log.hpp"

#include <algorithm>

namespace corvane {

void BackupActivityLog::add(std::string text) {
  std::lock_guard guard(mutex_);
  lines_.push_back(Line{nextId_++, std::move(text)});
  while (lines_.size() > maximum) lines_.pop_front();
}

std::vector<BackupActivityLog::Line> BackupActivityLog::recentLines(std::size_t n) const {
  std::lock_guard guard(mutex_);
  const std::size_t count = std::min(n, lines_.size());
  return {lines_.end() - static_cast<std::ptrdiff_t>(count), lines_.end()};
}

std::vector<std::string> BackupActivityLog::recent(std::size_t n) const {
  std::vector<std::string> texts;
  for (auto& line : recentLines(n)) texts.push_back(std::move(line.text));
  return texts;
}

void BackupActivityLog::clear() {
  std::lock_guard guard(mutex_);
  lines_.clear();
}

}  // namespace corvane

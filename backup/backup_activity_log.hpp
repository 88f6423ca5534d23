// The lines a backup shows while it works: the newest 1000, oldest dropped first.
// Thread-safe: the run's tasks add lines while the screen reads them.
#pragma once

#include <cstddef>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

namespace corvane {

class BackupActivityLog {
 public:
  static constexpr std::size_t maximum = 1000;

  struct Line {
    int id = 0;  // rises by one per line added, never reused
    std::string text;
    bool operator==(const Line&) const = default;
  };

  void add(std::string text);
  // The last n texts (or fewer), oldest first.
  std::vector<std::string> recent(std::size_t n) const;
  std::vector<Line> recentLines(std::size_t n) const;
  std::vector<Line> lines() const { return recentLines(maximum); }
  void clear();

 private:
  mutable std::mutex mutex_;  // guards lines_ and nextId_
  std::deque<Line> lines_;
  int nextId_ = 1;
};

}  // namespace corvane

#include "scheduling/backup_registry.hpp"

#include <algorithm>
#include <map>
#include <mutex>

#include "platform/app_support.hpp"
#include "platform/durable_file.hpp"

namespace corvane {

namespace {

std::string failureText(BackupRegistryFailure::Kind kind) {
  switch (kind) {
    case BackupRegistryFailure::Kind::couldNotSetAside:
      return "Your backup settings could not be read, and could not be set aside either, so "
             "nothing was changed. Nothing has been lost. Check that the disk is not full or "
             "read-only, then try again.";
    case BackupRegistryFailure::Kind::couldNotWrite:
      return "Your backup settings could not be saved. Check that the disk is not full, then try "
             "again.";
  }
  return {};
}

bool sameUsername(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
    auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
    return lower(x) == lower(y);
  });
}

// Guards the observers of BackupSetsChanged.
std::mutex observersMutex;
std::map<std::uint64_t, BackupSetsChanged::Observer>& observers() {
  static std::map<std::uint64_t, BackupSetsChanged::Observer> all;
  return all;
}
std::uint64_t nextToken = 1;

}  // namespace

BackupRegistryFailure::BackupRegistryFailure(Kind kind)
    : UserFacingError(failureText(kind)), kind_(kind) {}

namespace BackupSetsChanged {

std::uint64_t observe(Observer observer) {
  std::lock_guard lock(observersMutex);
  const auto token = nextToken++;
  observers().emplace(token, std::move(observer));
  return token;
}

void stopObserving(std::uint64_t token) {
  std::lock_guard lock(observersMutex);
  observers().erase(token);
}

void post() {
  std::vector<Observer> toCall;
  {
    std::lock_guard lock(observersMutex);
    for (const auto& [token, observer] : observers()) toCall.push_back(observer);
  }
  // Called outside the lock, so that an observer may save or stop observing.
  for (const auto& observer : toCall) observer();
}

}  // namespace BackupSetsChanged

std::filesystem::path BackupRegistry::standardDirectory() { return AppSupport::folder(); }

BackupRegistry::BackupRegistry(std::filesystem::path directory, std::function<SystemTime()> clock)
    : directory_(std::move(directory)), clock_(std::move(clock)) {}

std::string BackupRegistry::encode(const std::vector<BackupSet>& sets) {
  nlohmann::json stored = {{"format", 1}, {"sets", sets}};
  return stored.dump(2) + "\n";
}

std::vector<BackupSet> BackupRegistry::decode(std::string_view text) {
  const auto stored = nlohmann::json::parse(text);
  if (!stored.is_object()) throw std::invalid_argument("backup sets must be an object");
  const auto found = stored.find("sets");
  if (found == stored.end() || found->is_null()) return {};
  return found->get<std::vector<BackupSet>>();
}

BackupRegistry::Loaded BackupRegistry::load() const {
  Loaded loaded;
  try {
    const auto text = Durable::readWhole(fileURL());
    if (!text) return loaded;
    loaded.sets = decode(*text);
    loaded.state = Loaded::State::read;
  } catch (const std::exception&) {
    loaded.sets.clear();
    loaded.state = Loaded::State::unreadable;
  }
  return loaded;
}

std::string BackupRegistry::unreadableMessage() const {
  std::string shown = fileURL().string();
  const std::string home = AppSupport::homeFolder().string();
  if (!home.empty() && shown.rfind(home + "/", 0) == 0) shown = "~" + shown.substr(home.size());
  return "Your backup settings could not be read, so Corvane cannot tell which backups are "
         "scheduled. Nothing has been deleted and nothing has been changed: any schedule already "
         "set up is still running. The file is " +
         shown +
         ". Next time you change a backup setting it is kept, under a new name with the date on "
         "it, and a fresh one is written.";
}

bool BackupRegistry::setAside() const {
  std::string stamp = IsoTime::formatPlain(clock_());
  std::replace(stamp.begin(), stamp.end(), ':', '-');
  try {
    Durable::moveWithoutOverwriting(fileURL(),
                                    directory_ / ("backup-sets-unreadable-" + stamp + ".json"));
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

void BackupRegistry::save(const std::vector<BackupSet>& sets) const {
  if (load().isUnreadable() && !setAside())
    throw BackupRegistryFailure(BackupRegistryFailure::Kind::couldNotSetAside);
  try {
    std::filesystem::create_directories(directory_);
    Durable::replace(fileURL(), encode(sets), 0600);
  } catch (const std::exception&) {
    throw BackupRegistryFailure(BackupRegistryFailure::Kind::couldNotWrite);
  }
  BackupSetsChanged::post();
}

std::vector<BackupSet> BackupRegistry::upsert(const BackupSet& set) const {
  auto sets = load().sets;
  const auto same = std::find_if(sets.begin(), sets.end(), [&](const BackupSet& existing) {
    return sameUsername(existing.username, set.username);
  });
  if (same == sets.end()) {
    sets.push_back(set);
  } else {
    *same = set;
  }
  save(sets);
  return sets;
}

std::vector<BackupSet> BackupRegistry::remove(const std::string& username) const {
  auto sets = load().sets;
  std::erase_if(sets, [&](const BackupSet& set) { return sameUsername(set.username, username); });
  save(sets);
  return sets;
}

void BackupRegistry::recordSuccess(const std::string& username, SystemTime at) const {
  auto loaded = load();
  if (loaded.state != Loaded::State::read) return;
  const auto found = std::find_if(loaded.sets.begin(), loaded.sets.end(), [&](const BackupSet& set) {
    return sameUsername(set.username, username);
  });
  if (found == loaded.sets.end()) return;
  found->lastSuccessAt = at;
  save(loaded.sets);
}

ScheduleWish BackupRegistry::scheduleWish() const {
  const auto loaded = load();
  if (loaded.isUnreadable()) return ScheduleWish::unknown;
  const bool any = std::any_of(loaded.sets.begin(), loaded.sets.end(),
                               [](const BackupSet& set) { return set.hasSchedule(); });
  return any ? ScheduleWish::scheduled : ScheduleWish::none;
}

}  // namespace corvane

#include "scheduling/backup_set.hpp"

#include <stdexcept>

namespace corvane {

namespace {

using nlohmann::json;

// The single key of a keyed union, with its object of values.
std::pair<std::string, const json*> unionCase(const json& value, const char* what) {
  if (!value.is_object() || value.size() != 1)
    throw std::invalid_argument(std::string(what) + " must be an object with one key");
  const auto entry = value.begin();
  if (!entry.value().is_object())
    throw std::invalid_argument(std::string(what) + " values must be an object");
  return {entry.key(), &entry.value()};
}

std::string timeText(SystemTime time) { return IsoTime::formatPlain(time); }

SystemTime timeFrom(const json& value) {
  const auto text = value.get<std::string>();
  if (auto plain = IsoTime::parsePlain(text)) return *plain;
  if (auto fractional = IsoTime::parseFractional(text)) return *fractional;
  throw std::invalid_argument("not an ISO 8601 time: " + text);
}

template <typename T>
void put(json& out, const char* key, const std::optional<T>& value) {
  if (value) out[key] = *value;
}

template <typename T>
void take(const json& in, const char* key, std::optional<T>& value) {
  const auto found = in.find(key);
  if (found == in.end() || found->is_null()) {
    value.reset();
  } else {
    value = found->get<T>();
  }
}

}  // namespace

void to_json(json& out, const BackupSchedule& schedule) {
  switch (schedule.kind) {
    case BackupSchedule::Kind::manual:
      out = {{"manual", json::object()}};
      break;
    case BackupSchedule::Kind::hourly:
      out = {{"hourly", json::object()}};
      break;
    case BackupSchedule::Kind::daily:
      out = {{"daily", {{"hour", schedule.hour}, {"minute", schedule.minute}}}};
      break;
    case BackupSchedule::Kind::weekly:
      out = {{"weekly",
              {{"weekday", schedule.weekday}, {"hour", schedule.hour}, {"minute", schedule.minute}}}};
      break;
  }
}

void from_json(const json& in, BackupSchedule& schedule) {
  const auto [name, values] = unionCase(in, "schedule");
  if (name == "manual") {
    schedule = BackupSchedule::manual();
  } else if (name == "hourly") {
    schedule = BackupSchedule::hourly();
  } else if (name == "daily") {
    schedule = BackupSchedule::daily(values->at("hour").get<int>(), values->at("minute").get<int>());
  } else if (name == "weekly") {
    schedule = BackupSchedule::weekly(values->at("weekday").get<int>(),
                                      values->at("hour").get<int>(),
                                      values->at("minute").get<int>());
  } else {
    throw std::invalid_argument("unknown schedule " + name);
  }
  if (!schedule.isValid()) throw std::invalid_argument("schedule out of range");
}

void to_json(json& out, const BackupSet& set) {
  out = json::object();
  out["orgKey"] = set.orgKey;
  out["username"] = set.username;
  put(out, "orgName", set.orgName);
  put(out, "rootPath", set.rootPath);
  put(out, "includeFiles", set.includeFiles);
  put(out, "allFileVersions", set.allFileVersions);
  put(out, "includeHistoryAndFeed", set.includeHistoryAndFeed);
  put(out, "includeFormulaFields", set.includeFormulaFields);
  put(out, "extraObjects", set.extraObjects);
  put(out, "excludedObjects", set.excludedObjects);
  put(out, "onlyObjects", set.onlyObjects);
  put(out, "schedule", set.schedule);
  if (set.fullEvery) out["fullEvery"] = toText(*set.fullEvery);
  if (set.retention) {
    if (set.retention->keepLastFulls) {
      out["retention"] = {{"keepLastFulls", {{"_0", *set.retention->keepLastFulls}}}};
    } else {
      out["retention"] = {{"keepEverything", json::object()}};
    }
  }
  if (set.created) out["created"] = timeText(*set.created);
  if (set.lastSuccessAt) out["lastSuccessAt"] = timeText(*set.lastSuccessAt);
}

void from_json(const json& in, BackupSet& set) {
  set = BackupSet{};
  set.orgKey = in.at("orgKey").get<std::string>();
  set.username = in.at("username").get<std::string>();
  take(in, "orgName", set.orgName);
  take(in, "rootPath", set.rootPath);
  take(in, "includeFiles", set.includeFiles);
  take(in, "allFileVersions", set.allFileVersions);
  take(in, "includeHistoryAndFeed", set.includeHistoryAndFeed);
  take(in, "includeFormulaFields", set.includeFormulaFields);
  take(in, "extraObjects", set.extraObjects);
  take(in, "excludedObjects", set.excludedObjects);
  take(in, "onlyObjects", set.onlyObjects);
  take(in, "schedule", set.schedule);
  if (const auto found = in.find("fullEvery"); found != in.end() && !found->is_null()) {
    set.fullEvery = fullEveryFromText(found->get<std::string>());
    if (!set.fullEvery) throw std::invalid_argument("unknown fullEvery");
  }
  if (const auto found = in.find("retention"); found != in.end() && !found->is_null()) {
    const auto [name, values] = unionCase(*found, "retention");
    if (name == "keepLastFulls") {
      const int keep = values->at("_0").get<int>();
      if (keep < 1) throw std::invalid_argument("keepLastFulls below 1");
      set.retention = Retention::Policy{keep};
    } else if (name == "keepEverything") {
      set.retention = Retention::Policy::keepEverything();
    } else {
      throw std::invalid_argument("unknown retention " + name);
    }
  }
  if (const auto found = in.find("created"); found != in.end() && !found->is_null())
    set.created = timeFrom(*found);
  if (const auto found = in.find("lastSuccessAt"); found != in.end() && !found->is_null())
    set.lastSuccessAt = timeFrom(*found);
}

BackupLocation BackupSet::location(const std::filesystem::path& defaultRoot) const {
  return BackupLocation{rootPath ? std::filesystem::path(*rootPath) : defaultRoot, orgKey,
                        username};
}

BackupConfig BackupSet::config(const std::filesystem::path& defaultRoot) const {
  BackupConfig config;
  config.location = location(defaultRoot);
  config.options.includeHistoryAndFeed = includeHistoryAndFeed.value_or(false);
  config.options.includeFormulaFields = includeFormulaFields.value_or(false);
  config.options.extraObjects = extraObjects.value_or(std::vector<std::string>{});
  config.options.excludedObjects = excludedObjects.value_or(std::vector<std::string>{});
  config.options.onlyObjects = onlyObjects;
  config.downloadFileBodies = includeFiles.value_or(false);
  config.latestFileVersionsOnly = !allFileVersions.value_or(false);
  config.retention = retention.value_or(Retention::Policy::standard());
  return config;
}

}  // namespace corvane

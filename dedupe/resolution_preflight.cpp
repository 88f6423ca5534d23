#include "dedupe/resolution_preflight.hpp"

#include <algorithm>
#include <cctype>
#include <map>
#include <optional>
#include <set>

#include <nlohmann/json.hpp>

#include "platform/iso_time.hpp"

namespace corvane {

PreflightError PreflightError::recordsChanged() {
  return {Kind::recordsChanged, "Download a fresh copy before changing these records."};
}

PreflightError PreflightError::unreadableReply() {
  return {Kind::unreadableReply,
          "Salesforce returned a response that could not be read while re-checking records. "
          "Nothing was changed."};
}

namespace {

bool isRecordId(std::string_view id) {
  return (id.size() == 15 || id.size() == 18) &&
         std::all_of(id.begin(), id.end(),
                     [](char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0; });
}

// Two timestamps name the same moment: the Bulk API writes "…000Z", REST
// "…000+0000".
bool sameMoment(std::string_view a, std::string_view b) {
  if (a == b) return true;
  auto x = IsoTime::parseFractional(a);
  if (!x) x = IsoTime::parsePlain(a);
  auto y = IsoTime::parseFractional(b);
  if (!y) y = IsoTime::parsePlain(b);
  return x && y && *x == *y;
}

// The 15-character form: the org may answer with 18 characters for an Id
// the snapshot holds in 15, or the other way round.
std::string key(std::string_view id) { return std::string(id.substr(0, 15)); }

}  // namespace

std::vector<PlannedChange> ResolutionPreflight::recordsOf(const ResolutionPlan& plan) {
  std::vector<PlannedChange> out;
  std::set<std::string> seen;
  auto add = [&](const PlannedChange& change) {
    if (seen.insert(change.sfid).second) out.push_back(change);
  };
  for (const PlannedChange& change : plan.updates) add(change);
  for (const PlannedChange& change : plan.deletes) add(change);
  for (const PlannedChange& change : plan.already) add(change);
  for (const PlannedMerge& merge : plan.merges) {
    add({merge.primary, merge.primaryModified, merge.groupId, {}, merge.object});
    add({merge.loser, merge.loserModified, merge.groupId, {}, merge.object});
  }
  return out;
}

ResolutionPreflight::Outcome ResolutionPreflight::check(const std::vector<PlannedChange>& changes) {
  std::map<std::string, std::vector<const PlannedChange*>> byObject;
  for (const PlannedChange& change : changes) byObject[change.object].push_back(&change);

  std::map<std::string, std::string> current;  // 15-character Id -> LastModifiedDate
  for (const auto& [object, planned] : byObject) {
    bool safeName = !object.empty() && std::all_of(object.begin(), object.end(), [](char c) {
      return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_';
    });
    if (!safeName) continue;  // its records stay missing
    std::vector<std::string> ids;
    for (const PlannedChange* change : planned) {
      if (isRecordId(change->sfid)) ids.push_back(change->sfid);
    }
    for (std::size_t start = 0; start < ids.size(); start += idsPerQuery) {
      std::string soql = "SELECT Id, LastModifiedDate FROM " + object + " WHERE Id IN (";
      for (std::size_t i = start; i < std::min(ids.size(), start + idsPerQuery); ++i) {
        soql += (i == start ? "'" : ", '") + ids[i] + "'";
      }
      soql += ")";
      std::string path = "query";
      QueryItems query = {{"q", soql}};
      while (true) {
        nlohmann::json reply = nlohmann::json::parse(
            transport_.send("GET", path, query, std::nullopt), nullptr, false);
        if (reply.is_discarded() || !reply.is_object() || !reply.contains("records") ||
            !reply["records"].is_array()) {
          throw PreflightError::unreadableReply();
        }
        for (const auto& record : reply["records"]) {
          if (!record.is_object() || !record.contains("Id") || !record["Id"].is_string()) {
            throw PreflightError::unreadableReply();
          }
          const auto& modified = record.value("LastModifiedDate", nlohmann::json());
          current[key(record["Id"].get<std::string>())] =
              modified.is_string() ? modified.get<std::string>() : std::string();
        }
        const auto& next = reply.value("nextRecordsUrl", nlohmann::json());
        if (reply.value("done", true) || !next.is_string() || next.get<std::string>().empty()) {
          break;
        }
        path = next.get<std::string>();
        query.clear();
      }
    }
  }

  Outcome outcome;
  for (const PlannedChange& change : changes) {
    auto found = isRecordId(change.sfid) ? current.find(key(change.sfid)) : current.end();
    if (found == current.end()) {
      outcome.missing.push_back(change);
    } else if (sameMoment(found->second, change.modified)) {
      outcome.fresh.push_back(change);
    } else {
      outcome.changed.push_back(change);
    }
  }
  return outcome;
}

ResolutionPreflight::Outcome ResolutionPreflight::require(const std::vector<PlannedChange>& changes) {
  Outcome outcome = check(changes);
  if (!outcome.allFresh()) throw PreflightError::recordsChanged();
  return outcome;
}

}  // namespace corvane

#include "dedupe/snapshot_enricher.hpp"

#include <map>

#include <nlohmann/json.hpp>

#include "connections/download_error.hpp"

namespace corvane {

namespace {

// Record ids hold letters and digits only; anything else never reaches a query.
bool isRecordId(std::string_view id) {
  if (id.size() != 15 && id.size() != 18) return false;
  for (char c : id) {
    bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    if (!ok) return false;
  }
  return true;
}

std::string textOf(const nlohmann::json& record, const std::string& path) {
  const nlohmann::json* value = &record;
  std::size_t start = 0;
  while (start <= path.size()) {
    std::size_t dot = path.find('.', start);
    if (dot == std::string::npos) dot = path.size();
    std::string step = path.substr(start, dot - start);
    if (!value->is_object()) return {};
    const nlohmann::json* found = nullptr;
    for (auto it = value->begin(); it != value->end(); ++it) {
      if (it.key().size() == step.size() &&
          std::equal(step.begin(), step.end(), it.key().begin(), [](char x, char y) {
            return std::tolower(static_cast<unsigned char>(x)) ==
                   std::tolower(static_cast<unsigned char>(y));
          })) {
        found = &it.value();
        break;
      }
    }
    if (!found) return {};
    value = found;
    start = dot + 1;
  }
  if (value->is_string()) return value->get<std::string>();
  if (value->is_boolean()) return value->get<bool>() ? "true" : "false";
  if (value->is_number()) return value->dump();
  return {};
}

}  // namespace

std::string SnapshotEnricher::soql(const Ask& ask, const std::vector<std::string>& ids) {
  std::string text = "SELECT Id";
  for (const std::string& source : ask.sources) {
    if (!source.empty()) text += ", " + source;
  }
  text += " FROM " + ask.object + " WHERE Id IN (";
  for (std::size_t i = 0; i < ids.size(); ++i) {
    text += (i > 0 ? ", '" : "'") + ids[i] + "'";
  }
  return text + ")";
}

bool SnapshotEnricher::enrich(RecordStore& store, const std::vector<Ask>& asks,
                              const Progress& progress, const std::function<bool()>& shouldCancel) {
  std::int64_t total = 0;
  for (const Ask& ask : asks) total += static_cast<std::int64_t>(ask.records.size());
  std::int64_t done = 0;
  if (progress) progress(done, total);
  for (const Ask& ask : asks) {
    std::vector<std::size_t> slots;
    for (std::size_t i = 0; i < ask.sources.size(); ++i) {
      if (!ask.sources[i].empty()) slots.push_back(i);
    }
    for (std::size_t begin = 0; begin < ask.records.size(); begin += chunkSize_) {
      if (shouldCancel && shouldCancel()) return false;
      std::size_t end = std::min(ask.records.size(), begin + chunkSize_);
      std::vector<std::string> ids;
      std::map<std::string, Rid> ridOf;  // by the first 15 characters: ids may come back longer
      for (std::size_t i = begin; i < end; ++i) {
        const auto& [rid, sfid] = ask.records[i];
        if (!isRecordId(sfid)) continue;
        ids.push_back(sfid);
        ridOf[sfid.substr(0, 15)] = rid;
      }
      std::vector<RecordStore::Enrichment> rows;
      if (!ids.empty()) {
        std::string path = "/query";
        QueryItems query{{"q", soql(ask, ids)}};
        while (!path.empty()) {
          auto reply = nlohmann::json::parse(transport_.send("GET", path, query, std::nullopt),
                                             nullptr, false);
          if (!reply.is_object() || !reply.contains("records") || !reply["records"].is_array()) {
            throw DownloadError::unreadableReply();
          }
          for (const auto& record : reply["records"]) {
            std::string id = textOf(record, "Id");
            auto found = ridOf.find(id.substr(0, 15));
            if (found == ridOf.end()) continue;
            RecordStore::Enrichment row{found->second, {}};
            for (std::size_t slot : slots) row.values.push_back(textOf(record, ask.sources[slot]));
            rows.push_back(std::move(row));
          }
          path = reply.value("nextRecordsUrl", "");
          query.clear();
        }
      }
      store.enrich(slots, rows);
      done += static_cast<std::int64_t>(end - begin);
      if (progress) progress(done, total);
    }
  }
  return true;
}

}  // namespace corvane

#include "backup/manifest.hpp"

#include <nlohmann/json.hpp>

#include "backup/read_me.hpp"
#include "platform/durable_file.hpp"

namespace corvane {

namespace {

using Ordered = nlohmann::ordered_json;

Ordered reasons(const std::vector<Manifest::ObjectReason>& list) {
  Ordered array = Ordered::array();
  for (const auto& entry : list)
    array.push_back(Ordered{{"name", entry.name}, {"reason", entry.reason}});
  return array;
}

std::vector<Manifest::ObjectReason> readReasons(const nlohmann::json& array) {
  std::vector<Manifest::ObjectReason> list;
  for (const auto& entry : array)
    list.push_back({entry.at("name").get<std::string>(), entry.at("reason").get<std::string>()});
  return list;
}

}  // namespace

std::string Manifest::json() const {
  Ordered byObject = Ordered::array();
  for (const auto& entry : deletionsByObject) {
    byObject.push_back(Ordered{{"name", entry.name},
                               {"deleted", entry.deleted},
                               {"missing", entry.missing},
                               {"heldBefore", entry.heldBefore},
                               {"unusual", entry.unusual}});
  }
  Ordered json;
  json["format"] = format;
  json["kind"] = toText(kind);
  json["username"] = username;
  json["startedAt"] = startedAt;
  json["finishedAt"] = finishedAt;
  json["result"] = result;
  json["message"] = message;
  json["objects"] = objects;
  json["deletions"] = Ordered{{"count", deletionCount}, {"byObject", byObject}};
  json["idChecksFailed"] = reasons(idChecksFailed);
  Ordered failed = Ordered::array();
  for (const auto& file : files.failed)
    failed.push_back(Ordered{{"id", file.id}, {"name", file.name}, {"reason", file.reason}});
  json["files"] = Ordered{{"failed", failed},
                          {"folder", filesFolder},
                          {"salesforceTimeAtStart", files.salesforceTimeAtStart},
                          {"waiting", files.waiting},
                          {"leftOut", files.leftOut},
                          {"leftOutThisRun", files.leftOutThisRun},
                          {"downloadedThisRun", files.downloadedThisRun}};
  json["objectsLeftOut"] = reasons(objectsLeftOut);
  json["retention"] = Ordered{{"removed", retention.removed},
                              {"bytesFreed", retention.bytesFreed},
                              {"couldNotRemove", retention.couldNotRemove}};
  json["note"] = note;
  return json.dump(2) + "\n";
}

void Manifest::write(const std::filesystem::path& datedFolder) const {
  Durable::replace(datedFolder / fileName, json());
}

std::optional<Manifest> Manifest::parse(std::string_view text) {
  try {
    const auto json = nlohmann::json::parse(text);
    if (json.at("format").get<int>() != format) return std::nullopt;
    Manifest manifest;
    auto kind = runKindFromText(json.at("kind").get<std::string>());
    if (!kind) return std::nullopt;
    manifest.kind = *kind;
    json.at("username").get_to(manifest.username);
    json.at("startedAt").get_to(manifest.startedAt);
    json.at("finishedAt").get_to(manifest.finishedAt);
    json.at("result").get_to(manifest.result);
    json.at("message").get_to(manifest.message);
    json.at("objects").get_to(manifest.objects);
    const auto& deletions = json.at("deletions");
    deletions.at("count").get_to(manifest.deletionCount);
    for (const auto& entry : deletions.at("byObject")) {
      manifest.deletionsByObject.push_back(
          {entry.at("name").get<std::string>(), entry.at("deleted").get<std::int64_t>(),
           entry.at("missing").get<std::int64_t>(), entry.at("heldBefore").get<std::int64_t>(),
           entry.at("unusual").get<bool>()});
    }
    manifest.idChecksFailed = readReasons(json.at("idChecksFailed"));
    const auto& files = json.at("files");
    // Manifests of earlier versions held only a count here.
    if (const auto& failed = files.at("failed"); failed.is_array())
      for (const auto& entry : failed)
        manifest.files.failed.push_back({entry.at("id").get<std::string>(),
                                         entry.at("name").get<std::string>(),
                                         entry.at("reason").get<std::string>()});
    files.at("salesforceTimeAtStart").get_to(manifest.files.salesforceTimeAtStart);
    files.at("waiting").get_to(manifest.files.waiting);
    files.at("leftOut").get_to(manifest.files.leftOut);
    files.at("leftOutThisRun").get_to(manifest.files.leftOutThisRun);
    files.at("downloadedThisRun").get_to(manifest.files.downloadedThisRun);
    manifest.objectsLeftOut = readReasons(json.at("objectsLeftOut"));
    const auto& retention = json.at("retention");
    retention.at("removed").get_to(manifest.retention.removed);
    retention.at("bytesFreed").get_to(manifest.retention.bytesFreed);
    retention.at("couldNotRemove").get_to(manifest.retention.couldNotRemove);
    return manifest;
  } catch (const nlohmann::json::exception&) {
    return std::nullopt;
  }
}

std::optional<Manifest> Manifest::read(const std::filesystem::path& datedFolder) {
  try {
    auto text = Durable::readWhole(datedFolder / fileName);
    if (!text) return std::nullopt;
    return parse(*text);
  } catch (const FileError&) {
    return std::nullopt;
  }
}

namespace ReadMe {

std::string text() {
  std::string all(recordsPart);
  all += filesPart;
  return all;
}

void write(const std::filesystem::path& datedFolder) {
  Durable::replace(datedFolder / std::string(fileName), text());
}

}  // namespace ReadMe

}  // namespace corvane

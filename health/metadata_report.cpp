#include "health/metadata_report.hpp"

#include "health/text_table.hpp"

namespace corvane::MetadataReport {

using nlohmann::json;

std::string table(const HealthTask::MetadataListing& listing) {
  if (!listing.type) {
    std::string out;
    for (const auto& name : listing.typeNames) out += name + "\n";
    return out + std::to_string(listing.typeNames.size()) + " metadata types.\n";
  }
  const auto& items = listing.components;
  const std::string& type = *listing.type;
  if (items.empty()) {
    return "The org has no " + type + " components, or the Salesforce CLI could not list them.\n";
  }
  std::vector<std::vector<std::string>> rows;
  for (const auto& item : items) {
    rows.push_back({item.value("fullName", ""), item.value("lastModifiedByName", ""),
                    item.value("lastModifiedDate", ""), item.value("fileName", "")});
  }
  return TextTable::render({"Name", "Last modified by", "Last modified", "File"}, rows) +
         std::to_string(items.size()) + " " + type +
         (items.size() == 1 ? " component.\n" : " components.\n");
}

std::string csv(const HealthTask::MetadataListing& listing) {
  if (!listing.type) {
    std::string out = TextTable::csvRow({"xmlName"});
    for (const auto& name : listing.typeNames) out += TextTable::csvRow({name});
    return out;
  }
  std::string out = TextTable::csvRow({"type", "fullName", "fileName", "lastModifiedByName",
                                       "lastModifiedDate", "manageableState"});
  for (const auto& item : listing.components) {
    auto field = [&](const char* key) { return item.value(key, std::string()); };
    out += TextTable::csvRow({field("type"), field("fullName"), field("fileName"),
                              field("lastModifiedByName"), field("lastModifiedDate"),
                              field("manageableState")});
  }
  return out;
}

std::string table(const HealthTask::Retrieval& retrieval) {
  const json& result = retrieval.result;
  const json files =
      result.contains("files") && result["files"].is_array() ? result["files"] : json::array();
  std::vector<std::vector<std::string>> rows;
  for (const auto& file : files) {
    rows.push_back({file.value("type", ""), file.value("fullName", ""), file.value("state", ""),
                    file.value("filePath", "")});
  }
  std::string out = TextTable::render({"Type", "Name", "State", "File"}, rows);
  if (result.contains("messages") && result["messages"].is_array()) {
    for (const auto& message : result["messages"]) {
      out += "Not retrieved: " + message.value("problem", "") + "\n";
    }
  }
  return out + std::to_string(files.size()) + " files retrieved into " +
         (retrieval.projectRoot / "force-app").string() + ".\n";
}

}  // namespace corvane::MetadataReport

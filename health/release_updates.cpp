#include "health/release_updates.hpp"

#include <algorithm>

#include "health/text_table.hpp"

namespace corvane::ReleaseUpdates {

namespace {

using nlohmann::json;

std::string text(const json& record, const char* key) {
  auto it = record.find(key);
  return it != record.end() && it->is_string() ? it->get<std::string>() : std::string();
}

int count(const json& record, const char* key) {
  auto it = record.find(key);
  if (it == record.end() || !it->is_number()) return 0;
  const double value = it->get<double>();  // any number, clamped before it becomes an int
  if (!(value > 0)) return 0;
  return value < 1e9 ? static_cast<int>(value) : 1'000'000'000;
}

std::string oneLine(std::string text, std::size_t limit) {
  for (char& c : text) {
    if (c == '\n' || c == '\r' || c == '\t') c = ' ';
  }
  if (text.size() > limit) {
    std::size_t cut = limit;
    while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) --cut;
    text = text.substr(0, cut) + "...";
  }
  return text;
}

}  // namespace

std::vector<ReleaseUpdate> read(const std::vector<json>& records) {
  std::vector<ReleaseUpdate> updates;
  for (const auto& record : records) {
    if (!record.is_object()) continue;
    ReleaseUpdate u;
    u.developerName = text(record, "DeveloperName");
    u.category = text(record, "Category");
    u.dueDate = text(record, "DueDate");
    u.description = text(record, "Description");
    u.stepsDone = count(record, "NumCompSteps");
    u.stepsRequired = count(record, "NumReqSteps");
    auto released = record.find("IsReleased");
    u.isReleased = released != record.end() && released->is_boolean() && released->get<bool>();
    updates.push_back(std::move(u));
  }
  std::stable_sort(updates.begin(), updates.end(), [](const auto& a, const auto& b) {
    if (a.dueDate.empty() != b.dueDate.empty()) return !a.dueDate.empty();
    if (a.dueDate != b.dueDate) return a.dueDate < b.dueDate;
    return a.developerName < b.developerName;
  });
  return updates;
}

std::string table(const std::vector<ReleaseUpdate>& updates) {
  if (updates.empty()) return "Salesforce reports no release updates for this org.\n";
  std::vector<std::vector<std::string>> rows;
  for (const auto& u : updates) {
    rows.push_back({u.dueDate.empty() ? "none given" : u.dueDate, u.category,
                    std::to_string(u.stepsDone) + "/" + std::to_string(u.stepsRequired),
                    u.developerName, oneLine(u.description, 80)});
  }
  return TextTable::render({"Due", "Category", "Steps", "Name", "What"}, rows);
}

json toJSON(const std::vector<ReleaseUpdate>& updates) {
  json list = json::array();
  for (const auto& u : updates) {
    list.push_back({{"developerName", u.developerName},
                    {"category", u.category},
                    {"dueDate", u.dueDate.empty() ? json(nullptr) : json(u.dueDate)},
                    {"description", u.description},
                    {"stepsDone", u.stepsDone},
                    {"stepsRequired", u.stepsRequired},
                    {"isReleased", u.isReleased}});
  }
  return list;
}

}  // namespace corvane::ReleaseUpdates

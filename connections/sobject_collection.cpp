#include "connections/sobject_collection.hpp"

#include <nlohmann/json.hpp>

namespace corvane::SObjectCollection {

std::string failureText(const nlohmann::json& errors) {
  std::string text;
  if (!errors.is_array()) return text;
  for (const auto& error : errors) {
    if (!error.is_object()) continue;
    std::string message = error.value("message", "");
    std::string code = error.value("statusCode", error.value("errorCode", ""));
    std::string piece = message.empty() ? code : message;
    if (!code.empty() && !message.empty()) piece = code + ": " + message;
    if (piece.empty()) continue;
    if (!text.empty()) text += "; ";
    text += piece;
  }
  return text;
}

std::vector<SaveResult> results(std::string_view body, std::size_t count) {
  const nlohmann::json reply = nlohmann::json::parse(body, nullptr, false);
  std::vector<SaveResult> list;
  list.reserve(count);
  for (std::size_t at = 0; at < count; ++at) {
    SaveResult result;
    const nlohmann::json* entry = nullptr;
    if (reply.is_array() && at < reply.size() && reply[at].is_object()) entry = &reply[at];
    if (entry == nullptr) {
      result.message = "Salesforce sent no result for this record.";
      list.push_back(std::move(result));
      continue;
    }
    result.success = entry->value("success", false);
    if (auto id = entry->find("id"); id != entry->end() && id->is_string())
      result.id = id->get<std::string>();
    result.created = entry->value("created", false);
    if (!result.success) {
      const auto errors = entry->value("errors", nlohmann::json::array());
      if (errors.is_array() && !errors.empty() && errors[0].is_object())
        result.statusCode = errors[0].value("statusCode", errors[0].value("errorCode", ""));
      result.message = failureText(errors);
      if (result.message.empty()) result.message = "Salesforce gave no reason.";
    }
    list.push_back(std::move(result));
  }
  return list;
}

}  // namespace corvane::SObjectCollection

#include "health/audit_trail.hpp"

#include "health/health_error.hpp"
#include "health/text_table.hpp"
#include "platform/text_escape.hpp"

namespace corvane::AuditTrail {

namespace {

using nlohmann::json;

std::string textAt(const json& record, const char* key) {
  auto it = record.find(key);
  return it != record.end() && it->is_string() ? it->get<std::string>() : std::string();
}

// A table cell on one line: line breaks become blanks.
std::string oneLine(std::string text) {
  for (char& c : text) {
    if (c == '\n' || c == '\r' || c == '\t') c = ' ';
  }
  return text;
}

}  // namespace

std::string literal(std::string_view value, bool forLike) {
  return TextEscape::soqlLiteral(value, forLike);
}

SystemTime parseSince(std::string_view text) {
  // The clock's range ends in 2262; a year outside 1970-2199 is a typing slip.
  if (text.size() < 4 || text.substr(0, 2) < "19" || text.substr(0, 4) < "1970" ||
      text.substr(0, 2) > "21") {
    throw HealthError::badDate(std::string(text));
  }
  if (auto day = IsoTime::parseDay(text)) return *day;
  if (auto time = IsoTime::parsePlain(text)) return *time;
  if (auto time = IsoTime::parseFractional(text)) return *time;
  throw HealthError::badDate(std::string(text));
}

std::optional<std::string> predicate(const AuditFilter& filter) {
  std::vector<std::string> terms;
  if (filter.since) {
    // A date-time literal is never quoted; formatPlain gives only digits and separators.
    terms.push_back("CreatedDate >= " + IsoTime::formatPlain(*filter.since));
  }
  auto contains = [&](const char* field, const std::optional<std::string>& value) {
    if (!value || value->empty()) return;
    std::string quoted = literal(*value, true);  // '...'
    terms.push_back(std::string(field) + " LIKE '%" + quoted.substr(1, quoted.size() - 2) + "%'");
  };
  contains("CreatedBy.Name", filter.user);
  contains("Section", filter.section);
  if (terms.empty()) return std::nullopt;
  std::string out;
  for (const auto& term : terms) {
    if (!out.empty()) out += " AND ";
    out += term;
  }
  return out;
}

std::vector<AuditEntry> entries(const json& records) {
  std::vector<AuditEntry> out;
  if (!records.is_array()) return out;
  for (const auto& record : records) {
    if (!record.is_object()) continue;
    AuditEntry entry;
    entry.createdDate = textAt(record, "CreatedDate");
    auto createdBy = record.find("CreatedBy");
    if (createdBy != record.end() && createdBy->is_object())
      entry.user = textAt(*createdBy, "Name");
    entry.section = textAt(record, "Section");
    entry.action = textAt(record, "Action");
    entry.display = textAt(record, "Display");
    out.push_back(std::move(entry));
  }
  return out;
}

std::string table(const std::vector<AuditEntry>& entries) {
  std::vector<std::vector<std::string>> rows;
  rows.reserve(entries.size());
  for (const auto& e : entries) {
    rows.push_back({e.createdDate, e.user, oneLine(e.section), oneLine(e.display)});
  }
  std::string out = TextTable::render({"Date", "User", "Section", "What changed"}, rows);
  out += std::to_string(entries.size()) + (entries.size() == 1 ? " change.\n" : " changes.\n");
  return out;
}

std::string csv(const std::vector<AuditEntry>& entries) {
  std::string out =
      TextTable::csvRow({"CreatedDate", "CreatedBy.Name", "Section", "Action", "Display"});
  for (const auto& e : entries) {
    out += TextTable::csvRow({e.createdDate, e.user, e.section, e.action, e.display});
  }
  return out;
}

json toJSON(const std::vector<AuditEntry>& entries) {
  json list = json::array();
  for (const auto& e : entries) {
    list.push_back({{"createdDate", e.createdDate},
                    {"user", e.user},
                    {"section", e.section},
                    {"action", e.action},
                    {"display", e.display}});
  }
  return list;
}

}  // namespace corvane::AuditTrail

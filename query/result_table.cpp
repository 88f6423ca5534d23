#include "query/result_table.hpp"

#include <algorithm>

#include "query/soql_scan.hpp"

namespace corvane::ResultTable {

namespace {

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(),
                                            [](char x, char y) { return lower(x) == lower(y); });
}

std::string trimmed(std::string_view text) {
  auto isBlank = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; };
  while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
  return std::string(text);
}

// The blank-separated words of an item outside parentheses and literals.
std::vector<std::string> topLevelWords(const SoqlScan& scan) {
  std::vector<std::string> words;
  std::string word;
  for (std::size_t i = 0; i < scan.size(); ++i) {
    bool split = scan.isSpace(i) && scan.depth(i) == 0 && !scan.inLiteral(i);
    if (split) {
      if (!word.empty()) words.push_back(std::move(word));
      word.clear();
    } else {
      word += scan.character(i);
    }
  }
  if (!word.empty()) words.push_back(std::move(word));
  return words;
}

std::vector<std::string> splitPath(std::string_view dotted) {
  std::vector<std::string> path;
  std::size_t start = 0;
  while (true) {
    std::size_t dot = dotted.find('.', start);
    path.emplace_back(
        dotted.substr(start, dot == std::string_view::npos ? dotted.npos : dot - start));
    if (dot == std::string_view::npos) break;
    start = dot + 1;
  }
  return path;
}

// The member whose key matches in any case, and that key as the record spells it.
const JSONLiteral* member(const JSONLiteral& object, std::string_view key,
                          const std::string** spelled = nullptr) {
  const auto* members = object.asObject();
  if (!members) return nullptr;
  for (const auto& [name, value] : *members) {
    if (name == key || equalsIgnoringCase(name, key)) {
      if (spelled) *spelled = &name;
      return &value;
    }
  }
  return nullptr;
}

JSONLiteral withoutAttributes(const JSONLiteral& value) {
  if (const auto* members = value.asObject()) {
    JSONLiteral::Object kept;
    for (const auto& [name, item] : *members)
      if (name != "attributes") kept.emplace_back(name, withoutAttributes(item));
    return JSONLiteral::object(std::move(kept));
  }
  if (const auto* items = value.asArray()) {
    JSONLiteral::Array kept;
    kept.reserve(items->size());
    for (const auto& item : *items) kept.push_back(withoutAttributes(item));
    return JSONLiteral::array(std::move(kept));
  }
  return value;
}

void flatten(const JSONLiteral& record, const std::vector<std::string>& prefix,
             std::vector<Column>& out) {
  const auto* members = record.asObject();
  if (!members) return;
  for (const auto& [name, value] : *members) {
    if (name == "attributes") continue;
    std::vector<std::string> path = prefix;
    path.push_back(name);
    // A related record carries its own "attributes"; a compound value does not.
    if (value.asObject() && value.find("attributes")) {
      flatten(value, path, out);
      continue;
    }
    std::string dotted;
    for (const auto& key : path) dotted += (dotted.empty() ? "" : ".") + key;
    out.push_back({dotted, path});
  }
}

}  // namespace

std::vector<Column> columns(std::string_view soql) {
  SoqlScan scan(soql);
  auto clauses = scan.clauses();
  if (!clauses || !clauses->contains("SELECT")) return {};
  std::vector<Column> out;
  int unnamed = 0;
  for (CharRange range : scan.splitTopLevel(clauses->at("SELECT"), ",")) {
    std::string item = trimmed(scan.text(range));
    if (item.empty()) continue;
    SoqlScan itemScan(item);
    std::vector<std::string> words = topLevelWords(itemScan);
    if (words.empty()) continue;
    const std::string& first = words.front();
    if (first.front() == '(') {
      // A subquery: its column is the relationship after its FROM.
      std::string inner = first.substr(1, first.size() - (first.back() == ')' ? 2 : 1));
      auto relationship = SoqlScan(inner).identifier("FROM");
      std::string name = relationship ? *relationship : inner;
      out.push_back({name, {name}});
      continue;
    }
    if (equalsIgnoringCase(first, "TYPEOF") && words.size() > 1) {
      out.push_back({words[1], {words[1]}});
      continue;
    }
    std::size_t paren = first.find('(');
    if (paren == std::string::npos) {
      std::string name = words.size() > 1 ? words.back() : first;
      out.push_back({name, words.size() > 1 ? std::vector<std::string>{name} : splitPath(first)});
      continue;
    }
    std::string function = first.substr(0, paren);
    if (equalsIgnoringCase(function, "FIELDS")) return {};
    if (words.size() > 1) {
      out.push_back({words.back(), {words.back()}});
      continue;
    }
    if (equalsIgnoringCase(function, "toLabel") || equalsIgnoringCase(function, "FORMAT") ||
        equalsIgnoringCase(function, "convertCurrency")) {
      std::string field = trimmed(first.substr(
          paren + 1, first.rfind(')') > paren ? first.rfind(')') - paren - 1 : std::string::npos));
      out.push_back({field, splitPath(field)});
      continue;
    }
    std::string name = "expr" + std::to_string(unnamed++);
    out.push_back({name, {name}});
  }
  return out;
}

std::vector<Column> columns(const JSONLiteral& record) {
  std::vector<Column> out;
  flatten(record, {}, out);
  return out;
}

bool isCountOnly(std::string_view soql) {
  SoqlScan scan(soql);
  auto clauses = scan.clauses();
  if (!clauses || !clauses->contains("SELECT")) return false;
  std::string item = trimmed(scan.text(clauses->at("SELECT")));
  item.erase(std::remove_if(item.begin(), item.end(),
                            [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }),
             item.end());
  return equalsIgnoringCase(item, "COUNT()");
}

std::vector<Column> withRecordNames(std::vector<Column> columns,
                                    const std::vector<JSONLiteral>& records) {
  for (auto& column : columns) {
    for (const auto& record : records) {
      const JSONLiteral* value = &record;
      std::string name;
      for (const auto& key : column.path) {
        const std::string* spelled = nullptr;
        value = value ? member(*value, key, &spelled) : nullptr;
        if (!value) break;
        name += (name.empty() ? "" : ".") + *spelled;
      }
      if (value) {
        column.name = std::move(name);
        break;
      }
    }
  }
  return columns;
}

std::vector<std::string> cells(const JSONLiteral& record, const std::vector<Column>& columns) {
  std::vector<std::string> out;
  out.reserve(columns.size());
  for (const auto& column : columns) {
    const JSONLiteral* value = &record;
    for (const auto& key : column.path) {
      value = value ? member(*value, key) : nullptr;
      if (!value) break;
    }
    if (!value || value->isNull()) {
      out.emplace_back();
    } else if (const auto* text = value->asString()) {
      out.push_back(*text);
    } else if (const auto* number = value->asNumber()) {
      out.push_back(number->text);
    } else if (const auto* flag = value->asBool()) {
      out.emplace_back(*flag ? "true" : "false");
    } else if (const auto* nested = value->find("records"); nested && nested->asArray()) {
      out.push_back(withoutAttributes(*nested).dump());
    } else {
      out.push_back(withoutAttributes(*value).dump());
    }
  }
  return out;
}

}  // namespace corvane::ResultTable

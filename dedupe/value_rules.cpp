#include "dedupe/value_rules.hpp"

#include <algorithm>
#include <array>
#include <cctype>

namespace corvane {

namespace {

constexpr std::array<std::pair<ValueRule, std::string_view>, 5> ruleTexts = {{
    {ValueRule::keeper, "keeper"},
    {ValueRule::mostRecent, "mostRecent"},
    {ValueRule::nonEmpty, "nonEmpty"},
    {ValueRule::longest, "longest"},
    {ValueRule::mostCommon, "mostCommon"},
}};

bool sameName(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

std::string_view trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

// Characters, not bytes: UTF-8 continuation bytes are not counted.
std::size_t characters(std::string_view text) {
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  }));
}

}  // namespace

std::string_view rawValue(ValueRule rule) {
  for (const auto& [candidate, text] : ruleTexts) {
    if (candidate == rule) return text;
  }
  return "keeper";
}

std::optional<ValueRule> valueRuleFromRaw(std::string_view raw) {
  for (const auto& [rule, text] : ruleTexts) {
    if (text == raw) return rule;
  }
  return std::nullopt;
}

ValueRule KeepValues::ruleFor(std::string_view field) const {
  for (const auto& [name, rule] : fields) {
    if (sameName(name, field)) return rule;
  }
  return all;
}

bool KeepValues::add(std::string_view choice) {
  const std::size_t equals = choice.find('=');
  if (equals == std::string_view::npos) {
    const auto rule = valueRuleFromRaw(trimmed(choice));
    if (!rule) return false;
    all = *rule;
    return true;
  }
  const std::string_view field = trimmed(choice.substr(0, equals));
  const auto rule = valueRuleFromRaw(trimmed(choice.substr(equals + 1)));
  if (field.empty() || !rule) return false;
  for (auto& [name, existing] : fields) {
    if (sameName(name, field)) {
      existing = *rule;
      return true;
    }
  }
  fields.emplace(std::string(field), *rule);
  return true;
}

namespace ValueRules {

std::optional<std::size_t> pick(ValueRule rule, const std::vector<Candidate>& candidates) {
  std::optional<std::size_t> best;
  const auto filled = [&](std::size_t i) { return !trimmed(candidates[i].value).empty(); };
  switch (rule) {
    case ValueRule::keeper:
    case ValueRule::nonEmpty:
      for (std::size_t i = 0; i < candidates.size(); ++i) {
        if (filled(i)) return i;
      }
      return std::nullopt;
    case ValueRule::mostRecent:
      for (std::size_t i = 0; i < candidates.size(); ++i) {
        if (filled(i) && (!best || candidates[i].modified > candidates[*best].modified)) best = i;
      }
      return best;
    case ValueRule::longest:
      for (std::size_t i = 0; i < candidates.size(); ++i) {
        if (filled(i) && (!best || characters(trimmed(candidates[i].value)) >
                                       characters(trimmed(candidates[*best].value)))) {
          best = i;
        }
      }
      return best;
    case ValueRule::mostCommon: {
      std::size_t bestCount = 0;
      for (std::size_t i = 0; i < candidates.size(); ++i) {
        if (!filled(i)) continue;
        const std::string_view value = trimmed(candidates[i].value);
        bool seenBefore = false;
        for (std::size_t j = 0; j < i && !seenBefore; ++j) {
          seenBefore = trimmed(candidates[j].value) == value;
        }
        if (seenBefore) continue;  // counted at its first holder
        std::size_t count = 0;
        for (std::size_t j = i; j < candidates.size(); ++j) {
          if (trimmed(candidates[j].value) == value) ++count;
        }
        if (count > bestCount) {
          bestCount = count;
          best = i;
        }
      }
      return best;
    }
  }
  return std::nullopt;
}

}  // namespace ValueRules

}  // namespace corvane

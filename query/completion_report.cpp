#include "query/completion_report.hpp"

#include <algorithm>

#include <nlohmann/json.hpp>

#include "platform/unicode.hpp"

namespace corvane::CompletionReport {

namespace {

std::size_t width(std::string_view text) { return Unicode::characterCount(text); }

}  // namespace

std::string table(const std::vector<Completion>& completions) {
  if (completions.empty()) return "No completions at this cursor.\n";
  std::size_t displayWidth = width("COMPLETION");
  std::size_t detailWidth = width("DETAIL");
  for (const auto& completion : completions) {
    displayWidth = std::max(displayWidth, width(completion.display));
    detailWidth = std::max(detailWidth, width(completion.detail));
  }
  std::string out;
  auto line = [&](std::string_view display, std::string_view detail, std::string_view kind) {
    out += display;
    out.append(displayWidth - width(display) + 2, ' ');
    out += detail;
    out.append(detailWidth - width(detail) + 2, ' ');
    out += kind;
    out += '\n';
  };
  line("COMPLETION", "DETAIL", "KIND");
  for (const auto& completion : completions)
    line(completion.display, completion.detail, kindName(completion.kind));
  return out;
}

std::string json(const SoqlCompletion::Suggestions& suggestions) {
  nlohmann::ordered_json completions = nlohmann::ordered_json::array();
  for (const auto& completion : suggestions.completions) {
    completions.push_back({{"text", completion.text},
                           {"display", completion.display},
                           {"detail", completion.detail},
                           {"kind", kindName(completion.kind)}});
  }
  nlohmann::ordered_json out = {
      {"replace", {{"start", suggestions.replace.start}, {"end", suggestions.replace.end}}},
      {"completions", completions}};
  return out.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

}  // namespace corvane::CompletionReport

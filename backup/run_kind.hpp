// Whether a run copies every record ("full") or only what changed since the
// last run ("changes"). Stored as that text in runs.kind and last-run.json.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace corvane {

enum class RunKind { full, changes };

inline std::string toText(RunKind kind) { return kind == RunKind::full ? "full" : "changes"; }

// None for any other text.
inline std::optional<RunKind> runKindFromText(std::string_view text) {
  if (text == "full") return RunKind::full;
  if (text == "changes") return RunKind::changes;
  return std::nullopt;
}

}  // namespace corvane

// Small ASCII text helpers shared by the connection code. Usernames, hosts and
// the CLI's status words are ASCII; bytes above 0x7F pass through unchanged.
#pragma once

#include <string>
#include <string_view>

namespace corvane::Ascii {

inline char lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

inline std::string lowered(std::string_view text) {
  std::string result(text);
  for (char& c : result) c = lower(c);
  return result;
}

inline bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (lower(a[i]) != lower(b[i])) return false;
  }
  return true;
}

inline bool isSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

inline std::string_view trimmed(std::string_view text) {
  while (!text.empty() && isSpace(text.front())) text.remove_prefix(1);
  while (!text.empty() && isSpace(text.back())) text.remove_suffix(1);
  return text;
}

}  // namespace corvane::Ascii

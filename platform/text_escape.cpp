#include "platform/text_escape.hpp"

namespace corvane::TextEscape {

void appendEscaped(std::string& out, std::string_view text, Target target) {
  static constexpr char hex[] = "0123456789abcdef";
  const bool soql = target != Target::json;
  const bool like = target == Target::soqlLike;
  // Runs of bytes that need no escape are copied in one go.
  std::size_t plainFrom = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    const auto byte = static_cast<unsigned char>(c);
    const char* escape = nullptr;
    switch (c) {
      case '"':
        escape = "\\\"";
        break;
      case '\\':
        escape = "\\\\";
        break;
      case '\n':
        escape = "\\n";
        break;
      case '\r':
        escape = "\\r";
        break;
      case '\t':
        escape = "\\t";
        break;
      case '\b':
        escape = "\\b";
        break;
      case '\f':
        escape = "\\f";
        break;
      case '\'':
        if (soql) escape = "\\'";
        break;
      case '%':
        if (like) escape = "\\%";
        break;
      case '_':
        if (like) escape = "\\_";
        break;
      default:
        break;
    }
    const bool control = !soql && escape == nullptr && byte < 0x20;
    if (escape == nullptr && !control) continue;
    out.append(text.substr(plainFrom, i - plainFrom));
    plainFrom = i + 1;
    if (escape != nullptr) {
      out += escape;
    } else {
      out += "\\u00";
      out += hex[byte >> 4];
      out += hex[byte & 0xF];
    }
  }
  out.append(text.substr(plainFrom));
}

void appendJSONString(std::string& out, std::string_view text) {
  out += '"';
  appendEscaped(out, text, Target::json);
  out += '"';
}

std::string soqlLiteral(std::string_view text, bool forLike) {
  std::string out = "'";
  appendEscaped(out, text, forLike ? Target::soqlLike : Target::soql);
  out += '\'';
  return out;
}

}  // namespace corvane::TextEscape

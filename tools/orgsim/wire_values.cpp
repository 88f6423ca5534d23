#include "tools/orgsim/wire_values.hpp"

#include <cctype>
#include <cstdlib>

#include "tools/orgsim/org_store.hpp"

namespace corvane::orgsim::WireValues {

namespace {

bool isCanonicalDateTime(std::string_view text) {
  // yyyy-MM-ddTHH:mm:ss.SSSZ
  static constexpr std::string_view shape = "dddd-dd-ddTdd:dd:dd.dddZ";
  if (text.size() != shape.size()) return false;
  for (std::size_t i = 0; i < shape.size(); ++i) {
    if (shape[i] == 'd' ? !std::isdigit(static_cast<unsigned char>(text[i]))
                        : text[i] != shape[i]) {
      return false;
    }
  }
  return true;
}

}  // namespace

std::optional<std::string> plainNumber(std::string_view text) {
  std::size_t at = 0;
  bool negative = false;
  if (at < text.size() && (text[at] == '+' || text[at] == '-')) negative = text[at++] == '-';
  std::string integer, fraction;
  while (at < text.size() && std::isdigit(static_cast<unsigned char>(text[at]))) {
    integer += text[at++];
  }
  bool hasPoint = at < text.size() && text[at] == '.';
  if (hasPoint) {
    ++at;
    while (at < text.size() && std::isdigit(static_cast<unsigned char>(text[at]))) {
      fraction += text[at++];
    }
  }
  if (integer.empty() && fraction.empty()) return std::nullopt;
  long exponent = 0;
  bool hasExponent = at < text.size() && (text[at] == 'e' || text[at] == 'E');
  if (hasExponent) {
    ++at;
    std::size_t start = at;
    if (at < text.size() && (text[at] == '+' || text[at] == '-')) ++at;
    std::size_t digitsStart = at;
    while (at < text.size() && std::isdigit(static_cast<unsigned char>(text[at]))) ++at;
    if (at == digitsStart || at - digitsStart > 4) return std::nullopt;
    exponent = std::strtol(std::string(text.substr(start, at - start)).c_str(), nullptr, 10);
  }
  if (at != text.size()) return std::nullopt;
  std::string sign = negative ? "-" : "";
  if (!hasExponent) {
    if (integer.empty()) integer = "0";
    return sign + integer + (hasPoint && !fraction.empty() ? "." + fraction : "");
  }
  // Move the decimal point by the exponent.
  std::string digits = integer + fraction;
  long point = static_cast<long>(integer.size()) + exponent;
  std::string whole, part;
  if (point <= 0) {
    whole = "0";
    part = std::string(static_cast<std::size_t>(-point), '0') + digits;
  } else if (point >= static_cast<long>(digits.size())) {
    whole = digits + std::string(static_cast<std::size_t>(point) - digits.size(), '0');
  } else {
    whole = digits.substr(0, static_cast<std::size_t>(point));
    part = digits.substr(static_cast<std::size_t>(point));
  }
  while (whole.size() > 1 && whole[0] == '0') whole.erase(0, 1);
  while (!part.empty() && part.back() == '0') part.pop_back();
  return sign + whole + (part.empty() ? "" : "." + part);
}

std::optional<std::string> normalize(const FieldDef& field, std::string_view text) {
  switch (field.type) {
    case FieldType::Boolean: {
      std::string lower;
      for (char c : text) lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
      if (lower == "true" || lower == "1") return "true";
      if (lower == "false" || lower == "0") return "false";
      return std::nullopt;
    }
    case FieldType::DateTime: {
      if (isCanonicalDateTime(text)) return std::string(text);
      auto time = WireTime::parseDateTime(text);
      if (!time) return std::nullopt;
      return WireTime::dateTime(*time);
    }
    case FieldType::Date:
      if (!WireTime::parseDate(text)) return std::nullopt;
      return std::string(text);
    case FieldType::Int:
    case FieldType::Double:
    case FieldType::Currency:
    case FieldType::Percent:
      return plainNumber(text);
    case FieldType::Id:
    case FieldType::Reference:
      return RecordIds::normalize(text);
    default:
      return std::string(text);
  }
}

std::string base64Encode(std::string_view bytes) {
  static constexpr char alphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  std::size_t i = 0;
  for (; i + 2 < bytes.size(); i += 3) {
    unsigned v = (static_cast<unsigned char>(bytes[i]) << 16) |
                 (static_cast<unsigned char>(bytes[i + 1]) << 8) |
                 static_cast<unsigned char>(bytes[i + 2]);
    out += alphabet[(v >> 18) & 63];
    out += alphabet[(v >> 12) & 63];
    out += alphabet[(v >> 6) & 63];
    out += alphabet[v & 63];
  }
  if (i < bytes.size()) {
    unsigned v = static_cast<unsigned char>(bytes[i]) << 16;
    if (i + 1 < bytes.size()) v |= static_cast<unsigned char>(bytes[i + 1]) << 8;
    out += alphabet[(v >> 18) & 63];
    out += alphabet[(v >> 12) & 63];
    out += i + 1 < bytes.size() ? alphabet[(v >> 6) & 63] : '=';
    out += '=';
  }
  return out;
}

std::optional<std::string> base64Decode(std::string_view text) {
  std::string out;
  unsigned buffer = 0;
  int bits = 0;
  std::size_t padding = 0;
  for (char c : text) {
    int value;
    if (c >= 'A' && c <= 'Z') {
      value = c - 'A';
    } else if (c >= 'a' && c <= 'z') {
      value = c - 'a' + 26;
    } else if (c >= '0' && c <= '9') {
      value = c - '0' + 52;
    } else if (c == '+' || c == '-') {
      value = 62;
    } else if (c == '/' || c == '_') {
      value = 63;
    } else if (c == '=') {
      ++padding;
      continue;
    } else if (c == '\n' || c == '\r' || c == ' ') {
      continue;
    } else {
      return std::nullopt;
    }
    if (padding > 0) return std::nullopt;
    buffer = (buffer << 6) | static_cast<unsigned>(value);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out += static_cast<char>((buffer >> bits) & 0xFF);
    }
  }
  if (padding > 2) return std::nullopt;
  return out;
}

}  // namespace corvane::orgsim::WireValues

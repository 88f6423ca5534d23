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
    if (shape[i] == 'd' ? !std::isdigit(static_cast<unsigned char>(text[i])) : text[i] != shape[i]) {
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

}  // namespace corvane::orgsim::WireValues

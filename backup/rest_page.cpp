#include "backup/rest_page.hpp"

#include <charconv>
#include <cstring>

namespace corvane {

PageError::PageError(const std::string& reason)
    : std::runtime_error("Salesforce's reply is not a page of records: " + reason) {}

namespace RestPage {
namespace {

// The value at a dotted path; null when a step is missing or not an object.
// hint is where the first step was found in the previous record: the records of
// one page share their field order, so the first look usually hits.
const JSONLiteral* valueAt(const JSONLiteral& record, std::string_view path, std::size_t& hint) {
  std::size_t dot = path.find('.');
  std::string_view first = path.substr(0, dot);
  const JSONLiteral::Object& members = *record.asObject();
  const JSONLiteral* current = nullptr;
  if (hint < members.size() && members[hint].first == first) {
    current = &members[hint].second;
  } else {
    for (std::size_t i = 0; i < members.size(); ++i) {
      if (members[i].first == first) {
        hint = i;
        current = &members[i].second;
        break;
      }
    }
  }
  while (current && dot != std::string_view::npos) {
    path.remove_prefix(dot + 1);
    dot = path.find('.');
    current = current->find(path.substr(0, dot));
  }
  return current;
}

}  // namespace

void appendQuoted(std::string& out, std::string_view field) {
  out += '"';
  while (true) {
    std::size_t quote = field.find('"');
    if (quote == std::string_view::npos) {
      out.append(field);
      break;
    }
    out.append(field.substr(0, quote + 1));
    out += '"';
    field.remove_prefix(quote + 1);
  }
  out += '"';
}

std::string bulkNumber(std::string_view text) {
  std::size_t e = text.find_first_of("Ee");
  if (e == std::string_view::npos) return std::string(text);
  std::string_view mantissa = text.substr(0, e);
  std::string_view exponentText = text.substr(e + 1);
  if (!exponentText.empty() && exponentText[0] == '+') exponentText.remove_prefix(1);
  long exponent = 0;
  auto [end, error] =
      std::from_chars(exponentText.data(), exponentText.data() + exponentText.size(), exponent);
  if (exponentText.empty() || error != std::errc() ||
      end != exponentText.data() + exponentText.size()) {
    return std::string(text);
  }
  // A mantissa beyond any real number's length, or an absurd exponent, is not
  // worth expanding into millions of zeros.
  if (exponent > 1000 || exponent < -1000) return std::string(text);

  std::string sign;
  if (!mantissa.empty() && (mantissa[0] == '-' || mantissa[0] == '+')) {
    if (mantissa[0] == '-') sign = "-";
    mantissa.remove_prefix(1);
  }
  std::string digits;
  long pointAt = -1;  // digits before the point
  for (char c : mantissa) {
    if (c >= '0' && c <= '9') {
      digits += c;
    } else if (c == '.' && pointAt < 0) {
      pointAt = static_cast<long>(digits.size());
    } else {
      return std::string(text);
    }
  }
  if (digits.empty()) return std::string(text);
  if (pointAt < 0) pointAt = static_cast<long>(digits.size());
  long newPoint = pointAt + exponent;
  if (newPoint <= 0) {
    digits.insert(0, static_cast<std::size_t>(-newPoint), '0');
    newPoint = 0;
  } else if (newPoint > static_cast<long>(digits.size())) {
    digits.append(static_cast<std::size_t>(newPoint) - digits.size(), '0');
  }
  std::string whole = digits.substr(0, static_cast<std::size_t>(newPoint));
  std::string fraction = digits.substr(static_cast<std::size_t>(newPoint));
  // Plain text as the Bulk API writes it: no leading zeros before the point,
  // no trailing zeros after it.
  std::size_t firstNonZero = whole.find_first_not_of('0');
  whole = firstNonZero == std::string::npos ? "0" : whole.substr(firstNonZero);
  std::size_t lastNonZero = fraction.find_last_not_of('0');
  fraction = lastNonZero == std::string::npos ? "" : fraction.substr(0, lastNonZero + 1);
  std::string result = sign + whole;
  if (!fraction.empty()) result += "." + fraction;
  if (result == "-0") result = "0";
  return result;
}

std::string text(const JSONLiteral& value, std::string_view type) {
  if (const std::string* string = value.asString()) {
    if (type == "datetime" && string->size() >= 5 &&
        std::string_view(*string).substr(string->size() - 5) == "+0000") {
      return string->substr(0, string->size() - 5) + "Z";
    }
    return *string;
  }
  if (const auto* number = value.asNumber()) return bulkNumber(number->text);
  if (const bool* flag = value.asBool()) return *flag ? "true" : "false";
  return {};
}

Result read(std::string_view data, const std::vector<std::string>& columns,
            const std::vector<std::string>& types) {
  JSONLiteral page;
  try {
    page = JSONLiteral::parse(data);
  } catch (const JSONLiteral::Malformed& error) {
    throw PageError(error.what());
  }
  if (!page.asObject()) throw PageError("it is not a JSON object.");
  const JSONLiteral* records = page.find("records");
  if (!records || !records->asArray()) throw PageError("it has no list of records.");

  Result result;
  if (const JSONLiteral* next = page.find("nextRecordsUrl")) {
    if (const std::string* url = next->asString()) {
      result.next = *url;
    } else if (!next->isNull()) {
      throw PageError("its nextRecordsUrl is not text.");
    }
  }
  static const std::string noType;
  std::vector<std::size_t> hints(columns.size(), 0);
  for (const JSONLiteral& record : *records->asArray()) {
    if (!record.asObject()) throw PageError("a record is not a JSON object.");
    for (std::size_t i = 0; i < columns.size(); ++i) {
      if (i) result.csv += ',';
      const JSONLiteral* value = valueAt(record, columns[i], hints[i]);
      if (!value) {
        result.csv += "\"\"";
        continue;
      }
      const std::string& type = i < types.size() ? types[i] : noType;
      // Texts other than date-times go straight in, without a copy.
      if (const std::string* string = value->asString(); string && type != "datetime") {
        appendQuoted(result.csv, *string);
      } else {
        appendQuoted(result.csv, text(*value, type));
      }
    }
    result.csv += '\n';
    ++result.records;
  }
  return result;
}

}  // namespace RestPage

}  // namespace corvane

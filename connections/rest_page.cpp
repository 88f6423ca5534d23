#include "connections/rest_page.hpp"

#include <charconv>
#include <cstring>

#include <nlohmann/json.hpp>

namespace corvane {

PageError::PageError(const std::string& reason)
    : std::runtime_error("Salesforce's reply is not a page of records: " + reason) {}

namespace RestPage {

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

namespace {

// Writes a page's CSV rows straight from the parser's events, without building
// the page as a tree: the hot path of a REST backup.
class PageWriter {
 public:
  using json = nlohmann::json;

  PageWriter(const std::vector<std::string>& columns, const std::vector<std::string>& types)
      : columns_(columns), cells_(columns.size()), set_(columns.size(), false) {
    isDateTime_.reserve(columns.size());
    for (std::size_t i = 0; i < columns.size(); ++i) {
      isDateTime_.push_back(i < types.size() && types[i] == "datetime");
    }
  }

  bool null() { return scalar(Scalar::null, {}); }
  bool boolean(bool value) { return scalar(Scalar::boolean, value ? "true" : "false"); }
  bool number_integer(json::number_integer_t value) {
    return scalar(Scalar::number, std::to_string(value));
  }
  bool number_unsigned(json::number_unsigned_t value) {
    return scalar(Scalar::number, std::to_string(value));
  }
  bool number_float(json::number_float_t, const json::string_t& text) {
    return scalar(Scalar::number, text);
  }
  bool string(json::string_t& value) { return scalar(Scalar::string, value); }
  bool binary(json::binary_t&) { return fail("it holds binary data."); }
  bool key(json::string_t& name) {
    if (keys_.size() < open_.size()) keys_.resize(open_.size());
    keys_[open_.size() - 1] = name;
    return true;
  }
  bool start_object(std::size_t) {
    std::size_t depth = open_.size();
    if (depth == 0) {
      open_.push_back(true);
      return true;
    }
    if (depth == 1 && key0() == "records") return fail("its records are not a list.");
    if (depth == 2 && inRecords_) {
      std::fill(set_.begin(), set_.end(), false);
    }
    open_.push_back(true);
    return true;
  }
  bool end_object() {
    open_.pop_back();
    if (open_.size() == 2 && inRecords_) writeRow();
    return true;
  }
  bool start_array(std::size_t) {
    std::size_t depth = open_.size();
    if (depth == 0) return fail("it is not a JSON object.");
    if (depth == 1 && key0() == "records") {
      inRecords_ = true;
      sawRecords_ = true;
    } else if (depth == 2 && inRecords_) {
      return fail("a record is not a JSON object.");
    }
    open_.push_back(false);
    return true;
  }
  bool end_array() {
    open_.pop_back();
    if (open_.size() == 1) inRecords_ = false;
    return true;
  }
  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception& error) {
    if (reason_.empty()) reason_ = error.what();
    return false;
  }

  Result finish() {
    if (!sawRecords_) throw PageError("it has no list of records.");
    return std::move(result_);
  }
  const std::string& reason() const { return reason_; }

 private:
  enum class Scalar { null, boolean, number, string };

  const std::string& key0() const { return keys_[0]; }

  bool fail(std::string reason) {
    reason_ = std::move(reason);
    return false;
  }

  bool scalar(Scalar kind, std::string_view text) {
    std::size_t depth = open_.size();
    if (depth == 0) return fail("it is not a JSON object.");
    if (depth == 1) {
      if (key0() == "records") return fail("its records are not a list.");
      if (key0() == "nextRecordsUrl") {
        if (kind == Scalar::string) {
          result_.next = text;
        } else if (kind != Scalar::null) {
          return fail("its nextRecordsUrl is not text.");
        }
      }
      return true;
    }
    if (!inRecords_) return true;
    if (depth == 2) return fail("a record is not a JSON object.");
    // Values inside arrays belong to no column.
    for (std::size_t level = 3; level < depth; ++level) {
      if (!open_[level]) return true;
    }
    std::size_t column = findColumn(depth);
    if (column == columns_.size()) return true;
    std::string& cell = cells_[column];
    set_[column] = true;
    switch (kind) {
      case Scalar::null:
        cell.clear();
        break;
      case Scalar::boolean:
        cell.assign(text);
        break;
      case Scalar::number:
        cell = text.find_first_of("Ee") == std::string_view::npos ? std::string(text)
                                                                  : bulkNumber(text);
        break;
      case Scalar::string:
        if (isDateTime_[column] && text.size() >= 5 && text.substr(text.size() - 5) == "+0000") {
          cell.assign(text.substr(0, text.size() - 5));
          cell += 'Z';
        } else {
          cell.assign(text);
        }
        break;
    }
    return true;
  }

  // The column of the value at the current key path below the record; none
  // (columns_.size()) when no column asks for it.
  std::size_t findColumn(std::size_t depth) {
    // keys_[2] is the record's field; deeper keys walk into relationships.
    if (depth == 3) {
      const std::string& name = keys_[2];
      std::size_t hinted = next_ < columns_.size() ? next_ : 0;
      for (std::size_t n = 0; n < columns_.size(); ++n) {
        std::size_t i = (hinted + n) % columns_.size();
        if (columns_[i] == name) {
          next_ = i + 1;
          return i;
        }
      }
      return columns_.size();
    }
    path_.clear();
    for (std::size_t level = 2; level < depth; ++level) {
      if (level > 2) path_ += '.';
      path_ += keys_[level];
    }
    for (std::size_t i = 0; i < columns_.size(); ++i) {
      if (columns_[i] == path_) return i;
    }
    return columns_.size();
  }

  void writeRow() {
    std::string& out = result_.csv;
    for (std::size_t i = 0; i < columns_.size(); ++i) {
      if (i) out += ',';
      appendQuoted(out, set_[i] ? std::string_view(cells_[i]) : std::string_view());
    }
    out += '\n';
    ++result_.records;
  }

  const std::vector<std::string>& columns_;
  std::vector<bool> isDateTime_;
  std::vector<std::string> cells_;  // this record's texts, by column
  std::vector<bool> set_;           // which cells this record has set
  std::size_t next_ = 0;            // where the next field's column is likely to be
  std::vector<bool> open_;          // open containers: true for an object
  std::vector<std::string> keys_;   // the current key of each open object, by depth
  std::string path_;
  bool inRecords_ = false;
  bool sawRecords_ = false;
  std::string reason_;
  Result result_;
};

}  // namespace

Result read(std::string_view data, const std::vector<std::string>& columns,
            const std::vector<std::string>& types) {
  PageWriter writer(columns, types);
  if (!nlohmann::json::sax_parse(data, &writer)) {
    throw PageError(writer.reason().empty() ? std::string("it is not JSON.") : writer.reason());
  }
  return writer.finish();
}

}  // namespace RestPage

}  // namespace corvane

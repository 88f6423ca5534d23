#include "connections/json_literal.hpp"

#include <nlohmann/json.hpp>

#include "platform/text_escape.hpp"

namespace corvane {

// Builds a JSONLiteral from nlohmann's SAX events. Integers arrive as values
// (exact for every integer that fits 64 bits, written back digit for digit);
// anything longer or with a fraction or exponent arrives with its own text.
class JSONLiteralBuilder {
 public:
  using json = nlohmann::json;
  using number_integer_t = json::number_integer_t;
  using number_unsigned_t = json::number_unsigned_t;
  using number_float_t = json::number_float_t;
  using string_t = json::string_t;
  using binary_t = json::binary_t;

  bool null() { return add(JSONLiteral()); }
  bool boolean(bool value) { return add(JSONLiteral::boolean(value)); }
  bool number_integer(number_integer_t value) {
    return add(JSONLiteral::number(std::to_string(value)));
  }
  bool number_unsigned(number_unsigned_t value) {
    return add(JSONLiteral::number(std::to_string(value)));
  }
  bool number_float(number_float_t, const string_t& text) { return add(JSONLiteral::number(text)); }
  bool string(string_t& value) { return add(JSONLiteral::string(std::move(value))); }
  bool binary(binary_t&) { return false; }
  bool start_object(std::size_t) {
    stack_.push_back(JSONLiteral::object());
    return true;
  }
  bool key(string_t& name) {
    keys_.push_back(std::move(name));
    return true;
  }
  bool end_object() { return closeContainer(); }
  bool start_array(std::size_t) {
    stack_.push_back(JSONLiteral::array());
    return true;
  }
  bool end_array() { return closeContainer(); }
  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception& error) {
    reason_ = error.what();
    return false;
  }

  JSONLiteral result() { return std::move(root_); }
  const std::string& reason() const { return reason_; }

 private:
  bool closeContainer() {
    JSONLiteral done = std::move(stack_.back());
    stack_.pop_back();
    return add(std::move(done));
  }

  bool add(JSONLiteral value) {
    if (stack_.empty()) {
      root_ = std::move(value);
      return true;
    }
    JSONLiteral& parent = stack_.back();
    if (auto* object = parent.asObject()) {
      object->emplace_back(std::move(keys_.back()), std::move(value));
      keys_.pop_back();
    } else if (auto* items = parent.asArray()) {
      items->push_back(std::move(value));
    }
    return true;
  }

  std::vector<JSONLiteral> stack_;  // open containers, innermost last
  std::vector<std::string> keys_;   // the pending key of each open object
  JSONLiteral root_;
  std::string reason_;
};

JSONLiteral JSONLiteral::parse(std::string_view text) {
  JSONLiteralBuilder builder;
  bool ok = nlohmann::json::sax_parse(text, &builder);
  if (!ok) {
    throw Malformed(builder.reason().empty() ? std::string("The JSON text could not be read.")
                                             : builder.reason());
  }
  return builder.result();
}

const JSONLiteral* JSONLiteral::find(std::string_view key) const {
  const Object* members = asObject();
  if (!members) return nullptr;
  for (const auto& [name, value] : *members) {
    if (name == key) return &value;
  }
  return nullptr;
}

void appendJSONString(std::string& out, std::string_view text) {
  TextEscape::appendJSONString(out, text);
}

std::string JSONLiteral::dump() const {
  std::string out;
  dump(out);
  return out;
}

void JSONLiteral::dump(std::string& out) const {
  if (isNull()) {
    out += "null";
  } else if (const bool* flag = asBool()) {
    out += *flag ? "true" : "false";
  } else if (const Number* number = asNumber()) {
    out += number->text;
  } else if (const std::string* text = asString()) {
    appendJSONString(out, *text);
  } else if (const Array* items = asArray()) {
    out += '[';
    for (std::size_t i = 0; i < items->size(); ++i) {
      if (i) out += ',';
      (*items)[i].dump(out);
    }
    out += ']';
  } else if (const Object* members = asObject()) {
    out += '{';
    bool first = true;
    for (const auto& [name, value] : *members) {
      if (!first) out += ',';
      first = false;
      appendJSONString(out, name);
      out += ':';
      value.dump(out);
    }
    out += '}';
  }
}

}  // namespace corvane

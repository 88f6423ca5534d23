// A JSON value that keeps every number as the text it arrived as.
//
// Salesforce sends record ids, currency amounts and 18-digit numbers that a
// double would round; a backup must write them back exactly as received. Numbers
// are therefore held as their own text and never converted. Objects keep their
// keys in the order they arrived (the order of a record's fields).
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace corvane {

class JSONLiteral {
 public:
  struct Number {
    std::string text;
    bool operator==(const Number&) const = default;
  };
  using Array = std::vector<JSONLiteral>;
  using Object = std::vector<std::pair<std::string, JSONLiteral>>;

  // Thrown by parse on anything that is not one whole JSON text.
  class Malformed : public std::runtime_error {
   public:
    explicit Malformed(const std::string& reason) : std::runtime_error(reason) {}
  };

  JSONLiteral() = default;  // null
  static JSONLiteral string(std::string text) { return JSONLiteral(std::move(text)); }
  static JSONLiteral number(std::string text) { return JSONLiteral(Number{std::move(text)}); }
  static JSONLiteral boolean(bool value) { return JSONLiteral(value); }
  static JSONLiteral object(Object members = {}) { return JSONLiteral(std::move(members)); }
  static JSONLiteral array(Array items = {}) { return JSONLiteral(std::move(items)); }

  // Reads one JSON text. Throws Malformed, with the parser's reason, otherwise.
  static JSONLiteral parse(std::string_view text);

  bool isNull() const { return std::holds_alternative<std::nullptr_t>(value_); }
  const std::string* asString() const { return std::get_if<std::string>(&value_); }
  const Number* asNumber() const { return std::get_if<Number>(&value_); }
  const bool* asBool() const { return std::get_if<bool>(&value_); }
  const Object* asObject() const { return std::get_if<Object>(&value_); }
  const Array* asArray() const { return std::get_if<Array>(&value_); }
  Object* asObject() { return std::get_if<Object>(&value_); }
  Array* asArray() { return std::get_if<Array>(&value_); }

  // The member with this key of an object; null for a missing key or a non-object.
  const JSONLiteral* find(std::string_view key) const;

  // Compact JSON text; numbers are written exactly as held.
  std::string dump() const;
  void dump(std::string& out) const;

  bool operator==(const JSONLiteral&) const = default;

 private:
  using Value = std::variant<std::nullptr_t, bool, Number, std::string, Array, Object>;
  template <typename T>
  explicit JSONLiteral(T value) : value_(std::move(value)) {}
  friend class JSONLiteralBuilder;

  Value value_ = nullptr;
};

// Appends text as a JSON string literal (quoted and escaped).
void appendJSONString(std::string& out, std::string_view text);

}  // namespace corvane

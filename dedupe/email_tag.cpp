#include "dedupe/email_tag.hpp"

namespace corvane::EmailTag {

namespace {

bool holdsOddByte(std::string_view local) {
  return local.find_first_of("\",;@") != std::string_view::npos;
}

struct Parts {
  std::string_view local;
  std::string_view rest;  // "@domain", or empty when there is no "@"
};

Parts split(std::string_view address) {
  std::size_t at = address.rfind('@');
  if (at == std::string_view::npos) return {address, {}};
  return {address.substr(0, at), address.substr(at)};
}

}  // namespace

bool hasTag(std::string_view address) {
  std::size_t at = address.rfind('@');
  if (at == std::string_view::npos) return false;
  std::string_view local = address.substr(0, at);
  std::size_t plus = local.find('+');
  return plus != std::string_view::npos && plus != 0 && !holdsOddByte(local);
}

std::optional<std::string_view> strippedLocal(std::string_view local) {
  std::size_t plus = local.find('+');
  if (plus == std::string_view::npos || plus == 0 || holdsOddByte(local)) return std::nullopt;
  return local.substr(0, plus);
}

std::string canonical(std::string_view address) {
  Parts parts = split(address);
  std::string out(strippedLocal(parts.local).value_or(parts.local));
  out.append(parts.rest);
  return out;
}

bool sameInbox(std::string_view a, std::string_view b) {
  if (a == b) return false;
  Parts pa = split(a);
  Parts pb = split(b);
  if (pa.rest != pb.rest) return false;
  return strippedLocal(pa.local).value_or(pa.local) == strippedLocal(pb.local).value_or(pb.local);
}

bool columnHasTags(const FlatColumn& column) {
  for (std::size_t i = 0; i < column.size(); ++i) {
    if (hasTag(column.value(i))) return true;
  }
  return false;
}

}  // namespace corvane::EmailTag

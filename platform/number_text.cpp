#include "platform/number_text.hpp"

namespace corvane::NumberText {

std::string grouped(std::int64_t value) {
  const std::string digits = std::to_string(value);
  const std::size_t first = value < 0 ? 1 : 0;  // after the sign
  std::string out = digits.substr(0, first);
  for (std::size_t i = first; i < digits.size(); ++i) {
    if (i > first && (digits.size() - i) % 3 == 0) out.push_back(',');
    out.push_back(digits[i]);
  }
  return out;
}

}  // namespace corvane::NumberText

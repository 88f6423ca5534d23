#include "dedupe/dedupe_task.hpp"

namespace corvane {

std::string digitGroups(std::int64_t value) {
  std::string digits = std::to_string(value);
  std::string out;
  for (std::size_t i = 0; i < digits.size(); ++i) {
    if (i > 0 && (digits.size() - i) % 3 == 0 && digits[i - 1] != '-') out.push_back(',');
    out.push_back(digits[i]);
  }
  return out;
}

}  // namespace corvane

// Numbers as people read them in the program's output.
#pragma once

#include <cstdint>
#include <string>

namespace corvane::NumberText {

// A count with its thousands marked: 1234567 gives "1,234,567", -4500 "-4,500".
std::string grouped(std::int64_t value);

}  // namespace corvane::NumberText

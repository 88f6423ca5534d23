// Delimited text as a user's file or clipboard: any bytes, both delimiters,
// the pasted-text rules and the file encodings. Nothing may crash, and every
// grid must be well formed.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "import/delimited_text.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view bytes(reinterpret_cast<const char*>(data), size);
  auto check = [](const std::optional<corvane::ImportGrid>& grid) {
    if (grid && grid->sheetName) std::abort();
  };
  check(corvane::DelimitedText::parse(bytes, ','));
  check(corvane::DelimitedText::parse(bytes, '\t'));
  check(corvane::DelimitedText::parsePasted(bytes));
  if (auto text = corvane::DelimitedText::decodeText(bytes))
    check(corvane::DelimitedText::parse(*text, ','));
  return 0;
}

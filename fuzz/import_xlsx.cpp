// A workbook file of any bytes: every sheet is read. The only failure
// allowed is ImportError (badFile); memory stays bounded by a small part limit.
#include <cstddef>
#include <cstdint>
#include <string>

#include "import/import_error.hpp"
#include "workbook/xlsx_reader.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  try {
    corvane::XlsxReader reader(std::string(reinterpret_cast<const char*>(data), size), "fuzz.xlsx",
                               std::size_t{8} << 20);
    for (std::size_t index = 0; index < reader.sheetNames().size(); ++index)
      reader.readSheet(index);
  } catch (const corvane::ImportError&) {
  }
  return 0;
}

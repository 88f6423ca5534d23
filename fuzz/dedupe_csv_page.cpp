// A Bulk API result page of any bytes: parsePage either refuses it with a
// CsvError or delivers rows whose values, taken together, never hold more
// bytes than the page.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "dedupe/csv_stream.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view page(reinterpret_cast<const char*>(data), size);
  std::size_t bytes = 0;
  auto count = [&bytes](const corvane::CsvStream::Row& row) {
    for (std::string_view value : row) bytes += value.size();
  };
  try {
    corvane::CsvStream::parsePage(page, count, count);
  } catch (const corvane::CsvError&) {
    return 0;
  }
  if (bytes > size) std::abort();
  return 0;
}

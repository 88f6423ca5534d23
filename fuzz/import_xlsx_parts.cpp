// The XML of one workbook part, given to each part parser in turn: workbook,
// relationships, shared strings, styles and sheet. Only WorkbookFormatError
// may come out.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "workbook/xlsx_parts.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace corvane;
  std::string_view xml(reinterpret_cast<const char*>(data), size);
  std::vector<std::string> shared;
  StyleInfo styles;
  auto attempt = [&](auto parse) {
    try {
      TextPartInput input(xml);
      parse(input);
    } catch (const WorkbookFormatError&) {
    }
  };
  attempt([](PartInput& in) { WorkbookParser::parse(in); });
  attempt([](PartInput& in) { RelsParser::parse(in); });
  attempt([&](PartInput& in) { shared = SharedStringsParser::parse(in, std::size_t{8} << 20); });
  attempt([&](PartInput& in) { styles = StylesParser::parse(in); });
  CellContext context{&shared, &styles, size % 2 == 1};
  attempt([&](PartInput& in) { SheetParser::parse(in, context); });
  return 0;
}

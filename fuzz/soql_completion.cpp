// Feeds any bytes to the SOQL scanner and to completion at a cursor taken from
// the input, checking the scanner's promises: equal list lengths, depth never
// negative, ranges inside the text, and every completion drawn from the lists.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "query/soql_completion.hpp"
#include "query/soql_scan.hpp"

namespace {

using namespace corvane;

void check(bool condition) {
  if (!condition) std::abort();
}

const std::vector<SObjectField>& fields() {
  static const std::vector<SObjectField> list = [] {
    SObjectField industry{"Industry", "Industry", "picklist", 40,
                          false,      "",         {},         {"Banking", "O'Hare"}};
    SObjectField owner{"OwnerId", "Owner", "reference", 18, false, "Owner", {"User"}, {}};
    SObjectField created{"CreatedDate", "Created", "datetime", 0, false, "", {}, {}};
    SObjectField name{"Name", "Name", "string", 80, false, "", {}, {}};
    return std::vector<SObjectField>{industry, owner, created, name};
  }();
  return list;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  // The first byte places the cursor; the rest is the text.
  const std::string_view text(reinterpret_cast<const char*>(data + 1), size - 1);
  SoqlScan scan(text);
  check(scan.chars().size() == scan.size() && scan.depths().size() == scan.size());
  std::size_t bytes = 0;
  for (std::size_t i = 0; i < scan.size(); ++i) {
    check(scan.depth(i) >= 0);
    check(!scan.character(i).empty());
    bytes += scan.character(i).size();
  }
  check(bytes == text.size());
  const std::size_t cursor = scan.size() == 0 ? 0 : data[0] % (scan.size() + 2);

  for (CharRange range : scan.splitTopLevel({0, scan.size()}, ","))
    check(range.start <= range.end && range.end <= scan.size());
  for (CharRange range : scan.splitTopLevelWord({0, scan.size()}, "AND"))
    check(range.start <= range.end && range.end <= scan.size());
  if (auto clauses = scan.clauses())
    for (const auto& entry : *clauses) check(entry.second.end <= scan.size());
  if (auto literal = scan.literal(cursor)) check(literal->range.end <= scan.size());
  (void)scan.identifier("FROM");

  auto token = SoqlCompletion::currentToken(text, cursor);
  check(token.range.start <= token.range.end && token.range.end <= scan.size());
  (void)SoqlCompletion::valuePosition(text, cursor);
  auto related = [](const std::string&) { return fields(); };
  auto result =
      SoqlCompletion::complete(text, cursor, {{"Account", "", false, true}}, fields(), 20, related);
  check(result.completions.size() <= 20);
  check(result.replace.start <= result.replace.end && result.replace.end <= scan.size());
  return 0;
}

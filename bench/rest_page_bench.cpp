// RestPage::read on a full REST query page: 2,000 records of 30 fields, with the
// mix a backup meets (ids, text with quotes and commas, date-times, numbers with
// and without exponents, booleans, nulls, a relationship object). The target is
// at least 100 MB of JSON per second on one core.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include <fmt/format.h>

#include "connections/rest_page.hpp"

namespace {

constexpr int kRecords = 2000;
constexpr int kTextFields = 14;
constexpr int kNumberFields = 6;
constexpr int kDateFields = 4;
constexpr int kFlagFields = 3;

struct Page {
  std::string body;
  std::vector<std::string> columns;
  std::vector<std::string> types;
};

Page makePage() {
  Page page;
  page.columns = {"Id", "Owner.Name"};
  page.types = {"id", "string"};
  for (int f = 0; f < kTextFields; ++f) {
    page.columns.push_back(fmt::format("Text{}__c", f));
    page.types.emplace_back("string");
  }
  for (int f = 0; f < kNumberFields; ++f) {
    page.columns.push_back(fmt::format("Amount{}__c", f));
    page.types.emplace_back("double");
  }
  for (int f = 0; f < kDateFields; ++f) {
    page.columns.push_back(fmt::format("When{}__c", f));
    page.types.emplace_back("datetime");
  }
  for (int f = 0; f < kFlagFields; ++f) {
    page.columns.push_back(fmt::format("Flag{}__c", f));
    page.types.emplace_back("boolean");
  }
  page.columns.emplace_back("Empty__c");
  page.types.emplace_back("string");

  std::string& out = page.body;
  out = R"({"totalSize":200000,"done":false,"nextRecordsUrl":"/services/data/v62.0/query/01gXX-2000","records":[)";
  for (int r = 0; r < kRecords; ++r) {
    if (r) out += ',';
    out += fmt::format(
        R"({{"attributes":{{"type":"Account","url":"/services/data/v62.0/sobjects/Account/001000000000{:06d}AAA"}},"Id":"001000000000{:06d}AAA","Owner":{{"attributes":{{"type":"User"}},"Name":"Owner {}"}})",
        r, r, r % 97);
    for (int f = 0; f < kTextFields; ++f) {
      out += fmt::format(R"(,"Text{}__c":"Value {} of \"field\" {}, with a comma")", f, r, f);
    }
    for (int f = 0; f < kNumberFields; ++f) {
      if (f % 3 == 2) {
        out += fmt::format(R"(,"Amount{}__c":1.{}E-7)", f, r);
      } else {
        out += fmt::format(R"(,"Amount{}__c":{}.{})", f, r * 1237 + f, f * 7);
      }
    }
    for (int f = 0; f < kDateFields; ++f) {
      out += fmt::format(R"(,"When{}__c":"2024-0{}-{:02d}T10:{:02d}:00.000+0000")", f, f + 1,
                         r % 28 + 1, r % 60);
    }
    for (int f = 0; f < kFlagFields; ++f) {
      out += fmt::format(R"(,"Flag{}__c":{})", f, (r + f) % 2 ? "true" : "false");
    }
    out += R"(,"Empty__c":null})";
  }
  out += "]}";
  return page;
}

void BM_RestPageRead(benchmark::State& state) {
  const Page page = makePage();
  for (auto _ : state) {
    auto result = corvane::RestPage::read(page.body, page.columns, page.types);
    benchmark::DoNotOptimize(result.csv.data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                          static_cast<std::int64_t>(page.body.size()));
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * kRecords);
  state.counters["page_bytes"] = static_cast<double>(page.body.size());
}
BENCHMARK(BM_RestPageRead)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();

// SoqlCompletion::suggestions on a 5,000-character query against an object of
// 800 fields, as the editor calls it on every keystroke (target: under 1 ms).
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "platform/unicode.hpp"
#include "query/soql_completion.hpp"

namespace {

using namespace corvane;

std::vector<SObjectField> manyFields() {
  std::vector<SObjectField> fields;
  for (int i = 0; i < 800; ++i) {
    SObjectField field;
    field.name = "Field_" + std::to_string(i) + (i % 3 == 0 ? "_Name__c" : "__c");
    field.type = i % 5 == 0 ? "picklist" : "string";
    field.length = 255;
    if (i % 5 == 0) field.picklistValues = {"Alpha", "Beta", "Gamma", "Delta"};
    if (i % 40 == 0) {
      field.type = "reference";
      field.relationshipName = "Link_" + std::to_string(i) + "__r";
      field.referenceTo = {"Thing__c"};
    }
    fields.push_back(field);
  }
  return fields;
}

std::vector<SObjectSummary> manyObjects() {
  std::vector<SObjectSummary> objects;
  for (int i = 0; i < 600; ++i)
    objects.push_back({"Object_" + std::to_string(i) + "__c", "", true, true});
  return objects;
}

// A 5,000-character query: a long select list with a subquery, a WHERE with
// literals, with the cursor where `tail` is typed.
std::string longQuery(const std::string& tail) {
  std::string query = "SELECT Id, (SELECT Id, Name FROM Children__r WHERE Name LIKE 'a(%'), ";
  for (int i = 0; query.size() < 3000; ++i) query += "Field_" + std::to_string(i) + "__c, ";
  query += "Name FROM Account WHERE ";
  for (int i = 0; query.size() < 5000 - tail.size(); ++i)
    query += "Field_" + std::to_string(i) + "__c = 'it\\'s " + std::to_string(i) + "' AND ";
  query.resize(5000 - tail.size(), ' ');
  return query + tail;
}

void run(benchmark::State& state, const std::string& tail) {
  const auto fields = manyFields();
  const auto objects = manyObjects();
  const std::string text = longQuery(tail);
  const std::size_t cursor = Unicode::characterCount(text);
  for (auto _ : state) {
    auto completions = SoqlCompletion::suggestions(text, cursor, objects, fields, 50);
    benchmark::DoNotOptimize(completions);
  }
  state.counters["chars"] = static_cast<double>(text.size());
}

void BM_SuggestionsFieldToken(benchmark::State& state) { run(state, " fld_nm"); }
void BM_SuggestionsEmptyToken(benchmark::State& state) { run(state, " "); }
void BM_SuggestionsPicklistValue(benchmark::State& state) { run(state, " Field_5__c = 'b"); }

BENCHMARK(BM_SuggestionsFieldToken)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SuggestionsEmptyToken)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SuggestionsPicklistValue)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();

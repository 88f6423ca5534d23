// A 200,000-row REST query end to end: Corvane's REST client and the backup's
// page reader against the sample org, page after page until the last, as a backup
// copies a small object over REST.
//
// The org is generated once into the same cached folder the Bulk benchmark uses
// (CORVANE_BENCH_ACCOUNTS changes the count) and served in-process on a free
// loopback port. Each iteration runs the whole query; the CSV is counted, not kept.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "connections/rest_query_runner.hpp"
#include "connections/api_transport.hpp"
#include "connections/salesforce_api.hpp"
#include "tools/orgsim/generate/generator.hpp"
#include "tools/orgsim/org_store.hpp"
#include "tools/orgsim/server.hpp"
#include "tools/orgsim/sessions.hpp"

namespace {

namespace fs = std::filesystem;

const std::vector<std::string> kColumns = {
    "Id",           "Name",          "Type",          "BillingCity",  "BillingCountry",
    "Phone",        "Industry",      "AnnualRevenue", "NumberOfEmployees", "Owner.Name",
    "CreatedDate",  "LastModifiedDate", "SystemModstamp"};
const std::vector<std::string> kTypes = {"id",       "string",   "picklist", "string", "string",
                                         "phone",    "picklist", "currency", "int",    "string",
                                         "datetime", "datetime", "datetime"};

std::int64_t accountsWanted() {
  const char* text = std::getenv("CORVANE_BENCH_ACCOUNTS");
  return text != nullptr ? std::atoll(text) : 200'000;
}

std::string selectList() {
  std::string list;
  for (const auto& column : kColumns) list += (list.empty() ? "" : ", ") + column;
  return "SELECT " + list + " FROM Account";
}

void BM_RestQueryEndToEnd(benchmark::State& state) {
  using namespace corvane;
  const std::int64_t accounts = accountsWanted();
  const fs::path folder = fs::temp_directory_path() / "corvane-bench" /
                          ("orgsim-accounts-" + std::to_string(accounts) + "-seed-1");
  if (!orgsim::OrgStore::exists(folder)) {
    fs::remove_all(folder);
    orgsim::GenerateOptions options;
    options.out = folder;
    options.scale = "tiny";
    options.sizes = {{"Account", accounts}};
    orgsim::generateOrg(options);
  }
  orgsim::OrgServer server(folder);
  server.start();

  SalesforceAPI::Client api([&server](const std::string&) {
    SalesforceAPI::Session session;
    session.instanceUrl = server.baseUrl();
    session.accessToken = orgsim::Sessions::issue(server.store(), "").token;
    return session;
  });
  Org org;
  org.username = server.store().identity().adminUsername;
  APITransport transport(api, org);
  RestQueryRunner runner(transport, 0, [](const fs::path&) { return std::nullopt; });

  std::int64_t rows = 0;
  std::int64_t bytes = 0;
  for (auto _ : state) {
    auto outcome = runner.fetchPages(selectList(), RestQueryRunner::Operation::query, kColumns,
                                     kTypes, "", folder, [&](const RestPage::Result& page) {
                                       bytes += static_cast<std::int64_t>(page.csv.size());
                                     });
    rows += outcome.records;
    state.counters["pages"] = outcome.pages;
  }
  state.SetItemsProcessed(rows);
  state.SetBytesProcessed(bytes);
  server.stop();
}
BENCHMARK(BM_RestQueryEndToEnd)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();

// The sample org's Bulk API 2.0 results pages: how fast a 50,000-row page
// streams out (the target is well under a second per page).
//
// An org with 200,000 Accounts is generated once and kept in a temporary folder
// (CORVANE_BENCH_ACCOUNTS changes the count); the server runs in-process on a free
// loopback port; one query job over a realistic field list (with a relationship
// column) is created and waited for before anything is timed. Each iteration then
// fetches one page of 50,000 rows, cycling through the result, reading the body
// the way a client streams it to disk.
#include <benchmark/benchmark.h>
#include <httplib.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "tools/orgsim/generate/generator.hpp"
#include "tools/orgsim/org_store.hpp"
#include "tools/orgsim/server.hpp"
#include "tools/orgsim/sessions.hpp"

namespace {

namespace fs = std::filesystem;
using namespace corvane::orgsim;

constexpr const char* kApi = "/services/data/v62.0";
constexpr std::int64_t kPageRows = 50'000;
constexpr const char* kQuery =
    "SELECT Id, Name, Type, ParentId, BillingStreet, BillingCity, BillingPostalCode, "
    "BillingCountry, BillingLatitude, BillingLongitude, Phone, Website, Industry, AnnualRevenue, "
    "NumberOfEmployees, Description, Owner.Name, CreatedDate, LastModifiedDate, SystemModstamp "
    "FROM Account";

std::int64_t accountsWanted() {
  const char* text = std::getenv("CORVANE_BENCH_ACCOUNTS");
  return text != nullptr ? std::atoll(text) : 200'000;
}

// One generated org, served for the whole run.
class ServedOrg {
 public:
  static ServedOrg& get() {
    static ServedOrg org;
    return org;
  }

  // Rows in the job's result (the Accounts not in the Recycle Bin).
  std::int64_t resultRows() const { return resultRows_; }
  const std::string& jobId() const { return jobId_; }
  // The locator of every page (empty for the first one).
  const std::vector<std::string>& locators() const { return locators_; }

  httplib::Client client() const {
    httplib::Client c("127.0.0.1", port_);
    c.set_read_timeout(120, 0);
    c.set_default_headers({{"Authorization", "Bearer " + token_}});
    return c;
  }

  std::string resultsPath(const std::string& locator) const {
    std::string path = std::string(kApi) + "/jobs/query/" + jobId_ +
                       "/results?maxRecords=" + std::to_string(kPageRows);
    if (!locator.empty()) path += "&locator=" + locator;
    return path;
  }

 private:
  ServedOrg() : accounts_(accountsWanted()) {
    fs::path folder = fs::temp_directory_path() / "corvane-bench" /
                      ("orgsim-accounts-" + std::to_string(accounts_) + "-seed-1");
    if (!OrgStore::exists(folder)) {
      fs::remove_all(folder);
      GenerateOptions options;
      options.out = folder;
      options.scale = "tiny";
      options.sizes = {{"Account", accounts_}};
      generateOrg(options);
    }
    server_ = std::make_unique<OrgServer>(folder);
    server_->store().setSetting("bulkDelayMs", "0");
    port_ = server_->start();
    token_ = Sessions::issue(server_->store(), "").token;

    auto c = client();
    nlohmann::json job = {{"operation", "query"}, {"query", kQuery}};
    auto created =
        c.Post((std::string(kApi) + "/jobs/query").c_str(), job.dump(), "application/json");
    if (!created || created->status != 200) throw std::runtime_error("the job was not created");
    jobId_ = nlohmann::json::parse(created->body).at("id").get<std::string>();
    for (int poll = 0;; ++poll) {
      auto info = c.Get((std::string(kApi) + "/jobs/query/" + jobId_).c_str());
      if (!info || info->status != 200) throw std::runtime_error("the job could not be read");
      auto reply = nlohmann::json::parse(info->body);
      auto state = reply.at("state").get<std::string>();
      if (state == "JobComplete") {
        resultRows_ = reply.value("numberRecordsProcessed", std::int64_t{0});
        break;
      }
      if (state == "Failed" || state == "Aborted" || poll > 6000) {
        throw std::runtime_error("the job did not complete: " + state);
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    // Walk the result once to learn every page's locator.
    std::string locator;
    do {
      locators_.push_back(locator);
      auto page =
          c.Get(resultsPath(locator).c_str(), [](const char*, std::size_t) { return true; });
      if (!page || page->status != 200) throw std::runtime_error("a page could not be read");
      locator = page->get_header_value("Sforce-Locator");
    } while (locator != "null");
  }

  ~ServedOrg() {
    if (!server_) return;
    auto c = client();
    c.Delete((std::string(kApi) + "/jobs/query/" + jobId_).c_str());
    server_->stop();
  }

  std::int64_t accounts_;
  std::int64_t resultRows_ = 0;
  std::unique_ptr<OrgServer> server_;
  int port_ = 0;
  std::string token_;
  std::string jobId_;
  std::vector<std::string> locators_;
};

// Fetches one page and returns its rows; `bytes` grows by its body size.
std::int64_t fetchPage(httplib::Client& client, const std::string& path, std::int64_t& bytes) {
  auto page = client.Get(path.c_str(), [&](const char*, std::size_t length) {
    bytes += static_cast<std::int64_t>(length);
    return true;
  });
  if (!page || page->status != 200) throw std::runtime_error("a page could not be read");
  return std::stoll(page->get_header_value("Sforce-NumberOfRecords"));
}

// One 50,000-row page per iteration: the time per iteration is the time per page.
void BulkResultsPage(benchmark::State& state) {
  ServedOrg& org = ServedOrg::get();
  auto client = org.client();
  std::int64_t rows = 0, bytes = 0;
  std::size_t next = 0;
  for (auto _ : state) {
    // Full pages only, so every iteration measures the same amount of work.
    std::size_t fullPages =
        std::max<std::size_t>(1, static_cast<std::size_t>(org.resultRows() / kPageRows));
    rows += fetchPage(client, org.resultsPath(org.locators()[next % fullPages]), bytes);
    ++next;
  }
  state.SetItemsProcessed(rows);
  state.SetBytesProcessed(bytes);
  state.counters["rows_per_page"] =
      benchmark::Counter(static_cast<double>(rows) / static_cast<double>(state.iterations()));
}

// The whole result, page after page, as a download does it.
void BulkWholeResult(benchmark::State& state) {
  ServedOrg& org = ServedOrg::get();
  auto client = org.client();
  std::int64_t rows = 0, bytes = 0;
  for (auto _ : state) {
    for (const auto& locator : org.locators()) {
      rows += fetchPage(client, org.resultsPath(locator), bytes);
    }
  }
  state.SetItemsProcessed(rows);
  state.SetBytesProcessed(bytes);
}

BENCHMARK(BulkResultsPage)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(3.0);
BENCHMARK(BulkWholeResult)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(3.0);

}  // namespace

BENCHMARK_MAIN();

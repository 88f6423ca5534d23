#include "connections/bulk_query_runner.hpp"

#include <algorithm>
#include <cctype>
#include <thread>

#include <nlohmann/json.hpp>

namespace corvane {

namespace {

bool isNotSupported(const std::string& message) {
  return message.find("not supported") != std::string::npos;
}

std::optional<std::string> headerValue(const ResponseHeaders& headers, std::string_view name) {
  for (const auto& [key, value] : headers) {
    if (key.size() != name.size()) continue;
    bool same = true;
    for (std::size_t i = 0; i < key.size() && same; ++i) {
      same = std::tolower(static_cast<unsigned char>(key[i])) ==
             std::tolower(static_cast<unsigned char>(name[i]));
    }
    if (same) return value;
  }
  return std::nullopt;
}

}  // namespace

void BulkQueryRunner::rethrow(const std::exception& error, bool creating) const {
  TransportFailure failure = transport_.classify(error);
  if (failure.signedOut) throw DownloadError::authExpired();
  if (!creating && failure.httpStatus == 404) throw DownloadError::jobExpired();
  if (failure.httpStatus != 0) {
    if (isNotSupported(failure.message)) throw DownloadError::objectNotSupported(failure.message);
    throw DownloadError::jobFailed(failure.message.empty() ? error.what() : failure.message);
  }
  throw;
}

BulkQueryRunner::Job BulkQueryRunner::create(const std::string& soql, Operation operation) {
  nlohmann::json body{{"operation", operation == Operation::queryAll ? "queryAll" : "query"},
                      {"query", soql}};
  std::string reply;
  try {
    reply = transport_.send("POST", "/jobs/query", {}, body.dump());
  } catch (const DownloadError&) {
    throw;
  } catch (const std::exception& error) {
    rethrow(error, true);
  }
  auto json = nlohmann::json::parse(reply, nullptr, false);
  if (!json.is_object() || !json.contains("id") || !json["id"].is_string()) {
    throw DownloadError::jobFailed("its reply to the new job could not be read.");
  }
  return {json["id"].get<std::string>(), json.value("createdDate", "")};
}

std::optional<std::int64_t> BulkQueryRunner::waitForJob(const Job& job,
                                                        const ShouldCancel& shouldCancel) {
  auto delay = options_.firstPollDelay;
  while (true) {
    std::string reply;
    try {
      reply = transport_.send("GET", "/jobs/query/" + job.id, {}, std::nullopt);
    } catch (const std::exception& error) {
      rethrow(error, false);
    }
    auto json = nlohmann::json::parse(reply, nullptr, false);
    if (!json.is_object() || !json.contains("state") || !json["state"].is_string()) {
      throw DownloadError::jobFailed("the job's status could not be read.");
    }
    std::string state = json["state"].get<std::string>();
    if (state == "JobComplete") {
      const auto& processed = json.value("numberRecordsProcessed", nlohmann::json());
      return processed.is_number_integer() ? processed.get<std::int64_t>() : 0;
    }
    if (state == "Failed" || state == "Aborted") {
      std::string message = json.value("errorMessage", "");
      if (message.empty()) message = "the job was " + std::string(state == "Failed" ? "failed." : "aborted.");
      if (isNotSupported(message)) throw DownloadError::objectNotSupported(message);
      throw DownloadError::jobFailed(message);
    }
    // Sleep in short steps so that a pause is noticed at once.
    auto until = std::chrono::steady_clock::now() + delay;
    while (std::chrono::steady_clock::now() < until) {
      if (shouldCancel && shouldCancel()) return std::nullopt;
      auto left = until - std::chrono::steady_clock::now();
      std::this_thread::sleep_for(std::min<std::chrono::steady_clock::duration>(
          left, std::chrono::milliseconds(50)));
    }
    if (shouldCancel && shouldCancel()) return std::nullopt;
    delay = std::min(options_.maxPollDelay, delay * 3 / 2 + std::chrono::milliseconds(1));
  }
}

void BulkQueryRunner::checkSpace(std::int64_t remainingRecords) const {
  if (!options_.freeSpace) return;
  std::optional<std::int64_t> free = options_.freeSpace();
  if (!free) return;
  // Until a page has arrived, assume 300 bytes a record.
  double perRecord = recordsReceived_ > 0 ? static_cast<double>(bytesReceived_) /
                                                static_cast<double>(recordsReceived_)
                                          : 300.0;
  auto remaining = static_cast<std::int64_t>(static_cast<double>(std::max<std::int64_t>(remainingRecords, 0)) *
                                             perRecord * options_.storageFactor);
  std::int64_t needed = remaining + options_.freeSpaceFloor;
  if (*free < needed) throw DownloadError::lowDiskSpace(needed, *free);
}

BulkQueryRunner::Page BulkQueryRunner::fetchPage(const Job& job,
                                                 const std::optional<std::string>& locator,
                                                 int maxRecords, std::int64_t remainingRecords) {
  checkSpace(remainingRecords);
  QueryItems query{{"maxRecords", std::to_string(std::max(maxRecords, 1))}};
  if (locator && !locator->empty()) query.emplace_back("locator", *locator);
  std::pair<std::string, ResponseHeaders> reply;
  std::optional<std::string> next;
  for (int attempt = 1; !next; ++attempt) {
    try {
      reply = transport_.getRaw("/jobs/query/" + job.id + "/results", query, "text/csv");
    } catch (const std::exception& error) {
      rethrow(error, false);
    }
    next = headerValue(reply.second, "Sforce-Locator");
    if (next && next->empty()) next.reset();
    if (!next && attempt >= 2) throw DownloadError::pageWithoutLocator();
  }
  Page page;
  page.csv = std::move(reply.first);
  page.nextLocator = *next == "null" ? "" : *next;
  std::string count = headerValue(reply.second, "Sforce-NumberOfRecords").value_or("");
  if (!count.empty()) {
    try {
      page.records = std::stoll(count);
    } catch (const std::exception&) {
      page.records = -1;
    }
  }
  bytesReceived_ += static_cast<std::int64_t>(page.csv.size());
  if (page.records > 0) recordsReceived_ += page.records;
  return page;
}

void BulkQueryRunner::remove(const Job& job) noexcept {
  try {
    transport_.send("DELETE", "/jobs/query/" + job.id, {}, std::nullopt);
  } catch (...) {
    // A job left behind expires on its own after a week.
  }
}

}  // namespace corvane

#include "import/import_runner.hpp"

#include <fmt/format.h>
#include <openssl/evp.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <map>
#include <optional>
#include <set>
#include <thread>

#include "connections/api_allowance.hpp"
#include "connections/server_time.hpp"
#include "import/bulk_ingest_client.hpp"
#include "import/sobject_collections.hpp"
#include "platform/iso_time.hpp"

namespace corvane {

namespace {

using Kind = ImportOperation::Kind;

// Records created this long before a batch left still count as its own when
// its outcome is settled: the org's clock is known to the second only.
constexpr std::chrono::seconds kClockMargin{60};

bool sameText(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

std::string rowsWord(std::size_t count) { return count == 1 ? "row" : "rows"; }

const ImportField* fieldNamed(const std::string& name, const std::vector<ImportField>& fields) {
  for (const auto& field : fields) {
    if (sameText(field.name, name)) return &field;
  }
  return nullptr;
}

// The comparable form of a value, whether it is the text the plan sent or
// the JSON value a query returned: numbers by value, date-times by second,
// ids by their first 15 characters.
std::string comparable(const std::string& text, const std::string& type) {
  if (text.empty()) return text;
  if (type == "int" || type == "double" || type == "currency" || type == "percent" ||
      type == "long") {
    char* end = nullptr;
    double value = std::strtod(text.c_str(), &end);
    if (end == text.c_str()) return text;
    return fmt::format("{:.15g}", value);
  }
  if (type == "datetime") {
    auto time = ServerTime::parse(text);
    return time ? IsoTime::formatPlain(*time) : text;
  }
  if (type == "id" || type == "reference") return text.substr(0, 15);
  if (type == "boolean") return text == "true" || text == "TRUE" ? "true" : "false";
  return text;
}

std::string jsonText(const nlohmann::json& value) {
  if (value.is_null()) return {};
  if (value.is_string()) return value.get<std::string>();
  return value.dump();
}

bool comparableType(const std::string& type) {
  return type != "base64" && type != "address" && type != "location" && type != "encryptedstring";
}

std::string sha256(const std::string& text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(text.data(), text.size(), digest, &length, EVP_sha256(), nullptr);
  std::string hex;
  for (unsigned int i = 0; i < length; ++i) hex += fmt::format("{:02x}", digest[i]);
  return hex;
}

// One run of the runner: the plan, the journal entry and what is known so far.
class Run {
 public:
  Run(DedupeTransport& transport, ImportJournal& journal, const ImportRunner::Options& options,
      const ImportPlan& plan, const std::vector<ImportField>& fields,
      const std::function<void(const ImportProgress&)>& progress,
      const std::function<bool()>& cancelled)
      : transport_(transport),
        journal_(journal),
        options_(options),
        plan_(plan),
        fields_(fields),
        progress_(progress),
        cancelled_(cancelled) {}

  ImportRunSummary go() {
    ImportRunSummary summary;
    std::string key = ImportRunner::runKey(plan_, options_.login, options_.object);
    if (!options_.again) {
      if (auto finished = journal_.finishedAt(key)) {
        throw ImportRunError::alreadyImported(*finished);
      }
    }
    ImportJournal::Run entry =
        journal_.begin(key, options_.login, options_.object, plan_.operation.name(),
                       options_.source, IsoTime::formatPlain(std::chrono::system_clock::now()));
    run_ = entry.id;
    summary.resumed = entry.resumed;
    for (auto& outcome : journal_.outcomes(run_)) {
      claimed_.insert(outcome.recordId.substr(0, 15));
      known_.emplace(outcome.row, std::move(outcome));
    }
    for (std::size_t row = 0; row < plan_.rowCount; ++row) {
      if (!plan_.rowHasProblem[row]) ++toWrite_;
    }

    ApiAllowance allowance = call([&] { return ApiAllowance::ready(transport_); });
    if (allowance.serverDate)
      clockOffset_ = *allowance.serverDate - std::chrono::system_clock::now();

    std::vector<JournalBatch> batches = journal_.batches(run_);
    for (const auto& batch : batches) nextBatch_ = std::max(nextBatch_, batch.number + 1);
    for (const auto& batch : batches) {
      if (batch.state == JournalBatch::State::sent) settle(batch);
    }

    std::vector<std::size_t> pending;
    for (std::size_t row = 0; row < plan_.rowCount; ++row) {
      if (!plan_.rowHasProblem[row] && !known_.count(row)) pending.push_back(row);
    }
    retry_.clear();  // every row without an outcome is pending now
    std::size_t size =
        std::clamp<std::size_t>(options_.batchSize, 1, SObjectCollections::kMaxRecords);
    auto needed = static_cast<std::int64_t>((pending.size() + size - 1) / size);
    std::int64_t left = allowance.headroom(options_.allowanceFloor);
    report();

    bool bulk = pending.size() > options_.bulkThreshold;
    if (bulk) size = std::max<std::size_t>(options_.bulkJobRows, 1);
    if (bulk) needed = static_cast<std::int64_t>((pending.size() + size - 1) / size) * 8;
    if (needed > left) throw ImportRunError::allowance(needed, left);
    for (std::size_t at = 0; at < pending.size(); at += size) {
      std::vector<std::size_t> rows(
          pending.begin() + static_cast<std::ptrdiff_t>(at),
          pending.begin() + static_cast<std::ptrdiff_t>(std::min(at + size, pending.size())));
      if (bulk) {
        sendJob(std::move(rows));
      } else {
        sendBatch(std::move(rows));
      }
    }
    // Rows a settled batch found unwritten are sent after the rest.
    while (!retry_.empty()) {
      std::vector<std::size_t> rows;
      rows.swap(retry_);
      for (std::size_t at = 0; at < rows.size(); at += size) {
        std::vector<std::size_t> part(
            rows.begin() + static_cast<std::ptrdiff_t>(at),
            rows.begin() + static_cast<std::ptrdiff_t>(std::min(at + size, rows.size())));
        if (bulk) {
          sendJob(std::move(part));
        } else {
          sendBatch(std::move(part));
        }
      }
    }
    journal_.finish(run_, IsoTime::formatPlain(std::chrono::system_clock::now()));

    summary.outcomes.resize(plan_.rowCount);
    summary.sent.assign(plan_.rowCount, false);
    std::map<std::size_t, std::string> problems;
    for (const auto& problem : plan_.problems) {
      std::string& text = problems[problem.row];
      if (!text.empty()) text += ' ';
      text += problem.sentence();
    }
    for (std::size_t row = 0; row < plan_.rowCount; ++row) {
      RowOutcome& outcome = summary.outcomes[row];
      outcome.row = row;
      if (plan_.rowHasProblem[row]) {
        outcome.message = "Not sent: " + problems[row];
        ++summary.notSent;
        continue;
      }
      summary.sent[row] = true;
      auto found = known_.find(row);
      if (found != known_.end()) outcome = found->second;
      if (!outcome.success) {
        ++summary.failed;
      } else if (outcome.created) {
        ++summary.created;
      } else {
        ++summary.changed;
      }
    }
    summary.requests = requests_;
    return summary;
  }

 private:
  template <typename Work>
  auto call(Work&& work) -> decltype(work()) {
    ++requests_;
    try {
      return work();
    } catch (const ImportRunError&) {
      throw;
    } catch (const std::exception& error) {
      TransportFailure failure = transport_.classify(error);
      if (failure.signedOut) throw ImportRunError::signedOut(options_.login);
      throw ImportRunError::connectionLost(known_.size(), toWrite_, error.what());
    }
  }

  void report() {
    if (progress_) progress_(ImportProgress{known_.size(), toWrite_});
  }

  SystemTime orgNow() const {
    return std::chrono::time_point_cast<SystemTime::duration>(std::chrono::system_clock::now() +
                                                              clockOffset_);
  }

  void record(int batch, std::vector<RowOutcome> outcomes) {
    journal_.recordOutcome(run_, batch, outcomes);
    for (auto& outcome : outcomes) {
      if (!outcome.recordId.empty()) claimed_.insert(outcome.recordId.substr(0, 15));
      known_[outcome.row] = std::move(outcome);
    }
  }

  void sendBatch(std::vector<std::size_t> rows) {
    if (cancelled_ && cancelled_()) throw ImportRunError::cancelled(known_.size(), toWrite_);
    JournalBatch batch{
        nextBatch_++, rows, JournalBatch::State::sent, IsoTime::formatFractional(orgNow()), {}};
    journal_.recordSending(run_, batch);
    SObjectCollections::Request request =
        SObjectCollections::request(plan_, fields_, options_.object, rows);
    std::string body;
    ++requests_;
    try {
      body = transport_.send(request.method, request.path, request.query, request.body);
    } catch (const std::exception& error) {
      TransportFailure failure = transport_.classify(error);
      if (failure.signedOut) throw ImportRunError::signedOut(options_.login);
      // A 403 is the spent allowance (REQUEST_LIMIT_EXCEEDED, "TotalRequests Limit
      // exceeded.") or a refusal such as missing access.
      bool limit = failure.httpStatus == 403 &&
                   (failure.message.find("imit") != std::string::npos || failure.message.empty());
      bool refused = failure.httpStatus >= 400 && failure.httpStatus < 500 && !limit &&
                     failure.httpStatus != 408 && failure.httpStatus != 429;
      if (refused) {
        // The org read the request and turned all of it down: nothing was written.
        std::string message = failure.message.empty() ? error.what() : failure.message;
        std::vector<RowOutcome> outcomes;
        for (std::size_t row : rows) outcomes.push_back({row, false, {}, message, false});
        record(batch.number, std::move(outcomes));
        report();
        return;
      }
      if (limit) throw ImportRunError::allowance(1, 0);
      if (recoveries_ >= options_.recoveries) {
        throw ImportRunError::connectionLost(known_.size(), toWrite_, error.what());
      }
      ++recoveries_;
      settle(batch);
      report();
      return;
    }
    record(batch.number, SObjectCollections::outcomes(body, rows, plan_.operation));
    report();
  }

  // Writes rows through one Bulk API ingest job and waits for its results.
  void sendJob(std::vector<std::size_t> rows) {
    if (cancelled_ && cancelled_()) throw ImportRunError::cancelled(known_.size(), toWrite_);
    // A job that is created but never recorded stays Open and empty: harmless.
    BulkIngestClient::JobState job = call(
        [&] { return BulkIngestClient::create(transport_, options_.object, plan_.operation); });
    JournalBatch batch{nextBatch_++, rows, JournalBatch::State::sent,
                       IsoTime::formatFractional(orgNow()), job.id};
    journal_.recordSending(run_, batch);
    std::string csv = BulkIngestClient::csv(plan_, rows);
    call([&] {
      BulkIngestClient::upload(transport_, job.id, csv);
      return 0;
    });
    call([&] { return BulkIngestClient::setState(transport_, job.id, "UploadComplete"); });
    finishJob(batch);
  }

  // Waits for a recorded job to finish and records what became of its rows.
  void finishJob(const JournalBatch& batch) {
    BulkIngestClient::JobState job =
        call([&] { return BulkIngestClient::status(transport_, batch.jobId); });
    if (job.state == "Open") {
      // UploadComplete never reached the org: it wrote nothing.
      call([&] { return BulkIngestClient::setState(transport_, batch.jobId, "Aborted"); });
      record(batch.number, {});
      for (std::size_t row : batch.rows) {
        if (!known_.count(row)) retry_.push_back(row);
      }
      return;
    }
    while (!job.finished()) {
      if (cancelled_ && cancelled_()) throw ImportRunError::cancelled(known_.size(), toWrite_);
      std::this_thread::sleep_for(options_.pollInterval);
      job = call([&] { return BulkIngestClient::status(transport_, batch.jobId); });
    }
    std::vector<RowOutcome> outcomes =
        call([&] { return BulkIngestClient::results(transport_, batch.jobId, plan_, batch.rows); });
    ++requests_;  // the results come in two files
    std::set<std::size_t> answered;
    for (const auto& outcome : outcomes) answered.insert(outcome.row);
    std::string reason = job.errorMessage.empty()
                             ? std::string("Salesforce reported nothing for this row.")
                             : "The Bulk API job failed: " + job.errorMessage;
    for (std::size_t row : batch.rows) {
      if (!answered.count(row)) outcomes.push_back({row, false, {}, reason, false});
    }
    record(batch.number, std::move(outcomes));
    report();
  }

  // Learns from the org what became of a batch whose reply never arrived.
  void settle(const JournalBatch& batch) {
    if (!batch.jobId.empty()) return finishJob(batch);
    if (auto sent = IsoTime::parseFractional(batch.sentAt)) {
      SystemTime ready = *sent + options_.settleDelay;
      SystemTime now = orgNow();
      if (now < ready) std::this_thread::sleep_for(ready - now);
    }
    std::vector<RowOutcome> found;
    if (plan_.operation.kind == Kind::insert) {
      found = findCreated(batch);
    } else if (plan_.operation.kind == Kind::remove) {
      found = findDeleted(batch);
    }
    std::set<std::size_t> done;
    for (const auto& outcome : found) done.insert(outcome.row);
    record(batch.number, std::move(found));
    for (std::size_t row : batch.rows) {
      if (!done.count(row) && !known_.count(row)) retry_.push_back(row);
    }
  }

  // Pages through a query's records.
  void query(const std::string& resource, const std::string& soql,
             const std::function<void(const nlohmann::json&)>& each) {
    std::string path = resource;
    QueryItems items{{"q", soql}};
    while (true) {
      std::string body = call([&] { return transport_.send("GET", path, items, std::nullopt); });
      nlohmann::json page = nlohmann::json::parse(body, nullptr, false);
      if (page.is_discarded() || !page.is_object()) {
        throw ImportRunError::connectionLost(known_.size(), toWrite_,
                                             "Salesforce's reply to a query could not be read.");
      }
      if (page.contains("records") && page["records"].is_array()) {
        for (const auto& record : page["records"]) each(record);
      }
      auto next = page.find("nextRecordsUrl");
      if (page.value("done", true) || next == page.end() || !next->is_string()) return;
      path = next->get<std::string>();
      items.clear();
    }
  }

  std::vector<RowOutcome> findCreated(const JournalBatch& batch) {
    std::vector<std::pair<std::size_t, std::string>> compared;  // plan index, type
    for (std::size_t index = 0; index < plan_.fields.size(); ++index) {
      const ImportField* field = fieldNamed(plan_.fields[index], fields_);
      if (field != nullptr && comparableType(field->type))
        compared.emplace_back(index, field->type);
    }
    auto keyOfRow = [&](std::size_t row) {
      std::string key;
      for (const auto& [index, type] : compared) {
        key += comparable(plan_.value(row, index), type);
        key += '\x1f';
      }
      return key;
    };
    std::string fieldList = "Id";
    for (const auto& [index, type] : compared) fieldList += ", " + plan_.fields[index];
    auto sent = IsoTime::parseFractional(batch.sentAt);
    SystemTime since = (sent ? *sent : orgNow()) - kClockMargin;
    std::string soql = fmt::format("SELECT {} FROM {} WHERE CreatedDate >= {} ORDER BY CreatedDate",
                                   fieldList, options_.object, ServerTime::soqlLiteral(since));
    std::map<std::string, std::vector<std::string>> created;  // key of values -> ids, oldest first
    query("query", soql, [&](const nlohmann::json& record) {
      if (!record.is_object()) return;
      std::string id = jsonText(record.value("Id", nlohmann::json()));
      if (id.empty() || claimed_.count(id.substr(0, 15))) return;
      std::string key;
      for (const auto& [index, type] : compared) {
        nlohmann::json value;
        for (const auto& [name, item] : record.items()) {
          if (sameText(name, plan_.fields[index])) value = item;
        }
        key += comparable(jsonText(value), type);
        key += '\x1f';
      }
      created[key].push_back(id);
    });
    std::vector<RowOutcome> found;
    for (std::size_t row : batch.rows) {
      auto match = created.find(keyOfRow(row));
      if (match == created.end() || match->second.empty()) continue;
      std::string id = match->second.front();
      match->second.erase(match->second.begin());
      found.push_back({row, true, id, {}, true});
    }
    return found;
  }

  std::vector<RowOutcome> findDeleted(const JournalBatch& batch) {
    std::optional<std::size_t> key;
    for (std::size_t index = 0; index < plan_.fields.size(); ++index) {
      if (sameText(plan_.fields[index], "Id")) key = index;
    }
    if (!key || batch.rows.empty()) return {};
    std::string ids;
    for (std::size_t row : batch.rows) {
      ids += ids.empty() ? "'" : ", '";
      ids += plan_.value(row, *key) + "'";
    }
    std::set<std::string> deleted;
    query("queryAll",
          fmt::format("SELECT Id FROM {} WHERE IsDeleted = true AND Id IN ({})", options_.object,
                      ids),
          [&](const nlohmann::json& record) {
            if (record.is_object()) {
              deleted.insert(jsonText(record.value("Id", nlohmann::json())).substr(0, 15));
            }
          });
    std::vector<RowOutcome> found;
    for (std::size_t row : batch.rows) {
      const std::string& id = plan_.value(row, *key);
      if (deleted.count(id.substr(0, 15))) found.push_back({row, true, id, {}, false});
    }
    return found;
  }

  DedupeTransport& transport_;
  ImportJournal& journal_;
  const ImportRunner::Options& options_;
  const ImportPlan& plan_;
  const std::vector<ImportField>& fields_;
  const std::function<void(const ImportProgress&)>& progress_;
  const std::function<bool()>& cancelled_;

  std::int64_t run_ = 0;
  std::map<std::size_t, RowOutcome> known_;  // row -> its outcome, from the journal and this run
  std::set<std::string> claimed_;            // 15-character ids that rows of this run own
  std::vector<std::size_t> retry_;           // rows of settled batches the org did not write
  std::size_t toWrite_ = 0;
  int nextBatch_ = 0;
  int recoveries_ = 0;
  int requests_ = 0;
  std::chrono::system_clock::duration clockOffset_{0};
};

}  // namespace

ImportRunError ImportRunError::cancelled(std::size_t written, std::size_t total) {
  return ImportRunError(
      Kind::cancelled,
      fmt::format("The import was stopped after {} of {} {}. What was written stays written; run "
                  "the same import again to continue where it stopped.",
                  written, total, rowsWord(total)));
}

ImportRunError ImportRunError::connectionLost(std::size_t written, std::size_t total,
                                              const std::string& reason) {
  return ImportRunError(
      Kind::connectionLost,
      fmt::format("The import stopped after {} of {} {} because Salesforce did not answer ({}). "
                  "Nothing was written twice; run the same import again to continue: it first "
                  "checks in the org what became of the last rows sent.",
                  written, total, rowsWord(total), reason));
}

ImportRunError ImportRunError::signedOut(const std::string& login) {
  return ImportRunError(
      Kind::signedOut,
      fmt::format("The session of {} has ended, so the import stopped. Log in again with the "
                  "Salesforce CLI (sf org login web), then run the same import again to continue "
                  "where it stopped.",
                  login));
}

ImportRunError ImportRunError::allowance(std::int64_t needed, std::int64_t left) {
  return ImportRunError(
      Kind::allowance,
      fmt::format("The org's daily API allowance is nearly spent: the import needs {} more {}, "
                  "and only {} can be used before less than a tenth of the allowance is left. No "
                  "further rows were sent; run the same import again tomorrow, or when the "
                  "allowance has recovered, to continue.",
                  needed, needed == 1 ? "request" : "requests", left));
}

ImportRunError ImportRunError::alreadyImported(const std::string& finishedAt) {
  return ImportRunError(
      Kind::alreadyImported,
      fmt::format("These rows were already imported into this org by a run that finished at {} "
                  "(UTC). Nothing was sent. To import them once more, run the import again with "
                  "--again.",
                  finishedAt));
}

ImportRunner::ImportRunner(DedupeTransport& transport, ImportJournal& journal, Options options)
    : transport_(transport), journal_(journal), options_(std::move(options)) {}

ImportRunSummary ImportRunner::run(const ImportPlan& plan, const std::vector<ImportField>& fields,
                                   const std::function<void(const ImportProgress&)>& progress,
                                   const std::function<bool()>& cancelled) {
  Run run(transport_, journal_, options_, plan, fields, progress, cancelled);
  return run.go();
}

std::string ImportRunner::runKey(const ImportPlan& plan, const std::string& login,
                                 const std::string& object) {
  std::string text = login + '\0' + object + '\0' + plan.operation.name() + '\0';
  for (const auto& field : plan.fields) text += field + '\x1f';
  text += '\0';
  for (std::size_t row = 0; row < plan.rowCount; ++row) {
    text += plan.rowHasProblem[row] ? '!' : '+';
    for (std::size_t index = 0; index < plan.fields.size(); ++index) {
      text += plan.value(row, index);
      text += '\x1f';
    }
    text += '\x1e';
  }
  return sha256(text);
}

}  // namespace corvane

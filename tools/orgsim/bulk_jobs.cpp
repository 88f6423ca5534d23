#include "tools/orgsim/bulk_jobs.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include "tools/orgsim/database.hpp"
#include "tools/orgsim/query_engine.hpp"
#include "tools/orgsim/wire_values.hpp"

namespace corvane::orgsim {

namespace {

std::int64_t realNowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

std::string locatorFor(std::int64_t row) {
  std::string text = WireValues::base64Encode(std::to_string(row));
  while (!text.empty() && text.back() == '=') text.pop_back();
  return text;
}

std::optional<std::int64_t> rowOfLocator(const std::string& locator) {
  auto decoded = WireValues::base64Decode(locator);
  if (!decoded || decoded->empty() || decoded->size() > 12) return std::nullopt;
  for (char c : *decoded) {
    if (c < '0' || c > '9') return std::nullopt;
  }
  return std::stoll(*decoded);
}

// Writes a whole buffer to a file descriptor; false on failure.
bool writeAll(int fd, const char* data, std::size_t size) {
  while (size > 0) {
    ssize_t n = ::write(fd, data, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

}  // namespace

nlohmann::json BulkJobInfo::toJson() const {
  nlohmann::ordered_json json;
  json["id"] = id;
  json["operation"] = operation;
  json["object"] = object;
  json["createdById"] = createdById;
  json["createdDate"] = WireTime::storedToRest(createdDate);
  json["systemModstamp"] = WireTime::storedToRest(systemModstamp);
  json["state"] = state;
  json["concurrencyMode"] = "Parallel";
  json["contentType"] = "CSV";
  json["apiVersion"] = std::stod(apiVersion);
  json["lineEnding"] = "LF";
  json["columnDelimiter"] = "COMMA";
  if (state != "UploadComplete") {
    json["jobType"] = "V2Query";
    json["numberRecordsProcessed"] = numberRecordsProcessed;
    json["retries"] = 0;
    json["totalProcessingTime"] = state == "JobComplete" ? readyAtMs - createdAtMs : 0;
    json["isPkChunkingSupported"] = true;
  }
  if (state == "Failed") json["errorMessage"] = errorMessage;
  return nlohmann::json::parse(json.dump());
}

nlohmann::json BulkJobInfo::toStoredJson() const {
  return {{"id", id},
          {"operation", operation},
          {"object", object},
          {"query", query},
          {"apiVersion", apiVersion},
          {"state", state},
          {"createdById", createdById},
          {"createdDate", createdDate},
          {"systemModstamp", systemModstamp},
          {"errorMessage", errorMessage},
          {"numberRecordsProcessed", numberRecordsProcessed},
          {"createdAtMs", createdAtMs},
          {"readyAtMs", readyAtMs},
          {"resultWritten", resultWritten},
          {"failure", failure}};
}

BulkJobInfo BulkJobInfo::fromStoredJson(const nlohmann::json& json) {
  BulkJobInfo job;
  job.id = json.value("id", "");
  job.operation = json.value("operation", "query");
  job.object = json.value("object", "");
  job.query = json.value("query", "");
  job.apiVersion = json.value("apiVersion", "62.0");
  job.state = json.value("state", "UploadComplete");
  job.createdById = json.value("createdById", "");
  job.createdDate = json.value("createdDate", "");
  job.systemModstamp = json.value("systemModstamp", "");
  job.errorMessage = json.value("errorMessage", "");
  job.numberRecordsProcessed = json.value("numberRecordsProcessed", std::int64_t{0});
  job.createdAtMs = json.value("createdAtMs", std::int64_t{0});
  job.readyAtMs = json.value("readyAtMs", std::int64_t{0});
  job.resultWritten = json.value("resultWritten", false);
  job.failure = json.value("failure", "");
  return job;
}

BulkJobs::BulkJobs(OrgStore& store) : store_(store) {
  std::error_code error;
  std::filesystem::create_directories(folder(), error);
  // Results not yet written when the server last stopped are written again.
  for (const auto& job : list()) {
    if (!job.resultWritten && job.failure.empty() &&
        (job.state == "UploadComplete" || job.state == "InProgress")) {
      queue_.push_back(job.id);
    }
  }
  thread_ = std::thread([this] { worker(); });
}

BulkJobs::~BulkJobs() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  thread_.join();
}

std::filesystem::path BulkJobs::folder() const { return store_.folder() / "bulk"; }

void BulkJobs::save(const BulkJobInfo& job) {
  store_.write([&](Database& db) {
    db.prepare("INSERT OR REPLACE INTO _jobs (id, info, created_at) VALUES (?, ?, ?)")
        .bind(1, job.id)
        .bind(2, job.toStoredJson().dump())
        .bind(3, job.createdDate)
        .run();
  });
}

std::optional<BulkJobInfo> BulkJobs::load(const std::string& id) {
  auto lease = store_.read();
  auto statement = lease->prepare("SELECT info FROM _jobs WHERE id = ?");
  statement.bind(1, id);
  if (!statement.step()) return std::nullopt;
  return BulkJobInfo::fromStoredJson(nlohmann::json::parse(statement.text(0)));
}

BulkJobInfo BulkJobs::create(const std::string& operation, const std::string& soql,
                             const std::string& apiVersion, const std::string& userId,
                             const std::optional<std::string>& injectedFailure) {
  QueryScope scope = operation == "queryAll" ? QueryScope::All : QueryScope::Live;
  // A query that cannot be read is refused at once; what bulk will not do fails the job.
  auto compiled = QueryEngine::compile(soql, scope, QueryApi::Bulk, store_.now());
  QueryEngine::refuseFields(*compiled, store_.setting("queryRefusedFields").value_or(""));
  BulkJobInfo job;
  job.id = RecordIds::make("750", static_cast<std::uint64_t>(store_.nextSerial("bulkJob")));
  job.operation = operation;
  job.object = compiled->object().name;
  job.query = soql;
  job.apiVersion = apiVersion;
  job.state = "UploadComplete";
  job.createdById = userId;
  job.createdDate = WireTime::dateTime(store_.now());
  job.systemModstamp = job.createdDate;
  job.createdAtMs = realNowMs();
  std::int64_t delay = 500;
  if (auto setting = store_.setting("bulkDelayMs")) delay = std::stoll(*setting);
  job.readyAtMs = job.createdAtMs + delay;
  if (injectedFailure) {
    job.failure = *injectedFailure;
  } else if (auto refusal = QueryEngine::bulkRefusal(*compiled)) {
    job.failure = *refusal;
  }
  save(job);
  if (job.failure.empty()) {
    {
      std::lock_guard lock(mutex_);
      queue_.push_back(job.id);
    }
    wake_.notify_all();
  }
  return job;
}

std::optional<BulkJobInfo> BulkJobs::get(const std::string& id) {
  std::lock_guard lock(stateMutex_);
  auto job = load(id);
  if (!job) return std::nullopt;
  if (job->state != "UploadComplete" && job->state != "InProgress") return job;
  std::int64_t now = realNowMs();
  std::int64_t halfway = job->createdAtMs + (job->readyAtMs - job->createdAtMs) / 2;
  std::string state = job->state;
  if (!job->failure.empty()) {
    if (now >= halfway) {
      state = "Failed";
      job->errorMessage = job->failure;
    }
  } else if (now >= job->readyAtMs && job->resultWritten) {
    state = "JobComplete";
  } else if (now >= halfway) {
    state = "InProgress";
  }
  if (state != job->state) {
    job->state = state;
    job->systemModstamp = WireTime::dateTime(store_.now());
    save(*job);
  }
  return job;
}

std::vector<BulkJobInfo> BulkJobs::list() {
  std::vector<BulkJobInfo> jobs;
  std::vector<std::string> ids;
  {
    auto lease = store_.read();
    auto statement = lease->prepare("SELECT id FROM _jobs ORDER BY created_at, id");
    while (statement.step()) ids.emplace_back(statement.text(0));
  }
  for (const auto& id : ids) {
    if (auto job = load(id)) jobs.push_back(std::move(*job));
  }
  return jobs;
}

std::variant<BulkJobInfo, BulkError> BulkJobs::abort(const std::string& id) {
  auto job = get(id);
  std::lock_guard lock(stateMutex_);
  if (job) job = load(id);
  if (!job) return BulkError{404, "NOT_FOUND", "The requested resource does not exist"};
  if (job->state != "UploadComplete" && job->state != "InProgress") {
    return BulkError{400, "INVALIDJOBSTATE", "Aborting already Completed Job not allowed"};
  }
  job->state = "Aborted";
  job->systemModstamp = WireTime::dateTime(store_.now());
  save(*job);
  return *job;
}

bool BulkJobs::remove(const std::string& id) {
  std::lock_guard lock(stateMutex_);
  if (!load(id)) return false;
  store_.write(
      [&](Database& db) { db.prepare("DELETE FROM _jobs WHERE id = ?").bind(1, id).run(); });
  std::error_code error;
  std::filesystem::remove(folder() / (id + ".csv"), error);
  std::filesystem::remove(folder() / (id + ".idx"), error);
  return true;
}

std::variant<BulkPage, BulkError> BulkJobs::page(const std::string& id,
                                                 const std::string& apiVersion,
                                                 const std::optional<std::string>& locator,
                                                 std::optional<std::int64_t> maxRecords) {
  auto job = get(id);
  if (!job) return BulkError{404, "NOT_FOUND", "The requested resource does not exist"};
  if (job->apiVersion != apiVersion) {
    return BulkError{409, "INVALIDJOBSTATE",
                     "The API version of the request (" + apiVersion +
                         ") does not match the API version of the job (" + job->apiVersion + ")."};
  }
  if (job->state != "JobComplete") {
    std::string current = job->state == "InProgress"       ? "IN_PROGRESS"
                          : job->state == "UploadComplete" ? "UPLOAD_COMPLETE"
                          : job->state == "Failed"         ? "FAILED"
                                                           : "ABORTED";
    return BulkError{412, "JOB_NOT_COMPLETE",
                     "can only download query results of successfully completed bulk job with "
                     "status: JOB_COMPLETE. Current status: " +
                         current};
  }
  if (maxRecords && *maxRecords < 1) {
    return BulkError{400, "INVALIDREQUEST", "maxRecords must be a positive integer"};
  }
  BulkPage page;
  page.file = folder() / (id + ".csv");
  auto indexFile = folder() / (id + ".idx");
  std::int64_t rows = job->numberRecordsProcessed;
  std::int64_t first = 0;
  if (locator) {
    auto row = rowOfLocator(*locator);
    if (!row || *row <= 0 || *row >= rows) {
      return BulkError{400, "INVALID_QUERY_LOCATOR", "invalid query locator"};
    }
    first = *row;
  }
  std::int64_t last = maxRecords ? std::min(rows, first + *maxRecords) : rows;
  int fd = ::open(indexFile.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return BulkError{500, "UNKNOWN_EXCEPTION", "The job's results are missing."};
  std::uint64_t offsets[3] = {0, 0, 0};
  // Entry k of the index is where row k starts (entry 0: the end of the header line;
  // the last entry: the end of the file).
  bool ok = ::pread(fd, &offsets[0], 8, 0) == 8 &&
            ::pread(fd, &offsets[1], 8, static_cast<off_t>(8 * first)) == 8 &&
            ::pread(fd, &offsets[2], 8, static_cast<off_t>(8 * last)) == 8;
  ::close(fd);
  if (!ok) return BulkError{500, "UNKNOWN_EXCEPTION", "The job's results are damaged."};
  page.headerBytes = offsets[0];
  page.begin = offsets[1];
  page.end = offsets[2];
  page.rows = last - first;
  page.nextLocator = last < rows ? locatorFor(last) : "null";
  return page;
}

void BulkJobs::waitIdle() {
  std::unique_lock lock(mutex_);
  idle_.wait(lock, [&] { return queue_.empty() && !busy_; });
}

void BulkJobs::worker() {
  while (true) {
    std::string id;
    {
      std::unique_lock lock(mutex_);
      busy_ = false;
      idle_.notify_all();
      wake_.wait(lock, [&] { return stopping_ || !queue_.empty(); });
      if (stopping_) return;
      id = queue_.front();
      queue_.pop_front();
      busy_ = true;
    }
    try {
      writeResult(id);
    } catch (const std::exception& error) {
      std::lock_guard lock(stateMutex_);
      if (auto job = load(id)) {
        job->failure = std::string("UNKNOWN_EXCEPTION: ") + error.what();
        save(*job);
      }
    }
  }
}

void BulkJobs::writeResult(const std::string& id) {
  auto job = load(id);
  if (!job || job->resultWritten || job->state == "Aborted") return;
  QueryScope scope = job->operation == "queryAll" ? QueryScope::All : QueryScope::Live;
  auto compiled = QueryEngine::compile(job->query, scope, QueryApi::Bulk, store_.now());
  auto csvPath = folder() / (id + ".csv");
  auto indexPath = folder() / (id + ".idx");
  auto csvPart = folder() / (id + ".csv.part");
  auto indexPart = folder() / (id + ".idx.part");
  int csv = ::open(csvPart.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  int index = ::open(indexPart.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (csv < 0 || index < 0) {
    if (csv >= 0) ::close(csv);
    if (index >= 0) ::close(index);
    throw std::runtime_error("cannot write the job's results");
  }
  std::string buffer;
  std::vector<std::uint64_t> offsets;
  compiled->appendCsvHeader(buffer);
  std::uint64_t written = 0;
  offsets.push_back(buffer.size());
  std::int64_t rows = 0;
  bool ok = true;
  auto flush = [&] {
    ok = ok && writeAll(csv, buffer.data(), buffer.size()) &&
         writeAll(index, reinterpret_cast<const char*>(offsets.data()), offsets.size() * 8);
    written += buffer.size();
    buffer.clear();
    offsets.clear();
  };
  {
    auto lease = store_.read();
    compiled->scan(lease.db(), [&](Statement& row) {
      compiled->appendCsv(buffer, row);
      ++rows;
      offsets.push_back(written + buffer.size());
      if (buffer.size() >= (1u << 20)) flush();
      return ok;
    });
  }
  flush();
  ::close(csv);
  ::close(index);
  if (!ok) throw std::runtime_error("cannot write the job's results");
  std::filesystem::rename(csvPart, csvPath);
  std::filesystem::rename(indexPart, indexPath);
  std::lock_guard lock(stateMutex_);
  job = load(id);
  if (!job) {  // deleted while its result was being written
    std::error_code error;
    std::filesystem::remove(csvPath, error);
    std::filesystem::remove(indexPath, error);
    return;
  }
  job->numberRecordsProcessed = rows;
  job->resultWritten = true;
  save(*job);
}

}  // namespace corvane::orgsim

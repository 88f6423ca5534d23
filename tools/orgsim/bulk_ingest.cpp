#include "tools/orgsim/bulk_ingest.hpp"

#include <algorithm>
#include <chrono>
#include <fstream>
#include <map>
#include <sstream>

#include "tools/orgsim/faults.hpp"
#include "tools/orgsim/org_records.hpp"
#include "tools/orgsim/schema.hpp"
#include "tools/orgsim/wire_values.hpp"

namespace corvane::orgsim {

namespace {

std::int64_t realNowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

std::string lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

std::optional<std::string> readWhole(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

void writeWhole(const std::filesystem::path& path, const std::string& text) {
  std::filesystem::path temporary = path;
  temporary += ".tmp";
  {
    std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
    out << text;
  }
  std::filesystem::rename(temporary, path);
}

void appendField(std::string& out, const std::string& text) {
  out += '"';
  for (char c : text) {
    if (c == '"') out += '"';
    out += c;
  }
  out += '"';
}

void appendRow(std::string& out, const std::vector<std::string>& cells) {
  for (std::size_t i = 0; i < cells.size(); ++i) {
    if (i > 0) out += ',';
    appendField(out, cells[i]);
  }
  out += '\n';
}

BulkError notFoundError() { return {404, "NOT_FOUND", "The requested resource does not exist"}; }

std::string firstError(const SaveResult& result) {
  if (result.errors.empty()) return "UNKNOWN_EXCEPTION:The row could not be written.";
  const RecordError& e = result.errors.front();
  std::string fields;
  for (const auto& f : e.fields) fields += (fields.empty() ? "" : ",") + f;
  return e.statusCode + ":" + e.message + ":" + fields + " --";
}

}  // namespace

std::vector<std::vector<std::string>> parseBulkCsv(std::string_view text) {
  std::vector<std::vector<std::string>> rows;
  std::vector<std::string> row;
  std::string field;
  bool quoted = false, any = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (quoted) {
      if (c == '"') {
        if (i + 1 < text.size() && text[i + 1] == '"') {
          field += '"';
          ++i;
        } else {
          quoted = false;
        }
      } else {
        field += c;
      }
      continue;
    }
    if (c == '"' && field.empty()) {
      quoted = true;
      any = true;
    } else if (c == ',') {
      row.push_back(std::move(field));
      field.clear();
      any = true;
    } else if (c == '\n' || c == '\r') {
      if (c == '\r' && i + 1 < text.size() && text[i + 1] == '\n') ++i;
      if (any || !field.empty()) {
        row.push_back(std::move(field));
        rows.push_back(std::move(row));
      }
      row.clear();
      field.clear();
      any = false;
    } else {
      field += c;
      any = true;
    }
  }
  if (any || !field.empty()) {
    row.push_back(std::move(field));
    rows.push_back(std::move(row));
  }
  return rows;
}

nlohmann::json IngestJobInfo::toJson() const {
  nlohmann::ordered_json json;
  json["id"] = id;
  json["operation"] = operation;
  json["object"] = object;
  json["createdById"] = createdById;
  json["createdDate"] = createdDate;
  json["systemModstamp"] = createdDate;
  json["state"] = state;
  if (!externalIdFieldName.empty()) json["externalIdFieldName"] = externalIdFieldName;
  json["concurrencyMode"] = "Parallel";
  json["contentType"] = "CSV";
  json["apiVersion"] = std::stod(apiVersion.empty() ? "62.0" : apiVersion);
  json["jobType"] = "V2Ingest";
  json["contentUrl"] = "services/data/v" + apiVersion + "/jobs/ingest/" + id + "/batches";
  json["lineEnding"] = "LF";
  json["columnDelimiter"] = "COMMA";
  json["numberRecordsProcessed"] = numberRecordsProcessed;
  json["numberRecordsFailed"] = numberRecordsFailed;
  if (!errorMessage.empty()) json["errorMessage"] = errorMessage;
  return nlohmann::json::parse(json.dump());
}

nlohmann::json IngestJobInfo::toStoredJson() const {
  return {{"id", id},
          {"object", object},
          {"operation", operation},
          {"externalIdFieldName", externalIdFieldName},
          {"state", state},
          {"apiVersion", apiVersion},
          {"createdById", createdById},
          {"createdDate", createdDate},
          {"errorMessage", errorMessage},
          {"numberRecordsProcessed", numberRecordsProcessed},
          {"numberRecordsFailed", numberRecordsFailed},
          {"readyAtMs", readyAtMs}};
}

IngestJobInfo IngestJobInfo::fromStoredJson(const nlohmann::json& json) {
  IngestJobInfo job;
  job.id = json.value("id", "");
  job.object = json.value("object", "");
  job.operation = json.value("operation", "");
  job.externalIdFieldName = json.value("externalIdFieldName", "");
  job.state = json.value("state", "");
  job.apiVersion = json.value("apiVersion", "");
  job.createdById = json.value("createdById", "");
  job.createdDate = json.value("createdDate", "");
  job.errorMessage = json.value("errorMessage", "");
  job.numberRecordsProcessed = json.value("numberRecordsProcessed", std::int64_t{0});
  job.numberRecordsFailed = json.value("numberRecordsFailed", std::int64_t{0});
  job.readyAtMs = json.value("readyAtMs", std::int64_t{0});
  return job;
}

BulkIngest::BulkIngest(OrgStore& store, std::filesystem::path folder)
    : store_(store), folder_(std::move(folder)) {}

std::filesystem::path BulkIngest::jobFolder(const std::string& id) const { return folder_ / id; }

void BulkIngest::save(const IngestJobInfo& job) {
  std::filesystem::create_directories(jobFolder(job.id));
  writeWhole(jobFolder(job.id) / "job.json", job.toStoredJson().dump());
}

std::optional<IngestJobInfo> BulkIngest::load(const std::string& id) {
  if (id.empty() || id.find('/') != std::string::npos || id.find('.') != std::string::npos) {
    return std::nullopt;
  }
  auto text = readWhole(jobFolder(id) / "job.json");
  if (!text) return std::nullopt;
  auto json = nlohmann::json::parse(*text, nullptr, false);
  if (json.is_discarded()) return std::nullopt;
  return IngestJobInfo::fromStoredJson(json);
}

std::variant<IngestJobInfo, BulkError> BulkIngest::create(const nlohmann::json& request,
                                                          const std::string& apiVersion,
                                                          const std::string& userId) {
  if (!request.is_object()) return BulkError{400, "JSON_PARSER_ERROR", "The body must be JSON."};
  std::string objectName = request.value("object", "");
  std::string operation = request.value("operation", "");
  const ObjectDef* object = Schema::object(objectName);
  if (object == nullptr) {
    return BulkError{400, "INVALIDENTITY", "sObject type '" + objectName + "' is not supported."};
  }
  if (operation != "insert" && operation != "update" && operation != "upsert" &&
      operation != "delete") {
    return BulkError{400, "INVALIDJOB", "InvalidJob : Invalid operation: " + operation};
  }
  if (request.value("contentType", "CSV") != "CSV" ||
      request.value("columnDelimiter", "COMMA") != "COMMA") {
    return BulkError{400, "INVALIDJOB",
                     "InvalidJob : Only CSV with comma delimiters is supported."};
  }
  IngestJobInfo job;
  if (operation == "upsert") {
    std::string key = request.value("externalIdFieldName", "");
    const FieldDef* field = object->field(key);
    if (field == nullptr || (!field->externalId && field->name != "Id")) {
      return BulkError{400, "INVALIDJOB",
                       "InvalidJob : External ID was blank or not an external id field for " +
                           object->name + ": " + key};
    }
    job.externalIdFieldName = field->name;
  }
  std::lock_guard guard(mutex_);
  job.id = RecordIds::make("750", static_cast<std::uint64_t>(store_.nextSerial("bulkJob")));
  job.object = object->name;
  job.operation = operation;
  job.state = "Open";
  job.apiVersion = apiVersion;
  job.createdById = userId;
  job.createdDate = WireTime::storedToRest(WireTime::dateTime(store_.now()));
  save(job);
  return job;
}

std::optional<IngestJobInfo> BulkIngest::get(const std::string& id) {
  std::lock_guard guard(mutex_);
  auto job = load(id);
  if (job && (job->state == "InProgress" || job->state == "UploadComplete") &&
      realNowMs() >= job->readyAtMs) {
    job->state = "JobComplete";
    save(*job);
  } else if (job && job->state == "UploadComplete") {
    job->state = "InProgress";
    save(*job);
  }
  return job;
}

std::vector<IngestJobInfo> BulkIngest::list() {
  std::vector<IngestJobInfo> jobs;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(folder_, error)) {
    if (auto job = get(entry.path().filename().string())) jobs.push_back(std::move(*job));
  }
  return jobs;
}

std::variant<IngestJobInfo, BulkError> BulkIngest::upload(const std::string& id,
                                                          const std::string& csv) {
  std::lock_guard guard(mutex_);
  auto job = load(id);
  if (!job) return notFoundError();
  if (job->state != "Open") {
    return BulkError{409, "INVALIDJOBSTATE",
                     "Job with id " + id + " is not in the Open state and cannot take data."};
  }
  std::filesystem::path data = jobFolder(id) / "data.csv";
  auto existing = readWhole(data).value_or("");
  std::string_view body = csv;
  if (!existing.empty()) {
    // A later upload repeats the header; only its rows are kept.
    std::size_t end = body.find('\n');
    body = end == std::string_view::npos ? std::string_view() : body.substr(end + 1);
    if (existing.back() != '\n') existing += '\n';
  }
  writeWhole(data, existing + std::string(body));
  return *job;
}

std::variant<IngestJobInfo, BulkError> BulkIngest::setState(const std::string& id,
                                                            const std::string& state,
                                                            const std::string& userId,
                                                            const std::string& path) {
  std::lock_guard guard(mutex_);
  auto job = load(id);
  if (!job) return notFoundError();
  if (state == "Aborted") {
    if (job->state == "JobComplete" || job->state == "Failed" || job->state == "Aborted") {
      return BulkError{409, "INVALIDJOBSTATE", "Job with id " + id + " has already finished."};
    }
    if (job->state == "Open") {
      auto text = readWhole(jobFolder(id) / "data.csv").value_or("");
      writeWhole(jobFolder(id) / "unprocessed.csv", text);
    }
    job->state = "Aborted";
    save(*job);
    return *job;
  }
  if (state != "UploadComplete") {
    return BulkError{400, "INVALIDJOBSTATE", "Invalid state: " + state};
  }
  if (job->state != "Open") {
    return BulkError{409, "INVALIDJOBSTATE", "Job with id " + id + " is not Open."};
  }
  process(*job, userId, path);
  std::int64_t delay = 500;
  if (auto setting = store_.setting("bulkDelayMs")) delay = std::stoll(*setting);
  job->readyAtMs = realNowMs() + delay;
  if (job->state != "Failed") job->state = "UploadComplete";
  save(*job);
  return *job;
}

void BulkIngest::process(IngestJobInfo& job, const std::string& userId, const std::string& path) {
  const ObjectDef* object = Schema::object(job.object);
  auto text = readWhole(jobFolder(job.id) / "data.csv").value_or("");
  auto rows = parseBulkCsv(text);
  std::string success, failure, unprocessed;
  if (rows.empty()) {
    job.state = "Failed";
    job.errorMessage = "InvalidBatch : Records not processed: the upload holds no header row";
    return;
  }
  const std::vector<std::string>& header = rows.front();
  std::vector<const FieldDef*> fields;
  for (const auto& name : header) {
    const FieldDef* field = object->field(name);
    if (field == nullptr) {
      job.state = "Failed";
      job.errorMessage = "InvalidBatch : Field name not found : " + name;
      std::string all;
      appendRow(all, header);
      for (std::size_t i = 1; i < rows.size(); ++i) appendRow(all, rows[i]);
      writeWhole(jobFolder(job.id) / "unprocessed.csv", all);
      return;
    }
    fields.push_back(field);
  }
  std::vector<std::string> successHeader{"sf__Id", "sf__Created"};
  std::vector<std::string> failureHeader{"sf__Id", "sf__Error"};
  successHeader.insert(successHeader.end(), header.begin(), header.end());
  failureHeader.insert(failureHeader.end(), header.begin(), header.end());
  appendRow(success, successHeader);
  appendRow(failure, failureHeader);
  appendRow(unprocessed, header);

  std::size_t idColumn = header.size(), keyColumn = header.size();
  for (std::size_t c = 0; c < fields.size(); ++c) {
    if (fields[c]->name == "Id") idColumn = c;
    if (fields[c]->name == job.externalIdFieldName) keyColumn = c;
  }
  // Row locks on demand: only looked for when some rule may apply.
  bool lockRules = false;
  for (const auto& rule : Faults::list(store_)) {
    lockRules = lockRules || rule.kind == FaultRule::Kind::LockRow;
  }
  std::map<std::string, std::size_t> keysSeen;  // lower-cased external id -> first row
  for (std::size_t r = 1; r < rows.size(); ++r) {
    std::vector<std::string> cells = rows[r];
    cells.resize(header.size());
    nlohmann::json values = nlohmann::json::object();
    std::optional<std::string> picklistError;
    for (std::size_t c = 0; c < fields.size(); ++c) {
      if (c == idColumn && job.operation != "insert") continue;
      const std::string& cell = cells[c];
      if (cell.empty()) continue;  // an empty cell changes nothing
      const FieldDef& field = *fields[c];
      if (cell == "#N/A") {
        values[field.name] = nullptr;
        continue;
      }
      if (field.type == FieldType::Picklist && !field.picklistValues.empty() &&
          std::find(field.picklistValues.begin(), field.picklistValues.end(), cell) ==
              field.picklistValues.end() &&
          !picklistError) {
        picklistError = "INVALID_OR_NULL_FOR_RESTRICTED_PICKLIST:" + field.label +
                        ": bad value for restricted picklist field: " + cell + ":" + field.name +
                        " --";
      }
      values[field.name] = cell;
    }
    std::string id = idColumn < cells.size() ? cells[idColumn] : std::string();
    std::string error;
    SaveResult result;
    if (picklistError) {
      error = *picklistError;
    } else if (lockRules &&
               Faults::take(store_, "PATCH", path, {FaultRule::Kind::LockRow}).has_value()) {
      error = "UNABLE_TO_LOCK_ROW:unable to obtain exclusive access to this record or 1 records: " +
              (id.empty() ? std::string("(new)") : id) + ": --";
    } else if (job.operation == "upsert") {
      std::string key = keyColumn < cells.size() ? cells[keyColumn] : std::string();
      if (key.empty()) {
        error = "MISSING_ARGUMENT:" + job.externalIdFieldName + " not specified:--";
      } else if (auto seen = keysSeen.find(lower(key)); seen != keysSeen.end()) {
        error = "DUPLICATE_EXTERNAL_ID:Duplicate external id specified: " + key + ":" +
                job.externalIdFieldName + " --";
      } else {
        keysSeen.emplace(lower(key), r);
        result = OrgRecords::upsert(store_, *object, *object->field(job.externalIdFieldName), key,
                                    values, userId);
        if (!result.success) error = firstError(result);
      }
    } else if (job.operation == "insert") {
      result = OrgRecords::create(store_, *object, values, userId);
      result.created = result.success;
      if (!result.success) error = firstError(result);
    } else if (job.operation == "update") {
      result = OrgRecords::update(store_, *object, id, values, userId);
      if (!result.success) error = firstError(result);
      if (result.success) result.id = *RecordIds::normalize(id);
    } else {
      auto normalized = RecordIds::normalize(id);
      if (!normalized || Schema::objectForId(*normalized) != object) {
        error = "MALFORMED_ID:bad id " + id + ":Id --";
      } else {
        result = OrgRecords::remove(store_, *normalized, userId);
        result.id = *normalized;
        if (!result.success) error = firstError(result);
      }
    }
    ++job.numberRecordsProcessed;
    std::vector<std::string> out;
    if (error.empty()) {
      out = {result.id, result.created ? "true" : "false"};
      out.insert(out.end(), cells.begin(), cells.end());
      appendRow(success, out);
    } else {
      ++job.numberRecordsFailed;
      out = {result.id, error};
      out.insert(out.end(), cells.begin(), cells.end());
      appendRow(failure, out);
    }
  }
  writeWhole(jobFolder(job.id) / "successful.csv", success);
  writeWhole(jobFolder(job.id) / "failed.csv", failure);
  writeWhole(jobFolder(job.id) / "unprocessed.csv", unprocessed);
}

std::variant<std::string, BulkError> BulkIngest::results(const std::string& id,
                                                         const std::string& kind) {
  auto job = get(id);
  if (!job) return notFoundError();
  std::string file = kind == "successfulResults"    ? "successful.csv"
                     : kind == "failedResults"      ? "failed.csv"
                     : kind == "unprocessedrecords" ? "unprocessed.csv"
                                                    : "";
  if (file.empty()) return notFoundError();
  bool finished = job->state == "JobComplete" || job->state == "Failed" || job->state == "Aborted";
  if (!finished && file != "unprocessed.csv") {
    return BulkError{409, "INVALIDJOBSTATE",
                     "Results are not available until the job " + id + " has finished."};
  }
  std::lock_guard guard(mutex_);
  return readWhole(jobFolder(id) / file).value_or("");
}

std::variant<bool, BulkError> BulkIngest::remove(const std::string& id) {
  auto job = get(id);
  if (!job) return notFoundError();
  if (job->state == "Open" || job->state == "UploadComplete" || job->state == "InProgress") {
    return BulkError{409, "INVALIDJOBSTATE", "Job with id " + id + " has not finished."};
  }
  std::lock_guard guard(mutex_);
  std::error_code error;
  std::filesystem::remove_all(jobFolder(id), error);
  return true;
}

}  // namespace corvane::orgsim

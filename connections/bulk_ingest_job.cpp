#include "connections/bulk_ingest_job.hpp"

#include <stdexcept>

#include <nlohmann/json.hpp>

namespace corvane::BulkIngestJob {

namespace {

State readJob(const std::string& body) {
  const nlohmann::json json = nlohmann::json::parse(body, nullptr, false);
  if (!json.is_object() || !json.contains("id"))
    throw std::runtime_error("Salesforce's reply about a Bulk API job could not be read.");
  return {json.value("id", ""), json.value("state", ""), json.value("errorMessage", "")};
}

std::string jobPath(const std::string& id) { return "jobs/ingest/" + id; }

}  // namespace

State create(DedupeTransport& transport, const std::string& object, const std::string& operation,
             const std::string& externalIdField) {
  nlohmann::json request{{"object", object},
                         {"operation", operation},
                         {"contentType", "CSV"},
                         {"lineEnding", "LF"},
                         {"columnDelimiter", "COMMA"}};
  if (!externalIdField.empty()) request["externalIdFieldName"] = externalIdField;
  return readJob(transport.send("POST", "jobs/ingest", {}, request.dump()));
}

void upload(DedupeTransport& transport, const std::string& id, const std::string& csv) {
  transport.send("PUT", jobPath(id) + "/batches", {}, csv);
}

State setState(DedupeTransport& transport, const std::string& id, const std::string& state) {
  return readJob(transport.send("PATCH", jobPath(id), {}, nlohmann::json{{"state", state}}.dump()));
}

State status(DedupeTransport& transport, const std::string& id) {
  return readJob(transport.send("GET", jobPath(id), {}, std::nullopt));
}

std::pair<std::string, std::string> resultFiles(DedupeTransport& transport, const std::string& id) {
  return {transport.getRaw(jobPath(id) + "/successfulResults", {}, "text/csv").first,
          transport.getRaw(jobPath(id) + "/failedResults", {}, "text/csv").first};
}

void appendCell(std::string& out, const std::string& text) {
  if (text.find_first_of(",\"\r\n") == std::string::npos) {
    out += text;
    return;
  }
  out += '"';
  for (char c : text) {
    if (c == '"') out += '"';
    out += c;
  }
  out += '"';
}

}  // namespace corvane::BulkIngestJob

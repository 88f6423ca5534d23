#include "dedupe/snapshot_downloader.hpp"

#include <algorithm>
#include <cctype>

#include "dedupe/csv_stream.hpp"

namespace corvane {

namespace {

bool sameField(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i]))) {
      return false;
    }
  }
  return true;
}

// Where each part of a record sits among the columns asked for.
struct ColumnMap {
  std::vector<std::string> columns;
  std::size_t name = 0;
  std::vector<std::optional<std::size_t>> values;
  std::vector<std::optional<std::size_t>> extras;

  explicit ColumnMap(const SnapshotDownloader::Request& request) {
    auto indexOf = [this](const std::string& field) -> std::size_t {
      for (std::size_t i = 0; i < columns.size(); ++i) {
        if (sameField(columns[i], field)) return i;
      }
      columns.push_back(field);
      return columns.size() - 1;
    };
    indexOf("Id");
    name = indexOf(request.nameField.empty() ? "Id" : request.nameField);
    indexOf("CreatedDate");
    indexOf("LastModifiedDate");
    for (const std::string& field : request.matchFieldNames) {
      values.push_back(field.empty() ? std::nullopt : std::optional(indexOf(field)));
    }
    for (const std::string& field : request.extraFieldNames) {
      extras.push_back(field.empty() ? std::nullopt : std::optional(indexOf(field)));
    }
  }
};

std::int64_t metaInt(RecordStore& store, std::string_view key) {
  try {
    return std::stoll(store.meta(key).value_or("0"));
  } catch (const std::exception&) {
    return 0;
  }
}

}  // namespace

std::vector<std::string> SnapshotDownloader::columns(const Request& request) {
  return ColumnMap(request).columns;
}

std::string SnapshotDownloader::soql(const Request& request) {
  std::string text = "SELECT ";
  bool first = true;
  for (const std::string& column : columns(request)) {
    if (!first) text += ", ";
    first = false;
    text += column;
  }
  text += " FROM " + request.objectName;
  if (request.scope && !request.scope->empty()) text += " WHERE " + *request.scope;
  return text;
}

std::vector<SnapshotDownloader::Request> SnapshotDownloader::requestsFor(RecordStore& store) {
  auto read = [&store](std::string_view key) { return store.meta(key).value_or(""); };
  std::string scope = read("scope");
  int pageSize = static_cast<int>(std::clamp<std::int64_t>(metaInt(store, "pageSize"), 0, 1'000'000));
  auto make = [&](std::string object, std::vector<std::string> match, std::vector<std::string> extra,
                  std::string nameField) {
    Request request;
    request.objectName = std::move(object);
    request.nameField = nameField.empty() ? "Name" : std::move(nameField);
    request.matchFieldNames = std::move(match);
    request.extraFieldNames = std::move(extra);
    if (!scope.empty()) request.scope = scope;
    if (pageSize > 0) request.pageSize = pageSize;
    return request;
  };
  std::vector<Request> requests;
  if (store.isMultiObject()) {
    for (const auto& object : store.objects()) {
      requests.push_back(make(object.name, object.sources, object.extraSources, "Name"));
    }
    return requests;
  }
  std::vector<std::string> match;
  for (const MatchField& field : store.matchFields()) match.push_back(field.name);
  requests.push_back(make(read("objectName"), match, store.extraFields(), read("nameField")));
  return requests;
}

DownloadPhase SnapshotDownloader::download(const std::vector<Request>& requests, RecordStore& store,
                                           const PhaseCallback& phase,
                                           const ShouldCancel& shouldCancel) {
  auto report = [&phase](const DownloadPhase& value) {
    if (phase) phase(value);
    return value;
  };
  if (store.meta("complete").value_or("0") == "1") return report(DownloadPhase::finished(store.recordCount()));
  if (!requests.empty()) {
    if (!store.meta("nameField")) store.setMeta("nameField", requests.front().nameField);
    if (!store.meta("scope")) store.setMeta("scope", requests.front().scope.value_or(""));
    if (!store.meta("pageSize")) store.setMeta("pageSize", std::to_string(requests.front().pageSize));
  }
  const bool multi = requests.size() > 1;
  try {
    for (std::size_t k = static_cast<std::size_t>(std::max<std::int64_t>(metaInt(store, "objectsDone"), 0));
         k < requests.size(); ++k) {
      std::string_view object = multi ? std::string_view(requests[k].objectName) : std::string_view();
      if (!downloadObject(requests[k], store, object, phase, shouldCancel)) {
        return report(DownloadPhase::paused(store.recordCount(), "You paused the download."));
      }
      if (multi) {
        store.setMeta("objectsDone", std::to_string(k + 1));
        store.setMeta("jobId", "");
        store.setMeta("locator", "");
      }
    }
    store.markComplete();
  } catch (const UserFacingError& error) {
    report(DownloadPhase::paused(store.recordCount(), error.what()));
    throw;
  }
  return report(DownloadPhase::finished(store.recordCount()));
}

bool SnapshotDownloader::downloadObject(const Request& request, RecordStore& store,
                                        std::string_view object, const PhaseCallback& phase,
                                        const ShouldCancel& shouldCancel) {
  BulkQueryRunner runner(transport_, options_);
  ColumnMap map(request);
  const std::size_t columnCount = map.columns.size();

  if (store.meta("locator").value_or("") == "null") {
    // Every page is stored; only the job's removal may have been missed.
    if (auto id = store.meta("jobId"); id && !id->empty()) runner.remove({*id, ""});
    return true;
  }
  if (phase) phase(DownloadPhase::preparing(preparingText));
  BulkQueryRunner::Job job{store.meta("jobId").value_or(""), ""};
  if (job.id.empty()) {
    job = runner.create(soql(request));
    store.setMeta("jobId", job.id);
    store.setMeta("locator", "");
  }
  std::optional<std::int64_t> total = runner.waitForJob(job, shouldCancel);
  if (!total) return false;
  std::int64_t storedBefore = metaInt(store, "storedBeforeObject");
  if (object.empty()) {
    store.setMeta("totalExpected", std::to_string(*total));
  }
  std::int64_t objectStart = object.empty() ? 0 : storedBefore;
  std::int64_t stored = store.recordCount();

  std::vector<RecordStore::Incoming> incoming;
  while (true) {
    std::string locator = store.meta("locator").value_or("");
    if (locator == "null") break;
    if (shouldCancel && shouldCancel()) return false;
    std::int64_t doneHere = stored - objectStart;
    BulkQueryRunner::Page page =
        runner.fetchPage(job, locator.empty() ? std::nullopt : std::optional(locator),
                         request.pageSize, *total - doneHere);
    incoming.clear();
    CsvStream::parsePage(
        page.csv,
        [&](const CsvStream::Row& header) {
          bool matches = header.size() == columnCount;
          for (std::size_t i = 0; matches && i < columnCount; ++i) {
            matches = sameField(header[i], map.columns[i]);
          }
          if (!matches) throw DownloadError::unexpectedColumns();
        },
        [&](const CsvStream::Row& row) {
          if (row.size() != columnCount) throw DownloadError::unexpectedColumns();
          RecordStore::Incoming record;
          record.sfid = row[0];
          record.name = row[map.name];
          record.created = row[2];
          record.modified = row[3];
          record.values.reserve(map.values.size());
          for (const auto& index : map.values) {
            record.values.emplace_back(index ? row[*index] : std::string_view());
          }
          record.extras.reserve(map.extras.size());
          for (const auto& index : map.extras) {
            record.extras.emplace_back(index ? row[*index] : std::string_view());
          }
          incoming.push_back(std::move(record));
        });
    std::string next = page.nextLocator.empty() ? "null" : page.nextLocator;
    store.ingest(incoming, next, object);
    stored += static_cast<std::int64_t>(incoming.size());
    if (phase) {
      std::int64_t grandTotal = object.empty() ? *total : std::max(metaInt(store, "totalExpected"), stored);
      phase(DownloadPhase::downloading(stored, grandTotal, runner.bytesReceived()));
    }
  }
  runner.remove(job);
  if (!object.empty()) store.setMeta("storedBeforeObject", std::to_string(stored));
  return true;
}

}  // namespace corvane

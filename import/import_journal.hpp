// The journal that keeps an import from writing a row twice or losing one.
//
// Each batch is recorded, with the grid rows it carries, before its request
// leaves, and its outcome per row after the reply has been read. A run that
// stops anywhere (Ctrl-C, crash, lost network) is found again by its key (the
// login, object, operation and the values sent) and resumes: batches marked
// done are skipped, and a batch marked sent without an outcome is the only
// one whose fate the runner must learn from the org before sending anything
// again.
//
// One SQLite file under the application-support folder, created 0600, with
// every change committed before the caller goes on. One thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace corvane {

class SQLiteDB;

struct RowOutcome {
  std::size_t row = 0;  // the grid's data row
  bool success = false;
  std::string recordId;  // the created or changed record, when known
  std::string message;   // Salesforce's words for a failure
  bool created = false;  // a success that made a new record (insert, upsert)

  bool operator==(const RowOutcome&) const = default;
};

struct JournalBatch {
  enum class State { sent, done };

  int number = 0;
  std::vector<std::size_t> rows;  // grid data rows, in the order sent
  State state = State::sent;
  std::string sentAt;  // ISO 8601, UTC
  std::string jobId;   // the Bulk API ingest job that carries the rows; empty for collections

  bool operator==(const JournalBatch&) const = default;
};

class ImportJournal {
 public:
  // Opens or creates the journal file (and its folder).
  explicit ImportJournal(const std::filesystem::path& path);
  ImportJournal(const ImportJournal&) = delete;
  ImportJournal& operator=(const ImportJournal&) = delete;
  ~ImportJournal();

  // "Import/journal.sqlite" in the application-support folder.
  static std::filesystem::path standardPath();

  struct Run {
    std::int64_t id = 0;
    bool resumed = false;  // an unfinished run with the same key was found
  };

  // The unfinished run with this key, else a new one.
  Run begin(const std::string& key, const std::string& login, const std::string& object,
            const std::string& operation, const std::string& source, const std::string& startedAt);

  // When the latest finished run with this key finished; none when no run
  // with it has finished.
  std::optional<std::string> finishedAt(const std::string& key) const;

  // The run's batches in number order.
  std::vector<JournalBatch> batches(std::int64_t run) const;

  // Records a batch as sent; call before its request leaves.
  void recordSending(std::int64_t run, const JournalBatch& batch);

  // Records the rows' outcomes and marks the batch done, in one transaction.
  void recordOutcome(std::int64_t run, int batch, const std::vector<RowOutcome>& outcomes);

  // Every row outcome of the run, by row.
  std::vector<RowOutcome> outcomes(std::int64_t run) const;

  // Marks the run finished: a later run of the same file starts afresh.
  void finish(std::int64_t run, const std::string& finishedAt);

 private:
  std::shared_ptr<SQLiteDB> db_;
};

}  // namespace corvane

// Writes an import plan's rows to the org, never a row twice and none lost.
//
// Rows go out in sObject collections of up to 200 (allOrNone=false), or for
// large imports (Options::bulkThreshold) in Bulk API 2.0 ingest jobs, each
// batch or job recorded in the journal before its request leaves and its
// outcome per row after the reply has been read. A job left behind by a
// stopped run is found again by its id: the next run waits for it to finish
// and reads its results (an Open job, whose rows the org never took, is
// aborted and its rows sent again). A run stopped anywhere (Ctrl-C, crash,
// sign-out, lost network) and started again with the same file and choices
// finds its journal entry and goes on after the last batch whose outcome is
// known. A batch whose request left without a readable reply is settled
// against the org before anything is sent again:
//   - insert: the records created since the batch left are read back and
//     matched to the rows by the values sent; rows found are done (with the
//     id found), the rest are sent again. An insert is never sent twice for a
//     row the org already holds.
//   - delete: ids already in the Recycle Bin are done; the rest are sent again.
//   - update and upsert: sent again, which changes nothing that the first
//     request already changed (an upsert finds its record by external id).
//
// Blocking; progress is reported after every batch, and the cancellation
// check is asked before every request. Not thread-safe.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "connections/dedupe_transport.hpp"
#include "import/import_fields.hpp"
#include "import/import_journal.hpp"
#include "import/import_plan.hpp"
#include "platform/user_facing_error.hpp"

namespace corvane {

// Why a run stopped before every row was written. What was written is in the
// journal; running the same import again resumes.
class ImportRunError : public UserFacingError {
 public:
  enum class Kind {
    cancelled,        // the user stopped it
    connectionLost,   // a request went out and no readable reply came back
    signedOut,        // the login's session is gone
    allowance,        // the org's daily API allowance is (nearly) spent
    alreadyImported,  // the same rows went to the same org before, in full
  };

  static ImportRunError cancelled(std::size_t written, std::size_t total);
  static ImportRunError connectionLost(std::size_t written, std::size_t total,
                                       const std::string& reason);
  static ImportRunError signedOut(const std::string& login);
  // needed: the requests the rest of the import takes; left: those that may
  // still be spent before the allowance falls under its floor.
  static ImportRunError allowance(std::int64_t needed, std::int64_t left);
  // finishedAt: when the earlier import of the same rows finished (ISO 8601).
  static ImportRunError alreadyImported(const std::string& finishedAt);

  Kind kind() const { return kind_; }

 private:
  ImportRunError(Kind kind, const std::string& sentence) : UserFacingError(sentence), kind_(kind) {}
  Kind kind_;
};

struct ImportProgress {
  std::size_t rowsWritten = 0;  // rows with a known outcome, this run and earlier ones
  std::size_t rowsToWrite = 0;  // rows that are sent at all (those without problems)
};

struct ImportRunSummary {
  // One per grid data row, in row order. Rows with problems were not sent:
  // they are failures whose message lists the problems.
  std::vector<RowOutcome> outcomes;
  std::vector<bool> sent;  // per row: whether it went to the org
  std::size_t created = 0;
  std::size_t changed = 0;  // updated, upserted onto an existing record, or deleted
  std::size_t failed = 0;   // refused by the org
  std::size_t notSent = 0;  // rows with problems
  bool resumed = false;     // an earlier, unfinished run of the same import was continued
  int requests = 0;         // API requests this run used
};

class ImportRunner {
 public:
  struct Options {
    std::string login;
    std::string object;  // the object's API name as the org spells it
    std::string source;  // the file, for the journal
    std::size_t batchSize = 200;
    // The run does not begin when it would leave less than this share of the
    // org's daily API allowance.
    double allowanceFloor = 0.1;
    // How often a run settles a batch of unknown outcome itself and goes on,
    // before it stops and leaves that to the next run.
    int recoveries = 3;
    // More rows than this to write go through Bulk API ingest jobs instead of
    // collections: above it a job spends fewer API requests (create, upload,
    // close, a few polls, two result files) than batches of 200 would.
    std::size_t bulkThreshold = 2000;
    std::size_t bulkJobRows = 10000;  // rows per ingest job
    std::chrono::milliseconds pollInterval{1000};
    // A request whose reply was lost may still be at work in the org: a batch
    // is checked no sooner than this after it left, so that what it writes
    // is seen and not sent again.
    std::chrono::milliseconds settleDelay{10'000};
    // Import rows that an earlier, finished run already imported in full.
    // Without it such a run is refused, so that a run that finished unseen
    // (the window closed, the program was killed at its end) is not repeated.
    bool again = false;
  };

  ImportRunner(DedupeTransport& transport, ImportJournal& journal, Options options);

  // Writes the plan's rows without problems. The plan must not be blocked.
  // Throws ImportRunError when it stops early, and passes the journal's own
  // failures on.
  ImportRunSummary run(const ImportPlan& plan, const std::vector<ImportField>& fields,
                       const std::function<void(const ImportProgress&)>& progress = {},
                       const std::function<bool()>& cancelled = {});

  // What names one import in the journal: the login, the object, the
  // operation and every value sent. The same file with the same choices has
  // the same key.
  static std::string runKey(const ImportPlan& plan, const std::string& login,
                            const std::string& object);

 private:
  DedupeTransport& transport_;
  ImportJournal& journal_;
  Options options_;
};

}  // namespace corvane

#include "backup/backup_runner.hpp"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <set>
#include <thread>

#include "backup/allowance_watch.hpp"
#include "connections/api_allowance.hpp"
#include "backup/backup_csv.hpp"
#include "backup/backup_error.hpp"
#include "backup/backup_estimator.hpp"
#include "backup/backup_lock.hpp"
#include "backup/backup_volumes.hpp"
#include "backup/backup_planner.hpp"
#include "backup/committed_file.hpp"
#include "backup/deletion_finder.hpp"
#include "backup/retention_sweep.hpp"
#include "backup/file_download.hpp"
#include "backup/last_run.hpp"
#include "backup/manifest.hpp"
#include "backup/read_me.hpp"
#include "connections/rest_query_runner.hpp"
#include "connections/server_time.hpp"
#include "connections/bulk_query_runner.hpp"
#include "connections/download_error.hpp"
#include "platform/durable_file.hpp"
#include "platform/file_error.hpp"

namespace corvane {

namespace {

constexpr const char* stoppedMessage =
    "The backup was stopped. It carries on where it stopped the next time it runs.";
constexpr const char* noIdColumn =
    "Salesforce sent columns without an Id. Nothing was stored from this page.";
constexpr const char* lostPlaceTwice =
    "Salesforce lost its place in this object twice while it was being read. The next backup "
    "reads it again.";
constexpr const char* givenUpBeforeRead = "The backup was given up on before this object was read.";
constexpr const char* allowanceLowForFiles =
    "Some files will be fetched by the next backup. The org's daily API allowance is running low.";
constexpr const char* refusedFieldReason =
    "Salesforce refused these fields in a query, so they were left out.";
constexpr const char* allowanceSpent = " (Salesforce says the org's daily API allowance is used up.)";
constexpr const char* serverTimeUnreadable =
    "Salesforce's clock could not be read, so the backup did not start: the next backup of "
    "changes asks for what changed since this moment on that clock. It starts again the next "
    "time it runs.";
// Why a run copies everything although changes were asked for.
constexpr const char* fullAfterGivenUp =
    "The backup before this one was given up part-way, so this one copies everything.";
constexpr const char* fullAfterObjectsChanged =
    "The kinds of record to back up changed since the last backup, so this one copies "
    "everything.";
constexpr const char* fullAfterFieldsChanged =
    " changed since the last backup, so this one copies everything.";
constexpr const char* fullAfterTooLong =
    "The last backup is older than the 15 days for which Salesforce lists deleted records, so "
    "this one copies everything.";
// Keys of the sets table.
constexpr const char* needsFullKey = "needsFull";      // why the next run copies everything
constexpr const char* heldBeforeKey = "heldBefore";    // {"run", "counts"} at a run's start
constexpr const char* fullBecauseKey = "fullBecause";  // "run id<TAB>why" of a forced full run
// Tries of one file body before it is given up; the next full backup tries again.
constexpr int fileTries = 3;

// Salesforce refused a request because the org's daily allowance is spent.
bool isAllowanceSpent(std::string_view message) {
  return message.find("REQUEST_LIMIT_EXCEEDED") != std::string_view::npos ||
         message.find("TotalRequests Limit exceeded") != std::string_view::npos;
}

// The field named in Salesforce's INVALID_FIELD message ("No such column 'Foo'
// on entity 'Account'. ..."), or "".
std::string refusedField(std::string_view message) {
  static constexpr std::string_view marker = "No such column '";
  const auto at = message.find(marker);
  if (at == std::string_view::npos) return {};
  const auto begin = at + marker.size();
  const auto end = message.find('\'', begin);
  if (end == std::string_view::npos) return {};
  return std::string(message.substr(begin, end - begin));
}

// A bulk results request whose locator Salesforce no longer knows.
bool isLostLocator(const DownloadError& error) {
  return error.kind() == DownloadError::Kind::jobExpired ||
         (error.kind() == DownloadError::Kind::jobFailed &&
          (error.platformText().find("INVALID_QUERY_LOCATOR") != std::string::npos ||
           error.platformText().find("invalid query locator") != std::string::npos));
}

// queryAll sends deleted rows too; they are deletions, not records.
bool dropsDeleted(const BackupRunner::JobRow& job) {
  return job.hasIsDeleted && job.operation == "queryAll";
}

std::string jsonList(const std::vector<std::string>& names) { return nlohmann::json(names).dump(); }

std::vector<std::string> listFrom(std::string_view text) {
  auto json = nlohmann::json::parse(text, nullptr, false);
  if (!json.is_array()) return {};
  std::vector<std::string> out;
  for (const auto& item : json)
    if (item.is_string()) out.push_back(item.get<std::string>());
  return out;
}

std::string joined(const std::vector<std::string>& names) {
  std::string out;
  for (const auto& name : names) out += (out.empty() ? "" : ", ") + name;
  return out;
}

// The position of a column (any letter case), or -1.
int columnOf(const std::vector<std::string>& header, std::string_view name) {
  for (std::size_t i = 0; i < header.size(); ++i) {
    const auto& column = header[i];
    if (column.size() == name.size() &&
        std::equal(column.begin(), column.end(), name.begin(), [](char a, char b) {
          return std::tolower(static_cast<unsigned char>(a)) ==
                 std::tolower(static_cast<unsigned char>(b));
        }))
      return static_cast<int>(i);
  }
  return -1;
}

// soql ordered by Id, asking only for ids after `after` when it is not empty.
std::string byId(const std::string& soql, const std::string& after) {
  std::string out = soql;
  if (!after.empty()) {
    const auto from = out.find(" FROM ");
    const bool filtered = from != std::string::npos && out.find(" WHERE ", from) != std::string::npos;
    out += (filtered ? " AND Id > '" : " WHERE Id > '") + after + "'";
  }
  return out + " ORDER BY Id";
}

// The Id of the last row of a CSV (header first), or "".
std::string lastId(std::string_view data) {
  int idAt = -1;
  std::string last;
  try {
    BackupCSV::scan(
        data, [&](const BackupCSV::Record& header) { idAt = columnOf(header.fields, "Id"); },
        [&](const BackupCSV::Record& record) {
          if (idAt >= 0 && static_cast<std::size_t>(idAt) < record.fields.size())
            last = record.fields[idAt];
          return true;
        });
  } catch (const BackupCSV::Unreadable&) {
  }
  return last;
}

// The newest watermark is older than Salesforce's list of deleted records reaches.
bool watermarkTooOld(BackupStore& store, SystemTime serverNow) {
  auto statement = store.db().prepare("SELECT MAX(watermark) FROM objects WHERE watermark != ''");
  if (!statement.step()) return false;
  const auto newest = ServerTime::parse(statement.columnText(0));
  return newest && *newest < serverNow - DeletionFinder::window;
}

// The objects of the last run whose folder is a copy to rely on differ from chosen.
bool objectsChanged(BackupStore& store, std::int64_t runId, const std::vector<std::string>& chosen) {
  std::optional<std::int64_t> last;
  for (const auto& run : store.runs())
    if (run.id != runId && run.isUsable()) last = run.id;
  if (!last) return false;
  auto statement = store.db().prepare(
      "SELECT object FROM jobs WHERE run_id = ? AND purpose = 'records' ORDER BY object");
  statement.bindInt(1, *last);
  std::set<std::string> before;
  while (statement.step()) before.insert(statement.columnText(0));
  return before != std::set<std::string>(chosen.begin(), chosen.end());
}

// Every request of a run passes through it: its count is the run's API requests.
class RequestCounting : public BackupTransport {
 public:
  explicit RequestCounting(BackupTransport& inner) : inner_(inner) {}
  std::string send(const std::string& method, const std::string& path, const QueryItems& query,
                   const std::optional<std::string>& body) override {
    ++count_;
    return inner_.send(method, path, query, body);
  }
  std::pair<std::string, ResponseHeaders> getRaw(const std::string& path, const QueryItems& query,
                                                 const std::string& accept) override {
    ++count_;
    return inner_.getRaw(path, query, accept);
  }
  std::string postSOAP(const std::string& action, const std::string& envelope) override {
    ++count_;
    return inner_.postSOAP(action, envelope);
  }
  std::int64_t download(const std::string& path, const std::filesystem::path& file) override {
    ++count_;
    return inner_.download(path, file);
  }
  TransportFailure classify(const std::exception& error) const override {
    return inner_.classify(error);
  }
  std::int64_t count() const { return count_; }

 private:
  BackupTransport& inner_;
  std::atomic<std::int64_t> count_{0};
};

// The page refused: nothing of it is stored.
class PageRefused : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace

// Ends the whole run as stopped, with this message; the next run resumes it.
class BackupRunner::StopRun : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct BackupRunner::Context {
  std::shared_ptr<BackupStore> store;
  std::unique_ptr<RequestCounting> transport;
  std::int64_t runId = 0;
  RunKind kind = RunKind::full;
  std::filesystem::path folder;
  std::optional<BackupFileSystem> fileSystem;
  Tally tally;
  std::string serverNow;
  std::string startedAt;
  std::vector<DeletionFinder::Failure> deletionFailures;  // checks that failed this run
  // Every write to the store passes through it, one at a time.
  std::recursive_mutex storeLock;
  // Set by the first thread that must end the run; the others stop at the next page.
  std::atomic<bool> stopping{false};
  std::mutex stopMutex;  // guards stopMessage
  std::string stopMessage;
  std::unique_ptr<AllowanceWatch> allowance;
  // Fields Salesforce refused in this run, by object (guarded by storeLock).
  std::map<std::string, std::vector<std::string>> refusedFields;
  // The file step's outcome, for the summary (written by the run's own thread only).
  std::int64_t filesDownloaded = 0;
  std::int64_t filesWaiting = 0;
  std::int64_t filesGivenUp = 0;   // after fileTries refusals
  std::int64_t filesRefused = 0;   // at once: Salesforce says the body is gone or not allowed
  std::int64_t fileBytes = 0;
  std::string filesMessage;
  // Why this run copies everything although changes were asked for, or "".
  std::string fullBecause;
  // Live ids held per object when the run began.
  std::map<std::string, std::int64_t> heldBefore;

  void stop(const std::string& message) {
    std::lock_guard guard(stopMutex);
    if (stopMessage.empty()) stopMessage = message;
    stopping = true;
  }
};

// ---- Tally ----

BackupProgress::Totals BackupRunner::Tally::totals() const {
  std::lock_guard guard(mutex_);
  return totals_;
}

void BackupRunner::Tally::addRecords(std::int64_t records, std::int64_t bytes) {
  std::lock_guard guard(mutex_);
  totals_.records += records;
  totals_.bytes += bytes;
  recordBytes_ += bytes;
}

void BackupRunner::Tally::objectDone() {
  std::lock_guard guard(mutex_);
  ++totals_.objectsDone;
}

void BackupRunner::Tally::setPlanned(int objects, std::int64_t expected) {
  std::lock_guard guard(mutex_);
  totals_.objectsTotal = objects;
  totals_.recordsExpected = expected;
}

std::int64_t BackupRunner::Tally::recordBytes() const {
  std::lock_guard guard(mutex_);
  return recordBytes_;
}

// ---- Runner ----

BackupRunner::BackupRunner(BackupTransport& transport, BackupConfig config, FreeSpace freeSpace,
                           FileSystemOf fileSystem, std::chrono::milliseconds firstPollDelay,
                           Now now, std::map<std::string, std::string> environment,
                           Progress progress)
    : transport_(transport),
      config_(std::move(config)),
      freeSpace_(std::move(freeSpace)),
      fileSystem_(std::move(fileSystem)),
      firstPollDelay_(firstPollDelay),
      now_(std::move(now)),
      environment_(std::move(environment)),
      progress_(std::move(progress)) {}

std::string BackupRunner::csvName(const std::string& object) {
  return BackupLocation::safeName(object) + ".csv";
}

bool BackupRunner::stopRequested() const { return shouldStop_ && shouldStop_(); }

void BackupRunner::report(const BackupProgress& progress) {
  if (!progress_) return;
  std::vector<BackupProgress> out;
  {
    std::lock_guard guard(progressMutex_);
    const double at = std::chrono::duration<double>(
                          std::chrono::steady_clock::now().time_since_epoch())
                          .count();
    out = coalescer_.accept(progress, at);
  }
  for (const auto& value : out) progress_(value);
}

void BackupRunner::reportStep(BackupProgress::Step step) {
  report(BackupProgress::simple(step));
}

RunSummary BackupRunner::run(RunKind kind) {
  if (auto it = environment_.find("CORVANE_DEMO"); it != environment_.end() && it->second == "1")
    throw BackupError::demoMode();
  // An unplugged disk leaves an empty mount point on the startup disk: nothing
  // may be written there, not even the lock.
  if (auto reach = BackupVolumes::fromEnvironment(environment_).reach(config_.location.root);
      reach.kind == BackupFolderState::Kind::driveNotConnected)
    throw BackupError::driveNotConnected(reach.name);
  auto lock = BackupLock::acquire(config_.location.lockURL());

  Context context;
  context.store = BackupStore::open(config_.location);
  context.transport = std::make_unique<RequestCounting>(transport_);
  context.allowance = std::make_unique<AllowanceWatch>(
      *context.transport, [&context] { return context.transport->count(); },
      config_.allowanceRecheckEvery, config_.minimumApiRemaining);
  auto& store = *context.store;
  reportStep(BackupProgress::Step::starting);

  const std::string needsFull = store.setting(needsFullKey).value_or("");
  auto runs = store.runs();
  if (!runs.empty() && !runs.back().isFinished()) {
    // Carry on with the unfinished run. A stop counts against it only when the
    // last attempt got no further than the one before.
    const auto& unfinished = runs.back();
    context.runId = unfinished.id;
    context.kind = unfinished.kind;
    context.folder = store.runFolder(unfinished);
    context.serverNow = unfinished.serverNow;
    context.startedAt = unfinished.startedAt;
    auto marker = store.db().prepare(
        "SELECT COALESCE(SUM(csv_bytes), 0), COUNT(*), "
        "COALESCE(SUM(state IN ('done', 'failed', 'skipped')), 0) FROM jobs WHERE run_id = ?");
    marker.bindInt(1, context.runId);
    marker.step();
    // Deletion checks and file bodies are progress too.
    auto later = store.db().prepare(
        "SELECT (SELECT COUNT(*) FROM file_versions WHERE downloaded = 1), "
        "(SELECT COUNT(*) FROM known_ids WHERE check_run = ?1 OR deleted_run = ?1), "
        "(SELECT COALESCE(group_concat(name || '=' || deleted_checked, ','), '') FROM objects)");
    later.bindInt(1, context.runId);
    later.step();
    const std::string mark =
        fmt::format("{}:{}:{}:{}:{}:{}:{}:{}", context.runId, unfinished.stage,
                    marker.columnInt(0), marker.columnInt(1), marker.columnInt(2),
                    later.columnInt(0), later.columnInt(1), later.columnText(2));
    const std::int64_t stops =
        store.setting("resumeMark") == mark ? unfinished.stops + 1 : 1;
    store.setSetting("resumeMark", mark);
    store.db()
        .prepare("UPDATE runs SET stops = ?, result = '' WHERE id = ?")
        .bindInt(1, stops)
        .bindInt(2, context.runId)
        .run();
    if (stops > 2) {
      store.setSetting(needsFullKey, fullAfterGivenUp);
      store.db()
          .prepare(
              "UPDATE jobs SET state = 'failed', reason = ? WHERE run_id = ? AND state IN "
              "('pending', 'running')")
          .bindText(1, givenUpBeforeRead)
          .bindInt(2, context.runId)
          .run();
      return finish(context, fmt::format("This backup stopped {} times at the same point, so it "
                                         "was given up on and the next one starts fresh. What it "
                                         "had already read is kept.",
                                         stops));
    }
  } else {
    // A changes run that could not be trusted makes this one full.
    const bool forced = kind == RunKind::changes && !needsFull.empty();
    if (forced) kind = RunKind::full;
    const auto started = now_();
    // Named on the user's clock; the database keeps the start in UTC.
    std::string name = IsoTime::localFolderStamp(started);
    std::set<std::string> used;
    for (const auto& earlier : runs) used.insert(earlier.folder);
    for (int n = 2; used.count(name) != 0 ||
                    std::filesystem::exists(config_.location.folder() / BackupLocation::safeName(name));
         ++n)
      name = IsoTime::localFolderStamp(started) + " " + std::to_string(n);
    context.kind = kind;
    context.startedAt = IsoTime::formatPlain(started);
    context.runId = store.insertRun(name, kind, context.startedAt);
    context.folder = config_.location.folder() / BackupLocation::safeName(name);
    store.setSetting("resumeMark", "");
    if (forced) {
      context.fullBecause = needsFull;
      store.setSetting(fullBecauseKey, fmt::format("{}\t{}", context.runId, needsFull));
    }
  }
  if (auto because = store.setting(fullBecauseKey);
      because && because->rfind(fmt::format("{}\t", context.runId), 0) == 0)
    context.fullBecause = because->substr(because->find('\t') + 1);
  {
    // What the backup held before this run copied anything, kept across stops.
    auto held = nlohmann::json::parse(store.setting(heldBeforeKey).value_or(""), nullptr, false);
    if (!held.is_object() || held.value("run", std::int64_t{0}) != context.runId) {
      held = {{"run", context.runId}, {"counts", nlohmann::json::object()}};
      for (const auto& [object, count] : store.heldCounts()) held["counts"][object] = count;
      store.setSetting(heldBeforeKey, held.dump());
    }
    for (const auto& [object, count] : held["counts"].items())
      if (count.is_number_integer()) context.heldBefore[object] = count.get<std::int64_t>();
  }
  std::filesystem::create_directories(context.folder);
  context.fileSystem = fileSystem_ ? fileSystem_(context.folder) : std::nullopt;

  try {
    if (context.serverNow.empty()) {
      // The org's clock, never ours: the next changes run asks for what
      // changed since this moment as Salesforce counts it.
      std::optional<SystemTime> serverNow;
      try {
        serverNow = ApiAllowance::ready(*context.transport).serverDate;
      } catch (const std::exception& error) {
        if (context.transport->classify(error).signedOut) throw;
      }
      if (!serverNow) throw StopRun(serverTimeUnreadable);
      context.serverNow = IsoTime::formatPlain(*serverNow);
      if (context.kind == RunKind::changes && watermarkTooOld(store, *serverNow)) {
        context.kind = RunKind::full;
        context.fullBecause = fullAfterTooLong;
        store.setSetting(needsFullKey, fullAfterTooLong);
        store.setSetting(fullBecauseKey, fmt::format("{}\t{}", context.runId, fullAfterTooLong));
        store.db()
            .prepare("UPDATE runs SET kind = ? WHERE id = ?")
            .bindText(1, toText(RunKind::full))
            .bindInt(2, context.runId)
            .run();
      }
      store.db()
          .prepare("UPDATE runs SET server_now = ? WHERE id = ?")
          .bindText(1, context.serverNow)
          .bindInt(2, context.runId)
          .run();
    }
    const auto run = store.run(context.runId);
    if (run && run->stage == "plan") plan(context);
    copyAll(context);
    if (!context.stopping && !stopRequested()) {
      DeletionFinder finder(*context.transport, store, context.storeLock, context.runId,
                            ServerTime::parse(context.serverNow).value_or(now_()),
                            DeletionFinder::Options::of(config_, firstPollDelay_));
      auto found = finder.findAll(
          DeletionFinder::targetsOf(store, context.runId),
          [this, &context](bool comparing, const std::string& object, int index, int count) {
            BackupProgress progress;
            progress.step = comparing ? BackupProgress::Step::checkingDeletions
                                      : BackupProgress::Step::findingDeletions;
            progress.object = object;
            progress.index = index;
            progress.count = count;
            progress.totals = context.tally.totals();
            report(progress);
          },
          [this, &context] { return context.stopping.load() || stopRequested(); });
      context.deletionFailures = std::move(found.failed);
    }
    if (!context.stopping && !stopRequested()) downloadFiles(context);
  } catch (const BackupError& error) {
    if (error.kind() == BackupError::Kind::willNotFit ||
        error.kind() == BackupError::Kind::anotherLogin)
      throw;
    context.stop(error.what());
  } catch (const StopRun& stop) {
    context.stop(stop.what());
  } catch (const std::exception& error) {
    const auto failure = context.transport->classify(error);
    context.stop(failure.signedOut ? std::string(BackupError::signedOut().what())
                                   : std::string(stoppedMessage) + " (" + error.what() + ")");
  }
  if (stopRequested()) context.stop(stoppedMessage);
  std::string message;
  {
    std::lock_guard guard(context.stopMutex);
    message = context.stopMessage;
  }
  return finish(context, message);
}

void BackupRunner::plan(Context& context) {
  auto& store = *context.store;
  auto& transport = *context.transport;
  const auto& options = config_.options;

  reportStep(BackupProgress::Step::askingWhatTheOrgHas);
  const auto global =
      BackupPlanner::GlobalObject::parse(transport.send("GET", "/sobjects/", {}, std::nullopt));
  const auto chosen = BackupPlanner::objects(global, options);
  if (context.kind == RunKind::changes && objectsChanged(store, context.runId, chosen))
    store.setSetting(needsFullKey, fullAfterObjectsChanged);

  reportStep(BackupProgress::Step::countingRecords);
  std::map<std::string, std::int64_t> roughCounts;
  try {
    roughCounts = BackupEstimator::recordCounts(transport, chosen);
  } catch (const BackupError&) {
  }

  struct Planned {
    BackupPlanner::ObjectPlan plan;
    std::string state = JobState::pending;
    std::string reason;
    std::int64_t rowCount = -1;
    std::string via;
  };
  std::vector<Planned> planned;
  int done = 0;
  std::size_t fields = 0;
  int leftOut = 0;
  for (const auto& name : chosen) {
    if (stopRequested()) throw StopRun(stoppedMessage);
    BackupProgress progress;
    progress.step = BackupProgress::Step::readingDescriptions;
    progress.done = done++;
    progress.total = static_cast<std::int64_t>(chosen.size());
    report(progress);
    Planned entry;
    BackupPlanner::Describe describe;
    try {
      describe = BackupPlanner::Describe::parse(
          transport.send("GET", "/sobjects/" + name + "/describe", {}, std::nullopt));
    } catch (const std::exception& error) {
      if (transport.classify(error).signedOut) throw;
      entry.plan.object = name;
      entry.state = JobState::failed;
      entry.reason = BackupPlanner::notDescribedReason;
      ++leftOut;
      planned.push_back(std::move(entry));
      continue;
    }
    std::optional<SystemTime> since;
    std::set<std::string> unsupported;
    if (auto state = store.objectState(name)) {
      // A full run asks again for fields refused before: it copies the whole
      // object anyway, and Salesforce may read them now.
      if (context.kind != RunKind::full)
        unsupported.insert(state->unsupportedFields.begin(), state->unsupportedFields.end());
      if (context.kind == RunKind::changes && !state->needsFull && !state->watermark.empty())
        since = ServerTime::parse(state->watermark);
    }
    entry.plan = BackupPlanner::plan(describe, options, since, unsupported);
    // A field list that changed since the watermark was taken needs a whole copy.
    if (since) {
      auto state = store.objectState(name);
      if (state && state->fields != entry.plan.fields) {
        entry.plan = BackupPlanner::plan(describe, options, std::nullopt, unsupported);
        store.setSetting(needsFullKey, "The fields of " + name + fullAfterFieldsChanged);
      }
    }
    fields += entry.plan.fields.size();
    planned.push_back(std::move(entry));
  }
  {
    BackupProgress progress;
    progress.step = BackupProgress::Step::planned;
    progress.total = static_cast<std::int64_t>(planned.size()) - leftOut;
    progress.done = static_cast<std::int64_t>(fields);
    progress.rows = leftOut;
    report(progress);
  }

  // What is to be copied: one count per object, which for a changes run also
  // says whether anything changed.
  const auto countStep = context.kind == RunKind::changes
                             ? BackupProgress::Step::checkingForChanges
                             : BackupProgress::Step::countingWhatToCopy;
  std::vector<BackupEstimator::ObjectSize> sizes;
  std::int64_t expected = 0;
  int checked = 0;
  int withRecords = 0;
  int toCopy = 0;
  for (auto& entry : planned) {
    if (entry.state != JobState::pending) continue;
    if (stopRequested()) throw StopRun(stoppedMessage);
    BackupProgress progress;
    progress.step = countStep;
    progress.done = checked++;
    progress.total = static_cast<std::int64_t>(planned.size()) - leftOut;
    progress.rows = withRecords;
    report(progress);
    try {
      const auto body = transport.send(
          "GET",
          BackupPlanner::countPath(entry.plan.soql, entry.plan.operation, config_.apiVersion), {},
          std::nullopt);
      entry.rowCount = nlohmann::json::parse(body).at("totalSize").get<std::int64_t>();
    } catch (const std::exception& error) {
      if (transport.classify(error).signedOut) throw;
      // Salesforce's rough count lags behind and leaves objects out: it may
      // choose REST or bulk, but never says an object is empty. Without a
      // count the object is copied, and the copy itself counts it.
      if (entry.plan.mode != BackupPlanner::Mode::changes) {
        if (auto it = roughCounts.find(entry.plan.object);
            it != roughCounts.end() && it->second > 0)
          entry.rowCount = it->second;
      }
    }
    if (entry.rowCount == 0) {
      entry.state = JobState::skipped;
      entry.reason = entry.plan.mode == BackupPlanner::Mode::changes ? noChangesReason
                                                                     : noRecordsReason;
    } else {
      ++withRecords;
      ++toCopy;
      expected += std::max<std::int64_t>(entry.rowCount, 0);
      sizes.push_back({entry.rowCount, static_cast<int>(entry.plan.fields.size())});
    }
    entry.via = entry.rowCount >= 0 && entry.rowCount <= config_.restThreshold ? "rest" : "bulk";
  }

  // Whether the copy fits, before any record is read.
  if (freeSpace_) {
    if (auto free = freeSpace_(context.folder)) {
      const auto estimate = BackupEstimator::estimate(sizes, 0, *free, config_.freeSpaceFloor);
      if (estimate.verdict == BackupEstimator::Verdict::willNotFit) {
        std::lock_guard guard(context.storeLock);
        store.db()
            .prepare("UPDATE runs SET stage = 'done', result = ?, message = ? WHERE id = ?")
            .bindText(1, RunResult::failed)
            .bindText(2, BackupError::willNotFit(estimate.expected + config_.freeSpaceFloor, *free)
                             .what())
            .bindInt(3, context.runId)
            .run();
        throw BackupError::willNotFit(estimate.expected + config_.freeSpaceFloor, *free);
      }
    }
  }

  std::lock_guard guard(context.storeLock);
  auto& db = store.db();
  db.exec("BEGIN IMMEDIATE");
  try {
    auto insert = db.prepare(
        "INSERT INTO jobs (run_id, seq, object, purpose, mode, operation, soql, fields, "
        "watermark_field, has_is_deleted, state, reason, field_types, row_count, via) VALUES "
        "(?, ?, ?, 'records', ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
    int seq = 0;
    for (const auto& entry : planned) {
      const auto& plan = entry.plan;
      insert.reset();
      insert.bindInt(1, context.runId)
          .bindInt(2, ++seq)
          .bindText(3, plan.object)
          .bindText(4, BackupPlanner::toText(plan.mode))
          .bindText(5, plan.operation.empty() ? "query" : plan.operation)
          .bindText(6, plan.soql)
          .bindText(7, jsonList(plan.fields))
          .bindText(8, plan.watermarkField.value_or(""))
          .bindInt(9, plan.hasIsDeleted ? 1 : 0)
          .bindText(10, entry.state)
          .bindText(11, entry.reason)
          .bindText(12, plan.fieldTypes ? jsonList(*plan.fieldTypes) : "")
          .bindInt(13, entry.rowCount)
          .bindText(14, entry.via);
      insert.run();
    }
    db.prepare("UPDATE runs SET stage = 'copy' WHERE id = ?").bindInt(1, context.runId).run();
    db.exec("COMMIT");
  } catch (...) {
    db.exec("ROLLBACK");
    throw;
  }
  (void)toCopy;
}

void BackupRunner::copyAll(Context& context) {
  std::vector<JobRow> jobs;
  std::int64_t expected = 0;
  int planned = 0;
  {
    std::lock_guard guard(context.storeLock);
    auto statement = context.store->db().prepare(
        "SELECT seq, object, purpose, mode, operation, soql, fields, field_types, "
        "watermark_field, has_is_deleted, state, reason, job_id, created_by, created_date, "
        "locator, csv_bytes, rows, deleted_rows, row_count, via FROM jobs WHERE run_id = ? AND "
        "purpose = 'records' ORDER BY seq");
    statement.bindInt(1, context.runId);
    while (statement.step()) {
      JobRow job;
      job.seq = statement.columnInt(0);
      job.object = statement.columnText(1);
      job.purpose = statement.columnText(2);
      job.mode = statement.columnText(3);
      job.operation = statement.columnText(4);
      job.soql = statement.columnText(5);
      job.fields = listFrom(statement.columnView(6));
      job.fieldTypes = listFrom(statement.columnView(7));
      job.watermarkField = statement.columnText(8);
      job.hasIsDeleted = statement.columnInt(9) != 0;
      job.state = statement.columnText(10);
      job.reason = statement.columnText(11);
      job.jobId = statement.columnText(12);
      job.createdBy = statement.columnText(13);
      job.createdDate = statement.columnText(14);
      job.locator = statement.columnText(15);
      job.csvBytes = statement.columnInt(16);
      job.rows = statement.columnInt(17);
      job.deletedRows = statement.columnInt(18);
      job.rowCount = statement.columnInt(19);
      job.via = statement.columnText(20);
      if (job.state == JobState::failed || job.state == JobState::skipped) continue;
      ++planned;
      expected += std::max<std::int64_t>(job.rowCount, 0);
      context.tally.addRecords(job.rows, job.csvBytes);
      if (job.state == JobState::done) {
        context.tally.objectDone();
        continue;
      }
      jobs.push_back(std::move(job));
    }
  }
  context.tally.setPlanned(planned, expected);

  std::atomic<std::size_t> next{0};
  const int count = static_cast<int>(jobs.size());
  auto worker = [&] {
    for (;;) {
      if (context.stopping || stopRequested()) return;
      const std::size_t at = next++;
      if (at >= jobs.size()) return;
      try {
        copyObject(context, jobs[at], static_cast<int>(at) + 1, count);
      } catch (const StopRun& stop) {
        context.stop(stop.what());
      } catch (const std::exception& error) {
        const auto failure = context.transport->classify(error);
        context.stop(failure.signedOut ? std::string(BackupError::signedOut().what())
                                       : std::string(stoppedMessage) + " (" + error.what() + ")");
      }
    }
  };
  const int threads = std::max(1, std::min(config_.objectsAtOnce, count));
  std::vector<std::thread> pool;
  for (int i = 1; i < threads; ++i) pool.emplace_back(worker);
  worker();
  for (auto& thread : pool) thread.join();
}

void BackupRunner::copyObject(Context& context, JobRow job, int index, int count) {
  const auto path = context.folder / csvName(job.object);
  const std::string header = BackupCSV::line(job.fields);
  auto failJob = [&](const std::string& reason) {
    std::lock_guard guard(context.storeLock);
    context.store->db()
        .prepare("UPDATE jobs SET state = 'failed', reason = ? WHERE run_id = ? AND seq = ?")
        .bindText(1, reason)
        .bindInt(2, context.runId)
        .bindInt(3, job.seq)
        .run();
    BackupProgress progress;
    progress.step = BackupProgress::Step::objectSkipped;
    progress.object = job.object;
    progress.why = reason;
    progress.totals = context.tally.totals();
    report(progress);
  };

  try {
    const auto limit = context.fileSystem ? context.fileSystem->maximumFileSize : std::nullopt;
    CommittedFile file(path, job.csvBytes, limit);
    if (job.csvBytes == 0 || file.length() < job.csvBytes) {
      // A fresh object, or a file shorter than the database says (moved or
      // damaged by hand): start it again from its header.
      CommittedFile fresh(path, 0, limit);
      job.locator.clear();
      job.jobId.clear();
      job.rows = 0;
      job.deletedRows = 0;
      commitPage(context, job, fresh, header, {}, 0, "", false, index, count);
      fresh.close();
    }
    auto writer = std::make_unique<CommittedFile>(path, job.csvBytes, limit);
    if (job.via == "rest")
      copyRest(context, job, *writer, index, count);
    else
      copyBulk(context, job, writer, index, count);
    writer->close();
  } catch (const FileSizeLimitReached& error) {
    std::string reason = fmt::format(
        "This kind of record cannot be kept whole on this disk: it cannot hold a file bigger "
        "than {}, and this kind of record needs {}.",
        BackupError::byteCount(error.limit()), BackupError::byteCount(error.wanted()));
    if (context.fileSystem && !context.fileSystem->typeName.empty())
      reason += " It is formatted " + context.fileSystem->typeName + ", which has that limit.";
    reason +=
        " A disk formatted exFAT or APFS does not. Everything else was backed up, and what was "
        "read of this kind of record is kept.";
    failJob(reason);
    return;
  } catch (const PageUnreadable& error) {
    failJob("A page of this object could not be read: " + error.reason() +
            " Nothing was stored from it.");
    return;
  } catch (const PageRefused& error) {
    failJob(error.what());
    return;
  } catch (const BackupCSV::Unreadable& error) {
    failJob(std::string("A page of this object could not be read: ") + error.what() +
            " Nothing was stored from it.");
    return;
  } catch (const FileError& error) {
    // A full disk is no fault of this object: the run stops and carries on
    // once there is room. Anything else leaves this object for the next run.
    if (error.osError() == ENOSPC || error.osError() == EDQUOT) {
      const auto free = freeSpace_ ? freeSpace_(context.folder).value_or(0) : 0;
      throw StopRun(BackupError::lowDiskSpace(config_.freeSpaceFloor, free).what());
    }
    failJob(std::string("It could not be written to the backup folder. ") + error.what() +
            " The next backup tries this kind of record again.");
    return;
  } catch (const SQLiteError& error) {
    failJob(std::string("Could not be saved: ") + error.what());
    return;
  } catch (const DownloadError& error) {
    switch (error.kind()) {
      case DownloadError::Kind::authExpired:
        throw StopRun(BackupError::signedOut().what());
      case DownloadError::Kind::lowDiskSpace:
        throw StopRun(BackupError::lowDiskSpace(config_.freeSpaceFloor, error.free()).what());
      case DownloadError::Kind::jobExpired:
        failJob(lostPlaceTwice);
        return;
      case DownloadError::Kind::objectNotSupported:
        failJob(BackupPlanner::bulkRefusedReason);
        return;
      default:
        if (isAllowanceSpent(error.platformText())) {
          context.allowance->markSpent();
          throw StopRun(std::string(stoppedMessage) + allowanceSpent);
        }
        if (dropRefusedField(context, job, refusedField(error.platformText()))) {
          copyObject(context, std::move(job), index, count);
          return;
        }
        failJob(error.what());
        return;
    }
  } catch (const StopRun&) {
    throw;
  } catch (const std::exception& error) {
    const auto failure = context.transport->classify(error);
    if (failure.signedOut) throw StopRun(BackupError::signedOut().what());
    if (isAllowanceSpent(failure.message)) {
      context.allowance->markSpent();
      throw StopRun(std::string(stoppedMessage) + allowanceSpent);
    }
    // A refusal of this object (a 400 or 404) ends only the object; anything
    // else (no answer, a server failure) ends the run, which resumes next time.
    const bool refused = failure.httpStatus >= 400 && failure.httpStatus < 500 &&
                         failure.httpStatus != 401;
    if (!refused) throw;
    if (dropRefusedField(context, job, refusedField(failure.message))) {
      copyObject(context, std::move(job), index, count);
      return;
    }
    failJob(failure.message.empty() ? std::string(error.what()) : failure.message);
    return;
  }
}

namespace {

// What one page of CSV rows holds. data starts with a header.
struct PageRows {
  std::vector<BackupRunner::PageOp> ops;  // keep for a live row, gone for a deleted one
  BackupCSV::Range rows;                  // from the first row to the end of the last
  std::int64_t live = 0;
  std::int64_t deleted = 0;
  // The live rows, each with its line break, when some rows were deleted ones.
  std::optional<std::string> liveOnly;
};

// The ids (and watermark values) of CSV rows. With dropDeleted, rows whose
// IsDeleted is "true" (queryAll sends them) are deletions, not records.
// Throws PageRefused when the header has no Id column.
PageRows pageOps(std::string_view data, const std::string& watermark, bool dropDeleted) {
  PageRows page;
  int idAt = -1;
  int stampAt = -1;
  int deletedAt = -1;
  bool first = true;
  std::vector<std::pair<std::size_t, bool>> starts;  // (row begins at, live)
  BackupCSV::scan(
      data,
      [&](const BackupCSV::Record& header) {
        idAt = columnOf(header.fields, "Id");
        if (!watermark.empty()) stampAt = columnOf(header.fields, watermark);
        if (dropDeleted) deletedAt = columnOf(header.fields, "IsDeleted");
        if (idAt < 0) throw PageRefused(noIdColumn);
        page.rows.begin = page.rows.end = header.range.end;
      },
      [&](const BackupCSV::Record& record) {
        if (first) page.rows.begin = record.range.begin;
        first = false;
        page.rows.end = record.range.end;
        BackupRunner::PageOp op;
        if (static_cast<std::size_t>(idAt) < record.fields.size()) op.id = record.fields[idAt];
        if (stampAt >= 0 && static_cast<std::size_t>(stampAt) < record.fields.size())
          op.stamp = record.fields[stampAt];
        if (op.id.empty()) throw PageRefused(noIdColumn);
        const bool gone = deletedAt >= 0 &&
                          static_cast<std::size_t>(deletedAt) < record.fields.size() &&
                          record.fields[deletedAt] == "true";
        if (gone) op.kind = BackupRunner::PageOp::Kind::gone;
        ++(gone ? page.deleted : page.live);
        starts.emplace_back(record.range.begin, !gone);
        page.ops.push_back(std::move(op));
        return true;
      });
  if (idAt < 0) throw PageRefused(noIdColumn);
  if (page.deleted > 0) {
    std::string live;
    for (std::size_t i = 0; i < starts.size(); ++i) {
      if (!starts[i].second) continue;
      const std::size_t until = i + 1 < starts.size() ? starts[i + 1].first : data.size();
      live += BackupCSV::terminated(data.substr(starts[i].first, until - starts[i].first));
    }
    page.liveOnly = std::move(live);
  }
  return page;
}

}  // namespace

void BackupRunner::copyRest(Context& context, JobRow& job, CommittedFile& file, int index,
                            int count) {
  RestQueryRunner runner(*context.transport, config_.freeSpaceFloor,
                         [this](const std::filesystem::path& folder) {
                           return freeSpace_ ? freeSpace_(folder) : std::nullopt;
                         });
  const std::string header = BackupCSV::line(job.fields);
  const auto operation = job.operation == "queryAll" ? RestQueryRunner::Operation::queryAll
                                                     : RestQueryRunner::Operation::query;
  // In order of Id, so that a cursor Salesforce let go can be asked for again
  // from the last row kept.
  std::string soql = byId(job.soql, {});
  std::string from = job.locator;
  bool finished = false;
  RestQueryRunner::Outcome outcome;
  for (int lost = 0;;) {
    try {
      outcome = runner.fetchPages(
          soql, operation, job.fields, job.fieldTypes, from, context.folder,
          [&](const RestPage::Result& page) {
            if (context.stopping || stopRequested()) throw StopRun(stoppedMessage);
            std::string data = header + page.csv;
            auto rows = pageOps(data, job.watermarkField, dropsDeleted(job));
            finished = page.next.empty();
            commitPage(context, job, file,
                       rows.liveOnly ? std::string_view(*rows.liveOnly)
                                     : std::string_view(page.csv),
                       rows.ops, rows.live, page.next, finished, index, count);
            lost = 0;
          });
      break;
    } catch (const StopRun&) {
      throw;
    } catch (const std::exception& error) {
      const auto failure = context.transport->classify(error);
      if (from.empty() && job.locator.empty()) throw;
      if (failure.message.find("INVALID_QUERY_LOCATOR") == std::string::npos &&
          failure.message.find("invalid query locator") == std::string::npos)
        throw;
      if (++lost > 2) throw PageRefused(lostPlaceTwice);
      // The cursor is gone: ask again for what comes after the last row kept.
      file.sync();
      auto data = Durable::readWhole(file.url());
      const std::string kept = data ? data->substr(0, static_cast<std::size_t>(job.csvBytes)) : "";
      soql = byId(job.soql, lastId(kept));
      from.clear();
    }
  }
  if (outcome.stoppedForSpace) {
    const auto free = freeSpace_ ? freeSpace_(context.folder).value_or(0) : 0;
    throw StopRun(BackupError::lowDiskSpace(config_.freeSpaceFloor, free).what());
  }
  if (!finished) commitPage(context, job, file, {}, {}, 0, "", true, index, count);
}

void BackupRunner::copyBulk(Context& context, JobRow& job, std::unique_ptr<CommittedFile>& file,
                            int index, int count) {
  BulkQueryRunner::Options options;
  options.freeSpaceFloor = config_.freeSpaceFloor;
  if (freeSpace_) {
    const auto folder = context.folder;
    options.freeSpace = [this, folder] { return freeSpace_(folder); };
  }
  options.storageFactor = 1.0;
  options.firstPollDelay = firstPollDelay_;
  BulkQueryRunner bulk(*context.transport, options);
  const auto operation = job.operation == "queryAll" ? BulkQueryRunner::Operation::queryAll
                                                     : BulkQueryRunner::Operation::query;
  const std::string header = BackupCSV::line(job.fields);
  auto cancel = [&] { return context.stopping.load() || stopRequested(); };

  for (int attempt = 1;; ++attempt) {
    try {
      BulkQueryRunner::Job remote{job.jobId, job.createdDate};
      if (remote.id.empty()) {
        remote = bulk.create(job.soql, operation);
        std::lock_guard guard(context.storeLock);
        context.store->db()
            .prepare(
                "UPDATE jobs SET job_id = ?, created_date = ?, state = 'running' WHERE run_id = "
                "? AND seq = ?")
            .bindText(1, remote.id)
            .bindText(2, remote.createdDate)
            .bindInt(3, context.runId)
            .bindInt(4, job.seq)
            .run();
        job.jobId = remote.id;
        job.createdDate = remote.createdDate;
      }
      BackupProgress waiting;
      waiting.step = BackupProgress::Step::waitingForSalesforce;
      waiting.object = job.object;
      waiting.index = index;
      waiting.count = count;
      waiting.totals = context.tally.totals();
      report(waiting);
      auto found = bulk.waitForJob(remote, cancel);
      if (!found) throw StopRun(stoppedMessage);
      for (;;) {
        if (cancel()) throw StopRun(stoppedMessage);
        auto page = bulk.fetchPage(
            remote,
            job.locator.empty() ? std::nullopt : std::optional<std::string>(job.locator),
            config_.bulkPageSize, std::max<std::int64_t>(0, *found - job.rows));
        auto rows = pageOps(page.csv, job.watermarkField, dropsDeleted(job));
        const std::string body = rows.liveOnly
                                     ? std::move(*rows.liveOnly)
                                     : BackupCSV::terminated(BackupCSV::slice(page.csv, rows.rows));
        const bool last = page.nextLocator.empty();
        // The last page completes the object only when every row the job
        // found has come.
        const std::int64_t received =
            job.rows + job.deletedRows + static_cast<std::int64_t>(rows.ops.size());
        if (last && received != *found) throw DownloadError::rowsNotAsCounted(*found, received);
        commitPage(context, job, *file, body, rows.ops, rows.live, page.nextLocator, last, index,
                   count);
        if (last) break;
      }
      bulk.remove(remote);
      return;
    } catch (const DownloadError& error) {
      if (!isLostLocator(error)) throw;
      if (attempt >= 2) throw DownloadError::jobExpired();
      // Salesforce no longer keeps the job: read the object again from its header.
      const auto url = file->url();
      const auto limit = file->maximumSize();
      file->close();
      file = std::make_unique<CommittedFile>(url, 0, limit);
      job.jobId.clear();
      job.locator.clear();
      job.rows = 0;
      job.deletedRows = 0;
      job.csvBytes = 0;
      commitPage(context, job, *file, header, {}, 0, "", false, index, count);
    }
  }
}

void BackupRunner::commitPage(Context& context, JobRow& job, CommittedFile& file,
                              std::string_view rows, const std::vector<PageOp>& ops,
                              std::int64_t rowCount, const std::string& locator, bool done,
                              int index, int count) {
  const std::int64_t before = file.length();
  const auto deleted = static_cast<std::int64_t>(
      std::count_if(ops.begin(), ops.end(), [](const PageOp& op) { return op.kind == PageOp::Kind::gone; }));
  if (!rows.empty()) {
    file.append(rows);
    file.sync();
  }
  {
    std::lock_guard guard(context.storeLock);
    auto& store = *context.store;
    auto& db = store.db();
    db.exec("BEGIN IMMEDIATE");
    try {
      db.prepare(
            "UPDATE jobs SET locator = ?, csv_bytes = ?, rows = ?, deleted_rows = ?, job_id = ?, "
            "state = ? WHERE run_id = ? AND seq = ?")
          .bindText(1, locator)
          .bindInt(2, file.length())
          .bindInt(3, job.rows + rowCount)
          .bindInt(4, job.deletedRows + deleted)
          .bindText(5, done ? "" : job.jobId)
          .bindText(6, done ? JobState::done : JobState::running)
          .bindInt(7, context.runId)
          .bindInt(8, job.seq)
          .run();
      if (!ops.empty()) {
        auto upsert = db.prepare(
            "INSERT INTO known_ids (object, id, stamp, seen_run) VALUES (?, ?, ?, ?) "
            "ON CONFLICT(object, id) DO UPDATE SET stamp = excluded.stamp, "
            "seen_run = excluded.seen_run, deleted = 0");
        // A deleted row Salesforce still sends: the record is gone, once.
        auto gone = db.prepare(
            "UPDATE known_ids SET deleted = 1, deleted_run = ?, deleted_at = ?, how = "
            "'recycleBin' WHERE object = ? AND id = ? AND deleted = 0");
        for (const auto& op : ops) {
          if (op.kind == PageOp::Kind::gone) {
            gone.reset();
            gone.bindInt(1, context.runId).bindText(2, op.stamp).bindText(3, job.object).bindText(
                4, op.id);
            gone.run();
            continue;
          }
          upsert.reset();
          upsert.bindText(1, job.object)
              .bindText(2, op.id)
              .bindText(3, op.stamp)
              .bindInt(4, context.runId);
          upsert.run();
        }
      }
      db.exec("COMMIT");
    } catch (...) {
      db.exec("ROLLBACK");
      throw;
    }
  }
  job.rows += rowCount;
  job.deletedRows += deleted;
  job.csvBytes = file.length();
  job.locator = locator;
  if (done) job.state = JobState::done;
  context.tally.addRecords(rowCount, file.length() - before);
  if (done) context.tally.objectDone();

  BackupProgress progress;
  progress.step =
      done ? BackupProgress::Step::objectFinished : BackupProgress::Step::downloadingRecords;
  progress.object = job.object;
  progress.index = index;
  progress.count = count;
  progress.rows = job.rows;
  if (job.rowCount >= 0) progress.expected = job.rowCount;
  progress.bytes = job.csvBytes;
  progress.totals = context.tally.totals();
  report(progress);
  // Read when due; a low allowance leaves the file bodies for the next run.
  context.allowance->isLow();
}

bool BackupRunner::dropRefusedField(Context& context, JobRow& job, const std::string& field) {
  if (field.empty() || columnOf(std::vector<std::string>{"Id"}, field) == 0) return false;
  const int at = columnOf(job.fields, field);
  const auto from = job.soql.find(" FROM ");
  if (at < 0 || from == std::string::npos) return false;
  job.fields.erase(job.fields.begin() + at);
  if (static_cast<std::size_t>(at) < job.fieldTypes.size())
    job.fieldTypes.erase(job.fieldTypes.begin() + at);
  job.soql = "SELECT " + joined(job.fields) + job.soql.substr(from);
  job.locator.clear();
  job.jobId.clear();
  job.rows = 0;
  job.deletedRows = 0;
  job.csvBytes = 0;

  std::lock_guard guard(context.storeLock);
  auto& store = *context.store;
  auto& db = store.db();
  auto& refused = context.refusedFields[job.object];
  refused.push_back(field);
  std::vector<std::string> remembered = refused;
  if (auto state = store.objectState(job.object))
    for (const auto& earlier : state->unsupportedFields)
      if (columnOf(remembered, earlier) < 0) remembered.push_back(earlier);
  db.exec("BEGIN IMMEDIATE");
  try {
    store.recordUnsupported(job.object, remembered, refusedFieldReason,
                            IsoTime::formatPlain(now_()));
    db.prepare(
          "UPDATE jobs SET fields = ?, field_types = ?, soql = ?, locator = '', job_id = '', "
          "csv_bytes = 0, rows = 0, deleted_rows = 0 WHERE run_id = ? AND seq = ?")
        .bindText(1, jsonList(job.fields))
        .bindText(2, job.fieldTypes.empty() ? "" : jsonList(job.fieldTypes))
        .bindText(3, job.soql)
        .bindInt(4, context.runId)
        .bindInt(5, job.seq)
        .run();
    db.exec("COMMIT");
  } catch (...) {
    db.exec("ROLLBACK");
    throw;
  }
  return true;
}

void BackupRunner::downloadFiles(Context& context) {
  const auto& location = config_.location;
  auto& store = *context.store;
  if (config_.downloadFileBodies) reportStep(BackupProgress::Step::measuringFiles);

  // What this run's copies say about bodies: new documents, new versions,
  // attachments whose body changed.
  for (const auto& object : {"Attachment", "ContentVersion", "Document"}) {
    auto data = Durable::readWhole(context.folder / csvName(object));
    if (!data) continue;
    std::vector<FileDownload::Body> bodies;
    try {
      bodies = FileDownload::bodiesIn(object, *data);
    } catch (const BackupCSV::Unreadable&) {
      continue;
    }
    std::lock_guard guard(context.storeLock);
    store.db().exec("BEGIN IMMEDIATE");
    try {
      FileDownload::record(store.db(), bodies);
      store.db().exec("COMMIT");
    } catch (...) {
      store.db().exec("ROLLBACK");
      throw;
    }
  }

  // A run without a file step still records what it listed: those bodies are
  // owed, and the next run with a file step fetches them whatever changed since.
  if (!config_.downloadFileBodies) {
    std::lock_guard guard(context.storeLock);
    context.filesWaiting = static_cast<std::int64_t>(
        FileDownload::pending(store.db(), config_.latestFileVersionsOnly).size());
    return;
  }

  std::vector<FileDownload::Pending> pending;
  {
    std::lock_guard guard(context.storeLock);
    FileDownload::forgetMissingBodies(store.db(), location.filesFolder());
    // A full run tries again what earlier runs gave up on.
    if (context.kind == RunKind::full) FileDownload::retryGivenUp(store.db(), context.runId);
    pending = FileDownload::pending(store.db(), config_.latestFileVersionsOnly);
  }
  std::int64_t done = 0;
  int lostInARow = 0;
  for (const auto& body : pending) {
    if (stopRequested()) throw StopRun(stoppedMessage);
    if (context.allowance->isLow()) {
      context.filesMessage = allowanceLowForFiles;
      break;
    }
    if (freeSpace_) {
      const auto free = freeSpace_(location.folder());
      if (free && *free - body.size < config_.freeSpaceFloor) {
        context.filesMessage =
            BackupError::lowDiskSpace(config_.freeSpaceFloor + body.size, *free).what();
        break;
      }
    }
    BackupProgress progress;
    progress.step = BackupProgress::Step::downloadingFiles;
    progress.object = body.nameOnDisk;
    progress.done = done;
    progress.total = static_cast<std::int64_t>(pending.size());
    progress.bytes = context.fileBytes;
    progress.totals = context.tally.totals();
    progress.totals.files = context.filesDownloaded;
    report(progress);
    ++done;

    FileDownload::Fetched fetched;
    try {
      fetched = FileDownload::fetch(*context.transport, location, body);
    } catch (const std::exception& error) {
      const auto failure = context.transport->classify(error);
      if (failure.signedOut) throw StopRun(BackupError::signedOut().what());
      if (isAllowanceSpent(failure.message)) {
        context.allowance->markSpent();
        context.filesMessage = allowanceLowForFiles;
        break;
      }
      fetched.failure = failure.message.empty() ? std::string(error.what()) : failure.message;
      // Only Salesforce's lasting answer about the body counts against it; a
      // transfer lost on the way (no answer, a time-out, a 5xx) is tried again later.
      if (failure.httpStatus == 404 || failure.httpStatus == 403)
        fetched.kind = FileDownload::Fetched::Failure::final;
      else if (failure.httpStatus == 0 || failure.httpStatus >= 500 ||
               failure.httpStatus == 408 || failure.httpStatus == 429)
        fetched.kind = FileDownload::Fetched::Failure::onTheWay;
    }
    bool givenUp = false;
    {
      std::lock_guard guard(context.storeLock);
      givenUp = FileDownload::recordFetch(store.db(), body, fetched, fileTries, context.runId);
    }
    if (fetched.stored) {
      ++context.filesDownloaded;
      context.fileBytes += fetched.bytes;
    } else if (givenUp) {
      ++(fetched.kind == FileDownload::Fetched::Failure::final ? context.filesRefused
                                                                : context.filesGivenUp);
    }
    // Several transfers lost in a row: the connection is gone, leave the rest.
    lostInARow = fetched.kind == FileDownload::Fetched::Failure::onTheWay ? lostInARow + 1 : 0;
    if (lostInARow >= 3) break;
  }
  std::lock_guard guard(context.storeLock);
  context.filesWaiting =
      static_cast<std::int64_t>(FileDownload::pending(store.db(), config_.latestFileVersionsOnly).size());
}

RunSummary BackupRunner::finish(Context& context, const std::string& stopMessage) {
  auto& store = *context.store;
  std::lock_guard guard(context.storeLock);
  auto& db = store.db();
  const bool gaveUp = stopMessage.rfind("This backup stopped ", 0) == 0;
  const bool stopped = !stopMessage.empty() && !gaveUp;

  std::vector<std::string> refused;
  std::vector<std::string> notRead;
  std::vector<Manifest::ObjectReason> leftOut;
  std::vector<std::string> copied;
  std::int64_t records = 0;
  std::int64_t bytes = 0;
  {
    auto statement = db.prepare(
        "SELECT object, state, reason, rows, csv_bytes FROM jobs WHERE run_id = ? AND purpose = "
        "'records' ORDER BY seq");
    statement.bindInt(1, context.runId);
    while (statement.step()) {
      const std::string object = statement.columnText(0);
      const std::string state = statement.columnText(1);
      const std::string reason = statement.columnText(2);
      records += statement.columnInt(3);
      bytes += statement.columnInt(4);
      if (state == JobState::done) copied.push_back(object);
      if (state == JobState::failed) {
        leftOut.push_back({object, reason});
        if (reason == BackupPlanner::notDescribedReason)
          notRead.push_back(object);
        else if (reason != givenUpBeforeRead)
          refused.push_back(object);
      }
    }
  }

  std::string result;
  std::string message;
  if (gaveUp) {
    result = RunResult::gaveUp;
    message = stopMessage;
    // Objects that failed before it was given up say so, as in a finished run.
    if (!refused.empty())
      message += " Salesforce would not give these objects: " + joined(refused) + ".";
  } else if (stopped) {
    result = RunResult::stopped;
    message = stopMessage;
  } else {
    result = leftOut.empty() ? RunResult::complete : RunResult::partial;
    if (!refused.empty())
      message += "Salesforce would not give these objects: " + joined(refused) +
                 ". The rest of the backup is complete.";
    if (!notRead.empty())
      message += std::string(message.empty() ? "" : " ") +
                 "Left out because Salesforce will not read them: " + joined(notRead) +
                 ". The manifest says why for each.";
    auto add = [&message](const std::string& sentence) {
      message += (message.empty() ? "" : " ") + sentence;
    };
    if (!context.filesMessage.empty()) add(context.filesMessage);
    if (context.filesGivenUp > 0)
      add(fmt::format("{} could not be downloaded after {} tries and were left out. The next "
                      "full backup tries again. Files.csv says which.",
                      context.filesGivenUp, fileTries));
    if (context.filesRefused > 0)
      add(fmt::format("{} could not be downloaded because Salesforce says they are gone or not "
                      "for this login, and were left out. The next full backup tries again. "
                      "Files.csv says which.",
                      context.filesRefused));
    if (context.filesWaiting > 0 && context.filesMessage.empty())
      add(fmt::format("{} still to download. They will be fetched by the next backup.",
                      context.filesWaiting));
    std::vector<std::string> fieldsLeftOut;
    for (const auto& object : copied)
      if (auto state = store.objectState(object))
        for (const auto& field : state->unsupportedFields)
          fieldsLeftOut.push_back(object + "." + field);
    if (!fieldsLeftOut.empty())
      add("Left out because Salesforce refused them in a query: " + joined(fieldsLeftOut) +
          ". Everything else of these objects was copied.");
  }
  if (!context.fullBecause.empty() && !stopped && !gaveUp)
    message = context.fullBecause + (message.empty() ? "" : " ") + message;
  const auto deletions =
      DeletionReport::of(store, context.runId, context.deletionFailures, context.heldBefore);
  if (!stopped && !gaveUp && !deletions.failed.empty())
    message += std::string(message.empty() ? "" : " ") + deletions.failureMessage();
  const std::string finishedAt = IsoTime::formatPlain(now_());

  // The run's own files. A failure here loses no record: the CSVs are complete.
  bool folderWritten = false;
  try {
    reportStep(BackupProgress::Step::writingDeletedList);
    std::string deleted = BackupCSV::line(std::vector<std::string>{"Object", "Id", "DeletedAt", "How"});
    for (const auto& deletion : store.deletions(context.runId))
      BackupCSV::appendLine(deleted, {deletion.object, deletion.id, deletion.at, deletion.how});
    Durable::replace(context.folder / "Deleted.csv", deleted);

    reportStep(BackupProgress::Step::writingFileList);
    std::string files = BackupCSV::line(std::vector<std::string>{
        "Id", "Object", "DocumentId", "Title", "NameOnDisk", "Size", "Checksum", "Downloaded",
        "Failure"});
    for (const auto& version : store.fileVersions()) {
      const std::string size = std::to_string(version.size);
      BackupCSV::appendLine(files, {version.id, version.object, version.documentId, version.title,
                                    version.nameOnDisk, size, version.checksum,
                                    version.downloaded ? "true" : "false", version.failure});
    }
    Durable::replace(context.folder / "Files.csv", files);

    reportStep(BackupProgress::Step::writingLinks);
    // Each document's record, by id, object and name, so that every document
    // of a record can be found.
    std::string links = BackupCSV::line(std::vector<std::string>{
        "ContentDocumentId", "LinkedEntityId", "LinkedObject", "LinkedRecordName", "ShareType",
        "Visibility"});
    if (auto data = Durable::readWhole(context.folder / csvName("ContentDocumentLink"))) {
      int documentAt = -1;
      int entityAt = -1;
      int typeAt = -1;
      int nameAt = -1;
      int shareAt = -1;
      int visibilityAt = -1;
      BackupCSV::scan(
          *data,
          [&](const BackupCSV::Record& header) {
            documentAt = columnOf(header.fields, "ContentDocumentId");
            entityAt = columnOf(header.fields, "LinkedEntityId");
            typeAt = columnOf(header.fields, "LinkedEntity.Type");
            nameAt = columnOf(header.fields, "LinkedEntity.Name");
            shareAt = columnOf(header.fields, "ShareType");
            visibilityAt = columnOf(header.fields, "Visibility");
          },
          [&](const BackupCSV::Record& record) {
            if (documentAt < 0 || entityAt < 0) return false;
            const auto size = static_cast<int>(record.fields.size());
            auto field = [&](int at) { return at >= 0 && at < size ? record.fields[at] : ""; };
            if (std::max(documentAt, entityAt) < size)
              BackupCSV::appendLine(links, {record.fields[documentAt], record.fields[entityAt],
                                            field(typeAt), field(nameAt), field(shareAt),
                                            field(visibilityAt)});
            return true;
          });
    }
    Durable::replace(context.folder / "FileLinks.csv", links);

    reportStep(BackupProgress::Step::writingManifest);
    Manifest manifest;
    manifest.kind = context.kind;
    manifest.username = config_.location.username;
    manifest.startedAt = context.startedAt;
    manifest.finishedAt = finishedAt;
    manifest.result = result;
    manifest.message = message;
    manifest.objects = copied;
    manifest.files.salesforceTimeAtStart = context.serverNow;
    manifest.files.downloadedThisRun = context.filesDownloaded;
    manifest.files.waiting = context.filesWaiting;
    manifest.files.leftOutThisRun = context.filesGivenUp + context.filesRefused;
    {
      auto leftOutFiles = db.prepare(
          "SELECT COUNT(*) FROM file_versions WHERE skipped = 1 AND downloaded = 0 AND deleted = 0");
      manifest.files.leftOut = leftOutFiles.step() ? leftOutFiles.columnInt(0) : 0;
    }
    for (auto& given : FileDownload::givenUp(db))
      manifest.files.failed.push_back(
          {std::move(given.id), std::move(given.nameOnDisk), std::move(given.reason)});
    manifest.objectsLeftOut = leftOut;
    deletions.fill(manifest);
    manifest.write(context.folder);
    ReadMe::write(context.folder);
    folderWritten = true;
  } catch (const std::exception& error) {
    message += std::string(" Its own summary files could not be written (") + error.what() +
               ") so what is in its folder may be incomplete.";
  }

  const std::int64_t requests = context.transport->count();
  // A stopped run keeps its stage: the next run carries on from there.
  db.prepare(
        "UPDATE runs SET stage = CASE WHEN ? THEN stage ELSE 'done' END, finished_at = ?, "
        "result = ?, message = ?, records = ?, bytes = ?, api_requests = api_requests + ?, "
        "files = files + ?, files_waiting = ? WHERE id = ?")
      .bindInt(1, stopped ? 1 : 0)
      .bindText(2, finishedAt)
      .bindText(3, result)
      .bindText(4, message)
      .bindInt(5, records)
      .bindInt(6, bytes)
      .bindInt(7, requests)
      .bindInt(8, context.filesDownloaded)
      .bindInt(9, context.filesWaiting)
      .bindInt(10, context.runId)
      .run();

  db.prepare("UPDATE runs SET deleted = ? WHERE id = ?")
      .bindInt(1, deletions.deleted)
      .bindInt(2, context.runId)
      .run();
  // The next changes run asks from here only when this run's rows are safely
  // in a folder: a stopped, given-up or unwritten run leaves the watermarks.
  if ((result == RunResult::complete || result == RunResult::partial) && folderWritten) {
    db.exec("BEGIN IMMEDIATE");
    try {
      auto done = db.prepare(
          "SELECT object, watermark_field, fields FROM jobs WHERE run_id = ? AND purpose = "
          "'records' AND state = 'done' ORDER BY seq");
      done.bindInt(1, context.runId);
      while (done.step()) {
        const std::string object = done.columnText(0);
        const std::string field = done.columnText(1);
        const auto fields = listFrom(done.columnView(2));
        // Fields refused in this run or earlier, and still left out, stay left
        // out of the next run's plan; forgetting them would make the next plan
        // differ from this copy's fields and so copy the object whole again.
        std::vector<std::string> leftOut = context.refusedFields[object];
        if (auto earlier = store.objectState(object))
          for (const auto& refused : earlier->unsupportedFields)
            if (columnOf(fields, refused) < 0 && columnOf(leftOut, refused) < 0)
              leftOut.push_back(refused);
        store.storeWatermark(object, field, field.empty() ? "" : context.serverNow, fields);
        if (!leftOut.empty())
          store.recordUnsupported(object, leftOut, refusedFieldReason, context.serverNow);
      }
      if (context.kind == RunKind::full) store.setSetting(needsFullKey, "");
      db.exec("COMMIT");
    } catch (...) {
      db.exec("ROLLBACK");
      throw;
    }
  }
  // Older copies are tidied once this one is finished; a failure keeps them all.
  RetentionSweep::Outcome tidied;
  if (!stopped) {
    reportStep(BackupProgress::Step::tidyingOldBackups);
    try {
      tidied = RetentionSweep(config_.location).apply(store, config_.retention, context.runId);
      RetentionSweep::noteInManifest(context.folder, tidied);
    } catch (const std::exception&) {
    }
  }
  const auto run = store.run(context.runId);
  LastRun last;
  last.startedAt = context.startedAt;
  last.finishedAt = finishedAt;
  last.kind = toText(context.kind);
  last.result = result;
  last.message = message;
  last.records = records;
  last.deleted = deletions.deleted;
  last.unusualDeletions = deletions.unusual;
  last.bytes = bytes;
  last.folder = run ? run->folder : context.folder.filename().string();
  last.files = run ? run->files : context.filesDownloaded;
  last.filesWaiting = context.filesWaiting;
  last.removedBackups = tidied.removed;
  last.removedBytes = tidied.bytes;
  try {
    last.write(config_.location);
  } catch (const std::exception&) {
  }

  RunSummary summary;
  summary.runId = context.runId;
  summary.kind = context.kind;
  summary.folder = context.folder;
  summary.result = result;
  summary.message = message;
  summary.records = records;
  summary.deleted = deletions.deleted;
  summary.unusualDeletions = deletions.unusual;
  summary.removedBackups = tidied.removed;
  summary.removedBytes = tidied.bytes;
  summary.filesDownloaded = run ? run->files : context.filesDownloaded;
  summary.filesWaiting = context.filesWaiting;
  summary.apiRequests = run ? run->apiRequests : requests;
  return summary;
}

}  // namespace corvane

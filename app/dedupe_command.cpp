#include "app/dedupe_command.hpp"

#include <unistd.h>

#include <csignal>
#include <iostream>
#include <map>
#include <set>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "app/production_guard.hpp"
#include "connections/api_transport.hpp"
#include "dedupe/change_runner.hpp"
#include "dedupe/keeper_rules.hpp"
#include "dedupe/matcher.hpp"
#include "dedupe/resolution_preflight.hpp"
#include "dedupe/normalizer.hpp"
#include "dedupe/record_store.hpp"
#include "dedupe/snapshot_catalog.hpp"
#include "platform/volume_info.hpp"

namespace corvane {

DedupeCommandError DedupeCommandError::unknownRecord(const std::string& id) {
  return {Kind::unknownRecord,
          "The record " + id +
              " is not in this snapshot, so nothing was marked. Check the Id, or download a "
              "fresh copy if the record is new."};
}

DedupeCommandError DedupeCommandError::badMatchChoice(const std::string& choice) {
  return DedupeCommandError(
      Kind::badMatchChoice,
      "\"" + choice + "\" is not a match field. Write FIELD, FIELD:kind or FIELD:kind:mode, where "
                    "kind is text, personName, companyName, email or phone and mode is exact or close.");
}

DedupeCommandError DedupeCommandError::unknownField(const std::string& object,
                                                    const std::string& field) {
  return DedupeCommandError(Kind::unknownField, object + " has no field named \"" + field +
                                                    "\". Check the field's API name and try again.");
}

DedupeCommandError DedupeCommandError::noMatchFields() {
  return DedupeCommandError(Kind::noMatchFields,
                            "Choose at least one field to compare with --match, such as --match "
                            "Name,Email.");
}

DedupeCommandError DedupeCommandError::notASnapshot(const std::filesystem::path& path) {
  return DedupeCommandError(Kind::notASnapshot,
                            "\"" + path.string() + "\" is not a duplicate snapshot. List the "
                                                   "snapshots with: corvane dedupe snapshots LOGIN");
}

DedupeCommandError DedupeCommandError::otherLogin(const std::string& downloadedBy,
                                                  const std::string& login) {
  return DedupeCommandError(
      Kind::otherLogin, "This download was started by " + downloadedBy + ", not " + login +
                            ". A paused download continues only under the login that started "
                            "it; nothing was changed. Start a new download instead.");
}

DedupeCommandError DedupeCommandError::noLogin() {
  return DedupeCommandError(Kind::noLogin,
                            "This snapshot does not say which login made it. Name one with "
                            "--login to continue it.");
}

DedupeCommandError DedupeCommandError::badKeeperRule(const std::string& text) {
  return DedupeCommandError(Kind::badKeeperRule,
                            "\"" + text + "\" is not a keeper rule. Use oldest, newest, "
                                          "mostComplete or recentlyUpdated.");
}

DedupeCommandError DedupeCommandError::badAction(const std::string& text) {
  return DedupeCommandError(Kind::badAction,
                            "\"" + text + "\" is not an action. Use merge, deleteLosers, "
                                          "fillGaps, tag:FIELD or exportOnly.");
}

DedupeCommandError DedupeCommandError::signedOutPartWay(std::size_t done, std::size_t notDone) {
  return DedupeCommandError(
      Kind::signedOutPartWay,
      fmt::format("Salesforce signed you out part-way: {} change{} {} made, {} {} not. Log in "
                  "again, then download a fresh copy and apply again to finish.",
                  done, done == 1 ? "" : "s", done == 1 ? "was" : "were", notDone,
                  notDone == 1 ? "was" : "were"));
}

DedupeCommandError DedupeCommandError::notApplied(std::size_t failed, std::size_t unknown) {
  return DedupeCommandError(
      Kind::notApplied,
      fmt::format("{} change{} failed and {} may or may not have gone through; each is listed "
                  "above. Check those records in Salesforce, then download a fresh copy before "
                  "trying again.",
                  failed, failed == 1 ? "" : "s", unknown));
}

namespace DedupeCommand {

namespace {

bool sameName(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(a[i])) !=
        std::tolower(static_cast<unsigned char>(b[i]))) {
      return false;
    }
  }
  return true;
}

struct FieldDetail {
  std::string name;
  std::string label;
  std::string type;
};

struct ObjectDetail {
  std::string name;
  std::string label;
  std::string nameField = "Name";
  std::string nameFieldLabel = "Name";
  std::vector<FieldDetail> fields;

  const FieldDetail& field(const std::string& wanted) const {
    for (const FieldDetail& detail : fields) {
      if (sameName(detail.name, wanted)) return detail;
    }
    throw DedupeCommandError::unknownField(name, wanted);
  }
};

ObjectDetail describe(SalesforceAPI::Client& api, const Org& org, const std::string& object) {
  nlohmann::json json = api.describe(object, org);
  ObjectDetail detail;
  try {
    detail.name = json.at("name").get<std::string>();
    detail.label = json.value("label", detail.name);
    for (const auto& field : json.at("fields")) {
      FieldDetail f{field.at("name").get<std::string>(), field.value("label", ""),
                    field.value("type", "")};
      if (field.value("nameField", false)) {
        detail.nameField = f.name;
        detail.nameFieldLabel = f.label;
      }
      detail.fields.push_back(std::move(f));
    }
  } catch (const nlohmann::json::exception&) {
    throw DownloadError::unreadableReply();
  }
  return detail;
}

std::string orgIdOf(SalesforceAPI::Client& api, const Org& org) {
  if (org.orgId && !org.orgId->empty()) return *org.orgId;
  std::string id;
  api.queryStream("SELECT Id FROM Organization", org, [&id](SalesforceAPI::QueryPage page) {
    for (const auto& record : page.records) {
      const JSONLiteral* value = record.find("Id");
      if (value && value->asString()) id = *value->asString();
    }
    return false;
  });
  if (id.empty()) throw DownloadError::unreadableReply();
  return id;
}

std::string grouped(std::int64_t value) {
  std::string digits = std::to_string(value);
  std::string out;
  for (std::size_t i = 0; i < digits.size(); ++i) {
    if (i > 0 && (digits.size() - i) % 3 == 0 && digits[i - 1] != '-') out.push_back(',');
    out.push_back(digits[i]);
  }
  return out;
}

// Prints the phases: a bar that redraws in place on a terminal, one line per
// page elsewhere.
class ProgressPrinter {
 public:
  explicit ProgressPrinter(std::ostream& out)
      : out_(out), inPlace_(&out == &std::cout && ::isatty(STDOUT_FILENO) == 1) {}

  void operator()(const DownloadPhase& phase) {
    switch (phase.kind) {
      case DownloadPhase::Kind::preparing:
        if (phase.text != lastText_) line(phase.text, true);
        lastText_ = phase.text;
        break;
      case DownloadPhase::Kind::downloading: {
        constexpr int width = 30;
        double share = phase.total > 0 ? std::min(1.0, static_cast<double>(phase.done) /
                                                           static_cast<double>(phase.total))
                                       : 0.0;
        int filled = static_cast<int>(share * width);
        line(fmt::format("[{}{}] {:3.0f}%  {} of {} records, {} received", std::string(filled, '#'),
                         std::string(width - filled, '-'), share * 100, grouped(phase.done),
                         grouped(phase.total), byteCountText(phase.bytes)),
             false);
        break;
      }
      case DownloadPhase::Kind::finished:
      case DownloadPhase::Kind::paused:
        if (open_) out_ << '\n';
        open_ = false;
        break;
    }
  }

 private:
  void line(const std::string& text, bool final) {
    if (inPlace_ && !final) {
      out_ << '\r' << text << "\x1b[K" << std::flush;
      open_ = true;
      return;
    }
    if (open_) out_ << '\n';
    open_ = false;
    out_ << text << '\n' << std::flush;
  }

  std::ostream& out_;
  bool inPlace_;
  bool open_ = false;
  std::string lastText_;
};

BulkQueryRunner::Options runnerOptions(const DownloadOptions& options,
                                       const std::filesystem::path& snapshot) {
  BulkQueryRunner::Options runner = options.runner;
  if (!runner.freeSpace) {
    std::filesystem::path folder = snapshot.parent_path();
    runner.freeSpace = [folder]() -> std::optional<std::int64_t> {
      try {
        return static_cast<std::int64_t>(VolumeInfo::freeBytes(folder));
      } catch (const std::exception&) {
        return std::nullopt;
      }
    };
  }
  return runner;
}

void runDownload(CommandContext& context, SalesforceAPI::Client& api, const Org& org,
                 RecordStore& store, const std::vector<SnapshotDownloader::Request>& requests,
                 const DownloadOptions& options) {
  DedupeAPITransport transport(api, org);
  SnapshotDownloader downloader(transport, runnerOptions(options, store.url()));
  ProgressPrinter progress(context.out);
  const std::string resumeHint =
      "To continue: corvane dedupe resume \"" + store.url().string() + "\"";
  try {
    DownloadPhase result = downloader.download(
        requests, store, [&progress](const DownloadPhase& phase) { progress(phase); },
        options.shouldCancel);
    if (result.kind == DownloadPhase::Kind::paused) {
      context.out << downloadStoppedText << '\n' << resumeHint << '\n';
    } else {
      context.out << "Stored " << grouped(result.done) << " records in "
                  << store.url().string() << '\n';
    }
  } catch (const DownloadError& error) {
    if (error.kind() != DownloadError::Kind::jobExpired &&
        error.kind() != DownloadError::Kind::objectNotSupported &&
        error.kind() != DownloadError::Kind::jobFailed) {
      context.out << downloadStoppedText << '\n' << resumeHint << '\n';
    }
    throw;
  } catch (const UserFacingError&) {
    context.out << downloadStoppedText << '\n' << resumeHint << '\n';
    throw;
  }
}

}  // namespace

MatchChoice parseMatchChoice(const std::string& text) {
  MatchChoice choice;
  std::vector<std::string> parts;
  std::size_t start = 0;
  while (true) {
    std::size_t colon = text.find(':', start);
    parts.push_back(text.substr(start, colon == std::string::npos ? std::string::npos : colon - start));
    if (colon == std::string::npos) break;
    start = colon + 1;
  }
  if (parts.size() > 3 || parts[0].empty()) throw DedupeCommandError::badMatchChoice(text);
  choice.field = parts[0];
  if (parts.size() >= 2) {
    choice.kind = matchKindFromRaw(parts[1]);
    if (!choice.kind) throw DedupeCommandError::badMatchChoice(text);
  }
  if (parts.size() == 3) {
    choice.mode = matchModeFromRaw(parts[2]);
    if (!choice.mode) throw DedupeCommandError::badMatchChoice(text);
  }
  return choice;
}

std::filesystem::path download(CommandContext& context, SalesforceAPI::Client& api,
                               const std::string& login, const std::string& object,
                               const DownloadOptions& options) {
  if (options.match.empty()) throw DedupeCommandError::noMatchFields();
  auto orgs = context.cli.listOrgs(true, context.listTimeout);
  const Org& org = OrgsCommand::findLogin(orgs, login);
  ObjectDetail detail = describe(api, org, object);

  RecordStore::Creation creation;
  creation.orgId = orgIdOf(api, org);
  creation.objectName = detail.name;
  creation.objectLabel = detail.label;
  creation.nameFieldLabel = detail.nameFieldLabel;
  creation.downloadedBy = org.username;
  SnapshotDownloader::Request request;
  request.objectName = detail.name;
  request.nameField = detail.nameField;
  request.scope = options.scope;
  request.pageSize = options.pageSize;
  for (const MatchChoice& choice : options.match) {
    const FieldDetail& field = detail.field(choice.field);
    MatchKind kind = choice.kind.value_or(Normalizer::guessKind(field.name, field.type, detail.name));
    bool looseByDefault = kind == MatchKind::personName || kind == MatchKind::companyName;
    MatchMode mode = choice.mode.value_or(looseByDefault ? MatchMode::close : MatchMode::exact);
    creation.matchFields.push_back({field.name, field.label, kind, mode});
    request.matchFieldNames.push_back(field.name);
  }
  for (const std::string& name : options.extra) {
    const FieldDetail& field = detail.field(name);
    creation.extraFields.push_back(field.name);
    request.extraFieldNames.push_back(field.name);
  }

  std::filesystem::path url = SnapshotCatalog::newURL(creation.orgId, detail.name);
  auto store = RecordStore::create(url, creation);
  context.out << "Downloading " << detail.label << " records from " << org.username << " into "
              << url.string() << '\n';
  try {
    runDownload(context, api, org, *store, {request}, options);
  } catch (...) {
    // A download that never got a job leaves nothing worth keeping.
    bool empty = store->meta("jobId").value_or("").empty() && store->recordCount() == 0;
    store->close();
    if (empty) SnapshotCatalog::remove(url);
    throw;
  }
  return url;
}

std::filesystem::path resume(CommandContext& context, SalesforceAPI::Client& api,
                             const std::filesystem::path& snapshot, const std::string& login,
                             const DownloadOptions& options) {
  std::shared_ptr<RecordStore> store;
  try {
    store = RecordStore::open(snapshot);
  } catch (const SQLiteError&) {
    throw DedupeCommandError::notASnapshot(snapshot);
  }
  SnapshotInfo info = store->info();
  std::string chosen = login.empty() ? info.downloadedBy : login;
  if (chosen.empty()) throw DedupeCommandError::noLogin();
  auto orgs = context.cli.listOrgs(true, context.listTimeout);
  const Org& org = OrgsCommand::findLogin(orgs, chosen);
  if (!mayResume(snapshotOwner(info.downloadedBy, org.username))) {
    throw DedupeCommandError::otherLogin(info.downloadedBy, org.username);
  }
  if (info.complete) {
    context.out << "This snapshot is complete: " << grouped(info.recordCount) << " records.\n";
    return snapshot;
  }
  context.out << "Continuing the download of " << info.objectLabel << " after "
              << grouped(info.recordCount) << " records\n";
  runDownload(context, api, org, *store, SnapshotDownloader::requestsFor(*store), options);
  return snapshot;
}

void listSnapshots(CommandContext& context, SalesforceAPI::Client& api, const std::string& login) {
  auto orgs = context.cli.listOrgs(true, context.listTimeout);
  const Org& org = OrgsCommand::findLogin(orgs, login);
  std::string orgId = orgIdOf(api, org);
  auto snapshots = SnapshotCatalog::snapshots(orgId);
  if (snapshots.empty()) {
    context.out << "No snapshots for " << org.username << " yet.\n";
    return;
  }
  context.out << fmt::format("{:<20} {:>12} {:>12} {:<9} {:>10}  {:<20} {}\n", "Object", "Records",
                             "Expected", "State", "Size", "Downloaded", "File");
  for (const SnapshotInfo& info : snapshots) {
    context.out << fmt::format("{:<20} {:>12} {:>12} {:<9} {:>10}  {:<20} {}\n", info.objectName,
                               grouped(info.recordCount), grouped(info.totalExpected),
                               info.complete ? "complete" : "paused",
                               byteCountText(info.fileBytes), info.downloadedAt.substr(0, 19),
                               info.url.string());
  }
  context.out << "Together " << byteCountText(SnapshotCatalog::bytesUsed(orgId)) << '\n';
}

void remove(CommandContext& context, const std::filesystem::path& snapshot) {
  try {
    RecordStore::open(snapshot)->close();
  } catch (const SQLiteError&) {
    throw DedupeCommandError::notASnapshot(snapshot);
  }
  SnapshotCatalog::remove(snapshot);
  context.out << "Deleted " << snapshot.string() << '\n';
}

namespace {

std::shared_ptr<RecordStore> openSnapshot(const std::filesystem::path& snapshot) {
  try {
    return RecordStore::open(snapshot);
  } catch (const SQLiteError&) {
    throw DedupeCommandError::notASnapshot(snapshot);
  }
}

std::string why(const DuplicateGroup& group) {
  return group.weakestLink >= 1.0 ? "All matching fields are exactly the same."
                                   : "Matching fields are the same or very close.";
}

nlohmann::json statsJSON(const MatchStats& stats) {
  nlohmann::json fillers = nlohmann::json::array();
  for (const auto& values : stats.fillerValuesPerField) {
    nlohmann::json field = nlohmann::json::array();
    for (const ValueCount& value : values) field.push_back({{"value", value.value}, {"count", value.count}});
    fillers.push_back(std::move(field));
  }
  return {{"recordsScanned", stats.recordsScanned},
          {"skippedBlankPerField", stats.skippedBlankPerField},
          {"skippedFillerPerField", stats.skippedFillerPerField},
          {"fillerValuesPerField", fillers},
          {"skippedTotal", stats.skippedTotal},
          {"excludedByUser", stats.excludedByUser},
          {"groupCount", stats.groupCount},
          {"recordsInGroups", stats.recordsInGroups},
          {"largestGroup", stats.largestGroup},
          {"exactOnlyGroups", stats.exactOnlyGroups},
          {"comparisons", stats.comparisons},
          {"splitExamined", stats.splitExamined},
          {"splitPerformed", stats.splitPerformed},
          {"splitPieces", stats.splitPieces},
          {"splitTooBig", stats.splitTooBig},
          {"largestGroupBefore", stats.largestGroupBefore}};
}

}  // namespace

MatchOutcome match(CommandContext& context, const std::filesystem::path& snapshot,
                   const MatchOptions& options) {
  auto store = openSnapshot(snapshot);
  std::set<Rid> excluded;
  for (const auto& [rid, sfid] : store->exclusions()) excluded.insert(rid);
  Matcher::Progress progress;
  if (!options.json) progress = [&context](const std::string& text) { context.out << text << '\n'; };
  MatchOutcome outcome = Matcher::findDuplicates(*store, options.settings, excluded, progress, {});

  std::vector<Rid> grouped;
  for (const DuplicateGroup& group : outcome.groups) {
    grouped.insert(grouped.end(), group.members.begin(), group.members.end());
  }
  std::map<Rid, SnapshotRecord> records;
  for (SnapshotRecord& record : store->records(grouped)) records.emplace(record.rid, std::move(record));
  const std::vector<MatchField>& fields = store->matchFields();

  if (options.json) {
    nlohmann::json groups = nlohmann::json::array();
    for (const DuplicateGroup& group : outcome.groups) {
      nlohmann::json members = nlohmann::json::array();
      for (const Rid rid : group.members) {
        const SnapshotRecord& record = records[rid];
        nlohmann::json values = nlohmann::json::object();
        for (std::size_t f = 0; f < fields.size() && f < record.values.size(); ++f) {
          values[fields[f].name] = record.values[f];
        }
        members.push_back({{"rid", rid}, {"id", record.sfid}, {"name", record.name}, {"values", values}});
      }
      groups.push_back({{"id", group.id},
                        {"members", members},
                        {"weakestLink", group.weakestLink},
                        {"distinctCount", group.distinctCount},
                        {"fromSplit", group.fromSplit},
                        {"why", why(group)}});
    }
    context.out << nlohmann::json{{"groups", groups}, {"stats", statsJSON(outcome.stats)}}.dump(2)
                << '\n';
    return outcome;
  }

  for (const DuplicateGroup& group : outcome.groups) {
    context.out << fmt::format("Group {}: {} records, weakest link {:.4f}{}. {}\n", group.id,
                               group.members.size(), group.weakestLink,
                               group.fromSplit ? ", split from a larger group" : "", why(group));
    for (const Rid rid : group.members) {
      const SnapshotRecord& record = records[rid];
      std::string values;
      for (std::size_t f = 0; f < fields.size() && f < record.values.size(); ++f) {
        values += (f == 0 ? "" : " | ") + record.values[f];
      }
      context.out << fmt::format("  {}  {}  ({})\n", record.sfid, record.name, values);
    }
  }
  const MatchStats& stats = outcome.stats;
  context.out << fmt::format(
      "{} groups holding {} records (largest {}; {} exactly the same) among {} records; "
      "{} comparisons.\n",
      stats.groupCount, stats.recordsInGroups, stats.largestGroup, stats.exactOnlyGroups,
      stats.recordsScanned, stats.comparisons);
  for (std::size_t f = 0; f < fields.size(); ++f) {
    const std::int64_t blank = stats.skippedBlankPerField[f];
    const std::int64_t filler = stats.skippedFillerPerField[f];
    if (blank == 0 && filler == 0) continue;
    context.out << fmt::format("{}: {} blank, {} filler (\"we do not know\") values left out.\n",
                               fields[f].label, blank, filler);
  }
  if (stats.excludedByUser > 0) {
    context.out << fmt::format("{} records marked \"not a duplicate\" were left out.\n",
                               stats.excludedByUser);
  }
  if (stats.splitExamined > 0) {
    context.out << fmt::format(
        "{} large groups looked at again, {} split into {} pieces, {} too big to split "
        "(largest before: {}).\n",
        stats.splitExamined, stats.splitPerformed, stats.splitPieces, stats.splitTooBig,
        stats.largestGroupBefore);
  }
  return outcome;
}

void exclude(CommandContext& context, const std::filesystem::path& snapshot,
             const std::vector<std::string>& ids) {
  auto store = openSnapshot(snapshot);
  std::vector<std::pair<Rid, std::string>> marked;
  for (const std::string& id : ids) {
    std::optional<Rid> found;
    const std::vector<Rid> candidates = store->searchRids(id);
    for (const auto& [rid, sfid] : store->sfids(candidates)) {
      if (sfid == id) found = rid;
    }
    if (!found) throw DedupeCommandError::unknownRecord(id);
    marked.emplace_back(*found, id);
  }
  store->exclude(marked);
  context.out << fmt::format("Marked {} record{} \"not a duplicate\": {} will be left out of every "
                             "later match.\n",
                             marked.size(), marked.size() == 1 ? "" : "s",
                             marked.size() == 1 ? "it" : "they");
}

namespace {

struct ResolveSetting {
  std::shared_ptr<RecordStore> store;
  SnapshotInfo info;
  Org org;
  std::vector<ResolvedGroup> groups;
  ResolutionPlan plan;
};

std::map<std::string, std::vector<ResolutionPlanner::WritableField>> writableFields(
    SalesforceAPI::Client& api, const Org& org, const std::vector<std::string>& objects) {
  std::map<std::string, std::vector<ResolutionPlanner::WritableField>> out;
  for (const std::string& object : objects) {
    nlohmann::json json = api.describe(object, org);
    auto& fields = out[object];
    try {
      for (const auto& field : json.at("fields")) {
        if (!field.value("updateable", false)) continue;
        const std::string type = field.value("type", "");
        fields.push_back({field.at("name").get<std::string>(),
                          type == "string" || type == "textarea"});
      }
    } catch (const nlohmann::json::exception&) {
      throw DownloadError::unreadableReply();
    }
  }
  return out;
}

std::string recordText(const SnapshotRecord& record) {
  return record.name.empty() ? record.sfid : record.sfid + " (" + record.name + ")";
}

std::string valuesText(const std::map<std::string, std::string>& values) {
  std::string out;
  for (const auto& [field, value] : values) {
    out += (out.empty() ? "" : ", ") + field + " = \"" + value + "\"";
  }
  return out;
}

std::string actionText(const ResolutionAction& action) {
  switch (action.kind) {
    case ResolutionAction::Kind::merge: return "merge the other records into the kept one";
    case ResolutionAction::Kind::deleteLosers: return "delete the other records";
    case ResolutionAction::Kind::fillGaps:
      return "fill the kept record's empty fields from the others";
    case ResolutionAction::Kind::tagLosers:
      return "write the kept record's Id into " + action.fieldName + " of the others";
    case ResolutionAction::Kind::exportOnly: return "change nothing";
  }
  return "";
}

ResolveSetting buildPlan(CommandContext& context, SalesforceAPI::Client& api,
                         const std::filesystem::path& snapshot, const ResolveOptions& options,
                         bool needOrg) {
  ResolveSetting setting;
  setting.store = openSnapshot(snapshot);
  setting.info = setting.store->info();
  using Kind = ResolutionAction::Kind;
  const bool writes = options.action.kind == Kind::merge || options.action.kind == Kind::fillGaps ||
                      options.action.kind == Kind::tagLosers;
  if (needOrg || writes) {
    std::string chosen = options.login.empty() ? setting.info.downloadedBy : options.login;
    if (chosen.empty()) throw DedupeCommandError::noLogin();
    auto orgs = context.cli.listOrgs(true, context.listTimeout);
    setting.org = OrgsCommand::findLogin(orgs, chosen);
  }

  std::set<Rid> excluded;
  for (const auto& [rid, sfid] : setting.store->exclusions()) excluded.insert(rid);
  MatchOutcome outcome = Matcher::findDuplicates(*setting.store, options.settings, excluded, {}, {});
  setting.groups = ResolutionPlanner::resolve(*setting.store, outcome.groups, options.keeper);

  ResolutionPlanner::Context planning = ResolutionPlanner::contextFor(*setting.store);
  planning.includeHeldBack = options.includeHeldBack;
  if (writes) {
    std::vector<std::string> objects;
    for (const auto& object : planning.objects) objects.push_back(object.name);
    if (objects.empty()) objects.push_back(setting.info.objectName);
    planning.writableFields = writableFields(api, setting.org, objects);
  }
  setting.plan = ResolutionPlanner::plan(setting.groups, options.action, planning);
  return setting;
}

void printPlan(CommandContext& context, const ResolveSetting& setting,
               const ResolveOptions& options) {
  const ResolutionPlan& plan = setting.plan;
  std::map<std::int64_t, std::string> skipped(plan.skipped.begin(), plan.skipped.end());
  std::map<std::int64_t, int> heldBack(plan.heldBack.begin(), plan.heldBack.end());
  std::map<std::string, const SnapshotRecord*> bySfid;
  for (const ResolvedGroup& group : setting.groups) {
    for (const SnapshotRecord& record : group.records) bySfid[record.sfid] = &record;
  }
  auto named = [&bySfid](const std::string& sfid) {
    auto found = bySfid.find(sfid);
    return found == bySfid.end() ? sfid : recordText(*found->second);
  };

  if (options.json) {
    nlohmann::json groups = nlohmann::json::array();
    for (const ResolvedGroup& group : setting.groups) {
      nlohmann::json entry{{"id", group.group.id}, {"members", nlohmann::json::array()}};
      for (const SnapshotRecord& record : group.records) {
        entry["members"].push_back({{"id", record.sfid}, {"name", record.name}});
      }
      if (const SnapshotRecord* keeper = group.keeper()) {
        entry["keeper"] = keeper->sfid;
        entry["why"] = KeeperRules::why(*keeper, options.keeper, group.records.size());
      }
      if (auto found = skipped.find(group.group.id); found != skipped.end()) {
        entry["skipped"] = found->second;
      }
      if (auto found = heldBack.find(group.group.id); found != heldBack.end()) {
        entry["heldBack"] = found->second;
      }
      groups.push_back(std::move(entry));
    }
    auto changes = [](const std::vector<PlannedChange>& list) {
      nlohmann::json out = nlohmann::json::array();
      for (const PlannedChange& change : list) {
        out.push_back({{"id", change.sfid},
                       {"modified", change.modified},
                       {"groupId", change.groupId},
                       {"fields", change.fields},
                       {"object", change.object}});
      }
      return out;
    };
    nlohmann::json merges = nlohmann::json::array();
    for (const PlannedMerge& merge : plan.merges) {
      merges.push_back({{"primary", merge.primary},
                        {"primaryModified", merge.primaryModified},
                        {"loser", merge.loser},
                        {"loserModified", merge.loserModified},
                        {"groupId", merge.groupId},
                        {"fieldValues", merge.fieldValues},
                        {"object", merge.object}});
    }
    nlohmann::json skippedJSON = nlohmann::json::array();
    for (const auto& [id, reason] : plan.skipped) skippedJSON.push_back({{"groupId", id}, {"reason", reason}});
    nlohmann::json heldJSON = nlohmann::json::array();
    for (const auto& [id, count] : plan.heldBack) heldJSON.push_back({{"groupId", id}, {"distinctCount", count}});
    context.out << nlohmann::json{{"action", plan.action.text()},
                                  {"keeper", std::string(rawValue(options.keeper))},
                                  {"groupCount", plan.groupCount},
                                  {"groups", groups},
                                  {"merges", merges},
                                  {"deletes", changes(plan.deletes)},
                                  {"updates", changes(plan.updates)},
                                  {"skipped", skippedJSON},
                                  {"heldBack", heldJSON},
                                  {"heldBackIncluded", plan.heldBackIncluded}}
                       .dump(2)
                << '\n';
    return;
  }

  context.out << fmt::format("Plan for {} {} records: {}. {}\n", setting.info.recordCount,
                             setting.info.objectLabel, actionText(plan.action),
                             KeeperRules::label(options.keeper));
  for (const ResolvedGroup& group : setting.groups) {
    const std::int64_t id = group.group.id;
    if (auto found = skipped.find(id); found != skipped.end()) {
      context.out << fmt::format("Group {} ({} records) skipped: {}\n", id, group.records.size(),
                                 found->second);
      continue;
    }
    const SnapshotRecord* keeper = group.keeper();
    context.out << fmt::format("Group {} ({} records): keep {}. {}.\n", id, group.records.size(),
                               recordText(*keeper),
                               KeeperRules::why(*keeper, options.keeper, group.records.size()));
    if (auto found = heldBack.find(id); found != heldBack.end()) {
      context.out << fmt::format(
          "  Held back: {} of its records differ from all the others. {}\n", found->second,
          plan.heldBackIncluded ? "Included, as you asked."
                                : "Look at it, then add --include-held-back to resolve it too.");
      if (!plan.heldBackIncluded) continue;
    }
    for (const PlannedMerge& merge : plan.merges) {
      if (merge.groupId != id) continue;
      context.out << "  merge " << named(merge.loser) << " into it";
      if (!merge.fieldValues.empty()) context.out << ", setting " << valuesText(merge.fieldValues);
      context.out << '\n';
    }
    for (const PlannedChange& change : plan.deletes) {
      if (change.groupId == id) context.out << "  delete " << named(change.sfid) << '\n';
    }
    for (const PlannedChange& change : plan.updates) {
      if (change.groupId == id) {
        context.out << "  update " << named(change.sfid) << ": " << valuesText(change.fields)
                    << '\n';
      }
    }
  }
  context.out << fmt::format(
      "{} groups: {} to resolve ({} merges, {} deletes, {} updates), {} skipped, {} held back.\n",
      setting.groups.size(), plan.groupCount, plan.merges.size(), plan.deletes.size(),
      plan.updates.size(), plan.skipped.size(), plan.heldBack.size());
}

}  // namespace

ResolutionPlan plan(CommandContext& context, SalesforceAPI::Client& api,
                    const std::filesystem::path& snapshot, const ResolveOptions& options) {
  ResolveSetting setting = buildPlan(context, api, snapshot, options, false);
  printPlan(context, setting, options);
  return setting.plan;
}

void apply(CommandContext& context, SalesforceAPI::Client& api,
           const std::filesystem::path& snapshot, const ResolveOptions& options) {
  ResolveOptions quiet = options;
  quiet.json = false;
  ResolveSetting setting = buildPlan(context, api, snapshot, quiet, true);
  printPlan(context, setting, quiet);
  const ResolutionPlan& plan = setting.plan;
  using Kind = ResolutionAction::Kind;
  if (plan.action.kind == Kind::exportOnly) {
    context.out << "This action changes nothing in Salesforce.\n";
    return;
  }
  if (plan.merges.empty() && plan.deletes.empty() && plan.updates.empty()) {
    context.out << "Nothing to change.\n";
    return;
  }

  DedupeAPITransport transport(api, setting.org);
  ResolutionPreflight preflight(transport);
  context.out << "Checking the records in Salesforce\u2026\n";
  ResolutionPreflight::Outcome checked = preflight.check(ResolutionPreflight::recordsOf(plan));
  if (!checked.allFresh()) {
    for (const PlannedChange& change : checked.changed) {
      context.out << "  " << change.sfid << " was changed in Salesforce after the snapshot.\n";
    }
    for (const PlannedChange& change : checked.missing) {
      context.out << "  " << change.sfid << " is no longer in Salesforce.\n";
    }
    throw PreflightError::recordsChanged();
  }
  context.out << fmt::format("All {} records are as they were in the snapshot.\n",
                             checked.fresh.size());
  if (options.dryRun) {
    context.out << "Dry run: nothing was changed.\n";
    return;
  }
  ProductionGuard::confirm(setting.org,
                           fmt::format("make {} merges, {} deletes and {} updates of {} records",
                                       plan.merges.size(), plan.deletes.size(),
                                       plan.updates.size(), setting.info.objectName),
                           context.out);

  std::size_t done = 0;
  std::size_t failed = 0;
  std::size_t unknown = 0;
  std::size_t notDone = 0;
  bool signedOut = false;
  if (plan.action.kind == Kind::merge) {
    MergeRunner::Options runnerOptions;
    runnerOptions.lockPause = options.lockPause;
    runnerOptions.lockAttempts = options.lockAttempts;
    MergeRunner runner(transport, setting.info.objectName, runnerOptions);
    for (const MergeRunner::MergeResult& result : runner.run(plan.merges, options.progress)) {
      using Status = MergeRunner::MergeResult::Status;
      const PlannedMerge& merge = plan.merges[result.index];
      std::string what = merge.loser + " into " + merge.primary + " (group " +
                         std::to_string(merge.groupId) + ")";
      switch (result.status) {
        case Status::merged:
          ++done;
          context.out << "Merged " << what << '\n';
          break;
        case Status::failed:
          ++failed;
          context.out << "Failed " << what << ": " << result.message.value_or("") << '\n';
          break;
        case Status::unknown:
          ++unknown;
          context.out << "Unknown " << what << ": " << result.message.value_or("") << '\n';
          break;
        case Status::skipped:
        case Status::notAttempted:
          ++notDone;
          context.out << "Not merged " << what << ": " << result.message.value_or("") << '\n';
          break;
      }
    }
    signedOut = runner.signedOut();
  } else {
    ChangeRunner::Options runnerOptions;
    runnerOptions.lockPause = options.lockPause;
    runnerOptions.lockAttempts = options.lockAttempts;
    ChangeRunner runner(transport, runnerOptions);
    const bool deleting = plan.action.kind == Kind::deleteLosers;
    const std::string verb = deleting ? "Deleted " : "Updated ";
    auto results = deleting ? runner.deleteRecords(plan.deletes, options.progress)
                            : runner.updateRecords(plan.updates, options.progress);
    for (const ChangeRunner::ChangeResult& result : results) {
      using Status = ChangeRunner::ChangeResult::Status;
      std::string what = result.sfid + " (group " + std::to_string(result.groupId) + ")";
      switch (result.status) {
        case Status::done:
          ++done;
          context.out << verb << what << '\n';
          break;
        case Status::failed:
          ++failed;
          context.out << "Failed " << what << ": " << result.message.value_or("") << '\n';
          break;
        case Status::unknown:
          ++unknown;
          context.out << "Unknown " << what << ": " << result.message.value_or("") << '\n';
          break;
        case Status::notAttempted:
          ++notDone;
          context.out << "Not " << (deleting ? "deleted " : "updated ") << what << ": "
                      << result.message.value_or("") << '\n';
          break;
      }
    }
    signedOut = runner.signedOut();
  }
  context.out << fmt::format("{} done, {} failed, {} to check in Salesforce, {} not done.\n", done,
                             failed, unknown, notDone);
  if (signedOut) throw DedupeCommandError::signedOutPartWay(done, notDone);
  if (failed > 0 || unknown > 0) throw DedupeCommandError::notApplied(failed, unknown);
}

namespace {

std::atomic<bool> pauseRequested{false};

extern "C" void requestPause(int) { pauseRequested.store(true); }

// Ctrl-C pauses the download instead of killing it, while it lasts.
class PauseOnInterrupt {
 public:
  PauseOnInterrupt() {
    pauseRequested.store(false);
    previous_ = std::signal(SIGINT, requestPause);
  }
  ~PauseOnInterrupt() { std::signal(SIGINT, previous_); }
  PauseOnInterrupt(const PauseOnInterrupt&) = delete;
  PauseOnInterrupt& operator=(const PauseOnInterrupt&) = delete;

 private:
  void (*previous_)(int);
};

std::vector<std::string> splitList(const std::vector<std::string>& items) {
  std::vector<std::string> out;
  for (const std::string& item : items) {
    std::size_t start = 0;
    while (start <= item.size()) {
      std::size_t comma = item.find(',', start);
      if (comma == std::string::npos) comma = item.size();
      std::string piece = item.substr(start, comma - start);
      if (!piece.empty()) out.push_back(piece);
      start = comma + 1;
    }
  }
  return out;
}

}  // namespace

void add(CLI::App& app, CommandContext& context, std::function<void()>& chosen) {
  CLI::App* dedupe = app.add_subcommand("dedupe", "Download records into duplicate snapshots");
  dedupe->require_subcommand(1);
  auto makeClient = [&context] {
    return std::make_shared<SalesforceAPI::Client>(
        [&context](const std::string& username) { return context.cli.session(username); });
  };

  struct DownloadArguments {
    std::string login;
    std::string object;
    std::vector<std::string> match;
    std::vector<std::string> extra;
    std::string scope;
    int pageSize = 50'000;
  };
  auto args = std::make_shared<DownloadArguments>();
  CLI::App* downloadCommand = dedupe->add_subcommand(
      "download", "Download an object's records into a new snapshot through a Bulk API job");
  downloadCommand->add_option("LOGIN", args->login, "A username or alias")->required();
  downloadCommand->add_option("OBJECT", args->object, "The object's API name, such as Contact")
      ->required();
  downloadCommand
      ->add_option("--match", args->match,
                   "Fields to compare: FIELD[:kind[:mode]],... (kind: text, personName, "
                   "companyName, email, phone; mode: exact, close)")
      ->required();
  downloadCommand->add_option("--extra", args->extra, "Further fields to keep: FIELD,...");
  downloadCommand->add_option("--scope", args->scope, "A SOQL condition, such as \"IsDeleted = false\"");
  downloadCommand->add_option("--page-size", args->pageSize, "Records per result page")
      ->check(CLI::Range(1, 1'000'000));
  downloadCommand->callback([&context, &chosen, args, makeClient] {
    chosen = [&context, args, makeClient] {
      DownloadOptions options;
      for (const std::string& choice : splitList(args->match)) {
        options.match.push_back(parseMatchChoice(choice));
      }
      options.extra = splitList(args->extra);
      if (!args->scope.empty()) options.scope = args->scope;
      options.pageSize = args->pageSize;
      options.shouldCancel = [] { return pauseRequested.load(); };
      PauseOnInterrupt pause;
      auto api = makeClient();
      download(context, *api, args->login, args->object, options);
    };
  });

  auto snapshot = std::make_shared<std::string>();
  auto resumeLogin = std::make_shared<std::string>();
  CLI::App* resumeCommand =
      dedupe->add_subcommand("resume", "Continue a paused download where it stopped");
  resumeCommand->add_option("SNAPSHOT", *snapshot, "The snapshot file")->required();
  resumeCommand->add_option("--login", *resumeLogin, "The login to continue with (default: the one that started it)");
  resumeCommand->callback([&context, &chosen, snapshot, resumeLogin, makeClient] {
    chosen = [&context, snapshot, resumeLogin, makeClient] {
      DownloadOptions options;
      options.shouldCancel = [] { return pauseRequested.load(); };
      PauseOnInterrupt pause;
      auto api = makeClient();
      resume(context, *api, *snapshot, *resumeLogin, options);
    };
  });

  auto listLogin = std::make_shared<std::string>();
  CLI::App* listCommand =
      dedupe->add_subcommand("snapshots", "List a login's snapshots with counts, state and size");
  listCommand->add_option("LOGIN", *listLogin, "A username or alias")->required();
  listCommand->callback([&context, &chosen, listLogin, makeClient] {
    chosen = [&context, listLogin, makeClient] {
      auto api = makeClient();
      listSnapshots(context, *api, *listLogin);
    };
  });

  struct MatchArguments {
    std::string snapshot;
    std::string strictness = "normal";
    int window = defaultWindow;
    bool noSplit = false;
    bool json = false;
  };
  auto matchArgs = std::make_shared<MatchArguments>();
  CLI::App* matchCommand =
      dedupe->add_subcommand("match", "Find the duplicate groups in a snapshot");
  matchCommand->add_option("SNAPSHOT", matchArgs->snapshot, "The snapshot file")->required();
  matchCommand->add_option("--strictness", matchArgs->strictness, "strict, normal or loose")
      ->check(CLI::IsMember({"strict", "normal", "loose"}));
  matchCommand->add_option("--window", matchArgs->window,
                           "Neighbours each record is compared with in every sorted pass")
      ->check(CLI::Range(1, 1000));
  matchCommand->add_flag("--no-split", matchArgs->noSplit, "Keep large groups whole");
  matchCommand->add_flag("--json", matchArgs->json, "Print the groups and statistics as JSON");
  matchCommand->callback([&context, &chosen, matchArgs] {
    chosen = [&context, matchArgs] {
      MatchOptions options;
      options.settings.strictness =
          strictnessFromRaw(matchArgs->strictness).value_or(Strictness::normal);
      options.settings.window = matchArgs->window;
      options.settings.split.enabled = !matchArgs->noSplit;
      options.json = matchArgs->json;
      match(context, matchArgs->snapshot, options);
    };
  });

  auto excludeSnapshot = std::make_shared<std::string>();
  auto excludeIds = std::make_shared<std::vector<std::string>>();
  CLI::App* excludeCommand = dedupe->add_subcommand(
      "exclude", "Mark records \"not a duplicate\" so that no later match groups them");
  excludeCommand->add_option("SNAPSHOT", *excludeSnapshot, "The snapshot file")->required();
  excludeCommand->add_option("ID", *excludeIds, "Salesforce record Ids")->required();
  excludeCommand->callback([&context, &chosen, excludeSnapshot, excludeIds] {
    chosen = [&context, excludeSnapshot, excludeIds] {
      exclude(context, *excludeSnapshot, *excludeIds);
    };
  });

  struct ResolveArguments {
    std::string snapshot;
    std::string keeper = "oldest";
    std::string action = "merge";
    std::string strictness = "normal";
    int window = defaultWindow;
    bool noSplit = false;
    bool includeHeldBack = false;
    bool json = false;
    bool dryRun = false;
    std::string login;

    ResolveOptions options() const {
      ResolveOptions out;
      auto rule = keeperRuleFromRaw(keeper);
      if (!rule) throw DedupeCommandError::badKeeperRule(keeper);
      auto chosenAction = ResolutionAction::fromText(action);
      if (!chosenAction) throw DedupeCommandError::badAction(action);
      out.keeper = *rule;
      out.action = *chosenAction;
      out.settings.strictness = strictnessFromRaw(strictness).value_or(Strictness::normal);
      out.settings.window = window;
      out.settings.split.enabled = !noSplit;
      out.includeHeldBack = includeHeldBack;
      out.json = json;
      out.dryRun = dryRun;
      out.login = login;
      return out;
    }
  };
  auto addResolveOptions = [](CLI::App* command, ResolveArguments& arguments) {
    command->add_option("SNAPSHOT", arguments.snapshot, "The snapshot file")->required();
    command->add_option("--keeper", arguments.keeper,
                        "Which record stays: oldest, newest, mostComplete or recentlyUpdated");
    command->add_option("--action", arguments.action,
                        "merge, deleteLosers, fillGaps, tag:FIELD or exportOnly");
    command->add_option("--strictness", arguments.strictness, "strict, normal or loose")
        ->check(CLI::IsMember({"strict", "normal", "loose"}));
    command->add_option("--window", arguments.window,
                        "Neighbours each record is compared with in every sorted pass")
        ->check(CLI::Range(1, 1000));
    command->add_flag("--no-split", arguments.noSplit, "Keep large groups whole");
    command->add_flag("--include-held-back", arguments.includeHeldBack,
                      "Also resolve groups whose records are not all near-identical");
    command->add_option("--login", arguments.login,
                        "The login to use (default: the one that made the snapshot)");
  };

  auto planArgs = std::make_shared<ResolveArguments>();
  CLI::App* planCommand = dedupe->add_subcommand(
      "plan", "Show what resolving the duplicate groups would change, and the groups skipped");
  addResolveOptions(planCommand, *planArgs);
  planCommand->add_flag("--json", planArgs->json, "Print the plan as JSON");
  planCommand->callback([&context, &chosen, planArgs, makeClient] {
    chosen = [&context, planArgs, makeClient] {
      ResolveOptions options = planArgs->options();
      auto api = makeClient();
      plan(context, *api, planArgs->snapshot, options);
    };
  });

  auto applyArgs = std::make_shared<ResolveArguments>();
  CLI::App* applyCommand = dedupe->add_subcommand(
      "apply", "Check the records in Salesforce, then merge or delete the duplicates");
  addResolveOptions(applyCommand, *applyArgs);
  applyCommand->add_flag("--dry-run", applyArgs->dryRun, "Plan and check only; change nothing");
  applyCommand->callback([&context, &chosen, applyArgs, makeClient] {
    chosen = [&context, applyArgs, makeClient] {
      ResolveOptions options = applyArgs->options();
      auto api = makeClient();
      apply(context, *api, applyArgs->snapshot, options);
    };
  });

  auto deleted = std::make_shared<std::string>();
  CLI::App* deleteCommand =
      dedupe->add_subcommand("delete", "Delete a snapshot file with its companions");
  deleteCommand->add_option("SNAPSHOT", *deleted, "The snapshot file")->required();
  deleteCommand->callback([&context, &chosen, deleted] {
    chosen = [&context, deleted] { remove(context, *deleted); };
  });
}

}  // namespace DedupeCommand

}  // namespace corvane

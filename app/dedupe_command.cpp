#include "app/dedupe_command.hpp"

#include <unistd.h>

#include <csignal>
#include <iostream>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "connections/api_transport.hpp"
#include "dedupe/normalizer.hpp"
#include "dedupe/record_store.hpp"
#include "dedupe/snapshot_catalog.hpp"
#include "platform/volume_info.hpp"

namespace corvane {

DedupeCommandError DedupeCommandError::badMatchSpec(const std::string& spec) {
  return DedupeCommandError(
      Kind::badMatchSpec,
      "\"" + spec + "\" is not a match field. Write FIELD, FIELD:kind or FIELD:kind:mode, where "
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

MatchSpec parseMatchSpec(const std::string& text) {
  MatchSpec spec;
  std::vector<std::string> parts;
  std::size_t start = 0;
  while (true) {
    std::size_t colon = text.find(':', start);
    parts.push_back(text.substr(start, colon == std::string::npos ? std::string::npos : colon - start));
    if (colon == std::string::npos) break;
    start = colon + 1;
  }
  if (parts.size() > 3 || parts[0].empty()) throw DedupeCommandError::badMatchSpec(text);
  spec.field = parts[0];
  if (parts.size() >= 2) {
    spec.kind = matchKindFromRaw(parts[1]);
    if (!spec.kind) throw DedupeCommandError::badMatchSpec(text);
  }
  if (parts.size() == 3) {
    spec.mode = matchModeFromRaw(parts[2]);
    if (!spec.mode) throw DedupeCommandError::badMatchSpec(text);
  }
  return spec;
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
  for (const MatchSpec& spec : options.match) {
    const FieldDetail& field = detail.field(spec.field);
    MatchKind kind = spec.kind.value_or(Normalizer::guessKind(field.name, field.type, detail.name));
    bool looseByDefault = kind == MatchKind::personName || kind == MatchKind::companyName;
    MatchMode mode = spec.mode.value_or(looseByDefault ? MatchMode::close : MatchMode::exact);
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
      for (const std::string& spec : splitList(args->match)) {
        options.match.push_back(parseMatchSpec(spec));
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

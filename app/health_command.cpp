#include "app/health_command.hpp"

#include <CLI/CLI.hpp>

#include "connections/cli_error.hpp"
#include "health/email_domains.hpp"
#include "health/health_error.hpp"
#include "health/limits_report.hpp"
#include "health/release_updates.hpp"
#include "health/text_table.hpp"
#include "platform/app_support.hpp"
#include "platform/durable_file.hpp"

namespace corvane::HealthCommand {

namespace {

using nlohmann::json;

struct Login {
  Org org;
  std::string target;
};

Login resolve(CommandContext& context, const std::string& login) {
  auto orgs = context.cli.listOrgs(true, context.listTimeout);
  const Org& org = OrgsCommand::findLogin(orgs, login);
  auto target = SalesforceCLI::target(org);
  if (!target) throw CLIError::failed("This org has no alias or username.");
  return {org, *target};
}

bool wantsCSV(const Output& output) {
  return output.format == Format::csv || (output.file && output.file->extension() == ".csv");
}

// Writes the text where the output goes: the file (replaced atomically) or standard output.
void emit(CommandContext& context, const Output& output, const std::string& text) {
  if (output.file) {
    Durable::replace(*output.file, text, 0600);
    context.out << "Wrote " << output.file->string() << ".\n";
  } else {
    context.out << text;
  }
  context.out.flush();
}

// JSON, CSV (where the list has a CSV form) or the table, as asked.
void emitAs(CommandContext& context, const Output& output, const std::function<json()>& asJSON,
            const std::function<std::string()>& asTable,
            const std::function<std::string()>& asCSV = nullptr) {
  if (output.format == Format::json) return emit(context, output, asJSON().dump(2) + "\n");
  if (asCSV && wantsCSV(output)) return emit(context, output, asCSV());
  emit(context, output, asTable());
}

std::string metadataCSV(const std::vector<json>& items) {
  std::string out = TextTable::csvRow({"type", "fullName", "fileName", "lastModifiedByName",
                                       "lastModifiedDate", "manageableState"});
  for (const auto& item : items) {
    auto field = [&](const char* key) { return item.value(key, std::string()); };
    out += TextTable::csvRow({field("type"), field("fullName"), field("fileName"),
                              field("lastModifiedByName"), field("lastModifiedDate"),
                              field("manageableState")});
  }
  return out;
}

std::string metadataTable(const std::vector<json>& items, const std::string& type) {
  if (items.empty()) {
    return "The org has no " + type + " components, or the Salesforce CLI could not list them.\n";
  }
  std::vector<std::vector<std::string>> rows;
  for (const auto& item : items) {
    rows.push_back({item.value("fullName", ""), item.value("lastModifiedByName", ""),
                    item.value("lastModifiedDate", ""), item.value("fileName", "")});
  }
  return TextTable::render({"Name", "Last modified by", "Last modified", "File"}, rows) +
         std::to_string(items.size()) + " " + type +
         (items.size() == 1 ? " component.\n" : " components.\n");
}

std::string statusURL() {
  if (const char* env = std::getenv("CORVANE_STATUS_URL"); env != nullptr && *env != '\0') {
    return env;
  }
  return Settings::string("statusServiceURL").value_or(StatusService::kDefaultURL);
}

}  // namespace

void limits(CommandContext& context, const std::string& login, const Output& output) {
  Login resolved = resolve(context, login);
  auto usages = LimitsReport::read(context.cli.limits(resolved.target));
  emitAs(
      context, output, [&] { return LimitsReport::toJSON(usages); },
      [&] { return LimitsReport::table(usages); }, [&] { return LimitsReport::csv(usages); });
}

void audit(CommandContext& context, const std::string& login, const AuditFilter& filter,
           const Output& output) {
  const auto predicate = AuditTrail::predicate(filter);
  Login resolved = resolve(context, login);
  auto entries = AuditTrail::entries(context.cli.auditTrail(resolved.target, predicate));
  emitAs(
      context, output, [&] { return AuditTrail::toJSON(entries); },
      [&] { return AuditTrail::table(entries); }, [&] { return AuditTrail::csv(entries); });
}

void metadata(CommandContext& context, const std::string& login,
              const std::optional<std::string>& type, const Output& output) {
  Login resolved = resolve(context, login);
  if (!type) {
    auto names = context.cli.metadataTypeNames(resolved.target);
    std::sort(names.begin(), names.end());
    emitAs(
        context, output, [&] { return json(names); },
        [&] {
          std::string out;
          for (const auto& name : names) out += name + "\n";
          return out + std::to_string(names.size()) + " metadata types.\n";
        },
        [&] {
          std::string out = TextTable::csvRow({"xmlName"});
          for (const auto& name : names) out += TextTable::csvRow({name});
          return out;
        });
    return;
  }
  auto items = context.cli.listMetadata(resolved.target, *type);
  std::sort(items.begin(), items.end(), [](const json& a, const json& b) {
    return a.value("fullName", "") < b.value("fullName", "");
  });
  emitAs(
      context, output, [&] { return json(items); }, [&] { return metadataTable(items, *type); },
      [&] { return metadataCSV(items); });
}

void retrieve(CommandContext& context, const std::string& login,
              const std::vector<std::string>& components, const std::filesystem::path& to,
              const Output& output) {
  if (components.empty()) throw CLIError::failed("No components selected.");
  Login resolved = resolve(context, login);
  const std::filesystem::path root = std::filesystem::absolute(to);
  json result = context.cli.retrieve(resolved.target, components, root);
  const json files =
      result.contains("files") && result["files"].is_array() ? result["files"] : json::array();
  emitAs(
      context, output, [&] { return result; },
      [&] {
        std::vector<std::vector<std::string>> rows;
        for (const auto& file : files) {
          rows.push_back({file.value("type", ""), file.value("fullName", ""),
                          file.value("state", ""), file.value("filePath", "")});
        }
        std::string out = TextTable::render({"Type", "Name", "State", "File"}, rows);
        if (result.contains("messages") && result["messages"].is_array()) {
          for (const auto& message : result["messages"]) {
            out += "Not retrieved: " + message.value("problem", "") + "\n";
          }
        }
        return out + std::to_string(files.size()) + " files retrieved into " +
               (root / "force-app").string() + ".\n";
      });
}

void instance(CommandContext& context, const std::string& login,
              const std::optional<std::string>& key, const StatusService::Options& options,
              const Output& output) {
  std::string instanceKey;
  if (key && !key->empty()) {
    instanceKey = *key;
  } else {
    Login resolved = resolve(context, login);
    auto name = resolved.org.instanceName;
    if (!name || name->empty()) throw HealthError::noInstance(login);
    instanceKey = *name;
  }
  StatusService service(options);
  InstanceStatus status = service.instance(instanceKey);
  emitAs(
      context, output, [&] { return StatusService::toJSON(status); },
      [&] { return StatusService::table(status); });
}

void statusToken(CommandContext& context, std::istream& in, bool clear) {
  if (clear) {
    StatusToken::clear();
    context.out << "The status service's personal access token is removed.\n";
    return;
  }
  std::string token;
  std::getline(in, token);
  StatusToken::save(token);
  context.out << (StatusToken::load() ? "The personal access token is saved.\n"
                                      : "No token was given; none is saved.\n");
}

void emailDomains(CommandContext& context, const std::vector<std::string>& domains,
                  const std::vector<std::string>& selectors, const TXTResolver::Options& options,
                  const Output& output) {
  TXTResolver resolver(options);
  auto checks = EmailDomains::check(resolver, domains, selectors);
  emitAs(
      context, output, [&] { return EmailDomains::toJSON(checks); },
      [&] {
        std::string out = EmailDomains::table(checks);
        if (selectors.empty()) {
          out +=
              "\nNo DKIM selector given: add --selector with the selectors shown in Setup, "
              "DKIM Keys, to check the keys too.\n";
        }
        return out;
      });
}

void releaseUpdates(CommandContext& context, SalesforceAPI::Client& api, const std::string& login,
                    const Output& output) {
  Login resolved = resolve(context, login);
  std::vector<json> records;
  try {
    records = api.toolingQuery(ReleaseUpdates::kQuery, resolved.org);
  } catch (const SalesforceAPI::APIError& error) {
    // An org (or API version) without the object answers INVALID_TYPE; say so rather than guess.
    if (error.kind() == SalesforceAPI::APIError::Kind::http &&
        (error.status() == 400 || error.status() == 404)) {
      throw HealthError::releaseUpdatesHidden(error.message());
    }
    throw;
  }
  auto updates = ReleaseUpdates::read(records);
  emitAs(
      context, output, [&] { return ReleaseUpdates::toJSON(updates); },
      [&] { return ReleaseUpdates::table(updates); });
}

void add(CLI::App& app, CommandContext& context, std::function<void()>& chosen) {
  CLI::App* health = app.add_subcommand("health", "Check an org's health");
  health->require_subcommand(1);

  struct Options {
    std::string login;
    bool json = false;
    bool csv = false;
    std::string file;
    Output output() const {
      Output o;
      o.format = json ? Format::json : (csv ? Format::csv : Format::table);
      if (!file.empty()) o.file = file;
      return o;
    }
  };
  auto common = [](CLI::App* command, Options& options, bool login, bool csv) {
    if (login) command->add_option("LOGIN", options.login, "A username or alias")->required();
    command->add_flag("--json", options.json, "Print JSON");
    if (csv) {
      command->add_flag("--csv", options.csv, "Print CSV");
      command->add_option("-o,--output", options.file,
                          "Write to this file instead (CSV when it ends in .csv)");
    }
  };

  {
    auto options = std::make_shared<Options>();
    CLI::App* command =
        health->add_subcommand("limits", "Every limit with its share used, highest first");
    common(command, *options, true, true);
    command->callback([&context, &chosen, options] {
      chosen = [&context, options] { limits(context, options->login, options->output()); };
    });
  }
  {
    auto options = std::make_shared<Options>();
    auto since = std::make_shared<std::string>();
    auto user = std::make_shared<std::string>();
    auto section = std::make_shared<std::string>();
    CLI::App* command = health->add_subcommand("audit", "The setup audit trail, newest first");
    common(command, *options, true, true);
    command->add_option("--since", *since, "From this date (YYYY-MM-DD) or time on");
    command->add_option("--user", *user, "Changes by users whose name contains this");
    command->add_option("--section", *section, "Changes in sections whose name contains this");
    command->callback([&context, &chosen, options, since, user, section] {
      chosen = [&context, options, since, user, section] {
        AuditFilter filter;
        if (!since->empty()) filter.since = AuditTrail::parseSince(*since);
        if (!user->empty()) filter.user = *user;
        if (!section->empty()) filter.section = *section;
        audit(context, options->login, filter, options->output());
      };
    });
  }
  {
    auto options = std::make_shared<Options>();
    auto type = std::make_shared<std::string>();
    CLI::App* command = health->add_subcommand(
        "metadata", "The org's metadata types, or the components of one type");
    common(command, *options, true, true);
    command->add_option("TYPE", *type, "A metadata type, such as ApexClass");
    command->callback([&context, &chosen, options, type] {
      chosen = [&context, options, type] {
        metadata(context, options->login, type->empty() ? std::nullopt : std::optional(*type),
                 options->output());
      };
    });
  }
  {
    auto options = std::make_shared<Options>();
    auto components = std::make_shared<std::vector<std::string>>();
    auto to = std::make_shared<std::string>();
    CLI::App* command =
        health->add_subcommand("retrieve", "Retrieve components into a project folder");
    common(command, *options, true, false);
    command->add_option("--metadata", *components, "TYPE:NAME, or TYPE for all of a type");
    command->add_option("--to", *to, "The project folder")->required();
    command->callback([&context, &chosen, options, components, to] {
      chosen = [&context, options, components, to] {
        retrieve(context, options->login, *components, *to, options->output());
      };
    });
  }
  {
    auto options = std::make_shared<Options>();
    auto key = std::make_shared<std::string>();
    auto url = std::make_shared<std::string>();
    CLI::App* command = health->add_subcommand(
        "instance", "Current incidents and maintenances of the org's Salesforce instance");
    common(command, *options, true, false);
    command->add_option("--instance", *key, "The instance to ask about, such as NA45");
    command->add_option("--status-url", *url,
                        "The status service's address (setting \"statusServiceURL\")");
    command->callback([&context, &chosen, options, key, url] {
      chosen = [&context, options, key, url] {
        StatusService::Options service;
        service.baseURL = url->empty() ? statusURL() : *url;
        service.token = StatusToken::load();
        instance(context, options->login, key->empty() ? std::nullopt : std::optional(*key),
                 service, options->output());
      };
    });
  }
  {
    auto clear = std::make_shared<bool>(false);
    CLI::App* command = health->add_subcommand(
        "status-token",
        "Save the status service's personal access token, read from standard input");
    command->add_flag("--clear", *clear, "Remove the saved token");
    command->callback([&context, &chosen, clear] {
      chosen = [&context, clear] { statusToken(context, std::cin, *clear); };
    });
  }
  {
    auto options = std::make_shared<Options>();
    auto domains = std::make_shared<std::vector<std::string>>();
    auto selectors = std::make_shared<std::vector<std::string>>();
    auto server = std::make_shared<std::string>();
    auto seconds = std::make_shared<double>(5.0);
    CLI::App* command =
        health->add_subcommand("email-domains", "SPF and DKIM records of e-mail domains");
    common(command, *options, false, false);
    command->add_option("DOMAIN", *domains, "The domains to check")->required();
    command->add_option("--selector", *selectors, "A DKIM selector to check");
    command->add_option("--dns-server", *server, "Ask this DNS server (HOST:PORT)");
    command->add_option("--timeout", *seconds, "Seconds to wait for each answer")
        ->check(CLI::Range(0.1, 60.0));
    command->callback([&context, &chosen, options, domains, selectors, server, seconds] {
      chosen = [&context, options, domains, selectors, server, seconds] {
        TXTResolver::Options resolver;
        resolver.server = *server;
        resolver.timeout = std::chrono::milliseconds(static_cast<std::int64_t>(*seconds * 1000));
        emailDomains(context, *domains, *selectors, resolver, options->output());
      };
    });
  }
  {
    auto options = std::make_shared<Options>();
    CLI::App* command =
        health->add_subcommand("release-updates", "The org's release updates and their due dates");
    common(command, *options, true, false);
    command->callback([&context, &chosen, options] {
      chosen = [&context, options] {
        SalesforceAPI::Client api(
            [&context](const std::string& username) { return context.cli.session(username); });
        releaseUpdates(context, api, options->login, options->output());
      };
    });
  }
}

}  // namespace corvane::HealthCommand

#include "app/health_command.hpp"

#include <CLI/CLI.hpp>

#include "health/health_task.hpp"
#include "health/metadata_report.hpp"
#include "platform/durable_file.hpp"

namespace corvane::HealthCommand {

namespace {

using nlohmann::json;

HealthTask::Source sourceOf(CommandContext& context) {
  return {context.cli, context.listTimeout};
}

bool wantsCSV(const Output& output) {
  return output.format == Format::csv || (output.file && output.file->extension() == ".csv");
}

// Writes the text where the output goes: the file (replaced atomically) or standard output.
void emit(CommandContext& context, const Output& output, const std::string& text) {
  if (output.file) {
    Durable::replace(*output.file, text, 0600);
    context.print("Wrote " + output.file->string() + ".\n");
  } else {
    context.print(text);
  }
}

// JSON, CSV (where the list has a CSV form) or the table, as asked.
void emitAs(CommandContext& context, const Output& output, const std::function<json()>& asJSON,
            const std::function<std::string()>& asTable,
            const std::function<std::string()>& asCSV = nullptr) {
  if (output.format == Format::json) return emit(context, output, asJSON().dump(2) + "\n");
  if (asCSV && wantsCSV(output)) return emit(context, output, asCSV());
  emit(context, output, asTable());
}

}  // namespace

void limits(CommandContext& context, const std::string& login, const Output& output) {
  auto usages = HealthTask::limits(sourceOf(context), login, {});
  emitAs(
      context, output, [&] { return LimitsReport::toJSON(usages); },
      [&] { return LimitsReport::table(usages); }, [&] { return LimitsReport::csv(usages); });
}

void audit(CommandContext& context, const std::string& login, const AuditFilter& filter,
           const Output& output) {
  auto entries = HealthTask::audit(sourceOf(context), login, filter, {});
  emitAs(
      context, output, [&] { return AuditTrail::toJSON(entries); },
      [&] { return AuditTrail::table(entries); }, [&] { return AuditTrail::csv(entries); });
}

void metadata(CommandContext& context, const std::string& login,
              const std::optional<std::string>& type, const Output& output) {
  const auto listing = HealthTask::metadata(sourceOf(context), login, type, {});
  emitAs(
      context, output, [&] { return type ? json(listing.components) : json(listing.typeNames); },
      [&] { return MetadataReport::table(listing); }, [&] { return MetadataReport::csv(listing); });
}

void retrieve(CommandContext& context, const std::string& login,
              const std::vector<std::string>& components, const std::filesystem::path& to,
              const Output& output) {
  const auto retrieval = HealthTask::retrieve(sourceOf(context), login, components, to, {});
  emitAs(
      context, output, [&] { return retrieval.result; },
      [&] { return MetadataReport::table(retrieval); });
}

void instance(CommandContext& context, const std::string& login,
              const std::optional<std::string>& key, const StatusService::Options& options,
              const Output& output) {
  const auto status = HealthTask::instance(sourceOf(context), login, key, options, {});
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
  const auto checks = HealthTask::emailDomains(domains, selectors, options, {});
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
  const auto updates = HealthTask::releaseUpdates(sourceOf(context), api, login, {});
  emitAs(
      context, output, [&] { return ReleaseUpdates::toJSON(updates); },
      [&] { return ReleaseUpdates::table(updates); });
}

void add(CLI::App& app, CommandContext& context, std::function<void()>& chosen) {
  CLI::App* health = app.add_subcommand("health", "Check an org's health");
  health->require_subcommand(1);

  // One set of values for every subcommand: only one of them runs.
  struct Options {
    std::string login, file, since, user, section, type, to, key, url, server;
    bool json = false, csv = false, clear = false;
    std::vector<std::string> components, domains, selectors;
    double seconds = 5.0;
    Output output() const {
      return {json ? Format::json : (csv ? Format::csv : Format::table),
              file.empty() ? std::nullopt : std::optional<std::filesystem::path>(file)};
    }
    std::optional<std::string> optional(const std::string& text) const {
      return text.empty() ? std::nullopt : std::optional(text);
    }
  };
  auto shared = std::make_shared<Options>();
  enum Takes { nothing = 0, login = 1, json = 2, csv = 4 };
  auto command = [&chosen, health, shared](const char* name, const char* help, int takes,
                                                std::function<void(Options&)> work) {
    CLI::App* sub = health->add_subcommand(name, help);
    if (takes & login) sub->add_option("LOGIN", shared->login, "A username or alias")->required();
    if (takes & json) sub->add_flag("--json", shared->json, "Print JSON");
    if (takes & csv) {
      sub->add_flag("--csv", shared->csv, "Print CSV");
      sub->add_option("-o,--output", shared->file,
                          "Write to this file instead (CSV when it ends in .csv)");
    }
    whenChosen(sub, chosen, [shared, work] { work(*shared); });
    return sub;
  };

  command("limits", "Every limit with its share used, highest first", login | json | csv,
          [&context](Options& o) { limits(context, o.login, o.output()); });
  CLI::App* auditCommand = command(
      "audit", "The setup audit trail, newest first", login | json | csv, [&context](Options& o) {
        AuditFilter filter;
        if (!o.since.empty()) filter.since = AuditTrail::parseSince(o.since);
        filter.user = o.optional(o.user);
        filter.section = o.optional(o.section);
        audit(context, o.login, filter, o.output());
      });
  auditCommand->add_option("--since", shared->since, "From this date (YYYY-MM-DD) or time on");
  auditCommand->add_option("--user", shared->user, "Changes by users whose name contains this");
  auditCommand->add_option("--section", shared->section, "Changes in sections whose name contains this");
  command("metadata", "The org's metadata types, or the components of one type",
          login | json | csv,
          [&context](Options& o) { metadata(context, o.login, o.optional(o.type), o.output()); })
      ->add_option("TYPE", shared->type, "A metadata type, such as ApexClass");
  CLI::App* retrieveCommand =
      command("retrieve", "Retrieve components into a project folder", login | json,
              [&context](Options& o) { retrieve(context, o.login, o.components, o.to, o.output()); });
  retrieveCommand->add_option("--metadata", shared->components, "TYPE:NAME, or TYPE for all of a type");
  retrieveCommand->add_option("--to", shared->to, "The project folder")->required();
  CLI::App* instanceCommand = command(
      "instance", "Current incidents and maintenances of the org's Salesforce instance",
      login | json, [&context](Options& o) {
        StatusService::Options service;
        service.baseURL = o.url.empty() ? HealthTask::statusServiceURL() : o.url;
        service.token = StatusToken::load();
        instance(context, o.login, o.optional(o.key), service, o.output());
      });
  instanceCommand->add_option("--instance", shared->key, "The instance to ask about, such as NA45");
  instanceCommand->add_option("--status-url", shared->url,
                              "The status service's address (setting \"statusServiceURL\")");
  command("status-token",
          "Save the status service's personal access token, read from standard input", nothing,
          [&context](Options& o) { statusToken(context, std::cin, o.clear); })
      ->add_flag("--clear", shared->clear, "Remove the saved token");
  CLI::App* domainsCommand = command(
      "email-domains", "SPF and DKIM records of e-mail domains", json, [&context](Options& o) {
        TXTResolver::Options resolver;
        resolver.server = o.server;
        resolver.timeout = std::chrono::milliseconds(static_cast<std::int64_t>(o.seconds * 1000));
        emailDomains(context, o.domains, o.selectors, resolver, o.output());
      });
  domainsCommand->add_option("DOMAIN", shared->domains, "The domains to check")->required();
  domainsCommand->add_option("--selector", shared->selectors, "A DKIM selector to check");
  domainsCommand->add_option("--dns-server", shared->server, "Ask this DNS server (HOST:PORT)");
  domainsCommand->add_option("--timeout", shared->seconds, "Seconds to wait for each answer")
      ->check(CLI::Range(0.1, 60.0));
  command("release-updates", "The org's release updates and their due dates", login | json,
          [&context](Options& o) {
            auto api = context.api();
            releaseUpdates(context, api, o.login, o.output());
          });
}

}  // namespace corvane::HealthCommand

// `corvane health`: org health checks.
//
//   health limits LOGIN                      every limit, sorted by the share used
//   health audit LOGIN [--since DATE] [--user NAME] [--section TEXT] [-o FILE]
//   health metadata LOGIN [TYPE]             metadata types, or the components of one
//   health retrieve LOGIN --metadata TYPE:NAME ... --to DIR
//   health instance LOGIN [--instance KEY]   incidents and maintenances of the instance
//   health status-token [--clear]            saves the status service's token (from stdin)
//   health email-domains DOMAIN... [--selector S ...] [--dns-server HOST:PORT]
//   health release-updates LOGIN             release updates and their due dates
//
// Each prints a plain table, or JSON with --json; long lists also go to CSV
// (--csv, or -o FILE.csv). Failures are typed errors whose sentence the
// command runner prints.
#pragma once

#include <filesystem>
#include <functional>
#include <istream>
#include <optional>
#include <string>
#include <vector>

#include "app/command_context.hpp"
#include "connections/salesforce_api.hpp"
#include "health/audit_trail.hpp"
#include "health/instance_status.hpp"
#include "health/txt_resolver.hpp"

namespace corvane::HealthCommand {

enum class Format { table, json, csv };

struct Output {
  Format format = Format::table;
  // Written there (atomically, 0600) instead of standard output; a name ending
  // in ".csv" asks for CSV.
  std::optional<std::filesystem::path> file;
};

// Adds the command to app; when chosen, `chosen` is set to the work to run.
void add(CLI::App& app, CommandContext& context, std::function<void()>& chosen);

void limits(CommandContext& context, const std::string& login, const Output& output);
void audit(CommandContext& context, const std::string& login, const AuditFilter& filter,
           const Output& output);
void metadata(CommandContext& context, const std::string& login,
              const std::optional<std::string>& type, const Output& output);
// Fails at once, before asking the CLI anything, when components is empty.
void retrieve(CommandContext& context, const std::string& login,
              const std::vector<std::string>& components, const std::filesystem::path& to,
              const Output& output);
// key: the instance to ask about; none: the login's own, as the CLI records it.
void instance(CommandContext& context, const std::string& login,
              const std::optional<std::string>& key, const StatusService::Options& options,
              const Output& output);
// Reads the token from `in`; with `clear`, removes the saved one.
void statusToken(CommandContext& context, std::istream& in, bool clear);
void emailDomains(CommandContext& context, const std::vector<std::string>& domains,
                  const std::vector<std::string>& selectors, const TXTResolver::Options& options,
                  const Output& output);
void releaseUpdates(CommandContext& context, SalesforceAPI::Client& api, const std::string& login,
                    const Output& output);

}  // namespace corvane::HealthCommand

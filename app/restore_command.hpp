// `corvane backup restore`: deleted records and old values brought back from
// the backups. The work is RestoreTask's, the wording RestoreReport's.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "app/command_context.hpp"
#include "connections/salesforce_api.hpp"

namespace corvane::RestoreCommand {

struct Arguments {
  std::string login;
  std::string object;
  std::string root;  // empty: the standard backup folder
  std::string from;
  std::string asOf;
  bool deleted = false;
  std::vector<std::string> ids;
  std::vector<std::string> fields;
  bool withChildren = false;
  bool retryFailed = false;
  bool dryRun = false;
  bool json = false;
  std::string results;  // an .xlsx of every record; empty: a CSV of failures beside the journal
};

// Adds "restore" under "backup"; when chosen, `chosen` is set to the work to run.
void add(CLI::App& app, CommandContext& context, std::function<void()>& chosen);

// Plans (with dryRun) or runs the restore and prints the outcome: a line per
// record, then a summary; or, with json, one JSON object.
void restore(CommandContext& context, SalesforceAPI::Client& api, const Arguments& arguments);

}  // namespace corvane::RestoreCommand

// `corvane orgs [--json]`: the logins the Salesforce CLI knows, one line each,
// and `corvane orgs show LOGIN [--json]`: one login in full, its connection
// checked alone. The work is OrgListing's, the wording OrgReport's.
#pragma once

#include <functional>
#include <string>

#include "app/command_context.hpp"

namespace corvane::OrgsCommand {

// Adds "orgs" and its "show" subcommand to app. When the command line chooses
// one of them, `chosen` is set to the work to run.
void add(CLI::App& app, CommandContext& context, std::function<void()>& chosen);

void list(CommandContext& context, bool skipConnectionStatus, bool json = false);
void show(CommandContext& context, const std::string& login, bool json = false);

}  // namespace corvane::OrgsCommand

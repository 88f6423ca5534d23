// `corvane query LOGIN "SOQL"`: runs a SOQL query against the login's org,
// follows every page, and prints each record as one line of JSON (numbers as
// Salesforce sent them, without the "attributes" decoration).
#pragma once

#include <functional>
#include <string>

#include "app/orgs_command.hpp"
#include "backup/json_literal.hpp"
#include "connections/salesforce_api.hpp"

namespace CLI {
class App;
}

namespace corvane::QueryCommand {

// Adds "query" to app; when chosen, `chosen` is set to the work to run.
void add(CLI::App& app, CommandContext& context, std::function<void()>& chosen);

// Runs soql for the login (username or alias) and writes the rows to
// context.out. Returns the number of rows.
std::int64_t run(CommandContext& context, SalesforceAPI::Client& api, const std::string& login,
                 const std::string& soql);

// The record without its "attributes" members, at every level.
JSONLiteral withoutAttributes(JSONLiteral record);

}  // namespace corvane::QueryCommand

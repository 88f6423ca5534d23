// `corvane query LOGIN "SOQL" [--format json|csv|tsv] [-o FILE]`: runs a SOQL
// query against the login's org, follows every page, and writes the rows.
//
// json (the default) prints each record as one line of JSON (numbers as
// Salesforce sent them, without the "attributes" decoration). csv and tsv
// write a table (QueryExport) with one column per item of the select list, in
// its order, relationship fields flattened to dotted names ("Owner.Name").
// With -o the rows go to a file that appears whole once the query has
// finished; a failed query leaves an existing file as it was.
#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include "app/command_context.hpp"
#include "connections/json_literal.hpp"
#include "connections/salesforce_api.hpp"
#include "query/result_writer.hpp"

namespace corvane::QueryCommand {

using Format = ResultWriter::Format;  // json, csv or tsv

// Adds "query" to app; when chosen, `chosen` is set to the work to run.
void add(CLI::App& app, CommandContext& context, std::function<void()>& chosen);

// Runs soql for the login (username or alias) and writes the rows in format
// to context.out, or to output when given (then a one-line summary goes to
// context.out). Returns the number of rows.
std::int64_t run(CommandContext& context, SalesforceAPI::Client& api, const std::string& login,
                 const std::string& soql, Format format = Format::json,
                 const std::optional<std::filesystem::path>& output = std::nullopt);

// The record without its "attributes" members, at every level.
JSONLiteral withoutAttributes(JSONLiteral record);

}  // namespace corvane::QueryCommand

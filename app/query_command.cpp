#include "app/query_command.hpp"

#include <CLI/CLI.hpp>

#include "connections/cli_error.hpp"

namespace corvane::QueryCommand {

JSONLiteral withoutAttributes(JSONLiteral record) {
  if (auto* members = record.asObject()) {
    JSONLiteral::Object kept;
    kept.reserve(members->size());
    for (auto& [name, value] : *members) {
      if (name != "attributes")
        kept.emplace_back(std::move(name), withoutAttributes(std::move(value)));
    }
    return JSONLiteral::object(std::move(kept));
  }
  if (auto* items = record.asArray()) {
    for (auto& item : *items) item = withoutAttributes(std::move(item));
  }
  return record;
}

std::int64_t run(CommandContext& context, SalesforceAPI::Client& api, const std::string& login,
                 const std::string& soql) {
  auto orgs = context.cli.listOrgs(true, context.listTimeout);
  const Org& org = OrgsCommand::findLogin(orgs, login);
  std::int64_t rows = 0;
  std::string line;
  api.queryStream(soql, org, [&](SalesforceAPI::QueryPage page) {
    for (auto& record : page.records) {
      line.clear();
      withoutAttributes(std::move(record)).dump(line);
      line += '\n';
      context.out << line;
      ++rows;
    }
    context.out.flush();
    return static_cast<bool>(context.out);
  });
  return rows;
}

void add(CLI::App& app, CommandContext& context, std::function<void()>& chosen) {
  CLI::App* query =
      app.add_subcommand("query", "Run a SOQL query and print its rows as JSON lines");
  auto login = std::make_shared<std::string>();
  auto soql = std::make_shared<std::string>();
  query->add_option("LOGIN", *login, "A username or alias")->required();
  query->add_option("SOQL", *soql, "The query, such as \"SELECT Id, Name FROM Account\"")
      ->required();
  query->callback([&context, &chosen, login, soql] {
    chosen = [&context, login, soql] {
      SalesforceAPI::Client api(
          [&context](const std::string& username) { return context.cli.session(username); });
      run(context, api, *login, *soql);
    };
  });
}

}  // namespace corvane::QueryCommand

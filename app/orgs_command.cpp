#include "app/orgs_command.hpp"

#include <CLI/CLI.hpp>

#include "connections/org_report.hpp"

namespace corvane::OrgsCommand {

void add(CLI::App& app, CommandContext& context, std::function<void()>& chosen) {
  CLI::App* orgs = app.add_subcommand("orgs", "List the logins of the Salesforce CLI");
  auto skipStatus = std::make_shared<bool>(false);
  auto json = std::make_shared<bool>(false);
  orgs->add_flag("--no-status", *skipStatus,
                 "Do not check the connections (faster; every state shows as unknown)");
  orgs->add_flag("--json", *json, "Print the logins as one JSON object");
  orgs->callback([&context, &chosen, orgs, skipStatus, json] {
    if (orgs->get_subcommands().empty()) {
      chosen = [&context, skipStatus, json] { list(context, *skipStatus, *json); };
    }
  });

  CLI::App* showCommand = orgs->add_subcommand("show", "Show one login and check its connection");
  auto login = std::make_shared<std::string>();
  auto showJSON = std::make_shared<bool>(false);
  showCommand->add_option("LOGIN", *login, "A username or alias")->required();
  showCommand->add_flag("--json", *showJSON, "Print the login as one JSON object");
  whenChosen(showCommand, chosen,
             [&context, login, showJSON] { show(context, *login, *showJSON); });
}

void list(CommandContext& context, bool skipConnectionStatus, bool json) {
  const OrgListing::Request request{skipConnectionStatus, context.listTimeout,
                                    context.checkTimeout};
  const auto orgs = OrgListing::list(context.cli, request, {});
  if (json) {
    context.out << OrgReport::json(orgs, context.now());
  } else if (orgs.empty()) {
    context.out << "The Salesforce CLI has no logins. Add one with: sf org login web --alias "
                   "NAME\n";
  } else {
    context.out << OrgReport::table(orgs);
  }
}

void show(CommandContext& context, const std::string& login, bool json) {
  const OrgListing::Request request{false, context.listTimeout, context.checkTimeout};
  const Org org = OrgListing::show(context.cli, login, request, {});
  context.out << (json ? OrgReport::json(org, context.now())
                       : OrgReport::details(org, context.now()));
}

}  // namespace corvane::OrgsCommand

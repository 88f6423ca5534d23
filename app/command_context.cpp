#include "app/command_context.hpp"

#include <CLI/CLI.hpp>

namespace corvane {

std::function<Org(const std::string&)> CommandContext::logins() {
  return [this](const std::string& name) { return login(name); };
}

SalesforceAPI::Client CommandContext::api() {
  return SalesforceAPI::Client(
      [this](const std::string& username) { return cli.session(username); });
}

void CommandContext::print(const std::string& text) {
  out << text;
  out.flush();
}

void whenChosen(CLI::App* command, std::function<void()>& chosen, std::function<void()> work) {
  command->callback([&chosen, work = std::move(work)] { chosen = work; });
}

}  // namespace corvane

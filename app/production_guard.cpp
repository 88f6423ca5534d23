#include "app/production_guard.hpp"

#include <unistd.h>

#include <iostream>

namespace corvane {

namespace ProductionGuard {

Answers& Answers::standard() {
  static Answers answers{false, [] { return ::isatty(STDIN_FILENO) == 1; },
                         []() -> std::optional<std::string> {
                           std::string line;
                           if (!std::getline(std::cin, line)) return std::nullopt;
                           return line;
                         }};
  return answers;
}

void addYesFlag(CLI::App& app, Answers& answers) {
  app.fallthrough();
  app.add_flag("--yes", answers.yes,
               "Write to production orgs without asking (for scripts); sandboxes, scratch and "
               "developer orgs are never asked");
}

bool confirm(const Org& org, std::string_view whatItWrites, std::ostream& out,
             const Answers& answers) {
  if (!org.isProduction() || answers.yes) return false;
  if (!answers.inputIsTerminal || !answers.inputIsTerminal())
    throw ProductionWriteRefused::noTerminal(org, whatItWrites);
  const auto name = ProductionWrite::nameToType(org);
  out << org.displayName() << " is a production org. This will " << whatItWrites << ".\n"
      << "Type the org's name (" << name << ") to go ahead: ";
  out.flush();
  const auto typed = answers.readLine ? answers.readLine() : std::nullopt;
  if (!typed || !ProductionWrite::confirms(org, *typed))
    throw ProductionWriteRefused::nameDidNotMatch(org);
  return true;
}

}  // namespace ProductionGuard

}  // namespace corvane

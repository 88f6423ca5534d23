#include "app/production_guard.hpp"

#include <unistd.h>

#include <iostream>

namespace corvane {

namespace {

std::string trimmed(std::string text) {
  while (!text.empty() && (text.back() == '\r' || text.back() == ' ' || text.back() == '\t'))
    text.pop_back();
  std::size_t start = 0;
  while (start < text.size() && (text[start] == ' ' || text[start] == '\t')) ++start;
  return text.substr(start);
}

}  // namespace

ProductionWriteRefused ProductionWriteRefused::noTerminal(const Org& org,
                                                          std::string_view whatItWrites) {
  return {Kind::noTerminal,
          "Nothing was written: " + org.displayName() + " is a production org, and this would " +
              std::string(whatItWrites) +
              ". Corvane asks before it writes to production, but standard input is not a "
              "terminal. Run the command in a terminal to confirm, or add --yes to go ahead "
              "without being asked."};
}

ProductionWriteRefused ProductionWriteRefused::nameDidNotMatch(const Org& org) {
  return {Kind::nameDidNotMatch, "Nothing was written: what was typed is not \"" +
                                     ProductionGuard::nameToType(org) +
                                     "\". Run the command again and type the org's name exactly "
                                     "to go ahead."};
}

namespace ProductionGuard {

Answers& Answers::standard() {
  static Answers answers{
      false, [] { return ::isatty(STDIN_FILENO) == 1; },
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

std::string nameToType(const Org& org) {
  if (org.name && !trimmed(*org.name).empty()) return trimmed(*org.name);
  return org.displayName();
}

void confirm(const Org& org, std::string_view whatItWrites, std::ostream& out,
             const Answers& answers) {
  if (!org.isProduction() || answers.yes) return;
  if (!answers.inputIsTerminal || !answers.inputIsTerminal())
    throw ProductionWriteRefused::noTerminal(org, whatItWrites);
  const auto name = nameToType(org);
  out << org.displayName() << " is a production org. This will " << whatItWrites << ".\n"
      << "Type the org's name (" << name << ") to go ahead: ";
  out.flush();
  const auto typed = answers.readLine ? answers.readLine() : std::nullopt;
  if (!typed || trimmed(*typed) != name) throw ProductionWriteRefused::nameDidNotMatch(org);
}

}  // namespace ProductionGuard

}  // namespace corvane

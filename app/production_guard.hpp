// Asks before a command writes to a production org.
//
// Every command that writes to an org calls ProductionGuard::confirm with the
// login and a line on what it will write, before it writes anything. Orgs that
// Org::isProduction() does not call production (sandboxes, scratch and
// Developer Edition orgs) go ahead at once; so does everything when the
// command line holds --yes, which every command accepts (for scripts). Else,
// with standard input a terminal, the user is shown what will be written and
// types the org's name to go ahead; without a terminal the command is refused
// with a sentence naming --yes.
#pragma once

#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include <CLI/CLI.hpp>

#include "connections/production_write.hpp"

namespace corvane {

namespace ProductionGuard {

// Where the answer comes from. The process-wide one reads --yes from the
// command line and the name from standard input.
struct Answers {
  bool yes = false;
  std::function<bool()> inputIsTerminal;
  // One line typed by the user; none at the end of input.
  std::function<std::optional<std::string>()> readLine;

  static Answers& standard();
};

// Adds "--yes" to app, accepted after any of its subcommands too (they pass
// options they do not know up to it). Call before adding the subcommands.
void addYesFlag(CLI::App& app, Answers& answers = Answers::standard());

// Returns when the write may go ahead: true when the user was asked (time
// has passed since the command began), false when no question was needed.
// Throws ProductionWriteRefused. Writes the question to out.
bool confirm(const Org& org, std::string_view whatItWrites, std::ostream& out,
             const Answers& answers = Answers::standard());

}  // namespace ProductionGuard

}  // namespace corvane

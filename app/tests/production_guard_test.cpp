#include "app/production_guard.hpp"

#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "app/backup_keeping_command.hpp"
#include "connections/salesforce_api.hpp"
#include "connections/tests/fake_cli.hpp"

namespace corvane {
namespace {

using ::testing::HasSubstr;

Org login(std::optional<bool> sandbox, std::string instance = "https://acme.my.salesforce.com") {
  Org org;
  org.username = "admin@acme.example";
  org.alias = "acme";
  org.name = "Acme Corporation";
  org.instanceUrl = std::move(instance);
  org.isSandbox = sandbox;
  org.edition = "Enterprise Edition";
  return org;
}

// Answers typed by a test; counts how often the user was asked.
struct Typed {
  bool terminal = true;
  std::optional<std::string> line;
  int asked = 0;
  ProductionGuard::Answers answers(bool yes = false) {
    return {yes, [this] { return terminal; },
            [this] {
              ++asked;
              return line;
            }};
  }
};

TEST(ProductionGuard, OnlyProductionIsAskedAndOnlyTheOrgsNameGoesAhead) {
  std::ostringstream out;
  Typed typed;
  Org scratch = login(false, "https://fun-1234.scratch.my.salesforce.com");
  scratch.isScratch = true;
  Org developer = login(std::nullopt, "https://acme-dev-ed.develop.my.salesforce.com");
  developer.edition.reset();
  for (const Org& free : {login(true), scratch, developer}) {
    EXPECT_NO_THROW(ProductionGuard::confirm(free, "insert 3 Account records", out,
                                             typed.answers()));
  }
  EXPECT_EQ(typed.asked, 0);
  EXPECT_EQ(out.str(), "");

  const Org production = login(false);
  ASSERT_TRUE(production.isProduction());
  typed.line = "  Acme Corporation ";
  EXPECT_NO_THROW(
      ProductionGuard::confirm(production, "insert 3 Account records", out, typed.answers()));
  EXPECT_EQ(out.str(),
            "acme is a production org. This will insert 3 Account records.\n"
            "Type the org's name (Acme Corporation) to go ahead: ");

  for (const std::optional<std::string>& wrong :
       {std::optional<std::string>("acme"), std::optional<std::string>()}) {
    typed.line = wrong;
    try {
      ProductionGuard::confirm(production, "insert 3 Account records", out, typed.answers());
      ADD_FAILURE() << "went ahead";
    } catch (const ProductionWriteRefused& refused) {
      EXPECT_EQ(refused.kind(), ProductionWriteRefused::Kind::nameDidNotMatch);
      EXPECT_EQ(refused.description(),
                "Nothing was written: what was typed is not \"Acme Corporation\". Run the command "
                "again and type the org's name exactly to go ahead.");
    }
  }

  // A script: refused with a sentence naming --yes, unless it gave --yes.
  typed.terminal = false;
  typed.asked = 0;
  try {
    ProductionGuard::confirm(production, "insert 3 Account records", out, typed.answers());
    ADD_FAILURE() << "went ahead";
  } catch (const ProductionWriteRefused& refused) {
    EXPECT_EQ(refused.description(),
              "Nothing was written: acme is a production org, and this would insert 3 Account "
              "records. Corvane asks before it writes to production, but standard input is not a "
              "terminal. Run the command in a terminal to confirm, or add --yes to go ahead "
              "without being asked.");
  }
  EXPECT_NO_THROW(
      ProductionGuard::confirm(production, "insert 3 Account records", out, typed.answers(true)));
  EXPECT_EQ(typed.asked, 0);
}

TEST(ProductionGuard, YesIsAcceptedAfterAnySubcommand) {
  for (const std::vector<std::string>& line :
       {std::vector<std::string>{"backup", "recycle-bin", "acme", "--yes"},
        std::vector<std::string>{"--yes", "backup", "recycle-bin", "acme"}}) {
    CLI::App app;
    ProductionGuard::Answers answers;
    ProductionGuard::addYesFlag(app, answers);
    auto* backup = app.add_subcommand("backup");
    std::string chosen;
    backup->add_subcommand("recycle-bin")->add_option("LOGIN", chosen);
    std::vector<std::string> reversed(line.rbegin(), line.rend());
    app.parse(reversed);
    EXPECT_TRUE(answers.yes);
    EXPECT_EQ(chosen, "acme");
  }
}

// The put-back of a production login from a script stops before any call to
// the org (the client here has no session to give).
TEST(ProductionGuard, APutBackFromAScriptIsRefusedBeforeTouchingTheOrg) {
  testing::FakeCLI fake;
  fake.script(R"(echo '{"status":0,"result":{"nonScratchOrgs":[{"username":"admin@acme.example",)"
              R"("alias":"acme","orgId":"00D000000000001AAA","isSandbox":false,)"
              R"("instanceUrl":"https://acme.my.salesforce.com"}]}}')");
  SalesforceCLI cli(fake.options());
  std::ostringstream out;
  CommandContext context{cli, out};
  int sessions = 0;
  SalesforceAPI::Client api([&](const std::string&) -> SalesforceAPI::Session {
    ++sessions;
    throw std::runtime_error("no session in this test");
  });
  BackupKeepingCommand::Arguments arguments;
  arguments.login = "acme";
  arguments.object = "Account";
  arguments.ids = {"001000000000001AAA"};
  arguments.putBack = true;
  if (ProductionGuard::Answers::standard().inputIsTerminal()) GTEST_SKIP() << "run from a terminal";
  try {
    BackupKeepingCommand::recycleBin(context, api, arguments);
    ADD_FAILURE() << "went ahead";
  } catch (const ProductionWriteRefused& refused) {
    EXPECT_THAT(refused.description(), HasSubstr("put back up to 1 Account records"));
    EXPECT_THAT(refused.description(), HasSubstr("--yes"));
  }
  EXPECT_EQ(sessions, 0);
}

}  // namespace
}  // namespace corvane

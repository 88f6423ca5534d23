// `corvane dedupe undo` against the sample org: an apply's merges put back,
// group by group, in words and as JSON, and a production login asked first.
#include "app/dedupe_undo_command.hpp"

#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "app/dedupe_command.hpp"
#include "app/production_guard.hpp"
#include "connections/tests/fake_cli.hpp"
#include "platform/tests/temporary_folder.hpp"
#include "tools/orgsim/tests/sample_org.hpp"
#include "tools/orgsim/tests/sample_org_api.hpp"

namespace corvane {
namespace {

using ::testing::HasSubstr;

class DedupeUndoCommandTest : public orgsim::testing::ServerFixture {
 protected:
  void SetUp() override {
    ServerFixture::SetUp();
    ::setenv("CORVANE_HOME", home_.path().c_str(), 1);
    login("");
    api_ = orgsim::testing::adminClient(*server_);
    // Two pairs of Contacts, each second one with a Task and a campaign membership.
    const std::string campaign = create("Campaign", {{"Name", "Autumn"}});
    for (const char* first : {"Ada", "Grace"}) {
      create("Contact", {{"FirstName", first}, {"LastName", "Twin"}, {"Department", "Undo"}});
    }
    admin("clock", {{"advanceSeconds", 60}});
    for (const char* first : {"Ada", "Grace"}) {
      const std::string loser =
          create("Contact", {{"FirstName", first}, {"LastName", "Twin"}, {"Department", "Undo"}});
      create("Task", {{"Subject", "Call"}, {"WhoId", loser}});
      create("CampaignMember", {{"CampaignId", campaign}, {"ContactId", loser}});
    }
    auto ctx = context();
    DedupeCommand::DownloadOptions options;
    options.match = {DedupeCommand::parseMatchChoice("Name:personName:close")};
    options.scope = "Department = 'Undo'";
    options.runner.firstPollDelay = std::chrono::milliseconds(5);
    snapshot_ = DedupeCommand::download(ctx, *api_, "sample", "Contact", options);
    DedupeCommand::ResolveOptions resolve;
    DedupeCommand::apply(ctx, *api_, snapshot_, resolve);
    out_.str("");
  }
  void TearDown() override {
    ProductionGuard::Answers::standard().yes = false;
    ::unsetenv("CORVANE_HOME");
    ServerFixture::TearDown();
  }

  void login(const std::string& extra) {
    fake_.script(testing::orgListScript(store().identity().adminUsername, server_->baseUrl(),
                                        R"("orgId":"00D000000000001AAA",)" + extra));
    cli_ = std::make_unique<SalesforceCLI>(fake_.options());
  }

  std::string create(const std::string& object, const nlohmann::json& fields) {
    return admin("records/create", {{"object", object}, {"fields", fields}})["id"];
  }
  std::size_t live(const std::string& soql) { return query(soql)["records"].size(); }

  CommandContext context() { return CommandContext{*cli_, out_}; }

  TemporaryFolder home_;
  testing::FakeCLI fake_;
  std::unique_ptr<SalesforceCLI> cli_;
  std::unique_ptr<SalesforceAPI::Client> api_;
  std::ostringstream out_;
  std::filesystem::path snapshot_;
};

TEST_F(DedupeUndoCommandTest, PutsBackOneNamedGroupThenTheRestInWordsAndAsJSON) {
  ASSERT_EQ(live("SELECT Id FROM Contact WHERE Department = 'Undo'"), 2u);
  auto ctx = context();
  DedupeUndoCommand::Options options;
  options.json = true;
  const auto prepared =
      UndoTask::prepare([this](const std::string&) { return Org(); }, snapshot_, {});
  ASSERT_EQ(prepared.groups.size(), 2u);
  options.request.groups = {prepared.groups[0].groupId};
  DedupeUndoCommand::undo(ctx, *api_, snapshot_, options);
  const auto json = nlohmann::json::parse(out_.str());
  ASSERT_EQ(json["groups"].size(), 1u);
  EXPECT_EQ(json["groups"][0]["group"], prepared.groups[0].groupId);
  EXPECT_EQ(json["groups"][0]["status"], "undone");
  EXPECT_EQ(json["groups"][0]["restored"], 1);
  EXPECT_EQ(json["undone"], 1);
  EXPECT_EQ(live("SELECT Id FROM Contact WHERE Department = 'Undo'"), 3u);

  out_.str("");
  DedupeUndoCommand::undo(ctx, *api_, snapshot_, {});
  EXPECT_THAT(out_.str(), HasSubstr("already undone by an earlier run"));
  EXPECT_THAT(out_.str(), HasSubstr("1 undone, 1 already undone"));
  EXPECT_EQ(live("SELECT Id FROM Contact WHERE Department = 'Undo'"), 4u);
  EXPECT_EQ(live("SELECT Id FROM CampaignMember"), 2u);
  const auto tasks = query("SELECT WhoId FROM Task")["records"];
  for (const auto& task : tasks) {
    EXPECT_EQ(live("SELECT Id FROM Contact WHERE Id = '" + task["WhoId"].get<std::string>() +
                   "' AND Department = 'Undo'"),
              1u);
  }

  // A group the apply did not change is named as such.
  options.request.groups = {999};
  try {
    DedupeUndoCommand::undo(ctx, *api_, snapshot_, options);
    FAIL() << "an unknown group was accepted";
  } catch (const UndoError& error) {
    EXPECT_EQ(error.kind(), UndoError::Kind::unknownGroup);
    EXPECT_THAT(error.description(), HasSubstr("Group 999"));
  }
}

TEST_F(DedupeUndoCommandTest, AKeptRecordEditedSinceIsListedAsJSONAndNothingChanges) {
  const auto prepared = UndoTask::prepare([](const std::string&) { return Org(); }, snapshot_, {});
  admin("clock", {{"advanceSeconds", 60}});
  admin("records/update", {{"id", prepared.groups[1].keeper}, {"fields", {{"Title", "Boss"}}}});
  auto ctx = context();
  DedupeUndoCommand::Options options;
  options.json = true;
  EXPECT_THROW(DedupeUndoCommand::undo(ctx, *api_, snapshot_, options), UndoError);
  const auto json = nlohmann::json::parse(out_.str());
  ASSERT_EQ(json["refused"].size(), 1u);
  EXPECT_THAT(json["refused"][0].get<std::string>(), HasSubstr(prepared.groups[1].keeper));
  EXPECT_EQ(live("SELECT Id FROM Contact WHERE Department = 'Undo'"), 2u);

  out_.str("");
  options.json = false;
  options.request.force = true;
  DedupeUndoCommand::undo(ctx, *api_, snapshot_, options);
  EXPECT_THAT(out_.str(), HasSubstr("it had been changed since the merge"));
  EXPECT_EQ(live("SELECT Id FROM Contact WHERE Department = 'Undo'"), 4u);
}

TEST_F(DedupeUndoCommandTest, AProductionLoginIsRefusedWithoutYes) {
  login(R"("isSandbox":false,)");
  if (ProductionGuard::Answers::standard().inputIsTerminal()) GTEST_SKIP() << "run from a terminal";
  auto ctx = context();
  EXPECT_THROW(DedupeUndoCommand::undo(ctx, *api_, snapshot_, {}), ProductionWriteRefused);
  EXPECT_EQ(live("SELECT Id FROM Contact WHERE Department = 'Undo'"), 2u);

  ProductionGuard::Answers::standard().yes = true;
  DedupeUndoCommand::undo(ctx, *api_, snapshot_, {});
  EXPECT_THAT(out_.str(), HasSubstr("2 undone"));
  EXPECT_EQ(live("SELECT Id FROM Contact WHERE Department = 'Undo'"), 4u);
}

}  // namespace
}  // namespace corvane

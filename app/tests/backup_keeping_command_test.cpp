#include "app/backup_keeping_command.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sstream>

#include "app/command_error.hpp"
#include "backup/backup_lock.hpp"
#include "backup/backup_store.hpp"
#include "backup/folder_access.hpp"
#include "connections/tests/fake_cli.hpp"
#include "platform/tests/temporary_folder.hpp"
#include "tools/orgsim/org_records.hpp"
#include "tools/orgsim/tests/sample_org.hpp"
#include "tools/orgsim/tests/sample_org_api.hpp"

namespace corvane {
namespace {

class BackupKeepingCommandTest : public orgsim::testing::ServerFixture {
 protected:
  void SetUp() override {
    ServerFixture::SetUp();
    fake_.script(testing::orgListScript(store().identity().adminUsername, server_->baseUrl(),
                                        R"("orgId":"00D000000000001AAA",)"));
    cli_ = std::make_unique<SalesforceCLI>(fake_.options());
    api_ = orgsim::testing::adminClient(*server_);
  }

  BackupKeepingCommand::Arguments arguments(const std::filesystem::path& root) {
    BackupKeepingCommand::Arguments arguments;
    arguments.login = "sample";
    arguments.root = root.string();
    return arguments;
  }

  // A backup of the sample login whose first run found these deleted.
  void backupFound(const std::filesystem::path& root,
                   const std::vector<BackupStore::Deletion>& deletions) {
    BackupStore backup({root, "00D000000000001AAA", store().identity().adminUsername});
    const auto run = backup.insertRun("2024-05-01 1000", RunKind::full, "2024-05-01T10:00:00Z");
    auto insert = backup.db().prepare(
        "INSERT INTO known_ids (object, id, deleted, deleted_run, deleted_at, how) VALUES (?, ?, "
        "1, ?, ?, ?)");
    for (const auto& deletion : deletions) {
      insert.reset();
      insert.bindText(1, deletion.object)
          .bindText(2, deletion.id)
          .bindInt(3, run)
          .bindText(4, deletion.at)
          .bindText(5, deletion.how);
      insert.run();
    }
  }

  // What a command printed, or the sentence it failed with.
  std::string run(const std::function<void(CommandContext&)>& command) {
    std::ostringstream out;
    std::ostringstream err;
    CommandContext context{*cli_, out};
    runReportingFailures([&] { command(context); }, err);
    return out.str() + err.str();
  }

  testing::FakeCLI fake_;
  std::unique_ptr<SalesforceCLI> cli_;
  std::unique_ptr<SalesforceAPI::Client> api_;
  TemporaryFolder folder_;
};

TEST_F(BackupKeepingCommandTest, DeletedListsWhatBackupsFoundFilteredByObjectAndDay) {
  const auto root = folder_.path() / "Backups";
  EXPECT_NE(run([&](CommandContext& c) { BackupKeepingCommand::listDeleted(c, arguments(root)); })
                .find("There is no backup of"),
            std::string::npos);
  backupFound(root, {{"Account", "001000000000001AAA", "2024-05-01T09:00:00Z", "recycleBin"},
                     {"Contact", "003000000000001AAA", "2024-05-03T09:00:00Z", "missing"}});
  auto all = arguments(root);
  EXPECT_EQ(run([&](CommandContext& c) { BackupKeepingCommand::listDeleted(c, all); }),
            "2024-05-01T09:00:00Z\tAccount\t001000000000001AAA\trecycleBin\n"
            "2024-05-03T09:00:00Z\tContact\t003000000000001AAA\tmissing\n");
  auto since = arguments(root);
  since.since = "2024-05-02";
  EXPECT_EQ(run([&](CommandContext& c) { BackupKeepingCommand::listDeleted(c, since); }),
            "2024-05-03T09:00:00Z\tContact\t003000000000001AAA\tmissing\n");
  auto object = arguments(root);
  object.object = "Lead";
  EXPECT_EQ(run([&](CommandContext& c) { BackupKeepingCommand::listDeleted(c, object); }),
            "No deleted records found.\n");

  auto json = arguments(root);
  json.json = true;
  const auto listed =
      nlohmann::json::parse(run([&](CommandContext& c) { BackupKeepingCommand::listDeleted(c, json); }));
  EXPECT_EQ(listed.at("username"), store().identity().adminUsername);
  ASSERT_EQ(listed.at("deletions").size(), 2u);
  EXPECT_EQ(listed["deletions"][1],
            (nlohmann::json{{"deletedAt", "2024-05-03T09:00:00Z"},
                            {"object", "Contact"},
                            {"id", "003000000000001AAA"},
                            {"how", "missing"}}));
}

TEST_F(BackupKeepingCommandTest, RecycleBinChecksWhatTheBackupFoundAndPutsItBack) {
  const auto root = folder_.path() / "Backups";
  auto ids = orgsim::testing::addAccounts(store(), 3);
  const auto admin = store().identity().adminUserId;
  ASSERT_TRUE(orgsim::OrgRecords::remove(store(), ids[0], admin).success);
  ASSERT_TRUE(orgsim::OrgRecords::remove(store(), ids[1], admin).success);
  orgsim::OrgRecords::purge(store(), "", {ids[1]});
  backupFound(root, {{"Account", ids[0], "2024-05-01T09:00:00Z", "recycleBin"},
                     {"Account", ids[1], "2024-05-01T09:01:00Z", "recycleBin"},
                     {"Account", ids[2], "2024-05-01T09:02:00Z", "missing"}});

  auto check = arguments(root);
  check.object = "Account";
  EXPECT_EQ(run([&](CommandContext& c) { BackupKeepingCommand::recycleBin(c, *api_, check); }),
            ids[0] + "\tinTheBin\n" + ids[1] + "\tnotInTheBin\n" + ids[2] +
                "\talreadyBack\n1 of 3 are still in the Recycle Bin. Add --put-back to put them "
                "back.\n");
  auto putBack = check;
  putBack.putBack = true;
  putBack.ids = {ids[0]};
  EXPECT_EQ(run([&](CommandContext& c) { BackupKeepingCommand::recycleBin(c, *api_, putBack); }),
            ids[0] + "\tputBack\n1 of 1 put back.\n");
  EXPECT_EQ(store().count("Account"), 2);
  EXPECT_EQ(run([&](CommandContext& c) { BackupKeepingCommand::recycleBin(c, *api_, putBack); }),
            ids[0] + "\talreadyBack\n0 of 1 put back.\n");
}

TEST_F(BackupKeepingCommandTest, EjectEjectsTheDiskUnlessARunWritesOrItIsGone) {
  const auto volumesFolder = folder_.path() / "Volumes";
  std::filesystem::create_directories(volumesFolder / "Backup Disk" / "Backups");
  const auto volumes = BackupVolumes::inFolder(volumesFolder);
  std::vector<std::string> ran;
  std::string complaint;
  CommandRunner runner = [&](const ProcessRequest& request) {
    ran.push_back(request.executable.filename().string() + " " + request.arguments.back());
    ProcessResult result;
    result.exitStatus = complaint.empty() ? 0 : 1;
    result.standardError = complaint;
    return result;
  };
  auto onDisk = arguments(volumesFolder / "Backup Disk" / "Backups");
  auto eject = [&](const BackupKeepingCommand::Arguments& a) {
    return run([&](CommandContext& c) { BackupKeepingCommand::eject(c, a, volumes, runner); });
  };

  EXPECT_EQ(eject(onDisk), BackupEjectText::ejected("Backup Disk") + "\n");
  ASSERT_EQ(ran.size(), 1u);
  EXPECT_NE(ran[0].find("Backup Disk"), std::string::npos) << ran[0];

  complaint = "target is busy";
  EXPECT_EQ(eject(onDisk), BackupEjectText::refused("Backup Disk", "target is busy") + "\n");

  {
    BackupLocation location{volumesFolder / "Backup Disk" / "Backups", "00D000000000001AAA",
                            store().identity().adminUsername};
    std::filesystem::create_directories(location.folder());
    auto lock = BackupLock::acquire(location.lockURL());
    ran.clear();
    EXPECT_EQ(eject(onDisk), BackupEjectText::refusedWhileRunning("Backup Disk") + "\n");
    EXPECT_TRUE(ran.empty());
  }

  auto unplugged = arguments(volumesFolder / "Other Disk" / "Backups");
  EXPECT_EQ(eject(unplugged), BackupEjectText::notConnected("Other Disk") + "\n");
  auto startup = arguments(folder_.path() / "Backups");
  EXPECT_NE(eject(startup).find("not kept on a disk that can be ejected"), std::string::npos);
}

}  // namespace
}  // namespace corvane

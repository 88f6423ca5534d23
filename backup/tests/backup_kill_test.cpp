// The `corvane` program killed with SIGKILL at random moments of a backup with
// files and started again each time: the finished copy is byte for byte the copy
// of a run never interrupted, known_ids holds every id once, and every document
// is in Files with its MD5 digest.
#include <gtest/gtest.h>

#include <signal.h>

#include <fmt/format.h>
#include <openssl/evp.h>

#include <random>
#include <thread>

#include "backup/backup_csv.hpp"
#include "backup/tests/command_process_fixture.hpp"

namespace corvane::testing {
namespace {

class BackupKillTest : public CommandProcessFixture {
 protected:
  // Runs `corvane backup run` against the sample org, into root.
  ProcessRequest backupRun(const std::filesystem::path& root) {
    return corvane({"backup", "run", "sample", "--root", root.string(), "--only",
                    "Account,Contact,ContentVersion", "--json"});
  }

  // The dated folder of the last run under root, as last-run.json names it.
  std::filesystem::path datedFolder(const std::filesystem::path& root) {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root))
      if (entry.path().filename() == "last-run.json") {
        auto last = nlohmann::json::parse(readFile(entry.path()), nullptr, false);
        if (last.is_object() && last.contains("folder"))
          return entry.path().parent_path() / last["folder"].get<std::string>();
      }
    return {};
  }
};

TEST_F(BackupKillTest, KilledAtRandomMomentsAndResumedTheCopyMatchesAnUninterruptedOne) {
  if (!findPrograms()) GTEST_SKIP() << "corvane or the sf stand-in is not built in " << buildDir_;
  ASSERT_EQ(logIn(), 0);

  // Accounts in bulk (above the REST threshold), Contacts over REST pages.
  const auto accounts = orgsim::testing::addAccounts(store(), 12'000);
  {
    auto writer = store().writer("Contact", {"LastName", "AccountId", "Email"});
    for (int i = 0; i < 5000; ++i)
      writer.insert({"Contact " + std::to_string(i), accounts[static_cast<std::size_t>(i)],
                     "c" + std::to_string(i) + "@example.com"});
    writer.commit();
  }
  {
    auto writer = store().writer("ContentVersion", {"Title", "PathOnClient", "VersionData",
                                                    "FileExtension", "FirstPublishLocationId", "IsLatest"});
    for (int i = 0; i < 30; ++i) {
      const std::string title = "Document " + std::to_string(i);
      writer.insert({title, title + ".txt", std::string(2000 + i * 97, static_cast<char>('a' + i % 26)),
                     "txt", accounts[static_cast<std::size_t>(i)], "true"});
    }
    writer.commit();
  }

  const auto whole = ChildProcess::run(backupRun(first_.path()));
  ASSERT_EQ(whole.exitStatus, 0) << whole.standardOutput << whole.standardError;

  std::mt19937 random(std::random_device{}());
  int kills = 0;
  for (int attempt = 0; attempt < 5; ++attempt) {
    RunningProcess running = RunningProcess::start(backupRun(second_.path()));
    std::this_thread::sleep_for(
        std::chrono::milliseconds(std::uniform_int_distribution<int>(50, 1500)(random)));
    if (running.poll()) break;  // it finished before the kill
    ::kill(running.pid(), SIGKILL);
    while (!running.poll()) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    ++kills;
  }
  // Kills before any progress count as stops at the same point: after the third
  // the run is given up and the next one starts afresh, so allow for that.
  ProcessResult last;
  for (int attempt = 0; attempt < 3; ++attempt) {
    last = ChildProcess::run(backupRun(second_.path()));
    if (last.exitStatus == 0) break;
  }
  ASSERT_EQ(last.exitStatus, 0) << last.standardOutput << last.standardError;

  const auto expected = datedFolder(first_.path());
  const auto resumed = datedFolder(second_.path());
  ASSERT_FALSE(resumed.empty());
  for (const char* name : {"Account.csv", "Contact.csv"}) {
    const auto bytes = readFile(resumed / name);
    EXPECT_TRUE(bytes == readFile(expected / name)) << name << " after " << kills << " kills";
    EXPECT_EQ(BackupCSV::scan(bytes).records.size(), name[0] == 'A' ? 12'000u : 5000u);
  }
  // known_ids: each id once, the same ids as the uninterrupted copy.
  for (const char* object : {"Account", "Contact"}) {
    auto count = [&](const std::filesystem::path& root) {
      std::filesystem::path database;
      for (const auto& entry : std::filesystem::recursive_directory_iterator(root))
        if (entry.path().filename() == "backup.sqlite") database = entry.path();
      auto db = SQLiteDB::open(database);
      auto statement = db->prepare(
          "SELECT COUNT(*), COUNT(DISTINCT id), group_concat(id) FROM (SELECT id FROM known_ids "
          "WHERE object = ? ORDER BY id)");
      statement.bindText(1, object);
      statement.step();
      return std::tuple(statement.columnInt(0), statement.columnInt(1), statement.columnText(2));
    };
    const auto [all, distinct, ids] = count(second_.path());
    EXPECT_EQ(all, distinct) << object;
    EXPECT_TRUE(ids == std::get<2>(count(first_.path()))) << object;
  }
  // Every document body is in Files with the digest Salesforce gave for it.
  auto list = BackupCSV::scan(readFile(resumed / "Files.csv"));
  const auto column = [&](std::string_view name) {
    return static_cast<std::size_t>(
        std::find(list.header.begin(), list.header.end(), name) -
        list.header.begin());
  };
  const auto nameAt = column("NameOnDisk");
  const auto checksumAt = column("Checksum");
  const auto downloadedAt = column("Downloaded");
  ASSERT_EQ(list.records.size(), 30u);
  for (const auto& record : list.records) {
    EXPECT_EQ(record.fields[downloadedAt], "true") << record.fields[nameAt];
    const auto body = readFile(resumed.parent_path() / "Files" / record.fields[nameAt]);
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    EVP_Digest(body.data(), body.size(), digest, &size, EVP_md5(), nullptr);
    std::string hex;
    for (unsigned int i = 0; i < size; ++i) hex += fmt::format("{:02x}", digest[i]);
    EXPECT_EQ(hex, record.fields[checksumAt]) << record.fields[nameAt];
  }
  RecordProperty("kills", kills);
}

}  // namespace
}  // namespace corvane::testing

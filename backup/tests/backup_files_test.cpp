// Document and attachment bodies: fetched once into the shared Files folder,
// checked, named safely, and left for the next run when they cannot be fetched.
#include <gtest/gtest.h>

#include "backup/backup_csv.hpp"
#include "backup/backup_store.hpp"
#include "backup/file_download.hpp"
#include "backup/manifest.hpp"
#include "backup/tests/backup_run_fixture.hpp"

namespace corvane::testing {
namespace {

class BackupFilesTest : public BackupRunFixture {
 protected:
  void SetUp() override {
    BackupRunFixture::SetUp();
    only_ = {"Account", "Attachment", "ContentVersion"};
    restThreshold_ = 1000;
    accounts_ = orgsim::testing::addAccounts(store(), 3);
    const auto& accounts = accounts_;
    {
      auto writer =
          store().writer("ContentVersion", {"Title", "PathOnClient", "VersionData", "FileExtension",
                                            "FirstPublishLocationId", "IsLatest"});
      for (const auto& [title, body] : bodies_)
        versions_.push_back(
            writer.insert({title, title + ".pdf", body, "pdf", accounts[0], "true"}));
      writer.commit();
    }
    auto writer = store().writer("Attachment", {"ParentId", "Name", "Body"});
    attachment_ = writer.insert({accounts[1], "con.txt", "plain attachment text"});
    writer.commit();
  }

  // Every regular file under the Files folder, by name, with its bytes.
  std::map<std::string, std::string> filesOnDisk(const std::filesystem::path& root) {
    std::map<std::string, std::string> out;
    const auto folder = config(root).location.filesFolder();
    if (!std::filesystem::exists(folder)) return out;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder))
      if (entry.is_regular_file())
        out[std::filesystem::relative(entry.path(), folder).string()] = readFile(entry.path());
    return out;
  }

  std::vector<std::pair<std::string, std::string>> bodies_{
      {"Quarterly report", std::string("%PDF-1.4 quarterly\n\x00\x01\x02 binary", 30)},
      {"../../etc/passwd", "root:x:0:0:root:/root:/bin/bash\n"},
      {"Re\xCC\x81sume\xCC\x81 \xE2\x80\x94 2024", "r\xC3\xA9sum\xC3\xA9 body"}};
  std::vector<std::string> accounts_;
  std::vector<std::string> versions_;
  std::string attachment_;
};

TEST_F(BackupFilesTest, BodiesAreFetchedOnceIntoFilesUnderSafeNamesAndListed) {
  auto summary = run(first_.path(), RunKind::full);
  ASSERT_EQ(summary.result, RunResult::complete) << summary.message;
  EXPECT_EQ(summary.filesDownloaded, 4);
  EXPECT_EQ(summary.filesWaiting, 0);

  auto files = filesOnDisk(first_.path());
  ASSERT_EQ(files.size(), 4u);  // nothing left in .partial, nothing outside Files
  std::multiset<std::string> contents;
  for (const auto& [name, bytes] : files) {
    EXPECT_EQ(name.find('/'), std::string::npos) << name;
    contents.insert(bytes);
  }
  std::multiset<std::string> expected{"plain attachment text"};
  for (const auto& body : bodies_) expected.insert(body.second);
  EXPECT_EQ(contents, expected);
  EXPECT_TRUE(files.count(versions_[1] + " _.._etc_passwd.pdf"));
  EXPECT_TRUE(files.count(attachment_ + " _con.txt"));
  EXPECT_TRUE(files.count(versions_[2] + " R\xC3\xA9sum\xC3\xA9 \xE2\x80\x94 2024.pdf"));

  // Files.csv names each body as it is on disk; FileLinks.csv is written beside it.
  auto list = BackupCSV::scan(readFile(summary.folder / "Files.csv"));
  const auto nameAt = std::find(list.header.begin(), list.header.end(), "NameOnDisk");
  ASSERT_NE(nameAt, list.header.end());
  ASSERT_EQ(list.records.size(), 4u);
  for (const auto& record : list.records)
    EXPECT_TRUE(files.count(record.fields[nameAt - list.header.begin()]));
  EXPECT_TRUE(std::filesystem::exists(summary.folder / "FileLinks.csv"));
  auto manifest = Manifest::read(summary.folder);
  ASSERT_TRUE(manifest);
  EXPECT_EQ(manifest->files.downloadedThisRun, 4);

  // A changes run with nothing new fetches nothing again.
  auto again = run(first_.path(), RunKind::changes);
  ASSERT_EQ(again.result, RunResult::complete) << again.message;
  EXPECT_EQ(again.filesDownloaded, 0);
  EXPECT_EQ(filesOnDisk(first_.path()), files);
}

TEST_F(BackupFilesTest, ABodyThatFailsItsChecksumIsNotKeptAndIsGivenUpAfterThreeTries) {
  admin("records/update",
        {{"id", versions_[0]}, {"fields", {{"Checksum", "00000000000000000000000000000000"}}}});
  auto first = run(first_.path(), RunKind::full);
  EXPECT_EQ(first.filesDownloaded, 3);
  EXPECT_EQ(first.filesWaiting, 1);
  EXPECT_NE(first.message.find("1 still to download. They will be fetched by the next backup."),
            std::string::npos)
      << first.message;
  for (const auto& [name, bytes] : filesOnDisk(first_.path()))
    EXPECT_NE(bytes, bodies_[0].second) << name;

  run(first_.path(), RunKind::changes);
  auto third = run(first_.path(), RunKind::changes);
  EXPECT_NE(third.message.find("1 could not be downloaded after 3 tries and were left out. The "
                               "next full backup tries again. Files.csv says which."),
            std::string::npos)
      << third.message;
  EXPECT_EQ(third.filesWaiting, 0);
  BackupStore backup(config(first_.path()).location);
  for (const auto& version : backup.fileVersions()) {
    if (version.id != versions_[0]) continue;
    EXPECT_FALSE(version.downloaded);
    EXPECT_TRUE(version.skipped);
    EXPECT_EQ(version.attempts, 3);
    EXPECT_EQ(version.failure,
              "The downloaded file did not match the checksum Salesforce gave for it.");
  }
}

TEST_F(BackupFilesTest, FilesWaitWhenAskedOrWhenTheAllowanceRunsLow) {
  downloadFiles_ = false;
  auto without = run(first_.path(), RunKind::full);
  ASSERT_EQ(without.result, RunResult::complete) << without.message;
  EXPECT_EQ(without.filesDownloaded, 0);
  EXPECT_TRUE(filesOnDisk(first_.path()).empty());

  // Less than a fifth of the day's allowance left: records are copied, files wait.
  downloadFiles_ = true;
  admin("settings", {{"dailyApiMax", 1000}, {"dailyApiUsedOffset", 900}});
  auto low = run(second_.path(), RunKind::full);
  EXPECT_EQ(low.records, 7);
  EXPECT_EQ(low.filesDownloaded, 0);
  EXPECT_EQ(low.filesWaiting, 4);
  EXPECT_NE(low.message.find("Some files will be fetched by the next backup. The org's daily API "
                             "allowance is running low."),
            std::string::npos)
      << low.message;
  EXPECT_TRUE(filesOnDisk(second_.path()).empty());

  admin("settings", {{"dailyApiUsedOffset", 0}});
  auto later = run(second_.path(), RunKind::changes);
  EXPECT_EQ(later.filesDownloaded, 4);
  EXPECT_EQ(filesOnDisk(second_.path()).size(), 4u);
}

TEST_F(BackupFilesTest, DocumentsOfARunWithoutFilesAreOwedAndFetchedByTheNextRunWithFiles) {
  downloadFiles_ = false;
  auto without = run(first_.path(), RunKind::full);
  ASSERT_EQ(without.result, RunResult::complete) << without.message;
  EXPECT_EQ(without.filesWaiting, 4);
  auto owed = Manifest::read(without.folder);
  ASSERT_TRUE(owed);
  EXPECT_EQ(owed->files.waiting, 4);

  // Nothing changed in the org: the changes run still fetches every owed body.
  downloadFiles_ = true;
  auto with = run(first_.path(), RunKind::changes);
  ASSERT_EQ(with.result, RunResult::complete) << with.message;
  EXPECT_EQ(with.filesDownloaded, 4);
  EXPECT_EQ(with.filesWaiting, 0);
  ASSERT_EQ(filesOnDisk(first_.path()).size(), 4u);

  // A body that went missing from Files is the Files folder's lack too.
  const auto files = filesOnDisk(first_.path());
  std::filesystem::remove(config(first_.path()).location.filesFolder() / files.begin()->first);
  auto again = run(first_.path(), RunKind::changes);
  EXPECT_EQ(again.filesDownloaded, 1);
  EXPECT_EQ(filesOnDisk(first_.path()), files);
}

TEST_F(BackupFilesTest, ADownloadLostOnTheWayIsNeverATryAndIsFetchedLater) {
  const std::string body = "*/sobjects/ContentVersion/" + versions_[0] + "/VersionData";
  // Three runs in a row lose the body: cut off mid-way, reset, then a 503.
  fault({{"path", body}, {"fault", "drop"}, {"afterBytes", 10}, {"count", 1}});
  auto first = run(first_.path(), RunKind::full);
  ASSERT_EQ(first.result, RunResult::complete) << first.message;
  EXPECT_EQ(first.filesDownloaded, 3);
  EXPECT_EQ(first.filesWaiting, 1);
  fault({{"path", body}, {"fault", "drop"}, {"afterBytes", 0}, {"count", 1}});
  run(first_.path(), RunKind::changes);
  fault({{"path", body}, {"fault", 503}, {"count", 1}});
  auto third = run(first_.path(), RunKind::changes);
  EXPECT_EQ(third.filesWaiting, 1);
  EXPECT_EQ(third.message.find("could not be downloaded"), std::string::npos) << third.message;
  {
    BackupStore backup(config(first_.path()).location);
    for (const auto& version : backup.fileVersions())
      if (version.id == versions_[0]) {
        EXPECT_FALSE(version.skipped);
        EXPECT_EQ(version.attempts, 0);
      }
  }
  auto fourth = run(first_.path(), RunKind::changes);
  EXPECT_EQ(fourth.filesDownloaded, 1);
  EXPECT_EQ(fourth.filesWaiting, 0);
  EXPECT_EQ(filesOnDisk(first_.path()).size(), 4u);
}

TEST_F(BackupFilesTest, ABodySalesforceSaysIsGoneIsGivenUpListedAndTriedByTheNextFullRun) {
  fault({{"path", "*/sobjects/ContentVersion/" + versions_[1] + "/VersionData"},
         {"fault", 404},
         {"count", 1}});
  auto first = run(first_.path(), RunKind::full);
  EXPECT_EQ(first.filesDownloaded, 3);
  EXPECT_EQ(first.filesWaiting, 0);
  EXPECT_NE(first.message.find("1 could not be downloaded because Salesforce says they are gone "
                               "or not for this login, and were left out. The next full backup "
                               "tries again. Files.csv says which."),
            std::string::npos)
      << first.message;
  EXPECT_EQ(first.message.find("after 3 tries"), std::string::npos) << first.message;
  auto manifest = nlohmann::json::parse(readFile(first.folder / "manifest.json"));
  const auto& failed = manifest.at("files").at("failed");
  ASSERT_TRUE(failed.is_array()) << failed;
  ASSERT_EQ(failed.size(), 1u);
  EXPECT_EQ(failed[0].at("id"), versions_[1]);
  EXPECT_EQ(failed[0].at("reason"), "The requested resource does not exist");

  // A changes run leaves it given up; the next full run tries it again.
  EXPECT_EQ(run(first_.path(), RunKind::changes).filesDownloaded, 0);
  auto full = run(first_.path(), RunKind::full);
  EXPECT_EQ(full.filesDownloaded, 1);
  EXPECT_EQ(filesOnDisk(first_.path()).size(), 4u);
  auto after = nlohmann::json::parse(readFile(full.folder / "manifest.json"));
  EXPECT_TRUE(after.at("files").at("failed").empty());
}

TEST_F(BackupFilesTest, FileLinksNameTheLinkedRecordAndItsObject) {
  std::string document;
  {
    auto writer = store().writer("ContentDocument", {"Title"});
    document = writer.insert({"Board minutes"});
    writer.commit();
  }
  {
    auto writer = store().writer("ContentVersion", {"Title", "PathOnClient", "VersionData",
                                                    "FileExtension", "ContentDocumentId"});
    writer.insert({"Board minutes", "minutes.txt", "minutes", "txt", document});
    writer.commit();
  }
  {
    auto writer = store().writer("ContentDocumentLink",
                                 {"LinkedEntityId", "ContentDocumentId", "ShareType", "Visibility"});
    writer.insert({accounts_[2], document, "C", "InternalUsers"});
    writer.insert({store().identity().adminUserId, document, "I", "AllUsers"});
    writer.commit();
  }
  only_.push_back("ContentDocumentLink");
  auto summary = run(first_.path(), RunKind::full);
  ASSERT_EQ(summary.result, RunResult::complete) << summary.message;

  auto links = BackupCSV::scan(readFile(summary.folder / "FileLinks.csv"));
  EXPECT_EQ(links.header,
            (std::vector<std::string>{"ContentDocumentId", "LinkedEntityId", "LinkedObject",
                                      "LinkedRecordName", "ShareType", "Visibility"}));
  std::set<std::vector<std::string>> rows;
  for (const auto& record : links.records) rows.insert(record.fields);
  EXPECT_EQ(rows.size(), 2u);
  EXPECT_TRUE(rows.count({document, accounts_[2], "Account", "Account 0002", "C", "InternalUsers"}))
      << readFile(summary.folder / "FileLinks.csv");
  const auto user = std::find_if(rows.begin(), rows.end(), [&](const auto& row) {
    return row[1] == store().identity().adminUserId;
  });
  ASSERT_NE(user, rows.end());
  EXPECT_EQ((*user)[2], "User");
  EXPECT_FALSE((*user)[3].empty());
}

TEST(FileDownload, ChangedAttachmentBodyGetsANewNameAndTheEarlierOneIsRemembered) {
  TemporaryFolder folder;
  BackupStore store(BackupLocation{folder.path(), "00D", "a@b.c"});
  FileDownload::Body body{"00P1", "Attachment", "", "notes.txt", "", "", "2024-01-01", 10, true};
  FileDownload::record(store.db(), {body});
  ASSERT_EQ(FileDownload::pending(store.db(), true).size(), 1u);
  const auto first = FileDownload::pending(store.db(), true).front();
  EXPECT_EQ(first.nameOnDisk, "00P1 notes.txt");
  FileDownload::recordFetch(store.db(), first, {true, 10, ""}, 3, 1);
  FileDownload::record(store.db(), {body});  // seen again, unchanged
  EXPECT_TRUE(FileDownload::pending(store.db(), true).empty());

  body.size = 12;
  body.stamp = "2024-02-01";
  FileDownload::record(store.db(), {body});
  const auto again = FileDownload::pending(store.db(), true);
  ASSERT_EQ(again.size(), 1u);
  EXPECT_EQ(again.front().nameOnDisk, "00P1~2 notes.txt");
  EXPECT_EQ(store.fileVersions().front().earlierCopies, std::vector<std::string>{"00P1 notes.txt"});
}

}  // namespace
}  // namespace corvane::testing

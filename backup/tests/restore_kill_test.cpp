// The `corvane` program killed with SIGKILL at random moments of a restore of
// a mass delete with purge (Accounts, their Contacts, documents on both) and
// started again until it ends: every record is back once, every Contact on its
// own Account, every document once with its links and its body unchanged.
#include <gtest/gtest.h>

#include <signal.h>

#include <fmt/format.h>
#include <openssl/evp.h>

#include <random>
#include <thread>

#include "backup/tests/command_process_fixture.hpp"
#include "tools/orgsim/org_records.hpp"

namespace corvane::testing {
namespace {

using Json = nlohmann::json;

std::string md5(std::string_view bytes) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  EVP_Digest(bytes.data(), bytes.size(), digest, &size, EVP_md5(), nullptr);
  std::string hex;
  for (unsigned int i = 0; i < size; ++i) hex += fmt::format("{:02x}", digest[i]);
  return hex;
}

std::string base64(std::string_view bytes) {
  std::string out(4 * ((bytes.size() + 2) / 3), '\0');
  const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                     reinterpret_cast<const unsigned char*>(bytes.data()),
                                     static_cast<int>(bytes.size()));
  out.resize(static_cast<std::size_t>(length));
  return out;
}

class RestoreKillTest : public CommandProcessFixture {
 protected:

  ProcessRequest restore() {
    return corvane({"backup", "restore", "sample", "--object", "Account", "--deleted",
                    "--with-children", "--root", first_.path().string(), "--yes", "--json"});
  }

  void backup(const std::string& kind) {
    const auto done = ChildProcess::run(
        corvane({"backup", "run", "sample", "--root", first_.path().string(), "--kind", kind,
                 "--only", "Account,Contact,ContentVersion,ContentDocumentLink", "--json"}));
    ASSERT_EQ(done.exitStatus, 0) << done.standardOutput << done.standardError;
  }

  Json post(const std::string& object, const Json& fields) {
    auto reply = client().Post("/services/data/v62.0/sobjects/" + object, auth(), fields.dump(),
                               "application/json");
    EXPECT_TRUE(reply);
    EXPECT_EQ(reply ? reply->status : 0, 201) << (reply ? reply->body : "");
    return reply ? Json::parse(reply->body, nullptr, false) : Json();
  }

  std::vector<Json> records(const std::string& soql) {
    std::vector<Json> out;
    for (auto page = query(soql);; page = getJson(page["nextRecordsUrl"].get<std::string>())) {
      for (const auto& record : page["records"]) out.push_back(record);
      if (page.value("done", true) || !page.contains("nextRecordsUrl")) break;
    }
    return out;
  }
};

TEST_F(RestoreKillTest, KilledAtRandomMomentsAndRunAgainItEndsWithEveryRecordAndLinkOnce) {
  if (!findPrograms()) GTEST_SKIP() << "corvane or the sf stand-in is not built in " << buildDir_;
  ASSERT_EQ(logIn(), 0);

  // 500 Accounts, three Contacts each, and 50 documents, each published on an
  // Account and shared with one of its Contacts.
  const auto accounts = orgsim::testing::addAccounts(store(), 500);
  std::vector<std::string> contacts;
  {
    auto writer = store().writer("Contact", {"LastName", "AccountId"});
    for (int i = 0; i < 1500; ++i)
      contacts.push_back(writer.insert(
          {fmt::format("Contact {:04d}", i), accounts[static_cast<std::size_t>(i / 3)]}));
    writer.commit();
  }
  std::map<std::string, std::string> digests;  // title -> MD5 of the body
  for (int i = 0; i < 50; ++i) {
    const std::string title = fmt::format("Document {:02d}", i);
    const std::string body(3000 + i * 101, static_cast<char>('a' + i % 26));
    digests[title] = md5(body);
    const auto version = post("ContentVersion", {{"Title", title},
                                                 {"PathOnClient", title + ".txt"},
                                                 {"VersionData", base64(body)},
                                                 {"FirstPublishLocationId", accounts[i * 10]}});
    const std::string document =
        records("SELECT ContentDocumentId FROM ContentVersion WHERE Id = '" +
                version["id"].get<std::string>() + "'")[0]["ContentDocumentId"];
    post("ContentDocumentLink",
         {{"ContentDocumentId", document}, {"LinkedEntityId", contacts[i * 30 + 1]}});
  }
  backup("full");
  store().advanceClock(std::chrono::minutes(2));
  const auto admin = store().identity().adminUserId;
  for (const auto* ids : std::vector<const std::vector<std::string>*>{&accounts, &contacts})
    for (const auto& id : *ids) ASSERT_TRUE(orgsim::OrgRecords::remove(store(), id, admin).success);
  // A day later, when the backups look for deletions again.
  store().advanceClock(std::chrono::hours(25));
  token_ = orgsim::Sessions::issue(store(), "").token;
  ASSERT_EQ(logIn(), 0);
  backup("changes");
  ASSERT_EQ(orgsim::OrgRecords::purge(store(), "Account", {}), 500);
  ASSERT_EQ(orgsim::OrgRecords::purge(store(), "Contact", {}), 1500);

  std::mt19937 random(std::random_device{}());
  int kills = 0;
  for (int attempt = 0; attempt < 4; ++attempt) {
    RunningProcess running = RunningProcess::start(restore());
    std::this_thread::sleep_for(
        std::chrono::milliseconds(std::uniform_int_distribution<int>(300, 2500)(random)));
    if (running.poll()) break;  // it finished before the kill
    ::kill(running.pid(), SIGKILL);
    while (!running.poll()) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    ++kills;
  }
  ProcessResult last;
  for (int attempt = 0; attempt < 3; ++attempt) {
    last = ChildProcess::run(restore());
    if (last.exitStatus == 0) break;
  }
  ASSERT_EQ(last.exitStatus, 0) << last.standardOutput << last.standardError;
  const auto again = ChildProcess::run(restore());
  ASSERT_EQ(again.exitStatus, 0) << again.standardError;
  EXPECT_TRUE(Json::parse(again.standardOutput, nullptr, false).value("nothingLeft", false))
      << again.standardOutput;

  // Every Account once, every Contact once on its own Account.
  std::map<std::string, std::string> accountIds;  // name -> id now
  for (const auto& account : records("SELECT Id, Name FROM Account"))
    EXPECT_TRUE(accountIds.emplace(account["Name"], account["Id"]).second) << account["Name"];
  EXPECT_EQ(accountIds.size(), 500u);
  std::map<std::string, std::string> contactIds;
  for (const auto& contact : records("SELECT Id, LastName, Account.Name FROM Contact")) {
    const std::string name = contact["LastName"];
    EXPECT_TRUE(contactIds.emplace(name, contact["Id"]).second) << "twice: " << name;
    EXPECT_EQ(contact["Account"]["Name"], fmt::format("Account {:04d}", std::stoi(name.substr(8)) / 3))
        << name;
  }
  EXPECT_EQ(contactIds.size(), 1500u);
  // Every document once, linked to its Account and its Contact, its body unchanged.
  std::map<std::string, int> uploads;
  for (const auto& version : records(
           "SELECT Id, Title, ContentDocumentId, FirstPublishLocationId FROM ContentVersion")) {
    const std::string title = version["Title"];
    const int i = std::stoi(title.substr(9));
    const auto account = accountIds[fmt::format("Account {:04d}", i * 10)];
    const auto contact = contactIds[fmt::format("Contact {:04d}", i * 30 + 1)];
    // Published on either of its records; the version from before the delete is on neither.
    if (version["FirstPublishLocationId"] != account && version["FirstPublishLocationId"] != contact)
      continue;
    ++uploads[title];
    const auto body = store().body("ContentVersion", version["Id"].get<std::string>());
    ASSERT_TRUE(body.has_value()) << title;
    EXPECT_EQ(md5(*body), digests[title]) << title;
    std::set<std::string> linked;
    for (const auto& link : records("SELECT LinkedEntityId FROM ContentDocumentLink WHERE "
                                    "ContentDocumentId = '" +
                                    version["ContentDocumentId"].get<std::string>() + "'"))
      EXPECT_TRUE(linked.insert(link["LinkedEntityId"]).second) << "linked twice: " << title;
    EXPECT_TRUE(linked.count(account)) << title;
    EXPECT_TRUE(linked.count(contact)) << title;
  }
  EXPECT_EQ(uploads.size(), 50u);
  for (const auto& [title, count] : uploads) EXPECT_EQ(count, 1) << title;
  RecordProperty("kills", kills);
}

}  // namespace
}  // namespace corvane::testing

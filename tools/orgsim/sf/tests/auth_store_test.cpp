#include "tools/orgsim/sf/auth_store.hpp"

#include <sys/stat.h>

#include <fstream>

#include <gtest/gtest.h>

#include "platform/tests/temporary_folder.hpp"
#include "tools/orgsim/sf/cli_failure.hpp"

namespace corvane::sfstandin {
namespace {

namespace fs = std::filesystem;

nlohmann::ordered_json loginFields(const std::string& username) {
  nlohmann::ordered_json fields;
  fields["accessToken"] = "";
  fields["instanceUrl"] = "http://127.0.0.1:1/";
  fields["username"] = username;
  fields["orgId"] = "00D000000000001EAA";
  return fields;
}

unsigned modeOf(const fs::path& path) {
  struct stat info {};
  EXPECT_EQ(::stat(path.c_str(), &info), 0) << path;
  return info.st_mode & 0777;
}

TEST(AuthStore, KeepsOneFilePerLoginWithTheTokenEncryptedAndEverythingPrivate) {
  TemporaryFolder home;
  AuthStore store(home.path());
  store.save(loginFields("admin@sample.org"), "00Dx!secret-session");
  store.setAlias("sample", "admin@sample.org");

  fs::path file = home.path() / ".sfdx" / "admin@sample.org.json";
  std::ifstream in(file);
  std::string content((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_EQ(content.find("secret-session"), std::string::npos);
  EXPECT_NE(content.find("\"username\": \"admin@sample.org\""), std::string::npos);

  EXPECT_EQ(modeOf(home.path() / ".sfdx"), 0700u);
  for (const char* name : {"admin@sample.org.json", "alias.json", "key.json"}) {
    EXPECT_EQ(modeOf(home.path() / ".sfdx" / name), 0600u) << name;
  }

  auto login = store.login("admin@sample.org");
  ASSERT_TRUE(login);
  EXPECT_EQ(store.accessToken(*login), "00Dx!secret-session");
  // A second save keeps the same key, so older logins stay readable.
  store.save(loginFields("other@sample.org"), "00Dy!other");
  EXPECT_EQ(store.accessToken(*store.login("admin@sample.org")), "00Dx!secret-session");
}

TEST(AuthStore, TargetResolvesAnAliasBeforeAUsername) {
  TemporaryFolder home;
  AuthStore store(home.path());
  store.save(loginFields("a@x.org"), "00D!a");
  store.save(loginFields("b@x.org"), "00D!b");
  // An alias spelled like another login's username wins, as it does in the real CLI.
  store.setAlias("b@x.org", "a@x.org");

  EXPECT_EQ(store.resolve("b@x.org"), "a@x.org");
  EXPECT_EQ(store.resolve("a@x.org"), "a@x.org");
  EXPECT_EQ(store.resolve("A@X.ORG"), "a@x.org");
  EXPECT_EQ(store.resolve("nobody"), std::nullopt);
  // An alias whose login is gone resolves to nothing rather than to a stale name.
  store.setAlias("ghost", "gone@x.org");
  EXPECT_EQ(store.resolve("ghost"), std::nullopt);
  EXPECT_EQ(store.nearestName("a@x.orq"), "a@x.org");
}

TEST(AuthStore, AliasesKeepTheirOrderAndTheLastOneSetNamesTheLogin) {
  TemporaryFolder home;
  AuthStore store(home.path());
  store.setAlias("first", "u@x.org");
  store.setAlias("second", "u@x.org");
  store.setAlias("first", "v@x.org");

  std::vector<std::pair<std::string, std::string>> expected{{"first", "v@x.org"},
                                                            {"second", "u@x.org"}};
  EXPECT_EQ(store.aliases(), expected);
  EXPECT_EQ(store.aliasFor("u@x.org"), "second");

  std::ifstream in(home.path() / ".sfdx" / "alias.json");
  std::string content((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_EQ(content, R"({"orgs":{"first":"v@x.org","second":"u@x.org"}})");
}

TEST(AuthStore, RemovingALoginDropsItsFileAndEveryAliasPointingAtIt) {
  TemporaryFolder home;
  AuthStore store(home.path());
  store.save(loginFields("a@x.org"), "00D!a");
  store.save(loginFields("b@x.org"), "00D!b");
  store.setAlias("one", "a@x.org");
  store.setAlias("two", "b@x.org");
  store.setAlias("three", "a@x.org");

  store.remove("a@x.org");

  EXPECT_FALSE(fs::exists(home.path() / ".sfdx" / "a@x.org.json"));
  ASSERT_EQ(store.logins().size(), 1u);
  EXPECT_EQ(store.logins()[0].username, "b@x.org");
  std::vector<std::pair<std::string, std::string>> expected{{"two", "b@x.org"}};
  EXPECT_EQ(store.aliases(), expected);
}

TEST(AuthStore, ListsOnlyReadableLoginFiles) {
  TemporaryFolder home;
  AuthStore store(home.path());
  store.save(loginFields("a@x.org"), "00D!a");
  std::ofstream(home.path() / ".sfdx" / "broken@x.org.json") << "{not json";
  std::ofstream(home.path() / ".sfdx" / "x@y.sandbox.json") << "{}";
  std::ofstream(home.path() / ".sfdx" / "notes.json") << "{}";

  auto logins = store.logins();
  ASSERT_EQ(logins.size(), 1u);
  EXPECT_EQ(logins[0].username, "a@x.org");
}

TEST(AuthStore, RefusesUsernamesThatWouldEscapeTheLoginFolder) {
  TemporaryFolder home;
  AuthStore store(home.path());
  for (const char* bad : {"../evil", "a/b@x.org", ".hidden@x.org", "", "tab\t@x.org"}) {
    EXPECT_THROW(store.save(loginFields(bad), "00D!a"), CliFailure) << bad;
  }
  EXPECT_FALSE(fs::exists(home.path() / "evil.json"));
  EXPECT_TRUE(store.logins().empty());
}

TEST(AuthStore, ATokenThatDoesNotDecryptIsReportedNotReturned) {
  TemporaryFolder home;
  AuthStore store(home.path());
  store.save(loginFields("a@x.org"), "00D!a");
  fs::remove(home.path() / ".sfdx" / "key.json");
  try {
    store.accessToken(*store.login("a@x.org"));
    FAIL() << "expected a failure";
  } catch (const CliFailure& failure) {
    EXPECT_EQ(failure.kind(), CliFailure::Kind::storeUnreadable);
    EXPECT_NE(failure.description().find("Log in to the org again"), std::string::npos);
  }
}

}  // namespace
}  // namespace corvane::sfstandin

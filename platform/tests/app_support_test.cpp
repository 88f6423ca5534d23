#include "platform/app_support.hpp"

#include <sys/stat.h>

#include <fstream>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/desktop_notification.hpp"
#include "platform/durable_file.hpp"
#include "platform/file_error.hpp"
#include "platform/tests/temporary_folder.hpp"

namespace corvane {
namespace {

using ::testing::StartsWith;

// Sets an environment variable for one test and restores it afterwards.
class ScopedEnvironment {
 public:
  ScopedEnvironment(const char* name, const std::optional<std::string>& value) : name_(name) {
    if (const char* old = std::getenv(name)) previous_ = old;
    if (value) {
      ::setenv(name, value->c_str(), 1);
    } else {
      ::unsetenv(name);
    }
  }
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;
  ~ScopedEnvironment() {
    if (previous_) {
      ::setenv(name_, previous_->c_str(), 1);
    } else {
      ::unsetenv(name_);
    }
  }

 private:
  const char* name_;
  std::optional<std::string> previous_;
};

mode_t modeOf(const std::filesystem::path& path) {
  struct stat info {};
  ::stat(path.c_str(), &info);
  return info.st_mode & 07777;
}

class SettingsTest : public ::testing::Test {
 protected:
  TemporaryFolder temporary;
  std::filesystem::path home = temporary.path() / "home";
  ScopedEnvironment corvaneHome{"CORVANE_HOME", home.string()};
  std::filesystem::path file = home / "settings.json";
};

TEST_F(SettingsTest, FolderIsCorvaneHomeCreatedPrivate) {
  EXPECT_EQ(AppSupport::folder(), home);
  EXPECT_TRUE(std::filesystem::is_directory(home));
  EXPECT_EQ(modeOf(home), 0700u);
}

TEST(AppSupport, FollowsXdgDataHomeAndHomeWithoutCorvaneHome) {
  TemporaryFolder temporary;
  ScopedEnvironment noOverride("CORVANE_HOME", std::nullopt);
  ScopedEnvironment home("HOME", (temporary.path() / "user").string());
  {
    ScopedEnvironment xdg("XDG_DATA_HOME", (temporary.path() / "data").string());
#ifndef __APPLE__
    EXPECT_EQ(AppSupport::folder(), temporary.path() / "data" / "Corvane");
#endif
  }
  ScopedEnvironment relativeXdg("XDG_DATA_HOME", "relative/data");
  EXPECT_EQ(AppSupport::homeFolder(), temporary.path() / "user");
#ifdef __APPLE__
  EXPECT_EQ(AppSupport::folder(),
            temporary.path() / "user" / "Library" / "Application Support" / "Corvane");
#else
  EXPECT_EQ(AppSupport::folder(), temporary.path() / "user" / ".local" / "share" / "Corvane");
#endif
}

TEST_F(SettingsTest, SavesSortedPrettyAndPrivateAndReadsBack) {
  EXPECT_EQ(Settings::load(), nlohmann::json::object());
  Settings::set("cliPath", "/usr/local/bin/sf");
  Settings::set("backupTickMinute", 17);

  EXPECT_EQ(Durable::readWhole(file),
            "{\n  \"backupTickMinute\": 17,\n  \"cliPath\": \"/usr/local/bin/sf\"\n}\n");
  EXPECT_EQ(modeOf(file), 0600u);
  EXPECT_EQ(Settings::string("cliPath"), "/usr/local/bin/sf");
  EXPECT_EQ(Settings::integer("backupTickMinute"), 17);
}

TEST_F(SettingsTest, WrongTypesAndMissingKeysReadAsNone) {
  Settings::save({{"backupTickMinute", "17"}, {"cliPath", 3}, {"big", 5000000000}});
  EXPECT_EQ(Settings::integer("backupTickMinute"), std::nullopt);
  EXPECT_EQ(Settings::string("cliPath"), std::nullopt);
  EXPECT_EQ(Settings::integer("big"), std::nullopt);
  EXPECT_EQ(Settings::string("absent"), std::nullopt);
}

TEST_F(SettingsTest, UnreadableFileIsMovedAsideNeverOverwritten) {
  std::filesystem::create_directories(home);
  for (const char* bad : {"{\"cliPath\": \"/opt/sf\"", "[1, 2]"}) {
    std::ofstream(file) << bad;
    EXPECT_EQ(Settings::load(), nlohmann::json::object()) << bad;
  }
  Settings::set("backupTickMinute", 5);

  std::vector<std::string> keptAside;
  for (const auto& entry : std::filesystem::directory_iterator(home)) {
    const auto name = entry.path().filename().string();
    if (name != "settings.json") {
      EXPECT_THAT(name, StartsWith("settings-unreadable-"));
      keptAside.push_back(*Durable::readWhole(entry.path()));
    }
  }
  EXPECT_THAT(keptAside, ::testing::UnorderedElementsAre("{\"cliPath\": \"/opt/sf\"", "[1, 2]"));
  EXPECT_EQ(Settings::load(), (nlohmann::json{{"backupTickMinute", 5}}));
}

// Only bad JSON is set aside: a file that exists but cannot be read just now
// (here a folder where the file should be, which fails like an I/O error) is
// reported and left exactly where it is, and nothing is written over it.
TEST_F(SettingsTest, APassingReadErrorNeverMovesTheFileAside) {
  std::filesystem::create_directories(file);
  EXPECT_THROW(Settings::load(), FileError);
  EXPECT_THROW(Settings::set("backupTickMinute", 5), FileError);
  EXPECT_THROW(Settings::save(nlohmann::json{{"backupTickMinute", 5}}), FileError);
  int entries = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(home)) ++entries;
  EXPECT_EQ(entries, 1);
  EXPECT_TRUE(std::filesystem::is_directory(file));
}

// The headless tick often runs without a session bus: then nothing is shown,
// nothing is started, and post() says so at once.
TEST(DesktopNotification, WithoutASessionBusNothingIsShown) {
  TemporaryFolder runtime;
  ScopedEnvironment bus("DBUS_SESSION_BUS_ADDRESS", std::nullopt);
  ScopedEnvironment runtimeDir("XDG_RUNTIME_DIR", runtime.path().string());
  EXPECT_FALSE(DesktopNotification::sessionBusAvailable());
  EXPECT_FALSE(DesktopNotification::post("Corvane", "A test notice."));
  Durable::writeWhole(runtime.path() / "bus", "");
  EXPECT_TRUE(DesktopNotification::sessionBusAvailable());
}

TEST_F(SettingsTest, ConcurrentSettersLoseNoKey) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 10; ++i) Settings::set("key" + std::to_string(t * 10 + i), i);
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(Settings::load().size(), 40u);
}

}  // namespace
}  // namespace corvane

#include "backup/backup_lock.hpp"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "backup/backup_error.hpp"
#include "platform/tests/temporary_folder.hpp"

namespace corvane {
namespace {

TEST(BackupLock, ASecondRunIsRefusedUntilTheFirstLetsGo) {
  TemporaryFolder folder;
  const auto lockURL = folder.path() / "org" / "user" / ".lock";
  EXPECT_FALSE(BackupLock::isHeld(lockURL));
  auto lock = BackupLock::acquire(lockURL);
  EXPECT_TRUE(BackupLock::isHeld(lockURL));
  try {
    BackupLock::acquire(lockURL);
    FAIL() << "two locks on one org";
  } catch (const BackupError& error) {
    EXPECT_EQ(error.kind(), BackupError::Kind::alreadyRunning);
    EXPECT_STREQ(error.what(),
                 "A backup of this org is already running. It will finish on its own.");
  }
  lock.release();
  EXPECT_FALSE(BackupLock::isHeld(lockURL));
  EXPECT_NO_THROW(BackupLock::acquire(lockURL));
  EXPECT_TRUE(std::filesystem::exists(lockURL));
  EXPECT_EQ(std::filesystem::status(lockURL).permissions() & std::filesystem::perms::all,
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

TEST(BackupLock, IsRefusedAcrossProcessesAndFreedWhenTheHolderDies) {
  TemporaryFolder folder;
  const auto lockURL = folder.path() / ".lock";
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    ::close(ready[0]);
    try {
      auto held = BackupLock::acquire(lockURL);
      char byte = 'y';
      (void)!::write(ready[1], &byte, 1);
      for (;;) ::pause();
    } catch (...) {
      ::_exit(3);
    }
  }
  ::close(ready[1]);
  char byte = 0;
  ASSERT_EQ(::read(ready[0], &byte, 1), 1);
  ::close(ready[0]);

  EXPECT_TRUE(BackupLock::isHeld(lockURL));
  EXPECT_THROW(BackupLock::acquire(lockURL), BackupError);

  ::kill(child, SIGKILL);
  int status = 0;
  ::waitpid(child, &status, 0);
  EXPECT_FALSE(BackupLock::isHeld(lockURL));
  EXPECT_NO_THROW(BackupLock::acquire(lockURL));
}

}  // namespace
}  // namespace corvane

#include "platform/file_lock.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "platform/child_process.hpp"
#include "platform/tests/temporary_folder.hpp"

namespace corvane {
namespace {

// Another process holding the lock: a forked child that takes it with plain
// system calls, reports through a pipe, and holds it until killed.
class LockHolder {
 public:
  explicit LockHolder(const std::filesystem::path& path) {
    int ready[2];
    if (::pipe(ready) != 0) throw std::runtime_error("pipe");
    pid_ = ::fork();
    if (pid_ == 0) {
      ::close(ready[0]);
      const int fd = ::open(path.c_str(), O_RDWR | O_CREAT, 0600);
      const char answer = fd >= 0 && ::flock(fd, LOCK_EX | LOCK_NB) == 0 ? 'y' : 'n';
      (void)!::write(ready[1], &answer, 1);
      for (;;) ::pause();
    }
    ::close(ready[1]);
    char answer = 0;
    (void)!::read(ready[0], &answer, 1);
    ::close(ready[0]);
    holding_ = answer == 'y';
  }
  LockHolder(const LockHolder&) = delete;
  LockHolder& operator=(const LockHolder&) = delete;
  ~LockHolder() { end(); }

  bool holding() const { return holding_; }
  // The holder dies without letting go: the lock must still end with it.
  void end() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
  }

 private:
  pid_t pid_ = -1;
  bool holding_ = false;
};

TEST(FileLock, HeldByAnotherProcessUntilThatProcessEnds) {
  TemporaryFolder folder;
  const auto path = folder.path() / ".lock";
  LockHolder holder(path);
  ASSERT_TRUE(holder.holding());

  EXPECT_FALSE(FileLock::tryAcquire(path).has_value());
  EXPECT_TRUE(FileLock::isHeld(path));

  holder.end();
  auto lock = FileLock::tryAcquire(path);
  ASSERT_TRUE(lock.has_value());
  EXPECT_TRUE(lock->isOwned());
}

TEST(FileLock, ExcludesASecondOwnerInTheSameProcessUntilReleased) {
  TemporaryFolder folder;
  const auto path = folder.path() / ".tick.lock";
  {
    auto first = FileLock::tryAcquire(path);
    ASSERT_TRUE(first.has_value());
    EXPECT_FALSE(FileLock::tryAcquire(path).has_value());

    // Moving the owner keeps the lock; only the last owner's end lets go.
    FileLock moved = std::move(*first);
    first.reset();
    EXPECT_TRUE(FileLock::isHeld(path));
    moved.release();
    EXPECT_FALSE(FileLock::isHeld(path));
  }
  EXPECT_TRUE(FileLock::tryAcquire(path).has_value());
  EXPECT_TRUE(std::filesystem::exists(path));  // the file is never removed
}

TEST(FileLock, CreatesTheFileOwnerOnlyAndReportsAFolderThatIsMissing) {
  TemporaryFolder folder;
  const auto path = folder.path() / ".lock";
  const mode_t previous = ::umask(0);
  auto lock = FileLock::tryAcquire(path);
  ::umask(previous);
  struct stat info {};
  ASSERT_EQ(::stat(path.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0600u);

  try {
    FileLock::tryAcquire(folder.path() / "missing" / ".lock");
    FAIL() << "locked a file in a missing folder";
  } catch (const FileError& error) {
    EXPECT_EQ(error.kind(), FileError::Kind::open);
  }
}

TEST(FileLock, AChildProcessDoesNotInheritTheLock) {
  TemporaryFolder folder;
  const auto path = folder.path() / ".lock";
  auto lock = FileLock::tryAcquire(path);
  ASSERT_TRUE(lock.has_value());

  ProcessRequest request;
  request.executable = "/bin/sleep";
  request.arguments = {"30"};
  RunningProcess child = RunningProcess::start(request);
  lock->release();
  EXPECT_FALSE(FileLock::isHeld(path));
  child.terminate();
  while (!child.poll()) ::usleep(1000);
}

}  // namespace
}  // namespace corvane

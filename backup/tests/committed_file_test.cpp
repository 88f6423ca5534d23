#include "backup/committed_file.hpp"

#include <gtest/gtest.h>

#include "platform/durable_file.hpp"
#include "platform/tests/temporary_folder.hpp"

namespace corvane {
namespace {

TEST(CommittedFile, ReopeningAtTheCommittedLengthDropsTheUncommittedTail) {
  TemporaryFolder folder;
  const auto path = folder.path() / "Account.csv";
  std::int64_t committed = 0;
  {
    CommittedFile file(path, 0);
    file.append("\"Id\"\n\"1\"\n");
    file.sync();
    committed = file.length();
    file.append("\"2\"\n\"3");  // written, never recorded: a crash came first
  }
  CommittedFile reopened(path, committed);
  EXPECT_EQ(reopened.length(), committed);
  reopened.append("\"2\"\n");
  reopened.sync();
  EXPECT_EQ(Durable::readWhole(path).value(), "\"Id\"\n\"1\"\n\"2\"\n");
}

TEST(CommittedFile, ANewFileStartsEmptyAndAShorterFileIsNeverPadded) {
  TemporaryFolder folder;
  const auto path = folder.path() / "new.csv";
  {
    CommittedFile file(path, 0);
    EXPECT_EQ(file.length(), 0);
    file.append("abc");
  }
  CommittedFile file(path, 100);
  EXPECT_EQ(file.length(), 3);
  EXPECT_EQ(Durable::readWhole(path).value(), "abc");
}

TEST(CommittedFile, RefusesToPassTheDisksLimitAndWritesNothing) {
  TemporaryFolder folder;
  const auto path = folder.path() / "big.csv";
  CommittedFile file(path, 0, 10);
  file.append("12345678");
  try {
    file.append("abc");
    FAIL() << "appended past the limit";
  } catch (const FileSizeLimitReached& error) {
    EXPECT_EQ(error.limit(), 10);
    EXPECT_EQ(error.wanted(), 11);
  }
  file.append("90");  // exactly at the limit is allowed
  file.sync();
  EXPECT_EQ(file.length(), 10);
  EXPECT_EQ(Durable::readWhole(path).value(), "1234567890");
}

}  // namespace
}  // namespace corvane

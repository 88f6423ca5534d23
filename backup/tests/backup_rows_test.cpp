#include "backup/backup_rows.hpp"

#include <gtest/gtest.h>

#include "backup/backup_csv.hpp"
#include "platform/durable_file.hpp"
#include "platform/tests/temporary_folder.hpp"

namespace corvane {
namespace {

TEST(BackupRows, LastKnownTakesEachIdFromTheNewestUsableEarlierRun) {
  TemporaryFolder folder;
  BackupStore store({folder.path(), "org", "me"});
  auto addRun = [&](const std::string& name, const std::string& result, const std::string& csv) {
    const auto id = store.insertRun(name, RunKind::full, "2024-05-01T10:00:00Z");
    store.db()
        .prepare("UPDATE runs SET stage = 'done', result = ? WHERE id = ?")
        .bindText(1, result)
        .bindInt(2, id)
        .run();
    std::filesystem::create_directories(store.location().folder() / name);
    if (!csv.empty()) Durable::writeWhole(store.location().folder() / name / "Account.csv", csv);
    return id;
  };
  const std::string header = BackupCSV::line(std::vector<std::string>{"Name", "Id"});
  addRun("2024-05-01 1000", "complete",
         header + BackupCSV::line(std::vector<std::string>{"Old A", "a"}) +
             BackupCSV::line(std::vector<std::string>{"Old B", "b"}));
  addRun("2024-05-02 1000", "complete",
         header + BackupCSV::line(std::vector<std::string>{"New A", "a"}));
  addRun("2024-05-03 1000", "stopped",
         header + BackupCSV::line(std::vector<std::string>{"Stopped", "b"}));
  addRun("2024-05-04 1000", "complete", "Name,Id\n\"cut off");
  const auto current = addRun("2024-05-05 1000", "complete",
                              header + BackupCSV::line(std::vector<std::string>{"Current", "a"}));

  auto rows = BackupRows::lastKnown(store, "Account", {"a", "b", "c"}, current);
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows["a"], (BackupRows::Row{{"Id", "a"}, {"Name", "New A"}}));
  EXPECT_EQ(rows["b"].at("Name"), "Old B");
  EXPECT_TRUE(BackupRows::lastKnown(store, "Contact", {"a"}, current).empty());
}

}  // namespace
}  // namespace corvane

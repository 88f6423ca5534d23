#include "query/query_history.hpp"

#include <gtest/gtest.h>

#include "platform/tests/temporary_folder.hpp"

namespace corvane {
namespace {

TEST(QueryHistory, KeepsRunsPerLoginNewestFirstAndFindsThemByAnyPartOfTheText) {
  TemporaryFolder folder;
  const auto file = folder.path() / "sub" / "Query History.sqlite";
  {
    QueryHistory history(file);
    history.record({0, "Admin@Sample.org", "SELECT Id FROM Account", {}, 12, 40, ""});
    history.record({0, "admin@sample.org", "SELECT Name FROM Contact", {}, 0, 10, "Bad query."});
    history.record({0, "other@sample.org", "SELECT Id FROM Lead", {}, 1, 5, ""});
    history.record(
        {0, "admin@sample.org", "SELECT Id FROM Opportunity WHERE Name LIKE '50%'", {}, 1, 5, ""});
  }
  QueryHistory history(file);  // read back from disk
  auto all = history.entries("ADMIN@sample.org");
  ASSERT_EQ(all.size(), 3u);
  EXPECT_EQ(all[0].soql, "SELECT Id FROM Opportunity WHERE Name LIKE '50%'");
  EXPECT_EQ(all[1].error, "Bad query.");
  EXPECT_EQ(all[2].rows, 12);
  auto found = history.entries("admin@sample.org", "contact");
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0].soql, "SELECT Name FROM Contact");
  // LIKE's own characters are searched for as they are.
  EXPECT_EQ(history.entries("admin@sample.org", "50%").size(), 1u);
  EXPECT_EQ(history.entries("admin@sample.org", "_").size(), 0u);
  history.forget(all[0].id);
  EXPECT_EQ(history.entries("admin@sample.org").size(), 2u);
}

TEST(QueryHistory, SavedQueriesAreNamedAndASecondSaveUnderTheNameReplacesTheFirst) {
  TemporaryFolder folder;
  QueryHistory history(folder.path() / "h.sqlite");
  history.save({"Admin@Sample.org", "big accounts", "SELECT Id FROM Account", {}});
  history.save({"admin@sample.org", "Active contacts", "SELECT Id FROM Contact", {}});
  history.save({"admin@sample.org", "big accounts", "SELECT Id FROM Account LIMIT 5", {}});
  auto saved = history.saved("admin@sample.org");
  ASSERT_EQ(saved.size(), 2u);
  EXPECT_EQ(saved[0].name, "Active contacts");
  EXPECT_EQ(saved[1].soql, "SELECT Id FROM Account LIMIT 5");
  EXPECT_TRUE(history.saved("other@sample.org").empty());
  history.removeSaved("admin@sample.org", "big accounts");
  EXPECT_EQ(history.saved("admin@sample.org").size(), 1u);
}

}  // namespace
}  // namespace corvane

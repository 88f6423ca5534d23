#include "backup/retention.hpp"

#include <gtest/gtest.h>

namespace corvane {
namespace {

using Retention::RunInfo;

RunInfo run(std::int64_t id, RunKind kind, bool finished = true, bool usable = true) {
  RunInfo info;
  info.id = id;
  info.folder = "run " + std::to_string(id);
  info.kind = kind;
  info.finished = finished;
  info.usable = usable;
  info.plannedObjects = std::set<std::string>{"Account", "Contact"};
  info.completeObjects = info.plannedObjects;
  return info;
}

std::vector<std::int64_t> ids(const std::vector<RunInfo>& runs) {
  std::vector<std::int64_t> result;
  for (const auto& info : runs) result.push_back(info.id);
  return result;
}

constexpr auto full = RunKind::full;
constexpr auto changes = RunKind::changes;

TEST(RetentionTest, KeepsTheLastFullRunsAndTheChangesRunsThatFollowThem) {
  const std::vector<RunInfo> runs = {run(1, full), run(2, changes), run(3, full), run(4, changes),
                                     run(5, full), run(6, changes), run(7, full), run(8, changes)};
  EXPECT_EQ(Retention::removable(runs, Retention::Policy::standard()),
            (std::set<std::int64_t>{1, 2}));
  EXPECT_EQ(Retention::removable(runs, Retention::Policy{1}),
            (std::set<std::int64_t>{1, 2, 3, 4, 5, 6}));
  EXPECT_TRUE(Retention::removable(runs, Retention::Policy{5}).empty());  // not five fulls yet
  EXPECT_TRUE(Retention::removable(runs, Retention::Policy{0}).empty());
  EXPECT_TRUE(Retention::removable(runs, Retention::Policy::keepEverything()).empty());
}

TEST(RetentionTest, OnlyCompleteUsableFullRunsCountTowardsTheOnesKept) {
  auto stopped = run(4, full);
  stopped.completeObjects.reset();  // a stopped run is never complete
  auto leftOut = run(5, full);
  leftOut.leftOutObjects = {"Contact"};
  auto failed = run(6, full, true, false);
  const std::vector<RunInfo> runs = {run(1, full), run(2, full), run(3, full),
                                     stopped,      leftOut,      failed};
  // Run 2 is the second newest complete full run: 3 to 6 stay with it.
  EXPECT_EQ(Retention::removable(runs, Retention::Policy{2}), (std::set<std::int64_t>{1}));
}

TEST(RetentionTest, AnObjectNoFullRunCouldCopyDoesNotKeepEveryRun) {
  auto refusing = [](std::int64_t id, RunKind kind) {
    auto info = run(id, kind);
    info.plannedObjects->insert("Vote");
    info.leftOutObjects = {"Vote"};
    return info;
  };
  const std::vector<RunInfo> runs = {refusing(1, full), refusing(2, changes), refusing(3, full),
                                     refusing(4, full)};
  EXPECT_EQ(Retention::removable(runs, Retention::Policy{2}), (std::set<std::int64_t>{1, 2}));
  // Once one full run copied it, the runs without it no longer count as complete.
  auto copied = run(0, full);
  copied.plannedObjects->insert("Vote");
  copied.completeObjects->insert("Vote");
  auto withCopy = runs;
  withCopy.insert(withCopy.begin(), copied);
  EXPECT_TRUE(Retention::removable(withCopy, Retention::Policy{2}).empty());
}

TEST(RetentionTest, PlanNeverNamesTheRunJustFinishedOrAnUnfinishedOne) {
  const std::vector<RunInfo> runs = {run(1, full), run(2, changes, false, false), run(3, full),
                                     run(4, full)};
  EXPECT_EQ(ids(Retention::plan(runs, Retention::Policy{1}, std::nullopt)),
            (std::vector<std::int64_t>{1, 3}));
  EXPECT_EQ(ids(Retention::plan(runs, Retention::Policy{1}, 3)), (std::vector<std::int64_t>{1}));
}

}  // namespace
}  // namespace corvane

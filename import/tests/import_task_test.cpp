#include "import/import_task.hpp"

#include <gtest/gtest.h>

#include "import/import_error.hpp"
#include "platform/tests/temporary_folder.hpp"
#include "tools/orgsim/tests/sample_org.hpp"
#include "tools/orgsim/tests/sample_org_api.hpp"

namespace corvane {
namespace {

class ImportTaskTest : public orgsim::testing::ServerFixture {
 protected:
  void SetUp() override {
    ServerFixture::SetUp();
    api_ = orgsim::testing::adminClient(*server_);
    org_.username = store().identity().adminUsername;
  }

  ImportTask::Prepared prepare(const ImportGrid& grid, std::stop_token stop = {},
                               const ImportTask::ProgressHandler& onProgress = {}) {
    ImportTask::PrepareRequest request;
    request.object = "account";
    request.operation = *ImportOperation::parse("insert");
    return ImportTask::prepare(*api_, org_, grid, request, stop, onProgress);
  }

  ImportTask::WriteRequest request() {
    ImportTask::WriteRequest request;
    request.source = (folder_.path() / "accounts.csv").string();
    request.journal = folder_.path() / "journal.sqlite";
    return request;
  }

  TemporaryFolder folder_;
  std::unique_ptr<SalesforceAPI::Client> api_;
  Org org_;
};

TEST_F(ImportTaskTest, PreparesThenWritesReportingEachPhase) {
  const auto grid = ImportTask::readPasted("Name,Phone\nAcme,123\n,456\nGlobex,789\n");
  std::vector<ImportTask::Progress> seen;
  auto record = [&](const ImportTask::Progress& progress) { seen.push_back(progress); };
  const auto prepared = prepare(grid, {}, record);
  EXPECT_EQ(prepared.object, "Account");
  EXPECT_EQ(prepared.plan.readyRows(), 2u) << "a row without a name has a problem";
  using Phase = ImportTask::Phase;
  EXPECT_EQ(seen, (std::vector<ImportTask::Progress>{{Phase::describing, 0, 0, "account"},
                                                    {Phase::checking, 0, 3, "Account"},
                                                    {Phase::finished, 3, 3, "Account"}}));

  seen.clear();
  const auto before = store().count("Account");
  const auto written = ImportTask::write(*api_, org_, grid, prepared, request(), {}, record);
  EXPECT_EQ(written.summary.created, 2u);
  EXPECT_EQ(written.summary.notSent, 1u);
  EXPECT_EQ(store().count("Account"), before + 2);
  ASSERT_TRUE(written.failedRowsFile);
  EXPECT_TRUE(std::filesystem::exists(*written.failedRowsFile));
  ASSERT_GE(seen.size(), 2u);
  EXPECT_EQ(seen[seen.size() - 2], (ImportTask::Progress{Phase::writing, 2, 2, "Account"}));
  EXPECT_EQ(seen.back().phase, Phase::finished);
}

TEST_F(ImportTaskTest, AStopWritesNothingMoreAndTheNextRunCarriesOn) {
  const auto grid = ImportTask::readPasted("Name\nAcme\nGlobex\n");
  std::stop_source source;
  source.request_stop();
  EXPECT_THROW(prepare(grid, source.get_token()), TaskStopped);

  const auto prepared = prepare(grid);
  const auto before = store().count("Account");
  try {
    ImportTask::write(*api_, org_, grid, prepared, request(), source.get_token());
    FAIL() << "the stop came before the first batch";
  } catch (const ImportRunError& error) {
    EXPECT_EQ(error.kind(), ImportRunError::Kind::cancelled);
  }
  EXPECT_EQ(store().count("Account"), before);
  const auto written = ImportTask::write(*api_, org_, grid, prepared, request(), {});
  EXPECT_EQ(written.summary.created, 2u);
  EXPECT_FALSE(written.failedRowsFile);
  EXPECT_EQ(store().count("Account"), before + 2);
}

TEST_F(ImportTaskTest, FilesThatCannotBeReadAreTypedFailures) {
  EXPECT_THROW(ImportTask::readPasted("\n\n"), ImportError);
  EXPECT_THROW(ImportTask::readFile(folder_.path() / "old.xls", std::nullopt), ImportError);
}

}  // namespace
}  // namespace corvane

// The sample org as the duplicate tasks meet it: Corvane's home in a
// temporary folder, an admin API client, and a login lookup that finds the
// sample org's admin (orgOf, which a fixture may widen).
#pragma once

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "dedupe/snapshot_task.hpp"
#include "platform/tests/temporary_folder.hpp"
#include "tools/orgsim/tests/sample_org.hpp"
#include "tools/orgsim/tests/sample_org_api.hpp"

namespace corvane::testing {

class DedupeOrgFixture : public orgsim::testing::ServerFixture {
 protected:
  void SetUp() override {
    ServerFixture::SetUp();
    ::setenv("CORVANE_HOME", home_.path().c_str(), 1);
    api_ = orgsim::testing::adminClient(*server_);
    findLogin_ = [this](const std::string& login) { return orgOf(login); };
  }
  void TearDown() override {
    ::unsetenv("CORVANE_HOME");
    ServerFixture::TearDown();
  }

  virtual Org orgOf(const std::string& /*login*/) {
    Org org;
    org.username = store().identity().adminUsername;
    org.instanceUrl = server_->baseUrl();
    return org;
  }

  // A record made in the sample org; its Id.
  std::string create(const std::string& object, const nlohmann::json& fields) {
    return admin("records/create", {{"object", object}, {"fields", fields}})["id"];
  }

  // A snapshot of the object's records (match fields as typed on the command line).
  std::filesystem::path download(const std::string& object, const std::vector<std::string>& match,
                                 const std::vector<std::string>& extra = {},
                                 const std::string& scope = "") {
    SnapshotTask::DownloadRequest request;
    for (const std::string& field : match)
      request.match.push_back(SnapshotTask::parseMatchChoice(field));
    request.extra = extra;
    request.scope = scope;
    request.runner.firstPollDelay = std::chrono::milliseconds(5);
    return SnapshotTask::download(*api_, findLogin_, "sample", object, request, {}).snapshot;
  }

  TemporaryFolder home_;
  std::unique_ptr<SalesforceAPI::Client> api_;
  FindLogin findLogin_;
};

}  // namespace corvane::testing

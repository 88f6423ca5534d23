// Test helpers: a temporary state folder with a few known records, and a running
// server with a client and a token.
#pragma once

#include <filesystem>
#include <memory>
#include <random>
#include <string>

#include <gtest/gtest.h>
#include <httplib.h>
#include <nlohmann/json.hpp>

#include "tools/orgsim/org_store.hpp"
#include "tools/orgsim/server.hpp"
#include "tools/orgsim/sessions.hpp"

namespace corvane::orgsim::testing {

// A folder under the system temp folder, removed with everything in it.
class TempFolder {
 public:
  TempFolder() {
    std::random_device random;
    path_ = std::filesystem::temp_directory_path() /
            ("orgsim-test-" + std::to_string(random()) + std::to_string(random()));
    std::filesystem::create_directories(path_);
  }
  ~TempFolder() {
    std::error_code error;
    std::filesystem::remove_all(path_, error);
  }
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

// Accounts "Account 0000" ... with a Contact each, written through the batched writer.
inline std::vector<std::string> addAccounts(OrgStore& store, int count,
                                            const std::string& createdDate = {}) {
  std::vector<std::string> ids;
  auto writer = store.writer("Account", {"Name", "Industry", "AnnualRevenue", "CreatedDate"});
  for (int i = 0; i < count; ++i) {
    char name[32];
    std::snprintf(name, sizeof name, "Account %04d", i);
    std::string revenue = std::to_string(i * 1000);
    ids.push_back(writer.insert({name, i % 2 == 0 ? "Banking" : "Energy", revenue,
                                 createdDate.empty() ? FieldValue() : FieldValue(createdDate)}));
  }
  writer.commit();
  return ids;
}

// A running server on a fresh state folder, with a client and an admin token.
class ServerFixture : public ::testing::Test {
 protected:
  void SetUp() override { startServer(); }
  void TearDown() override { stopServer(); }

  void startServer() {
    server_ = std::make_unique<OrgServer>(folder_.path() / "state");
    int port = server_->start();
    client_ = std::make_unique<httplib::Client>("127.0.0.1", port);
    client_->set_read_timeout(std::chrono::seconds(30));
    server_->store().setSetting("bulkDelayMs", "0");
    token_ = Sessions::issue(server_->store(), "").token;
  }

  void stopServer() {
    client_.reset();
    server_.reset();
  }

  OrgStore& store() { return server_->store(); }
  httplib::Client& client() { return *client_; }

  httplib::Headers auth(httplib::Headers extra = {}) const {
    extra.emplace("Authorization", "Bearer " + token_);
    return extra;
  }

  static std::string encode(const std::string& text) {
    std::string out;
    for (unsigned char c : text) {
      if (std::isalnum(c) || c == '-' || c == '_' || c == '.') {
        out += static_cast<char>(c);
      } else {
        char buffer[4];
        std::snprintf(buffer, sizeof buffer, "%%%02X", c);
        out += buffer;
      }
    }
    return out;
  }

  // GET with the token; fails the test when there is no answer at all.
  httplib::Result get(const std::string& path, httplib::Headers extra = {}) {
    auto result = client_->Get(path.c_str(), auth(std::move(extra)));
    EXPECT_TRUE(result) << "no answer from " << path;
    return result;
  }

  nlohmann::json getJson(const std::string& path, int expectedStatus = 200,
                         httplib::Headers extra = {}) {
    auto result = get(path, std::move(extra));
    if (!result) return nullptr;
    EXPECT_EQ(result->status, expectedStatus) << path << ": " << result->body;
    return nlohmann::json::parse(result->body, nullptr, false);
  }

  nlohmann::json query(const std::string& soql, int expectedStatus = 200,
                       const std::string& resource = "query") {
    return getJson("/services/data/v62.0/" + resource + "?q=" + encode(soql), expectedStatus);
  }

  nlohmann::json admin(const std::string& path, const nlohmann::json& body) {
    auto result = client_->Post(("/_admin/" + path).c_str(), body.dump(), "application/json");
    EXPECT_TRUE(result);
    if (!result) return nullptr;
    EXPECT_EQ(result->status, 200) << result->body;
    return nlohmann::json::parse(result->body, nullptr, false);
  }

  TempFolder folder_;
  std::unique_ptr<OrgServer> server_;
  std::unique_ptr<httplib::Client> client_;
  std::string token_;
};

}  // namespace corvane::orgsim::testing

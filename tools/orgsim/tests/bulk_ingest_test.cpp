#include "tools/orgsim/bulk_ingest.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tools/orgsim/tests/sample_org.hpp"

namespace corvane::orgsim {
namespace {

using ::testing::HasSubstr;
using Json = nlohmann::json;

class BulkIngestTest : public testing::ServerFixture {
 protected:
  const std::string base = "/services/data/v62.0/jobs/ingest";

  Json send(const std::string& method, const std::string& path, const std::string& body,
            int expected, const std::string& type = "application/json") {
    httplib::Request request;
    request.method = method;
    request.path = path;
    request.headers = auth();
    request.body = body;
    request.set_header("Content-Type", type);
    auto result = client().send(request);
    EXPECT_TRUE(result);
    if (!result) return nullptr;
    EXPECT_EQ(result->status, expected) << method << " " << path << ": " << result->body;
    return Json::parse(result->body, nullptr, false);
  }

  // Creates, uploads and closes a job; returns its id once finished.
  std::string runJob(const Json& create, const std::string& csv) {
    Json job = send("POST", base, create.dump(), 200);
    std::string id = job["id"];
    EXPECT_EQ(job["state"], "Open");
    send("PUT", base + "/" + id + "/batches", csv, 201, "text/csv");
    send("PATCH", base + "/" + id, R"({"state":"UploadComplete"})", 200);
    for (int poll = 0; poll < 100; ++poll) {
      Json info = getJson(base + "/" + id);
      if (info["state"] == "JobComplete" || info["state"] == "Failed") break;
    }
    return id;
  }

  std::vector<std::vector<std::string>> results(const std::string& id, const std::string& kind) {
    auto result = get(base + "/" + id + "/" + kind);
    return result ? parseBulkCsv(result->body) : std::vector<std::vector<std::string>>{};
  }
};

TEST_F(BulkIngestTest, InsertsEachRowOnItsOwnWithSalesforcesValidation) {
  std::string id = runJob({{"object", "Account"}, {"operation", "insert"}},
                          "Name,Rating\n"
                          "Good,Hot\n"
                          ",Warm\n" +
                              std::string(256, 'x') + ",\n" +
                              "Tepid one,Tepid\n"
                              "\"Quoted, \"\"name\"\"\",Cold\n");
  Json info = getJson(base + "/" + id);
  EXPECT_EQ(info["state"], "JobComplete");
  EXPECT_EQ(info["numberRecordsProcessed"], 5);
  EXPECT_EQ(info["numberRecordsFailed"], 3);

  auto success = results(id, "successfulResults");
  ASSERT_EQ(success.size(), 3u);
  EXPECT_EQ(success[0], (std::vector<std::string>{"sf__Id", "sf__Created", "Name", "Rating"}));
  EXPECT_EQ(success[1][1], "true");
  EXPECT_EQ(success[1][2], "Good");
  EXPECT_EQ(success[2][2], "Quoted, \"name\"");
  auto failed = results(id, "failedResults");
  ASSERT_EQ(failed.size(), 4u);
  EXPECT_THAT(failed[1][1], HasSubstr("REQUIRED_FIELD_MISSING"));
  EXPECT_THAT(failed[2][1], HasSubstr("STRING_TOO_LONG"));
  EXPECT_THAT(failed[3][1], HasSubstr("INVALID_OR_NULL_FOR_RESTRICTED_PICKLIST"));
  EXPECT_EQ(query("SELECT Id FROM Account WHERE Name = 'Good'")["totalSize"], 1);
  EXPECT_EQ(results(id, "unprocessedrecords").size(), 1u);  // the header only
}

TEST_F(BulkIngestTest, UpsertsByExternalIdRefusingRepeatsAndLockedRows) {
  std::string first = runJob({{"object", "Invoice__c"},
                              {"operation", "upsert"},
                              {"externalIdFieldName", "Invoice_Number__c"}},
                             "Invoice_Number__c,Name\nA-1,One\nA-2,Two\n");
  EXPECT_EQ(results(first, "successfulResults").size(), 3u);

  admin("faults", {{"path", base + "/*"}, {"fault", "UNABLE_TO_LOCK_ROW"}, {"count", 1}});
  std::string second =
      runJob({{"object", "Invoice__c"},
              {"operation", "upsert"},
              {"externalIdFieldName", "Invoice_Number__c"}},
             "Invoice_Number__c,Name\na-1,Locked\nA-1,One again\na-1,Repeat\nA-3,Three\n");
  auto success = results(second, "successfulResults");
  ASSERT_EQ(success.size(), 3u);
  EXPECT_EQ(success[1][1], "false");  // A-1 updated
  EXPECT_EQ(success[2][1], "true");   // A-3 created
  auto failed = results(second, "failedResults");
  ASSERT_EQ(failed.size(), 3u);
  EXPECT_THAT(failed[1][1], HasSubstr("UNABLE_TO_LOCK_ROW"));
  EXPECT_THAT(failed[2][1], HasSubstr("DUPLICATE_EXTERNAL_ID"));
  EXPECT_EQ(query("SELECT Id FROM Invoice__c WHERE Name = 'One again'")["totalSize"], 1);
  EXPECT_EQ(query("SELECT Id FROM Invoice__c")["totalSize"], 3);

  Json refused =
      send("POST", base,
           Json{{"object", "Invoice__c"}, {"operation", "upsert"}, {"externalIdFieldName", "Name"}}
               .dump(),
           400);
  EXPECT_THAT(refused.dump(), HasSubstr("INVALIDJOB"));
}

TEST_F(BulkIngestTest, AbortedAndBrokenJobsWriteNothing) {
  Json job = send("POST", base, R"({"object":"Account","operation":"insert"})", 200);
  std::string id = job["id"];
  send("PUT", base + "/" + id + "/batches", "Name\nNever\n", 415, "application/json");
  send("PUT", base + "/" + id + "/batches", "Name\nNever\n", 201, "text/csv");
  send("PATCH", base + "/" + id, R"({"state":"Aborted"})", 200);
  send("PUT", base + "/" + id + "/batches", "Name\nLate\n", 409, "text/csv");
  EXPECT_EQ(results(id, "unprocessedrecords").size(), 2u);

  std::string broken =
      runJob({{"object", "Account"}, {"operation", "insert"}}, "Name,Shoe_Size__c\nX,42\n");
  Json info = getJson(base + "/" + broken);
  EXPECT_EQ(info["state"], "Failed");
  EXPECT_THAT(info["errorMessage"].get<std::string>(), HasSubstr("Shoe_Size__c"));
  EXPECT_EQ(query("SELECT Id FROM Account")["totalSize"], 0);
}

}  // namespace
}  // namespace corvane::orgsim

#include "tools/orgsim/org_records.hpp"

#include <gtest/gtest.h>

#include "tools/orgsim/database.hpp"
#include "tools/orgsim/tests/sample_org.hpp"

namespace corvane::orgsim {
namespace {

using nlohmann::json;
using testing::TempFolder;

class OrgRecordsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    store_ = OrgStore::open(folder_.path());
    user_ = store_->identity().adminUserId;
  }

  const ObjectDef& object(const char* name) { return *Schema::object(name); }

  std::string value(const std::string& objectName, const std::string& id,
                    const std::string& field) {
    auto lease = store_->read();
    auto statement = lease->prepare("SELECT " + quoteIdentifier(field) + " FROM " +
                                    quoteIdentifier(objectName) + " WHERE \"Id\" = ?");
    statement.bind(1, id);
    if (!statement.step()) return "<no row>";
    return statement.isNull(0) ? "<null>" : std::string(statement.text(0));
  }

  static std::string code(const SaveResult& result) {
    return result.errors.empty() ? "" : result.errors.front().statusCode;
  }

  TempFolder folder_;
  std::unique_ptr<OrgStore> store_;
  std::string user_;
};

TEST_F(OrgRecordsTest, CreateChecksFieldsLikeSalesforce) {
  auto create = [&](const char* objectName, const json& fields) {
    return OrgRecords::create(*store_, object(objectName), fields, user_);
  };
  EXPECT_EQ(code(create("Account", {{"Nme", "x"}})), "INVALID_FIELD");
  EXPECT_EQ(code(create("Account", json::object())), "REQUIRED_FIELD_MISSING");
  EXPECT_EQ(code(create("Account", {{"Name", "x"}, {"CreatedDate", "2020-01-01T00:00:00Z"}})),
            "INVALID_FIELD_FOR_INSERT_UPDATE");
  EXPECT_EQ(code(create("Account", {{"Name", std::string(256, 'a')}})), "STRING_TOO_LONG");
  EXPECT_EQ(code(create("Account", {{"Name", std::string(255, 'e')}})), "");
  EXPECT_EQ(code(create("Account", {{"Name", "x"}, {"ParentId", "not-an-id"}})), "MALFORMED_ID");
  EXPECT_EQ(code(create("Account", {{"Name", "x"}, {"NumberOfEmployees", "many"}})),
            "JSON_PARSER_ERROR");
  EXPECT_EQ(code(create("User", {{"Username", "u@x.org"}})), "REQUIRED_FIELD_MISSING");
  EXPECT_EQ(code(create("AccountHistory", {{"Field", "Name"}})), "INSUFFICIENT_ACCESS_OR_READONLY");
  // A dry run says what would happen and writes nothing.
  EXPECT_TRUE(
      OrgRecords::create(*store_, object("Account"), {{"Name", "dry"}}, user_, true).success);

  SaveResult attachment =
      create("Attachment",
             {{"Name", "a.txt"}, {"ParentId", store_->identity().orgId}, {"Body", "aGVsbG8="}});
  ASSERT_TRUE(attachment.success) << attachment.errors.front().message;
  EXPECT_EQ(store_->body("Attachment", attachment.id), "hello");
  EXPECT_EQ(value("Attachment", attachment.id, "BodyLength"), "5");
  EXPECT_EQ(store_->count("Account"), 1);
}

TEST_F(OrgRecordsTest, ANewContentVersionMakesItsDocumentLinkedWhereFirstPublished) {
  auto account = testing::addAccounts(*store_, 1).front();
  SaveResult version = OrgRecords::create(*store_, object("ContentVersion"),
                                          {{"Title", "Contract"},
                                           {"PathOnClient", "Contract.pdf"},
                                           {"VersionData", "aGVsbG8="},
                                           {"FirstPublishLocationId", account}},
                                          user_);
  ASSERT_TRUE(version.success) << version.errors.front().message;
  EXPECT_EQ(store_->body("ContentVersion", version.id), "hello");
  EXPECT_EQ(value("ContentVersion", version.id, "Checksum"), "5d41402abc4b2a76b9719d911017c592");
  EXPECT_EQ(value("ContentVersion", version.id, "IsLatest"), "true");
  const std::string document = value("ContentVersion", version.id, "ContentDocumentId");
  EXPECT_EQ(value("ContentDocument", document, "LatestPublishedVersionId"), version.id);
  EXPECT_EQ(value("ContentDocument", document, "Title"), "Contract");
  auto lease = store_->read();
  auto links = lease->prepare(
      "SELECT \"LinkedEntityId\" FROM \"ContentDocumentLink\" WHERE \"ContentDocumentId\" = ? "
      "ORDER BY 1");
  links.bind(1, document);
  std::vector<std::string> linked;
  while (links.step()) linked.emplace_back(links.text(0));
  EXPECT_EQ(linked, (std::vector<std::string>{account, user_}));
}

TEST_F(OrgRecordsTest, UpdateStampsTheRecordAndRefusesDeletedOnes) {
  std::string id = testing::addAccounts(*store_, 1, "2020-01-01T00:00:00.000Z").front();
  std::string created = value("Account", id, "LastModifiedDate");
  store_->advanceClock(std::chrono::hours(1));
  SaveResult result =
      OrgRecords::update(*store_, object("Account"), id,
                         {{"Website", "https://acme.example"}, {"Industry", nullptr}}, user_);
  ASSERT_TRUE(result.success);
  EXPECT_EQ(value("Account", id, "Website"), "https://acme.example");
  EXPECT_EQ(value("Account", id, "Industry"), "<null>");
  EXPECT_GT(value("Account", id, "SystemModstamp"), created);
  EXPECT_EQ(value("Account", id, "CreatedDate"), "2020-01-01T00:00:00.000Z");
  EXPECT_EQ(code(OrgRecords::update(*store_, object("Account"), id, {{"Name", nullptr}}, user_)),
            "REQUIRED_FIELD_MISSING");
  EXPECT_EQ(OrgRecords::update(*store_, object("Account"), RecordIds::make("001", 999),
                               json::object(), user_)
                .httpStatus,
            404);
  // The admin interface may set what the org normally sets.
  EXPECT_TRUE(OrgRecords::update(*store_, object("Account"), id,
                                 {{"LastModifiedDate", "2021-06-01T00:00:00Z"}}, user_, true)
                  .success);
  EXPECT_EQ(value("Account", id, "LastModifiedDate"), "2021-06-01T00:00:00.000Z");

  ASSERT_TRUE(OrgRecords::remove(*store_, id, user_).success);
  EXPECT_EQ(code(OrgRecords::update(*store_, object("Account"), id, {{"Website", "x"}}, user_)),
            "ENTITY_IS_DELETED");
  EXPECT_EQ(code(OrgRecords::remove(*store_, id, user_)), "ENTITY_IS_DELETED");
  EXPECT_EQ(code(OrgRecords::remove(*store_, store_->identity().adminUserId, user_)),
            "INSUFFICIENT_ACCESS_OR_READONLY");
}

TEST_F(OrgRecordsTest, UndeleteOnlyWhatIsInTheRecycleBin) {
  auto ids = testing::addAccounts(*store_, 2);
  EXPECT_EQ(code(OrgRecords::undelete(*store_, ids[0], user_)), "UNDELETE_FAILED");
  ASSERT_TRUE(OrgRecords::remove(*store_, ids[0], user_).success);
  ASSERT_TRUE(OrgRecords::remove(*store_, ids[1], user_).success);
  EXPECT_TRUE(OrgRecords::undelete(*store_, ids[0], user_).success);
  EXPECT_EQ(value("Account", ids[0], "IsDeleted"), "false");
  EXPECT_EQ(OrgRecords::purge(*store_, "Account", {}), 1);
  EXPECT_EQ(code(OrgRecords::undelete(*store_, ids[1], user_)), "UNDELETE_FAILED");
  EXPECT_EQ(store_->count("Account", true), 1);
}

TEST_F(OrgRecordsTest, MergingContactsMovesTheirActivitiesAndCases) {
  auto contacts = store_->writer("Contact", {"LastName", "Email"});
  std::string master = contacts.insert({"Keep", "old@x.org"});
  std::string loserA = contacts.insert({"GoA", FieldValue()});
  std::string loserB = contacts.insert({"GoB", FieldValue()});
  contacts.commit();
  auto tasks = store_->writer("Task", {"Subject", "WhoId"});
  std::string task = tasks.insert({"Call", loserA});
  tasks.commit();
  auto cases = store_->writer("Case", {"Subject", "ContactId"});
  std::string caseId = cases.insert({"Broken", loserB});
  cases.commit();

  MergeRequest request{
      "Contact", master, {{"Email", std::nullopt}, {"Title", "Boss"}}, {loserA, loserB}};
  MergeOutcome outcome = OrgRecords::merge(*store_, request, user_);
  ASSERT_TRUE(outcome.success) << outcome.errors.front().message;
  EXPECT_EQ(outcome.mergedRecordIds, (std::vector<std::string>{loserA, loserB}));
  EXPECT_EQ(value("Task", task, "WhoId"), master);
  EXPECT_EQ(value("Case", caseId, "ContactId"), master);
  EXPECT_EQ(value("Contact", master, "Email"), "<null>");
  EXPECT_EQ(value("Contact", master, "Title"), "Boss");
  EXPECT_EQ(value("Contact", loserB, "MasterRecordId"), master);
  EXPECT_EQ(value("Contact", loserB, "IsDeleted"), "true");

  auto refused = [&](MergeRequest r) {
    MergeOutcome o = OrgRecords::merge(*store_, r, user_);
    EXPECT_FALSE(o.success);
    return o.errors.empty() ? "" : o.errors.front().statusCode;
  };
  EXPECT_EQ(refused({"Contact", master, {}, {loserA}}), "ENTITY_IS_DELETED");  // already merged
  EXPECT_EQ(refused({"Contact", master, {}, {master}}), "INVALID_ID_FIELD");
  EXPECT_EQ(refused({"Opportunity", RecordIds::make("006", 1), {}, {RecordIds::make("006", 2)}}),
            "INVALID_TYPE");
  EXPECT_EQ(refused({"Contact", master, {}, {}}), "INVALID_OPERATION");
  EXPECT_EQ(refused({"Contact", master, {{"Nonsense", "x"}}, {loserA}}), "INVALID_FIELD");
}

TEST_F(OrgRecordsTest, GetDeletedOnlyForReplicatedObjectsWithDeletions) {
  auto answer = OrgRecords::getDeleted(*store_, object("SetupAuditTrail"),
                                       store_->now() - std::chrono::hours(1), store_->now());
  ASSERT_TRUE(std::holds_alternative<OrgRecords::GetDeletedRefused>(answer));
  answer = OrgRecords::getDeleted(*store_, object("Account"),
                                  store_->now() - std::chrono::hours(24 * 31), store_->now());
  EXPECT_EQ(std::get<OrgRecords::GetDeletedRefused>(answer).errorCode, "INVALID_REPLICATION_DATE");
  // Seconds are ignored: 10:00:00 to 10:01:59 is one minute, 10:00:59 to 10:02:01 two.
  SystemTime ten = *WireTime::parseDateTime("2024-01-05T10:00:00Z");
  store_->setClock(ten + std::chrono::hours(1));
  answer = OrgRecords::getDeleted(*store_, object("Account"), ten, ten + std::chrono::seconds(119));
  EXPECT_TRUE(std::holds_alternative<OrgRecords::GetDeletedRefused>(answer));
  answer = OrgRecords::getDeleted(*store_, object("Account"), ten + std::chrono::seconds(59),
                                  ten + std::chrono::seconds(121));
  ASSERT_TRUE(std::holds_alternative<GetDeletedAnswer>(answer));
  EXPECT_EQ(WireTime::dateTime(std::get<GetDeletedAnswer>(answer).latestDateCovered),
            "2024-01-05T10:02:00.000Z");
}

}  // namespace
}  // namespace corvane::orgsim

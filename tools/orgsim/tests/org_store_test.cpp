#include "tools/orgsim/org_store.hpp"

#include <gtest/gtest.h>

#include "tools/orgsim/database.hpp"
#include "tools/orgsim/tests/sample_org.hpp"
#include "tools/orgsim/wire_values.hpp"

namespace corvane::orgsim {
namespace {

using testing::TempFolder;

TEST(RecordIdsTest, SuffixMarksTheUpperCaseLettersOfEachFiveCharacters) {
  EXPECT_EQ(RecordIds::suffix("00D8d0000000001"), "EAA");
  EXPECT_EQ(RecordIds::suffix("001Ab00000CdEfG"), "IAV");
  EXPECT_EQ(RecordIds::suffix("ABCDEABCDEABCDE"), "555");

  std::string id = RecordIds::make("001", 123456789);
  EXPECT_EQ(id.size(), 18u);
  EXPECT_EQ(id.substr(0, 3), "001");
  EXPECT_TRUE(RecordIds::isValid18(id));
  EXPECT_NE(RecordIds::make("001", 1), RecordIds::make("001", 2));
  // Ids that differ only in case differ in their suffix.
  EXPECT_NE(RecordIds::suffix("001Ab00000CdEfG"), RecordIds::suffix("001ab00000CdEfG"));
  EXPECT_EQ(RecordIds::normalize(id.substr(0, 15)), id);
  EXPECT_FALSE(RecordIds::normalize("001-not-an-id").has_value());
}

TEST(WireValuesTest, NormalisesValuesToTheirStoredForm) {
  auto fieldOf = [](FieldType type) {
    FieldDef field;
    field.type = type;
    return field;
  };
  FieldDef datetime = fieldOf(FieldType::DateTime);
  EXPECT_EQ(WireValues::normalize(datetime, "2024-01-05T12:00:00+02:00"),
            "2024-01-05T10:00:00.000Z");
  EXPECT_EQ(WireValues::normalize(datetime, "2024-01-05T10:00:00.000+0000"),
            "2024-01-05T10:00:00.000Z");
  EXPECT_FALSE(WireValues::normalize(datetime, "2024-13-05T10:00:00Z").has_value());
  FieldDef number = fieldOf(FieldType::Double);
  EXPECT_EQ(WireValues::normalize(number, "1e-7"), "0.0000001");
  EXPECT_EQ(WireValues::normalize(number, "-1.5E3"), "-1500");
  EXPECT_EQ(WireValues::normalize(number, "123456789012345678"), "123456789012345678");
  EXPECT_FALSE(WireValues::normalize(number, "12abc").has_value());
  FieldDef flag = fieldOf(FieldType::Boolean);
  EXPECT_EQ(WireValues::normalize(flag, "TRUE"), "true");
  EXPECT_FALSE(WireValues::normalize(flag, "yes").has_value());
  EXPECT_EQ(WireValues::base64Decode(WireValues::base64Encode(std::string("\0\xff\x10z", 4))),
            std::string("\0\xff\x10z", 4));
}

TEST(OrgStoreTest, WriterFillsWhatTheOrgFillsAndComputesFormulas) {
  TempFolder folder;
  auto store = OrgStore::open(folder.path());
  auto contacts = store->writer("Contact", {"FirstName", "LastName"});
  std::string id = contacts.insert({"Ada", "Lovelace"});
  contacts.commit();
  auto invoices = store->writer("Invoice__c", {"Name", "Amount__c", "Tax_Rate__c"});
  std::string invoice = invoices.insert({"INV-1", "100", "19"});
  invoices.commit();
  auto cases = store->writer("Case", {"Subject"});
  cases.insert({"First"});
  cases.insert({"Second"});
  cases.commit();

  auto lease = store->read();
  auto contact = lease->prepare(
      "SELECT \"Name\", \"IsDeleted\", \"OwnerId\", \"CreatedDate\", \"SystemModstamp\", "
      "\"HasOptedOutOfEmail\" FROM \"Contact\" WHERE \"Id\" = ?");
  contact.bind(1, id);
  ASSERT_TRUE(contact.step());
  EXPECT_EQ(contact.text(0), "Ada Lovelace");
  EXPECT_EQ(contact.text(1), "false");
  EXPECT_EQ(contact.text(2), store->identity().adminUserId);
  EXPECT_EQ(contact.text(3), contact.text(4));
  EXPECT_EQ(contact.text(5), "false");
  auto total = lease->prepare("SELECT \"Total__c\" FROM \"Invoice__c\" WHERE \"Id\" = ?");
  total.bind(1, invoice);
  ASSERT_TRUE(total.step());
  EXPECT_EQ(total.text(0), "119.0");
  auto numbers = lease->prepare("SELECT \"CaseNumber\" FROM \"Case\" ORDER BY rowid");
  ASSERT_TRUE(numbers.step());
  EXPECT_EQ(numbers.text(0), "00000001");
  ASSERT_TRUE(numbers.step());
  EXPECT_EQ(numbers.text(0), "00000002");
}

TEST(OrgStoreTest, RefusesUnknownFieldsFormulasAndBadValues) {
  TempFolder folder;
  auto store = OrgStore::open(folder.path());
  EXPECT_THROW(store->writer("Account", {"Nope"}), OrgStoreError);
  EXPECT_THROW(store->writer("Invoice__c", {"Total__c"}), OrgStoreError);
  EXPECT_THROW(store->writer("Nothing", {"Name"}), OrgStoreError);
  auto writer = store->writer("Account", {"Name", "NumberOfEmployees"});
  EXPECT_THROW(writer.insert({"Acme", "many"}), OrgStoreError);
  EXPECT_THROW(writer.insert({"Acme"}), OrgStoreError);  // one value short
  writer.insert({"Acme", "12"});
  writer.commit();
  EXPECT_EQ(store->count("Account"), 1);
}

TEST(OrgStoreTest, UncommittedRowsAreRolledBack) {
  TempFolder folder;
  auto store = OrgStore::open(folder.path());
  {
    auto writer = store->writer("Account", {"Name"}, 2);
    writer.insert({"One"});
    writer.insert({"Two"});  // the second row commits the first transaction
    writer.insert({"Three"});
  }
  EXPECT_EQ(store->count("Account"), 2);
}

TEST(OrgStoreTest, StateSurvivesReopeningAndIdsAreNeverReused) {
  TempFolder folder;
  std::string first, orgId;
  {
    auto store = OrgStore::open(folder.path());
    orgId = store->identity().orgId;
    first = testing::addAccounts(*store, 3).back();
    store->advanceClock(std::chrono::hours(48));
    auto files = store->writer("Attachment", {"ParentId", "Name", "Body"});
    std::string body(300000, 'x');
    body[123456] = 'y';
    files.insert({first, "big.bin", body});
    files.commit();
  }
  auto store = OrgStore::open(folder.path());
  EXPECT_EQ(store->identity().orgId, orgId);
  EXPECT_EQ(store->count("Account"), 3);
  EXPECT_GE(store->clockOffset(), std::chrono::hours(47));
  std::string next = testing::addAccounts(*store, 1).back();
  EXPECT_GT(next, first);

  auto lease = store->read();
  auto attachment = lease->prepare("SELECT \"Id\", \"BodyLength\" FROM \"Attachment\"");
  ASSERT_TRUE(attachment.step());
  std::string id(attachment.text(0));
  EXPECT_EQ(attachment.text(1), "300000");
  std::string streamed;
  int pieces = 0;
  EXPECT_TRUE(store->streamBody("Attachment", id, 100000, 65536, [&](std::string_view piece) {
    streamed.append(piece);
    ++pieces;
    return true;
  }));
  EXPECT_EQ(streamed.size(), 200000u);
  EXPECT_EQ(streamed[23456], 'y');
  EXPECT_EQ(pieces, 4);
}

}  // namespace
}  // namespace corvane::orgsim

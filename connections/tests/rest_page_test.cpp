#include "connections/rest_page.hpp"

#include <gtest/gtest.h>

namespace corvane {
namespace {

TEST(RestPage, WritesRowsInColumnOrderWithTheBulkApisTexts) {
  const std::string body = R"({"totalSize":2,"done":false,
    "nextRecordsUrl":"/services/data/v62.0/query/01gXX-2000",
    "records":[
      {"attributes":{"type":"Account"},"Id":"001000000000001AAA","Name":"Acme, \"Big\" Co",
       "CreatedDate":"2024-01-05T10:00:00.000+0000","AnnualRevenue":1.5E+7,
       "NumberOfEmployees":123456789012345678901,"IsDeleted":false,
       "Owner":{"attributes":{"type":"User"},"Name":"Ann","Manager":{"Name":"Bo"}},
       "Description":"line one\nline two","Parent":null},
      {"Id":"001000000000002AAA","Name":"","CreatedDate":"2024-01-05T10:00:00.000-0500",
       "AnnualRevenue":-2.5e-3,"NumberOfEmployees":12.30,"IsDeleted":true,"Owner":null,
       "Description":{"nested":1},"Parent":{"Name":"Top"}}]})";
  const std::vector<std::string> columns = {
      "Id",           "Name",       "CreatedDate",        "AnnualRevenue", "NumberOfEmployees",
      "IsDeleted",    "Owner.Name", "Owner.Manager.Name", "Description",   "Parent.Name",
      "Missing.Field"};
  const std::vector<std::string> types = {"id",      "string", "datetime", "currency", "int",
                                          "boolean", "string", "string",   "textarea", "string"};
  RestPage::Result page = RestPage::read(body, columns, types);
  EXPECT_EQ(page.records, 2);
  EXPECT_EQ(page.next, "/services/data/v62.0/query/01gXX-2000");
  EXPECT_EQ(page.csv,
            "\"001000000000001AAA\",\"Acme, \"\"Big\"\" Co\",\"2024-01-05T10:00:00.000Z\","
            "\"15000000\",\"123456789012345678901\",\"false\",\"Ann\",\"Bo\","
            "\"line one\nline two\",\"\",\"\"\n"
            "\"001000000000002AAA\",\"\",\"2024-01-05T10:00:00.000-0500\",\"-0.0025\","
            "\"12.30\",\"true\",\"\",\"\",\"\",\"Top\",\"\"\n");
}

TEST(RestPage, OnlyDateTimeFieldsLoseTheirZeroOffset) {
  auto value = JSONLiteral::string("2024-01-05T10:00:00.000+0000");
  EXPECT_EQ(RestPage::text(value, "datetime"), "2024-01-05T10:00:00.000Z");
  EXPECT_EQ(RestPage::text(value, "string"), "2024-01-05T10:00:00.000+0000");
  EXPECT_EQ(RestPage::text(JSONLiteral::string("+0000"), "datetime"), "Z");
  EXPECT_EQ(RestPage::text(JSONLiteral(), "datetime"), "");
}

TEST(RestPage, LastPageHasNoNextAndAnEmptyPageNoRows) {
  RestPage::Result page = RestPage::read(
      R"({"totalSize":0,"done":true,"records":[],"nextRecordsUrl":null})", {"Id"}, {});
  EXPECT_EQ(page, RestPage::Result{});
}

TEST(RestPage, RowsHoldOnlyTheirOwnRecordsAskedForValues) {
  // Values inside lists, fields nobody asked for and an earlier record's values
  // never reach a row; field order may differ from record to record.
  const std::string body =
      R"({"records":[{"Id":"1","Tags":[{"Id":"x"},"y"],"Owner":{"Name":"Ann","Tags":["z"]}},)"
      R"({"Owner":null,"Extra":{"Id":"no"},"Id":"2"}],)"
      R"("nextRecordsUrl":"/services/data/v62.0/query/01g-2","done":false})";
  RestPage::Result page =
      RestPage::read(body, {"Id", "Tags", "Owner.Name", "Owner.Tags", "Owner"}, {});
  EXPECT_EQ(page.csv,
            "\"1\",\"\",\"Ann\",\"\",\"\"\n"
            "\"2\",\"\",\"\",\"\",\"\"\n");
  EXPECT_EQ(page.next, "/services/data/v62.0/query/01g-2");
}

TEST(RestPage, RefusesWhatIsNotAPageOfRecords) {
  for (const char* bad :
       {"", "not json", "[]", R"({"records":{}})", R"({"done":true})", R"({"records":[1]})",
        R"({"records":[],"nextRecordsUrl":5})", R"({"records":[{"Id":"1"})"}) {
    try {
      RestPage::read(bad, {"Id"}, {});
      ADD_FAILURE() << "accepted " << bad;
    } catch (const PageError& error) {
      EXPECT_NE(std::string(error.what()).find("a page of records"), std::string::npos);
    }
  }
}

TEST(RestPage, BulkNumberMovesThePointAndLeavesWhatItCannotRead) {
  EXPECT_EQ(RestPage::bulkNumber("12.3"), "12.3");
  EXPECT_EQ(RestPage::bulkNumber("1.5E+3"), "1500");
  EXPECT_EQ(RestPage::bulkNumber("1.5E3"), "1500");
  EXPECT_EQ(RestPage::bulkNumber("1.25e1"), "12.5");
  EXPECT_EQ(RestPage::bulkNumber("-2.5e-3"), "-0.0025");
  EXPECT_EQ(RestPage::bulkNumber("+7E0"), "7");
  EXPECT_EQ(RestPage::bulkNumber("1.2345678901234567E+17"), "123456789012345670");
  EXPECT_EQ(RestPage::bulkNumber("0E+5"), "0");
  EXPECT_EQ(RestPage::bulkNumber("-0.0e1"), "0");
  EXPECT_EQ(RestPage::bulkNumber("1E1.5"), "1E1.5");
  EXPECT_EQ(RestPage::bulkNumber("1E"), "1E");
  EXPECT_EQ(RestPage::bulkNumber("1Ex"), "1Ex");
  EXPECT_EQ(RestPage::bulkNumber("1,5E3"), "1,5E3");
  EXPECT_EQ(RestPage::bulkNumber("1.2.3E3"), "1.2.3E3");
  EXPECT_EQ(RestPage::bulkNumber("E5"), "E5");
}

}  // namespace
}  // namespace corvane

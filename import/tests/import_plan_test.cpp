#include "import/import_plan.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace corvane {
namespace {

using ::testing::ElementsAre;

std::vector<ImportField> contactFields() {
  auto make = [](std::string name, std::string type, bool required = false) {
    ImportField f;
    f.name = std::move(name);
    f.label = f.name;
    f.type = std::move(type);
    f.length = 80;
    f.createable = f.updateable = f.name != "Id";
    f.nillable = !required;
    f.idLookup = f.name == "Id" || f.name == "Ref__c";
    f.externalId = f.name == "Ref__c";
    return f;
  };
  auto fields = std::vector<ImportField>{make("Id", "id", true), make("LastName", "string", true),
                                         make("Email", "email"), make("Birthdate", "date"),
                                         make("Ref__c", "string")};
  fields[0].nillable = false;
  return fields;
}

ImportGrid grid(std::vector<std::string> headers, std::vector<std::vector<std::string>> rows) {
  ImportGrid g;
  g.headers = std::move(headers);
  g.rows = std::move(rows);
  return g;
}

ImportPlan plan(const ImportGrid& g, const char* operation) {
  auto fields = contactFields();
  return ImportPlan::build(g, ImportMapping::automatic(g.headers, fields), fields,
                           *ImportOperation::parse(operation), {});
}

TEST(ImportPlan, ReportsEveryBadCellWithItsSheetRowAndColumn) {
  ImportGrid g =
      grid({"LastName", "Email", "Birthdate", "Notes"},
           {{"Ana", "ana@example.com", "1990-05-01", "x"}, {"", "bob@", "1990-05-01"}, {"Cy"}});
  ImportPlan p = plan(g, "insert");
  EXPECT_THAT(p.fields, ElementsAre("LastName", "Email", "Birthdate"));
  EXPECT_FALSE(p.blocked());
  EXPECT_EQ(p.readyRows(), 2u);
  EXPECT_EQ(p.value(0, 2), "1990-05-01");
  EXPECT_EQ(p.value(2, 1), "");  // short row: not sent
  ASSERT_EQ(p.problems.size(), 2u);
  EXPECT_EQ(p.problems[0].sentence(),
            "Row 3, column \u201cLastName\u201d (LastName): The field is required but the cell is "
            "empty. Fill it in.");
  EXPECT_EQ(p.problems[1].column, 1u);
  EXPECT_EQ(p.problems[1].problem.kind, CoercionProblem::Kind::notEmail);
}

TEST(ImportPlan, MissingColumnsTheOperationNeedsBlockTheImport) {
  ImportPlan insert = plan(grid({"Email"}, {{"a@b.com"}}), "insert");
  EXPECT_TRUE(insert.blocked());
  EXPECT_EQ(insert.issues.front().kind, PlanIssue::Kind::missingRequired);
  EXPECT_EQ(insert.readyRows(), 0u);

  ImportPlan update = plan(grid({"Email"}, {{"a@b.com"}}), "update");
  ASSERT_EQ(update.issues.size(), 1u);
  EXPECT_EQ(update.issues[0].kind, PlanIssue::Kind::missingKey);
  EXPECT_THAT(update.issues[0].sentence("Contact", update.operation),
              ::testing::HasSubstr("To update records every row needs its Id"));

  ImportPlan upsert = plan(grid({"Email"}, {{"a@b.com"}}), "upsert:Email");
  ASSERT_EQ(upsert.issues.size(), 1u);
  EXPECT_EQ(upsert.issues[0].kind, PlanIssue::Kind::badExternalId);
}

TEST(ImportPlan, KeysAreRequiredPerRowAndOnlyKeysAreSentForDeletes) {
  ImportPlan upsert =
      plan(grid({"Ref", "LastName"}, {{"R-1", "Ana"}, {"", "Bo"}}), "upsert:ref__c");
  EXPECT_FALSE(upsert.blocked());
  EXPECT_EQ(upsert.readyRows(), 1u);
  EXPECT_EQ(upsert.problems.at(0).field, "Ref__c");

  ImportPlan remove = plan(grid({"Id", "LastName"}, {{"003xx000004TmiQ", "Ana"}}), "delete");
  EXPECT_THAT(remove.fields, ElementsAre("Id"));
  EXPECT_TRUE(remove.issues.empty());
  EXPECT_EQ(remove.value(0, 0), "003xx000004TmiQAAS");

  ImportPlan insertWithId = plan(grid({"Id", "LastName"}, {{"003xx000004TmiQ", "Ana"}}), "insert");
  ASSERT_EQ(insertWithId.issues.size(), 1u);
  EXPECT_EQ(insertWithId.issues[0].kind, PlanIssue::Kind::notWritable);
  EXPECT_FALSE(insertWithId.blocked());
}

}  // namespace
}  // namespace corvane

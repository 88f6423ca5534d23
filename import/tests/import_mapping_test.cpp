#include "import/import_mapping.hpp"

#include <gtest/gtest.h>

#include "platform/durable_file.hpp"
#include "platform/tests/temporary_folder.hpp"

namespace corvane {
namespace {

using Match = ColumnMapping::Match;

std::vector<ImportField> accountFields() {
  auto make = [](std::string name, std::string label) {
    ImportField f;
    f.name = std::move(name);
    f.label = std::move(label);
    f.type = "string";
    return f;
  };
  return {make("Id", "Account ID"),
          make("Name", "Account Name"),
          make("AnnualRevenue", "Annual Revenue"),
          make("Industry", "Industry"),
          make("Region__c", "Sales Region"),
          make("BillingCity", "Billing City")};
}

TEST(ImportMapping, MatchesNamesThenLabelsThenCloseSpellings) {
  ImportMapping mapping = ImportMapping::automatic(
      {"account name", "ANNUAL_REVENUE", "region", "Industy", "Billing Cty", "Notes", ""},
      accountFields());
  auto at = [&](std::size_t i) {
    return std::make_pair(mapping.columns[i].field, mapping.columns[i].match);
  };
  EXPECT_EQ(at(0), std::make_pair(std::optional<std::string>("Name"), Match::label));
  EXPECT_EQ(at(1), std::make_pair(std::optional<std::string>("AnnualRevenue"), Match::apiName));
  EXPECT_EQ(at(2), std::make_pair(std::optional<std::string>("Region__c"), Match::apiName));
  EXPECT_EQ(at(3), std::make_pair(std::optional<std::string>("Industry"), Match::close));
  EXPECT_EQ(at(4), std::make_pair(std::optional<std::string>("BillingCity"), Match::close));
  EXPECT_EQ(mapping.columns[5].field, std::nullopt);
  EXPECT_EQ(mapping.columns[6].field, std::nullopt);
}

TEST(ImportMapping, EachFieldTakesOneColumnAndTheFirstWins) {
  ImportMapping mapping =
      ImportMapping::automatic({"Name", "name", "Account Name"}, accountFields());
  EXPECT_EQ(mapping.columns[0].field, "Name");
  EXPECT_EQ(mapping.columns[1].field, std::nullopt);
  EXPECT_EQ(mapping.columns[2].field, std::nullopt);
  mapping.checkDistinct();
}

TEST(ImportMapping, OverridesMoveFieldsAndLeaveColumnsOut) {
  auto fields = accountFields();
  ImportMapping mapping = ImportMapping::automatic({"Name", "Company", "Notes"}, fields);
  mapping.override("company=Account Name", fields, "Account");
  EXPECT_EQ(mapping.columns[1].field, "Name");
  EXPECT_EQ(mapping.columns[1].match, Match::user);
  EXPECT_EQ(mapping.columns[0].field, std::nullopt);  // gave its field up
  mapping.override("Notes=billingcity", fields, "Account");
  EXPECT_EQ(mapping.columns[2].field, "BillingCity");
  mapping.override("Notes=", fields, "Account");
  EXPECT_EQ(mapping.columns[2].field, std::nullopt);

  auto kindOf = [&](const std::string& text) {
    try {
      mapping.override(text, fields, "Account");
    } catch (const MappingError& error) {
      return std::optional(error.kind());
    }
    return std::optional<MappingError::Kind>();
  };
  EXPECT_EQ(kindOf("Nope=Name"), MappingError::Kind::unknownHeader);
  EXPECT_EQ(kindOf("Notes=Shoe Size"), MappingError::Kind::unknownField);
  EXPECT_EQ(kindOf("Notes"), MappingError::Kind::badOverride);

  mapping.override("Name=Industry", fields, "Account");
  mapping.override("Notes=Industry", fields, "Account");
  EXPECT_THROW(mapping.checkDistinct(), MappingError);
}

TEST(ImportMapping, ASavedMappingIsUsedAgainOnTheNextFile) {
  TemporaryFolder folder;
  auto fields = accountFields();
  ImportMapping first = ImportMapping::automatic({"Company", "Town", "Notes"}, fields);
  first.override("Company=Name", fields, "Account");
  first.override("Town=BillingCity", fields, "Account");
  first.save(folder.path() / "accounts.json");

  ImportMapping next = ImportMapping::automatic({"Notes", "Town", "Company"}, fields);
  next.apply(ImportMapping::load(folder.path() / "accounts.json"), fields, "Account");
  EXPECT_EQ(next.columnOf("name"), 2u);
  EXPECT_EQ(next.columnOf("BillingCity"), 1u);
  EXPECT_EQ(next.columns[0].field, std::nullopt);

  std::filesystem::path broken = folder.path() / "broken.json";
  Durable::writeWhole(broken, "[1, 2]");
  EXPECT_THROW(ImportMapping::load(broken), MappingError);
  EXPECT_THROW(ImportMapping::load(folder.path() / "missing.json"), MappingError);
}

}  // namespace
}  // namespace corvane

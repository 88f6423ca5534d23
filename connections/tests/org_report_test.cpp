#include "connections/org_report.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace corvane {
namespace {

using ::testing::HasSubstr;

TEST(OrgReport, ColumnsLineUpByCharactersAndAbsentFactsReadAsDashesOrNulls) {
  Org accented;
  accented.username = "admin@acme.example";
  accented.alias = "société";
  accented.isDefaultUsername = true;
  Org plain;
  plain.username = "dev@acme.example";
  const std::string table = OrgReport::table({accented, plain});
  const auto lines = [&table] {
    std::vector<std::string> out;
    for (std::size_t at = 0, end; (end = table.find('\n', at)) != std::string::npos; at = end + 1)
      out.push_back(table.substr(at, end - at));
    return out;
  }();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_THAT(lines[1], HasSubstr("admin@acme.example (default)  société  "));
  EXPECT_THAT(lines[2], HasSubstr("dev@acme.example              -        "));

  EXPECT_THAT(OrgReport::details(plain, SystemTime{}), HasSubstr("Alias:               -\n"));
  const auto one = nlohmann::json::parse(OrgReport::json(plain, SystemTime{}));
  EXPECT_TRUE(one.at("alias").is_null());
  EXPECT_TRUE(one.at("orgId").is_null());
  const auto all = nlohmann::json::parse(OrgReport::json({accented, plain}, SystemTime{}));
  EXPECT_EQ(all.at("logins")[0].at("alias"), "société");
  EXPECT_FALSE(all.at("logins")[0].contains("orgId"));
}

}  // namespace
}  // namespace corvane

#include "query/completion_report.hpp"

#include <gtest/gtest.h>

namespace corvane {
namespace {

TEST(CompletionReport, ColumnsLineUpByCharactersAndJSONCarriesTheRangeToReplace) {
  EXPECT_EQ(CompletionReport::table({}), "No completions at this cursor.\n");

  const std::vector<Completion> completions = {
      {"Name", "Name", "string", Completion::Kind::field},
      {"Société__c", "Société__c", "picklist", Completion::Kind::field}};
  EXPECT_EQ(CompletionReport::table(completions),
            "COMPLETION  DETAIL    KIND\n"
            "Name        string    field\n"
            "Société__c  picklist  field\n");

  SoqlCompletion::Suggestions suggestions;
  suggestions.completions = {completions[0]};
  suggestions.replace.start = 7;
  suggestions.replace.end = 9;
  EXPECT_EQ(CompletionReport::json(suggestions),
            "{\"replace\":{\"start\":7,\"end\":9},\"completions\":[{\"text\":\"Name\",\"display\":"
            "\"Name\",\"detail\":\"string\",\"kind\":\"field\"}]}\n");
}

}  // namespace
}  // namespace corvane

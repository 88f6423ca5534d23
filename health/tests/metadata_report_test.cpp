#include "health/metadata_report.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace corvane {
namespace {

using ::testing::HasSubstr;

TEST(MetadataReport, TypesAndComponentsReadAsTablesWithCountsAndAsCSV) {
  HealthTask::MetadataListing types;
  types.typeNames = {"ApexClass", "CustomObject"};
  EXPECT_EQ(MetadataReport::table(types), "ApexClass\nCustomObject\n2 metadata types.\n");
  EXPECT_THAT(MetadataReport::csv(types), HasSubstr("xmlName"));
  EXPECT_THAT(MetadataReport::csv(types), HasSubstr("CustomObject"));

  HealthTask::MetadataListing classes;
  classes.type = "ApexClass";
  EXPECT_EQ(MetadataReport::table(classes),
            "The org has no ApexClass components, or the Salesforce CLI could not list them.\n");
  classes.components = {{{"fullName", "Greeter"},
                         {"type", "ApexClass"},
                         {"lastModifiedByName", "Ann Admin"},
                         {"fileName", "classes/Greeter.cls"}}};
  const std::string table = MetadataReport::table(classes);
  EXPECT_THAT(table, HasSubstr("Greeter"));
  EXPECT_THAT(table, HasSubstr("Ann Admin"));
  EXPECT_THAT(table, HasSubstr("1 ApexClass component.\n"));
  EXPECT_THAT(MetadataReport::csv(classes), HasSubstr("classes/Greeter.cls"));
}

TEST(MetadataReport, ARetrievalListsItsFilesAndWhatWasNotRetrieved) {
  HealthTask::Retrieval retrieval;
  retrieval.projectRoot = "/projects/acme";
  retrieval.result = {
      {"files",
       {{{"type", "ApexClass"},
         {"fullName", "Greeter"},
         {"state", "Created"},
         {"filePath", "force-app/main/default/classes/Greeter.cls"}}}},
      {"messages", {{{"problem", "Entity of type 'ApexClass' named 'Gone' cannot be found"}}}}};
  const std::string table = MetadataReport::table(retrieval);
  EXPECT_THAT(table, HasSubstr("Greeter"));
  EXPECT_THAT(table, HasSubstr("Not retrieved: Entity of type 'ApexClass' named 'Gone'"));
  EXPECT_THAT(table, HasSubstr("1 files retrieved into /projects/acme/force-app.\n"));
}

}  // namespace
}  // namespace corvane

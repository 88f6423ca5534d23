// Extra fields fetched later for the records in groups: chunked by Id, stored
// in the right slots, and never a query built from a malformed id.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "dedupe/snapshot_enricher.hpp"
#include "platform/tests/temporary_folder.hpp"

namespace corvane {
namespace {

// Answers each query with a Title for every id in it, over two pages.
class QueryOrg : public DedupeTransport {
 public:
  std::vector<std::string> queries;

  std::string send(const std::string&, const std::string& path, const QueryItems& query,
                   const std::optional<std::string>&) override {
    if (path == "/services/data/v62.0/query/01g-2") {
      return nlohmann::json{{"records", {second_}}, {"done", true}}.dump();
    }
    const std::string& soql = query.at(0).second;
    queries.push_back(soql);
    nlohmann::json records = nlohmann::json::array();
    for (std::size_t at = soql.find('\''); at != std::string::npos;
         at = soql.find('\'', soql.find('\'', at + 1) + 1)) {
      std::string id = soql.substr(at + 1, soql.find('\'', at + 1) - at - 1);
      // The org answers with the 18-character form of a 15-character id.
      records.push_back({{"Id", id.substr(0, 15) + "AAA"}, {"Title", "T" + id.substr(14, 1)},
                         {"Owner", {{"Name", "Owner " + id.substr(14, 1)}}}});
    }
    second_ = records.back();
    records.erase(records.size() - 1);
    return nlohmann::json{{"records", records}, {"done", false},
                          {"nextRecordsUrl", "/services/data/v62.0/query/01g-2"}}
        .dump();
  }
  std::pair<std::string, ResponseHeaders> getRaw(const std::string&, const QueryItems&,
                                                 const std::string&) override {
    return {};
  }
  std::string postSOAP(const std::string&, const std::string&) override { return {}; }

 private:
  nlohmann::json second_;
};

TEST(SnapshotEnricher, FetchesOnlyTheAskedRecordsIntoTheirSlots) {
  TemporaryFolder folder;
  RecordStore::Creation creation;
  creation.objectName = "Contact";
  creation.matchFields = {{"Name", "Name", MatchKind::personName, MatchMode::close}};
  creation.extraFields = {"Department", "Title", "Owner.Name"};
  auto store = RecordStore::create(folder.path() / "s.sqlite", creation);
  std::vector<RecordStore::Incoming> page;
  for (int i = 1; i <= 5; ++i) {
    page.push_back({"00300000000000" + std::to_string(i), "N", "", "", {"N"}, {}});
  }
  store->ingest(page, "null");

  QueryOrg org;
  SnapshotEnricher enricher(org, 2);
  SnapshotEnricher::Ask ask{"Contact", {"", "Title", "Owner.Name"},
                            {{1, "003000000000001"}, {2, "003000000000002"},
                             {3, "003000000000003"}, {4, "x') OR Id != ('"}}};
  std::vector<std::int64_t> seen;
  ASSERT_TRUE(enricher.enrich(*store, {ask}, [&](std::int64_t done, std::int64_t) {
    seen.push_back(done);
  }, {}));
  EXPECT_EQ(seen, (std::vector<std::int64_t>{0, 2, 4}));
  ASSERT_EQ(org.queries.size(), 2u);
  EXPECT_EQ(org.queries[1], "SELECT Id, Title, Owner.Name FROM Contact WHERE Id IN ('003000000000003')");
  EXPECT_EQ(store->unenriched({1, 2, 3, 4, 5}), (std::vector<Rid>{4, 5}));
  auto records = store->records({2, 3});
  EXPECT_EQ(records[0].extras, (std::vector<std::string>{"", "T2", "Owner 2"}));
  EXPECT_EQ(records[1].extras, (std::vector<std::string>{"", "T3", "Owner 3"}));
  EXPECT_EQ(records[1].filledCount, 3);
}

}  // namespace
}  // namespace corvane

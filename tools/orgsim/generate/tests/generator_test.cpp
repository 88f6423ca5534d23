// Whole generated orgs: reproducible, consistent, with real bodies, and with
// duplicates that really differ the way duplicates do.
#include "tools/orgsim/generate/generator.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "tools/orgsim/database.hpp"
#include "tools/orgsim/generate/text_forms.hpp"
#include "tools/orgsim/generate/word_lists.hpp"
#include "tools/orgsim/org_store.hpp"
#include "tools/orgsim/schema.hpp"

namespace corvane::orgsim {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::system_clock;
using Row = std::map<std::string, std::string>;

const Clock::time_point kNow = *WireTime::parseDateTime("2025-03-01T12:00:00.000Z");

fs::path scratchFolder(const std::string& name) {
  auto folder =
      fs::temp_directory_path() / ("orgsim-generate-" + std::to_string(::getpid()) + "-" + name);
  fs::remove_all(folder);
  fs::create_directories(folder);
  return folder;
}

GenerateOptions tinyOptions(const fs::path& out, std::uint64_t seed = 7) {
  GenerateOptions o;
  o.out = out;
  o.seed = seed;
  o.scale = "tiny";
  o.now = kNow;
  return o;
}

std::string readFile(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

std::vector<Row> rows(OrgStore& store, const std::string& sql) {
  auto lease = store.read();
  auto statement = lease->prepare(sql);
  std::vector<Row> out;
  while (statement.step()) {
    Row row;
    for (int c = 0; c < statement.columns(); ++c) {
      row[std::string(statement.columnName(c))] = std::string(statement.text(c));
    }
    out.push_back(std::move(row));
  }
  return out;
}

// Everything a client could read from the org, in a fixed order.
std::string dump(OrgStore& store) {
  std::string out;
  auto lease = store.read();
  for (const auto& object : Schema::objects()) {
    auto statement =
        lease->prepare("SELECT * FROM " + quoteIdentifier(object.name) + " ORDER BY \"Id\"");
    while (statement.step()) {
      for (int c = 0; c < statement.columns(); ++c) {
        out += statement.isNull(c) ? "<null>" : std::string(statement.text(c));
        out += '\x1f';
      }
      out += '\n';
    }
  }
  auto bodies = lease->prepare("SELECT object, id, hex(data) FROM _bodies ORDER BY object, id");
  while (bodies.step()) {
    out += std::string(bodies.text(0)) + std::string(bodies.text(1)) + std::string(bodies.text(2));
  }
  return out;
}

std::string md5Hex(std::string_view bytes) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_md5(), nullptr);
  static constexpr char hex[] = "0123456789abcdef";
  std::string out;
  for (unsigned int i = 0; i < length; ++i) {
    out += hex[digest[i] >> 4];
    out += hex[digest[i] & 15];
  }
  return out;
}

bool oneLetterDropped(const std::string& full, const std::string& typed) {
  if (typed.size() + 1 != full.size()) return false;
  for (std::size_t i = 1; i < full.size(); ++i) {
    if (std::string(full).erase(i, 1) == typed) return true;
  }
  return false;
}

// Checks every stored reference of the org; returns how many values it checked.
std::int64_t checkReferences(OrgStore& store) {
  std::int64_t checked = 0;
  for (const auto& object : Schema::objects()) {
    for (const auto& field : object.fields) {
      if (field.type != FieldType::Reference || !field.stored()) continue;
      auto values = rows(store, "SELECT DISTINCT " + quoteIdentifier(field.name) + " AS v FROM " +
                                    quoteIdentifier(object.name) + " WHERE " +
                                    quoteIdentifier(field.name) + " IS NOT NULL");
      for (const auto& value : values) {
        const std::string& id = value.at("v");
        std::string where = object.name + "." + field.name + " = " + id;
        const ObjectDef* target = Schema::objectForId(id);
        EXPECT_NE(target, nullptr) << where;
        if (target == nullptr) continue;
        EXPECT_THAT(field.referenceTo, ::testing::Contains(target->name)) << where;
        auto parent = rows(store, "SELECT * FROM " + quoteIdentifier(target->name) +
                                      " WHERE \"Id\" = '" + id + "'");
        EXPECT_EQ(parent.size(), 1u) << where;
        if (parent.size() == 1 && parent[0].contains("IsDeleted")) {
          EXPECT_EQ(parent[0]["IsDeleted"], "false") << where;
        }
        ++checked;
      }
    }
  }
  return checked;
}

// One medium-sized org shared by the tests that only read it.
class GeneratedOrgTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    folder_ = new fs::path(scratchFolder("shared"));
    GenerateOptions o = tinyOptions(*folder_ / "org", 99);
    o.sizes = {{"Account", 1500},    {"Contact", 2500},       {"Lead", 1500},        {"Task", 1500},
               {"Opportunity", 300}, {"ContentDocument", 12}, {"ContentVersion", 30}};
    generateOrg(o);
    store_ = OrgStore::open(*folder_ / "org").release();
  }
  static void TearDownTestSuite() {
    delete store_;
    fs::remove_all(*folder_);
    delete folder_;
  }

  // ground-truth.csv as entity -> (object, id).
  static std::map<std::string, std::vector<std::pair<std::string, std::string>>> clusters() {
    std::istringstream in(readFile(*folder_ / "org" / "ground-truth.csv"));
    std::string line;
    std::getline(in, line);
    EXPECT_EQ(line, "object,id,entity");
    std::map<std::string, std::vector<std::pair<std::string, std::string>>> out;
    while (std::getline(in, line)) {
      auto a = line.find(','), b = line.rfind(',');
      out[line.substr(b + 1)].emplace_back(line.substr(0, a), line.substr(a + 1, b - a - 1));
    }
    return out;
  }

  static Row record(const std::string& object, const std::string& id) {
    auto found =
        rows(*store_, "SELECT * FROM " + quoteIdentifier(object) + " WHERE \"Id\" = '" + id + "'");
    return found.empty() ? Row{} : found.front();
  }

  static fs::path* folder_;
  static OrgStore* store_;
};

fs::path* GeneratedOrgTest::folder_ = nullptr;
OrgStore* GeneratedOrgTest::store_ = nullptr;

TEST(Generator, TinyOrgFillsEveryCatalogObjectAndServesItsAdmin) {
  auto folder = scratchFolder("tiny");
  std::vector<std::string> reported;
  auto o = tinyOptions(folder / "org");
  o.progress = [&](std::string_view object, std::int64_t done, std::int64_t total) {
    EXPECT_LE(done, total);
    if (done == total) reported.emplace_back(object);
  };
  generateOrg(o);
  auto store = OrgStore::open(folder / "org");
  for (const auto& object : Schema::objects()) {
    EXPECT_GT(store->count(object.name, true), 0) << object.name;
    EXPECT_EQ(std::count(reported.begin(), reported.end(), object.name), 1) << object.name;
  }
  EXPECT_EQ(store->count("Organization"), 1);
  auto identity = store->identity();
  auto org = rows(*store, "SELECT \"Id\" FROM \"Organization\"");
  EXPECT_EQ(org.at(0).at("Id"), identity.orgId);
  auto admin = rows(*store, "SELECT \"Username\", \"IsActive\" FROM \"User\" WHERE \"Id\" = '" +
                                identity.adminUserId + "'");
  ASSERT_EQ(admin.size(), 1u);
  EXPECT_EQ(admin[0]["Username"], "admin@sample.org");
  EXPECT_EQ(admin[0]["IsActive"], "true");
  // The org's clock is where the records were dated from.
  auto drift = std::chrono::abs(store->now() - kNow);
  EXPECT_LT(drift, std::chrono::minutes(5));
  fs::remove_all(folder);
}

TEST(Generator, SameSeedGivesTheSameOrgAndAnotherSeedAnotherOne) {
  auto folder = scratchFolder("seeds");
  generateOrg(tinyOptions(folder / "a", 5));
  generateOrg(tinyOptions(folder / "b", 5));
  generateOrg(tinyOptions(folder / "c", 6));
  std::string a, b, c;
  {
    auto sa = OrgStore::open(folder / "a");
    auto sb = OrgStore::open(folder / "b");
    auto sc = OrgStore::open(folder / "c");
    a = dump(*sa);
    b = dump(*sb);
    c = dump(*sc);
  }
  EXPECT_EQ(a, b);
  EXPECT_NE(a, c);
  EXPECT_EQ(readFile(folder / "a" / "ground-truth.csv"),
            readFile(folder / "b" / "ground-truth.csv"));
  fs::remove_all(folder);
}

TEST(Generator, RefusesAFolderInUseAndLeavesNothingWhenStopped) {
  auto folder = scratchFolder("refuse");
  fs::create_directories(folder / "used");
  std::ofstream(folder / "used" / "notes.txt") << "mine";
  try {
    generateOrg(tinyOptions(folder / "used"));
    FAIL() << "generated into a folder that holds files";
  } catch (const GenerateError& error) {
    EXPECT_EQ(error.kind(), GenerateError::Kind::FolderInUse);
  }
  EXPECT_EQ(readFile(folder / "used" / "notes.txt"), "mine");

  auto o = tinyOptions(folder / "stopped");
  o.sizes = {{"Account", 20000}};
  o.shouldStop = [] { return true; };
  try {
    generateOrg(o);
    FAIL() << "a stopped run finished";
  } catch (const GenerateError& error) {
    EXPECT_EQ(error.kind(), GenerateError::Kind::Stopped);
  }
  // Neither the org nor its half-built copy is left behind.
  EXPECT_EQ(std::distance(fs::directory_iterator(folder), fs::directory_iterator()), 1);

  // An empty folder is fine to fill.
  fs::create_directories(folder / "empty");
  generateOrg(tinyOptions(folder / "empty"));
  EXPECT_TRUE(OrgStore::exists(folder / "empty"));
  fs::remove_all(folder);
}

TEST(Generator, AnOrgWithoutAccountsOrFilesStillHoldsTogether) {
  auto folder = scratchFolder("sparse");
  auto o = tinyOptions(folder / "org");
  o.sizes = {{"Account", 0}, {"ContentDocument", 0}, {"Contact", 40}, {"Opportunity", 20}};
  generateOrg(o);
  auto store = OrgStore::open(folder / "org");
  EXPECT_EQ(store->count("Account", true), 0);
  EXPECT_EQ(store->count("ContentVersion", true), 0);
  EXPECT_EQ(store->count("AccountHistory", true), 0);
  EXPECT_GT(store->count("Attachment", true), 0);  // hung on Contacts and Leads instead
  EXPECT_GT(checkReferences(*store), 50);
  fs::remove_all(folder);
}

TEST(Generator, SizesFollowTheScaleAndRefuseWhatCannotBeMade) {
  GenerateOptions o;
  o.scale = "tiny";
  o.sizes = {{"contentdocument", 10}};
  auto sizes = plannedSizes(o);
  EXPECT_EQ(sizes["ContentDocument"], 10);
  EXPECT_GE(sizes["ContentVersion"], 10);
  EXPECT_GE(sizes["ContentDocumentLink"], 10);
  EXPECT_EQ(sizes["Organization"], 1);

  o.sizes = {{"Account", 0}};
  sizes = plannedSizes(o);
  EXPECT_EQ(sizes["AccountHistory"], 0);  // defaults that need Accounts go away
  EXPECT_EQ(sizes["AccountFeed"], 0);

  auto kindOf = [](GenerateOptions bad) {
    try {
      plannedSizes(bad);
    } catch (const GenerateError& error) {
      return std::optional(error.kind());
    }
    return std::optional<GenerateError::Kind>();
  };
  using K = GenerateError::Kind;
  GenerateOptions bad;
  bad.scale = "huge";
  EXPECT_EQ(kindOf(bad), K::UnknownScale);
  bad.scale = "tiny";
  bad.sizes = {{"Widget__c", 5}};
  EXPECT_EQ(kindOf(bad), K::UnknownObject);
  bad.sizes = {{"Account", -1}};
  EXPECT_EQ(kindOf(bad), K::BadSize);
  bad.sizes = {{"Organization", 2}};
  EXPECT_EQ(kindOf(bad), K::BadSize);
  bad.sizes = {{"User", 0}};
  EXPECT_EQ(kindOf(bad), K::BadSize);
  bad.sizes = {{"ContentDocument", 10}, {"ContentVersion", 9}};
  EXPECT_EQ(kindOf(bad), K::BadSize);
  bad.sizes = {{"Account", 0}, {"AccountHistory", 5}};
  EXPECT_EQ(kindOf(bad), K::BadSize);
  bad.sizes = {{"RecentlyViewed", 1000}};
  EXPECT_EQ(kindOf(bad), K::BadSize);
}

TEST_F(GeneratedOrgTest, EveryIdHasItsObjectsPrefixAndAValidSuffix) {
  for (const auto& object : Schema::objects()) {
    for (const auto& row : rows(*store_, "SELECT \"Id\" FROM " + quoteIdentifier(object.name))) {
      const std::string& id = row.at("Id");
      ASSERT_TRUE(RecordIds::isValid18(id)) << object.name << " " << id;
      if (!object.keyPrefix.empty()) {
        ASSERT_EQ(id.substr(0, 3), object.keyPrefix) << object.name;
      }
    }
  }
  // RecentlyViewed rows carry the id of the record that was viewed.
  for (const auto& row : rows(*store_, "SELECT \"Id\", \"Type\" FROM \"RecentlyViewed\"")) {
    const ObjectDef* viewed = Schema::objectForId(row.at("Id"));
    ASSERT_NE(viewed, nullptr);
    EXPECT_EQ(viewed->name, row.at("Type"));
  }
}

TEST_F(GeneratedOrgTest, ReferencesPointAtLiveRecordsOfTheRightObject) {
  std::int64_t checked = checkReferences(*store_);
  EXPECT_GT(checked, 3000);
  // Derived references agree with the records they come from.
  auto mismatched = rows(*store_,
                         "SELECT o.\"Id\" FROM \"Opportunity\" o JOIN \"Contact\" c ON c.\"Id\" = "
                         "o.\"ContactId\" WHERE c.\"AccountId\" IS NOT NULL AND "
                         "c.\"AccountId\" IS NOT o.\"AccountId\"");
  EXPECT_TRUE(mismatched.empty());
  mismatched = rows(*store_,
                    "SELECT t.\"Id\" FROM \"Task\" t JOIN \"Contact\" c ON c.\"Id\" = t.\"WhoId\" "
                    "WHERE c.\"AccountId\" IS NOT t.\"AccountId\"");
  EXPECT_TRUE(mismatched.empty());
}

TEST_F(GeneratedOrgTest, DatesAreOrderedAndDeletedRowsAreInTheRecycleBin) {
  const std::string now = WireTime::dateTime(kNow);
  const std::string earliest = WireTime::dateTime(kNow - std::chrono::days(800));
  const std::string binStart = WireTime::dateTime(kNow - std::chrono::days(15));
  std::int64_t deleted = 0;
  for (const auto& object : Schema::objects()) {
    if (!object.has("CreatedDate")) continue;
    bool modified = object.has("LastModifiedDate") && object.has("SystemModstamp");
    std::string sql =
        "SELECT \"CreatedDate\" AS c" +
        std::string(modified ? ", \"LastModifiedDate\" AS m, \"SystemModstamp\" AS s" : "") +
        " FROM " + quoteIdentifier(object.name);
    for (const auto& row : rows(*store_, sql)) {
      const std::string& created = row.at("c");
      ASSERT_GE(created, earliest) << object.name;
      ASSERT_LE(created, now) << object.name;
      if (!modified) continue;
      ASSERT_LE(created, row.at("m")) << object.name;
      ASSERT_LE(row.at("m"), row.at("s")) << object.name;
      ASSERT_LE(row.at("s"), now) << object.name;
    }
    if (!object.has("IsDeleted") || !modified) continue;
    for (const auto& row :
         rows(*store_, "SELECT t.\"Id\", t.\"SystemModstamp\" AS s, d.deleted_at FROM " +
                           quoteIdentifier(object.name) +
                           " t LEFT JOIN _deletions d ON d.object = '" + object.name +
                           "' AND d.id = t.\"Id\" WHERE t.\"IsDeleted\" = 'true'")) {
      ++deleted;
      EXPECT_EQ(row.at("deleted_at"), row.at("s")) << object.name;
      EXPECT_GE(row.at("s"), binStart) << object.name;  // still within the bin's 15 days
    }
  }
  EXPECT_GT(deleted, 5);
  // Ids are handed out in creation order.
  for (std::string object : {"Account", "Contact", "Lead"}) {
    auto created =
        rows(*store_, "SELECT \"CreatedDate\" AS c FROM \"" + object + "\" ORDER BY \"Id\"");
    EXPECT_TRUE(std::is_sorted(created.begin(), created.end(), [](const Row& a, const Row& b) {
      return a.at("c") < b.at("c");
    })) << object;
  }
  // Salesforce archives closed activities due more than a year ago; some are.
  auto archived = rows(*store_,
                       "SELECT \"Status\", \"ActivityDate\" FROM \"Task\" WHERE \"IsArchived\" = "
                       "'true'");
  EXPECT_FALSE(archived.empty());
  for (const auto& task : archived) {
    EXPECT_EQ(task.at("Status"), "Completed");
    EXPECT_LT(task.at("ActivityDate"), WireTime::date(kNow - std::chrono::days(365)));
  }
}

TEST_F(GeneratedOrgTest, FileBodiesMatchTheirChecksumsAndSizes) {
  auto versions = rows(*store_,
                       "SELECT \"Id\", \"Checksum\", \"ContentSize\", \"ContentDocumentId\" AS d, "
                       "\"VersionNumber\" AS n, \"IsLatest\" FROM \"ContentVersion\" ORDER BY "
                       "\"Id\"");
  ASSERT_EQ(versions.size(), 30u);
  std::map<std::string, std::vector<Row>> byDocument;
  for (const auto& version : versions) {
    auto body = store_->body("ContentVersion", version.at("Id"));
    ASSERT_TRUE(body.has_value());
    EXPECT_EQ(version.at("Checksum"), md5Hex(*body));
    EXPECT_EQ(version.at("ContentSize"), std::to_string(body->size()));
    byDocument[version.at("d")].push_back(version);
  }
  for (const auto& document :
       rows(*store_,
            "SELECT \"Id\", \"LatestPublishedVersionId\" AS l, \"ContentSize\" FROM "
            "\"ContentDocument\"")) {
    const auto& own = byDocument[document.at("Id")];
    ASSERT_FALSE(own.empty());
    for (std::size_t i = 0; i < own.size(); ++i) {
      EXPECT_EQ(own[i].at("n"), std::to_string(i + 1));
      EXPECT_EQ(own[i].at("IsLatest"), i + 1 == own.size() ? "true" : "false");
    }
    EXPECT_EQ(document.at("l"), own.back().at("Id"));
    EXPECT_EQ(document.at("ContentSize"), own.back().at("ContentSize"));
  }
  // Every document is seen by its owner, and linked to any record only once.
  EXPECT_TRUE(rows(*store_,
                   "SELECT l.\"ContentDocumentId\" FROM \"ContentDocumentLink\" l GROUP BY "
                   "l.\"ContentDocumentId\", l.\"LinkedEntityId\" HAVING COUNT(*) > 1")
                  .empty());
  EXPECT_TRUE(rows(*store_,
                   "SELECT d.\"Id\" FROM \"ContentDocument\" d WHERE NOT EXISTS (SELECT 1 FROM "
                   "\"ContentDocumentLink\" l WHERE l.\"ContentDocumentId\" = d.\"Id\" AND "
                   "l.\"LinkedEntityId\" = d.\"OwnerId\")")
                  .empty());
  for (const auto& attachment :
       rows(*store_, "SELECT \"Id\", \"BodyLength\" FROM \"Attachment\"")) {
    auto body = store_->body("Attachment", attachment.at("Id"));
    ASSERT_TRUE(body.has_value());
    EXPECT_EQ(attachment.at("BodyLength"), std::to_string(body->size()));
  }
}

// What a describe promises about a field holds for every generated value: text
// within its length (in characters), picklist values from its list, numbers
// within their digits.
TEST_F(GeneratedOrgTest, ValuesFitTheirFields) {
  auto characters = [](const std::string& text) {
    std::size_t n = 0;
    for (unsigned char c : text) n += (c & 0xC0) != 0x80 ? 1 : 0;
    return n;
  };
  for (const auto& object : Schema::objects()) {
    for (const auto& field : object.fields) {
      if (!field.stored() || !field.sqlExpression.empty()) continue;
      auto values = rows(*store_, "SELECT DISTINCT " + quoteIdentifier(field.name) + " AS v FROM " +
                                      quoteIdentifier(object.name) + " WHERE " +
                                      quoteIdentifier(field.name) + " IS NOT NULL");
      std::string where = object.name + "." + field.name;
      for (const auto& row : values) {
        const std::string& value = row.at("v");
        ASSERT_FALSE(value.empty()) << where;
        if (field.length > 0 && field.type != FieldType::Id && field.type != FieldType::Reference) {
          ASSERT_LE(characters(value), static_cast<std::size_t>(field.length))
              << where << ": " << value;
        }
        if (field.type == FieldType::Picklist) {
          ASSERT_THAT(field.picklistValues, ::testing::Contains(value)) << where;
        }
        if (isNumeric(field.type)) {
          ASSERT_EQ(value.find_first_not_of("-0123456789."), std::string::npos)
              << where << ": " << value;
          auto point = value.find('.');
          std::size_t whole =
              (point == std::string::npos ? value.size() : point) - (value[0] == '-' ? 1 : 0);
          std::size_t fraction = point == std::string::npos ? 0 : value.size() - point - 1;
          ASSERT_LE(whole, static_cast<std::size_t>(std::max(field.precision - field.scale, 1)))
              << where << ": " << value;
          ASSERT_LE(fraction, static_cast<std::size_t>(field.scale)) << where << ": " << value;
        }
      }
    }
  }
}

// The kinds of difference a duplicate finder must see through, found in the
// clusters themselves rather than taken on trust.
TEST_F(GeneratedOrgTest, GroundTruthClustersHoldRealVariations) {
  auto all = clusters();
  ASSERT_GT(all.size(), 100u);
  std::map<std::string, int> seen;
  auto nicknameOf = [](const std::string& a, const std::string& b) {
    for (const auto& given : WordLists::givenNames()) {
      if (given.name == a &&
          (" " + std::string(given.nicknames) + " ").find(" " + b + " ") != std::string::npos) {
        return true;
      }
    }
    return false;
  };
  auto stripTag = [](std::string email) {
    email = TextForms::lower(email);
    auto plus = email.find('+'), at = email.find('@');
    if (plus != std::string::npos && at != std::string::npos && plus < at)
      email.erase(plus, at - plus);
    return email;
  };
  auto digits = [](const std::string& text) {
    std::string out;
    for (char c : text) {
      if (c >= '0' && c <= '9') out += c;
    }
    return out;
  };
  auto companyCore = [](std::string name) {
    name = TextForms::lower(name);
    for (std::string_view noise : {"the ", ",", ".", " corporation", " corp", " inc", " company",
                                   " co", " gmbh", " ltd", " limited", " llc", " plc"}) {
      for (auto at = name.find(noise); at != std::string::npos; at = name.find(noise)) {
        name.erase(at, noise.size());
      }
    }
    return name;
  };
  for (const auto& [entity, members] : all) {
    ASSERT_GE(members.size(), 2u) << entity;
    std::set<std::string> objects;
    std::vector<Row> records;
    for (const auto& [object, id] : members) {
      Row row = record(object, id);
      ASSERT_FALSE(row.empty()) << object << " " << id;
      EXPECT_EQ(row["IsDeleted"], "false");
      objects.insert(object);
      records.push_back(row);
    }
    if (entity.starts_with("company-")) {
      EXPECT_EQ(objects, std::set<std::string>{"Account"});
    }
    if (objects.size() == 2) ++seen["a Contact and a Lead"];
    for (std::size_t i = 0; i < records.size(); ++i) {
      for (std::size_t j = 0; j < records.size(); ++j) {
        if (i == j) continue;
        const Row& a = records[i];
        const Row& b = records[j];
        if (a.contains("FirstName")) {
          if (nicknameOf(a.at("FirstName"), b.at("FirstName"))) ++seen["nickname"];
          if (!a.at("FirstName").empty() && a.at("FirstName") == b.at("LastName") &&
              a.at("LastName") == b.at("FirstName")) {
            ++seen["transposed names"];
          }
          if (oneLetterDropped(a.at("LastName"), b.at("LastName"))) ++seen["letter dropped"];
          if (a.at("Email") != b.at("Email") && !a.at("Email").empty() &&
              a.at("Email").find('+') != std::string::npos &&
              stripTag(a.at("Email")) == stripTag(b.at("Email"))) {
            ++seen["plus-tagged e-mail"];
          }
          if (!a.at("Email").empty() && a.at("Email") != b.at("Email") &&
              TextForms::lower(a.at("Email")) == TextForms::lower(b.at("Email"))) {
            ++seen["e-mail case"];
          }
          if (a.at("FirstName") != b.at("FirstName") &&
              TextForms::decomposed(a.at("FirstName")) == b.at("FirstName")) {
            ++seen["decomposed accents"];
          }
        } else {
          if (a.at("Name") != b.at("Name") &&
              companyCore(a.at("Name")) == companyCore(b.at("Name"))) {
            ++seen["legal form or article"];
          }
        }
        std::string pa = digits(a.at("Phone")), pb = digits(b.at("Phone"));
        if (!pa.empty() && a.at("Phone").starts_with("+") && !b.at("Phone").starts_with("+") &&
            pa.size() > pb.size() && pa.ends_with(pb.substr(pb.starts_with("0") ? 1 : 0))) {
          ++seen["phone with and without country code"];
        }
      }
    }
  }
  for (const char* kind : {"a Contact and a Lead", "nickname", "transposed names", "letter dropped",
                           "plus-tagged e-mail", "e-mail case", "decomposed accents",
                           "legal form or article", "phone with and without country code"}) {
    EXPECT_GT(seen[kind], 0) << "no cluster shows: " << kind;
  }
}

}  // namespace
}  // namespace corvane::orgsim

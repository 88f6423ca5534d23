#include "tools/orgsim/generate/generator.hpp"

#include <unistd.h>

#include <algorithm>
#include <array>

#include "tools/orgsim/database.hpp"
#include "tools/orgsim/generate/ground_truth.hpp"
#include "tools/orgsim/generate/org_plan.hpp"
#include "tools/orgsim/generate/record_sets.hpp"
#include "tools/orgsim/org_store.hpp"
#include "tools/orgsim/schema.hpp"

namespace corvane::orgsim {

namespace {

// Rows per object at each scale: tiny, demo, large.
struct ScaleRow {
  std::string_view object;
  std::array<std::int64_t, 3> rows;
};

constexpr ScaleRow kScales[] = {
    {"Organization", {1, 1, 1}},
    {"User", {5, 25, 200}},
    {"Account", {30, 2000, 200000}},
    {"Contact", {60, 5000, 500000}},
    {"Lead", {40, 3000, 300000}},
    {"Opportunity", {30, 2500, 250000}},
    {"Case", {20, 2000, 200000}},
    {"Invoice__c", {20, 2000, 200000}},
    {"Task", {40, 5000, 500000}},
    {"Event", {20, 2000, 200000}},
    {"ContentDocument", {6, 200, 2000}},
    {"ContentVersion", {12, 450, 4500}},
    {"ContentDocumentLink", {14, 500, 5000}},
    {"Attachment", {8, 200, 2000}},
    {"Document", {4, 50, 300}},
    {"AccountHistory", {30, 3000, 300000}},
    {"AccountFeed", {20, 2000, 200000}},
    {"SetupAuditTrail", {20, 500, 5000}},
    {"RecentlyViewed", {10, 200, 1000}},
    {"Campaign", {3, 40, 400}},
    {"CampaignMember", {12, 1500, 150000}},
    {"Note", {10, 500, 5000}},
};

constexpr std::int64_t kMostRows = 1'000'000'000;

constexpr std::string_view kFileParents[] = {"Account",     "Contact", "Lead",
                                             "Opportunity", "Case",    "Invoice__c"};

[[noreturn]] void badSize(std::string_view object, std::int64_t rows, std::string_view why) {
  throw GenerateError(GenerateError::Kind::BadSize,
                      std::string(object) + "=" + std::to_string(rows) + ": " + std::string(why));
}

void removeQuietly(const std::filesystem::path& folder) {
  std::error_code ignored;
  std::filesystem::remove_all(folder, ignored);
}

}  // namespace

GenerateError::GenerateError(Kind kind, std::string value)
    : std::runtime_error(""), kind_(kind), value_(std::move(value)) {
  static_cast<std::runtime_error&>(*this) = std::runtime_error(description());
}

std::string GenerateError::description() const {
  switch (kind_) {
    case Kind::UnknownScale:
      return "There is no scale called \"" + value_ + "\": use tiny, demo or large.";
    case Kind::UnknownObject:
      return "The sample org has no object called \"" + value_ +
             "\" that the generator fills, so no size can be set for it.";
    case Kind::BadSize:
      return "The size " + value_ + ". Nothing was generated.";
    case Kind::FolderInUse:
      return "The folder " + value_ +
             " already holds files, so no sample org was made there. Choose a new or empty "
             "folder.";
    case Kind::CannotWrite:
      return "The sample org could not be written (" + value_ +
             "). Nothing was left behind; check the folder's permissions and free space.";
    case Kind::Store:
      return "The sample org could not be made: " + value_ + " Nothing was left behind.";
    case Kind::Stopped:
      return "Making the sample org was stopped; nothing was left behind.";
  }
  return value_;
}

std::map<std::string, std::int64_t> plannedSizes(const GenerateOptions& options) {
  static constexpr std::string_view kScaleNames[] = {"tiny", "demo", "large"};
  auto scale = std::find(std::begin(kScaleNames), std::end(kScaleNames), options.scale);
  if (scale == std::end(kScaleNames)) {
    throw GenerateError(GenerateError::Kind::UnknownScale, options.scale);
  }
  auto column = static_cast<std::size_t>(scale - std::begin(kScaleNames));
  std::map<std::string, std::int64_t> sizes;
  for (const auto& row : kScales) sizes[std::string(row.object)] = row.rows[column];

  std::map<std::string, std::int64_t> given;
  for (const auto& [name, rows] : options.sizes) {
    const ObjectDef* object = Schema::object(name);
    if (object == nullptr || !sizes.contains(object->name)) {
      throw GenerateError(GenerateError::Kind::UnknownObject, name);
    }
    if (rows < 0) badSize(object->name, rows, "a size cannot be negative");
    if (rows > kMostRows) badSize(object->name, rows, "that is more than the generator makes");
    given[object->name] = rows;
    sizes[object->name] = rows;
  }
  auto isGiven = [&](std::string_view object) { return given.contains(std::string(object)); };

  if (sizes["Organization"] != 1) {
    badSize("Organization", sizes["Organization"], "an org has exactly one Organization row");
  }
  if (sizes["User"] < 1) badSize("User", sizes["User"], "every org has its admin user");

  // Versions and links follow the number of documents unless given.
  auto documents = sizes["ContentDocument"];
  if (isGiven("ContentDocument")) {
    if (!isGiven("ContentVersion")) sizes["ContentVersion"] = documents * 9 / 4;
    if (!isGiven("ContentDocumentLink")) sizes["ContentDocumentLink"] = documents * 5 / 2;
  }
  for (std::string_view dependent : {"ContentVersion", "ContentDocumentLink"}) {
    auto rows = sizes[std::string(dependent)];
    if (documents == 0 && rows > 0 && !isGiven(dependent)) {
      sizes[std::string(dependent)] = 0;
    } else if (rows < documents || (documents == 0 && rows > 0)) {
      badSize(dependent, rows,
              "every ContentDocument needs at least one, and they need a ContentDocument");
    }
  }

  // Objects whose rows all hang off other records.
  auto needs = [&](std::string_view object, bool parentsExist, std::string_view why) {
    if (parentsExist || sizes[std::string(object)] == 0) return;
    if (isGiven(object)) badSize(object, sizes[std::string(object)], why);
    sizes[std::string(object)] = 0;
  };
  needs("AccountHistory", sizes["Account"] > 0, "history rows need Accounts");
  needs("AccountFeed", sizes["Account"] > 0, "feed items need Accounts");
  bool anyParent = std::any_of(std::begin(kFileParents), std::end(kFileParents),
                               [&](std::string_view o) { return sizes[std::string(o)] > 0; });
  needs("Attachment", anyParent, "attachments need records to be attached to");
  needs("Note", sizes["Account"] > 0, "notes need Accounts to be written on");
  needs("CampaignMember", sizes["Campaign"] > 0 && sizes["Contact"] + sizes["Lead"] > 0,
        "campaign members need Campaigns and Contacts or Leads");

  // Each record is listed once, and only records never in the Recycle Bin.
  std::int64_t viewable = 0;
  for (std::string_view o : {"Account", "Contact", "Lead", "Opportunity"}) {
    viewable += (sizes[std::string(o)] + 1) / 2;
  }
  if (sizes["RecentlyViewed"] > viewable) {
    if (isGiven("RecentlyViewed")) {
      badSize("RecentlyViewed", sizes["RecentlyViewed"],
              "there are only " + std::to_string(viewable) + " records to have viewed");
    }
    sizes["RecentlyViewed"] = viewable;
  }
  return sizes;
}

void generateOrg(const GenerateOptions& options) {
  auto sizes = plannedSizes(options);
  if (options.out.empty()) {
    throw GenerateError(GenerateError::Kind::CannotWrite, "no folder was given");
  }
  std::error_code error;
  std::filesystem::path target = std::filesystem::absolute(options.out, error).lexically_normal();
  if (!target.has_filename()) target = target.parent_path();
  if (std::filesystem::exists(target, error)) {
    if (!std::filesystem::is_directory(target, error) ||
        !std::filesystem::is_empty(target, error)) {
      throw GenerateError(GenerateError::Kind::FolderInUse, target.string());
    }
  }
  std::filesystem::create_directories(target.parent_path(), error);
  if (error) {
    throw GenerateError(GenerateError::Kind::CannotWrite,
                        target.parent_path().string() + ": " + error.message());
  }
  // Built beside the target and moved into place whole.
  std::filesystem::path building =
      target.parent_path() /
      ("." + target.filename().string() + ".generating-" + std::to_string(::getpid()));
  removeQuietly(building);
  try {
    {
      auto store = OrgStore::open(building);
      // A bigger page cache keeps index inserts off the disk while millions of
      // rows go in; it lasts only as long as this connection.
      store->write([](Database& db) { db.exec("PRAGMA cache_size = -65536"); });
      OrgIdentity identity;
      identity.orgId = OrgPlan::idWithPrefix("00D", 1);
      identity.adminUserId = OrgPlan::idWithPrefix("005", 1);
      identity.adminUsername = "admin@sample.org";
      identity.orgName = "Sample Org";
      store->setIdentity(identity);
      if (options.now) store->setClock(*options.now);
      OrgPlan plan(options.seed, options.now.value_or(store->now()), sizes);
      GroundTruth truth(building / GroundTruth::kFileName);
      GenerationContext context{
          *store, plan, truth, identity, options.progress, options.shouldStop};
      using Writer = void (*)(GenerationContext&);
      static constexpr Writer kWriters[] = {
          RecordSets::organization,
          RecordSets::users,
          RecordSets::accounts,
          RecordSets::contacts,
          RecordSets::leads,
          RecordSets::opportunities,
          RecordSets::cases,
          RecordSets::invoices,
          RecordSets::tasks,
          RecordSets::events,
          RecordSets::contentDocuments,
          RecordSets::contentVersions,
          RecordSets::contentDocumentLinks,
          RecordSets::attachments,
          RecordSets::documents,
          RecordSets::accountHistory,
          RecordSets::accountFeed,
          RecordSets::setupAuditTrail,
          RecordSets::recentlyViewed,
          RecordSets::campaigns,
          RecordSets::campaignMembers,
          RecordSets::notes,
      };
      for (Writer write : kWriters) {
        if (options.shouldStop && options.shouldStop()) {
          throw GenerateError(GenerateError::Kind::Stopped, "");
        }
        write(context);
      }
      truth.finish();
    }
    if (std::filesystem::exists(target, error)) std::filesystem::remove(target);
    std::filesystem::rename(building, target);
  } catch (const GenerateError&) {
    removeQuietly(building);
    throw;
  } catch (const OrgStoreError& failure) {
    removeQuietly(building);
    throw GenerateError(GenerateError::Kind::Store, failure.description());
  } catch (const std::filesystem::filesystem_error& failure) {
    removeQuietly(building);
    throw GenerateError(GenerateError::Kind::CannotWrite,
                        failure.path1().string() + ": " + failure.code().message());
  } catch (...) {
    removeQuietly(building);
    throw;
  }
}

}  // namespace corvane::orgsim

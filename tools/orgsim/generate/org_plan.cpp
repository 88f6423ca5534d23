#include "tools/orgsim/generate/org_plan.hpp"

#include <algorithm>
#include <cmath>

#include "tools/orgsim/org_store.hpp"
#include "tools/orgsim/schema.hpp"

namespace corvane::orgsim {

namespace {

constexpr auto kHistory = std::chrono::days(730);
constexpr auto kRecycleBinWindow = std::chrono::days(14);
constexpr double kDeletedShare = 0.012;

// The objects whose generated records include a few in the Recycle Bin.
bool deletesSome(std::string_view object) {
  static constexpr std::string_view kObjects[] = {"Account",     "Contact",    "Lead",
                                                  "Opportunity", "Case",       "Task",
                                                  "Event",       "Invoice__c", "Attachment"};
  return std::find(std::begin(kObjects), std::end(kObjects), object) != std::end(kObjects);
}

std::chrono::milliseconds scaled(std::chrono::milliseconds span, double fraction) {
  return std::chrono::milliseconds(
      static_cast<std::int64_t>(static_cast<double>(span.count()) * fraction));
}

std::uint64_t blocksOf(const std::map<std::string, std::int64_t, std::less<>>& sizes,
                       std::string_view object) {
  auto found = sizes.find(object);
  return found == sizes.end() ? 0
                              : DuplicatePlan::blocksFor(static_cast<std::uint64_t>(found->second));
}

}  // namespace

OrgPlan::OrgPlan(std::uint64_t seed, Clock::time_point now,
                 std::map<std::string, std::int64_t> sizes)
    : seed_(seed),
      now_(std::chrono::time_point_cast<std::chrono::milliseconds>(now)),
      sizes_(sizes.begin(), sizes.end()) {
  for (const auto& object : Schema::objects()) prefixes_[object.name] = object.keyPrefix;
  DuplicatePlan::Options companies;
  companies.clusterChance = 0.3;
  companies.entityPrefix = "company-";
  accounts_ = std::make_unique<DuplicatePlan>(
      seed, "Account", static_cast<std::uint64_t>(count("Account")), companies);
  // Contacts and Leads share some clusters: the same person entered as both.
  DuplicatePlan::Options people;
  people.clusterChance = 0.3;
  people.sharedStream = streamTag("people shared between Contact and Lead");
  people.sharedBlocks = std::min(blocksOf(sizes_, "Contact"), blocksOf(sizes_, "Lead"));
  people.sharedChance = 0.08;
  people.sharedPrefix = "person-";
  people.entityPrefix = "contact-";
  contacts_ = std::make_unique<DuplicatePlan>(seed, "Contact",
                                              static_cast<std::uint64_t>(count("Contact")), people);
  people.entityPrefix = "lead-";
  people.sharedSide = 1;
  leads_ = std::make_unique<DuplicatePlan>(seed, "Lead", static_cast<std::uint64_t>(count("Lead")),
                                           people);
}

std::int64_t OrgPlan::count(std::string_view object) const {
  auto found = sizes_.find(object);
  return found == sizes_.end() ? 0 : found->second;
}

std::string OrgPlan::idWithPrefix(std::string_view keyPrefix, std::uint64_t serial) {
  return RecordIds::make(keyPrefix, serial);
}

std::string OrgPlan::id(std::string_view object, std::uint64_t serial) const {
  auto found = prefixes_.find(object);
  return RecordIds::make(found != prefixes_.end() ? std::string_view(found->second) : "000",
                         serial);
}

RandomSource OrgPlan::random(std::string_view purpose, std::uint64_t serial) const {
  return RandomSource::forRecord(seed_, streamTag(purpose), serial);
}

bool OrgPlan::isDeleted(std::string_view object, std::uint64_t serial) const {
  if (serial < 2 || serial % 2 != 0 || !deletesSome(object)) return false;
  if (!random(std::string("deleted ") + std::string(object), serial).chance(kDeletedShare)) {
    return false;
  }
  // Duplicates stay live, so the ground truth names only records a search sees.
  if (object == "Account") return !accounts_->membership(serial - 1).inCluster;
  if (object == "Contact") return !contacts_->membership(serial - 1).inCluster;
  if (object == "Lead") return !leads_->membership(serial - 1).inCluster;
  return true;
}

std::uint64_t OrgPlan::live(std::string_view object, std::uint64_t serial) const {
  // Deleted serials are even and never 1, so the one before is always live.
  return isDeleted(object, serial) ? serial - 1 : serial;
}

std::uint64_t OrgPlan::pickLive(std::string_view object, RandomSource& random) const {
  auto n = count(object);
  if (n <= 0) return 0;
  return live(object, 1 + random.below(static_cast<std::uint64_t>(n)));
}

Clock::time_point OrgPlan::createdAt(std::string_view object, std::uint64_t serial) const {
  using std::chrono::milliseconds;
  // Salesforce hands out ids in creation order, so a later serial was created
  // later; recent records are more common than old ones.
  const auto latest = now_ - std::chrono::minutes(1);
  auto range = std::chrono::duration_cast<milliseconds>(latest - (now_ - kHistory));
  auto records = static_cast<double>(std::max<std::int64_t>(count(object), 1));
  double jitter = random(std::string("created ") + std::string(object), serial).unit();
  double place = std::min((static_cast<double>(serial) - 1 + 0.9 * jitter) / records, 1.0);
  return std::chrono::time_point_cast<milliseconds>(latest -
                                                    scaled(range, std::pow(1 - place, 1.5)));
}

Stamps OrgPlan::stamps(std::string_view object, std::uint64_t serial,
                       std::optional<Clock::time_point> floor) const {
  using std::chrono::milliseconds;
  auto r = random(std::string("stamps ") + std::string(object), serial);
  const auto latest = now_ - std::chrono::minutes(1);
  auto created = createdAt(object, serial);
  if (floor && created < *floor) {
    // Made after the record it belongs to.
    auto start = std::min(*floor, latest);
    created = start + scaled(std::chrono::duration_cast<milliseconds>(latest - start), r.unit());
  }
  Clock::time_point modified;
  if (isDeleted(object, serial)) {
    modified = std::max(
        created,
        now_ - scaled(std::chrono::duration_cast<milliseconds>(kRecycleBinWindow), r.unit()));
  } else if (r.chance(0.4)) {
    modified = created;
  } else {
    modified =
        created + scaled(std::chrono::duration_cast<milliseconds>(latest - created), r.unit());
  }
  auto modstamp = modified;
  if (r.chance(0.3)) {
    auto room = std::chrono::duration_cast<milliseconds>(now_ - modified);
    modstamp += scaled(std::min(room, milliseconds(60000)), r.unit());
  }
  auto cut = [](Clock::time_point t) { return std::chrono::time_point_cast<milliseconds>(t); };
  Stamps out;
  out.createdAt = cut(created);
  out.created = WireTime::dateTime(cut(created));
  out.modified = WireTime::dateTime(cut(modified));
  out.modstamp = WireTime::dateTime(cut(modstamp));
  return out;
}

std::uint64_t OrgPlan::pickUser(RandomSource& random) const {
  auto users = static_cast<std::uint64_t>(std::max<std::int64_t>(count("User"), 1));
  if (users == 1 || random.chance(0.2)) return 1;
  return 1 + random.below(users);
}

AccountRow OrgPlan::account(std::uint64_t serial) const {
  AccountRow row;
  row.cluster = accounts_->membership(serial - 1);
  row.company = accountCompany(serial);
  if (row.cluster.inCluster && row.cluster.member > 0) {
    auto variation = random("company variant", serial);
    row.record = Companies::variant(row.company, variation);
  } else {
    row.record = Companies::write(row.company);
  }
  return row;
}

std::string OrgPlan::accountDomain(std::uint64_t serial) const {
  if (serial == 0) return {};
  return accountCompany(serial).domain;
}

PersonRow OrgPlan::contact(std::uint64_t serial) const {
  return person("Contact", *contacts_, serial);
}

PersonRow OrgPlan::lead(std::uint64_t serial) const { return person("Lead", *leads_, serial); }

RandomSource OrgPlan::employerStream(std::string_view object, const ClusterMembership& cluster,
                                     std::uint64_t serial) const {
  if (!cluster.inCluster) return random("employer " + std::string(object), serial);
  std::string stream = cluster.shared ? "shared person" : "person " + std::string(object);
  return RandomSource::forRecord(seed_, streamTag(stream + " employer"), cluster.block);
}

std::uint64_t OrgPlan::chooseEmployer(std::string_view object, const ClusterMembership& cluster,
                                      RandomSource& employer) const {
  // Leads are mostly people from companies not (yet) in the org; Contacts
  // mostly work for one of its Accounts. A person in both keeps one employer.
  bool leadOnly = object == "Lead" && !cluster.shared;
  if (count("Account") > 0 && employer.chance(leadOnly ? 0.25 : 0.88)) {
    return pickLive("Account", employer);
  }
  return 0;
}

std::uint64_t OrgPlan::contactAccount(std::uint64_t serial) const {
  auto cluster = contacts_->membership(serial - 1);
  auto employer = employerStream("Contact", cluster, serial);
  return chooseEmployer("Contact", cluster, employer);
}

CompanyIdentity OrgPlan::accountCompany(std::uint64_t serial) const {
  auto cluster = accounts_->membership(serial - 1);
  auto base = cluster.inCluster
                  ? RandomSource::forRecord(seed_, streamTag("company"), cluster.block)
                  : random("single company", serial);
  return Companies::make(base);
}

PersonRow OrgPlan::person(std::string_view object, const DuplicatePlan& plan,
                          std::uint64_t serial) const {
  PersonRow row;
  row.cluster = plan.membership(serial - 1);
  std::string kind(object);
  auto base = row.cluster.inCluster
                  ? RandomSource::forRecord(
                        seed_, streamTag(row.cluster.shared ? "shared person" : "person " + kind),
                        row.cluster.block)
                  : random("single person " + kind, serial);
  auto employer = employerStream(object, row.cluster, serial);
  row.account = chooseEmployer(object, row.cluster, employer);
  std::optional<CompanyIdentity> company;
  if (row.account != 0) {
    company = accountCompany(row.account);
  } else if (object == "Lead") {
    company = Companies::make(employer);
  }
  PersonIdentity identity = People::make(base, company ? company->domain : std::string());
  // The first member of a cluster is the one the others vary; a person who is
  // already a Contact turns up as a Lead only in variants.
  bool isVariant =
      row.cluster.inCluster && (row.cluster.member > 0 || (object == "Lead" && row.cluster.shared));
  auto variation = random("person variant " + kind, serial);
  row.person = isVariant ? People::variant(identity, variation) : People::write(identity);
  if (company) {
    row.company = isVariant && variation.chance(0.5) ? Companies::variant(*company, variation).name
                                                     : Companies::name(*company);
  }
  return row;
}

}  // namespace corvane::orgsim

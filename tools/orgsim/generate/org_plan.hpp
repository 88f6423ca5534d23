// The shape of one generated org, answerable for any record at any time.
//
// OrgPlan knows, from the seed alone, every record's id, whether it is in the
// Recycle Bin, when it was created and changed, who owns it, which company or
// person it stands for, and which cluster of duplicates it belongs to. Writers
// of one object use it to make consistent references into others (a Contact's
// Account, an Opportunity's Contact and that Contact's Account) without keeping
// any record in memory. Immutable after construction; safe to share.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "tools/orgsim/generate/companies.hpp"
#include "tools/orgsim/generate/duplicate_plan.hpp"
#include "tools/orgsim/generate/people.hpp"
#include "tools/orgsim/generate/random_source.hpp"

namespace corvane::orgsim {

using Clock = std::chrono::system_clock;

// The three system timestamps of a record, in wire form.
struct Stamps {
  Clock::time_point createdAt;
  std::string created, modified, modstamp;
};

// What a record of a person-like object (Contact, Lead) holds.
struct PersonRow {
  PersonRecord person;
  std::uint64_t account = 0;  // the employer's Account serial; 0 for none
  std::string company;        // the employer's name as this record writes it
  ClusterMembership cluster;
};

struct AccountRow {
  CompanyIdentity company;
  CompanyRecord record;
  ClusterMembership cluster;
};

class OrgPlan {
 public:
  OrgPlan(std::uint64_t seed, Clock::time_point now, std::map<std::string, std::int64_t> sizes);

  std::uint64_t seed() const { return seed_; }
  Clock::time_point now() const { return now_; }
  // Rows planned for the object (0 for objects not planned).
  std::int64_t count(std::string_view object) const;

  // The record's 18-character id; serials count from 1.
  static std::string idWithPrefix(std::string_view keyPrefix, std::uint64_t serial);
  std::string id(std::string_view object, std::uint64_t serial) const;

  // A source of randomness for one purpose of one record.
  RandomSource random(std::string_view purpose, std::uint64_t serial) const;

  // True for the few records that are in the Recycle Bin. Never true for a record
  // in a duplicate cluster, nor for two neighbouring serials.
  bool isDeleted(std::string_view object, std::uint64_t serial) const;
  // A serial of the object that is not deleted, near `serial`.
  std::uint64_t live(std::string_view object, std::uint64_t serial) const;
  // A random live record of the object, or 0 when the object has none.
  std::uint64_t pickLive(std::string_view object, RandomSource& random) const;

  // When the record was created: within the two years before the org's clock,
  // later for later serials.
  Clock::time_point createdAt(std::string_view object, std::uint64_t serial) const;
  // Created as createdAt() says, or after `floor` when that is later; deleted
  // records were changed (deleted) within the last two weeks.
  Stamps stamps(std::string_view object, std::uint64_t serial,
                std::optional<Clock::time_point> floor = std::nullopt) const;

  // A User serial: the admin (1) now and then, otherwise anyone.
  std::uint64_t pickUser(RandomSource& random) const;

  const DuplicatePlan& accountClusters() const { return *accounts_; }
  const DuplicatePlan& contactClusters() const { return *contacts_; }
  const DuplicatePlan& leadClusters() const { return *leads_; }

  AccountRow account(std::uint64_t serial) const;
  PersonRow contact(std::uint64_t serial) const;
  PersonRow lead(std::uint64_t serial) const;

  // The mail domain of an Account's company ("" for serial 0).
  std::string accountDomain(std::uint64_t serial) const;
  // The company an Account stands for.
  CompanyIdentity accountCompany(std::uint64_t serial) const;
  // The Account a Contact works for (0: none), without making the whole Contact.
  std::uint64_t contactAccount(std::uint64_t serial) const;

 private:
  RandomSource employerStream(std::string_view object, const ClusterMembership& cluster,
                              std::uint64_t serial) const;
  std::uint64_t chooseEmployer(std::string_view object, const ClusterMembership& cluster,
                               RandomSource& employer) const;
  PersonRow person(std::string_view object, const DuplicatePlan& plan, std::uint64_t serial) const;

  std::uint64_t seed_;
  Clock::time_point now_;
  std::map<std::string, std::int64_t, std::less<>> sizes_;
  std::map<std::string, std::string, std::less<>> prefixes_;  // object -> key prefix
  std::unique_ptr<DuplicatePlan> accounts_, contacts_, leads_;
};

}  // namespace corvane::orgsim

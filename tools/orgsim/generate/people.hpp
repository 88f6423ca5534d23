// People: who someone is, and how one record of them reads.
//
// A PersonIdentity is the real-world person (their names in full, their work
// address, their numbers). People::write gives the record a careful typist
// would make; People::variant gives another record of the same person as it
// turns up in a real org: a nickname, a typing mistake, first and last name
// swapped, a plus-tagged or re-cased e-mail, the phone written another way, and
// so on. Variants are what the duplicate finder has to see through.
#pragma once

#include <string>
#include <string_view>

#include "tools/orgsim/generate/contact_points.hpp"
#include "tools/orgsim/generate/random_source.hpp"

namespace corvane::orgsim {

struct PersonIdentity {
  std::string first, last;            // as the person writes them
  std::string firstAscii, lastAscii;  // for addresses and user names
  std::string_view nicknames;         // blank-separated short forms of `first`
  std::string_view firstSpellings;    // other spellings of `first`
  std::string_view lastSpelling;      // another spelling of `last`, or empty
  char gender = 'x';
  std::string salutation;  // may be empty
  std::string email;       // the usual address; may be empty
  std::string otherEmail;  // a private address, used by some records instead
  PhoneNumber phone;
  bool hasPhone = true;
  PhoneNumber mobile;
  bool hasMobile = false;
  int phoneStyle = 0;  // how this person usually writes numbers
  PostalAddress address;
  std::string title, department;
  std::string birthdate;  // "1980-05-12" or empty
};

// One record's worth of a person, as text.
struct PersonRecord {
  std::string salutation, firstName, lastName, email, phone, mobile, title, department, birthdate;
  AddressText address;
  std::string latitude, longitude;
};

namespace People {

// A new person. `workDomain` is the employer's mail domain; empty gives a
// private mail address.
PersonIdentity make(RandomSource& random, std::string_view workDomain);

// The record as the person would fill it in.
PersonRecord write(const PersonIdentity& person);

// Another record of the same person: one to three differences of the kinds a
// real org accumulates (rarely none: an exact copy).
PersonRecord variant(const PersonIdentity& person, RandomSource& random);

}  // namespace People

}  // namespace corvane::orgsim

// Companies: which firm it is, and how one record of it reads.
//
// As with people, a CompanyIdentity is the firm itself and Companies::variant
// writes it the way another record in the same org might: "Acme Corporation",
// "ACME Corp.", "The Acme Company, Inc.", "Acme GmbH", a typing mistake, "&" for
// "and", the website with or without "www.", the phone in another style.
#pragma once

#include <string>
#include <string_view>

#include "tools/orgsim/generate/contact_points.hpp"
#include "tools/orgsim/generate/random_source.hpp"
#include "tools/orgsim/generate/word_lists.hpp"

namespace corvane::orgsim {

struct CompanyIdentity {
  std::string stem;                                 // "Acme", "Blue Harbor"
  std::string word;                                 // "Systems"; may be empty
  const WordLists::LegalForm* legalForm = nullptr;  // null: none written
  std::string domain;                               // "acmesystems.com"
  PhoneNumber phone;
  int phoneStyle = 0;
  PostalAddress address;
  std::string_view industry;
  std::int64_t employees = 0;
  std::string revenue;       // plain decimal digits, up to 18 of them
  std::string tickerSymbol;  // may be empty
};

struct CompanyRecord {
  std::string name, website, phone, fax;
  AddressText billing;
  std::string latitude, longitude;
};

namespace Companies {

CompanyIdentity make(RandomSource& random);

// The company's usual name, "Acme Systems Inc.".
std::string name(const CompanyIdentity& company);

CompanyRecord write(const CompanyIdentity& company);

// Another record of the same company: one to three differences (rarely none).
CompanyRecord variant(const CompanyIdentity& company, RandomSource& random);

}  // namespace Companies

}  // namespace corvane::orgsim

// Telephone numbers, e-mail addresses and postal addresses, and the many ways
// each of them is written.
//
// A value is generated once as its parts (country, area code, digits; street,
// city, ...) and then written out in one of the styles people use, so the same
// number can appear as "(415) 555-0142" in one record and "+1 415 555 0142" in
// another.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "tools/orgsim/generate/random_source.hpp"
#include "tools/orgsim/generate/word_lists.hpp"

namespace corvane::orgsim {

struct PhoneNumber {
  std::string_view countryCode;  // "US", "GB", ...
  std::string_view dialCode;     // "1", "44", ...
  std::string area;              // area code without the trunk 0; may be empty
  std::string subscriber;        // the remaining digits

  bool operator==(const PhoneNumber&) const = default;
};

struct PostalAddress {
  int number = 1;
  std::string_view streetName;
  int streetKind = 0;           // index into WordLists::streetKinds()
  std::string_view secondLine;  // empty: none
  const WordLists::City* city = nullptr;
  std::string postalCode;
  // Where it is; jittered around the city.
  double latitude = 0;
  double longitude = 0;
};

// How an address is written out.
struct AddressStyle {
  bool abbreviateStreet = false;    // "St." for "Street"
  int countryForm = 0;              // which of the country's names
  bool secondLineOnOwnLine = true;  // else joined with ", "
};

// The parts of a written address, as Salesforce stores an address compound.
struct AddressText {
  std::string street, city, state, postalCode, country;
};

namespace Phones {

// A plausible number in the city's country (area code from the city's list).
PhoneNumber make(const WordLists::City& city, RandomSource& random);

// How many styles format() knows.
constexpr int kStyles = 8;

// The number in style 0..kStyles-1. Style 0 is the plain national form
// ("(415) 555-0142", "020 7946 0958"); the others add or drop the country code,
// use dots, dashes, brackets or no separators at all. `extension` (digits) is
// appended as " ext. 12", " x12" or " #12" when given.
std::string format(const PhoneNumber& phone, int style, std::string_view extension = {},
                   int extensionStyle = 0);

}  // namespace Phones

namespace Emails {

// "first.last", "flast", "first_last", "firstl", "first": the local part for a
// person's ASCII name in one of five patterns.
std::string localPart(std::string_view firstAscii, std::string_view lastAscii, int pattern);

// The address with a plus-tag added to the local part ("jo+news@x.com").
std::string withPlusTag(std::string_view address, RandomSource& random);

// The address with its letter case changed the way people type it
// ("Jo.Smith@Example.COM").
std::string withCaseChange(std::string_view address, RandomSource& random);

}  // namespace Emails

namespace Addresses {

PostalAddress make(RandomSource& random);
PostalAddress inCity(const WordLists::City& city, RandomSource& random);

AddressText write(const PostalAddress& address, const AddressStyle& style);

// The address with one typing mistake in its street (often the house number) or
// its postal code.
AddressText withTypo(AddressText address, RandomSource& random);

// Coordinates as Salesforce writes them: plain decimals, up to 15 digits after
// the point, never an exponent.
std::string coordinate(double value);

}  // namespace Addresses

}  // namespace corvane::orgsim

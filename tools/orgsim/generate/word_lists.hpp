// The fixed word lists the generator draws from: names, nicknames, companies,
// places, and the words of free text.
//
// The lists mix plain ASCII with accented Latin, CJK and Cyrillic text on
// purpose, so every generated org carries the kinds of text a real one does. All
// tables are constant and live for the whole process.
#pragma once

#include <span>
#include <string_view>

namespace corvane::orgsim::WordLists {

// A given name, the short forms people also go by, and other spellings of it.
// `nicknames` and `spellings` are blank-separated lists (possibly empty).
struct GivenName {
  std::string_view name;
  char gender;  // 'f', 'm' or 'x'
  std::string_view nicknames;
  std::string_view spellings;
};

// A name in its own script, with the Latin transcription used for e-mail
// addresses and user names.
struct NativeName {
  std::string_view family;
  std::string_view given;
  std::string_view familyLatin;
  std::string_view givenLatin;
  char gender;
  bool familyFirst;  // written family name first (Chinese, Japanese, Korean)
};

// A family name, and another spelling that a typist or a form might produce.
struct FamilyName {
  std::string_view name;
  std::string_view spelling;  // empty when none
};

struct City {
  std::string_view city;
  std::string_view state;
  std::string_view postalCode;   // a pattern: '9' is any digit, 'A' any capital letter
  std::string_view countryCode;  // ISO 3166 alpha-2
  std::string_view areaCodes;    // blank-separated telephone area codes
  double latitude;
  double longitude;
};

// How the country is written, in the forms people use ("United States", "USA").
struct Country {
  std::string_view code;
  std::string_view names;  // '|'-separated, the usual form first
  std::string_view dialCode;
};

struct LegalForm {
  std::string_view form;    // as written: "Corporation", "Corp.", "GmbH"
  std::string_view family;  // forms of one family are the same legal form
};

std::span<const GivenName> givenNames();
std::span<const NativeName> nativeNames();
std::span<const FamilyName> familyNames();
std::span<const City> cities();
std::span<const Country> countries();
const Country* country(std::string_view code);

std::span<const std::string_view> companyStems();
std::span<const std::string_view> companyWords();
std::span<const LegalForm> legalForms();
std::span<const std::string_view> streetNames();
// Street kinds as pairs: the full word and its abbreviation ("Street", "St.").
std::span<const std::string_view> streetKinds();
std::span<const std::string_view> streetKindAbbreviations();
std::span<const std::string_view> secondLines();  // "Suite 400", "Floor 3", ...
std::span<const std::string_view> freeMailDomains();
std::span<const std::string_view> topLevelDomains();
std::span<const std::string_view> jobTitles();
std::span<const std::string_view> departments();
std::span<const std::string_view> words();           // free-text vocabulary
std::span<const std::string_view> emoji();           // including ZWJ and skin-tone sequences
std::span<const std::string_view> foreignPhrases();  // CJK, Cyrillic, Arabic, Greek

}  // namespace corvane::orgsim::WordLists

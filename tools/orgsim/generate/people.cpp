#include "tools/orgsim/generate/people.hpp"

#include <cstdio>
#include <vector>

#include "tools/orgsim/generate/text_forms.hpp"
#include "tools/orgsim/generate/word_lists.hpp"

namespace corvane::orgsim {

namespace {

std::vector<std::string_view> words(std::string_view text) {
  std::vector<std::string_view> out;
  std::size_t start = 0;
  while (start < text.size()) {
    auto end = text.find(' ', start);
    if (end == std::string_view::npos) end = text.size();
    if (end > start) out.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return out;
}

std::string salutationFor(char gender, RandomSource& random) {
  if (random.chance(0.35)) return {};
  if (random.chance(0.1)) return random.chance(0.7) ? "Dr." : "Prof.";
  if (gender == 'f') return random.chance(0.8) ? "Ms." : "Mrs.";
  if (gender == 'm') return "Mr.";
  return "Mx.";
}

bool hasNonAscii(std::string_view text) {
  for (unsigned char c : text) {
    if (c >= 0x80) return true;
  }
  return false;
}

enum class Change {
  Nickname,
  Spelling,
  LastNameTypo,
  FirstNameTypo,
  Transposed,
  NameCase,
  Accents,
  PlusTag,
  EmailCase,
  OtherEmail,
  PhoneFormat,
  PhoneMissing,
  AddressForm,
  AddressTypo,
  AddressMissing,
  FirstInitial,
  TitleInFirstName,
};

bool applies(Change change, const PersonIdentity& person) {
  switch (change) {
    case Change::Nickname:
      return !person.nicknames.empty();
    case Change::Spelling:
      return !person.firstSpellings.empty() || !person.lastSpelling.empty();
    case Change::Accents:
      return hasNonAscii(person.first) || hasNonAscii(person.last);
    case Change::PlusTag:
    case Change::EmailCase:
      return !person.email.empty();
    case Change::OtherEmail:
      return !person.otherEmail.empty();
    case Change::PhoneFormat:
    case Change::PhoneMissing:
      return person.hasPhone;
    case Change::FirstInitial:
    case Change::TitleInFirstName:
      return !person.first.empty();
    default:
      return true;
  }
}

void apply(Change change, const PersonIdentity& person, PersonRecord& record,
           RandomSource& random) {
  switch (change) {
    case Change::Nickname: {
      auto nick = words(person.nicknames);
      record.firstName = std::string(nick[random.below(nick.size())]);
      break;
    }
    case Change::Spelling: {
      auto firsts = words(person.firstSpellings);
      if (!firsts.empty() && (person.lastSpelling.empty() || random.chance(0.5))) {
        record.firstName = std::string(firsts[random.below(firsts.size())]);
      } else {
        record.lastName = std::string(person.lastSpelling);
      }
      break;
    }
    case Change::LastNameTypo:
      record.lastName = TextForms::withTypo(record.lastName, random);
      break;
    case Change::FirstNameTypo:
      record.firstName = TextForms::withTypo(record.firstName, random);
      break;
    case Change::Transposed:
      std::swap(record.firstName, record.lastName);
      break;
    case Change::NameCase:
      if (random.chance(0.5)) {
        record.firstName = TextForms::upper(record.firstName);
        record.lastName = TextForms::upper(record.lastName);
      } else {
        record.firstName = TextForms::lower(record.firstName);
        record.lastName = TextForms::lower(record.lastName);
      }
      break;
    case Change::Accents:
      if (TextForms::hasDecomposable(record.firstName + record.lastName) && random.chance(0.5)) {
        record.firstName = TextForms::decomposed(record.firstName);
        record.lastName = TextForms::decomposed(record.lastName);
      } else {
        bool spellOut = random.chance(0.5);
        record.firstName = TextForms::asciiFolded(record.firstName, spellOut);
        record.lastName = TextForms::asciiFolded(record.lastName, spellOut);
        if (record.firstName.empty()) record.firstName = person.firstAscii;
        if (record.lastName.empty()) record.lastName = person.lastAscii;
      }
      break;
    case Change::PlusTag:
      record.email = Emails::withPlusTag(record.email, random);
      break;
    case Change::EmailCase:
      record.email = Emails::withCaseChange(record.email, random);
      break;
    case Change::OtherEmail:
      record.email = random.chance(0.8) ? person.otherEmail : std::string();
      break;
    case Change::PhoneFormat: {
      int style = static_cast<int>(random.below(Phones::kStyles - 1));
      if (style >= person.phoneStyle) ++style;  // never the usual style
      std::string extension;
      if (random.chance(0.2)) extension = std::to_string(random.between(1, 999));
      record.phone =
          Phones::format(person.phone, style, extension, static_cast<int>(random.below(5)));
      break;
    }
    case Change::PhoneMissing:
      record.phone.clear();
      if (random.chance(0.5) && !person.hasMobile) {
        // Their office number given as the mobile instead.
        record.mobile = Phones::format(person.phone, static_cast<int>(random.below(8)));
      }
      break;
    case Change::AddressForm: {
      AddressStyle style;
      style.abbreviateStreet = true;
      style.countryForm = static_cast<int>(random.between(1, 4));
      style.secondLineOnOwnLine = random.chance(0.3);
      record.address = Addresses::write(person.address, style);
      break;
    }
    case Change::AddressTypo:
      record.address = Addresses::withTypo(record.address, random);
      break;
    case Change::AddressMissing:
      record.address = AddressText{};
      record.latitude.clear();
      record.longitude.clear();
      break;
    case Change::FirstInitial:
      record.firstName = TextForms::asciiFolded(record.firstName).substr(0, 1);
      if (!record.firstName.empty() && random.chance(0.6)) record.firstName += ".";
      break;
    case Change::TitleInFirstName:
      record.firstName = (random.chance(0.5) ? "Dr. " : "Mr ") + record.firstName;
      break;
  }
}

}  // namespace

namespace People {

PersonIdentity make(RandomSource& random, std::string_view workDomain) {
  PersonIdentity person;
  if (random.chance(0.06)) {
    const auto& name = random.pick(WordLists::nativeNames());
    person.first = name.given;
    person.last = name.family;
    person.firstAscii = name.givenLatin;
    person.lastAscii = name.familyLatin;
    person.gender = name.gender;
  } else {
    const auto& given = random.pick(WordLists::givenNames());
    const auto& family = random.pick(WordLists::familyNames());
    person.first = given.name;
    person.last = family.name;
    person.nicknames = given.nicknames;
    person.firstSpellings = given.spellings;
    person.lastSpelling = family.spelling;
    person.gender = given.gender;
    bool spellOut = random.chance(0.3);
    person.firstAscii = TextForms::asciiFolded(person.first, spellOut);
    person.lastAscii = TextForms::asciiFolded(person.last, spellOut);
    // Some people go by their short name everywhere; then it is their own name.
    if (!person.nicknames.empty() && random.chance(0.1)) {
      auto nick = words(person.nicknames);
      person.first = std::string(nick[random.below(nick.size())]);
      person.firstAscii = person.first;
      person.nicknames = {};
    }
  }
  person.salutation = salutationFor(person.gender, random);

  int pattern = static_cast<int>(random.below(5));
  std::string local = Emails::localPart(person.firstAscii, person.lastAscii, pattern);
  std::string freeMail = std::string(random.pick(WordLists::freeMailDomains()));
  std::string privateLocal =
      Emails::localPart(person.firstAscii, person.lastAscii, (pattern + 2) % 5) +
      (random.chance(0.5) ? std::to_string(random.between(1, 99)) : "");
  person.otherEmail = privateLocal + "@" + freeMail;
  if (random.chance(0.95)) {
    person.email = workDomain.empty() ? person.otherEmail : local + "@" + std::string(workDomain);
  }
  if (!workDomain.empty() && person.email.empty()) person.otherEmail.clear();

  person.address = Addresses::make(random);
  person.phone = Phones::make(*person.address.city, random);
  person.hasPhone = random.chance(0.9);
  person.mobile = Phones::make(*person.address.city, random);
  person.hasMobile = random.chance(0.5);
  person.phoneStyle = static_cast<int>(random.below(Phones::kStyles));
  if (random.chance(0.8)) person.title = std::string(random.pick(WordLists::jobTitles()));
  if (random.chance(0.6)) person.department = std::string(random.pick(WordLists::departments()));
  if (random.chance(0.5)) {
    char buffer[16];
    std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02d",
                  static_cast<int>(random.between(1950, 2004)),
                  static_cast<int>(random.between(1, 12)), static_cast<int>(random.between(1, 28)));
    person.birthdate = buffer;
  }
  return person;
}

PersonRecord write(const PersonIdentity& person) {
  PersonRecord record;
  record.salutation = person.salutation;
  record.firstName = person.first;
  record.lastName = person.last;
  record.email = person.email;
  if (person.hasPhone) record.phone = Phones::format(person.phone, person.phoneStyle);
  if (person.hasMobile) record.mobile = Phones::format(person.mobile, person.phoneStyle);
  record.title = person.title;
  record.department = person.department;
  record.birthdate = person.birthdate;
  record.address = Addresses::write(person.address, AddressStyle{});
  record.latitude = Addresses::coordinate(person.address.latitude);
  record.longitude = Addresses::coordinate(person.address.longitude);
  return record;
}

PersonRecord variant(const PersonIdentity& person, RandomSource& random) {
  PersonRecord record = write(person);
  if (random.chance(0.05)) return record;  // an exact copy: imported twice
  std::vector<Change> possible;
  for (int c = 0; c <= static_cast<int>(Change::TitleInFirstName); ++c) {
    if (applies(static_cast<Change>(c), person)) possible.push_back(static_cast<Change>(c));
  }
  int count = static_cast<int>(random.between(1, 3));
  for (int i = 0; i < count && !possible.empty(); ++i) {
    auto at = random.below(possible.size());
    Change change = possible[at];
    possible.erase(possible.begin() + static_cast<std::ptrdiff_t>(at));
    apply(change, person, record, random);
  }
  if (record.salutation.empty() == false && random.chance(0.3)) record.salutation.clear();
  return record;
}

}  // namespace People

}  // namespace corvane::orgsim

#include "tools/orgsim/generate/companies.hpp"

#include <cctype>
#include <vector>

#include "tools/orgsim/generate/text_forms.hpp"
#include "tools/orgsim/schema.hpp"

namespace corvane::orgsim {

namespace {

std::string joinName(std::string_view article, std::string_view stem, std::string_view word,
                     const WordLists::LegalForm* form, bool commaBeforeForm) {
  std::string out;
  if (!article.empty()) out += std::string(article) + " ";
  out += stem;
  if (!word.empty()) out.append(" ").append(word);
  if (form != nullptr) {
    out += commaBeforeForm ? ", " : " ";
    out += form->form;
  }
  return out;
}

// The legal forms of the same family ("Corp.", "Corp", "Corporation").
std::vector<const WordLists::LegalForm*> sameFamily(const WordLists::LegalForm& form) {
  std::vector<const WordLists::LegalForm*> out;
  for (const auto& other : WordLists::legalForms()) {
    if (other.family == form.family && other.form != form.form) out.push_back(&other);
  }
  return out;
}

std::string revenue(RandomSource& random) {
  if (random.chance(0.01)) {
    // The largest revenue a currency field of 18 digits holds, nearly.
    std::string digits = "9";
    for (int i = 1; i < 18; ++i) digits += static_cast<char>('0' + random.below(10));
    return digits;
  }
  if (random.chance(0.02)) return "0";
  std::int64_t magnitude = random.between(4, 10);
  std::int64_t value = random.between(1, 9);
  for (std::int64_t i = 0; i < magnitude; ++i) value = value * 10 + random.between(0, 9);
  return std::to_string(value);
}

enum class Change {
  OtherLegalForm,  // another spelling of the same form, or another form entirely
  NoLegalForm,
  Article,
  NameCase,
  Typo,
  Ampersand,
  DropWord,
  Website,
  PhoneFormat,
  AddressForm,
  AddressTypo,
  AddressMissing,
};

}  // namespace

namespace Companies {

CompanyIdentity make(RandomSource& random) {
  CompanyIdentity company;
  company.stem = std::string(random.pick(WordLists::companyStems()));
  if (random.chance(0.7)) company.word = std::string(random.pick(WordLists::companyWords()));
  if (random.chance(0.8)) company.legalForm = &random.pick(WordLists::legalForms());
  std::string host = TextForms::slug(company.stem + company.word, true);
  if (host.size() < 3) host = "firm" + std::to_string(random.between(1000, 9999));
  company.domain = host + "." + std::string(random.pick(WordLists::topLevelDomains()));
  company.address = Addresses::make(random);
  company.phone = Phones::make(*company.address.city, random);
  company.phoneStyle = static_cast<int>(random.below(Phones::kStyles));
  static const FieldDef* const industry = [] {
    const ObjectDef* account = Schema::object("Account");
    return account != nullptr ? account->field("Industry") : nullptr;
  }();
  if (industry != nullptr && !industry->picklistValues.empty() && random.chance(0.85)) {
    company.industry = industry->picklistValues[random.below(industry->picklistValues.size())];
  }
  company.employees = random.chance(0.7) ? random.between(1, 500) : random.between(500, 9999999);
  company.revenue = revenue(random);
  if (random.chance(0.1)) {
    for (char c : TextForms::slug(company.stem).substr(0, 4)) {
      company.tickerSymbol += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
  }
  return company;
}

std::string name(const CompanyIdentity& company) {
  return joinName({}, company.stem, company.word, company.legalForm, false);
}

CompanyRecord write(const CompanyIdentity& company) {
  CompanyRecord record;
  record.name = name(company);
  record.website = "https://www." + company.domain;
  record.phone = Phones::format(company.phone, company.phoneStyle);
  record.billing = Addresses::write(company.address, AddressStyle{});
  record.latitude = Addresses::coordinate(company.address.latitude);
  record.longitude = Addresses::coordinate(company.address.longitude);
  return record;
}

CompanyRecord variant(const CompanyIdentity& company, RandomSource& random) {
  CompanyRecord record = write(company);
  if (random.chance(0.05)) return record;
  std::string article, stem = company.stem, word = company.word;
  const WordLists::LegalForm* form = company.legalForm;
  bool comma = false, nameCase = false, typo = false;
  std::vector<Change> possible = {Change::OtherLegalForm, Change::Article, Change::NameCase,
                                  Change::Typo,           Change::Website, Change::PhoneFormat,
                                  Change::AddressForm};
  if (company.legalForm != nullptr) possible.push_back(Change::NoLegalForm);
  if (company.stem.find('&') != std::string::npos ||
      company.stem.find(" and ") != std::string::npos) {
    possible.push_back(Change::Ampersand);
  }
  if (!company.word.empty()) possible.push_back(Change::DropWord);
  int count = static_cast<int>(random.between(1, 3));
  for (int i = 0; i < count && !possible.empty(); ++i) {
    auto at = random.below(possible.size());
    Change change = possible[at];
    possible.erase(possible.begin() + static_cast<std::ptrdiff_t>(at));
    switch (change) {
      case Change::OtherLegalForm: {
        auto family =
            form != nullptr ? sameFamily(*form) : std::vector<const WordLists::LegalForm*>{};
        form = !family.empty() && random.chance(0.6) ? family[random.below(family.size())]
                                                     : &random.pick(WordLists::legalForms());
        comma = random.chance(0.3);
        break;
      }
      case Change::NoLegalForm:
        form = nullptr;
        break;
      case Change::Article:
        article = random.chance(0.8) ? "The" : "the";
        break;
      case Change::NameCase:
        nameCase = true;
        break;
      case Change::Typo:
        typo = true;
        break;
      case Change::Ampersand: {
        auto amp = stem.find(" & ");
        if (amp != std::string::npos) {
          stem.replace(amp, 3, " and ");
        } else if (auto andAt = stem.find(" and "); andAt != std::string::npos) {
          stem.replace(andAt, 5, " & ");
        }
        break;
      }
      case Change::DropWord:
        word.clear();
        break;
      case Change::Website: {
        static constexpr std::string_view kForms[] = {"http://", "https://", "", "www.",
                                                      "http://www."};
        record.website = std::string(kForms[random.below(std::size(kForms))]) + company.domain +
                         (random.chance(0.3) ? "/" : "");
        break;
      }
      case Change::PhoneFormat: {
        int style = static_cast<int>(random.below(Phones::kStyles - 1));
        if (style >= company.phoneStyle) ++style;
        std::string extension;
        if (random.chance(0.15)) extension = std::to_string(random.between(10, 999));
        record.phone =
            Phones::format(company.phone, style, extension, static_cast<int>(random.below(5)));
        break;
      }
      case Change::AddressForm: {
        AddressStyle style;
        style.abbreviateStreet = true;
        style.countryForm = static_cast<int>(random.between(1, 4));
        style.secondLineOnOwnLine = random.chance(0.3);
        record.billing = Addresses::write(company.address, style);
        break;
      }
      case Change::AddressTypo:
        record.billing = Addresses::withTypo(record.billing, random);
        break;
      case Change::AddressMissing:
        record.billing = AddressText{};
        record.latitude.clear();
        record.longitude.clear();
        break;
    }
  }
  if (typo) stem = TextForms::withTypo(stem, random);
  record.name = joinName(article, stem, word, form, comma);
  if (nameCase) {
    // "ACME Corp." keeps the legal form as it was; "acme systems inc." is all lower.
    if (random.chance(0.5)) {
      record.name = joinName(article, TextForms::upper(stem), word, form, comma);
    } else {
      record.name = TextForms::lower(record.name);
    }
  }
  return record;
}

}  // namespace Companies

}  // namespace corvane::orgsim

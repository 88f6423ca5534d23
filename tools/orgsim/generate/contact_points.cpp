#include "tools/orgsim/generate/contact_points.hpp"

#include <charconv>
#include <vector>

#include "tools/orgsim/generate/text_forms.hpp"

namespace corvane::orgsim {

namespace {

std::vector<std::string_view> splitBlanks(std::string_view text, char separator = ' ') {
  std::vector<std::string_view> out;
  std::size_t start = 0;
  while (start <= text.size()) {
    auto end = text.find(separator, start);
    if (end == std::string_view::npos) end = text.size();
    if (end > start) out.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return out;
}

std::string digits(RandomSource& random, std::size_t count, bool nonZeroFirst) {
  std::string out;
  for (std::size_t i = 0; i < count; ++i) {
    char low = (i == 0 && nonZeroFirst) ? '2' : '0';
    out += static_cast<char>(low + random.below(static_cast<std::uint64_t>('9' - low + 1)));
  }
  return out;
}

bool isNorthAmerican(const PhoneNumber& phone) { return phone.dialCode == "1"; }

// The subscriber digits in the groups the country writes them in.
std::string grouped(const PhoneNumber& phone) {
  const std::string& s = phone.subscriber;
  if (phone.countryCode == "FR" || phone.countryCode == "DK") {
    std::string out;
    for (std::size_t i = 0; i < s.size(); i += 2) {
      if (!out.empty()) out += ' ';
      out += s.substr(i, 2);
    }
    return out;
  }
  if (phone.countryCode == "JP" && s.size() == 8) return s.substr(0, 4) + "-" + s.substr(4);
  if (s.size() == 8) return s.substr(0, 4) + " " + s.substr(4);
  if (s.size() == 7) return s.substr(0, 3) + " " + s.substr(3);
  return s;
}

std::string trunk(const PhoneNumber& phone) { return phone.area.empty() ? "" : "0" + phone.area; }

std::string formatNorthAmerican(const PhoneNumber& p, int style) {
  const std::string& a = p.area;
  std::string e = p.subscriber.substr(0, 3), l = p.subscriber.substr(3);
  switch (style) {
    case 1:
      return a + "-" + e + "-" + l;
    case 2:
      return a + "." + e + "." + l;
    case 3:
      return "+1 " + a + " " + e + " " + l;
    case 4:
      return "+1 (" + a + ") " + e + "-" + l;
    case 5:
      return "1-" + a + "-" + e + "-" + l;
    case 6:
      return a + e + l;
    case 7:
      return "+1" + a + e + l;
    default:
      return "(" + a + ") " + e + "-" + l;
  }
}

std::string formatInternational(const PhoneNumber& p, int style) {
  std::string dial(p.dialCode);
  std::string area = p.area.empty() ? "" : p.area + " ";
  const std::string& s = p.subscriber;
  switch (style) {
    case 1:
      return "+" + dial + " " + area + grouped(p);
    case 2:
      return p.area.empty() ? "+" + dial + " " + grouped(p)
                            : "+" + dial + " (0)" + p.area + " " + grouped(p);
    case 3:
      return "+" + dial + p.area + s;
    case 4:
      return "00" + dial + " " + area + grouped(p);
    case 5:
      return trunk(p) + s;
    case 6:
      return p.area.empty() ? s : trunk(p) + "/" + s;
    case 7:
      return p.area.empty()
                 ? grouped(p)
                 : trunk(p) + "-" + s.substr(0, s.size() / 2) + "-" + s.substr(s.size() / 2);
    default:
      if (p.countryCode == "JP") return trunk(p) + "-" + grouped(p);
      if (p.countryCode == "AU") return "(" + trunk(p) + ") " + grouped(p);
      return p.area.empty() ? grouped(p) : trunk(p) + " " + grouped(p);
  }
}

}  // namespace

namespace Phones {

PhoneNumber make(const WordLists::City& city, RandomSource& random) {
  PhoneNumber phone;
  const WordLists::Country* country = WordLists::country(city.countryCode);
  phone.countryCode = city.countryCode;
  phone.dialCode = country != nullptr ? country->dialCode : "1";
  auto areas = splitBlanks(city.areaCodes);
  if (!areas.empty()) phone.area = std::string(areas[random.below(areas.size())]);
  if (phone.dialCode == "1") {
    // Exchanges 200-999, never 555 (reserved for fiction) nor N11 (service codes).
    std::string exchange;
    do {
      exchange = digits(random, 3, true);
    } while (exchange == "555" || exchange.substr(1) == "11");
    phone.subscriber = exchange + digits(random, 4, false);
  } else {
    bool shortNumbers = phone.countryCode == "CH" || phone.countryCode == "PL";
    phone.subscriber = digits(random, shortNumbers ? 7 : 8, true);
  }
  return phone;
}

std::string format(const PhoneNumber& phone, int style, std::string_view extension,
                   int extensionStyle) {
  std::string out = isNorthAmerican(phone) ? formatNorthAmerican(phone, style % kStyles)
                                           : formatInternational(phone, style % kStyles);
  if (!extension.empty()) {
    static constexpr std::string_view kMarkers[] = {" ext. ", " x", " #", " extension ", " ext "};
    out += kMarkers[static_cast<std::size_t>(extensionStyle) % std::size(kMarkers)];
    out += extension;
  }
  return out;
}

}  // namespace Phones

namespace Emails {

std::string localPart(std::string_view firstAscii, std::string_view lastAscii, int pattern) {
  std::string first = TextForms::slug(firstAscii), last = TextForms::slug(lastAscii);
  if (first.empty()) return last.empty() ? "contact" : last;
  if (last.empty()) return first;
  switch (pattern % 5) {
    case 1:
      return first.substr(0, 1) + last;
    case 2:
      return first + "_" + last;
    case 3:
      return first + last.substr(0, 1);
    case 4:
      return first;
    default:
      return first + "." + last;
  }
}

std::string withPlusTag(std::string_view address, RandomSource& random) {
  static constexpr std::string_view kTags[] = {"news",  "sf",         "crm", "2023",  "work",
                                               "promo", "newsletter", "a1",  "events"};
  auto at = address.rfind('@');
  if (at == std::string_view::npos || at == 0) return std::string(address);
  return std::string(address.substr(0, at)) + "+" +
         std::string(kTags[random.below(std::size(kTags))]) + std::string(address.substr(at));
}

std::string withCaseChange(std::string_view address, RandomSource& random) {
  auto at = address.rfind('@');
  if (at == std::string_view::npos) return TextForms::upper(address);
  std::string local(address.substr(0, at)), domain(address.substr(at + 1));
  switch (random.below(3)) {
    case 0:  // Each part of the local name capitalised: "Jo.Smith".
      for (std::size_t i = 0; i < local.size(); ++i) {
        if (i == 0 || local[i - 1] == '.' || local[i - 1] == '_') {
          local[i] = static_cast<char>(std::toupper(static_cast<unsigned char>(local[i])));
        }
      }
      return local + "@" + domain;
    case 1:
      return local + "@" + TextForms::upper(domain);
    default:
      return TextForms::upper(address);
  }
}

}  // namespace Emails

namespace Addresses {

PostalAddress inCity(const WordLists::City& city, RandomSource& random) {
  PostalAddress address;
  address.city = &city;
  // House numbers: mostly small, a few large.
  address.number = random.chance(0.8) ? static_cast<int>(random.between(1, 199))
                                      : static_cast<int>(random.between(200, 9999));
  address.streetName = random.pick(WordLists::streetNames());
  address.streetKind = static_cast<int>(random.below(WordLists::streetKinds().size()));
  if (random.chance(0.2)) address.secondLine = random.pick(WordLists::secondLines());
  for (char c : city.postalCode) {
    if (c == '9') {
      address.postalCode += static_cast<char>('0' + random.below(10));
    } else if (c == 'A') {
      address.postalCode += static_cast<char>('A' + random.below(26));
    } else {
      address.postalCode += c;
    }
  }
  if (random.chance(0.005)) {
    // A geocoder that gave up: the tiny coordinates it leaves behind.
    address.latitude = 0.0000001;
    address.longitude = -0.0000001;
  } else {
    address.latitude = city.latitude + (random.unit() - 0.5) * 0.1;
    address.longitude = city.longitude + (random.unit() - 0.5) * 0.1;
  }
  return address;
}

PostalAddress make(RandomSource& random) {
  return inCity(random.pick(WordLists::cities()), random);
}

AddressText write(const PostalAddress& address, const AddressStyle& style) {
  AddressText out;
  const WordLists::City& city = *address.city;
  std::string number = std::to_string(address.number);
  if (city.countryCode == "DE" || city.countryCode == "CH") {
    out.street =
        std::string(address.streetName) + (style.abbreviateStreet ? "str. " : "straße ") + number;
  } else {
    auto kinds =
        style.abbreviateStreet ? WordLists::streetKindAbbreviations() : WordLists::streetKinds();
    out.street = number + " " + std::string(address.streetName) + " " +
                 std::string(kinds[static_cast<std::size_t>(address.streetKind) % kinds.size()]);
  }
  if (!address.secondLine.empty()) {
    out.street += style.secondLineOnOwnLine ? "\n" : ", ";
    out.street += address.secondLine;
  }
  out.city = city.city;
  out.state = city.state;
  out.postalCode = address.postalCode;
  if (const auto* country = WordLists::country(city.countryCode)) {
    auto names = splitBlanks(country->names, '|');
    out.country = std::string(names[static_cast<std::size_t>(style.countryForm) % names.size()]);
  }
  return out;
}

AddressText withTypo(AddressText address, RandomSource& random) {
  std::string& target =
      address.postalCode.size() > 2 && random.chance(0.4) ? address.postalCode : address.street;
  target = TextForms::withTypo(target, random);
  return address;
}

std::string coordinate(double value) {
  char buffer[64];
  auto written = std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::fixed, 15);
  std::string out(buffer, written.ptr);
  while (!out.empty() && out.back() == '0') out.pop_back();
  if (!out.empty() && out.back() == '.') out.pop_back();
  if (out == "-0") out = "0";
  return out;
}

}  // namespace Addresses

}  // namespace corvane::orgsim

// The org itself, its users, and the sales and service records: Organization,
// User, Account, Contact, Lead, Opportunity, Case, Invoice__c.
#include <array>
#include <cstdio>
#include <map>

#include "tools/orgsim/generate/contact_points.hpp"
#include "tools/orgsim/generate/free_text.hpp"
#include "tools/orgsim/generate/record_sets.hpp"
#include "tools/orgsim/generate/text_forms.hpp"
#include "tools/orgsim/generate/word_lists.hpp"
#include "tools/orgsim/schema.hpp"

namespace corvane::orgsim::RecordSets {

namespace {

using std::chrono::days;

// A value of a picklist field from the catalog. The catalog's picklists are
// indexed once, so the lookup costs no scan of the catalog per row.
std::string_view pickValue(std::string_view object, std::string_view field, RandomSource& random) {
  using Key = std::pair<std::string_view, std::string_view>;
  static const std::map<Key, const std::vector<std::string>*> picklists = [] {
    std::map<Key, const std::vector<std::string>*> index;
    for (const auto& o : Schema::objects()) {
      for (const auto& f : o.fields) {
        if (!f.picklistValues.empty()) index[Key(o.name, f.name)] = &f.picklistValues;
      }
    }
    return index;
  }();
  auto found = picklists.find(Key(object, field));
  if (found == picklists.end()) return {};
  const auto& values = *found->second;
  return values[random.below(values.size())];
}

std::string dateBetween(Clock::time_point from, Clock::time_point to, RandomSource& random) {
  if (to <= from) return WireTime::date(from);
  auto span = std::chrono::duration_cast<std::chrono::milliseconds>(to - from);
  return WireTime::date(from + std::chrono::milliseconds(static_cast<std::int64_t>(
                                   static_cast<double>(span.count()) * random.unit())));
}

std::string geocodeAccuracy(RandomSource& random) {
  static constexpr std::string_view kValues[] = {"Address", "Street",      "Zip",
                                                 "City",    "NearAddress", "Block"};
  return std::string(kValues[random.below(std::size(kValues))]);
}

// Values that mean "we do not know": what real orgs hold where a form forced an
// answer. Only ever given to records outside duplicate clusters.
constexpr std::string_view kFillerFirstNames[] = {"Unknown", "Test Lead 4", "n/a", "Anonymous",
                                                  "TBD"};
constexpr std::string_view kFillerLastNames[] = {"Not Provided", "Unknown", "Do Not Use",
                                                 "Anonymous Visitor", "Placeholder"};

// Writes the address compound's components under one prefix ("Billing", "Mailing", "").
template <std::size_t N>
void putAddress(RowSink& row, const std::array<const char*, N>& fields, const AddressText* address,
                std::string_view latitude, std::string_view longitude, RandomSource& random) {
  static_assert(N == 8);
  if (address == nullptr) {
    for (const char* f : fields) row.putNull(f);
    return;
  }
  row.put(fields[0], address->street);
  row.put(fields[1], address->city);
  row.put(fields[2], address->state);
  row.put(fields[3], address->postalCode);
  row.put(fields[4], address->country);
  bool geocoded = !latitude.empty() && random.chance(0.7);
  row.put(fields[5], geocoded ? latitude : std::string_view());
  row.put(fields[6], geocoded ? longitude : std::string_view());
  row.put(fields[7], geocoded ? geocodeAccuracy(random) : std::string());
}

constexpr std::array<const char*, 8> kBilling = {
    "BillingStreet",  "BillingCity",     "BillingState",     "BillingPostalCode",
    "BillingCountry", "BillingLatitude", "BillingLongitude", "BillingGeocodeAccuracy"};
constexpr std::array<const char*, 8> kShipping = {
    "ShippingStreet",  "ShippingCity",     "ShippingState",     "ShippingPostalCode",
    "ShippingCountry", "ShippingLatitude", "ShippingLongitude", "ShippingGeocodeAccuracy"};
constexpr std::array<const char*, 8> kMailing = {
    "MailingStreet",  "MailingCity",     "MailingState",     "MailingPostalCode",
    "MailingCountry", "MailingLatitude", "MailingLongitude", "MailingGeocodeAccuracy"};
constexpr std::array<const char*, 8> kLeadAddress = {
    "Street", "City", "State", "PostalCode", "Country", "Latitude", "Longitude", "GeocodeAccuracy"};

struct Stage {
  std::string_view name;
  int probability;
};
constexpr Stage kStages[] = {
    {"Prospecting", 10},          {"Qualification", 10},       {"Needs Analysis", 20},
    {"Value Proposition", 50},    {"Id. Decision Makers", 60}, {"Perception Analysis", 70},
    {"Proposal/Price Quote", 75}, {"Negotiation/Review", 90},  {"Closed Won", 100},
    {"Closed Lost", 0},
};

}  // namespace

std::string userId(std::uint64_t serial) { return OrgPlan::idWithPrefix("005", serial); }

void putSystemFields(RowSink& row, const Stamps& stamps, std::uint64_t createdBy,
                     std::uint64_t modifiedBy, bool deleted, bool withIsDeleted) {
  if (withIsDeleted) row.put("IsDeleted", deleted);
  row.put("CreatedDate", std::string_view(stamps.created));
  row.put("CreatedById", userId(createdBy));
  row.put("LastModifiedDate", std::string_view(stamps.modified));
  row.put("LastModifiedById", userId(modifiedBy));
  row.put("SystemModstamp", std::string_view(stamps.modstamp));
}

void organization(GenerationContext& context) {
  const OrgPlan& plan = context.plan;
  RowSink row(context.store, "Organization", 1, context.progress, context.shouldStop);
  auto created = plan.now() - days(790);
  Stamps stamps;
  stamps.createdAt = created;
  stamps.created = WireTime::dateTime(created);
  stamps.modified = WireTime::dateTime(plan.now() - days(3));
  stamps.modstamp = stamps.modified;
  row.put("Id", std::string_view(context.identity.orgId));
  row.put("Name", std::string_view(context.identity.orgName));
  row.putNull("Division");
  row.put("Street", "1 Harbour Exchange Square\nFloor 12");
  row.put("City", "London");
  row.putNull("State");
  row.put("PostalCode", "E14 9GE");
  row.put("Country", "United Kingdom");
  row.put("Latitude", "51.49873");
  row.put("Longitude", "-0.0156");
  row.put("GeocodeAccuracy", "Address");
  row.put("Phone", "+44 20 7946 0000");
  row.put("PrimaryContact", "Sample Admin");
  row.put("DefaultLocaleSidKey", "en_US");
  row.put("LanguageLocaleKey", "en_US");
  row.put("TimeZoneSidKey", "Europe/London");
  row.put("OrganizationType", "Developer Edition");
  row.put("InstanceName", "EU46");
  row.put("IsSandbox", false);
  row.putNull("NamespacePrefix");
  row.putNull("TrialExpirationDate");
  putSystemFields(row, stamps, 1, 1, false, false);
  row.end();
  row.finish();
}

void users(GenerationContext& context) {
  const OrgPlan& plan = context.plan;
  auto total = plan.count("User");
  RowSink row(context.store, "User", total, context.progress, context.shouldStop);
  static constexpr std::string_view kZones[] = {
      "America/Los_Angeles", "America/New_York", "Europe/London",   "Europe/Berlin",
      "Europe/Paris",        "Asia/Tokyo",       "Australia/Sydney"};
  static constexpr std::string_view kLocales[] = {"en_US", "en_GB", "de_DE", "fr_FR", "ja_JP"};
  static constexpr std::string_view kLanguages[] = {"en_US", "de", "fr", "ja"};
  for (std::uint64_t k = 1; k <= static_cast<std::uint64_t>(total); ++k) {
    auto r = plan.random("user", k);
    bool admin = k == 1;
    PersonIdentity person = People::make(r, "sample.org");
    std::string local =
        admin ? "admin"
              : Emails::localPart(person.firstAscii, person.lastAscii, 1) + std::to_string(k);
    Stamps stamps = admin ? plan.stamps("User", k, plan.now() - days(789))
                          : plan.stamps("User", k, plan.now() - days(780));
    if (admin) stamps.created = WireTime::dateTime(plan.now() - days(790));
    bool active = admin || r.chance(0.9);
    row.put("Id", userId(k));
    row.put("Username", admin ? context.identity.adminUsername : local + "@sample.org");
    row.put("LastName", admin ? std::string("Admin") : person.last);
    row.put("FirstName", admin ? std::string("Sample") : person.first);
    row.put("CompanyName", std::string_view(context.identity.orgName));
    row.putNull("Division");
    row.put("Department", admin ? std::string("IT") : person.department);
    row.put("Title", admin ? std::string("System Administrator") : person.title);
    row.put("Email", admin ? context.identity.adminUsername
                           : (r.chance(0.1) ? Emails::withPlusTag(person.email, r) : person.email));
    row.put("Phone", person.hasPhone ? Phones::format(person.phone, person.phoneStyle) : "");
    std::string alias =
        admin ? "sadmin"
              : (TextForms::slug(person.firstAscii).substr(0, 1) +
                 TextForms::slug(person.lastAscii).substr(0, 4) + std::to_string(k % 1000));
    row.put("Alias", alias.empty() ? "user" + std::to_string(k % 10000) : alias);
    row.put("CommunityNickname", local);
    row.put("IsActive", active);
    row.put("TimeZoneSidKey",
            admin ? std::string_view("Europe/London") : kZones[r.below(std::size(kZones))]);
    row.put("LocaleSidKey",
            admin ? std::string_view("en_US") : kLocales[r.below(std::size(kLocales))]);
    row.put("LanguageLocaleKey",
            admin ? std::string_view("en_US") : kLanguages[r.below(std::size(kLanguages))]);
    row.put("EmailEncodingKey", r.chance(0.95) ? "UTF-8" : "ISO-8859-1");
    row.put("UserType", "Standard");
    if (k > 1 && r.chance(0.7)) {
      row.put("ManagerId", userId(1 + r.below(k - 1)));  // a manager joined earlier
    } else {
      row.putNull("ManagerId");
    }
    if (active) {
      row.put("LastLoginDate",
              WireTime::dateTime(plan.now() - std::chrono::minutes(r.between(5, 60 * 24 * 30))));
    } else {
      row.putNull("LastLoginDate");
    }
    putSystemFields(row, stamps, 1, 1, false, false);
    row.end();
  }
  row.finish();
}

void accounts(GenerationContext& context) {
  const OrgPlan& plan = context.plan;
  auto total = plan.count("Account");
  RowSink row(context.store, "Account", total, context.progress, context.shouldStop);
  for (std::uint64_t k = 1; k <= static_cast<std::uint64_t>(total); ++k) {
    AccountRow account = plan.account(k);
    auto r = plan.random("account", k);
    std::string id = plan.id("Account", k);
    bool deleted = plan.isDeleted("Account", k);
    if (account.cluster.inCluster) {
      context.truth.add("Account", id, plan.accountClusters().entity(account.cluster));
    }
    row.put("Id", std::string_view(id));
    row.put("Name", account.record.name);
    row.put("Type", r.chance(0.8) ? pickValue("Account", "Type", r) : std::string_view());
    if (k > 1 && r.chance(0.08)) {
      row.put("ParentId", plan.id("Account", plan.live("Account", 1 + r.below(k - 1))));
    } else {
      row.putNull("ParentId");
    }
    putAddress(row, kBilling, r.chance(0.9) ? &account.record.billing : nullptr,
               account.record.latitude, account.record.longitude, r);
    double shipping = r.unit();
    if (shipping < 0.5) {
      putAddress(row, kShipping, &account.record.billing, account.record.latitude,
                 account.record.longitude, r);
    } else if (shipping < 0.7) {
      PostalAddress other = Addresses::make(r);
      AddressText text = Addresses::write(other, AddressStyle{});
      putAddress(row, kShipping, &text, Addresses::coordinate(other.latitude),
                 Addresses::coordinate(other.longitude), r);
    } else {
      putAddress(row, kShipping, static_cast<const AddressText*>(nullptr), {}, {}, r);
    }
    row.put("Phone", r.chance(0.9) ? account.record.phone : std::string());
    row.put("Fax", r.chance(0.25) ? Phones::format(Phones::make(*account.company.address.city, r),
                                                   account.company.phoneStyle)
                                  : std::string());
    char number[16];
    std::snprintf(number, sizeof number, "%06llu", static_cast<unsigned long long>(k % 1000000));
    row.put("AccountNumber", r.chance(0.5) ? std::string(number) : std::string());
    row.put("Website", r.chance(0.85) ? account.record.website : std::string());
    row.put("Sic", r.chance(0.4) ? std::to_string(r.between(1000, 9999)) : std::string());
    row.put("Industry", account.company.industry);
    row.put("AnnualRevenue", r.chance(0.7) ? account.company.revenue : std::string());
    row.put("NumberOfEmployees",
            r.chance(0.7) ? std::to_string(account.company.employees) : std::string());
    row.put("Ownership", r.chance(0.5) ? pickValue("Account", "Ownership", r) : std::string_view());
    row.put("TickerSymbol", account.company.tickerSymbol);
    row.put("Description", r.chance(0.4) ? FreeText::note(r) : std::string());
    row.put("Rating", r.chance(0.5) ? pickValue("Account", "Rating", r) : std::string_view());
    static constexpr std::string_view kSites[] = {"Headquarters", "Branch", "Warehouse", "Online",
                                                  "Zweigstelle"};
    row.put("Site", r.chance(0.3) ? kSites[r.below(std::size(kSites))] : std::string_view());
    row.put("OwnerId", userId(plan.pickUser(r)));
    putSystemFields(row, plan.stamps("Account", k), plan.pickUser(r), plan.pickUser(r), deleted);
    row.end();
  }
  row.finish();
}

void contacts(GenerationContext& context) {
  const OrgPlan& plan = context.plan;
  auto total = plan.count("Contact");
  RowSink row(context.store, "Contact", total, context.progress, context.shouldStop);
  for (std::uint64_t k = 1; k <= static_cast<std::uint64_t>(total); ++k) {
    PersonRow contact = plan.contact(k);
    PersonRecord& p = contact.person;
    auto r = plan.random("contact", k);
    std::string id = plan.id("Contact", k);
    if (contact.cluster.inCluster) {
      context.truth.add("Contact", id, plan.contactClusters().entity(contact.cluster));
    } else if (r.chance(0.005)) {
      p.firstName = kFillerFirstNames[r.below(std::size(kFillerFirstNames))];
      if (r.chance(0.5)) p.lastName = kFillerLastNames[r.below(std::size(kFillerLastNames))];
    }
    row.put("Id", std::string_view(id));
    row.put("AccountId", contact.account != 0 ? plan.id("Account", contact.account) : "");
    row.put("LastName", p.lastName.empty() ? std::string("Unknown") : p.lastName);
    row.put("FirstName", p.firstName);
    row.put("Salutation", p.salutation);
    putAddress(row, kMailing, r.chance(0.8) ? &p.address : nullptr, p.latitude, p.longitude, r);
    row.put("Phone", p.phone);
    row.putNull("Fax");
    row.put("MobilePhone", p.mobile);
    row.putNull("HomePhone");
    row.put("Email", p.email);
    row.put("Title", p.title);
    row.put("Department", p.department);
    row.put("Birthdate", p.birthdate);
    row.put("LeadSource",
            r.chance(0.6) ? pickValue("Contact", "LeadSource", r) : std::string_view());
    row.put("Description", r.chance(0.3) ? FreeText::note(r) : std::string());
    row.put("HasOptedOutOfEmail", r.chance(0.1));
    row.put("OwnerId", userId(plan.pickUser(r)));
    putSystemFields(row, plan.stamps("Contact", k), plan.pickUser(r), plan.pickUser(r),
                    plan.isDeleted("Contact", k));
    row.end();
  }
  row.finish();
}

void leads(GenerationContext& context) {
  const OrgPlan& plan = context.plan;
  auto total = plan.count("Lead");
  RowSink row(context.store, "Lead", total, context.progress, context.shouldStop);
  for (std::uint64_t k = 1; k <= static_cast<std::uint64_t>(total); ++k) {
    PersonRow lead = plan.lead(k);
    PersonRecord& p = lead.person;
    auto r = plan.random("lead", k);
    std::string id = plan.id("Lead", k);
    if (lead.cluster.inCluster) {
      context.truth.add("Lead", id, plan.leadClusters().entity(lead.cluster));
    } else if (r.chance(0.01)) {
      p.firstName = kFillerFirstNames[r.below(std::size(kFillerFirstNames))];
      if (r.chance(0.5)) p.lastName = kFillerLastNames[r.below(std::size(kFillerLastNames))];
    }
    Stamps stamps = plan.stamps("Lead", k);
    bool converted = !lead.cluster.inCluster && r.chance(0.08);
    row.put("Id", std::string_view(id));
    row.put("LastName", p.lastName.empty() ? std::string("Unknown") : p.lastName);
    row.put("FirstName", p.firstName);
    row.put("Salutation", p.salutation);
    row.put("Title", p.title);
    row.put("Company", lead.company.empty() ? std::string("[not provided]") : lead.company);
    putAddress(row, kLeadAddress, r.chance(0.7) ? &p.address : nullptr, p.latitude, p.longitude, r);
    row.put("Phone", p.phone);
    row.put("MobilePhone", p.mobile);
    row.putNull("Fax");
    row.put("Email", p.email);
    row.put("Website", r.chance(0.3) && !p.email.empty()
                           ? "www." + p.email.substr(p.email.rfind('@') + 1)
                           : std::string());
    row.put("Description", r.chance(0.3) ? FreeText::note(r) : std::string());
    row.put("LeadSource", r.chance(0.8) ? pickValue("Lead", "LeadSource", r) : std::string_view());
    static constexpr std::string_view kOpen[] = {"Open - Not Contacted", "Working - Contacted",
                                                 "Closed - Not Converted"};
    row.put("Status",
            converted ? std::string_view("Closed - Converted") : kOpen[r.below(std::size(kOpen))]);
    row.put("Industry", r.chance(0.6) ? pickValue("Lead", "Industry", r) : std::string_view());
    row.put("Rating", r.chance(0.5) ? pickValue("Lead", "Rating", r) : std::string_view());
    row.put("AnnualRevenue", r.chance(0.3) ? FreeText::decimal(r, 12, 0) : std::string());
    row.put("NumberOfEmployees", r.chance(0.3) ? std::to_string(r.between(1, 50000)) : "");
    row.put("HasOptedOutOfEmail", r.chance(0.08));
    row.put("IsConverted", converted);
    if (converted) {
      row.put("ConvertedDate", dateBetween(stamps.createdAt, plan.now(), r));
      auto account = plan.pickLive("Account", r);
      auto contact = plan.pickLive("Contact", r);
      auto opportunity = r.chance(0.7) ? plan.pickLive("Opportunity", r) : 0;
      row.put("ConvertedAccountId", account != 0 ? plan.id("Account", account) : "");
      row.put("ConvertedContactId", contact != 0 ? plan.id("Contact", contact) : "");
      row.put("ConvertedOpportunityId",
              opportunity != 0 ? plan.id("Opportunity", opportunity) : "");
    } else {
      row.putNull("ConvertedDate");
      row.putNull("ConvertedAccountId");
      row.putNull("ConvertedContactId");
      row.putNull("ConvertedOpportunityId");
    }
    row.put("OwnerId", userId(plan.pickUser(r)));
    putSystemFields(row, stamps, plan.pickUser(r), plan.pickUser(r), plan.isDeleted("Lead", k));
    row.end();
  }
  row.finish();
}

RecordLinks opportunityLinks(const OrgPlan& plan, std::uint64_t serial) {
  RecordLinks links;
  auto r = plan.random("opportunity links", serial);
  if (r.chance(0.6)) links.contact = plan.pickLive("Contact", r);
  if (links.contact != 0) links.account = plan.contactAccount(links.contact);
  if (links.account == 0 && r.chance(0.95)) links.account = plan.pickLive("Account", r);
  return links;
}

RecordLinks caseLinks(const OrgPlan& plan, std::uint64_t serial) {
  RecordLinks links;
  auto r = plan.random("case links", serial);
  if (r.chance(0.8)) links.contact = plan.pickLive("Contact", r);
  if (links.contact != 0) links.account = plan.contactAccount(links.contact);
  if (links.account == 0 && r.chance(0.5)) links.account = plan.pickLive("Account", r);
  return links;
}

std::string opportunityName(const OrgPlan& plan, std::uint64_t serial) {
  static constexpr std::string_view kDeals[] = {
      "Renewal", "Expansion",        "New Business",      "Upgrade",       "500 Licenses",
      "Pilot",   "Service Contract", "Add-on: Analytics", "Rahmenvertrag", "Phase 2, EMEA"};
  auto r = plan.random("opportunity name", serial);
  auto links = opportunityLinks(plan, serial);
  std::string deal(kDeals[r.below(std::size(kDeals))]);
  if (links.account == 0) return deal + " " + std::to_string(r.between(2019, 2026));
  return plan.account(links.account).record.name + " - " + deal;
}

void opportunities(GenerationContext& context) {
  const OrgPlan& plan = context.plan;
  auto total = plan.count("Opportunity");
  RowSink row(context.store, "Opportunity", total, context.progress, context.shouldStop);
  for (std::uint64_t k = 1; k <= static_cast<std::uint64_t>(total); ++k) {
    auto r = plan.random("opportunity", k);
    RecordLinks links = opportunityLinks(plan, k);
    std::optional<Clock::time_point> floor;
    if (links.account != 0) floor = plan.createdAt("Account", links.account);
    Stamps stamps = plan.stamps("Opportunity", k, floor);
    const Stage& stage = kStages[r.below(std::size(kStages))];
    bool closed = stage.probability == 100 || stage.probability == 0;
    row.put("Id", plan.id("Opportunity", k));
    row.put("AccountId", links.account != 0 ? plan.id("Account", links.account) : "");
    row.put("ContactId", links.contact != 0 ? plan.id("Contact", links.contact) : "");
    row.put("Name", FreeText::truncated(opportunityName(plan, k), 120));
    row.put("Description", r.chance(0.3) ? FreeText::note(r) : std::string());
    row.put("StageName", stage.name);
    row.put("Amount", r.chance(0.85) ? FreeText::decimal(r, 16, 2) : std::string());
    row.put("Probability", static_cast<std::int64_t>(stage.probability));
    row.put("CloseDate", dateBetween(stamps.createdAt, stamps.createdAt + days(200), r));
    row.put("Type", r.chance(0.7) ? pickValue("Opportunity", "Type", r) : std::string_view());
    row.put("NextStep", !closed && r.chance(0.5) ? FreeText::sentence(r) : std::string());
    row.put("LeadSource",
            r.chance(0.5) ? pickValue("Opportunity", "LeadSource", r) : std::string_view());
    row.put("IsClosed", closed);
    row.put("IsWon", stage.probability == 100);
    row.put("OwnerId", userId(plan.pickUser(r)));
    putSystemFields(row, stamps, plan.pickUser(r), plan.pickUser(r),
                    plan.isDeleted("Opportunity", k));
    row.end();
  }
  row.finish();
}

void cases(GenerationContext& context) {
  const OrgPlan& plan = context.plan;
  auto total = plan.count("Case");
  RowSink row(context.store, "Case", total, context.progress, context.shouldStop);
  for (std::uint64_t k = 1; k <= static_cast<std::uint64_t>(total); ++k) {
    auto r = plan.random("case", k);
    RecordLinks links = caseLinks(plan, k);
    Stamps stamps = plan.stamps("Case", k);
    std::string_view status = pickValue("Case", "Status", r);
    std::string_view origin = pickValue("Case", "Origin", r);
    bool closed = status == "Closed";
    row.put("Id", plan.id("Case", k));
    row.put("ContactId", links.contact != 0 ? plan.id("Contact", links.contact) : "");
    row.put("AccountId", links.account != 0 ? plan.id("Account", links.account) : "");
    if (k > 1 && r.chance(0.05)) {
      row.put("ParentId", plan.id("Case", plan.live("Case", 1 + r.below(k - 1))));
    } else {
      row.putNull("ParentId");
    }
    if (origin == "Web") {
      // What the person typed into the web form: their own spelling of themselves.
      PersonIdentity visitor = People::make(r, {});
      PersonRecord typed = People::variant(visitor, r);
      if (links.contact != 0) {
        auto who = plan.contact(links.contact).person;
        typed.firstName = who.firstName;
        typed.lastName = who.lastName;
        if (!who.email.empty()) typed.email = Emails::withCaseChange(who.email, r);
        typed.phone = who.phone;
      }
      row.put("SuppliedName", FreeText::truncated(typed.firstName + " " + typed.lastName, 80));
      row.put("SuppliedEmail", typed.email);
      row.put("SuppliedPhone", typed.phone);
    } else {
      row.putNull("SuppliedName");
      row.putNull("SuppliedEmail");
      row.putNull("SuppliedPhone");
    }
    row.put("Type", r.chance(0.7) ? pickValue("Case", "Type", r) : std::string_view());
    row.put("Status", status);
    row.put("Reason", r.chance(0.6) ? pickValue("Case", "Reason", r) : std::string_view());
    row.put("Origin", origin);
    row.put("Subject", FreeText::truncated(FreeText::sentence(r), 255));
    row.put("Priority", pickValue("Case", "Priority", r));
    row.put("Description", r.chance(0.7) ? FreeText::note(r) : std::string());
    row.put("IsClosed", closed);
    row.put("ClosedDate", closed ? std::string_view(stamps.modified) : std::string_view());
    row.put("IsEscalated", status == "Escalated");
    row.put("OwnerId", userId(plan.pickUser(r)));
    putSystemFields(row, stamps, plan.pickUser(r), plan.pickUser(r), plan.isDeleted("Case", k));
    row.end();
  }
  row.finish();
}

void invoices(GenerationContext& context) {
  const OrgPlan& plan = context.plan;
  auto total = plan.count("Invoice__c");
  RowSink row(context.store, "Invoice__c", total, context.progress, context.shouldStop);
  static constexpr std::string_view kTaxRates[] = {"0",  "5",  "7.25", "8.5", "10",
                                                   "19", "20", "21",   "0.01"};
  for (std::uint64_t k = 1; k <= static_cast<std::uint64_t>(total); ++k) {
    auto r = plan.random("invoice", k);
    auto account = r.chance(0.95) ? plan.pickLive("Account", r) : 0;
    Stamps stamps = plan.stamps("Invoice__c", k);
    char name[24];
    std::snprintf(name, sizeof name, "INV-%07llu", static_cast<unsigned long long>(k));
    std::string_view status = pickValue("Invoice__c", "Status__c", r);
    row.put("Id", plan.id("Invoice__c", k));
    row.put("Name", std::string_view(name));
    row.put("Account__c", account != 0 ? plan.id("Account", account) : "");
    row.put("Amount__c", r.chance(0.95) ? FreeText::decimal(r, 14, 2) : std::string());
    row.put("Tax_Rate__c", kTaxRates[r.below(std::size(kTaxRates))]);
    row.put("Due_Date__c", dateBetween(stamps.createdAt, stamps.createdAt + days(60), r));
    row.put("Status__c", status);
    row.put("Paid__c", status == "Paid");
    row.put("Notes__c", r.chance(0.4) ? FreeText::note(r, 32768) : std::string());
    if (r.chance(0.6)) {
      PostalAddress site = Addresses::make(r);
      row.put("Site_Location__Latitude__s", Addresses::coordinate(site.latitude));
      row.put("Site_Location__Longitude__s", Addresses::coordinate(site.longitude));
    } else {
      row.putNull("Site_Location__Latitude__s");
      row.putNull("Site_Location__Longitude__s");
    }
    row.put("OwnerId", userId(plan.pickUser(r)));
    putSystemFields(row, stamps, plan.pickUser(r), plan.pickUser(r),
                    plan.isDeleted("Invoice__c", k));
    row.end();
  }
  row.finish();
}

}  // namespace corvane::orgsim::RecordSets

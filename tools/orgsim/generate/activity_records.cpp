// Activities and the org's trails: Task, Event, AccountHistory, AccountFeed,
// SetupAuditTrail, RecentlyViewed.
#include <cstdio>

#include "tools/orgsim/generate/contact_points.hpp"
#include "tools/orgsim/generate/free_text.hpp"
#include "tools/orgsim/generate/record_sets.hpp"
#include "tools/orgsim/generate/text_forms.hpp"
#include "tools/orgsim/schema.hpp"

namespace corvane::orgsim::RecordSets {

namespace {

using std::chrono::days;
using std::chrono::milliseconds;
using std::chrono::minutes;

// An activity is about a person (WhoId: a Contact or a Lead) and/or a record
// (WhatId); its AccountId follows from them the way Salesforce derives it.
struct Regarding {
  std::string who, what, account;
};

Regarding pickRegarding(const OrgPlan& plan, RandomSource& random) {
  Regarding out;
  std::uint64_t contact = 0, lead = 0;
  double w = random.unit();
  if (w < 0.5) {
    contact = plan.pickLive("Contact", random);
  } else if (w < 0.7) {
    lead = plan.pickLive("Lead", random);
  }
  if (contact != 0) out.who = plan.id("Contact", contact);
  if (lead != 0) {
    out.who = plan.id("Lead", lead);
    return out;  // a task about a Lead cannot also be about a record
  }
  std::uint64_t account = contact != 0 ? plan.contactAccount(contact) : 0;
  double what = random.unit();
  if (contact != 0 && account != 0 && what < 0.4) {
    out.what = plan.id("Account", account);
  } else if (what < 0.6) {
    if (auto opportunity = plan.pickLive("Opportunity", random); opportunity != 0) {
      out.what = plan.id("Opportunity", opportunity);
      if (contact == 0) account = opportunityLinks(plan, opportunity).account;
    }
  } else if (what < 0.75) {
    if (auto c = plan.pickLive("Case", random); c != 0) {
      out.what = plan.id("Case", c);
      if (contact == 0) account = caseLinks(plan, c).account;
    }
  } else if (what < 0.85 && contact == 0) {
    if (auto invoice = plan.pickLive("Invoice__c", random); invoice != 0) {
      out.what = plan.id("Invoice__c", invoice);
    }
  } else if (contact == 0) {
    account = plan.pickLive("Account", random);
    if (account != 0) out.what = plan.id("Account", account);
  }
  if (account != 0) out.account = plan.id("Account", account);
  return out;
}

Clock::time_point around(Clock::time_point when, days before, days after, RandomSource& random) {
  auto span = std::chrono::duration_cast<milliseconds>(before + after).count();
  auto at = when - before +
            milliseconds(static_cast<std::int64_t>(static_cast<double>(span) * random.unit()));
  return std::chrono::time_point_cast<minutes>(at);
}

struct AuditEntry {
  std::string_view action, section, display;
};
constexpr AuditEntry kAuditEntries[] = {
    {"createduser", "Manage Users", "Created new user %s"},
    {"changedUserEmail", "Manage Users", "Changed email for user %s"},
    {"PermSetAssign", "Manage Users", "Permission set Sales Ops: assigned to user %s"},
    {"deactivateduser", "Manage Users", "Deactivated user %s"},
    {"resetpassword", "Manage Users", "Reset password for %s"},
    {"loginasgrantedtosfdc", "Manage Users", "Granted login access for %s to Salesforce support"},
    {"customfieldcreated", "Customize Accounts", "Created custom field Region (Picklist)"},
    {"changedValidationFormula", "Customize Opportunities",
     "Changed validation formula for \"Amount, when closed\""},
    {"changedCompanyPhone", "Company Profile",
     "Changed company phone from 020 7946 0000 to +44 20 7946 0000"},
    {"createdApexClass", "Apex Class", "Created Apex class InvoiceService"},
    {"changedFlsEnabled", "Customize Contacts", "Changed field-level security for Contact: Email"},
    {"apiUserLimitChange", "Manage Users", "Changed API request limit for %s"},
};

}  // namespace

void tasks(GenerationContext& context) {
  const OrgPlan& plan = context.plan;
  auto total = plan.count("Task");
  RowSink row(context.store, "Task", total, context.progress, context.shouldStop);
  static constexpr std::string_view kStatuses[] = {
      "Completed", "Completed",   "Completed",   "Completed",   "Completed",
      "Completed", "Not Started", "Not Started", "In Progress", "Waiting on someone else",
      "Deferred"};
  for (std::uint64_t k = 1; k <= static_cast<std::uint64_t>(total); ++k) {
    auto r = plan.random("task", k);
    Regarding regarding = pickRegarding(plan, r);
    Stamps stamps = plan.stamps("Task", k);
    auto due = around(stamps.createdAt, days(2), days(14), r);
    std::string_view status = kStatuses[r.below(std::size(kStatuses))];
    bool closed = status == "Completed";
    double subtype = r.unit();
    std::string_view kind = subtype < 0.3 ? "Call" : subtype < 0.5 ? "Email" : "Task";
    row.put("Id", plan.id("Task", k));
    row.put("WhoId", regarding.who);
    row.put("WhatId", regarding.what);
    row.put("AccountId", regarding.account);
    static constexpr std::string_view kSubjects[] = {"Call", "Send Letter", "Send Quote", "Other"};
    row.put("Subject", r.chance(0.6) ? std::string(kSubjects[r.below(std::size(kSubjects))])
                                     : "Follow up: " + FreeText::sentence(r));
    row.put("ActivityDate", WireTime::date(due));
    row.put("Description", r.chance(0.4) ? FreeText::note(r) : std::string());
    // Salesforce archives closed activities due more than a year ago.
    row.put("IsArchived", closed && due < plan.now() - days(365));
    row.put("Status", status);
    row.put("Priority", r.chance(0.2) ? "High" : r.chance(0.8) ? "Normal" : "Low");
    row.put("IsClosed", closed);
    row.put("TaskSubtype", kind);
    row.put("CallDurationInSeconds",
            kind == "Call" ? std::to_string(r.between(0, 5400)) : std::string());
    row.put("OwnerId", userId(plan.pickUser(r)));
    putSystemFields(row, stamps, plan.pickUser(r), plan.pickUser(r), plan.isDeleted("Task", k));
    row.end();
  }
  row.finish();
}

void events(GenerationContext& context) {
  const OrgPlan& plan = context.plan;
  auto total = plan.count("Event");
  RowSink row(context.store, "Event", total, context.progress, context.shouldStop);
  static constexpr std::string_view kLocations[] = {"Zoom",
                                                    "Teams",
                                                    "Customer site",
                                                    "Room 4.01",
                                                    "Café Lumière, Rue de Rivoli",
                                                    "HQ, \"Big\" meeting room",
                                                    "会議室A"};
  static constexpr std::string_view kSubjects[] = {"Meeting",          "Demo",      "Lunch", "Call",
                                                   "Quarterly review", "Site visit"};
  for (std::uint64_t k = 1; k <= static_cast<std::uint64_t>(total); ++k) {
    auto r = plan.random("event", k);
    Regarding regarding = pickRegarding(plan, r);
    Stamps stamps = plan.stamps("Event", k);
    bool allDay = r.chance(0.1);
    auto start = around(stamps.createdAt, days(5), days(40), r);
    std::int64_t duration = allDay ? 1440 : 15 * r.between(1, 16);
    if (allDay) start = std::chrono::floor<days>(start);
    auto end = start + minutes(duration);
    row.put("Id", plan.id("Event", k));
    row.put("WhoId", regarding.who);
    row.put("WhatId", regarding.what);
    row.put("AccountId", regarding.account);
    row.put("Subject", kSubjects[r.below(std::size(kSubjects))]);
    row.put("ActivityDate", WireTime::date(start));
    row.put("Description", r.chance(0.3) ? FreeText::note(r) : std::string());
    row.put("IsArchived", end < plan.now() - days(365));
    row.put("Location",
            r.chance(0.6) ? kLocations[r.below(std::size(kLocations))] : std::string_view());
    row.put("IsAllDayEvent", allDay);
    row.put("ActivityDateTime", allDay ? std::string() : WireTime::dateTime(start));
    row.put("StartDateTime", WireTime::dateTime(start));
    row.put("EndDateTime", WireTime::dateTime(end));
    row.put("DurationInMinutes", duration);
    row.put("ShowAs", r.chance(0.8) ? "Busy" : r.chance(0.5) ? "OutOfOffice" : "Free");
    row.put("OwnerId", userId(plan.pickUser(r)));
    putSystemFields(row, stamps, plan.pickUser(r), plan.pickUser(r), plan.isDeleted("Event", k));
    row.end();
  }
  row.finish();
}

void accountHistory(GenerationContext& context) {
  const OrgPlan& plan = context.plan;
  auto total = plan.count("AccountHistory");
  RowSink row(context.store, "AccountHistory", total, context.progress, context.shouldStop);
  for (std::uint64_t k = 1; k <= static_cast<std::uint64_t>(total); ++k) {
    auto r = plan.random("account history", k);
    auto account = plan.pickLive("Account", r);
    Stamps stamps = plan.stamps("AccountHistory", k, plan.createdAt("Account", account));
    std::string field, type, before, after;
    switch (r.below(8)) {
      case 0:
        field = "created";
        type = "Text";
        break;
      case 1: {
        field = "Name";
        type = "Text";
        CompanyIdentity company = plan.accountCompany(account);
        before = Companies::variant(company, r).name;
        after = Companies::name(company);
        break;
      }
      case 2: {
        field = "Phone";
        type = "Phone";
        CompanyIdentity company = plan.accountCompany(account);
        before = Phones::format(Phones::make(*company.address.city, r), 0);
        after = Phones::format(company.phone, company.phoneStyle);
        break;
      }
      case 3:
        field = "Type";
        type = "Picklist";
        before = "Prospect";
        after = r.chance(0.5) ? "Customer - Direct" : "Customer - Channel";
        break;
      case 4:
        field = "Industry";
        type = "Picklist";
        before = r.chance(0.5) ? "Technology" : "";
        after = "Manufacturing";
        break;
      case 5:
        field = "Owner";
        type = "EntityId";
        before = userId(plan.pickUser(r));
        after = userId(plan.pickUser(r));
        break;
      case 6:
        field = "BillingCity";
        type = "Text";
        before = r.chance(0.5) ? "Munchen" : "";
        after = "München";
        break;
      default: {
        field = "Website";
        type = "Url";
        std::string domain = plan.accountDomain(account);
        before = "http://" + domain;
        after = "https://www." + domain;
        break;
      }
    }
    row.put("Id", plan.id("AccountHistory", k));
    row.put("AccountId", plan.id("Account", account));
    row.put("Field", field);
    row.put("DataType", type);
    row.put("OldValue", before);
    row.put("NewValue", after);
    row.put("IsDeleted", false);
    row.put("CreatedDate", std::string_view(stamps.created));
    row.put("CreatedById", userId(plan.pickUser(r)));
    row.end();
  }
  row.finish();
}

void accountFeed(GenerationContext& context) {
  const OrgPlan& plan = context.plan;
  auto total = plan.count("AccountFeed");
  auto versions = plan.count("ContentVersion");
  RowSink row(context.store, "AccountFeed", total, context.progress, context.shouldStop);
  for (std::uint64_t k = 1; k <= static_cast<std::uint64_t>(total); ++k) {
    auto r = plan.random("account feed", k);
    auto account = plan.pickLive("Account", r);
    Stamps stamps = plan.stamps("AccountFeed", k, plan.createdAt("Account", account));
    auto author = plan.pickUser(r);
    double kind = r.unit();
    std::string_view type = kind < 0.6                    ? "TextPost"
                            : kind < 0.75                 ? "LinkPost"
                            : kind < 0.85 && versions > 0 ? "ContentPost"
                                                          : "TrackedChange";
    row.put("Id", plan.id("AccountFeed", k));
    row.put("ParentId", plan.id("Account", account));
    row.put("Type", type);
    row.put("CommentCount", static_cast<std::int64_t>(r.chance(0.6) ? 0 : r.between(1, 40)));
    row.put("LikeCount", static_cast<std::int64_t>(r.chance(0.5) ? 0 : r.between(1, 120)));
    row.put("Title", type == "LinkPost" ? FreeText::sentence(r) : std::string());
    row.put("Body", type == "TrackedChange" ? std::string() : FreeText::note(r, 10000));
    row.put("LinkUrl", type == "LinkPost" ? "https://www." + plan.accountDomain(account) +
                                                "/news?id=" + std::to_string(k) + "&lang=en"
                                          : std::string());
    row.put("RelatedRecordId",
            type == "ContentPost"
                ? plan.id("ContentVersion", 1 + r.below(static_cast<std::uint64_t>(versions)))
                : std::string());
    row.put("InsertedById", userId(author));
    putSystemFields(row, stamps, author, author, false);
    row.end();
  }
  row.finish();
}

void setupAuditTrail(GenerationContext& context) {
  const OrgPlan& plan = context.plan;
  auto total = plan.count("SetupAuditTrail");
  RowSink row(context.store, "SetupAuditTrail", total, context.progress, context.shouldStop);
  for (std::uint64_t k = 1; k <= static_cast<std::uint64_t>(total); ++k) {
    auto r = plan.random("setup audit trail", k);
    // The platform keeps at least 180 days of the trail.
    Stamps stamps = plan.stamps("SetupAuditTrail", k, plan.now() - days(180));
    const AuditEntry& entry = kAuditEntries[r.below(std::size(kAuditEntries))];
    std::string display(entry.display);
    if (auto at = display.find("%s"); at != std::string::npos) {
      auto user = plan.pickUser(r);
      display.replace(at, 2,
                      user == 1 ? context.identity.adminUsername
                                : "user" + std::to_string(user) + "@sample.org");
    }
    row.put("Id", plan.id("SetupAuditTrail", k));
    row.put("Action", entry.action);
    row.put("Section", entry.section);
    row.put("Display", display);
    row.put("DelegateUser", r.chance(0.05) ? "support@salesforce.example" : "");
    row.putNull("ResponsibleNamespacePrefix");
    row.put("CreatedByContext", r.chance(0.1) ? "Data Loader" : "");
    row.putNull("CreatedByIssuer");
    row.put("CreatedDate", std::string_view(stamps.created));
    row.put("CreatedById", userId(plan.pickUser(r)));
    row.end();
  }
  row.finish();
}

void recentlyViewed(GenerationContext& context) {
  const OrgPlan& plan = context.plan;
  auto total = plan.count("RecentlyViewed");
  RowSink row(context.store, "RecentlyViewed", total, context.progress, context.shouldStop);
  // Records taken in turn from each object, odd serials only: those are never
  // in the Recycle Bin, and each record is listed once.
  static constexpr std::string_view kTypes[] = {"Account", "Contact", "Lead", "Opportunity"};
  std::uint64_t next[std::size(kTypes)] = {1, 1, 1, 1};
  std::int64_t written = 0;
  for (std::size_t turn = 0; written < total; ++turn) {
    bool any = false;
    for (std::size_t t = 0; t < std::size(kTypes) && written < total; ++t) {
      std::string_view type = kTypes[t];
      std::uint64_t serial = next[t];
      if (serial > static_cast<std::uint64_t>(plan.count(type))) continue;
      next[t] += 2;
      any = true;
      auto r = plan.random("recently viewed", static_cast<std::uint64_t>(written) + 1);
      row.put("Id", plan.id(type, serial));
      std::string name, first, last, title, email, phone;
      if (type == "Account") {
        AccountRow account = plan.account(serial);
        name = account.record.name;
        phone = account.record.phone;
      } else if (type == "Opportunity") {
        name = FreeText::truncated(opportunityName(plan, serial), 120);
      } else {
        PersonRow person = type == "Contact" ? plan.contact(serial) : plan.lead(serial);
        first = person.person.firstName;
        last = person.person.lastName.empty() ? "Unknown" : person.person.lastName;
        name = first.empty() ? last : first + " " + last;
        title = FreeText::truncated(person.person.title, 80);
        email = person.person.email;
        phone = person.person.phone;
      }
      auto viewed =
          plan.now() - milliseconds(static_cast<std::int64_t>(r.unit() * 90.0 * 24 * 3600 * 1000));
      viewed = std::chrono::time_point_cast<milliseconds>(viewed);
      row.put("Name", name);
      row.put("Type", type);
      row.put("FirstName", first);
      row.put("LastName", last);
      row.put("Title", title);
      row.put("Email", email);
      row.put("Phone", phone);
      row.put("IsActive", true);
      row.put("LastViewedDate", WireTime::dateTime(viewed));
      row.put("LastReferencedDate", WireTime::dateTime(viewed));
      row.end();
      ++written;
    }
    if (!any) break;
  }
  row.finish();
}

}  // namespace corvane::orgsim::RecordSets

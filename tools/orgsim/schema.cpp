#include "tools/orgsim/schema.hpp"

#include <algorithm>
#include <cctype>

namespace corvane::orgsim {

namespace {

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

using T = FieldType;

// A field under construction; the chained setters keep the catalog readable.
struct F {
  FieldDef def;
  F(std::string name, std::string label, FieldType type) {
    def.name = std::move(name);
    def.label = std::move(label);
    def.type = type;
    switch (type) {
      case T::Boolean:
        def.nillable = false;
        def.defaultValue = "false";
        def.groupable = true;
        break;
      case T::TextArea:
        def.length = 32000;
        def.sortable = false;
        def.groupable = false;
        break;
      case T::Email:
      case T::Phone:
        def.length = 80;
        break;
      case T::Url:
      case T::Picklist:
      case T::Combobox:
        def.length = 255;
        break;
      case T::MultiPicklist:
        def.length = 4099;
        def.sortable = false;
        def.groupable = false;
        break;
      case T::Id:
      case T::Reference:
        def.length = 18;
        break;
      case T::Double:
        def.precision = 18;
        def.scale = 15;
        def.groupable = false;
        break;
      case T::Currency:
        def.precision = 18;
        def.scale = 2;
        def.groupable = false;
        break;
      case T::Percent:
        def.precision = 3;
        def.scale = 0;
        def.groupable = false;
        break;
      case T::Int:
        def.precision = 9;
        def.groupable = false;
        break;
      case T::DateTime:
        def.groupable = false;
        break;
      case T::Base64:
      case T::Address:
      case T::Location:
      case T::AnyType:
        def.filterable = false;
        def.sortable = false;
        def.groupable = false;
        break;
      default:
        break;
    }
  }
  F& len(int n) {
    def.length = n;
    return *this;
  }
  F& num(int precision, int scale) {
    def.precision = precision;
    def.scale = scale;
    return *this;
  }
  F& required() {
    def.nillable = false;
    return *this;
  }
  F& readOnly() {
    def.createable = false;
    def.updateable = false;
    return *this;
  }
  F& createOnly() {
    def.updateable = false;
    return *this;
  }
  F& name() {
    def.nameField = true;
    return *this;
  }
  F& unique() {
    def.unique = true;
    return *this;
  }
  F& ref(std::vector<std::string> to, std::string relationship) {
    def.referenceTo = std::move(to);
    def.relationshipName = std::move(relationship);
    return *this;
  }
  F& pick(std::vector<std::string> values, std::string defaultValue = {}) {
    def.picklistValues = std::move(values);
    def.defaultPicklistValue = defaultValue;
    if (!def.nillable || !defaultValue.empty()) def.defaultValue = std::move(defaultValue);
    return *this;
  }
  F& derived(std::string sql) {
    def.sqlExpression = std::move(sql);
    def.createable = false;
    def.updateable = false;
    return *this;
  }
  F& formula(std::string text, std::string sql) {
    def.calculated = true;
    def.calculatedFormula = std::move(text);
    return derived(std::move(sql));
  }
  F& component(std::string compound, std::string key) {
    def.compoundFieldName = std::move(compound);
    def.compoundKey = std::move(key);
    return *this;
  }
  F& autoNumber() {
    def.autoNumber = true;
    def.nillable = false;
    return readOnly();
  }
  F& notFilterable() {
    def.filterable = false;
    def.sortable = false;
    def.groupable = false;
    return *this;
  }
  operator FieldDef() const { return def; }  // NOLINT: the catalog reads better this way
};

const std::vector<std::string> kGeocodeAccuracy = {
    "Address",      "NearAddress", "Block",  "Street", "ExtendedZip", "Zip",
    "Neighborhood", "City",        "County", "State",  "Unknown"};
const std::vector<std::string> kIndustries = {
    "Agriculture",     "Apparel",       "Banking",       "Biotechnology",      "Chemicals",
    "Communications",  "Construction",  "Consulting",    "Education",          "Electronics",
    "Energy",          "Engineering",   "Entertainment", "Environmental",      "Finance",
    "Food & Beverage", "Government",    "Healthcare",    "Hospitality",        "Insurance",
    "Machinery",       "Manufacturing", "Media",         "Not For Profit",     "Recreation",
    "Retail",          "Shipping",      "Technology",    "Telecommunications", "Transportation",
    "Utilities",       "Other"};
const std::vector<std::string> kLeadSources = {"Web", "Phone Inquiry", "Partner Referral",
                                               "Purchased List", "Other"};
const std::vector<std::string> kSalutations = {"Mr.", "Ms.", "Mrs.", "Dr.", "Prof.", "Mx."};
const std::vector<std::string> kRatings = {"Hot", "Warm", "Cold"};

// An address compound (BillingAddress and its components). `prefix` is "Billing",
// "Mailing", or "" for Lead's Address.
void address(std::vector<FieldDef>& fields, const std::string& prefix,
             const std::string& labelPrefix) {
  std::string compound = prefix + "Address";
  auto label = [&](const char* what) {
    return labelPrefix.empty() ? std::string(what) : labelPrefix + " " + what;
  };
  fields.push_back(
      F(prefix + "Street", label("Street"), T::TextArea).len(255).component(compound, "street"));
  fields.push_back(
      F(prefix + "City", label("City"), T::String).len(40).component(compound, "city"));
  fields.push_back(
      F(prefix + "State", label("State/Province"), T::String).len(80).component(compound, "state"));
  fields.push_back(F(prefix + "PostalCode", label("Zip/Postal Code"), T::String)
                       .len(20)
                       .component(compound, "postalCode"));
  fields.push_back(
      F(prefix + "Country", label("Country"), T::String).len(80).component(compound, "country"));
  fields.push_back(F(prefix + "Latitude", label("Latitude"), T::Double)
                       .num(18, 15)
                       .component(compound, "latitude"));
  fields.push_back(F(prefix + "Longitude", label("Longitude"), T::Double)
                       .num(18, 15)
                       .component(compound, "longitude"));
  fields.push_back(F(prefix + "GeocodeAccuracy", label("Geocode Accuracy"), T::Picklist)
                       .len(40)
                       .pick(kGeocodeAccuracy)
                       .component(compound, "geocodeAccuracy"));
  fields.push_back(F(compound, label("Address"), T::Address).readOnly());
}

struct SystemFields {
  bool isDeleted = true;
  bool created = true;
  bool modified = true;  // LastModifiedDate, LastModifiedById
  bool modstamp = true;
  bool owner = false;
  bool masterRecord = false;
};

ObjectDef makeObject(std::string name, std::string label, std::string plural, std::string keyPrefix,
                     const SystemFields& system, std::vector<FieldDef> own) {
  ObjectDef object;
  object.name = name;
  object.label = label;
  object.labelPlural = std::move(plural);
  object.keyPrefix = std::move(keyPrefix);
  object.custom = name.ends_with("__c");
  auto& fields = object.fields;
  fields.push_back(F("Id", label + " ID", T::Id).required().readOnly().unique());
  if (system.isDeleted) fields.push_back(F("IsDeleted", "Deleted", T::Boolean).readOnly());
  if (system.masterRecord) {
    fields.push_back(F("MasterRecordId", "Master Record ID", T::Reference)
                         .readOnly()
                         .ref({name}, "MasterRecord"));
  }
  for (auto& field : own) fields.push_back(std::move(field));
  if (system.owner) {
    fields.push_back(F("OwnerId", "Owner ID", T::Reference).required().ref({"User"}, "Owner"));
  }
  if (system.created) {
    fields.push_back(F("CreatedDate", "Created Date", T::DateTime).required().readOnly());
    fields.push_back(F("CreatedById", "Created By ID", T::Reference)
                         .required()
                         .readOnly()
                         .ref({"User"}, "CreatedBy"));
  }
  if (system.modified) {
    fields.push_back(
        F("LastModifiedDate", "Last Modified Date", T::DateTime).required().readOnly());
    fields.push_back(F("LastModifiedById", "Last Modified By ID", T::Reference)
                         .required()
                         .readOnly()
                         .ref({"User"}, "LastModifiedBy"));
  }
  if (system.modstamp) {
    fields.push_back(F("SystemModstamp", "System Modstamp", T::DateTime).required().readOnly());
  }
  return object;
}

const char* kPersonName =
    "CASE WHEN \"FirstName\" IS NULL OR \"FirstName\" = '' THEN \"LastName\" "
    "ELSE \"FirstName\" || ' ' || COALESCE(\"LastName\", '') END";

std::vector<ObjectDef> buildCatalog() {
  std::vector<ObjectDef> all;
  const std::vector<std::string> whoTargets = {"Contact", "Lead"};
  const std::vector<std::string> whatTargets = {"Account", "Opportunity", "Case", "Invoice__c"};
  const std::vector<std::string> parentTargets = {"Account",     "Contact", "Lead",
                                                  "Opportunity", "Case",    "Invoice__c"};

  {
    std::vector<FieldDef> f;
    f.push_back(F("Name", "Account Name", T::String).len(255).required().name());
    f.push_back(F("Type", "Account Type", T::Picklist)
                    .len(40)
                    .pick({"Prospect", "Customer - Direct", "Customer - Channel",
                           "Channel Partner / Reseller", "Installation Partner",
                           "Technology Partner", "Other"}));
    f.push_back(F("ParentId", "Parent Account ID", T::Reference).ref({"Account"}, "Parent"));
    address(f, "Billing", "Billing");
    address(f, "Shipping", "Shipping");
    f.push_back(F("Phone", "Account Phone", T::Phone).len(40));
    f.push_back(F("Fax", "Account Fax", T::Phone).len(40));
    f.push_back(F("AccountNumber", "Account Number", T::String).len(40));
    f.push_back(F("Website", "Website", T::Url));
    f.push_back(F("Sic", "SIC Code", T::String).len(20));
    f.push_back(F("Industry", "Industry", T::Picklist).len(40).pick(kIndustries));
    f.push_back(F("AnnualRevenue", "Annual Revenue", T::Currency).num(18, 0));
    f.push_back(F("NumberOfEmployees", "Employees", T::Int).num(8, 0));
    f.push_back(F("Ownership", "Ownership", T::Picklist)
                    .len(40)
                    .pick({"Public", "Private", "Subsidiary", "Other"}));
    f.push_back(F("TickerSymbol", "Ticker Symbol", T::String).len(20));
    f.push_back(F("Description", "Account Description", T::TextArea));
    f.push_back(F("Rating", "Account Rating", T::Picklist).len(40).pick(kRatings));
    f.push_back(F("Site", "Account Site", T::String).len(80));
    auto object = makeObject("Account", "Account", "Accounts", "001",
                             {.owner = true, .masterRecord = true}, std::move(f));
    object.mergeable = true;
    object.feedEnabled = true;
    all.push_back(std::move(object));
  }
  {
    std::vector<FieldDef> f;
    f.push_back(F("AccountId", "Account ID", T::Reference).ref({"Account"}, "Account"));
    f.push_back(F("LastName", "Last Name", T::String).len(80).required());
    f.push_back(F("FirstName", "First Name", T::String).len(40));
    f.push_back(F("Salutation", "Salutation", T::Picklist).len(40).pick(kSalutations));
    f.push_back(F("Name", "Full Name", T::String).len(121).name().derived(kPersonName));
    address(f, "Mailing", "Mailing");
    f.push_back(F("Phone", "Business Phone", T::Phone).len(40));
    f.push_back(F("Fax", "Business Fax", T::Phone).len(40));
    f.push_back(F("MobilePhone", "Mobile Phone", T::Phone).len(40));
    f.push_back(F("HomePhone", "Home Phone", T::Phone).len(40));
    f.push_back(F("Email", "Email", T::Email));
    f.push_back(F("Title", "Title", T::String).len(128));
    f.push_back(F("Department", "Department", T::String).len(80));
    f.push_back(F("Birthdate", "Birthdate", T::Date));
    f.push_back(F("LeadSource", "Lead Source", T::Picklist).len(40).pick(kLeadSources));
    f.push_back(F("Description", "Contact Description", T::TextArea));
    f.push_back(F("HasOptedOutOfEmail", "Email Opt Out", T::Boolean));
    auto object = makeObject("Contact", "Contact", "Contacts", "003",
                             {.owner = true, .masterRecord = true}, std::move(f));
    object.mergeable = true;
    object.feedEnabled = true;
    all.push_back(std::move(object));
  }
  {
    std::vector<FieldDef> f;
    f.push_back(F("LastName", "Last Name", T::String).len(80).required());
    f.push_back(F("FirstName", "First Name", T::String).len(40));
    f.push_back(F("Salutation", "Salutation", T::Picklist).len(40).pick(kSalutations));
    f.push_back(F("Name", "Full Name", T::String).len(121).name().derived(kPersonName));
    f.push_back(F("Title", "Title", T::String).len(128));
    f.push_back(F("Company", "Company", T::String).len(255).required());
    address(f, "", "");
    f.push_back(F("Phone", "Phone", T::Phone).len(40));
    f.push_back(F("MobilePhone", "Mobile Phone", T::Phone).len(40));
    f.push_back(F("Fax", "Fax", T::Phone).len(40));
    f.push_back(F("Email", "Email", T::Email));
    f.push_back(F("Website", "Website", T::Url));
    f.push_back(F("Description", "Description", T::TextArea));
    f.push_back(F("LeadSource", "Lead Source", T::Picklist).len(40).pick(kLeadSources));
    f.push_back(F("Status", "Status", T::Picklist)
                    .len(40)
                    .required()
                    .pick({"Open - Not Contacted", "Working - Contacted", "Closed - Converted",
                           "Closed - Not Converted"},
                          "Open - Not Contacted"));
    f.push_back(F("Industry", "Industry", T::Picklist).len(40).pick(kIndustries));
    f.push_back(F("Rating", "Rating", T::Picklist).len(40).pick(kRatings));
    f.push_back(F("AnnualRevenue", "Annual Revenue", T::Currency).num(18, 0));
    f.push_back(F("NumberOfEmployees", "Employees", T::Int).num(8, 0));
    f.push_back(F("HasOptedOutOfEmail", "Email Opt Out", T::Boolean));
    f.push_back(F("IsConverted", "Converted", T::Boolean).createOnly());
    f.push_back(F("ConvertedDate", "Converted Date", T::Date).readOnly());
    f.push_back(F("ConvertedAccountId", "Converted Account ID", T::Reference)
                    .readOnly()
                    .ref({"Account"}, "ConvertedAccount"));
    f.push_back(F("ConvertedContactId", "Converted Contact ID", T::Reference)
                    .readOnly()
                    .ref({"Contact"}, "ConvertedContact"));
    f.push_back(F("ConvertedOpportunityId", "Converted Opportunity ID", T::Reference)
                    .readOnly()
                    .ref({"Opportunity"}, "ConvertedOpportunity"));
    auto object = makeObject("Lead", "Lead", "Leads", "00Q", {.owner = true, .masterRecord = true},
                             std::move(f));
    object.mergeable = true;
    object.feedEnabled = true;
    all.push_back(std::move(object));
  }
  {
    std::vector<FieldDef> f;
    f.push_back(F("AccountId", "Account ID", T::Reference).ref({"Account"}, "Account"));
    f.push_back(F("ContactId", "Contact ID", T::Reference).ref({"Contact"}, "Contact"));
    f.push_back(F("Name", "Name", T::String).len(120).required().name());
    f.push_back(F("Description", "Description", T::TextArea));
    f.push_back(F("StageName", "Stage", T::Picklist)
                    .len(255)
                    .required()
                    .pick({"Prospecting", "Qualification", "Needs Analysis", "Value Proposition",
                           "Id. Decision Makers", "Perception Analysis", "Proposal/Price Quote",
                           "Negotiation/Review", "Closed Won", "Closed Lost"}));
    f.push_back(F("Amount", "Amount", T::Currency).num(18, 2));
    f.push_back(F("Probability", "Probability (%)", T::Percent).num(3, 0));
    f.push_back(F("CloseDate", "Close Date", T::Date).required());
    f.push_back(F("Type", "Opportunity Type", T::Picklist)
                    .len(40)
                    .pick({"Existing Customer - Upgrade", "Existing Customer - Replacement",
                           "Existing Customer - Downgrade", "New Customer"}));
    f.push_back(F("NextStep", "Next Step", T::String).len(255));
    f.push_back(F("LeadSource", "Lead Source", T::Picklist).len(40).pick(kLeadSources));
    f.push_back(F("IsClosed", "Closed", T::Boolean).readOnly());
    f.push_back(F("IsWon", "Won", T::Boolean).readOnly());
    auto object = makeObject("Opportunity", "Opportunity", "Opportunities", "006", {.owner = true},
                             std::move(f));
    object.feedEnabled = true;
    all.push_back(std::move(object));
  }
  {
    std::vector<FieldDef> f;
    f.push_back(F("CaseNumber", "Case Number", T::String).len(30).name().autoNumber());
    f.push_back(F("ContactId", "Contact ID", T::Reference).ref({"Contact"}, "Contact"));
    f.push_back(F("AccountId", "Account ID", T::Reference).ref({"Account"}, "Account"));
    f.push_back(F("ParentId", "Parent Case ID", T::Reference).ref({"Case"}, "Parent"));
    f.push_back(F("SuppliedName", "Web Name", T::String).len(80));
    f.push_back(F("SuppliedEmail", "Web Email", T::Email));
    f.push_back(F("SuppliedPhone", "Web Phone", T::String).len(40));
    f.push_back(F("Type", "Case Type", T::Picklist)
                    .len(40)
                    .pick({"Mechanical", "Electrical", "Electronic", "Structural", "Other"}));
    f.push_back(F("Status", "Status", T::Picklist)
                    .len(40)
                    .pick({"New", "Working", "Escalated", "Closed"}, "New"));
    f.push_back(F("Reason", "Case Reason", T::Picklist)
                    .len(40)
                    .pick({"Installation", "Equipment Complexity", "Performance", "Breakdown",
                           "Equipment Design", "Feedback", "Other"}));
    f.push_back(F("Origin", "Case Origin", T::Picklist).len(40).pick({"Phone", "Email", "Web"}));
    f.push_back(F("Subject", "Subject", T::String).len(255));
    f.push_back(
        F("Priority", "Priority", T::Picklist).len(40).pick({"High", "Medium", "Low"}, "Medium"));
    f.push_back(F("Description", "Description", T::TextArea));
    f.push_back(F("IsClosed", "Closed", T::Boolean).readOnly());
    f.push_back(F("ClosedDate", "Closed Date", T::DateTime).readOnly());
    f.push_back(F("IsEscalated", "Escalated", T::Boolean));
    auto object = makeObject("Case", "Case", "Cases", "500", {.owner = true}, std::move(f));
    object.feedEnabled = true;
    all.push_back(std::move(object));
  }
  auto activityFields = [&](std::vector<FieldDef>& f) {
    f.push_back(F("WhoId", "Name ID", T::Reference).ref(whoTargets, "Who"));
    f.push_back(F("WhatId", "Related To ID", T::Reference).ref(whatTargets, "What"));
    f.push_back(F("AccountId", "Account ID", T::Reference).readOnly().ref({"Account"}, "Account"));
    f.push_back(
        F("Subject", "Subject", T::Combobox).pick({"Call", "Send Letter", "Send Quote", "Other"}));
    f.push_back(F("ActivityDate", "Due Date Only", T::Date));
    f.push_back(F("Description", "Description", T::TextArea));
    f.push_back(F("IsArchived", "Archived", T::Boolean).readOnly());
  };
  {
    std::vector<FieldDef> f;
    activityFields(f);
    f.push_back(F("Status", "Status", T::Picklist)
                    .len(40)
                    .required()
                    .pick({"Not Started", "In Progress", "Completed", "Waiting on someone else",
                           "Deferred"},
                          "Not Started"));
    f.push_back(F("Priority", "Priority", T::Picklist)
                    .len(40)
                    .required()
                    .pick({"High", "Normal", "Low"}, "Normal"));
    f.push_back(F("IsClosed", "Closed", T::Boolean).readOnly());
    f.push_back(F("TaskSubtype", "Task Subtype", T::Picklist)
                    .len(40)
                    .createOnly()
                    .pick({"Task", "Email", "ListEmail", "Cadence", "Call"}));
    f.push_back(F("CallDurationInSeconds", "Call Duration", T::Int).num(9, 0));
    auto object = makeObject("Task", "Task", "Tasks", "00T", {.owner = true}, std::move(f));
    object.archivable = true;
    all.push_back(std::move(object));
  }
  {
    std::vector<FieldDef> f;
    activityFields(f);
    f.push_back(F("Location", "Location", T::String).len(255));
    f.push_back(F("IsAllDayEvent", "All-Day Event", T::Boolean));
    f.push_back(F("ActivityDateTime", "Due Date Time", T::DateTime));
    f.push_back(F("StartDateTime", "Start Date Time", T::DateTime));
    f.push_back(F("EndDateTime", "End Date Time", T::DateTime));
    f.push_back(F("DurationInMinutes", "Duration", T::Int).num(8, 0));
    f.push_back(
        F("ShowAs", "Show Time As", T::Picklist).len(40).pick({"Busy", "OutOfOffice", "Free"}));
    auto object = makeObject("Event", "Event", "Events", "00U", {.owner = true}, std::move(f));
    object.archivable = true;
    all.push_back(std::move(object));
  }
  {
    std::vector<FieldDef> f;
    f.push_back(F("Name", "Name", T::String).len(80).required().name());
    f.push_back(F("Status", "Status", T::Picklist)
                    .len(40)
                    .pick({"Planned", "In Progress", "Completed", "Aborted"}, "Planned"));
    f.push_back(F("IsActive", "Active", T::Boolean));
    auto object =
        makeObject("Campaign", "Campaign", "Campaigns", "701", {.owner = true}, std::move(f));
    all.push_back(std::move(object));
  }
  {
    // Who a campaign reached. The person and the campaign are set when the
    // member is created and never change afterwards.
    std::vector<FieldDef> f;
    f.push_back(F("CampaignId", "Campaign ID", T::Reference)
                    .required()
                    .createOnly()
                    .ref({"Campaign"}, "Campaign"));
    f.push_back(F("ContactId", "Contact ID", T::Reference).createOnly().ref({"Contact"}, "Contact"));
    f.push_back(F("LeadId", "Lead ID", T::Reference).createOnly().ref({"Lead"}, "Lead"));
    f.push_back(F("Status", "Status", T::Picklist).len(40).pick({"Sent", "Responded"}, "Sent"));
    auto object = makeObject("CampaignMember", "Campaign Member", "Campaign Members", "00v", {},
                             std::move(f));
    object.undeletable = false;
    all.push_back(std::move(object));
  }
  {
    std::vector<FieldDef> f;
    f.push_back(F("ParentId", "Parent ID", T::Reference)
                    .required()
                    .createOnly()
                    .ref(parentTargets, "Parent"));
    f.push_back(F("Title", "Title", T::String).len(80).required().name());
    f.push_back(F("Body", "Body", T::TextArea).len(32000));
    f.push_back(F("IsPrivate", "Private", T::Boolean));
    auto object = makeObject("Note", "Note", "Notes", "002", {.owner = true}, std::move(f));
    object.layoutable = false;
    all.push_back(std::move(object));
  }
  {
    std::vector<FieldDef> f;
    f.push_back(F("Username", "Username", T::String).len(80).required().unique());
    f.push_back(F("LastName", "Last Name", T::String).len(80).required());
    f.push_back(F("FirstName", "First Name", T::String).len(40));
    f.push_back(F("Name", "Full Name", T::String).len(121).name().derived(kPersonName));
    f.push_back(F("CompanyName", "Company Name", T::String).len(80));
    f.push_back(F("Division", "Division", T::String).len(80));
    f.push_back(F("Department", "Department", T::String).len(80));
    f.push_back(F("Title", "Title", T::String).len(80));
    f.push_back(F("Email", "Email", T::Email).len(128).required());
    f.push_back(F("Phone", "Phone", T::Phone).len(40));
    f.push_back(F("Alias", "Alias", T::String).len(8).required());
    f.push_back(F("CommunityNickname", "Nickname", T::String).len(40));
    f.push_back(F("IsActive", "Active", T::Boolean));
    f.push_back(F("TimeZoneSidKey", "Time Zone", T::Picklist)
                    .len(40)
                    .required()
                    .pick({"America/Los_Angeles", "America/New_York", "Europe/London",
                           "Europe/Berlin", "Europe/Paris", "Asia/Tokyo", "Australia/Sydney"},
                          "America/Los_Angeles"));
    f.push_back(F("LocaleSidKey", "Locale", T::Picklist)
                    .len(40)
                    .required()
                    .pick({"en_US", "en_GB", "de_DE", "fr_FR", "ja_JP"}, "en_US"));
    f.push_back(F("LanguageLocaleKey", "Language", T::Picklist)
                    .len(40)
                    .required()
                    .pick({"en_US", "de", "fr", "ja"}, "en_US"));
    f.push_back(F("EmailEncodingKey", "Email Encoding", T::Picklist)
                    .len(40)
                    .required()
                    .pick({"UTF-8", "ISO-8859-1"}, "UTF-8"));
    f.push_back(F("UserType", "User Type", T::Picklist)
                    .len(40)
                    .readOnly()
                    .pick({"Standard", "PowerPartner", "CsnOnly", "Guest"}, "Standard"));
    f.push_back(F("ManagerId", "Manager ID", T::Reference).ref({"User"}, "Manager"));
    f.push_back(F("LastLoginDate", "Last Login", T::DateTime).readOnly());
    auto object = makeObject("User", "User", "Users", "005", {.isDeleted = false}, std::move(f));
    object.deletable = false;
    object.undeletable = false;
    all.push_back(std::move(object));
  }
  {
    std::vector<FieldDef> f;
    f.push_back(F("Name", "Name", T::String).len(80).required().name());
    f.push_back(F("Division", "Division", T::String).len(80));
    address(f, "", "");
    f.push_back(F("Phone", "Phone", T::Phone).len(40));
    f.push_back(F("PrimaryContact", "Primary Contact", T::String).len(80));
    f.push_back(F("DefaultLocaleSidKey", "Locale", T::Picklist).len(40).pick({"en_US"}));
    f.push_back(F("LanguageLocaleKey", "Language", T::Picklist).len(40).pick({"en_US"}));
    f.push_back(F("TimeZoneSidKey", "Time Zone", T::Picklist).len(40).pick({"Europe/London"}));
    f.push_back(F("OrganizationType", "Edition", T::Picklist)
                    .len(40)
                    .readOnly()
                    .pick({"Team Edition", "Professional Edition", "Enterprise Edition",
                           "Developer Edition", "Personal Edition", "Unlimited Edition"}));
    f.push_back(F("InstanceName", "Instance Name", T::String).len(5).readOnly());
    f.push_back(F("IsSandbox", "Is Sandbox", T::Boolean).readOnly());
    f.push_back(F("NamespacePrefix", "Namespace Prefix", T::String).len(15).readOnly());
    f.push_back(F("TrialExpirationDate", "Trial Expiration Date", T::DateTime).readOnly());
    for (auto& field : f) {
      field.createable = false;
    }
    auto object = makeObject("Organization", "Organization", "Organizations", "00D",
                             {.isDeleted = false}, std::move(f));
    object.createable = false;
    object.deletable = false;
    object.undeletable = false;
    object.replicateable = false;
    all.push_back(std::move(object));
  }
  {
    std::vector<FieldDef> f;
    f.push_back(F("Title", "Title", T::String).len(255).name().readOnly());
    f.push_back(F("IsArchived", "Is Archived", T::Boolean).readOnly());
    f.push_back(F("ArchivedDate", "Archived Date", T::Date).readOnly());
    f.push_back(
        F("PublishStatus", "Publish Status", T::Picklist).len(40).readOnly().pick({"U", "P", "R"}));
    f.push_back(F("LatestPublishedVersionId", "Latest Published Version ID", T::Reference)
                    .readOnly()
                    .ref({"ContentVersion"}, "LatestPublishedVersion"));
    f.push_back(F("Description", "Description", T::TextArea).len(255));
    f.push_back(F("ContentSize", "Size", T::Int).readOnly());
    f.push_back(F("FileType", "File Type", T::String).len(20).readOnly());
    f.push_back(F("FileExtension", "File Extension", T::String).len(40).readOnly());
    auto object = makeObject("ContentDocument", "Content Document", "Content Documents", "069",
                             {.owner = true}, std::move(f));
    object.createable = false;
    all.push_back(std::move(object));
  }
  {
    std::vector<FieldDef> f;
    f.push_back(F("ContentDocumentId", "ContentDocument ID", T::Reference)
                    .createOnly()
                    .ref({"ContentDocument"}, "ContentDocument"));
    f.push_back(F("IsLatest", "Is Latest", T::Boolean).readOnly());
    f.push_back(F("VersionNumber", "Version Number", T::String).len(20).readOnly());
    f.push_back(F("Title", "Title", T::String).len(255).required().name());
    f.push_back(F("Description", "Description", T::TextArea).len(1000));
    f.push_back(F("ReasonForChange", "Reason For Change", T::String).len(1000));
    f.push_back(F("PathOnClient", "Path On Client", T::String).len(500).createOnly());
    f.push_back(F("ContentUrl", "Content URL", T::Url));
    f.push_back(F("FileType", "File Type", T::String).len(20).readOnly());
    f.push_back(F("FileExtension", "File Extension", T::String).len(40).readOnly());
    f.push_back(F("ContentSize", "Size", T::Int).readOnly());
    f.push_back(F("Checksum", "Checksum", T::String).len(50).readOnly());
    f.push_back(F("VersionData", "Version Data", T::Base64).createOnly());
    f.push_back(F("ContentModifiedDate", "Content Modified Date", T::DateTime));
    f.push_back(F("FirstPublishLocationId", "First Publish Location ID", T::Reference)
                    .createOnly()
                    .ref(parentTargets, "FirstPublishLocation"));
    f.push_back(
        F("PublishStatus", "Publish Status", T::Picklist).len(40).readOnly().pick({"U", "P", "R"}));
    f.push_back(F("ContentLocation", "Content Location", T::Picklist)
                    .len(40)
                    .createOnly()
                    .pick({"S", "E", "L"}, "S"));
    f.push_back(
        F("Origin", "Content Origin", T::Picklist).len(40).createOnly().pick({"C", "H"}, "C"));
    auto object = makeObject("ContentVersion", "Content Version", "Content Versions", "068",
                             {.owner = true}, std::move(f));
    object.deletable = false;
    object.undeletable = false;
    object.bodyField = "VersionData";
    all.push_back(std::move(object));
  }
  {
    std::vector<FieldDef> f;
    f.push_back(
        F("LinkedEntityId", "Linked Entity ID", T::Reference)
            .required()
            .createOnly()
            .ref({"Account", "Contact", "Lead", "Opportunity", "Case", "User", "Invoice__c"},
                 "LinkedEntity"));
    f.push_back(F("ContentDocumentId", "ContentDocument ID", T::Reference)
                    .required()
                    .createOnly()
                    .ref({"ContentDocument"}, "ContentDocument"));
    f.push_back(F("ShareType", "Share Type", T::Picklist).len(40).pick({"V", "C", "I"}, "V"));
    f.push_back(F("Visibility", "Visibility", T::Picklist)
                    .len(40)
                    .pick({"AllUsers", "InternalUsers", "SharedUsers"}, "AllUsers"));
    auto object =
        makeObject("ContentDocumentLink", "Content Document Link", "Content Document Links", "06A",
                   {.created = false, .modified = false}, std::move(f));
    object.requiresIdFilter = true;
    object.undeletable = false;
    object.layoutable = false;
    object.searchable = false;
    all.push_back(std::move(object));
  }
  {
    std::vector<FieldDef> f;
    f.push_back(F("ParentId", "Parent ID", T::Reference)
                    .required()
                    .createOnly()
                    .ref(parentTargets, "Parent"));
    f.push_back(F("Name", "File Name", T::String).len(255).required().name());
    f.push_back(F("IsPrivate", "Private", T::Boolean));
    f.push_back(F("ContentType", "Content Type", T::String).len(120));
    f.push_back(F("BodyLength", "Body Length", T::Int).readOnly());
    f.push_back(F("Body", "Body", T::Base64).required());
    f.push_back(F("Description", "Description", T::TextArea).len(500));
    auto object =
        makeObject("Attachment", "Attachment", "Attachments", "00P", {.owner = true}, std::move(f));
    object.bodyField = "Body";
    object.layoutable = false;
    all.push_back(std::move(object));
  }
  {
    std::vector<FieldDef> f;
    f.push_back(F("FolderId", "Folder ID", T::Reference).required().ref({"User"}, "Folder"));
    f.push_back(F("Name", "Document Name", T::String).len(255).required().name());
    f.push_back(F("DeveloperName", "Document Unique Name", T::String).len(80).required());
    f.push_back(F("NamespacePrefix", "Namespace Prefix", T::String).len(15).readOnly());
    f.push_back(F("ContentType", "MIME Type", T::String).len(120));
    f.push_back(F("Type", "File Extension", T::String).len(40));
    f.push_back(F("IsPublic", "Externally Available", T::Boolean));
    f.push_back(F("BodyLength", "Body Length", T::Int).readOnly());
    f.push_back(F("Body", "Body", T::Base64));
    f.push_back(F("Url", "Url", T::Url));
    f.push_back(F("Description", "Description", T::TextArea).len(255));
    f.push_back(F("Keywords", "Keywords", T::String).len(255));
    f.push_back(F("IsInternalUseOnly", "Internal Use Only", T::Boolean));
    f.push_back(F("AuthorId", "Author ID", T::Reference).ref({"User"}, "Author"));
    auto object =
        makeObject("Document", "Document", "Documents", "015", {.isDeleted = false}, std::move(f));
    object.bodyField = "Body";
    object.undeletable = false;
    all.push_back(std::move(object));
  }
  {
    std::vector<FieldDef> f;
    f.push_back(F("Name", "Invoice Name", T::String).len(80).name());
    {
      // The external id that imports upsert by.
      FieldDef number = F("Invoice_Number__c", "Invoice Number", T::String).len(20).unique();
      number.externalId = true;
      f.push_back(std::move(number));
    }
    f.push_back(F("Account__c", "Account", T::Reference).ref({"Account"}, "Account__r"));
    f.push_back(F("Amount__c", "Amount", T::Currency).num(16, 2));
    f.push_back(F("Tax_Rate__c", "Tax Rate", T::Percent).num(5, 2));
    f.push_back(F("Total__c", "Total", T::Currency)
                    .num(18, 2)
                    .formula("Amount__c * (1 + Tax_Rate__c)",
                             "CASE WHEN \"Amount__c\" IS NULL THEN NULL ELSE "
                             "CAST(ROUND(CAST(\"Amount__c\" AS REAL) * (1 + "
                             "COALESCE(CAST(\"Tax_Rate__c\" AS REAL), 0) / 100.0), 2) AS TEXT) "
                             "END"));
    f.push_back(F("Due_Date__c", "Due Date", T::Date));
    f.push_back(
        F("Status__c", "Status", T::Picklist).pick({"Draft", "Sent", "Paid", "Overdue"}, "Draft"));
    f.push_back(F("Paid__c", "Paid", T::Boolean));
    f.push_back(F("Notes__c", "Notes", T::TextArea).len(32768));
    f.push_back(F("Site_Location__Latitude__s", "Site Location (Latitude)", T::Double)
                    .num(18, 15)
                    .component("Site_Location__c", "latitude"));
    f.push_back(F("Site_Location__Longitude__s", "Site Location (Longitude)", T::Double)
                    .num(18, 15)
                    .component("Site_Location__c", "longitude"));
    f.push_back(F("Site_Location__c", "Site Location", T::Location).readOnly());
    auto object =
        makeObject("Invoice__c", "Invoice", "Invoices", "a01", {.owner = true}, std::move(f));
    all.push_back(std::move(object));
  }
  {
    std::vector<FieldDef> f;
    f.push_back(F("AccountId", "Account ID", T::Reference).readOnly().ref({"Account"}, "Account"));
    f.push_back(F("Field", "Changed Field", T::Picklist)
                    .readOnly()
                    .pick({"created", "Name", "Phone", "Type", "Industry", "Owner", "BillingCity",
                           "Website"}));
    f.push_back(F("DataType", "Data Type", T::Picklist)
                    .readOnly()
                    .pick({"Text", "Picklist", "EntityId", "Phone", "Url"}));
    f.push_back(F("OldValue", "Old Value", T::AnyType).len(255).readOnly());
    f.push_back(F("NewValue", "New Value", T::AnyType).len(255).readOnly());
    auto object = makeObject("AccountHistory", "Account History", "Account History", "017",
                             {.modified = false, .modstamp = false}, std::move(f));
    object.createable = false;
    object.updateable = false;
    object.deletable = false;
    object.undeletable = false;
    object.layoutable = false;
    object.searchable = false;
    all.push_back(std::move(object));
  }
  {
    std::vector<FieldDef> f;
    f.push_back(F("ParentId", "Parent ID", T::Reference).readOnly().ref({"Account"}, "Parent"));
    f.push_back(F("Type", "Feed Item Type", T::Picklist)
                    .readOnly()
                    .pick({"TextPost", "LinkPost", "ContentPost", "TrackedChange"}));
    f.push_back(F("CommentCount", "Comment Count", T::Int).readOnly());
    f.push_back(F("LikeCount", "Like Count", T::Int).readOnly());
    f.push_back(F("Title", "Title", T::String).len(255).readOnly());
    f.push_back(F("Body", "Body", T::TextArea).len(10000).readOnly());
    f.push_back(F("LinkUrl", "Link Url", T::Url).len(1000).readOnly());
    f.push_back(F("RelatedRecordId", "Related Record ID", T::Reference)
                    .readOnly()
                    .ref({"ContentVersion"}, "RelatedRecord"));
    f.push_back(
        F("InsertedById", "Inserted By ID", T::Reference).readOnly().ref({"User"}, "InsertedBy"));
    auto object =
        makeObject("AccountFeed", "Account Feed", "Account Feed", "0D5", {}, std::move(f));
    object.createable = false;
    object.updateable = false;
    object.undeletable = false;
    object.layoutable = false;
    object.searchable = false;
    all.push_back(std::move(object));
  }
  {
    std::vector<FieldDef> f;
    f.push_back(F("Action", "Action", T::String).len(255).readOnly());
    f.push_back(F("Section", "Section", T::String).len(255).readOnly());
    f.push_back(F("Display", "Display", T::String).len(1000).readOnly());
    f.push_back(F("DelegateUser", "Delegate User", T::String).len(80).readOnly());
    f.push_back(F("ResponsibleNamespacePrefix", "Namespace Prefix", T::String).len(15).readOnly());
    f.push_back(F("CreatedByContext", "Context", T::String).len(40).readOnly());
    f.push_back(F("CreatedByIssuer", "Issuer", T::String).len(255).readOnly());
    auto object =
        makeObject("SetupAuditTrail", "Setup Audit Trail", "Setup Audit Trail", "0Ym",
                   {.isDeleted = false, .modified = false, .modstamp = false}, std::move(f));
    object.createable = false;
    object.updateable = false;
    object.deletable = false;
    object.undeletable = false;
    object.replicateable = false;
    object.layoutable = false;
    object.searchable = false;
    object.triggerable = false;
    all.push_back(std::move(object));
  }
  {
    std::vector<FieldDef> f;
    f.push_back(F("Name", "Name", T::String).len(255).readOnly().name());
    f.push_back(F("Type", "Type", T::Picklist)
                    .readOnly()
                    .pick({"Account", "Contact", "Lead", "Opportunity", "Case"}));
    f.push_back(F("FirstName", "First Name", T::String).len(40).readOnly());
    f.push_back(F("LastName", "Last Name", T::String).len(80).readOnly());
    f.push_back(F("Title", "Title", T::String).len(80).readOnly());
    f.push_back(F("Email", "Email", T::Email).readOnly());
    f.push_back(F("Phone", "Phone", T::Phone).len(40).readOnly());
    f.push_back(F("IsActive", "Active", T::Boolean).readOnly());
    f.push_back(F("LastViewedDate", "Last Viewed Date", T::DateTime).readOnly());
    f.push_back(F("LastReferencedDate", "Last Referenced Date", T::DateTime).readOnly());
    auto object = makeObject(
        "RecentlyViewed", "Recently Viewed", "Recently Viewed", "",
        {.isDeleted = false, .created = false, .modified = false, .modstamp = false}, std::move(f));
    object.createable = false;
    object.deletable = false;
    object.undeletable = false;
    object.replicateable = false;
    object.retrieveable = false;
    object.layoutable = false;
    object.searchable = false;
    object.triggerable = false;
    object.bulkQueryable = false;
    all.push_back(std::move(object));
  }
  for (auto& object : all) {
    if (!object.createable) {
      for (auto& field : object.fields) field.createable = false;
    }
    if (!object.updateable) {
      for (auto& field : object.fields) field.updateable = false;
    }
  }
  std::sort(all.begin(), all.end(),
            [](const ObjectDef& a, const ObjectDef& b) { return a.name < b.name; });
  return all;
}

}  // namespace

std::string_view typeName(FieldType type) {
  switch (type) {
    case T::Id:
      return "id";
    case T::Reference:
      return "reference";
    case T::String:
      return "string";
    case T::TextArea:
      return "textarea";
    case T::Email:
      return "email";
    case T::Phone:
      return "phone";
    case T::Url:
      return "url";
    case T::Picklist:
      return "picklist";
    case T::MultiPicklist:
      return "multipicklist";
    case T::Combobox:
      return "combobox";
    case T::Boolean:
      return "boolean";
    case T::Int:
      return "int";
    case T::Double:
      return "double";
    case T::Currency:
      return "currency";
    case T::Percent:
      return "percent";
    case T::Date:
      return "date";
    case T::DateTime:
      return "datetime";
    case T::Base64:
      return "base64";
    case T::Address:
      return "address";
    case T::Location:
      return "location";
    case T::AnyType:
      return "anyType";
  }
  return "string";
}

bool isNumeric(FieldType type) {
  return type == T::Int || type == T::Double || type == T::Currency || type == T::Percent;
}

bool isCompound(FieldType type) { return type == T::Address || type == T::Location; }

const FieldDef* ObjectDef::field(std::string_view fieldName) const {
  for (const auto& f : fields) {
    if (equalsIgnoringCase(f.name, fieldName)) return &f;
  }
  return nullptr;
}

const FieldDef* ObjectDef::relationship(std::string_view relationshipName) const {
  for (const auto& f : fields) {
    if (!f.relationshipName.empty() && equalsIgnoringCase(f.relationshipName, relationshipName)) {
      return &f;
    }
  }
  return nullptr;
}

const FieldDef* ObjectDef::nameFieldDef() const {
  for (const auto& f : fields) {
    if (f.nameField) return &f;
  }
  return nullptr;
}

std::vector<const FieldDef*> ObjectDef::components(std::string_view compoundName) const {
  std::vector<const FieldDef*> out;
  for (const auto& f : fields) {
    if (equalsIgnoringCase(f.compoundFieldName, compoundName) && !compoundName.empty()) {
      out.push_back(&f);
    }
  }
  return out;
}

namespace Schema {

const std::vector<ObjectDef>& objects() {
  static const std::vector<ObjectDef> catalog = buildCatalog();
  return catalog;
}

const ObjectDef* object(std::string_view name) {
  for (const auto& o : objects()) {
    if (equalsIgnoringCase(o.name, name)) return &o;
  }
  return nullptr;
}

const ObjectDef* objectForKeyPrefix(std::string_view prefix) {
  for (const auto& o : objects()) {
    if (!o.keyPrefix.empty() && o.keyPrefix == prefix) return &o;
  }
  return nullptr;
}

const ObjectDef* objectForId(std::string_view id) {
  return id.size() >= 3 ? objectForKeyPrefix(id.substr(0, 3)) : nullptr;
}

std::string bulkRefusalMessage(std::string_view objectName) {
  return "Entity '" + std::string(objectName) + "' is not supported by the Bulk API.";
}

std::vector<std::pair<const ObjectDef*, const FieldDef*>> childrenOf(std::string_view parent) {
  std::vector<std::pair<const ObjectDef*, const FieldDef*>> out;
  for (const auto& o : objects()) {
    for (const auto& f : o.fields) {
      if (f.type != T::Reference || f.name == "MasterRecordId") continue;
      for (const auto& target : f.referenceTo) {
        if (equalsIgnoringCase(target, parent)) {
          out.emplace_back(&o, &f);
          break;
        }
      }
    }
  }
  return out;
}

}  // namespace Schema

}  // namespace corvane::orgsim

#include "tools/orgsim/health_answers.hpp"

#include <zip.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <regex>
#include <vector>

#include "tools/orgsim/database.hpp"
#include "tools/orgsim/soap.hpp"
#include "tools/orgsim/wire_values.hpp"

namespace corvane::orgsim::HealthAnswers {

namespace {

using Json = nlohmann::json;
using namespace std::chrono_literals;

std::string lower(std::string_view text) {
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return out;
}

std::string trim(std::string_view text) {
  const auto first = text.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos) return {};
  const auto last = text.find_last_not_of(" \t\r\n");
  return std::string(text.substr(first, last - first + 1));
}

std::string instanceName(OrgStore& store) {
  auto lease = store.read();
  auto statement = lease->prepare("SELECT \"InstanceName\" FROM \"Organization\" LIMIT 1");
  if (statement.step() && !statement.isNull(0)) return std::string(statement.text(0));
  return "LOCAL";
}

Json statusSetting(OrgStore& store) {
  auto text = store.setting("statusState");
  Json state = text ? Json::parse(*text, nullptr, false) : Json::object();
  if (!state.is_object()) state = Json::object();
  return state;
}

// ------------------------------------------------------------------ Metadata API

struct MetadataType {
  const char* xmlName;
  const char* directoryName;
  const char* suffix;
  bool metaFile;
  std::vector<const char*> members;
};

const std::vector<MetadataType>& metadataTypes() {
  static const std::vector<MetadataType> types = {
      {"ApexClass", "classes", "cls", true, {"AccountService", "AccountServiceTest"}},
      {"ApexTrigger", "triggers", "trigger", true, {"AccountTrigger"}},
      {"CustomObject", "objects", "object", false, {"Invoice__c"}},
      {"Flow", "flows", "flow", false, {"Welcome_Flow"}},
      {"Layout", "layouts", "layout", false, {"Account-Account Layout"}},
      {"PermissionSet", "permissionsets", "permissionset", false, {"Sales_Ops"}},
      {"Profile", "profiles", "profile", false, {"Admin"}},
  };
  return types;
}

const MetadataType* metadataType(std::string_view name) {
  for (const auto& type : metadataTypes()) {
    if (type.xmlName == name) return &type;
  }
  return nullptr;
}

// The texts of every element with this local name, in order.
std::vector<std::string> elements(std::string_view xml, const std::string& name) {
  std::vector<std::string> out;
  const std::regex pattern("<(?:[A-Za-z0-9_]+:)?" + name + "(?:\\s[^>]*)?>([^<]*)</");
  std::string text(xml);
  for (auto it = std::sregex_iterator(text.begin(), text.end(), pattern);
       it != std::sregex_iterator(); ++it) {
    out.push_back((*it)[1].str());
  }
  return out;
}

std::string unescapeXML(std::string text) {
  static const std::pair<const char*, const char*> entities[] = {
      {"&lt;", "<"}, {"&gt;", ">"}, {"&quot;", "\""}, {"&apos;", "'"}, {"&amp;", "&"}};
  for (const auto& [entity, plain] : entities) {
    for (std::size_t at = text.find(entity); at != std::string::npos;
         at = text.find(entity, at + 1)) {
      text.replace(at, std::string_view(entity).size(), plain);
    }
  }
  return text;
}

std::string envelope(const std::string& body) {
  return R"(<?xml version="1.0" encoding="UTF-8"?>)"
         R"(<soapenv:Envelope xmlns:soapenv="http://schemas.xmlsoap.org/soap/envelope/")"
         R"( xmlns="http://soap.sforce.com/2006/04/metadata"><soapenv:Body>)" +
         body + "</soapenv:Body></soapenv:Envelope>";
}

std::string element(const std::string& name, const std::string& value) {
  return "<" + name + ">" + Soap::escape(value) + "</" + name + ">";
}

std::string fileName(const MetadataType& type, const std::string& member) {
  return std::string(type.directoryName) + "/" + member + "." + type.suffix;
}

// A stable id for a component: its key prefix and a number from its position.
std::string componentId(const MetadataType& type, std::size_t index) {
  static const std::pair<const char*, const char*> prefixes[] = {
      {"ApexClass", "01p"}, {"ApexTrigger", "01q"},   {"CustomObject", "01I"}, {"Flow", "300"},
      {"Layout", "00h"},    {"PermissionSet", "0PS"}, {"Profile", "00e"}};
  std::string prefix = "000";
  for (const auto& [name, p] : prefixes) {
    if (name == std::string_view(type.xmlName)) prefix = p;
  }
  std::string number = std::to_string(index + 1);
  return prefix + "5g000000" + std::string(4 - number.size(), '0') + number;
}

std::string fileProperties(OrgStore& store, const MetadataType& type, std::size_t index,
                           const char* tag) {
  const OrgIdentity identity = store.identity();
  const std::string stamp = WireTime::dateTime(store.now() - 24h * 30);
  const std::string member = type.members[index];
  return std::string("<") + tag + ">" + element("createdById", identity.adminUserId) +
         element("createdByName", "Sample Admin") + element("createdDate", stamp) +
         element("fileName", fileName(type, member)) + element("fullName", member) +
         element("id", componentId(type, index)) +
         element("lastModifiedById", identity.adminUserId) +
         element("lastModifiedByName", "Sample Admin") + element("lastModifiedDate", stamp) +
         element("manageableState", "unmanaged") + element("type", type.xmlName) + "</" + tag + ">";
}

std::string describeMetadata() {
  std::string body = "<describeMetadataResponse><result>";
  for (const auto& type : metadataTypes()) {
    body += "<metadataObjects>" + element("directoryName", type.directoryName) +
            element("inFolder", "false") + element("metaFile", type.metaFile ? "true" : "false") +
            element("suffix", type.suffix) + element("xmlName", type.xmlName) +
            "</metadataObjects>";
  }
  body +=
      "<organizationNamespace></organizationNamespace><partialSaveAllowed>true"
      "</partialSaveAllowed><testRequired>false</testRequired></result>"
      "</describeMetadataResponse>";
  return envelope(body);
}

std::string listMetadata(OrgStore& store, std::string_view request) {
  std::string body = "<listMetadataResponse>";
  for (const auto& name : elements(request, "type")) {
    const MetadataType* type = metadataType(unescapeXML(name));
    if (type == nullptr) continue;  // Salesforce answers an empty list for an unknown type
    for (std::size_t i = 0; i < type->members.size(); ++i) {
      body += fileProperties(store, *type, i, "result");
    }
  }
  return envelope(body + "</listMetadataResponse>");
}

std::string componentBody(const MetadataType& type, const std::string& member) {
  const std::string xmlHead = R"(<?xml version="1.0" encoding="UTF-8"?>)"
                              "\n";
  const std::string ns = R"( xmlns="http://soap.sforce.com/2006/04/metadata")";
  std::string name = type.xmlName;
  if (name == "ApexClass") {
    return "public with sharing class " + member + " {\n    // Sample org component.\n}\n";
  }
  if (name == "ApexTrigger") {
    return "trigger " + member + " on Account (before insert) {\n}\n";
  }
  return xmlHead + "<" + name + ns + ">\n    <label>" + Soap::escape(member) + "</label>\n</" +
         name + ">\n";
}

std::string metaBody(const MetadataType& type) {
  return std::string(R"(<?xml version="1.0" encoding="UTF-8"?>)") + "\n<" + type.xmlName +
         R"( xmlns="http://soap.sforce.com/2006/04/metadata">)" +
         "\n    <apiVersion>62.0</apiVersion>\n    <status>Active</status>\n</" + type.xmlName +
         ">\n";
}

std::string zipOf(const std::vector<std::pair<std::string, std::string>>& files) {
  zip_error_t error;
  zip_error_init(&error);
  zip_source_t* source = zip_source_buffer_create(nullptr, 0, 0, &error);
  if (source == nullptr) return {};
  zip_source_keep(source);
  zip_t* archive = zip_open_from_source(source, ZIP_TRUNCATE, &error);
  if (archive == nullptr) {
    zip_source_free(source);
    return {};
  }
  for (const auto& [name, content] : files) {
    zip_source_t* file = zip_source_buffer(archive, content.data(), content.size(), 0);
    if (file == nullptr || zip_file_add(archive, name.c_str(), file, ZIP_FL_ENC_UTF_8) < 0) {
      zip_source_free(file);
    }
  }
  std::string bytes;
  if (zip_close(archive) == 0 && zip_source_open(source) == 0) {
    zip_source_seek(source, 0, SEEK_END);
    const zip_int64_t size = zip_source_tell(source);
    zip_source_seek(source, 0, SEEK_SET);
    if (size > 0) {
      bytes.resize(static_cast<std::size_t>(size));
      zip_source_read(source, bytes.data(), static_cast<zip_uint64_t>(size));
    }
    zip_source_close(source);
  }
  zip_source_free(source);
  return bytes;
}

std::string retrieve(OrgStore& store, std::string_view request) {
  // The request's <types> blocks: members then name.
  Json wanted = Json::array();
  const std::regex types("<(?:[A-Za-z0-9_]+:)?types>([\\s\\S]*?)</(?:[A-Za-z0-9_]+:)?types>");
  std::string text(request);
  for (auto it = std::sregex_iterator(text.begin(), text.end(), types);
       it != std::sregex_iterator(); ++it) {
    const std::string block = (*it)[1].str();
    auto names = elements(block, "name");
    if (names.empty()) continue;
    Json members = Json::array();
    for (const auto& member : elements(block, "members")) members.push_back(unescapeXML(member));
    wanted.push_back({{"name", unescapeXML(names.front())}, {"members", members}});
  }
  const std::int64_t number = std::stoll(store.setting("retrieveCount").value_or("0")) + 1;
  store.setSetting("retrieveCount", std::to_string(number));
  std::string digits = std::to_string(number);
  const std::string id =
      "09S5g00000" + std::string(8 - std::min<std::size_t>(8, digits.size()), '0') + digits;
  store.setSetting("retrieve:" + id, wanted.dump());
  return envelope("<retrieveResponse><result>" + element("done", "false") + element("id", id) +
                  element("state", "Queued") + "</result></retrieveResponse>");
}

std::string checkRetrieveStatus(OrgStore& store, std::string_view request) {
  auto ids = elements(request, "asyncProcessId");
  const std::string id = ids.empty() ? std::string() : unescapeXML(ids.front());
  auto saved = id.empty() ? std::nullopt : store.setting("retrieve:" + id);
  if (!saved) {
    return envelope(
        "<soapenv:Fault><faultcode>sf:INVALID_ID_FIELD</faultcode><faultstring>"
        "INVALID_ID_FIELD: Retrieve result has been deleted.</faultstring>"
        "</soapenv:Fault>");
  }
  Json wanted = Json::parse(*saved, nullptr, false);
  std::vector<std::pair<std::string, std::string>> files;
  std::string properties;
  std::string messages;
  std::string packageTypes;
  for (const auto& entry : wanted.is_array() ? wanted : Json::array()) {
    const std::string typeName = entry.value("name", "");
    const MetadataType* type = metadataType(typeName);
    std::string members;
    for (const auto& value : entry.value("members", Json::array())) {
      const std::string member = value.is_string() ? value.get<std::string>() : "";
      members += element("members", member);
      bool found = false;
      for (std::size_t i = 0; type != nullptr && i < type->members.size(); ++i) {
        if (member != "*" && member != type->members[i]) continue;
        found = true;
        const std::string name = type->members[i];
        files.emplace_back(fileName(*type, name), componentBody(*type, name));
        if (type->metaFile)
          files.emplace_back(fileName(*type, name) + "-meta.xml", metaBody(*type));
        properties += fileProperties(store, *type, i, "fileProperties");
      }
      if (!found) {
        messages += "<messages>" + element("fileName", "unpackaged/package.xml") +
                    element("problem", "Entity of type '" + typeName + "' named '" + member +
                                           "' cannot be found") +
                    "</messages>";
      }
    }
    packageTypes += "    <types>" + members + element("name", typeName) + "</types>\n";
  }
  files.emplace_back("package.xml",
                     std::string(R"(<?xml version="1.0" encoding="UTF-8"?>)") +
                         "\n<Package xmlns=\"http://soap.sforce.com/2006/04/metadata\">\n" +
                         packageTypes + "    <version>62.0</version>\n</Package>\n");
  const std::string zip = WireValues::base64Encode(zipOf(files));
  return envelope("<checkRetrieveStatusResponse><result>" + element("done", "true") + properties +
                  element("id", id) + messages + element("status", "Succeeded") +
                  element("success", "true") + element("zipFile", zip) +
                  "</result></checkRetrieveStatusResponse>");
}

}  // namespace

Answer instanceStatus(OrgStore& store, std::string_view key, std::string_view authorization) {
  if (auto token = store.setting("statusToken"); token && !token->empty()) {
    if (authorization != "Bearer " + *token) {
      return {401, Json{{"message", "A valid personal access token is required."}}.dump()};
    }
  }
  const std::string instance = instanceName(store);
  if (lower(key) != lower(instance)) {
    return {404, Json{{"message", "Instance not found: " + std::string(key)}}.dump()};
  }
  Json state = statusSetting(store);
  const SystemTime now = store.now();
  Json maintenances = Json::array({{{"id", 4101},
                                    {"name", instance + " Maintenance"},
                                    {"message",
                                     {{"name", instance + " Scheduled Maintenance"},
                                      {"eventStatus", "confirmed"},
                                      {"maintenanceType", "release"},
                                      {"availability", "available"}}},
                                    {"plannedStartTime", WireTime::dateTime(now + 24h * 7)},
                                    {"plannedEndTime", WireTime::dateTime(now + 24h * 7 + 4h)},
                                    {"isCore", true},
                                    {"affectsAll", false},
                                    {"instanceKeys", Json::array({instance})}}});
  Json reply = {{"key", instance},
                {"location", "EMEA"},
                {"environment", "production"},
                {"releaseVersion", "Winter '25 Patch 12.4"},
                {"releaseNumber", "252.12.4"},
                {"status", state.value("status", "OK")},
                {"isActive", true},
                {"Incidents", state.value("incidents", Json::array())},
                {"Maintenances", state.value("maintenances", maintenances)},
                {"Products", Json::array()}};
  return {200, reply.dump()};
}

Json adminStatus(OrgStore& store, const Json& body) {
  Json state = statusSetting(store);
  for (const char* key : {"status", "incidents", "maintenances"}) {
    if (body.contains(key)) state[key] = body[key];
  }
  store.setSetting("statusState", state.dump());
  if (body.contains("token") && body["token"].is_string()) {
    store.setSetting("statusToken", body["token"].get<std::string>());
  }
  state["tokenRequired"] = !store.setting("statusToken").value_or("").empty();
  return state;
}

std::optional<std::string> releaseUpdatesQuery(std::string_view soql, SystemTime now) {
  static const std::regex shape(R"(^\s*select\s+([\s\S]+?)\s+from\s+releaseupdate\b[\s\S]*$)",
                                std::regex::icase);
  std::string text(soql);
  std::smatch match;
  if (!std::regex_match(text, match, shape)) return std::nullopt;
  std::vector<std::string> fields;
  std::string list = match[1].str();
  for (std::size_t at = 0; at <= list.size();) {
    std::size_t end = list.find(',', at);
    if (end == std::string::npos) end = list.size();
    if (auto field = trim(std::string_view(list).substr(at, end - at)); !field.empty()) {
      fields.push_back(field);
    }
    at = end + 1;
  }
  const Json rows =
      Json::array({{{"Id", "0Qb5g0000000001AAA"},
                    {"DeveloperName", "EnforceRichTextSanitisation"},
                    {"DurableId", "EnforceRichTextSanitisation"},
                    {"Category", "Security"},
                    {"Description", "Sanitises rich text in formula fields and email templates."},
                    {"DueDate", WireTime::date(now + 24h * 30)},
                    {"ApiVersion", 62.0},
                    {"IsReleased", true},
                    {"HasNewSteps", false},
                    {"NumCompSteps", 1},
                    {"NumReqSteps", 3}},
                   {{"Id", "0Qb5g0000000002AAA"},
                    {"DeveloperName", "RequireMfaForApiLogins"},
                    {"DurableId", "RequireMfaForApiLogins"},
                    {"Category", "Security"},
                    {"Description", "Requires multi-factor authentication for API logins."},
                    {"DueDate", WireTime::date(now + 24h * 120)},
                    {"ApiVersion", 62.0},
                    {"IsReleased", true},
                    {"HasNewSteps", true},
                    {"NumCompSteps", 0},
                    {"NumReqSteps", 2}},
                   {{"Id", "0Qb5g0000000003AAA"},
                    {"DeveloperName", "LightningNavigationUpdate"},
                    {"DurableId", "LightningNavigationUpdate"},
                    {"Category", "Usability"},
                    {"Description", "Updates the navigation bar."},
                    {"DueDate", nullptr},
                    {"ApiVersion", 62.0},
                    {"IsReleased", false},
                    {"HasNewSteps", false},
                    {"NumCompSteps", 0},
                    {"NumReqSteps", 1}}});
  Json records = Json::array();
  for (const auto& row : rows) {
    Json record = {{"attributes",
                    {{"type", "ReleaseUpdate"},
                     {"url", "/services/data/v62.0/tooling/sobjects/ReleaseUpdate/" +
                                 row["Id"].get<std::string>()}}}};
    for (const auto& field : fields) {
      Json value = nullptr;
      std::string name = field;
      for (const auto& [key, column] : row.items()) {
        if (lower(key) == lower(field)) {
          name = key;
          value = column;
        }
      }
      record[name] = value;
    }
    records.push_back(std::move(record));
  }
  Json answer = {
      {"size", records.size()},  {"totalSize", records.size()},       {"done", true},
      {"queryLocator", nullptr}, {"entityTypeName", "ReleaseUpdate"}, {"records", records}};
  return answer.dump();
}

std::optional<std::string> metadataCall(OrgStore& store, std::string_view operation,
                                        std::string_view envelopeText) {
  if (operation == "describeMetadata") return describeMetadata();
  if (operation == "listMetadata") return listMetadata(store, envelopeText);
  if (operation == "retrieve") return retrieve(store, envelopeText);
  if (operation == "checkRetrieveStatus") return checkRetrieveStatus(store, envelopeText);
  return std::nullopt;
}

}  // namespace corvane::orgsim::HealthAnswers

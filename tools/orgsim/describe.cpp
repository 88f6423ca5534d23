#include "tools/orgsim/describe.hpp"

#include <algorithm>

namespace corvane::orgsim::Describe {

namespace {

using Json = nlohmann::ordered_json;

Json nullableText(const std::string& text) { return text.empty() ? Json(nullptr) : Json(text); }

std::string soapType(FieldType type) {
  switch (type) {
    case FieldType::Id:
    case FieldType::Reference:
      return "tns:ID";
    case FieldType::Boolean:
      return "xsd:boolean";
    case FieldType::Int:
      return "xsd:int";
    case FieldType::Double:
    case FieldType::Currency:
    case FieldType::Percent:
      return "xsd:double";
    case FieldType::Date:
      return "xsd:date";
    case FieldType::DateTime:
      return "xsd:dateTime";
    case FieldType::Base64:
      return "xsd:base64Binary";
    case FieldType::Address:
      return "urn:address";
    case FieldType::Location:
      return "urn:location";
    case FieldType::AnyType:
      return "xsd:anyType";
    default:
      return "xsd:string";
  }
}

Json urls(const ObjectDef& object, const std::string& apiVersion) {
  std::string base = "/services/data/v" + apiVersion + "/sobjects/" + object.name;
  Json json;
  json["compactLayouts"] = base + "/describe/compactLayouts";
  json["rowTemplate"] = base + "/{ID}";
  json["approvalLayouts"] = base + "/describe/approvalLayouts";
  json["defaultValues"] = base + "/defaultValues?recordTypeId&fields";
  json["listviews"] = base + "/listviews";
  json["describe"] = base + "/describe";
  json["quickActions"] = base + "/quickActions";
  json["layouts"] = base + "/describe/layouts";
  json["sobject"] = base;
  return json;
}

Json field(const ObjectDef& object, const FieldDef& f) {
  bool text =
      f.type == FieldType::String || f.type == FieldType::TextArea || f.type == FieldType::Email ||
      f.type == FieldType::Phone || f.type == FieldType::Url || f.type == FieldType::Picklist ||
      f.type == FieldType::MultiPicklist || f.type == FieldType::Combobox ||
      f.type == FieldType::Id || f.type == FieldType::Reference || f.type == FieldType::AnyType;
  Json json;
  json["aggregatable"] = f.groupable || isNumeric(f.type) || f.type == FieldType::DateTime;
  json["aiPredictionField"] = false;
  json["autoNumber"] = f.autoNumber;
  json["byteLength"] = text ? f.length * 3 : 0;
  json["calculated"] = f.calculated;
  json["calculatedFormula"] = nullableText(f.calculatedFormula);
  json["cascadeDelete"] = false;
  json["caseSensitive"] = false;
  json["compoundFieldName"] = nullableText(f.compoundFieldName);
  json["controllerName"] = nullptr;
  json["createable"] = f.createable;
  json["custom"] = f.name.ends_with("__c") || f.name.ends_with("__s");
  json["defaultValue"] =
      f.type == FieldType::Boolean ? Json(f.defaultValue == "true") : Json(nullptr);
  json["defaultValueFormula"] = nullptr;
  json["defaultedOnCreate"] = !f.defaultValue.empty() || f.name == "OwnerId" ||
                              f.name == "CreatedDate" || f.name == "CreatedById" ||
                              f.name == "LastModifiedDate" || f.name == "LastModifiedById" ||
                              f.name == "SystemModstamp" || f.name == "Id" || f.autoNumber;
  json["dependentPicklist"] = false;
  json["deprecatedAndHidden"] = false;
  json["digits"] = f.type == FieldType::Int ? f.precision : 0;
  json["displayLocationInDecimal"] = false;
  json["encrypted"] = false;
  json["externalId"] = f.externalId;
  json["extraTypeInfo"] = f.type == FieldType::TextArea && f.length > 255 ? Json("plaintextarea")
                          : f.type == FieldType::Address                  ? Json(nullptr)
                                                                          : Json(nullptr);
  json["filterable"] = f.filterable;
  json["filteredLookupInfo"] = nullptr;
  json["formulaTreatNullNumberAsZero"] = false;
  json["groupable"] = f.groupable;
  json["highScaleNumber"] = false;
  json["htmlFormatted"] = false;
  json["idLookup"] = f.name == "Id" || f.unique;
  json["inlineHelpText"] = nullptr;
  json["label"] = f.label;
  json["length"] = text ? f.length : 0;
  json["mask"] = nullptr;
  json["maskType"] = nullptr;
  json["name"] = f.name;
  json["nameField"] = f.nameField;
  json["namePointing"] = f.referenceTo.size() > 1;
  json["nillable"] = f.nillable;
  json["permissionable"] = f.nillable && !f.calculated && f.createable;
  Json picklist = Json::array();
  for (const auto& value : f.picklistValues) {
    Json entry;
    entry["active"] = true;
    entry["defaultValue"] = value == f.defaultPicklistValue;
    entry["label"] = value;
    entry["validFor"] = nullptr;
    entry["value"] = value;
    picklist.push_back(entry);
  }
  json["picklistValues"] = picklist;
  json["polymorphicForeignKey"] = f.referenceTo.size() > 1;
  json["precision"] = isNumeric(f.type) && f.type != FieldType::Int ? f.precision : 0;
  json["queryByDistance"] = false;
  json["referenceTargetField"] = nullptr;
  json["referenceTo"] = f.referenceTo;
  json["relationshipName"] = nullableText(f.relationshipName);
  json["relationshipOrder"] = nullptr;
  json["restrictedDelete"] = false;
  json["restrictedPicklist"] = false;
  json["scale"] = isNumeric(f.type) && f.type != FieldType::Int ? f.scale : 0;
  json["searchPrefilterable"] = false;
  json["soapType"] = soapType(f.type);
  json["sortable"] = f.sortable;
  json["type"] = std::string(typeName(f.type));
  json["unique"] = f.unique && f.name != "Id";
  json["updateable"] = f.updateable;
  json["writeRequiresMasterRead"] = false;
  (void)object;
  return json;
}

std::string childRelationshipName(const ObjectDef& child, const FieldDef& f) {
  std::string plural = child.labelPlural;
  plural.erase(std::remove(plural.begin(), plural.end(), ' '), plural.end());
  if (child.custom) return plural + "__r";
  if (child.name.ends_with("History")) return "Histories";
  if (child.name.ends_with("Feed")) return "Feeds";
  if (f.name == "ParentId" && child.name == "Account") return "ChildAccounts";
  if (f.name == "ParentId" && child.name == "Case") return "Cases";
  return plural;
}

}  // namespace

Json summary(const ObjectDef& object, const std::string& apiVersion) {
  Json json;
  json["activateable"] = false;
  json["associateEntityType"] = nullptr;
  json["associateParentEntity"] = nullptr;
  json["createable"] = object.createable;
  json["custom"] = object.custom;
  json["customSetting"] = false;
  json["deepCloneable"] = false;
  json["deletable"] = object.deletable;
  json["deprecatedAndHidden"] = false;
  json["feedEnabled"] = object.feedEnabled;
  json["hasSubtypes"] = false;
  json["isInterface"] = false;
  json["isSubtype"] = false;
  json["keyPrefix"] = nullableText(object.keyPrefix);
  json["label"] = object.label;
  json["labelPlural"] = object.labelPlural;
  json["layoutable"] = object.layoutable;
  json["mergeable"] = object.mergeable;
  json["mruEnabled"] = object.layoutable;
  json["name"] = object.name;
  json["queryable"] = object.queryable;
  json["replicateable"] = object.replicateable;
  json["retrieveable"] = object.retrieveable;
  json["searchable"] = object.searchable;
  json["triggerable"] = object.triggerable;
  json["undeletable"] = object.undeletable;
  json["updateable"] = object.updateable;
  json["urls"] = urls(object, apiVersion);
  return json;
}

Json global(const std::string& apiVersion) {
  Json json;
  json["encoding"] = "UTF-8";
  json["maxBatchSize"] = 200;
  Json objects = Json::array();
  for (const auto& object : Schema::objects()) objects.push_back(summary(object, apiVersion));
  json["sobjects"] = objects;
  return json;
}

Json full(const ObjectDef& object, const std::string& apiVersion) {
  Json json = summary(object, apiVersion);
  Json children = Json::array();
  for (const auto& [child, f] : Schema::childrenOf(object.name)) {
    bool system = f->name == "CreatedById" || f->name == "LastModifiedById";
    Json entry;
    entry["cascadeDelete"] = false;
    entry["childSObject"] = child->name;
    entry["deprecatedAndHidden"] = false;
    entry["field"] = f->name;
    entry["junctionIdListNames"] = Json::array();
    entry["junctionReferenceTo"] = Json::array();
    entry["relationshipName"] = system ? Json(nullptr) : Json(childRelationshipName(*child, *f));
    entry["restrictedDelete"] = false;
    children.push_back(entry);
  }
  Json fields = Json::array();
  for (const auto& f : object.fields) fields.push_back(field(object, f));
  Json out;
  out["actionOverrides"] = Json::array();
  for (auto& [key, value] : json.items()) {
    if (key == "urls") continue;
    out[key] = value;
  }
  out["childRelationships"] = children;
  out["compactLayoutable"] = object.layoutable;
  out["fields"] = fields;
  out["listviewable"] = nullptr;
  out["lookupLayoutable"] = nullptr;
  out["namedLayoutInfos"] = Json::array();
  out["networkScopeFieldName"] = nullptr;
  out["recordTypeInfos"] = Json::array();
  out["searchLayoutable"] = object.searchable;
  out["sobjectDescribeOption"] = "FULL";
  out["supportedScopes"] = Json::array();
  out["urls"] = json["urls"];
  return out;
}

}  // namespace corvane::orgsim::Describe

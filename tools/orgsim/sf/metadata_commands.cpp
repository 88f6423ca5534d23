#include "tools/orgsim/sf/metadata_commands.hpp"

#include <openssl/evp.h>
#include <zip.h>

#include <chrono>
#include <fstream>
#include <map>
#include <regex>
#include <thread>

#include "tools/orgsim/sf/cli_failure.hpp"

namespace corvane::sfstandin::MetadataCommands {

namespace {

using Json = nlohmann::json;

std::string escapeXML(const std::string& text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&apos;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

std::string unescapeXML(std::string text) {
  static const std::pair<const char*, const char*> entities[] = {
      {"&lt;", "<"}, {"&gt;", ">"}, {"&quot;", "\""}, {"&apos;", "'"}, {"&amp;", "&"}};
  for (const auto& [entity, plain] : entities) {
    for (auto at = text.find(entity); at != std::string::npos; at = text.find(entity, at + 1)) {
      text.replace(at, std::string_view(entity).size(), plain);
    }
  }
  return text;
}

// The inner texts of every element with this local name (not nested in itself).
std::vector<std::string> blocks(const std::string& xml, const std::string& name) {
  std::vector<std::string> out;
  const std::regex pattern("<(?:[A-Za-z0-9_]+:)?" + name +
                           "(?:\\s[^>]*)?>([\\s\\S]*?)</(?:[A-Za-z0-9_]+:)?" + name + ">");
  for (auto it = std::sregex_iterator(xml.begin(), xml.end(), pattern);
       it != std::sregex_iterator(); ++it) {
    out.push_back((*it)[1].str());
  }
  return out;
}

std::string first(const std::string& xml, const std::string& name) {
  auto found = blocks(xml, name);
  return found.empty() ? std::string() : unescapeXML(found.front());
}

Json fileProperties(const std::string& xml) {
  Json entry = Json::object();
  for (const char* key : {"createdById", "createdByName", "createdDate", "fileName", "fullName",
                          "id", "lastModifiedById", "lastModifiedByName", "lastModifiedDate",
                          "manageableState", "namespacePrefix", "type"}) {
    auto found = blocks(xml, key);
    if (!found.empty()) entry[key] = unescapeXML(found.front());
  }
  return entry;
}

// POSTs one Metadata API call and returns the answer's Body; a SOAP fault or an
// HTTP failure throws CliFailure.
std::string call(const Connection& connection, const std::string& body) {
  const std::string envelope =
      R"(<?xml version="1.0" encoding="UTF-8"?>)"
      R"(<soapenv:Envelope xmlns:soapenv="http://schemas.xmlsoap.org/soap/envelope/")"
      R"( xmlns="http://soap.sforce.com/2006/04/metadata"><soapenv:Header><SessionHeader>)"
      "<sessionId>" +
      escapeXML(connection.accessToken) +
      "</sessionId>"
      "</SessionHeader></soapenv:Header><soapenv:Body>" +
      body + "</soapenv:Body></soapenv:Envelope>";
  HttpReply reply = connection.http.postSOAP("/services/Soap/m/" + connection.apiVersion, envelope);
  if (auto fault = first(reply.body, "faultstring"); !fault.empty()) {
    std::string code = first(reply.body, "faultcode");
    if (auto colon = code.find(':'); colon != std::string::npos) code = code.substr(colon + 1);
    throw CliFailure::orgError(code.empty() ? "ERROR_HTTP_" + std::to_string(reply.status) : code,
                               fault);
  }
  if (reply.status < 200 || reply.status > 299) {
    std::string message = reply.body.empty() ? "HTTP " + std::to_string(reply.status) : reply.body;
    throw CliFailure::orgError("ERROR_HTTP_" + std::to_string(reply.status), message);
  }
  auto body_ = blocks(reply.body, "Body");
  if (body_.empty()) throw CliFailure::unexpectedReply("The Metadata API answer has no SOAP body.");
  return body_.front();
}

std::string base64Decode(const std::string& text) {
  std::string clean;
  for (char c : text) {
    if (!std::isspace(static_cast<unsigned char>(c))) clean += c;
  }
  std::string out(clean.size() / 4 * 3 + 3, '\0');
  const int length = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                     reinterpret_cast<const unsigned char*>(clean.data()),
                                     static_cast<int>(clean.size()));
  if (length < 0) throw CliFailure::unexpectedReply("The retrieved zip file is not base64.");
  std::size_t size = static_cast<std::size_t>(length);
  if (!clean.empty() && clean.back() == '=') --size;
  if (clean.size() > 1 && clean[clean.size() - 2] == '=') --size;
  out.resize(size);
  return out;
}

// A zip entry's name as a relative path inside the project, or none when it would leave it.
std::optional<std::filesystem::path> safeRelative(const std::string& name) {
  if (name.empty() || name.front() == '/' || name.find('\\') != std::string::npos)
    return std::nullopt;
  std::filesystem::path path(name);
  for (const auto& part : path) {
    if (part == ".." || part == ".") return std::nullopt;
  }
  return path;
}

// The source format's path for a Metadata API file: components without a file of
// their own get "-meta.xml", and objects a folder of their own.
std::filesystem::path sourcePath(const std::filesystem::path& mdapi) {
  const std::string folder = mdapi.begin()->string();
  const std::string fileName = mdapi.filename().string();
  if (fileName.ends_with("-meta.xml")) return mdapi;
  if (folder == "classes" || folder == "triggers") return mdapi;
  if (folder == "objects") {
    return std::filesystem::path("objects") / mdapi.stem() / (fileName + "-meta.xml");
  }
  return mdapi.parent_path() / (fileName + "-meta.xml");
}

std::map<std::string, std::string> unzip(const std::string& bytes) {
  std::map<std::string, std::string> files;
  zip_error_t error;
  zip_error_init(&error);
  zip_source_t* source = zip_source_buffer_create(bytes.data(), bytes.size(), 0, &error);
  zip_t* archive = source ? zip_open_from_source(source, ZIP_RDONLY, &error) : nullptr;
  if (archive == nullptr) {
    if (source) zip_source_free(source);
    zip_error_fini(&error);
    throw CliFailure::unexpectedReply("The retrieved zip file cannot be opened.");
  }
  const zip_int64_t count = zip_get_num_entries(archive, 0);
  for (zip_int64_t i = 0; i < count; ++i) {
    zip_stat_t stat;
    if (zip_stat_index(archive, static_cast<zip_uint64_t>(i), 0, &stat) != 0) continue;
    zip_file_t* file = zip_fopen_index(archive, static_cast<zip_uint64_t>(i), 0);
    if (file == nullptr) continue;
    std::string content(static_cast<std::size_t>(stat.size), '\0');
    const zip_int64_t read = zip_fread(file, content.data(), stat.size);
    zip_fclose(file);
    if (read >= 0) {
      content.resize(static_cast<std::size_t>(read));
      files[stat.name] = std::move(content);
    }
  }
  zip_close(archive);
  return files;
}

}  // namespace

Json listTypes(const Connection& connection) {
  const std::string body =
      call(connection, "<describeMetadata><asOfVersion>" + connection.apiVersion +
                           "</asOfVersion></describeMetadata>");
  Json objects = Json::array();
  for (const auto& block : blocks(body, "metadataObjects")) {
    Json entry;
    Json children = Json::array();
    for (const auto& child : blocks(block, "childXmlNames")) children.push_back(unescapeXML(child));
    entry["childXmlNames"] = children;
    entry["directoryName"] = first(block, "directoryName");
    entry["inFolder"] = first(block, "inFolder") == "true";
    entry["metaFile"] = first(block, "metaFile") == "true";
    entry["suffix"] = first(block, "suffix");
    entry["xmlName"] = first(block, "xmlName");
    objects.push_back(entry);
  }
  return Json{{"metadataObjects", objects},
              {"organizationNamespace", first(body, "organizationNamespace")},
              {"partialSaveAllowed", first(body, "partialSaveAllowed") == "true"},
              {"testRequired", first(body, "testRequired") == "true"}};
}

Json listComponents(const Connection& connection, const std::string& type) {
  const std::string body =
      call(connection, "<listMetadata><queries><type>" + escapeXML(type) +
                           "</type></queries><asOfVersion>" + connection.apiVersion +
                           "</asOfVersion></listMetadata>");
  Json items = Json::array();
  for (const auto& block : blocks(body, "result")) items.push_back(fileProperties(block));
  return items;
}

Json retrieve(const Connection& connection, const std::vector<std::string>& components,
              const std::filesystem::path& projectRoot) {
  if (!std::filesystem::exists(projectRoot / "sfdx-project.json")) {
    throw CliFailure::badArgument(
        "This command is required to run from within a Salesforce project directory.");
  }
  if (components.empty()) {
    throw CliFailure::badArgument(
        "Exactly one of the following must be provided: --manifest, --metadata, --source-dir");
  }
  std::map<std::string, std::vector<std::string>> wanted;  // type -> members
  for (const auto& component : components) {
    auto colon = component.find(':');
    if (colon == std::string::npos) {
      wanted[component].push_back("*");
    } else {
      wanted[component.substr(0, colon)].push_back(component.substr(colon + 1));
    }
  }
  std::string types;
  for (const auto& [type, members] : wanted) {
    types += "<types>";
    for (const auto& member : members) types += "<members>" + escapeXML(member) + "</members>";
    types += "<name>" + escapeXML(type) + "</name></types>";
  }
  const std::string started =
      call(connection, "<retrieve><retrieveRequest><apiVersion>" + connection.apiVersion +
                           "</apiVersion><singlePackage>true</singlePackage><unpackaged>" + types +
                           "<version>" + connection.apiVersion +
                           "</version></unpackaged></retrieveRequest></retrieve>");
  const std::string id = first(started, "id");
  if (id.empty()) throw CliFailure::unexpectedReply("The retrieve request has no id.");

  std::string status;
  for (int attempt = 0;; ++attempt) {
    status = call(connection, "<checkRetrieveStatus><asyncProcessId>" + escapeXML(id) +
                                  "</asyncProcessId><includeZip>true</includeZip>"
                                  "</checkRetrieveStatus>");
    if (first(status, "done") == "true") break;
    if (attempt >= 600) throw CliFailure::unexpectedReply("The retrieve did not finish.");
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }

  const std::filesystem::path target = projectRoot / "force-app" / "main" / "default";
  Json files = Json::array();
  Json properties = Json::array();
  for (const auto& block : blocks(status, "fileProperties")) {
    properties.push_back(fileProperties(block));
  }
  for (const auto& [name, content] : unzip(base64Decode(first(status, "zipFile")))) {
    if (name == "package.xml") continue;
    auto relative = safeRelative(name);
    if (!relative) continue;
    const std::filesystem::path path = target / sourcePath(*relative);
    const bool existed = std::filesystem::exists(path);
    std::filesystem::create_directories(path.parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    if (!out.flush()) throw CliFailure::unexpectedReply("Could not write " + path.string() + ".");
    std::string fullName = relative->stem().string();
    std::string type;
    for (const auto& entry : properties) {
      if (entry.value("fileName", "") == name ||
          entry.value("fileName", "") + "-meta.xml" == name) {
        fullName = entry.value("fullName", fullName);
        type = entry.value("type", "");
      }
    }
    files.push_back({{"fullName", fullName},
                     {"type", type},
                     {"state", existed ? "Changed" : "Created"},
                     {"filePath", path.string()}});
  }
  Json messages = Json::array();
  for (const auto& block : blocks(status, "messages")) {
    messages.push_back(
        {{"fileName", first(block, "fileName")}, {"problem", first(block, "problem")}});
  }
  return Json{{"done", true},
              {"fileProperties", properties},
              {"files", files},
              {"id", id},
              {"messages", messages},
              {"status", first(status, "status")},
              {"success", first(status, "success") == "true"}};
}

}  // namespace corvane::sfstandin::MetadataCommands

#include "backup/recycle_bin.hpp"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>
#include <map>
#include <optional>

#include "connections/salesforce_api.hpp"

namespace corvane {

namespace {

// Salesforce record ids: 15 or 18 letters and digits.
bool isRecordId(std::string_view id) {
  if (id.size() != 15 && id.size() != 18) return false;
  for (char c : id)
    if (!std::isalnum(static_cast<unsigned char>(c))) return false;
  return true;
}

bool isObjectName(std::string_view name) {
  if (name.empty()) return false;
  for (char c : name)
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_') return false;
  return true;
}

std::string key(std::string_view id) { return std::string(id.substr(0, 15)); }

std::string percentEncoded(std::string_view text) {
  static const char* hex = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : text) {
    if (std::isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~') {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += hex[c >> 4];
      out += hex[c & 15];
    }
  }
  return out;
}

std::string unescaped(std::string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '&') {
      out += text[i];
      continue;
    }
    static const std::pair<std::string_view, char> entities[] = {
        {"&amp;", '&'}, {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&apos;", '\''}};
    bool matched = false;
    for (const auto& [entity, c] : entities) {
      if (text.substr(i, entity.size()) == entity) {
        out += c;
        i += entity.size() - 1;
        matched = true;
        break;
      }
    }
    if (!matched) out += '&';
  }
  return out;
}

// The text of the first element named localName (any prefix) in xml.
std::optional<std::string> elementText(std::string_view xml, std::string_view localName) {
  std::size_t at = 0;
  while ((at = xml.find('<', at)) != std::string_view::npos) {
    const std::size_t nameStart = at + 1;
    const std::size_t nameEnd = xml.find_first_of(" \t\r\n/>", nameStart);
    if (nameEnd == std::string_view::npos) return std::nullopt;
    std::string_view name = xml.substr(nameStart, nameEnd - nameStart);
    if (auto colon = name.find(':'); colon != std::string_view::npos)
      name = name.substr(colon + 1);
    if (name == localName) {
      const std::size_t close = xml.find('>', nameEnd);
      if (close == std::string_view::npos) return std::nullopt;
      if (xml[close - 1] == '/') return std::string();
      const std::string qualified(xml.substr(nameStart, nameEnd - nameStart));
      const std::size_t end = xml.find("</" + qualified + ">", close + 1);
      if (end == std::string_view::npos) return std::nullopt;
      return unescaped(xml.substr(close + 1, end - close - 1));
    }
    at = nameEnd;
  }
  return std::nullopt;
}

// The bodies of every element named localName (any prefix), in order.
std::vector<std::string_view> elements(std::string_view xml, std::string_view localName) {
  std::vector<std::string_view> out;
  std::size_t at = 0;
  while ((at = xml.find('<', at)) != std::string_view::npos) {
    const std::size_t nameStart = at + 1;
    const std::size_t nameEnd = xml.find_first_of(" \t\r\n/>", nameStart);
    if (nameEnd == std::string_view::npos) break;
    std::string_view name = xml.substr(nameStart, nameEnd - nameStart);
    const std::string qualified(name);
    if (auto colon = name.find(':'); colon != std::string_view::npos)
      name = name.substr(colon + 1);
    if (name != localName) {
      at = nameEnd;
      continue;
    }
    const std::size_t close = xml.find('>', nameEnd);
    if (close == std::string_view::npos) break;
    const std::size_t end = xml.find("</" + qualified + ">", close + 1);
    if (end == std::string_view::npos) break;
    out.push_back(xml.substr(close + 1, end - close - 1));
    at = end;
  }
  return out;
}

}  // namespace

RecycleBinError RecycleBinError::notAList() {
  return RecycleBinError(Kind::notAList,
                         "Salesforce answered a Recycle Bin check with something that was not a "
                         "list of records.");
}

std::string RecycleBin::toText(const Outcome& outcome) {
  switch (outcome.kind) {
    case Outcome::Kind::putBack:
      return "putBack";
    case Outcome::Kind::alreadyBack:
      return "alreadyBack";
    case Outcome::Kind::notInTheBin:
      return "notInTheBin";
    case Outcome::Kind::refused:
      return "refused(" + outcome.reason + ")";
  }
  return {};
}

std::vector<RecycleBin::Outcome> RecycleBin::check(const std::string& object,
                                                   const std::vector<std::string>& ids) {
  std::vector<Outcome> outcomes;
  outcomes.reserve(ids.size());
  std::vector<std::size_t> asking;
  for (std::size_t i = 0; i < ids.size(); ++i) {
    Outcome outcome{object, ids[i], Outcome::Kind::notInTheBin, {}};
    if (!isRecordId(ids[i])) {
      outcome.kind = Outcome::Kind::refused;
      outcome.reason = "This is not a Salesforce record id.";
    } else if (!isObjectName(object)) {
      outcome.kind = Outcome::Kind::refused;
      outcome.reason = "This is not the name of a kind of record.";
    } else {
      asking.push_back(i);
    }
    outcomes.push_back(std::move(outcome));
  }

  for (std::size_t from = 0; from < asking.size(); from += batchSize) {
    const std::size_t to = std::min(asking.size(), from + batchSize);
    std::string soql = "SELECT Id, IsDeleted FROM " + object + " WHERE Id IN (";
    for (std::size_t i = from; i < to; ++i)
      soql += (i == from ? "'" : ", '") + ids[asking[i]] + "'";
    soql += ")";
    // key -> still deleted
    std::map<std::string, bool> answered;
    std::string path =
        "/services/data/v" + apiVersion_ + "/queryAll?q=" + percentEncoded(soql);
    while (!path.empty()) {
      const auto body = transport_.send("GET", path, {}, std::nullopt);
      auto json = nlohmann::json::parse(body, nullptr, false);
      if (!json.is_object()) throw RecycleBinError::notAList();
      auto records = json.find("records");
      if (records == json.end() || !records->is_array()) throw RecycleBinError::notAList();
      for (const auto& record : *records) {
        if (!record.is_object()) throw RecycleBinError::notAList();
        auto id = record.find("Id");
        auto deleted = record.find("IsDeleted");
        if (id == record.end() || !id->is_string() || deleted == record.end() ||
            !deleted->is_boolean())
          throw RecycleBinError::notAList();
        answered[key(id->get<std::string>())] = deleted->get<bool>();
      }
      path.clear();
      if (auto next = json.find("nextRecordsUrl"); next != json.end() && next->is_string())
        path = next->get<std::string>();
    }
    for (std::size_t i = from; i < to; ++i) {
      auto& outcome = outcomes[asking[i]];
      auto it = answered.find(key(outcome.id));
      if (it == answered.end())
        outcome.kind = Outcome::Kind::notInTheBin;
      else
        outcome.kind = it->second ? Outcome::Kind::putBack : Outcome::Kind::alreadyBack;
    }
  }
  return outcomes;
}

std::string RecycleBin::undeleteEnvelope(const std::vector<std::string>& ids) {
  std::string out =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
      "<soapenv:Envelope xmlns:soapenv=\"http://schemas.xmlsoap.org/soap/envelope/\" "
      "xmlns:urn=\"urn:partner.soap.sforce.com\">"
      "<soapenv:Header><urn:SessionHeader><urn:sessionId>";
  // The app's transport puts the session here just before sending.
  out += SalesforceAPI::sessionPlaceholder;
  out += "</urn:sessionId></urn:SessionHeader></soapenv:Header><soapenv:Body><urn:undelete>";
  // Only record ids get here: letters and digits, nothing to escape.
  for (const auto& id : ids) out += "<urn:ids>" + id + "</urn:ids>";
  out += "</urn:undelete></soapenv:Body></soapenv:Envelope>";
  return out;
}

std::vector<RecycleBin::Result> RecycleBin::parseUndelete(std::string_view xml, std::size_t ids) {
  if (auto fault = elementText(xml, "faultstring"))
    return std::vector<Result>(ids, Result{false, *fault});
  if (xml.find("undeleteResponse") == std::string_view::npos) throw RecycleBinError::notAList();
  std::vector<Result> results;
  for (auto body : elements(xml, "result")) {
    Result result;
    result.success = elementText(body, "success").value_or("") == "true";
    if (!result.success) {
      const auto code = elementText(body, "statusCode").value_or("");
      const auto message = elementText(body, "message").value_or("");
      result.reason = code.empty() ? message : message.empty() ? code : code + ": " + message;
      if (result.reason.empty()) result.reason = "Salesforce did not say why.";
    }
    results.push_back(std::move(result));
  }
  if (results.size() != ids) throw RecycleBinError::notAList();
  return results;
}

std::vector<RecycleBin::Outcome> RecycleBin::putBack(const std::string& object,
                                                     const std::vector<std::string>& ids) {
  auto outcomes = check(object, ids);
  std::vector<std::size_t> inTheBin;
  for (std::size_t i = 0; i < outcomes.size(); ++i)
    if (outcomes[i].kind == Outcome::Kind::putBack) inTheBin.push_back(i);
  for (std::size_t from = 0; from < inTheBin.size(); from += batchSize) {
    const std::size_t to = std::min(inTheBin.size(), from + batchSize);
    std::vector<std::string> batch;
    for (std::size_t i = from; i < to; ++i) batch.push_back(outcomes[inTheBin[i]].id);
    std::vector<Result> results;
    try {
      results = parseUndelete(transport_.postSOAP("undelete", undeleteEnvelope(batch)),
                              batch.size());
    } catch (const RecycleBinError&) {
      throw;
    } catch (const std::exception& error) {
      // A SOAP fault comes back as a failed call: every id of the batch was refused.
      const auto failure = transport_.classify(error);
      if (failure.signedOut) throw;
      results.assign(batch.size(),
                     Result{false, failure.message.empty() ? error.what() : failure.message});
    }
    for (std::size_t i = from; i < to; ++i) {
      auto& outcome = outcomes[inTheBin[i]];
      const auto& result = results[i - from];
      if (!result.success) {
        outcome.kind = Outcome::Kind::refused;
        outcome.reason = result.reason;
      }
    }
  }
  return outcomes;
}

}  // namespace corvane

#include "tools/orgsim/soap.hpp"

#include <libxml/parser.h>
#include <libxml/tree.h>

#include <cstring>
#include <memory>

namespace corvane::orgsim::Soap {

namespace {

struct DocFree {
  void operator()(xmlDoc* doc) const { xmlFreeDoc(doc); }
};

bool named(const xmlNode* node, const char* name) {
  return node != nullptr && node->type == XML_ELEMENT_NODE &&
         std::strcmp(reinterpret_cast<const char*>(node->name), name) == 0;
}

const xmlNode* child(const xmlNode* parent, const char* name) {
  for (const xmlNode* n = parent != nullptr ? parent->children : nullptr; n != nullptr;
       n = n->next) {
    if (named(n, name)) return n;
  }
  return nullptr;
}

const xmlNode* firstElement(const xmlNode* parent) {
  for (const xmlNode* n = parent != nullptr ? parent->children : nullptr; n != nullptr;
       n = n->next) {
    if (n->type == XML_ELEMENT_NODE) return n;
  }
  return nullptr;
}

std::string text(const xmlNode* node) {
  if (node == nullptr) return {};
  xmlChar* content = xmlNodeGetContent(node);
  std::string out = content != nullptr ? reinterpret_cast<const char*>(content) : "";
  xmlFree(content);
  return out;
}

bool isNil(const xmlNode* node) {
  for (const xmlAttr* a = node->properties; a != nullptr; a = a->next) {
    if (std::strcmp(reinterpret_cast<const char*>(a->name), "nil") == 0) {
      std::string value = text(a->children);
      return value == "true" || value == "1";
    }
  }
  return false;
}

std::string trim(std::string value) {
  auto first = value.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return {};
  auto last = value.find_last_not_of(" \t\r\n");
  return value.substr(first, last - first + 1);
}

const char* kEnvelopeStart =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?><soapenv:Envelope "
    "xmlns:soapenv=\"http://schemas.xmlsoap.org/soap/envelope/\" "
    "xmlns=\"urn:partner.soap.sforce.com\" "
    "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\"><soapenv:Body>";
const char* kEnvelopeEnd = "</soapenv:Body></soapenv:Envelope>";

void appendErrors(std::string& out, const std::vector<RecordError>& errors) {
  for (const auto& e : errors) {
    out += "<errors>";
    for (const auto& f : e.fields) out += "<fields>" + escape(f) + "</fields>";
    out += "<message>" + escape(e.message) + "</message>";
    out += "<statusCode>" + escape(e.statusCode) + "</statusCode>";
    out += "</errors>";
  }
}

}  // namespace

std::string escape(std::string_view value) {
  std::string out;
  for (char c : value) {
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

std::optional<Call> parse(std::string_view xml) {
  std::unique_ptr<xmlDoc, DocFree> doc(
      xmlReadMemory(xml.data(), static_cast<int>(xml.size()), "envelope.xml", "UTF-8",
                    XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
  if (!doc) return std::nullopt;
  const xmlNode* envelope = xmlDocGetRootElement(doc.get());
  if (!named(envelope, "Envelope")) return std::nullopt;
  Call call;
  if (const xmlNode* header = child(envelope, "Header")) {
    call.sessionId = trim(text(child(child(header, "SessionHeader"), "sessionId")));
  }
  const xmlNode* body = child(envelope, "Body");
  const xmlNode* operation = firstElement(body);
  if (operation == nullptr) return std::nullopt;
  call.operation = reinterpret_cast<const char*>(operation->name);
  for (const xmlNode* n = operation->children; n != nullptr; n = n->next) {
    if (call.operation == "merge" && named(n, "request")) {
      MergeRequest request;
      const xmlNode* master = child(n, "masterRecord");
      for (const xmlNode* f = master != nullptr ? master->children : nullptr; f != nullptr;
           f = f->next) {
        if (f->type != XML_ELEMENT_NODE) continue;
        std::string name = reinterpret_cast<const char*>(f->name);
        if (name == "type") {
          request.objectName = trim(text(f));
        } else if (name == "Id") {
          request.masterId = trim(text(f));
        } else if (name == "fieldsToNull") {
          request.fieldValues.emplace_back(trim(text(f)), std::nullopt);
        } else if (isNil(f)) {
          request.fieldValues.emplace_back(name, std::nullopt);
        } else {
          request.fieldValues.emplace_back(name, text(f));
        }
      }
      for (const xmlNode* id = n->children; id != nullptr; id = id->next) {
        if (named(id, "recordToMergeIds")) request.loserIds.push_back(trim(text(id)));
      }
      call.merges.push_back(std::move(request));
    } else if (call.operation == "undelete" && named(n, "ids")) {
      call.undeleteIds.push_back(trim(text(n)));
    }
  }
  return call;
}

std::string mergeResponse(const std::vector<MergeOutcome>& results) {
  std::string out = kEnvelopeStart;
  out += "<mergeResponse>";
  for (const auto& r : results) {
    out += "<result>";
    appendErrors(out, r.errors);
    out += "<id>" + escape(r.id) + "</id>";
    for (const auto& id : r.mergedRecordIds) out += "<mergedRecordIds>" + id + "</mergedRecordIds>";
    out += std::string("<success>") + (r.success ? "true" : "false") + "</success>";
    for (const auto& id : r.updatedRelatedIds) {
      out += "<updatedRelatedIds>" + id + "</updatedRelatedIds>";
    }
    out += "</result>";
  }
  out += "</mergeResponse>";
  return out + kEnvelopeEnd;
}

std::string undeleteResponse(const std::vector<SaveResult>& results) {
  std::string out = kEnvelopeStart;
  out += "<undeleteResponse>";
  for (const auto& r : results) {
    out += "<result>";
    appendErrors(out, r.errors);
    out += r.id.empty() ? "<id xsi:nil=\"true\"/>" : "<id>" + escape(r.id) + "</id>";
    out += std::string("<success>") + (r.success ? "true" : "false") + "</success>";
    out += "</result>";
  }
  out += "</undeleteResponse>";
  return out + kEnvelopeEnd;
}

std::string fault(const std::string& code, const std::string& message) {
  bool envelopeCode = code.find(':') != std::string::npos;
  std::string faultcode = envelopeCode ? code : "sf:" + code;
  std::string out =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?><soapenv:Envelope "
      "xmlns:soapenv=\"http://schemas.xmlsoap.org/soap/envelope/\" "
      "xmlns:sf=\"urn:fault.partner.soap.sforce.com\" "
      "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\"><soapenv:Body><soapenv:Fault>";
  out += "<faultcode>" + escape(faultcode) + "</faultcode>";
  std::string faultstring = envelopeCode ? message : code + ": " + message;
  out += "<faultstring>" + escape(faultstring) + "</faultstring>";
  if (!envelopeCode) {
    out += "<detail><sf:UnexpectedErrorFault xsi:type=\"sf:UnexpectedErrorFault\">";
    out += "<sf:exceptionCode>" + escape(code) + "</sf:exceptionCode>";
    out += "<sf:exceptionMessage>" + escape(message) + "</sf:exceptionMessage>";
    out += "</sf:UnexpectedErrorFault></detail>";
  }
  out += "</soapenv:Fault></soapenv:Body></soapenv:Envelope>";
  return out;
}

}  // namespace corvane::orgsim::Soap

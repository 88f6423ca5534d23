#include "dedupe/merge_runner.hpp"

#include <thread>

namespace corvane {

namespace {

void appendEscaped(std::string& out, std::string_view text) {
  for (char c : text) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      default: out.push_back(c);
    }
  }
}

std::string unescaped(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '&') {
      out.push_back(text[i]);
      continue;
    }
    std::size_t end = text.find(';', i);
    if (end == std::string_view::npos) {
      out.push_back('&');
      continue;
    }
    std::string_view entity = text.substr(i + 1, end - i - 1);
    if (entity == "amp") out.push_back('&');
    else if (entity == "lt") out.push_back('<');
    else if (entity == "gt") out.push_back('>');
    else if (entity == "quot") out.push_back('"');
    else if (entity == "apos") out.push_back('\'');
    else if (entity.size() > 1 && entity[0] == '#') {
      unsigned long code = entity[1] == 'x' || entity[1] == 'X'
                               ? std::strtoul(std::string(entity.substr(2)).c_str(), nullptr, 16)
                               : std::strtoul(std::string(entity.substr(1)).c_str(), nullptr, 10);
      if (code < 0x80) {
        out.push_back(static_cast<char>(code));
      } else if (code < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (code >> 6)));
        out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
      } else if (code < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (code >> 12)));
        out.push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
      } else {
        out.push_back(static_cast<char>(0xF0 | (code >> 18)));
        out.push_back(static_cast<char>(0x80 | ((code >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
      }
    } else {
      out.append(text.substr(i, end - i + 1));
    }
    i = end;
  }
  return out;
}

// The text of the first element with this local name (any prefix); none when
// there is none. Enough for the flat replies of the merge call.
std::optional<std::string> elementText(std::string_view xml, std::string_view localName) {
  std::size_t at = 0;
  while ((at = xml.find('<', at)) != std::string_view::npos) {
    std::size_t nameStart = at + 1;
    std::size_t nameEnd = xml.find_first_of(" \t\r\n/>", nameStart);
    if (nameEnd == std::string_view::npos) return std::nullopt;
    std::string_view name = xml.substr(nameStart, nameEnd - nameStart);
    std::size_t colon = name.find(':');
    std::string_view local = colon == std::string_view::npos ? name : name.substr(colon + 1);
    if (local == localName && !name.empty() && name[0] != '/') {
      std::size_t close = xml.find('>', nameEnd);
      if (close == std::string_view::npos) return std::nullopt;
      if (xml[close - 1] == '/') return std::string();
      std::string endTag = "</" + std::string(name) + ">";
      std::size_t end = xml.find(endTag, close + 1);
      if (end == std::string_view::npos) return std::nullopt;
      return unescaped(xml.substr(close + 1, end - close - 1));
    }
    at = nameEnd;
  }
  return std::nullopt;
}

bool isSessionCode(std::string_view code) {
  return code.rfind("SESSION_", 0) == 0 || code == "INVALID_SESSION_ID";
}

// The code at the start of a fault string ("INVALID_SESSION_ID: Invalid ...").
std::string_view leadingCode(std::string_view text) {
  std::size_t colon = text.find(':');
  return colon == std::string_view::npos ? text : text.substr(0, colon);
}

std::string sentence(std::string text) {
  while (!text.empty() && (text.back() == ' ' || text.back() == '\n')) text.pop_back();
  if (!text.empty() && text.back() != '.' && text.back() != '!' && text.back() != '?') {
    text.push_back('.');
  }
  return text;
}

}  // namespace

MergeRunner::MergeRunner(DedupeTransport& transport, std::string objectName)
    : MergeRunner(transport, std::move(objectName), Options()) {}

MergeRunner::MergeRunner(DedupeTransport& transport, std::string objectName, Options options)
    : transport_(transport), objectName_(std::move(objectName)), options_(std::move(options)) {
  if (!options_.sleep) {
    options_.sleep = [](std::chrono::milliseconds pause) { std::this_thread::sleep_for(pause); };
  }
}

const std::set<std::string, std::less<>>& MergeRunner::mergeableObjects() {
  static const std::set<std::string, std::less<>> objects = {"Account", "Contact", "Lead"};
  return objects;
}

std::string MergeRunner::soapBody(const PlannedMerge& merge, std::string_view objectName) {
  std::string out =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
      "<soapenv:Envelope xmlns:soapenv=\"http://schemas.xmlsoap.org/soap/envelope/\" "
      "xmlns:urn=\"urn:partner.soap.sforce.com\" "
      "xmlns:sf=\"urn:sobject.partner.soap.sforce.com\">"
      "<soapenv:Header><urn:SessionHeader><urn:sessionId>";
  out += sessionPlaceholder;
  out +=
      "</urn:sessionId></urn:SessionHeader></soapenv:Header><soapenv:Body><urn:merge>"
      "<urn:request><urn:masterRecord><sf:type>";
  appendEscaped(out, objectName);
  out += "</sf:type><sf:Id>";
  appendEscaped(out, merge.primary);
  out += "</sf:Id>";
  for (const auto& [field, value] : merge.fieldValues) {
    out += "<sf:" + field + ">";
    appendEscaped(out, value);
    out += "</sf:" + field + ">";
  }
  out += "</urn:masterRecord><urn:recordToMergeIds>";
  appendEscaped(out, merge.loser);
  out += "</urn:recordToMergeIds></urn:request></urn:merge></soapenv:Body></soapenv:Envelope>";
  return out;
}

std::optional<MergeRunner::Reply> MergeRunner::readReply(std::string_view xml) {
  Reply reply;
  if (auto fault = elementText(xml, "faultstring")) {
    reply.message = *fault;
    std::optional<std::string> code = elementText(xml, "exceptionCode");
    reply.statusCode = code ? *code : std::string(leadingCode(*fault));
    return reply;
  }
  std::optional<std::string> success = elementText(xml, "success");
  if (!success) return std::nullopt;
  reply.success = *success == "true";
  reply.statusCode = elementText(xml, "statusCode").value_or("");
  reply.message = elementText(xml, "message").value_or("");
  return reply;
}

std::string MergeRunner::noDetails() { return "Salesforce reported a failure without details."; }

std::string MergeRunner::notSupported() {
  return "This connection does not support merge operations.";
}

std::string MergeRunner::unknownOutcome(std::string_view reason) {
  return "The merge did not complete: " + sentence(std::string(reason)) +
         " Check these records in Salesforce before retrying \u2014 " +
         "the merge may have gone through.";
}

std::string MergeRunner::skippedAfterChosenValuesFailed() {
  return "Skipped: the merge carrying your chosen values failed for this group, so the rest of "
         "the group was left untouched for you to retry.";
}

std::string MergeRunner::notAttemptedSignedOut() {
  return "Not attempted: Salesforce signed you out before this merge.";
}

std::string MergeRunner::notAttemptedCancelled() {
  return "Not attempted: the run was stopped before this merge.";
}

std::vector<MergeRunner::MergeResult> MergeRunner::run(const std::vector<PlannedMerge>& merges,
                                                       const Progress& onProgress) {
  using Status = MergeResult::Status;
  signedOut_ = false;
  cancelled_ = false;
  std::vector<MergeResult> results;
  results.reserve(merges.size());
  std::set<std::int64_t> failedGroups;  // groups whose value-carrying merge failed
  bool unsupported = false;

  for (std::size_t i = 0; i < merges.size(); ++i) {
    const PlannedMerge& merge = merges[i];
    MergeResult result;
    result.index = i;
    result.primary = merge.primary;
    result.loser = merge.loser;

    if (signedOut_ || cancelled_) {
      result.status = Status::notAttempted;
      result.message = signedOut_ ? notAttemptedSignedOut() : notAttemptedCancelled();
    } else if (options_.shouldCancel && options_.shouldCancel()) {
      cancelled_ = true;
      result.status = Status::notAttempted;
      result.message = notAttemptedCancelled();
    } else if (unsupported) {
      result.status = Status::failed;
      result.message = notSupported();
    } else if (failedGroups.count(merge.groupId) > 0) {
      result.status = Status::skipped;
      result.message = skippedAfterChosenValuesFailed();
    } else {
      const std::string body =
          soapBody(merge, merge.object.empty() ? std::string_view(objectName_)
                                               : std::string_view(merge.object));
      std::chrono::milliseconds pause = options_.lockPause;
      for (int attempt = 1;; ++attempt) {
        std::optional<Reply> reply;
        std::string failure;
        bool noReply = false;
        try {
          reply = readReply(transport_.postSOAP("merge", body));
          if (!reply) failure = "Salesforce's reply could not be read.";
        } catch (const SOAPNotSupported&) {
          unsupported = true;
          result.status = Status::failed;
          result.message = notSupported();
          break;
        } catch (const std::exception& error) {
          TransportFailure seen = transport_.classify(error);
          // A SOAP fault arrives as a failed call whose words are the fault string.
          if (seen.signedOut || isSessionCode(leadingCode(seen.message)) ||
              isSessionCode(leadingCode(error.what()))) {
            signedOut_ = true;
          } else if (seen.httpStatus > 0 && !seen.message.empty()) {
            reply = Reply{false, std::string(leadingCode(seen.message)), seen.message};
          } else {
            noReply = true;
            failure = error.what();
          }
        }
        if (signedOut_) {
          result.status = Status::notAttempted;
          result.message = notAttemptedSignedOut();
          break;
        }
        if (!reply || noReply) {
          result.status = Status::unknown;
          result.message = unknownOutcome(failure);
          break;
        }
        if (reply->success) {
          result.status = Status::merged;
          result.success = true;
          break;
        }
        if (isSessionCode(reply->statusCode)) {
          signedOut_ = true;
          result.status = Status::notAttempted;
          result.message = notAttemptedSignedOut();
          break;
        }
        if (reply->statusCode == "UNABLE_TO_LOCK_ROW" && attempt < options_.lockAttempts) {
          options_.sleep(pause);
          pause *= 2;
          continue;
        }
        result.status = Status::failed;
        result.message = reply->message.empty() ? noDetails() : reply->message;
        break;
      }
      if ((result.status == Status::failed || result.status == Status::unknown) &&
          !merge.fieldValues.empty()) {
        failedGroups.insert(merge.groupId);
      }
    }
    results.push_back(std::move(result));
    if (onProgress) onProgress(i + 1, merges.size());
  }
  return results;
}

}  // namespace corvane

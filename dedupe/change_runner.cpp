#include "dedupe/delete_runner.hpp"

#include <map>
#include <thread>

#include <nlohmann/json.hpp>

#include "dedupe/merge_runner.hpp"

namespace corvane {

namespace {

std::string sentence(std::string text) {
  while (!text.empty() && (text.back() == ' ' || text.back() == '\n')) text.pop_back();
  if (!text.empty() && text.back() != '.' && text.back() != '!' && text.back() != '?') {
    text.push_back('.');
  }
  return text;
}

}  // namespace

DeleteRunner::DeleteRunner(DedupeTransport& transport) : DeleteRunner(transport, Options()) {}

DeleteRunner::DeleteRunner(DedupeTransport& transport, Options options)
    : transport_(transport), options_(std::move(options)) {
  if (!options_.sleep) {
    options_.sleep = [](std::chrono::milliseconds pause) { std::this_thread::sleep_for(pause); };
  }
  if (options_.batchSize == 0) options_.batchSize = 1;
}

std::string DeleteRunner::unknownOutcome(std::string_view reason) {
  return "The delete did not complete: " + sentence(std::string(reason)) +
         " Check these records in Salesforce before retrying \u2014 the delete may have gone "
         "through.";
}

std::string DeleteRunner::notAttemptedSignedOut() {
  return "Not attempted: Salesforce signed you out before this delete.";
}

std::string DeleteRunner::notAttemptedCancelled() {
  return "Not attempted: the run was stopped before this delete.";
}

std::vector<DeleteRunner::DeleteResult> DeleteRunner::run(const std::vector<PlannedChange>& deletes,
                                                          const Progress& onProgress) {
  using Status = DeleteResult::Status;
  signedOut_ = false;
  cancelled_ = false;
  std::vector<DeleteResult> results(deletes.size());
  for (std::size_t i = 0; i < deletes.size(); ++i) {
    results[i].sfid = deletes[i].sfid;
    results[i].groupId = deletes[i].groupId;
  }

  for (std::size_t start = 0; start < deletes.size(); start += options_.batchSize) {
    const std::size_t end = std::min(deletes.size(), start + options_.batchSize);
    if (!signedOut_ && !cancelled_ && options_.shouldCancel && options_.shouldCancel()) {
      cancelled_ = true;
    }
    if (signedOut_ || cancelled_) {
      for (std::size_t i = start; i < end; ++i) {
        results[i].message = signedOut_ ? notAttemptedSignedOut() : notAttemptedCancelled();
      }
      if (onProgress) onProgress(end, deletes.size());
      continue;
    }
    std::vector<std::size_t> pending;
    for (std::size_t i = start; i < end; ++i) pending.push_back(i);
    std::chrono::milliseconds pause = options_.lockPause;
    for (int attempt = 1; !pending.empty(); ++attempt) {
      std::string ids;
      for (std::size_t i : pending) ids += (ids.empty() ? "" : ",") + deletes[i].sfid;
      std::string body;
      try {
        body = transport_.send("DELETE", "composite/sobjects", {{"ids", ids}, {"allOrNone", "false"}},
                               std::nullopt);
      } catch (const std::exception& error) {
        TransportFailure seen = transport_.classify(error);
        if (seen.signedOut) {
          signedOut_ = true;
          for (std::size_t i : pending) results[i].message = notAttemptedSignedOut();
        } else if (seen.httpStatus > 0) {
          // Refused as a whole: nothing in the call was deleted.
          for (std::size_t i : pending) {
            results[i].status = Status::failed;
            results[i].message =
                seen.message.empty() ? MergeRunner::noDetails() : sentence(seen.message);
          }
        } else {
          for (std::size_t i : pending) {
            results[i].status = Status::unknown;
            results[i].message = unknownOutcome(error.what());
          }
        }
        break;
      }
      nlohmann::json reply = nlohmann::json::parse(body, nullptr, false);
      std::map<std::string, const nlohmann::json*> byId;
      if (reply.is_array()) {
        for (const auto& item : reply) {
          if (item.is_object() && item.contains("id") && item["id"].is_string()) {
            byId[item["id"].get<std::string>()] = &item;
          }
        }
      }
      std::vector<std::size_t> locked;
      for (std::size_t index = 0; index < pending.size(); ++index) {
        const std::size_t i = pending[index];
        DeleteResult& result = results[i];
        const nlohmann::json* item = nullptr;
        if (auto found = byId.find(deletes[i].sfid); found != byId.end()) {
          item = found->second;
        } else if (reply.is_array() && reply.size() == pending.size() && reply[index].is_object()) {
          item = &reply[index];  // results come in the order of the ids
        }
        if (!item || !item->contains("success")) {
          result.status = Status::unknown;
          result.message = unknownOutcome("Salesforce's reply could not be read.");
          continue;
        }
        if (item->value("success", false)) {
          result.status = Status::deleted;
          result.success = true;
          continue;
        }
        std::string code;
        std::string message;
        if (const auto errors = item->value("errors", nlohmann::json::array());
            errors.is_array() && !errors.empty() && errors[0].is_object()) {
          code = errors[0].value("statusCode", "");
          message = errors[0].value("message", "");
        }
        if (code == "UNABLE_TO_LOCK_ROW" && attempt < options_.lockAttempts) {
          locked.push_back(i);
          continue;
        }
        result.status = Status::failed;
        result.message = message.empty() ? MergeRunner::noDetails() : message;
      }
      pending = std::move(locked);
      if (!pending.empty()) {
        options_.sleep(pause);
        pause *= 2;
      }
    }
    if (onProgress) onProgress(end, deletes.size());
  }
  return results;
}

}  // namespace corvane

#include "dedupe/change_runner.hpp"

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

ChangeRunner::ChangeRunner(DedupeTransport& transport) : ChangeRunner(transport, Options()) {}

ChangeRunner::ChangeRunner(DedupeTransport& transport, Options options)
    : transport_(transport), options_(std::move(options)) {
  if (!options_.sleep) {
    options_.sleep = [](std::chrono::milliseconds pause) { std::this_thread::sleep_for(pause); };
  }
  if (options_.batchSize == 0) options_.batchSize = 1;
}

std::string ChangeRunner::unknownOutcome(std::string_view reason) {
  return "The change did not complete: " + sentence(std::string(reason)) +
         " Check these records in Salesforce before retrying \u2014 the change may have gone "
         "through.";
}

std::string ChangeRunner::notAttemptedSignedOut() {
  return "Not attempted: Salesforce signed you out before this change.";
}

std::string ChangeRunner::notAttemptedCancelled() {
  return "Not attempted: the run was stopped before this change.";
}

std::vector<ChangeRunner::ChangeResult> ChangeRunner::deleteRecords(
    const std::vector<PlannedChange>& deletes, const Progress& onProgress) {
  return run(
      deletes,
      [this](const std::vector<const PlannedChange*>& batch) {
        std::string ids;
        for (const PlannedChange* change : batch) ids += (ids.empty() ? "" : ",") + change->sfid;
        return transport_.send("DELETE", "composite/sobjects",
                               {{"ids", ids}, {"allOrNone", "false"}}, std::nullopt);
      },
      onProgress);
}

std::vector<ChangeRunner::ChangeResult> ChangeRunner::updateRecords(
    const std::vector<PlannedChange>& updates, const Progress& onProgress) {
  return run(
      updates,
      [this](const std::vector<const PlannedChange*>& batch) {
        nlohmann::json records = nlohmann::json::array();
        for (const PlannedChange* change : batch) {
          nlohmann::json record = {{"attributes", {{"type", change->object}}}, {"id", change->sfid}};
          for (const auto& [field, value] : change->fields) record[field] = value;
          records.push_back(std::move(record));
        }
        return transport_.send("PATCH", "composite/sobjects", {},
                               nlohmann::json{{"allOrNone", false}, {"records", records}}.dump());
      },
      onProgress);
}

std::vector<ChangeRunner::ChangeResult> ChangeRunner::run(const std::vector<PlannedChange>& changes,
                                                          const Send& send,
                                                          const Progress& onProgress) {
  using Status = ChangeResult::Status;
  signedOut_ = false;
  cancelled_ = false;
  std::vector<ChangeResult> results(changes.size());
  for (std::size_t i = 0; i < changes.size(); ++i) {
    results[i].sfid = changes[i].sfid;
    results[i].groupId = changes[i].groupId;
  }

  for (std::size_t start = 0; start < changes.size(); start += options_.batchSize) {
    const std::size_t end = std::min(changes.size(), start + options_.batchSize);
    if (!signedOut_ && !cancelled_ && options_.shouldCancel && options_.shouldCancel()) {
      cancelled_ = true;
    }
    if (signedOut_ || cancelled_) {
      for (std::size_t i = start; i < end; ++i) {
        results[i].message = signedOut_ ? notAttemptedSignedOut() : notAttemptedCancelled();
      }
      if (onProgress) onProgress(end, changes.size());
      continue;
    }
    std::vector<std::size_t> pending;
    for (std::size_t i = start; i < end; ++i) pending.push_back(i);
    std::chrono::milliseconds pause = options_.lockPause;
    for (int attempt = 1; !pending.empty(); ++attempt) {
      std::vector<const PlannedChange*> batch;
      for (std::size_t i : pending) batch.push_back(&changes[i]);
      std::string body;
      try {
        body = send(batch);
      } catch (const std::exception& error) {
        TransportFailure seen = transport_.classify(error);
        if (seen.signedOut) {
          signedOut_ = true;
          for (std::size_t i : pending) results[i].message = notAttemptedSignedOut();
        } else if (seen.httpStatus > 0) {
          // Refused as a whole: nothing in the call was changed.
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
        ChangeResult& result = results[i];
        const nlohmann::json* item = nullptr;
        if (auto found = byId.find(changes[i].sfid); found != byId.end()) {
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
          result.status = Status::done;
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
    if (onProgress) onProgress(end, changes.size());
  }
  return results;
}

}  // namespace corvane

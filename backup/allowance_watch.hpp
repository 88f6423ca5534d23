// Keeps an eye on the org's daily API allowance during a run.
//
// Salesforce counts every request of every integration against one daily
// allowance; a backup must leave a share of it to the org's other users. The
// watch reads the allowance (one request) at the first ask and again whenever
// `every` more requests have been made since the last reading, and says
// whether what remains is below the share to leave. Thread-safe.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>

#include "connections/api_allowance.hpp"
#include "connections/dedupe_transport.hpp"

namespace corvane {

class AllowanceWatch {
 public:
  // requestsMade: the run's request count so far.
  AllowanceWatch(DedupeTransport& transport, std::function<std::int64_t()> requestsMade, int every,
                 double minimumRemaining);

  // Reads the allowance when a reading is due and tells whether it is low. An
  // allowance that cannot be read is not low (the run goes on; Salesforce
  // refuses requests itself when nothing is left). Once low, stays low.
  bool isLow();
  // Counts the allowance as spent: Salesforce refused a request for it.
  void markSpent();
  // The last reading, if any.
  std::optional<ApiAllowance> last() const;

 private:
  DedupeTransport& transport_;
  std::function<std::int64_t()> requestsMade_;
  int every_;
  double minimumRemaining_;
  mutable std::mutex mutex_;  // guards everything below
  std::optional<std::int64_t> readAt_;
  std::optional<ApiAllowance> last_;
  bool low_ = false;
};

}  // namespace corvane

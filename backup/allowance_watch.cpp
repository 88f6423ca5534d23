#include "backup/allowance_watch.hpp"

#include <utility>

namespace corvane {

AllowanceWatch::AllowanceWatch(DedupeTransport& transport,
                               std::function<std::int64_t()> requestsMade, int every,
                               double minimumRemaining)
    : transport_(transport),
      requestsMade_(std::move(requestsMade)),
      every_(every < 1 ? 1 : every),
      minimumRemaining_(minimumRemaining) {}

bool AllowanceWatch::isLow() {
  std::lock_guard guard(mutex_);
  if (low_) return true;
  const std::int64_t made = requestsMade_();
  if (readAt_ && made - *readAt_ < every_) return false;
  readAt_ = made;
  try {
    last_ = ApiAllowance::ready(transport_);
    low_ = last_->isBelow(minimumRemaining_);
  } catch (const std::exception& error) {
    // A refusal because the allowance is spent is itself the answer.
    const auto failure = transport_.classify(error);
    if (failure.message.find("Limit exceeded") != std::string::npos) low_ = true;
  }
  return low_;
}

void AllowanceWatch::markSpent() {
  std::lock_guard guard(mutex_);
  low_ = true;
}

std::optional<ApiAllowance> AllowanceWatch::last() const {
  std::lock_guard guard(mutex_);
  return last_;
}

}  // namespace corvane

#include "health/txt_resolver.hpp"

#include <ares.h>
#include <arpa/nameser.h>
#include <sys/select.h>

#include <algorithm>
#include <memory>
#include <mutex>

namespace corvane {

namespace {

void initialiseLibrary() {
  static std::once_flag once;
  std::call_once(once, [] { ares_library_init(ARES_LIB_INIT_ALL); });
}

struct Lookup {
  bool done = false;
  TXTAnswer answer;
};

void onAnswer(void* arg, int status, int /*timeouts*/, unsigned char* buffer, int length) {
  auto* lookup = static_cast<Lookup*>(arg);
  lookup->done = true;
  TXTAnswer& answer = lookup->answer;
  if (status == ARES_ENODATA || status == ARES_ENOTFOUND) {
    answer.status = TXTAnswer::Status::noRecord;
    return;
  }
  if (status != ARES_SUCCESS) {
    answer.status = TXTAnswer::Status::failed;
    answer.reason = ares_strerror(status);
    return;
  }
  ares_txt_ext* records = nullptr;
  const int parsed = ares_parse_txt_reply_ext(buffer, length, &records);
  if (parsed == ARES_ENODATA) {
    answer.status = TXTAnswer::Status::noRecord;
    return;
  }
  if (parsed != ARES_SUCCESS) {
    answer.status = TXTAnswer::Status::failed;
    answer.reason = ares_strerror(parsed);
    return;
  }
  // A record of several strings arrives as several entries; record_start marks
  // the first of each record.
  for (ares_txt_ext* at = records; at != nullptr; at = at->next) {
    std::string piece(reinterpret_cast<const char*>(at->txt), at->length);
    if (at->record_start || answer.texts.empty()) {
      answer.texts.push_back(std::move(piece));
    } else {
      answer.texts.back() += piece;
    }
  }
  ares_free_data(records);
  answer.status = answer.texts.empty() ? TXTAnswer::Status::noRecord : TXTAnswer::Status::found;
}

struct ChannelCloser {
  void operator()(ares_channel channel) const { ares_destroy(channel); }
};

}  // namespace

TXTResolver::TXTResolver(Options options) : options_(std::move(options)) {}

TXTAnswer TXTResolver::lookup(const std::string& name) const {
  initialiseLibrary();
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + options_.timeout;

  Lookup lookup;  // outlives the channel, whose destruction may still report to it
  ares_options settings{};
  int mask = ARES_OPT_TIMEOUTMS | ARES_OPT_TRIES | ARES_OPT_FLAGS;
  // Two tries, each with half of the time limit.
  settings.timeout = static_cast<int>(std::max<std::int64_t>(options_.timeout.count() / 2, 1));
  settings.tries = 2;
  settings.flags = ARES_FLAG_NOSEARCH;
  ares_channel raw = nullptr;
  int status = ares_init_options(&raw, &settings, mask);
  if (status != ARES_SUCCESS) {
    return {TXTAnswer::Status::failed, {}, ares_strerror(status)};
  }
  std::unique_ptr<std::remove_pointer_t<ares_channel>, ChannelCloser> channel(raw);
  if (!options_.server.empty()) {
    status = ares_set_servers_ports_csv(channel.get(), options_.server.c_str());
    if (status != ARES_SUCCESS) {
      return {
          TXTAnswer::Status::failed, {}, "the DNS server \"" + options_.server + "\" is not valid"};
    }
  }

  ares_query(channel.get(), name.c_str(), ns_c_in, ns_t_txt, onAnswer, &lookup);
  while (!lookup.done) {
    const auto now = Clock::now();
    if (now >= deadline) {
      ares_cancel(channel.get());  // calls onAnswer with ARES_ECANCELLED
      return {TXTAnswer::Status::failed, {}, "no answer within the time limit"};
    }
    fd_set readers;
    fd_set writers;
    FD_ZERO(&readers);
    FD_ZERO(&writers);
    const int count = ares_fds(channel.get(), &readers, &writers);
    if (count == 0) break;
    auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - now);
    timeval cap{static_cast<time_t>(left.count() / 1'000'000),
                static_cast<suseconds_t>(left.count() % 1'000'000)};
    timeval wait{};
    timeval* waitFor = ares_timeout(channel.get(), &cap, &wait);
    select(count, &readers, &writers, nullptr, waitFor);
    ares_process(channel.get(), &readers, &writers);
  }
  if (!lookup.done) return {TXTAnswer::Status::failed, {}, "the resolver gave up"};
  return lookup.answer;
}

}  // namespace corvane

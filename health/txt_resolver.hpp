// DNS TXT lookups through c-ares, with a hard time limit.
//
// Each lookup runs on its own resolver channel and returns within the time
// limit whatever the server does: an answer, a plain "no such record", or a
// failure with the resolver's reason. Thread-safe: lookups share no state.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace corvane {

struct TXTAnswer {
  enum class Status {
    found,     // the name has TXT records (texts holds them)
    noRecord,  // the name does not exist, or has no TXT record
    failed,    // no usable answer: time-out, refusal, server failure
  };
  Status status = Status::failed;
  // Each record's strings joined, as SPF and DKIM read them.
  std::vector<std::string> texts;
  std::string reason;  // for failed: the resolver's words
};

class TXTResolver {
 public:
  struct Options {
    // "host:port" of the DNS server to ask; empty: the system's resolvers.
    std::string server;
    // The whole lookup, retries included.
    std::chrono::milliseconds timeout{5'000};
  };

  explicit TXTResolver(Options options);

  TXTAnswer lookup(const std::string& name) const;

 private:
  Options options_;
};

}  // namespace corvane

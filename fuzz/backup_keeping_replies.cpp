// Feeds any bytes to the readers of Salesforce's answers about deletions. The
// first byte chooses the reader; the rest is the answer. A reader may refuse
// an answer (its typed error), never crash or hang.
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "backup/deletion_finder.hpp"
#include "backup/recycle_bin.hpp"

namespace {

// Answers every call with the same body.
class FixedTransport : public corvane::DedupeTransport {
 public:
  explicit FixedTransport(std::string body) : body_(std::move(body)) {}
  std::string send(const std::string&, const std::string&, const corvane::QueryItems&,
                   const std::optional<std::string>&) override {
    // A nextRecordsUrl would be followed for ever with a fixed answer.
    if (++calls_ > 3) return R"({"records":[]})";
    return body_;
  }
  std::pair<std::string, corvane::ResponseHeaders> getRaw(const std::string&,
                                                          const corvane::QueryItems&,
                                                          const std::string&) override {
    return {body_, {}};
  }
  std::string postSOAP(const std::string&, const std::string&) override { return body_; }

 private:
  std::string body_;
  int calls_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::string body(reinterpret_cast<const char*>(data) + 1, size - 1);
  try {
    switch (data[0] % 3) {
      case 0:
        corvane::DeletionFinder::parseAnswer(body);
        break;
      case 1:
        corvane::RecycleBin::parseUndelete(body, 2);
        break;
      default: {
        FixedTransport transport(body);
        corvane::RecycleBin bin(transport);
        bin.putBack("Account", {"001000000000001AAA", "001000000000002"});
      }
    }
  } catch (const std::invalid_argument&) {
  } catch (const corvane::RecycleBinError&) {
  }
  return 0;
}

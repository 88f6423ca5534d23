// Fetches the extra fields of the records that turned out to be in duplicate
// groups, when the download left them out: only duplicates are fetched; the
// other records need nothing. Reads by Id over REST, a chunk at a time, and
// stores each chunk with RecordStore::enrich before asking for the next.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "dedupe/record_store.hpp"
#include "connections/dedupe_transport.hpp"

namespace corvane {

class SnapshotEnricher {
 public:
  // One object's records and, per extra slot, the field that fills it (empty
  // where the object has none).
  struct Ask {
    std::string object;
    std::vector<std::string> sources;
    std::vector<std::pair<Rid, std::string>> records;  // rid and sfid
  };

  static constexpr const char* progressText =
      "Fetching your chosen fields for the records in groups\u2026";
  static constexpr const char* explanation =
      "Only duplicates are fetched; the other records need nothing.";

  // done and total count records.
  using Progress = std::function<void(std::int64_t done, std::int64_t total)>;

  explicit SnapshotEnricher(DedupeTransport& transport, std::size_t chunkSize = 200)
      : transport_(transport), chunkSize_(chunkSize) {}

  // Fetches and stores every ask, object by object. Returns false when
  // shouldCancel stopped it (what was stored stays). Throws the transport's
  // error, or DownloadError::unreadableReply for a reply it cannot read.
  bool enrich(RecordStore& store, const std::vector<Ask>& asks, const Progress& progress,
              const std::function<bool()>& shouldCancel);

  // SELECT Id, <sources> FROM <object> WHERE Id IN ('…', …)
  static std::string soql(const Ask& ask, const std::vector<std::string>& ids);

 private:
  DedupeTransport& transport_;
  std::size_t chunkSize_;
};

}  // namespace corvane

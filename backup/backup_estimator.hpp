// Whether a copy fits on the backup disk, judged before any record is read.
//
// The estimate is deliberately rough (8 bytes a field plus 40 a row, as CSV
// text), with a low and a high bound; the verdict compares the bounds, plus the
// space that must stay free, with the free space of the disk.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "connections/dedupe_transport.hpp"

namespace corvane::BackupEstimator {

enum class Verdict { fits, tight, willNotFit };
std::string toText(Verdict verdict);  // "fits", "tight", "willNotFit"

struct Estimate {
  std::int64_t recordBytes = 0;
  std::int64_t fileBytes = 0;
  std::int64_t low = 0;
  std::int64_t expected = 0;
  std::int64_t high = 0;
  std::int64_t free = 0;
  Verdict verdict = Verdict::fits;
  bool operator==(const Estimate&) const = default;
};

// One object's share: its record count (negative = unknown, counted as 0) and
// how many fields a row has.
struct ObjectSize {
  std::int64_t count = 0;
  int fieldCount = 0;
};

// 8 x max(fieldCount, 1) + 40.
std::int64_t bytesPerRow(int fieldCount);

// willNotFit when free < expected + floor; tight when free < high + floor;
// otherwise fits. Negative counts and file bytes count as 0.
Estimate estimate(const std::vector<ObjectSize>& records, std::int64_t fileBytes, std::int64_t free,
                  std::int64_t floor);

// Record counts per object as Salesforce reports them ("/limits/recordCount";
// the counts are Salesforce's own and may lag a little). Throws
// BackupError::badResponse on an answer that cannot be read, and passes the
// transport's failures on.
std::map<std::string, std::int64_t> recordCounts(DedupeTransport& transport);
// The same for these objects only (asked 100 names at a time); objects
// Salesforce does not report are absent.
std::map<std::string, std::int64_t> recordCounts(DedupeTransport& transport,
                                                 const std::vector<std::string>& objects);

// The bytes of every document body (ContentVersion, only the latest versions
// when latestOnly) and attachment body. An object the org will not sum counts
// as 0: the estimate is a guide, and the run still watches the free space.
std::int64_t fileBytes(DedupeTransport& transport, bool latestOnly);

// The summed value ("expr0") of an aggregate query answer; 0 when the sum is
// null (no rows), none when the answer cannot be read.
std::optional<std::int64_t> sumValue(std::string_view data);

}  // namespace corvane::BackupEstimator

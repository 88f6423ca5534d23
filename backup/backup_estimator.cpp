#include "backup/backup_estimator.hpp"

#include <algorithm>
#include <charconv>
#include <exception>

#include <nlohmann/json.hpp>

#include "backup/backup_error.hpp"
#include "connections/json_literal.hpp"
#include "connections/rest_page.hpp"

namespace corvane::BackupEstimator {

std::string toText(Verdict verdict) {
  switch (verdict) {
    case Verdict::fits:
      return "fits";
    case Verdict::tight:
      return "tight";
    case Verdict::willNotFit:
      return "willNotFit";
  }
  return "fits";
}

std::int64_t bytesPerRow(int fieldCount) {
  return 8 * static_cast<std::int64_t>(std::max(fieldCount, 1)) + 40;
}

Estimate estimate(const std::vector<ObjectSize>& records, std::int64_t fileBytes, std::int64_t free,
                  std::int64_t floor) {
  Estimate result;
  for (const auto& object : records)
    result.recordBytes += std::max<std::int64_t>(object.count, 0) * bytesPerRow(object.fieldCount);
  result.fileBytes = std::max<std::int64_t>(fileBytes, 0);
  result.low = result.recordBytes / 2 + result.fileBytes;
  result.expected = result.recordBytes + result.fileBytes;
  result.high = 2 * result.recordBytes + result.fileBytes;
  result.free = free;
  if (free < result.expected + floor)
    result.verdict = Verdict::willNotFit;
  else if (free < result.high + floor)
    result.verdict = Verdict::tight;
  else
    result.verdict = Verdict::fits;
  return result;
}

namespace {

void readCounts(const std::string& body, std::map<std::string, std::int64_t>& counts) {
  try {
    const auto json = nlohmann::json::parse(body);
    for (const auto& entry : json.at("sObjects"))
      counts[entry.at("name").get<std::string>()] = entry.at("count").get<std::int64_t>();
  } catch (const nlohmann::json::exception&) {
    throw BackupError::badResponse("the org's record counts");
  }
}

}  // namespace

std::map<std::string, std::int64_t> recordCounts(DedupeTransport& transport) {
  std::map<std::string, std::int64_t> counts;
  readCounts(transport.send("GET", "/limits/recordCount", {}, std::nullopt), counts);
  return counts;
}

std::map<std::string, std::int64_t> recordCounts(DedupeTransport& transport,
                                                 const std::vector<std::string>& objects) {
  std::map<std::string, std::int64_t> counts;
  constexpr std::size_t perRequest = 100;
  for (std::size_t start = 0; start < objects.size(); start += perRequest) {
    std::string names;
    for (std::size_t i = start; i < std::min(objects.size(), start + perRequest); ++i) {
      if (!names.empty()) names += ',';
      names += objects[i];
    }
    readCounts(transport.send("GET", "/limits/recordCount", {{"sObjects", names}}, std::nullopt),
               counts);
  }
  return counts;
}

std::optional<std::int64_t> sumValue(std::string_view data) {
  try {
    const auto answer = JSONLiteral::parse(data);
    const auto* records = answer.find("records");
    if (records == nullptr || records->asArray() == nullptr) return std::nullopt;
    if (records->asArray()->empty()) return 0;
    const auto* value = records->asArray()->front().find("expr0");
    if (value == nullptr || value->isNull()) return 0;
    const auto* number = value->asNumber();
    if (number == nullptr) return std::nullopt;
    // "1.2345E7" and "12345.0" are both 12345 bytes and more.
    const std::string plain = RestPage::bulkNumber(number->text);
    const std::string whole = plain.substr(0, plain.find('.'));
    std::int64_t sum = 0;
    auto [end, error] = std::from_chars(whole.data(), whole.data() + whole.size(), sum);
    if (error != std::errc() || end != whole.data() + whole.size()) return std::nullopt;
    return sum;
  } catch (const JSONLiteral::Malformed&) {
    return std::nullopt;
  }
}

std::int64_t fileBytes(DedupeTransport& transport, bool latestOnly) {
  const std::string versions =
      latestOnly ? "SELECT SUM(ContentSize) FROM ContentVersion WHERE IsLatest = true"
                 : "SELECT SUM(ContentSize) FROM ContentVersion";
  std::int64_t total = 0;
  for (const auto& soql : {versions, std::string("SELECT SUM(BodyLength) FROM Attachment")}) {
    try {
      total += sumValue(transport.send("GET", "/query", {{"q", soql}}, std::nullopt)).value_or(0);
    } catch (const std::exception&) {
      // Not readable in this org (no permission, no such object): counts as 0.
    }
  }
  return total;
}

}  // namespace corvane::BackupEstimator

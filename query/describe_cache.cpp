#include "query/describe_cache.hpp"

#include <sys/stat.h>

#include <algorithm>

#include "platform/durable_file.hpp"
#include "platform/file_error.hpp"

namespace corvane {

namespace {

std::string lowercased(std::string text) {
  for (char& c : text)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return text;
}

}  // namespace

DescribeCache::DescribeCache(std::filesystem::path folder, const std::string& username,
                             Source source, std::chrono::seconds maxAge,
                             std::function<SystemTime()> now)
    : folder_(std::move(folder) / safeName(lowercased(username))),
      source_(std::move(source)),
      maxAge_(maxAge),
      now_(std::move(now)) {}

std::string DescribeCache::safeName(std::string_view text) {
  static const char* hex = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    auto c = static_cast<unsigned char>(text[i]);
    bool plain = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                 c == '_' || c == '@' || c == '-' || (c == '.' && i > 0);
    if (plain) {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += hex[c >> 4];
      out += hex[c & 15];
    }
  }
  if (out.empty()) out = "%";
  return out;
}

nlohmann::json DescribeCache::load(const std::filesystem::path& file,
                                   const std::function<nlohmann::json()>& fetch) {
  const bool fetchedHere =
      std::find(refreshed_.begin(), refreshed_.end(), file) != refreshed_.end();
  if (!refresh_ || fetchedHere) {
    try {
      if (auto text = Durable::readWhole(file)) {
        auto cached = nlohmann::json::parse(*text, nullptr, false);
        if (cached.is_object() && cached.contains("data") && cached["fetchedAt"].is_string()) {
          auto fetchedAt = IsoTime::parsePlain(cached["fetchedAt"].get<std::string>());
          if (fetchedAt && *fetchedAt <= now_() && now_() - *fetchedAt < maxAge_)
            return cached["data"];
        }
      }
    } catch (const FileError&) {
      // An unreadable entry is only a cache miss.
    }
  }
  nlohmann::json data = fetch();
  std::error_code error;
  std::filesystem::create_directories(folder_, error);
  ::chmod(folder_.parent_path().c_str(), 0700);
  ::chmod(folder_.c_str(), 0700);
  nlohmann::json entry = {{"fetchedAt", IsoTime::formatPlain(now_())}, {"data", data}};
  try {
    Durable::replace(file, entry.dump(2) + "\n", 0600);
  } catch (const FileError&) {
    // Completion works without the cache, only more slowly.
  }
  refreshed_.push_back(file);
  return data;
}

std::vector<SObjectSummary> DescribeCache::objects() {
  auto data = load(folder_ / "objects.json", [this] {
    return SObjectDescribe::toJSON(SObjectDescribe::summaries(source_.globalDescribe()));
  });
  return SObjectDescribe::summaries(data);
}

std::vector<SObjectField> DescribeCache::fields(const std::string& object) {
  auto data = load(folder_ / ("fields " + safeName(lowercased(object)) + ".json"), [&] {
    nlohmann::json reply = source_.describe(object);
    if (reply.is_null()) return nlohmann::json::array();
    return SObjectDescribe::toJSON(SObjectDescribe::fields(reply));
  });
  return SObjectDescribe::fields(data);
}

}  // namespace corvane

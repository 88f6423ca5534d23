#include "backup/safe_file_name.hpp"

#include <utf8proc.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>
#include <memory>

namespace corvane::SafeFileName {

namespace {

// Names Windows (and so FAT and exFAT disks, and whoever opens the backup
// there) reserves for devices, with or without an extension.
constexpr std::array<std::string_view, 22> reservedNames{
    "CON",  "PRN",  "AUX",  "NUL",  "COM1", "COM2", "COM3", "COM4", "COM5", "COM6", "COM7",
    "COM8", "COM9", "LPT1", "LPT2", "LPT3", "LPT4", "LPT5", "LPT6", "LPT7", "LPT8", "LPT9"};

bool isReserved(std::string_view name) {
  const auto stem = name.substr(0, name.find('.'));
  return std::any_of(reservedNames.begin(), reservedNames.end(), [&](std::string_view reserved) {
    return stem.size() == reserved.size() &&
           std::equal(stem.begin(), stem.end(), reserved.begin(), [](char a, char b) {
             return std::toupper(static_cast<unsigned char>(a)) == b;
           });
  });
}

// Valid UTF-8 in normal form C; bytes that do not decode become "_".
std::string normalized(std::string_view text) {
  std::string valid;
  valid.reserve(text.size());
  std::size_t at = 0;
  while (at < text.size()) {
    utf8proc_int32_t codepoint = 0;
    const auto length =
        utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(text.data() + at),
                         static_cast<utf8proc_ssize_t>(text.size() - at), &codepoint);
    if (length <= 0) {
      valid += '_';
      ++at;
      continue;
    }
    valid.append(text.substr(at, static_cast<std::size_t>(length)));
    at += static_cast<std::size_t>(length);
  }
  std::unique_ptr<utf8proc_uint8_t, decltype(&std::free)> composed(
      utf8proc_NFC(reinterpret_cast<const utf8proc_uint8_t*>(valid.c_str())), &std::free);
  return composed ? std::string(reinterpret_cast<const char*>(composed.get())) : valid;
}

bool isUnsafe(utf8proc_int32_t codepoint) {
  if (codepoint < 0x20 || codepoint == 0x7f) return true;
  switch (codepoint) {
    case '/':
    case '\\':
    case ':':
    case '*':
    case '?':
    case '"':
    case '<':
    case '>':
    case '|':
      return true;
    default:
      break;
  }
  // Other control, format (bidirectional overrides) and separator characters
  // besides the plain space.
  const auto category = utf8proc_category(codepoint);
  return category == UTF8PROC_CATEGORY_CC || category == UTF8PROC_CATEGORY_CF ||
         category == UTF8PROC_CATEGORY_ZL || category == UTF8PROC_CATEGORY_ZP ||
         category == UTF8PROC_CATEGORY_CS || category == UTF8PROC_CATEGORY_CO;
}

// The longest prefix of at most maximum bytes that ends at a character boundary.
std::string_view cut(std::string_view text, std::size_t maximum) {
  if (text.size() <= maximum) return text;
  std::size_t end = maximum;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
  return text.substr(0, end);
}

std::string trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(" .");
  if (first == std::string_view::npos) return {};
  const auto last = text.find_last_not_of(" .");
  return std::string(text.substr(first, last - first + 1));
}

bool endsWithNoCase(std::string_view text, std::string_view tail) {
  return text.size() >= tail.size() &&
         std::equal(tail.rbegin(), tail.rend(), text.rbegin(), [](char a, char b) {
           return std::tolower(static_cast<unsigned char>(a)) ==
                  std::tolower(static_cast<unsigned char>(b));
         });
}

}  // namespace

std::string clean(std::string_view text, std::size_t maximum) {
  const std::string composed = normalized(text);
  std::string out;
  out.reserve(composed.size());
  std::size_t at = 0;
  while (at < composed.size()) {
    utf8proc_int32_t codepoint = 0;
    const auto length =
        utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(composed.data() + at),
                         static_cast<utf8proc_ssize_t>(composed.size() - at), &codepoint);
    const auto step = static_cast<std::size_t>(std::max<utf8proc_ssize_t>(length, 1));
    if (length <= 0 || isUnsafe(codepoint))
      out += '_';
    else
      out.append(composed, at, step);
    at += step;
  }
  out = trimmed(cut(trimmed(out), maximum));
  if (isReserved(out)) out.insert(0, "_");
  return std::string(cut(out, maximum));
}

std::string forBody(std::string_view id, std::string_view title, std::string_view extension) {
  // The extension is kept whole even when a long title must be cut.
  if (extension.empty()) {
    const auto dot = title.rfind('.');
    if (dot != std::string_view::npos && dot > 0 && title.size() - dot - 1 <= 10 &&
        title.substr(dot + 1).find(' ') == std::string_view::npos)
      extension = title.substr(dot + 1);
  }
  const std::string safeExtension = clean(extension, 20);
  if (!safeExtension.empty() && endsWithNoCase(title, "." + std::string(extension)))
    title.remove_suffix(extension.size() + 1);
  const std::string tail = safeExtension.empty() ? std::string() : "." + safeExtension;
  const std::string safeId = clean(id, 40);
  const std::size_t room = maximumBytes - safeId.size() - 1 - tail.size();
  const std::string name = clean(title, room);
  std::string out = safeId.empty() ? std::string("file") : safeId;
  if (!name.empty()) out += " " + name;
  return out + tail;
}

}  // namespace corvane::SafeFileName

#include "tools/orgsim/generate/file_bodies.hpp"

#include "tools/orgsim/generate/free_text.hpp"
#include "tools/orgsim/generate/word_lists.hpp"

namespace corvane::orgsim::FileBodies {

namespace {

constexpr FileKind kKinds[] = {
    {"txt", "TEXT", "text/plain", false},
    {"csv", "CSV", "text/csv", false},
    {"json", "JSON", "application/json", false},
    {"pdf", "PDF", "application/pdf", true},
    {"png", "PNG", "image/png", true},
    {"docx", "WORD_X", "application/vnd.openxmlformats-officedocument.wordprocessingml.document",
     true},
};

std::size_t bodySize(RandomSource& random) {
  if (random.chance(0.9)) return static_cast<std::size_t>(random.between(100, 8 * 1024));
  return static_cast<std::size_t>(random.between(8 * 1024, 96 * 1024));
}

void appendRandomBytes(std::string& out, std::size_t count, RandomSource& random) {
  while (count > 0) {
    std::uint64_t word = random.next();
    for (int i = 0; i < 8 && count > 0; ++i, --count) {
      out += static_cast<char>(word & 0xff);
      word >>= 8;
    }
  }
}

std::string textBody(std::size_t size, RandomSource& random) {
  std::string out;
  while (out.size() < size) {
    out += FreeText::note(random, 2000);
    out += "\n";
  }
  return FreeText::truncated(std::move(out), size);
}

std::string csvBody(std::size_t size, RandomSource& random) {
  std::string out = "Name,Amount,Note\r\n";
  while (out.size() < size) {
    out.append("\"").append(random.pick(WordLists::companyStems())).append("\"");
    // Quotes inside a quoted value are doubled, as CSV wants.
    out.append(",").append(FreeText::decimal(random, 8, 2));
    out.append(",\"said \"\"ok\"\", then left\"\r\n");
  }
  return out;
}

std::string jsonBody(std::size_t size, RandomSource& random) {
  std::string out = "{\"items\": [";
  bool first = true;
  while (out.size() + 64 < size) {
    if (!first) out += ", ";
    first = false;
    out += "{\"word\": \"" + std::string(random.pick(WordLists::words())) +
           "\", \"n\": " + std::to_string(random.between(0, 1000000)) + "}";
  }
  out += "], \"note\": \"caf\\u00e9 \\\"quoted\\\"\"}\n";
  return out;
}

}  // namespace

std::span<const FileKind> kinds() { return kKinds; }

const FileKind& pick(RandomSource& random) { return random.pick(kinds()); }

std::string make(const FileKind& kind, RandomSource& random) {
  std::size_t size = bodySize(random);
  if (kind.extension == "csv") return csvBody(size, random);
  if (kind.extension == "json") return jsonBody(size, random);
  if (!kind.binary) return textBody(size, random);
  std::string out;
  if (kind.extension == "pdf") {
    out = "%PDF-1.4\n%\xe2\xe3\xcf\xd3\n1 0 obj\n<< /Type /Catalog >>\nendobj\nstream\n";
  } else if (kind.extension == "png") {
    out = std::string("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16);
  } else {
    out = std::string("PK\x03\x04\x14\0\x06\0", 8);
  }
  if (out.size() < size) appendRandomBytes(out, size - out.size(), random);
  return out;
}

std::string title(RandomSource& random) {
  static constexpr std::string_view kTitles[] = {
      "Q3 forecast",
      "Contract",
      "Signed NDA",
      "Price list",
      "Meeting notes",
      "Site photos",
      "Invoice",
      "Proposal",
      "Angebot",
      "Devis",
      "見積書",
      "Roadmap",
      "Onboarding checklist",
      "Données clients",
      "Quote, revised",
      "Report \"final\"",
  };
  std::string out(random.pick(std::span<const std::string_view>(kTitles)));
  if (random.chance(0.3)) out.append(" ").append(std::to_string(random.between(2019, 2026)));
  if (random.chance(0.15)) out += " (final)";
  if (random.chance(0.1)) out += " v" + std::to_string(random.between(2, 9));
  return out;
}

}  // namespace corvane::orgsim::FileBodies

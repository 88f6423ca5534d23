#include "health/text_table.hpp"

#include <algorithm>

namespace corvane::TextTable {

namespace {

std::size_t width(std::string_view text) {
  // UTF-8 continuation bytes do not start a character.
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  }));
}

void appendRow(std::string& out, const std::vector<std::string>& cells,
               const std::vector<std::size_t>& widths) {
  for (std::size_t i = 0; i < cells.size(); ++i) {
    out += cells[i];
    if (i + 1 < cells.size()) out.append(widths[i] - width(cells[i]) + 2, ' ');
  }
  out += '\n';
}

}  // namespace

std::string render(const std::vector<std::string>& header,
                   const std::vector<std::vector<std::string>>& rows) {
  std::vector<std::size_t> widths(header.size(), 0);
  auto measure = [&](const std::vector<std::string>& cells) {
    for (std::size_t i = 0; i < cells.size() && i < widths.size(); ++i) {
      widths[i] = std::max(widths[i], width(cells[i]));
    }
  };
  measure(header);
  for (const auto& row : rows) measure(row);
  std::string out;
  appendRow(out, header, widths);
  std::size_t rule = 0;
  for (std::size_t i = 0; i < widths.size(); ++i)
    rule += widths[i] + (i + 1 < widths.size() ? 2 : 0);
  out.append(rule, '-');
  out += '\n';
  for (const auto& row : rows) appendRow(out, row, widths);
  return out;
}

std::string csvField(std::string_view text) {
  const bool formula =
      !text.empty() && (text[0] == '=' || text[0] == '+' || text[0] == '-' || text[0] == '@');
  const bool quote = formula || text.find_first_of(",\"\r\n") != std::string_view::npos ||
                     (!text.empty() && (text.front() == ' ' || text.back() == ' '));
  if (!quote) return std::string(text);
  std::string out = "\"";
  if (formula) out += '\'';
  for (char c : text) {
    if (c == '"') out += '"';
    out += c;
  }
  out += '"';
  return out;
}

std::string csvRow(const std::vector<std::string>& fields) {
  std::string out;
  for (std::size_t i = 0; i < fields.size(); ++i) {
    if (i > 0) out += ',';
    out += csvField(fields[i]);
  }
  out += "\r\n";
  return out;
}

}  // namespace corvane::TextTable

// Comma- and tab-separated text into an ImportGrid: files chosen by the user,
// text pasted from the clipboard, and the tolerant parser both share.
//
// The parser never fails: malformed quoting reads as far as it goes (an
// unclosed quote runs to the end of the text). It walks user-perceived
// characters, so a delimiter or quote that carries a combining mark is an
// ordinary character, and CR LF is one line break.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "workbook/import_grid.hpp"

namespace corvane::DelimitedText {

// Parses UTF-8 text with a one-byte delimiter (',', '\t', or '\0' for "one
// column per line"). Nothing when the text holds no non-blank row.
std::optional<ImportGrid> parse(std::string_view text, char delimiter);

// Pasted text: tab-separated when it holds a tab anywhere, else
// comma-separated when its first line holds a comma, else one column.
std::optional<ImportGrid> parsePasted(std::string_view text);

// Reads a whole file: UTF-16 when it starts with FF FE or FE FF, else UTF-8,
// else Latin-1. A .csv file is comma-separated; any other is tab-separated
// when it holds a tab, else comma-separated. Throws FileError when the file
// cannot be read and ImportError::badFile when it is not text or holds no
// header row.
ImportGrid parseFile(const std::filesystem::path& path);

// The text of a file's bytes under the encoding rules of parseFile, as UTF-8;
// nothing when the bytes are marked UTF-16 but are not.
std::optional<std::string> decodeText(std::string_view bytes);

}  // namespace corvane::DelimitedText

// Where Corvane keeps its own files, and the user's small settings file.
//
// The folder is $CORVANE_HOME when that variable is set (tests and the demo use
// it so that nothing touches a real user's files); otherwise
// ~/Library/Application Support/Corvane on macOS and $XDG_DATA_HOME/Corvane
// (default ~/.local/share/Corvane) on Linux.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

namespace corvane {

namespace AppSupport {

// The application-support folder, created (0700) when missing.
std::filesystem::path folder();

// The user's home folder: $HOME, else the password database entry.
std::filesystem::path homeFolder();

}  // namespace AppSupport

// settings.json in the application-support folder: a JSON object written sorted,
// pretty-printed and atomically. A file that is not a JSON object is moved
// aside under a dated name and treated as empty, never overwritten in place; a
// file that cannot be read at all (an I/O error) throws FileError from every
// call and is left where it is.
// Keys in use: "backupTickMinute" (int), "cliPath" (text).
// Thread-safe: every call reads or replaces the whole file under a process-wide mutex.
namespace Settings {

nlohmann::json load();
void save(const nlohmann::json& settings);

std::optional<std::string> string(const std::string& key);
std::optional<int> integer(const std::string& key);
void set(const std::string& key, const nlohmann::json& value);

}  // namespace Settings

}  // namespace corvane

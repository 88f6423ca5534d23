// Where one org's backup lives on disk, and the names of everything in it.
//
// root/orgKey/username is the org's folder. The org key and the username come
// from Salesforce, so each is made safe before it names a folder: "/" and ":"
// become "_", and a name that would climb out of the root ("", ".", "..") is
// replaced too.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace corvane {

struct Org;

struct BackupLocation {
  std::filesystem::path root;
  std::string orgKey;
  std::string username;

  // root/orgKey/username, each part made safe.
  std::filesystem::path folder() const;
  std::filesystem::path databaseURL() const { return folder() / "backup.sqlite"; }
  std::filesystem::path lastRunURL() const { return folder() / "last-run.json"; }
  std::filesystem::path lockURL() const { return folder() / ".lock"; }
  // Every document body, once, shared by all dated folders.
  std::filesystem::path filesFolder() const { return folder() / "Files"; }
  // Bodies being downloaded.
  std::filesystem::path partialFolder() const { return filesFolder() / ".partial"; }

  // The application-support folder's "Backups" (not created here).
  static std::filesystem::path defaultRoot();

  // Where the backup of org's login lives under root; an empty root means
  // defaultRoot(), an org without an Id "unknown-org".
  static BackupLocation of(const Org& org, const std::filesystem::path& root);

  // One part of a path made from org text: "/" and ":" replaced by "_"; NUL
  // bytes too; "", "." and ".." become "_", "_." and "_..".
  static std::string safeName(std::string_view text);

  bool operator==(const BackupLocation&) const = default;
};

}  // namespace corvane

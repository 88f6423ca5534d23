// The decision workbook: the duplicate groups exported to an .xlsx file, one
// row per record, where the user types Keep, Delete or Not a duplicate in the
// Action column of a spreadsheet program; then read back into Decisions.
//
// Reading looks only at the "Record Id" and "Action" columns, found by their
// header text, so rows may be re-sorted or filtered and other cells edited
// freely. Every bad row or group becomes one problem sentence; a caller
// changes nothing in the org while there are problems.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "dedupe/match_kind.hpp"
#include "dedupe/match_settings.hpp"
#include "dedupe/record_store.hpp"
#include "workbook/import_grid.hpp"

namespace corvane {

namespace DecisionWorkbook {

// Header texts of the groups sheet.
inline constexpr std::string_view groupHeader = "Group";
inline constexpr std::string_view recordIdHeader = "Record Id";
inline constexpr std::string_view actionHeader = "Action";
inline constexpr std::string_view keptByRuleHeader = "Kept By Rule";
inline constexpr std::string_view whyHeader = "Why These Are Together";
inline constexpr std::string_view kindHeader = "Kind of Record";

// The action words as written, and the mark of the suggested keeper.
inline constexpr std::string_view keepWord = "Keep";
inline constexpr std::string_view deleteWord = "Delete";
inline constexpr std::string_view notDuplicateWord = "Not a duplicate";
inline constexpr std::string_view suggestedMark = "KEEP";

inline constexpr std::string_view howToUseSheet = "How To Use";

// What the groups sheet shows besides the fixed columns.
struct Layout {
  std::string objectName;   // "Kind of Record" for records of a one-object snapshot
  std::string objectLabel;  // "Lead"
  std::string nameLabel = "Name";
  std::vector<MatchField> matchFields;
  std::vector<std::string> extraFields;  // API names, shown as they are
  // The object the records may already exist as ("Contact"); when set, the
  // sheet has the two columns of alreadyHeader and otherNameHeader.
  std::string otherLabel;
};

// A record that already exists as a record of another object (a Lead that is
// a Contact). Salesforce merges no records across objects: its row offers to
// delete it instead.
struct AlreadyThere {
  SnapshotRecord record;
  std::string otherId;
  std::string otherName;
  std::string why;  // "E-mail the same, name very close."
};

// A record an export marked as already there, as remembered in the snapshot:
// its Id and the other object's record it already is.
struct MarkedAlready {
  std::string id;
  std::string otherId;
  std::string otherName;  // empty for an export by an older version
  bool operator==(const MarkedAlready&) const = default;
};

// "Already a Contact", "Already an Account": the other record's Id.
std::string alreadyHeader(std::string_view otherLabel);
// "Contact Name": the other record's name.
std::string otherNameHeader(std::string_view otherLabel);

// One group as exported: its records in the order shown and the position of
// the record the keeper rule suggests (none: no suggestion).
struct ExportGroup {
  DuplicateGroup group;
  std::vector<SnapshotRecord> records;
  std::optional<std::size_t> suggested;
};

// "Duplicates - " + the object's label (shortened in the file to the 31
// characters a sheet name may have).
std::string sheetName(std::string_view objectLabel);
// The lines of the "How To Use" sheet.
std::vector<std::string> howToUseLines(std::string_view objectLabel);
// The lines the "How To Use" sheet adds when records may already be there
// as records of another object.
std::vector<std::string> alreadyLines(std::string_view objectLabel, std::string_view otherLabel);
// "All matching fields are exactly the same." or "Matching fields are the
// same or very close.", from the group's weakest link.
std::string whyTogether(const DuplicateGroup& group);

// Writes the workbook (groups sheet, then "How To Use"), replacing a file at
// path only once the new one is whole. The suggested keeper's row is filled
// green. A record already there fills the two columns of its row in a group,
// or has a row of its own after the groups, without a group number. Throws
// WorkbookWriteError.
void write(const std::filesystem::path& path, const Layout& layout,
           const std::vector<ExportGroup>& groups, const std::vector<AlreadyThere>& already = {});

// What a read-back workbook says.
struct Decisions {
  std::vector<std::string> deletes;
  std::vector<std::string> keeps;
  std::vector<std::string> notDuplicates;
  std::int64_t untouched = 0;  // rows with a blank Action
  // Records in no group, already there as another object's, marked Delete.
  std::vector<std::string> alreadyDeletes;
  std::vector<std::string> problems;
  bool operator==(const Decisions&) const = default;
};

// A group being decided: its number and its records' Salesforce Ids.
struct DecidedGroup {
  std::int64_t id = 0;
  std::vector<std::string> recordIds;
  bool operator==(const DecidedGroup&) const = default;
};

// The problem of a group whose records are all marked Delete or Not a
// duplicate, some of them Delete.
std::string nothingLeftToKeep(std::int64_t groupId);

// The decisions of the first sheet that has both a "Record Id" and an
// "Action" column. Row numbers in problems count the header as row 1.
// already: the Ids of the rows of records already there (outside groups):
// Delete removes such a record; Keep and Not a duplicate leave it alone.
Decisions decide(const std::vector<ImportGrid>& sheets, const std::vector<DecidedGroup>& groups,
                 const std::vector<std::string>& already = {});

// Reads the workbook at path and decides as above. Throws FileError when the
// file cannot be opened and ImportError::badFile when it is not a workbook.
Decisions read(const std::filesystem::path& path, const std::vector<DecidedGroup>& groups,
               const std::vector<std::string>& already = {});

}  // namespace DecisionWorkbook

}  // namespace corvane

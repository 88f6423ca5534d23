#include "dedupe/decision_workbook.hpp"

#include <map>
#include <set>
#include <unordered_map>
#include <unordered_set>

#include "workbook/xlsx_reader.hpp"
#include "workbook/xlsx_writer.hpp"
#include "platform/unicode.hpp"

namespace corvane {

namespace DecisionWorkbook {

namespace {

std::string lowered(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

std::string_view trimmed(std::string_view text) {
  auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
  while (!text.empty() && blank(text.front())) text.remove_prefix(1);
  while (!text.empty() && blank(text.back())) text.remove_suffix(1);
  return text;
}

std::string inQuotes(std::string_view text) { return "\"" + std::string(text) + "\""; }

enum class Action { keep, remove, notDuplicate };

std::optional<Action> actionOf(std::string_view word) {
  std::string key = lowered(word);
  // Spreadsheet programs may leave several blanks between words.
  for (std::size_t at; (at = key.find("  ")) != std::string::npos;) key.erase(at, 1);
  if (key == "keep") return Action::keep;
  if (key == "delete") return Action::remove;
  if (key == "not a duplicate" || key == "not dup" || key == "not duplicate")
    return Action::notDuplicate;
  return std::nullopt;
}

std::optional<std::size_t> columnNamed(const ImportGrid& sheet, std::string_view header) {
  const std::string wanted = lowered(header);
  for (std::size_t i = 0; i < sheet.headers.size(); ++i) {
    if (lowered(sheet.headers[i]) == wanted) return i;
  }
  return std::nullopt;
}

bool hasDecisionColumns(const ImportGrid& sheet) {
  return columnNamed(sheet, recordIdHeader) && columnNamed(sheet, actionHeader);
}

const std::string noSheetProblem =
    "This file has no sheet with both a \"Record Id\" and an \"Action\" column. Was it exported "
    "from here?";

// A field label that would be mistaken for one of the fixed columns gets its
// API name beside it.
std::string columnLabel(const std::string& label, const std::string& name) {
  const std::string shown = label.empty() ? name : label;
  for (std::string_view fixed :
       {groupHeader, recordIdHeader, actionHeader, keptByRuleHeader, whyHeader, kindHeader}) {
    if (lowered(shown) == lowered(fixed)) return shown + " (" + name + ")";
  }
  return shown;
}

}  // namespace

namespace {

// "a contact", "an account".
std::string withArticle(std::string_view noun) {
  const bool vowel =
      !noun.empty() && std::string_view("AEIOUaeiou").find(noun.front()) != std::string_view::npos;
  return std::string(vowel ? "an " : "a ") + std::string(noun);
}

}  // namespace

std::string alreadyHeader(std::string_view otherLabel) {
  return "Already " + withArticle(otherLabel);
}

std::string otherNameHeader(std::string_view otherLabel) {
  return std::string(otherLabel) + " Name";
}

std::string sheetName(std::string_view objectLabel) {
  return "Duplicates - " + std::string(objectLabel);
}

std::vector<std::string> howToUseLines(std::string_view objectLabel) {
  return {
      "Each numbered group is a set of records that look like the same " + Unicode::lowercase(objectLabel) +
          " (a real-world thing).",
      "The record marked KEEP in the 'Kept By Rule' column is the suggested one to keep.",
      "In the Action column, type " + std::string(keepWord) + " on the record to keep and " +
          std::string(deleteWord) + " on records to remove.",
      std::string(notDuplicateWord) +
          " on any record that is not really a duplicate \u2014 it will stop being suggested.",
      "Leave the Action blank for any record that should not be touched at all.",
      "Do not change the Record Id column \u2014 it is how each row is recognized.",
      "Rows can be re-sorted or filtered freely. Only the Action column is read back.",
      "The green row in each group is the one suggested to keep.",
  };
}

std::vector<std::string> alreadyLines(std::string_view objectLabel, std::string_view otherLabel) {
  const std::string object = Unicode::lowercase(objectLabel);
  const std::string other = Unicode::lowercase(otherLabel);
  return {
      "Rows with an Id in the '" + alreadyHeader(otherLabel) + "' column are " + object +
          "s that are already in Salesforce as that " + other + ".",
      "Salesforce cannot merge " + withArticle(object) + " into " + withArticle(other) +
          ": type " +
          std::string(deleteWord) + " on such a row to remove the " + object +
          ", or leave it blank to keep it.",
  };
}

std::string whyTogether(const DuplicateGroup& group) {
  return group.weakestLink >= 1.0 ? "All matching fields are exactly the same."
                                   : "Matching fields are the same or very close.";
}

void write(const std::filesystem::path& path, const Layout& layout,
           const std::vector<ExportGroup>& groups, const std::vector<AlreadyThere>& already) {
  using Style = XlsxWriter::Style;
  std::unordered_map<std::string, const AlreadyThere*> alreadyById;  // the first listed
  for (const AlreadyThere& entry : already) alreadyById.emplace(entry.record.sfid, &entry);
  std::unordered_map<std::string, const AlreadyThere*> alreadyOf = alreadyById;  // own rows
  std::size_t recordCount = 0;
  for (const ExportGroup& group : groups) {
    recordCount += group.records.size();
    for (const SnapshotRecord& record : group.records) alreadyOf.erase(record.sfid);
  }
  recordCount += alreadyOf.size();
  if (recordCount + 1 > XlsxWriter::maximumRows) {
    throw WorkbookWriteError(path, "the groups hold " + std::to_string(recordCount) +
                                       " records, more than the rows a sheet can hold (" +
                                       std::to_string(XlsxWriter::maximumRows - 1) +
                                       "); match a smaller part of the records");
  }

  std::vector<std::string> headers{std::string(groupHeader),  std::string(recordIdHeader),
                                   std::string(actionHeader), std::string(keptByRuleHeader),
                                   layout.nameLabel};
  for (const MatchField& field : layout.matchFields)
    headers.push_back(columnLabel(field.label, field.name));
  for (const std::string& extra : layout.extraFields) headers.push_back(columnLabel(extra, extra));
  const bool showAlready = !layout.otherLabel.empty();
  if (showAlready) {
    headers.push_back(alreadyHeader(layout.otherLabel));
    headers.push_back(otherNameHeader(layout.otherLabel));
  }
  headers.emplace_back(kindHeader);
  headers.emplace_back(whyHeader);
  const std::size_t valuesStart = 5;
  const std::size_t extrasStart = valuesStart + layout.matchFields.size();
  const std::size_t alreadyColumn = extrasStart + layout.extraFields.size();
  const std::size_t kindColumn = headers.size() - 2;
  const std::size_t whyColumn = headers.size() - 1;

  XlsxWriter writer(path);
  writer.addSheet(sheetName(layout.objectLabel));
  writer.setColumnWidth(0, 0, 8);
  writer.setColumnWidth(1, 1, 20);
  writer.setColumnWidth(2, 2, 16);
  writer.setColumnWidth(3, 3, 13);
  writer.setColumnWidth(4, kindColumn - 1, 28);
  writer.setColumnWidth(kindColumn, kindColumn, 16);
  writer.setColumnWidth(whyColumn, whyColumn, 44);
  for (std::size_t column = 0; column < headers.size(); ++column)
    writer.writeText(0, column, headers[column], Style::header);

  std::size_t row = 0;
  const auto writeRecord = [&](const SnapshotRecord& record, Style style) {
    writer.writeText(row, 1, record.sfid, style);
    writer.writeText(row, 2, "", style);
    writer.writeText(row, 4, record.name, style);
    for (std::size_t f = 0; f < layout.matchFields.size(); ++f)
      writer.writeText(row, valuesStart + f, f < record.values.size() ? record.values[f] : "",
                       style);
    for (std::size_t e = 0; e < layout.extraFields.size(); ++e)
      writer.writeText(row, extrasStart + e, e < record.extras.size() ? record.extras[e] : "",
                       style);
    if (showAlready) {
      const auto found = alreadyById.find(record.sfid);
      const AlreadyThere* there = found == alreadyById.end() ? nullptr : found->second;
      writer.writeText(row, alreadyColumn, there ? there->otherId : "", style);
      writer.writeText(row, alreadyColumn + 1, there ? there->otherName : "", style);
    }
    writer.writeText(row, kindColumn, record.object.empty() ? layout.objectName : record.object,
                     style);
  };
  for (const ExportGroup& exported : groups) {
    const std::string why = whyTogether(exported.group);
    for (std::size_t i = 0; i < exported.records.size(); ++i) {
      const SnapshotRecord& record = exported.records[i];
      const bool suggested = exported.suggested == i;
      const Style style = suggested ? Style::suggested : Style::plain;
      ++row;
      writer.writeNumber(row, 0, static_cast<double>(exported.group.id), style);
      writer.writeText(row, 3, suggested ? suggestedMark : "", style);
      writeRecord(record, style);
      writer.writeText(row, whyColumn, why, style);
    }
  }
  for (const AlreadyThere& entry : already) {
    if (!alreadyOf.count(entry.record.sfid)) continue;  // shown in its group
    alreadyOf.erase(entry.record.sfid);                 // once, however often listed
    ++row;
    writer.writeText(row, 0, "", Style::plain);
    writer.writeText(row, 3, "", Style::plain);
    writeRecord(entry.record, Style::plain);
    writer.writeText(row, whyColumn, alreadyHeader(layout.otherLabel) + ": " + entry.why,
                     Style::plain);
  }
  writer.headerWithFilter(headers.size() - 1, row);

  writer.addSheet(howToUseSheet);
  writer.setColumnWidth(0, 0, 110);
  std::size_t line = 0;
  for (const std::string& text : howToUseLines(layout.objectLabel)) writer.writeText(line++, 0, text);
  if (showAlready) {
    for (const std::string& text : alreadyLines(layout.objectLabel, layout.otherLabel))
      writer.writeText(line++, 0, text);
  }
  writer.close();
}

std::string nothingLeftToKeep(std::int64_t groupId) {
  return "Group " + std::to_string(groupId) +
         " has records marked Delete but none left to keep: the others are marked Not a "
         "duplicate. Mark one record Keep, or leave its Action blank.";
}

Decisions decide(const std::vector<ImportGrid>& sheets, const std::vector<DecidedGroup>& groups,
                 const std::vector<std::string>& already) {
  Decisions decisions;
  const ImportGrid* sheet = nullptr;
  for (const ImportGrid& candidate : sheets) {
    if (hasDecisionColumns(candidate)) {
      sheet = &candidate;
      break;
    }
  }
  if (!sheet) {
    decisions.problems.push_back(noSheetProblem);
    return decisions;
  }
  const auto idColumn = static_cast<std::ptrdiff_t>(*columnNamed(*sheet, recordIdHeader));
  const auto actionColumn = static_cast<std::ptrdiff_t>(*columnNamed(*sheet, actionHeader));

  std::unordered_map<std::string, std::size_t> groupOf;  // record Id -> position in groups
  for (std::size_t g = 0; g < groups.size(); ++g) {
    for (const std::string& id : groups[g].recordIds) groupOf.emplace(id, g);
  }
  const std::unordered_set<std::string> alreadyThere(already.begin(), already.end());
  std::unordered_set<std::string> seen;
  std::vector<std::size_t> deletedPerGroup(groups.size(), 0);
  std::vector<std::size_t> setApartPerGroup(groups.size(), 0);  // marked Not a duplicate

  for (std::size_t r = 0; r < sheet->rows.size(); ++r) {
    const auto at = static_cast<std::ptrdiff_t>(r);
    const std::string_view word = trimmed(sheet->cell(at, actionColumn));
    if (word.empty()) {
      ++decisions.untouched;
      continue;
    }
    const std::string id(trimmed(sheet->cell(at, idColumn)));
    if (id.empty()) {
      decisions.problems.push_back("Row " + std::to_string(r + 2) +
                                   " has an Action but no Record Id.");
      continue;
    }
    const auto group = groupOf.find(id);
    // A record of the other object's list, beside the groups: only Delete acts on it.
    const bool alreadyThereRow = group == groupOf.end() && alreadyThere.count(id) > 0;
    if (group == groupOf.end() && !alreadyThereRow) {
      decisions.problems.push_back(
          inQuotes(id) +
          " is not a record from this duplicate check. The Record Id column may have been edited.");
      continue;
    }
    if (!seen.insert(id).second) {
      decisions.problems.push_back(
          inQuotes(id) +
          " appears more than once. Remove the duplicate row so each record has one decision.");
      continue;
    }
    const std::optional<Action> action = actionOf(word);
    if (!action) {
      decisions.problems.push_back(
          inQuotes(word) + " is not an action. Use Keep, Delete, Not a duplicate, or leave it blank.");
      continue;
    }
    if (alreadyThereRow) {
      if (*action == Action::remove) {
        decisions.alreadyDeletes.push_back(id);
      } else {
        ++decisions.untouched;  // kept as it is
      }
      continue;
    }
    switch (*action) {
      case Action::keep:
        decisions.keeps.push_back(id);
        break;
      case Action::remove:
        decisions.deletes.push_back(id);
        ++deletedPerGroup[group->second];
        break;
      case Action::notDuplicate:
        decisions.notDuplicates.push_back(id);
        ++setApartPerGroup[group->second];
        break;
    }
  }

  for (std::size_t g = 0; g < groups.size(); ++g) {
    // Ids listed twice in a group count once.
    const std::set<std::string> members(groups[g].recordIds.begin(), groups[g].recordIds.end());
    if (!members.empty() && deletedPerGroup[g] >= members.size()) {
      decisions.problems.push_back(
          "At least one record in a group must survive. Mark one record of group " +
          std::to_string(groups[g].id) +
          " Keep, or leave its Action blank, instead of having every record marked " +
          std::string(deleteWord) + ".");
    } else if (deletedPerGroup[g] > 0 &&
               deletedPerGroup[g] + setApartPerGroup[g] >= members.size()) {
      decisions.problems.push_back(nothingLeftToKeep(groups[g].id));
    }
  }
  if (decisions.deletes.empty() && decisions.notDuplicates.empty() &&
      decisions.alreadyDeletes.empty()) {
    decisions.problems.push_back(
        "No record is marked Delete or Not a duplicate, so there is nothing to do. That may be "
        "exactly right \u2014 or the Action column was left unfilled.");
  }
  return decisions;
}

Decisions read(const std::filesystem::path& path, const std::vector<DecidedGroup>& groups,
               const std::vector<std::string>& already) {
  XlsxReader reader(path);
  for (std::size_t i = 0; i < reader.sheetNames().size(); ++i) {
    std::optional<ImportGrid> sheet = reader.readSheet(i);
    if (sheet && hasDecisionColumns(*sheet)) return decide({std::move(*sheet)}, groups, already);
  }
  return decide({}, groups, already);
}

}  // namespace DecisionWorkbook

}  // namespace corvane

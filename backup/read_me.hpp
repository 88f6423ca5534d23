// "READ ME.txt" of every dated folder: what the folder holds and where its
// documents are, for someone who finds it without the app.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace corvane::ReadMe {

inline constexpr std::string_view fileName = "READ ME.txt";

// What the CSV files are.
inline constexpr std::string_view recordsPart =
    "WHAT IS IN THIS FOLDER\n\nEvery record from this backup, one file for each kind of record, "
    "saved as a CSV.\nYou can open these in a spreadsheet, or load them back into Salesforce "
    "with the\nData Import window in Corvane.\n";

// Where the documents are, and why.
inline constexpr std::string_view filesPart =
    "\nWHERE THE DOCUMENTS ARE\n\nThe documents, images and attachments are NOT in this folder. "
    "They are in the\nfolder called Files, one level up, beside the dated folders.\n\nThey are "
    "kept there, once, because the same document belongs to every backup\nthat lists it. Keeping "
    "a copy in each dated folder would mean another copy of\nevery document every time a backup "
    "runs.\n\nTo see which record a document belongs to, open FileLinks.csv in this folder.\nTo "
    "find the document itself, look up its name in the NameOnDisk column of\nFiles.csv, then "
    "look for that name in the Files folder.\n\nIF YOU MOVE OR COPY THIS FOLDER\n\nTake the Files "
    "folder with it, or the documents will be missing.\n";

// The whole text, the parts one after the other.
std::string text();

// Writes the text into the dated folder, replacing it atomically. Throws FileError.
void write(const std::filesystem::path& datedFolder);

}  // namespace corvane::ReadMe

// Writes query results as they arrive: JSON lines, CSV or TSV to a stream or a
// file, or an .xlsx workbook.
//
// A file is written under a temporary name beside the target (mode 0600) and
// takes the target's place only in finish(), so a failed or stopped query
// leaves an existing file as it was. The header is written with the first
// rows, or in finish() for a result without rows, so that columns named by
// the records themselves (FIELDS(...)) are known by then. Not thread-safe.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "query/query_task.hpp"

namespace corvane {

class ResultWriter {
 public:
  enum class Format { json, csv, tsv, xlsx };

  // The format a file name asks for: .csv, .tsv/.tab/.txt, .xlsx, .json/.jsonl; none otherwise.
  static std::optional<Format> formatOf(const std::filesystem::path& file);
  // The query shape a format needs: records for json, else a table.
  static QueryTask::Shape shapeFor(Format format) {
    return format == Format::json ? QueryTask::Shape::records : QueryTask::Shape::table;
  }

  // To a stream (json, csv or tsv only), flushed after every page.
  ResultWriter(std::ostream& out, Format format);
  // To a file, which appears whole in finish(). Throws FileError or WorkbookWriteError.
  ResultWriter(const std::filesystem::path& file, Format format);
  ~ResultWriter();
  ResultWriter(const ResultWriter&) = delete;
  ResultWriter& operator=(const ResultWriter&) = delete;

  // Writes one page. False when the output has gone away (a closed pipe).
  bool write(const QueryRows& rows);
  // Writes the header when no rows came, and puts a file in place.
  void finish(const QueryOutcome& outcome);
  // Writes a whole table at once (header, rows) and finishes.
  void writeTable(const std::vector<std::string>& columns,
                  const std::vector<std::vector<std::string>>& rows);

  std::int64_t rows() const { return rows_; }

 private:
  void writeHeader(const std::vector<std::string>& names);
  void writeCells(const std::vector<std::string>& cells);
  bool flush();

  Format format_;
  std::ostream* out_ = nullptr;
  struct File;
  std::unique_ptr<File> file_;
  std::string text_;
  bool headerWritten_ = false;
  std::int64_t rows_ = 0;
};

}  // namespace corvane

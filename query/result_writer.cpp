#include "query/result_writer.hpp"

#include <cerrno>
#include <cstdio>

#include "platform/durable_file.hpp"
#include "platform/file_error.hpp"
#include "query/query_export.hpp"
#include "workbook/xlsx_writer.hpp"

namespace corvane {

namespace {

std::string lower(std::string text) {
  for (char& c : text)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return text;
}

std::vector<std::string> names(const std::vector<ResultTable::Column>& columns) {
  std::vector<std::string> out;
  out.reserve(columns.size());
  for (const auto& column : columns) out.push_back(column.name);
  return out;
}

}  // namespace

struct ResultWriter::File {
  std::filesystem::path target;
  std::filesystem::path temporary;
  std::optional<DurableFile> text;   // json, csv, tsv
  std::unique_ptr<XlsxWriter> book;  // xlsx
  std::size_t row = 0;               // the next workbook row
  bool finished = false;
};

std::optional<ResultWriter::Format> ResultWriter::formatOf(const std::filesystem::path& file) {
  const std::string extension = lower(file.extension().string());
  if (extension == ".csv") return Format::csv;
  if (extension == ".tsv" || extension == ".tab" || extension == ".txt") return Format::tsv;
  if (extension == ".xlsx") return Format::xlsx;
  if (extension == ".json" || extension == ".jsonl") return Format::json;
  return std::nullopt;
}

ResultWriter::ResultWriter(std::ostream& out, Format format) : format_(format), out_(&out) {
  if (format == Format::xlsx) format_ = Format::csv;  // a workbook needs a file
}

ResultWriter::ResultWriter(const std::filesystem::path& file, Format format)
    : format_(format), file_(std::make_unique<File>()) {
  file_->target = file;
  if (format == Format::xlsx) {
    file_->book = std::make_unique<XlsxWriter>(file);
    file_->book->addSheet("Query");
    return;
  }
  std::filesystem::path folder = file.parent_path();
  if (folder.empty()) folder = ".";
  file_->temporary = folder / ("." + file.filename().string() + ".corvane-partial");
  file_->text.emplace(DurableFile::open(file_->temporary, 0600));
  file_->text->truncate(0);
}

ResultWriter::~ResultWriter() {
  if (!file_ || file_->finished) return;
  file_->book.reset();  // a workbook not closed is not saved
  if (file_->text) {
    file_->text.reset();
    std::error_code ignored;
    std::filesystem::remove(file_->temporary, ignored);
  }
}

void ResultWriter::writeHeader(const std::vector<std::string>& columns) {
  headerWritten_ = true;
  switch (format_) {
    case Format::json:
      return;
    case Format::csv:
      QueryExport::appendCSVLine(text_, columns);
      return;
    case Format::tsv:
      QueryExport::appendTSVHeader(text_, columns);
      return;
    case Format::xlsx:
      for (std::size_t i = 0; i < columns.size(); ++i)
        file_->book->writeText(0, i, columns[i], XlsxWriter::Style::header);
      if (!columns.empty()) file_->book->headerWithFilter(columns.size() - 1, 0);
      file_->row = 1;
      return;
  }
}

void ResultWriter::writeCells(const std::vector<std::string>& cells) {
  switch (format_) {
    case Format::json:
      return;
    case Format::csv:
      QueryExport::appendCSVLine(text_, cells);
      return;
    case Format::tsv:
      QueryExport::appendTSVLine(text_, cells);
      return;
    case Format::xlsx:
      if (file_->row >= XlsxWriter::maximumRows) return;
      for (std::size_t i = 0; i < cells.size(); ++i)
        if (!cells[i].empty()) file_->book->writeText(file_->row, i, cells[i]);
      ++file_->row;
      return;
  }
}

bool ResultWriter::flush() {
  if (text_.empty()) return true;
  if (file_) {
    file_->text->append(text_);
    text_.clear();
    return true;
  }
  *out_ << text_;
  out_->flush();
  text_.clear();
  return static_cast<bool>(*out_);
}

bool ResultWriter::write(const QueryRows& rows) {
  if (format_ == Format::json) {
    for (const auto& record : rows.records) {
      record.dump(text_);
      text_ += '\n';
      ++rows_;
    }
    return flush();
  }
  if (rows.cells.empty()) return true;
  if (!headerWritten_) writeHeader(names(rows.columns));
  for (const auto& cells : rows.cells) {
    writeCells(cells);
    ++rows_;
  }
  return flush();
}

void ResultWriter::finish(const QueryOutcome& outcome) {
  if (!headerWritten_) writeHeader(names(outcome.columns));
  flush();
  if (!file_) return;
  if (file_->book) {
    file_->book->close();
  } else {
    file_->text->sync();
    file_->text->close();
    if (std::rename(file_->temporary.c_str(), file_->target.c_str()) != 0)
      throw FileError(FileError::Kind::replace, file_->target, errno);
  }
  file_->finished = true;
}

void ResultWriter::writeTable(const std::vector<std::string>& columns,
                              const std::vector<std::vector<std::string>>& rows) {
  writeHeader(columns);
  for (const auto& cells : rows) {
    writeCells(cells);
    ++rows_;
    if (text_.size() > (1u << 20)) flush();
  }
  QueryOutcome outcome;
  finish(outcome);
}

}  // namespace corvane

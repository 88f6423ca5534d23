#include "import/bulk_ingest_client.hpp"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <deque>
#include <map>
#include <optional>
#include <stdexcept>

#include "import/delimited_text.hpp"

namespace corvane::BulkIngestClient {

namespace {

bool sameText(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

// The plan's columns that go into the CSV.
std::vector<std::size_t> sentColumns(const ImportPlan& plan) {
  std::vector<std::size_t> columns;
  for (std::size_t index = 0; index < plan.fields.size(); ++index) {
    if (plan.operation.kind != ImportOperation::Kind::remove ||
        sameText(plan.fields[index], "Id")) {
      columns.push_back(index);
    }
  }
  return columns;
}

std::string rowKey(const std::vector<std::string>& cells) {
  std::string key;
  for (const auto& cell : cells) {
    key += cell;
    key += '\x1f';
  }
  return key;
}

}  // namespace

std::string csv(const ImportPlan& plan, const std::vector<std::size_t>& rows) {
  std::vector<std::size_t> columns = sentColumns(plan);
  std::string out;
  for (std::size_t at = 0; at < columns.size(); ++at) {
    if (at > 0) out += ',';
    BulkIngestJob::appendCell(out, plan.fields[columns[at]]);
  }
  out += '\n';
  for (std::size_t row : rows) {
    for (std::size_t at = 0; at < columns.size(); ++at) {
      if (at > 0) out += ',';
      BulkIngestJob::appendCell(out, plan.value(row, columns[at]));
    }
    out += '\n';
  }
  return out;
}

JobState create(DedupeTransport& transport, const std::string& object,
                const ImportOperation& operation) {
  return BulkIngestJob::create(
      transport, object, operation.verb(),
      operation.kind == ImportOperation::Kind::upsert ? operation.externalIdField : std::string());
}

void upload(DedupeTransport& transport, const std::string& id, const std::string& csv) {
  BulkIngestJob::upload(transport, id, csv);
}

JobState setState(DedupeTransport& transport, const std::string& id, const std::string& state) {
  return BulkIngestJob::setState(transport, id, state);
}

JobState status(DedupeTransport& transport, const std::string& id) {
  return BulkIngestJob::status(transport, id);
}

std::vector<RowOutcome> outcomes(const ImportPlan& plan, const std::vector<std::size_t>& rows,
                                 const std::string& successfulCsv, const std::string& failedCsv) {
  std::vector<std::size_t> columns = sentColumns(plan);
  // The rows sent, by their cells; equal rows wait in turn.
  std::map<std::string, std::deque<std::size_t>> waiting;
  for (std::size_t row : rows) {
    std::vector<std::string> cells;
    for (std::size_t column : columns) cells.push_back(plan.value(row, column));
    waiting[rowKey(cells)].push_back(row);
  }
  std::vector<RowOutcome> list;
  auto read = [&](const std::string& text, bool success) {
    std::optional<ImportGrid> grid = DelimitedText::parse(text, ',');
    if (!grid || grid->headers.size() < 2) return;
    std::size_t first = 2;  // sf__Id, then sf__Created or sf__Error
    for (const auto& cellsOfRow : grid->rows) {
      std::vector<std::string> cells;
      for (std::size_t at = 0; at < columns.size(); ++at) {
        cells.push_back(first + at < cellsOfRow.size() ? cellsOfRow[first + at] : std::string());
      }
      auto found = waiting.find(rowKey(cells));
      if (found == waiting.end() || found->second.empty()) continue;
      RowOutcome outcome;
      outcome.row = found->second.front();
      found->second.pop_front();
      outcome.success = success;
      outcome.recordId = cellsOfRow.empty() ? std::string() : cellsOfRow[0];
      std::string second = cellsOfRow.size() > 1 ? cellsOfRow[1] : std::string();
      if (success) {
        outcome.created = second == "true";
      } else {
        outcome.message = second.empty() ? "Salesforce gave no reason." : second;
      }
      list.push_back(std::move(outcome));
    }
  };
  read(successfulCsv, true);
  read(failedCsv, false);
  std::sort(list.begin(), list.end(),
            [](const RowOutcome& a, const RowOutcome& b) { return a.row < b.row; });
  return list;
}

std::vector<RowOutcome> results(DedupeTransport& transport, const std::string& id,
                                const ImportPlan& plan, const std::vector<std::size_t>& rows) {
  const auto [successful, failed] = BulkIngestJob::resultFiles(transport, id);
  return outcomes(plan, rows, successful, failed);
}

}  // namespace corvane::BulkIngestClient

#include "query/query_task.hpp"

#include <regex>

namespace corvane {

QueryError::QueryError(Kind kind, int status, std::string message, const std::string& description)
    : UserFacingError(description), kind_(kind), status_(status), message_(std::move(message)) {
  if (kind_ == Kind::refused) position_ = positionIn(message_);
}

QueryError QueryError::from(const SalesforceAPI::APIError& error) {
  using APIKind = SalesforceAPI::APIError::Kind;
  switch (error.kind()) {
    case APIKind::http:
      return {Kind::refused, error.status(), error.message(), error.description()};
    case APIKind::noSession:
      return {Kind::noSession, 0, error.message(), error.description()};
    case APIKind::decoding:
      return {Kind::unreadable, 0, {}, error.description()};
    case APIKind::timedOut:
    case APIKind::connection:
    case APIKind::insecure:
      break;
  }
  return {Kind::connection, 0, error.message(), error.description()};
}

std::optional<QueryErrorPosition> QueryError::positionIn(std::string_view message) {
  static const std::regex pattern(R"(ERROR at Row:\s*(\d+):\s*Column:\s*(\d+))");
  std::match_results<std::string_view::const_iterator> match;
  if (!std::regex_search(message.begin(), message.end(), match, pattern)) return std::nullopt;
  QueryErrorPosition position;
  try {
    position.row = std::max(1, std::stoi(match[1].str()));
    position.column = std::max(1, std::stoi(match[2].str()));
  } catch (const std::exception&) {
    return std::nullopt;
  }
  return position;
}

namespace QueryTask {

JSONLiteral withoutAttributes(JSONLiteral record) {
  if (auto* members = record.asObject()) {
    JSONLiteral::Object kept;
    kept.reserve(members->size());
    for (auto& [name, value] : *members) {
      if (name != "attributes")
        kept.emplace_back(std::move(name), withoutAttributes(std::move(value)));
    }
    return JSONLiteral::object(std::move(kept));
  }
  if (auto* items = record.asArray()) {
    for (auto& item : *items) item = withoutAttributes(std::move(item));
  }
  return record;
}

QueryOutcome run(SalesforceAPI::Client& api, const Org& org, const Request& request,
                 std::stop_token stop, const RowsHandler& onRows,
                 const ProgressHandler& onProgress) {
  const bool table = request.shape == Shape::table;
  QueryOutcome outcome;
  if (table) {
    outcome.columns = ResultTable::columns(request.soql);
    outcome.countOnly = ResultTable::isCountOnly(request.soql);
  }
  bool columnsFixed = false;
  QueryProgress progress;
  if (onProgress) onProgress(progress);
  progress.phase = QueryProgress::Phase::reading;

  try {
    api.queryStream(request.soql, org, [&](SalesforceAPI::QueryPage page) {
      outcome.totalSize = page.totalSize;
      QueryRows rows;
      if (table) {
        if (!columnsFixed && !page.records.empty()) {
          // FIELDS(...) and the like: the first record tells the columns.
          if (outcome.columns.empty()) outcome.columns = ResultTable::columns(page.records.front());
          outcome.columns = ResultTable::withRecordNames(std::move(outcome.columns), page.records);
          columnsFixed = true;
        }
        rows.columns = outcome.columns;
        rows.cells.reserve(page.records.size());
        for (const auto& record : page.records)
          rows.cells.push_back(ResultTable::cells(record, outcome.columns));
      } else {
        rows.records.reserve(page.records.size());
        for (auto& record : page.records)
          rows.records.push_back(withoutAttributes(std::move(record)));
      }
      const auto count = static_cast<std::int64_t>(page.records.size());
      outcome.rows += count;
      progress.rows = outcome.rows;
      progress.totalSize = page.totalSize;
      ++progress.pages;
      bool more = true;
      if (count > 0) more = onRows(std::move(rows));
      if (onProgress) onProgress(progress);
      if (!more || stop.stop_requested()) {
        outcome.stopped = !page.nextRecordsUrl.empty();
        return false;
      }
      return true;
    });
  } catch (const SalesforceAPI::APIError& error) {
    throw QueryError::from(error);
  }

  if (table && outcome.countOnly && outcome.rows == 0 && !outcome.stopped) {
    outcome.columns = {{"COUNT()", {}}};
    QueryRows rows;
    rows.columns = outcome.columns;
    rows.cells.push_back({std::to_string(outcome.totalSize)});
    outcome.rows = 1;
    onRows(std::move(rows));
  }
  progress.phase = QueryProgress::Phase::finished;
  if (onProgress) onProgress(progress);
  return outcome;
}

}  // namespace QueryTask

}  // namespace corvane

// A decision workbook as a user leaves it after typing into it: the tests
// that apply decisions share this.
#pragma once

#include <algorithm>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "dedupe/decision_workbook.hpp"
#include "workbook/xlsx_reader.hpp"
#include "workbook/xlsx_writer.hpp"

namespace corvane::testing {

// Saves the exported workbook as edited, with actions (Record Id -> action,
// such as "Delete") typed into the Action column of those records' rows.
inline void typeDecisions(const std::filesystem::path& exported,
                          const std::map<std::string, std::string>& actions,
                          const std::filesystem::path& edited) {
  auto grid = XlsxReader(exported).readSheet(0);
  ASSERT_TRUE(grid);
  const auto column = [&](std::string_view header) {
    return std::find(grid->headers.begin(), grid->headers.end(), header) - grid->headers.begin();
  };
  const auto id = column(DecisionWorkbook::recordIdHeader);
  const auto action = column(DecisionWorkbook::actionHeader);
  XlsxWriter writer(edited);
  writer.addSheet(*grid->sheetName);
  for (std::size_t c = 0; c < grid->headers.size(); ++c) writer.writeText(0, c, grid->headers[c]);
  for (std::size_t r = 0; r < grid->rows.size(); ++r) {
    const auto at = static_cast<std::ptrdiff_t>(r);
    const auto typed = actions.find(grid->cell(at, id));
    if (typed != actions.end()) grid->setCell(at, action, typed->second);
    for (std::size_t c = 0; c < grid->rows[r].size(); ++c)
      writer.writeText(r + 1, c, grid->rows[r][c]);
  }
  writer.close();
}

}  // namespace corvane::testing

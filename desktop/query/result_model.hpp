// The rows of one query result for the grid, as they stream in.
//
// Pages are kept as they arrived (shared and never changed afterwards, so an
// export can read them on a worker thread while the grid shows them) and the
// view is handed rows in steps (canFetchMore/fetchMore), so a 100,000-row
// result costs the view only the rows it has scrolled to. Interface thread only.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <QAbstractTableModel>
#include <QStringList>

namespace corvane::desktop {

using ResultRow = std::vector<std::string>;
using ResultPage = std::shared_ptr<const std::vector<ResultRow>>;

class ResultModel : public QAbstractTableModel {
  Q_OBJECT
 public:
  static constexpr int fetchStep = 1000;

  explicit ResultModel(QObject* parent = nullptr);

  void clear();
  void setColumns(const std::vector<std::string>& columns);
  void appendPage(ResultPage page);

  const std::vector<std::string>& columns() const { return columns_; }
  const std::vector<ResultPage>& pages() const { return pages_; }
  std::int64_t totalRows() const { return total_; }
  const ResultRow* row(std::int64_t index) const;

  int rowCount(const QModelIndex& parent = {}) const override;
  int columnCount(const QModelIndex& parent = {}) const override;
  QVariant data(const QModelIndex& index, int role) const override;
  QVariant headerData(int section, Qt::Orientation orientation, int role) const override;
  bool canFetchMore(const QModelIndex& parent) const override;
  void fetchMore(const QModelIndex& parent) override;

 private:
  std::vector<std::string> columns_;
  std::vector<ResultPage> pages_;
  std::vector<std::int64_t> starts_;  // the first row of each page
  std::int64_t total_ = 0;            // rows received
  int shown_ = 0;                     // rows handed to the view
};

}  // namespace corvane::desktop

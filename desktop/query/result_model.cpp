#include "desktop/query/result_model.hpp"

#include <algorithm>

namespace corvane::desktop {

ResultModel::ResultModel(QObject* parent) : QAbstractTableModel(parent) {}

void ResultModel::clear() {
  beginResetModel();
  columns_.clear();
  pages_.clear();
  starts_.clear();
  total_ = 0;
  shown_ = 0;
  endResetModel();
}

void ResultModel::setColumns(const std::vector<std::string>& columns) {
  if (columns == columns_) return;
  beginResetModel();
  columns_ = columns;
  endResetModel();
}

void ResultModel::appendPage(ResultPage page) {
  if (!page || page->empty()) return;
  starts_.push_back(total_);
  total_ += static_cast<std::int64_t>(page->size());
  pages_.push_back(std::move(page));
  // The first step appears at once; later rows when the view asks for them.
  if (shown_ < fetchStep) fetchMore({});
}

const ResultRow* ResultModel::row(std::int64_t index) const {
  if (index < 0 || index >= total_) return nullptr;
  auto page = std::upper_bound(starts_.begin(), starts_.end(), index) - 1;
  const auto p = static_cast<std::size_t>(page - starts_.begin());
  return &(*pages_[p])[static_cast<std::size_t>(index - *page)];
}

int ResultModel::rowCount(const QModelIndex& parent) const { return parent.isValid() ? 0 : shown_; }

int ResultModel::columnCount(const QModelIndex& parent) const {
  return parent.isValid() ? 0 : static_cast<int>(columns_.size());
}

QVariant ResultModel::data(const QModelIndex& index, int role) const {
  if (!index.isValid() ||
      (role != Qt::DisplayRole && role != Qt::ToolTipRole && role != Qt::EditRole))
    return {};
  const ResultRow* cells = row(index.row());
  if (!cells || index.column() >= static_cast<int>(cells->size())) return {};
  const std::string& cell = (*cells)[static_cast<std::size_t>(index.column())];
  if (role == Qt::ToolTipRole && cell.size() < 40) return {};
  return QString::fromStdString(cell);
}

QVariant ResultModel::headerData(int section, Qt::Orientation orientation, int role) const {
  if (role != Qt::DisplayRole) return {};
  if (orientation == Qt::Vertical) return section + 1;
  if (section < 0 || section >= static_cast<int>(columns_.size())) return {};
  return QString::fromStdString(columns_[static_cast<std::size_t>(section)]);
}

bool ResultModel::canFetchMore(const QModelIndex& parent) const {
  return !parent.isValid() && shown_ < total_;
}

void ResultModel::fetchMore(const QModelIndex& parent) {
  if (parent.isValid() || shown_ >= total_) return;
  const int more = static_cast<int>(std::min<std::int64_t>(fetchStep, total_ - shown_));
  beginInsertRows({}, shown_, shown_ + more - 1);
  shown_ += more;
  endInsertRows();
}

}  // namespace corvane::desktop

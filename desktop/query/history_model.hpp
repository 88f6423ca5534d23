// The rows of the history and saved-queries lists: what QueryHistory read
// for one login, newest run first, saved queries by name.
#pragma once

#include <vector>

#include <QAbstractListModel>
#include <QStyledItemDelegate>

#include "query/query_history.hpp"

namespace corvane::desktop {

class HistoryModel : public QAbstractListModel {
  Q_OBJECT
 public:
  enum Role { SoqlRole = Qt::UserRole + 1, IdRole };
  using QAbstractListModel::QAbstractListModel;
  void setEntries(std::vector<QueryHistory::Entry> entries);
  const std::vector<QueryHistory::Entry>& entries() const { return entries_; }
  int rowCount(const QModelIndex& parent = {}) const override;
  QVariant data(const QModelIndex& index, int role) const override;

 private:
  std::vector<QueryHistory::Entry> entries_;
};

// Draws an entry as two lines, each cut with an ellipsis to the width: the
// query on one line, then the grey line under it.
class TwoLineDelegate : public QStyledItemDelegate {
  Q_OBJECT
 public:
  using QStyledItemDelegate::QStyledItemDelegate;
  void paint(QPainter* painter, const QStyleOptionViewItem& option,
             const QModelIndex& index) const override;
  QSize sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const override;
};

class SavedQueryModel : public QAbstractListModel {
  Q_OBJECT
 public:
  enum Role { SoqlRole = Qt::UserRole + 1, NameRole };
  using QAbstractListModel::QAbstractListModel;
  void setSaved(std::vector<QueryHistory::Saved> saved);
  const std::vector<QueryHistory::Saved>& saved() const { return saved_; }
  int rowCount(const QModelIndex& parent = {}) const override;
  QVariant data(const QModelIndex& index, int role) const override;

 private:
  std::vector<QueryHistory::Saved> saved_;
};

}  // namespace corvane::desktop

// The rows of the history and saved-queries lists: what QueryHistory read
// for one login, newest run first, saved queries by name.
#pragma once

#include <vector>

#include <QAbstractListModel>

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

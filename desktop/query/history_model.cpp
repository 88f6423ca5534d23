#include "desktop/query/history_model.hpp"

#include <QDateTime>
#include <QLocale>

namespace corvane::desktop {

namespace {

QString oneLine(const std::string& soql) {
  return QString::fromStdString(soql).simplified();
}

QString when(SystemTime time) {
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch());
  return QLocale().toString(QDateTime::fromMSecsSinceEpoch(ms.count()).toLocalTime(),
                            QLocale::ShortFormat);
}

}  // namespace

void HistoryModel::setEntries(std::vector<QueryHistory::Entry> entries) {
  beginResetModel();
  entries_ = std::move(entries);
  endResetModel();
}

int HistoryModel::rowCount(const QModelIndex& parent) const {
  return parent.isValid() ? 0 : static_cast<int>(entries_.size());
}

QVariant HistoryModel::data(const QModelIndex& index, int role) const {
  if (!index.isValid() || index.row() >= static_cast<int>(entries_.size())) return {};
  const auto& entry = entries_[static_cast<std::size_t>(index.row())];
  switch (role) {
    case Qt::DisplayRole: {
      QString outcome = entry.error.empty()
                            ? QObject::tr("%n row(s)", nullptr, static_cast<int>(entry.rows))
                            : QObject::tr("failed");
      return oneLine(entry.soql) + "\n" + when(entry.ranAt) + "  ·  " + outcome;
    }
    case Qt::ToolTipRole:
      return QString::fromStdString(entry.error.empty() ? entry.soql
                                                        : entry.soql + "\n\n" + entry.error);
    case SoqlRole:
      return QString::fromStdString(entry.soql);
    case IdRole:
      return static_cast<qlonglong>(entry.id);
    default:
      return {};
  }
}

void SavedQueryModel::setSaved(std::vector<QueryHistory::Saved> saved) {
  beginResetModel();
  saved_ = std::move(saved);
  endResetModel();
}

int SavedQueryModel::rowCount(const QModelIndex& parent) const {
  return parent.isValid() ? 0 : static_cast<int>(saved_.size());
}

QVariant SavedQueryModel::data(const QModelIndex& index, int role) const {
  if (!index.isValid() || index.row() >= static_cast<int>(saved_.size())) return {};
  const auto& saved = saved_[static_cast<std::size_t>(index.row())];
  switch (role) {
    case Qt::DisplayRole:
      return QString::fromStdString(saved.name) + "\n" + oneLine(saved.soql);
    case Qt::ToolTipRole:
    case SoqlRole:
      return QString::fromStdString(saved.soql);
    case NameRole:
      return QString::fromStdString(saved.name);
    default:
      return {};
  }
}

}  // namespace corvane::desktop

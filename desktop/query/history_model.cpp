#include "desktop/query/history_model.hpp"

#include <QDateTime>
#include <QLocale>
#include <QPainter>

namespace corvane::desktop {

namespace {

QString oneLine(const std::string& soql) { return QString::fromStdString(soql).simplified(); }

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
      const QString rows = QLocale().toString(static_cast<qlonglong>(entry.rows));
      QString outcome = !entry.error.empty() ? QObject::tr("failed")
                        : entry.rows == 1    ? QObject::tr("1 row")
                                             : QObject::tr("%1 rows").arg(rows);
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

QSize TwoLineDelegate::sizeHint(const QStyleOptionViewItem& option, const QModelIndex&) const {
  return {120, QFontMetrics(option.font).height() * 2 + 10};
}

void TwoLineDelegate::paint(QPainter* painter, const QStyleOptionViewItem& option,
                            const QModelIndex& index) const {
  QStyleOptionViewItem base(option);
  initStyleOption(&base, index);
  base.text.clear();
  base.widget->style()->drawControl(QStyle::CE_ItemViewItem, &base, painter, base.widget);
  const QStringList lines = index.data().toString().split('\n');
  const bool selected = option.state & QStyle::State_Selected;
  QColor colour = option.palette.color(selected ? QPalette::HighlightedText : QPalette::Text);
  const QRect area = option.rect.adjusted(6, 4, -6, -4);
  const QFontMetrics metrics(option.font);
  painter->save();
  painter->setPen(colour);
  painter->drawText(area.left(), area.top() + metrics.ascent(),
                    metrics.elidedText(lines.value(0), Qt::ElideRight, area.width()));
  colour.setAlpha(150);
  painter->setPen(colour);
  painter->drawText(area.left(), area.top() + metrics.height() + metrics.ascent(),
                    metrics.elidedText(lines.value(1), Qt::ElideRight, area.width()));
  painter->restore();
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

#include "desktop/shell/org_list_model.hpp"

#include <QApplication>
#include <QFileInfo>
#include <QPainter>
#include <QPainterPath>

#include "desktop/common/services.hpp"
#include "desktop/common/worker.hpp"

namespace corvane::desktop {

namespace {

constexpr std::chrono::milliseconds kListTimeout{120'000};

QString text(const std::string& value) { return QString::fromStdString(value); }

}  // namespace

OrgListModel::OrgListModel(Services& services, QObject* parent)
    : QAbstractListModel(parent), services_(services) {
  debounce_.setSingleShot(true);
  debounce_.setInterval(400);
  connect(&debounce_, &QTimer::timeout, this, [this] {
    // A login renewed or moved: its cached session may point at the old place.
    services_.renewSessions();
    reload();
  });
  connect(&watcher_, &QFileSystemWatcher::directoryChanged, this, [this] { debounce_.start(); });
  connect(&watcher_, &QFileSystemWatcher::fileChanged, this, [this] { debounce_.start(); });
  watchLoginFolder();
}

void OrgListModel::watchLoginFolder() {
  const QString folder = QString::fromStdString(services_.loginFolder().string());
  const QString parent = QString::fromStdString(services_.loginFolder().parent_path().string());
  if (!watcher_.directories().contains(folder) && QFileInfo::exists(folder))
    watcher_.addPath(folder);
  // Until the CLI makes its folder, watch the home folder for it.
  if (!QFileInfo::exists(folder) && !watcher_.directories().contains(parent))
    watcher_.addPath(parent);
}

int OrgListModel::rowCount(const QModelIndex& parent) const {
  return parent.isValid() ? 0 : static_cast<int>(orgs_.size());
}

QVariant OrgListModel::data(const QModelIndex& index, int role) const {
  if (!index.isValid() || index.row() >= static_cast<int>(orgs_.size())) return {};
  const Org& org = orgs_[static_cast<std::size_t>(index.row())];
  switch (role) {
    case Qt::DisplayRole:
      return text(org.displayName());
    case Qt::ToolTipRole:
      return text(org.username + "\n" + org.statusDetail());
    case UsernameRole:
      return text(org.username);
    case KindRole:
      return text(label(org.type()));
    case ConnectionRole:
      return static_cast<int>(org.connection());
    case DetailRole:
      return text(org.statusDetail());
    default:
      return {};
  }
}

const Org* OrgListModel::org(const QString& username) const {
  const int row = rowOf(username);
  return row < 0 ? nullptr : &orgs_[static_cast<std::size_t>(row)];
}

int OrgListModel::rowOf(const QString& username) const {
  for (std::size_t i = 0; i < orgs_.size(); ++i) {
    if (QString::fromStdString(orgs_[i].username).compare(username, Qt::CaseInsensitive) == 0 ||
        (orgs_[i].alias && text(*orgs_[i].alias) == username))
      return static_cast<int>(i);
  }
  return -1;
}

void OrgListModel::setOrgs(std::vector<Org> orgs) {
  beginResetModel();
  orgs_ = std::move(orgs);
  endResetModel();
}

void OrgListModel::reload() {
  watchLoginFolder();
  const int generation = ++generation_;
  checked_ = false;
  SalesforceCLI& cli = services_.cli();
  Worker::run(
      this, [&cli] { return cli.listOrgs(true, kListTimeout); },
      [this, generation, &cli](Outcome<std::vector<Org>> listed) {
        if (generation != generation_) return;
        if (!listed.ok()) {
          loaded_ = true;
          emit failed(listed.error);
          emit loaded();
          return;
        }
        // Keep the states already known while they are checked again.
        std::vector<Org> orgs = std::move(*listed.value);
        for (auto& org : orgs) {
          if (const Org* known = this->org(text(org.username))) {
            if (!org.connectedStatusRaw) {
              org.connectedStatusRaw = known->connectedStatusRaw;
              org.checkedAlone = known->checkedAlone;
            }
          }
        }
        setOrgs(std::move(orgs));
        loaded_ = true;
        emit loaded();
        Worker::run(
            this,
            [&cli] {
              auto checkedOrgs = cli.listOrgs(false, kListTimeout);
              // A refused refresh in the list of all logins is confirmed alone.
              for (auto& org : checkedOrgs) {
                if (org.connection() != OrgConnection::checking) continue;
                org.connectedStatusRaw = cli.connectionStatus(org.username, kListTimeout);
                org.checkedAlone = true;
              }
              return checkedOrgs;
            },
            [this, generation](Outcome<std::vector<Org>> checkedOrgs) {
              if (generation != generation_) return;
              if (checkedOrgs.ok()) setOrgs(std::move(*checkedOrgs.value));
              checked_ = true;
              emit checked();
            });
      });
}

QColor connectionColour(OrgConnection connection) {
  switch (connection) {
    case OrgConnection::connected:
      return QColor(0x2e, 0x9e, 0x4f);
    case OrgConnection::needsLogin:
      return QColor(0xd9, 0x8a, 0x1c);
    case OrgConnection::unreachable:
      return QColor(0xc8, 0x3b, 0x3b);
    case OrgConnection::checking:
    case OrgConnection::unknown:
      break;
  }
  return QColor(0x9a, 0x9a, 0x9a);
}

QSize OrgDelegate::sizeHint(const QStyleOptionViewItem& option, const QModelIndex&) const {
  const QFontMetrics metrics(option.font);
  return {200, metrics.height() * 2 + 14};
}

void OrgDelegate::paint(QPainter* painter, const QStyleOptionViewItem& option,
                        const QModelIndex& index) const {
  QStyleOptionViewItem base(option);
  initStyleOption(&base, index);
  base.text.clear();
  QApplication::style()->drawControl(QStyle::CE_ItemViewItem, &base, painter, base.widget);

  painter->save();
  painter->setRenderHint(QPainter::Antialiasing);
  const bool selected = option.state & QStyle::State_Selected;
  const QPalette& palette = option.palette;
  const QColor textColour = palette.color(selected ? QPalette::HighlightedText : QPalette::Text);
  QRect area = option.rect.adjusted(10, 6, -8, -6);
  const QFontMetrics metrics(option.font);

  // The connection dot.
  const auto connection =
      static_cast<OrgConnection>(index.data(OrgListModel::ConnectionRole).toInt());
  const int dot = 9;
  QRect dotRect(area.left(), area.top() + (metrics.height() - dot) / 2, dot, dot);
  painter->setPen(Qt::NoPen);
  painter->setBrush(connectionColour(connection));
  painter->drawEllipse(dotRect);

  // The kind badge on the right.
  QFont small(option.font);
  small.setPointSizeF(option.font.pointSizeF() * 0.82);
  const QFontMetrics smallMetrics(small);
  const QString kind = index.data(OrgListModel::KindRole).toString();
  const int badgeWidth = smallMetrics.horizontalAdvance(kind) + 12;
  QRect badge(area.right() - badgeWidth, area.top() + 1, badgeWidth, smallMetrics.height() + 2);
  QColor badgeColour = kind == "production" ? QColor(0xc8, 0x3b, 0x3b)
                       : kind == "sandbox"  ? QColor(0x2b, 0x6c, 0xb0)
                                            : QColor(0x6b, 0x6b, 0x7b);
  painter->setBrush(badgeColour);
  painter->drawRoundedRect(badge, 4, 4);
  painter->setFont(small);
  painter->setPen(Qt::white);
  painter->drawText(badge, Qt::AlignCenter, kind);

  // Name and username.
  QRect textArea(dotRect.right() + 8, area.top(), badge.left() - dotRect.right() - 14,
                 area.height());
  QFont bold(option.font);
  bold.setBold(true);
  painter->setFont(bold);
  painter->setPen(textColour);
  const QFontMetrics boldMetrics(bold);
  painter->drawText(textArea.left(), textArea.top() + boldMetrics.ascent(),
                    boldMetrics.elidedText(index.data(Qt::DisplayRole).toString(), Qt::ElideRight,
                                           textArea.width()));
  painter->setFont(small);
  QColor grey = textColour;
  grey.setAlpha(170);
  painter->setPen(grey);
  painter->drawText(textArea.left(),
                    textArea.top() + boldMetrics.height() + 2 + smallMetrics.ascent(),
                    smallMetrics.elidedText(index.data(OrgListModel::UsernameRole).toString(),
                                            Qt::ElideMiddle, area.right() - textArea.left()));
  painter->restore();
}

}  // namespace corvane::desktop

// The logins the Salesforce CLI knows, for the sidebar.
//
// reload() lists them on a worker thread (quickly, without connection
// checks), then checks every login's connection in a second pass and updates
// the badges. The CLI's folder of logins is watched: a login added, renewed
// or removed on disk reloads the list. The rows are only touched on the
// interface thread.
#pragma once

#include <vector>

#include <QAbstractListModel>
#include <QFileSystemWatcher>
#include <QStyledItemDelegate>
#include <QTimer>

#include "connections/org.hpp"

namespace corvane::desktop {

class Services;

class OrgListModel : public QAbstractListModel {
  Q_OBJECT
 public:
  enum Role {
    UsernameRole = Qt::UserRole + 1,
    KindRole,        // the kind's label ("production", "sandbox", ...)
    ConnectionRole,  // int(OrgConnection)
    DetailRole,      // the sentence on the connection state
  };

  explicit OrgListModel(Services& services, QObject* parent = nullptr);

  int rowCount(const QModelIndex& parent = {}) const override;
  QVariant data(const QModelIndex& index, int role) const override;

  const std::vector<Org>& orgs() const { return orgs_; }
  const Org* org(const QString& username) const;
  int rowOf(const QString& username) const;
  bool isLoaded() const { return loaded_; }
  bool isChecked() const { return checked_; }

 public slots:
  void reload();

 signals:
  void loaded();         // the list is read (states may still be unknown)
  void checked();        // every login's connection state is known
  void failed(QString);  // the CLI could not list the logins

 private:
  void setOrgs(std::vector<Org> orgs);
  void watchLoginFolder();

  Services& services_;
  std::vector<Org> orgs_;
  bool loaded_ = false;
  bool checked_ = false;
  int generation_ = 0;  // drops answers of superseded reloads
  QFileSystemWatcher watcher_;
  QTimer debounce_;
};

// Draws a login as its name, its username below, a kind badge and a dot for
// the connection state.
class OrgDelegate : public QStyledItemDelegate {
  Q_OBJECT
 public:
  using QStyledItemDelegate::QStyledItemDelegate;
  void paint(QPainter* painter, const QStyleOptionViewItem& option,
             const QModelIndex& index) const override;
  QSize sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const override;
};

// The colour of a connection state's dot.
QColor connectionColour(OrgConnection connection);

}  // namespace corvane::desktop

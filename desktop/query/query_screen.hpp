// The SOQL editor screen: tabs of queries for the chosen login, with the
// login's history and saved queries beside them.
//
// Completion runs the query engine's entry point on one worker thread of its
// own, with one describe cache per login that only that thread touches.
// History and saved queries are read and written on worker threads.
#pragma once

#include <memory>
#include <optional>

#include <QAction>
#include <QLineEdit>
#include <QListView>
#include <QSplitter>
#include <QTabWidget>
#include <QThreadPool>
#include <QWidget>

#include "connections/org.hpp"
#include "desktop/query/history_model.hpp"

namespace corvane::desktop {

class QueryTab;
class Services;

class QueryScreen : public QWidget {
  Q_OBJECT
 public:
  explicit QueryScreen(Services& services, QWidget* parent = nullptr);
  ~QueryScreen() override;

  void setLogin(const std::optional<Org>& org);
  const std::optional<Org>& login() const { return org_; }

  QueryTab* currentTab() const;
  QTabWidget* tabs() const { return tabs_; }
  QTabWidget* sidePanel() const { return side_; }
  QLineEdit* historySearch() const { return search_; }
  QListView* historyList() const { return historyList_; }
  QListView* savedList() const { return savedList_; }
  HistoryModel* historyModel() { return &history_; }
  SavedQueryModel* savedModel() { return &saved_; }
  QSplitter* splitter() const { return splitter_; }

  // The screen's actions with their shortcuts, for the window's menus.
  QList<QAction*> editorActions() const { return actions_; }
  QAction* runAction() const { return run_; }
  QAction* stopAction() const { return stop_; }

  QueryTab* newTab(const QString& soql = {});
  void closeTab(int index);
  // Saves the current tab's text under name; savedChanged() follows.
  void saveCurrentAs(const QString& name);
  // Opens a query (from history or the saved list) in the current tab when
  // it is empty, else in a new one.
  void open(const QString& soql);
  void reloadHistory();

 signals:
  void historyChanged();
  void savedChanged();
  void message(QString text);  // for the status line
  void exported(QString message);

 private:
  void requestCompletions(QueryTab* tab, const QString& text, int cursor, int request);
  // Keeps a run in the history of the login it ran for.
  void record(const QString& username, const QString& soql, qint64 rows, qint64 milliseconds,
              const QString& error);
  void exportCurrent();
  void saveCurrent();

  Services& services_;
  std::optional<Org> org_;
  QSplitter* splitter_;
  QTabWidget* tabs_;
  QTabWidget* side_;
  QLineEdit* search_;
  QListView* historyList_;
  QListView* savedList_;
  HistoryModel history_;
  SavedQueryModel saved_;
  QList<QAction*> actions_;
  QAction* run_;
  QAction* stop_;
  QThreadPool completionThread_;  // one thread: the describe caches are not shared
  struct Caches;
  std::shared_ptr<Caches> caches_;  // only touched on completionThread_
  int historyGeneration_ = 0;
};

}  // namespace corvane::desktop

// One tab of the SOQL editor: the text, the error line under it, and the
// result grid with its count.
//
// run() starts a QueryRun for the tab's login; pages stream into the grid as
// they arrive. A failure shows Salesforce's sentence under the editor and
// marks the position it names. Exports and copies read the rows as shown.
#pragma once

#include <memory>
#include <optional>

#include <QLabel>
#include <QPushButton>
#include <QSplitter>
#include <QTableView>
#include <QWidget>

#include "connections/org.hpp"
#include "desktop/query/result_model.hpp"
#include "desktop/query/soql_editor.hpp"

namespace corvane::desktop {

class QueryRun;
class Services;

class QueryTab : public QWidget {
  Q_OBJECT
 public:
  explicit QueryTab(Services& services, QWidget* parent = nullptr);
  ~QueryTab() override;

  void setLogin(const std::optional<Org>& org);
  SoqlEditor* editor() const { return editor_; }
  QTableView* grid() const { return grid_; }
  ResultModel* results() const { return results_; }
  QLabel* errorLine() const { return error_; }
  QLabel* countLine() const { return count_; }
  QSplitter* splitter() const { return splitter_; }
  QPushButton* runButton() const { return runButton_; }
  QPushButton* stopButton() const { return stopButton_; }

  bool isRunning() const;
  // A short title: the FROM object, else "Query".
  QString title() const;

  // Writes the rows as shown to path (CSV, TSV or .xlsx by its extension) on
  // a worker thread; exported() or exportFailed() tells the outcome.
  void exportTo(const QString& path);
  // The selected cells as tab-separated text, onto the clipboard.
  void copySelection();

 public slots:
  void run();
  void stop();

 signals:
  void started();
  // The run's login, its text, the rows shown, and the error sentence when it failed.
  void ended(QString username, QString soql, qint64 rows, qint64 milliseconds, QString error);
  void exported(QString message);
  void exportFailed(QString message);
  void titleChanged();

 private:
  void showError(const QString& message, int row, int column);
  void fitColumns();
  void updateCount(qint64 rows, qint64 total, bool running, bool stopped);

  Services& services_;
  std::optional<Org> org_;
  SoqlEditor* editor_;
  QLabel* error_;
  QTableView* grid_;
  ResultModel* results_;
  QLabel* count_;
  QPushButton* runButton_;
  QPushButton* stopButton_;
  QSplitter* splitter_;
  QueryRun* run_ = nullptr;
  qint64 total_ = 0;
};

}  // namespace corvane::desktop

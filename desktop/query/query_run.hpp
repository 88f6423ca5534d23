// One run of a SOQL query for the editor: QueryTask::run on a worker thread,
// its pages and progress delivered here through queued calls.
//
// stop() returns at once: the run is marked stopped, nothing more reaches the
// screen, and the worker ends after the page in flight. The interface thread
// never waits for the network.
#pragma once

#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

#include <QElapsedTimer>
#include <QObject>
#include <QString>

#include "connections/org.hpp"
#include "desktop/query/result_model.hpp"
#include "query/query_task.hpp"

namespace corvane::desktop {

class Services;

class QueryRun : public QObject {
  Q_OBJECT
 public:
  QueryRun(Services& services, Org org, QString soql, QObject* parent = nullptr);
  ~QueryRun() override;

  void start();
  void stop();
  bool isRunning() const { return running_; }
  const QString& soql() const { return soql_; }
  const Org& org() const { return org_; }
  qint64 elapsedMilliseconds() const { return clock_.elapsed(); }

 signals:
  void columns(std::vector<std::string> names);
  void page(corvane::desktop::ResultPage rows);
  void progress(qint64 rows, qint64 totalSize);
  // The run ended: rows shown, Salesforce's total, whether it was stopped.
  void finished(qint64 rows, qint64 totalSize, bool stopped);
  // Salesforce refused the query, or it could not be read: the sentence and,
  // when Salesforce named one, the position (row and column from 1).
  void failed(QString message, int row, int column);

 private:
  Services& services_;
  Org org_;
  QString soql_;
  std::stop_source stop_;
  bool running_ = false;
  qint64 rows_ = 0;
  QElapsedTimer clock_;
  std::shared_ptr<bool> alive_;  // cleared on destruction; the worker checks it
};

}  // namespace corvane::desktop

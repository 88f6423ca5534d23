#include "desktop/query/query_run.hpp"

#include <QCoreApplication>
#include <QMetaObject>
#include <QPointer>
#include <QThreadPool>

#include "desktop/common/services.hpp"
#include "desktop/common/worker.hpp"

namespace corvane::desktop {

namespace {

std::vector<std::string> names(const std::vector<ResultTable::Column>& columns) {
  std::vector<std::string> out;
  for (const auto& column : columns) out.push_back(column.name);
  return out;
}

}  // namespace

QueryRun::QueryRun(Services& services, Org org, QString soql, QObject* parent)
    : QObject(parent), services_(services), org_(std::move(org)), soql_(std::move(soql)) {}

QueryRun::~QueryRun() { stop_.request_stop(); }

void QueryRun::start() {
  running_ = true;
  clock_.start();
  QPointer<QueryRun> self(this);
  auto api = services_.api();
  const Org org = org_;
  const std::string soql = soql_.toStdString();
  const std::stop_token token = stop_.get_token();
  auto task = [self, api, org, soql, token] {
    auto post = [self, token](auto call) {
      if (token.stop_requested()) return;
      // Posted to the application object, which outlives every screen; the
      // run itself is only looked at on the interface thread.
      QMetaObject::invokeMethod(
          QCoreApplication::instance(),
          [self, token, call = std::move(call)]() mutable {
            if (self && !token.stop_requested()) call(*self);
          },
          Qt::QueuedConnection);
    };
    std::vector<std::string> shownColumns;
    try {
      auto outcome = QueryTask::run(
          *api, org, {soql, QueryTask::Shape::table}, token,
          [&](QueryRows&& rows) {
            auto columnNames = names(rows.columns);
            if (columnNames != shownColumns) {
              shownColumns = columnNames;
              post([columnNames](QueryRun& run) { emit run.columns(columnNames); });
            }
            auto page = std::make_shared<const std::vector<ResultRow>>(std::move(rows.cells));
            post([page](QueryRun& run) {
              run.rows_ += static_cast<qint64>(page->size());
              emit run.page(page);
            });
            return !token.stop_requested();
          },
          [&](const QueryProgress& step) {
            post([step](QueryRun& run) { emit run.progress(step.rows, step.totalSize); });
          });
      auto finalColumns = names(outcome.columns);
      post([finalColumns, outcome](QueryRun& run) {
        run.running_ = false;
        emit run.columns(finalColumns);
        emit run.finished(run.rows_, outcome.totalSize, outcome.stopped);
      });
    } catch (const QueryError& error) {
      const auto position = error.position();
      const QString message = QString::fromStdString(error.description());
      post([message, position](QueryRun& run) {
        run.running_ = false;
        emit run.failed(message, position ? position->row : 0, position ? position->column : 0);
      });
    } catch (...) {
      const QString message = failureText(std::current_exception());
      post([message](QueryRun& run) {
        run.running_ = false;
        emit run.failed(message, 0, 0);
      });
    }
  };
  Worker::queryPool().start(std::move(task));
}

void QueryRun::stop() {
  if (!running_) return;
  stop_.request_stop();
  running_ = false;
  emit finished(rows_, -1, true);
}

}  // namespace corvane::desktop

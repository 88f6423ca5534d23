// Running engine work off the interface thread.
//
// Worker::run starts `work` on a pool thread and delivers its result, or the
// sentence of the error it threw, to `done` on the thread of `context` through
// a queued call. When context is destroyed first, the result is dropped. The
// interface thread never waits for the work.
#pragma once

#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <type_traits>

#include <QCoreApplication>
#include <QMetaObject>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QThreadPool>

namespace corvane::desktop {

// The sentence a user reads for a failure thrown by engine work.
QString failureText(const std::exception_ptr& failure);

// What finished work hands back: a value, or the failure's sentence.
template <typename T>
struct Outcome {
  std::optional<T> value;
  QString error;  // empty on success
  bool ok() const { return value.has_value(); }
};

namespace Worker {

// The pool for short engine calls (listing logins, describes, history).
QThreadPool& pool();
// The pool for queries, which may run long.
QThreadPool& queryPool();
// Waits for the work in both pools (at the end of the services it uses).
void waitForAll();

template <typename Work, typename Done>
void run(QObject* context, Work work, Done done, QThreadPool* threads = nullptr) {
  using T = std::invoke_result_t<Work>;
  QPointer<QObject> guard(context);
  auto task = [guard, work = std::move(work), done = std::move(done)]() mutable {
    auto outcome = std::make_shared<Outcome<T>>();
    try {
      outcome->value.emplace(work());
    } catch (...) {
      outcome->error = failureText(std::current_exception());
    }
    // Posted to the application object, which outlives every screen; the
    // context is only looked at on the interface thread.
    QMetaObject::invokeMethod(
        QCoreApplication::instance(),
        [guard, outcome, done = std::move(done)]() mutable {
          if (guard) done(std::move(*outcome));
        },
        Qt::QueuedConnection);
  };
  (threads ? threads : &pool())->start(std::move(task));
}

}  // namespace Worker

}  // namespace corvane::desktop

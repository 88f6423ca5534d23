#include "desktop/common/worker.hpp"

#include "connections/cli_error.hpp"
#include "connections/salesforce_api.hpp"
#include "platform/user_facing_error.hpp"

namespace corvane::desktop {

QString failureText(const std::exception_ptr& failure) {
  try {
    std::rethrow_exception(failure);
  } catch (const CLIError& error) {
    return QString::fromStdString(error.description());
  } catch (const SalesforceAPI::APIError& error) {
    return QString::fromStdString(error.description());
  } catch (const UserFacingError& error) {
    return QString::fromStdString(error.description());
  } catch (const std::exception& error) {
    return QStringLiteral("Corvane stopped on an unexpected failure: %1")
        .arg(QString::fromUtf8(error.what()));
  } catch (...) {
    return QStringLiteral("Corvane stopped on an unexpected failure.");
  }
}

namespace Worker {

QThreadPool& pool() {
  // Destroyed at exit, after waiting for the work in hand.
  static QThreadPool threads;
  static const bool sized = [] {
    threads.setMaxThreadCount(4);
    return true;
  }();
  (void)sized;
  return threads;
}

QThreadPool& queryPool() {
  static QThreadPool threads;
  static const bool sized = [] {
    threads.setMaxThreadCount(8);
    return true;
  }();
  (void)sized;
  return threads;
}

void waitForAll() {
  queryPool().waitForDone();
  pool().waitForDone();
}

}  // namespace Worker

}  // namespace corvane::desktop

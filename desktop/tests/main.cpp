// The desktop tests: QTest classes run offscreen against the sample org.
//   desktop_tests [SUITE] [QTest arguments]
// HOME, CORVANE_HOME and the Salesforce CLI point into a temporary folder, so
// no user file is read or changed.
#include <stdlib.h>

#include <QApplication>
#include <QDir>
#include <QTemporaryDir>
#include <QTest>

#include "desktop/tests/suites.hpp"

int main(int argc, char** argv) {
  if (!qEnvironmentVariableIsSet("QT_QPA_PLATFORM")) ::setenv("QT_QPA_PLATFORM", "offscreen", 1);
  QTemporaryDir home(QDir::tempPath() + "/corvane-desktop-test-XXXXXX");
  const QByteArray homePath = home.path().toLocal8Bit();
  ::setenv("HOME", homePath.constData(), 1);
  ::setenv("CORVANE_HOME", (homePath + "/corvane").constData(), 1);
  ::setenv("CORVANE_SF_PATH", CORVANE_SF_STANDIN, 1);
  ::setenv("XDG_RUNTIME_DIR", homePath.constData(), 1);
  ::unsetenv("XDG_CONFIG_HOME");
  ::unsetenv("XDG_DATA_HOME");

  QApplication app(argc, argv);
  QApplication::setApplicationVersion(CORVANE_VERSION);
  QStringList arguments = QCoreApplication::arguments();
  QString suite;
  if (arguments.size() > 1 && !arguments[1].startsWith('-')) suite = arguments.takeAt(1);
  return corvane::desktop::testing::runSuites(suite, arguments);
}

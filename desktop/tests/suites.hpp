// The test classes, each run by name (or all when no name is given).
#pragma once

#include <QStringList>

namespace corvane::desktop::testing {

int runShellTest(const QStringList& arguments);
int runQueryEditorTest(const QStringList& arguments);
int runSettingsTest(const QStringList& arguments);
int runUpdateCheckTest(const QStringList& arguments);

inline int runSuites(const QString& suite, const QStringList& arguments) {
  int failures = 0;
  if (suite.isEmpty() || suite == "ShellTest") failures += runShellTest(arguments);
  if (suite.isEmpty() || suite == "QueryEditorTest") failures += runQueryEditorTest(arguments);
  if (suite.isEmpty() || suite == "SettingsTest") failures += runSettingsTest(arguments);
  if (suite.isEmpty() || suite == "UpdateCheckTest") failures += runUpdateCheckTest(arguments);
  return failures == 0 ? 0 : 1;
}

}  // namespace corvane::desktop::testing

// What the desktop tests share: a throw-away home folder, the sample org
// served in this process, and a login to it made with the CLI stand-in, as a
// user makes one with the real CLI.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include <QProcess>
#include <QString>
#include <QTemporaryDir>

#include "tools/orgsim/server.hpp"

namespace corvane::desktop::testing {

// The process-wide test home: HOME, CORVANE_HOME and CORVANE_SF_PATH point
// into one temporary folder, set by main() before anything else runs.
QString testHome();

class SampleOrg {
 public:
  SampleOrg();
  ~SampleOrg();

  // Accounts "Account 000000" ... with Industry and AnnualRevenue, written in batches.
  void addAccounts(int count);
  // Logs in with the CLI stand-in under alias; true when it succeeded.
  bool logIn(const QString& alias = "sample");
  bool logOut(const QString& alias = "sample");

  orgsim::OrgStore& store() { return server_->store(); }
  std::string url() const { return server_->baseUrl(); }
  std::string username() { return store().identity().adminUsername; }
  // Runs a program with the test's environment; its exit status, output in out.
  static int run(const QString& program, const QStringList& arguments, QString* out = nullptr,
                 const QProcessEnvironment& extra = {}, int timeoutMs = 120'000);

 private:
  QTemporaryDir folder_;
  std::unique_ptr<orgsim::OrgServer> server_;
  int accounts_ = 0;
};

}  // namespace corvane::desktop::testing

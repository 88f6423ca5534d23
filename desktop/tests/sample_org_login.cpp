#include "desktop/tests/sample_org_login.hpp"

#include <cstdio>

#include "tools/orgsim/sessions.hpp"

namespace corvane::desktop::testing {

QString testHome() { return qEnvironmentVariable("HOME"); }

SampleOrg::SampleOrg() {
  server_ = std::make_unique<orgsim::OrgServer>(folder_.filePath("state").toStdString());
  server_->start();
  server_->store().setSetting("bulkDelayMs", "0");
}

SampleOrg::~SampleOrg() { server_.reset(); }

void SampleOrg::addAccounts(int count) {
  auto writer = store().writer("Account", {"Name", "Industry", "AnnualRevenue"});
  for (int i = 0; i < count; ++i, ++accounts_) {
    char name[32];
    std::snprintf(name, sizeof name, "Account %06d", accounts_);
    writer.insert(
        {name, accounts_ % 2 == 0 ? "Banking" : "Energy", std::to_string(accounts_ * 1000)});
  }
  writer.commit();
}

int SampleOrg::run(const QString& program, const QStringList& arguments, QString* out,
                   const QProcessEnvironment& extra, int timeoutMs) {
  QProcess process;
  QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
  for (const QString& key : extra.keys()) environment.insert(key, extra.value(key));
  process.setProcessEnvironment(environment);
  process.setProcessChannelMode(QProcess::MergedChannels);
  process.start(program, arguments);
  if (!process.waitForFinished(timeoutMs)) {
    process.kill();
    process.waitForFinished();
    return -1;
  }
  if (out) *out = QString::fromUtf8(process.readAll());
  return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
}

bool SampleOrg::logIn(const QString& alias) {
  QProcessEnvironment extra;
  // The token travels in the environment, never on a command line.
  extra.insert("SF_ACCESS_TOKEN",
               QString::fromStdString(orgsim::Sessions::issue(store(), "").token));
  QString out;
  const int status = run(CORVANE_SF_STANDIN,
                         {"org", "login", "access-token", "--instance-url",
                          QString::fromStdString(url()), "--alias", alias, "--no-prompt", "--json"},
                         &out, extra);
  if (status != 0) qWarning("sf login failed: %s", qPrintable(out));
  return status == 0;
}

bool SampleOrg::logOut(const QString& alias) {
  return run(CORVANE_SF_STANDIN,
             {"org", "logout", "--target-org", alias, "--no-prompt", "--json"}) == 0;
}

}  // namespace corvane::desktop::testing

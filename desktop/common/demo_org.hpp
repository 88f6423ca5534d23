// Demo mode: the bundled sample org, started on this computer with a login of
// its own, so every screen can be tried without a Salesforce account.
//
// enter() points HOME, CORVANE_HOME and the Salesforce CLI at demo folders
// (call it first thing in main, before any thread starts), so the user's own
// CLI logins and Corvane settings are never read or changed. start() makes
// the sample org once (kept under the demo folder and reused), serves it on a
// free loopback port and logs in to it with the CLI stand-in under the alias
// "sample"; every step is an asynchronous child process, so the window stays
// responsive. The server stops with this object.
#pragma once

#include <optional>

#include <QObject>
#include <QProcess>
#include <QString>

namespace corvane::desktop {

class DemoOrg : public QObject {
  Q_OBJECT
 public:
  struct Programs {
    QString orgsim;  // corvane-orgsim
    QString sf;      // the CLI stand-in
  };

  static constexpr const char* alias = "sample";

  // The sample org's programs beside this one: in the build tree
  // (../tools/orgsim/...) or installed (../lib/corvane/...). $CORVANE_ORGSIM
  // and $CORVANE_SF_PATH win when set.
  static std::optional<Programs> locate(const QString& applicationFolder);
  // The demo folder: "Demo" in the user's application-support folder.
  static QString standardFolder();
  // Points the process at the demo folders. Not thread-safe: call before threads start.
  static void enter(const QString& folder, const Programs& programs);

  DemoOrg(QString folder, Programs programs, QObject* parent = nullptr);
  ~DemoOrg() override;

  // "tiny" for tests; "demo" (the default) is what a person tries.
  void setScale(const QString& scale) { scale_ = scale; }
  void start();
  bool isReady() const { return ready_; }
  const QString& url() const { return url_; }

 signals:
  void progress(QString step);
  void ready(QString login);
  void failed(QString message);

 private:
  void generate();
  void serve();
  void logIn();
  void fail(const QString& message);
  QString stateFolder() const;

  QString folder_;
  Programs programs_;
  QString scale_ = QStringLiteral("demo");
  QProcess server_;
  QProcess step_;
  QString url_;
  QString serverOutput_;
  bool ready_ = false;
};

}  // namespace corvane::desktop

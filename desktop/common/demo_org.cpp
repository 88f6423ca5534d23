#include "desktop/common/demo_org.hpp"

#include <stdlib.h>
#ifdef __linux__
#include <signal.h>
#include <sys/prctl.h>
#endif

#include <QDir>
#include <QFileInfo>
#include <QProcessEnvironment>

#include "platform/app_support.hpp"

namespace corvane::desktop {

namespace {

bool executable(const QString& path) {
  const QFileInfo info(path);
  return info.isFile() && info.isExecutable();
}

}  // namespace

std::optional<DemoOrg::Programs> DemoOrg::locate(const QString& applicationFolder) {
  const QString envOrgsim = qEnvironmentVariable("CORVANE_ORGSIM");
  const QString envSf = qEnvironmentVariable("CORVANE_SF_PATH");
  const QDir here(applicationFolder);
  const QList<Programs> candidates = {
      {here.filePath("../tools/orgsim/corvane-orgsim"), here.filePath("../tools/orgsim/sf/sf")},
      {here.filePath("../lib/corvane/corvane-orgsim"), here.filePath("../lib/corvane/sf")},
  };
  for (Programs programs : candidates) {
    if (!envOrgsim.isEmpty()) programs.orgsim = envOrgsim;
    if (!envSf.isEmpty()) programs.sf = envSf;
    if (executable(programs.orgsim) && executable(programs.sf)) {
      programs.orgsim = QFileInfo(programs.orgsim).canonicalFilePath();
      programs.sf = QFileInfo(programs.sf).canonicalFilePath();
      return programs;
    }
  }
  return std::nullopt;
}

QString DemoOrg::standardFolder() {
  return QString::fromStdString((AppSupport::folder() / "Demo").string());
}

void DemoOrg::enter(const QString& folder, const Programs& programs) {
  const QDir demo(folder);
  demo.mkpath("home");
  demo.mkpath("corvane");
  // Each start logs in anew on a new port: a login left from the last start is stale.
  QDir(demo.filePath("home/.sfdx")).removeRecursively();
  ::setenv("HOME", demo.filePath("home").toLocal8Bit().constData(), 1);
  ::setenv("CORVANE_HOME", demo.filePath("corvane").toLocal8Bit().constData(), 1);
  ::setenv("CORVANE_SF_PATH", programs.sf.toLocal8Bit().constData(), 1);
  ::unsetenv("XDG_CONFIG_HOME");
}

DemoOrg::DemoOrg(QString folder, Programs programs, QObject* parent)
    : QObject(parent), folder_(std::move(folder)), programs_(std::move(programs)) {
  server_.setProcessChannelMode(QProcess::SeparateChannels);
#ifdef __linux__
  // The sample org ends with the app, even when the app is killed.
  server_.setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGTERM); });
#endif
  server_.setStandardErrorFile(QDir(folder_).filePath("orgsim.log"));
  connect(&server_, &QProcess::readyReadStandardOutput, this, [this] {
    serverOutput_ += QString::fromUtf8(server_.readAllStandardOutput());
    const QString prefix = QStringLiteral("corvane-orgsim listening on ");
    const int end = static_cast<int>(serverOutput_.indexOf('\n'));
    if (url_.isEmpty() && end >= 0 && serverOutput_.startsWith(prefix)) {
      url_ = serverOutput_.mid(prefix.size(), end - prefix.size()).trimmed();
      logIn();
    }
  });
  connect(&server_, &QProcess::errorOccurred, this, [this](QProcess::ProcessError error) {
    if (error == QProcess::FailedToStart)
      fail(tr("The sample org program %1 could not be started.").arg(programs_.orgsim));
  });
  connect(&server_, &QProcess::finished, this, [this] {
    if (!ready_ && url_.isEmpty())
      fail(tr("The sample org stopped before it was ready; its log is %1.")
               .arg(QDir(folder_).filePath("orgsim.log")));
  });
}

DemoOrg::~DemoOrg() {
  step_.kill();
  step_.waitForFinished(2000);
  if (server_.state() != QProcess::NotRunning) {
    server_.terminate();
    if (!server_.waitForFinished(3000)) {
      server_.kill();
      server_.waitForFinished(2000);
    }
  }
}

QString DemoOrg::stateFolder() const { return QDir(folder_).filePath("org"); }

void DemoOrg::start() {
  QDir().mkpath(folder_);
  const QFileInfo stamp(QDir(stateFolder()).filePath("generated"));
  const QFileInfo program(programs_.orgsim);
  // A sample org made by an older program may lack fields: make it again.
  if (stamp.exists() && stamp.lastModified() >= program.lastModified()) {
    serve();
  } else {
    generate();
  }
}

void DemoOrg::generate() {
  emit progress(tr("Making the sample org (once; later starts reuse it)…"));
  const QString partial = stateFolder() + ".partial";
  QDir(partial).removeRecursively();
  QDir(stateFolder()).removeRecursively();
  step_.disconnect(this);
  connect(&step_, &QProcess::finished, this,
          [this, partial](int code, QProcess::ExitStatus status) {
            if (status != QProcess::NormalExit || code != 0) {
              fail(tr("The sample org could not be made: %1")
                       .arg(QString::fromUtf8(step_.readAllStandardError()).trimmed()));
              return;
            }
            QFile stamp(QDir(partial).filePath("generated"));
            stamp.open(QIODevice::WriteOnly);
            stamp.close();
            QDir().rename(partial, stateFolder());
            serve();
          });
  step_.start(programs_.orgsim, {"generate", "--out", partial, "--scale", scale_});
}

void DemoOrg::serve() {
  emit progress(tr("Starting the sample org…"));
  server_.start(programs_.orgsim, {"serve", "--state", stateFolder(), "--port", "0"});
}

void DemoOrg::logIn() {
  emit progress(tr("Logging in to the sample org…"));
  // A token from the org, handed to the CLI in its environment, never on a command line.
  step_.disconnect(this);
  connect(&step_, &QProcess::finished, this, [this](int code, QProcess::ExitStatus) {
    const QString token = QString::fromUtf8(step_.readAllStandardOutput()).trimmed();
    if (code != 0 || token.isEmpty()) {
      fail(tr("The sample org gave no login token."));
      return;
    }
    step_.disconnect(this);
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("SF_ACCESS_TOKEN", token);
    step_.setProcessEnvironment(environment);
    connect(&step_, &QProcess::finished, this, [this](int loginCode, QProcess::ExitStatus) {
      step_.setProcessEnvironment(QProcessEnvironment::systemEnvironment());
      if (loginCode != 0) {
        fail(tr("The CLI stand-in could not log in to the sample org: %1")
                 .arg(QString::fromUtf8(step_.readAllStandardError()).trimmed()));
        return;
      }
      ready_ = true;
      emit ready(QString::fromLatin1(alias));
    });
    step_.start(programs_.sf, {"org", "login", "access-token", "--instance-url", url_, "--alias",
                               QString::fromLatin1(alias), "--no-prompt", "--json"});
  });
  step_.start(programs_.orgsim, {"token", "--state", stateFolder()});
}

void DemoOrg::fail(const QString& message) { emit failed(message); }

}  // namespace corvane::desktop

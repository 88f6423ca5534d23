// corvane-desktop: the desktop app's entry point.
//
//   corvane-desktop                      the app
//   corvane-desktop --demo               the app on the bundled sample org
//   corvane-desktop --screenshots DIR [--org LOGIN]
//                                        pictures of every screen, then exit
//   corvane-desktop --version
#include <signal.h>
#include <unistd.h>

#include <iostream>
#include <memory>

#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QFileInfo>
#include <QIcon>
#include <QProcess>
#include <QSocketNotifier>
#include <QStatusBar>

#include "desktop/common/app_icon.hpp"
#include "desktop/common/demo_org.hpp"
#include "desktop/common/services.hpp"
#include "desktop/shell/info_pages.hpp"
#include "desktop/shell/main_window.hpp"
#include "desktop/shell/org_list_model.hpp"
#include "desktop/shell/screenshots.hpp"

using namespace corvane::desktop;

namespace {

// The folder of this program, read before Qt starts (demo mode changes HOME).
QString programFolder(const char* argv0) {
  const QFileInfo self(QString::fromLocal8Bit("/proc/self/exe"));
  if (self.exists()) return QFileInfo(self.canonicalFilePath()).absolutePath();
  return QFileInfo(QString::fromLocal8Bit(argv0)).absolutePath();
}

bool hasArgument(int argc, char** argv, const char* name) {
  for (int i = 1; i < argc; ++i)
    if (QString::fromLocal8Bit(argv[i]) == QLatin1String(name)) return true;
  return false;
}

// SIGTERM and SIGINT end the event loop, so the window saves its state and
// the demo's sample org is stopped: the handler only writes to a pipe.
int signalPipe[2] = {-1, -1};

void onSignal(int) {
  const char byte = 1;
  [[maybe_unused]] auto written = ::write(signalPipe[1], &byte, 1);
}

void quitOnSignals(QObject* owner) {
  if (::pipe(signalPipe) != 0) return;
  auto* notifier = new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, owner);
  QObject::connect(notifier, &QSocketNotifier::activated, owner, [] { QCoreApplication::quit(); });
  struct sigaction action {};
  action.sa_handler = onSignal;
  sigemptyset(&action.sa_mask);
  ::sigaction(SIGTERM, &action, nullptr);
  ::sigaction(SIGINT, &action, nullptr);
}

}  // namespace

int main(int argc, char** argv) {
  if (hasArgument(argc, argv, "--version")) {
    std::cout << "corvane-desktop " << CORVANE_VERSION << "\n";
    return 0;
  }
  // Demo mode points HOME and the settings at demo folders before any thread starts.
  const bool demo = hasArgument(argc, argv, "--demo");
  const QString folder = programFolder(argv[0]);
  std::optional<DemoOrg::Programs> demoPrograms;
  QString demoFolder;
  if (demo) {
    demoPrograms = DemoOrg::locate(folder);
    if (!demoPrograms) {
      std::cerr << "corvane-desktop: the sample org's programs (corvane-orgsim and sf) were not "
                   "found beside this program, so demo mode cannot start. Build them with "
                   "scripts/setup, or set CORVANE_ORGSIM and CORVANE_SF_PATH.\n";
      return 1;
    }
    demoFolder = DemoOrg::standardFolder();
    DemoOrg::enter(demoFolder, *demoPrograms);
  }

  QApplication app(argc, argv);
  QApplication::setApplicationName("Corvane");
  QApplication::setOrganizationName("Corvane");
  QApplication::setApplicationVersion(CORVANE_VERSION);
  QApplication::setWindowIcon(appIcon());
  QApplication::setDesktopFileName("corvane-desktop");

  QCommandLineParser parser;
  parser.setApplicationDescription("Corvane: backups, duplicates and SOQL for Salesforce orgs");
  parser.addHelpOption();
  QCommandLineOption demoOption("demo",
                                "Open the bundled sample org (no Salesforce account needed).");
  QCommandLineOption screenshots("screenshots",
                                 "Write a picture of every screen into DIR, then exit.", "DIR");
  QCommandLineOption org("org", "The login the pictures show (default: the first).", "LOGIN");
  QCommandLineOption version("version", "Print the version.");
  parser.addOptions({demoOption, screenshots, org, version});
  parser.process(app);

  quitOnSignals(&app);
  Services services;
  MainWindow window(services);
  std::unique_ptr<DemoOrg> demoOrg;
  if (demo) {
    demoOrg = std::make_unique<DemoOrg>(demoFolder, *demoPrograms);
    QObject::connect(demoOrg.get(), &DemoOrg::progress, &window,
                     [&window](QString step) { window.statusBar()->showMessage(step); });
    QObject::connect(demoOrg.get(), &DemoOrg::failed, &window, [&window](QString message) {
      window.statusBar()->showMessage(message);
      window.welcomePage()->setNote(message);
    });
    QObject::connect(demoOrg.get(), &DemoOrg::ready, &window, [&window](QString login) {
      window.statusBar()->showMessage(QObject::tr("The sample org is ready."), 8000);
      // The new login arrives through the watched login folder; ask now as well.
      window.orgs()->reload();
      QObject::connect(window.orgs(), &OrgListModel::loaded, &window, [&window, login] {
        if (window.chooseLogin(login) && window.currentScreen() == MainWindow::Screen::welcome)
          window.showScreen(MainWindow::Screen::login);
      });
    });
    window.setWindowTitle(QObject::tr("Corvane: demo"));
    demoOrg->start();
  }
  // The welcome screen's demo button starts this program again in demo mode.
  QObject::connect(&window, &MainWindow::demoRequested, &window, [&window] {
    if (!QProcess::startDetached(QCoreApplication::applicationFilePath(), {"--demo"}))
      window.statusBar()->showMessage(QObject::tr("The demo could not be started."));
  });

  if (parser.isSet(screenshots)) {
    auto* tour = new ScreenshotTour(window, parser.value(screenshots), parser.value(org), &window);
    QObject::connect(tour, &ScreenshotTour::finished, &app,
                     [](int status) { QCoreApplication::exit(status); });
    window.resize(1280, 800);
    window.show();
    if (demoOrg) {
      // Pictures of the demo wait for its login.
      QObject::connect(demoOrg.get(), &DemoOrg::ready, tour, &ScreenshotTour::start);
      QObject::connect(demoOrg.get(), &DemoOrg::failed, &app, [] { QCoreApplication::exit(1); });
    } else {
      tour->start();
    }
    return app.exec();
  }
  window.show();
  return app.exec();
}

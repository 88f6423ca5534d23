#include "desktop/shell/screenshots.hpp"

#include <iostream>
#include <memory>

#include <QAbstractItemView>
#include <QPixmap>
#include <QTabWidget>
#include <QTextCursor>

#include "desktop/query/query_screen.hpp"
#include "desktop/query/query_tab.hpp"
#include "desktop/settings/settings_page.hpp"
#include "desktop/shell/main_window.hpp"
#include "desktop/shell/org_list_model.hpp"

namespace corvane::desktop {

namespace {

constexpr int kWaitMilliseconds = 90'000;

}  // namespace

const QStringList& ScreenshotTour::names() {
  static const QStringList list = {"welcome",       "orgs",     "query", "query-completion",
                                   "query-history", "settings", "about"};
  return list;
}

ScreenshotTour::ScreenshotTour(MainWindow& window, QString folder, QString login, QObject* parent)
    : QObject(parent), window_(window), folder_(folder), login_(std::move(login)) {
  poll_.setInterval(100);
  connect(&poll_, &QTimer::timeout, this, &ScreenshotTour::poll);
  auto* query = window_.queryScreen();
  auto loginsReady = [this] {
    return window_.orgs()->isChecked() && window_.allowanceKnown() &&
           (window_.chosenLogin() || window_.orgs()->orgs().empty());
  };
  steps_ = {
      {"welcome", [this] { window_.showScreen(MainWindow::Screen::welcome); },
       [this] {
         if (!window_.orgs()->isLoaded()) return false;
         // Choosing the first login moves on from the welcome screen; come back.
         if (window_.currentScreen() != MainWindow::Screen::welcome)
           window_.showScreen(MainWindow::Screen::welcome);
         return true;
       }},
      {"orgs",
       [this] {
         if (!login_.isEmpty() && !window_.chooseLogin(login_))
           std::cerr << "corvane-desktop: no login named " << login_.toStdString()
                     << "; showing the first.\n";
         window_.showScreen(MainWindow::Screen::login);
       },
       loginsReady},
      {"query",
       [this, query] {
         window_.showScreen(MainWindow::Screen::query);
         for (const char* soql :
              {"SELECT COUNT() FROM Opportunity WHERE IsClosed = false",
               "SELECT FirstName, LastName, Email, Account.Name FROM Contact ORDER BY LastName "
               "LIMIT 50",
               "SELECT Name, Industry FROM Account WHERE Industry != null ORDER BY Name LIMIT 20"})
           query->newTab(soql)->run();
         auto* tab = query->newTab(
             "SELECT Id, Name, Industry, Owner.Name, AnnualRevenue, CreatedDate\n"
             "FROM Account\nORDER BY Name\nLIMIT 500");
         tab->run();
       },
       [query] {
         auto* tab = query->currentTab();
         return tab && !tab->isRunning() &&
                (tab->results()->totalRows() > 0 || tab->errorLine()->isVisible());
       }},
      {"query-completion",
       [query] {
         // A query with its rows, then a field being typed into its select list.
         query->newTab("SELECT Name, Industry, Phone\nFROM Account\nORDER BY Name\nLIMIT 100")
             ->run();
       },
       [query, asked = std::make_shared<bool>(false), polls = std::make_shared<int>(0)] {
         auto* tab = query->currentTab();
         if (!tab || tab->isRunning()) return false;
         if (!*asked) {
           *asked = true;
           QTextCursor cursor = tab->editor()->textCursor();
           cursor.setPosition(16);  // "SELECT Name, Ind|ustry": keep "Ind"
           cursor.setPosition(21, QTextCursor::KeepAnchor);
           cursor.removeSelectedText();
           tab->editor()->setTextCursor(cursor);
           tab->editor()->setFocus();
           tab->editor()->complete();
           return false;
         }
         if (!tab->editor()->isCompletionVisible()) {
           // The answer may have come before the editor was laid out: ask again now and then.
           if (++*polls % 20 == 0) tab->editor()->complete();
           return false;
         }
         return tab->editor()->completionModel().rowCount() > 0;
       }},
      {"query-history",
       [query] {
         query->tabs()->setCurrentIndex(4);  // the long Account query with its results
         query->sidePanel()->setCurrentIndex(0);
         query->historySearch()->setFocus();
         query->reloadHistory();
       },
       [query] { return query->historyModel()->rowCount() >= 4; }},
      {"settings", [this] { window_.showScreen(MainWindow::Screen::settings); },
       [this] { return window_.settingsPage()->isLoaded(); }},
      {"about", [this] { window_.showScreen(MainWindow::Screen::about); }, [] { return true; }},
  };
}

void ScreenshotTour::start() {
  folder_.mkpath(".");
  window_.resize(1280, 800);
  at_ = 0;
  // The first screens need the login list.
  QTimer::singleShot(0, this, [this] {
    waited_.start();
    steps_[0].prepare();
    poll_.start();
  });
}

void ScreenshotTour::poll() {
  const Step& step = steps_[at_];
  const bool timedOut = waited_.elapsed() > kWaitMilliseconds;
  if (!step.ready() && !timedOut) {
    settle_ = 0;
    return;
  }
  if (!timedOut && ++settle_ < 4) return;  // let the last changes paint
  settle_ = 0;
  if (timedOut) {
    std::cerr << "corvane-desktop: the " << step.name.toStdString()
              << " screen did not finish loading within " << kWaitMilliseconds / 1000
              << " seconds; its picture shows it as it was.\n";
    status_ = 1;
  }
  if (!capture(step.name)) status_ = 1;
  next();
}

void ScreenshotTour::next() {
  if (++at_ >= steps_.size()) {
    poll_.stop();
    emit finished(status_);
    return;
  }
  waited_.restart();
  steps_[at_].prepare();
}

bool ScreenshotTour::capture(const QString& name) {
  if (window_.size() != QSize(1280, 800)) window_.resize(1280, 800);
  QPixmap picture = window_.grab();
  const QString file = folder_.filePath(name + ".png");
  if (!picture.save(file, "PNG")) {
    std::cerr << "corvane-desktop: could not write " << file.toStdString() << ".\n";
    return false;
  }
  std::cout << "Wrote " << file.toStdString() << "\n";
  return true;
}

}  // namespace corvane::desktop

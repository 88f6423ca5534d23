// The main window: the sidebar of logins and of the chosen login's tools,
// the screen of the chosen tool, and the status line with the login's API
// allowance and any update notice.
//
// Window size, splitters and the last login are remembered in the app's
// preferences. The window never waits: logins, allowance, history and
// settings are read on worker threads and shown when they arrive.
#pragma once

#include <optional>

#include <QElapsedTimer>
#include <QLabel>
#include <QListView>
#include <QListWidget>
#include <QMainWindow>
#include <QSplitter>
#include <QStackedWidget>

#include "connections/org.hpp"

namespace corvane::desktop {

class AboutPage;
class LoginPage;
class OrgListModel;
class QueryScreen;
class Services;
class SettingsPage;
class UpdateCheck;
class WelcomePage;

class MainWindow : public QMainWindow {
  Q_OBJECT
 public:
  enum class Screen { welcome, login, query, settings, about };

  explicit MainWindow(Services& services, QWidget* parent = nullptr);
  ~MainWindow() override;

  OrgListModel* orgs() const { return orgs_; }
  QListView* orgList() const { return orgList_; }
  QListWidget* toolList() const { return tools_; }
  QueryScreen* queryScreen() const { return query_; }
  SettingsPage* settingsPage() const { return settings_; }
  WelcomePage* welcomePage() const { return welcome_; }
  LoginPage* loginPage() const { return login_; }
  QLabel* allowanceLabel() const { return allowance_; }
  QLabel* updateLabel() const { return update_; }
  QSplitter* splitter() const { return splitter_; }
  UpdateCheck* updateCheck() const { return updateCheck_; }

  void showScreen(Screen screen);
  Screen currentScreen() const { return screen_; }
  // Chooses a login by username or alias; false when there is none such.
  bool chooseLogin(const QString& login);
  const std::optional<Org>& chosenLogin() const { return chosen_; }
  // True once the allowance of the chosen login has been read (or failed).
  bool allowanceKnown() const { return allowanceKnown_; }

  // Applies "system", "light" or "dark".
  static void applyTheme(const QString& theme);

  // Reads the settings and checks for updates when due.
  void checkForUpdates(bool force = false);

 signals:
  void demoRequested();

 protected:
  void closeEvent(QCloseEvent* event) override;

 private:
  void buildMenus();
  void restoreState();
  void saveState();
  void loginChanged();
  void readAllowance();
  void updateTools();

  Services& services_;
  OrgListModel* orgs_;
  QSplitter* splitter_;
  QListView* orgList_;
  QListWidget* tools_;
  QStackedWidget* stack_;
  WelcomePage* welcome_;
  LoginPage* login_;
  QueryScreen* query_;
  SettingsPage* settings_;
  AboutPage* about_;
  QLabel* allowance_;
  QLabel* update_;
  UpdateCheck* updateCheck_;
  Screen screen_ = Screen::welcome;
  std::optional<Org> chosen_;
  QString wantedLogin_;  // the remembered login, chosen once the list arrives
  bool allowanceKnown_ = false;
  int allowanceGeneration_ = 0;
  QElapsedTimer allowanceAge_;  // since the allowance was last read
};

}  // namespace corvane::desktop

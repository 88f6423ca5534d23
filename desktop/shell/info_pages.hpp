// The Welcome screen (no login yet: how to add one, or open the demo), the
// About screen (version and the licences of the libraries used), and the
// details of one login.
#pragma once

#include <QLabel>
#include <QPushButton>
#include <QWidget>

#include "connections/org.hpp"

namespace corvane::desktop {

class WelcomePage : public QWidget {
  Q_OBJECT
 public:
  explicit WelcomePage(QWidget* parent = nullptr);
  // The command a user copies to add a login.
  static QString loginCommand() { return QStringLiteral("sf org login web --alias my-org"); }
  QPushButton* demoButton() const { return demo_; }
  // A line under the buttons: the state of the login list.
  void setNote(const QString& text);

 signals:
  void demoRequested();

 private:
  QPushButton* demo_;
  QLabel* note_;
};

class AboutPage : public QWidget {
  Q_OBJECT
 public:
  explicit AboutPage(QWidget* parent = nullptr);

  struct Library {
    const char* name;
    const char* use;
    const char* licence;
  };
  static const std::vector<Library>& libraries();
};

class LoginPage : public QWidget {
  Q_OBJECT
 public:
  explicit LoginPage(QWidget* parent = nullptr);
  void showLogin(const Org& org);
  void setAllowance(const QString& text);
  QPushButton* queryButton() const { return query_; }

 signals:
  void openQuery();

 private:
  QLabel* title_;
  QLabel* facts_;
  QLabel* state_;
  QLabel* allowance_;
  QPushButton* query_;
};

// A heading label in the app's style.
QLabel* heading(const QString& text, double scale = 1.6);

}  // namespace corvane::desktop

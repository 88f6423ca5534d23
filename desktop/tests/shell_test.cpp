// The shell: the sidebar of the CLI's logins, its refresh when the CLI's
// files change, the allowance in the status line, what the window remembers,
// and the pictures of every screen.
#include <QDir>
#include <QImage>
#include <QTest>

#include "desktop/common/services.hpp"
#include "desktop/query/query_screen.hpp"
#include "desktop/shell/info_pages.hpp"
#include "desktop/shell/main_window.hpp"
#include "desktop/shell/org_list_model.hpp"
#include "desktop/shell/screenshots.hpp"
#include "desktop/tests/sample_org_login.hpp"
#include "desktop/tests/suites.hpp"

namespace corvane::desktop::testing {

class ShellTest : public QObject {
  Q_OBJECT

 private:
  std::unique_ptr<SampleOrg> org_;

 private slots:
  void initTestCase() {
    org_ = std::make_unique<SampleOrg>();
    org_->addAccounts(50);
  }
  void cleanupTestCase() { org_.reset(); }

  void withoutLoginsTheWelcomeScreenSaysHowToAddOne() {
    Services services;
    MainWindow window(services);
    window.show();
    QTRY_VERIFY_WITH_TIMEOUT(window.orgs()->isLoaded(), 60'000);
    QCOMPARE(window.orgs()->rowCount(), 0);
    QCOMPARE(window.currentScreen(), MainWindow::Screen::welcome);
    QVERIFY(!window.chosenLogin());
  }

  void theSidebarListsTheLoginWithItsBadgesAndTheStatusLineItsAllowance() {
    QVERIFY(org_->logIn("sample"));
    Services services;
    MainWindow window(services);
    window.show();
    QTRY_VERIFY_WITH_TIMEOUT(window.orgs()->isChecked(), 60'000);
    QCOMPARE(window.orgs()->rowCount(), 1);
    const QModelIndex row = window.orgs()->index(0, 0);
    QCOMPARE(row.data().toString(), QString("sample"));
    QCOMPARE(row.data(OrgListModel::UsernameRole).toString(),
             QString::fromStdString(org_->username()));
    QCOMPARE(row.data(OrgListModel::ConnectionRole).toInt(),
             static_cast<int>(OrgConnection::connected));
    QVERIFY(!row.data(OrgListModel::KindRole).toString().isEmpty());
    QVERIFY(window.chosenLogin());
    QCOMPARE(window.currentScreen(), MainWindow::Screen::login);
    QTRY_VERIFY_WITH_TIMEOUT(window.allowanceLabel()->text().contains("API requests left today"),
                             60'000);
    // The tools of the chosen login, and the keyboard's way to them.
    QStringList tools;
    for (int i = 0; i < window.toolList()->count(); ++i)
      tools << window.toolList()->item(i)->text();
    QVERIFY(tools.contains("SOQL Editor"));
    QTest::keyClick(&window, Qt::Key_2, Qt::ControlModifier);
    QCOMPARE(window.currentScreen(), MainWindow::Screen::query);
  }

  void loginsRemovedOrAddedWithTheCLIShowWithoutARestart() {
    QVERIFY(org_->logIn("sample"));
    Services services;
    MainWindow window(services);
    window.show();
    QTRY_VERIFY_WITH_TIMEOUT(window.orgs()->rowCount() == 1, 60'000);
    QVERIFY(org_->logOut("sample"));
    QTRY_VERIFY_WITH_TIMEOUT(window.orgs()->rowCount() == 0 && window.orgs()->isLoaded(), 60'000);
    QTRY_COMPARE_WITH_TIMEOUT(window.currentScreen(), MainWindow::Screen::welcome, 10'000);
    QVERIFY(org_->logIn("again"));
    QTRY_VERIFY_WITH_TIMEOUT(window.orgs()->rowCount() == 1, 60'000);
    QCOMPARE(window.orgs()->index(0, 0).data().toString(), QString("again"));
    QTRY_VERIFY_WITH_TIMEOUT(window.chosenLogin().has_value(), 10'000);
    QVERIFY(org_->logOut("again"));
    QVERIFY(org_->logIn("sample"));
  }

  void theWindowRemembersItsSizeSplittersAndLogin() {
    QVERIFY(org_->logIn("sample"));
    QList<int> sizes;
    {
      Services services;
      MainWindow window(services);
      window.show();
      QTRY_VERIFY_WITH_TIMEOUT(window.chosenLogin().has_value(), 60'000);
      window.resize(1100, 720);
      window.splitter()->setSizes({330, 770});
      sizes = window.splitter()->sizes();
      window.close();
    }
    Services services;
    MainWindow window(services);
    window.show();
    QCOMPARE(window.size(), QSize(1100, 720));
    QCOMPARE(window.splitter()->sizes(), sizes);
    QTRY_VERIFY_WITH_TIMEOUT(window.chosenLogin().has_value(), 60'000);
    QCOMPARE(QString::fromStdString(window.chosenLogin()->username),
             QString::fromStdString(org_->username()));
  }

  void theWelcomeAndAboutScreensSayWhatTheyShould() {
    QCOMPARE(WelcomePage::loginCommand(), QString("sf org login web --alias my-org"));
    QVERIFY(AboutPage::libraries().size() >= 10);
    for (const auto& library : AboutPage::libraries()) QVERIFY(std::string(library.licence) != "");
  }

  void picturesOfEveryScreenShowTheOrgsData() {
    QVERIFY(org_->logIn("sample"));
    QTemporaryDir folder;
    QString out;
    const int status =
        SampleOrg::run(CORVANE_DESKTOP_PROGRAM, {"--screenshots", folder.path(), "--org", "sample"},
                       &out, {}, 300'000);
    QVERIFY2(status == 0, qPrintable(out));
    for (const QString& name : ScreenshotTour::names()) {
      QImage picture(QDir(folder.path()).filePath(name + ".png"));
      QVERIFY2(!picture.isNull(), qPrintable(name));
      QCOMPARE(picture.size(), QSize(1280, 800));
    }
  }
};

int runShellTest(const QStringList& arguments) {
  ShellTest test;
  return QTest::qExec(&test, arguments);
}

}  // namespace corvane::desktop::testing

#include "shell_test.moc"

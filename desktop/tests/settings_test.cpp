// Settings written by the app are the ones the command line reads.
#include <QSignalSpy>
#include <QTest>

#include "desktop/settings/settings_page.hpp"
#include "desktop/tests/sample_org_login.hpp"
#include "desktop/tests/suites.hpp"
#include "platform/app_support.hpp"

namespace corvane::desktop::testing {

class SettingsTest : public QObject {
  Q_OBJECT

 private slots:
  void aSavedSettingIsWhatTheCommandLineReads() {
    Settings::set("somethingElse", "kept");
    SettingsPage page;
    page.show();
    page.reload();
    QTRY_VERIFY_WITH_TIMEOUT(page.isLoaded(), 30'000);
    page.tickMinute()->setValue(17);
    page.powerWait()->setChecked(true);
    page.statusURL()->setText("https://status.example.org/api");
    page.theme()->setCurrentIndex(page.theme()->findData("dark"));
    page.updateFeed()->setText("http://127.0.0.1:1/feed.json");
    QSignalSpy saved(&page, &SettingsPage::saved);
    QTest::mouseClick(page.saveButton(), Qt::LeftButton);
    QTRY_VERIFY_WITH_TIMEOUT(saved.count() == 1, 30'000);

    const auto settings = Settings::load();
    QCOMPARE(settings.value("backupTickMinute", 0), 17);
    QCOMPARE(settings.value("backupFilesWaitForPower", false), true);
    QCOMPARE(settings.value("statusServiceURL", std::string()),
             std::string("https://status.example.org/api"));
    QCOMPARE(settings.value("theme", std::string()), std::string("dark"));
    QCOMPARE(settings.value("somethingElse", std::string()), std::string("kept"));
    QVERIFY(!settings.contains("statusServiceToken"));  // left empty: not written

    // The corvane command reads the same file.
    QString out;
    QCOMPARE(SampleOrg::run(CORVANE_EXECUTABLE, {"schedule", "status"}, &out), 0);
    QVERIFY2(out.contains("Tick minute: 17"), qPrintable(out));

    // Read back into a new page.
    SettingsPage again;
    again.reload();
    QTRY_VERIFY_WITH_TIMEOUT(again.isLoaded(), 30'000);
    QCOMPARE(again.tickMinute()->value(), 17);
    QVERIFY(again.powerWait()->isChecked());
    QCOMPARE(again.theme()->currentData().toString(), QString("dark"));
  }
};

int runSettingsTest(const QStringList& arguments) {
  SettingsTest test;
  return QTest::qExec(&test, arguments);
}

}  // namespace corvane::desktop::testing

#include "settings_test.moc"

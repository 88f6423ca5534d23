// The update check against a release feed on this machine.
#include <thread>

#include <QSignalSpy>
#include <QTest>

#include <httplib.h>

#include "desktop/shell/update_check.hpp"
#include "desktop/tests/suites.hpp"

namespace corvane::desktop::testing {

class UpdateCheckTest : public QObject {
  Q_OBJECT

 private:
  httplib::Server server_;
  std::thread thread_;
  int port_ = 0;
  std::atomic<int> asked_{0};
  std::string feed_ =
      R"({"version": "0.2.0", "notes": "Faster backups.", "url": "https://example.org/0.2.0"})";

  QString feedURL() const { return QString("http://127.0.0.1:%1/feed.json").arg(port_); }

 private slots:
  void initTestCase() {
    server_.Get("/feed.json", [this](const httplib::Request&, httplib::Response& response) {
      ++asked_;
      response.set_content(feed_, "application/json");
    });
    port_ = server_.bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
  }
  void cleanupTestCase() {
    server_.stop();
    thread_.join();
  }

  void aNewerVersionInTheFeedIsToldWithItsNotes() {
    UpdateCheck check("0.1.0");
    QSignalSpy newer(&check, &UpdateCheck::newerVersion);
    QSignalSpy checked(&check, &UpdateCheck::checked);
    check.checkIfDue(feedURL(), true, QDateTime());
    QTRY_VERIFY_WITH_TIMEOUT(newer.count() == 1, 30'000);
    QCOMPARE(newer.front().at(0).toString(), QString("0.2.0"));
    QCOMPARE(newer.front().at(1).toString(), QString("Faster backups."));
    QCOMPARE(checked.count(), 1);
  }

  void theSameOrAnOlderVersionIsUpToDate() {
    UpdateCheck check("0.2.0");
    QSignalSpy newer(&check, &UpdateCheck::newerVersion);
    QSignalSpy upToDate(&check, &UpdateCheck::upToDate);
    check.checkIfDue(feedURL(), true, QDateTime());
    QTRY_VERIFY_WITH_TIMEOUT(upToDate.count() == 1, 30'000);
    QCOMPARE(newer.count(), 0);
    QVERIFY(UpdateCheck::isNewer("0.10.0", "0.9.9"));
    QVERIFY(!UpdateCheck::isNewer("v1.0", "1.0.0"));
  }

  void nothingIsAskedWithoutAnAddressWhenTurnedOffOrWithinADay() {
    const int before = asked_;
    UpdateCheck check("0.1.0");
    QSignalSpy checked(&check, &UpdateCheck::checked);
    check.checkIfDue(QString(), true, QDateTime());
    check.checkIfDue(feedURL(), false, QDateTime());
    check.checkIfDue(feedURL(), true, QDateTime::currentDateTimeUtc().addSecs(-3600));
    QTest::qWait(500);
    QCOMPARE(checked.count(), 0);
    QCOMPARE(asked_.load(), before);
    // A day later it asks again.
    check.checkIfDue(feedURL(), true, QDateTime::currentDateTimeUtc().addSecs(-90'000));
    QTRY_VERIFY_WITH_TIMEOUT(checked.count() == 1, 30'000);
  }

  void anUnreadableFeedOrAPlainAddressElsewhereIsRefusedInWords() {
    UpdateCheck check("0.1.0");
    QSignalSpy failed(&check, &UpdateCheck::failed);
    check.checkIfDue("http://example.org/feed.json", true, QDateTime());
    QCOMPARE(failed.count(), 1);
    QVERIFY(failed.front().front().toString().contains("https"));
    QVERIFY(!UpdateCheck::parse("not json"));
    QVERIFY(!UpdateCheck::parse(R"({"notes": "no version"})"));
  }
};

int runUpdateCheckTest(const QStringList& arguments) {
  UpdateCheckTest test;
  return QTest::qExec(&test, arguments);
}

}  // namespace corvane::desktop::testing

#include "update_check_test.moc"

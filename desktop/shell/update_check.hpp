// Looks for a newer version in a small JSON release feed, at most once a day.
//
// The feed's address is the setting "updateFeedURL" (empty by default, so
// nothing is contacted until the user sets one); "updateCheck" false turns
// the check off. The feed is {"version": "1.2.0", "notes": "...", "url": "..."}.
// The answer is only told (newerVersion); nothing is downloaded or installed.
// The time of the last check is kept as "lastUpdateCheck" in the app's
// preferences. Network calls are Qt's asynchronous ones: nothing waits.
#pragma once

#include <optional>

#include <QDateTime>
#include <QNetworkAccessManager>
#include <QObject>
#include <QString>

namespace corvane::desktop {

class UpdateCheck : public QObject {
  Q_OBJECT
 public:
  struct Release {
    QString version;
    QString notes;
    QString url;
  };

  UpdateCheck(QString currentVersion, QObject* parent = nullptr);

  // Checks when due: a feed is set, checks are on, and the last check is a day old.
  // `lastCheck` is when the last check ran (invalid: never); `force` ignores it.
  void checkIfDue(const QString& feedURL, bool enabled, const QDateTime& lastCheck,
                  bool force = false);

  // Whether version a is newer than b, comparing dotted numbers.
  static bool isNewer(const QString& a, const QString& b);
  // The release a feed body describes; none when it cannot be read.
  static std::optional<Release> parse(const QByteArray& body);

 signals:
  void checked(QDateTime at);  // a check was made (whatever its answer)
  void newerVersion(QString version, QString notes, QString url);
  void upToDate();
  void failed(QString message);

 private:
  QString current_;
  QNetworkAccessManager network_;
};

}  // namespace corvane::desktop

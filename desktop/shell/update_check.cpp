#include "desktop/shell/update_check.hpp"

#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QRegularExpression>
#include <QUrl>

namespace corvane::desktop {

UpdateCheck::UpdateCheck(QString currentVersion, QObject* parent)
    : QObject(parent), current_(std::move(currentVersion)) {}

bool UpdateCheck::isNewer(const QString& a, const QString& b) {
  const QStringList left = a.trimmed().remove(QRegularExpression("^[vV]")).split('.');
  const QStringList right = b.trimmed().remove(QRegularExpression("^[vV]")).split('.');
  for (int i = 0; i < std::max(left.size(), right.size()); ++i) {
    const int x = i < left.size() ? left[i].toInt() : 0;
    const int y = i < right.size() ? right[i].toInt() : 0;
    if (x != y) return x > y;
  }
  return false;
}

std::optional<UpdateCheck::Release> UpdateCheck::parse(const QByteArray& body) {
  const QJsonDocument document = QJsonDocument::fromJson(body);
  if (!document.isObject()) return std::nullopt;
  const QJsonObject object = document.object();
  if (!object.value("version").isString()) return std::nullopt;
  return Release{object.value("version").toString(), object.value("notes").toString(),
                 object.value("url").toString()};
}

void UpdateCheck::checkIfDue(const QString& feedURL, bool enabled, const QDateTime& lastCheck,
                             bool force) {
  if (feedURL.trimmed().isEmpty() || (!enabled && !force)) return;
  if (!force && lastCheck.isValid() && lastCheck.secsTo(QDateTime::currentDateTimeUtc()) < 86'400)
    return;
  const QUrl url(feedURL.trimmed());
  const bool loopback =
      url.host() == "127.0.0.1" || url.host() == "localhost" || url.host() == "::1";
  if (!url.isValid() || (url.scheme() != "https" && !(url.scheme() == "http" && loopback))) {
    emit failed(tr("The release feed address %1 is not an https address; no update check was made.")
                    .arg(feedURL));
    return;
  }
  QNetworkRequest request(url);
  request.setTransferTimeout(20'000);
  request.setRawHeader("Accept", "application/json");
  QNetworkReply* reply = network_.get(request);
  connect(reply, &QNetworkReply::finished, this, [this, reply] {
    reply->deleteLater();
    emit checked(QDateTime::currentDateTimeUtc());
    if (reply->error() != QNetworkReply::NoError) {
      emit failed(
          tr("The update check could not reach the release feed (%1).").arg(reply->errorString()));
      return;
    }
    const auto release = parse(reply->readAll());
    if (!release) {
      emit failed(tr("The release feed's answer could not be read; no update check was made."));
      return;
    }
    if (isNewer(release->version, current_)) {
      emit newerVersion(release->version, release->notes, release->url);
    } else {
      emit upToDate();
    }
  });
}

}  // namespace corvane::desktop

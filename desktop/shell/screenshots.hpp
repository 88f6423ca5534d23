// `corvane-desktop --screenshots DIR [--org LOGIN]`: opens each screen
// against a login, waits until its data are on screen, and writes
// DIR/<name>.png at 1280x800: welcome, orgs, query, query-completion,
// query-history, settings, about.
#pragma once

#include <functional>
#include <vector>

#include <QDir>
#include <QElapsedTimer>
#include <QObject>
#include <QString>
#include <QTimer>

namespace corvane::desktop {

class MainWindow;

class ScreenshotTour : public QObject {
  Q_OBJECT
 public:
  ScreenshotTour(MainWindow& window, QString folder, QString login, QObject* parent = nullptr);
  void start();

  static const QStringList& names();

 signals:
  // 0 when every picture was written with its data loaded.
  void finished(int status);

 private:
  struct Step {
    QString name;
    std::function<void()> prepare;
    std::function<bool()> ready;  // the screen shows its data
  };
  void next();
  void poll();
  bool capture(const QString& name);

  MainWindow& window_;
  QDir folder_;
  QString login_;
  std::vector<Step> steps_;
  std::size_t at_ = 0;
  QTimer poll_;
  QElapsedTimer waited_;
  int status_ = 0;
  int settle_ = 0;  // polls to wait after ready, for painting to catch up
};

}  // namespace corvane::desktop

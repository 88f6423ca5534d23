// The Settings screen: the settings the command line shares with the app,
// read from and written to the same settings.json (platform/app_support).
//
// Keys: "backupRoot", "backupTickMinute", "backupFilesWaitForPower",
// "statusServiceURL", "statusServiceToken", "theme" ("system", "light",
// "dark"), "updateFeedURL" and "updateCheck". Keys the page does not know
// are kept as they are. The file is read and written on worker threads.
#pragma once

#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSpinBox>
#include <QWidget>

#include <nlohmann/json.hpp>

namespace corvane::desktop {

class SettingsPage : public QWidget {
  Q_OBJECT
 public:
  explicit SettingsPage(QWidget* parent = nullptr);

  // Reads settings.json again; loaded() follows.
  void reload();
  // Writes the page's values; saved() or the error on the page follows.
  void save();
  bool isLoaded() const { return loaded_; }

  QLineEdit* backupRoot() const { return backupRoot_; }
  QSpinBox* tickMinute() const { return tickMinute_; }
  QCheckBox* powerWait() const { return powerWait_; }
  QLineEdit* statusURL() const { return statusURL_; }
  QLineEdit* statusToken() const { return statusToken_; }
  QComboBox* theme() const { return theme_; }
  QLineEdit* updateFeed() const { return updateFeed_; }
  QCheckBox* updateCheck() const { return updateCheck_; }
  QPushButton* saveButton() const { return saveButton_; }
  QLabel* note() const { return note_; }

  // The theme a settings object asks for: "system", "light" or "dark".
  static QString themeOf(const nlohmann::json& settings);

 signals:
  void loaded();
  void saved();
  void themeChanged(QString theme);

 private:
  void showSettings(const nlohmann::json& settings);

  QLineEdit* backupRoot_;
  QSpinBox* tickMinute_;
  QCheckBox* powerWait_;
  QLineEdit* statusURL_;
  QLineEdit* statusToken_;
  QComboBox* theme_;
  QLineEdit* updateFeed_;
  QCheckBox* updateCheck_;
  QPushButton* saveButton_;
  QLabel* note_;
  bool loaded_ = false;
};

}  // namespace corvane::desktop

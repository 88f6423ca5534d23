#include "desktop/settings/settings_page.hpp"

#include <QFileDialog>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QToolButton>
#include <QVBoxLayout>

#include "backup/backup_location.hpp"
#include "desktop/common/worker.hpp"
#include "platform/app_support.hpp"

namespace corvane::desktop {

namespace {

QString textOf(const nlohmann::json& settings, const char* key) {
  auto found = settings.find(key);
  return found != settings.end() && found->is_string()
             ? QString::fromStdString(found->get<std::string>())
             : QString();
}

}  // namespace

QString SettingsPage::themeOf(const nlohmann::json& settings) {
  const QString theme = textOf(settings, "theme");
  return theme == "light" || theme == "dark" ? theme : QStringLiteral("system");
}

SettingsPage::SettingsPage(QWidget* parent)
    : QWidget(parent),
      backupRoot_(new QLineEdit),
      tickMinute_(new QSpinBox),
      powerWait_(new QCheckBox(tr("Wait for mains power before copying file bodies"))),
      statusURL_(new QLineEdit),
      statusToken_(new QLineEdit),
      theme_(new QComboBox),
      updateFeed_(new QLineEdit),
      updateCheck_(new QCheckBox(tr("Check for a newer version once a day"))),
      saveButton_(new QPushButton(tr("Save Settings"))),
      note_(new QLabel) {
  auto* title = new QLabel(tr("Settings"));
  QFont big = title->font();
  big.setPointSizeF(big.pointSizeF() * 1.6);
  big.setBold(true);
  title->setFont(big);

  auto* backups = new QGroupBox(tr("Backups"));
  auto* backupForm = new QFormLayout(backups);
  auto* rootRow = new QHBoxLayout;
  backupRoot_->setPlaceholderText(QString::fromStdString(BackupLocation::defaultRoot().string()));
  rootRow->addWidget(backupRoot_, 1);
  auto* choose = new QToolButton;
  choose->setText(tr("Choose…"));
  rootRow->addWidget(choose);
  backupForm->addRow(tr("Backup folder:"), rootRow);
  // 0 stands for no choice: the minute is picked when scheduled backups are turned on.
  tickMinute_->setRange(0, 59);
  tickMinute_->setSpecialValueText(tr("Not chosen (picked when scheduled backups are turned on)"));
  tickMinute_->setSuffix(tr(" minutes past the hour"));
  backupForm->addRow(tr("Scheduled check:"), tickMinute_);
  backupForm->addRow(QString(), powerWait_);

  auto* status = new QGroupBox(tr("Status service"));
  auto* statusForm = new QFormLayout(status);
  statusURL_->setPlaceholderText(tr("https://status.example.com/api"));
  statusForm->addRow(tr("Address:"), statusURL_);
  statusToken_->setEchoMode(QLineEdit::Password);
  statusToken_->setPlaceholderText(tr("Not set"));
  statusForm->addRow(tr("Token:"), statusToken_);

  auto* look = new QGroupBox(tr("Appearance and updates"));
  auto* lookForm = new QFormLayout(look);
  theme_->addItem(tr("Same as the system"), "system");
  theme_->addItem(tr("Light"), "light");
  theme_->addItem(tr("Dark"), "dark");
  lookForm->addRow(tr("Theme:"), theme_);
  updateFeed_->setPlaceholderText(tr("Not set: no update check is made"));
  lookForm->addRow(tr("Release feed:"), updateFeed_);
  lookForm->addRow(QString(), updateCheck_);

  auto* buttons = new QHBoxLayout;
  buttons->addWidget(note_, 1);
  buttons->addWidget(saveButton_);
  note_->setWordWrap(true);

  auto* where = new QLabel(
      tr("These settings are shared with the corvane command; they live in %1.")
          .arg(QString::fromStdString((AppSupport::folder() / "settings.json").string())));
  where->setWordWrap(true);
  where->setTextInteractionFlags(Qt::TextSelectableByMouse);

  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(24, 20, 24, 20);
  layout->addWidget(title);
  layout->addWidget(where);
  layout->addWidget(backups);
  layout->addWidget(status);
  layout->addWidget(look);
  layout->addLayout(buttons);
  layout->addStretch(1);

  connect(choose, &QToolButton::clicked, this, [this] {
    const QString folder =
        QFileDialog::getExistingDirectory(this, tr("Backup Folder"), backupRoot_->text());
    if (!folder.isEmpty()) backupRoot_->setText(folder);
  });
  connect(saveButton_, &QPushButton::clicked, this, &SettingsPage::save);
  connect(theme_, &QComboBox::currentIndexChanged, this,
          [this] { emit themeChanged(theme_->currentData().toString()); });
}

void SettingsPage::reload() {
  Worker::run(
      this, [] { return Settings::load(); },
      [this](Outcome<nlohmann::json> settings) {
        if (!settings.ok()) {
          note_->setText(settings.error);
          return;
        }
        showSettings(*settings.value);
        loaded_ = true;
        emit loaded();
      });
}

void SettingsPage::showSettings(const nlohmann::json& settings) {
  backupRoot_->setText(textOf(settings, "backupRoot"));
  auto minute = settings.find("backupTickMinute");
  tickMinute_->setValue(minute != settings.end() && minute->is_number_integer() ? minute->get<int>()
                                                                                : 0);
  auto wait = settings.find("backupFilesWaitForPower");
  powerWait_->setChecked(wait != settings.end() && wait->is_boolean() && wait->get<bool>());
  statusURL_->setText(textOf(settings, "statusServiceURL"));
  statusToken_->setText(textOf(settings, "statusServiceToken"));
  const QSignalBlocker quiet(theme_);
  theme_->setCurrentIndex(std::max(0, theme_->findData(themeOf(settings))));
  updateFeed_->setText(textOf(settings, "updateFeedURL"));
  auto check = settings.find("updateCheck");
  updateCheck_->setChecked(check == settings.end() || !check->is_boolean() || check->get<bool>());
}

void SettingsPage::save() {
  nlohmann::json changes = nlohmann::json::object();
  auto setText = [&](const char* key, const QLineEdit* field) {
    const std::string value = field->text().trimmed().toStdString();
    changes[key] = value.empty() ? nlohmann::json() : nlohmann::json(value);
  };
  setText("backupRoot", backupRoot_);
  changes["backupTickMinute"] =
      tickMinute_->value() > 0 ? nlohmann::json(tickMinute_->value()) : nlohmann::json();
  changes["backupFilesWaitForPower"] = powerWait_->isChecked();
  setText("statusServiceURL", statusURL_);
  setText("statusServiceToken", statusToken_);
  changes["theme"] = theme_->currentData().toString().toStdString();
  setText("updateFeedURL", updateFeed_);
  changes["updateCheck"] = updateCheck_->isChecked();
  Worker::run(
      this,
      [changes] {
        // Read, change and write in one go; keys this page does not know stay.
        nlohmann::json settings = Settings::load();
        if (!settings.is_object()) settings = nlohmann::json::object();
        for (const auto& [key, value] : changes.items()) {
          if (value.is_null()) {
            settings.erase(key);
          } else {
            settings[key] = value;
          }
        }
        Settings::save(settings);
        return true;
      },
      [this](Outcome<bool> done) {
        note_->setText(done.ok() ? tr("Saved. The corvane command uses these settings from now on.")
                                 : done.error);
        if (done.ok()) emit saved();
      });
}

}  // namespace corvane::desktop

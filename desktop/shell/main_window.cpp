#include "desktop/shell/main_window.hpp"

#include <QAction>
#include <QApplication>
#include <QCloseEvent>
#include <QLocale>
#include <QMenuBar>
#include <QPalette>
#include <QStatusBar>
#include <QStyle>
#include <QStyleFactory>
#include <QVBoxLayout>

#include "connections/api_allowance.hpp"
#include "connections/api_transport.hpp"
#include "desktop/common/services.hpp"
#include "desktop/common/worker.hpp"
#include "desktop/query/query_screen.hpp"
#include "desktop/query/query_tab.hpp"
#include "desktop/settings/settings_page.hpp"
#include "desktop/shell/info_pages.hpp"
#include "desktop/shell/org_list_model.hpp"
#include "desktop/shell/update_check.hpp"
#include "platform/app_support.hpp"

namespace corvane::desktop {

namespace {

QLabel* sectionLabel(const QString& text) {
  auto* label = new QLabel(text.toUpper());
  QFont font = label->font();
  font.setPointSizeF(font.pointSizeF() * 0.82);
  font.setBold(true);
  label->setFont(font);
  label->setContentsMargins(10, 10, 4, 2);
  label->setStyleSheet("color: palette(mid);");
  return label;
}

}  // namespace

MainWindow::MainWindow(Services& services, QWidget* parent)
    : QMainWindow(parent),
      services_(services),
      orgs_(new OrgListModel(services, this)),
      splitter_(new QSplitter(Qt::Horizontal)),
      orgList_(new QListView),
      tools_(new QListWidget),
      stack_(new QStackedWidget),
      welcome_(new WelcomePage),
      login_(new LoginPage),
      query_(new QueryScreen(services)),
      settings_(new SettingsPage),
      about_(new AboutPage),
      allowance_(new QLabel),
      update_(new QLabel),
      updateCheck_(new UpdateCheck(QApplication::applicationVersion(), this)) {
  setWindowTitle(tr("Corvane"));

  auto* sidebar = new QWidget;
  auto* side = new QVBoxLayout(sidebar);
  side->setContentsMargins(0, 0, 0, 0);
  side->setSpacing(0);
  side->addWidget(sectionLabel(tr("Logins")));
  orgList_->setModel(orgs_);
  orgList_->setItemDelegate(new OrgDelegate(orgList_));
  orgList_->setSelectionMode(QAbstractItemView::SingleSelection);
  orgList_->setEditTriggers(QAbstractItemView::NoEditTriggers);
  side->addWidget(orgList_, 3);
  side->addWidget(sectionLabel(tr("Tools")));
  tools_->setEditTriggers(QAbstractItemView::NoEditTriggers);
  side->addWidget(tools_, 2);
  sidebar->setMinimumWidth(220);

  stack_->addWidget(welcome_);
  stack_->addWidget(login_);
  stack_->addWidget(query_);
  stack_->addWidget(settings_);
  stack_->addWidget(about_);
  splitter_->addWidget(sidebar);
  splitter_->addWidget(stack_);
  splitter_->setStretchFactor(0, 0);
  splitter_->setStretchFactor(1, 1);
  splitter_->setSizes({270, 1010});
  splitter_->setChildrenCollapsible(false);
  setCentralWidget(splitter_);

  update_->setTextFormat(Qt::RichText);
  update_->setOpenExternalLinks(true);
  update_->hide();
  statusBar()->addPermanentWidget(update_);
  statusBar()->addPermanentWidget(allowance_);
  allowance_->setText(tr("No login chosen"));

  buildMenus();
  updateTools();

  connect(orgList_->selectionModel(), &QItemSelectionModel::currentChanged, this,
          [this] { loginChanged(); });
  connect(orgs_, &QAbstractItemModel::modelReset, this, [this] {
    // Keep the chosen login chosen across reloads, and pick the remembered one.
    const QString wanted = chosen_ ? QString::fromStdString(chosen_->username) : wantedLogin_;
    int row = wanted.isEmpty() ? -1 : orgs_->rowOf(wanted);
    if (row < 0 && !orgs_->orgs().empty() && screen_ != Screen::welcome) row = 0;
    if (row < 0 && !orgs_->orgs().empty() && !chosen_) row = 0;
    if (row >= 0) {
      const QSignalBlocker quiet(orgList_->selectionModel());
      orgList_->setCurrentIndex(orgs_->index(row, 0));
    }
    loginChanged();
  });
  connect(orgs_, &OrgListModel::loaded, this, [this] {
    if (orgs_->orgs().empty()) {
      welcome_->setNote(tr("The Salesforce CLI knows no login yet."));
      showScreen(Screen::welcome);
    } else {
      welcome_->setNote(orgs_->orgs().size() == 1
                            ? tr("The Salesforce CLI knows 1 login; it is in the sidebar.")
                            : tr("The Salesforce CLI knows %1 logins; choose one in the sidebar.")
                                  .arg(orgs_->orgs().size()));
      if (screen_ == Screen::welcome) showScreen(Screen::login);
    }
  });
  connect(orgs_, &OrgListModel::failed, this, [this](QString message) {
    welcome_->setNote(message);
    statusBar()->showMessage(message);
  });
  connect(tools_, &QListWidget::currentRowChanged, this, [this](int row) {
    if (row < 0) return;
    showScreen(static_cast<Screen>(tools_->item(row)->data(Qt::UserRole).toInt()));
  });
  connect(login_, &LoginPage::openQuery, this, [this] { showScreen(Screen::query); });
  connect(welcome_, &WelcomePage::demoRequested, this, &MainWindow::demoRequested);
  connect(query_, &QueryScreen::message, this,
          [this](QString text) { statusBar()->showMessage(text, 10'000); });
  connect(settings_, &SettingsPage::themeChanged, this, &MainWindow::applyTheme);
  // Runs spend the allowance: read it again after one, at most once a minute.
  connect(query_, &QueryScreen::historyChanged, this, [this] {
    if (chosen_ && allowanceKnown_ && allowanceAge_.isValid() && allowanceAge_.elapsed() > 60'000)
      readAllowance();
  });
  connect(settings_, &SettingsPage::saved, this, [this] { checkForUpdates(); });
  connect(updateCheck_, &UpdateCheck::checked, this,
          [this](QDateTime at) { services_.preferences().setValue("lastUpdateCheck", at); });
  connect(updateCheck_, &UpdateCheck::newerVersion, this,
          [this](QString version, QString notes, QString url) {
            QString text = tr("Corvane %1 is available").arg(version.toHtmlEscaped());
            if (!url.isEmpty())
              text = QStringLiteral("<a href=\"%1\">%2</a>").arg(url.toHtmlEscaped(), text);
            update_->setText(text);
            update_->setToolTip(notes);
            update_->show();
            statusBar()->showMessage(tr("Corvane %1 is available: %2").arg(version, notes));
          });
  connect(updateCheck_, &UpdateCheck::failed, this,
          [this](QString message) { statusBar()->showMessage(message, 15'000); });

  restoreState();
  connect(qApp, &QCoreApplication::aboutToQuit, this, [this] { saveState(); });
  orgs_->reload();
  settings_->reload();
  connect(settings_, &SettingsPage::loaded, this,
          [this] { applyTheme(settings_->theme()->currentData().toString()); });
  checkForUpdates();
}

MainWindow::~MainWindow() = default;

void MainWindow::buildMenus() {
  QMenu* file = menuBar()->addMenu(tr("&File"));
  QMenu* queryMenu = menuBar()->addMenu(tr("&Query"));
  for (QAction* action : query_->editorActions()) {
    // Shown in the menu, active wherever the query screen has focus.
    queryMenu->addAction(action);
  }
  QAction* settings = file->addAction(tr("&Settings…"));
  settings->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Comma));
  connect(settings, &QAction::triggered, this, [this] { showScreen(Screen::settings); });
  QAction* reload = file->addAction(tr("&Reload Logins"));
  reload->setShortcut(QKeySequence(Qt::Key_F5));
  connect(reload, &QAction::triggered, orgs_, &OrgListModel::reload);
  file->addSeparator();
  QAction* quit = file->addAction(tr("&Quit"));
  quit->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Q));
  connect(quit, &QAction::triggered, this, &QWidget::close);

  QMenu* go = menuBar()->addMenu(tr("&Go"));
  auto goTo = [this, go](const QString& text, const QKeySequence& keys, Screen screen) {
    QAction* action = go->addAction(text);
    action->setShortcut(keys);
    connect(action, &QAction::triggered, this, [this, screen] { showScreen(screen); });
  };
  goTo(tr("&Login Overview"), QKeySequence(Qt::CTRL | Qt::Key_1), Screen::login);
  goTo(tr("&SOQL Editor"), QKeySequence(Qt::CTRL | Qt::Key_2), Screen::query);
  QAction* logins = go->addAction(tr("Lo&gins"));
  logins->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_0));
  connect(logins, &QAction::triggered, this, [this] { orgList_->setFocus(); });

  QMenu* help = menuBar()->addMenu(tr("&Help"));
  QAction* welcome = help->addAction(tr("&Welcome"));
  connect(welcome, &QAction::triggered, this, [this] { showScreen(Screen::welcome); });
  QAction* updates = help->addAction(tr("Check for &Updates"));
  connect(updates, &QAction::triggered, this, [this] { checkForUpdates(true); });
  QAction* about = help->addAction(tr("&About Corvane"));
  connect(about, &QAction::triggered, this, [this] { showScreen(Screen::about); });
}

void MainWindow::updateTools() {
  const QSignalBlocker quiet(tools_);
  tools_->clear();
  auto add = [this](const QString& text, Screen screen) {
    auto* item = new QListWidgetItem(text, tools_);
    item->setData(Qt::UserRole, static_cast<int>(screen));
    item->setSizeHint(QSize(100, tools_->fontMetrics().height() + 12));
  };
  if (chosen_) {
    add(tr("Overview"), Screen::login);
    add(tr("SOQL Editor"), Screen::query);
  }
  add(tr("Settings"), Screen::settings);
  add(tr("About"), Screen::about);
  for (int i = 0; i < tools_->count(); ++i) {
    if (tools_->item(i)->data(Qt::UserRole).toInt() == static_cast<int>(screen_))
      tools_->setCurrentRow(i);
  }
}

void MainWindow::showScreen(Screen screen) {
  if ((screen == Screen::login || screen == Screen::query) && !chosen_) screen = Screen::welcome;
  screen_ = screen;
  switch (screen) {
    case Screen::welcome:
      stack_->setCurrentWidget(welcome_);
      break;
    case Screen::login:
      stack_->setCurrentWidget(login_);
      break;
    case Screen::query:
      stack_->setCurrentWidget(query_);
      if (auto* tab = query_->currentTab()) tab->editor()->setFocus();
      break;
    case Screen::settings:
      stack_->setCurrentWidget(settings_);
      settings_->reload();
      break;
    case Screen::about:
      stack_->setCurrentWidget(about_);
      break;
  }
  updateTools();
}

bool MainWindow::chooseLogin(const QString& login) {
  const int row = orgs_->rowOf(login);
  if (row < 0) return false;
  orgList_->setCurrentIndex(orgs_->index(row, 0));
  loginChanged();
  return true;
}

void MainWindow::loginChanged() {
  const QModelIndex current = orgList_->currentIndex();
  const Org* org =
      current.isValid() ? orgs_->org(current.data(OrgListModel::UsernameRole).toString()) : nullptr;
  const bool changed = (org == nullptr) != !chosen_ || (org && chosen_->username != org->username);
  chosen_ = org ? std::optional<Org>(*org) : std::nullopt;
  if (chosen_) {
    login_->showLogin(*chosen_);
    wantedLogin_ = QString::fromStdString(chosen_->username);
  }
  if (!changed) return;
  query_->setLogin(chosen_);
  if (chosen_ && (screen_ == Screen::welcome)) screen_ = Screen::login;
  showScreen(screen_);
  readAllowance();
}

void MainWindow::readAllowance() {
  allowanceKnown_ = false;
  allowanceAge_.start();
  const int generation = ++allowanceGeneration_;
  if (!chosen_) {
    allowance_->setText(tr("No login chosen"));
    allowanceKnown_ = true;
    return;
  }
  allowance_->setText(
      tr("%1 · reading the API allowance…").arg(QString::fromStdString(chosen_->displayName())));
  auto api = services_.api();
  const Org org = *chosen_;
  Worker::run(
      this,
      [api, org] {
        DedupeAPITransport transport(*api, org);
        return ApiAllowance::ready(transport);
      },
      [this, generation, org](Outcome<ApiAllowance> allowance) {
        if (generation != allowanceGeneration_) return;
        allowanceKnown_ = true;
        const QString name = QString::fromStdString(org.displayName());
        if (!allowance.ok()) {
          allowance_->setText(tr("%1 · API allowance unknown").arg(name));
          allowance_->setToolTip(allowance.error);
          login_->setAllowance(allowance.error);
          return;
        }
        const QLocale locale;
        const QString text =
            tr("API requests left today: %1 of %2")
                .arg(locale.toString(static_cast<qlonglong>(allowance.value->remaining)),
                     locale.toString(static_cast<qlonglong>(allowance.value->max)));
        allowance_->setText(name + " · " + text);
        allowance_->setToolTip({});
        login_->setAllowance(text + ".");
      });
}

void MainWindow::applyTheme(const QString& theme) {
  static const QPalette standard = QApplication::palette();
  if (theme == "dark") {
    QPalette dark;
    dark.setColor(QPalette::Window, QColor(0x2b, 0x2b, 0x2f));
    dark.setColor(QPalette::WindowText, QColor(0xe8, 0xe8, 0xe8));
    dark.setColor(QPalette::Base, QColor(0x1f, 0x1f, 0x23));
    dark.setColor(QPalette::AlternateBase, QColor(0x28, 0x28, 0x2c));
    dark.setColor(QPalette::Text, QColor(0xe8, 0xe8, 0xe8));
    dark.setColor(QPalette::Button, QColor(0x35, 0x35, 0x3a));
    dark.setColor(QPalette::ButtonText, QColor(0xe8, 0xe8, 0xe8));
    dark.setColor(QPalette::Highlight, QColor(0x3a, 0x6e, 0xc4));
    dark.setColor(QPalette::HighlightedText, Qt::white);
    dark.setColor(QPalette::ToolTipBase, QColor(0x35, 0x35, 0x3a));
    dark.setColor(QPalette::ToolTipText, QColor(0xe8, 0xe8, 0xe8));
    dark.setColor(QPalette::PlaceholderText, QColor(0x90, 0x90, 0x90));
    QApplication::setPalette(dark);
  } else if (theme == "light") {
    QApplication::setPalette(QApplication::style()->standardPalette());
  } else {
    QApplication::setPalette(standard);
  }
}

void MainWindow::checkForUpdates(bool force) {
  const QDateTime last = services_.preferences().value("lastUpdateCheck").toDateTime();
  Worker::run(
      this, [] { return Settings::load(); },
      [this, last, force](Outcome<nlohmann::json> settings) {
        if (!settings.ok()) return;
        const auto& json = *settings.value;
        auto feed = json.find("updateFeedURL");
        auto on = json.find("updateCheck");
        const QString url = feed != json.end() && feed->is_string()
                                ? QString::fromStdString(feed->get<std::string>())
                                : QString();
        const bool enabled = on == json.end() || !on->is_boolean() || on->get<bool>();
        if (force && url.isEmpty()) {
          statusBar()->showMessage(
              tr("No release feed is set; add its address in Settings to check for updates."),
              10'000);
          return;
        }
        updateCheck_->checkIfDue(url, enabled, last, force);
      });
}

void MainWindow::restoreState() {
  QSettings& preferences = services_.preferences();
  if (!restoreGeometry(preferences.value("window/geometry").toByteArray())) resize(1280, 800);
  splitter_->restoreState(preferences.value("window/sidebar").toByteArray());
  query_->splitter()->restoreState(preferences.value("query/side").toByteArray());
  if (auto* tab = query_->currentTab())
    tab->splitter()->restoreState(preferences.value("query/editor").toByteArray());
  wantedLogin_ = preferences.value("lastLogin").toString();
}

void MainWindow::saveState() {
  QSettings& preferences = services_.preferences();
  preferences.setValue("window/geometry", saveGeometry());
  preferences.setValue("window/sidebar", splitter_->saveState());
  preferences.setValue("query/side", query_->splitter()->saveState());
  if (auto* tab = query_->currentTab())
    preferences.setValue("query/editor", tab->splitter()->saveState());
  if (chosen_) preferences.setValue("lastLogin", QString::fromStdString(chosen_->username));
  preferences.sync();
}

void MainWindow::closeEvent(QCloseEvent* event) {
  saveState();
  event->accept();
}

}  // namespace corvane::desktop

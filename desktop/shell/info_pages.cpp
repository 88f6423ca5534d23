#include "desktop/shell/info_pages.hpp"

#include <QApplication>
#include <QClipboard>
#include <QFrame>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLineEdit>
#include <QTreeWidget>
#include <QVBoxLayout>

#include "desktop/shell/org_list_model.hpp"

namespace corvane::desktop {

QLabel* heading(const QString& text, double scale) {
  auto* label = new QLabel(text);
  QFont font = label->font();
  font.setPointSizeF(font.pointSizeF() * scale);
  font.setBold(true);
  label->setFont(font);
  label->setWordWrap(true);
  return label;
}

// ---- Welcome ----

WelcomePage::WelcomePage(QWidget* parent)
    : QWidget(parent), demo_(new QPushButton(tr("Open the Demo Org"))), note_(new QLabel) {
  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(48, 40, 48, 40);
  layout->setSpacing(14);
  layout->addWidget(heading(tr("Welcome to Corvane"), 2.0));
  auto* intro = new QLabel(
      tr("Corvane works with the Salesforce logins you already have in the Salesforce CLI "
         "(sf). It keeps no passwords of its own: every session comes from the CLI."));
  intro->setWordWrap(true);
  layout->addWidget(intro);

  layout->addWidget(heading(tr("Add a login"), 1.2));
  auto* steps = new QLabel(
      tr("1. Install the Salesforce CLI if you have not: "
         "https://developer.salesforce.com/tools/salesforcecli\n"
         "2. Run this command in a terminal and sign in in the browser window it opens:"));
  steps->setWordWrap(true);
  steps->setTextInteractionFlags(Qt::TextSelectableByMouse);
  layout->addWidget(steps);
  auto* commandRow = new QHBoxLayout;
  auto* command = new QLineEdit(loginCommand());
  command->setReadOnly(true);
  QFont fixed = command->font();
  fixed.setFamily("DejaVu Sans Mono");
  fixed.setStyleHint(QFont::Monospace);
  command->setFont(fixed);
  commandRow->addWidget(command, 1);
  auto* copy = new QPushButton(tr("Copy Command"));
  commandRow->addWidget(copy);
  layout->addLayout(commandRow);
  auto* after =
      new QLabel(tr("3. The new login appears in the sidebar by itself, no restart needed."));
  after->setWordWrap(true);
  layout->addWidget(after);

  layout->addWidget(heading(tr("Or try it first"), 1.2));
  auto* demoText = new QLabel(
      tr("The demo opens a sample org that runs on this computer, with accounts, contacts, "
         "opportunities and cases, so you can try every screen without a Salesforce account. "
         "Nothing reaches the internet."));
  demoText->setWordWrap(true);
  layout->addWidget(demoText);
  auto* demoRow = new QHBoxLayout;
  demoRow->addWidget(demo_);
  demoRow->addStretch(1);
  layout->addLayout(demoRow);
  note_->setWordWrap(true);
  layout->addWidget(note_);
  layout->addStretch(1);

  connect(copy, &QPushButton::clicked, this,
          [] { QApplication::clipboard()->setText(loginCommand()); });
  connect(demo_, &QPushButton::clicked, this, &WelcomePage::demoRequested);
}

void WelcomePage::setNote(const QString& text) { note_->setText(text); }

// ---- About ----

const std::vector<AboutPage::Library>& AboutPage::libraries() {
  static const std::vector<Library> list = {
      {"Qt 6", "windows, widgets, networking", "GNU LGPL 3.0"},
      {"SQLite", "query history, backup database, snapshots", "Public domain"},
      {"libcurl", "HTTPS to Salesforce", "curl licence (MIT-style)"},
      {"nlohmann/json", "JSON", "MIT"},
      {"libzip", "workbook archives", "BSD 3-Clause"},
      {"libxml2", "workbook XML", "MIT"},
      {"libxlsxwriter", "writing .xlsx workbooks", "BSD 2-Clause"},
      {"utf8proc", "Unicode text", "MIT"},
      {"OpenSSL", "TLS and hashing", "Apache 2.0"},
      {"c-ares", "DNS lookups", "MIT"},
      {"libplist", "property lists", "GNU LGPL 2.1"},
      {"cpp-httplib", "the sample org", "MIT"},
      {"CLI11", "command-line options", "BSD 3-Clause"},
      {"{fmt}", "text formatting", "MIT"},
      {"DejaVu fonts", "text when no system font is found", "Bitstream Vera licence"},
  };
  return list;
}

AboutPage::AboutPage(QWidget* parent) : QWidget(parent) {
  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(48, 40, 48, 40);
  layout->setSpacing(12);
  layout->addWidget(heading(tr("Corvane %1").arg(QApplication::applicationVersion()), 2.0));
  auto* text = new QLabel(
      tr("Backups, duplicates, imports, SOQL and health checks for Salesforce orgs, for one "
         "administrator on one workstation.\nQt %1 · built %2")
          .arg(QString::fromLatin1(qVersion()), QStringLiteral(__DATE__)));
  text->setWordWrap(true);
  layout->addWidget(text);
  layout->addWidget(heading(tr("Libraries and their licences"), 1.2));
  auto* list = new QTreeWidget;
  list->setColumnCount(3);
  list->setHeaderLabels({tr("Library"), tr("Used for"), tr("Licence")});
  list->setRootIsDecorated(false);
  list->setAlternatingRowColors(true);
  list->setFocusPolicy(Qt::NoFocus);
  list->setSelectionMode(QAbstractItemView::NoSelection);
  for (const auto& library : libraries())
    new QTreeWidgetItem(list, {library.name, library.use, library.licence});
  list->header()->setSectionResizeMode(QHeaderView::ResizeToContents);
  list->header()->setStretchLastSection(true);
  layout->addWidget(list, 1);
}

// ---- Login details ----

LoginPage::LoginPage(QWidget* parent)
    : QWidget(parent),
      title_(heading(QString(), 1.8)),
      facts_(new QLabel),
      state_(new QLabel),
      allowance_(new QLabel),
      query_(new QPushButton(tr("Open the SOQL Editor"))) {
  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(40, 32, 40, 32);
  layout->setSpacing(12);
  layout->addWidget(title_);
  state_->setWordWrap(true);
  state_->setTextInteractionFlags(Qt::TextSelectableByMouse);
  layout->addWidget(state_);
  facts_->setTextInteractionFlags(Qt::TextSelectableByMouse);
  facts_->setWordWrap(true);
  layout->addWidget(facts_);
  allowance_->setWordWrap(true);
  layout->addWidget(allowance_);
  auto* row = new QHBoxLayout;
  row->addWidget(query_);
  row->addStretch(1);
  layout->addLayout(row);
  layout->addStretch(1);
  connect(query_, &QPushButton::clicked, this, &LoginPage::openQuery);
}

void LoginPage::showLogin(const Org& org) {
  auto text = [](const std::optional<std::string>& value) {
    return value && !value->empty() ? QString::fromStdString(*value).toHtmlEscaped()
                                    : QStringLiteral("—");
  };
  title_->setText(QString::fromStdString(org.displayName()));
  const QColor colour = connectionColour(org.connection());
  state_->setText(
      QStringLiteral("<span style='color:%1'>●</span> %2")
          .arg(colour.name(), QString::fromStdString(org.statusDetail()).toHtmlEscaped()));
  QString rows;
  auto row = [&rows](const QString& name, const QString& value) {
    rows += QStringLiteral("<tr><td style='padding-right:18px; color:#777'>%1</td><td>%2</td></tr>")
                .arg(name, value);
  };
  row(tr("Username"), QString::fromStdString(org.username).toHtmlEscaped());
  row(tr("Alias"), text(org.alias));
  row(tr("Kind"), QString::fromStdString(label(org.type())));
  row(tr("Connection"), QString::fromStdString(label(org.connection())));
  row(tr("Org"), text(org.name));
  row(tr("Org ID"), text(org.orgId));
  row(tr("Instance"), text(org.instanceUrl));
  row(tr("Edition"), text(org.edition));
  const std::string expiry = org.expiryLabel();
  if (!expiry.empty()) row(tr("Expiry"), QString::fromStdString(expiry));
  facts_->setText("<table>" + rows + "</table>");
}

void LoginPage::setAllowance(const QString& text) { allowance_->setText(text); }

}  // namespace corvane::desktop

#include "desktop/query/query_screen.hpp"

#include <map>

#include <QFileDialog>
#include <QInputDialog>
#include <QLabel>
#include <QStandardPaths>
#include <QTabBar>
#include <QVBoxLayout>

#include "desktop/common/services.hpp"
#include "desktop/common/worker.hpp"
#include "desktop/query/query_tab.hpp"
#include "query/completion_task.hpp"

namespace corvane::desktop {

// The describe caches by lower-cased username.
struct QueryScreen::Caches {
  std::map<std::string, std::unique_ptr<DescribeCache>> byLogin;
};

namespace {

std::string lowerCase(std::string text) {
  for (char& c : text)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return text;
}

QListView* makeList() {
  auto* list = new QListView;
  list->setWordWrap(false);
  list->setTextElideMode(Qt::ElideRight);
  list->setUniformItemSizes(true);
  list->setAlternatingRowColors(true);
  list->setEditTriggers(QAbstractItemView::NoEditTriggers);
  list->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
  list->setItemDelegate(new TwoLineDelegate(list));
  return list;
}

}  // namespace

QueryScreen::QueryScreen(Services& services, QWidget* parent)
    : QWidget(parent),
      services_(services),
      splitter_(new QSplitter(Qt::Horizontal)),
      tabs_(new QTabWidget),
      side_(new QTabWidget),
      search_(new QLineEdit),
      historyList_(makeList()),
      savedList_(makeList()),
      caches_(std::make_shared<Caches>()) {
  completionThread_.setMaxThreadCount(1);
  tabs_->setTabsClosable(true);
  tabs_->setMovable(true);
  tabs_->setDocumentMode(true);
  connect(tabs_, &QTabWidget::tabCloseRequested, this, &QueryScreen::closeTab);

  auto* historyPage = new QWidget;
  auto* historyLayout = new QVBoxLayout(historyPage);
  historyLayout->setContentsMargins(4, 4, 4, 4);
  search_->setPlaceholderText(tr("Search history (Ctrl+H)"));
  search_->setClearButtonEnabled(true);
  historyLayout->addWidget(search_);
  historyList_->setModel(&history_);
  historyLayout->addWidget(historyList_);
  savedList_->setModel(&saved_);
  side_->addTab(historyPage, tr("History"));
  side_->addTab(savedList_, tr("Saved"));
  side_->setDocumentMode(true);

  splitter_->addWidget(tabs_);
  splitter_->addWidget(side_);
  splitter_->setStretchFactor(0, 3);
  splitter_->setStretchFactor(1, 1);
  splitter_->setSizes({820, 300});
  splitter_->setChildrenCollapsible(false);
  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(0, 0, 0, 0);
  layout->addWidget(splitter_);

  connect(search_, &QLineEdit::textChanged, this, [this] { reloadHistory(); });
  auto openIndex = [this](const QModelIndex& index) {
    if (index.isValid()) open(index.data(HistoryModel::SoqlRole).toString());
  };
  connect(historyList_, &QListView::activated, this, openIndex);
  connect(savedList_, &QListView::activated, this, [this](const QModelIndex& index) {
    if (index.isValid()) open(index.data(SavedQueryModel::SoqlRole).toString());
  });

  auto action = [this](const QString& text, const QKeySequence& keys, auto slot) {
    auto* created = new QAction(text, this);
    created->setShortcut(keys);
    created->setShortcutContext(Qt::WidgetWithChildrenShortcut);
    connect(created, &QAction::triggered, this, slot);
    addAction(created);
    actions_.push_back(created);
    return created;
  };
  run_ = action(tr("&Run Query"), QKeySequence(Qt::CTRL | Qt::Key_Return), [this] {
    if (auto* tab = currentTab()) tab->run();
  });
  stop_ = action(tr("&Stop Query"), QKeySequence(Qt::CTRL | Qt::Key_Period), [this] {
    if (auto* tab = currentTab()) tab->stop();
  });
  action(tr("&New Tab"), QKeySequence(Qt::CTRL | Qt::Key_T), [this] { newTab(); });
  action(tr("&Close Tab"), QKeySequence(Qt::CTRL | Qt::Key_W),
         [this] { closeTab(tabs_->currentIndex()); });
  action(tr("&Complete"), QKeySequence(Qt::CTRL | Qt::Key_Space), [this] {
    if (auto* tab = currentTab()) {
      tab->editor()->setFocus();
      tab->editor()->complete(true);
    }
  });
  action(tr("Save Query &As…"), QKeySequence(Qt::CTRL | Qt::Key_S), [this] { saveCurrent(); });
  action(tr("&Export Results…"), QKeySequence(Qt::CTRL | Qt::Key_E), [this] { exportCurrent(); });
  action(tr("Cop&y Cells"), QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_C), [this] {
    if (auto* tab = currentTab()) tab->copySelection();
  });
  action(tr("Search &History"), QKeySequence(Qt::CTRL | Qt::Key_H), [this] {
    side_->setCurrentIndex(0);
    search_->setFocus();
    search_->selectAll();
  });
  action(tr("Sa&ved Queries"), QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_O), [this] {
    side_->setCurrentIndex(1);
    savedList_->setFocus();
  });
  action(tr("&Editor"), QKeySequence(Qt::CTRL | Qt::Key_L), [this] {
    if (auto* tab = currentTab()) tab->editor()->setFocus();
  });
  newTab();
}

QueryScreen::~QueryScreen() {
  // Completions in hand end before the caches they use go.
  completionThread_.clear();
  completionThread_.waitForDone();
}

QueryTab* QueryScreen::currentTab() const {
  return qobject_cast<QueryTab*>(tabs_->currentWidget());
}

void QueryScreen::setLogin(const std::optional<Org>& org) {
  org_ = org;
  for (int i = 0; i < tabs_->count(); ++i)
    if (auto* tab = qobject_cast<QueryTab*>(tabs_->widget(i))) tab->setLogin(org);
  reloadHistory();
}

QueryTab* QueryScreen::newTab(const QString& soql) {
  auto* tab = new QueryTab(services_);
  tab->setLogin(org_);
  tab->editor()->setPlainText(soql);
  tab->editor()->setCompletionRequester([this, tab](const QString& text, int cursor, int request) {
    requestCompletions(tab, text, cursor, request);
  });
  connect(tab, &QueryTab::ended, this, &QueryScreen::record);
  connect(tab, &QueryTab::exported, this, &QueryScreen::exported);
  connect(tab, &QueryTab::exported, this, &QueryScreen::message);
  connect(tab, &QueryTab::exportFailed, this, &QueryScreen::message);
  connect(tab, &QueryTab::titleChanged, this, [this, tab] {
    const int index = tabs_->indexOf(tab);
    if (index >= 0) tabs_->setTabText(index, tab->title());
  });
  const int index = tabs_->addTab(tab, tab->title());
  tabs_->setCurrentIndex(index);
  tab->editor()->setFocus();
  return tab;
}

void QueryScreen::closeTab(int index) {
  if (index < 0) return;
  QWidget* tab = tabs_->widget(index);
  tabs_->removeTab(index);
  tab->deleteLater();
  if (tabs_->count() == 0) newTab();
}

void QueryScreen::open(const QString& soql) {
  QueryTab* tab = currentTab();
  if (tab && tab->editor()->toPlainText().trimmed().isEmpty() && !tab->isRunning()) {
    tab->editor()->setPlainText(soql);
  } else {
    tab = newTab(soql);
  }
  tab->editor()->moveCursor(QTextCursor::End);
  tab->editor()->setFocus();
}

void QueryScreen::requestCompletions(QueryTab* tab, const QString& text, int cursor, int request) {
  if (!org_) return;
  QPointer<QueryTab> target(tab);
  auto caches = caches_;
  auto api = services_.api();
  const Org org = *org_;
  const std::string soql = text.toStdString();
  Worker::run(
      this,
      [caches, api, org, soql, cursor] {
        auto& cache = caches->byLogin[lowerCase(org.username)];
        if (!cache) {
          cache =
              std::make_unique<DescribeCache>(QueryCompletion::standardCacheFolder(), org.username,
                                              QueryCompletion::describeSource(*api, org));
        }
        return QueryCompletion::complete(*cache, {soql, static_cast<std::size_t>(cursor), 50});
      },
      [this, target, request](Outcome<SoqlCompletion::Suggestions> suggestions) {
        if (!target) return;
        if (!suggestions.ok()) {
          emit message(suggestions.error);
          return;
        }
        target->editor()->showCompletions(request, std::move(suggestions.value->completions),
                                          static_cast<int>(suggestions.value->replace.start),
                                          static_cast<int>(suggestions.value->replace.end));
      },
      &completionThread_);
}

void QueryScreen::record(const QString& username, const QString& soql, qint64 rows,
                         qint64 milliseconds, const QString& error) {
  QueryHistory::Entry entry;
  entry.username = username.toStdString();
  entry.soql = soql.toStdString();
  entry.ranAt = std::chrono::system_clock::now();
  entry.rows = rows;
  entry.milliseconds = milliseconds;
  entry.error = error.toStdString();
  Services* services = &services_;
  Worker::run(
      this, [services, entry] { return services->history().record(entry); },
      [this](Outcome<std::int64_t> recorded) {
        if (!recorded.ok()) emit message(recorded.error);
        reloadHistory();
      });
}

void QueryScreen::reloadHistory() {
  if (!org_) {
    history_.setEntries({});
    saved_.setSaved({});
    return;
  }
  const int generation = ++historyGeneration_;
  Services* services = &services_;
  const std::string username = org_->username;
  const std::string search = search_->text().toStdString();
  struct Lists {
    std::vector<QueryHistory::Entry> entries;
    std::vector<QueryHistory::Saved> saved;
  };
  Worker::run(
      this,
      [services, username, search] {
        return Lists{services->history().entries(username, search),
                     services->history().saved(username)};
      },
      [this, generation](Outcome<Lists> lists) {
        if (generation != historyGeneration_) return;
        if (!lists.ok()) {
          emit message(lists.error);
          return;
        }
        history_.setEntries(std::move(lists.value->entries));
        saved_.setSaved(std::move(lists.value->saved));
        emit historyChanged();
        emit savedChanged();
      });
}

void QueryScreen::saveCurrentAs(const QString& name) {
  QueryTab* tab = currentTab();
  if (!tab || !org_ || name.trimmed().isEmpty()) return;
  QueryHistory::Saved saved{org_->username, name.trimmed().toStdString(),
                            tab->editor()->toPlainText().toStdString(),
                            std::chrono::system_clock::now()};
  Services* services = &services_;
  Worker::run(
      this,
      [services, saved] {
        services->history().save(saved);
        return true;
      },
      [this, name](Outcome<bool> done) {
        emit message(done.ok() ? tr("Saved the query as “%1”.").arg(name.trimmed()) : done.error);
        reloadHistory();
      });
}

void QueryScreen::saveCurrent() {
  QueryTab* tab = currentTab();
  if (!tab || !org_) return;
  bool ok = false;
  const QString name = QInputDialog::getText(this, tr("Save Query"), tr("Name of the query:"),
                                             QLineEdit::Normal, tab->title(), &ok);
  if (ok) saveCurrentAs(name);
}

void QueryScreen::exportCurrent() {
  QueryTab* tab = currentTab();
  if (!tab || tab->results()->columnCount() == 0) {
    emit message(tr("Run a query first; export writes the rows it shows."));
    return;
  }
  QString folder = QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation);
  const QString path = QFileDialog::getSaveFileName(
      this, tr("Export Results"), folder + "/" + tab->title() + ".csv",
      tr("CSV (*.csv);;Tab-separated text (*.tsv);;Excel workbook (*.xlsx)"));
  if (!path.isEmpty()) tab->exportTo(path);
}

}  // namespace corvane::desktop

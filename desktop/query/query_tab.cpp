#include "desktop/query/query_tab.hpp"

#include <QApplication>
#include <QClipboard>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QItemSelectionModel>
#include <QLocale>
#include <QRegularExpression>
#include <QVBoxLayout>

#include "desktop/common/services.hpp"
#include "desktop/common/worker.hpp"
#include "desktop/query/query_run.hpp"
#include "query/query_export.hpp"
#include "query/result_writer.hpp"

namespace corvane::desktop {

namespace {

QString number(qint64 value) { return QLocale().toString(value); }

}  // namespace

QueryTab::QueryTab(Services& services, QWidget* parent)
    : QWidget(parent),
      services_(services),
      editor_(new SoqlEditor),
      error_(new QLabel),
      grid_(new QTableView),
      results_(new ResultModel(this)),
      count_(new QLabel),
      runButton_(new QPushButton(tr("Run"))),
      stopButton_(new QPushButton(tr("Stop"))),
      splitter_(new QSplitter(Qt::Vertical)) {
  auto* top = new QWidget;
  auto* topLayout = new QVBoxLayout(top);
  topLayout->setContentsMargins(0, 0, 0, 0);
  topLayout->setSpacing(4);
  topLayout->addWidget(editor_, 1);
  error_->setWordWrap(true);
  error_->setTextInteractionFlags(Qt::TextSelectableByMouse);
  error_->setStyleSheet(
      "QLabel { color: #9b1c1c; background: #fdecec; border: 1px solid #f3b8b8; "
      "border-radius: 4px; padding: 6px; }");
  error_->hide();
  topLayout->addWidget(error_);
  auto* buttons = new QHBoxLayout;
  runButton_->setToolTip(tr("Run the query (Ctrl+Enter)"));
  stopButton_->setToolTip(tr("Stop the running query (Ctrl+.)"));
  stopButton_->setEnabled(false);
  buttons->addWidget(runButton_);
  buttons->addWidget(stopButton_);
  buttons->addSpacing(12);
  buttons->addWidget(count_, 1);
  topLayout->addLayout(buttons);

  grid_->setModel(results_);
  grid_->setSelectionMode(QAbstractItemView::ExtendedSelection);
  grid_->setSelectionBehavior(QAbstractItemView::SelectItems);
  grid_->setAlternatingRowColors(true);
  grid_->setWordWrap(false);
  grid_->setEditTriggers(QAbstractItemView::NoEditTriggers);
  grid_->horizontalHeader()->setDefaultSectionSize(160);
  grid_->horizontalHeader()->setSectionResizeMode(QHeaderView::Interactive);
  grid_->horizontalHeader()->setStretchLastSection(true);
  grid_->verticalHeader()->setDefaultSectionSize(grid_->fontMetrics().height() + 8);

  splitter_->addWidget(top);
  splitter_->addWidget(grid_);
  splitter_->setStretchFactor(0, 1);
  splitter_->setStretchFactor(1, 3);
  splitter_->setSizes({220, 520});
  splitter_->setChildrenCollapsible(false);
  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(6, 6, 6, 6);
  layout->addWidget(splitter_);

  connect(runButton_, &QPushButton::clicked, this, &QueryTab::run);
  connect(stopButton_, &QPushButton::clicked, this, &QueryTab::stop);
  connect(editor_, &SoqlEditor::runRequested, this, &QueryTab::run);
  connect(editor_, &QPlainTextEdit::textChanged, this, [this] {
    if (editor_->hasMark()) editor_->clearMark();
    emit titleChanged();
  });
  updateCount(0, 0, false, false);
}

QueryTab::~QueryTab() {
  if (run_) run_->stop();
}

void QueryTab::setLogin(const std::optional<Org>& org) { org_ = org; }

bool QueryTab::isRunning() const { return run_ && run_->isRunning(); }

QString QueryTab::title() const {
  static const QRegularExpression from(R"(\bFROM\s+(\w+))",
                                       QRegularExpression::CaseInsensitiveOption);
  auto match = from.match(editor_->toPlainText());
  return match.hasMatch() ? match.captured(1) : tr("Query");
}

void QueryTab::updateCount(qint64 rows, qint64 total, bool running, bool stopped) {
  if (running) {
    count_->setText(total > 0 ? tr("Running… %1 of %2 rows").arg(number(rows), number(total))
                              : tr("Running…"));
  } else if (stopped) {
    count_->setText(tr("Stopped: %1 rows shown").arg(number(rows)));
  } else if (results_->columnCount() == 0 && rows == 0) {
    count_->setText(tr("Ctrl+Enter runs the query."));
  } else if (total > rows) {
    count_->setText(tr("%1 rows of %2").arg(number(rows), number(total)));
  } else {
    count_->setText(rows == 1 ? tr("1 row") : tr("%1 rows").arg(number(rows)));
  }
}

void QueryTab::run() {
  const QString soql = editor_->toPlainText().trimmed();
  if (soql.isEmpty()) return;
  if (!org_) {
    showError(tr("Choose a login in the sidebar first."), 0, 0);
    return;
  }
  if (run_) {
    run_->stop();
    run_->deleteLater();
  }
  error_->hide();
  editor_->hideCompletions();
  editor_->clearMark();
  results_->clear();
  total_ = 0;
  run_ = new QueryRun(services_, *org_, soql, this);
  QueryRun* thisRun = run_;
  connect(run_, &QueryRun::columns, this,
          [this](std::vector<std::string> names) { results_->setColumns(names); });
  connect(run_, &QueryRun::page, this, [this](ResultPage page) {
    const bool first = results_->totalRows() == 0;
    results_->appendPage(page);
    if (first) fitColumns();
  });
  connect(run_, &QueryRun::progress, this, [this](qint64 rows, qint64 total) {
    total_ = total;
    updateCount(rows, total, true, false);
  });
  connect(run_, &QueryRun::finished, this,
          [this, thisRun, soql](qint64 rows, qint64 total, bool stopped) {
            if (total >= 0) total_ = total;
            runButton_->setEnabled(true);
            stopButton_->setEnabled(false);
            updateCount(results_->totalRows(), total_, false, stopped);
            emit ended(QString::fromStdString(thisRun->org().username), soql, rows,
                       thisRun->elapsedMilliseconds(), {});
          });
  connect(run_, &QueryRun::failed, this,
          [this, thisRun, soql](QString message, int row, int column) {
            runButton_->setEnabled(true);
            stopButton_->setEnabled(false);
            updateCount(0, 0, false, false);
            showError(message, row, column);
            emit ended(QString::fromStdString(thisRun->org().username), soql, 0,
                       thisRun->elapsedMilliseconds(), message);
          });
  runButton_->setEnabled(false);
  stopButton_->setEnabled(true);
  updateCount(0, 0, true, false);
  emit started();
  run_->start();
}

void QueryTab::fitColumns() {
  // Widths from the first rows only: measuring every row of a long result would stall.
  const QFontMetrics metrics(grid_->font());
  const int rows = std::min(results_->rowCount(), 50);
  for (int c = 0; c < results_->columnCount(); ++c) {
    int width = metrics.horizontalAdvance(
                    results_->headerData(c, Qt::Horizontal, Qt::DisplayRole).toString()) +
                28;
    for (int r = 0; r < rows; ++r)
      width =
          std::max(width, metrics.horizontalAdvance(results_->index(r, c).data().toString()) + 16);
    grid_->setColumnWidth(c, std::clamp(width, 60, 320));
  }
}

void QueryTab::stop() {
  if (run_ && run_->isRunning()) run_->stop();
}

void QueryTab::showError(const QString& message, int row, int column) {
  error_->setText(message.trimmed());
  error_->show();
  if (row > 0 && column > 0) editor_->markError(row, column);
}

void QueryTab::exportTo(const QString& path) {
  const auto format = ResultWriter::formatOf(path.toStdString());
  if (!format || *format == ResultWriter::Format::json) {
    emit exportFailed(tr("Export writes .csv, .tsv or .xlsx files; choose one of those names."));
    return;
  }
  const auto columns = results_->columns();
  const auto pages = results_->pages();
  const std::string file = path.toStdString();
  Worker::run(
      this,
      [columns, pages, file, format] {
        ResultWriter writer(std::filesystem::path(file), *format);
        QueryRows rows;
        for (const auto& name : columns) rows.columns.push_back({name, {}});
        QueryOutcome outcome;
        outcome.columns = rows.columns;
        for (const auto& page : pages) {
          rows.cells = *page;
          writer.write(rows);
        }
        writer.finish(outcome);
        return writer.rows();
      },
      [this, path](Outcome<std::int64_t> written) {
        if (!written.ok()) {
          emit exportFailed(written.error);
          return;
        }
        emit exported(tr("Wrote %1 rows to %2.").arg(number(*written.value), path));
      });
}

void QueryTab::copySelection() {
  const QModelIndexList selected = grid_->selectionModel()->selectedIndexes();
  if (selected.isEmpty()) return;
  int top = selected.front().row(), bottom = top, left = selected.front().column(), right = left;
  for (const auto& index : selected) {
    top = std::min(top, index.row());
    bottom = std::max(bottom, index.row());
    left = std::min(left, index.column());
    right = std::max(right, index.column());
  }
  std::vector<std::vector<std::string>> rows;
  for (int r = top; r <= bottom; ++r) {
    std::vector<std::string> cells;
    for (int c = left; c <= right; ++c) {
      const bool chosen = grid_->selectionModel()->isSelected(results_->index(r, c));
      cells.push_back(chosen ? results_->index(r, c).data().toString().toStdString() : "");
    }
    rows.push_back(std::move(cells));
  }
  std::string text;
  for (const auto& cells : rows) QueryExport::appendTSVLine(text, cells);
  if (rows.size() == 1 && rows.front().size() == 1) text.pop_back();  // one cell: no line break
  QApplication::clipboard()->setText(QString::fromStdString(text));
}

}  // namespace corvane::desktop

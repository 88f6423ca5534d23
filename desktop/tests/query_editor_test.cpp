// The SOQL editor driven as a user drives it: keys into the editor, the
// completion list picked with the keyboard, runs, stops, exports, history.
#include <QAbstractItemView>
#include <QApplication>
#include <QClipboard>
#include <QElapsedTimer>
#include <QImage>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>

#include <fstream>

#include "desktop/common/services.hpp"
#include "desktop/query/query_screen.hpp"
#include "desktop/query/query_tab.hpp"
#include "desktop/shell/main_window.hpp"
#include "desktop/shell/org_list_model.hpp"
#include "desktop/tests/sample_org_login.hpp"
#include "desktop/tests/suites.hpp"
#include "platform/durable_file.hpp"
#include "workbook/xlsx_reader.hpp"

namespace corvane::desktop::testing {

namespace {

// How long this thread has stood ready to run while others had the
// processors, in milliseconds (the second figure of the kernel's schedstat);
// 0 where the kernel does not tell.
qint64 waitedForProcessorMs() {
  std::ifstream stat("/proc/thread-self/schedstat");
  long long running = 0;
  long long waiting = 0;
  if (!(stat >> running >> waiting)) return 0;
  return waiting / 1'000'000;
}

}  // namespace

class QueryEditorTest : public QObject {
  Q_OBJECT

 private:
  std::unique_ptr<SampleOrg> org_;
  std::unique_ptr<Services> services_;
  std::unique_ptr<MainWindow> window_;

  QueryScreen* screen() { return window_->queryScreen(); }
  QueryTab* tab() { return screen()->currentTab(); }
  QueryTab* freshTab(const QString& soql = {}) {
    auto* created = screen()->newTab(soql);
    created->editor()->setFocus();
    created->editor()->moveCursor(QTextCursor::End);
    return created;
  }
  QStringList headers(QueryTab* tab) {
    QStringList names;
    for (int c = 0; c < tab->results()->columnCount(); ++c)
      names << tab->results()->headerData(c, Qt::Horizontal, Qt::DisplayRole).toString();
    return names;
  }

 private slots:
  void initTestCase() {
    org_ = std::make_unique<SampleOrg>();
    org_->addAccounts(2100);
    QVERIFY(org_->logIn("sample"));
    services_ = std::make_unique<Services>();
    window_ = std::make_unique<MainWindow>(*services_);
    window_->resize(1280, 800);
    window_->show();
    QTRY_VERIFY_WITH_TIMEOUT(window_->chosenLogin().has_value(), 60'000);
    window_->showScreen(MainWindow::Screen::query);
  }

  void cleanupTestCase() {
    window_.reset();
    services_.reset();
    org_.reset();
  }

  void typedFieldsAndObjectsArePickedFromTheListWithTheKeyboard() {
    QueryTab* tab = freshTab();
    SoqlEditor* editor = tab->editor();
    QTest::keyClicks(editor, "SELECT Id, Indu");
    // No FROM yet: the fields come once the object is known, so name it first.
    QTest::keyClicks(editor, " FROM Acco");
    QTRY_VERIFY_WITH_TIMEOUT(editor->isCompletionVisible(), 30'000);
    QCOMPARE(editor->completionModel().completions().front().text, std::string("Account"));
    QTest::keyClick(editor, Qt::Key_Return);
    QVERIFY(!editor->isCompletionVisible());
    QCOMPARE(editor->toPlainText(), QString("SELECT Id, Indu FROM Account"));

    // Back into the select list: the partly typed field completes from the org's fields.
    QTextCursor cursor = editor->textCursor();
    cursor.setPosition(15);  // after "Indu"
    editor->setTextCursor(cursor);
    QTest::keyClicks(editor, "s");
    QTRY_VERIFY_WITH_TIMEOUT(editor->isCompletionVisible(), 30'000);
    QCOMPARE(editor->completionModel().completions().front().text, std::string("Industry"));
    QVERIFY(QString::fromStdString(editor->completionModel().completions().front().detail)
                .startsWith("picklist"));
    QTest::keyClick(editor, Qt::Key_Tab);
    QCOMPARE(editor->toPlainText(), QString("SELECT Id, Industry FROM Account"));

    // A relationship path: Owner. offers the user's fields; Down picks the second.
    cursor.setPosition(19);  // after "Industry"
    editor->setTextCursor(cursor);
    QTest::keyClicks(editor, ", Owner.Na");
    QTRY_VERIFY_WITH_TIMEOUT(editor->isCompletionVisible(), 30'000);
    const auto& offered = editor->completionModel().completions();
    QVERIFY(offered.size() >= 2);
    QCOMPARE(offered.front().text, std::string("Owner.Name"));
    const std::string second = offered[1].text;
    QTest::keyClick(editor, Qt::Key_Down);
    QTest::keyClick(editor, Qt::Key_Enter);
    QCOMPARE(editor->toPlainText(),
             "SELECT Id, Industry, " + QString::fromStdString(second) + " FROM Account");

    // Escape closes the list and leaves the text as it is.
    editor->moveCursor(QTextCursor::End);
    QTest::keyClicks(editor, " WHERE Indus");
    QTRY_VERIFY_WITH_TIMEOUT(editor->isCompletionVisible(), 30'000);
    QTest::keyClick(editor, Qt::Key_Escape);
    QVERIFY(!editor->isCompletionVisible());
    QVERIFY(editor->toPlainText().endsWith("WHERE Indus"));
  }

  void ctrlSpaceOpensTheListBeforeAnythingIsTyped() {
    QueryTab* tab = freshTab("SELECT  FROM Contact");
    QTextCursor cursor = tab->editor()->textCursor();
    cursor.setPosition(7);
    tab->editor()->setTextCursor(cursor);
    QTest::keyClick(tab->editor(), Qt::Key_Space, Qt::ControlModifier);
    QTRY_VERIFY_WITH_TIMEOUT(tab->editor()->isCompletionVisible(), 30'000);
    bool hasLastName = false;
    for (const auto& completion : tab->editor()->completionModel().completions())
      hasLastName = hasLastName || completion.text == "LastName";
    QVERIFY(hasLastName);
    QTest::keyClick(tab->editor(), Qt::Key_Escape);
    QVERIFY(!tab->editor()->isCompletionVisible());
  }

  void valuesCompleteWithPicklistValuesAndDateLiterals() {
    QueryTab* tab = freshTab("SELECT Id FROM Account WHERE Industry = ");
    SoqlEditor* editor = tab->editor();
    QTest::keyClicks(editor, "'Ban");
    QTRY_VERIFY_WITH_TIMEOUT(editor->isCompletionVisible(), 30'000);
    const auto& values = editor->completionModel().completions();
    QCOMPARE(values.front().kind, Completion::Kind::picklistValue);
    QCOMPARE(values.front().detail, std::string("picklist value"));
    QTest::keyClick(editor, Qt::Key_Tab);
    QCOMPARE(editor->toPlainText(), QString("SELECT Id FROM Account WHERE Industry = 'Banking'"));

    editor->moveCursor(QTextCursor::End);
    QTest::keyClicks(editor, " AND CreatedDate > THIS_M");
    QTRY_VERIFY_WITH_TIMEOUT(editor->isCompletionVisible(), 30'000);
    QCOMPARE(editor->completionModel().completions().front().text, std::string("THIS_MONTH"));
    QCOMPARE(editor->completionModel().completions().front().detail, std::string("date literal"));
    QTest::keyClick(editor, Qt::Key_Return);
    QVERIFY(editor->toPlainText().endsWith("CreatedDate > THIS_MONTH"));
  }

  void aRunStreamsEveryPageIntoTheGridWithRelationshipColumns() {
    QueryTab* tab = freshTab(
        "SELECT Name, Owner.Name, AnnualRevenue FROM Account WHERE Name LIKE 'Account%' "
        "ORDER BY Name");
    QSignalSpy ended(tab, &QueryTab::ended);
    QTest::keyClick(tab->editor(), Qt::Key_Return, Qt::ControlModifier);
    QVERIFY(tab->isRunning());
    QTRY_VERIFY_WITH_TIMEOUT(ended.count() == 1, 60'000);
    QCOMPARE(ended.front().at(0).toString(), QString::fromStdString(org_->username()));
    QCOMPARE(ended.front().at(4).toString(), QString());
    QCOMPARE(headers(tab), QStringList({"Name", "Owner.Name", "AnnualRevenue"}));
    QCOMPARE(tab->results()->totalRows(), 2100);
    // The view is handed rows in steps, not all at once.
    QCOMPARE(tab->results()->rowCount(), ResultModel::fetchStep);
    QCOMPARE(tab->results()->index(1, 0).data().toString(), QString("Account 000001"));
    QVERIFY(!tab->results()->index(0, 1).data().toString().isEmpty());
    QCOMPARE(tab->results()->index(1, 2).data().toString(), QString("1000"));
    QVERIFY2(tab->countLine()->text().contains("2,100 rows"), qPrintable(tab->countLine()->text()));

    // Copying cells puts them on the clipboard as tab-separated text.
    tab->grid()->selectionModel()->select(
        QItemSelection(tab->results()->index(0, 0), tab->results()->index(1, 0)),
        QItemSelectionModel::ClearAndSelect);
    tab->copySelection();
    QCOMPARE(QApplication::clipboard()->text(), QString("Account 000000\nAccount 000001\n"));
  }

  void stopEndsARunningQueryAtOnceAndNoMoreRowsArrive() {
    org_->addAccounts(30'000);
    QueryTab* tab = freshTab("SELECT Id, Name, Industry FROM Account");
    QSignalSpy ended(tab, &QueryTab::ended);
    tab->runButton()->click();
    QTRY_VERIFY_WITH_TIMEOUT(tab->results()->totalRows() > 0, 60'000);
    QVERIFY(tab->stopButton()->isEnabled());
    QTest::mouseClick(tab->stopButton(), Qt::LeftButton);
    QVERIFY(!tab->isRunning());
    QCOMPARE(ended.count(), 1);
    const auto shown = tab->results()->totalRows();
    QVERIFY(shown < 32'100);
    QVERIFY2(tab->countLine()->text().startsWith("Stopped"), qPrintable(tab->countLine()->text()));
    QTest::qWait(1500);
    QCOMPARE(tab->results()->totalRows(), shown);
    QVERIFY(tab->runButton()->isEnabled());
  }

  void theInterfaceNeverStallsWhileALongQueryStreams() {
    org_->addAccounts(67'900);  // 100,000 accounts in all
    QueryTab* tab = freshTab("SELECT Id, Name, Industry, AnnualRevenue, Owner.Name FROM Account");
    QSignalSpy ended(tab, &QueryTab::ended);
    // A stall is time the event loop spent on work or waiting for something,
    // not time it stood ready while other programs had the processors: on a
    // loaded machine the latter alone can pass 100 ms.
    QElapsedTimer clock;
    qint64 longest = 0;
    qint64 last = 0;
    qint64 lastQueued = waitedForProcessorMs();
    QTimer tick;
    tick.setInterval(5);
    connect(&tick, &QTimer::timeout, this, [&] {
      const qint64 now = clock.elapsed();
      const qint64 queued = waitedForProcessorMs();
      longest = std::max(longest, now - last - (queued - lastQueued));
      last = now;
      lastQueued = queued;
    });
    clock.start();
    tick.start();
    tab->run();
    QTRY_VERIFY_WITH_TIMEOUT(ended.count() == 1, 240'000);
    tick.stop();
    QCOMPARE(tab->results()->totalRows(), 100'000);
    qInfo("longest wait of the event loop while %lld rows streamed in: %lld ms",
          static_cast<long long>(tab->results()->totalRows()), static_cast<long long>(longest));
    QVERIFY2(longest < 100, qPrintable(QString("the event loop stalled for %1 ms").arg(longest)));
  }

  void aRefusedQueryShowsSalesforcesWordsUnderTheEditorAndMarksThePlace() {
    QueryTab* tab = freshTab("SELECT Id,\n  Nope__c FROM Account");
    QSignalSpy ended(tab, &QueryTab::ended);
    tab->run();
    QTRY_VERIFY_WITH_TIMEOUT(ended.count() == 1, 60'000);
    QVERIFY(tab->errorLine()->isVisible());
    QVERIFY2(tab->errorLine()->text().contains("Nope__c"), qPrintable(tab->errorLine()->text()));
    QVERIFY(tab->editor()->hasMark());
    const auto mark = tab->editor()->extraSelections().front().cursor;
    QCOMPARE(mark.selectedText(), QString("Nope__c"));
    // Typing removes the mark.
    QTest::keyClicks(tab->editor(), " ");
    QVERIFY(!tab->editor()->hasMark());
  }

  void exportsTheRowsAsShownToCsvTsvAndWorkbook() {
    QueryTab* tab = freshTab(
        "SELECT Name, Owner.Name, Industry FROM Account WHERE Name LIKE 'Account 00000%' "
        "ORDER BY Name");
    QSignalSpy ended(tab, &QueryTab::ended);
    tab->run();
    QTRY_VERIFY_WITH_TIMEOUT(ended.count() == 1, 60'000);
    QCOMPARE(tab->results()->totalRows(), 10);
    QTemporaryDir folder;
    for (const QString name : {"rows.csv", "rows.tsv", "rows.xlsx"}) {
      QSignalSpy exported(tab, &QueryTab::exported);
      tab->exportTo(folder.filePath(name));
      QTRY_VERIFY_WITH_TIMEOUT(exported.count() == 1, 30'000);
      QVERIFY(exported.front().front().toString().startsWith("Wrote 10 rows"));
    }
    auto csv = Durable::readWhole(folder.filePath("rows.csv").toStdString());
    QVERIFY(csv);
    QCOMPARE(QString::fromStdString(csv->substr(0, csv->find('\n'))),
             QString("Name,Owner.Name,Industry"));
    QCOMPARE(std::count(csv->begin(), csv->end(), '\n'), 11);
    auto tsv = Durable::readWhole(folder.filePath("rows.tsv").toStdString());
    QVERIFY(tsv && tsv->rfind("Name\tOwner.Name\tIndustry\nAccount 000000\t", 0) == 0);
    XlsxReader workbook(folder.filePath("rows.xlsx").toStdString());
    auto grid = workbook.readSheet(0);
    QVERIFY(grid);
    QCOMPARE(grid->rows.size(), 10u);
    QCOMPARE(std::string(grid->cell(9, 0)), std::string("Account 000009"));

    QSignalSpy failed(tab, &QueryTab::exportFailed);
    tab->exportTo(folder.filePath("rows.pdf"));
    QCOMPARE(failed.count(), 1);
  }

  void everyRunIsInTheSearchableHistoryAndSavedQueriesReopen() {
    QTRY_VERIFY_WITH_TIMEOUT(screen()->historyModel()->rowCount() >= 4, 30'000);
    // The refused query is there with its outcome.
    screen()->historySearch()->setText("nope__c");
    QTRY_COMPARE_WITH_TIMEOUT(screen()->historyModel()->rowCount(), 1, 30'000);
    QVERIFY(!screen()->historyModel()->entries().front().error.empty());
    screen()->historySearch()->clear();
    QTRY_VERIFY_WITH_TIMEOUT(screen()->historyModel()->rowCount() >= 4, 30'000);

    // Reopened from history into a new tab.
    const int tabs = screen()->tabs()->count();
    screen()->historySearch()->setText("Owner.Name, AnnualRevenue FROM Account WHERE");
    QTRY_COMPARE_WITH_TIMEOUT(screen()->historyModel()->rowCount(), 1, 30'000);
    emit screen()->historyList()->activated(screen()->historyModel()->index(0, 0));
    QCOMPARE(screen()->tabs()->count(), tabs + 1);
    QVERIFY(tab()->editor()->toPlainText().startsWith("SELECT Name, Owner.Name, AnnualRevenue"));

    // Saved under a name, found in the saved list, reopened.
    tab()->editor()->setPlainText("SELECT Id FROM Account WHERE Industry = 'Banking'");
    QSignalSpy saved(screen(), &QueryScreen::savedChanged);
    screen()->saveCurrentAs("Banking accounts");
    QTRY_VERIFY_WITH_TIMEOUT(screen()->savedModel()->rowCount() == 1, 30'000);
    QCOMPARE(screen()->savedModel()->index(0, 0).data(SavedQueryModel::NameRole).toString(),
             QString("Banking accounts"));
    freshTab();
    emit screen()->savedList()->activated(screen()->savedModel()->index(0, 0));
    QCOMPARE(tab()->editor()->toPlainText(),
             QString("SELECT Id FROM Account WHERE Industry = 'Banking'"));
  }

  void everyEditorActionHasAShortcutShownInTheMenus() {
    for (QAction* action : screen()->editorActions()) {
      QVERIFY2(!action->shortcut().isEmpty(), qPrintable(action->text()));
      QVERIFY(!action->associatedObjects().isEmpty());
    }
  }
};

int runQueryEditorTest(const QStringList& arguments) {
  QueryEditorTest test;
  return QTest::qExec(&test, arguments);
}

}  // namespace corvane::desktop::testing

#include "query_editor_test.moc"

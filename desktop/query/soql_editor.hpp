// The SOQL text editor: syntax colouring, completion as you type, and the
// mark of a position Salesforce named in an error.
//
// Completions are asked for through `requestCompletions` (the screen runs the
// query engine's completion on a worker thread) and shown with
// showCompletions() in a list under the cursor; Up and Down move in it, Tab or
// Enter accept, Escape closes it. Ctrl+Space asks at any place. Answers to
// an older request than the last are dropped.
#pragma once

#include <functional>
#include <vector>

#include <QAbstractListModel>
#include <QListView>
#include <QPlainTextEdit>
#include <QStyledItemDelegate>
#include <QTimer>

#include "query/soql_completion.hpp"

namespace corvane::desktop {

class SoqlHighlighter;

// The completion list's rows: the engine's completions as they came, best first.
class CompletionModel : public QAbstractListModel {
  Q_OBJECT
 public:
  enum Role { DetailRole = Qt::UserRole + 1, KindRole };
  using QAbstractListModel::QAbstractListModel;
  void setCompletions(std::vector<Completion> completions);
  const std::vector<Completion>& completions() const { return completions_; }
  int rowCount(const QModelIndex& parent = {}) const override;
  QVariant data(const QModelIndex& index, int role) const override;

 private:
  std::vector<Completion> completions_;
};

class CompletionDelegate : public QStyledItemDelegate {
  Q_OBJECT
 public:
  using QStyledItemDelegate::QStyledItemDelegate;
  void paint(QPainter* painter, const QStyleOptionViewItem& option,
             const QModelIndex& index) const override;
  QSize sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const override;
};

class SoqlEditor : public QPlainTextEdit {
  Q_OBJECT
 public:
  // text, cursor in characters, request number.
  using CompletionRequest = std::function<void(const QString& text, int cursor, int request)>;

  explicit SoqlEditor(QWidget* parent = nullptr);

  void setCompletionRequester(CompletionRequest requester) { requester_ = std::move(requester); }
  // Shows the answer to request `request`; range in characters.
  void showCompletions(int request, std::vector<Completion> completions, int replaceStart,
                       int replaceEnd);
  bool isCompletionVisible() const;
  QListView* completionList() const { return popup_; }
  const CompletionModel& completionModel() const { return model_; }

  // Marks the place Salesforce named (row and column from 1) and moves the
  // cursor there; clearMark() removes it.
  void markError(int row, int column);
  void clearMark();
  bool hasMark() const { return !extraSelections().isEmpty(); }

  // Asks for completions at the cursor now; forced shows the list even
  // before anything is typed (Ctrl+Space).
  void complete(bool forced = false);
  void hideCompletions();

  // Offsets in user-perceived characters and Qt's positions.
  static int characterOffset(const QString& text, int position);
  static int position(const QString& text, int characterOffset);

 signals:
  void runRequested();

 protected:
  void keyPressEvent(QKeyEvent* event) override;
  void focusOutEvent(QFocusEvent* event) override;

 private:
  void accept();
  void placePopup();

  SoqlHighlighter* highlighter_;
  CompletionModel model_;
  QListView* popup_;
  QTimer typingPause_;
  CompletionRequest requester_;
  int request_ = 0;
  bool forced_ = false;  // asked with Ctrl+Space: show even for an empty token
  int replaceStart_ = 0;
  int replaceEnd_ = 0;
};

}  // namespace corvane::desktop

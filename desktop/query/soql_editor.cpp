#include "desktop/query/soql_editor.hpp"

#include <QAbstractTextDocumentLayout>
#include <QFontDatabase>
#include <QKeyEvent>
#include <QPainter>
#include <QScrollBar>
#include <QTextBlock>
#include <QTextBoundaryFinder>

#include "desktop/query/soql_highlighter.hpp"

namespace corvane::desktop {

// ---- CompletionModel ----

void CompletionModel::setCompletions(std::vector<Completion> completions) {
  beginResetModel();
  completions_ = std::move(completions);
  endResetModel();
}

int CompletionModel::rowCount(const QModelIndex& parent) const {
  return parent.isValid() ? 0 : static_cast<int>(completions_.size());
}

QVariant CompletionModel::data(const QModelIndex& index, int role) const {
  if (!index.isValid() || index.row() >= static_cast<int>(completions_.size())) return {};
  const Completion& completion = completions_[static_cast<std::size_t>(index.row())];
  switch (role) {
    case Qt::DisplayRole:
      return QString::fromStdString(completion.display);
    case DetailRole:
      return QString::fromStdString(completion.detail);
    case KindRole:
      return QString::fromUtf8(kindName(completion.kind).data(),
                               static_cast<qsizetype>(kindName(completion.kind).size()));
    default:
      return {};
  }
}

// ---- CompletionDelegate ----

QSize CompletionDelegate::sizeHint(const QStyleOptionViewItem& option, const QModelIndex&) const {
  return {360, QFontMetrics(option.font).height() + 6};
}

void CompletionDelegate::paint(QPainter* painter, const QStyleOptionViewItem& option,
                               const QModelIndex& index) const {
  QStyleOptionViewItem base(option);
  initStyleOption(&base, index);
  base.text.clear();
  base.widget->style()->drawControl(QStyle::CE_ItemViewItem, &base, painter, base.widget);
  painter->save();
  const bool selected = option.state & QStyle::State_Selected;
  QColor colour = option.palette.color(selected ? QPalette::HighlightedText : QPalette::Text);
  const QRect area = option.rect.adjusted(8, 0, -8, 0);
  const QString detail = index.data(CompletionModel::DetailRole).toString();
  QFont small(option.font);
  small.setPointSizeF(option.font.pointSizeF() * 0.88);
  const QFontMetrics smallMetrics(small);
  // A little slack: elidedText cuts text whose width is exactly the room given.
  const int detailWidth =
      std::min(smallMetrics.horizontalAdvance(detail) + 4, area.width() * 3 / 5);
  painter->setPen(colour);
  painter->drawText(
      area.adjusted(0, 0, -detailWidth - 10, 0), Qt::AlignVCenter | Qt::AlignLeft,
      QFontMetrics(option.font)
          .elidedText(index.data().toString(), Qt::ElideRight, area.width() - detailWidth - 10));
  colour.setAlpha(150);
  painter->setPen(colour);
  painter->setFont(small);
  painter->drawText(QRect(area.right() - detailWidth, area.top(), detailWidth, area.height()),
                    Qt::AlignVCenter | Qt::AlignRight,
                    smallMetrics.elidedText(detail, Qt::ElideRight, detailWidth));
  painter->restore();
}

// ---- SoqlEditor ----

SoqlEditor::SoqlEditor(QWidget* parent)
    : QPlainTextEdit(parent),
      highlighter_(new SoqlHighlighter(document())),
      popup_(new QListView(viewport())) {
  QFont fixed = QFontDatabase::systemFont(QFontDatabase::FixedFont);
  setFont(fixed);
  setTabChangesFocus(false);
  setLineWrapMode(QPlainTextEdit::WidgetWidth);
  setPlaceholderText(
      tr("Type a SOQL query, such as SELECT Id, Name FROM Account. "
         "Ctrl+Space completes, Ctrl+Enter runs."));

  popup_->setModel(&model_);
  popup_->setItemDelegate(new CompletionDelegate(popup_));
  popup_->setFocusPolicy(Qt::NoFocus);
  popup_->setSelectionMode(QAbstractItemView::SingleSelection);
  popup_->setUniformItemSizes(true);
  popup_->setFrameShape(QFrame::StyledPanel);
  popup_->setFont(font());
  popup_->hide();
  connect(popup_, &QListView::clicked, this, [this](const QModelIndex& index) {
    popup_->setCurrentIndex(index);
    accept();
  });

  typingPause_.setSingleShot(true);
  typingPause_.setInterval(60);
  connect(&typingPause_, &QTimer::timeout, this, [this] { complete(); });
  connect(this, &QPlainTextEdit::cursorPositionChanged, this, [this] {
    if (isCompletionVisible()) typingPause_.start();
  });
}

int SoqlEditor::characterOffset(const QString& text, int position) {
  QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
  int count = 0;
  while (finder.toNextBoundary() != -1 && finder.position() <= position) ++count;
  return count;
}

int SoqlEditor::position(const QString& text, int characterOffset) {
  QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
  int at = 0;
  for (int i = 0; i < characterOffset; ++i) {
    const auto next = finder.toNextBoundary();
    if (next == -1) break;
    at = static_cast<int>(next);
  }
  return at;
}

bool SoqlEditor::isCompletionVisible() const { return popup_->isVisible(); }

void SoqlEditor::complete(bool forced) {
  if (!requester_) return;
  if (forced) forced_ = true;
  const QString text = toPlainText();
  requester_(text, characterOffset(text, textCursor().position()), ++request_);
}

void SoqlEditor::showCompletions(int request, std::vector<Completion> completions, int replaceStart,
                                 int replaceEnd) {
  if (request != request_) return;  // the text has moved on
  const bool forced = forced_;
  forced_ = false;
  const QString text = toPlainText();
  replaceStart_ = position(text, replaceStart);
  replaceEnd_ = position(text, replaceEnd);
  // Nothing typed yet: the list opens only when asked for.
  if (completions.empty() || (!forced && replaceStart_ == replaceEnd_ && !isCompletionVisible())) {
    hideCompletions();
    return;
  }
  // The one candidate is what is typed already: nothing to offer.
  if (completions.size() == 1 && !forced &&
      text.mid(replaceStart_, replaceEnd_ - replaceStart_) ==
          QString::fromStdString(completions.front().text)) {
    hideCompletions();
    return;
  }
  model_.setCompletions(std::move(completions));
  popup_->setCurrentIndex(model_.index(0, 0));
  placePopup();
  popup_->show();
  popup_->raise();
}

void SoqlEditor::placePopup() {
  QTextCursor at(document());
  at.setPosition(replaceStart_);
  const QRect caret = cursorRect(at);
  const int rowHeight =
      popup_->sizeHintForRow(0) > 0 ? popup_->sizeHintForRow(0) : fontMetrics().height() + 6;
  const int rows = std::min(model_.rowCount(), 9);
  const int width =
      std::min(std::max(560, fontMetrics().averageCharWidth() * 72), viewport()->width() - 8);
  const int height = rows * rowHeight + 2 * popup_->frameWidth();
  int x = std::min(caret.left(), viewport()->width() - width - 4);
  int y = caret.bottom() + 2;
  if (y + height > viewport()->height() && caret.top() - height - 2 >= 0)
    y = caret.top() - height - 2;
  popup_->setGeometry(std::max(0, x), y, width, height);
}

void SoqlEditor::hideCompletions() {
  popup_->hide();
  typingPause_.stop();
}

void SoqlEditor::accept() {
  const QModelIndex current = popup_->currentIndex();
  if (!current.isValid()) {
    hideCompletions();
    return;
  }
  const Completion chosen = model_.completions()[static_cast<std::size_t>(current.row())];
  hideCompletions();
  QTextCursor cursor = textCursor();
  cursor.setPosition(replaceStart_);
  cursor.setPosition(replaceEnd_, QTextCursor::KeepAnchor);
  cursor.insertText(QString::fromStdString(chosen.text));
  setTextCursor(cursor);
  ++request_;  // an answer still on its way is for the old text
  // A relationship path goes on: offer the related object's fields.
  if (!chosen.text.empty() && chosen.text.back() == '.') {
    complete(true);
  }
}

void SoqlEditor::keyPressEvent(QKeyEvent* event) {
  const bool control = event->modifiers() & Qt::ControlModifier;
  if (control && (event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter)) {
    hideCompletions();
    emit runRequested();
    return;
  }
  if (control && event->key() == Qt::Key_Space) {
    complete(true);
    return;
  }
  if (isCompletionVisible()) {
    switch (event->key()) {
      case Qt::Key_Tab:
      case Qt::Key_Return:
      case Qt::Key_Enter:
        accept();
        return;
      case Qt::Key_Escape:
        hideCompletions();
        return;
      case Qt::Key_Down:
      case Qt::Key_Up:
      case Qt::Key_PageDown:
      case Qt::Key_PageUp: {
        const int rows = model_.rowCount();
        int row = popup_->currentIndex().row();
        const int step =
            (event->key() == Qt::Key_PageDown || event->key() == Qt::Key_PageUp) ? 8 : 1;
        row += (event->key() == Qt::Key_Down || event->key() == Qt::Key_PageDown) ? step : -step;
        row = std::clamp(row, 0, rows - 1);
        popup_->setCurrentIndex(model_.index(row, 0));
        return;
      }
      default:
        break;
    }
  }
  QPlainTextEdit::keyPressEvent(event);
  const QString typed = event->text();
  if (typed.isEmpty() || control) return;
  const QChar c = typed.back();
  if (c.isLetterOrNumber() || c == '_' || c == '.' || c == '\'') {
    typingPause_.start();
  } else if (event->key() == Qt::Key_Backspace && isCompletionVisible()) {
    typingPause_.start();
  } else {
    hideCompletions();
  }
}

void SoqlEditor::focusOutEvent(QFocusEvent* event) { QPlainTextEdit::focusOutEvent(event); }

void SoqlEditor::markError(int row, int column) {
  QTextBlock block = document()->findBlockByNumber(std::max(0, row - 1));
  if (!block.isValid()) block = document()->lastBlock();
  const QString line = block.text();
  int start = std::min(position(line, column - 1), static_cast<int>(line.size()));
  int end = start;
  while (end < line.size() &&
         (line[end].isLetterOrNumber() || line[end] == '_' || line[end] == '.'))
    ++end;
  if (end == start) end = std::min(static_cast<int>(line.size()), start + 1);
  if (end == start && start > 0) --start;
  QTextEdit::ExtraSelection mark;
  mark.cursor = QTextCursor(block);
  mark.cursor.setPosition(block.position() + start);
  mark.cursor.setPosition(block.position() + end, QTextCursor::KeepAnchor);
  mark.format.setUnderlineStyle(QTextCharFormat::WaveUnderline);
  mark.format.setUnderlineColor(QColor(0xc8, 0x3b, 0x3b));
  mark.format.setBackground(QColor(0xc8, 0x3b, 0x3b, 40));
  setExtraSelections({mark});
  QTextCursor cursor = textCursor();
  cursor.setPosition(block.position() + start);
  setTextCursor(cursor);
}

void SoqlEditor::clearMark() { setExtraSelections({}); }

}  // namespace corvane::desktop

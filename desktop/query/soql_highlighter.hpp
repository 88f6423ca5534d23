// Syntax colouring of SOQL in the editor: keywords, functions and date
// literals, quoted literals (also across lines), numbers and bind variables.
#pragma once

#include <QRegularExpression>
#include <QSyntaxHighlighter>
#include <QTextCharFormat>

namespace corvane::desktop {

class SoqlHighlighter : public QSyntaxHighlighter {
  Q_OBJECT
 public:
  explicit SoqlHighlighter(QTextDocument* document);

 protected:
  void highlightBlock(const QString& text) override;

 private:
  QRegularExpression keywords_;
  QRegularExpression functions_;
  QRegularExpression numbers_;
  QTextCharFormat keyword_;
  QTextCharFormat function_;
  QTextCharFormat literal_;
  QTextCharFormat number_;
};

}  // namespace corvane::desktop

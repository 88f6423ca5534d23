#include "desktop/query/soql_highlighter.hpp"

namespace corvane::desktop {

namespace {

constexpr int kInLiteral = 1;  // the block ends inside an open literal

}  // namespace

SoqlHighlighter::SoqlHighlighter(QTextDocument* document) : QSyntaxHighlighter(document) {
  keywords_ = QRegularExpression(
      R"(\b(SELECT|FROM|WHERE|AND|OR|NOT|IN|LIKE|INCLUDES|EXCLUDES|ORDER|GROUP|BY|HAVING|LIMIT|)"
      R"(OFFSET|ASC|DESC|NULLS|FIRST|LAST|WITH|FOR|VIEW|REFERENCE|UPDATE|TYPEOF|WHEN|THEN|ELSE|END|)"
      R"(USING|SCOPE|TRUE|FALSE|NULL|ROLLUP|CUBE)\b)",
      QRegularExpression::CaseInsensitiveOption);
  functions_ = QRegularExpression(
      R"(\b(COUNT|COUNT_DISTINCT|SUM|AVG|MIN|MAX|FIELDS|toLabel|FORMAT|convertCurrency|)"
      R"(CALENDAR_MONTH|CALENDAR_YEAR|DAY_ONLY|TODAY|YESTERDAY|TOMORROW|THIS_WEEK|LAST_WEEK|)"
      R"(NEXT_WEEK|THIS_MONTH|LAST_MONTH|NEXT_MONTH|THIS_YEAR|LAST_YEAR|NEXT_YEAR|)"
      R"(LAST_N_DAYS|NEXT_N_DAYS|THIS_QUARTER|LAST_QUARTER)\b)",
      QRegularExpression::CaseInsensitiveOption);
  numbers_ = QRegularExpression(R"((?<![\w.])-?\d+(\.\d+)?([T:\-]\d[\d:.\-TZ+]*)?\b)");
  keyword_.setForeground(QColor(0x1f, 0x5f, 0xbf));
  keyword_.setFontWeight(QFont::Bold);
  function_.setForeground(QColor(0x8a, 0x3f, 0xb0));
  literal_.setForeground(QColor(0x2e, 0x8b, 0x3e));
  number_.setForeground(QColor(0xb0, 0x5a, 0x00));
}

void SoqlHighlighter::highlightBlock(const QString& text) {
  auto apply = [&](const QRegularExpression& pattern, const QTextCharFormat& format) {
    auto matches = pattern.globalMatch(text);
    while (matches.hasNext()) {
      auto match = matches.next();
      setFormat(static_cast<int>(match.capturedStart()), static_cast<int>(match.capturedLength()),
                format);
    }
  };
  apply(keywords_, keyword_);
  apply(functions_, function_);
  apply(numbers_, number_);

  // Literals last, so that words inside them are not coloured as keywords.
  bool inLiteral = previousBlockState() == kInLiteral;
  int start = 0;
  for (int i = 0; i < text.size(); ++i) {
    const QChar c = text[i];
    if (inLiteral) {
      if (c == '\\') {
        ++i;
      } else if (c == '\'') {
        setFormat(start, i - start + 1, literal_);
        inLiteral = false;
      }
    } else if (c == '\'') {
      inLiteral = true;
      start = i;
    }
  }
  if (inLiteral) setFormat(start, static_cast<int>(text.size()) - start, literal_);
  setCurrentBlockState(inLiteral ? kInLiteral : 0);
}

}  // namespace corvane::desktop

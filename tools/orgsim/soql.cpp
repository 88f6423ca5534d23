#include "tools/orgsim/soql.hpp"

#include <algorithm>
#include <cctype>

namespace corvane::orgsim {

namespace {

std::string upper(std::string_view text) {
  std::string out(text);
  for (auto& c : out) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return out;
}

struct Token {
  enum class Kind { Identifier, String, Number, Date, DateTime, Symbol, End };
  Kind kind = Kind::End;
  std::string text;  // identifiers and symbols as written; strings unescaped
  std::size_t offset = 0;
};

bool isIdentifierStart(char c) { return std::isalpha(static_cast<unsigned char>(c)) || c == '_'; }
bool isIdentifierPart(char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '_'; }
bool isDigit(char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; }

class Lexer {
 public:
  explicit Lexer(std::string_view text) : text_(text) {}

  std::vector<Token> run() {
    std::vector<Token> tokens;
    while (true) {
      skipSpace();
      Token token;
      token.offset = at_;
      if (at_ >= text_.size()) {
        token.kind = Token::Kind::End;
        tokens.push_back(token);
        return tokens;
      }
      char c = text_[at_];
      if (c == '\'') {
        token.kind = Token::Kind::String;
        token.text = readString();
      } else if (isDigit(c) && looksLikeDate()) {
        token = readDate();
      } else if (isDigit(c) || ((c == '-' || c == '+' || c == '.') && at_ + 1 < text_.size() &&
                                (isDigit(text_[at_ + 1]) || text_[at_ + 1] == '.'))) {
        token.kind = Token::Kind::Number;
        token.text = readNumber();
      } else if (isIdentifierStart(c)) {
        token.kind = Token::Kind::Identifier;
        std::size_t start = at_;
        while (at_ < text_.size() && isIdentifierPart(text_[at_])) ++at_;
        token.text = std::string(text_.substr(start, at_ - start));
      } else {
        token.kind = Token::Kind::Symbol;
        static constexpr std::string_view twoChar[] = {"!=", "<=", ">=", "<>"};
        bool matched = false;
        for (auto symbol : twoChar) {
          if (text_.substr(at_, 2) == symbol) {
            token.text = std::string(symbol);
            at_ += 2;
            matched = true;
            break;
          }
        }
        if (!matched) {
          if (std::string_view("(),=<>.:").find(c) == std::string_view::npos) {
            throw SoqlError::at("MALFORMED_QUERY", text_, at_,
                                "unexpected token: '" + std::string(1, c) + "'");
          }
          token.text = std::string(1, c);
          ++at_;
        }
      }
      tokens.push_back(std::move(token));
    }
  }

 private:
  void skipSpace() {
    while (at_ < text_.size() && std::isspace(static_cast<unsigned char>(text_[at_]))) ++at_;
  }

  std::string readString() {
    std::size_t start = at_++;
    std::string out;
    while (at_ < text_.size()) {
      char c = text_[at_++];
      if (c == '\'') return out;
      if (c == '\\') {
        if (at_ >= text_.size()) break;
        char e = text_[at_++];
        switch (e) {
          case 'n':
            out += '\n';
            break;
          case 'r':
            out += '\r';
            break;
          case 't':
            out += '\t';
            break;
          case 'b':
            out += '\b';
            break;
          case 'f':
            out += '\f';
            break;
          case '"':
            out += '"';
            break;
          case '\'':
            out += '\'';
            break;
          case '\\':
            out += '\\';
            break;
          // LIKE patterns keep their escaped wildcards for the pattern translator.
          case '%':
            out += "\\%";
            break;
          case '_':
            out += "\\_";
            break;
          default:
            throw SoqlError::at("MALFORMED_QUERY", text_, at_ - 2,
                                "Invalid string literal '" +
                                    std::string(text_.substr(start, at_ - start)) +
                                    "'. Illegal character sequence '\\" + std::string(1, e) +
                                    "' in string literal.");
        }
      } else {
        out += c;
      }
    }
    throw SoqlError::at("MALFORMED_QUERY", text_, start, "unexpected token: '<EOF>'");
  }

  bool looksLikeDate() const {
    return at_ + 10 <= text_.size() && isDigit(text_[at_ + 1]) && isDigit(text_[at_ + 2]) &&
           isDigit(text_[at_ + 3]) && text_[at_ + 4] == '-';
  }

  Token readDate() {
    Token token;
    token.offset = at_;
    std::size_t start = at_;
    while (at_ < text_.size() && (isIdentifierPart(text_[at_]) || text_[at_] == '-' ||
                                  text_[at_] == ':' || text_[at_] == '.' || text_[at_] == '+')) {
      ++at_;
    }
    token.text = std::string(text_.substr(start, at_ - start));
    token.kind = token.text.size() > 10 ? Token::Kind::DateTime : Token::Kind::Date;
    return token;
  }

  std::string readNumber() {
    std::size_t start = at_;
    if (text_[at_] == '-' || text_[at_] == '+') ++at_;
    while (at_ < text_.size() && (isDigit(text_[at_]) || text_[at_] == '.')) ++at_;
    if (at_ < text_.size() && (text_[at_] == 'e' || text_[at_] == 'E')) {
      ++at_;
      if (at_ < text_.size() && (text_[at_] == '-' || text_[at_] == '+')) ++at_;
      while (at_ < text_.size() && isDigit(text_[at_])) ++at_;
    }
    return std::string(text_.substr(start, at_ - start));
  }

  std::string_view text_;
  std::size_t at_ = 0;
};

class Parser {
 public:
  explicit Parser(std::string_view text) : text_(text), tokens_(Lexer(text).run()) {}

  Query query(bool nested) {
    Query q;
    q.text = std::string(text_);
    expectKeyword("SELECT");
    do {
      q.select.push_back(selectItem());
    } while (acceptSymbol(","));
    expectKeyword("FROM");
    const Token& from = expectIdentifier("FROM");
    q.from = from.text;
    q.fromOffset = from.offset;
    if (acceptKeyword("WHERE")) q.where = orCondition();
    if (isKeyword("GROUP")) {
      next();
      expectKeyword("BY");
      q.groupBy = path();
    }
    if (isKeyword("ORDER")) {
      next();
      expectKeyword("BY");
      do {
        OrderItem item;
        item.path = path();
        if (acceptKeyword("DESC")) {
          item.descending = true;
        } else {
          acceptKeyword("ASC");
        }
        if (acceptKeyword("NULLS")) {
          if (acceptKeyword("FIRST")) {
            item.nullsFirst = true;
          } else {
            expectKeyword("LAST");
            item.nullsFirst = false;
          }
        }
        q.orderBy.push_back(std::move(item));
      } while (acceptSymbol(","));
    }
    if (acceptKeyword("LIMIT")) q.limit = integer();
    if (isKeyword("OFFSET")) {
      q.offsetClauseOffset = peek().offset;
      next();
      q.offset = integer();
    }
    if (isKeyword("FOR")) {
      next();
      if (!acceptKeyword("VIEW") && !acceptKeyword("REFERENCE")) expectKeyword("UPDATE");
    }
    if (!nested && peek().kind != Token::Kind::End) unexpected();
    return q;
  }

  const Token& peek(std::size_t ahead = 0) const {
    return tokens_[std::min(position_ + ahead, tokens_.size() - 1)];
  }

 private:
  const Token& next() {
    const Token& token = tokens_[position_];
    if (position_ + 1 < tokens_.size()) ++position_;
    return token;
  }

  bool isKeyword(std::string_view keyword, std::size_t ahead = 0) const {
    const Token& token = peek(ahead);
    return token.kind == Token::Kind::Identifier && upper(token.text) == keyword;
  }
  bool acceptKeyword(std::string_view keyword) {
    if (!isKeyword(keyword)) return false;
    next();
    return true;
  }
  void expectKeyword(std::string_view keyword) {
    if (!acceptKeyword(keyword)) unexpected();
  }
  bool isSymbol(std::string_view symbol) const {
    return peek().kind == Token::Kind::Symbol && peek().text == symbol;
  }
  bool acceptSymbol(std::string_view symbol) {
    if (!isSymbol(symbol)) return false;
    next();
    return true;
  }
  void expectSymbol(std::string_view symbol) {
    if (!acceptSymbol(symbol)) {
      if (symbol == ")") {
        throw SoqlError::at("MALFORMED_QUERY", text_, peek().offset,
                            "expecting a right parentheses, found '" + describe(peek()) + "'");
      }
      unexpected();
    }
  }
  const Token& expectIdentifier(std::string_view) {
    if (peek().kind != Token::Kind::Identifier) unexpected();
    return next();
  }

  static std::string describe(const Token& token) {
    if (token.kind == Token::Kind::End) return "<EOF>";
    if (token.kind == Token::Kind::String) return token.text;
    return token.text;
  }

  [[noreturn]] void unexpected() const {
    throw SoqlError::at("MALFORMED_QUERY", text_, peek().offset,
                        "unexpected token: '" + describe(peek()) + "'");
  }

  std::int64_t integer() {
    const Token& token = peek();
    if (token.kind != Token::Kind::Number ||
        !std::all_of(token.text.begin(), token.text.end(), isDigit) || token.text.size() > 12) {
      unexpected();
    }
    next();
    return std::stoll(token.text);
  }

  FieldPath path() {
    FieldPath p;
    p.offset = peek().offset;
    p.parts.push_back(expectIdentifier("field").text);
    while (isSymbol(".")) {
      next();
      p.parts.push_back(expectIdentifier("field").text);
    }
    return p;
  }

  static bool isAggregate(const std::string& name) {
    return name == "COUNT" || name == "COUNT_DISTINCT" || name == "MIN" || name == "MAX" ||
           name == "SUM" || name == "AVG";
  }

  SelectItem selectItem() {
    SelectItem item;
    item.offset = peek().offset;
    if (isSymbol("(")) {
      throw SoqlError::at("MALFORMED_QUERY", text_, peek().offset,
                          "Parent-to-child subqueries are not supported here.");
    }
    if (peek().kind == Token::Kind::Identifier && peek(1).kind == Token::Kind::Symbol &&
        peek(1).text == "(") {
      std::string function = upper(peek().text);
      if (upper(function) == "TYPEOF" || !isAggregate(function)) {
        throw SoqlError::at("MALFORMED_QUERY", text_, peek().offset,
                            "unexpected token: '" + peek().text + "'");
      }
      next();
      next();
      if (function == "COUNT" && acceptSymbol(")")) {
        item.kind = SelectItem::Kind::CountAll;
        item.function = function;
        return item;
      }
      item.kind = SelectItem::Kind::Aggregate;
      item.function = function;
      item.path = path();
      expectSymbol(")");
    } else {
      item.path = path();
    }
    // An alias is a bare identifier that is not the next clause's keyword.
    if (peek().kind == Token::Kind::Identifier && !isKeyword("FROM")) {
      if (item.kind != SelectItem::Kind::Aggregate) unexpected();
      item.alias = next().text;
    }
    return item;
  }

  std::unique_ptr<Condition> orCondition() {
    auto first = andCondition();
    if (!isKeyword("OR")) return first;
    auto node = std::make_unique<Condition>();
    node->kind = Condition::Kind::Or;
    node->offset = first->offset;
    node->children.push_back(std::move(first));
    while (acceptKeyword("OR")) node->children.push_back(andCondition());
    return node;
  }

  std::unique_ptr<Condition> andCondition() {
    auto first = notCondition();
    if (!isKeyword("AND")) return first;
    auto node = std::make_unique<Condition>();
    node->kind = Condition::Kind::And;
    node->offset = first->offset;
    node->children.push_back(std::move(first));
    while (acceptKeyword("AND")) node->children.push_back(notCondition());
    return node;
  }

  std::unique_ptr<Condition> notCondition() {
    if (isKeyword("NOT")) {
      auto node = std::make_unique<Condition>();
      node->kind = Condition::Kind::Not;
      node->offset = next().offset;
      node->children.push_back(notCondition());
      return node;
    }
    if (acceptSymbol("(")) {
      auto inner = orCondition();
      expectSymbol(")");
      return inner;
    }
    return comparison();
  }

  Literal literal() {
    const Token& token = peek();
    Literal value;
    value.offset = token.offset;
    switch (token.kind) {
      case Token::Kind::String:
        value.kind = Literal::Kind::String;
        value.text = token.text;
        break;
      case Token::Kind::Number:
        value.kind = Literal::Kind::Number;
        value.text = token.text;
        break;
      case Token::Kind::Date:
        value.kind = Literal::Kind::Date;
        value.text = token.text;
        break;
      case Token::Kind::DateTime:
        value.kind = Literal::Kind::DateTime;
        value.text = token.text;
        break;
      case Token::Kind::Identifier: {
        std::string word = upper(token.text);
        if (word == "NULL") {
          value.kind = Literal::Kind::Null;
        } else if (word == "TRUE" || word == "FALSE") {
          value.kind = Literal::Kind::Boolean;
          value.text = word == "TRUE" ? "true" : "false";
        } else if (word == "TODAY" || word == "YESTERDAY" || word == "TOMORROW" ||
                   word == "THIS_MONTH" || word == "LAST_MONTH" || word == "THIS_YEAR" ||
                   word == "THIS_WEEK" || word == "LAST_WEEK") {
          value.kind = Literal::Kind::Relative;
          value.text = word;
        } else if (word == "LAST_N_DAYS" || word == "NEXT_N_DAYS") {
          value.kind = Literal::Kind::Relative;
          value.text = word;
          next();
          expectSymbol(":");
          value.n = integer();
          return value;
        } else {
          unexpected();
        }
        break;
      }
      default:
        unexpected();
    }
    next();
    return value;
  }

  std::unique_ptr<Condition> comparison() {
    auto node = std::make_unique<Condition>();
    node->offset = peek().offset;
    node->field = path();
    if (isKeyword("NOT") && (isKeyword("IN", 1) || isKeyword("LIKE", 1))) {
      next();
      node->negated = true;
    }
    if (acceptKeyword("IN")) {
      expectSymbol("(");
      if (isKeyword("SELECT")) {
        node->kind = Condition::Kind::SemiJoin;
        node->subquery = std::make_unique<Query>(query(true));
        node->subquery->text = std::string(text_);
        expectSymbol(")");
        return node;
      }
      node->kind = Condition::Kind::In;
      do {
        node->values.push_back(literal());
      } while (acceptSymbol(","));
      expectSymbol(")");
      return node;
    }
    if (acceptKeyword("LIKE")) {
      node->kind = Condition::Kind::Like;
      node->values.push_back(literal());
      return node;
    }
    if (node->negated) unexpected();
    const Token& op = peek();
    if (op.kind != Token::Kind::Symbol ||
        (op.text != "=" && op.text != "!=" && op.text != "<>" && op.text != "<" &&
         op.text != "<=" && op.text != ">" && op.text != ">=")) {
      unexpected();
    }
    node->kind = Condition::Kind::Compare;
    node->op = op.text == "<>" ? "!=" : op.text;
    next();
    node->values.push_back(literal());
    return node;
  }

  std::string_view text_;
  std::vector<Token> tokens_;
  std::size_t position_ = 0;
};

}  // namespace

SoqlError SoqlError::at(std::string errorCode, std::string_view query, std::size_t offset,
                        const std::string& what) {
  // Salesforce counts rows and columns from 1 and shows the caret under the column.
  std::size_t row = 1, column = 1, lineStart = 0;
  for (std::size_t i = 0; i < offset && i < query.size(); ++i) {
    if (query[i] == '\n') {
      ++row;
      column = 1;
      lineStart = i + 1;
    } else {
      ++column;
    }
  }
  (void)lineStart;
  std::string message = "\n" + std::string(query) + "\n" + std::string(column - 1, ' ') +
                        "^\nERROR at Row:" + std::to_string(row) +
                        ":Column:" + std::to_string(column) + "\n" + what;
  return SoqlError(std::move(errorCode), std::move(message));
}

std::string FieldPath::text() const {
  std::string out;
  for (const auto& part : parts) {
    if (!out.empty()) out += '.';
    out += part;
  }
  return out;
}

bool Query::hasAggregates() const {
  return std::any_of(select.begin(), select.end(),
                     [](const SelectItem& item) { return item.kind != SelectItem::Kind::Field; });
}

namespace Soql {

Query parse(std::string_view text) {
  std::size_t end = text.size();
  while (end > 0 && std::isspace(static_cast<unsigned char>(text[end - 1]))) --end;
  Parser parser(text.substr(0, end));
  return parser.query(false);
}

}  // namespace Soql

}  // namespace corvane::orgsim

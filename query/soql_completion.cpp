#include "query/soql_completion.hpp"

#include <algorithm>

#include "platform/unicode.hpp"

namespace corvane {

std::string_view kindName(Completion::Kind kind) {
  switch (kind) {
    case Completion::Kind::object:
      return "object";
    case Completion::Kind::field:
      return "field";
    case Completion::Kind::relationship:
      return "relationship";
    case Completion::Kind::keyword:
      return "keyword";
    case Completion::Kind::function:
      return "function";
    case Completion::Kind::picklistValue:
      return "picklistValue";
  }
  return "keyword";
}

std::string Completion::id() const {
  std::string out(kindName(kind));
  out += ':';
  out += text;
  return out;
}

namespace SoqlCompletion {

namespace {

using Kind = Completion::Kind;

bool isASCII(std::string_view text) {
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

char lowerASCII(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i)
    if (lowerASCII(a[i]) != lowerASCII(b[i])) return false;
  return true;
}

// A lower-cased string with its characters, for ranking.
struct Folded {
  std::string text;
  bool ascii = true;
  std::vector<std::string_view> characters;  // only when not ASCII

  explicit Folded(std::string_view original) {
    ascii = isASCII(original);
    if (ascii) {
      text.resize(original.size());
      std::transform(original.begin(), original.end(), text.begin(), lowerASCII);
      return;
    }
    text = Unicode::lowercase(original);
    Unicode::CharacterCursor cursor(text);
    while (!cursor.atEnd()) characters.push_back(cursor.next());
  }
  std::size_t length() const { return ascii ? text.size() : characters.size(); }
  std::string_view at(std::size_t i) const {
    return ascii ? std::string_view(text).substr(i, 1) : characters[i];
  }
};

bool startsWith(const Folded& whole, const Folded& part) {
  if (whole.ascii && part.ascii) return whole.text.starts_with(part.text);
  if (part.length() > whole.length()) return false;
  for (std::size_t i = 0; i < part.length(); ++i)
    if (whole.at(i) != part.at(i)) return false;
  return true;
}

bool contains(const Folded& whole, const Folded& part) {
  if (whole.ascii && part.ascii) return whole.text.find(part.text) != std::string::npos;
  if (part.length() > whole.length()) return false;
  for (std::size_t start = 0; start + part.length() <= whole.length(); ++start) {
    std::size_t i = 0;
    while (i < part.length() && whole.at(start + i) == part.at(i)) ++i;
    if (i == part.length()) return true;
  }
  return false;
}

bool subsequence(const Folded& needle, const Folded& haystack) {
  std::size_t i = 0;
  for (std::size_t j = 0; j < haystack.length() && i < needle.length(); ++j)
    if (haystack.at(j) == needle.at(i)) ++i;
  return i == needle.length();
}

// The ranking score of an ASCII display against a lower-cased ASCII token,
// before the kind bonus; none when it does not match at all.
std::optional<long> asciiScore(std::string_view display, std::string_view token) {
  const long length = static_cast<long>(display.size());
  auto sameAt = [&](std::size_t start) {
    for (std::size_t i = 0; i < token.size(); ++i)
      if (lowerASCII(display[start + i]) != token[i]) return false;
    return true;
  };
  if (token.size() <= display.size()) {
    if (sameAt(0)) return token.size() == display.size() ? 1000 : 800 - length;
    for (std::size_t start = 1; start + token.size() <= display.size(); ++start)
      if (sameAt(start)) return 500 - length;
  }
  std::size_t i = 0;
  for (std::size_t j = 0; j < display.size() && i < token.size(); ++j)
    if (lowerASCII(display[j]) == token[i]) ++i;
  if (i == token.size()) return 250 - length;
  return std::nullopt;
}

// Characters at which a token ends, looking back from the cursor.
bool endsToken(const SoqlScan& scan, std::size_t i) {
  if (scan.isSpace(i)) return true;
  char c = scan.ascii(i);
  return c == ',' || c == '(' || c == ')';
}

Context contextAt(const SoqlScan& scan, std::size_t cursor) {
  auto keyword = scan.lastClauseKeyword(cursor, contextKeywords());
  if (!keyword) return Context::none();
  auto object = scan.identifier("FROM");
  if (*keyword == "SELECT") return Context::selectList(object);
  if (*keyword == "FROM") return Context::fromObject();
  if (*keyword == "WHERE" || *keyword == "HAVING") return Context::condition(object);
  if (*keyword == "ORDER BY" || *keyword == "GROUP BY") return Context::grouping(object);
  return Context::none();
}

Token tokenAt(const SoqlScan& scan, std::size_t cursor) {
  std::size_t start = cursor;
  while (start > 0 && !endsToken(scan, start - 1)) --start;
  return Token{scan.text(CharRange{start, cursor}), CharRange{start, cursor}};
}

// Letters, digits, "_" and what else may appear in an unquoted value:
// 2024-01-31, 3.5, LAST_N_DAYS:30, -2.
bool isValueCharacter(const SoqlScan& scan, std::size_t i) {
  if (scan.inLiteral(i)) return false;
  if (scan.isWordCharacter(i)) return true;
  char c = scan.ascii(i);
  return c == '.' || c == ':' || c == '-' || c == '+';
}

std::size_t skipSpacesBack(const SoqlScan& scan, std::size_t i) {
  while (i > 0 && scan.isSpace(i - 1)) --i;
  return i;
}

// The word (letters, digits, "_") that ends at `end`.
CharRange wordBefore(const SoqlScan& scan, std::size_t end) {
  std::size_t start = end;
  while (start > 0 && scan.isWordCharacter(start - 1) && !scan.inLiteral(start - 1)) --start;
  return {start, end};
}

std::string unescaped(std::string_view literalText) {
  std::string out;
  out.reserve(literalText.size());
  for (std::size_t i = 0; i < literalText.size(); ++i) {
    if (literalText[i] == '\\' && i + 1 < literalText.size()) ++i;
    out += literalText[i];
  }
  return out;
}

std::optional<ValuePosition> valueAt(const SoqlScan& scan, std::size_t cursor) {
  if (cursor == 0) return std::nullopt;
  ValuePosition position;
  std::size_t valueStart = cursor;
  if (scan.inLiteral(cursor - 1)) {
    auto literal = scan.literal(cursor - 1);
    if (!literal) return std::nullopt;
    // Just past a closing quote the value is finished.
    if (literal->closed && literal->range.end == cursor) return std::nullopt;
    valueStart = literal->range.start;
    position.range = {valueStart, literal->closed ? literal->range.end : cursor};
    position.typed = unescaped(scan.text(CharRange{valueStart + 1, cursor}));
    position.quoted = true;
  } else {
    while (valueStart > 0 && isValueCharacter(scan, valueStart - 1)) --valueStart;
    position.range = {valueStart, cursor};
    position.typed = scan.text(position.range);
  }

  std::size_t before = skipSpacesBack(scan, valueStart);
  if (before == 0 || scan.inLiteral(before - 1)) return std::nullopt;
  const char c = scan.ascii(before - 1);
  std::size_t fieldEnd = 0;
  auto isOperatorCharacter = [&](std::size_t i) {
    char o = scan.ascii(i);
    return !scan.inLiteral(i) && (o == '=' || o == '<' || o == '>' || o == '!');
  };
  if (c == '=' || c == '<' || c == '>') {
    std::size_t start = before - 1;
    while (start > 0 && isOperatorCharacter(start - 1)) --start;
    fieldEnd = start;
  } else if (c == '(' || c == ',') {
    std::size_t paren = before - 1;
    if (c == ',') {
      const int level = scan.depth(before - 1);
      bool found = false;
      while (paren > 0) {
        --paren;
        if (!scan.inLiteral(paren) && scan.ascii(paren) == '(' && scan.depth(paren) == level) {
          found = true;
          break;
        }
      }
      if (!found) return std::nullopt;
    }
    CharRange word = wordBefore(scan, skipSpacesBack(scan, paren));
    std::string name = scan.text(word);
    if (!equalsIgnoringCase(name, "IN") && !equalsIgnoringCase(name, "INCLUDES") &&
        !equalsIgnoringCase(name, "EXCLUDES"))
      return std::nullopt;
    fieldEnd = word.start;
    if (equalsIgnoringCase(name, "IN")) {
      CharRange negation = wordBefore(scan, skipSpacesBack(scan, word.start));
      if (equalsIgnoringCase(scan.text(negation), "NOT")) fieldEnd = negation.start;
    }
  } else {
    CharRange word = wordBefore(scan, before);
    if (!equalsIgnoringCase(scan.text(word), "LIKE")) return std::nullopt;
    fieldEnd = word.start;
  }

  std::size_t end = skipSpacesBack(scan, fieldEnd);
  std::size_t start = end;
  while (start > 0 && !scan.inLiteral(start - 1) &&
         (scan.isWordCharacter(start - 1) || scan.ascii(start - 1) == '.'))
    --start;
  if (start == end) return std::nullopt;
  position.field = scan.text(CharRange{start, end});
  for (std::string_view word : {"WHERE", "HAVING", "AND", "OR", "NOT"})
    if (equalsIgnoringCase(position.field, word)) return std::nullopt;
  return position;
}

const SObjectField* findField(const std::vector<SObjectField>& fields, std::string_view name) {
  for (const auto& field : fields)
    if (equalsIgnoringCase(field.name, name)) return &field;
  return nullptr;
}

const SObjectField* findRelationship(const std::vector<SObjectField>& fields,
                                     std::string_view name) {
  for (const auto& field : fields)
    if (!field.relationshipName.empty() && equalsIgnoringCase(field.relationshipName, name))
      return &field;
  return nullptr;
}

std::string joined(const std::vector<std::string>& names) {
  std::string out;
  for (const auto& name : names) {
    if (!out.empty()) out += ", ";
    out += name;
  }
  return out;
}

std::string fieldDetail(const SObjectField& field) {
  if (field.type == "reference" && !field.referenceTo.empty())
    return "reference to " + joined(field.referenceTo);
  if (field.type.empty()) return "field";
  if (field.length > 0 && field.type != "id" && field.type != "reference")
    return field.type + "(" + std::to_string(field.length) + ")";
  return field.type;
}

bool isDateType(std::string_view type) { return type == "date" || type == "datetime"; }

std::string quotedLiteral(std::string_view value) {
  std::string out = "'";
  for (char c : value) {
    if (c == '\'' || c == '\\') out += '\\';
    out += c;
  }
  out += '\'';
  return out;
}

// Each field, followed by its relationship when it is a lookup; names get prefix.
void addFields(std::vector<Completion>& out, const std::vector<SObjectField>& fields,
               const std::string& prefix) {
  for (const auto& field : fields) {
    out.push_back({prefix + field.name, prefix + field.name, fieldDetail(field), Kind::field});
    if (!field.relationshipName.empty() && !field.referenceTo.empty()) {
      std::string path = prefix + field.relationshipName + ".";
      out.push_back({path, path, "related " + joined(field.referenceTo), Kind::relationship});
    }
  }
}

void addVocabulary(std::vector<Completion>& out, const std::vector<std::string_view>& words,
                   std::string_view detail, Kind kind) {
  for (std::string_view word : words)
    out.push_back({std::string(word), std::string(word), std::string(detail), kind});
}

// "Account.Owner.Na" gives Account, Owner.
std::vector<std::string> pathOf(const std::string& token) {
  std::vector<std::string> path;
  std::size_t start = 0;
  for (std::size_t dot = token.find('.'); dot != std::string::npos; dot = token.find('.', start)) {
    path.push_back(token.substr(start, dot - start));
    start = dot + 1;
  }
  return path;
}

const std::vector<std::string_view>& aggregateFunctions() {
  static const std::vector<std::string_view> list(functions().begin(), functions().begin() + 6);
  return list;
}

}  // namespace

const std::vector<std::string_view>& clauseKeywords() {
  static const std::vector<std::string_view> list = {
      "SELECT", "FROM",  "WHERE",  "ORDER BY", "GROUP BY",
      "HAVING", "LIMIT", "OFFSET", "FOR VIEW", "FOR REFERENCE"};
  return list;
}

const std::vector<std::string_view>& operators() {
  static const std::vector<std::string_view> list = {"=",        "!=",   "<",  "<=",     ">",
                                                     ">=",       "LIKE", "IN", "NOT IN", "INCLUDES",
                                                     "EXCLUDES", "AND",  "OR", "NOT"};
  return list;
}

const std::vector<std::string_view>& functions() {
  static const std::vector<std::string_view> list = {"COUNT()",      "COUNT_DISTINCT()",
                                                     "SUM()",        "AVG()",
                                                     "MIN()",        "MAX()",
                                                     "TODAY",        "YESTERDAY",
                                                     "THIS_WEEK",    "THIS_MONTH",
                                                     "LAST_N_DAYS:", "LAST_MONTH",
                                                     "THIS_YEAR",    "NULL"};
  return list;
}

const std::vector<std::string_view>& contextKeywords() {
  static const std::vector<std::string_view> list = {"ORDER BY", "GROUP BY", "SELECT", "FROM",
                                                     "WHERE",    "HAVING",   "LIMIT",  "OFFSET"};
  return list;
}

const std::vector<std::string_view>& dateLiterals() {
  static const std::vector<std::string_view> list(functions().begin() + 6, functions().end() - 1);
  return list;
}

Context context(std::string_view text, std::size_t cursor) {
  SoqlScan scan(text);
  return contextAt(scan, std::min(cursor, scan.size()));
}

Token currentToken(std::string_view text, std::size_t cursor) {
  SoqlScan scan(text);
  return tokenAt(scan, std::min(cursor, scan.size()));
}

std::optional<ValuePosition> valuePosition(std::string_view text, std::size_t cursor) {
  SoqlScan scan(text);
  return valueAt(scan, std::min(cursor, scan.size()));
}

bool isSubsequence(std::string_view needle, std::string_view haystack) {
  if (isASCII(needle) && isASCII(haystack)) {
    std::size_t i = 0;
    for (std::size_t j = 0; j < haystack.size() && i < needle.size(); ++j)
      if (haystack[j] == needle[i]) ++i;
    return i == needle.size();
  }
  std::vector<std::string_view> wanted;
  Unicode::CharacterCursor cursor(needle);
  while (!cursor.atEnd()) wanted.push_back(cursor.next());
  std::size_t i = 0;
  Unicode::CharacterCursor within(haystack);
  while (!within.atEnd() && i < wanted.size())
    if (within.next() == wanted[i]) ++i;
  return i == wanted.size();
}

std::vector<Completion> rank(const std::vector<Completion>& candidates, std::string_view token,
                             std::size_t limit) {
  const Folded folded(token);
  struct Scored {
    long score;
    std::size_t index;
  };
  std::vector<Scored> scored;
  scored.reserve(candidates.size());
  for (std::size_t index = 0; index < candidates.size(); ++index) {
    const std::string& original = candidates[index].display;
    std::optional<long> score;
    if (folded.ascii && isASCII(original)) {
      score = asciiScore(original, folded.text);  // the common case, without allocating
    } else {
      const Folded display(original);
      const long length = static_cast<long>(display.length());
      if (display.text == folded.text) {
        score = 1000;
      } else if (startsWith(display, folded)) {
        score = 800 - length;
      } else if (contains(display, folded)) {
        score = 500 - length;
      } else if (subsequence(folded, display)) {
        score = 250 - length;
      }
    }
    if (!score) continue;
    Kind kind = candidates[index].kind;
    if (kind == Kind::object || kind == Kind::field) *score += 60;
    scored.push_back({*score, index});
  }
  std::stable_sort(scored.begin(), scored.end(),
                   [](const Scored& a, const Scored& b) { return a.score > b.score; });
  std::vector<Completion> out;
  out.reserve(std::min(limit, scored.size()));
  for (std::size_t k = 0; k < scored.size() && k < limit; ++k)
    out.push_back(candidates[scored[k].index]);
  return out;
}

std::vector<std::string> relationshipPath(std::string_view text, std::size_t cursor) {
  return pathOf(currentToken(text, cursor).text);
}

Suggestions complete(std::string_view text, std::size_t cursor,
                     const std::vector<SObjectSummary>& objects,
                     const std::vector<SObjectField>& fields, std::size_t limit,
                     const RelatedFields& relatedFields) {
  SoqlScan scan(text);
  cursor = std::min(cursor, scan.size());
  const Token token = tokenAt(scan, cursor);
  const Context where = contextAt(scan, cursor);
  std::vector<Completion> candidates;
  candidates.reserve(2 * fields.size() + objects.size() + 40);
  std::string rankToken = token.text;
  CharRange replace = token.range;

  switch (where.kind) {
    case Context::Kind::none:
      addVocabulary(candidates, clauseKeywords(), "clause", Kind::keyword);
      break;
    case Context::Kind::fromObject:
      for (const auto& object : objects) {
        if (!object.queryable) continue;
        candidates.push_back({object.name, object.name,
                              object.custom ? "custom object" : "standard object", Kind::object});
      }
      break;
    case Context::Kind::selectList:
    case Context::Kind::condition:
    case Context::Kind::grouping: {
      if (auto value = valueAt(scan, cursor)) {
        rankToken = value->typed;
        replace = value->range;
        const SObjectField* field = findField(fields, value->field);
        if (field) {
          for (const auto& option : field->picklistValues)
            candidates.push_back(
                {quotedLiteral(option), option, "picklist value", Kind::picklistValue});
        }
        if (!value->quoted) {
          if (!field || isDateType(field->type)) {
            for (std::string_view literal : dateLiterals())
              candidates.push_back(
                  {std::string(literal), std::string(literal), "date literal", Kind::function});
          }
          candidates.push_back({"NULL", "NULL", "function", Kind::function});
        }
        break;
      }
      const std::vector<std::string> path = pathOf(token.text);
      if (!path.empty() && relatedFields) {
        // "Owner.Na": the fields of the object at the end of the path.
        std::vector<SObjectField> current = fields;
        for (const auto& name : path) {
          const SObjectField* link = findRelationship(current, name);
          if (!link || link->referenceTo.empty()) {
            current.clear();
            break;
          }
          current = relatedFields(link->referenceTo.front());
        }
        if (!current.empty()) {
          addFields(candidates, current, token.text.substr(0, token.text.rfind('.') + 1));
          break;
        }
      }
      addFields(candidates, fields, "");
      if (where.kind == Context::Kind::selectList) {
        addVocabulary(candidates, aggregateFunctions(), "function", Kind::function);
      } else if (where.kind == Context::Kind::condition) {
        addVocabulary(candidates, operators(), "operator", Kind::keyword);
        if (scan.lastClauseKeyword(cursor, contextKeywords()) == "HAVING")
          addVocabulary(candidates, aggregateFunctions(), "function", Kind::function);
      }
      addVocabulary(candidates, clauseKeywords(), "clause", Kind::keyword);
      break;
    }
  }
  return Suggestions{rank(candidates, rankToken, limit), replace};
}

std::vector<Completion> suggestions(std::string_view text, std::size_t cursor,
                                    const std::vector<SObjectSummary>& objects,
                                    const std::vector<SObjectField>& fields, std::size_t limit) {
  return complete(text, cursor, objects, fields, limit).completions;
}

}  // namespace SoqlCompletion

}  // namespace corvane

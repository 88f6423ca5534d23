#include "tools/orgsim/query_engine.hpp"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <map>
#include <set>

#include "platform/text_escape.hpp"
#include "tools/orgsim/wire_values.hpp"

namespace corvane::orgsim {

namespace {

std::string upper(std::string_view text) {
  std::string out(text);
  for (auto& c : out) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return out;
}

bool same(std::string_view a, std::string_view b) { return upper(a) == upper(b); }

std::string sqlText(std::string_view text) {
  std::string out = "'";
  for (char c : text) {
    if (c == '\'') out += '\'';
    out += c;
  }
  return out + "'";
}

const std::string kCustomFieldHint =
    " If you are attempting to use a custom field, be sure to append the '__c' after the custom "
    "field name. Please reference your WSDL or the describe call for the appropriate names.";

bool isTextType(FieldType type) {
  switch (type) {
    case FieldType::String:
    case FieldType::TextArea:
    case FieldType::Email:
    case FieldType::Phone:
    case FieldType::Url:
    case FieldType::Picklist:
    case FieldType::MultiPicklist:
    case FieldType::Combobox:
    case FieldType::AnyType:
      return true;
    default:
      return false;
  }
}

// The synthetic "Type" field of a polymorphic relationship (What.Type).
const FieldDef& polymorphicTypeField() {
  static const FieldDef field = [] {
    FieldDef f;
    f.name = "Type";
    f.label = "Object Type";
    f.type = FieldType::Picklist;
    return f;
  }();
  return field;
}

// A field path resolved to SQL.
struct Resolved {
  std::string sql;
  const FieldDef* field = nullptr;
  const ObjectDef* owner = nullptr;           // the object holding the field (null: polymorphic)
  std::vector<std::string> relationshipPath;  // canonical
  std::string name;                           // canonical field name
  std::string baseAlias;  // alias of the table holding the field (for compounds, bodies)
};

struct Range {
  std::string low, high;  // [low, high)
};

}  // namespace

class QueryCompiler {
 public:
  QueryCompiler(CompiledQuery& out, QueryApi api, SystemTime now, int& aliasCounter,
                std::vector<std::string>& params)
      : out_(out), api_(api), now_(now), aliasCounter_(aliasCounter), params_(params) {}

  void compile(QueryScope scope, bool isSubquery) {
    const Query& q = out_.query_;
    text_ = q.text;
    const ObjectDef* object = Schema::object(q.from);
    if (object == nullptr || !object->queryable) {
      throw SoqlError::at("INVALID_TYPE", text_, q.fromOffset,
                          "sObject type '" + q.from +
                              "' is not supported. If you are attempting to use a custom object, "
                              "be sure to append the '__c' after the entity name. Please reference "
                              "your WSDL or the describe call for the appropriate names.");
    }
    out_.object_ = object;
    alias_ = "t" + std::to_string(aliasCounter_++);
    from_ = quoteIdentifier(object->name) + " AS " + alias_;

    if (isSubquery) {
      compileSubquerySelect();
    } else if (q.hasAggregates() || q.groupBy) {
      compileAggregateSelect();
    } else {
      compileSelect();
    }

    std::vector<std::string> conditions;
    if (q.where) conditions.push_back(condition(*q.where));
    if (scope == QueryScope::Live || isSubquery) {
      if (object->has("IsDeleted")) conditions.push_back(alias_ + ".\"IsDeleted\" = 'false'");
      if (object->archivable && scope == QueryScope::Live) {
        conditions.push_back(alias_ + ".\"IsArchived\" = 'false'");
      }
    }
    if (object->requiresIdFilter && !hasIdFilter(q.where.get())) {
      throw SoqlError("MALFORMED_QUERY",
                      "Implementation restriction: ContentDocumentLink requires a filter by a "
                      "single Id on ContentDocumentId or LinkedEntityId using the equals operator "
                      "or multiple Id's using the IN operator.");
    }
    std::string where;
    for (const auto& c : conditions) {
      if (!where.empty()) where += " AND ";
      where += "(" + c + ")";
    }
    out_.where_ = where.empty() ? "1" : where;

    if (!q.orderBy.empty()) {
      std::string order;
      for (const auto& item : q.orderBy) {
        Resolved r = resolve(item.path);
        if (!r.field->sortable) {
          throw SoqlError::at("INVALID_FIELD", text_, item.path.offset,
                              "field '" + r.name + "' can not be sorted in a query call");
        }
        std::string expr = isNumeric(r.field->type)    ? "CAST(" + r.sql + " AS REAL)"
                           : isTextType(r.field->type) ? r.sql + " COLLATE NOCASE"
                                                       : r.sql;
        if (!order.empty()) order += ", ";
        bool nullsFirst = item.nullsFirst.value_or(!item.descending);
        order += "(" + r.sql + " IS NULL) " + (nullsFirst ? "DESC" : "ASC") + ", ";
        order += expr + (item.descending ? " DESC" : " ASC");
      }
      out_.orderBy_ = "ORDER BY " + order + (out_.aggregate_ ? "" : ", " + alias_ + ".rowid");
    }
    if (q.offset && *q.offset > 2000) {
      throw SoqlError::at("NUMBER_OUTSIDE_VALID_RANGE", text_, q.offsetClauseOffset,
                          "Maximum SOQL offset allowed is 2000");
    }
    if (q.limit || q.offset) {
      out_.limit_ = "LIMIT " + std::to_string(q.limit.value_or(-1));
      if (q.offset) out_.limit_ += " OFFSET " + std::to_string(*q.offset);
    }
    out_.from_ = from_;
  }

  static std::shared_ptr<const CompiledQuery> build(std::string_view soql, QueryScope scope,
                                                    QueryApi api, SystemTime now) {
    auto compiled = std::make_shared<CompiledQuery>();
    compiled->query_ = Soql::parse(soql);
    int aliases = 0;
    QueryCompiler compiler(*compiled, api, now, aliases, compiled->params_);
    compiler.compile(scope, false);
    return compiled;
  }

 private:
  // ----- names

  [[noreturn]] void noSuchColumn(const ObjectDef& object, const std::string& name,
                                 std::size_t offset) const {
    throw SoqlError::at(
        "INVALID_FIELD", text_, offset,
        "No such column '" + name + "' on entity '" + object.name + "'." + kCustomFieldHint);
  }

  [[noreturn]] void noSuchRelationship(const std::string& name, std::size_t offset) const {
    throw SoqlError::at(
        "INVALID_FIELD", text_, offset,
        "Didn't understand relationship '" + name +
            "' in field path. If you are attempting to use a custom relationship, be sure to "
            "append the '__r' after the custom relationship name. Please reference your WSDL or "
            "the describe call for the appropriate names.");
  }

  Resolved resolve(const FieldPath& path) {
    std::vector<std::string> parts = path.parts;
    const ObjectDef* object = out_.object_;
    // "SELECT Account.Name FROM Account": the object's own name may lead the path.
    if (parts.size() > 1 && same(parts[0], object->name) &&
        object->relationship(parts[0]) == nullptr) {
      parts.erase(parts.begin());
    }
    Resolved r;
    std::string alias = alias_;
    std::string joinKey;
    for (std::size_t i = 0; i + 1 < parts.size(); ++i) {
      const FieldDef* link = object->relationship(parts[i]);
      if (link == nullptr) noSuchRelationship(parts[i], path.offset);
      r.relationshipPath.push_back(link->relationshipName);
      std::string refSql = alias + "." + quoteIdentifier(link->name);
      if (link->referenceTo.size() > 1) {
        // A polymorphic relationship: one more step, answered per target by its key prefix.
        if (i + 2 != parts.size()) noSuchRelationship(parts[i + 1], path.offset);
        return polymorphic(*link, refSql, parts.back(), r.relationshipPath, path.offset);
      }
      const ObjectDef* target = Schema::object(link->referenceTo.front());
      joinKey += "." + link->relationshipName;
      auto found = joins_.find(joinKey);
      std::string joinAlias;
      if (found == joins_.end()) {
        joinAlias = "j" + std::to_string(aliasCounter_++);
        from_ += " LEFT JOIN " + quoteIdentifier(target->name) + " AS " + joinAlias + " ON " +
                 joinAlias + ".\"Id\" = " + refSql;
        joins_[joinKey] = joinAlias;
        relationshipIds_[joinKey] = {r.relationshipPath, joinAlias + ".\"Id\"", target->name};
      } else {
        joinAlias = found->second;
      }
      alias = joinAlias;
      object = target;
    }
    const FieldDef* field = object->field(parts.back());
    if (field == nullptr) {
      if (!r.relationshipPath.empty() && object->relationship(parts.back()) != nullptr) {
        noSuchColumn(*object, parts.back(), path.offset);
      }
      noSuchColumn(*object, parts.back(), path.offset);
    }
    r.field = field;
    r.owner = object;
    r.name = field->name;
    r.baseAlias = alias;
    r.sql = field->stored() ? alias + "." + quoteIdentifier(field->name) : std::string();
    return r;
  }

  Resolved polymorphic(const FieldDef& link, const std::string& refSql, const std::string& name,
                       const std::vector<std::string>& relationshipPath, std::size_t offset) {
    Resolved r;
    r.relationshipPath = relationshipPath;
    std::string key;
    for (const auto& part : relationshipPath) key += "." + part;
    relationshipIds_.try_emplace(key, RelationshipInfo{relationshipPath, refSql, ""});
    if (same(name, "Type")) {
      r.field = &polymorphicTypeField();
      r.name = "Type";
      std::string sql = "CASE substr(" + refSql + ", 1, 3)";
      for (const auto& target : link.referenceTo) {
        const ObjectDef* o = Schema::object(target);
        sql += " WHEN " + sqlText(o->keyPrefix) + " THEN " + sqlText(o->name);
      }
      r.sql = sql + " END";
      return r;
    }
    if (same(name, "Id")) {
      r.field = Schema::object(link.referenceTo.front())->field("Id");
      r.name = "Id";
      r.sql = refSql;
      return r;
    }
    std::string sql = "CASE substr(" + refSql + ", 1, 3)";
    for (const auto& target : link.referenceTo) {
      const ObjectDef* o = Schema::object(target);
      const FieldDef* f = o->field(name);
      if (f == nullptr || !f->stored()) continue;
      if (r.field == nullptr) {
        r.field = f;
        r.name = f->name;
      }
      sql += " WHEN " + sqlText(o->keyPrefix) + " THEN (SELECT " + quoteIdentifier(f->name) +
             " FROM " + quoteIdentifier(o->name) + " WHERE \"Id\" = " + refSql + ")";
    }
    if (r.field == nullptr) {
      throw SoqlError::at("INVALID_FIELD", text_, offset,
                          "No such column '" + name + "' on entity 'Name'." + kCustomFieldHint);
    }
    r.sql = sql + " END";
    return r;
  }

  // ----- select lists

  int addSelect(const std::string& expr) {
    selects_.push_back(expr);
    return static_cast<int>(selects_.size()) - 1;
  }

  void compileSelect() {
    const Query& q = out_.query_;
    out_.idColumn_ = addSelect(alias_ + ".\"Id\"");
    std::set<std::string> seen;
    for (const auto& item : q.select) {
      Resolved r = resolve(item.path);
      OutputColumn column;
      column.relationshipPath = r.relationshipPath;
      column.name = r.name;
      for (const auto& part : r.relationshipPath) column.header += part + ".";
      column.header += r.name;
      column.field = r.field;
      if (!seen.insert(upper(column.header)).second) {
        throw SoqlError::at("MALFORMED_QUERY", text_, item.offset,
                            "duplicate field selected: " + column.header);
      }
      if (r.field->type == FieldType::Base64) {
        column.kind = OutputColumn::Kind::BodyUrl;
        column.bodyObject = r.owner != nullptr ? r.owner->name : "";
        column.sqlColumn = addSelect(
            "CASE WHEN EXISTS (SELECT 1 FROM _bodies WHERE object = " + sqlText(column.bodyObject) +
            " AND id = " + r.baseAlias + ".\"Id\") THEN " + r.baseAlias + ".\"Id\" END");
      } else if (isCompound(r.field->type)) {
        column.kind = OutputColumn::Kind::Compound;
        for (const FieldDef* component : r.owner->components(r.field->name)) {
          column.components.emplace_back(
              component->compoundKey,
              addSelect(r.baseAlias + "." + quoteIdentifier(component->name)));
        }
        std::sort(column.components.begin(), column.components.end());
      } else {
        column.sqlColumn = addSelect(r.sql);
      }
      out_.columns_.push_back(std::move(column));
    }
    buildRelationships();
    out_.selectList_ = joinSelects();
  }

  void compileAggregateSelect() {
    const Query& q = out_.query_;
    out_.aggregate_ = true;
    if (q.isCountAll()) {
      if (q.groupBy) {
        throw SoqlError::at("MALFORMED_QUERY", text_, q.groupBy->offset,
                            "COUNT() and GROUP BY cannot be used together.");
      }
      out_.selectList_ = "COUNT(*)";
      return;
    }
    std::optional<Resolved> group;
    if (q.groupBy) {
      group = resolve(*q.groupBy);
      if (!group->field->groupable) {
        throw SoqlError::at("MALFORMED_QUERY", text_, q.groupBy->offset,
                            "field '" + group->name + "' can not be grouped in a query call");
      }
      out_.groupBy_ = "GROUP BY " + group->sql;
    }
    int expression = 0;
    for (const auto& item : q.select) {
      OutputColumn column;
      column.kind = OutputColumn::Kind::Aggregate;
      if (item.kind == SelectItem::Kind::CountAll) {
        throw SoqlError::at("MALFORMED_QUERY", text_, item.offset,
                            "COUNT() cannot be used with other fields.");
      }
      if (item.kind == SelectItem::Kind::Field) {
        Resolved r = resolve(item.path);
        if (!group || !same(r.sql, group->sql)) {
          throw SoqlError::at("MALFORMED_QUERY", text_, item.offset,
                              "Field must be grouped or aggregated: " + r.name);
        }
        column.kind = OutputColumn::Kind::Value;
        column.field = r.field;
        column.header = r.name;
        column.name = r.name;
        column.sqlColumn = addSelect(r.sql);
        out_.columns_.push_back(std::move(column));
        continue;
      }
      if (same(out_.object_->name, "SetupAuditTrail")) {
        throw SoqlError::at("MALFORMED_QUERY", text_, item.offset,
                            "SetupAuditTrail does not support aggregate functions other than "
                            "COUNT().");
      }
      Resolved r = resolve(item.path);
      column.function = item.function;
      column.field = r.field;
      column.header = item.alias.empty() ? "expr" + std::to_string(expression++) : item.alias;
      column.name = column.header;
      std::string value = isNumeric(r.field->type) ? "CAST(" + r.sql + " AS REAL)" : r.sql;
      std::string expr;
      if (item.function == "COUNT") {
        expr = "COUNT(" + r.sql + ")";
      } else if (item.function == "COUNT_DISTINCT") {
        expr = "COUNT(DISTINCT " + r.sql + ")";
      } else if (item.function == "SUM" || item.function == "AVG") {
        if (!isNumeric(r.field->type)) {
          throw SoqlError::at(
              "MALFORMED_QUERY", text_, item.offset,
              "field " + r.name + " does not support aggregate operator " + item.function);
        }
        expr = item.function + "(" + value + ")";
      } else {
        expr = item.function + "(" + value + ")";
      }
      column.sqlColumn = addSelect(expr);
      out_.columns_.push_back(std::move(column));
    }
    out_.selectList_ = joinSelects();
  }

  void compileSubquerySelect() {
    const Query& q = out_.query_;
    if (q.select.size() != 1 || q.select[0].kind != SelectItem::Kind::Field) {
      throw SoqlError::at("MALFORMED_QUERY", text_, q.select.front().offset,
                          "semi join sub-selects can only select one field");
    }
    Resolved r = resolve(q.select[0].path);
    if (r.field->type != FieldType::Id && r.field->type != FieldType::Reference) {
      throw SoqlError::at(
          "MALFORMED_QUERY", text_, q.select[0].offset,
          "semi join sub-selects can only query id fields, cannot use: '" + r.name + "'");
    }
    out_.selectList_ = r.sql;
  }

  std::string joinSelects() const {
    std::string out;
    for (const auto& s : selects_) {
      if (!out.empty()) out += ", ";
      out += s;
    }
    return out;
  }

  void buildRelationships() {
    // Relationship ids go into the select list; render nodes follow the columns' order.
    std::map<std::string, int> relationshipIndex;
    for (auto& [key, info] : relationshipIds_) {
      OutputRelationship relationship;
      relationship.path = info.path;
      relationship.idSqlColumn = addSelect(info.idSql);
      relationship.type = info.type;
      relationshipIndex[key] = static_cast<int>(out_.relationships_.size());
      out_.relationships_.push_back(std::move(relationship));
    }
    out_.nodes_.clear();
    out_.nodes_.push_back({});
    std::map<std::string, int> nodeOf;
    for (std::size_t c = 0; c < out_.columns_.size(); ++c) {
      int node = 0;
      std::string key;
      for (const auto& part : out_.columns_[c].relationshipPath) {
        key += "." + part;
        auto found = nodeOf.find(key);
        if (found == nodeOf.end()) {
          CompiledQuery::RenderNode child;
          child.name = part;
          child.relationship = relationshipIndex.at(key);
          out_.nodes_.push_back(std::move(child));
          int index = static_cast<int>(out_.nodes_.size()) - 1;
          out_.nodes_[static_cast<std::size_t>(node)].entries.push_back({false, index});
          found = nodeOf.emplace(key, index).first;
        }
        node = found->second;
      }
      out_.nodes_[static_cast<std::size_t>(node)].entries.push_back({true, static_cast<int>(c)});
    }
  }

  // ----- conditions

  bool hasIdFilter(const Condition* c) const {
    if (c == nullptr) return false;
    if (c->kind == Condition::Kind::And) {
      return std::any_of(c->children.begin(), c->children.end(),
                         [&](const auto& child) { return hasIdFilter(child.get()); });
    }
    bool idField = c->field.parts.size() == 1 &&
                   (same(c->field.parts[0], "ContentDocumentId") ||
                    same(c->field.parts[0], "LinkedEntityId") || same(c->field.parts[0], "Id"));
    if (!idField || c->negated) return false;
    return (c->kind == Condition::Kind::Compare && c->op == "=" &&
            c->values.front().kind != Literal::Kind::Null) ||
           c->kind == Condition::Kind::In || c->kind == Condition::Kind::SemiJoin;
  }

  std::string param(std::string value) {
    params_.push_back(std::move(value));
    return "?";
  }

  [[noreturn]] void wrongType(const Resolved& r, const Literal& value, const char* type) const {
    bool quoted = value.kind == Literal::Kind::String;
    throw SoqlError::at("INVALID_FIELD", text_, value.offset,
                        "value of filter criterion for field '" + r.name + "' must be of type " +
                            type + (quoted ? " and should not be enclosed in quotes" : ""));
  }

  Range relativeRange(const Literal& value, bool dateOnly) const {
    using namespace std::chrono;
    auto today = floor<days>(now_);
    sys_days low, high;
    year_month_day ymd{today};
    const std::string& name = value.text;
    if (name == "TODAY") {
      low = today, high = today + days(1);
    } else if (name == "YESTERDAY") {
      low = today - days(1), high = today;
    } else if (name == "TOMORROW") {
      low = today + days(1), high = today + days(2);
    } else if (name == "LAST_N_DAYS") {
      low = today - days(value.n), high = today + days(1);
    } else if (name == "NEXT_N_DAYS") {
      low = today + days(1), high = today + days(1 + value.n);
    } else if (name == "THIS_MONTH") {
      low = sys_days(ymd.year() / ymd.month() / 1);
      high = sys_days((ymd.year() / ymd.month() / 1) + months(1));
    } else if (name == "LAST_MONTH") {
      high = sys_days(ymd.year() / ymd.month() / 1);
      low = sys_days((ymd.year() / ymd.month() / 1) - months(1));
    } else if (name == "THIS_YEAR") {
      low = sys_days(ymd.year() / 1 / 1);
      high = sys_days((ymd.year() + years(1)) / 1 / 1);
    } else {  // THIS_WEEK, LAST_WEEK: weeks start on Sunday
      weekday wd{today};
      low = today - days(wd.c_encoding());
      if (name == "LAST_WEEK") low -= days(7);
      high = low + days(7);
    }
    auto text = [&](sys_days d) {
      SystemTime t{duration_cast<SystemTime::duration>(d.time_since_epoch())};
      return dateOnly ? WireTime::date(t) : WireTime::dateTime(t);
    };
    return {text(low), text(high)};
  }

  // The SQL for `expr op literal`, or for a relative range.
  std::string compare(const Resolved& r, const std::string& op, const Literal& value) {
    const FieldDef& field = *r.field;
    const std::string& expr = r.sql;
    if (value.kind == Literal::Kind::Null) {
      if (op == "=") return expr + " IS NULL";
      if (op == "!=") return expr + " IS NOT NULL";
      throw SoqlError::at("MALFORMED_QUERY", text_, value.offset,
                          "invalid operator on null: " + op);
    }
    std::string rhs;
    std::string lhs = expr;
    std::string collate;
    switch (field.type) {
      case FieldType::Boolean:
        if (value.kind != Literal::Kind::Boolean) wrongType(r, value, "boolean");
        rhs = sqlText(value.text);
        break;
      case FieldType::Int:
      case FieldType::Double:
      case FieldType::Currency:
      case FieldType::Percent: {
        auto number = value.kind == Literal::Kind::Number ? WireValues::plainNumber(value.text)
                                                          : std::nullopt;
        if (!number) wrongType(r, value, "double");
        lhs = "CAST(" + expr + " AS REAL)";
        rhs = *number;
        break;
      }
      case FieldType::Date:
      case FieldType::DateTime: {
        bool dateOnly = field.type == FieldType::Date;
        if (value.kind == Literal::Kind::Relative) {
          // Placeholders are bound in the order they are made: make each where it is used.
          Range range = relativeRange(value, dateOnly);
          if (op == "=") {
            std::string low = param(range.low);
            return expr + " >= " + low + " AND " + expr + " < " + param(range.high);
          }
          if (op == "!=") {
            std::string low = param(range.low);
            return expr + " IS NULL OR " + expr + " < " + low + " OR " + expr +
                   " >= " + param(range.high);
          }
          if (op == "<") return expr + " < " + param(range.low);
          if (op == "<=") return expr + " < " + param(range.high);
          if (op == ">") return expr + " >= " + param(range.high);
          return expr + " >= " + param(range.low);
        }
        if (dateOnly) {
          if (value.kind != Literal::Kind::Date || !WireTime::parseDate(value.text)) {
            wrongType(r, value, "date");
          }
          rhs = param(value.text);
        } else {
          auto time = value.kind == Literal::Kind::DateTime ? WireTime::parseDateTime(value.text)
                                                            : std::nullopt;
          if (!time) wrongType(r, value, "dateTime");
          rhs = param(WireTime::dateTime(*time));
        }
        break;
      }
      case FieldType::Id:
      case FieldType::Reference: {
        if (value.kind != Literal::Kind::String) wrongType(r, value, "id");
        auto id = RecordIds::normalize(value.text);
        if (!id) {
          throw SoqlError::at("INVALID_QUERY_FILTER_OPERATOR", text_, value.offset,
                              "invalid ID field: " + value.text);
        }
        rhs = param(*id);
        break;
      }
      default:
        if (!field.filterable) {
          throw SoqlError::at("INVALID_FIELD", text_, value.offset,
                              "field '" + r.name + "' can not be filtered in a query call");
        }
        if (value.kind != Literal::Kind::String) wrongType(r, value, "string");
        rhs = param(value.text);
        collate = " COLLATE NOCASE";
        break;
    }
    if (op == "!=") return expr + " IS NULL OR " + lhs + " <> " + rhs + collate;
    return lhs + " " + op + " " + rhs + collate;
  }

  std::string condition(const Condition& c) {
    switch (c.kind) {
      case Condition::Kind::And:
      case Condition::Kind::Or: {
        std::string out;
        for (const auto& child : c.children) {
          if (!out.empty()) out += c.kind == Condition::Kind::And ? " AND " : " OR ";
          out += "(" + condition(*child) + ")";
        }
        return out;
      }
      case Condition::Kind::Not:
        return "NOT (" + condition(*c.children.front()) + ")";
      case Condition::Kind::Compare: {
        Resolved r = resolveFilterable(c.field);
        return compare(r, c.op, c.values.front());
      }
      case Condition::Kind::Like: {
        Resolved r = resolveFilterable(c.field);
        const Literal& value = c.values.front();
        if (!isTextType(r.field->type) && r.field->type != FieldType::Id &&
            r.field->type != FieldType::Reference) {
          throw SoqlError::at("INVALID_FIELD", text_, c.offset,
                              "invalid operator on field '" + r.name + "'");
        }
        if (value.kind != Literal::Kind::String) wrongType(r, value, "string");
        std::string like = r.sql + " LIKE " + param(value.text) + " ESCAPE '\\'";
        return c.negated ? "NOT (" + like + ")" : like;
      }
      case Condition::Kind::In: {
        Resolved r = resolveFilterable(c.field);
        std::string list;
        bool hasNull = false;
        for (const auto& value : c.values) {
          if (value.kind == Literal::Kind::Null) {
            hasNull = true;
            continue;
          }
          // Each member is checked and bound as an equality would be.
          std::size_t before = params_.size();
          std::string single = compare(r, "=", value);
          std::string rhs = params_.size() > before ? "?" : single.substr(single.rfind(' ') + 1);
          if (!list.empty()) list += ", ";
          list += rhs;
        }
        std::string lhs = isNumeric(r.field->type) ? "CAST(" + r.sql + " AS REAL)" : r.sql;
        std::string collate = isTextType(r.field->type) ? " COLLATE NOCASE" : "";
        std::string in = list.empty() ? "0" : lhs + collate + " IN (" + list + ")";
        if (!c.negated) return hasNull ? "(" + in + ") OR " + r.sql + " IS NULL" : in;
        std::string notIn = list.empty() ? "1" : lhs + collate + " NOT IN (" + list + ")";
        return hasNull ? r.sql + " IS NOT NULL AND " + notIn : r.sql + " IS NULL OR " + notIn;
      }
      case Condition::Kind::SemiJoin: {
        Resolved r = resolveFilterable(c.field);
        if (r.field->type != FieldType::Id && r.field->type != FieldType::Reference) {
          throw SoqlError::at("MALFORMED_QUERY", text_, c.offset,
                              "semi join sub-selects are only allowed on id fields");
        }
        CompiledQuery sub;
        sub.query_ = std::move(*const_cast<Condition&>(c).subquery);
        QueryCompiler compiler(sub, api_, now_, aliasCounter_, params_);
        compiler.compile(QueryScope::Live, true);
        const_cast<Condition&>(c).subquery = std::make_unique<Query>(std::move(sub.query_));
        std::string select =
            "SELECT " + sub.selectList_ + " FROM " + sub.from_ + " WHERE " + sub.where_;
        std::string in = r.sql + (c.negated ? " NOT IN (" : " IN (") + select + ")";
        return c.negated ? r.sql + " IS NULL OR " + in : in;
      }
    }
    return "1";
  }

  Resolved resolveFilterable(const FieldPath& path) {
    Resolved r = resolve(path);
    if (!r.field->filterable || r.sql.empty()) {
      throw SoqlError::at("INVALID_FIELD", text_, path.offset,
                          "field '" + r.name + "' can not be filtered in a query call");
    }
    return r;
  }

  struct RelationshipInfo {
    std::vector<std::string> path;
    std::string idSql;
    std::string type;
  };

  CompiledQuery& out_;
  QueryApi api_;
  SystemTime now_;
  int& aliasCounter_;
  std::vector<std::string>& params_;
  std::string text_;
  std::string alias_;
  std::string from_;
  std::map<std::string, std::string> joins_;
  std::map<std::string, RelationshipInfo> relationshipIds_;
  std::vector<std::string> selects_;
};

// ---------------------------------------------------------------------------
// Execution

void CompiledQuery::bindParams(Statement& statement, int first) const {
  for (std::size_t i = 0; i < params_.size(); ++i) {
    statement.bind(first + static_cast<int>(i), params_[i]);
  }
}

void CompiledQuery::scan(Database& db, const std::function<bool(Statement& row)>& sink) const {
  auto statement = db.prepare("SELECT " + selectList_ + " FROM " + from_ + " WHERE " + where_ +
                              " " + groupBy_ + " " + orderBy_ + " " + limit_);
  bindParams(statement);
  while (statement.step()) {
    if (!sink(statement)) break;
  }
}

std::int64_t CompiledQuery::count(Database& db) const {
  std::string inner = "SELECT 1 FROM " + from_ + " WHERE " + where_ + " " + limit_;
  auto statement = db.prepare("SELECT COUNT(*) FROM (" + inner + ")");
  bindParams(statement);
  return statement.step() ? statement.integer(0) : 0;
}

std::int64_t CompiledQuery::scanAfter(Database& db, std::int64_t afterRowId, std::int64_t maxRows,
                                      const std::function<void(Statement& row)>& sink) const {
  std::string alias = from_.substr(from_.find(" AS ") + 4);
  alias = alias.substr(0, alias.find(' '));
  auto statement =
      db.prepare("SELECT " + selectList_ + ", " + alias + ".rowid FROM " + from_ + " WHERE " +
                 where_ + " AND " + alias + ".rowid > ? ORDER BY " + alias + ".rowid LIMIT ?");
  bindParams(statement);
  int next = static_cast<int>(params_.size()) + 1;
  statement.bind(next, afterRowId).bind(next + 1, maxRows);
  std::int64_t last = afterRowId;
  int rowidColumn = statement.columns() - 1;
  while (statement.step()) {
    sink(statement);
    last = statement.integer(rowidColumn);
  }
  return last;
}

std::vector<std::int64_t> CompiledQuery::rowIds(Database& db) const {
  std::string alias = from_.substr(from_.find(" AS ") + 4);
  alias = alias.substr(0, alias.find(' '));
  auto statement = db.prepare("SELECT " + alias + ".rowid FROM " + from_ + " WHERE " + where_ +
                              " " + orderBy_ + " " + limit_);
  bindParams(statement);
  std::vector<std::int64_t> out;
  while (statement.step()) out.push_back(statement.integer(0));
  return out;
}

void CompiledQuery::fetch(Database& db, const std::vector<std::int64_t>& rowIds, std::size_t from,
                          std::size_t count,
                          const std::function<void(Statement& row)>& sink) const {
  std::string alias = from_.substr(from_.find(" AS ") + 4);
  alias = alias.substr(0, alias.find(' '));
  auto statement =
      db.prepare("SELECT " + selectList_ + " FROM " + from_ + " WHERE " + alias + ".rowid = ?");
  for (std::size_t i = from; i < rowIds.size() && i < from + count; ++i) {
    statement.reset();
    statement.bind(1, rowIds[i]);
    if (statement.step()) sink(statement);
  }
}

namespace QueryEngine {

void appendJsonString(std::string& out, std::string_view text) {
  TextEscape::appendJSONString(out, text);
}

}  // namespace QueryEngine

namespace {

void appendJsonValue(std::string& out, const FieldDef* field, const Statement& row, int column) {
  if (row.isNull(column)) {
    out += "null";
    return;
  }
  std::string_view text = row.text(column);
  FieldType type = field != nullptr ? field->type : FieldType::String;
  switch (type) {
    case FieldType::Boolean:
      out += text == "true" ? "true" : "false";
      return;
    case FieldType::Int:
    case FieldType::Double:
    case FieldType::Currency:
    case FieldType::Percent:
      out += text;
      return;
    case FieldType::DateTime:
      QueryEngine::appendJsonString(out, WireTime::storedToRest(text));
      return;
    default:
      QueryEngine::appendJsonString(out, text);
  }
}

}  // namespace

void CompiledQuery::appendJson(std::string& out, const Statement& row,
                               const std::string& apiVersion) const {
  appendJsonNode(out, row, apiVersion, 0, object_->name, row.text(idColumn_));
}

void CompiledQuery::appendJsonNode(std::string& out, const Statement& row,
                                   const std::string& apiVersion, int nodeIndex,
                                   const std::string& type, std::string_view id) const {
  const RenderNode& node = nodes_[static_cast<std::size_t>(nodeIndex)];
  out += "{\"attributes\":{\"type\":";
  QueryEngine::appendJsonString(out, type);
  if (!id.empty()) {
    out += ",\"url\":";
    QueryEngine::appendJsonString(
        out, "/services/data/v" + apiVersion + "/sobjects/" + type + "/" + std::string(id));
  }
  out += '}';
  for (const auto& entry : node.entries) {
    out += ',';
    if (!entry.isColumn) {
      const RenderNode& child = nodes_[static_cast<std::size_t>(entry.index)];
      const OutputRelationship& relationship =
          relationships_[static_cast<std::size_t>(child.relationship)];
      QueryEngine::appendJsonString(out, child.name);
      out += ':';
      if (row.isNull(relationship.idSqlColumn)) {
        out += "null";
        continue;
      }
      std::string childId(row.text(relationship.idSqlColumn));
      std::string childType = relationship.type;
      if (childType.empty()) {
        const ObjectDef* o = Schema::objectForId(childId);
        childType = o != nullptr ? o->name : "Name";
      }
      appendJsonNode(out, row, apiVersion, entry.index, childType, childId);
      continue;
    }
    const OutputColumn& column = columns_[static_cast<std::size_t>(entry.index)];
    QueryEngine::appendJsonString(out, column.name);
    out += ':';
    switch (column.kind) {
      case OutputColumn::Kind::BodyUrl:
        if (row.isNull(column.sqlColumn)) {
          out += "null";
        } else {
          QueryEngine::appendJsonString(
              out, "/services/data/v" + apiVersion + "/sobjects/" + column.bodyObject + "/" +
                       std::string(row.text(column.sqlColumn)) + "/" + column.field->name);
        }
        break;
      case OutputColumn::Kind::Compound: {
        bool any = std::any_of(column.components.begin(), column.components.end(),
                               [&](const auto& c) { return !row.isNull(c.second); });
        if (!any) {
          out += "null";
          break;
        }
        out += '{';
        bool first = true;
        for (const auto& [key, sqlColumn] : column.components) {
          if (!first) out += ',';
          first = false;
          QueryEngine::appendJsonString(out, key);
          out += ':';
          bool numeric = key == "latitude" || key == "longitude";
          if (row.isNull(sqlColumn)) {
            out += "null";
          } else if (numeric) {
            out += row.text(sqlColumn);
          } else {
            QueryEngine::appendJsonString(out, row.text(sqlColumn));
          }
        }
        out += '}';
        break;
      }
      default:
        appendJsonValue(out, column.field, row, column.sqlColumn);
    }
  }
  out += '}';
}

void CompiledQuery::appendCsvHeader(std::string& out) const {
  bool first = true;
  for (const auto& column : columns_) {
    if (!first) out += ',';
    first = false;
    out += '"';
    out += column.header;
    out += '"';
  }
  out += '\n';
}

void CompiledQuery::appendCsv(std::string& out, const Statement& row) const {
  bool first = true;
  for (const auto& column : columns_) {
    if (!first) out += ',';
    first = false;
    out += '"';
    if (column.sqlColumn >= 0 && !row.isNull(column.sqlColumn)) {
      for (char c : row.text(column.sqlColumn)) {
        if (c == '"') out += '"';
        out += c;
      }
    }
    out += '"';
  }
  out += '\n';
}

std::int64_t CompiledQuery::appendAggregateJson(Database& db, std::string& out) const {
  std::int64_t records = 0;
  scan(db, [&](Statement& row) {
    if (records > 0) out += ',';
    ++records;
    out += "{\"attributes\":{\"type\":\"AggregateResult\"}";
    for (const auto& column : columns_) {
      out += ',';
      QueryEngine::appendJsonString(out, column.header);
      out += ':';
      if (column.kind == OutputColumn::Kind::Value) {
        appendJsonValue(out, column.field, row, column.sqlColumn);
        continue;
      }
      if (row.isNull(column.sqlColumn)) {
        out += "null";
        continue;
      }
      const std::string& f = column.function;
      bool counting = f == "COUNT" || f == "COUNT_DISTINCT";
      if (counting) {
        out += std::to_string(row.integer(column.sqlColumn));
      } else if ((f == "MIN" || f == "MAX") && column.field != nullptr &&
                 !isNumeric(column.field->type)) {
        appendJsonValue(out, column.field, row, column.sqlColumn);
      } else {
        // Whole numbers are written without a fraction; others keep SQLite's text
        // of the double (15 significant digits).
        double value = row.real(column.sqlColumn);
        std::string text(row.text(column.sqlColumn));
        if (std::abs(value) < 1e15 &&
            value == static_cast<double>(static_cast<std::int64_t>(value))) {
          text = std::to_string(static_cast<std::int64_t>(value));
        }
        out += WireValues::plainNumber(text).value_or(text);
      }
    }
    out += '}';
    return true;
  });
  return records;
}

namespace QueryEngine {

std::shared_ptr<const CompiledQuery> compile(std::string_view soql, QueryScope scope, QueryApi api,
                                             SystemTime now) {
  return QueryCompiler::build(soql, scope, api, now);
}

void refuseFields(const CompiledQuery& query, std::string_view refused) {
  if (refused.empty()) return;
  auto lower = [](std::string_view text) {
    std::string out(text);
    for (auto& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
  };
  const std::string list = "," + lower(refused) + ",";
  const std::string& object = query.object().name;
  for (const auto& item : query.query().select) {
    if (item.kind != SelectItem::Kind::Field || item.path.parts.size() != 1) continue;
    const std::string& name = item.path.parts.front();
    if (list.find("," + lower(object + "." + name) + ",") == std::string::npos) continue;
    throw SoqlError::at("INVALID_FIELD", query.query().text, item.path.offset,
                        "No such column '" + name + "' on entity '" + object + "'." +
                            kCustomFieldHint);
  }
}

std::optional<std::string> bulkRefusal(const CompiledQuery& query) {
  if (!query.object().bulkQueryable) return Schema::bulkRefusalMessage(query.object().name);
  const Query& q = query.query();
  if (q.hasAggregates() || q.groupBy) {
    return "FUNCTIONALITY_NOT_ENABLED: Aggregate queries are not supported in Bulk Query";
  }
  if (q.offset) return "FUNCTIONALITY_NOT_ENABLED: OFFSET is not supported in Bulk Query";
  for (const auto& column : query.columns()) {
    if (column.kind == OutputColumn::Kind::Compound) {
      return "FUNCTIONALITY_NOT_ENABLED: Selecting compound data not supported in Bulk Query";
    }
    if (column.kind == OutputColumn::Kind::BodyUrl) {
      return "FUNCTIONALITY_NOT_ENABLED: Selecting base64 data not supported in Bulk Query";
    }
  }
  return std::nullopt;
}

}  // namespace QueryEngine

}  // namespace corvane::orgsim

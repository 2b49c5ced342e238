// SPDX-License-Identifier: Apache-2.0
#include "function_arguments.h"

#include <algorithm>
#include <utility>

#include "condition_list.h"

namespace packed {
namespace {

int column_at(const Table& table, const char* list, std::string_view text, const std::string& name, size_t at) {
  const int column = table.column_named(name);
  if (column >= 0) return column;
  std::string names;
  for (const ColumnInfo& info : table.columns()) names += (names.empty() ? "" : ", ") + info.name;
  throw ListError(list, text, at, "there is no column '" + name + "', there are " + names);
}

Value value_of_literal(const Literal& literal, Affinity affinity, std::deque<std::string>& texts) {
  Value value;
  if (const auto* integer = std::get_if<int64_t>(&literal)) value = Value::of(*integer);
  if (const auto* real = std::get_if<double>(&literal)) value = Value::of(*real);
  if (const auto* text = std::get_if<std::string>(&literal)) {
    texts.push_back(*text);
    value = Value::of(std::string_view(texts.back()));
  }
  return value.type == Type::null ? value : applied(affinity, value, texts);
}

// The value as SQLite's LIKE and GLOB take it.
std::string text_of(const Value& value) {
  char number[64];
  if (value.type == Type::integer) return std::to_string(value.integer);
  if (value.type == Type::real) return sqlite3_snprintf(sizeof number, number, "%!.15g", value.real);
  return std::string(value.bytes);
}

Condition compare_condition(int column, uint32_t operation, const Value& low, const Value& high) {
  Condition condition;
  condition.column = column;
  condition.operation = operation;
  condition.low = low;
  condition.high = high;
  return condition;
}

Condition match_condition(int column, std::function<bool(const Value&)> match) {
  Condition condition;
  condition.column = column;
  condition.kind = Condition::Kind::match;
  condition.match = std::move(match);
  return condition;
}

// `negated` may stand before all but the comparisons with one constant. NULL satisfies neither a test nor its negation.
Condition make_condition(const ListedCondition& listed, int column, const std::vector<Value>& constants) {
  using Test = ListedCondition::Test;
  const bool has_null = std::any_of(constants.begin(), constants.end(),
                                    [](const Value& constant) { return constant.type == Type::null; });
  Condition none;
  none.column = column;
  none.kind = Condition::Kind::in;
  switch (listed.test) {
    case Test::is_null:
      return compare_condition(column, listed.negated ? KDZK_HOST_OP_IS_NOT_NULL : KDZK_HOST_OP_IS_NULL, {}, {});
    case Test::in: {
      if (!listed.negated) {
        Condition in = none;
        for (const Value& constant : constants) {
          if (constant.type != Type::null) in.list.push_back(constant);
        }
        return in;
      }
      if (constants.empty()) return match_condition(column, [](const Value&) { return true; });
      if (has_null) return none;
      return match_condition(column, [constants](const Value& value) {
        return std::none_of(constants.begin(), constants.end(),
                            [&](const Value& constant) { return compare(value, constant) == 0; });
      });
    }
    case Test::between: {
      const Value& low = constants[0];
      const Value& high = constants[1];
      if (listed.negated) {
        return match_condition(column, [low, high](const Value& value) {
          return (low.type != Type::null && compare(value, low) < 0) ||
                 (high.type != Type::null && compare(value, high) > 0);
        });
      }
      return has_null ? none : compare_condition(column, KDZK_OP_GE_LE, low, high);
    }
    case Test::like:
    case Test::glob: {
      if (has_null) return none;
      const bool is_like = listed.test == Test::like;
      const bool no_blobs = sqlite3_compileoption_used("LIKE_DOESNT_MATCH_BLOBS") != 0;  // nor does GLOB
      return match_condition(
          column, [pattern = text_of(constants[0]), is_like, no_blobs, negated = listed.negated](const Value& value) {
            if (no_blobs && value.type == Type::blob) return negated;
            const std::string text = text_of(value);
            const int differs = is_like ? sqlite3_strlike(pattern.c_str(), text.c_str(), 0)
                                        : sqlite3_strglob(pattern.c_str(), text.c_str());
            return (differs == 0) != negated;
          });
    }
    default:
      break;
  }
  if (has_null) return none;
  static constexpr std::pair<Test, uint32_t> operations[] = {{Test::eq, KDZK_OP_EQ}, {Test::ne, KDZK_OP_NE},
                                                             {Test::lt, KDZK_OP_LT}, {Test::le, KDZK_OP_LE},
                                                             {Test::gt, KDZK_OP_GT}, {Test::ge, KDZK_OP_GE}};
  const auto* const found = std::find_if(std::begin(operations), std::end(operations),
                                         [&](const auto& pair) { return pair.first == listed.test; });
  return compare_condition(column, found->second, constants[0], {});
}

}  // namespace

std::shared_ptr<Table> table_argument(Connection& connection, const std::string& name) {
  const size_t dot = name.find('.');
  if (dot == std::string::npos) return connection.table(nullptr, name);
  return connection.table(name.substr(0, dot).c_str(), name.substr(dot + 1));
}

int column_argument(const Table& table, const std::string& name) {
  return column_at(table, "column of a table", name, name, 0);
}

std::vector<int> columns_argument(const Table& table, const std::optional<std::string>& names) {
  std::vector<int> columns;
  if (!names) return columns;
  for (const ListedName& name : parse_names(*names))
    columns.push_back(column_at(table, "list of columns", *names, name.text, name.at));
  return columns;
}

std::vector<Aggregate> aggregates_argument(const Table& table, const std::string& aggregates) {
  using Kind = ListedAggregate::Kind;
  static constexpr std::pair<Kind, Sum> kinds[] = {{Kind::count_rows, Sum::count_rows},
                                                   {Kind::count, Sum::count},
                                                   {Kind::sum, Sum::sum},
                                                   {Kind::min, Sum::min},
                                                   {Kind::max, Sum::max},
                                                   {Kind::avg, Sum::avg}};
  std::vector<Aggregate> result;
  for (const ListedAggregate& listed : parse_aggregates(aggregates)) {
    const auto* const found =
        std::find_if(std::begin(kinds), std::end(kinds), [&](const auto& pair) { return pair.first == listed.kind; });
    const bool has_column = listed.kind != Kind::count_rows;
    result.push_back(
        {found->second, has_column ? column_at(table, "list of aggregates", aggregates, listed.column, listed.at) : 0});
  }
  return result;
}

Conditions::Conditions(const Table& table, const std::optional<std::string>& text) {
  if (!text) return;
  for (const ListedCondition& listed : parse_conditions(*text)) {
    const int column = column_at(table, "condition list", *text, listed.column, listed.at);
    // Patterns are texts; the others are compared as if they stood in the column.
    const bool is_pattern = listed.test == ListedCondition::Test::like || listed.test == ListedCondition::Test::glob;
    const Affinity affinity = is_pattern ? Affinity::none : table.columns()[static_cast<size_t>(column)].affinity;
    std::vector<Value> constants;
    for (const Literal& literal : listed.literals) constants.push_back(value_of_literal(literal, affinity, texts_));
    list_.push_back(make_condition(listed, column, constants));
  }
}

}  // namespace packed

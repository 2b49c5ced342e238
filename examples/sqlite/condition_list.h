// SPDX-License-Identifier: Apache-2.0
//
// Conditions on the rows of a table, as the table-valued functions take them in a text.
//
//   conditions  = [ condition { "and" condition } ]
//   condition   = column ( "=" | "==" | "<>" | "!=" | "<" | "<=" | ">" | ">=" ) literal
//               | column [ "not" ] "between" literal "and" literal
//               | column [ "not" ] "in" "(" [ literal { "," literal } ] ")"
//               | column [ "not" ] ( "like" | "glob" ) literal
//               | column "is" [ "not" ] "null"
//   column      = a name, or any text in "", `` or []
//   literal     = a number, 'text', or "null"
//
// They mean what SQL means by them, and keywords may be in any case. The same reader takes lists of columns and of
// aggregates apart.
#ifndef KDZK_EXAMPLES_SQLITE_CONDITION_LIST_H
#define KDZK_EXAMPLES_SQLITE_CONDITION_LIST_H

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace packed {

using Literal = std::variant<std::monostate, int64_t, double, std::string>;  // the first one is NULL

struct ListedCondition {
  enum class Test { eq, ne, lt, le, gt, ge, between, in, like, glob, is_null };
  std::string column;
  size_t at;  // byte of the text at which the column stands
  Test test;
  bool negated;  // between, in, like, glob, is_null: NOT
  std::vector<Literal> literals;
};

struct ListedAggregate {
  enum class Kind { count_rows, count, sum, min, max, avg };
  Kind kind;
  std::string column;  // empty: count(*)
  size_t at;
};

struct ListedName {
  std::string text;
  size_t at;
};

// What is wrong with a text, and where: "condition list, byte 12: ...".
class ListError : public std::runtime_error {
 public:
  ListError(const char* list, std::string_view text, size_t at, const std::string& what);
};

std::vector<ListedCondition> parse_conditions(std::string_view text);
std::vector<ListedAggregate> parse_aggregates(std::string_view text);
std::vector<ListedName> parse_names(std::string_view text);

}  // namespace packed

#endif

// SPDX-License-Identifier: Apache-2.0
//
// What can be asked, and the parser.
//
//   request     = question
//               | "count" "by" column { "," column } where
//               | "sum" column "*" column where
//               | "inside" column "," column "of" point { "," point } where        a point is two numbers
//               | "join" where "on" column "=" column "count" "by" column where
//   where       = [ "where" question ]
//   question    = all { "or" all }
//   all         = term { "and" term }
//   term        = "not" term | "(" question ")" | column test
//   test        = ( "=" | "!=" | "<>" | "<" | "<=" | ">" | ">=" ) value
//               | [ "is" ] [ "not" ] "between" value "and" value
//               | [ "is" ] [ "not" ] "in" "(" value { "," value } ")"
//               | [ "is" ] [ "not" ] "like" value
//               | "is" [ "not" ] ( value | "null" )
//
// A column or value is a bare word, or any text in quotes; a quote within is doubled. Columns take double quotes,
// values take both. Keywords may be in any case and are keywords only where one can stand: in `state = OR` the OR is a
// value.
//
// A join has two tables: its first `where` and the columns behind the `=` and `by` are of the other one.
#ifndef KDZK_EXAMPLES_ASK_QUESTION_H
#define KDZK_EXAMPLES_ASK_QUESTION_H

#include <optional>
#include <string>
#include <vector>

#include "column.h"
#include "pattern.h"
#include "table.h"

namespace ask {

enum class Relation { eq, ne, lt, le, gt, ge, between, not_between, in_set, not_in_set, is_null, is_not_null };

// `between` takes both constants, both included; a set is a list or a pattern; the two null tests take nothing, all
// others `low`.
struct Comparison {
  const Column* column;
  Relation relation;
  Value low{};
  Value high{};
  std::vector<Value> list{};
  std::optional<Pattern> pattern{};
};

struct Question {
  enum class Kind { comparison, negation, all_of, any_of };
  Kind kind;
  Comparison comparison{};        // of a comparison
  std::vector<Question> terms{};  // of the others; a negation has one
};

struct Point {
  double x, y;
};

struct Request {
  enum class Kind { rows, groups, sum, inside, join };
  Kind kind;
  std::optional<Question> where{};        // of `rows`, what is asked
  std::vector<const Column*> columns{};   // of `groups`; two factors of `sum`; x and y of `inside`; a join's key
  std::vector<Point> polygon{};           // of `inside`, three vertices or more
  std::optional<Question> other_where{};  // of `join`, as are the other columns
  const Column* other_key = nullptr;
  const Column* other_group = nullptr;
};

// `other` is the table to join with, null if there is none. Throws Error with the request and a mark under the place
// that can't be understood.
Request parse_request(const std::string& text, const Table& table, const Table* other);

}  // namespace ask

#endif

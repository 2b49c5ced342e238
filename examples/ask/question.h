// SPDX-License-Identifier: Apache-2.0
//
// Questions about rows, and their parser.
//
//   question    = all { "or" all }
//   all         = term { "and" term }
//   term        = "not" term | "(" question ")" | column test
//   test        = ( "=" | "!=" | "<>" | "<" | "<=" | ">" | ">=" ) value
//               | [ "is" ] [ "not" ] "between" value "and" value
//               | "is" [ "not" ] ( value | "null" )
//
// A column or value is a bare word, or any text in quotes; a quote within is doubled. Columns take double quotes,
// values take both. Keywords may be in any case and are keywords only where one can stand: in `state = OR` the OR is a
// value.
#ifndef KDZK_EXAMPLES_ASK_QUESTION_H
#define KDZK_EXAMPLES_ASK_QUESTION_H

#include <string>
#include <vector>

#include "column.h"
#include "table.h"

namespace ask {

enum class Relation { eq, ne, lt, le, gt, ge, between, not_between, is_null, is_not_null };

// `between` takes both constants, both included; the two null tests take none, all others `low`.
struct Comparison {
  const Column* column;
  Relation relation;
  Value low;
  Value high;
};

struct Question {
  enum class Kind { comparison, negation, all_of, any_of };
  Kind kind;
  Comparison comparison{};        // of a comparison
  std::vector<Question> terms{};  // of the others; a negation has one
};

// Throws Error with the question and a mark under the place that can't be understood.
Question parse_question(const std::string& text, const Table& table);

}  // namespace ask

#endif

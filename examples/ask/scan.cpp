// SPDX-License-Identifier: Apache-2.0
#include "scan.h"

#include <algorithm>

namespace ask {
namespace {

Truth known(bool holds) { return holds ? Truth::yes : Truth::no; }

Truth truth_of(const Comparison& c, size_t row) {
  const uint32_t entry = c.column->entry_of_row(row);
  const bool null = entry == Column::null_entry;
  if (c.relation == Relation::is_null) return known(null);
  if (c.relation == Relation::is_not_null) return known(!null);
  if (null) return Truth::unknown;

  const auto order = c.column->compare(entry, c.low);
  switch (c.relation) {
    case Relation::eq:
      return known(order == 0);
    case Relation::ne:
      return known(order != 0);
    case Relation::lt:
      return known(order < 0);
    case Relation::le:
      return known(order <= 0);
    case Relation::gt:
      return known(order > 0);
    case Relation::ge:
      return known(order >= 0);
    case Relation::between:
      return known(order >= 0 && c.column->compare(entry, c.high) <= 0);
    default:
      return known(order < 0 || c.column->compare(entry, c.high) > 0);
  }
}

}  // namespace

Truth truth(const Question& question, size_t row) {
  if (question.kind == Question::Kind::comparison) return truth_of(question.comparison, row);
  if (question.kind == Question::Kind::negation) {
    const Truth inner = truth(question.terms.front(), row);
    return inner == Truth::yes ? Truth::no : inner == Truth::no ? Truth::yes : Truth::unknown;
  }
  const bool all = question.kind == Question::Kind::all_of;
  Truth result = all ? Truth::yes : Truth::no;
  for (const Question& term : question.terms) {
    const Truth each = truth(term, row);
    result = all ? std::min(result, each) : std::max(result, each);
  }
  return result;
}

}  // namespace ask

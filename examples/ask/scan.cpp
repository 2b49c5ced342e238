// SPDX-License-Identifier: Apache-2.0
#include "scan.h"

#include <algorithm>
#include <cmath>
#include <string_view>

#include "store.h"

namespace ask {
namespace {

Truth known(bool holds) { return holds ? Truth::yes : Truth::no; }

bool fits(std::string_view pattern, std::string_view text) {
  if (pattern.empty()) return text.empty();
  if (pattern[0] == '%') {
    return fits(pattern.substr(1), text) || (!text.empty() && fits(pattern, text.substr(1)));
  }
  if (text.empty()) return false;
  if (pattern[0] == '_') return fits(pattern.substr(1), text.substr(Pattern::character(text)));
  return pattern[0] == text[0] && fits(pattern.substr(1), text.substr(1));
}

bool is_member(const Comparison& c, uint32_t entry) {
  if (c.pattern) return fits(c.pattern->text, c.column->text_of_entry(entry));
  return std::any_of(c.list.begin(), c.list.end(), [&](const Value& v) { return c.column->compare(entry, v) == 0; });
}

uint32_t group_of(const Column& column, size_t row) {
  const uint32_t entry = column.entry_of_row(row);
  return entry == Column::null_entry ? 0 : column.rank_of_entry(entry) + 1;
}

Truth truth_of(const Comparison& c, size_t row) {
  const uint32_t entry = c.column->entry_of_row(row);
  const bool null = entry == Column::null_entry;
  if (c.relation == Relation::is_null) return known(null);
  if (c.relation == Relation::is_not_null) return known(!null);
  if (null) return Truth::unknown;
  if (c.relation == Relation::in_set) return known(is_member(c, entry));
  if (c.relation == Relation::not_in_set) return known(!is_member(c, entry));

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

Counts count_plainly(const Request& groups) {
  Counts counts;
  for (size_t row = 0; row < groups.columns.front()->rows(); row++) {
    if (!holds(groups.where, row)) continue;
    std::vector<uint32_t> group;
    for (const Column* column : groups.columns) group.push_back(group_of(*column, row));
    counts[group]++;
  }
  return counts;
}

// Products with a NULL are left out. The kernels add to two lanes in turn, and a product without a partner last.
double sum_plainly(const Request& sum) {
  const Column &a = *sum.columns[0], &b = *sum.columns[1];
  double total = 0;
  for (size_t vector = 0; vector < vectors_of(a.rows()); vector++) {
    std::vector<double> products;
    for (size_t row = vector * vector_rows; row < vector * vector_rows + rows_of_vector(vector, a.rows()); row++) {
      const uint32_t left = a.entry_of_row(row), right = b.entry_of_row(row);
      if (left == Column::null_entry || right == Column::null_entry || !holds(sum.where, row)) continue;
      products.push_back(a.number_of_entry(left) * b.number_of_entry(right));
    }
    double lanes[2] = {0, 0};
    for (size_t i = 0; i < products.size() / 2 * 2; i++) lanes[i % 2] += products[i];
    double of_vector = lanes[0] + lanes[1];
    if (products.size() % 2 == 1) of_vector += products.back();
    total += of_vector;
  }
  return total;
}

// A ray to the right crosses an odd number of edges; an edge has its lower end and not its upper one.
std::optional<bool> inside_plainly(const Request& inside, size_t row) {
  const Column &xs = *inside.columns[0], &ys = *inside.columns[1];
  const uint32_t x_entry = xs.entry_of_row(row), y_entry = ys.entry_of_row(row);
  if (x_entry == Column::null_entry || y_entry == Column::null_entry || !holds(inside.where, row)) return false;
  const double x = xs.number_of_entry(x_entry), y = ys.number_of_entry(y_entry);
  bool odd = false;
  for (size_t i = 0; i < inside.polygon.size(); i++) {
    const Point &a = inside.polygon[i], &b = inside.polygon[(i + 1) % inside.polygon.size()];
    if ((y < a.y) == (y < b.y)) continue;
    const double crossing = a.x + (y - a.y) / (b.y - a.y) * (b.x - a.x);
    if (std::abs(crossing - x) <= 1e-12 * (std::abs(a.x) + std::abs(b.x) + std::abs(x))) return std::nullopt;
    odd ^= x < crossing;
  }
  return odd;
}

Counts join_plainly(const Request& join) {
  const Column &key = *join.columns.front(), &other = *join.other_key;
  const auto value = [](const Column& column, uint32_t entry) -> Value {
    if (column.type() == Type::whole) return column.whole_of_entry(entry);
    if (column.type() == Type::decimal) return column.decimal_of_entry(entry);
    return std::string(column.text_of_entry(entry));
  };
  std::map<Value, std::vector<uint32_t>> groups_of_value;
  for (size_t row = 0; row < other.rows(); row++) {
    const uint32_t entry = other.entry_of_row(row);
    if (entry == Column::null_entry || !holds(join.other_where, row)) continue;
    groups_of_value[value(other, entry)].push_back(group_of(*join.other_group, row));
  }
  Counts counts;
  for (size_t row = 0; row < key.rows(); row++) {
    const uint32_t entry = key.entry_of_row(row);
    if (entry == Column::null_entry || !holds(join.where, row)) continue;
    const auto groups = groups_of_value.find(value(key, entry));
    if (groups == groups_of_value.end()) continue;
    for (const uint32_t group : groups->second) counts[{group}]++;
  }
  return counts;
}

}  // namespace ask

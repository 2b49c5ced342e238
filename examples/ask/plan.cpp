// SPDX-License-Identifier: Apache-2.0
#include "plan.h"

#include <algorithm>
#include <utility>

#include "error.h"

namespace ask {
namespace {

kdzk_host_value host_value(const Value& value) {
  kdzk_host_value result{};
  if (const auto* whole = std::get_if<int64_t>(&value)) {
    result.type = KDZK_HOST_INTEGER;
    result.integer = *whole;
  } else if (const auto* decimal = std::get_if<double>(&value)) {
    result.type = KDZK_HOST_DOUBLE;
    result.number = *decimal;
  } else {
    const auto& text = std::get<std::string>(value);
    result.type = KDZK_HOST_TEXT;
    result.text = {text.data(), text.size()};
  }
  return result;
}

// The rows in this relation to a constant, or to two.
Plan range(const Store& store, uint32_t operation, const Value& low, const Value& high = {}) {
  const kdzk_host_value low_value = host_value(low), high_value = host_value(high);
  Plan plan{.kind = Plan::Kind::range, .store = &store};
  plan.ranges.resize(store.vectors());
  for (size_t i = 0; i < plan.ranges.size(); i++) {  // codes are the same in all vectors, stored values are not
    if (store.is_coded()) {
      kdzk_host_dictionary_range(&store.dictionary(), operation, &low_value, &high_value, &plan.ranges[i]);
    } else {
      kdzk_host_column_range(&store.vector(i).column, operation, &low_value, &high_value, &plan.ranges[i]);
    }
  }
  return plan;
}

// The rows whose value is in the list, or fits the pattern; with `negated`, those whose value isn't and doesn't. Each
// value of the list is looked up once, and the pattern is run once for each entry of the dictionary.
Plan set(const Comparison& comparison, const Store& store, bool negated) {
  if (!store.is_coded()) {
    throw Error("column " + store.column().name() + " is stored as " + store.form() +
                ", and lists and patterns need a dictionary: store it as dict, blocked or runs");
  }
  const kdzk_host_dictionary& dictionary = store.dictionary();
  Plan plan{.kind = Plan::Kind::set, .store = &store};
  plan.set.resize(kdzk_host_set_words(&dictionary));
  for (const Value& value : comparison.list) {
    const kdzk_host_value member = host_value(value);
    kdzk_host_set_add(&dictionary, &member, plan.set.data());
  }
  if (comparison.pattern) {
    const auto match = [](void* state, const kdzk_host_value* value) -> uint32_t {
      return static_cast<const Pattern*>(state)->fits({static_cast<const char*>(value->text.bytes), value->text.size});
    };
    Pattern pattern = *comparison.pattern;
    kdzk_host_set_match(&dictionary, match, &pattern, plan.set.data());
  }
  for (uint32_t code = dictionary.first_code; negated && code < dictionary.size; code++) {
    plan.set[code / 64] ^= uint64_t{1} << code % 64;
  }
  return plan;
}

// Joins two ranges of codes or values, if both are.
bool join_ranges(Plan& plan, const Plan& other) {
  const auto is_inside = [](const kdzk_host_range& range) { return range.kind == KDZK_HOST_RANGE_INSIDE; };
  if (plan.kind != Plan::Kind::range || other.kind != Plan::Kind::range || plan.store != other.store ||
      !std::all_of(plan.ranges.begin(), plan.ranges.end(), is_inside) ||
      !std::all_of(other.ranges.begin(), other.ranges.end(), is_inside)) {
    return false;
  }
  for (size_t i = 0; i < plan.ranges.size(); i++) {
    plan.ranges[i].first = std::max(plan.ranges[i].first, other.ranges[i].first);
    plan.ranges[i].last = std::min(plan.ranges[i].last, other.ranges[i].last);
  }
  return true;
}

}  // namespace

Plan plan_of(const Comparison& comparison, const Store& store) {
  const auto& [column, relation, low, high, list, pattern] = comparison;
  switch (relation) {
    case Relation::eq:
      return range(store, KDZK_OP_EQ, low);
    case Relation::ne:
      return range(store, KDZK_OP_NE, low);
    case Relation::lt:
      return range(store, KDZK_OP_LT, low);
    case Relation::le:
      return range(store, KDZK_OP_LE, low);
    case Relation::gt:
      return range(store, KDZK_OP_GT, low);
    case Relation::ge:
      return range(store, KDZK_OP_GE, low);
    case Relation::between:
      return range(store, KDZK_OP_GE_LE, low, high);
    case Relation::not_between:
      return any_of({range(store, KDZK_OP_LT, low), range(store, KDZK_OP_GT, high)});
    case Relation::in_set:
    case Relation::not_in_set:
      return set(comparison, store, relation == Relation::not_in_set);
    case Relation::is_null:
      return range(store, KDZK_HOST_OP_IS_NULL, low);
    default:
      return range(store, KDZK_HOST_OP_IS_NOT_NULL, low);
  }
}

Plan all_of(std::vector<Plan> terms) {
  Plan plan{Plan::Kind::all_of};
  for (Plan& term : terms) {
    const auto joined = [&](Plan& earlier) { return join_ranges(earlier, term); };
    if (std::none_of(plan.terms.begin(), plan.terms.end(), joined)) plan.terms.push_back(std::move(term));
  }
  return plan;
}

Plan any_of(std::vector<Plan> terms) { return {.kind = Plan::Kind::any_of, .terms = std::move(terms)}; }

}  // namespace ask

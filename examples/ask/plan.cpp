// SPDX-License-Identifier: Apache-2.0
#include "plan.h"

#include <kdzk/kernels.h>

#include <algorithm>
#include <optional>
#include <utility>

namespace ask {
namespace {

bool is_lower_bound(uint32_t operation) { return operation == KDZK_OP_GT || operation == KDZK_OP_GE; }
bool is_upper_bound(uint32_t operation) { return operation == KDZK_OP_LT || operation == KDZK_OP_LE; }

uint32_t between_operation(uint32_t lower, uint32_t upper) {
  if (lower == KDZK_OP_GT) return upper == KDZK_OP_LT ? KDZK_OP_GT_LT : KDZK_OP_GT_LE;
  return upper == KDZK_OP_LT ? KDZK_OP_GE_LT : KDZK_OP_GE_LE;
}

// The one call for both, if they are the two ends of a range.
std::optional<Call> joined(const Call& a, const Call& b) {
  if (a.store != b.store || a.kind != b.kind) return std::nullopt;
  if (is_lower_bound(b.operation) && is_upper_bound(a.operation)) return joined(b, a);
  if (!is_lower_bound(a.operation) || !is_upper_bound(b.operation)) return std::nullopt;
  return Call{a.store, a.kind, between_operation(a.operation, b.operation), a.low, b.low};
}

// Adds a term to those of an all_of, into an earlier call if it can be joined with one.
void add_term(std::vector<Plan>& terms, Plan term) {
  if (term.kind == Plan::Kind::call) {
    for (Plan& earlier : terms) {
      if (earlier.kind != Plan::Kind::call) continue;
      if (const auto call = joined(earlier.call, term.call)) {
        earlier.call = *call;
        return;
      }
    }
  }
  terms.push_back(std::move(term));
}

// Drops `neutral` terms, is `deciding` if one of the terms is, and takes in the terms of terms of the same kind.
std::vector<Plan> flattened(std::vector<Plan> terms, Plan::Kind kind, Plan::Kind neutral, Plan::Kind deciding) {
  std::vector<Plan> flat;
  for (Plan& term : terms) {
    if (term.kind == deciding) return {Plan{deciding}};
    if (term.kind == neutral) continue;
    if (term.kind == kind) {
      std::move(term.terms.begin(), term.terms.end(), std::back_inserter(flat));
    } else {
      flat.push_back(std::move(term));
    }
  }
  return flat;
}

Plan combined(std::vector<Plan> terms, Plan::Kind kind, Plan::Kind neutral) {
  if (terms.empty()) return {neutral};
  if (terms.size() == 1) return std::move(terms.front());
  return {.kind = kind, .terms = std::move(terms)};
}

}  // namespace

Plan all_of(std::vector<Plan> terms) {
  using Kind = Plan::Kind;
  std::vector<Plan> joined_terms;
  for (Plan& term : flattened(std::move(terms), Kind::all_of, Kind::every_row, Kind::no_row)) {
    add_term(joined_terms, std::move(term));
  }
  return combined(std::move(joined_terms), Kind::all_of, Kind::every_row);
}

Plan any_of(std::vector<Plan> terms) {
  using Kind = Plan::Kind;
  return combined(flattened(std::move(terms), Kind::any_of, Kind::no_row, Kind::every_row), Kind::any_of, Kind::no_row);
}

Plan complement_of(Plan plan) {
  using Kind = Plan::Kind;
  if (plan.kind == Kind::no_row) return {Kind::every_row};
  if (plan.kind == Kind::every_row) return {Kind::no_row};
  std::vector<Plan> terms;
  terms.push_back(std::move(plan));
  return {.kind = Kind::complement, .terms = std::move(terms)};
}

}  // namespace ask

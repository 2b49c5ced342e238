// SPDX-License-Identifier: Apache-2.0
//
// What is to be done per vector of rows to answer a question: tests of one column each, and how their bit vectors
// combine. What a test comes to in a vector, no row, all rows or a kernel, the host kit says (kdzk/host/comparison.h).
#ifndef KDZK_EXAMPLES_ASK_PLAN_H
#define KDZK_EXAMPLES_ASK_PLAN_H

#include <cstdint>
#include <vector>

#include "question.h"
#include "store.h"

namespace ask {

struct Plan {
  enum class Kind { range, set, all_of, any_of };
  Kind kind;
  const Store* store = nullptr;           // of a range and a set
  std::vector<kdzk_host_range> ranges{};  // of a range, one for each vector
  std::vector<uint64_t> set{};            // bit c % 64 of word c / 64: whether code c is in the set
  std::vector<Plan> terms{};              // of the two others, one or more
};

// The plan for a comparison of the column that is stored there. Throws Error if it needs codes and there are none.
Plan plan_of(const Comparison& comparison, const Store& store);

Plan all_of(std::vector<Plan> terms);  // makes one term of ranges of one column
Plan any_of(std::vector<Plan> terms);

}  // namespace ask

#endif

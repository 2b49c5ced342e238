// SPDX-License-Identifier: Apache-2.0
//
// What is to be done per vector of rows to answer a question: kernel calls, and how their bit vectors combine.
#ifndef KDZK_EXAMPLES_ASK_PLAN_H
#define KDZK_EXAMPLES_ASK_PLAN_H

#include <array>
#include <cstdint>
#include <vector>

namespace ask {

class Store;

// One kernel with its constants, in the form in which the kernel reads them.
struct Call {
  using Constant = std::array<uint8_t, 8>;
  const Store* store;
  uint8_t kind;        // the store's, or a twin of it: which kernels
  uint32_t operation;  // KDZK_OP_EQ to KDZK_OP_GE_LE
  Constant low;        // or the only one
  Constant high;
};

struct Plan {
  enum class Kind { no_row, every_row, call, all_of, any_of, complement };
  Kind kind;
  Call call{};
  std::vector<Plan> terms{};  // two or more; a complement has one
};

// These simplify: no_row and every_row come out as a whole plan only, never as a term. A range of one column that
// arrives as two comparisons becomes one call.
Plan all_of(std::vector<Plan> terms);
Plan any_of(std::vector<Plan> terms);
Plan complement_of(Plan plan);

}  // namespace ask

#endif

// SPDX-License-Identifier: Apache-2.0
//
// The plain ways to all answers: row by row over the values as they were read. What the kernels say is checked against
// them, so they share neither codes nor plans with it.
#ifndef KDZK_EXAMPLES_ASK_SCAN_H
#define KDZK_EXAMPLES_ASK_SCAN_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "question.h"

namespace ask {

// Three-valued: a comparison with NULL is neither true nor false, and so is its negation.
enum class Truth { no, unknown, yes };

Truth truth(const Question& question, size_t row);
inline bool holds(const std::optional<Question>& where, size_t row) {
  return !where || truth(*where, row) == Truth::yes;
}

// Rows by group: of each column 1 more than the rank of the value, or 0 for NULL.
using Counts = std::map<std::vector<uint32_t>, uint64_t>;

Counts count_plainly(const Request& groups);

// With the additions in the order in which the kernels do them, so that not a bit differs.
double sum_plainly(const Request& sum);

// Whether a row's point lies in the polygon: nothing if it is so near to an edge that rounding decides.
std::optional<bool> inside_plainly(const Request& inside, size_t row);

Counts join_plainly(const Request& join);

}  // namespace ask

#endif

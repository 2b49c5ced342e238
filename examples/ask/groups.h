// SPDX-License-Identifier: Apache-2.0
//
// GROUP BY with counts: a dense key for each row's combination of codes, then one pass of counting.
#ifndef KDZK_EXAMPLES_ASK_GROUPS_H
#define KDZK_EXAMPLES_ASK_GROUPS_H

#include "engine.h"
#include "scan.h"

namespace ask {

struct Groups {
  Counts counts;
  uint32_t keys = 0;  // that there could be
  Laps laps;
};

// The rows by what they have in the columns; null: all rows. Throws Error if a column has no codes, or if the columns
// have too many combinations for an array of counters.
Groups count_groups(const Engine& engine, const std::vector<const Column*>& columns, const Answer* rows);

}  // namespace ask

#endif

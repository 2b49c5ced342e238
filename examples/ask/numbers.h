// SPDX-License-Identifier: Apache-2.0
//
// Work on columns as numbers: the sum of a computed column, and points in a polygon.
#ifndef KDZK_EXAMPLES_ASK_NUMBERS_H
#define KDZK_EXAMPLES_ASK_NUMBERS_H

#include "engine.h"

namespace ask {

struct Sum {
  double value = 0;
  uint64_t rows = 0;
  std::string kernel;
  Laps laps;
};

// The sum of `a` times `b` over the rows; null: all rows. None of these may be NULL in either column.
Sum sum_products(const Engine& engine, const Column& a, const Column& b, const Answer* rows);

struct Inside {
  std::vector<bool> rows;
  uint64_t hits = 0;
  Laps laps;
};

// Which of the rows lie in the polygon, whose last vertex is joined with its first; rows as above.
Inside rows_inside(const Engine& engine, const Column& x, const Column& y, const std::vector<Point>& polygon,
                   const Answer* rows);

}  // namespace ask

#endif

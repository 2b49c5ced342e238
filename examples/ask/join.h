// SPDX-License-Identifier: Apache-2.0
//
// A hash join with counts by a column of the other table: hash, partition and build on that side, hash and probe on
// this one, and the comparison of the keys that the tags of the hashes led to.
#ifndef KDZK_EXAMPLES_ASK_JOIN_H
#define KDZK_EXAMPLES_ASK_JOIN_H

#include <array>

#include "engine.h"
#include "scan.h"

namespace ask {

struct Joined {
  enum Step { unpack, hash, partition, build, bloom, probe, compare, steps };
  static constexpr std::array<const char*, steps> step_names = {
      "unpack keys and groups",    "hash the keys of both tables",    "partition the other table's rows",
      "build hash tables of them", "make a bloom filter and test it", "probe with the rows that are left",
      "compare keys and count"};

  Counts counts;                           // of pairs of rows, by the group of the other table's row
  uint64_t built = 0, probed = 0;          // rows that go into the tables, and that are looked up in them
  uint64_t candidates = 0, matches = 0;    // pairs with the same tag, and with the same key
  std::array<double, steps> seconds = {};  // that each step takes, at best
};

// Joins the tables of two engines on keys of the same type. Of both, only the rows given (null: all rows), in which no
// key may be NULL, take part. Throws Error if a column isn't stored in a form that the join can read.
Joined join(const Request& request, const Engine& engine, const Engine& other, const Answer* rows,
            const Answer* other_rows, bool with_bloom);

}  // namespace ask

#endif

// SPDX-License-Identifier: Apache-2.0
//
// Which values of one dictionary are in another one: the whole of a join of two packed columns, since every value is
// looked up once and not once per row.
//
// It is a hash join, by the library's services: the values of the build side are hashed (hash_rows) and inserted into a
// hash table with their codes (ht_build); those of the probe side are hashed, tested with a Bloom filter of the build
// side if that is the much smaller one (bloom_test), and looked up (ht_probe); the pairs found are compared.
#ifndef KDZK_EXAMPLES_SQLITE_VALUE_JOIN_H
#define KDZK_EXAMPLES_SQLITE_VALUE_JOIN_H

#include <cstdint>
#include <functional>
#include <vector>

#include "storage.h"

namespace packed {

// Calls `take` with the places of equal values, in `probe` and in `build`. `wanted` has a flag for each place of
// `build`: only those are looked for. NULL equals nothing; numbers and texts are never equal.
void join_values(Connection& connection, const std::vector<Value>& probe, const std::vector<Value>& build,
                 const std::vector<bool>& wanted, const std::function<void(uint32_t, uint32_t)>& take);

}  // namespace packed

#endif

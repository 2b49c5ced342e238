// SPDX-License-Identifier: Apache-2.0
// The scalar fetch of a packed code, for the loops that fetch row by row.
#ifndef BENCH_PEERS_PACKED_H
#define BENCH_PEERS_PACKED_H

#include <cstdint>
#include <cstring>

namespace kdzk_bench {

template <class T>
inline T load(const void* at) {
  T value;
  std::memcpy(&value, at, sizeof value);
  return value;
}

// Code `row` of a big-endian stream of W-bit codes.
template <int W>
inline uint64_t packed_code(const uint8_t* stream, uint32_t row) {
  const uint64_t bit = uint64_t{row} * W;
  return __builtin_bswap64(load<uint64_t>(stream + bit / 32 * 4)) << bit % 32 >> (64 - W);
}

}  // namespace kdzk_bench

#endif

// SPDX-License-Identifier: Apache-2.0

#include "bench/peers/partition_loops.h"

#include <cstring>

namespace kdzk_bench {
namespace {

uint8_t* take(const Scatter& to, uint64_t hash, uint64_t bytes) {
  uint8_t*& cursor = to.cursors[(hash & to.mask) >> to.shift];
  uint8_t* const at = cursor;
  cursor += bytes;
  return at;
}

}  // namespace

void scatter_ids(const Scatter& to, const uint64_t* hashes, uint32_t n) {
  const Scatter s = to;
  for (uint64_t row = 0; row < n; row++) {
    const uint64_t hash = hashes[row];
    uint8_t* const at = take(s, hash, 16);
    std::memcpy(at, &row, 8);
    std::memcpy(at + 8, &hash, 8);
  }
}

void scatter_keys(const Scatter& to, const uint64_t* hashes, const uint32_t* keys, uint32_t n) {
  const Scatter s = to;
  for (uint64_t row = 0; row < n; row++) {
    const uint64_t hash = hashes[row];
    uint8_t* const at = take(s, hash, 24);
    std::memcpy(at, &hash, 8);
    std::memcpy(at + 8, &keys[row], 4);
    std::memcpy(at + 16, &row, 8);
  }
}

void scatter_strings(const Scatter& to, const uint64_t* hashes, const uint16_t* lengths, const uint8_t* bytes,
                     uint32_t n) {
  const Scatter s = to;
  for (uint32_t row = 0; row < n; row++) {
    const uint64_t hash = hashes[row];
    const uint16_t length = lengths[row], behind = static_cast<uint16_t>(length + 8);
    uint8_t* const at = take(s, hash, length + 10u);
    std::memcpy(at, &behind, 2);
    std::memcpy(at + 2, &hash, 8);
    std::memcpy(at + 10, bytes, length);
    bytes += length;
  }
}

void scatter_payloads(const Scatter& to, const uint64_t* hashes, const uint8_t* payloads, uint32_t size, uint32_t n) {
  const Scatter s = to;
  for (uint64_t row = 0; row < n; row++) {
    const uint64_t hash = hashes[row];
    uint8_t* const at = take(s, hash, size + 8u);
    std::memcpy(at, &hash, 8);
    std::memcpy(at + 8, payloads + row * size, size);
  }
}

}  // namespace kdzk_bench

// SPDX-License-Identifier: Apache-2.0
// Hash maps from the keys of a build side to its row numbers, which the hash table is measured against; and the hash
// functions of all sides, inline and behind pointers.
#ifndef BENCH_PEERS_HASH_MAP_PEERS_H
#define BENCH_PEERS_HASH_MAP_PEERS_H

#ifdef KDZK_BENCH_XXHASH
#define XXH_INLINE_ALL
#include <xxhash.h>
#endif

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kdzk_bench {

// 64-bit keys: XXH3 where it is installed. 32-bit keys: a multiplication whose upper half is folded on the lower one.
inline uint64_t multiply_shift(uint64_t key) {
  const uint64_t product = key * 0x9e3779b97f4a7c15;
  return product ^ product >> 32;
}
#ifdef KDZK_BENCH_XXHASH
inline constexpr char hash_of_64_bits[] = "xxh3";
inline uint64_t hash_of(uint64_t key) { return XXH3_64bits(&key, sizeof key); }
#else
inline constexpr char hash_of_64_bits[] = "multiply_shift";
inline uint64_t hash_of(uint64_t key) { return multiply_shift(key); }
#endif
inline uint64_t hash_of(uint32_t key) { return multiply_shift(key); }

// Of the shape of the host's function, which is all that a library that doesn't know the keys can call.
using HashFunction = uint64_t (*)(const void* key, uint32_t length, uint64_t seed);
template <class Key>
HashFunction hash_function();

// A row of the probe side and the one of the build side that has its key.
struct RowPair {
  uint64_t probe_row, build_row;
};

// Memory that was written before, so that nobody pays for its pages, and that is taken from the front: building a map
// costs no call of malloc.
class Arena {
 public:
  explicit Arena(uint64_t bytes) : bytes_(bytes, 1) {}
  void reset() { used_ = 0; }
  void* take(uint64_t bytes, uint64_t alignment) {
    used_ = (used_ + alignment - 1) / alignment * alignment;
    void* const at = bytes_.data() + first_ + used_;
    used_ += bytes;
    if (first_ + used_ > bytes_.size()) __builtin_trap();
    return at;
  }

 private:
  std::vector<uint8_t> bytes_;
  uint64_t first_ = -reinterpret_cast<uint64_t>(bytes_.data()) % 64;  // the byte of a cache line's beginning
  uint64_t used_ = 0;
};

template <class Key>
class HashMap {
 public:
  virtual ~HashMap() = default;
  // A new map with room for n, and key i to i.
  virtual void build(const Key* keys, uint32_t n) = 0;
  // The rows of the probe side that have a key of the map, in order. Returns how many.
  virtual uint64_t probe(const Key* keys, uint32_t n, RowPair* pairs) const = 0;
};

// Those that this build knows, by name. They hash inline, or by a call of hash_function<Key>().
template <class Key>
std::vector<std::pair<std::string, std::shared_ptr<HashMap<Key>>>> hash_maps(uint32_t build_rows, bool inlined);

}  // namespace kdzk_bench

#endif

// SPDX-License-Identifier: Apache-2.0
// Hash joins: building a table of 16 Ki, 256 Ki and 4 Mi rows with different keys, and looking up four times as many,
// of which all have a key of the table or one in ten. Rows per second are those built, or those looked up.
//
// Data are named for the hash function and how the library gets at the hashes: by calling the host's function for each
// key, from an array that the host's own loop fills, which counts, or by calling it for 32-bit keys that are their own
// tags. All sides use the same function, and call it by a pointer where the library does. The host hands over vectors
// of 4096 rows and compares the keys of candidate pairs, but for those of 32-bit keys, which are no candidates. The
// table has a bucket of 9 entries for every 4 rows, or of 6 for every 2; to clear it is part of the build.
//
// Peers: hash maps from key to row, with room reserved and in memory whose pages are there, called row by row. All
// sides write the same pairs of rows.

#include <algorithm>
#include <cstring>
#include <memory>
#include <random>

#include "bench/bench.h"
#include "bench/peers/hash_map_peers.h"

namespace kdzk_bench {
namespace {

enum class Way { callback, hash_column };

constexpr uint32_t vector_rows = 4096;

uint64_t call_back_64(const void* key, uint32_t length, uint64_t seed) {
#ifdef KDZK_BENCH_XXHASH
  return XXH3_64bits_withSeed(key, length, seed);
#else
  (void)length;
  uint64_t value;
  std::memcpy(&value, key, sizeof value);
  return multiply_shift(value ^ seed);
#endif
}

uint64_t call_back_32(const void* key, uint32_t, uint64_t) {
  uint32_t value;
  std::memcpy(&value, key, sizeof value);
  return multiply_shift(value);
}

// The library's side: a table, and the vectors of a host.
template <class Key>
class Table {
 public:
  static constexpr bool key_mode = sizeof(Key) == 4;

  Table(uint32_t build_rows, Way way)
      : way_(way), buckets_(build_rows / (key_mode ? 2 : 4)), arena_(table_bytes() + overflow_bytes() + 64) {
    table_ = static_cast<uint8_t*>(arena_.take(table_bytes() + overflow_bytes(), 64));
    limit_ = table_ + table_bytes() + overflow_bytes();
    const int bucket_bits = __builtin_ctz(buckets_);
    desc_.flags = key_mode ? 8 | KDZK_HT_KEY_MODE : 2;
    desc_.bucket_hi = desc_.dir_hi = static_cast<uint8_t>((key_mode ? 32 : 16) + bucket_bits - 1);
    desc_.tables = &table_;
    desc_.cursors = &cursor_;
    desc_.limits = &limit_;
    key_enc_.width = 64;
    key_enc_.flags = key_mode ? KDZK_HASH_U32 : way == Way::callback ? KDZK_FIXED_BYTES : KDZK_NUMERIC;
    id_enc_.flags = KDZK_IMPLICIT_IDS;
    keys_.enc_ctx = &key_enc_;
    ids_.enc_ctx = &id_enc_;
  }

  void build(const Key* keys, uint32_t n) {
    std::memset(table_, 0, table_bytes());
    cursor_ = table_ + table_bytes();
    for (uint32_t row = 0; row < n; row += vector_rows) {
      offer(keys, n, row);
      kdzk_exec exec{};
      if (library().ht_build(&desc_, &keys_, &ids_, -1, hash, &exec) != KDZK_DONE) __builtin_trap();
    }
  }

  uint64_t probe(const Key* keys, uint32_t n, const Key* build_keys, RowPair* pairs) {
    const RowPair* const first = pairs;
    for (uint32_t row = 0; row < n; row += vector_rows) {
      offer(keys, n, row);
      kdzk_exec exec{};
      for (bool done = false; !done;) {
        kdzk_vec out{};
        out.data = key_mode ? pairs : candidates_.data();
        out.nrows = vector_rows * 2;
        done = library().ht_probe(&out, &keys_, &ids_, &desc_, hash, &exec) == KDZK_DONE;
        if constexpr (key_mode) {
          pairs += out.nrows;
        } else {
          pairs = verify(keys, build_keys, candidates_.data(), out.nrows, pairs);
        }
      }
    }
    return static_cast<uint64_t>(pairs - first);
  }

 private:
  Way way_;
  uint64_t buckets_;
  Arena arena_;
  uint8_t *table_, *cursor_ = nullptr, *limit_;
  kdzk_htdesc desc_{};
  kdzk_enc_ctx key_enc_{}, id_enc_{};
  kdzk_vec keys_{}, ids_{};
  std::vector<uint64_t> hashes_ = std::vector<uint64_t>(vector_rows);
  std::vector<RowPair> candidates_ = std::vector<RowPair>(vector_rows * 2);

  static constexpr kdzk_hash_fn hash = key_mode ? call_back_32 : call_back_64;

  uint64_t table_bytes() const { return buckets_ * 64; }
  uint64_t overflow_bytes() const { return buckets_ * 16 + 4096; }

  // The next vector of rows.
  void offer(const Key* keys, uint32_t n, uint32_t row) {
    keys_.nrows = n - row < vector_rows ? n - row : vector_rows;
    ids_.rowbase = row;
    keys_.data = const_cast<Key*>(keys + row);
    if (way_ == Way::hash_column) {
      for (uint32_t i = 0; i < keys_.nrows; i++) hashes_[i] = hash_of(keys[row + i]);
      keys_.data = hashes_.data();
    }
  }

  static RowPair* verify(const Key* keys, const Key* build_keys, const RowPair* candidates, uint32_t n, RowPair* to) {
    for (uint32_t i = 0; i < n; i++) {
      const RowPair pair = candidates[i];  // so that the loads of keys don't wait for where the pair goes
      *to = pair;
      to += keys[pair.probe_row] == build_keys[pair.build_row] ? 1 : 0;
    }
    return to;
  }
};

// Both sides' keys. Those of the build side differ; of the probe side's, so many in a hundred are among them.
template <class Key>
struct Sides {
  std::vector<Key> build, probe;
  std::vector<RowPair> pairs;
  uint64_t found = 0;

  Sides(uint32_t build_rows, unsigned percent)
      : build(build_rows), probe(build_rows * 4), pairs(build_rows * 4 + 2 * vector_rows) {
    std::mt19937_64 random(build_rows);
    const auto key = [](uint64_t i) {  // one to one in 32 bits and in 64
      return static_cast<Key>(i * 0xbf58476d1ce4e5b9 + 0x94d049bb133111eb);
    };
    for (uint32_t row = 0; row < build_rows; row++) build[row] = key(row);
    std::shuffle(build.begin(), build.end(), random);
    for (Key& one : probe) {
      const uint64_t number = random() % build_rows;
      one = random() % 100 < percent ? key(number) : key(number + build_rows);
    }
  }
  Answer answer() const {
    uint64_t sum = 0;
    for (uint64_t i = 0; i < found; i++) sum = sum * 31 + (pairs[i].probe_row ^ pairs[i].build_row << 32);
    return {found, {sum}};
  }
};

template <class Key>
void add_join(uint32_t build_rows, Way way) {
  const std::string how = sizeof(Key) == 4       ? "multiply_shift/u32_keys/"
                          : way == Way::callback ? std::string(hash_of_64_bits) + "/callback/"
                                                 : std::string(hash_of_64_bits) + "/hash_column/";
  const std::string size =
      build_rows < 1 << 20 ? std::to_string(build_rows >> 10) + "Ki" : std::to_string(build_rows >> 20) + "Mi";
  for (const auto& [percent, suffix] : {std::pair{0u, ""}, {100u, "/100%_hit"}, {10u, "/10%_hit"}}) {
    const bool build_only = percent == 0;
    const auto make = [=, percent = percent] {
      auto sides = std::make_shared<Sides<Key>>(build_rows, build_only ? 50 : percent);
      auto table = std::make_shared<Table<Key>>(build_rows, way);
      const auto build = [=] { table->build(sides->build.data(), build_rows); };
      const auto probe = [=] {
        sides->found = table->probe(sides->probe.data(), build_rows * 4, sides->build.data(), sides->pairs.data());
      };
      const auto add = [=](std::vector<Peer>& peers, const std::string& name, auto build, auto probe) {
        if (build_only) {
          peers.push_back({name, build, [=] { return probe(), sides->answer(); }});
        } else {
          build();
          peers.push_back({name, probe, [=] { return sides->answer(); }});
        }
      };
      std::vector<Peer> peers;
      add(peers, "kdzk", build, probe);
      for (const auto& [name, map] : hash_maps<Key>(build_rows, way == Way::hash_column)) {
        add(
            peers, name, [=, map = map] { map->build(sides->build.data(), build_rows); },
            [=, map = map] { sides->found = map->probe(sides->probe.data(), build_rows * 4, sides->pairs.data()); });
      }
      return peers;
    };
    const uint64_t rows = build_only ? build_rows : uint64_t{build_rows} * 4;
    add_group(build_only ? "ht_build" : "ht_probe", how + size + suffix, rows, rows * sizeof(Key), make);
  }
}

}  // namespace

template <>
HashFunction hash_function<uint64_t>() {
  return call_back_64;
}
template <>
HashFunction hash_function<uint32_t>() {
  return call_back_32;
}

void add_hash_table() {
  for (const uint32_t build_rows : {1u << 14, 1u << 18, 1u << 22}) {
    add_join<uint64_t>(build_rows, Way::callback);
    add_join<uint64_t>(build_rows, Way::hash_column);
    add_join<uint32_t>(build_rows, Way::callback);
  }
}

}  // namespace kdzk_bench

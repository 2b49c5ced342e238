// SPDX-License-Identifier: Apache-2.0
// What all benchmarks share: the library, opened as a host opens it; data; groups of peers; and one form of name.
//
// A benchmark is named <kernel>/<data>/<peer>. All peers of the same <kernel>/<data> form a group: they do the same
// work on the same bytes, must give the same answer before they are timed, and take turns while they are. The table at
// the end of a run sets them side by side.
#ifndef BENCH_BENCH_H
#define BENCH_BENCH_H

#include <benchmark/benchmark.h>
#include <kdzk/kdzk.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace kdzk_bench {

const kdzk_specialized_ctx& library();

constexpr uint32_t in_cache = 64 * 1024;          // rows
constexpr uint32_t in_memory = 64 * 1024 * 1024;  // rows
std::string size_name(uint32_t rows);             // "64Ki", "64Mi"

// `bytes` random bytes and KDZK_PADDING behind them, the same for all who ask: uniformly distributed codes of any
// width.
const uint8_t* random_bytes(uint64_t bytes);

// What one call gave: peers must agree on it.
struct Answer {
  uint64_t hits;
  std::vector<uint64_t> bits;
  bool operator==(const Answer&) const = default;
};

struct Peer {
  std::string name;
  std::function<void()> run;       // one call, the thing that is timed
  std::function<Answer()> answer;  // of the last call; null if the peer does other work, as a bare read does
};

// The peers are made when the group's turn comes and live as long as it lasts. The first is the library's, and named
// "kdzk"; the others are what it is compared with.
void add_group(const std::string& kernel, const std::string& data, uint64_t rows, uint64_t bytes,
               std::function<std::vector<Peer>()> make_peers);

// Each file of benchmarks adds its own groups.
void add_predicates();
void add_bit_vectors();
void add_bloom();
void add_burst_rle();
void add_hash_table();
void add_prefix_records();
void add_row_store();
void add_decode_dict();
void add_decode_unpack();
void add_numeric();
void add_set();
void add_sqzb();
void add_host_kit();
void add_partition();
void add_xlate();

}  // namespace kdzk_bench

#endif

// SPDX-License-Identifier: Apache-2.0
// What all benchmarks share: the library, opened as a host opens it; data; and one form of name.
//
// A benchmark is named <kernel>/<data>/<peer>. All peers of the same <kernel>/<data> do the same work on the same
// bytes, and must give the same result before they are timed. The table at the end of a run sets them side by side.
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

// What one call gave: peers must agree on it. A peer that gives no answer (a bare read) returns nothing.
struct Answer {
  uint64_t hits;
  std::vector<uint64_t> bits;
  bool operator==(const Answer&) const = default;
};

struct Peer {
  std::string name;
  std::function<void()> run;       // one call, the thing that is timed
  std::function<Answer()> answer;  // of the last call; null if there is none
};

// Registers the peers of one kernel on one kind of data. The first is compared with the others.
void register_peers(const std::string& kernel, const std::string& data, uint64_t rows, uint64_t bytes,
                    std::function<std::vector<Peer>()> make_peers, const std::vector<std::string>& names);

// Each file of benchmarks registers its own.
void register_predicates();
void register_bit_vectors();

}  // namespace kdzk_bench

#endif

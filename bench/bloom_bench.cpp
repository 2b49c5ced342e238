// SPDX-License-Identifier: Apache-2.0
// The bloom filter test of random hashes in filters of 16 KiB, 256 KiB and 64 MiB with one bit in eight set, or, for
// "half_hit", one in two; paged ones have pages of 16 KiB. A run tests 16 columns, one after the other, of 64 Ki rows
// in the small filters: with so many rows, answers don't come from what the branch predictor remembers of the run
// before, which with 64 Ki rows in all makes loops that jump on the answer up to 2.5 times as fast as on rows that they
// haven't seen. In the filter of 64 MiB, 64 Ki rows of each column are tested, which ask for more lines than the caches
// hold.
//
// `plain_loop` is what one writes: rows in turn, or the set bits of the selection's words by counting zeros, and
// `if (hit)` set the bit, count, first and last. `branchless` does the same without a jump on the answer. All clear the
// result first. Bytes are those of the tested values.

#include <kdzk/host/bloom.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <random>

#include "bench/bench.h"
#include "bench/peers/bloom_loops.h"

namespace kdzk_bench {
namespace {

struct BloomTesting {
  static constexpr uint32_t columns = 16;
  kdzk_enc_ctx values_enc{}, filter_enc{};
  kdzk_vec result{}, values{}, filter{};
  kdzk_exec exec{};
  kdzk_hit_range range;
  std::vector<kdzk_hit_range> ranges;
  uint64_t hits = 0;
  std::vector<uint64_t> bits, bytes, selection;
  std::vector<uint8_t*> pages;
  BloomTest test;

  // `nrows` of each column, a multiple of 64.
  BloomTesting(int element, uint64_t filter_bytes, bool paged, bool half_hit, uint32_t nrows, uint32_t sparsity)
      : bits(columns * nrows / 64), bytes(filter_bytes / 8) {
    const auto* const random = reinterpret_cast<const uint64_t*>(random_bytes(filter_bytes * 3));
    for (size_t i = 0; i < bytes.size(); i++) {
      bytes[i] = half_hit ? random[i] : random[3 * i] & random[3 * i + 1] & random[3 * i + 2];
    }
    kdzk_host_bloom_shape(&filter_enc, static_cast<uint32_t>(filter_bytes * 8 - 1), paged ? 16384 : 0);
    for (uint32_t page = 0; page < kdzk_host_bloom_pages(&filter_enc); page++) {
      pages.push_back(reinterpret_cast<uint8_t*>(bytes.data()) + page * kdzk_host_bloom_bytes(&filter_enc));
    }
    filter.enc_ctx = &filter_enc;
    filter.bitvec = paged ? reinterpret_cast<uint64_t*>(pages.data()) : bytes.data();
    values_enc.flags = KDZK_NUMERIC;
    values_enc.width = static_cast<uint8_t>(element * 8);
    values.enc_ctx = &values_enc;
    values.nrows = nrows;
    values.data = const_cast<uint8_t*>(random_bytes(uint64_t{columns} * nrows * 8));
    result.data = &range;
    if (sparsity > 0) {
      selection.resize(bits.size());
      std::mt19937 engine(1);
      for (uint32_t row = 0; row < columns * nrows; row++) {
        selection[row / 64] |= uint64_t{engine() % sparsity == 0} << row % 64;
      }
    }
    test = {static_cast<const uint8_t*>(values.data),
            element,
            filter.bitvec,
            paged,
            filter_enc.bloom_mask,
            filter_enc.page_shift,
            filter_enc.page_mask,
            nullptr,
            nrows};
  }
  BloomTesting(const BloomTesting&) = delete;

  // Calls test_one() for each column, with the records and the loop's arguments set to it.
  template <class TestOne>
  void for_columns(const TestOne& test_one) {
    hits = 0;
    ranges.clear();
    const auto* const first = static_cast<const uint8_t*>(values.data);
    for (uint32_t column = 0; column < columns; column++) {
      const uint32_t word = column * values.nrows / 64;
      test.values = first + uint64_t{column} * values.nrows * static_cast<uint32_t>(test.element);
      test.selection = selection.empty() ? nullptr : selection.data() + word;
      test_one(bits.data() + word);
      hits += result.hits;
      ranges.push_back(range);
    }
  }
  void run() {
    for_columns([this](uint64_t* out) {
      std::memset(out, 0, values.nrows / 8);
      kdzk_vec column = values;
      column.data = const_cast<uint8_t*>(test.values);
      exec.selection = test.selection;
      result.bitvec = out;
      library().bloom_test(&result, &column, &filter, &exec);
    });
  }
  void run_loop(bool branchless) {
    for_columns([=, this](uint64_t* out) { result.hits = bloom_loop(test, branchless, out, &range); });
  }
  Answer answer() const {
    std::vector<uint64_t> all = bits;
    for (const kdzk_hit_range& r : ranges) all.insert(all.end(), {r.first, r.last});
    return {hits, all};
  }
};

// All rows with `sparsity` 0, otherwise one row in so many.
void add(int element, uint64_t filter_bytes, bool paged, bool half_hit, uint32_t sparsity) {
  const bool small = filter_bytes <= 256 << 10;
  const char* const size = filter_bytes == 16 << 10 ? "16KiB" : small ? "256KiB" : "64MiB";
  const std::string name = "bloom_" + std::to_string(element * 8) + "bit_" + (paged ? "paged" : "flat");
  const std::string rows = sparsity == 0 ? "all" : "one_in_" + std::to_string(sparsity);
  const uint32_t every = std::max(sparsity, 1u), nrows = small ? in_cache : in_cache * every;
  const uint64_t tested = uint64_t{BloomTesting::columns} * nrows / every;
  add_group(name, std::string(size) + "_" + rows + (half_hit ? "_half_hit" : ""), tested,
            tested * static_cast<uint64_t>(element), [=] {
              const auto t = std::make_shared<BloomTesting>(element, filter_bytes, paged, half_hit, nrows, sparsity);
              const auto answer = [=] { return t->answer(); };
              return std::vector<Peer>{{"kdzk", [=] { t->run(); }, answer},
                                       {"plain_loop", [=] { t->run_loop(false); }, answer},
                                       {"branchless", [=] { t->run_loop(true); }, answer}};
            });
}

}  // namespace

void add_bloom() {
  for (const uint64_t filter_bytes : {uint64_t{16} << 10, uint64_t{256} << 10, uint64_t{64} << 20}) {
    for (const bool paged : {false, true}) {
      for (const int element : {4, 8}) {
        for (const uint32_t sparsity : {0u, 2u, 16u}) add(element, filter_bytes, paged, false, sparsity);
        add(element, filter_bytes, paged, true, 2);
      }
    }
  }
}

}  // namespace kdzk_bench

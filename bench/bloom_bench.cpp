// SPDX-License-Identifier: Apache-2.0
// The bloom filter test on 64 Ki random hashes, or as many selected ones of more, in filters of 16 KiB, 256 KiB and
// 64 MiB (here 1 Mi hashes) with one bit in eight set; paged ones have pages of 16 KiB. `plain_loop` jumps on the
// answer, `branchless` doesn't. All clear the result first. Bytes are those of the tested values.

#include <kdzk/host/bloom.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "bench/bench.h"
#include "bench/peers/bloom_loops.h"

namespace kdzk_bench {
namespace {

struct BloomTesting {
  kdzk_enc_ctx values_enc{}, filter_enc{};
  kdzk_vec result{}, values{}, filter{};
  kdzk_exec exec{};
  kdzk_hit_range range;
  std::vector<uint64_t> bits, bytes, selection;
  std::vector<uint8_t*> pages;
  BloomTest test;

  BloomTesting(int element, uint64_t filter_bytes, bool paged, uint32_t nrows, uint32_t sparsity)
      : bits(nrows / 64), bytes(filter_bytes / 8) {
    const auto* const random = reinterpret_cast<const uint64_t*>(random_bytes(filter_bytes * 3));
    for (size_t i = 0; i < bytes.size(); i++) bytes[i] = random[3 * i] & random[3 * i + 1] & random[3 * i + 2];
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
    values.data = const_cast<uint8_t*>(random_bytes(uint64_t{nrows} * 16)) + uint64_t{nrows} * 8;
    result.bitvec = bits.data();
    result.data = &range;
    if (sparsity > 0) {
      selection.resize(nrows / 64);
      for (uint32_t row = 0; row < nrows; row++) {
        selection[row / 64] |= uint64_t{(random[row] >> 8) % sparsity == 0} << row % 64;
      }
      exec.selection = selection.data();
    }
    test = {static_cast<const uint8_t*>(values.data),
            element,
            filter.bitvec,
            paged,
            filter_enc.bloom_mask,
            filter_enc.page_shift,
            filter_enc.page_mask,
            exec.selection,
            nrows};
  }
  BloomTesting(const BloomTesting&) = delete;

  void run() {
    std::memset(bits.data(), 0, bits.size() * 8);
    library().bloom_test(&result, &values, &filter, &exec);
  }
  void run_loop(bool branchless) { result.hits = bloom_loop(test, branchless, bits.data(), &range); }
  Answer answer() const {
    std::vector<uint64_t> all = bits;
    all.push_back(range.first);
    all.push_back(range.last);
    return {result.hits, all};
  }
};

// All rows with `sparsity` 0, otherwise one row in so many.
void add(int element, uint64_t filter_bytes, bool paged, uint32_t sparsity) {
  const char* const size = filter_bytes == 16 << 10 ? "16KiB" : filter_bytes == 256 << 10 ? "256KiB" : "64MiB";
  const std::string name = "bloom_" + std::to_string(element * 8) + "bit_" + (paged ? "paged" : "flat");
  const std::string rows = sparsity == 0 ? "all" : "one_in_" + std::to_string(sparsity);
  // Few enough rows for the cache, or enough for the lines that they ask for to leave it.
  const uint32_t tested = filter_bytes <= 256 << 10 ? in_cache : 16 * in_cache;
  add_group(name, std::string(size) + "_" + rows, tested, tested * static_cast<uint64_t>(element), [=] {
    const auto t =
        std::make_shared<BloomTesting>(element, filter_bytes, paged, tested * std::max(sparsity, 1u), sparsity);
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
        for (const uint32_t sparsity : {0u, 2u, 16u}) add(element, filter_bytes, paged, sparsity);
      }
    }
  }
}

}  // namespace kdzk_bench

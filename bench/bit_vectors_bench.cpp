// SPDX-License-Identifier: Apache-2.0
// Bit vector services beside plain loops over words. Rows are bits: bytes per second count the sources.

#include <memory>

#include "bench/bench.h"
#include "bench/peers/plain_loops.h"

namespace kdzk_bench {
namespace {

constexpr uint32_t memory_rows = 1u << 30;  // 128 MiB a vector, beyond all caches

struct Vectors {
  const uint64_t *a, *b;
  std::vector<uint64_t> dst;
  uint32_t count = 0;

  explicit Vectors(uint64_t nrows)
      : a(reinterpret_cast<const uint64_t*>(random_bytes(nrows / 4))), b(a + nrows / 64), dst(nrows / 64) {}
};

void add_and(uint32_t nrows, const char* size) {
  const auto make = [=] {
    auto v = std::make_shared<Vectors>(nrows);
    const auto answer = [=] { return Answer{v->count, v->dst}; };
    return std::vector<Peer>{
        {"kdzk", [=] { library().bv64.bv_and(v->dst.data(), &v->count, v->a, v->b, nrows); }, answer},
        {"plain_loop", [=] { v->count = and_count(v->dst.data(), v->a, v->b, nrows / 64); }, answer}};
  };
  add_group("bv64_and", size, nrows, nrows / 4, make);
}

void add_count(uint32_t nrows, const char* size) {
  const auto make = [=] {
    auto v = std::make_shared<Vectors>(nrows);
    const auto answer = [=] { return Answer{v->count, {}}; };
    return std::vector<Peer>{{"kdzk", [=] { library().bv64.bv_count(&v->count, v->a, nrows); }, answer},
                             {"plain_loop", [=] { v->count = count_words(v->a, nrows / 64); }, answer}};
  };
  add_group("bv64_count", size, nrows, nrows / 8, make);
}

// Row numbers of the set bits, one bit in `sparsity` being set.
void add_batch(uint32_t sparsity) {
  const auto make = [=] {
    auto bits = std::make_shared<std::vector<uint64_t>>(in_cache / 64);
    const auto* const random = reinterpret_cast<const uint32_t*>(random_bytes(uint64_t{in_cache} * 4));
    for (uint32_t row = 0; row < in_cache; row++)
      (*bits)[row / 64] |= uint64_t{random[row] % sparsity == 0} << row % 64;
    auto rows = std::make_shared<std::vector<uint32_t>>(in_cache);
    auto count = std::make_shared<uint64_t>(0);
    const auto answer = [=] {
      return Answer{*count, std::vector<uint64_t>(rows->begin(), rows->begin() + static_cast<long>(*count))};
    };
    return std::vector<Peer>{
        {"kdzk",
         [=] {
           kdzk_bv_iter iter;
           library().bv64.iter_init(&iter, bits->data(), in_cache, 0, 0);
           *count = library().bv64.next_set_batch(&iter, rows->data(), in_cache);
         },
         answer},
        {"plain_loop", [=] { *count = list_set_rows(bits->data(), in_cache, rows->data()); }, answer}};
  };
  add_group("bv64_next_set_batch", "one_in_" + std::to_string(sparsity), in_cache, in_cache / 8, make);
}

}  // namespace

void add_bit_vectors() {
  add_and(in_cache, "64Ki");
  add_and(memory_rows, "1Gi");
  add_count(in_cache, "64Ki");
  add_count(memory_rows, "1Gi");
  for (uint32_t sparsity : {2u, 16u, 256u}) add_batch(sparsity);
}

}  // namespace kdzk_bench

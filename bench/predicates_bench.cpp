// SPDX-License-Identifier: Apache-2.0
// Predicates on uniformly distributed codes, in cache and from memory, beside a plain loop over the same packed codes
// and a bare read of the same bytes.

#include <cmath>
#include <cstring>
#include <memory>

#include "bench/bench.h"
#include "bench/peers/plain_loops.h"

namespace kdzk_bench {
namespace {

uint32_t kernel_id(int width, uint32_t op) {
  return kdzk_id_of_kind(kdzk_kind_of(kdzk_row_of_width(static_cast<uint32_t>(width)), KDZK_FAMILY_DICT), op);
}

// One call of a dict kernel, with all that it needs.
struct DictCall {
  kdzk_kernel kernel;
  bool two_sided;
  uint32_t low, high;
  std::vector<uint64_t> bits;
  kdzk_enc_ctx enc{};
  kdzk_vec input{}, result{};
  kdzk_kargs low_args{}, high_args{};

  DictCall(int width, uint32_t op, uint32_t lo, uint32_t hi, uint32_t nrows)
      : kernel(library().dispatch[kernel_id(width, op)]),
        two_sided(op >= KDZK_OP_GT_LT),
        low(lo),
        high(hi),
        bits((uint64_t{nrows} + 63) / 64) {
    enc.width = static_cast<uint8_t>(width);
    enc.flags = KDZK_PACKED_DICT;
    input.data = const_cast<uint8_t*>(random_bytes(uint64_t{nrows} * static_cast<uint64_t>(width) / 8));
    input.enc_ctx = &enc;
    input.nrows = result.nrows = nrows;
    result.bitvec = bits.data();
    low_args.data = &low;
    high_args.data = &high;
  }

  void run() {
    if (two_sided) {
      kernel.between(&result, &input, &low_args, &high_args, nullptr);
    } else {
      kernel.compare(&result, &input, &low_args, nullptr);
    }
  }
};

uint64_t stream_bytes(int width, uint32_t nrows) { return uint64_t{nrows} * static_cast<uint64_t>(width) / 8; }

void register_lt(int width, uint32_t nrows) {
  const auto k = std::max(1u, static_cast<uint32_t>(std::lround(0.37 * std::ldexp(1.0, width))));
  const bool cached = nrows == in_cache;
  const auto make = [=] {
    auto call = std::make_shared<DictCall>(width, KDZK_OP_LT, k, 0, nrows);
    const auto* const stream = static_cast<const uint8_t*>(call->input.data);
    const auto answer = [=] { return Answer{call->result.hits, call->bits}; };
    std::vector<Peer> peers = {{"kdzk", [=] { call->run(); }, answer}};
    if (cached) {
      peers.push_back({"plain_loop",
                       [=] {
                         std::memset(call->bits.data(), 0, call->bits.size() * 8);
                         call->result.hits = lt_packed(stream, width, k, call->bits.data(), nrows);
                       },
                       answer});
      peers.push_back({"branchless_loop",
                       [=] { call->result.hits = lt_packed_branchless(stream, width, k, call->bits.data(), nrows); },
                       answer});
    }
    peers.push_back(
        {"bare_read", [=] { benchmark::DoNotOptimize(bare_read(stream, stream_bytes(width, nrows))); }, nullptr});
    return peers;
  };
  std::vector<std::string> names = {"kdzk"};
  if (cached) names.insert(names.end(), {"plain_loop", "branchless_loop"});
  names.push_back("bare_read");
  register_peers("lt_dict_" + std::to_string(width) + "bit", size_name(nrows), nrows, stream_bytes(width, nrows), make,
                 names);
}

// The other operations beside `lt` of the same width.
void register_op(int width, const char* word, uint32_t op, uint32_t low, uint32_t high) {
  const auto make = [=] {
    auto call = std::make_shared<DictCall>(width, op, low, high, in_cache);
    auto lt = std::make_shared<DictCall>(width, KDZK_OP_LT, high, 0, in_cache);
    return std::vector<Peer>{{"kdzk", [=] { call->run(); }, nullptr}, {"lt", [=] { lt->run(); }, nullptr}};
  };
  register_peers(std::string(word) + "_dict_" + std::to_string(width) + "bit", "64Ki", in_cache,
                 stream_bytes(width, in_cache), make, {"kdzk", "lt"});
}

// At 1 bit the ceiling is a copy of the column.
void register_one_bit(uint32_t nrows) {
  for (const uint32_t op : {KDZK_OP_EQ, KDZK_OP_NE}) {
    const std::string word = op == KDZK_OP_EQ ? "eq" : "ne";
    const auto make = [=] {
      auto call = std::make_shared<DictCall>(1, op, 1, 0, nrows);
      auto copy = std::make_shared<std::vector<uint64_t>>(call->bits.size());
      return std::vector<Peer>{{"kdzk", [=] { call->run(); }, nullptr},
                               {"memcpy",
                                [=] {
                                  std::memcpy(copy->data(), call->input.data, copy->size() * 8);
                                  benchmark::ClobberMemory();
                                },
                                nullptr}};
    };
    register_peers(word + "_dict_1bit", size_name(nrows), nrows, nrows / 8, make, {"kdzk", "memcpy"});
  }
}

}  // namespace

void register_predicates() {
  for (const uint32_t nrows : {in_cache, in_memory}) {
    register_one_bit(nrows);
    for (int width = 2; width <= 32; width++) {
      if (kdzk_row_of_width(static_cast<uint32_t>(width)) == KDZK_NO_ROW_OF_WIDTH) continue;
      if (library().dispatch[kernel_id(width, KDZK_OP_LT)].any != nullptr) register_lt(width, nrows);
    }
  }
  for (int width = 2; width <= 24; width++) {
    if (kdzk_row_of_width(static_cast<uint32_t>(width)) == KDZK_NO_ROW_OF_WIDTH) continue;
    if (library().dispatch[kernel_id(width, KDZK_OP_LT)].any == nullptr) continue;
    const uint32_t low = (1u << width) / 4, high = low + std::max(1u, (1u << width) * 37 / 100);
    register_op(width, "eq", KDZK_OP_EQ, low, high);
    register_op(width, "gt_lt", KDZK_OP_GT_LT, low, high);
    register_op(width, "ge_le", KDZK_OP_GE_LE, low, high);
  }
}

}  // namespace kdzk_bench

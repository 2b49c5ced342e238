// SPDX-License-Identifier: Apache-2.0
// Decode-unpack in its ways of picking rows. `plain_loop` fetches and stores row by row, `store_loop` only stores the
// same bytes, `row_range` is the kernel over all of the rows that a selection picks from, `fill_per_run` one fill a
// run. Bytes are those of the output.

#include <algorithm>
#include <cstring>
#include <memory>

#include "bench/bench.h"
#include "bench/peers/unpack_loops.h"

namespace kdzk_bench {
namespace {

struct Unpacking {
  kdzk_kernel kernel;
  kdzk_enc_ctx enc{};
  kdzk_vec input{}, result{};
  kdzk_exec exec{};
  std::vector<uint64_t> out;
  int element;

  Unpacking(int width, bool wide, const uint8_t* data, uint32_t nrows)
      : out(nrows / 2 + 8),
        element(wide || width > 16 ? 4
                : width > 8        ? 2
                                   : 1) {
    const uint32_t row = kdzk_row_of_width(static_cast<uint32_t>(width));
    kernel = library().dispatch[kdzk_id_of_kind(kdzk_kind_of(row, KDZK_FAMILY_DICT), KDZK_OP_DECODE_UNPACK)];
    input.data = const_cast<uint8_t*>(data);
    input.enc_ctx = &enc;
    input.nrows = result.nrows = nrows;
    result.data = out.data();
    exec.flags = wide ? KDZK_EX_UNPACK_WIDE : 0;
  }
  Unpacking(const Unpacking&) = delete;

  void run() {
    exec.row = 0;
    exec.run = {};
    kernel.decode(&result, &input, &exec);
  }
  Answer answer() const {
    std::vector<uint64_t> elements(out.begin(), out.begin() + result.hits * static_cast<uint32_t>(element) / 8);
    return {result.hits, elements};
  }
};

using SharedUnpacking = std::shared_ptr<Unpacking>;

Peer kdzk_peer(const SharedUnpacking& u) {
  return {"kdzk", [=] { u->run(); }, [=] { return u->answer(); }};
}

template <class Loop>
Peer loop_peer(const char* name, const SharedUnpacking& u, const Loop& loop) {
  return {name, [=] { loop(u->out.data()); }, [=] { return u->answer(); }};
}

std::string name_of(const char* way, int width, bool wide) {
  return "unpack" + std::string(way) + "_" + std::to_string(width) + "bit" + (wide ? "_wide" : "");
}

uint64_t stream_bytes(int width, uint32_t nrows) { return uint64_t{nrows} * static_cast<uint64_t>(width) / 8; }

uint64_t element_bytes(int width, bool wide) { return wide || width > 16 ? 4 : width > 8 ? 2 : 1; }

void add_range(int width, bool wide, uint32_t nrows) {
  const uint64_t bytes = nrows * element_bytes(width, wide);
  add_group(name_of("", width, wide), size_name(nrows), nrows, bytes, [=] {
    const uint8_t* const stream = random_bytes(stream_bytes(width, nrows));
    const auto u = std::make_shared<Unpacking>(width, wide, stream, nrows);
    return std::vector<Peer>{
        kdzk_peer(u),
        loop_peer("plain_loop", u, [=](void* out) { unpack_loop(stream, width, u->element, out, nrows); }),
        {"store_loop", [=] { store_loop(u->out.data(), bytes); }, nullptr}};
  });
}

// One row in `sparsity` selected.
void add_selection(int width, bool wide, uint32_t sparsity, bool selective) {
  const char* const way = selective ? "_positions" : "_blocks";
  const uint64_t bytes = in_cache * element_bytes(width, wide) / sparsity;
  add_group(name_of(way, width, wide), "one_in_" + std::to_string(sparsity), in_cache, bytes, [=] {
    const uint8_t* const stream = random_bytes(stream_bytes(width, in_cache));
    const auto u = std::make_shared<Unpacking>(width, wide, stream, in_cache);
    const auto range = std::make_shared<Unpacking>(width, wide, stream, in_cache);
    const auto bits = std::make_shared<std::vector<uint64_t>>(in_cache / 64);
    const auto* const random = reinterpret_cast<const uint32_t*>(random_bytes(uint64_t{in_cache} * 4));
    for (uint32_t row = 0; row < in_cache; row++) {
      (*bits)[row / 64] |= uint64_t{random[row] % sparsity == 0} << row % 64;
    }
    u->exec.selection = bits->data();
    if (selective) u->exec.flags |= KDZK_EX_SELECTIVE;
    return std::vector<Peer>{
        kdzk_peer(u),
        loop_peer("plain_loop", u,
                  [=](void* out) { unpack_selected_loop(stream, width, u->element, bits->data(), out, in_cache); }),
        {"row_range", [=] { range->run(); }, nullptr}};
  });
}

// Runs of 1 to 2 * average - 1 rows, 8-bit lengths.
void add_runs(int width, bool wide, uint32_t average) {
  const uint64_t bytes = in_cache * element_bytes(width, wide);
  add_group(name_of("_runs", width, wide), "of_" + std::to_string(average), in_cache, bytes, [=] {
    const uint8_t* const stream = random_bytes(stream_bytes(width, in_cache));
    const auto u = std::make_shared<Unpacking>(width, wide, stream, in_cache);
    const auto lengths = std::make_shared<std::vector<uint8_t>>();
    const auto* const random = reinterpret_cast<const uint32_t*>(random_bytes(uint64_t{in_cache} * 4));
    for (uint32_t rows = 0, i = 0; rows < in_cache; rows += lengths->back(), i++) {
      lengths->push_back(static_cast<uint8_t>(std::min(1 + random[i] % (2 * average - 1), in_cache - rows)));
    }
    u->enc.flags = KDZK_RLE;
    u->enc.unpack_base = reinterpret_cast<uint64_t>(lengths->data());
    u->enc.unpack_width = 8;
    return std::vector<Peer>{kdzk_peer(u), loop_peer("fill_per_run", u, [=](void* out) {
                               expand_runs_loop(stream, width, u->element, lengths->data(),
                                                static_cast<uint32_t>(lengths->size()), out);
                             })};
  });
}

}  // namespace

void add_decode_unpack() {
  for (int width = 1; width <= 32; width++) {
    if (kdzk_row_of_width(static_cast<uint32_t>(width)) == KDZK_NO_ROW_OF_WIDTH) continue;
    add_range(width, false, in_cache);
    if (width <= 16) add_range(width, true, in_cache);
  }
  for (int width : {4, 8, 12, 13, 20, 32}) add_range(width, false, in_memory);
  for (const auto& [width, wide] : {std::pair(4, false),
                                    {5, false},
                                    {8, false},
                                    {11, false},
                                    {12, false},
                                    {13, true},
                                    {17, false},
                                    {20, false},
                                    {32, false}}) {
    add_selection(width, wide, 2, false);
    add_selection(width, wide, 16, true);
    add_selection(width, wide, 256, true);
  }
  for (const auto& [width, wide] : {std::pair(5, false), {13, false}, {13, true}, {20, false}}) {
    for (uint32_t average : {4u, 16u, 100u}) add_runs(width, wide, average);
  }
}

}  // namespace kdzk_bench

// SPDX-License-Identifier: Apache-2.0
// Set membership of packed codes, half of them in the set. Both loops get their codes unpacked, as 16-bit or, above 16
// bits, 32-bit integers: `plain_loop` sets a bit in the vector for each row, `word_loop` stores 64 rows at once. Bytes
// are those of the packed column. `64Ki` and `64Mi` have tables of up to 32 KiB, from 19 bits on by codes that stay
// below 2^18; `64Ki_wide` has the table of the whole width.

#include <kdzk/host/packed_codes.h>

#include <algorithm>
#include <memory>

#include "bench/bench.h"
#include "bench/peers/set_loops.h"

namespace kdzk_bench {
namespace {

template <class Code>
struct Membership {
  kdzk_kernel kernel;
  kdzk_enc_ctx enc{};
  kdzk_vec input{}, result{}, set{};
  std::vector<uint8_t> stream;
  std::vector<Code> codes;
  std::vector<uint64_t> table, bits;
  uint32_t hits = 0;

  Membership(uint32_t width, uint32_t code_bits, uint32_t nrows)
      : stream(kdzk_host_packed_bytes(nrows, width) + KDZK_PADDING),
        codes(nrows),
        table((uint64_t{1} << code_bits) / 64 + 1),
        bits(nrows / 64 + 1) {
    const uint32_t row = kdzk_row_of_width(width);
    kernel = library().dispatch[kdzk_id_of_kind(kdzk_kind_of(row, KDZK_FAMILY_DICT), KDZK_OP_SET)];
    const auto* const random = reinterpret_cast<const uint32_t*>(random_bytes(uint64_t{nrows} * 4));
    std::vector<uint32_t> wide(nrows);
    for (uint32_t r = 0; r < nrows; r++) wide[r] = random[r] & ((uint32_t{1} << code_bits) - 1);
    std::copy(wide.begin(), wide.end(), codes.begin());
    kdzk_host_pack(wide.data(), nrows, width, stream.data());
    const auto* const words = reinterpret_cast<const uint64_t*>(random_bytes(table.size() * 8));
    std::copy(words, words + table.size(), table.begin());
    if (width == 1) table[0] = 2;  // of one bit the other sets are no work or the same
    input.data = stream.data();
    input.enc_ctx = &enc;
    result.nrows = nrows;
    result.bitvec = bits.data();
    set.bitvec = table.data();
  }
  Membership(const Membership&) = delete;

  uint32_t nrows() const { return result.nrows; }
};

template <class Code>
void add_width(uint32_t width, uint32_t code_bits, uint32_t nrows, const char* suffix) {
  const uint64_t bytes = uint64_t{nrows} * width / 8;
  add_group("set_dict_" + std::to_string(width) + "bit", size_name(nrows) + suffix, nrows, bytes, [=] {
    const auto m = std::make_shared<Membership<Code>>(width, code_bits, nrows);
    const auto answer = [=] { return Answer{m->hits, {m->bits.begin(), m->bits.end() - 1}}; };
    const auto peer = [&](const char* name, auto loop) {
      return Peer{name, [=] { m->hits = loop(m->codes.data(), m->table.data(), m->bits.data(), m->nrows()); }, answer};
    };
    const auto kdzk = [=] {
      m->kernel.set(&m->result, &m->input, &m->set, nullptr);
      m->hits = m->result.hits;
    };
    return std::vector<Peer>{{"kdzk", kdzk, answer},
                             peer("plain_loop", [](auto... a) { return set_loop(a...); }),
                             peer("word_loop", [](auto... a) { return set_word_loop(a...); })};
  });
}

void add(uint32_t width, uint32_t code_bits, uint32_t nrows, const char* suffix = "") {
  if (width <= 16) add_width<uint16_t>(width, code_bits, nrows, suffix);
  if (width > 16) add_width<uint32_t>(width, code_bits, nrows, suffix);
}

}  // namespace

void add_set() {
  for (uint32_t width = 1; width <= 32; width++) {
    if (kdzk_row_of_width(width) == KDZK_NO_ROW_OF_WIDTH) continue;
    add(width, std::min(width, 18u), in_cache);
    if (width > 18) add(width, std::min(width, 26u), in_cache, "_wide");
  }
  for (uint32_t width : {1u, 2u, 3u, 4u, 5u, 8u, 9u, 10u, 13u, 16u, 17u, 24u, 32u}) {
    add(width, std::min(width, 18u), in_memory);
  }
}

}  // namespace kdzk_bench

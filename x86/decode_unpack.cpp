// SPDX-License-Identifier: Apache-2.0
// Decode-unpack: packed dictionary codes to an array of native integers, a batch at a time. The codes themselves, not
// what they stand for. x86/unpack.h tells how codes become elements, this file which rows are taken:
//
//   row range        all rows from exec.row on, as many as the output has room for
//   block selection  the selected rows, looking at all of them in blocks
//   position walk    the selected rows, one by one
//   row list         the rows of ones_vec
//   runs             the same from a run-length column: x86/unpack_runs.h
//
// Block selection unpacks like a row range. Of each group of rows the selected elements are moved to the front by a
// shuffle, the whole group is stored where the output stands, and the output moves on by as many as were selected. So a
// store may write elements that the next one overwrites. A round isn't begun unless the output has room for all of its
// rows and a vector, and what stands behind its last element is read before it and put back after it.

#include <numeric>

#include "frame/decompress.h"
#include "frame/families.h"
#include "frame/services.h"
#include "x86/unpack.h"
#include "x86/unpack_runs.h"

namespace kdzk {
namespace {

// One call on a plain column. `data` are the packed codes.
struct Call {
  const uint8_t* data;
  kdzk_vec* result;
  const kdzk_vec* input;
  kdzk_exec* exec;

  uint8_t* output() const { return static_cast<uint8_t*>(result->data); }
};

// Vectors begin at multiples of so many rows, which begin a byte at all widths.
template <int W>
inline constexpr uint32_t alignment = std::lcm(W, 8);

// ---- Row range ----

template <int W, int element>
uint64_t unpack_range(const Call& call) {
  const uint32_t start = call.exec->row;
  const auto end = static_cast<uint32_t>(std::min<uint64_t>(uint64_t{start} + call.result->nrows, call.input->nrows));
  call.exec->row = end - 1;
  call.result->hits = start < end ? end - start : 0;
  if (start >= end) return KDZK_NO_ROW;
  unpack_rows<W, element>(call.data, start, end, call.output(), alignment<W>);
  return KDZK_DONE;
}

// ---- Block selection ----

// Shuffles that move the elements of selected rows to the front of their group: entry n is for the rows that n has bits
// for. The rest of the group becomes zero.
template <int element>
struct Keep {
  static constexpr int rows = element == 4 ? 4 : 8;  // of a group
  struct Table {
    alignas(16) uint8_t shuffle[1 << rows][rows * element];
  };
  static constexpr Table make() {
    Table table{};
    for (int n = 0; n < 1 << rows; n++) {
      int at = 0;
      for (int row = 0; row < rows; row++) {
        if ((n >> row & 1) == 0) continue;
        for (int byte = 0; byte < element; byte++) table.shuffle[n][at++] = static_cast<uint8_t>(row * element + byte);
      }
      while (at < rows * element) table.shuffle[n][at++] = 0x80;
    }
    return table;
  }
  static constexpr Table table = make();
};

static_assert(Keep<4>::table.shuffle[5][0] == 0 && Keep<4>::table.shuffle[5][4] == 8 &&
              Keep<4>::table.shuffle[5][8] == 0x80);

// Stores the selected of one vector's elements, a bit of `rows` each, and returns where the next ones go.
template <int element>
inline uint8_t* keep_selected(__m128i elements, uint32_t rows, uint8_t* out) {
  const auto& shuffle = Keep<element>::table.shuffle;
  if constexpr (element == 1) {
    const auto half = [&](__m128i eight, uint32_t of_eight) {  // the elements in the lower 8 bytes
      const __m128i pick = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(shuffle[of_eight]));
      _mm_storel_epi64(reinterpret_cast<__m128i*>(out), _mm_shuffle_epi8(eight, pick));
      out += bits_set(of_eight);
    };
    half(elements, rows & 0xff);
    half(_mm_unpackhi_epi64(elements, elements), rows >> 8);
    return out;
  } else {
    store16(out, _mm_shuffle_epi8(elements, load16(shuffle[rows])));
    return out + bits_set(rows) * element;
  }
}

// How many rows of a round are selected: as many bits from `selection` on.
template <uint32_t round>
inline uint32_t count_selected(const uint8_t* selection) {
  if constexpr (round == 32) return bits_set(load<uint32_t>(selection));
  uint32_t count = 0;
  for (uint32_t row = 0; row < round; row += 64) count += bits_set(load<uint64_t>(selection + row / 8));
  return count;
}

template <int W, int element>
uint64_t unpack_blocks(const Call& call) {
  constexpr uint32_t round = rows_per_round<W>;
  const auto* const selection = reinterpret_cast<const uint8_t*>(call.exec->selection);
  const uint32_t nrows = call.input->nrows;
  uint8_t* out = call.output();
  uint8_t* const out_end = out + uint64_t{call.result->nrows} * element;
  uint32_t row = call.exec->row;
  const auto singles_up_to = [&](uint32_t end) {
    for (; row < end && out < out_end; row++) {
      if ((selection[row / 8] >> row % 8 & 1) == 0) continue;
      store(out, static_cast<Element<element>>(single_code<W>(call.data, row)));
      out += element;
    }
  };
  if (row % alignment<W> != 0) {
    const uint64_t aligned = (uint64_t{row} / alignment<W> + 1) * alignment<W>;
    singles_up_to(static_cast<uint32_t>(std::min<uint64_t>(aligned, nrows)));
  }
  if (row < nrows && row % alignment<W> == 0) {
    const uint8_t* in = call.data + uint64_t{row} * W / 8;
    for (uint32_t rounds = (nrows - row) / round; rounds > 0; rounds--) {
      if (out_end - out < static_cast<ptrdiff_t>(round * element + 16)) break;
      prefetch_round(in, out);
      uint8_t* const behind = out + count_selected<round>(selection + row / 8) * element;
      const __m128i kept = load16(behind);
      for (uint32_t word = 0; word < round / 32; word++, in += 4 * W, row += 32) {
        const uint32_t rows = load<uint32_t>(selection + row / 8);
        if (rows == 0) continue;
        constexpr int rows_per_vector = 16 / element;
        constexpr uint32_t vector_rows = (1u << rows_per_vector) - 1;
        [&]<int... i>(std::integer_sequence<int, i...>) {
          ((out = keep_selected<element>(unpacked<W, element, i>(in), rows >> i * rows_per_vector & vector_rows, out)),
           ...);
        }
        (std::make_integer_sequence<int, 32 / rows_per_vector>());
      }
      store16(behind, kept);
    }
  }
  singles_up_to(nrows);
  const auto hits = static_cast<uint32_t>(static_cast<size_t>(out - call.output()) / element);
  call.result->hits = hits;
  call.exec->out_flags |= KDZK_OUT_UNPACK_ROW;
  if (call.result->nrows != 0) call.exec->row = row - 1;
  return hits != 0 ? KDZK_DONE : KDZK_NO_ROW;
}

// ---- Position walk ----

template <int W, int element>
uint64_t unpack_positions(const Call& call) {
  constexpr uint32_t batch = 256, lookahead = 10;
  const uint32_t nrows = call.input->nrows, room = call.result->nrows;
  uint8_t* const out = call.output();
  uint32_t written = 0, last = room == 0 ? call.exec->row - 1 : nrows - 1;
  if (call.exec->row < nrows) {
    kdzk_bv_iter iter;
    kdzk_bv_iter_init(&iter, call.exec->selection, nrows, 0, call.exec->row);
    uint32_t rows[batch + lookahead] = {};  // row 0 is what is prefetched behind the last one
    while (written < room) {
      const uint32_t wanted = std::min(room - written, batch);
      const auto n = static_cast<uint32_t>(kdzk_bv64_next_set_batch(&iter, rows, wanted));
      for (uint32_t i = 0; i < n; i++) {
        const uint64_t ahead = uint64_t{rows[i + lookahead]} * W / 8;
        _mm_prefetch(reinterpret_cast<const char*>(call.data + ahead), _MM_HINT_T0);
        store(out + uint64_t{written + i} * element, static_cast<Element<element>>(single_code<W>(call.data, rows[i])));
      }
      written += n;
      if (n < wanted) break;
      if (written == room) last = rows[n - 1];
    }
  }
  call.exec->row = last;
  call.exec->out_flags |= KDZK_OUT_UNPACK_ROW;
  call.result->hits = written;
  return written != 0 ? KDZK_DONE : KDZK_NO_ROW;
}

// ---- Row list ----

template <int W, int element>
uint64_t unpack_list(const Call& call) {
  const uint32_t n = call.exec->ones_vec_size;
  const uint32_t* const rows = call.exec->ones_vec;
  for (uint32_t i = 0; i < n; i++) {
    store(call.output() + uint64_t{i} * element, static_cast<Element<element>>(single_code<W>(call.data, rows[i])));
  }
  call.result->hits = n;
  if (n != 0) call.exec->row = rows[n - 1];
  call.exec->out_flags |= KDZK_OUT_UNPACK_ROW;
  return n != 0 ? KDZK_DONE : KDZK_NO_ROW;
}

template <int W, int element>
uint64_t unpack(const Call& call) {
  const kdzk_enc_ctx* const enc = call.input->enc_ctx;
  if ((enc->flags & KDZK_RLE) != 0) {
    if (enc->unpack_width == 8)
      return RunUnpacking<W, element, uint8_t>(call.data, call.result, call.input, call.exec).unpack();
    return RunUnpacking<W, element, uint16_t>(call.data, call.result, call.input, call.exec).unpack();
  }
  if (call.exec->selection != nullptr) {
    return (call.exec->flags & KDZK_EX_SELECTIVE) != 0 ? unpack_positions<W, element>(call)
                                                       : unpack_blocks<W, element>(call);
  }
  return call.exec->ones_vec != nullptr ? unpack_list<W, element>(call) : unpack_range<W, element>(call);
}

template <int W>
uint64_t unpack_member(const KernelTexts& texts, kdzk_vec* result, const kdzk_vec* input, kdzk_exec* exec) {
  const Call call = {column_bytes(texts, input, exec), result, input, exec};
  if constexpr (W <= 16) {
    if ((exec->flags & KDZK_EX_UNPACK_WIDE) != 0) return unpack<W, 4>(call);
  }
  return unpack < W, W <= 8 ? 1 : W <= 16 ? 2 : 4 > (call);
}

}  // namespace

template <class Family>
uint64_t decode_unpack(kdzk_vec* result, const kdzk_vec* input, kdzk_exec* exec) {
  return unpack_member<Family::width>(kernel_texts<Family, DecodeOp::decode_unpack>, result, input, exec);
}

#define KDZK_DECODE_UNPACK(W) template uint64_t decode_unpack<Dict<W>>(kdzk_vec*, const kdzk_vec*, kdzk_exec*);

KDZK_DECODE_UNPACK(1)
KDZK_DECODE_UNPACK(2)
KDZK_DECODE_UNPACK(3)
KDZK_DECODE_UNPACK(4)
KDZK_DECODE_UNPACK(5)
KDZK_DECODE_UNPACK(6)
KDZK_DECODE_UNPACK(7)
KDZK_DECODE_UNPACK(8)
KDZK_DECODE_UNPACK(9)
KDZK_DECODE_UNPACK(10)
KDZK_DECODE_UNPACK(11)
KDZK_DECODE_UNPACK(12)
KDZK_DECODE_UNPACK(13)
KDZK_DECODE_UNPACK(14)
KDZK_DECODE_UNPACK(15)
KDZK_DECODE_UNPACK(16)
KDZK_DECODE_UNPACK(17)
KDZK_DECODE_UNPACK(18)
KDZK_DECODE_UNPACK(19)
KDZK_DECODE_UNPACK(20)
KDZK_DECODE_UNPACK(24)
KDZK_DECODE_UNPACK(32)

}  // namespace kdzk

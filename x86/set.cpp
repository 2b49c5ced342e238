// SPDX-License-Identifier: Apache-2.0
// Membership of dictionary codes in a set, a table of one bit per code.
//
// The table's 8 bits around a code's own are a byte; the code's upper bits say which byte, its lower three which bit.
// The codes of 16 rows give 16 such bytes, which are tested together (x86/bit_tests.h). What differs by width is where
// the bytes come from:
//
//   1 bit          the column is the answer, or its complement, or not needed
//   2, 4 bits      two codes or one are half a byte, and a shuffle turns each half into the rows' bits
//   3 bits         one shuffle, of a table that has a byte for each code
//   5 to 8 bits    one shuffle for every 128 bits of the table, which are a register: 1 or 2
//   9, 10 bits     the same, 4 or 8 registers
//   from 11 bits   16 loads of a byte
//
// Several registers are one table by differences: register k holds part k XOR part k - 1. The byte number i loses 16
// with every register; as long as it isn't below 0 each shuffle gives the register's byte i % 16, after that 0. So the
// XOR of all is part 0 ^ (0 ^ 1) ^ (1 ^ 2) ... up to the part that i is in: that part's byte.
//
//   i = 37      37 -> T0[5]    21 -> (T0 ^ T1)[5]    5 -> (T1 ^ T2)[5]    -11 -> 0       together T2[5]
//
// Invariants. A step is 64 rows, or 32 from 10 bits on, and so whole bytes; no load of it ends more than
// KDZK_SET_PADDING bytes behind it. From 11 bits on only the bytes of codes are read of the table. Up to 10 bits the
// table is read whole, but of two pages only those that a code asks for.

#include "frame/predicate.h"
#include "frame/services.h"
#include "x86/bit_tests.h"
#include "x86/one_bit.h"
#include "x86/unpack.h"

namespace kdzk {
namespace {

// ---- The table ----

inline constexpr uint32_t page_bytes = 4096;

// The set in memory, for single rows.
struct CodesInSet {
  const uint8_t* words;
  bool has(uint32_t code) const { return load<uint64_t>(words + uint64_t{code / 64} * 8) >> code % 64 & 1; }
};

// The table of a narrow width, zero behind its end.
template <int W>
struct NarrowTable {
  static constexpr int bytes = W <= 6 ? 8 : (1 << W) / 8;
  uint8_t byte[bytes < 16 ? 16 : bytes] = {};

  // The page boundary that cuts the table in two, if there is one, keeps a part from being read that no row asks for.
  NarrowTable(const uint8_t* table, const uint8_t* data, uint32_t nrows) {
    const uint64_t room = page_bytes - reinterpret_cast<uint64_t>(table) % page_bytes;
    uint64_t begin = 0, end = bytes;
    if (bytes > 8 && room < bytes) {
      bool before = false, behind = false;
      for (uint32_t row = 0; row < nrows && !(before && behind); row++) {
        const uint64_t word = single_code<W>(data, row) / 64 * 8;
        before |= word < room;
        behind |= word + 8 > room;
      }
      if (!before) begin = room;
      if (!behind) end = room;
    }
    std::memcpy(byte + begin, table + begin, end - begin);
  }
};

// ---- Codes in lanes ----

// The codes of 16 rows of a step, from row `first` on, in bytes. W is 8 or less.
template <int W, int first, int rows_per_step>
inline __m128i sixteen_codes(const uint8_t* in) {
  if constexpr (W == 8) {
    return load16(in + first);
  } else {
    using Rows = PackedRows<W>;
    constexpr int last_load = rows_per_step * W / 8 + static_cast<int>(KDZK_SET_PADDING) - 16;
    constexpr int at = std::min(Rows::first_byte(first), last_load);
    const __m128i bytes = load16(in + at);
    const auto eight = [=]<int row>() {  // rows from `row` on, in 16-bit lanes
      static constexpr auto pick = [] {
        auto from = Rows::template shuffle<2>(row, 0, 2, 0);
        for (uint8_t& byte : from) {
          if (byte < 0x80) byte = static_cast<uint8_t>(byte + Rows::first_byte(row) - at);
        }
        return from;
      }();
      static constexpr auto times = Rows::template multipliers<16>(row);
      const __m128i on_top = _mm_mullo_epi16(_mm_shuffle_epi8(bytes, vector_of(pick)), vector_of(times));
      return _mm_srli_epi16(on_top, 16 - W);
    };
    return _mm_packus_epi16(eight.template operator()<first>(), eight.template operator()<first + 8>());
  }
}

// ---- How the rows of a step are found ----

// Widths 2 and 4: what each half byte of the column stands for.
template <int W>
struct HalfBytes {
  __m128i upper, lower;  // by the half byte's number: the bits of its rows

  explicit HalfBytes(const NarrowTable<W>& table) {
    const CodesInSet codes = {table.byte};
    std::array<uint8_t, 16> rows{};
    for (uint32_t n = 0; n < 16; n++) {
      rows[n] = static_cast<uint8_t>(W == 4 ? codes.has(n) : codes.has(n / 4) | codes.has(n % 4) << 1);
    }
    upper = vector_of(rows);
    lower = _mm_slli_epi16(upper, 4 / W);
  }

  // The bits of the rows of each byte, 8 / W of them.
  __m128i rows_of_bytes(const uint8_t* in) const {
    const __m128i half = _mm_set1_epi8(0x0f), bytes = load16(in);
    const __m128i first = _mm_shuffle_epi8(upper, _mm_and_si128(_mm_srli_epi16(bytes, 4), half));
    return _mm_or_si128(first, _mm_shuffle_epi8(lower, _mm_and_si128(bytes, half)));
  }

  // Every two bytes of n bits as one of 2 * n, in 16-bit lanes.
  template <int n>
  static __m128i joined(__m128i bytes) {
    return _mm_maddubs_epi16(bytes, _mm_set1_epi16(1 | 1 << (8 + n)));
  }

  template <int>
  uint64_t word(const uint8_t* in) const {
    __m128i bytes = rows_of_bytes(in);  // W == 2: 4 rows each
    if constexpr (W == 4) bytes = _mm_packus_epi16(joined<2>(bytes), joined<2>(rows_of_bytes(in + 16)));
    const __m128i rows = joined<4>(bytes);  // 8 rows each, in 16-bit lanes
    return static_cast<uint64_t>(_mm_cvtsi128_si64(_mm_packus_epi16(rows, rows)));
  }
};

// Width 3: all ones in the byte of each code of the set.
template <int W>
struct CodeBytes {
  __m128i members;

  explicit CodeBytes(const NarrowTable<W>& table) {
    const CodesInSet codes = {table.byte};
    std::array<uint8_t, 16> rows{};
    for (uint32_t code = 0; code < 1u << W; code++) rows[code] = codes.has(code) ? 0xff : 0;
    members = vector_of(rows);
  }

  template <int first>
  uint32_t sixteen(const uint8_t* in) const {
    const __m128i rows = _mm_shuffle_epi8(members, sixteen_codes<W, first, 64>(in));
    return static_cast<uint32_t>(_mm_movemask_epi8(rows));
  }
};

// Widths 5 to 10: the table in registers.
template <int W>
struct RegisterTable {
  static constexpr int parts = W <= 7 ? 1 : (1 << W) / 128;
  __m128i part[parts];  // part k XOR part k - 1

  explicit RegisterTable(const NarrowTable<W>& table) {
    for (int k = 0; k < parts; k++) {
      const __m128i own = load16(table.byte + 16 * k);
      part[k] = k == 0 ? own : _mm_xor_si128(own, load16(table.byte + 16 * (k - 1)));
    }
  }

  // The bytes of the table with these numbers.
  __m128i bytes(__m128i number) const {
    __m128i found = _mm_shuffle_epi8(part[0], number);
    for (int k = 1; k < parts; k++) {
      number = _mm_sub_epi8(number, _mm_set1_epi8(16));
      // Or the compiler adds a constant of its own to each number, and there are no registers for eight: 3.9 G rows/s,
      // with this 4.1, with 32 rows a step 4.3 (10 bits, Zen 4, g++ 12; kdzk_bench, set_dict_10bit/64Ki).
      if constexpr (parts > 4) asm("" : "+x"(number));
      found = _mm_xor_si128(found, _mm_shuffle_epi8(part[k], number));
    }
    return found;
  }

  template <int first>
  uint32_t sixteen(const uint8_t* in) const {
    if constexpr (W <= 8) {
      const __m128i codes = sixteen_codes<W, first, 64>(in);
      const __m128i number = _mm_and_si128(_mm_srli_epi16(codes, 3), _mm_set1_epi8((1 << (W - 3)) - 1));
      return tested(bytes(number), W == 8 ? _mm_and_si128(codes, _mm_set1_epi8(7)) : codes);
    } else {
      const uint8_t* const at = in + first * W / 8;
      const __m128i a = unpacked<W, 2, 0>(at), b = unpacked<W, 2, 1>(at);  // codes of 8 rows each
      const __m128i number = _mm_packus_epi16(_mm_srli_epi16(a, 3), _mm_srli_epi16(b, 3));
      const __m128i three = _mm_set1_epi16(7);
      return tested(bytes(number), _mm_packus_epi16(_mm_and_si128(a, three), _mm_and_si128(b, three)));
    }
  }
};

// From 11 bits on: the table in memory.
template <int W>
struct MemoryTable {
  static constexpr int element = W <= 16 ? 2 : 4;
  using Number = Element<element>;
  const uint8_t* table;

  template <int first>
  uint32_t sixteen(const uint8_t* in) const {
    const uint8_t* const at = in + first * W / 8;
    alignas(16) Number number[16];
    const __m128i lower = [&]<int... i>(std::integer_sequence<int, i...>) {
      const __m128i codes[] = {unpacked<W, element, i>(at)...};
      const auto put = [&](int vector) {
        const __m128i numbers = element == 2 ? _mm_srli_epi16(codes[vector], 3) : _mm_srli_epi32(codes[vector], 3);
        store16(reinterpret_cast<uint8_t*>(number) + 16 * vector, numbers);
      };
      (put(i), ...);
      const __m128i three = in_all_lanes<element * 8>(7);
      return narrowed<element * 8, 8, 0>([&]<int vector>() { return _mm_and_si128(codes[vector], three); });
    }
    (std::make_integer_sequence<int, element>());
    return tested(collected([&](int i) { return table[number[i]]; }), lower);
  }
};

template <int W>
using RowFinder = std::conditional_t<
    W == 2 || W == 4, HalfBytes<W>,
    std::conditional_t<W == 3, CodeBytes<W>, std::conditional_t<W <= 10, RegisterTable<W>, MemoryTable<W>>>>;

// ---- The column ----

template <int W>
struct SetSource {
  using Word = std::conditional_t<W <= 9, uint64_t, uint32_t>;
  static constexpr int words_per_step = 1;

  const uint8_t* in;
  const uint8_t* stream = in;

  void begin_step() const {
    constexpr auto hint = W < 17 ? _MM_HINT_T0 : _MM_HINT_T1;
    _mm_prefetch(reinterpret_cast<const char*>(in + 640), hint);
    if constexpr (W * sizeof(Word) > 64) _mm_prefetch(reinterpret_cast<const char*>(in + 704), hint);
  }
  void next() { in += W * sizeof(Word); }
  void tail(uint32_t) const {}
  uint32_t code(uint32_t row) const { return single_code<W>(stream, row); }
};

// The next rows of the source, as many as its word has bits.
template <int W>
inline auto next_word(const RowFinder<W>& finder, const uint8_t* in) {
  using Word = typename SetSource<W>::Word;
  if constexpr (W == 2 || W == 4) {
    return finder.template word<W>(in);
  } else {
    return [&]<int... i>(std::integer_sequence<int, i...>) {
      return static_cast<Word>((... | (Word{finder.template sixteen<16 * i>(in)} << 16 * i)));
    }
    (std::make_integer_sequence<int, sizeof(Word) / 2>());
  }
}

template <int W>
struct SetDesign {
  static uint32_t evaluate(const uint8_t* table, const uint8_t* data, uint8_t* bits, uint32_t nrows) {
    if (nrows == 0) return 0;
    const auto by = [=](const RowFinder<W>& finder) {
      return evaluate_steps(
          SetSource<W>{data}, [&]<int>(const SetSource<W>& at) { return next_word<W>(finder, at.in); },
          CodesInSet{table}, bits, nrows);
    };
    if constexpr (W <= 10) return by(RowFinder<W>(NarrowTable<W>(table, data, nrows)));
    if constexpr (W > 10) return by(RowFinder<W>{table});
  }

  static uint32_t evaluate_selected(const uint8_t* table, const uint8_t* data, uint8_t* bits, uint32_t nrows,
                                    const uint64_t* selection) {
    return evaluate_rows(SetSource<W>{data}, CodesInSet{table}, bits, nrows, selection);
  }
};

// Of two codes there are four sets.
template <>
struct SetDesign<1> {
  static uint32_t evaluate(const uint8_t* table, const uint8_t* data, uint8_t* bits, uint32_t nrows) {
    if (nrows == 0) return 0;
    switch (load<uint64_t>(table) & 3) {
      case 0:
        clear_from(bits, 0, nrows);
        return 0;
      case 1:
        return copy_column(data, bits, nrows, true);
      case 2:
        return copy_column(data, bits, nrows, false);
      default:
        std::memset(bits, 0xff, words_for(nrows) * 8);
        return nrows;
    }
  }

  static uint32_t evaluate_selected(const uint8_t* table, const uint8_t* data, uint8_t* bits, uint32_t nrows,
                                    const uint64_t* selection) {
    if (nrows == 0) return 0;
    uint32_t hits = 0;
    switch (load<uint64_t>(table) & 3) {
      case 0:
        clear_from(bits, 0, nrows);
        return 0;
      case 3:
        kdzk_bv64_and(bits, &hits, selection, selection, nrows);
        return hits;
      default:
        return evaluate_rows(SetSource<1>{data}, CodesInSet{table}, bits, nrows, selection);
    }
  }
};

// ---- The frame, once for all widths ----

struct SetKernel {
  KernelTexts texts;
  uint32_t (*evaluate)(const uint8_t* table, const uint8_t* data, uint8_t* bits, uint32_t nrows);
  uint32_t (*evaluate_selected)(const uint8_t* table, const uint8_t* data, uint8_t* bits, uint32_t nrows,
                                const uint64_t* selection);
};

template <int W>
constexpr SetKernel set_kernel = {kernel_texts<Dict<W>, SetOp::set>, SetDesign<W>::evaluate,
                                  SetDesign<W>::evaluate_selected};

uint64_t run(const SetKernel& kernel, kdzk_vec* result, const kdzk_vec* input, const uint64_t* set, kdzk_exec* exec) {
  const kdzk_enc_ctx* const enc = input->enc_ctx;
  const uint8_t* const table = reinterpret_cast<const uint8_t*>(set);
  if (exec != nullptr && exec->selection != nullptr && (exec->flags & KDZK_EX_SELECTIVE) != 0) {
    // Neither the row count of the result nor KDZK_RLE plays a part here.
    const uint32_t nrows = input->nrows;
    uint8_t* const bits = reinterpret_cast<uint8_t*>(result->bitvec);
    exec->out_flags |= KDZK_OUT_SET_SELECTION;
    const uint8_t* const data = column_bytes(kernel.texts, input, exec);
    const uint32_t hits = kernel.evaluate_selected(table, data, bits, nrows, exec->selection);
    return finish_selected(result, nullptr, bits, nrows, hits);
  }
  const bool runs = (enc->flags & KDZK_RLE) != 0;
  const uint32_t nrows = runs ? enc->own_nrows : result->nrows;
  uint8_t* const bits = reinterpret_cast<uint8_t*>(runs ? enc->own_bitvec : result->bitvec);
  const uint8_t* const data = column_bytes(kernel.texts, input, exec);
  const uint32_t hits = kernel.evaluate(table, data, bits, nrows);
  return finish_predicate(result, input, exec, nullptr, bits, nrows, hits, KDZK_OUT_SET_SELECTION);
}

}  // namespace

template <class Family>
uint64_t set(kdzk_vec* result, const kdzk_vec* input, const kdzk_vec* table, kdzk_exec* exec) {
  return run(set_kernel<Family::width>, result, input, table->bitvec, exec);
}

#define KDZK_SET(W) template uint64_t set<Dict<W>>(kdzk_vec*, const kdzk_vec*, const kdzk_vec*, kdzk_exec*);
KDZK_SET(1)
KDZK_SET(2)
KDZK_SET(3)
KDZK_SET(4)
KDZK_SET(5)
KDZK_SET(6)
KDZK_SET(7)
KDZK_SET(8)
KDZK_SET(9)
KDZK_SET(10)
KDZK_SET(11)
KDZK_SET(12)
KDZK_SET(13)
KDZK_SET(14)
KDZK_SET(15)
KDZK_SET(16)
KDZK_SET(17)
KDZK_SET(18)
KDZK_SET(19)
KDZK_SET(20)
KDZK_SET(24)
KDZK_SET(32)

}  // namespace kdzk

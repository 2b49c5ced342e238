// SPDX-License-Identifier: Apache-2.0
// The bloom filter test: one bit of a filter for each row of a column of hashes.
//
// 16 rows are looked up together, and their answers found together (x86/bit_tests.h). What a row asks for is a byte of
// the filter and a bit of it, both from the hash as a number v:
//
//   flat       v AND mask:    byte number in the filter | 3 bits
//   paged      v AND mask:    page number ...            from bit page_shift on
//                             ... byte number in the page | 3 bits       by page_mask
//
// All rows: the answers of 16 rows are 16 bits of the result, stored at once if one is set. Selected rows: row numbers
// are listed 256 at a time, their hashes brought together in an array and looked up as all rows are, and the bits of
// hits ORed into the result one by one. In a filter larger than the cache, the bytes of 64 rows are on their way there
// while those of earlier rows are tested; in a smaller one, and for all rows, the processor looks far enough ahead by
// itself, as nothing of this jumps on the answers of single rows. A list of rows is made from words of the selection
// here and not by the walk of the bit vector services, which takes as long for a row as its look-up in a small filter.
//
// Timed on a busy Zen 4, g++ 12, old and new in turn, selecting one row in two: lists of whole bytes and bringing the
// hashes together take 0.7 of the time of counting zeros and gathering hashes where they are looked up; in a filter of
// 64 MiB keeping the addresses between the passes takes 0.8 of the time of finding them twice; fetching the column
// ahead 0.8, with elements of 8 bytes.
//
// Invariants. Of the filter only the bytes of rows are read, and of the result only bytes with a hit are written. The
// column is read to its last row, and not behind.

#include <kdzk/context.h>

#include <algorithm>

#include "frame/services.h"
#include "x86/bit_tests.h"

namespace kdzk {
namespace {

constexpr uint32_t no_row = ~uint32_t{0};
constexpr uint32_t batch_rows = 256;
constexpr uint32_t group_rows = 16;

// Hashes in elements of 4 or 8 bytes, of which the last four count, as a big-endian number.
template <int element>
struct Hashes {
  const uint8_t* data;

  const uint8_t* at(uint32_t row) const { return data + uint64_t{row} * element + element - 4; }
  uint32_t number(uint32_t row) const { return load_be32(at(row)); }

  // As stored, in lanes of 32 bits: of four rows from `row` on, or of the four rows listed.
  __m128i four(uint32_t row) const {
    const uint8_t* const from = data + uint64_t{row} * element;
    if constexpr (element == 4) return load16(from);
    const __m128 a = _mm_castsi128_ps(load16(from)), b = _mm_castsi128_ps(load16(from + 16));
    return _mm_castps_si128(_mm_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1)));  // the upper halves
  }
};

// Where the bits of 16 rows are, in lanes. A row's numbers leave the vectors together, in 64 bits: in a paged filter
// the page and above it the byte, in a flat one two bytes, which are two rows'.
template <bool paged>
struct Places {
  static constexpr int rows_in_64_bits = paged ? 1 : 2;
  __m128i numbers[8 / rows_in_64_bits];
  __m128i bit;  // 0 to 7, a byte each

  template <int i>
  void put_four(__m128i page, __m128i byte) {
    if constexpr (paged) {
      numbers[2 * i] = _mm_unpacklo_epi32(page, byte);
      numbers[2 * i + 1] = _mm_unpackhi_epi32(page, byte);
    } else {
      numbers[i] = byte;
    }
  }
  template <int row>
  uint64_t together() const {
    constexpr int i = row / rows_in_64_bits;
    return static_cast<uint64_t>(_mm_extract_epi64(numbers[i / 2], i % 2));
  }
  template <int row>
  uint32_t page() const {
    return paged ? static_cast<uint32_t>(together<row>()) : 0;
  }
  template <int row>
  uint32_t byte() const {
    return static_cast<uint32_t>(paged || row % 2 == 1 ? together<row>() >> 32 : together<row>());
  }
};

template <bool paged>
struct Filter {
  const void* bits;  // bytes, or pointers to pages of bytes
  uint32_t mask, page_shift, page_mask;

  explicit Filter(const kdzk_vec* filter)
      : bits(filter->bitvec),
        mask(filter->enc_ctx->bloom_mask),
        page_shift(filter->enc_ctx->page_shift & 31),
        page_mask(filter->enc_ctx->page_mask) {}

  const uint8_t* byte(uint32_t page, uint32_t number) const {
    if constexpr (!paged) return static_cast<const uint8_t*>(bits) + number;
    return load<const uint8_t*>(static_cast<const uint8_t*>(bits) + uint64_t{page} * 8) + number;
  }
  template <int row>
  const uint8_t* byte(const Places<paged>& places) const {
    return byte(places.template page<row>(), places.template byte<row>());
  }

  // Whether the filter may be larger than what the second cache of a core has room for.
  bool large() const { return mask >= 4u << 20; }

  bool has(uint32_t hash) const {
    const uint32_t v = hash & mask, bit = paged ? v & page_mask : v;
    return *byte(v >> page_shift, bit / 8) >> bit % 8 & 1;
  }

  // Of 16 rows from `row` on.
  template <int element>
  Places<paged> places(const Hashes<element>& hashes, uint32_t row) const {
    constexpr std::array<uint8_t, 16> turned_round = {3, 2, 1, 0, 7, 6, 5, 4, 11, 10, 9, 8, 15, 14, 13, 12};
    Places<paged> found;
    const auto bits_of_four = [&]<int i>() {
      __m128i v = _mm_shuffle_epi8(hashes.four(row + 4 * i), vector_of(turned_round));  // native
      v = _mm_and_si128(v, in_all_lanes<32>(mask));
      __m128i page = v;
      if constexpr (paged) {
        page = _mm_srl_epi32(v, _mm_cvtsi32_si128(static_cast<int>(page_shift)));
        v = _mm_and_si128(v, in_all_lanes<32>(page_mask));
      }
      found.template put_four<i>(page, _mm_srli_epi32(v, 3));
      return _mm_and_si128(v, in_all_lanes<32>(7));
    };
    found.bit = narrowed<32, 8, 0>(bits_of_four);
    return found;
  }

  // Of 16 rows, the entries from `row` on: where the bytes are and which of their bits it is.
  template <int element>
  [[gnu::always_inline]] void look_up(const Hashes<element>& hashes, uint32_t row, const uint8_t** bytes,
                                      uint8_t* bit_numbers) const {
    const Places<paged> found = places(hashes, row);
    store16(bit_numbers + row, found.bit);
    const auto put = [to = bytes + row](int i, const uint8_t* at) {
      to[i] = at;
      _mm_prefetch(reinterpret_cast<const char*>(at), _MM_HINT_T0);
    };
    [&]<int... i>(std::integer_sequence<int, i...>) { (put(i, byte<i>(found)), ...); }
    (std::make_integer_sequence<int, group_rows>());
  }

  // Bit i of the result: row i's answer.
  template <int element>
  uint32_t sixteen(const Hashes<element>& hashes, uint32_t row) const {
    const Places<paged> found = places(hashes, row);
    return tested(collected([&]<int i>(std::integral_constant<int, i>) { return *byte<i>(found); }), found.bit);
  }
};

struct Hits {
  uint8_t* bits;
  uint32_t count = 0;
  kdzk_hit_range range = {no_row, no_row};

  explicit Hits(const kdzk_vec* result) : bits(reinterpret_cast<uint8_t*>(result->bitvec)) {}

  void set(uint32_t row) {
    bits[row / 8] |= static_cast<uint8_t>(1 << row % 8);
    count++;
    if (range.first == no_row) range.first = row;
    range.last = row;
  }

  // 16 rows from `row` on, a multiple of 8.
  void put(uint32_t row, uint32_t answers) {
    if (answers == 0) return;
    store(bits + row / 8, static_cast<uint16_t>(answers));
    count += bits_set(answers);
    if (range.first == no_row) range.first = row + static_cast<uint32_t>(__builtin_ctz(answers));
    range.last = row + 31 - static_cast<uint32_t>(__builtin_clz(answers));
  }

  // Of the rows listed those whose bit is set.
  void put(const uint32_t* rows, uint64_t answers) {
    if (answers == 0) return;
    count += bits_set(answers);
    if (range.first == no_row) range.first = rows[__builtin_ctzll(answers)];
    range.last = rows[63 - __builtin_clzll(answers)];
    for (; answers != 0; answers &= answers - 1) {
      const uint32_t row = rows[__builtin_ctzll(answers)];
      bits[row / 8] |= static_cast<uint8_t>(1 << row % 8);
    }
  }

  uint64_t finish(kdzk_vec* result) const {
    result->hits = count;
    store(result->data, range);
    return count != 0 ? KDZK_DONE : KDZK_NO_ROW;
  }
};

template <int element, bool paged>
Hits test_all(const Hashes<element> hashes, const Filter<paged> filter, Hits hits, uint32_t row, uint32_t end) {
  const auto singles_up_to = [&](uint32_t up_to) {
    for (; row < up_to; row++) {
      if (filter.has(hashes.number(row))) hits.set(row);
    }
  };
  if (row % 8 != 0) singles_up_to(row + std::min(8 - row % 8, end - row));
  for (uint32_t groups = (end - row) / group_rows; groups > 0; groups--, row += group_rows) {
    _mm_prefetch(reinterpret_cast<const char*>(hashes.at(row) + 640), _MM_HINT_T0);
    hits.put(row, filter.sixteen(hashes, row));
  }
  singles_up_to(end);
  return hits;
}

// For each byte the numbers of its set bits, in ascending order. What follows them has no meaning.
constexpr auto set_bits_of = [] {
  std::array<std::array<uint8_t, 8>, 256> lists{};
  for (uint32_t byte = 0; byte < 256; byte++) {
    for (uint8_t bit = 0, n = 0; bit < 8; bit++) {
      if (byte >> bit & 1) lists[byte][n++] = bit;
    }
  }
  return lists;
}();
static_assert(set_bits_of[0xa1][0] == 0 && set_bits_of[0xa1][1] == 5 && set_bits_of[0xa1][2] == 7);

// Lists the set bits of a word, the lowest being row `base`, and returns their number. Up to 8 entries more are
// written. Neither has a branch that is hard to foresee.
inline uint32_t list_few(uint32_t* rows, uint64_t word, uint32_t base) {
  // Both halves side by side, each four bits at a time, often once: the next bit waits for the one before it.
  const auto list_half = [](uint32_t* to, uint32_t half, uint32_t first) {
    do {
      for (int i = 0; i < 4; i++) {
        *to++ = first + static_cast<uint32_t>(__builtin_ctz(half | 1u << 31));
        half &= half - 1;
      }
    } while (half != 0);
  };
  const auto low = static_cast<uint32_t>(word), high = static_cast<uint32_t>(word >> 32);
  list_half(rows, low, base);
  list_half(rows + bits_set(low), high, base + 32);
  return bits_set(word);
}
inline uint32_t list_many(uint32_t* rows, uint64_t word, uint32_t base) {
  // A byte at a time, whatever is set in it.
  __m128i first = in_all_lanes<32>(base);
  uint32_t n = 0;
  for (int i = 0; i < 8; i++, word >>= 8, first = _mm_add_epi32(first, _mm_set1_epi32(8))) {
    const auto put_four = [&](uint32_t at, const uint8_t* bits) {
      const __m128i four = _mm_cvtepu8_epi32(_mm_cvtsi32_si128(load<int>(bits)));
      store16(reinterpret_cast<uint8_t*>(rows + n + at), _mm_add_epi32(four, first));
    };
    const uint8_t* const bits = set_bits_of[word & 255].data();
    put_four(0, bits);
    put_four(4, bits + 4);
    n += bits_set(word & 255);
  }
  return n;
}

// The set rows of a bit vector from `row` up to `end`, as lists.
struct SelectedRows {
  const uint64_t* words;
  uint32_t row, end;

  // Appends the rows of the next words to the `n` rows listed, until there are `enough` of them or no more. Writes up
  // to most_more entries from the one that is enough on.
  static constexpr uint32_t most_more = 63 + 8;
  template <int element>
  uint32_t list(uint32_t* rows, uint32_t n, uint32_t enough, const Hashes<element>& hashes) {
    while (n < enough && row < end) {
      uint64_t word = load<uint64_t>(words + row / 64) & ~uint64_t{0} << row % 64;
      const uint32_t base = row / 64 * 64;
      if (end - base < 64) word &= ~(~uint64_t{0} << end % 64);
      row = end - base <= 64 ? end : base + 64;
      if (word == 0) continue;
      for (uint32_t i = 0; i < 64; i += 64 / element) {  // lines of the column
        _mm_prefetch(reinterpret_cast<const char*>(hashes.at(base + 512 + i)), _MM_HINT_T0);
      }
      n += bits_set(word) < 16 ? list_few(rows + n, word, base) : list_many(rows + n, word, base);
    }
    return n;
  }
};

// Selected rows in batches of 256, the hashes of a batch brought together first, so that they are looked up as all rows
// are. In a large filter in two passes, the second one `ahead` rows behind the first, also from batch to batch.
template <int element, bool paged, bool large>
Hits test_selected(const Hashes<element> hashes, const Filter<paged> filter, Hits hits, SelectedRows selected) {
  constexpr uint32_t ahead = large ? 64 : 0, most = ahead + batch_rows;
  uint32_t rows[most + SelectedRows::most_more];
  uint32_t stored[most];
  const uint8_t* byte[most];
  alignas(16) uint8_t bit[most];
  const Hashes<4> together = {reinterpret_cast<const uint8_t*>(stored)};
  const auto bring_together = [&](uint32_t at, uint32_t end) {
    for (; at < end; at++) stored[at] = load<uint32_t>(hashes.at(rows[at]));
  };
  const auto sixteen = [&](uint32_t at) {
    if constexpr (!large) return filter.sixteen(together, at);
    const uint8_t* const* const found = byte + at;
    return tested(collected([&](uint32_t i) { return *found[i]; }), load16(bit + at));
  };

  uint32_t n = 0, looked_up = 0;  // of the `n` rows listed the first are looked up and not tested
  while ((n = selected.list(rows, n, looked_up + batch_rows, hashes)) >= looked_up + batch_rows) {
    const uint32_t end = looked_up + batch_rows;
    bring_together(looked_up, end);
    uint32_t at = 0;
    if constexpr (large) {
      for (; looked_up < ahead; looked_up += group_rows) filter.look_up(together, looked_up, byte, bit);
    }
    for (; at < end - ahead; at += 64) {
      uint64_t answers = 0;
      for (uint32_t i = 0; i < 64; i += group_rows) {
        if constexpr (large) filter.look_up(together, at + ahead + i, byte, bit);
        answers |= uint64_t{sixteen(at + i)} << i;
      }
      hits.put(rows + at, answers);
    }
    n -= at;
    std::memcpy(rows, rows + at, n * sizeof rows[0]);
    for (uint32_t i = 0; i < ahead; i += group_rows) {
      store16(bit + i, load16(bit + at + i));
      for (uint32_t j = 0; j < group_rows; j++) byte[i + j] = byte[at + i + j];
    }
  }
  uint32_t at = 0;
  for (; at < looked_up; at += group_rows) hits.put(rows + at, sixteen(at));
  bring_together(at, n);
  for (; n - at >= group_rows; at += group_rows) hits.put(rows + at, filter.sixteen(together, at));
  for (; at < n; at++) {
    if (filter.has(together.number(at))) hits.set(rows[at]);
  }
  return hits;
}

template <int element, bool paged, bool large>
Hits test(const kdzk_vec* result, const kdzk_vec* values, const Filter<paged>& filter, kdzk_exec* exec) {
  const Hashes<element> hashes = {static_cast<const uint8_t*>(values->data)};
  const uint32_t start = exec->start_row, end = values->nrows;
  if (exec->selection == nullptr) return test_all<element, paged>(hashes, filter, Hits(result), start, end);
  exec->out_flags |= KDZK_OUT_BLOOM_SELECTIVE;
  return test_selected<element, paged, large>(hashes, filter, Hits(result), {exec->selection, start, end});
}

}  // namespace

uint64_t kdzk_bloom_test(kdzk_vec* result, const kdzk_vec* values, const kdzk_vec* filter, kdzk_exec* exec) {
  if ((values->enc_ctx->flags & KDZK_NUMERIC) == 0) return KDZK_UNSUPPORTED;
  const auto by_form = [&]<int element, bool paged>() {
    const Filter<paged> f(filter);
    return f.large() ? test<element, paged, true>(result, values, f, exec)
                     : test<element, paged, false>(result, values, f, exec);
  };
  const auto leaf = [&]<int element>() {
    return filter->enc_ctx->bloom_paged != 0 ? by_form.template operator()<element, true>()
                                             : by_form.template operator()<element, false>();
  };
  const Hits hits = values->enc_ctx->width == 32 ? leaf.operator()<4>() : leaf.operator()<8>();
  return hits.finish(result);
}

}  // namespace kdzk

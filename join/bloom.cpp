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
// are drawn 256 at a time, and their bits ORed into the result one by one. In a paged filter, which is large, the 256
// are looked up in two passes: the first finds the bytes and starts their way into the cache, the second tests them.
// A list of rows is made from words of the selection here and not by the walk of the bit vector services, which takes
// as long for a row as its look-up in a small filter.
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
  __m128i four(const uint32_t* rows) const {
    const auto stored = [&](int i) { return load<int>(at(rows[i])); };
    return _mm_setr_epi32(stored(0), stored(1), stored(2), stored(3));
  }
  static uint32_t after(uint32_t row, int i) { return row + static_cast<uint32_t>(i); }
  static const uint32_t* after(const uint32_t* rows, int i) { return rows + i; }
};

// Where the bits of 16 rows are.
struct Places {
  alignas(16) uint32_t page[group_rows];  // paged only
  alignas(16) uint32_t byte[group_rows];
  __m128i bit;  // 0 to 7, a byte each
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
    return static_cast<const uint8_t* const*>(bits)[page] + number;
  }
  const uint8_t* byte(const Places& places, uint32_t i) const {
    return byte(paged ? places.page[i] : 0, places.byte[i]);
  }

  bool has(uint32_t hash) const {
    const uint32_t v = hash & mask, bit = paged ? v & page_mask : v;
    return *byte(v >> page_shift, bit / 8) >> bit % 8 & 1;
  }

  // Of 16 rows: from a row on, or listed.
  template <int element, class Rows>
  Places places(const Hashes<element>& hashes, Rows rows) const {
    constexpr std::array<uint8_t, 16> turned_round = {3, 2, 1, 0, 7, 6, 5, 4, 11, 10, 9, 8, 15, 14, 13, 12};
    Places found;
    const auto bits_of_four = [&]<int i>() {
      const __m128i stored = hashes.four(hashes.after(rows, 4 * i));
      __m128i v = _mm_shuffle_epi8(stored, vector_of(turned_round));  // native
      v = _mm_and_si128(v, in_all_lanes<32>(mask));
      if constexpr (paged) {
        const __m128i pages = _mm_srl_epi32(v, _mm_cvtsi32_si128(static_cast<int>(page_shift)));
        store16(reinterpret_cast<uint8_t*>(found.page + 4 * i), pages);
        v = _mm_and_si128(v, in_all_lanes<32>(page_mask));
      }
      store16(reinterpret_cast<uint8_t*>(found.byte + 4 * i), _mm_srli_epi32(v, 3));
      return _mm_and_si128(v, in_all_lanes<32>(7));
    };
    found.bit = narrowed<32, 8, 0>(bits_of_four);
    return found;
  }

  // Bit i of the result: row i's answer.
  template <int element, class Rows>
  uint32_t sixteen(const Hashes<element>& hashes, Rows rows) const {
    const Places found = places(hashes, rows);
    return tested(collected([&](uint32_t i) { return *byte(found, i); }), found.bit);
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

// The set rows of a bit vector from `row` up to `end`, as lists.
struct SelectedRows {
  const uint64_t* words;
  uint32_t row, end;

  // Appends the rows of the next words to the `n` rows listed, until there are a batch of them or no more. Writes up to
  // most_listed entries.
  static constexpr uint32_t most_listed = batch_rows - 1 + 64 + 7;
  uint32_t list(uint32_t* rows, uint32_t n) {
    while (n < batch_rows && row < end) {
      uint64_t word = load<uint64_t>(words + row / 64) & ~uint64_t{0} << row % 64;
      const uint32_t base = row / 64 * 64;
      if (end - base < 64) word &= ~(~uint64_t{0} << end % 64);
      uint32_t* out = rows + n;
      n += bits_set(word);
      // Eight at a time, so that the number of rounds is easy to foresee; what is too much is overwritten.
      while (word != 0) {
        for (int i = 0; i < 8; i++) {
          *out++ = base + static_cast<uint32_t>(__builtin_ctzll(word | uint64_t{1} << 63));
          word &= word - 1;
        }
      }
      row = end - base <= 64 ? end : base + 64;
    }
    return n;
  }
};

// Calls look(at) for the groups of a list of 64 rows, `at` being where they begin, and puts the answers together.
template <class Look>
[[gnu::always_inline]] inline void put_groups(Hits& hits, const uint32_t* rows, uint32_t n, const Look& look) {
  for (uint32_t i = 0; i < n; i += 64) {
    uint64_t answers = 0;
    for (uint32_t at = i; at < i + 64 && at < n; at += group_rows) answers |= uint64_t{look(at)} << at % 64;
    hits.put(rows + i, answers);
  }
}

// `n` rows, a multiple of 16.
template <int element, bool paged>
void test_listed(const Hashes<element>& hashes, const Filter<paged>& filter, const uint32_t* rows, uint32_t n,
                 Hits& hits) {
  put_groups(hits, rows, n, [&](uint32_t at) { return filter.sixteen(hashes, rows + at); });
}

// A full batch of rows in two passes.
template <int element, bool paged>
void test_batch(const Hashes<element>& hashes, const Filter<paged>& filter, const uint32_t* rows, Hits& hits) {
  const uint8_t* byte[batch_rows];
  alignas(16) uint8_t bit[batch_rows];
  for (uint32_t first = 0; first < batch_rows; first += group_rows) {
    const Places found = filter.places(hashes, rows + first);
    store16(bit + first, found.bit);
    for (uint32_t i = 0; i < group_rows; i++) {
      byte[first + i] = filter.byte(found, i);
      _mm_prefetch(reinterpret_cast<const char*>(byte[first + i]), _MM_HINT_T0);
    }
  }
  put_groups(hits, rows, batch_rows, [&](uint32_t at) {
    return tested(collected([&](uint32_t i) { return *byte[at + i]; }), load16(bit + at));
  });
}

template <int element, bool paged>
Hits test_selected(const Hashes<element> hashes, const Filter<paged> filter, Hits hits, uint32_t start, uint32_t end,
                   const uint64_t* selection) {
  SelectedRows selected = {selection, start, end};
  uint32_t rows[SelectedRows::most_listed];
  uint32_t n = 0;
  while ((n = selected.list(rows, n)) >= batch_rows) {
    if constexpr (paged) test_batch(hashes, filter, rows, hits);
    if constexpr (!paged) test_listed(hashes, filter, rows, batch_rows, hits);
    n -= batch_rows;
    std::memcpy(rows, rows + batch_rows, n * sizeof rows[0]);  // fewer than 64
  }
  const uint32_t in_groups = n / group_rows * group_rows;
  test_listed(hashes, filter, rows, in_groups, hits);
  for (uint32_t i = in_groups; i < n; i++) {
    if (filter.has(hashes.number(rows[i]))) hits.set(rows[i]);
  }
  return hits;
}

template <int element, bool paged>
Hits test(const kdzk_vec* result, const kdzk_vec* values, const kdzk_vec* filter, kdzk_exec* exec) {
  const Hashes<element> hashes = {static_cast<const uint8_t*>(values->data)};
  const uint32_t start = exec->start_row, end = values->nrows;
  if (exec->selection == nullptr) return test_all(hashes, Filter<paged>(filter), Hits(result), start, end);
  exec->out_flags |= KDZK_OUT_BLOOM_SELECTIVE;
  return test_selected(hashes, Filter<paged>(filter), Hits(result), start, end, exec->selection);
}

}  // namespace

uint64_t kdzk_bloom_test(kdzk_vec* result, const kdzk_vec* values, const kdzk_vec* filter, kdzk_exec* exec) {
  if ((values->enc_ctx->flags & KDZK_NUMERIC) == 0) return KDZK_UNSUPPORTED;
  const auto leaf = [&]<int element>() {
    return filter->enc_ctx->bloom_paged != 0 ? test<element, true>(result, values, filter, exec)
                                             : test<element, false>(result, values, filter, exec);
  };
  const Hits hits = values->enc_ctx->width == 32 ? leaf.operator()<4>() : leaf.operator()<8>();
  return hits.finish(result);
}

}  // namespace kdzk

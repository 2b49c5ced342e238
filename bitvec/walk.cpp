// SPDX-License-Identifier: Apache-2.0
// Ranges of a bit vector, and the walk over its set or clear rows.
//
// The iterator holds the current word with the rows already yielded cleared from it. Empty words are skipped whole. The
// `bv8` walks differ from the `bv64` walks in the last word, which they read by bytes, and in the end mark.

#include <kdzk/context.h>

#include "frame/memory.h"
#include "frame/services.h"

namespace kdzk {
namespace {

// The bits of a byte from `first` up, and those up to and including `last`.
constexpr uint8_t bits_from(uint64_t first) { return static_cast<uint8_t>(0xff << first % 8); }
constexpr uint8_t bits_up_to(uint64_t last) { return static_cast<uint8_t>(0xff >> (7 - last % 8)); }

enum class Seek { set, clear };

struct WholeWords {
  static constexpr uint64_t end_mark = KDZK_BV64_END;
  static uint64_t read(const uint64_t* next, int64_t) { return load<uint64_t>(next); }
};

struct WholeBytes {
  static constexpr uint64_t end_mark = KDZK_BV8_END;
  static uint64_t read(const uint64_t* next, int64_t rows_left) {
    if (rows_left >= 64) return load<uint64_t>(next);
    uint64_t word = 0;
    std::memcpy(&word, next, static_cast<size_t>((rows_left + 7) / 8));
    return word;
  }
};

// The next row, or the end mark. At the end the record stays as the last step left it.
template <class Reading, Seek seek>
inline uint64_t next_row(kdzk_bv_iter* iter) {
  while (iter->bits == 0) {
    const int64_t base = int64_t{iter->base} + 64;
    iter->base = static_cast<int32_t>(base);
    if (base >= iter->nrows) return Reading::end_mark;
    const uint64_t word = Reading::read(iter->next++, iter->nrows - base);
    iter->bits = seek == Seek::set ? word : ~word;
    iter->pos = 0;
  }
  iter->pos = static_cast<uint64_t>(__builtin_ctzll(iter->bits));
  iter->bits &= iter->bits - 1;
  const int64_t row = iter->base + static_cast<int64_t>(iter->pos);
  return row < iter->nrows ? static_cast<uint64_t>(row) : Reading::end_mark;
}

template <class Reading>
uint64_t next_rows(kdzk_bv_iter* iter, uint32_t* rows, uint32_t capacity) {
  kdzk_bv_iter local = *iter;  // its own copy, which no store to `rows` can touch: the walk stays in registers
  uint32_t stored = 0;
  while (stored < capacity) {
    const uint64_t row = next_row<Reading, Seek::set>(&local);
    if (row == Reading::end_mark) break;
    store(rows + stored++, static_cast<uint32_t>(row));
  }
  *iter = local;
  return stored;
}

}  // namespace

void kdzk_bv_set_range(void* bits, uint64_t first, uint64_t last) {
  uint8_t* const bytes = static_cast<uint8_t*>(bits);
  const uint64_t a = first / 8, z = last / 8;
  if (a == z) {
    bytes[a] |= bits_from(first) & bits_up_to(last);
    return;
  }
  bytes[a] |= bits_from(first);
  std::memset(bytes + a + 1, 0xff, z - a - 1);
  bytes[z] |= bits_up_to(last);
}

void kdzk_bv_clear_range(void* bits, uint64_t first, uint64_t last) {
  uint8_t* const bytes = static_cast<uint8_t*>(bits);
  const uint64_t a = first / 8, z = last / 8;
  if (a == z) {
    bytes[a] &= static_cast<uint8_t>(~(bits_from(first) & bits_up_to(last)));
    return;
  }
  bytes[a] &= static_cast<uint8_t>(~bits_from(first));
  std::memset(bytes + a + 1, 0, z - a - 1);
  bytes[z] &= static_cast<uint8_t>(~bits_up_to(last));
}

void kdzk_bv_iter_init(kdzk_bv_iter* iter, const uint64_t* words, uint32_t nrows, uint32_t invert, uint32_t start) {
  const uint64_t word = load<uint64_t>(words + start / 64);
  iter->next = words + start / 64 + 1;
  iter->nrows = static_cast<int32_t>(nrows);
  iter->base = static_cast<int32_t>(start / 64 * 64);
  iter->pos = start % 64;
  iter->bits = ((invert & 0xff) == 1 ? ~word : word) & ~uint64_t{0} << start % 64;
}

uint64_t kdzk_bv8_next_set(kdzk_bv_iter* iter) { return next_row<WholeBytes, Seek::set>(iter); }
uint64_t kdzk_bv8_next_clear(kdzk_bv_iter* iter) { return next_row<WholeBytes, Seek::clear>(iter); }
uint64_t kdzk_bv8_next_set_batch(kdzk_bv_iter* iter, uint32_t* rows, uint32_t capacity) {
  return next_rows<WholeBytes>(iter, rows, capacity);
}
uint64_t kdzk_bv8_no_next(kdzk_bv_iter*, uint64_t) { return KDZK_BV8_END; }

uint64_t kdzk_bv64_next_set(kdzk_bv_iter* iter) { return next_row<WholeWords, Seek::set>(iter); }
uint64_t kdzk_bv64_next_clear(kdzk_bv_iter* iter) { return next_row<WholeWords, Seek::clear>(iter); }
uint64_t kdzk_bv64_next_set_batch(kdzk_bv_iter* iter, uint32_t* rows, uint32_t capacity) {
  return next_rows<WholeWords>(iter, rows, capacity);
}
uint64_t kdzk_bv64_no_next(kdzk_bv_iter*, uint64_t) { return KDZK_BV64_END; }

uint64_t kdzk_bv_no_batch(kdzk_bv_iter*, uint32_t*, uint32_t, uint64_t) { return 0; }

}  // namespace kdzk

// SPDX-License-Identifier: Apache-2.0
// The hash table's buckets: 64 bytes with a header, as many tags and payloads as fit, and the pointer to the next
// bucket of the chain. The build writes them, the probe reads them.
//
//   byte 0   tag size             payloads_at                    56        64
//        H . t0 t1 t2 ...  (unused)  p0 p1 p2 ...                next
//
// H is the header byte: the count of entries in bits 0 to 3, `unique_bit`, `chained_bit`. Tags are of 16 or 32 bits,
// payloads of 32 or 64, and everything else follows: the tags begin at the first multiple of their size behind the
// header, the payloads end where the pointer begins. A tag is the lowest bits of the row's hash, or in key mode the
// row's own key; the bucket's number are the hash bits above those of a tag, whoever the tag is.
//
// All tags of a bucket are compared at once: a compare or two and a move of the lanes' top bits give a bit per tag, and
// those of entries that aren't there are cut off by the count. A look at a bucket so has no branch.
//
// Invariants. Loads stay inside the bucket: the second vector of tags, where there is one, ends before byte 48. Buckets
// have no alignment. An overflow bucket has at least one entry, and a bucket with chained_bit has all of them.
#ifndef JOIN_BUCKETS_H
#define JOIN_BUCKETS_H

#include <kdzk/context.h>

#include "x86/kdzkc_x86.h"

namespace kdzk {

constexpr int bucket_bytes = 64;
constexpr int next_at = 56;
constexpr uint32_t count_bits = 0x0f;
constexpr uint32_t unique_bit =
    KDZK_BUCKET_UNIQUE;  // no tag of this bucket occurs twice in it or behind it in the chain
constexpr uint32_t chained_bit = KDZK_BUCKET_CHAINED;  // the pointer at next_at is valid

template <class TagType, class PayloadType>
struct BucketForm {
  using Tag = TagType;
  using Payload = PayloadType;
  static constexpr int tag_bits = 8 * sizeof(Tag);
  static constexpr int tags_at = sizeof(Tag);
  static constexpr int capacity = (next_at - tags_at) / (sizeof(Tag) + sizeof(Payload));
  static constexpr int payloads_at = next_at - capacity * sizeof(Payload);
};

// By kdzk_htdesc.flags: one of the values 1, 2, 4 and 8, and with 4 and 8 the key mode added.
constexpr uint32_t key_mode = KDZK_HT_KEY_MODE;
using Form1 = BucketForm<uint16_t, uint64_t>;
using Form2 = BucketForm<uint16_t, uint32_t>;
using Form4 = BucketForm<uint32_t, uint64_t>;
using Form8 = BucketForm<uint32_t, uint32_t>;

static_assert(Form1::capacity == 5 && Form1::tags_at == 2 && Form1::payloads_at == 16);
static_assert(Form2::capacity == 9 && Form2::tags_at == 2 && Form2::payloads_at == 20);
static_assert(Form4::capacity == 4 && Form4::tags_at == 4 && Form4::payloads_at == 24);
static_assert(Form8::capacity == 6 && Form8::tags_at == 4 && Form8::payloads_at == 32);

// By count, a bit for each entry that is there.
inline constexpr std::array<uint16_t, count_bits + 1> entries_there = [] {
  std::array<uint16_t, count_bits + 1> there{};
  for (uint32_t count = 0; count <= count_bits; count++) there[count] = static_cast<uint16_t>((1 << count) - 1);
  return there;
}();

// Bit j is set if entry j of the bucket is there and has this tag.
template <class Form>
inline uint32_t equal_tags(const uint8_t* bucket, uint32_t header, typename Form::Tag tag) {
  const __m128i wanted = in_all_lanes<Form::tag_bits>(tag);
  constexpr bool two_vectors = Form::capacity * sizeof(tag) > 16;
  const uint8_t* const tags = bucket + Form::tags_at;
  const __m128i first = equal<Form::tag_bits>(load16(tags), wanted);  // a lane per tag
  const __m128i second = two_vectors ? equal<Form::tag_bits>(load16(tags + 16), wanted) : first;
  uint32_t found;
  if constexpr (Form::tag_bits == 16) {
    found = static_cast<uint32_t>(_mm_movemask_epi8(_mm_packs_epi16(first, second)));
  } else {
    found = static_cast<uint32_t>(_mm_movemask_ps(_mm_castsi128_ps(first)));
    if (two_vectors) found |= static_cast<uint32_t>(_mm_movemask_ps(_mm_castsi128_ps(second))) << 4;
  }
  return found & entries_there[header & count_bits];
}

// ---- Where a row's chain begins ----

// A mask of the bits 0 to `bit`.
inline uint64_t bits_up_to(uint32_t bit) { return bit < 63 ? (uint64_t{2} << bit) - 1 : ~uint64_t{0}; }

// Whether the hash also chooses among tables, where no one else does.
inline bool has_directory(const kdzk_htdesc* desc) { return desc->dir_hi != desc->bucket_hi || desc->low_bits != 0; }

// The hash bits that are the bucket's number lie above those of a tag.
template <class Form>
struct BucketNumber {
  uint64_t mask;

  explicit BucketNumber(const kdzk_htdesc* desc)
      : mask(bits_up_to(desc->bucket_hi) >> Form::tag_bits << Form::tag_bits) {}
  uint64_t byte(uint64_t hash) const { return (hash & mask) >> (Form::tag_bits - 6); }
  static_assert(bucket_bytes == 1 << 6);
};

template <class Form>
struct OneTable {
  BucketNumber<Form> number;
  uint8_t* table;

  OneTable(const kdzk_htdesc* desc, uint32_t entry) : number(desc), table(desc->tables[entry]) {}
  static uint64_t entry(uint64_t) { return 0; }
  uint8_t* bucket(uint64_t hash) const { return table + number.byte(hash); }
};

template <class Form>
struct Directory {
  BucketNumber<Form> number;
  uint64_t dir_mask, low_mask;
  uint32_t dir_lo, low_bits;
  uint8_t* const* tables;

  explicit Directory(const kdzk_htdesc* desc)
      : number(desc),
        dir_mask(bits_up_to(desc->dir_hi)),
        low_mask((uint64_t{1} << desc->low_bits % 64) - 1),
        dir_lo(desc->dir_lo % 64),
        low_bits(desc->low_bits % 64),
        tables(desc->tables) {}
  uint64_t entry(uint64_t hash) const { return (hash & dir_mask) >> dir_lo << low_bits | (hash & low_mask); }
  uint8_t* bucket(uint64_t hash) const { return tables[entry(hash)] + number.byte(hash); }
};

// ---- What the rows of a batch bring besides their hashes ----

// Values of a type, one every `stride` bytes: ids or keys, in columns of their own or in records.
template <class T, uint32_t stride = sizeof(T)>
struct Column {
  const uint8_t* first;

  Column from(uint32_t row) const { return {first + uint64_t{row} * stride}; }
  T operator[](uint64_t i) const { return load<T>(first + i * stride); }
};

// Ids that count the rows.
template <class T>
struct Counted {
  T first;

  Counted from(uint32_t row) const { return {static_cast<T>(first + row)}; }
  T operator[](uint64_t i) const { return static_cast<T>(first + i); }
};

// Tags that are bits of the hashes.
template <class Form, class Hashes>
struct LowBits {
  Hashes hashes;

  typename Form::Tag operator[](uint64_t i) const { return static_cast<typename Form::Tag>(hashes[i]); }
};

struct TagsFromHashes {};

template <class Form, class Hashes>
LowBits<Form, Hashes> tags_of(TagsFromHashes, uint32_t, Hashes hashes) {
  return {hashes};
}

template <class Form, class Hashes, uint32_t stride>
Column<uint32_t, stride> tags_of(Column<uint32_t, stride> keys, uint32_t row, Hashes) {
  return keys.from(row);
}

// ---- The first look at a batch's buckets ----

// Rows between the prefetch of a bucket and the look at it.
inline constexpr uint32_t rows_ahead = 32;

template <class Hashes, class Table>
inline void prefetch_first(Hashes hashes, const Table& table, uint32_t n) {
  for (uint32_t i = 0; i < n && i < rows_ahead; i++) __builtin_prefetch(table.bucket(hashes[i]));
}

// The bucket of row i, after the prefetch of the one `rows_ahead` behind it.
template <class Hashes, class Table>
inline uint8_t* prefetched_bucket(Hashes hashes, const Table& table, uint32_t i, uint32_t n) {
  if (n - i > rows_ahead) __builtin_prefetch(table.bucket(hashes[i + rows_ahead]));
  return table.bucket(hashes[i]);
}

}  // namespace kdzk

#endif

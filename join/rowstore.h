// SPDX-License-Identifier: Apache-2.0
// The row store as gather, pair matrix and row packing see it: locators, page forms, and values appended to a page or a
// column.
//
// A locator is one number per row, which names a page and an entry of it. From the lowest bit:
//
//   entry: page_lo bits | page: up to bit page_hi | anything         page_lo 64: all of it is the entry, of page 0
//
// What an entry is, the page form says:
//
//   Pages32   pairs     [length, 2 bytes | 6 bytes of no meaning | address]     16 bytes each
//   Pages16   refs      [length, 2 bytes | reference, 6 bytes]                  8 bytes each
//   Pages8    offsets   [offset][offset] ...                                    4 bytes each, value = between two of
//   them
//
// A reference is a number of 48 bits that stands for an address: a page of addresses (kdzk_enc_ctx.ref_pages) and below
// it the ref_bits low bits of the address or of the distance from the page's beginning.
#ifndef JOIN_ROWSTORE_H
#define JOIN_ROWSTORE_H

#include <emmintrin.h>

#include "join/keys.h"

namespace kdzk {

// The lowest n bits, n up to 64.
constexpr uint64_t low_bits(uint32_t n) { return n < 64 ? ~(~uint64_t{0} << n) : ~uint64_t{0}; }

inline void prefetch(const uint8_t* at) { _mm_prefetch(reinterpret_cast<const char*>(at), _MM_HINT_T0); }

// ---- Pairs ----

// Bytes 2 to 7 keep what they hold.
inline void store_pair(uint8_t* pair, const Value& value) {
  store(pair, static_cast<uint16_t>(value.length));
  store(pair + 8, value.at);
}

// ---- Locators ----

struct Place {
  uint64_t page, entry;
};

// How a locator is cut. With page_lo 64 the page is masked away.
struct LocatorBits {
  uint64_t page_mask, entry_mask;
  uint32_t page_lo;

  constexpr LocatorBits(uint32_t page_hi, uint32_t lo)
      : page_mask(lo == 64 ? 0 : low_bits(page_hi + 1)), entry_mask(low_bits(lo)), page_lo(lo % 64) {}
  constexpr Place place(uint64_t locator) const { return {(locator & page_mask) >> page_lo, locator & entry_mask}; }
};

static_assert(LocatorBits(15, 12).place(0xf1234).page == 1 && LocatorBits(15, 12).place(0xf1234).entry == 0x234);
static_assert(LocatorBits(63, 60).place(~uint64_t{0}).page == 15 && LocatorBits(7, 0).place(0x123).page == 0x23);
static_assert(LocatorBits(5, 64).place(0x8000000000000001).page == 0);
static_assert(LocatorBits(5, 64).place(0x8000000000000001).entry == 0x8000000000000001);

// ---- Page forms ----

// A page form has the value of an entry, and its compact word: the reference that stands for it, and its length.
struct Pages32 {
  static constexpr uint32_t flag = KDZK_STORE_PAIRS;
  uint8_t* const* pairs;
  uint32_t ref_bits;

  Pages32(const kdzk_rowstore* row_store, const kdzk_enc_ctx* refs)
      : pairs(row_store->pairs), ref_bits(refs->ref_bits) {}
  const uint8_t* entry(const Place& place) const { return pairs[place.page] + place.entry * 16; }
  Value value(const Place& place) const { return Pair16(entry(place)).value(0, 0); }
  uint64_t compact(const Place& place) const {
    const Value v = value(place);
    const uint64_t reference = (place.page << ref_bits) + (reinterpret_cast<uint64_t>(v.at) & low_bits(ref_bits));
    return reference << 16 | v.length;
  }
};

// References that are cut to their low bits before they are looked up, so that they are all of page 0 of addresses.
struct Pages16 {
  static constexpr uint32_t flag = KDZK_STORE_REFS;
  uint8_t* const* refs;
  const uint64_t* ref_pages;
  uint64_t kept;  // bits of a word

  Pages16(const kdzk_rowstore* row_store, const kdzk_enc_ctx* refs)
      : refs(row_store->refs), ref_pages(refs->ref_pages), kept(low_bits(refs->ref_bits) << 16 | 0xffff) {}
  const uint8_t* entry(const Place& place) const { return refs[place.page] + place.entry * 8; }
  uint64_t compact(const Place& place) const { return load<uint64_t>(entry(place)) & kept; }
  Value value(const Place& place) const {
    const uint64_t word = compact(place);
    return {reinterpret_cast<const uint8_t*>(ref_pages[0] + (word >> 16)), static_cast<uint16_t>(word)};
  }
};

// The one form whose lengths may have more than 16 bits, all of which count when the value is copied.
struct Pages8 {
  static constexpr uint32_t flag = KDZK_STORE_OFFSETS;
  uint8_t* const* offsets;
  const uint64_t* bases;
  uint32_t ref_bits;

  Pages8(const kdzk_rowstore* row_store, const kdzk_enc_ctx* refs)
      : offsets(row_store->offsets), bases(row_store->bases), ref_bits(refs->ref_bits) {}
  const uint8_t* entry(const Place& place) const { return offsets[place.page] + place.entry * 4; }
  Value value(const Place& place) const {
    const uint32_t offset = load<uint32_t>(entry(place)), next = load<uint32_t>(entry(place) + 4);
    return {reinterpret_cast<const uint8_t*>(bases[place.page] + offset), next - offset};
  }
  uint64_t compact(const Place& place) const {
    const Value v = value(place);
    const uint64_t reference = (place.page << ref_bits) + (reinterpret_cast<uint64_t>(v.at) & low_bits(ref_bits));
    return reference << 16 | static_cast<uint16_t>(v.length);
  }
};

// ---- Copies of values ----

// Exactly n bytes, in pieces of which the last two may overlap.
inline void copy_exactly(uint8_t* to, const uint8_t* from, uint64_t n) {
  const auto ends = [&]<class Piece>() {
    const auto first = load<Piece>(from), last = load<Piece>(from + n - sizeof(Piece));
    store(to, first);
    store(to + n - sizeof(Piece), last);
  };
  if (n > 128) {
    std::memcpy(to, from, n);
  } else if (n >= 16) {
    for (uint64_t byte = 0; byte < n - 16; byte += 16) store(to + byte, load<__m128i>(from + byte));
    store(to + n - 16, load<__m128i>(from + n - 16));
  } else if (n >= 8) {
    ends.template operator()<uint64_t>();
  } else if (n >= 4) {
    ends.template operator()<uint32_t>();
  } else if (n >= 2) {
    ends.template operator()<uint16_t>();
  } else if (n == 1) {
    *to = *from;
  }
}

// What an empty value is read from, as its own address may be anything.
alignas(16) inline constexpr uint8_t nothing[16] = {};

// 16 bytes of one page of memory, not all of which need be part of what a host has allocated.
__attribute__((no_sanitize_address)) inline __m128i load16_of_page(const uint8_t* from) {
  return *reinterpret_cast<const __m128i_u*>(from);
}

// The bytes of a value. What is behind them, up to `end`, is still to be written and may be overwritten, which is how
// a short value takes one load and one store, whatever its length: no branch that depends on it is ever guessed wrong.
// The load may reach past the value, but never into another page of memory.
inline void copy_value(uint8_t* to, const Value& value, const uint8_t* end) {
  const uint8_t* const from = value.length == 0 ? nothing : value.at;
  const bool in_page = reinterpret_cast<uint64_t>(from) % 4096 <= 4096 - 16;
  if ((value.length <= 16) & in_page & (end - to >= 16)) {
    store(to, load16_of_page(from));
  } else {
    copy_exactly(to, value.at, value.length);
  }
}

}  // namespace kdzk

#endif

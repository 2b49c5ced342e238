// SPDX-License-Identifier: Apache-2.0
// Tables of small elements, looked up for 16 codes at once.
//
//   codes      4 vectors of 4
//      |  the index's arithmetic, in lanes: sim none, off minus the base, ind a page number and an index within the
//      page
//   units      their numbers leave the vectors, and become 16 addresses; ind looks each page up on the way
//      |  an insertion each: as many loads under way as the processor can hold, and no branch
//   elements   1, 2 or 4 vectors in the order of the rows; of `bit` and `nib` the unit is a byte with several elements,
//              and the low bits of the index say which one:
//
//                 byte       7 6 5 4 3 2 1 0        bit: index % 8        nib: index % 2, 0 being the lower half
//
// A missing page has one address for all its elements, of a unit of all ones: whatever the index, the element there is
// the one without a value. So a missing page costs a conditional move and nothing else.
#ifndef X86_XLATE_H
#define X86_XLATE_H

#include <kdzk/records.h>

#include <bit>

#include "frame/families.h"
#include "x86/kdzkc_x86.h"

namespace kdzk {

// How elements lie in a table, and in the array that `_c2d` kernels write: in units of 8, 16 or 32 bits.
template <TableElement element>
struct ElementForm {
  static constexpr int bits = element == TableElement::bit   ? 1
                              : element == TableElement::nib ? 4
                              : element == TableElement::ub1 ? 8
                              : element == TableElement::ub2 ? 16
                                                             : 32;
  static constexpr int unit_bits = bits < 8 ? 8 : bits;
  static constexpr uint32_t per_unit = unit_bits / bits;
  static constexpr int unit_shift = std::countr_zero(per_unit);  // from an element's index to its unit's number
  static constexpr uint32_t none = ~0u >> (32 - bits);           // the element that marks a code without a value
  using Unit = LaneInt<unit_bits>;

  static constexpr uint32_t bit(uint32_t index) { return index % per_unit * bits; }  // in the unit
  static constexpr uint32_t picked(Unit unit, uint32_t index) { return unit >> bit(index) & none; }

  static void put(uint8_t* elements, uint32_t index, uint32_t value) {
    uint8_t* const at = elements + uint64_t{index >> unit_shift} * sizeof(Unit);
    if constexpr (per_unit == 1) {
      store(at, static_cast<Unit>(value));
    } else {
      *at = static_cast<uint8_t>((*at & ~(none << bit(index))) | value << bit(index));
    }
  }
};

static_assert(ElementForm<TableElement::bit>::picked(0x20, 13) == 1 && ElementForm<TableElement::bit>::none == 1);
static_assert(ElementForm<TableElement::nib>::picked(0xa5, 6) == 5 &&
              ElementForm<TableElement::nib>::picked(0xa5, 7) == 10);
static_assert(ElementForm<TableElement::ub4>::none == 4294967295 && ElementForm<TableElement::nib>::unit_shift == 1);

// ---- Tables: from codes to indexes, and to the addresses of units ----

// One array.
struct FlatTable {
  static constexpr bool paged = false;
  uint64_t units;  // their address

  uint64_t start(uint32_t) const { return units; }
  uint32_t index(uint32_t code) const { return code; }
  __m128i index(__m128i codes) const { return codes; }
};

// One array for the codes from a base up.
struct OffsetTable {
  static constexpr bool paged = false;
  uint64_t units;
  uint32_t base;

  uint64_t start(uint32_t) const { return units; }
  uint32_t index(uint32_t code) const { return code - base; }
  __m128i index(__m128i codes) const { return _mm_sub_epi32(codes, _mm_set1_epi32(static_cast<int>(base))); }
};

// A directory of pages. Shifts must be below 32.
struct PagedTable {
  static constexpr bool paged = true;
  const uint64_t* pages;  // addresses; 0 for a missing page
  uint32_t shift, mask;

  uint64_t start(uint32_t page) const { return load<uint64_t>(pages + page); }
  uint32_t index(uint32_t code) const { return code & mask; }
  __m128i index(__m128i codes) const { return _mm_and_si128(codes, _mm_set1_epi32(static_cast<int>(mask))); }
  uint32_t page(uint32_t code) const { return code >> shift; }
  __m128i page(__m128i codes) const { return _mm_srl_epi32(codes, _mm_cvtsi32_si128(static_cast<int>(shift))); }
};

// Stands for all units of missing pages.
inline constexpr uint32_t missing_unit = ~0u;

// The address of a unit; `page` is looked at by paged tables only.
template <class Unit, class Table>
inline const uint8_t* unit_at(const Table& table, uint32_t page, uint32_t unit) {
  const uint64_t start = table.start(page);
  const uint64_t there = start + uint64_t{unit} * sizeof(Unit);
  const uint64_t nowhere = reinterpret_cast<uint64_t>(&missing_unit);
  uint64_t address = there;
  if constexpr (Table::paged) {
    address = start == 0 ? nowhere : there;
    asm("" : "+r"(address));  // or the compiler, which knows what stands nowhere, makes a branch of it
  }
  return reinterpret_cast<const uint8_t*>(address);
}

// Where the element of a code is: the bits from `bit` on of a unit.
struct ElementPlace {
  const uint8_t* unit;
  uint32_t index;
};

template <TableElement element, class Table>
inline ElementPlace place_of(const Table& table, uint32_t code) {
  using Form = ElementForm<element>;
  const uint32_t index = table.index(code);
  uint32_t page = 0;
  if constexpr (Table::paged) page = table.page(code);
  return {unit_at<typename Form::Unit>(table, page, index >> Form::unit_shift), index};
}

template <TableElement element>
inline uint32_t element_at(const uint8_t* unit, uint32_t index) {
  return ElementForm<element>::picked(load<typename ElementForm<element>::Unit>(unit), index);
}

// ---- Sixteen rows ----

template <int lane_bits, int lane>
inline __m128i inserted(__m128i v, const uint8_t* from) {
  if constexpr (lane_bits == 8) return _mm_insert_epi8(v, *from, lane);
  if constexpr (lane_bits == 16) return _mm_insert_epi16(v, load<uint16_t>(from), lane);
  if constexpr (lane_bits == 32) return _mm_insert_epi32(v, load<int>(from), lane);
}

// The places of the elements of 16 rows.
template <TableElement element, class Table>
class SixteenPlaces {
 public:
  using Form = ElementForm<element>;

  // `codes(i)` gives the codes of the rows from 4 * i on. `stored` is where the codes of all 16 lie, big-endian, if
  // they do. Then paged tables take them from there, a row at a time: two numbers a row out of the vectors and the
  // insertions would keep the same units busy. Of the time of kdzk_xlate_ind_*, 0.9 with elements up to 8 bits, 0.96
  // with larger ones (a busy Zen 4, g++ 12, both in turn).
  template <class Codes>
  [[gnu::always_inline]] SixteenPlaces(const Table& table, const Codes& codes, const uint8_t* stored = nullptr)
      : table_(table), stored_(stored) {
    for (int i = 0; i < 4; i++) {
      const __m128i four = codes(i), index = table.index(four);
      units_[i] = _mm_srli_epi32(index, Form::unit_shift);
      if constexpr (Table::paged) pages_[i] = table.page(four);
      if constexpr (Form::per_unit > 1) low_bits_[i] = _mm_and_si128(index, _mm_set1_epi32(Form::per_unit - 1));
    }
  }

  // The address of the unit of a row.
  template <int row>
  [[gnu::always_inline]] const uint8_t* unit() const {
    uint32_t page = 0;
    if constexpr (Table::paged) {
      if (stored_ != nullptr) {
        uint32_t code = load_be32(stored_ + 4 * row);
        asm("" : "+r"(code));  // or the compiler takes it from a vector after all
        return unit_at<typename Form::Unit>(table_, table_.page(code), table_.index(code) >> Form::unit_shift);
      }
      page = lane<row>(pages_);
    }
    return unit_at<typename Form::Unit>(table_, page, lane<row>(units_));
  }

  void put_units(const uint8_t** to) const {
    [ =, this ]<int... row>(std::integer_sequence<int, row...>) { ((to[row] = this->template unit<row>()), ...); }
    (std::make_integer_sequence<int, 16>());
  }

  // The low bits of the indexes, a byte per row, if they matter.
  __m128i low_bits() const {
    if constexpr (Form::per_unit == 1) return _mm_setzero_si128();
    return _mm_packs_epi16(_mm_packs_epi32(low_bits_[0], low_bits_[1]), _mm_packs_epi32(low_bits_[2], low_bits_[3]));
  }

  // The units of the rows `first`, first + 1, ...: a vector of them.
  template <int first, int... lane>
  [[gnu::always_inline]] __m128i units(std::integer_sequence<int, lane...>) const {
    // No chain of insertions is longer than 8.
    __m128i v[2] = {_mm_setzero_si128(), _mm_setzero_si128()};
    ((v[lane / 8] = inserted<Form::unit_bits, lane>(v[lane / 8], unit<first + lane>())), ...);
    return sizeof...(lane) > 8 ? _mm_or_si128(v[0], v[1]) : v[0];
  }

 private:
  // Lane `row` of 16. Two at a time leave the vector units, which saves them the time for other things.
  template <int row>
  static uint32_t lane(const __m128i* lanes) {
    const auto two = static_cast<uint64_t>(_mm_extract_epi64(lanes[row / 4], row % 4 / 2));
    return static_cast<uint32_t>(row % 2 == 0 ? two : two >> 32);
  }

  const Table table_;
  const uint8_t* const stored_;
  __m128i units_[4];  // numbers
  __m128i pages_[Table::paged ? 4 : 1];
  __m128i low_bits_[4];
};

// The elements of 16 rows, in lanes of a unit each. An element of `bit` is a byte of equal bits.
template <TableElement element>
struct Elements {
  using Form = ElementForm<element>;
  static constexpr int vectors = Form::unit_bits / 8;
  __m128i v[vectors];

  template <class Table>
  [[gnu::always_inline]] explicit Elements(const SixteenPlaces<element, Table>& places) {
    constexpr std::make_integer_sequence<int, 16 / vectors> lanes;
    v[0] = places.template units<0>(lanes);
    if constexpr (vectors >= 2) v[1] = places.template units<16 / vectors>(lanes);
    if constexpr (vectors == 4) {
      v[2] = places.template units<8>(lanes);
      v[3] = places.template units<12>(lanes);
    }
    if constexpr (element == TableElement::bit) {
      const __m128i powers = _mm_set1_epi64x(static_cast<long long>(0x8040201008040201));  // byte i % 8: 2^i
      const __m128i its_bit = _mm_shuffle_epi8(powers, places.low_bits());                 // 2^(index % 8)
      v[0] = _mm_cmpeq_epi8(_mm_and_si128(v[0], its_bit), its_bit);
    }
    if constexpr (element == TableElement::nib) {
      const __m128i keep = _mm_set1_epi8(15);
      const __m128i low = _mm_and_si128(v[0], keep), high = _mm_and_si128(_mm_srli_epi16(v[0], 4), keep);
      v[0] = _mm_blendv_epi8(low, high, _mm_slli_epi16(places.low_bits(), 7));  // a byte's top bit: index % 2
    }
  }

  // Bit r of 16: row r has a value.
  uint32_t hits() const {
    const auto without = [this](int i) {  // all ones in the lanes of rows without
      if constexpr (element == TableElement::bit) return v[i];
      return equal<Form::unit_bits>(v[i], in_all_lanes<Form::unit_bits>(Form::none));
    };
    __m128i rows;  // a byte per row
    if constexpr (vectors == 1) rows = without(0);
    if constexpr (vectors == 2) rows = _mm_packs_epi16(without(0), without(1));
    if constexpr (vectors == 4)
      rows = _mm_packs_epi16(_mm_packs_epi32(without(0), without(1)), _mm_packs_epi32(without(2), without(3)));
    return static_cast<uint32_t>(_mm_movemask_epi8(rows)) ^ 0xffff;
  }

  // Stores them as they lie in a table, the first one at the beginning of a unit.
  void put(uint8_t* at) const {
    static_assert(element != TableElement::bit);
    if constexpr (element == TableElement::nib) {
      const __m128i pairs = _mm_maddubs_epi16(v[0], _mm_set1_epi16(0x1001));  // even row + 16 * odd row
      _mm_storel_epi64(reinterpret_cast<__m128i*>(at), _mm_packus_epi16(pairs, pairs));
    } else {
      for (int i = 0; i < vectors; i++) store16(at + 16 * i, v[i]);
    }
  }

  // The elements of rows 4 * i to 4 * i + 3 in lanes of 32 bits.
  template <int i>
  __m128i four() const {
    static_assert(element != TableElement::bit);
    if constexpr (vectors == 1) return _mm_cvtepu8_epi32(_mm_srli_si128(v[0], 4 * i));
    if constexpr (vectors == 2) return _mm_cvtepu16_epi32(_mm_srli_si128(v[i / 2], i % 2 * 8));
    if constexpr (vectors == 4) return v[i];
  }
};

}  // namespace kdzk

#endif

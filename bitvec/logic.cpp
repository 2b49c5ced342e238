// SPDX-License-Identifier: Apache-2.0
// Bit vector logic: one pass over one to three sources that writes the result and counts its rows.
//
// The `bv64` and the `bv8` group differ only in the unit in which the end of a vector is touched: 64-bit words or
// bytes. Everything before the end goes 16 bytes at a time. Bits past the last row are computed like the others,
// whatever they are in the sources, and taken out of the count at the end.

#include <emmintrin.h>

#include "frame/memory.h"
#include "frame/services.h"

namespace kdzk {
namespace {

// The operations, for bytes, words and vectors alike.
constexpr auto op_same = [](auto a) { return a; };
constexpr auto op_not = [](auto a) { return ~a; };
constexpr auto op_and = [](auto a, auto b) { return a & b; };
constexpr auto op_or = [](auto a, auto b) { return a | b; };
constexpr auto op_xor = [](auto a, auto b) { return a ^ b; };
constexpr auto op_andnot = [](auto a, auto b) { return ~a & b; };
constexpr auto op_and3 = [](auto a, auto b, auto c) { return a & b & c; };
constexpr auto op_or3 = [](auto a, auto b, auto c) { return a | b | c; };
constexpr auto op_xor3 = [](auto a, auto b, auto c) { return a ^ b ^ c; };

// Writes op(src...) to dst if `writing`, and returns the number of its set bits among the first nrows if `counting`.
template <class Unit, bool writing, bool counting, class Operation, class... Source>
uint32_t combine(uint8_t* dst, uint64_t nrows, Operation op, const Source*... src) {
  constexpr uint64_t unit_bits = 8 * sizeof(Unit);
  uint32_t count = 0;
  uint64_t byte = 0;
  if constexpr (counting) {
    // What is counted has to pass through general registers, so there is no gain in vectors.
#pragma GCC unroll 4
    for (const uint64_t end = nrows / 64 * 8; byte < end; byte += 8) {
      const uint64_t word = op(load<uint64_t>(src + byte)...);
      if constexpr (writing) store(dst + byte, word);
      count += bits_set(word);
    }
  } else {
    for (const uint64_t end = nrows / 128 * 16; byte < end; byte += 16) {
      store(dst + byte, op(load<__m128i>(src + byte)...));
    }
  }
  Unit unit = 0;
  for (; byte * 8 < nrows; byte += sizeof(Unit)) {
    unit = static_cast<Unit>(op(load<Unit>(src + byte)...));
    if constexpr (writing) store(dst + byte, unit);
    if constexpr (counting) count += bits_set(unit);
  }
  if (counting && nrows % unit_bits != 0) count -= bits_set(static_cast<Unit>(unit >> nrows % unit_bits));
  return count;
}

template <class Unit, class Operation, class... Source>
void service(void* dst, uint32_t* count, uint64_t nrows, Operation op, const Source*... src) {
  uint8_t* const out = static_cast<uint8_t*>(dst);
  if (count == nullptr) {
    combine<Unit, true, false>(out, nrows, op, static_cast<const uint8_t*>(src)...);
  } else {
    *count = combine<Unit, true, true>(out, nrows, op, static_cast<const uint8_t*>(src)...);
  }
}

template <class Unit>
uint32_t counted(const void* src, uint64_t nrows) {
  return combine<Unit, false, true>(nullptr, nrows, op_same, static_cast<const uint8_t*>(src));
}

}  // namespace

void kdzk_bv8_count(uint32_t* count, const void* src, uint64_t nrows) { *count = counted<uint8_t>(src, nrows); }
void kdzk_bv8_not(void* dst, uint32_t* count, const void* src, uint64_t nrows) {
  service<uint8_t>(dst, count, nrows, op_not, src);
}
void kdzk_bv8_and(void* dst, uint32_t* count, const void* a, const void* b, uint64_t nrows) {
  service<uint8_t>(dst, count, nrows, op_and, a, b);
}
void kdzk_bv8_or(void* dst, uint32_t* count, const void* a, const void* b, uint64_t nrows) {
  service<uint8_t>(dst, count, nrows, op_or, a, b);
}
void kdzk_bv8_xor(void* dst, uint32_t* count, const void* a, const void* b, uint64_t nrows) {
  service<uint8_t>(dst, count, nrows, op_xor, a, b);
}
void kdzk_bv8_andnot(void* dst, uint32_t* count, const void* a, const void* b, uint64_t nrows) {
  service<uint8_t>(dst, count, nrows, op_andnot, a, b);
}
void kdzk_bv8_and3(void* dst, uint32_t* count, const void* a, const void* b, const void* c, uint64_t nrows) {
  service<uint8_t>(dst, count, nrows, op_and3, a, b, c);
}
void kdzk_bv8_or3(void* dst, uint32_t* count, const void* a, const void* b, const void* c, uint64_t nrows) {
  service<uint8_t>(dst, count, nrows, op_or3, a, b, c);
}
void kdzk_bv8_xor3(void* dst, uint32_t* count, const void* a, const void* b, const void* c, uint64_t nrows) {
  service<uint8_t>(dst, count, nrows, op_xor3, a, b, c);
}

void kdzk_bv64_count(uint32_t* count, const void* src, uint64_t nrows) { *count = counted<uint64_t>(src, nrows); }
void kdzk_bv64_not(void* dst, uint32_t* count, const void* src, uint64_t nrows) {
  service<uint64_t>(dst, count, nrows, op_not, src);
}
void kdzk_bv64_and(void* dst, uint32_t* count, const void* a, const void* b, uint64_t nrows) {
  service<uint64_t>(dst, count, nrows, op_and, a, b);
}
void kdzk_bv64_or(void* dst, uint32_t* count, const void* a, const void* b, uint64_t nrows) {
  service<uint64_t>(dst, count, nrows, op_or, a, b);
}
void kdzk_bv64_xor(void* dst, uint32_t* count, const void* a, const void* b, uint64_t nrows) {
  service<uint64_t>(dst, count, nrows, op_xor, a, b);
}
void kdzk_bv64_andnot(void* dst, uint32_t* count, const void* a, const void* b, uint64_t nrows) {
  service<uint64_t>(dst, count, nrows, op_andnot, a, b);
}
void kdzk_bv64_and3(void* dst, uint32_t* count, const void* a, const void* b, const void* c, uint64_t nrows) {
  service<uint64_t>(dst, count, nrows, op_and3, a, b, c);
}
void kdzk_bv64_or3(void* dst, uint32_t* count, const void* a, const void* b, const void* c, uint64_t nrows) {
  service<uint64_t>(dst, count, nrows, op_or3, a, b, c);
}
void kdzk_bv64_xor3(void* dst, uint32_t* count, const void* a, const void* b, const void* c, uint64_t nrows) {
  service<uint64_t>(dst, count, nrows, op_xor3, a, b, c);
}

}  // namespace kdzk

// SPDX-License-Identifier: Apache-2.0
// Values on byte boundaries, big-endian, as the lanes of vectors.
#ifndef X86_ALIGNED_H
#define X86_ALIGNED_H

#include "x86/lanes.h"

namespace kdzk {

// Values of `bytes` bytes back to back, each left-aligned in a lane of `width` bits: its first byte is the lane's top
// byte, and what the value doesn't fill is zero. One shuffle does both, so lanes are native; where only equality counts
// and the lane is full, the bytes stay as they are and the constant is swapped instead.
template <int width, int bytes = width / 8>
struct AlignedSource {
  using Code = std::conditional_t<width == 64, uint64_t, uint32_t>;
  using Word = std::conditional_t<width == 64, uint16_t, std::conditional_t<width == 32, uint32_t, uint64_t>>;
  static constexpr Code top = static_cast<Code>(~uint64_t{0} >> (64 - width));
  static constexpr int lane_bits = width;
  static constexpr int words_per_step = width == 8 ? 2 : 1;
  static constexpr int halves = 1;
  static constexpr bool has_at_least = width <= 16;
  static constexpr bool sums_second_word = true;
  static constexpr int bytes_per_vector = 128 / width * bytes;
  static constexpr bool narrow = bytes < width / 8;

  const uint8_t* in;
  const uint8_t* start = in;

  // For each byte of a vector, lowest first, where it comes from; 0x80 gives zero.
  static constexpr std::array<uint8_t, 16> shuffle = [] {
    constexpr int lane_bytes = width / 8;
    std::array<uint8_t, 16> from{};
    for (int at = 0; at < 16; at++) {
      const int byte = lane_bytes - 1 - at % lane_bytes;  // of the value, its first byte being 0
      from[at] = static_cast<uint8_t>(byte < bytes ? at / lane_bytes * bytes + byte : 0x80);
    }
    return from;
  }();

  void begin_step() const {}

  template <int vector, bool ordered>
  __m128i codes() const {
    const __m128i stored = load16(in + vector * bytes_per_vector);
    return width > 8 && (ordered || narrow) ? _mm_shuffle_epi8(stored, vector_of(shuffle)) : stored;
  }
  void move(int vectors) { in += vectors * bytes_per_vector; }
  void next() { move(static_cast<int>(sizeof(Word)) * width / 16); }

  template <int, bool ordered>
  static __m128i scaled(Code code) {
    const __m128i native = in_all_lanes<width>(code);
    constexpr auto swap = AlignedSource<width>::shuffle;
    return width > 8 && !ordered && !narrow ? _mm_shuffle_epi8(native, vector_of(swap)) : native;
  }

  void tail(uint32_t) const {}
  Code code(uint32_t row) const {
    const uint8_t* const at = start + uint64_t{row} * bytes;
    if constexpr (width == 8) return *at;
    if constexpr (width == 16) return load_be16(at);
    if constexpr (width == 32) return cut(load_be32(at));
    if constexpr (width == 64) return cut(load_be64(at));
  }

  // The first `bytes` bytes of a value, the rest zero.
  static constexpr Code cut(Code value) {
    return narrow ? value & static_cast<Code>(top << (width - 8 * bytes)) : value;
  }
};

static_assert(AlignedSource<32, 3>::shuffle ==
              std::array<uint8_t, 16>{0x80, 2, 1, 0, 0x80, 5, 4, 3, 0x80, 8, 7, 6, 0x80, 11, 10, 9});
static_assert(AlignedSource<32, 3>::cut(0x12345678) == 0x12345600);

// The constant of a `fixed` or `dynp` kernel, stored big-endian in width / 8 bytes.
template <int width>
inline auto stored_constant(const kdzk_kargs* args) {
  using Code = typename AlignedSource<width>::Code;
  if constexpr (width == 8) return static_cast<Code>(load<uint8_t>(args->data));
  if constexpr (width == 16) return static_cast<Code>(load_be16(args->data));
  if constexpr (width == 32) return static_cast<Code>(load_be32(args->data));
  if constexpr (width == 64) return static_cast<Code>(load_be64(args->data));
}

// Calls f.operator()<bytes>() with the bytes of a value in a column of `fixed` values in lanes of `width` bits, as the
// constant's encoding tells. Taken once, before the loop.
template <int width, class F>
inline auto with_value_bytes(const Call& call, const F& f) {
  if constexpr (width == 32 || width == 64) {
    switch (call.low->enc_ctx->width / 8) {
      case 3:
        return f.template operator()<3>();
      case 5:
        if constexpr (width == 64) return f.template operator()<5>();
        break;
      case 6:
        if constexpr (width == 64) return f.template operator()<6>();
        break;
      case 7:
        if constexpr (width == 64) return f.template operator()<7>();
        break;
      default:
        break;
    }
  }
  return f.template operator()<width / 8>();
}

}  // namespace kdzk

#endif

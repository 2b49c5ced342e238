// SPDX-License-Identifier: Apache-2.0
// Floats and doubles for tests: values of all kinds, their stored forms, rounding and flush modes.
#ifndef TESTS_SUPPORT_NUMBERS_H
#define TESTS_SUPPORT_NUMBERS_H

#include <xmmintrin.h>

#include <cmath>
#include <cstring>
#include <limits>

#include "tests/support/streams.h"

namespace kdzk_test {

// Round to nearest, down, up, towards zero; and flush to zero with denormals taken for zero.
constexpr unsigned float_modes[] = {0x1f80, 0x3f80, 0x5f80, 0x7f80, 0x9fc0};

// Sets a mode of the processor for as long as it lives.
class FloatMode {
 public:
  explicit FloatMode(unsigned mode) : before_(_mm_getcsr()) { _mm_setcsr(mode); }
  ~FloatMode() { _mm_setcsr(before_); }
  FloatMode(const FloatMode&) = delete;

 private:
  unsigned before_;
};

template <class T>
auto bits_of(T value) {
  std::conditional_t<sizeof(T) == 4, uint32_t, uint64_t> bits;
  std::memcpy(&bits, &value, sizeof bits);
  return bits;
}

// Equal to the bit, or both NaN: which NaN an operation gives is free.
template <class T>
bool same_number(T a, T b) {
  return bits_of(a) == bits_of(b) || (std::isnan(a) && std::isnan(b));
}

enum class Numbers { any_bits, near_one, special, minus_zero };
constexpr Numbers kinds_of_numbers[] = {Numbers::any_bits, Numbers::near_one, Numbers::special, Numbers::minus_zero};

template <class T>
std::vector<T> numbers(Numbers kind, size_t count, Random& random) {
  using Limits = std::numeric_limits<T>;
  const T specials[] = {T{0},
                        -T{0},
                        Limits::infinity(),
                        -Limits::infinity(),
                        Limits::denorm_min(),
                        -Limits::denorm_min(),
                        Limits::min(),
                        -Limits::min(),
                        Limits::max(),
                        -Limits::max(),
                        T{1},
                        -T{3}};
  std::vector<T> values(count);
  for (T& value : values) {
    const uint64_t bits = random.bits();
    if (kind == Numbers::any_bits) std::memcpy(&value, &bits, sizeof value);
    // Of all magnitudes from 2^-20 to 2^20, so that most additions round.
    if (kind == Numbers::near_one)
      value = std::ldexp(T{1} + static_cast<T>(bits >> 12), static_cast<int>(bits % 41) - 72) * (bits & 2048 ? -1 : 1);
    if (kind == Numbers::special) value = specials[random.below(random.below(3) == 0 ? 12 : 2)];
    if (kind == Numbers::minus_zero) value = -T{0};
  }
  return values;
}

// Sign bit set: all bits inverted; clear: the sign bit inverted. Top byte first.
template <class T>
std::vector<uint8_t> sortable_bytes(const std::vector<T>& values) {
  std::vector<uint8_t> bytes;
  for (const T value : values) {
    const bool negative = bits_of(value) >> (8 * sizeof(T) - 1) != 0;
    for (size_t i = 0; i < sizeof(T); i++) {
      const auto byte = static_cast<uint8_t>(bits_of(value) >> 8 * (sizeof(T) - 1 - i));
      bytes.push_back(negative ? static_cast<uint8_t>(~byte) : i == 0 ? byte | 0x80 : byte);
    }
  }
  return bytes;
}

// At any alignment: 0 to 15 bytes before a page that faults.
inline size_t any_slack(Random& random) { return random.below(2) == 0 ? 0 : random.below(16); }

}  // namespace kdzk_test

#endif

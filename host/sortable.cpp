// SPDX-License-Identifier: Apache-2.0
// Numbers go by their bits, never through a floating-point register, so that every NaN keeps its payload.

#include <kdzk/host/sortable.h>

#include <cstring>

namespace {

template <class Bits>
constexpr Bits top_bit = Bits{1} << (8 * sizeof(Bits) - 1);

template <class Bits>
Bits to_sortable(Bits bits) {
  return (bits & top_bit<Bits>) != 0 ? static_cast<Bits>(~bits) : bits | top_bit<Bits>;
}

template <class Bits>
Bits from_sortable(Bits number) {
  return (number & top_bit<Bits>) != 0 ? number & static_cast<Bits>(~top_bit<Bits>) : static_cast<Bits>(~number);
}

void put(uint64_t number, uint32_t bytes, uint8_t* at) {
  for (uint32_t i = 0; i < bytes; i++) at[i] = static_cast<uint8_t>(number >> 8 * (bytes - 1 - i));
}

uint64_t get(const uint8_t* at, uint32_t bytes) {
  uint64_t number = 0;
  for (uint32_t i = 0; i < bytes; i++) number = number << 8 | at[i];
  return number;
}

template <class Bits, class T>
void write(const T* values, uint64_t count, void* column) {
  static_assert(sizeof(Bits) == sizeof(T));
  uint8_t* const out = static_cast<uint8_t*>(column);
  for (uint64_t row = 0; row < count; row++) {
    Bits bits;
    std::memcpy(&bits, values + row, sizeof bits);
    put(to_sortable(bits), sizeof bits, out + row * sizeof bits);
  }
}

template <class Bits, class T>
void read(const void* column, uint64_t row, uint64_t count, T* values) {
  const uint8_t* const in = static_cast<const uint8_t*>(column) + row * sizeof(Bits);
  for (uint64_t i = 0; i < count; i++) {
    const Bits bits = from_sortable(static_cast<Bits>(get(in + i * sizeof(Bits), sizeof(Bits))));
    std::memcpy(values + i, &bits, sizeof bits);
  }
}

}  // namespace

void kdzk_host_write_sortable_floats(const float* values, uint64_t count, void* column) {
  write<uint32_t>(values, count, column);
}

void kdzk_host_write_sortable_doubles(const double* values, uint64_t count, void* column) {
  write<uint64_t>(values, count, column);
}

void kdzk_host_read_sortable_floats(const void* column, uint64_t row, uint64_t count, float* values) {
  read<uint32_t>(column, row, count, values);
}

void kdzk_host_read_sortable_doubles(const void* column, uint64_t row, uint64_t count, double* values) {
  read<uint64_t>(column, row, count, values);
}

void kdzk_host_write_integers(const int64_t* values, uint64_t count, uint32_t width, void* column) {
  uint8_t* const out = static_cast<uint8_t*>(column);
  const uint32_t bytes = width / 8;
  for (uint64_t row = 0; row < count; row++) put(static_cast<uint64_t>(values[row]), bytes, out + row * bytes);
}

void kdzk_host_read_integers(const void* column, uint64_t row, uint64_t count, uint32_t width, int64_t* values) {
  const uint32_t bytes = width / 8;
  const uint8_t* const in = static_cast<const uint8_t*>(column) + row * bytes;
  const uint64_t sign = uint64_t{1} << (width - 1);
  for (uint64_t i = 0; i < count; i++) values[i] = static_cast<int64_t>((get(in + i * bytes, bytes) ^ sign) - sign);
}

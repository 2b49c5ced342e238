// SPDX-License-Identifier: Apache-2.0
// Loads and stores at any address, native and big-endian. Columns, constants and bit vectors have no alignment.
#ifndef FRAME_MEMORY_H
#define FRAME_MEMORY_H

#include <cstdint>
#include <cstring>

namespace kdzk {

template <class T>
inline T load(const void* at) {
  T value;
  std::memcpy(&value, at, sizeof value);
  return value;
}

template <class T>
inline void store(void* at, T value) {
  std::memcpy(at, &value, sizeof value);
}

inline uint16_t load_be16(const void* at) { return __builtin_bswap16(load<uint16_t>(at)); }
inline uint32_t load_be32(const void* at) { return __builtin_bswap32(load<uint32_t>(at)); }
inline uint64_t load_be64(const void* at) { return __builtin_bswap64(load<uint64_t>(at)); }

template <class T>
inline uint32_t bits_set(T word) {
  return static_cast<uint32_t>(__builtin_popcountll(word));
}

}  // namespace kdzk

#endif

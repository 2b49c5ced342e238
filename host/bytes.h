// SPDX-License-Identifier: Apache-2.0
// Big-endian numbers, bits of rows, reports and the checksum: what the sources of columns and checks share.
#ifndef HOST_BYTES_H
#define HOST_BYTES_H

#include <kdzk/host/check.h>

#include <cstring>

namespace kdzk_host {

template <class T>
T load(const void* at) {
  T number;
  std::memcpy(&number, at, sizeof number);
  return number;
}
inline uint32_t be16(const void* at) { return __builtin_bswap16(load<uint16_t>(at)); }
inline uint32_t be32(const void* at) { return __builtin_bswap32(load<uint32_t>(at)); }
inline uint64_t be64(const void* at) { return __builtin_bswap64(load<uint64_t>(at)); }
inline void put_be32(void* at, uint32_t number) {
  number = __builtin_bswap32(number);
  std::memcpy(at, &number, 4);
}
inline void put_be64(void* at, uint64_t number) {
  number = __builtin_bswap64(number);
  std::memcpy(at, &number, 8);
}

// The first `size` bytes, 8 at most, as the top of a big-endian number.
inline uint64_t top_of(const void* bytes, uint64_t size) {
  uint8_t eight[8] = {};
  if (size > 0) std::memcpy(eight, bytes, size < 8 ? size : 8);
  return be64(eight);
}

inline uint64_t words_of(uint64_t nrows) { return (nrows + 63) / 64; }
inline bool bit_of(const void* bits, uint64_t row) {
  return static_cast<const uint8_t*>(bits)[row / 8] >> row % 8 & 1;  // words are little-endian
}

constexpr uint64_t to_8(uint64_t bytes) { return (bytes + 7) / 8 * 8; }

constexpr const char* well_formed = "well formed";
inline uint32_t malformed(kdzk_host_report* report, const char* reason, uint64_t offset) {
  if (report != nullptr) *report = {0, reason, offset};
  return KDZK_HOST_MALFORMED;
}
inline uint32_t fine(kdzk_host_report* report) {
  if (report != nullptr) *report = {1, well_formed, 0};
  return KDZK_HOST_DONE;
}

// Each step of it is one to one in the word that goes in, so a change within one word never goes unseen. Eight lanes,
// so that a multiplication begins every cycle though a step takes six.
class Checksum {
 public:
  void add(const void* bytes, uint64_t size) {
    const uint8_t* at = static_cast<const uint8_t*>(bytes);
    uint64_t left = size;
    for (; left >= 64; left -= 64, at += 64) {
      for (int i = 0; i < lanes; i++) step(i, load<uint64_t>(at + 8 * i));
    }
    for (int i = 0; left > 0; i++) {
      const uint64_t here = left < 8 ? left : 8;
      step(i, top_of(at, here));
      at += here;
      left -= here;
    }
    step(0, size);
  }

  uint64_t value() const {
    uint64_t sum = 0;
    for (const uint64_t lane : lanes_) {
      sum = (sum ^ lane) * factor;
      sum ^= sum >> 32;
    }
    return sum;
  }

 private:
  static constexpr int lanes = 8;
  static constexpr uint64_t factor = 0x9e3779b97f4a7c15;
  void step(int lane, uint64_t word) {
    lanes_[lane] = (lanes_[lane] ^ word) * factor;
    lanes_[lane] ^= lanes_[lane] >> 29;
  }
  uint64_t lanes_[lanes] = {1, 2, 3, 4, 5, 6, 7, 8};
};

}  // namespace kdzk_host

#endif

// SPDX-License-Identifier: Apache-2.0
// Bytes of columns, written bit by bit, and what tests of kernels of dictionary codes share.
#ifndef TESTS_SUPPORT_STREAMS_H
#define TESTS_SUPPORT_STREAMS_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "tests/support/host.h"

namespace kdzk_test {

using Bytes = std::vector<uint8_t>;
using Codes = std::vector<uint32_t>;

inline constexpr uint32_t dict_widths[] = {1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11,
                                           12, 13, 14, 15, 16, 17, 18, 19, 20, 24, 32};

// "kdzk_decode_dict_13bit", and the kernel's id.
inline std::string dict_kernel(const std::string& words, uint32_t width) {
  return "kdzk_" + words + "_dict_" + std::to_string(width) + "bit";
}
inline uint32_t dict_kernel_id(uint32_t width, uint32_t column) {
  return (width == 24 ? 20 : width == 32 ? 21 : width - 1) * 128 + column;
}

// Codes of so many bits, the first on top of the first byte.
inline Bytes packed(const Codes& codes, uint32_t width) {
  Bytes bytes((codes.size() * width + 7) / 8);
  size_t bit = 0;
  for (const uint32_t code : codes) {
    for (uint32_t left = width; left-- > 0; bit++)
      bytes[bit / 8] |= static_cast<uint8_t>((code >> left & 1) << (7 - bit % 8));
  }
  return bytes;
}
inline Bytes big_endian(const Codes& numbers) { return packed(numbers, 32); }

template <class T>
Bytes bytes_of(const std::vector<T>& numbers) {
  Bytes bytes(numbers.size() * sizeof(T));
  if (!bytes.empty()) std::memcpy(bytes.data(), numbers.data(), bytes.size());
  return bytes;
}

inline Bytes contents(const GuardedBuffer& buffer) { return {buffer.data(), buffer.data() + buffer.size()}; }

inline Bytes random_bytes(size_t n, Random& random) {
  std::vector<uint64_t> words(n / 8 + 1);
  for (uint64_t& word : words) word = random.bits();
  Bytes bytes = bytes_of(words);
  bytes.resize(n);
  return bytes;
}

template <class T>
bool same_bytes(const T& a, const T& b) {
  return std::memcmp(&a, &b, sizeof(T)) == 0;
}

// A value that would be a fault if it were an address that somebody reads.
template <class T>
T* no_address() {
  return reinterpret_cast<T*>(uint64_t{0x10});
}

// Names the case that runs, with the seed, in failures and in the report of a fault inside the library.
struct Case : testing::ScopedTrace {
  Case(const testing::Message& what, const Random& random, const char* file = __builtin_FILE(),
       int line = __builtin_LINE())
      : ScopedTrace(file, line, what.GetString() + ", seed " + std::to_string(random.seed())) {
    now_running(what.GetString());
  }
};
using testing::Message;

inline void expect_bits(const GuardedBits& got, const std::vector<bool>& want) {
  const auto rows = got.rows();
  const auto first = std::mismatch(want.begin(), want.end(), rows.begin()).first;
  EXPECT_EQ(first, want.end()) << "first row that differs: " << first - want.begin();
}
// The same, and the last word holds `behind` from the last row on.
inline void expect_bits(const GuardedBits& got, const std::vector<bool>& want, uint64_t behind) {
  expect_bits(got, want);
  if (want.size() % 64 != 0) {
    EXPECT_EQ(got.word(want.size() / 64) >> want.size() % 64, behind >> want.size() % 64);
  }
}

inline uint32_t count(const std::vector<bool>& rows) {
  return static_cast<uint32_t>(std::count(rows.begin(), rows.end(), true));
}

// A block and what belongs to it: the host's next copy is of these bytes. Decompression fails, and goes on.
struct Block {
  RecordingHost host;
  void* slot = nullptr;
  uint8_t block = 0;

  Block(kdzk_vec& column, kdzk_enc_ctx& enc, kdzk_exec& exec, const Bytes& bytes) {
    host.plain = bytes;
    host.decompress_result = 1;
    enc.flags |= KDZK_BLOCKED;
    column.data = &block;
    column.decomp_size = static_cast<uint32_t>(bytes.size());
    column.decomp_slot = &slot;
    column.alloc_tag = 0x1234;
    exec.env = &host.env;
  }
  // However many calls there were.
  void expect_one_copy(const std::string& kernel) const {
    ASSERT_EQ(host.allocs.size(), 1u);
    EXPECT_EQ(host.allocs[0].comment, kernel + ": vec1_decomp");
    EXPECT_EQ(host.allocs[0].size, host.plain.size());
    EXPECT_TRUE(host.allocs[0].tag == 0x1234 && host.allocs[0].unit == 8 && host.allocs[0].alignment == 16);
    ASSERT_EQ(host.decompressions.size(), 1u);
    EXPECT_EQ(host.decompressions[0].src, &block);
    ASSERT_EQ(host.errors.size(), 1u);
    EXPECT_EQ(host.errors[0].message, kernel + ": kdzk_sqzb_decode failed");
  }
};

}  // namespace kdzk_test

#endif

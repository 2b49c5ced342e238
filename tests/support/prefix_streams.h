// SPDX-License-Identifier: Apache-2.0
// Prefix record streams in the dullest words: random ones, with prefixes of any length, a decoder, and calls of the
// library's.
#ifndef TESTS_SUPPORT_PREFIX_STREAMS_H
#define TESTS_SUPPORT_PREFIX_STREAMS_H

#include <algorithm>

#include "tests/support/host.h"

namespace kdzk_test {

constexpr int any_prefix = -1;

// A stream whose groups have this prefix or each a random one.
inline std::vector<uint8_t> random_prefix_stream(Random& random, uint32_t width, uint32_t count, int prefix) {
  std::vector<uint8_t> stream;
  for (uint32_t first = 0; first < count; first += 16) {
    const uint64_t n = prefix == any_prefix ? random.below(width + 1) : static_cast<uint64_t>(prefix);
    stream.push_back(static_cast<uint8_t>(n));
    for (uint64_t left = n + std::min(count - first, 16u) * (width - n); left > 0; left--)
      stream.push_back(static_cast<uint8_t>(random.bits()));
  }
  return stream;
}

// The records of a well-formed stream.
inline std::vector<uint8_t> prefix_plain_decode(std::span<const uint8_t> stream, uint32_t count, uint32_t width) {
  std::vector<uint8_t> records;
  auto at = stream.begin(), prefix = at, tails = at;
  for (uint32_t record = 0; record < count; record++) {
    if (record % 16 == 0) {
      prefix = at + 1;
      at = tails = prefix + *at;
    }
    const auto end = at + width - (tails - prefix);
    records.insert(records.end(), prefix, tails);
    records.insert(records.end(), at, end);
    at = end;
  }
  return records;
}

// A call of the decoder.
struct PrefixCall {
  kdzk_enc_ctx enc{};
  kdzk_vec result{}, input{};
  kdzk_exec exec{};

  PrefixCall(const void* stream, uint32_t width, uint32_t count, void* out) {
    enc.prefix_group = 16;
    enc.prefix_width = static_cast<int16_t>(width);
    enc.prefix_count = count;
    input.data = const_cast<void*>(stream);
    input.nrows = (count + 15) / 16;
    input.enc_ctx = &enc;
    result.data = out;
  }
  uint64_t run(const kdzk_exec* with) const { return library().decode_prefix_records(&result, &input, with); }
};

}  // namespace kdzk_test

#endif

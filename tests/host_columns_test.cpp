// SPDX-License-Identifier: Apache-2.0
// The host kit's writers of packed code streams and run-length columns.

#include <kdzk/host/packed_codes.h>
#include <kdzk/host/run_length.h>

#include "tests/support/format_docs.h"
#include "tests/support/streams.h"

namespace kdzk_test {
namespace {

Bytes bytes_in(const GuardedBuffer& buffer) { return {buffer.data(), buffer.data() + buffer.size()}; }

class PackedCodes : public testing::TestWithParam<uint32_t> {};

TEST_P(PackedCodes, AreBitsFromTheTopOfByteZero) {
  const uint32_t width = GetParam();
  Random random("packed_codes" + std::to_string(width));
  for (const uint32_t count : {0u, 1u, 2u, 7u, 8u, 9u, 31u, 100u}) {
    Codes codes(count), given(count);
    for (uint32_t row = 0; row < count; row++) {
      given[row] = static_cast<uint32_t>(random.bits());  // whose higher bits don't count
      codes[row] = width == 32 ? given[row] : given[row] & ((1u << width) - 1);
    }
    const Bytes want = packed(codes, width);
    ASSERT_EQ(kdzk_host_packed_bytes(count, width), want.size());
    GuardedBuffer stream(want.size());
    kdzk_host_pack(given.data(), count, width, stream.data());
    EXPECT_EQ(bytes_in(stream), want) << count;
    for (uint32_t row = 0; row <= count; row += 1 + row / 9) {
      Codes got(count - row + 1, 4711);
      kdzk_host_unpack(stream.data(), row, count - row, width, got.data());
      EXPECT_EQ(got.back(), 4711u);
      got.pop_back();
      EXPECT_EQ(got, Codes(codes.begin() + row, codes.end())) << count << " from " << row;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Widths, PackedCodes, testing::Range(1u, 33u));

TEST(PackedCodes, HaveTheWidthOfTheirHighestCode) {
  EXPECT_EQ(kdzk_host_code_width(0), 1u);
  EXPECT_EQ(kdzk_host_code_width(1), 1u);
  for (uint32_t width = 1; width < 32; width++) {
    EXPECT_EQ(kdzk_host_code_width(1u << width), width);
    EXPECT_EQ(kdzk_host_code_width((1u << width) + 1), width + 1);
  }
  EXPECT_EQ(kdzk_host_code_width(~0u), 32u);
}

TEST(RunLength, SplitsStretchesThatARunCannotHold) {
  Codes codes;
  const Codes stretches = {1, 254, 255, 256, 2, 510, 511, 65535, 65536, 131071, 1};
  for (size_t i = 0; i < stretches.size(); i++) codes.insert(codes.end(), stretches[i], static_cast<uint32_t>(i % 3));
  const auto nrows = static_cast<uint32_t>(codes.size());
  for (const uint32_t length_bits : {8u, 16u, 32u}) {
    const uint32_t longest = length_bits == 8 ? 255 : length_bits == 16 ? 65535 : ~0u;
    Codes want_codes, want_lengths, want_offsets;
    uint32_t row = 0;
    for (size_t i = 0; i < stretches.size(); i++) {
      for (uint32_t left = stretches[i], length; left > 0; left -= length, row += length) {
        length = std::min(left, longest);
        want_codes.push_back(static_cast<uint32_t>(i % 3));
        want_lengths.push_back(length);
        want_offsets.push_back(row);
      }
    }
    want_offsets.push_back(nrows);
    const auto runs = static_cast<uint32_t>(want_codes.size());
    EXPECT_EQ(kdzk_host_count_runs(codes.data(), nrows, length_bits), runs);
    EXPECT_EQ(kdzk_host_write_runs(codes.data(), nrows, length_bits, nullptr, nullptr, nullptr), runs);
    Codes run_codes(runs);
    const bool has_lengths = length_bits < 32;
    GuardedBuffer lengths(has_lengths ? runs * length_bits / 8 : 0), offsets(4 * (runs + 1));
    kdzk_host_write_runs(codes.data(), nrows, length_bits, run_codes.data(), has_lengths ? lengths.data() : nullptr,
                         offsets.data());
    EXPECT_EQ(run_codes, want_codes);
    EXPECT_EQ(bytes_in(offsets), big_endian(want_offsets));
    EXPECT_EQ(bytes_in(lengths), has_lengths ? packed(want_lengths, length_bits) : Bytes{});
  }
  uint8_t offset[4] = {1, 1, 1, 1};
  EXPECT_EQ(kdzk_host_write_runs(nullptr, 0, 8, nullptr, nullptr, offset), 0u);
  EXPECT_EQ(Bytes(offset, offset + 4), Bytes(4));
}

// The walk-through of the format's description.
TEST(RunLength, IsAsDescribed) {
  const auto documented = documented_bytes("run_length.md");
  Codes codes(3, 5);
  codes.insert(codes.end(), 300, 2);
  codes.insert(codes.end(), 1, 7);
  codes.insert(codes.end(), 4, 2);
  for (const uint32_t length_bits : {8u, 16u}) {
    const std::string name = std::to_string(length_bits) + "-bit";
    const uint32_t runs = kdzk_host_count_runs(codes.data(), 308, length_bits);
    Codes run_codes(runs);
    std::vector<uint16_t> lengths(runs);
    Bytes offsets(4 * (runs + 1)), data(kdzk_host_packed_bytes(runs, 3));
    kdzk_host_write_runs(codes.data(), 308, length_bits, run_codes.data(), lengths.data(), offsets.data());
    kdzk_host_pack(run_codes.data(), runs, 3, data.data());
    const auto* const length_bytes = reinterpret_cast<const uint8_t*>(lengths.data());
    EXPECT_EQ(documented.at(name + "-codes"), data);
    EXPECT_EQ(documented.at(name + "-lengths"), Bytes(length_bytes, length_bytes + runs * length_bits / 8));
    EXPECT_EQ(documented.at(name + "-offsets"), offsets);
  }
}

}  // namespace
}  // namespace kdzk_test

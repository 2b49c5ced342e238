// SPDX-License-Identifier: Apache-2.0
// Numbers of the block format SQZB that its writer and its check share. docs/formats/sqzb.md has the format.
#ifndef HOST_SQZB_FORMAT_H
#define HOST_SQZB_FORMAT_H

#include <cstdint>

namespace kdzk_host::sqzb {

constexpr uint8_t magic[4] = {'S', 'Q', 'Z', 'B'};
constexpr uint32_t version_at = 4, flags_at = 5, aux_count_at = 10, decoded_size_at = 12, symbol_count_at = 16;
constexpr uint32_t lengths_at = 18;
constexpr uint8_t flag_must_be_set = 0x02, flags_must_be_clear = 0x09;
constexpr uint32_t max_symbols = 1024, max_length = 8;

// Blocks with codes of 1 and 2 bits are only defined below so many codes.
constexpr uint32_t narrow_codes_below = 64;
constexpr bool narrow(uint32_t width) { return width == 1 || width == 2; }

constexpr uint32_t width_of(uint32_t symbols) {
  uint32_t width = 0;
  for (uint32_t highest = symbols - 1; highest != 0; highest >>= 1) width++;
  return width;
}
static_assert(width_of(1) == 0 && width_of(2) == 1 && width_of(256) == 8 && width_of(257) == 9);

// Fewest symbols whose codes have this width.
constexpr uint32_t fewest_symbols(uint32_t width) { return width == 0 ? 1 : (1u << (width - 1)) + 1; }

constexpr uint64_t stream_bytes(uint64_t codes, uint32_t width) { return (codes * width + 7) / 8; }

constexpr uint64_t block_bytes(uint32_t symbols, uint64_t symbol_bytes, uint64_t codes) {
  return lengths_at + (symbols + 1) / 2 + symbol_bytes + 4 + stream_bytes(codes, width_of(symbols));
}

}  // namespace kdzk_host::sqzb

#endif

// SPDX-License-Identifier: Apache-2.0
// Packs and unpacks codes through a 64-bit word that holds the bits between two whole bytes, or, in packing, four
// bytes.

#include <kdzk/host/packed_codes.h>

#include <cstring>

namespace {

uint64_t low_bits(uint32_t width) { return ~uint64_t{0} >> (64 - width); }

}  // namespace

uint32_t kdzk_host_code_width(uint32_t size) {
  uint32_t width = 1;
  while (width < KDZK_HOST_MAX_CODE_WIDTH && size > uint64_t{1} << width) width++;
  return width;
}

uint64_t kdzk_host_packed_bytes(uint64_t count, uint32_t width) { return (count * width + 7) / 8; }

void kdzk_host_pack(const uint32_t* codes, uint64_t count, uint32_t width, void* stream) {
  uint8_t* out = static_cast<uint8_t*>(stream);
  uint64_t held = 0;  // the lowest `bits` bits are still to be written
  uint32_t bits = 0;
  for (uint64_t row = 0; row < count; row++) {
    held = held << width | (codes[row] & low_bits(width));
    bits += width;
    if (bits < 32) continue;
    bits -= 32;
    const uint32_t four_bytes = __builtin_bswap32(static_cast<uint32_t>(held >> bits));
    std::memcpy(out, &four_bytes, 4);
    out += 4;
  }
  for (; bits >= 8; bits -= 8) *out++ = static_cast<uint8_t>(held >> (bits - 8));
  if (bits > 0) *out = static_cast<uint8_t>(held << (8 - bits));
}

void kdzk_host_unpack(const void* stream, uint64_t row, uint64_t count, uint32_t width, uint32_t* codes) {
  if (count == 0) return;
  const uint8_t* in = static_cast<const uint8_t*>(stream) + row * width / 8;
  uint64_t held = *in++;  // the lowest `bits` bits are still to be read
  uint32_t bits = 8 - static_cast<uint32_t>(row * width % 8);
  for (uint64_t i = 0; i < count; i++) {
    for (; bits < width; bits += 8) held = held << 8 | *in++;
    bits -= width;
    codes[i] = static_cast<uint32_t>(held >> bits & low_bits(width));
  }
}

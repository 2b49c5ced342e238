// SPDX-License-Identifier: Apache-2.0
// The check of blocks from untrusted places: walks through a block in the order of its bytes, and never reads a byte
// before it has seen that it is there. What it lets pass has no way to lead the decoder astray, since it has followed
// all that steers the decoder: the counts, each length, each code and the sum of what they make.

#include <kdzk/host/sqzb.h>

#include <algorithm>

#include "host/sqzb_format.h"

namespace kdzk_host::sqzb {
namespace {

struct Fault {
  const char* reason;
  uint64_t offset;
};

uint32_t be16(const uint8_t* at) { return static_cast<uint32_t>(at[0] << 8 | at[1]); }
uint32_t be32(const uint8_t* at) { return be16(at) << 16 | be16(at + 2); }

constexpr const char* well_formed = "well formed";

// Fills `report` for a well-formed block.
Fault check(const uint8_t* block, uint64_t size, kdzk_host_sqzb_report& report) {
  if (size < lengths_at) return {"shorter than a header", size};
  for (uint32_t i = 0; i < sizeof magic; i++) {
    if (block[i] != magic[i]) return {"doesn't begin with SQZB", i};
  }
  if (block[version_at] != 0) return {"unknown version", version_at};
  if ((block[flags_at] & flags_must_be_clear) != 0) return {"a format flag is set that must be clear", flags_at};
  if ((block[flags_at] & flag_must_be_set) == 0) return {"the format flag is clear that must be set", flags_at};
  const bool aux = static_cast<int16_t>(be16(block + aux_count_at)) > 0;
  const uint32_t decoded_size = be32(block + decoded_size_at);
  const uint32_t symbols = be16(block + symbol_count_at);
  if (symbols == 0) return {"no symbol", symbol_count_at};
  if (symbols > max_symbols) return {"more than 1024 symbols", symbol_count_at};
  const uint32_t width = width_of(symbols);

  uint64_t at = lengths_at + (symbols + 1) / 2;
  if (at > size) return {"ends in the lengths of the symbols", size};
  uint8_t lengths[max_symbols];
  uint64_t symbol_bytes = 0;
  for (uint32_t i = 0; i < symbols; i++) {
    const uint8_t both = block[lengths_at + i / 2];
    lengths[i] = i % 2 == 0 ? both >> 4 : both & 15;
    if (lengths[i] == 0) return {"a symbol of length 0", lengths_at + i / 2};
    if (lengths[i] > max_length) return {"a symbol longer than 8 bytes", lengths_at + i / 2};
    symbol_bytes += lengths[i];
  }
  if (aux) at += 2 * symbols;
  if (at > size) return {"ends in the auxiliary table", size};
  at += symbol_bytes;
  if (at > size) return {"ends in the bytes of the symbols", size};
  if (size - at < 4) return {"ends in the number of codes", size};
  const uint64_t count_at = at;
  const uint32_t codes = be32(block + at);
  if (narrow(width) && codes >= narrow_codes_below) return {"64 or more codes of 1 or 2 bits", count_at};
  at += 4;
  uint64_t end = at;  // of what was looked at
  if (aux) {
    if (size - at < 4) return {"ends in the auxiliary section", size};
    end = at + 4;
    at += be32(block + at) >> 7;  // which may be less than 4: the stream then begins inside these four bytes
    if (at > size) return {"the auxiliary section reaches past the end", count_at + 4};
  }
  if (size - at < stream_bytes(codes, width)) return {"ends in the code stream", size};

  uint64_t decoded = 0;
  if (width == 0) {
    decoded = uint64_t{codes} * lengths[0];
  } else {
    uint64_t window = 0;  // the next bits of the stream, in its low `bits` bits
    uint32_t bits = 0;
    const uint8_t* next = block + at;
    for (uint32_t i = 0; i < codes; i++) {
      while (bits < width) {
        window = window << 8 | *next++;
        bits += 8;
      }
      bits -= width;
      const auto code = static_cast<uint32_t>(window >> bits & ((1u << width) - 1));
      if (code >= symbols) return {"a code without a symbol", at + uint64_t{i} * width / 8};
      decoded += lengths[code];
    }
  }
  if (decoded != decoded_size) return {"the codes make another number of bytes than the header says", decoded_size_at};

  report.decoded_size = decoded_size;
  report.code_count = codes;
  report.symbol_count = symbols;
  report.code_width = width;
  report.block_size = std::max(end, at + stream_bytes(codes, width));
  return {well_formed, report.block_size};
}

}  // namespace
}  // namespace kdzk_host::sqzb

uint32_t kdzk_host_sqzb_check(const void* block, uint64_t size, kdzk_host_sqzb_report* report) {
  kdzk_host_sqzb_report local{};
  const auto fault = kdzk_host::sqzb::check(static_cast<const uint8_t*>(block), size, local);
  local.reason = fault.reason;
  local.offset = fault.offset;
  if (report != nullptr) *report = local;
  return fault.reason == kdzk_host::sqzb::well_formed ? KDZK_HOST_DONE : KDZK_HOST_MALFORMED;
}

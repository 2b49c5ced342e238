// SPDX-License-Identifier: Apache-2.0

#include "bench/peers/sqzb_peers.h"

#ifdef KDZK_BENCH_LZ4
#include <lz4.h>
#include <lz4hc.h>
#endif

namespace kdzk_bench {
namespace {

uint32_t be32(const uint8_t* at) {
  return static_cast<uint32_t>(at[0]) << 24 | static_cast<uint32_t>(at[1] << 16 | at[2] << 8 | at[3]);
}

}  // namespace

uint32_t sqzb_byte_loop(const uint8_t* block, uint8_t* dst) {
  const uint32_t symbols = static_cast<uint32_t>(block[16] << 8 | block[17]);
  const uint8_t* at = block + 18 + (symbols + 1) / 2;
  uint8_t table[1024][8];
  uint8_t length[1024];
  for (uint32_t i = 0; i < symbols; i++) {
    length[i] = i % 2 == 0 ? block[18 + i / 2] >> 4 : block[18 + i / 2] & 15;
    for (uint32_t j = 0; j < length[i]; j++) table[i][j] = *at++;
  }
  uint32_t width = 0;
  while ((1u << width) < symbols) width++;
  const uint32_t codes = be32(at);
  at += 4;
  uint8_t* out = dst;
  uint32_t bit = 0;
  for (uint32_t k = 0; k < codes; k++) {
    const uint32_t code = static_cast<uint32_t>(at[0] << 8 | at[1]) >> (16 - width - bit) & ((1u << width) - 1);
    for (uint32_t i = 0; i < length[code]; i++) *out++ = table[code][i];
    bit += width;
    at += bit / 8;
    bit %= 8;
  }
  return static_cast<uint32_t>(out - dst);
}

#ifdef KDZK_BENCH_LZ4

const char* lz4_version() { return "lz4_" LZ4_VERSION_STRING; }

std::vector<uint8_t> lz4_compress(const uint8_t* src, uint32_t size) {
  std::vector<uint8_t> block(static_cast<size_t>(LZ4_compressBound(static_cast<int>(size))));
  const int bytes = LZ4_compress_HC(reinterpret_cast<const char*>(src), reinterpret_cast<char*>(block.data()),
                                    static_cast<int>(size), static_cast<int>(block.size()), LZ4HC_CLEVEL_MAX);
  block.resize(static_cast<size_t>(bytes));
  return block;
}

uint32_t lz4_decompress(const std::vector<uint8_t>& block, uint8_t* dst, uint32_t size) {
  return static_cast<uint32_t>(LZ4_decompress_safe(reinterpret_cast<const char*>(block.data()),
                                                   reinterpret_cast<char*>(dst), static_cast<int>(block.size()),
                                                   static_cast<int>(size)));
}

#else

const char* lz4_version() { return nullptr; }
std::vector<uint8_t> lz4_compress(const uint8_t*, uint32_t) { return {}; }
uint32_t lz4_decompress(const std::vector<uint8_t>&, uint8_t*, uint32_t) { return 0; }

#endif

}  // namespace kdzk_bench

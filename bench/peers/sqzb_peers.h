// SPDX-License-Identifier: Apache-2.0
// What the block decoder is measured against.
#ifndef BENCH_PEERS_SQZB_PEERS_H
#define BENCH_PEERS_SQZB_PEERS_H

#include <cstdint>
#include <vector>

namespace kdzk_bench {

// Decodes a well-formed SQZB block without auxiliary sections as one would write it first: a code at a time from the
// two bytes at a cursor, and each symbol copied byte by byte. Returns the bytes produced.
uint32_t sqzb_byte_loop(const uint8_t* block, uint8_t* dst);

// LZ4 at the highest compression of its library, and its decoder. An empty block if this build has no LZ4.
const char* lz4_version();  // "lz4_1.9.4"; null without LZ4
std::vector<uint8_t> lz4_compress(const uint8_t* src, uint32_t size);
uint32_t lz4_decompress(const std::vector<uint8_t>& block, uint8_t* dst, uint32_t size);

}  // namespace kdzk_bench

#endif

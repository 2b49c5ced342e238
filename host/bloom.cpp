// SPDX-License-Identifier: Apache-2.0
// Bloom filters. A key's bit is the key as a big-endian number of 32 bits, of a 64-bit hash the last four of its bytes
// in memory, under the filter's mask.

#include <kdzk/host/bloom.h>

#include <cstring>

namespace {

constexpr uint64_t min_bits = 64, max_bits = uint64_t{1} << 32;

void add(const kdzk_vec* filter, const uint8_t* key) {
  uint32_t stored;
  std::memcpy(&stored, key, sizeof stored);
  const kdzk_enc_ctx& enc = *filter->enc_ctx;
  uint32_t bit = __builtin_bswap32(stored) & enc.bloom_mask;
  uint8_t* bytes = reinterpret_cast<uint8_t*>(filter->bitvec);
  if (enc.bloom_paged != 0) {
    bytes = reinterpret_cast<uint8_t* const*>(filter->bitvec)[bit >> enc.page_shift];
    bit &= enc.page_mask;
  }
  bytes[bit / 8] |= static_cast<uint8_t>(1 << bit % 8);
}

}  // namespace

uint32_t kdzk_host_bloom_mask(uint64_t keys, uint32_t bits_per_key) {
  uint64_t bits = min_bits;
  while (bits < max_bits && keys > bits / (bits_per_key > 0 ? bits_per_key : 1)) bits *= 2;
  return static_cast<uint32_t>(bits - 1);
}

void kdzk_host_bloom_shape(kdzk_enc_ctx* enc, uint32_t mask, uint32_t page_bytes) {
  enc->bloom_paged = page_bytes != 0;
  enc->bloom_mask = mask;
  enc->page_shift = page_bytes != 0 ? static_cast<uint32_t>(__builtin_ctz(page_bytes)) + 3 : 0;
  enc->page_mask = page_bytes != 0 ? static_cast<uint32_t>(uint64_t{page_bytes} * 8 - 1) : 0;
}

uint64_t kdzk_host_bloom_bytes(const kdzk_enc_ctx* enc) {
  return ((enc->bloom_paged != 0 ? enc->page_mask : enc->bloom_mask) + uint64_t{1}) / 8;
}

uint32_t kdzk_host_bloom_pages(const kdzk_enc_ctx* enc) {
  return enc->bloom_paged != 0 ? (enc->bloom_mask >> enc->page_shift) + 1 : 1;
}

void kdzk_host_bloom_add_hashes(const kdzk_vec* filter, const uint64_t* hashes, uint64_t count) {
  const auto* const bytes = reinterpret_cast<const uint8_t*>(hashes);
  for (uint64_t i = 0; i < count; i++) add(filter, bytes + i * 8 + 4);
}

void kdzk_host_bloom_add_values(const kdzk_vec* filter, const void* values, uint64_t count) {
  const auto* const bytes = static_cast<const uint8_t*>(values);
  for (uint64_t i = 0; i < count; i++) add(filter, bytes + i * 4);
}

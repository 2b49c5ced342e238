// SPDX-License-Identifier: Apache-2.0
// An array of codes as runs of equal codes.

#include <kdzk/host/run_length.h>

#include <cstring>

namespace {

constexpr uint32_t longest_run(uint32_t length_bits) { return ~0u >> (32 - length_bits); }

// Calls run(number, first row, length) for each run, and returns how many there are.
template <class Run>
uint32_t each_run(const uint32_t* codes, uint32_t nrows, uint32_t length_bits, const Run& run) {
  const uint32_t longest = longest_run(length_bits);
  uint32_t runs = 0;
  for (uint32_t first = 0, row = 0; first < nrows; first = row, runs++) {
    while (row < nrows && codes[row] == codes[first] && row - first < longest) row++;
    run(runs, first, row - first);
  }
  return runs;
}

void put_be32(void* array, uint64_t index, uint32_t number) {
  const uint32_t big_endian = __builtin_bswap32(number);
  std::memcpy(static_cast<uint8_t*>(array) + 4 * index, &big_endian, 4);
}

}  // namespace

uint32_t kdzk_host_count_runs(const uint32_t* codes, uint32_t nrows, uint32_t length_bits) {
  return each_run(codes, nrows, length_bits, [](uint32_t, uint32_t, uint32_t) {});
}

uint32_t kdzk_host_write_runs(const uint32_t* codes, uint32_t nrows, uint32_t length_bits, uint32_t* run_codes,
                              void* run_lengths, void* run_offsets) {
  const uint32_t runs = each_run(codes, nrows, length_bits, [&](uint32_t run, uint32_t first, uint32_t length) {
    if (run_codes != nullptr) run_codes[run] = codes[first];
    if (run_offsets != nullptr) put_be32(run_offsets, run, first);
    if (run_lengths == nullptr) return;
    if (length_bits == KDZK_HOST_RUNS_8BIT) {
      static_cast<uint8_t*>(run_lengths)[run] = static_cast<uint8_t>(length);
    } else {
      static_cast<uint16_t*>(run_lengths)[run] = __builtin_bswap16(static_cast<uint16_t>(length));
    }
  });
  if (run_offsets != nullptr) put_be32(run_offsets, runs, nrows);
  return runs;
}

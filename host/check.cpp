// SPDX-License-Identifier: Apache-2.0
// Checks of single streams. Sums and orders are walked; codes are left to the library, a stack buffer's worth of rows
// at a time.

#include <kdzk/host/check.h>
#include <kdzk/host/packed_codes.h>
#include <kdzk/host/prefix_records.h>

#include <algorithm>

#include "host/bytes.h"

namespace kdzk_host {
namespace {

constexpr uint32_t rows_at_a_time = 65536;  // a multiple of 64: such rows are whole bytes at every width

// The first row of a stream whose code is at or above the limit; `nrows` if there is none.
uint64_t first_above(const void* stream, uint64_t nrows, uint32_t width, uint64_t limit) {
  uint32_t codes[256];
  for (uint64_t first = 0; first < nrows; first += 256) {
    const uint64_t here = std::min<uint64_t>(256, nrows - first);
    kdzk_host_unpack(stream, first, here, width, codes);
    for (uint64_t i = 0; i < here; i++) {
      if (codes[i] >= limit) return first + i;
    }
  }
  return nrows;
}

// Whether the `ge` kernel finds a code at or above the limit, which must fit in the width.
bool any_above(kdzk_compare_fn ge, const uint8_t* stream, uint64_t nrows, uint32_t width, uint32_t limit) {
  uint64_t bits[rows_at_a_time / 64];
  kdzk_enc_ctx enc_ctx{};
  enc_ctx.flags = KDZK_PACKED_DICT;
  enc_ctx.width = static_cast<uint8_t>(width);
  kdzk_kargs constant{};
  constant.data = &limit;
  for (uint64_t first = 0; first < nrows; first += rows_at_a_time) {
    kdzk_vec input{};
    input.data = const_cast<uint8_t*>(stream + first / 8 * width);
    input.enc_ctx = &enc_ctx;
    input.nrows = static_cast<uint32_t>(std::min<uint64_t>(rows_at_a_time, nrows - first));
    kdzk_vec result{};
    result.bitvec = bits;
    result.nrows = input.nrows;
    if (ge(&result, &input, &constant, nullptr) != KDZK_NO_ROW) return true;
  }
  return false;
}

}  // namespace
}  // namespace kdzk_host

using namespace kdzk_host;

uint32_t kdzk_host_check_codes(const kdzk_specialized_ctx* library, const void* stream, uint64_t size, uint64_t nrows,
                               uint32_t width, uint64_t limit, kdzk_host_report* report) {
  const uint32_t kernels = kdzk_row_of_width(width);
  if (kernels == KDZK_NO_ROW_OF_WIDTH || width > 32) return malformed(report, "no kernels for this width of codes", 0);
  if (nrows > size * 8 / width) return malformed(report, "ends in the codes", size);
  if (limit > (uint64_t{1} << width) - 1) return fine(report);  // no code of this width is as high
  const uint32_t id = kdzk_id_of_kind(kdzk_kind_of(kernels, KDZK_FAMILY_DICT), KDZK_OP_GE);
  const kdzk_compare_fn ge = library == nullptr ? nullptr : library->dispatch[id].compare;
  if (ge != nullptr && !any_above(ge, static_cast<const uint8_t*>(stream), nrows, width, static_cast<uint32_t>(limit)))
    return fine(report);
  const uint64_t row = first_above(stream, nrows, width, limit);
  return row == nrows ? fine(report) : malformed(report, "a code at or above its limit", row * width / 8);
}

uint32_t kdzk_host_check_runs(const void* lengths, uint64_t size, uint32_t length_bits, uint32_t runs, uint64_t nrows,
                              kdzk_host_report* report) {
  if (length_bits != 8 && length_bits != 16) return malformed(report, "run lengths of neither 8 nor 16 bits", 0);
  const uint32_t bytes = length_bits / 8;
  if (uint64_t{runs} * bytes > size) return malformed(report, "ends in the run lengths", size);
  const uint8_t* at = static_cast<const uint8_t*>(lengths);
  uint64_t rows = 0;
  for (uint32_t run = 0; run < runs; run++, at += bytes) {
    const uint32_t length = bytes == 1 ? *at : be16(at);
    rows += length;
    if (length == 0) return malformed(report, "a run of no rows", uint64_t{run} * bytes);
    if (rows > nrows) return malformed(report, "runs of more rows than there are", uint64_t{run} * bytes);
  }
  return rows == nrows ? fine(report) : malformed(report, "runs of fewer rows than there are", uint64_t{runs} * bytes);
}

uint32_t kdzk_host_check_run_offsets(const void* offsets, uint64_t size, uint32_t runs, uint64_t nrows,
                                     kdzk_host_report* report) {
  const uint8_t* const at = static_cast<const uint8_t*>(offsets);
  if ((uint64_t{runs} + 1) * 4 > size) return malformed(report, "ends in the first rows of runs", size);
  if (be32(at) != 0) return malformed(report, "the first run doesn't begin at row 0", 0);
  for (uint64_t run = 1; run <= runs; run++) {
    if (be32(at + 4 * run) <= be32(at + 4 * run - 4)) return malformed(report, "first rows don't ascend", 4 * run);
  }
  return be32(at + uint64_t{4} * runs) == nrows ? fine(report)
                                                : malformed(report, "the runs don't end at the last row", 4 * runs);
}

uint32_t kdzk_host_check_lengths(const void* lengths, uint64_t size, uint64_t nrows, uint32_t width, uint64_t data_size,
                                 kdzk_host_report* report) {
  if (width != 16 && width != 32 && width != 64) return malformed(report, "values of neither 16, 32 nor 64 bits", 0);
  const uint32_t bits = width / 16, per_byte = 8 / bits, mask = (1u << bits) - 1;
  if (nrows > size * per_byte) return malformed(report, "ends in the length codes", size);
  const uint8_t* const at = static_cast<const uint8_t*>(lengths);
  uint64_t bytes = nrows;  // a length is its code and 1
  for (uint64_t row = 0; row < nrows;) {
    const uint64_t byte = row / per_byte;
    if (bits < 4 && row + per_byte <= nrows) {  // of whole bytes, every code is one that a value may have
      const uint32_t b = at[byte];
      bytes +=
          static_cast<uint32_t>(bits == 1 ? __builtin_popcount(b) : (b >> 6) + (b >> 4 & 3) + (b >> 2 & 3) + (b & 3));
      row += per_byte;
      continue;
    }
    const uint32_t code = at[byte] >> (8 - bits - bits * (row % per_byte)) & mask;
    if (code >= width / 8) return malformed(report, "a value longer than 8 bytes", byte);
    bytes += code;
    row++;
  }
  if (bytes == data_size) return fine(report);
  return malformed(report, "the lengths add up to another number of bytes than there are", 0);
}

uint32_t kdzk_host_check_offsets(const void* offsets, uint64_t size, uint32_t count, uint64_t symbol_bytes,
                                 kdzk_host_report* report) {
  const uint8_t* const at = static_cast<const uint8_t*>(offsets);
  if ((uint64_t{count} + 1) * 4 > size) return malformed(report, "ends in the offsets of the symbols", size);
  if (be32(at) != 0) return malformed(report, "the first symbol doesn't begin at 0", 0);
  for (uint64_t i = 1; i <= count; i++) {
    if (be32(at + 4 * i) < be32(at + 4 * i - 4)) return malformed(report, "offsets of symbols descend", 4 * i);
  }
  return be32(at + uint64_t{4} * count) <= symbol_bytes
             ? fine(report)
             : malformed(report, "symbols reach past the end", uint64_t{4} * count);
}

uint32_t kdzk_host_check_block(const void* block, uint64_t size, uint64_t decoded_size, kdzk_host_report* report) {
  kdzk_host_sqzb_report found;
  if (kdzk_host_sqzb_check(block, size, &found) != KDZK_HOST_DONE) return malformed(report, found.reason, found.offset);
  if (found.block_size != size) return malformed(report, "bytes behind the block", found.block_size);
  if (found.decoded_size != decoded_size) return malformed(report, "a block of another number of bytes", 12);
  return fine(report);
}

uint32_t kdzk_host_check_prefix_records(const void* stream, uint64_t size, uint32_t count, uint32_t width,
                                        kdzk_host_report* report) {
  if (width < 1 || width > KDZK_HOST_PREFIX_MAX_WIDTH) return malformed(report, "records of neither 1 to 8 bytes", 0);
  const uint8_t* const at = static_cast<const uint8_t*>(stream);
  uint64_t byte = 0;
  for (uint32_t left = count; left > 0;) {
    const uint32_t here = std::min(left, KDZK_HOST_PREFIX_GROUP);
    if (byte >= size) return malformed(report, "ends before the last group", size);
    if (at[byte] > width) return malformed(report, "a prefix longer than a record", byte);
    const uint64_t next = byte + 1 + at[byte] + uint64_t{here} * (width - at[byte]);
    if (next > size) return malformed(report, "ends in a group", byte);
    byte = next;
    left -= here;
  }
  return byte == size ? fine(report) : malformed(report, "bytes behind the last group", byte);
}

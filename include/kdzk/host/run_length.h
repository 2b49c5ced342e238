/* SPDX-License-Identifier: Apache-2.0
 *
 * Run-length columns for hosts: an array of codes as runs of equal codes. docs/formats/run_length.md has the format.
 * In the static library kdzk_host. Functions keep nothing between calls and may run on any number of threads. */
#ifndef KDZK_HOST_RUN_LENGTH_H
#define KDZK_HOST_RUN_LENGTH_H

#include <kdzk/records.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Bits of a run length. A stretch of equal codes longer than a run can be is split into runs of the full length and a
 * last one with the rest. */
#define KDZK_HOST_RUNS_8BIT 8u       /* runs of up to 255 rows, for kdzk_burst_rle_8bit and unpack_width 8 */
#define KDZK_HOST_RUNS_16BIT 16u     /* runs of up to 65,535 rows, for kdzk_burst_rle_16bit and unpack_width 16 */
#define KDZK_HOST_RUNS_UNLIMITED 32u /* runs of any length, for run_offsets alone: kdzk_burst_rle_*_cla */

/* How many runs an array of codes has. */
uint32_t kdzk_host_count_runs(const uint32_t* codes, uint32_t nrows, uint32_t length_bits);

/* Writes the runs of an array of codes and returns how many. Each output may be null, and has exactly these elements:
 *   run_codes    a code per run, native; kdzk_host_pack makes the column's `data` of them
 *   run_lengths  a length per run, for kdzk_enc_ctx.unpack_base: a byte, or a big-endian uint16_t at that alignment;
 * not with KDZK_HOST_RUNS_UNLIMITED run_offsets  for kdzk_enc_ctx.run_offsets: the first row of each run and, last,
 * nrows, big-endian, at any alignment
 */
uint32_t kdzk_host_write_runs(const uint32_t* codes, uint32_t nrows, uint32_t length_bits, uint32_t* run_codes,
                              void* run_lengths, void* run_offsets);

#ifdef __cplusplus
}
#endif

#endif

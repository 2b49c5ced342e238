/* SPDX-License-Identifier: Apache-2.0
 * A first kernel call: which rows of a column of 3-bit codes are below 4? */
#include <kdzk/host.h>
#include <stdio.h>
#include <stdlib.h>

enum { ROWS = 12, WIDTH = 3 };

int main(int count, char** words) {
  /* The library: refused with a sentence where it can't run. */
  kdzk_host_library library;
  if (kdzk_host_load(count > 1 ? words[1] : "libvexksse4219.so", &library) != KDZK_HOST_LOADED) {
    fprintf(stderr, "%s\n", library.text);
    return 1;
  }

  /* The kernel. Not every combination exists. */
  kdzk_host_kernel lt;
  if (kdzk_host_find_kernel(library.ctx, KDZK_OP_LT, KDZK_HOST_FORM_DICT, WIDTH, &lt) != KDZK_HOST_FOUND) {
    fprintf(stderr, "%s\n", lt.text);
    return 1;
  }

  /* The column: packed codes, with readable bytes behind them. */
  const uint32_t codes[ROWS] = {6, 1, 7, 3, 0, 5, 2, 4, 4, 1, 6, 3};
  uint8_t* const packed = calloc(1, kdzk_host_padded_rows(ROWS, WIDTH));
  uint64_t* const bits = malloc(kdzk_host_bitvec_bytes(ROWS));
  if (packed == NULL || bits == NULL) return 1;
  kdzk_host_pack(codes, ROWS, WIDTH, packed);

  /* The call. */
  const uint32_t four = 4;
  kdzk_enc_ctx column = {.kind = lt.kind, .width = WIDTH};
  kdzk_vec input = {.data = packed, .enc_ctx = &column, .nrows = ROWS};
  kdzk_vec result = {.bitvec = bits, .nrows = ROWS};
  kdzk_kargs constant = {.data = (void*)&four};
  const uint64_t code = lt.entry.compare(&result, &input, &constant, NULL);

  printf("%s returned %u: %u of %u rows:", lt.text, (unsigned)code, result.hits, result.nrows);
  for (uint32_t row = 0; row < ROWS; row++) {
    if (bits[row / 64] >> row % 64 & 1) printf(" %u", row);
  }
  printf("\n");
  free(bits);
  free(packed);
  kdzk_host_unload(&library);
  return 0;
}

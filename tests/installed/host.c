/* SPDX-License-Identifier: Apache-2.0
 * The smallest host: counts the rows of eight 3-bit codes, 0 to 7, that are below 4. */
#include <kdzk/kdzk.h>
#include <stdio.h>

void hostinternalerr(void* hctx, uint64_t word72, const char* message, uint64_t zero) {
  (void)hctx, (void)word72, (void)zero;
  puts(message);
}

int main(void) {
  uint8_t codes[3 + KDZK_PADDING] = {0x05, 0x39, 0x77};
  uint64_t bits[1];
  uint32_t four = 4;
  kdzk_enc_ctx column = {.kind = kdzk_kind_of(kdzk_row_of_width(3), KDZK_FAMILY_DICT), .width = 3};
  kdzk_vec input = {.data = codes, .enc_ctx = &column, .nrows = 8}, result = {.bitvec = bits, .nrows = 8};
  kdzk_kargs constant = {.data = &four};
  kdzk_kernel lt = kdzk_global_specialized_ctx.dispatch[kdzk_id_of_kind(column.kind, KDZK_OP_LT)];
  if (lt.any == NULL || lt.compare(&result, &input, &constant, NULL) != KDZK_DONE) return 1;
  printf("%u of %u rows are below %u\n", result.hits, result.nrows, four);
  return 0;
}

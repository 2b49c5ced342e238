/* SPDX-License-Identifier: Apache-2.0
 *
 * A host that was compiled against the oldest header that is kept, and knows no other. It hands a record of each type
 * to the library as it is now, by a kernel or service of each calling shape, and looks at what comes back. */
#include <dlfcn.h>
#include <kdzk/kdzk.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int failures, cases;

static void expect(int holds, const char* what) {
  cases++;
  if (holds) return;
  failures++;
  printf("wrong: %s\n", what);
}

void hostinternalerr(void* hctx, uint64_t word72, const char* message, uint64_t zero) {
  (void)hctx, (void)word72, (void)zero;
  expect(0, message);
}

static const kdzk_specialized_ctx* ctx;

static kdzk_kernel kernel_of(uint32_t row, uint32_t family, uint32_t operation) {
  return ctx->dispatch[kdzk_id_of_kind(kdzk_kind_of(row, family), operation)];
}

/* Eight 3-bit codes, 0 to 7, and what is behind them. */
static uint8_t codes[3 + KDZK_PADDING] = {0x05, 0x39, 0x77};

static void* allocate(void* hctx, void* heap, uint32_t size, const char* comment, uint32_t unit, uint32_t alignment,
                      uint64_t tag) {
  (void)hctx, (void)heap;
  expect(strcmp(comment, "kdzk_lt_dict_3bit: vec1_decomp") == 0 && unit == 8 && alignment == 16 && tag == 77, "alloc");
  return calloc(1, size + KDZK_PADDING);
}

static void* allocate_scratch(void* hctx, uint64_t size, const char* comment, uint32_t unit, uint32_t zero,
                              void** out) {
  (void)hctx, (void)comment, (void)unit, (void)zero, (void)out;
  return calloc(1, size);
}

static void free_scratch(void* hctx, void* scratch, void* out) {
  (void)hctx, (void)out;
  free(scratch);
}

static uint32_t runs_to_rows(const kdzk_env* env, kdzk_vec* result, const kdzk_vec* input,
                             const kdzk_result_report* report) {
  (void)env;
  return (uint32_t)ctx->dispatch[kdzk_id_of(6, 110)].burst(result, input, report);
}

static void try_columns(void) {
  static const uint8_t block[] = {'S',  'Q', 'Z', 'B', 0, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 3, 0, 1, 0x30, 5, 0x39,
                                  0x77, 0,   0,   0,   1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,    0, 0};
  static const uint8_t run_lengths[8 + KDZK_PADDING] = {1, 2, 3, 4, 5, 6, 7, 8}, length_of_all[2] = {0, 2};
  const kdzk_env env = {NULL, NULL, allocate, allocate_scratch, free_scratch, ctx->sqzb_decode_x86};
  const uint32_t row = kdzk_row_of_width(3);
  uint64_t bits[1] = {0}, selection[1] = {0xf3}, filter[1] = {0xfe}, run_bits[1], table[1] = {0x0a};
  uint32_t four = 4;
  void* slot = NULL;
  kdzk_enc_ctx enc = {.width = 3};
  kdzk_exec exec = {.env = &env, .selection = selection};
  kdzk_vec input = {.data = codes, .enc_ctx = &enc, .filter = filter, .nrows = 8};
  kdzk_vec result = {.bitvec = bits, .nrows = 8};
  const kdzk_kargs constant = {.data = &four};
  const kdzk_compare_fn lt = kernel_of(row, KDZK_FAMILY_DICT, KDZK_OP_LT).compare;
  expect(lt(&result, &input, &constant, &exec) == KDZK_DONE && bits[0] == 2 && result.hits == 1, "lt");
  expect(exec.out_flags == KDZK_OUT_SELECTION, "out_flags");
  exec.flags = KDZK_EX_SELECTIVE;
  expect(lt(&result, &input, &constant, &exec) == KDZK_DONE && bits[0] == 2 && result.hits == 1, "lt, selective");

  exec.flags = 0;
  enc.flags = KDZK_BLOCKED;
  input.data = (void*)(uintptr_t)block;
  input.decomp_size = 3;
  input.decomp_slot = &slot;
  input.alloc_tag = 77;
  expect(lt(&result, &input, &constant, &exec) == KDZK_DONE && bits[0] == 2 && memcmp(slot, codes, 3) == 0, "blocked");
  free(slot);

  enc = (kdzk_enc_ctx){.width = 3, .flags = KDZK_RLE, .own_nrows = 8, .own_bitvec = run_bits};
  enc.result_cb = runs_to_rows;
  enc.unpack_base = (uint64_t)(uintptr_t)run_lengths;
  enc.unpack_width = 8;
  input.data = codes;
  exec.selection = NULL;
  result.nrows = 36;
  expect(lt(&result, &input, &constant, &exec) == KDZK_DONE && run_bits[0] == 0x0e && bits[0] == 0x3fe, "runs");

  enc = (kdzk_enc_ctx){.width = 3, .base = codes, .value_len = length_of_all};
  uint32_t ones[2] = {5, 1};
  uint64_t addresses[2];
  uint16_t lengths[2], indicators[2];
  uint8_t unpacked[8];
  exec.ones_vec = ones;
  exec.ones_vec_size = 2;
  result = (kdzk_vec){.data = addresses, .lengths = lengths, .indicators = indicators};
  expect(kernel_of(row, KDZK_FAMILY_DICT, KDZK_OP_DECODE).decode(&result, &input, &exec) == KDZK_DONE &&
             addresses[0] == (uint64_t)(uintptr_t)codes + 10 && lengths[1] == 2 && indicators[1] == 0 && exec.row == 1,
         "decode");
  exec = (kdzk_exec){.env = &env};
  result = (kdzk_vec){.data = unpacked, .nrows = 8};
  kernel_of(row, KDZK_FAMILY_DICT, KDZK_OP_DECODE_UNPACK).decode(&result, &input, &exec);
  expect(memcmp(unpacked, "\0\1\2\3\4\5\6\7", 8) == 0 && result.hits == 8 && exec.row == 7, "decode_unpack");

  const kdzk_vec set = {.bitvec = table};
  result = (kdzk_vec){.bitvec = bits, .nrows = 8};
  expect(kernel_of(row, KDZK_FAMILY_DICT, KDZK_OP_SET).set(&result, &input, &set, NULL) == KDZK_DONE && bits[0] == 0x0a,
         "set");
}

static void try_tables_and_numbers(void) {
  static const uint8_t rows[2 * 4 + KDZK_PADDING] = {0, 0, 0, 2, 0, 0, 0, 1}, elements[3] = {9, 0xff, 8};
  kdzk_enc_ctx enc = {.flags = KDZK_NUMERIC, .width = 32};
  kdzk_exec exec = {0};
  uint64_t bits[1] = {0};
  uint8_t stored[2];
  kdzk_hit_range range;
  exec.xlate_map = stored;
  const kdzk_vec input = {.data = (void*)(uintptr_t)rows, .enc_ctx = &enc, .nrows = 2};
  const kdzk_vec table = {.bitvec = (uint64_t*)(uintptr_t)elements, .enc_ctx = &enc};
  kdzk_vec result = {.data = &range, .bitvec = bits};
  expect(ctx->dispatch[kdzk_id_of(2 + KDZK_ROW_VARIANT, KDZK_OP_XLATE)].xlate(&result, &input, &table, &exec) == 0 &&
             bits[0] == 1 && range.first == 0 && range.last == 0 && stored[0] == 8 && stored[1] == 0xff,
         "xlate");

  double left_values[3] = {1, 2, 3}, right_values[3] = {4, 5, 6}, sums[3];
  const kdzk_vec left = {.data = left_values, .enc_ctx = &enc, .nrows = 3};
  const kdzk_vec right = {.data = right_values, .enc_ctx = &enc, .nrows = 3};
  result.data = sums;
  ctx->dispatch[kdzk_id_of(KDZK_ROW_DOUBLE, KDZK_OP_ADD)].arithmetic(&result, &left, &right, NULL);
  expect(sums[0] == 5 && sums[1] == 7 && sums[2] == 9, "add");

  const double xs[] = {0, 4, 0}, ys[] = {0, 0, 4}, point[] = {1};
  uint32_t crossings = 99;
  const kdzk_vec vectors[] = {{.data = &crossings},
                              {.data = (void*)(uintptr_t)xs, .nrows = 3},
                              {.data = (void*)(uintptr_t)ys},
                              {.data = (void*)(uintptr_t)point}};
  ctx->point_in_polygon(&vectors[0], &vectors[1], &vectors[2], &vectors[3], &vectors[3]);
  expect(crossings == 1, "point_in_polygon");

  uint64_t sum = 100;
  enc = (kdzk_enc_ctx){.width = 8, .float_kind = 8};
  const kdzk_vec integers = {.data = (void*)(uintptr_t) "\1\2\377", .enc_ctx = &enc, .nrows = 3};
  result.data = &sum;
  expect(ctx->sum_sortable(&result, &integers, NULL, NULL) == KDZK_DONE && sum == 102, "sum_sortable");

  static const uint8_t stream[6 + KDZK_PADDING] = {2, 0x0a, 0x10, 1, 2, 3};
  uint8_t records[9];
  kdzk_prefix_record entries[3];
  enc = (kdzk_enc_ctx){.prefix_group = 16, .prefix_width = 3, .prefix_count = 3};
  const kdzk_vec group = {.data = (void*)(uintptr_t)stream, .enc_ctx = &enc, .nrows = 1};
  result.data = records;
  exec.xlate_info = entries;
  expect(ctx->decode_prefix_records(&result, &group, &exec) == KDZK_DONE &&
             memcmp(records, "\12\20\1\12\20\2\12\20\3", 9) == 0 && entries[2].address == records + 6 &&
             entries[2].width == 3,
         "decode_prefix_records");
}

static void try_bit_vectors(void) {
  const uint64_t a[2] = {0xff00, 5}, b[2] = {0xf0f0, 1};
  uint64_t both[2];
  uint32_t count, rows[2];
  kdzk_bv_iter iter;
  ctx->bv64.bv_and(both, &count, a, b, 128);
  expect(both[0] == 0xf000 && both[1] == 1 && count == 5, "bv_and");
  ctx->bv64.iter_init(&iter, both, 128, 0, 13);
  expect(ctx->bv64.next_set(&iter) == 13 && ctx->bv64.next_set_batch(&iter, rows, 2) == 2 && rows[1] == 15 &&
             ctx->bv64.next_set(&iter) == 64 && ctx->bv64.next_set(&iter) == KDZK_BV64_END,
         "a walk");
}

static uint64_t no_hash(const void* key, uint32_t length, uint64_t seed) {
  (void)key;
  return length + seed;
}

static uint8_t buckets[2][4 * 64], overflow[2][64];

static void try_joins(void) {
  /* Bucket numbers 0, 1 and 2 in bits 16 and 17; in bit 18 the directory's entries 1, 0 and 1. */
  uint64_t hashes[3 + 2] = {0x40001, 0x10002, 0x60003}, hashed[3], pairs[6 + 2], seed = 5;
  uint8_t* tables[2] = {buckets[0], buckets[1]};
  uint8_t *cursors[2] = {overflow[0], overflow[1]}, *limits[2] = {overflow[1], overflow[1] + 64};
  kdzk_htdesc desc = {.flags = 1, .bucket_hi = 17, .dir_hi = 18, .dir_lo = 18};
  desc.tables = tables;
  desc.cursors = cursors;
  desc.limits = limits;
  kdzk_enc_ctx numeric = {.flags = KDZK_NUMERIC, .width = 64}, implicit = {.flags = KDZK_IMPLICIT_IDS};
  kdzk_enc_ctx fixed = {.flags = KDZK_FIXED_BYTES, .width = 64}, of_pairs = {.flags = KDZK_PROBE_PAIRS};
  kdzk_exec exec = {0};
  kdzk_vec keys = {.data = hashes, .enc_ctx = &numeric, .nrows = 3};
  kdzk_vec rows = {.enc_ctx = &implicit, .rowbase = 1, .nrows = 3}, out = {.data = hashed, .nrows = 3};
  expect(ctx->ht_build(&desc, &keys, &rows, -1, no_hash, &exec) == KDZK_DONE && (buckets[1][0] & 15) == 1 &&
             (buckets[0][64] & 15) == 1 && (buckets[1][128] & 15) == 1,
         "ht_build");
  exec = (kdzk_exec){0};
  rows.rowbase = 10;
  out.data = pairs;
  expect(ctx->ht_probe(&out, &keys, &rows, &desc, no_hash, &exec) == KDZK_DONE && out.nrows == 3 && exec.row == 3 &&
             pairs[0] == 10 && pairs[1] == 1 && pairs[4] == 12 && pairs[5] == 3,
         "ht_probe");

  /* The payloads 1 to 3 as locators: bit 0 is the entry, bits 1 and 2 the page. */
  static uint8_t value_bytes[4] = {0, 'a', 'b', 'c'};
  uint64_t entries[2][4] = {{0}}, values[2] = {0};
  for (int i = 0; i < 4; i++) entries[1 - i / 2][2 * (i % 2) + 1] = (uint64_t)(uintptr_t)(value_bytes + i);
  uint8_t* const pages[2] = {(uint8_t*)entries[1], (uint8_t*)entries[0]};
  const kdzk_rowstore store = {.flags = KDZK_STORE_PAIRS, .width = 8, .page_hi = 2, .page_lo = 1, .pairs = pages};
  const kdzk_vec locators = {.data = pairs, .enc_ctx = &of_pairs, .nrows = 3};
  const kdzk_vec gathered = {.data = values, .enc_ctx = &fixed, .out_size = sizeof values};
  exec = (kdzk_exec){0};
  expect(ctx->ht_gather(&gathered, &locators, &store, &exec) == KDZK_DONE && memcmp(values, "abc\0", 4) == 0 &&
             exec.row == 3,
         "ht_gather");

  keys.enc_ctx = &fixed;
  out = (kdzk_vec){.data = hashed};
  const kdzk_vec seeds = {.data = &seed, .enc_ctx = &numeric, .nrows = 1};
  expect(ctx->hash_rows(&out, &keys, &seeds, no_hash) == KDZK_DONE && hashed[0] == 13 && hashed[2] == 13, "hash_rows");

  /* Bits 17 and 18 of the hashes: partitions 2, 0 and 3. */
  uint64_t records[4][2] = {{0}};
  uint8_t *part_cursors[4], *part_limits[4];
  for (int i = 0; i < 4; i++) part_cursors[i] = (uint8_t*)records[i], part_limits[i] = (uint8_t*)(records[i] + 2);
  kdzk_partdesc parts = {.flags = KDZK_PART_A, .part_hi = 18, .part_lo = 17};
  parts.cursors = part_cursors;
  parts.limits = part_limits;
  keys.enc_ctx = &numeric;
  exec = (kdzk_exec){0};
  expect(ctx->partition_rows(&parts, &keys, &rows, no_hash, &exec) == KDZK_DONE && exec.row == 3 &&
             records[2][0] == 10 && records[2][1] == hashes[0] && records[0][0] == 11 && records[3][0] == 12,
         "partition_rows");
}

int main(int argc, char** argv) {
  void* handle = argc == 2 ? dlopen(argv[1], RTLD_NOW) : NULL;
  if (handle == NULL) return fprintf(stderr, "can't open the library: %s\n", dlerror()), 2;
  ctx = (const kdzk_specialized_ctx*)dlsym(handle, KDZK_CONTEXT_SYMBOL);
  expect(ctx->magic == KDZK_MAGIC, "magic");
  expect(strcmp(ctx->name, "vexksse4219") == 0, "name");
  expect(strcmp(kdzk_name_of(ctx, 2 * 128 + 33), "kdzk_lt_dict_3bit") == 0, "names table");
  try_columns();
  try_tables_and_numbers();
  try_bit_vectors();
  try_joins();
  printf("figure: a host of " KDZK_VERSION " on the library %s: %d of %d cases hold\n", ctx->version, cases - failures,
         cases);
  return failures != 0;
}

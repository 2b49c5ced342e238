/* SPDX-License-Identifier: Apache-2.0
 * The sample engine with one mistake, which is the rule named in KDZK_BREAK. With "list", prints the rules; "little" is
 * an engine without a mistake that has only a few forms. */
#define _GNU_SOURCE
#define hostinternalerr good_hostinternalerr
#define kdzk_verify_host_of good_host_of
#include "examples/verify_host/engine.c"
#undef hostinternalerr
#undef kdzk_verify_host_of
#include <stdio.h>
#include <sys/mman.h>

void hostinternalerr(void* hctx, uint64_t word72, const char* message, uint64_t zero);
const kdzk_verify_host* kdzk_verify_host_of(const kdzk_specialized_ctx* ctx);

static kdzk_env good, bad;

/* ---- Callbacks ---- */

static void* misaligned_alloc(void* hctx, void* heap, uint32_t size, const char* comment, uint32_t unit,
                              uint32_t alignment, uint64_t tag) {
  return (uint8_t*)good.alloc(hctx, heap, size + 16, comment, unit, alignment, tag) + 8;
}

static void* unpadded_alloc(void* hctx, void* heap, uint32_t size, const char* comment, uint32_t unit,
                            uint32_t alignment, uint64_t tag) {
  (void)hctx, (void)heap, (void)comment, (void)unit, (void)alignment, (void)tag;
  return malloc(size);
}

static void* same_alloc(void* hctx, void* heap, uint32_t size, const char* comment, uint32_t unit, uint32_t alignment,
                        uint64_t tag) {
  static _Alignas(16) uint8_t room[100000];
  if (size < 64) return good.alloc(hctx, heap, size, comment, unit, alignment, tag);
  return room;
}

static void* misaligned_tmp_alloc(void* hctx, uint64_t size, const char* comment, uint32_t unit, uint32_t zero,
                                  void** out) {
  return (uint8_t*)good.tmp_alloc(hctx, size + 16, comment, unit, zero, out) + 2;
}
static void misaligned_tmp_free(void* hctx, void* scratch, void* out) {
  good.tmp_free(hctx, (uint8_t*)scratch - 2, out);
}

static void* same_tmp_alloc(void* hctx, uint64_t size, const char* comment, uint32_t unit, uint32_t zero, void** out) {
  static _Alignas(16) uint8_t room[100000];
  (void)hctx, (void)size, (void)comment, (void)unit, (void)zero, (void)out;
  return room;
}

static void no_tmp_free(void* hctx, void* scratch, void* out) { (void)hctx, (void)scratch, (void)out; }

static uint32_t silent_decompress(const kdzk_sqzb_ctx* ctx, const void* src, void* dst, uint32_t* written,
                                  uint32_t capacity) {
  good.decompress(ctx, src, dst, written, capacity);
  return 0;
}

/* A host context of its own, too small: its callbacks know the memory anyhow. */
static void* context_alloc(void* hctx, void* heap, uint32_t size, const char* comment, uint32_t unit,
                           uint32_t alignment, uint64_t tag) {
  (void)hctx;
  return good.alloc(&memory, heap, size, comment, unit, alignment, tag);
}
static void* context_tmp_alloc(void* hctx, uint64_t size, const char* comment, uint32_t unit, uint32_t zero,
                               void** out) {
  (void)hctx;
  return good.tmp_alloc(&memory, size, comment, unit, zero, out);
}
static void context_tmp_free(void* hctx, void* scratch, void* out) {
  (void)hctx;
  good.tmp_free(&memory, scratch, out);
}

static int swaps_errors;
void hostinternalerr(void* hctx, uint64_t word72, const char* message, uint64_t zero) {
  good_hostinternalerr(hctx, swaps_errors ? zero : word72, message, zero);
}

static uint64_t long_hash(const void* key, uint32_t length, uint64_t seed) {
  return hash(key, length, seed) ^ (uint64_t)((const uint8_t*)key)[length] << 20;
}
static uint64_t low_hash(const void* key, uint32_t length, uint64_t seed) { return hash(key, length, seed) << 12; }

static uint32_t quiet_result_cb(const kdzk_env* env, kdzk_vec* result, const kdzk_vec* input,
                                const kdzk_result_report* report) {
  rows_of_runs(env, result, input, report);
  return KDZK_DONE;
}

/* ---- Columns ---- */

typedef void (*spoil_fn)(engine_column* column, const kdzk_verify_request* request, kdzk_verify_column* out);
static spoil_fn spoil;

#define SPOIL(name) static void name(engine_column* column, const kdzk_verify_request* request, kdzk_verify_column* out)
#define UNUSED (void)column, (void)request, (void)out

SPOIL(spoil_nrows) { UNUSED, column->vec.nrows++; }
SPOIL(spoil_kind) { UNUSED, column->enc.kind += 4; }
SPOIL(spoil_flags) { UNUSED, column->enc.flags |= KDZK_FIXED_BYTES; }
SPOIL(spoil_width) { UNUSED, column->enc.width_zero[0] = 1; }
SPOIL(spoil_range) { UNUSED, out->largest--; }
SPOIL(spoil_float_kind) { UNUSED, column->enc.float_kind++; }
SPOIL(spoil_prefix) { UNUSED, column->enc.prefix_group = 8; }
SPOIL(spoil_decomp_size) { UNUSED, column->vec.decomp_size++; }
SPOIL(spoil_data) {
  UNUSED;
  if (request->form == KDZK_VERIFY_FIXED && request->width == 16 && !request->blocked) {
    uint8_t* const data = column->data;
    for (uint32_t row = 0; row < request->nrows; row++) {
      const uint8_t high = data[2 * row];
      data[2 * row] = data[2 * row + 1];
      data[2 * row + 1] = high;
    }
  }
}
SPOIL(spoil_lengths) {
  UNUSED;
  if (request->form == KDZK_VERIFY_DYNP) ((uint8_t*)column->lengths)[1] ^= 0x11;
}
SPOIL(spoil_dictionary) {
  UNUSED;
  if (column->enc.base != NULL) column->enc.base++;
}
SPOIL(spoil_texts) {
  UNUSED;
  if (request->form == KDZK_VERIFY_TEXTS) ((uint16_t*)column->lengths)[9]++;
}
SPOIL(spoil_runs) {
  UNUSED;
  if (column->enc.own_nrows > 0) column->enc.own_nrows--;
}
SPOIL(spoil_result_cb) {
  UNUSED;
  if (column->enc.result_cb != NULL) column->enc.result_cb = quiet_result_cb;
}
SPOIL(spoil_padding) { /* exactly the bytes */
  UNUSED;
  if (request->form != KDZK_VERIFY_FIXED || request->blocked) return;
  const uint64_t bytes = (uint64_t)request->value_bytes * request->nrows;
  column->vec.data = memcpy(malloc(bytes), column->data, bytes);
}
static uint64_t* bytes_of_bits(const uint64_t* words, uint32_t rows) { /* whole bytes, and not words */
  return memcpy(malloc((rows + 7) / 8), words, (rows + 7) / 8);
}
SPOIL(spoil_bits) {
  UNUSED;
  if (request->form == KDZK_VERIFY_BITS) column->vec.bitvec = bytes_of_bits(column->bits, request->nrows);
}
SPOIL(spoil_run_bits) {
  UNUSED;
  if (column->bits != NULL && request->form == KDZK_VERIFY_RUNS)
    column->enc.own_bitvec = bytes_of_bits(column->bits, column->enc.own_nrows);
}
SPOIL(spoil_filter) { /* all rows but one */
  UNUSED;
  if (request->form != KDZK_VERIFY_DYNP) return;
  uint64_t* const filter = new_bits(request->nrows);
  memset(filter, 0xff, kdzk_host_bitvec_bytes(request->nrows));
  filter[0] &= ~(UINT64_C(1) << 17);
  column->vec.filter = filter;
}
SPOIL(spoil_sharing) {
  static uint64_t shared[4096];
  UNUSED;
  if (request->form == KDZK_VERIFY_RUNS) column->enc.own_bitvec = shared;
}

static uint32_t spoiled_make(void* state, const kdzk_verify_request* request, kdzk_verify_column* out) {
  const uint32_t made = make(state, request, out);
  if (made == KDZK_DONE) spoil(out->own, request, out);
  return made;
}

static void forgetful_end(void* state, kdzk_verify_column* made) {
  ((engine_column*)made->own)->copy = NULL;
  end(state, made);
}

/* An engine with little to show, and no mistake. */
static uint32_t make_codes_only(void* state, const kdzk_verify_request* request, kdzk_verify_column* out) {
  if (request->form != KDZK_VERIFY_CODES || request->blocked || request->width > 8) return KDZK_UNSUPPORTED;
  return make(state, request, out);
}
static void have_little(kdzk_verify_host* host) {
  host->make = make_codes_only;
  host->hash = NULL;
  host->in_use = NULL;
  host->guard = NULL;
  host->last_error = NULL;
}

/* ---- The mistakes, each named for the rule that it breaks ---- */

static void break_env_complete(kdzk_verify_host* host) { (void)host, bad.tmp_free = NULL; }
static void break_host_context(kdzk_verify_host* host) {
  (void)host;
  uint8_t* const map = mmap(NULL, 8192, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  mprotect(map + 4096, 4096, PROT_NONE);
  bad.hctx = map + 4096 - 64;
  bad.alloc = context_alloc, bad.tmp_alloc = context_tmp_alloc, bad.tmp_free = context_tmp_free;
}
static void break_alloc_alignment(kdzk_verify_host* host) { (void)host, bad.alloc = misaligned_alloc; }
static void break_alloc_size(kdzk_verify_host* host) { (void)host, bad.alloc = same_alloc; }
static void break_alloc_padding(kdzk_verify_host* host) { (void)host, bad.alloc = unpadded_alloc; }
static void break_tmp_alignment(kdzk_verify_host* host) {
  (void)host;
  bad.tmp_alloc = misaligned_tmp_alloc, bad.tmp_free = misaligned_tmp_free;
}
static void break_tmp_size(kdzk_verify_host* host) {
  (void)host;
  bad.tmp_alloc = same_tmp_alloc, bad.tmp_free = no_tmp_free;
}
static void break_tmp_balance(kdzk_verify_host* host) { (void)host, bad.tmp_free = no_tmp_free; }
static void break_decompress(kdzk_verify_host* host) { (void)host, bad.decompress = silent_decompress; }
static void break_errors(kdzk_verify_host* host) { (void)host, swaps_errors = 1; }
static void break_hash_pure(kdzk_verify_host* host) { host->hash = long_hash; }
static void break_hash_mixed(kdzk_verify_host* host) { host->hash = low_hash; }
static void break_copy_balance(kdzk_verify_host* host) { host->end = forgetful_end; }

static const struct {
  const char* rule;
  void (*change)(kdzk_verify_host* host);
  spoil_fn spoil;
} mistakes[] = {
    {"env-complete", break_env_complete, NULL},
    {"host-context", break_host_context, NULL},
    {"alloc-alignment", break_alloc_alignment, NULL},
    {"alloc-size", break_alloc_size, NULL},
    {"alloc-padding", break_alloc_padding, NULL},
    {"tmp-alignment", break_tmp_alignment, NULL},
    {"tmp-size", break_tmp_size, NULL},
    {"tmp-balance", break_tmp_balance, NULL},
    {"decompress", break_decompress, NULL},
    {"hostinternalerr", break_errors, NULL},
    {"hash-pure", break_hash_pure, NULL},
    {"hash-mixed", break_hash_mixed, NULL},
    {"copy-balance", break_copy_balance, NULL},
    {"nrows", NULL, spoil_nrows},
    {"kind", NULL, spoil_kind},
    {"flags", NULL, spoil_flags},
    {"width", NULL, spoil_width},
    {"range", NULL, spoil_range},
    {"data", NULL, spoil_data},
    {"lengths", NULL, spoil_lengths},
    {"float-kind", NULL, spoil_float_kind},
    {"dictionary", NULL, spoil_dictionary},
    {"bitvec", NULL, spoil_bits},
    {"runs", NULL, spoil_runs},
    {"filter", NULL, spoil_filter},
    {"run-bits", NULL, spoil_run_bits},
    {"block", NULL, spoil_decomp_size},
    {"padding", NULL, spoil_padding},
    {"result-cb", NULL, spoil_result_cb},
    {"not-shared", NULL, spoil_sharing},
    {"texts", NULL, spoil_texts},
    {"prefix-records", NULL, spoil_prefix},
};

const kdzk_verify_host* kdzk_verify_host_of(const kdzk_specialized_ctx* ctx) {
  static kdzk_verify_host engine;
  engine = *good_host_of(ctx);
  good = bad = *engine.env;
  engine.env = &bad;
  const char* const wanted = getenv("KDZK_BREAK");
  if (wanted != NULL && strcmp(wanted, "little") == 0) {
    have_little(&engine);
    return &engine;
  }
  for (size_t i = 0; wanted != NULL && i < sizeof mistakes / sizeof *mistakes; i++) {
    if (strcmp(wanted, "list") == 0) printf("%s\n", mistakes[i].rule);
    if (strcmp(wanted, mistakes[i].rule) != 0) continue;
    if (mistakes[i].change != NULL) mistakes[i].change(&engine);
    spoil = mistakes[i].spoil;
    if (spoil != NULL) engine.make = spoiled_make;
    return &engine;
  }
  return NULL;
}

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

static const char* const rules[] = {
    "env-complete",  "host-context",  "alloc-alignment", "alloc-size", "alloc-padding",
    "tmp-alignment", "tmp-size",      "tmp-balance",     "decompress", "hostinternalerr",
    "hash-pure",     "hash-mixed",    "copy-balance",    "nrows",      "kind",
    "flags",         "width",         "range",           "data",       "lengths",
    "float-kind",    "dictionary",    "bitvec",          "runs",       "filter",
    "run-bits",      "block",         "padding",         "result-cb",  "not-shared",
    "texts",         "prefix-records"};
static const char* broken;
static int breaks(const char* rule) { return strcmp(broken, rule) == 0; }

/* ---- Callbacks: the sample's, whose host context they know anyhow, but for the mistake ---- */

static kdzk_env good, bad;
static _Alignas(16) uint8_t same_room[100000];

static void* bad_alloc(void* hctx, void* heap, uint32_t size, const char* comment, uint32_t unit, uint32_t alignment,
                       uint64_t tag) {
  (void)hctx;
  if (breaks("alloc-padding")) return malloc(size);
  if (breaks("alloc-size") && size >= 64) return same_room;
  const uint32_t aside = breaks("alloc-alignment") ? 8 : 0;
  return (uint8_t*)good.alloc(&memory, heap, size + 2 * aside, comment, unit, alignment, tag) + aside;
}

static void* bad_tmp_alloc(void* hctx, uint64_t size, const char* comment, uint32_t unit, uint32_t zero, void** out) {
  (void)hctx;
  if (breaks("tmp-size")) return same_room;
  const uint32_t aside = breaks("tmp-alignment") ? 2 : 0;
  return (uint8_t*)good.tmp_alloc(&memory, size + 8 * aside, comment, unit, zero, out) + aside;
}
static void bad_tmp_free(void* hctx, void* scratch, void* out) {
  (void)hctx;
  if (breaks("tmp-size") || breaks("tmp-balance")) return;
  good.tmp_free(&memory, (uint8_t*)scratch - (breaks("tmp-alignment") ? 2 : 0), out);
}

static uint32_t bad_decompress(const kdzk_sqzb_ctx* ctx, const void* src, void* dst, uint32_t* written,
                               uint32_t capacity) {
  const uint32_t returned = good.decompress(ctx, src, dst, written, capacity);
  return breaks("decompress") ? 0 : returned;
}

void hostinternalerr(void* hctx, uint64_t word72, const char* message, uint64_t zero) {
  good_hostinternalerr(hctx, breaks("hostinternalerr") ? zero : word72, message, zero);
}

static uint64_t bad_hash(const void* key, uint32_t length, uint64_t seed) {
  const uint64_t h = hash(key, length, seed);
  if (breaks("hash-pure")) return h ^ (uint64_t)((const uint8_t*)key)[length] << 20;
  return breaks("hash-mixed") ? h << 12 : h;
}

static uint32_t quiet_result_cb(const kdzk_env* env, kdzk_vec* result, const kdzk_vec* input,
                                const kdzk_result_report* report) {
  rows_of_runs(env, result, input, report);
  return KDZK_DONE;
}

/* ---- Columns ---- */

static void* exactly(const void* bytes, uint64_t size) { return memcpy(malloc(size), bytes, size); }

static uint64_t* all_rows_but_one(uint32_t nrows) {
  uint64_t* const filter = new_bits(nrows);
  memset(filter, 0xff, kdzk_host_bitvec_bytes(nrows));
  filter[0] &= ~(UINT64_C(1) << 17);
  return filter;
}

static void swap_bytes_of_pairs(uint8_t* data, uint32_t pairs) {
  for (uint32_t i = 0; i < pairs; i++) {
    const uint8_t high = data[2 * i];
    data[2 * i] = data[2 * i + 1];
    data[2 * i + 1] = high;
  }
}

static void spoil(engine_column* column, const kdzk_verify_request* request, kdzk_verify_column* out) {
  static uint64_t shared[4096];
  kdzk_enc_ctx* const enc = &column->enc;
  const uint32_t form = request->form, nrows = request->nrows;
  const int plain_fixed = form == KDZK_VERIFY_FIXED && !request->blocked;
  if (breaks("nrows")) column->vec.nrows++;
  if (breaks("kind")) enc->kind += 4;
  if (breaks("flags")) enc->flags |= KDZK_FIXED_BYTES;
  if (breaks("width")) enc->width_zero[0] = 1;
  if (breaks("range")) out->largest--;
  if (breaks("float-kind")) enc->float_kind++;
  if (breaks("prefix-records")) enc->prefix_group = 8;
  if (breaks("block")) column->vec.decomp_size++;
  if (breaks("data") && plain_fixed && request->width == 16) swap_bytes_of_pairs(column->data, nrows);
  if (breaks("lengths") && form == KDZK_VERIFY_DYNP) ((uint8_t*)column->lengths)[1] ^= 0x11;
  if (breaks("dictionary") && enc->base != NULL) enc->base++;
  if (breaks("texts") && form == KDZK_VERIFY_TEXTS) ((uint16_t*)column->lengths)[9]++;
  if (breaks("runs") && enc->own_nrows > 0) enc->own_nrows--;
  if (breaks("result-cb") && enc->result_cb != NULL) enc->result_cb = quiet_result_cb;
  if (breaks("padding") && plain_fixed)
    column->vec.data = exactly(column->data, (uint64_t)request->value_bytes * nrows);
  if (breaks("bitvec") && form == KDZK_VERIFY_BITS) column->vec.bitvec = exactly(column->bits, (nrows + 7) / 8);
  if (breaks("run-bits") && form == KDZK_VERIFY_RUNS && column->bits != NULL)
    enc->own_bitvec = exactly(column->bits, (enc->own_nrows + 7) / 8);
  if (breaks("not-shared") && form == KDZK_VERIFY_RUNS) enc->own_bitvec = shared;
  if (breaks("filter") && form == KDZK_VERIFY_DYNP) column->vec.filter = all_rows_but_one(nrows);
}

static uint32_t bad_make(void* state, const kdzk_verify_request* request, kdzk_verify_column* out) {
  const int is_little = request->form == KDZK_VERIFY_CODES && !request->blocked && request->width <= 8;
  if (breaks("little") && !is_little) return KDZK_UNSUPPORTED;
  const uint32_t made = make(state, request, out);
  if (made == KDZK_DONE) spoil(out->own, request, out);
  return made;
}

static void bad_end(void* state, kdzk_verify_column* made) {
  if (breaks("copy-balance")) ((engine_column*)made->own)->copy = NULL;
  end(state, made);
}

const kdzk_verify_host* kdzk_verify_host_of(const kdzk_specialized_ctx* ctx) {
  static kdzk_verify_host engine;
  broken = getenv("KDZK_BREAK");
  for (size_t i = 0; broken != NULL && breaks("list") && i < sizeof rules / sizeof *rules; i++) puts(rules[i]);
  if (broken == NULL || breaks("list")) return NULL;
  engine = *good_host_of(ctx);
  good = *engine.env;
  bad = (kdzk_env){good.hctx, good.heap, bad_alloc, bad_tmp_alloc, bad_tmp_free, bad_decompress};
  engine.env = &bad;
  engine.make = bad_make;
  engine.end = bad_end;
  engine.hash = bad_hash;
  if (breaks("env-complete")) bad.tmp_free = NULL;
  if (breaks("host-context")) { /* too small */
    uint8_t* const map = mmap(NULL, 8192, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    mprotect(map + 4096, 4096, PROT_NONE);
    bad.hctx = map + 4096 - 64;
  }
  if (breaks("little")) {
    engine.hash = NULL;
    engine.in_use = NULL;
    engine.guard = NULL;
    engine.last_error = NULL;
  }
  return &engine;
}

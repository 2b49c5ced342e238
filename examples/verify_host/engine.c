/* SPDX-License-Identifier: Apache-2.0
 * An engine's part of verify-host, to be copied and filled with the engine's own. This one is made of the host kit: its
 * memory is the kit's kdzk_env from malloc, its columns come from the kit's writers. */
#include <kdzk/host.h>
#include <kdzk/host/verify.h>
#include <setjmp.h>
#include <stdlib.h>
#include <string.h>

/* ---- Callbacks ---- */

static const kdzk_specialized_ctx* library;
static kdzk_host_memory memory;
static jmp_buf* failure; /* where an internal error goes */
static const char* last_message;
static uint64_t last_word72;

void hostinternalerr(void* hctx, uint64_t word72, const char* message, uint64_t zero) {
  (void)hctx, (void)zero;
  last_message = message;
  last_word72 = word72;
  if (failure != NULL) longjmp(*failure, 1);
  abort();
}

static uint32_t guarded_call(void* state, void (*call)(void* argument), void* argument) {
  (void)state;
  jmp_buf here;
  failure = &here;
  const int left = setjmp(here);
  if (left == 0) call(argument);
  failure = NULL;
  return left != 0;
}

static const char* last_error(void* state, uint64_t* word72) {
  (void)state;
  *word72 = last_word72;
  return last_message;
}

static uint64_t in_use(void* state) {
  (void)state;
  return memory.copies + memory.scratch;
}

static uint64_t hash(const void* key, uint32_t length, uint64_t seed) {
  const uint8_t* const bytes = key;
  uint64_t h = seed ^ 0x9e3779b97f4a7c15u;
  for (uint32_t i = 0; i < length; i++) h = (h ^ bytes[i]) * 0x100000001b3u;
  h = (h ^ length ^ h >> 32) * 0xd6e8feb86659fd93u;
  h = (h ^ h >> 32) * 0xd6e8feb86659fd93u;
  return h ^ h >> 32;
}

/* Bits per run to bits per row, by the kernel for the column's run lengths. */
static uint32_t rows_of_runs(const kdzk_env* env, kdzk_vec* result, const kdzk_vec* input,
                             const kdzk_result_report* report) {
  (void)env;
  kdzk_host_kernel burst;
  kdzk_host_find_kernel(library, KDZK_OP_BURST_RLE, KDZK_HOST_FORM_RLE, input->enc_ctx->unpack_width, &burst);
  return (uint32_t)burst.entry.burst(result, input, report);
}

/* ---- Columns ---- */

typedef struct engine_column {
  kdzk_enc_ctx enc;
  kdzk_vec vec;
  void* copy; /* the decompressed copy */
  void *data, *lengths, *symbols, *offsets, *run_lengths, *run_offsets, *bits;
} engine_column;

/* Zeroed, with the padding that kernels read. */
static void* padded(uint64_t bytes) {
  void* const room = calloc(1, kdzk_host_padded(bytes));
  if (room == NULL) abort();
  return room;
}

static uint64_t* new_bits(uint64_t rows) {
  uint64_t* const words = calloc(1, kdzk_host_bitvec_bytes(rows));
  if (words == NULL) abort();
  return words;
}

static void put_be32(uint8_t* at, uint32_t number) {
  for (int byte = 0; byte < 4; byte++) at[byte] = (uint8_t)(number >> (24 - 8 * byte));
}

static void add_dictionary(engine_column* column, const kdzk_verify_request* request) {
  column->enc.dict_size = request->dict_size;
  if (request->symbols == NULL) return;
  uint64_t bytes = 0;
  for (uint32_t code = 0; code < request->dict_size; code++) bytes += request->symbols[code].size;
  uint8_t* const symbols = column->symbols = padded(bytes);
  uint8_t* const offsets = column->offsets = padded(4 * ((uint64_t)request->dict_size + 1));
  uint32_t at = 0;
  for (uint32_t code = 0; code < request->dict_size; code++) {
    const kdzk_host_text symbol = request->symbols[code];
    put_be32(offsets + 4 * (uint64_t)code, at);
    memcpy(symbols + at, symbol.bytes, symbol.size);
    at += (uint32_t)symbol.size;
  }
  put_be32(offsets + 4 * (uint64_t)request->dict_size, at);
  column->enc.base = symbols;
  column->enc.offsets = offsets;
  column->enc.dict_mode = 1;
}

/* Packed codes, of rows or of runs; returns their bytes. */
static uint64_t add_codes(engine_column* column, const kdzk_verify_request* request) {
  const uint32_t nrows = request->nrows;
  uint32_t* const codes = padded(4 * (uint64_t)nrows);
  uint32_t count = nrows;
  for (uint32_t row = 0; row < nrows; row++) codes[row] = (uint32_t)request->values[row];
  column->enc.flags = KDZK_PACKED_DICT;
  column->enc.kind = kdzk_kind_of(kdzk_row_of_width(request->width), KDZK_FAMILY_DICT);
  if (request->form == KDZK_VERIFY_RUNS) {
    count = kdzk_host_count_runs(codes, nrows, KDZK_HOST_RUNS_8BIT);
    column->run_lengths = padded(count);
    column->run_offsets = padded(4 * ((uint64_t)count + 1));
    kdzk_host_write_runs(codes, nrows, KDZK_HOST_RUNS_8BIT, codes, column->run_lengths, column->run_offsets);
    column->enc.flags |= KDZK_RLE;
    column->enc.own_nrows = count;
    column->enc.own_bitvec = column->bits = new_bits(count);
    column->enc.unpack_base = (uintptr_t)column->run_lengths;
    column->enc.unpack_width = KDZK_HOST_RUNS_8BIT;
    column->enc.run_offsets = column->run_offsets;
    column->enc.result_cb = rows_of_runs;
  }
  const uint64_t bytes = kdzk_host_packed_bytes(count, request->width);
  column->data = padded(bytes);
  kdzk_host_pack(codes, count, request->width, column->data);
  free(codes);
  add_dictionary(column, request);
  return bytes;
}

/* Big-endian values, whole or without the zero bytes behind, and length codes. */
static uint64_t add_values(engine_column* column, const kdzk_verify_request* request) {
  const uint32_t most = request->value_bytes, dynp = request->form == KDZK_VERIFY_DYNP;
  const uint32_t code_bits = request->form == KDZK_VERIFY_FIXED ? 0 : request->width / 16;
  uint8_t* const data = column->data = padded((uint64_t)most * request->nrows);
  uint8_t* const lengths = column->lengths = padded((uint64_t)code_bits * request->nrows / 8 + 1);
  uint64_t at = 0;
  for (uint32_t row = 0; row < request->nrows; row++) {
    const uint64_t value = request->values[row];
    uint32_t length = most;
    while (length > 1 && (value >> 8 * (most - length) & 0xff) == 0) length--;
    const uint32_t stored = dynp ? length : most;
    for (uint32_t byte = 0; byte < stored; byte++) data[at++] = (uint8_t)(value >> 8 * (most - 1 - byte));
    const uint64_t bit = (uint64_t)code_bits * row;
    if (code_bits > 0) lengths[bit / 8] |= (uint8_t)((length - 1) << (8 - code_bits - bit % 8));
  }
  column->enc.flags = request->form == KDZK_VERIFY_FIXED ? KDZK_NUMERIC : 0;
  column->enc.kind = kdzk_kind_of(kdzk_row_of_width(request->width), dynp ? KDZK_FAMILY_DYNP : KDZK_FAMILY_FIXED);
  return at;
}

static void add_numbers(engine_column* column, const kdzk_verify_request* request) {
  column->data = padded(8 * (uint64_t)request->nrows);
  column->enc.float_kind = request->width == 64 ? 2 : 1;
  if (request->width == 64) {
    kdzk_host_write_sortable_doubles(request->numbers, request->nrows, column->data);
    return;
  }
  float* const floats = padded(4 * (uint64_t)request->nrows);
  for (uint32_t row = 0; row < request->nrows; row++) floats[row] = (float)request->numbers[row];
  kdzk_host_write_sortable_floats(floats, request->nrows, column->data);
  free(floats);
}

static void add_texts(engine_column* column, const kdzk_verify_request* request) {
  uint64_t bytes = 0;
  for (uint32_t row = 0; row < request->nrows; row++) bytes += request->texts[row].size;
  uint8_t* at = column->data = padded(bytes);
  uint16_t* const lengths = column->lengths = padded(2 * (uint64_t)request->nrows);
  for (uint32_t row = 0; row < request->nrows; row++) {
    const kdzk_host_text text = request->texts[row];
    memcpy(at, text.bytes, text.size);
    at += text.size;
    lengths[row] = (uint16_t)text.size;
  }
  column->enc.flags = KDZK_LEN_ARRAY;
}

static void add_prefix_records(engine_column* column, const kdzk_verify_request* request) {
  const uint32_t bytes = request->value_bytes;
  uint8_t* const records = padded((uint64_t)bytes * request->nrows);
  kdzk_host_write_integers((const int64_t*)request->values, request->nrows, 8 * bytes, records);
  column->data = padded(kdzk_host_prefix_records_bound(request->nrows, bytes));
  kdzk_host_prefix_records_write(records, request->nrows, bytes, column->data);
  free(records);
  column->enc.prefix_group = KDZK_HOST_PREFIX_GROUP;
  column->enc.prefix_width = (int16_t)bytes;
  column->enc.prefix_count = request->nrows;
}

static void compress(engine_column* column, uint64_t bytes) {
  const uint64_t room = kdzk_host_sqzb_bound((uint32_t)bytes, KDZK_HOST_SQZB_ANY_WIDTH);
  void* const block = padded(room);
  uint64_t block_size;
  if (kdzk_host_sqzb_write(column->data, (uint32_t)bytes, KDZK_HOST_SQZB_ANY_WIDTH, block, room, &block_size) !=
      KDZK_HOST_DONE)
    abort();
  free(column->data);
  column->data = block;
  column->enc.flags |= KDZK_BLOCKED;
  column->vec.decomp_size = (uint32_t)bytes;
  column->vec.decomp_slot = &column->copy;
  column->vec.alloc_tag = kdzk_host_tag(&column->copy);
}

static uint32_t make(void* state, const kdzk_verify_request* request, kdzk_verify_column* out) {
  (void)state;
  engine_column* const column = calloc(1, sizeof *column);
  if (column == NULL) abort();
  column->vec.enc_ctx = &column->enc;
  column->vec.nrows = request->nrows;
  column->enc.width = (uint8_t)(request->value_bytes > 0 ? 8 * request->value_bytes : request->width);
  uint64_t bytes = 0;
  switch (request->form) {
    case KDZK_VERIFY_CODES:
    case KDZK_VERIFY_RUNS:
      bytes = add_codes(column, request);
      break;
    case KDZK_VERIFY_FIXED:
    case KDZK_VERIFY_FIXED_TZ:
    case KDZK_VERIFY_DYNP:
      bytes = add_values(column, request);
      break;
    case KDZK_VERIFY_NUMBERS:
      add_numbers(column, request);
      break;
    case KDZK_VERIFY_TEXTS:
      add_texts(column, request);
      break;
    case KDZK_VERIFY_PREFIX:
      add_prefix_records(column, request);
      column->vec.nrows = kdzk_host_prefix_groups(request->nrows);
      break;
    case KDZK_VERIFY_BITS:
      column->vec.bitvec = column->bits = new_bits(request->nrows);
      for (uint32_t row = 0; row < request->nrows; row++)
        column->vec.bitvec[row / 64] |= request->values[row] << row % 64;
      break;
    default:
      free(column);
      return KDZK_UNSUPPORTED;
  }
  if (request->blocked) compress(column, bytes);
  column->vec.data = column->data;
  column->vec.lengths = column->lengths;
  *out = (kdzk_verify_column){.vec = &column->vec, .own = column};
  if (request->values != NULL) {
    out->has_range = 1;
    out->smallest = out->largest = request->values[0];
    for (uint32_t row = 1; row < request->nrows; row++) {
      if (request->values[row] < out->smallest) out->smallest = request->values[row];
      if (request->values[row] > out->largest) out->largest = request->values[row];
    }
  }
  return KDZK_DONE;
}

static void end(void* state, kdzk_verify_column* made) {
  (void)state;
  engine_column* const column = made->own;
  kdzk_host_memory_release(&memory, &column->copy);
  void* const parts[] = {column->data,        column->lengths,     column->symbols, column->offsets,
                         column->run_lengths, column->run_offsets, column->bits,    column};
  for (size_t i = 0; i < sizeof parts / sizeof *parts; i++) free(parts[i]);
}

/* ---- The record ---- */

const kdzk_verify_host* kdzk_verify_host_of(const kdzk_specialized_ctx* ctx) {
  static const kdzk_verify_host engine = {.name = "the sample engine",
                                          .env = &memory.env,
                                          .hash = hash,
                                          .make = make,
                                          .end = end,
                                          .in_use = in_use,
                                          .guard = guarded_call,
                                          .last_error = last_error};
  library = ctx;
  kdzk_host_memory_malloc(&memory, ctx);
  memory.word72 = 4711;
  return &engine;
}

/* SPDX-License-Identifier: Apache-2.0
 *
 * verify-host: a program that tells an engine whether its callbacks and records are what the library takes them for.
 * The program is the static library kdzk_verify_host, which has the `main`; the engine links it with one object of its
 * own that defines kdzk_verify_host_of, and with whatever of itself that needs. docs/verify-host.md tells how, lists
 * the rules and has a sample; examples/verify_host/engine.c is the one to copy.
 *
 * The program asks the engine for columns with given contents, which the engine makes in its own way, looks at every
 * field of them, and then has them go through each family of kernels, whose answers it knows from plain loops. */
#ifndef KDZK_HOST_VERIFY_H
#define KDZK_HOST_VERIFY_H

#include <kdzk/context.h>
#include <kdzk/host/dictionary.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- What the engine is asked to make. ---- */

#define KDZK_VERIFY_CODES 0u /* `values` as dictionary codes, packed at `width` bits: KDZK_PACKED_DICT */
#define KDZK_VERIFY_RUNS 1u  /* the same as runs: KDZK_PACKED_DICT and KDZK_RLE */
#define KDZK_VERIFY_FIXED 2u /* `values` in value_bytes big-endian bytes each: KDZK_NUMERIC */
#define KDZK_VERIFY_FIXED_TZ \
  3u                        /* the same, of width / 8 bytes, and a `lengths` stream: bytes without the zeros behind */
#define KDZK_VERIFY_DYNP 4u /* `values` of width / 8 bytes without the zero bytes behind, and a `lengths` stream */
#define KDZK_VERIFY_NUMBERS 5u /* `numbers` in sortable form, floats (width 32) or doubles (64), and float_kind */
#define KDZK_VERIFY_TEXTS 6u   /* `texts`, in one of the forms KDZK_LEN_ARRAY to KDZK_PAIR16 */
#define KDZK_VERIFY_PREFIX 7u  /* `values` of value_bytes big-endian bytes as a prefix record stream */
#define KDZK_VERIFY_BITS 8u    /* a bit vector, in the vector's `bitvec`: row r is set if values[r] is 1, not if 0 */
#define KDZK_VERIFY_FORMS 9u

typedef struct kdzk_verify_request {
  uint32_t form;    /* KDZK_VERIFY_CODES and so on */
  uint32_t width;   /* bits that name the kernels; PREFIX, BITS, TEXTS: 0 */
  uint32_t nrows;   /* at least 1 */
  uint32_t blocked; /* 1: `data` as a compressed block, for the engine's own decompressor; otherwise 0 */
  uint32_t value_bytes;
  uint32_t dict_size;            /* CODES, RUNS: all values are below */
  const uint64_t* values;        /* native, one per row */
  const double* numbers;         /* NUMBERS; floats if width is 32 */
  const kdzk_host_text* texts;   /* TEXTS, one per row */
  const kdzk_host_text* symbols; /* CODES, RUNS: dict_size of them; null: leave out base, offsets, value_len */
} kdzk_verify_request;

typedef struct kdzk_verify_column {
  kdzk_vec* vec;      /* Out: the vector, as the engine hands it to a kernel; the engine's own record. */
  uint32_t has_range; /* Out: 1 if the engine keeps the two numbers below, by which it skips segments. */
  uint64_t smallest;  /* Out: lowest of `values`. */
  uint64_t largest;   /* Out: highest. */
  void* own;          /* the engine's; not looked at */
} kdzk_verify_column;

/* ---- The engine. ---- */

typedef struct kdzk_verify_host {
  const char* name;    /* of the engine, printed */
  void* state;         /* handed to the functions below */
  const kdzk_env* env; /* as in kdzk_exec.env of the engine's calls */
  kdzk_hash_fn hash;   /* for the join services; null: the engine doesn't use them */

  /* Makes a column. The request and what it points to go when the call returns. Returns KDZK_DONE, or KDZK_UNSUPPORTED
   * if the engine has no such columns: then the rules about them are reported as not used. Several columns exist at a
   * time. */
  uint32_t (*make)(void* state, const kdzk_verify_request* request, kdzk_verify_column* column);
  /* Ends a column, and gives back its decompressed copy if there is one in its decomp_slot. */
  void (*end)(void* state, kdzk_verify_column* column);

  /* May be null: pieces of memory that env->alloc and env->tmp_alloc gave and that weren't given back. */
  uint64_t (*in_use)(void* state);
  /* May be null: runs call(argument) as the engine runs kernels, which is where its hostinternalerr gets to if it
   * doesn't return. Returns 0 if the call returned, 1 if an internal error ended it. */
  uint32_t (*guard)(void* state, void (*call)(void* argument), void* argument);
  /* May be null: the message that hostinternalerr got last, and its second argument. */
  const char* (*last_error)(void* state, uint64_t* word72);
} kdzk_verify_host;

/* Defined by the engine. Called once, with the record of the library that was loaded, which stays. Null: the engine
 * couldn't start; it has said why. */
const kdzk_verify_host* kdzk_verify_host_of(const kdzk_specialized_ctx* library);

#ifdef __cplusplus
}
#endif

#endif

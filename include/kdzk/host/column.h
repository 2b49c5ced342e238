/* SPDX-License-Identifier: Apache-2.0
 *
 * Columns: the values of up to 2^32 - 1 rows in a form that kernels read. A column is its bytes, which begin with what
 * the kernels read as `data`, and a record of a few words (kdzk_host_column) that describes them. Both may be stored as
 * they stand. Wherever the bytes are handed to a function here they begin at a multiple of 8 and are readable for
 * KDZK_PADDING bytes past their end. docs/columns.md tells it with an example.
 *
 * In the static library kdzk_host. Functions keep nothing between calls and may run on any number of threads. */
#ifndef KDZK_HOST_COLUMN_H
#define KDZK_HOST_COLUMN_H

#include <kdzk/host/dictionary.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Forms, a bit each, so that several may be asked for. ---- */

#define KDZK_HOST_PACKED 0x1u /* dictionary codes, packed */
#define KDZK_HOST_RUNS 0x2u   /* dictionary codes of runs, packed, and run lengths */
#define KDZK_HOST_FIXED 0x4u  /* the values themselves in 1 to 8 bytes, big-endian */
#define KDZK_HOST_DYNP 0x8u   /* the values themselves without their trailing zero bytes, and their lengths */
#define KDZK_HOST_PLAIN_FORMS 0xfu
#define KDZK_HOST_CODED_FORMS 0x33u                           /* those that need a dictionary, blocked or not */
#define KDZK_HOST_BLOCKED(form) ((form) << 4)                 /* the same with `data` as a compressed block */
#define KDZK_HOST_PLAIN(form) (((form)&0xfu) | ((form) >> 4)) /* of one form: the form without the block */
#define KDZK_HOST_EVERY_FORM 0xffu

/* What a column's bytes are. 80 bytes without padding, native byte order; there are no pointers in it. */
typedef struct kdzk_host_column {
  uint64_t checksum;   /* of the other fields and of the bytes */
  uint64_t size;       /* bytes of the column */
  uint64_t data_bytes; /* of these, `data`: what kernels read, or a block that decompresses to it */
  uint64_t data_size;  /* bytes that kernels read */
  uint64_t base;       /* FIXED, DYNP: the key of stored value 0, see docs/columns.md */
  uint64_t smallest;   /* lowest code or stored value of the rows that aren't NULL; above `largest` if all are */
  uint64_t largest;    /* highest one */
  uint32_t nrows;
  uint32_t nulls;      /* rows that are NULL */
  uint32_t elements;   /* RUNS: runs; otherwise nrows */
  uint32_t form;       /* one of the above */
  uint8_t type;        /* KDZK_HOST_INTEGER, _DOUBLE or _TEXT */
  uint8_t width;       /* bits that name the kernels: of a code, of a value (FIXED: 8, 16, 32, 64; DYNP: 16, 32, 64) */
  uint8_t value_bytes; /* FIXED, DYNP: bytes of a stored value, at most */
  uint8_t shift;       /* FIXED, DYNP: low bits of a key that aren't stored, a multiple of 8 */
  uint8_t length_bits; /* RUNS: of a run length, 8 or 16; DYNP: of a length code, 1, 2 or 4 */
  uint8_t first_code;  /* PACKED, RUNS: that of the dictionary: 1 if code 0 is NULL */
  uint8_t zero[2];
} kdzk_host_column;

KDZK_ASSERT_SIZE(kdzk_host_column, 80);

/* ---- Making columns. ---- */

/* Bytes that suffice for a column of any `nrows` values in any form. */
uint64_t kdzk_host_column_bound(uint32_t nrows);

/* Writes the rows in the smallest of `forms` that can hold them; between equals, the first in the list above.
 *
 * coder             of a dictionary that has all values, for PACKED and RUNS; null: these forms are not tried
 * dictionary_bytes  how many bytes of dictionary to count against PACKED and RUNS: 0 if there is one anyhow
 * bytes, room       where to, at a multiple of 8, and how many bytes are there; kdzk_host_column_bound suffices
 *
 * FIXED and DYNP hold integers and doubles, and texts of up to 8 bytes that don't end with a zero byte. In these two,
 * NULL rows are a bit vector behind the values. Blocks take long to make, some seconds per 100 MB, and need room from
 * malloc. Returns KDZK_HOST_DONE, _NO_ROOM, _NO_MEMORY, _NO_FORM, or _NO_CODE if no other form than one that lacks a
 * code is asked for. */
uint32_t kdzk_host_column_build(const kdzk_host_values* values, const kdzk_host_coder* coder, uint32_t forms,
                                uint64_t dictionary_bytes, void* bytes, uint64_t room, kdzk_host_column* column);

/* ---- Reading columns. ---- */

/* Tells whether `column` and the `size` bytes at `bytes`, which may both be from an untrusted place, are a column of
 * `nrows` rows that kernels and the functions here can read without harm, with the dictionary that it was made with
 * (null for FIXED and DYNP): record and checksum, then every stream, code, run, length and block, and `smallest`,
 * `largest` and `nulls`. Codes are checked by kernels of `library`; without one (null) by plain loops, and a blocked
 * column is refused. A column that passed gives right answers unless somebody forged it, and then still stays inside
 * its buffers.
 *
 * report->offset counts from the start of `bytes`, of a blocked column's codes from the start of the decompressed copy;
 * where it is the record that is wrong it is `size`. */
uint32_t kdzk_host_column_check(const kdzk_specialized_ctx* library, const kdzk_host_column* column, uint32_t nrows,
                                const void* bytes, uint64_t size, const kdzk_host_dictionary* dictionary,
                                kdzk_host_report* report);

/* The checksum that belongs into column->checksum, of column->size bytes. Any change of a single byte, of the bytes or
 * of the record, changes it; it is no protection against somebody who wants a wrong answer. */
uint64_t kdzk_host_column_checksum(const kdzk_host_column* column, const void* bytes);

/* A column that passed the check as kernels take it. Not to be moved, nor shared by threads: it points to itself. */
typedef struct kdzk_host_bound {
  kdzk_enc_ctx enc_ctx;    /* of `input`; the first field, so that the kit's result_cb finds the others */
  kdzk_vec input;          /* for any kernel of the column's kind; filter: the rows that aren't NULL, FIXED and DYNP */
  const uint64_t* present; /* the same bit vector; null if no row is NULL, or in the other forms */
  void* copy;              /* the decompressed copy, made by kdzk_env.alloc and the host's to release: decomp_slot */
  const kdzk_specialized_ctx* library;
  const kdzk_host_column* column;
} kdzk_host_bound;

/* Fills `bound`, from a column, its bytes, and its dictionary (null for FIXED and DYNP), all of which must stay. RUNS
 * needs run_bits: (column->elements + 63) / 64 words, for a bit per run; otherwise null. The host may then set
 * bound->input.alloc_tag. */
void kdzk_host_column_bind(const kdzk_specialized_ctx* library, const kdzk_host_column* column, const void* bytes,
                           const kdzk_host_dictionary* dictionary, uint64_t* run_bits, kdzk_host_bound* bound);

/* The values of a column that passed the check: column->nrows int64_t, double or kdzk_host_text, 0 or an empty text for
 * NULL, and their NULLs as whole words, (nrows + 63) / 64, which may be null. Texts point into the dictionary, or, in
 * FIXED and DYNP, to `text_room`, which has 8 bytes a row; otherwise it may be null. `library` is needed for blocked
 * columns. Returns KDZK_HOST_DONE or KDZK_HOST_NO_MEMORY. */
uint32_t kdzk_host_column_values(const kdzk_specialized_ctx* library, const kdzk_host_column* column, const void* bytes,
                                 const kdzk_host_dictionary* dictionary, void* values, uint64_t* nulls,
                                 void* text_room);

#ifdef __cplusplus
}
#endif

#endif

/* SPDX-License-Identifier: Apache-2.0
 *
 * Values, and dictionaries that number them in their order, so that kernels can compare codes in place of values.
 *
 * Values are 64-bit integers, doubles, or texts (any bytes, ordered as memcmp orders them, shorter ones first). Of
 * doubles, -0 is taken for 0 and NaN for NULL. Between types integers and doubles compare exactly, by value, and every
 * number is below every text.
 *
 * A dictionary is one stretch of bytes, which a host may store as it stands (docs/columns.md has the layout) and which
 * kdzk_host_dictionary_open gives back, after a check. Its symbols are what the decoding kernels take for `base` and
 * `offsets`: a text is its bytes; an integer or double is 8 bytes that sort as the values do, an integer with its sign
 * bit inverted, a double in sortable form, both big-endian; NULL has no bytes.
 *
 * In the static library kdzk_host. Records may be read by any number of threads; a coder only while nobody adds. */
#ifndef KDZK_HOST_DICTIONARY_H
#define KDZK_HOST_DICTIONARY_H

#include <kdzk/host/check.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Further returns of the functions here and in column.h, beside those of sqzb.h. ---- */

#define KDZK_HOST_NO_FORM 5u  /* None of the asked forms holds these values. */
#define KDZK_HOST_NO_CODE 6u  /* A value, or NULL, has no code in the dictionary. */
#define KDZK_HOST_TOO_MANY 7u /* More values, or more bytes of them, than a dictionary can have: 2^32 - 2, 4 GiB. */

/* ---- Values. ---- */

#define KDZK_HOST_NULL 0u
#define KDZK_HOST_INTEGER 1u
#define KDZK_HOST_DOUBLE 2u
#define KDZK_HOST_TEXT 3u

typedef struct kdzk_host_text {
  const void* bytes; /* any bytes, no terminator; null if size is 0 */
  uint64_t size;
} kdzk_host_text;

/* One value, such as the constant of a comparison. */
typedef struct kdzk_host_value {
  uint32_t type; /* KDZK_HOST_NULL and so on; says which member holds */
  union {
    int64_t integer;
    double number;
    kdzk_host_text text;
  };
} kdzk_host_value;

/* The values of some rows. */
typedef struct kdzk_host_values {
  uint32_t type;         /* KDZK_HOST_INTEGER, _DOUBLE or _TEXT */
  uint32_t nrows;        /* 0 is allowed */
  const void* values;    /* an array of int64_t, double or kdzk_host_text; that of a NULL row isn't looked at */
  const uint64_t* nulls; /* bit vector of the NULL rows, row r at bit r % 64 of word r / 64; null: none is */
} kdzk_host_values;

/* ---- Dictionaries. ---- */

/* A view of a dictionary: to be copied freely, valid as long as its bytes are. Codes run from 0 to size - 1. Code
 * `first_code` is the lowest value, the next one the next, without duplicates. */
typedef struct kdzk_host_dictionary {
  const uint8_t* bytes;   /* the whole dictionary, for storing */
  uint64_t bytes_size;    /* of it */
  const uint8_t* offsets; /* inside it, for kdzk_enc_ctx.offsets, with dict_mode 1 */
  const uint8_t* symbols; /* inside it, for kdzk_enc_ctx.base */
  uint32_t type;          /* KDZK_HOST_INTEGER, _DOUBLE or _TEXT */
  uint32_t size;          /* codes, that of NULL included */
  uint32_t first_code;    /* 1: NULL has code 0, as the `_null` kernels have it; 0: there is no NULL */
  uint32_t width;         /* bits of a code: the fewest that have kernels, 1 to 20, 24 or 32 */
} kdzk_host_dictionary;

/* Reads the dictionary that the `size` bytes at `bytes` are, from an untrusted place: a checksum, symbols in ascending
 * order, all inside. Fills `dictionary` and returns KDZK_HOST_DONE, or returns KDZK_HOST_MALFORMED, with a report that
 * may be null. No alignment is needed. Kernels that copy symbols (KDZK_EX_COPY_VALUES) want KDZK_PADDING bytes behind.
 */
uint32_t kdzk_host_dictionary_open(const void* bytes, uint64_t size, kdzk_host_dictionary* dictionary,
                                   kdzk_host_report* report);

/* The value of a code below dictionary->size. A text points into the dictionary. */
void kdzk_host_dictionary_value(const kdzk_host_dictionary* dictionary, uint32_t code, kdzk_host_value* value);

/* The code of a value, by binary search: 1 and `*code`, or 0 if the dictionary doesn't have it. A value of another type
 * has a code if it equals one: 2.0 and 2 are the same. */
uint32_t kdzk_host_dictionary_code(const kdzk_host_dictionary* dictionary, const kdzk_host_value* value,
                                   uint32_t* code);

/* ---- Making dictionaries, and codes of rows. ---- */

/* Collects the values of any number of rows, then numbers them, then tells the codes of rows by a hash table. */
typedef struct kdzk_host_coder kdzk_host_coder;

#define KDZK_HOST_NULL_IF_SEEN 0u /* NULL gets a code if a row was NULL. */
#define KDZK_HOST_NULL_ALWAYS 1u  /* NULL gets a code: rows to come may be NULL. */

/* An empty coder for values of this type; null if there is no memory. */
kdzk_host_coder* kdzk_host_coder_new(uint32_t type);

/* A finished coder for rows with the values of a dictionary, whose bytes must stay; null if there is no memory. */
kdzk_host_coder* kdzk_host_coder_of(const kdzk_host_dictionary* dictionary);

void kdzk_host_coder_free(kdzk_host_coder* coder); /* null is allowed */

/* Takes in rows of the coder's type; copies what it keeps of texts. Returns KDZK_HOST_DONE, _NO_MEMORY or _TOO_MANY;
 * after those the coder is only good for being freed. */
uint32_t kdzk_host_coder_add(kdzk_host_coder* coder, const kdzk_host_values* values);

/* Numbers the values. To be called once, behind the last kdzk_host_coder_add; returns the same. */
uint32_t kdzk_host_coder_finish(kdzk_host_coder* coder, uint32_t null_code);

/* The dictionary of a finished coder, whose bytes are the coder's, with KDZK_PADDING readable bytes behind them, or the
 * host's (kdzk_host_coder_of). */
const kdzk_host_dictionary* kdzk_host_coder_dictionary(const kdzk_host_coder* coder);

/* A code per row, native. Returns KDZK_HOST_DONE, or KDZK_HOST_NO_CODE if a row has none: then `*row` is the first such
 * row, and `codes` has no meaning from there on. `row` may be null. */
uint32_t kdzk_host_coder_codes(const kdzk_host_coder* coder, const kdzk_host_values* values, uint32_t* codes,
                               uint32_t* row);

#ifdef __cplusplus
}
#endif

#endif

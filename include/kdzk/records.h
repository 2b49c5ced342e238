/* SPDX-License-Identifier: Apache-2.0
 *
 * The records that a host and the kernels share: one vector of rows (kdzk_vec), what a column is (kdzk_enc_ctx), one
 * call's state (kdzk_exec), the host's callbacks (kdzk_env), and the smaller records of the services. C11 and C++20.
 *
 * Ownership. Every record and every buffer belongs to the host. The library keeps no pointer after a call returns and
 * frees nothing. The one thing that outlives a call is a vector's decompressed copy (kdzk_vec.decomp_slot).
 *
 * Padding. Columns and `lengths` streams must be readable for KDZK_PADDING bytes past their last row: vector loads read
 * there, and what they find has no influence on any result. Bit vectors and outputs need no padding.
 *
 * Byte order. Stored codes and values are big-endian, and packed codes count bits from the top of each byte. Records,
 * bit vectors, row numbers and the constants of `dict` kernels are native. All codes and values compare as unsigned
 * numbers.
 *
 * Fields are marked In (the host writes, the library reads), Out (the library writes) or In/out. A field that a
 * function's description doesn't name is neither read nor written by it. */
#ifndef KDZK_RECORDS_H
#define KDZK_RECORDS_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Bytes that must be readable behind the last row of a column or `lengths` stream. */
#define KDZK_PADDING 16u
/* So many of them are all that the `set` kernels read. */
#define KDZK_SET_PADDING 8u

/* ---- Return codes: the low 32 bits of what a kernel or service returns; the upper 32 are zero. ---- */

#define KDZK_DONE 0u           /* Done. For a predicate: at least one row qualifies. */
#define KDZK_NO_ROW 1u         /* Done, and no row qualifies. */
#define KDZK_UNSUPPORTED 2u    /* Form, width or constant not supported; nothing was written. */
#define KDZK_KEYS_TOO_MANY 3u  /* The dense key space doesn't fit in 32 bits. */
#define KDZK_PARTITION_FULL 5u /* An output buffer of the partitioning is full; call again to go on. */
#define KDZK_OVERFLOW_FULL 6u  /* The overflow room of a hash table is used up; call again to go on. */
#define KDZK_PAIRS_FULL 7u     /* The output array of the probe is full; call again to go on. */
#define KDZK_PAGE_FULL 8u      /* The target page of row packing is full; call again to go on. */
#define KDZK_OUTPUT_FULL 9u    /* The output of gather or group key composition is full; call again to go on. */
#define KDZK_MALFORMED 10u     /* The input contradicts itself: bad block header, unknown dict_mode, ... */

/* ---- kdzk_enc_ctx.flags: the storage form of a column. ---- */

#define KDZK_SUM_ONLY 0x1u         /* Numeric column that is only summed, or whose rows are native. */
#define KDZK_CONST 0x4u            /* Arithmetic operand: the first value at `data` stands for every row. */
#define KDZK_NUMERIC 0x80u         /* Plain values of `width` bits each, contiguous at `data`. */
#define KDZK_PACKED_DICT 0x100u    /* Dictionary codes packed at `width` bits; `base` and `offsets` give the symbols. */
#define KDZK_RLE 0x200u            /* `data` holds one value per run; see own_nrows, own_bitvec, result_cb. */
#define KDZK_FIXED_BYTES 0x800u    /* Byte strings of width / 8 bytes per row, contiguous at `data`. */
#define KDZK_LEN_ARRAY 0x1000u     /* Values concatenated at `data`; `lengths` has a uint16_t per row. */
#define KDZK_LEN_PREFIXED 0x2000u  /* Each value at `data` stands behind its uint16_t length. */
#define KDZK_PTR_LEN 0x4000u       /* `data` is an array of pointers to values; `lengths` has a uint16_t per row. */
#define KDZK_PAIR16 0x8000u        /* `data` is an array of 16-byte entries: uint16_t length, pointer at byte 8. */
#define KDZK_BLOCKED 0x10000u      /* `data` is a compressed block; kernels work on the decompressed copy. */
#define KDZK_KEYED16 0x20000u      /* `data` is an array of 16-byte records whose second word is the row's hash. */
#define KDZK_PROBE_PAIRS 0x40000u  /* `data` is an array of the 16-byte pairs of the probe. */
#define KDZK_IMPLICIT_IDS 0x80000u /* Row ids are `rowbase` plus the row number and not stored. */
#define KDZK_REF_WORDS 0x100000u   /* `data` is an array of compact 8-byte reference words. */
#define KDZK_HASH_U32 0x400000u    /* `data` is an array of native uint32_t keys. */
#define KDZK_KEYED24 0x800000u     /* `data` is an array of 24-byte records of the partitioning. */

/* ---- kdzk_exec.flags and flags2: what the host asks for. ---- */

#define KDZK_EX_SELECTIVE 0x02u   /* With a selection: visit only its rows, one by one. */
#define KDZK_EX_UNPACK_WIDE 0x04u /* Decode-unpack and symbol decode use 4-byte elements at all widths. */
#define KDZK_EX_GROUP_MUL 0x10u   /* Compose group keys by multiplication, not by shifting. */
#define KDZK_EX_PAIR_WORD0 0x20u  /* Gather takes the first word of a pair as the locator, not the second. */
#define KDZK_EX_SUM 0x80u         /* Sortable numeric kernels: sum, don't decode. */
#define KDZK_EX_COPY_VALUES 0x01u /* In flags2: symbol decode copies the values. */

/* ---- kdzk_exec.out_flags: what the library reports. Bits are only ever set, never cleared. ---- */

#define KDZK_OUT_SELECTION 0x02u        /* Predicates: the selection is applied; the host need not AND it in again. */
#define KDZK_OUT_DECODE_ROW 0x04u       /* Dictionary decode: `row` was written. */
#define KDZK_OUT_SET_SELECTION 0x10u    /* Set kernels: the selection is applied. */
#define KDZK_OUT_BLOOM_SELECTIVE 0x20u  /* Bloom test: the selective path ran. */
#define KDZK_OUT_UNPACK_ROW 0x40u       /* Decode-unpack: `row` was written. */
#define KDZK_OUT2_XLATE_SELECTIVE 0x01u /* In out_flags2. Translate: the selective path ran. */

/* ---- kdzk_rowstore.flags: what a page's entries are. Gather asks for them from the last to the first, row packing
 * takes KDZK_STORE_OFFSETS before KDZK_STORE_PAIRS. ---- */

#define KDZK_STORE_ROWS 0x02u    /* Row packing: in the target, whole rows are packed, unless the source has it too. */
#define KDZK_STORE_OFFSETS 0x08u /* Pages of uint32_t offsets of value bytes. */
#define KDZK_STORE_REFS 0x10u    /* Pages of 8-byte compact words. */
#define KDZK_STORE_PAIRS 0x20u   /* Pages of 16-byte (length, address) pairs. */

typedef struct kdzk_vec kdzk_vec;
typedef struct kdzk_enc_ctx kdzk_enc_ctx;
typedef struct kdzk_run_position kdzk_run_position;
typedef struct kdzk_exec kdzk_exec;
typedef struct kdzk_env kdzk_env;
typedef struct kdzk_sqzb_ctx kdzk_sqzb_ctx;
typedef struct kdzk_result_report kdzk_result_report;
typedef struct kdzk_bv_iter kdzk_bv_iter;
typedef struct kdzk_hit_range kdzk_hit_range;
typedef struct kdzk_partdesc kdzk_partdesc;
typedef struct kdzk_htdesc kdzk_htdesc;
typedef struct kdzk_rowstore kdzk_rowstore;

/* ---- Callbacks, all provided by the host. Any of them may leave by longjmp: the library holds nothing to undo. The
 * slot of a vector that was being decompressed then holds a copy that isn't finished, and is the host's to empty. ----
 */

/* Allocates the decompressed copy of a vector. `size` in bytes (kdzk_vec.decomp_size); the result must be aligned to 16
 * bytes, and readable for KDZK_PADDING bytes past `size`. `comment` is a constant text that names the kernel, such as
 * "kdzk_eq_dict_2bit: vec1_decomp". `unit` is 8 and `alignment` 16 at every call. `tag` is kdzk_vec.alloc_tag. The
 * library doesn't test the result: a host that can't allocate must not return. */
typedef void* (*kdzk_alloc_fn)(void* hctx, void* heap, uint32_t size, const char* comment, uint32_t unit,
                               uint32_t alignment, uint64_t tag);

/* Allocates scratch of `size` bytes for the duration of one call, aligned to `unit` bytes (4 or 8). `zero` is 0. `out`
 * is the address of a word of the caller's, which holds its own address when tmp_alloc is called; the host may leave a
 * handle in it. Same rule as above for failure. */
typedef void* (*kdzk_tmp_alloc_fn)(void* hctx, uint64_t size, const char* comment, uint32_t unit, uint32_t zero,
                                   void** out);

/* Gives scratch back. `out` is the value of the word above as tmp_alloc left it: the handle, or the word's address if
 * the host didn't write it. */
typedef void (*kdzk_tmp_free_fn)(void* hctx, void* scratch, void* out);

/* Decompresses `src` to `dst`, which has room for `capacity` bytes, and stores the number of bytes written in
 * `*written` (0 before the call). Returns 0 on success; anything else makes the kernel call hostinternalerr. The
 * library's own decompressor has this shape and is what a host usually stores here. */
typedef uint32_t (*kdzk_decompress_fn)(const kdzk_sqzb_ctx* ctx, const void* src, void* dst, uint32_t* written,
                                       uint32_t capacity);

/* Runs at the end of a predicate on a run-length column and turns the bits per run (`report`) into bits per row of
 * `result`. `result->hits` holds the count of runs on entry. What it returns is what the kernel returns. */
typedef uint32_t (*kdzk_result_cb)(const kdzk_env* env, kdzk_vec* result, const kdzk_vec* input,
                                   const kdzk_result_report* report);

/* Hashes `length` bytes at `key`, always below 65536; equal keys and seeds give equal hashes. The library stores what
 * it returns unchanged and cuts bit fields out of all of it, so that all bits should be well mixed. */
typedef uint64_t (*kdzk_hash_fn)(const void* key, uint32_t length, uint64_t seed);

/* The host's internal error function. The library imports it by this name: a program that loads the library must export
 * it. Called with a constant message such as "kdzk_eq_dict_2bit: kdzk_sqzb_decode failed" when a decompression fails.
 * `word72` is the 72nd 64-bit word at `hctx` (byte offset 568). Normally doesn't return; if it does, the kernel goes on
 * with the copy as it is. */
void hostinternalerr(void* hctx, uint64_t word72, const char* message, uint64_t zero);

/* ---- Records. Natural C alignment; the assertions at the end of this header give every offset. ---- */

/* One vector of rows of one column, or an output. `result` and `input` of one call may be the same record. */
struct kdzk_vec {
  void* data;    /* In: the column's bytes, in the form that enc_ctx->flags tells, at any alignment unless a form says
                    otherwise, readable for KDZK_PADDING bytes past the last row. Packed codes: row r is the `width`
                    bits from bit r * width, bit 0 being the top bit of byte 0. Under KDZK_BLOCKED: the compressed
                    block. Of a decoding kernel's result: the output buffer. */
  void* lengths; /* In: second stream per row. KDZK_LEN_ARRAY, KDZK_PTR_LEN: uint16_t lengths in bytes. `dynp` and
                    `_tz` kernels: packed length codes, first row at the top of byte 0, readable for KDZK_PADDING
                    bytes past the last. Of a decoding kernel's result: second output array. */
  void* indicators;            /* Out, decoding kernels: a uint16_t per row. */
  const kdzk_enc_ctx* enc_ctx; /* In: the column's encoding. Never null for an input vector. */
  const uint64_t* filter;      /* In, may be null: bit vector that is ANDed into the result, in whole words. */
  uint64_t* bitvec;     /* Out, on the result: (nrows + 63) / 64 native words at any alignment, row r at bit r % 64 of
                           word r / 64. Need not be cleared; bits past the last row have no meaning. */
  uint32_t hits;        /* Out, on the result: rows set in `bitvec`. */
  uint32_t nrows;       /* In: rows; 0 is allowed. Predicates take the result's, their selective path the input's. */
  uint32_t decomp_size; /* In, KDZK_BLOCKED: bytes of the decompressed form of `data`. */
  void** decomp_slot;   /* In/out, KDZK_BLOCKED: the word that caches this vector's decompressed copy. The host zeroes
                           it when it makes the vector; the first kernel fills it from kdzk_env.alloc, later ones use
                           it, and the host releases the copy. */
  uint64_t alloc_tag;   /* In: handed to kdzk_env.alloc, opaque to the library. */
  uint64_t rowbase;     /* In, KDZK_IMPLICIT_IDS: row id of row 0. */
  uint64_t out_size;    /* In: bytes available at `data` of an output. */
};

/* The constant operand of a predicate. `data`: for `dict` kernels up to 32 bits a native uint32_t, for 64 bits a native
 * uint64_t; for `fixed` and `dynp` kernels the value in its stored big-endian form. Exactly 4 (8 bits: 1, 16 bits: 2,
 * 64 bits: 8) bytes are read, at any alignment. `lengths`: a byte, the constant's length code (`_tz` kernels).
 * `enc_ctx`: read for `width` by the 32-bit and 64-bit `fixed` kernels. */
typedef kdzk_vec kdzk_kargs;

/* How a column is encoded. A column fills in the fields of its form; the others are not looked at. */
struct kdzk_enc_ctx {
  uint8_t kind;             /* In: kernel kind, row * 4 + family; see kdzk_kind_of. */
  const uint8_t* base;      /* In: symbol bytes of the dictionary. */
  const uint8_t* value_len; /* In: a big-endian uint16_t, the length in bytes of every symbol of a fixed dictionary. */
  const uint8_t* offsets;   /* In: dict_size + 1 big-endian uint32_t: symbol c has the bytes [offsets[c],
                               offsets[c + 1]) from `base`, its length cut to 16 bits. */
  uint32_t dict_size;       /* In: entries of the dictionary. */
  uint32_t dict_mode;       /* In: 0 or 1, chooses the form of dictionary decode; any other value returns 10. */
  uint64_t unpack_base;     /* In: address of the run lengths of a run-length column. */
  uint8_t unpack_width;     /* In: bits of one run length, 8 or 16. */
  uint32_t own_nrows;       /* In, KDZK_RLE: number of runs; takes the place of the result's nrows. */
  const uint8_t* run_offsets; /* In, KDZK_RLE: own_nrows + 1 big-endian uint32_t, the first row of each run. */
  kdzk_result_cb result_cb;   /* In, KDZK_RLE: called at the end of a predicate; see there. */
  uint64_t* own_bitvec;      /* Out, KDZK_RLE: bit vector of one bit per run; takes the place of the result's bitvec. */
  uint8_t prefix_group;      /* In: records per group of a prefix record stream. */
  int16_t prefix_width;      /* In: bytes of a record of that stream. */
  uint32_t prefix_count;     /* In: records of that stream. */
  uint8_t bloom_paged;       /* In: bloom filter held flat (0) or in pages. */
  uint32_t bloom_mask;       /* In: ANDed to a hash before the bloom look-up. */
  uint32_t page_shift;       /* In: page number in a paged table: a value shifted right by this. */
  uint32_t page_mask;        /* In: index within the page: a value ANDed with this. */
  uint8_t ref_bits;          /* In: low bits of a compact reference that address inside a page. */
  const uint64_t* ref_pages; /* In: 64-bit addresses of the pages of compact references. */
  uint32_t xlate_base;       /* In: subtracted from a code before the look-up of offset translation. */
  uint32_t flags;            /* In: the form of the column, KDZK_RLE and so on. */
  uint8_t width;             /* In: bits of one code or value. */
  uint8_t width_zero[3];     /* In: must be zero, so that `width` can be read as 16 or 32 bits. */
  uint8_t float_kind;        /* In: 1 float, 2 double, 8 big-endian signed integer; any other value returns 10. */
};

/* Position in a run-length column, kept by the decode-unpack kernels. */
struct kdzk_run_position {
  uint32_t run_index; /* the current run */
  uint32_t run_end;   /* first row behind that run */
};

/* One call's state. Not to be shared between threads. */
struct kdzk_exec {
  const kdzk_env* env;       /* In: needed by every call that allocates, decompresses or runs result_cb. */
  const uint64_t* selection; /* In, may be null: the rows that this call is about, one bit each. */
  uint8_t flags;             /* In: KDZK_EX_SELECTIVE and so on. */
  uint8_t flags2;            /* In: KDZK_EX_COPY_VALUES. */
  uint32_t part;             /* In/out: partition or bucket at which a resumable function stopped. */
  uint32_t row;              /* In/out: row at which a resumable function goes on; 0 in a first call. */
  union {
    uint64_t key_off;      /* In/out, partitioning: byte position in the key column. */
    kdzk_run_position run; /* In/out, decode-unpack of a run-length column. */
  };
  uint64_t payload_off;   /* In/out, partitioning: byte position in the payload column. */
  uint32_t* ones_vec;     /* In: row numbers for decoding kernels. */
  uint32_t ones_vec_size; /* In: entries of ones_vec. */
  uint32_t start_row;     /* In: first row of a translate or bloom kernel. */
  uint8_t out_flags;      /* In/out: KDZK_OUT_SELECTION and so on; bits are only set. */
  uint8_t out_flags2;     /* In/out: KDZK_OUT2_XLATE_SELECTIVE. */
  const void* xlate_info; /* In: a kdzk_enc_ctx with xlate_base (offset translation), or the record table's address
                             (prefix record decoder). */
  void* xlate_map;        /* Out of `_c2d` translation, In of the group key kernels: the array of elements. */
  uint32_t group_stride;  /* In: multiplier of the group key kernels. */
};

/* The host's callbacks and handles. The library only reads it. */
struct kdzk_env {
  void* hctx;                    /* In: host context, opaque but for its 72nd 64-bit word (see hostinternalerr). */
  void* heap;                    /* In: second handle, handed to `alloc`. */
  kdzk_alloc_fn alloc;           /* In: allocates decompressed copies. */
  kdzk_tmp_alloc_fn tmp_alloc;   /* In: allocates scratch within a call. */
  kdzk_tmp_free_fn tmp_free;     /* In: gives scratch back. */
  kdzk_decompress_fn decompress; /* In: decompresses a block. */
};

/* What a decompressor gets: made by the library on its stack, valid during the call. */
struct kdzk_sqzb_ctx {
  void* hctx;                  /* kdzk_env.hctx */
  void* heap;                  /* kdzk_env.heap */
  kdzk_tmp_alloc_fn tmp_alloc; /* kdzk_env.tmp_alloc */
  kdzk_tmp_free_fn tmp_free;   /* kdzk_env.tmp_free */
  void* dest;                  /* the destination, as in `dst` */
};

/* What result_cb gets: made by the library on its stack, valid during the call, zero but for the two named words. */
struct kdzk_result_report {
  uint64_t word0;
  uint64_t* bitvec; /* one bit per run, filter and selection applied */
  uint64_t word2;
  uint64_t hits; /* bits set among the runs */
  uint64_t words4_to_15[12];
};

/* Walk over the set or clear rows of a bit vector, for one walk by one caller. Filled by kdzk_bv_iter_init. */
struct kdzk_bv_iter {
  const uint64_t* next; /* the next word of the vector to be read */
  int32_t nrows;        /* rows of the vector; none at or beyond this number is yielded */
  int32_t base;         /* row of bit 0 of the current word, a multiple of 64 */
  uint64_t pos;         /* bit of the current word at which the search goes on */
  uint64_t bits;        /* bits of the current word still to be visited */
};

/* Lowest and highest row that hit, both 4294967295 if none did. */
struct kdzk_hit_range {
  uint32_t first;
  uint32_t last;
};

/* kdzk_partdesc.flags: the layout of the records, see kdzk_partition_fn. */
#define KDZK_PART_A 0x09u          /* row id and hash */
#define KDZK_PART_B 0x29u          /* hash, native 32-bit key and row id */
#define KDZK_PART_C 0x0au          /* length, hash and payload */
#define KDZK_PART_D 0x0cu          /* hash and payload of a fixed size */
#define KDZK_PART_NO_PAYLOAD 0x10u /* forbids C and D */

/* Output of the hash partitioning, one buffer per partition: partition = hash bits part_lo to part_hi. Not to be shared
 * between threads. */
struct kdzk_partdesc {
  uint32_t leading;       /* the host's; not read */
  uint8_t flags;          /* In: KDZK_PART_A and so on */
  uint8_t part_hi;        /* In: highest hash bit of the partition number, 0 to 63 */
  uint8_t part_lo;        /* In: lowest hash bit of it */
  uint16_t payload_size;  /* In: bytes of a payload in layout D */
  uint8_t** cursors;      /* In/out: where the next record goes, one pointer per partition */
  uint8_t* const* limits; /* In: first byte behind the buffer, one pointer per partition; null entry: no limit */
};

/* A hash table of 64-byte buckets, split by a directory. During a build each directory entry belongs to one thread; a
 * probe only reads. */
struct kdzk_htdesc {
  uint32_t leading;       /* the host's; not read */
  uint32_t flags;         /* In: bucket form and key mode */
  uint8_t bucket_hi;      /* In: highest hash bit of the bucket number */
  uint8_t dir_hi;         /* In: highest hash bit of the directory index */
  uint8_t dir_lo;         /* In: lowest hash bit of it */
  uint8_t* const* tables; /* In: one bucket array per directory entry */
  uint8_t** cursors;      /* In/out: next free overflow bucket, one pointer per directory entry */
  uint8_t* const* limits; /* In: end of the overflow room, one pointer per directory entry */
  uint8_t low_bits;       /* In: number of low hash bits that join the directory index */
};

/* Rows of a join's build side, in pages. Of the arrays, each has one entry per page, and a page form uses only its own.
 *
 * A locator is a 64-bit number for an entry of a page. With page_lo 64 it is the entry's number, of page 0. Otherwise
 * the page is its bits page_lo to page_hi, and the entry its bits below page_lo; bits above page_hi have no meaning.
 *
 * An entry stands for a value by, in native numbers,
 *   KDZK_STORE_PAIRS    16 bytes at pairs[page] + 16 * entry: uint16_t length, 6 bytes of no meaning, address
 *   KDZK_STORE_REFS     8 bytes at refs[page] + 8 * entry, a compact word: length in the low 16 bits, and above it a
 *                       reference r. The value is at ref_pages[0] + the low ref_bits bits of r; both fields are those
 * of the kdzk_enc_ctx of gather's output. Page 0 alone is used: this differs from how a column of KDZK_REF_WORDS is
 * read. KDZK_STORE_OFFSETS  two uint32_t at offsets[page] + 4 * entry: the value begins at bases[page] + the first, and
 * ends before bases[page] + the second, so that n entries are n + 1 numbers. */
struct kdzk_rowstore {
  uint32_t leading;            /* the host's; not read */
  uint32_t flags;              /* In: KDZK_STORE_PAIRS and so on: page form, layout of packed rows */
  uint16_t ncols;              /* In: columns per row of a pair matrix */
  uint16_t width;              /* In: bits of a value, for fixed-width output */
  uint8_t page_hi;             /* In: highest bit of the page number in a locator, up to 63 */
  uint8_t page_lo;             /* In: lowest bit of it, up to page_hi, the bits below being the entry; or 64 */
  uint8_t* const* pairs;       /* In: pages of pairs, or pair matrices */
  uint8_t** pair_cursors;      /* In/out: next free pair; of a matrix to be filled, its first pair */
  uint8_t* const* refs;        /* In: pages of compact words */
  uint8_t* const* offsets;     /* In: pages of offsets */
  uint8_t** offset_cursors;    /* In/out: next free offset */
  const uint64_t* bases;       /* In: address of each page's value bytes */
  uint8_t** data_cursors;      /* In/out: next free byte of value data */
  uint8_t* const* data_limits; /* In: first byte behind the room for value data */
};

/* ---- The layout is a contract with hosts in any language. ---- */

#ifdef __cplusplus
#define KDZK_ASSERT_OFFSET(record, field, offset) \
  static_assert(offsetof(record, field) == (offset), #record "." #field " is not at byte " #offset)
#define KDZK_ASSERT_SIZE(record, size) static_assert(sizeof(record) == (size), #record " is not " #size " bytes")
#else
#define KDZK_ASSERT_OFFSET(record, field, offset) \
  _Static_assert(offsetof(record, field) == (offset), #record "." #field " is not at byte " #offset)
#define KDZK_ASSERT_SIZE(record, size) _Static_assert(sizeof(record) == (size), #record " is not " #size " bytes")
#endif

KDZK_ASSERT_OFFSET(kdzk_vec, data, 0);
KDZK_ASSERT_OFFSET(kdzk_vec, lengths, 8);
KDZK_ASSERT_OFFSET(kdzk_vec, indicators, 16);
KDZK_ASSERT_OFFSET(kdzk_vec, enc_ctx, 24);
KDZK_ASSERT_OFFSET(kdzk_vec, filter, 32);
KDZK_ASSERT_OFFSET(kdzk_vec, bitvec, 40);
KDZK_ASSERT_OFFSET(kdzk_vec, hits, 48);
KDZK_ASSERT_OFFSET(kdzk_vec, nrows, 52);
KDZK_ASSERT_OFFSET(kdzk_vec, decomp_size, 56);
KDZK_ASSERT_OFFSET(kdzk_vec, decomp_slot, 64);
KDZK_ASSERT_OFFSET(kdzk_vec, alloc_tag, 72);
KDZK_ASSERT_OFFSET(kdzk_vec, rowbase, 80);
KDZK_ASSERT_OFFSET(kdzk_vec, out_size, 88);
KDZK_ASSERT_SIZE(kdzk_vec, 96);

KDZK_ASSERT_OFFSET(kdzk_enc_ctx, kind, 0);
KDZK_ASSERT_OFFSET(kdzk_enc_ctx, base, 8);
KDZK_ASSERT_OFFSET(kdzk_enc_ctx, value_len, 16);
KDZK_ASSERT_OFFSET(kdzk_enc_ctx, offsets, 24);
KDZK_ASSERT_OFFSET(kdzk_enc_ctx, dict_size, 32);
KDZK_ASSERT_OFFSET(kdzk_enc_ctx, dict_mode, 36);
KDZK_ASSERT_OFFSET(kdzk_enc_ctx, unpack_base, 40);
KDZK_ASSERT_OFFSET(kdzk_enc_ctx, unpack_width, 48);
KDZK_ASSERT_OFFSET(kdzk_enc_ctx, own_nrows, 52);
KDZK_ASSERT_OFFSET(kdzk_enc_ctx, run_offsets, 56);
KDZK_ASSERT_OFFSET(kdzk_enc_ctx, result_cb, 64);
KDZK_ASSERT_OFFSET(kdzk_enc_ctx, own_bitvec, 72);
KDZK_ASSERT_OFFSET(kdzk_enc_ctx, prefix_group, 80);
KDZK_ASSERT_OFFSET(kdzk_enc_ctx, prefix_width, 82);
KDZK_ASSERT_OFFSET(kdzk_enc_ctx, prefix_count, 84);
KDZK_ASSERT_OFFSET(kdzk_enc_ctx, bloom_paged, 88);
KDZK_ASSERT_OFFSET(kdzk_enc_ctx, bloom_mask, 92);
KDZK_ASSERT_OFFSET(kdzk_enc_ctx, page_shift, 96);
KDZK_ASSERT_OFFSET(kdzk_enc_ctx, page_mask, 100);
KDZK_ASSERT_OFFSET(kdzk_enc_ctx, ref_bits, 104);
KDZK_ASSERT_OFFSET(kdzk_enc_ctx, ref_pages, 112);
KDZK_ASSERT_OFFSET(kdzk_enc_ctx, xlate_base, 120);
KDZK_ASSERT_OFFSET(kdzk_enc_ctx, flags, 124);
KDZK_ASSERT_OFFSET(kdzk_enc_ctx, width, 128);
KDZK_ASSERT_OFFSET(kdzk_enc_ctx, float_kind, 132);
KDZK_ASSERT_SIZE(kdzk_enc_ctx, 136);

KDZK_ASSERT_OFFSET(kdzk_exec, env, 0);
KDZK_ASSERT_OFFSET(kdzk_exec, selection, 8);
KDZK_ASSERT_OFFSET(kdzk_exec, flags, 16);
KDZK_ASSERT_OFFSET(kdzk_exec, flags2, 17);
KDZK_ASSERT_OFFSET(kdzk_exec, part, 20);
KDZK_ASSERT_OFFSET(kdzk_exec, row, 24);
KDZK_ASSERT_OFFSET(kdzk_exec, key_off, 32);
KDZK_ASSERT_OFFSET(kdzk_exec, run.run_end, 36);
KDZK_ASSERT_OFFSET(kdzk_exec, payload_off, 40);
KDZK_ASSERT_OFFSET(kdzk_exec, ones_vec, 48);
KDZK_ASSERT_OFFSET(kdzk_exec, ones_vec_size, 56);
KDZK_ASSERT_OFFSET(kdzk_exec, start_row, 60);
KDZK_ASSERT_OFFSET(kdzk_exec, out_flags, 64);
KDZK_ASSERT_OFFSET(kdzk_exec, out_flags2, 65);
KDZK_ASSERT_OFFSET(kdzk_exec, xlate_info, 72);
KDZK_ASSERT_OFFSET(kdzk_exec, xlate_map, 80);
KDZK_ASSERT_OFFSET(kdzk_exec, group_stride, 88);
KDZK_ASSERT_SIZE(kdzk_exec, 96);

KDZK_ASSERT_OFFSET(kdzk_env, hctx, 0);
KDZK_ASSERT_OFFSET(kdzk_env, heap, 8);
KDZK_ASSERT_OFFSET(kdzk_env, alloc, 16);
KDZK_ASSERT_OFFSET(kdzk_env, tmp_alloc, 24);
KDZK_ASSERT_OFFSET(kdzk_env, tmp_free, 32);
KDZK_ASSERT_OFFSET(kdzk_env, decompress, 40);
KDZK_ASSERT_SIZE(kdzk_env, 48);
KDZK_ASSERT_OFFSET(kdzk_sqzb_ctx, dest, 32);
KDZK_ASSERT_SIZE(kdzk_sqzb_ctx, 40);
KDZK_ASSERT_OFFSET(kdzk_result_report, bitvec, 8);
KDZK_ASSERT_OFFSET(kdzk_result_report, hits, 24);
KDZK_ASSERT_SIZE(kdzk_result_report, 128);
KDZK_ASSERT_OFFSET(kdzk_bv_iter, nrows, 8);
KDZK_ASSERT_OFFSET(kdzk_bv_iter, base, 12);
KDZK_ASSERT_OFFSET(kdzk_bv_iter, pos, 16);
KDZK_ASSERT_OFFSET(kdzk_bv_iter, bits, 24);
KDZK_ASSERT_SIZE(kdzk_bv_iter, 32);
KDZK_ASSERT_SIZE(kdzk_hit_range, 8);

KDZK_ASSERT_OFFSET(kdzk_partdesc, flags, 4);
KDZK_ASSERT_OFFSET(kdzk_partdesc, part_hi, 5);
KDZK_ASSERT_OFFSET(kdzk_partdesc, part_lo, 6);
KDZK_ASSERT_OFFSET(kdzk_partdesc, payload_size, 8);
KDZK_ASSERT_OFFSET(kdzk_partdesc, cursors, 16);
KDZK_ASSERT_OFFSET(kdzk_partdesc, limits, 24);
KDZK_ASSERT_SIZE(kdzk_partdesc, 32);

KDZK_ASSERT_OFFSET(kdzk_htdesc, flags, 4);
KDZK_ASSERT_OFFSET(kdzk_htdesc, bucket_hi, 8);
KDZK_ASSERT_OFFSET(kdzk_htdesc, dir_hi, 9);
KDZK_ASSERT_OFFSET(kdzk_htdesc, dir_lo, 10);
KDZK_ASSERT_OFFSET(kdzk_htdesc, tables, 16);
KDZK_ASSERT_OFFSET(kdzk_htdesc, cursors, 24);
KDZK_ASSERT_OFFSET(kdzk_htdesc, limits, 32);
KDZK_ASSERT_OFFSET(kdzk_htdesc, low_bits, 40);
KDZK_ASSERT_SIZE(kdzk_htdesc, 48);

KDZK_ASSERT_OFFSET(kdzk_rowstore, flags, 4);
KDZK_ASSERT_OFFSET(kdzk_rowstore, ncols, 8);
KDZK_ASSERT_OFFSET(kdzk_rowstore, width, 10);
KDZK_ASSERT_OFFSET(kdzk_rowstore, page_hi, 12);
KDZK_ASSERT_OFFSET(kdzk_rowstore, page_lo, 13);
KDZK_ASSERT_OFFSET(kdzk_rowstore, pairs, 16);
KDZK_ASSERT_OFFSET(kdzk_rowstore, pair_cursors, 24);
KDZK_ASSERT_OFFSET(kdzk_rowstore, refs, 32);
KDZK_ASSERT_OFFSET(kdzk_rowstore, offsets, 40);
KDZK_ASSERT_OFFSET(kdzk_rowstore, offset_cursors, 48);
KDZK_ASSERT_OFFSET(kdzk_rowstore, bases, 56);
KDZK_ASSERT_OFFSET(kdzk_rowstore, data_cursors, 64);
KDZK_ASSERT_OFFSET(kdzk_rowstore, data_limits, 72);
KDZK_ASSERT_SIZE(kdzk_rowstore, 80);

#ifdef __cplusplus
}
#endif

#endif

/* SPDX-License-Identifier: Apache-2.0
 *
 * Sizes of what a host allocates for the library, and three ready kdzk_envs: from malloc, from an arena, and from pages
 * that catch mistakes. In the static library kdzk_host. */
#ifndef KDZK_HOST_MEMORY_H
#define KDZK_HOST_MEMORY_H

#include <kdzk/context.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Sizes in bytes. What can't be had in 64 bits comes out as UINT64_MAX, which no allocator gives. ---- */

/* Of a column, `lengths` stream or block of so many bytes with what must be readable behind it, in whole units of 16:
 * always at least KDZK_PADDING more, also of 0. */
uint64_t kdzk_host_padded(uint64_t bytes);

/* Of `nrows` packed codes of `bits` bits (1 to 64), or `nrows` values of `bits` bits, with their padding. */
uint64_t kdzk_host_padded_rows(uint64_t nrows, uint32_t bits);

/* Of a bit vector, in bytes and in 64-bit words; it needs no padding. */
uint64_t kdzk_host_bitvec_words(uint64_t nrows);
uint64_t kdzk_host_bitvec_bytes(uint64_t nrows);

/* ---- Memory for kernels. ---- */

typedef struct kdzk_host_memory kdzk_host_memory;
typedef struct kdzk_host_piece kdzk_host_piece; /* the kit's */

/* A kdzk_env with its host context, which is this record itself. It must not move once it is made, and belongs to one
 * thread at a time, as kdzk_exec does.
 *
 * A vector that uses it has either 0 in alloc_tag, or the address of its decomp_slot (kdzk_host_tag). In the latter
 * case the slot is set to null when its copy is given back, and must exist until then; in the former that is the
 * host's. No other tag is allowed. */
struct kdzk_host_memory {
  kdzk_env env; /* For kdzk_exec.env. env.decompress is the library's; the host may put in another. */

  /* In, may be null: gets a sentence about a mistake that was found. Null: it is printed on standard error. */
  void (*report)(kdzk_host_memory* memory, const char* sentence);
  /* In, may be null: there is no memory for `size` bytes. Must not return, but may leave by longjmp. Null, or if it
   * returns: a sentence is printed and the process aborts. */
  void (*out_of_memory)(kdzk_host_memory* memory, uint64_t size, const char* comment);

  uint64_t copies;  /* Out: decompressed copies that exist */
  uint64_t scratch; /* Out: pieces of scratch that exist */
  uint64_t bytes;   /* Out: bytes in use by both, with padding; in an arena, of it, with what the kit keeps there */
  uint64_t
      high_water;  /* Out: the most that `bytes` has been; an arena of that size had sufficed. The host may reset it. */
  uint64_t faults; /* Out: mistakes reported */

  const void* kind; /* The kit's, up to word72. */
  kdzk_host_piece* first_copy;
  kdzk_host_piece* first_scratch;
  kdzk_host_piece* first_freed;
  uint8_t* room;
  uint64_t low;
  uint64_t high;
  uint64_t size;
  uint64_t freed;
  uint64_t unused[49];

  uint64_t word72; /* In: hostinternalerr's second argument; 0 at first */
};
KDZK_ASSERT_OFFSET(kdzk_host_memory, word72, 71 * 8);

/* Each of these makes `memory`, with the decompressor of `ctx`, which may be null; then the host sets env.decompress if
 * it has blocked columns.
 *
 * malloc: each piece is one of malloc's. */
void kdzk_host_memory_malloc(kdzk_host_memory* memory, const kdzk_specialized_ctx* ctx);

/* arena: all pieces are taken from the `size` bytes at `room`, which are the host's and which nothing else uses until
 * kdzk_host_memory_close: copies from the front and scratch from the back. A copy's room is used again after
 * kdzk_host_memory_reset, or at once if it was the last one made; scratch's as soon as none is left, or at once if it
 * was the last. */
void kdzk_host_memory_arena(kdzk_host_memory* memory, const kdzk_specialized_ctx* ctx, void* room, uint64_t size);

/* guarded: for tests and debugging; slow. Behind each piece, with its padding and up to 15 bytes to its alignment, a
 * page faults, and given back it faults as a whole. The bytes in front of a piece, and of its padding, are checked when
 * it is given back, for having been written. What a piece holds at first has no meaning, but isn't zero. Reported, with
 * the comment that the piece was asked for with: writes outside, pieces freed twice or never or with another `out`, and
 * frees of what was never given. The last 1024 pieces given back are remembered. */
void kdzk_host_memory_guarded(kdzk_host_memory* memory, const kdzk_specialized_ctx* ctx);

/* For kdzk_vec.alloc_tag. */
static inline uint64_t kdzk_host_tag(void** decomp_slot) { return (uint64_t)(uintptr_t)decomp_slot; }

/* Gives back the copy at `*decomp_slot`, which came from `memory`, and sets the slot to null; nothing if it is null. */
void kdzk_host_memory_release(kdzk_host_memory* memory, void** decomp_slot);

/* Gives back all copies, and scratch that a call left by longjmp had no chance to give back; guarded reports the
 * latter. Not while a call runs. */
void kdzk_host_memory_reset(kdzk_host_memory* memory);

/* The same, but guarded also reports the copies; and gives back what else the kit holds. Returns `faults`: 0 if no
 * mistake was found. The record may then be made again. */
uint64_t kdzk_host_memory_close(kdzk_host_memory* memory);

#ifdef __cplusplus
}
#endif

#endif

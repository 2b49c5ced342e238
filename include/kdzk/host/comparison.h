/* SPDX-License-Identifier: Apache-2.0
 *
 * From a comparison with any value to a kernel call. Constants of kernels must be codes, or stored values, of the
 * column; a comparison with a value that isn't there is one with its neighbour, or holds for every row or for none.
 *
 * Two steps, so that the first is done once per query and the second, which is short, once per column (segment):
 *   kdzk_host_dictionary_range  a comparison as a range of codes, by binary search
 *   kdzk_host_column_test       the range as what is to be done on a column: nothing, or one kernel with its constants
 * and kdzk_host_test_run does it.
 *
 * In the static library kdzk_host. Functions keep nothing between calls and may run on any number of threads. */
#ifndef KDZK_HOST_COMPARISON_H
#define KDZK_HOST_COMPARISON_H

#include <kdzk/host/column.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Comparisons: KDZK_OP_EQ to KDZK_OP_GE_LE, of which the last four are BETWEEN with open and closed ends, and these. */
#define KDZK_HOST_OP_IS_NULL 32u
#define KDZK_HOST_OP_IS_NOT_NULL 33u

/* The rows that satisfy a comparison, by code or stored value. NULL rows satisfy none but IS NULL. */
#define KDZK_HOST_RANGE_INSIDE 0u   /* first to last, both included; none if first is above last */
#define KDZK_HOST_RANGE_ALL_BUT 1u  /* all but `first` */
#define KDZK_HOST_RANGE_NOT_NULL 2u /* all that aren't NULL */
#define KDZK_HOST_RANGE_NULLS 3u
typedef struct kdzk_host_range {
  uint64_t first, last;
  uint32_t kind; /* KDZK_HOST_RANGE_INSIDE and so on */
} kdzk_host_range;

/* The codes that satisfy `operation`, with `low` or the only constant, and `high` in BETWEEN; unused ones may be null.
 * Constants may be of any type (see dictionary.h). A constant that is NULL or NaN satisfies no row. */
void kdzk_host_dictionary_range(const kdzk_host_dictionary* dictionary, uint32_t operation, const kdzk_host_value* low,
                                const kdzk_host_value* high, kdzk_host_range* range);

/* The same for the stored values of a FIXED or DYNP column. These differ from column to column: no other may use it. */
void kdzk_host_column_range(const kdzk_host_column* column, uint32_t operation, const kdzk_host_value* low,
                            const kdzk_host_value* high, kdzk_host_range* range);

/* ---- Sets: IN lists, and tests that are made once per entry of a dictionary, such as patterns. ---- */

/* Words of a set table for the `set` kernels: bit c % 64 of word c / 64 says whether code c is in the set. The host
 * zeroes it. */
uint64_t kdzk_host_set_words(const kdzk_host_dictionary* dictionary);

/* Adds the code of a value, if it has one; NULL is not added. Returns 1 if the dictionary has it, otherwise 0. */
uint32_t kdzk_host_set_add(const kdzk_host_dictionary* dictionary, const kdzk_host_value* value, uint64_t* words);

/* Calls `match` for every value in ascending order, and adds those for which it doesn't return 0; returns how many. */
typedef uint32_t (*kdzk_host_match_fn)(void* state, const kdzk_host_value* value);
uint32_t kdzk_host_set_match(const kdzk_host_dictionary* dictionary, kdzk_host_match_fn match, void* state,
                             uint64_t* words);

/* ---- Tests. ---- */

#define KDZK_HOST_TEST_NONE 0u    /* no row */
#define KDZK_HOST_TEST_ALL 1u     /* every row; there is no NULL among them, or they all are and NULL was asked for */
#define KDZK_HOST_TEST_KERNEL 2u  /* what `kernel` gives for `low`, or for `low` and `high` */
#define KDZK_HOST_TEST_SET 3u     /* what `kernel` gives for the table `set` */
#define KDZK_HOST_TEST_PRESENT 4u /* the rows of kdzk_host_bound.present */
#define KDZK_HOST_TEST_ABSENT 5u  /* the others */
typedef struct kdzk_host_test {
  uint32_t kind;      /* KDZK_HOST_TEST_NONE and so on; the other fields hold for KERNEL and SET */
  uint32_t kernel;    /* id, for the dispatch table, and for kdzk_name_of in a plan */
  uint32_t operation; /* KDZK_OP_EQ and so on, or KDZK_OP_SET */
  uint32_t constants; /* 1, 2 (`low` and `high`), or 0 (`set`) */
  uint8_t low[8];     /* as kdzk_kargs.data points to it: a native uint32_t, or a stored value */
  uint8_t high[8];
  const uint64_t* set; /* for the bitvec of the third argument */
} kdzk_host_test;

/* What is to be done on a column for the rows of a range: of its dictionary, if it is coded, or of the column itself.
 * Uses `smallest`, `largest` and `nulls`, so that a column which a comparison passes by is TEST_NONE. */
void kdzk_host_column_test(const kdzk_host_column* column, const kdzk_host_range* range, kdzk_host_test* test);

/* What is to be done on a coded column for the rows whose code is in a set of its dictionary; a set that is a range in
 * this column becomes one. Keeps `words`. */
void kdzk_host_column_set_test(const kdzk_host_column* column, const uint64_t* words, kdzk_host_test* test);

/* Does it: writes bits, (nrows + 63) / 64 words, and `*hits`, as a predicate kernel writes result->bitvec and
 * result->hits. `filter` (null: none) and exec->selection are ANDed in, in all forms and kinds, also where the kernel
 * itself would take them for runs or not at all. `exec` may be null unless the column is blocked; of a blocked column,
 * exec->env makes the copy. KDZK_EX_SELECTIVE is obeyed where it is possible, exec->out_flags is set as by a kernel.
 *
 * Returns KDZK_DONE, KDZK_NO_ROW, or KDZK_UNSUPPORTED if the library has no such kernel; then nothing was written. */
uint64_t kdzk_host_test_run(kdzk_host_bound* bound, const kdzk_host_test* test, const uint64_t* filter, kdzk_exec* exec,
                            uint64_t* bits, uint32_t* hits);

#ifdef __cplusplus
}
#endif

#endif

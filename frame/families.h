// SPDX-License-Identifier: Apache-2.0
// The kernel families as compile-time names: what a family is called, where its kernels stand in the matrix, and the
// entry templates that its source instantiates. Thin on purpose: the kernel list includes this and no kernel.
#ifndef FRAME_FAMILIES_H
#define FRAME_FAMILIES_H

#include <kdzk/kernels.h>

#include "frame/operation.h"

namespace kdzk {

// What a family is called and where it stands: form and suffix are parts of its kernels' names, `variant` is added to
// the row of its width.
template <int W, uint32_t family_number, bool is_variant>
struct Place {
  static constexpr int width = W;
  static constexpr uint32_t family = family_number;
  static constexpr uint32_t variant = is_variant ? KDZK_ROW_VARIANT : 0;
  static constexpr const char* form = family == KDZK_FAMILY_DICT   ? "dict"
                                      : family == KDZK_FAMILY_DYNP ? "dynp"
                                                                   : "fixed";
  static constexpr const char* suffix = !is_variant ? "" : family == KDZK_FAMILY_DICT ? "_null" : "_tz";
};

// Dictionary codes of W bits; the same with code 0 standing for null.
template <int W>
struct Dict : Place<W, KDZK_FAMILY_DICT, false> {};
template <int W>
struct DictNull : Place<W, KDZK_FAMILY_DICT, true> {};

// Big-endian values of W bits, or fewer whole bytes left-aligned in W bits; the same, each with a length code that
// takes part in the compare behind the value.
template <int W>
struct Fixed : Place<W, KDZK_FAMILY_FIXED, false> {};
template <int W>
struct FixedTz : Place<W, KDZK_FAMILY_FIXED, true> {};

// Big-endian values of W bits without their trailing zero bytes, back to back, with a stream of length codes; the same
// with the length code taking part in the compare.
template <int W>
struct Dynp : Place<W, KDZK_FAMILY_DYNP, false> {};
template <int W>
struct DynpTz : Place<W, KDZK_FAMILY_DYNP, true> {};

// The predicate kernels of a family: `compare` for the one-sided operations, `between` for the two-sided ones.
template <class Family, Op op>
uint64_t compare(kdzk_vec* result, const kdzk_vec* input, const kdzk_kargs* arg, kdzk_exec* exec);

template <class Family, Op op>
uint64_t between(kdzk_vec* result, const kdzk_vec* input, const kdzk_kargs* low, const kdzk_kargs* high,
                 kdzk_exec* exec);

// Run bits to row bits, by run lengths of W bits or, `cla`, by the runs' first rows.
template <int W, bool cla>
struct BurstRle {
  static constexpr int width = W;
  static constexpr const char* form = "rle";
  static constexpr const char* suffix = cla ? "_cla" : "";
};

// How a number is stored: in the machine's own form, or big-endian so that its bytes sort as the numbers do.
enum class Form : uint8_t { native, sortable };

// The two operands of an arithmetic kernel, floats or doubles, and whether it adds up the results.
template <class T, Form left_form, Form right_form, bool is_sum>
struct Operands {
  using Value = T;
  static constexpr Form left = left_form, right = right_form;
  static constexpr bool has_sum = is_sum;
  static constexpr uint32_t row =
      (sizeof(T) == 8 ? KDZK_ROW_DOUBLE : 0) + (left == Form::sortable ? KDZK_ROW_SORTABLE_LEFT : 0) +
      (right == Form::sortable ? KDZK_ROW_SORTABLE_RIGHT : 0) + (is_sum ? KDZK_ROW_VARIANT : 0);
};

template <class Operands, ArithmeticOp op>
uint64_t arithmetic(kdzk_vec* result, const kdzk_vec* left, const kdzk_vec* right, kdzk_exec* exec);

// The decoding kernels of a family.
template <class Family>
uint64_t decode(kdzk_vec* result, const kdzk_vec* input, kdzk_exec* exec);

template <class Family>
uint64_t decode_unpack(kdzk_vec* result, const kdzk_vec* input, kdzk_exec* exec);

template <class Family>
uint64_t decode_symbol(kdzk_vec* result, const kdzk_vec* input, kdzk_exec* exec);

// Translation: how the table is found and indexed, the values being the kernels' families; and its elements, the values
// being their rows.
enum class TableIndex : uint8_t { sim, off, ind, groupkey };
enum class TableElement : uint8_t { bit, nib, ub1, ub2, ub4 };

// Codes to a bit per row of those that have a value; with `c2d` to an array of elements, too.
template <TableIndex index, TableElement element, bool c2d>
uint64_t xlate(kdzk_vec* result, const kdzk_vec* input, const kdzk_vec* table, kdzk_exec* exec);

template <TableElement element>
uint64_t xlate_groupkey(kdzk_vec* result, const kdzk_vec* input, const kdzk_vec* unused, kdzk_exec* exec);

// Whether the codes are in a set.
template <class Family>
uint64_t set(kdzk_vec* result, const kdzk_vec* input, const kdzk_vec* table, kdzk_exec* exec);

template <int W, bool cla>
uint64_t burst_rle(kdzk_vec* result, const kdzk_vec* src, const kdzk_result_report* report);

}  // namespace kdzk

#endif

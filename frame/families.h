// SPDX-License-Identifier: Apache-2.0
// The kernel families as compile-time names: what a family is called, where its kernels stand in the matrix, and the
// entry templates that its source instantiates. Thin on purpose: the kernel list includes this and no kernel.
#ifndef FRAME_FAMILIES_H
#define FRAME_FAMILIES_H

#include <kdzk/kernels.h>

#include "frame/operation.h"

namespace kdzk {

// Each family has a form and a suffix, the parts of its kernels' names, and a place in the matrix: a family number, and
// what is added to the row of its width.

// Dictionary codes of W bits.
template <int W>
struct Dict {
  static constexpr int width = W;
  static constexpr const char* form = "dict";
  static constexpr const char* suffix = "";
  static constexpr uint32_t family = KDZK_FAMILY_DICT;
  static constexpr uint32_t variant = 0;
};

// The same, with code 0 standing for null.
template <int W>
struct DictNull : Dict<W> {
  static constexpr const char* suffix = "_null";
  static constexpr uint32_t variant = KDZK_ROW_VARIANT;
};

// Big-endian values of W bits, or fewer whole bytes left-aligned in W bits.
template <int W>
struct Fixed {
  static constexpr int width = W;
  static constexpr const char* form = "fixed";
  static constexpr const char* suffix = "";
  static constexpr uint32_t family = KDZK_FAMILY_FIXED;
  static constexpr uint32_t variant = 0;
};

// The same, each with a length code that takes part in the compare behind the value.
template <int W>
struct FixedTz : Fixed<W> {
  static constexpr const char* suffix = "_tz";
  static constexpr uint32_t variant = KDZK_ROW_VARIANT;
};

// Big-endian values of W bits without their trailing zero bytes, back to back, with a stream of length codes.
template <int W>
struct Dynp {
  static constexpr int width = W;
  static constexpr const char* form = "dynp";
  static constexpr const char* suffix = "";
  static constexpr uint32_t family = KDZK_FAMILY_DYNP;
  static constexpr uint32_t variant = 0;
};

// The same, with the length code taking part in the compare.
template <int W>
struct DynpTz : Dynp<W> {
  static constexpr const char* suffix = "_tz";
  static constexpr uint32_t variant = KDZK_ROW_VARIANT;
};

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

// The decoding kernels of a family.
template <class Family>
uint64_t decode(kdzk_vec* result, const kdzk_vec* input, kdzk_exec* exec);

template <class Family>
uint64_t decode_unpack(kdzk_vec* result, const kdzk_vec* input, kdzk_exec* exec);

template <class Family>
uint64_t decode_symbol(kdzk_vec* result, const kdzk_vec* input, kdzk_exec* exec);

template <int W, bool cla>
uint64_t burst_rle(kdzk_vec* result, const kdzk_vec* src, const kdzk_result_report* report);

}  // namespace kdzk

#endif

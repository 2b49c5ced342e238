// SPDX-License-Identifier: Apache-2.0
// The kernel families as compile-time names: what a family is called, where its kernels stand in the matrix, and the
// entry templates that its source instantiates. Thin on purpose: the kernel list includes this and no kernel.
#ifndef FRAME_FAMILIES_H
#define FRAME_FAMILIES_H

#include <kdzk/kernels.h>

#include "frame/operation.h"

namespace kdzk {

// Dictionary codes of W bits.
template <int W>
struct Dict {
  static constexpr int width = W;
  static constexpr const char* form = "dict";
  static constexpr const char* suffix = "";
  static constexpr uint32_t family = KDZK_FAMILY_DICT;
  static constexpr uint32_t variant = 0;  // added to the row
};

// The predicate kernels of a family: `compare` for the one-sided operations, `between` for the two-sided ones.
template <class Family, Op op>
uint64_t compare(kdzk_vec* result, const kdzk_vec* input, const kdzk_kargs* arg, kdzk_exec* exec);

template <class Family, Op op>
uint64_t between(kdzk_vec* result, const kdzk_vec* input, const kdzk_kargs* low, const kdzk_kargs* high,
                 kdzk_exec* exec);

}  // namespace kdzk

#endif

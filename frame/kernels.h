// SPDX-License-Identifier: Apache-2.0
#ifndef FRAME_KERNELS_H
#define FRAME_KERNELS_H

#include <kdzk/kernels.h>

namespace kdzk {

// The dispatch table and, directly behind it, the names table: both indexed by kernel id, constant, filled at compile
// time.
struct KernelTables {
  kdzk_kernel dispatch[KDZK_DISPATCH_SIZE];
  const char* names[KDZK_KERNEL_IDS];
};

extern const KernelTables kernel_tables;

}  // namespace kdzk

#endif

// SPDX-License-Identifier: Apache-2.0
// Kernels by operation, form and width, for tests that aren't about the matrix of kernels.
#ifndef TESTS_SUPPORT_KERNEL_OF_H
#define TESTS_SUPPORT_KERNEL_OF_H

#include <gtest/gtest.h>
#include <kdzk/host/find_kernel.h>

#include "tests/support/host.h"

namespace kdzk_test {

// The kernel, which must be there.
inline kdzk_kernel kernel_of(uint32_t operation, uint32_t form, uint32_t width) {
  kdzk_host_kernel kernel;
  EXPECT_EQ(kdzk_host_find_kernel(&library(), operation, form, width, &kernel), KDZK_HOST_FOUND) << kernel.text;
  return kernel.entry;
}

}  // namespace kdzk_test

#endif

// SPDX-License-Identifier: Apache-2.0
// "Validate, then run", for every format that hosts hand to the library. Bytes from anywhere go to the host kit's
// check, in memory that ends at a page that faults. What passes goes to the library's kernels, with no more around it
// than the check promises, and what they give must be what a plain decoder gives.
#ifndef TESTS_FUZZ_FORMATS_H
#define TESTS_FUZZ_FORMATS_H

#include <span>

#include "tests/support/sqzb_oracle.h"

namespace kdzk_test {

struct Format {
  const char* name;
  // Takes widths, counts and constants from the front of the input, and the rest as what is to be checked. Tells
  // whether it was well formed, and so was run.
  bool (*try_input)(std::span<const uint8_t> input);
  Bytes (*make)(Random& random);  // an input that is well formed, or nearly so
};

extern const std::span<const Format> formats;

// Does it; if something doesn't hold, or faults, the process ends with a line that repeats it: replay FORMAT HEX.
bool try_input(const Format& format, std::span<const uint8_t> input);

}  // namespace kdzk_test

#endif

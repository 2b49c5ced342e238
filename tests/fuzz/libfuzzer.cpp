// SPDX-License-Identifier: Apache-2.0
// The front for libFuzzer, of the format KDZK_FUZZ_FORMAT. One input in 32 is a new one that is well formed, so that no
// corpus is needed.

#include <algorithm>
#include <cstring>

#include "tests/fuzz/formats.h"

using namespace kdzk_test;

static const Format& format() {
  return *std::ranges::find_if(formats, [](const Format& f) { return std::strcmp(f.name, KDZK_FUZZ_FORMAT) == 0; });
}

extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t room);

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  (void)library();  // its counters must be known before the first input
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  (void)try_input(format(), {data, size});
  return 0;
}

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t room, unsigned seed) {
  if (seed % 32 != 0) return LLVMFuzzerMutate(data, size, room);
  Random random(std::to_string(seed));
  const Bytes made = format().make(random);
  std::copy_n(made.begin(), std::min(made.size(), room), data);
  return std::min(made.size(), room);
}

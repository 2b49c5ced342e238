// SPDX-License-Identifier: Apache-2.0

#include "bench/peers/prefix_records_loops.h"

#include <cstring>

namespace kdzk_bench {
namespace {

template <class Copy>
void expand(const uint8_t* stream, uint32_t count, uint32_t width, uint8_t* out, const Copy& copy) {
  for (uint32_t left = count; left > 0;) {
    const uint32_t here = left < 16 ? left : 16, prefix = *stream++;
    const uint8_t* tail = stream + prefix;
    for (uint32_t record = 0; record < here; record++) {
      copy(out, stream, prefix);
      copy(out + prefix, tail, width - prefix);
      tail += width - prefix;
      out += width;
    }
    stream = tail;
    left -= here;
  }
}

}  // namespace

void expand_by_memcpy(const uint8_t* stream, uint32_t count, uint32_t width, uint8_t* out) {
  expand(stream, count, width, out,
         [](uint8_t* to, const uint8_t* from, uint32_t bytes) { std::memcpy(to, from, bytes); });
}

void expand_by_bytes(const uint8_t* stream, uint32_t count, uint32_t width, uint8_t* out) {
  expand(stream, count, width, out, [](uint8_t* to, const uint8_t* from, uint32_t bytes) {
    for (uint32_t i = 0; i < bytes; i++) to[i] = from[i];
  });
}

}  // namespace kdzk_bench

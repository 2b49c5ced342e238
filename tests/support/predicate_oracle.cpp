// SPDX-License-Identifier: Apache-2.0

#include "tests/support/predicate_oracle.h"

#include <cstring>

namespace kdzk_test {

std::string PredicateKernel::name() const {
  return std::string("kdzk_") + predicate_words[op] + "_" + form + "_" + std::to_string(width) + "bit" + suffix;
}

uint32_t PredicateKernel::id() const {
  int row = width - 1;
  if (width == 24) row = 20;
  if (width == 32) row = 21;
  if (width == 64) row = 22;
  if (suffix != "") row += 32;
  const int column = (form == "dict" ? 32 : form == "dynp" ? 64 : 0) + op;
  return static_cast<uint32_t>(row * 128 + column);
}

uint64_t PredicateKernel::call(kdzk_vec* result, const kdzk_vec* input, const kdzk_kargs* low, const kdzk_kargs* high,
                               kdzk_exec* exec) const {
  const kdzk_kernel kernel = library().dispatch[id()];
  return two_sided() ? kernel.between(result, input, low, high, exec) : kernel.compare(result, input, low, exec);
}

int PredicateKernel::rows_per_step() const {
  if (width == 1 || width == 2 || width == 4) return 128;
  return width <= 7 || width == 9 || width == 10 || width == 12 ? 64 : 32;
}

std::vector<PredicateKernel> predicate_kernels() {
  std::vector<PredicateKernel> kernels;
  for (int width = 1; width <= 24; width++) {
    if (width == 8 || width == 16 || (width > 20 && width < 24)) continue;
    for (int op = 0; op < 10; op++) kernels.push_back({op, "dict", width, ""});
  }
  return kernels;
}

std::vector<uint64_t> random_codes(Random& random, const PredicateKernel& kernel, uint32_t nrows, Fill fill) {
  std::vector<uint64_t> codes(nrows);
  const uint64_t one = random.bits() & kernel.top();
  for (uint32_t r = 0; r < nrows; r++) {
    switch (fill) {
      case Fill::uniform:
        codes[r] = random.bits() & kernel.top();
        break;
      case Fill::lowest:
        codes[r] = random.below(3) & kernel.top();
        break;
      case Fill::highest:
        codes[r] = kernel.top() - (random.below(3) & kernel.top());
        break;
      case Fill::one_value:
        codes[r] = one;
        break;
      case Fill::runs:
        codes[r] = r > 0 && random.below(8) != 0 ? codes[r - 1] : random.bits() & kernel.top();
        break;
    }
  }
  return codes;
}

std::vector<uint8_t> stored(const PredicateKernel& kernel, const std::vector<uint64_t>& codes) {
  std::vector<uint8_t> bytes((codes.size() * static_cast<size_t>(kernel.width) + 7) / 8);
  size_t at = 0;  // bit
  for (uint64_t code : codes) {
    for (int bit = kernel.width - 1; bit >= 0; bit--, at++) {
      if (code >> bit & 1) bytes[at / 8] |= static_cast<uint8_t>(0x80 >> at % 8);
    }
  }
  return bytes;
}

Constant::Constant(const PredicateKernel& kernel, uint64_t value)
    : bytes_(kernel.width == 64 ? size_t{8} : size_t{4}), args_{} {
  std::memcpy(bytes_.data(), &value, bytes_.size());
  args_.data = bytes_.data();
}

bool qualifies(const PredicateKernel& kernel, uint64_t code, uint64_t low, uint64_t high) {
  switch (kernel.op) {
    case 0:
      return code == low;
    case 1:
      return code < low;
    case 2:
      return code > low;
    case 3:
      return code <= low;
    case 4:
      return code >= low;
    case 5:
      return code != low;
    case 6:
      return low < code && code < high;
    case 7:
      return low < code && code <= high;
    case 8:
      return low <= code && code < high;
    default:
      return low <= code && code <= high;
  }
}

}  // namespace kdzk_test

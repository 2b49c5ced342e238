// SPDX-License-Identifier: Apache-2.0

#include "tests/support/predicate_oracle.h"

#include <cstring>

namespace kdzk_test {

std::string PredicateKernel::name() const {
  return std::string("kdzk_") + predicate_words[op] + "_" + form + "_" + std::to_string(width) + "bit" + suffix;
}

std::string PredicateKernel::title() const {
  return value_bytes * 8 == width || value_bytes == 0 ? name()
                                                      : name() + "_of_" + std::to_string(value_bytes) + "_bytes";
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
  if (has_lengths()) return 512 / width;
  if (width == 1 || width == 2 || width == 4 || width == 8) return 128;
  if (width == 64) return 16;
  return width <= 7 || width == 9 || width == 10 || width == 12 || width == 16 ? 64 : 32;
}

std::vector<PredicateKernel> predicate_kernels() {
  std::vector<PredicateKernel> kernels;
  const auto add = [&](const char* form, int width, const char* suffix, int value_bytes) {
    for (int op = 0; op < 10; op++) kernels.push_back({op, form, width, suffix, value_bytes});
  };
  for (const char* suffix : {"", "_null"}) {
    for (int width = 1; width <= 20; width++) add("dict", width, suffix, 0);
    for (int width : {24, 32, 64}) add("dict", width, suffix, 0);
  }
  for (const char* suffix : {"", "_tz"}) {
    add("fixed", 8, suffix, 1);
    add("fixed", 16, suffix, 2);
    for (int bytes : {4, 3}) add("fixed", 32, suffix, bytes);
    for (int bytes : {8, 3, 5, 6, 7}) add("fixed", 64, suffix, bytes);
    for (int width : {16, 32, 64}) add("dynp", width, suffix, 0);
  }
  return kernels;
}

Row PredicateKernel::fitting(uint64_t value, uint8_t length_code) const {
  if (!has_lengths()) length_code = 0;
  if (form == "dict") return {value & top(), 0};
  // Lengths go up to the width's bytes; a fixed column can have any code in its 4 bits.
  const int codes = form == "fixed" && width == 64 ? 16 : width / 8;
  length_code = static_cast<uint8_t>(length_code % codes);
  const int bytes = form == "dynp" ? length_code + 1 : value_bytes;
  const uint64_t kept = bytes * 8 >= width ? top() : top() >> bytes * 8 ^ top();
  return {value & kept, length_code};
}

Row PredicateKernel::random_row(Random& random) const {
  // Zero bytes are rare in random numbers and common in columns.
  uint64_t value = random.bits();
  for (int byte = 0; byte < 8; byte++) {
    if (random.below(4) == 0) value &= ~(uint64_t{0xff} << byte * 8);
  }
  return fitting(random.below(2) == 0 ? value : random.bits(), static_cast<uint8_t>(random.bits()));
}

std::vector<Row> random_rows(Random& random, const PredicateKernel& kernel, uint32_t nrows, Fill fill) {
  std::vector<Row> rows(nrows);
  const Row one = kernel.random_row(random);
  const int low_bits = kernel.value_bytes > 0 ? kernel.width - 8 * kernel.value_bytes : 0;  // that aren't stored
  for (uint32_t r = 0; r < nrows; r++) {
    const auto code = static_cast<uint8_t>(random.bits());
    const uint64_t near = random.below(3) << low_bits;
    if (fill == Fill::uniform) rows[r] = kernel.random_row(random);
    // At 64 bits half of the codes are no lengths; such a row has no bytes.
    if (fill == Fill::uniform && kernel.form == "dynp" && kernel.width == 64 && !kernel.compares_lengths() &&
        code % 8 == 0)
      rows[r] = {0, static_cast<uint8_t>(8 + code / 32)};
    if (fill == Fill::lowest) rows[r] = kernel.fitting(near, code);
    if (fill == Fill::highest) rows[r] = kernel.fitting(kernel.top() - near, code);
    if (fill == Fill::one_value) rows[r] = kernel.fitting(one.value, code);
    if (fill == Fill::runs) rows[r] = r > 0 && random.below(8) != 0 ? rows[r - 1] : kernel.random_row(random);
  }
  return rows;
}

std::vector<uint8_t> stored_data(const PredicateKernel& kernel, const std::vector<Row>& rows) {
  std::vector<uint8_t> bytes;
  if (kernel.form == "dict") {
    bytes.resize((rows.size() * static_cast<size_t>(kernel.width) + 7) / 8);
    size_t at = 0;  // bit
    for (const Row& row : rows) {
      for (int bit = kernel.width - 1; bit >= 0; bit--, at++) {
        if (row.value >> bit & 1) bytes[at / 8] |= static_cast<uint8_t>(0x80 >> at % 8);
      }
    }
    if (at % 8 != 0) bytes.back() |= static_cast<uint8_t>(0xff >> at % 8);  // no code
    return bytes;
  }
  for (const Row& row : rows) {
    const int stored = kernel.form != "dynp" ? kernel.value_bytes : row.length_code < 8 ? row.length_code + 1 : 0;
    for (int byte = 0; byte < stored; byte++) {
      bytes.push_back(static_cast<uint8_t>(row.value >> (kernel.width - 8 * (byte + 1))));
    }
  }
  return bytes;
}

std::vector<uint8_t> stored_lengths(const PredicateKernel& kernel, const std::vector<Row>& rows) {
  if (!kernel.has_lengths()) return {};
  const size_t bits = kernel.width == 16 ? 1 : kernel.width == 32 ? 2 : 4;
  std::vector<uint8_t> bytes((rows.size() * bits + 7) / 8);
  for (size_t r = 0; r < rows.size(); r++) {
    bytes[r * bits / 8] |= static_cast<uint8_t>(rows[r].length_code << (8 - bits - r * bits % 8));
  }
  if (rows.size() * bits % 8 != 0) bytes.back() |= static_cast<uint8_t>(0xff >> rows.size() * bits % 8);
  return bytes;
}

Constant::Constant(const PredicateKernel& kernel, Row row)
    : bytes_(kernel.form == "dict" ? (kernel.width == 64 ? 8u : 4u) : static_cast<size_t>(kernel.width) / 8),
      length_(1),
      enc_{},
      args_{} {
  if (kernel.form == "dict") {
    std::memcpy(bytes_.data(), &row.value, bytes_.size());
  } else {
    for (size_t i = 0; i < bytes_.size(); i++) {
      bytes_.data()[i] = static_cast<uint8_t>(row.value >> (8 * (bytes_.size() - 1 - i)));
    }
    enc_.width = static_cast<uint8_t>(kernel.value_bytes * 8);
    args_.enc_ctx = kernel.form == "fixed" && kernel.width >= 32 ? &enc_ : nullptr;
  }
  length_.data()[0] = row.length_code;
  args_.data = bytes_.data();
  args_.lengths = kernel.compares_lengths() ? length_.data() : nullptr;
}

bool qualifies(const PredicateKernel& kernel, Row row, Row low, Row high) {
  if (kernel.nulls() && row.value == 0) return false;
  const auto order = [&](Row a, Row b) {  // below 0, 0 or above
    if (a.value != b.value) return a.value < b.value ? -1 : 1;
    return kernel.compares_lengths() ? a.length_code - b.length_code : 0;
  };
  const int l = order(row, low), h = kernel.two_sided() ? order(row, high) : 0;
  const bool holds[] = {l == 0,          l<0, l> 0,       l <= 0, l >= 0, l != 0, l > 0 && h<0, l> 0 && h <= 0,
                        l >= 0 && h < 0, l >= 0 && h <= 0};
  return holds[kernel.op];
}

}  // namespace kdzk_test

// SPDX-License-Identifier: Apache-2.0
// The predicates in the dullest words: a column as plain numbers, its stored form, and a loop over rows.
#ifndef TESTS_SUPPORT_PREDICATE_ORACLE_H
#define TESTS_SUPPORT_PREDICATE_ORACLE_H

#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/host.h"

namespace kdzk_test {

inline const char* const predicate_words[] = {"eq", "lt", "gt", "le", "ge", "ne", "gt_lt", "gt_le", "ge_lt", "ge_le"};

struct PredicateKernel {
  int op;            // index into predicate_words, and operation number
  std::string form;  // "dict"
  int width;         // bits
  std::string suffix;

  bool two_sided() const { return op >= 6; }
  std::string name() const;  // "kdzk_eq_dict_13bit"
  uint32_t id() const;
  uint64_t call(kdzk_vec* result, const kdzk_vec* input, const kdzk_kargs* low, const kdzk_kargs* high,
                kdzk_exec* exec) const;
  int rows_per_step() const;
  uint64_t top() const { return width == 64 ? ~uint64_t{0} : (uint64_t{1} << width) - 1; }
};

// All predicates of the matrix that the library has, by its rules of rows and columns.
std::vector<PredicateKernel> predicate_kernels();

enum class Fill { uniform, lowest, highest, one_value, runs };
inline constexpr Fill fills[] = {Fill::uniform, Fill::lowest, Fill::highest, Fill::one_value, Fill::runs};

std::vector<uint64_t> random_codes(Random& random, const PredicateKernel& kernel, uint32_t nrows, Fill fill);

// The stored form of the column.
std::vector<uint8_t> stored(const PredicateKernel& kernel, const std::vector<uint64_t>& codes);

// A constant as the kernel reads it, in exactly its bytes.
class Constant {
 public:
  Constant(const PredicateKernel& kernel, uint64_t value);
  const kdzk_kargs* args() const { return &args_; }

 private:
  GuardedBuffer bytes_;
  kdzk_kargs args_;
};

bool qualifies(const PredicateKernel& kernel, uint64_t code, uint64_t low, uint64_t high);

}  // namespace kdzk_test

#endif

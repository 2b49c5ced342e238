// SPDX-License-Identifier: Apache-2.0
// The predicates in the dullest words: a column as plain numbers, its stored form, and a loop over rows.
#ifndef TESTS_SUPPORT_PREDICATE_ORACLE_H
#define TESTS_SUPPORT_PREDICATE_ORACLE_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/host.h"

namespace kdzk_test {

inline const char* const predicate_words[] = {"eq", "lt", "gt", "le", "ge", "ne", "gt_lt", "gt_le", "ge_lt", "ge_le"};

// A row of a column: a code or value, and for columns with lengths how many bytes of it are stored, less one. Values of
// `fixed` and `dynp` columns are left-aligned in the kernel's width.
struct Row {
  uint64_t value = 0;
  uint8_t length_code = 0;
  bool operator==(const Row&) const = default;
};

struct PredicateKernel {
  int op;            // index into predicate_words, and operation number
  std::string form;  // "dict", "fixed", "dynp"
  int width;         // bits
  std::string suffix;
  int value_bytes = 0;  // of a `fixed` column: bytes stored per value

  bool two_sided() const { return op >= 6; }
  bool nulls() const { return suffix == "_null"; }
  bool has_lengths() const { return form == "dynp" || (suffix == "_tz" && width > 8); }
  bool compares_lengths() const { return suffix == "_tz" && width > 8; }
  bool has_companion() const { return width > 1; }
  bool reads_filter() const { return !(nulls() && width == 1); }
  std::string name() const;   // "kdzk_eq_dict_13bit"
  std::string title() const;  // the same, with the bytes of a narrow column
  uint32_t id() const;
  uint64_t call(kdzk_vec* result, const kdzk_vec* input, const kdzk_kargs* low, const kdzk_kargs* high,
                kdzk_exec* exec) const;
  int rows_per_step() const;
  uint64_t top() const { return width == 64 ? ~uint64_t{0} : (uint64_t{1} << width) - 1; }
  Row random_row(Random& random) const;
  Row fitting(uint64_t value, uint8_t length_code) const;  // what of them this column can store
};

// All predicates of the matrix, by its rules of rows and columns; `fixed` kernels once for each number of bytes.
std::vector<PredicateKernel> predicate_kernels();

enum class Fill { uniform, lowest, highest, one_value, runs };
inline constexpr Fill fills[] = {Fill::uniform, Fill::lowest, Fill::highest, Fill::one_value, Fill::runs};

std::vector<Row> random_rows(Random& random, const PredicateKernel& kernel, uint32_t nrows, Fill fill);

// The stored form of a column.
std::vector<uint8_t> stored_data(const PredicateKernel& kernel, const std::vector<Row>& rows);
std::vector<uint8_t> stored_lengths(const PredicateKernel& kernel, const std::vector<Row>& rows);

// A constant as the kernel reads it, in exactly its bytes.
class Constant {
 public:
  Constant(const PredicateKernel& kernel, Row row);
  const kdzk_kargs* args() const { return &args_; }

 private:
  GuardedBuffer bytes_, length_;
  kdzk_enc_ctx enc_;
  kdzk_kargs args_;
};

bool qualifies(const PredicateKernel& kernel, Row row, Row low, Row high);

}  // namespace kdzk_test

#endif

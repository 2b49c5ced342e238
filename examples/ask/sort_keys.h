// SPDX-License-Identifier: Apache-2.0
//
// The values of a column as unsigned numbers of 64 bits that are in the same order, and different for different values.
//   text            its bytes, the first one on top, and zeros behind them;
//   whole numbers   their distance from the column's lowest, moved to the top. That makes negative numbers unsigned,
//   and
//                   all as narrow as the range in which they lie.
// So only the first bytes() of a key's bytes are ever in use.
#ifndef KDZK_EXAMPLES_ASK_SORT_KEYS_H
#define KDZK_EXAMPLES_ASK_SORT_KEYS_H

#include <array>
#include <cstdint>
#include <initializer_list>

#include "column.h"

namespace ask {

class SortKeys {
 public:
  // For a storage form that takes columns of these types. Throws Error if the column is of another one, has NULLs, or
  // has texts that no key tells apart.
  SortKeys(const Column& column, const char* form, std::initializer_list<Type> types);

  uint32_t bytes() const { return bytes_; }  // 1 to 8
  uint64_t of_entry(uint32_t entry) const;
  uint64_t of_rank(uint32_t rank) const { return of_entry(column_.entry_of_rank(rank)); }

  // As the kernels read it, first byte most significant.
  static std::array<uint8_t, 8> stored(uint64_t key);

 private:
  uint64_t distance(uint32_t entry) const;  // of a whole number from the lowest

  const Column& column_;
  uint32_t bytes_ = 1;
};

}  // namespace ask

#endif

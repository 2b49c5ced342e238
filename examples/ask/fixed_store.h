// SPDX-License-Identifier: Apache-2.0
//
// A column of whole numbers without NULLs, each in the same number of bytes: as many as the column's range needs.
#ifndef KDZK_EXAMPLES_ASK_FIXED_STORE_H
#define KDZK_EXAMPLES_ASK_FIXED_STORE_H

#include "sort_keys.h"
#include "store.h"

namespace ask {

class FixedStore : public Store {
 public:
  explicit FixedStore(const Column& column);

  const char* form() const override { return name; }

  static constexpr const char* name = "fixed";

 private:
  Call::Constant constant(uint32_t rank) const override { return SortKeys::stored(keys_.of_rank(rank)); }

  SortKeys keys_;
};

}  // namespace ask

#endif

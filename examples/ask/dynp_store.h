// SPDX-License-Identifier: Apache-2.0
//
// A column of short texts without NULLs, each in as many bytes as it has, and a stream of the lengths beside them.
// Whole numbers can be stored so too, but it is their last bytes that have to be zero for it to save anything.
#ifndef KDZK_EXAMPLES_ASK_DYNP_STORE_H
#define KDZK_EXAMPLES_ASK_DYNP_STORE_H

#include "sort_keys.h"
#include "store.h"

namespace ask {

class DynpStore : public Store {
 public:
  explicit DynpStore(const Column& column);

  const char* form() const override { return name; }

  static constexpr const char* name = "dynp";

 private:
  Call::Constant constant(uint32_t rank) const override { return SortKeys::stored(keys_.of_rank(rank)); }

  SortKeys keys_;
};

}  // namespace ask

#endif

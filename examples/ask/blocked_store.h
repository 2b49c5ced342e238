// SPDX-License-Identifier: Apache-2.0
//
// A column's dictionary codes, packed and compressed, a block a vector. The kernels work on a decompressed copy, which
// lasts until the run that needed it is through with the vector.
#ifndef KDZK_EXAMPLES_ASK_BLOCKED_STORE_H
#define KDZK_EXAMPLES_ASK_BLOCKED_STORE_H

#include "coded_store.h"

namespace ask {

class BlockedStore : public CodedStore {
 public:
  explicit BlockedStore(const Column& column);

  const char* form() const override { return name; }
  size_t compressed_bytes() const override { return data_.size() - KDZK_PADDING; }

  static constexpr const char* name = "blocked";

 private:
  bool helpers_in(const Library& library) const override { return library.decompressor() != nullptr; }
  size_t append_block(const std::vector<uint8_t>& packed);  // returns its bytes

  std::vector<void*> slots_;  // of the vectors' copies
};

}  // namespace ask

#endif

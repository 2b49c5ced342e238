// SPDX-License-Identifier: Apache-2.0
//
// A column as dictionary codes in the order of their values, packed as narrow as there are kernels for. With NULLs in
// the column their code is 0 and rank r has the code r + 1, otherwise it has the code r.
#ifndef KDZK_EXAMPLES_ASK_DICT_STORE_H
#define KDZK_EXAMPLES_ASK_DICT_STORE_H

#include "store.h"

namespace ask {

class DictStore : public Store {
 public:
  explicit DictStore(const Column& column);

  const char* form() const override { return name; }

  static constexpr const char* name = "dict";

 private:
  Call::Constant constant(uint32_t rank) const override;

  uint32_t first_code_;  // of rank 0
};

}  // namespace ask

#endif

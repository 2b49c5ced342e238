// SPDX-License-Identifier: Apache-2.0
//
// A column's dictionary codes, packed.
#ifndef KDZK_EXAMPLES_ASK_DICT_STORE_H
#define KDZK_EXAMPLES_ASK_DICT_STORE_H

#include "coded_store.h"

namespace ask {

class DictStore : public CodedStore {
 public:
  explicit DictStore(const Column& column);

  const char* form() const override { return name; }

  static constexpr const char* name = "dict";
};

}  // namespace ask

#endif

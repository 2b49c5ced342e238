// SPDX-License-Identifier: Apache-2.0
//
// A column as dictionary codes in the order of their values, as narrow as there are kernels for. With NULLs in the
// column their code is 0 and rank r has the code r + 1, otherwise it has the code r. The forms differ in how they keep
// the codes.
#ifndef KDZK_EXAMPLES_ASK_CODED_STORE_H
#define KDZK_EXAMPLES_ASK_CODED_STORE_H

#include <cstdint>
#include <vector>

#include "store.h"

namespace ask {

class CodedStore : public Store {
 protected:
  explicit CodedStore(const Column& column, uint32_t further_flags = 0);

  std::vector<uint32_t> codes_of_vector(size_t vector) const;

 private:
  Call::Constant constant(uint32_t rank) const override;

  uint32_t first_code_;  // of rank 0
};

}  // namespace ask

#endif

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
  DictStore(const Column& column, const Library& library);

  const char* form() const override { return "dict"; }
  Plan plan(const Comparison& comparison) const override;

 private:
  void pack();

  // Plans for the rows whose value's rank is as the name says, NULLs left out; `end` is excluded.
  Plan all_but(uint32_t rank) const;
  Plan before(uint32_t end) const;
  Plan from(uint32_t first) const;
  Plan between(uint32_t first, uint32_t end) const;
  Plan not_between(uint32_t first, uint32_t end) const;
  Plan values(uint32_t operation, uint32_t rank, uint32_t high_rank = 0) const;  // in this relation to the rank

  Plan null() const;
  Plan not_null() const;
  Plan call(uint8_t kind, uint32_t operation, uint32_t code, uint32_t high_code = 0) const;

  const Column& column_;
  const Library& library_;
  uint32_t first_code_;  // of rank 0
  uint8_t null_kind_;    // the kernels that leave out code 0
};

}  // namespace ask

#endif

// SPDX-License-Identifier: Apache-2.0
//
// A column's dictionary codes as runs of equal codes: a packed code per run, and the row at which it begins. The
// predicates look at runs, and a further kernel makes rows of what they find.
#ifndef KDZK_EXAMPLES_ASK_RUNS_STORE_H
#define KDZK_EXAMPLES_ASK_RUNS_STORE_H

#include "coded_store.h"

namespace ask {

class RunsStore : public CodedStore {
 public:
  explicit RunsStore(const Column& column);

  const char* form() const override { return name; }
  size_t packed_bytes() const override;
  size_t compressed_bytes() const override { return bytes(); }

  static constexpr const char* name = "runs";

 private:
  bool helpers_in(const Library& library) const override;

  std::vector<uint8_t> offsets_;         // the first row of each run, vector by vector
  std::vector<kdzk_enc_ctx> encodings_;  // of the vectors: each has its own number of runs
  std::vector<uint64_t> run_bits_;       // what a predicate finds; for any vector, but one at a time
};

}  // namespace ask

#endif

// SPDX-License-Identifier: Apache-2.0

#include "frame/predicate.h"

#include "frame/services.h"

namespace kdzk {

uint64_t finish_predicate(kdzk_vec* result, const kdzk_vec* input, kdzk_exec* exec, const uint64_t* filter,
                          uint8_t* bits, uint32_t nrows, uint32_t hits, uint8_t applied) {
  if (filter != nullptr) kdzk_bv64_and(bits, &hits, bits, filter, nrows);
  if (exec != nullptr && exec->selection != nullptr) {
    kdzk_bv64_and(bits, &hits, bits, exec->selection, nrows);
    exec->out_flags |= applied;
  }
  result->hits = hits;
  if ((input->enc_ctx->flags & KDZK_RLE) == 0) return hits != 0 ? KDZK_DONE : KDZK_NO_ROW;
  kdzk_result_report report = {};
  report.bitvec = reinterpret_cast<uint64_t*>(bits);
  report.hits = hits;
  return input->enc_ctx->result_cb(exec->env, result, input, &report);
}

uint64_t finish_selected(kdzk_vec* result, const uint64_t* filter, uint8_t* bits, uint32_t nrows, uint32_t hits) {
  if (filter != nullptr) kdzk_bv64_and(bits, &hits, bits, filter, nrows);
  result->hits = hits;
  return hits != 0 ? KDZK_DONE : KDZK_NO_ROW;
}

}  // namespace kdzk

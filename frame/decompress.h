// SPDX-License-Identifier: Apache-2.0
// The decompressed copy of a blocked column.
#ifndef FRAME_DECOMPRESS_H
#define FRAME_DECOMPRESS_H

#include <kdzk/records.h>

#include "frame/kernel_name.h"

namespace kdzk {

// Fills input.decomp_slot by the host's callbacks and returns the copy. A failed decompression goes to hostinternalerr;
// if that returns, the copy is used as it is. The slot is filled before the block is decompressed.
const uint8_t* decompressed_copy(const KernelTexts& texts, const kdzk_vec* input, const kdzk_env* env);

// The bytes of the column, decompressed if it is blocked. `exec` may be null if it isn't.
inline const uint8_t* column_bytes(const KernelTexts& texts, const kdzk_vec* input, const kdzk_exec* exec) {
  if ((input->enc_ctx->flags & KDZK_BLOCKED) == 0) return static_cast<const uint8_t*>(input->data);
  if (*input->decomp_slot != nullptr) return static_cast<const uint8_t*>(*input->decomp_slot);
  return decompressed_copy(texts, input, exec->env);
}

}  // namespace kdzk

#endif

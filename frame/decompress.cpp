// SPDX-License-Identifier: Apache-2.0

#include "frame/decompress.h"

#include "frame/failure.h"

namespace kdzk {

const uint8_t* decompressed_copy(const KernelTexts& texts, const kdzk_vec* input, const kdzk_env* env) {
  void* copy = env->alloc(env->hctx, env->heap, input->decomp_size, texts.alloc_comment, 8, 16, input->alloc_tag);
  *input->decomp_slot = copy;
  const kdzk_sqzb_ctx ctx = {env->hctx, env->heap, env->tmp_alloc, env->tmp_free, copy};
  uint32_t written = 0;  // not compared with decomp_size: the decompressor's word is its return code
  if (env->decompress(&ctx, input->data, copy, &written, input->decomp_size) != 0) {
    internal_error(env, texts.decode_failure);
  }
  return static_cast<const uint8_t*>(copy);
}

}  // namespace kdzk

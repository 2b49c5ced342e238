// SPDX-License-Identifier: Apache-2.0
#ifndef FRAME_FAILURE_H
#define FRAME_FAILURE_H

#include <kdzk/records.h>

#include "frame/memory.h"

namespace kdzk {

// Hands a failure to the host's internal error function, which normally doesn't return; the caller must bear it if it
// does.
inline void internal_error(const kdzk_env* env, const char* message) {
  constexpr int word72_offset = 71 * 8;
  hostinternalerr(env->hctx, load<uint64_t>(static_cast<const uint8_t*>(env->hctx) + word72_offset), message, 0);
}

}  // namespace kdzk

#endif

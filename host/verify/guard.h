// SPDX-License-Identifier: Apache-2.0
// A malloc that ends where the next access faults, for as long as it is switched on.
#ifndef HOST_VERIFY_GUARD_H
#define HOST_VERIFY_GUARD_H

#include <cstdint>

namespace kdzk_verify {

// From now on every piece of malloc's, in this process, ends at a page that faults, but for up to 15 bytes to its
// alignment, and its size is known; what was given before stays as it is.
void guard_malloc(bool on);

// Where the piece with this address ends, to the byte as it was asked for; null if the address is in none.
const uint8_t* guarded_end(const void* address);

}  // namespace kdzk_verify

#endif

// SPDX-License-Identifier: Apache-2.0
// Invariants whose violation ends the process, in every build type.
#ifndef FRAME_ASSERTION_H
#define FRAME_ASSERTION_H

// The C library's handler behind assert(). Declared here, since <assert.h> doesn't where NDEBUG is defined.
extern "C" [[noreturn]] void __assert_fail(const char* assertion, const char* file, unsigned line,
                                           const char* function) noexcept;

namespace kdzk {

// The same handler for callers that go on should it return, as a host's own one may.
void assertion_failed(const char* assertion, const char* file, unsigned line, const char* function) noexcept
    __asm__("__assert_fail");

}  // namespace kdzk

#endif

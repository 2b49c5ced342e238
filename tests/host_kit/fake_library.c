/* SPDX-License-Identifier: Apache-2.0
 * Shared objects that are no build of the library, in one way or the other. */
#include <kdzk/context.h>

#if defined(FAKE_UNBOUND)
extern void kdzk_test_nobody_has_this(void);
__attribute__((visibility("default"))) void fake_function(void) { kdzk_test_nobody_has_this(); }
#elif defined(FAKE_NO_RECORD)
__attribute__((visibility("default"))) const int fake_record = 1;
#elif defined(FAKE_MAGIC)
__attribute__((visibility("default"))) const kdzk_specialized_ctx kdzk_global_specialized_ctx = {
    .magic = KDZK_MAGIC + 1, .version = KDZK_VERSION, .name = "fake"};
#else
__attribute__((visibility("default")))
const kdzk_specialized_ctx kdzk_global_specialized_ctx = {.magic = KDZK_MAGIC, .version = "19.0-7", .name = "fake"};
#endif

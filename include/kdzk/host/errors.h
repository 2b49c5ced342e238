/* SPDX-License-Identifier: Apache-2.0
 *
 * A hostinternalerr for hosts that have none: it hands an error to the function that was registered for its host
 * context, and where there is none prints the message and aborts.
 *
 * It is an object of its own in the static library kdzk_host, which the other objects don't refer to, so a host with a
 * hostinternalerr of its own links kdzk_host without a clash, and this one stays out. It comes in, and is exported,
 * with the CMake target kdzk::host_error, or with the linker options
 *
 *     -Wl,-u,hostinternalerr -Wl,--export-dynamic-symbol=hostinternalerr ... -lkdzk_host
 *
 * Calling a function of this header brings it in too; a host that does so and has its own gets the linker's "multiple
 * definition". The symbol has default visibility: plugins must not hide it (-Wl,--exclude-libs). Of several in one
 * process the library calls the one that the dynamic linker finds first, which knows only what was registered with the
 * functions of its own object. */
#ifndef KDZK_HOST_ERRORS_H
#define KDZK_HOST_ERRORS_H

#include <kdzk/records.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct kdzk_host_error_route kdzk_host_error_route;

/* Gets an error of a host context: hostinternalerr's second and third argument. May leave by longjmp or return; in the
 * latter case the kernel goes on, and what it writes has no meaning. No lock is held during the call. */
typedef void (*kdzk_host_error_fn)(const kdzk_host_error_route* route, uint64_t word72, const char* message);

/* Where errors of one host context go. The record is the host's and stays where it is while it is registered. */
struct kdzk_host_error_route {
  const void* hctx;            /* In: the host context, kdzk_env.hctx of the calls */
  kdzk_host_error_fn handler;  /* In */
  void* user;                  /* the handler's; not read */
  kdzk_host_error_route* next; /* the kit's */
};

/* From now on errors of route->hctx go to this route, until it is taken away, and then again to an earlier one if there
 * is one. The two functions may be called by any number of threads, but no error of route->hctx may be under way when
 * its route is taken away. Taking away a route that isn't registered does nothing. */
void kdzk_host_route_errors(kdzk_host_error_route* route);
void kdzk_host_unroute_errors(kdzk_host_error_route* route);

#ifdef __cplusplus
}
#endif

#endif

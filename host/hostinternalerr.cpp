// SPDX-License-Identifier: Apache-2.0
// The hostinternalerr for hosts that have none. Nothing else of the kit may refer to this object.

#include <kdzk/host/errors.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>

namespace {

// Held for a few instructions and never while a handler runs, so that waiting for it in a loop will do, and a handler
// may leave as it likes.
std::atomic_flag busy = ATOMIC_FLAG_INIT;
kdzk_host_error_route* first_route = nullptr;  // the latest

class Lock {
 public:
  Lock() {
    while (busy.test_and_set(std::memory_order_acquire)) {
    }
  }
  ~Lock() { busy.clear(std::memory_order_release); }
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;
};

const kdzk_host_error_route* route_of(const void* hctx) {
  const Lock lock;
  const kdzk_host_error_route* route = first_route;
  while (route != nullptr && route->hctx != hctx) route = route->next;
  return route;
}

}  // namespace

void kdzk_host_route_errors(kdzk_host_error_route* route) {
  const Lock lock;
  route->next = first_route;
  first_route = route;
}

void kdzk_host_unroute_errors(kdzk_host_error_route* route) {
  const Lock lock;
  for (kdzk_host_error_route** link = &first_route; *link != nullptr; link = &(*link)->next) {
    if (*link != route) continue;
    *link = route->next;
    return;
  }
}

__attribute__((visibility("default"))) void hostinternalerr(void* hctx, uint64_t word72, const char* message,
                                                            uint64_t) {
  if (const kdzk_host_error_route* const route = route_of(hctx); route != nullptr) {
    route->handler(route, word72, message);
    return;
  }
  std::fprintf(stderr, "kdzk: internal error: %s\n", message);
  std::abort();
}

// SPDX-License-Identifier: Apache-2.0
//
// The kernel library, opened at run time.
#ifndef KDZK_EXAMPLES_ASK_LIBRARY_H
#define KDZK_EXAMPLES_ASK_LIBRARY_H

#include <kdzk/host/loader.h>

#include <string>

namespace ask {

class Library {
 public:
  explicit Library(const std::string& path);  // throws Error if it isn't the library that we were built for
  ~Library() { kdzk_host_unload(&library_); }
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;

  const kdzk_specialized_ctx* operator->() const { return library_.ctx; }
  const kdzk_specialized_ctx* ctx() const { return library_.ctx; }

  // Kernels by their ids. Not every id has one.
  const kdzk_kernel& kernel(uint32_t id) const { return library_.ctx->dispatch[id]; }
  bool has(uint32_t id) const { return kernel(id).any != nullptr; }
  const char* name(uint32_t id) const { return kdzk_name_of(library_.ctx, id); }

 private:
  kdzk_host_library library_;
};

}  // namespace ask

#endif

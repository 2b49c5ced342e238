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

  const kdzk_bv_services& bits() const { return library_.ctx->bv64; }

  kdzk_decompress_fn decompressor() const { return library_.ctx->sqzb_decode_x86; }

  // Kernels by a column's kind and an operation. Not every combination exists.
  const kdzk_kernel& kernel(uint8_t kind, uint32_t operation) const {
    return library_.ctx->dispatch[kdzk_id_of_kind(kind, operation)];
  }
  bool has(uint8_t kind, uint32_t operation) const { return kernel(kind, operation).any != nullptr; }
  const char* name(uint8_t kind, uint32_t operation) const {
    return kdzk_name_of(library_.ctx, kdzk_id_of_kind(kind, operation));
  }

 private:
  kdzk_host_library library_;
};

}  // namespace ask

#endif

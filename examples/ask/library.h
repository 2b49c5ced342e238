// SPDX-License-Identifier: Apache-2.0
//
// The kernel library, opened at run time.
#ifndef KDZK_EXAMPLES_ASK_LIBRARY_H
#define KDZK_EXAMPLES_ASK_LIBRARY_H

#include <kdzk/kdzk.h>

#include <string>

namespace ask {

class Library {
 public:
  explicit Library(const std::string& path);  // throws Error if it isn't the library that we were built for
  ~Library();
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;

  const kdzk_bv_services& bits() const { return context_->bv64; }

  kdzk_decompress_fn decompressor() const { return context_->sqzb_decode_x86; }

  // Kernels by a column's kind and an operation. Not every combination exists.
  const kdzk_kernel& kernel(uint8_t kind, uint32_t operation) const {
    return context_->dispatch[kdzk_id_of_kind(kind, operation)];
  }
  bool has(uint8_t kind, uint32_t operation) const { return kernel(kind, operation).any != nullptr; }
  const char* name(uint8_t kind, uint32_t operation) const {
    return kdzk_name_of(context_, kdzk_id_of_kind(kind, operation));
  }

 private:
  void* object_;
  const kdzk_specialized_ctx* context_;
};

}  // namespace ask

#endif

// SPDX-License-Identifier: Apache-2.0
#include "callbacks.h"

#include <cstddef>
#include <cstdio>

namespace ask {
namespace {

// The library, which calls from in between, doesn't expect to be left by an exception.
void* checked(void* memory, const char* comment) {
  if (memory != nullptr) return memory;
  std::fprintf(stderr, "kdzk-ask: out of memory for %s\n", comment);
  std::abort();
}

}  // namespace

Callbacks::Callbacks(const Library& library)
    : library_(library), handle_{this, {}}, env_{&handle_,  nullptr,  alloc,
                                                 tmp_alloc, tmp_free, library.decompressor()} {}

uint32_t Callbacks::rows_of_runs(const kdzk_env* env, kdzk_vec* result, const kdzk_vec* input,
                                 const kdzk_result_report* report) {
  const Library& library = self(env->hctx).library_;
  return static_cast<uint32_t>(library.kernel(burst_kind, KDZK_OP_BURST_RLE).burst(result, input, report));
}

void* Callbacks::alloc(void* handle, void*, uint32_t size, const char* comment, uint32_t, uint32_t alignment,
                       uint64_t tag) noexcept {
  const size_t padded = size_t{size} + KDZK_PADDING;
  const size_t whole_units = (padded + alignment - 1) / alignment * alignment;  // as aligned_alloc wants it
  void* const memory = checked(std::aligned_alloc(alignment, whole_units), comment);
  self(handle).copies_.push_back({std::unique_ptr<void, Free>(memory), reinterpret_cast<void**>(tag)});
  return memory;
}

void* Callbacks::tmp_alloc(void*, uint64_t size, const char* comment, uint32_t, uint32_t, void**) noexcept {
  static_assert(alignof(std::max_align_t) >= 8);  // the largest unit
  return checked(std::malloc(size), comment);
}

void Callbacks::tmp_free(void*, void* scratch, void*) { std::free(scratch); }

void Callbacks::release_all() {
  for (const Copy& copy : copies_) *copy.slot = nullptr;
  copies_.clear();
}

}  // namespace ask

// SPDX-License-Identifier: Apache-2.0
//
// What the kernels ask of the program while they run: memory for decompressed copies of vectors, a decompressor, and,
// for columns stored as runs, rows in place of runs.
#ifndef KDZK_EXAMPLES_ASK_CALLBACKS_H
#define KDZK_EXAMPLES_ASK_CALLBACKS_H

#include <kdzk/kdzk.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <vector>

#include "library.h"

namespace ask {

class Callbacks {
 public:
  explicit Callbacks(const Library& library);
  ~Callbacks() { release_copies(); }
  Callbacks(const Callbacks&) = delete;  // env_ points to this
  Callbacks& operator=(const Callbacks&) = delete;

  const kdzk_env* env() const { return &env_; }

  // Frees the decompressed copies and empties the vectors' slots. To be called between vectors: a copy is made once
  // however many terms of a question need it, and there is never more than a vector of each column.
  void release_copies() {
    if (!copies_.empty()) release_all();
  }

  // For a vector's alloc_tag: tells which slot its copy will be in.
  static uint64_t tag_of(void** slot) { return reinterpret_cast<uint64_t>(slot); }

  // For result_cb: calls the kernel of this kind, which finds a run's rows by the row at which it begins.
  static uint32_t rows_of_runs(const kdzk_env* env, kdzk_vec* result, const kdzk_vec* input,
                               const kdzk_result_report* report);
  static constexpr uint8_t burst_kind = kdzk_kind_of(kdzk_row_of_width(8), KDZK_FAMILY_FURTHER);

 private:
  struct Free {
    void operator()(void* memory) const { std::free(memory); }
  };
  struct Copy {
    std::unique_ptr<void, Free> memory;
    void** slot;
  };
  // What the library hands back. It reads the 72nd word, to pass it on when something fails.
  struct Handle {
    Callbacks* self;
    std::array<uint64_t, 71> further_words;
  };
  static_assert(sizeof(Handle) == 72 * sizeof(uint64_t));

  static Callbacks& self(void* handle) { return *static_cast<Handle*>(handle)->self; }
  static void* alloc(void* handle, void* heap, uint32_t size, const char* comment, uint32_t unit, uint32_t alignment,
                     uint64_t tag) noexcept;
  static void* tmp_alloc(void* handle, uint64_t size, const char* comment, uint32_t unit, uint32_t zero,
                         void** out) noexcept;
  static void tmp_free(void* handle, void* scratch, void* out);
  void release_all();

  const Library& library_;
  Handle handle_;
  kdzk_env env_;
  std::vector<Copy> copies_;
};

}  // namespace ask

#endif

// SPDX-License-Identifier: Apache-2.0
//
// A column in the form that the kernels work on: the host kit's columns, one for each vector of rows, which share a
// dictionary if the form has codes.
#ifndef KDZK_EXAMPLES_ASK_STORE_H
#define KDZK_EXAMPLES_ASK_STORE_H

#include <kdzk/host.h>

#include <algorithm>
#include <memory>
#include <string_view>
#include <vector>

#include "column.h"
#include "library.h"

namespace ask {

constexpr size_t vector_rows = 65536;  // of every vector but a column's last
constexpr size_t vector_words = vector_rows / 64;

inline size_t vectors_of(size_t rows) { return (rows + vector_rows - 1) / vector_rows; }
inline uint32_t rows_of_vector(size_t vector, size_t rows) {
  return static_cast<uint32_t>(std::min(vector_rows, rows - vector * vector_rows));
}

// The kit's memory for decompressed copies and scratch. Copies are kept until they are released, between vectors: one
// is made once however many terms of a question need it, and there is never more than a vector of each column.
class Memory {
 public:
  explicit Memory(const Library& library) { kdzk_host_memory_malloc(&memory_, library.ctx()); }
  ~Memory() { kdzk_host_memory_close(&memory_); }
  Memory(const Memory&) = delete;  // memory_ must not move
  Memory& operator=(const Memory&) = delete;
  const kdzk_env* env() const { return &memory_.env; }
  void release() { kdzk_host_memory_reset(&memory_); }

 private:
  kdzk_host_memory memory_;
};

class Store {
 public:
  struct Vector {
    kdzk_host_column column;
    std::vector<uint8_t> bytes;      // of the column, and KDZK_PADDING behind them
    std::vector<uint64_t> run_bits;  // room for a bit per run
    kdzk_host_bound bound;           // for the kernels
  };

  // Throws Error if there is no such form, if it can't hold the column, or if the library has no kernels for it.
  Store(std::string_view form, const Column& column, const Library& library);

  const Column& column() const { return column_; }
  const char* form() const;
  uint32_t width() const;  // bits of a code or value, at most
  bool is_coded() const { return coder_ != nullptr; }
  bool has_runs() const { return form_ == KDZK_HOST_RUNS; }
  bool has_lengths() const { return form_ == KDZK_HOST_DYNP; }
  bool is_blocked() const { return (form_ & KDZK_HOST_PLAIN_FORMS) == 0; }
  const kdzk_host_dictionary& dictionary() const { return *kdzk_host_coder_dictionary(coder_.get()); }  // if coded

  // Bytes of the rows' codes or values, packed, and what a form that compresses makes of them; 0 for the other forms.
  size_t packed_bytes() const;
  size_t compressed_bytes() const;

  size_t vectors() const { return vectors_.size(); }
  Vector& vector(size_t number) const { return *vectors_[number]; }

  // The id of the kernel that makes bits per row of a vector's bits per run; of a column stored as runs.
  uint32_t burst_kernel(const Vector& vector) const;

  // The codes of all rows, by the decode_unpack kernel; of a column that is coded.
  std::vector<uint32_t> codes() const;

 private:
  struct FreeCoder {
    void operator()(kdzk_host_coder* coder) const { kdzk_host_coder_free(coder); }
  };

  void make_dictionary();
  void add_vector();
  void require_kernels() const;

  const Column& column_;
  const Library& library_;
  uint32_t form_;
  std::unique_ptr<kdzk_host_coder, FreeCoder> coder_;
  std::vector<std::unique_ptr<Vector>> vectors_;  // each of which points to itself
};

}  // namespace ask

#endif

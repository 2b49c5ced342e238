// SPDX-License-Identifier: Apache-2.0
//
// A column in the form that the kernels work on. Each storage form is a subclass, which lays out the rows and gives the
// constants. In all forms the stored values have the order of the ranks, so which kernel calls answer a comparison is
// found here once for all.
#ifndef KDZK_EXAMPLES_ASK_STORE_H
#define KDZK_EXAMPLES_ASK_STORE_H

#include <kdzk/kdzk.h>

#include <algorithm>
#include <memory>
#include <string_view>
#include <vector>

#include "column.h"
#include "library.h"
#include "plan.h"
#include "question.h"

namespace ask {

constexpr size_t vector_rows = 65536;  // of every vector but a column's last

inline size_t vectors_of(size_t rows) { return (rows + vector_rows - 1) / vector_rows; }
inline uint32_t rows_of_vector(size_t vector, size_t rows) {
  return static_cast<uint32_t>(std::min(vector_rows, rows - vector * vector_rows));
}

class Store {
 public:
  struct Vector {
    kdzk_vec input;
    size_t data_bytes;    // that the kernels go through; of a block, decompressed
    size_t length_bytes;  // of what tells where rows lie: lengths, or where runs begin; 0 in forms without
  };

  virtual ~Store() = default;
  Store(const Store&) = delete;  // the vectors point to encoding_
  Store& operator=(const Store&) = delete;

  virtual const char* form() const = 0;
  uint32_t width() const { return encoding_.width; }  // bits of a value, at most
  bool has_runs() const { return (encoding_.flags & KDZK_RLE) != 0; }
  bool is_blocked() const { return (encoding_.flags & KDZK_BLOCKED) != 0; }

  // Bytes of the rows' values, packed, and what a form that compresses makes of them; 0 for the other forms.
  virtual size_t packed_bytes() const { return bytes(); }
  virtual size_t compressed_bytes() const { return 0; }

  const Vector& vector(size_t number) const { return vectors_[number]; }

  // With less than this part of a vector's rows still in question, visiting them one by one is the faster way.
  uint32_t selective_part() const { return selective_part_; }

  Plan plan(const Comparison& comparison) const;
  void require_kernels(const Library& library) const;  // throws Error if it lacks any that a plan may need

 protected:
  // Bytes of a stream that belong to one vector.
  struct Stretch {
    size_t first_byte;
    size_t bytes;
  };

  explicit Store(const Column& column) : column_(column) {}

  const Column& column() const { return column_; }
  size_t bytes() const;  // of the vectors, as Vector has them

  // The value of a rank as the kernels take it.
  virtual Call::Constant constant(uint32_t rank) const = 0;

  // Whether the library has what the form needs beside the kernels of its kind.
  virtual bool helpers_in(const Library&) const { return true; }

  // For the constructors of the forms, in this order. Streams end with KDZK_PADDING bytes and don't move any more once
  // there are vectors.
  void choose_kernels(uint32_t family, uint32_t width);
  Stretch stretch(size_t vector, uint32_t bits) const;  // in a stream with so many bits a row
  Vector& add_vector(Stretch data, Stretch lengths = {});

  kdzk_enc_ctx encoding_{};
  // At one row in 64, a `ge` over all 65,536 rows takes 3.0 us at 2 bits and 5.8 us at 24, a visit 3.0 and 2.8 us
  // (dict; AMD EPYC, family 25; g++ 12).
  uint32_t selective_part_ = 64;
  std::vector<uint8_t> data_;
  std::vector<uint8_t> lengths_;

 private:
  // Plans for the rows whose value's rank is as the name says, NULLs left out; `end` is excluded.
  Plan all_but(uint32_t rank) const;
  Plan before(uint32_t end) const;
  Plan from(uint32_t first) const;
  Plan between(uint32_t first, uint32_t end) const;
  Plan not_between(uint32_t first, uint32_t end) const;
  Plan values(uint32_t operation, uint32_t rank, uint32_t high_rank = 0) const;  // in this relation to the rank

  Plan null() const;
  Plan not_null() const;

  const Column& column_;
  uint8_t value_kind_ = 0;  // the kernels that leave out NULLs, if there are any
  std::vector<Vector> vectors_;
};

// Throws Error if there is no such form, if it can't hold the column, or if the library has no kernels for it.
std::unique_ptr<Store> make_store(std::string_view form, const Column& column, const Library& library);

}  // namespace ask

#endif

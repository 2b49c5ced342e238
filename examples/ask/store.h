// SPDX-License-Identifier: Apache-2.0
//
// A column in the form that the kernels work on. Each storage form is a subclass, which lays out the rows and says by
// which kernel calls a comparison is answered. Today there is one, "dict".
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
  virtual ~Store() = default;
  Store(const Store&) = delete;  // the vectors point to encoding_
  Store& operator=(const Store&) = delete;

  virtual const char* form() const = 0;
  virtual Plan plan(const Comparison& comparison) const = 0;

  uint32_t width() const { return encoding_.width; }  // bits of a row
  size_t bytes() const { return bytes_.size() - KDZK_PADDING; }
  const kdzk_vec& vector(size_t number) const { return vectors_[number]; }

 protected:
  Store() = default;

  kdzk_enc_ctx encoding_{};
  std::vector<uint8_t> bytes_;  // of all rows, and the padding
  std::vector<kdzk_vec> vectors_;
};

// Throws Error if there is no such form, or it can't hold the column.
std::unique_ptr<Store> make_store(std::string_view form, const Column& column, const Library& library);

}  // namespace ask

#endif

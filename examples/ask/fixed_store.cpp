// SPDX-License-Identifier: Apache-2.0
#include "fixed_store.h"

#include <bit>

namespace ask {

// Values of 3 bytes are for the kernels of 32 bits, those of 5 to 7 bytes for those of 64.
FixedStore::FixedStore(const Column& column) : Store(column), keys_(column, name, {Type::whole}) {
  const uint32_t value_bytes = keys_.bytes();
  choose_kernels(KDZK_FAMILY_FIXED, 8 * std::bit_ceil(value_bytes));
  encoding_.flags = KDZK_NUMERIC;
  encoding_.width = static_cast<uint8_t>(8 * value_bytes);

  data_.reserve(column.rows() * value_bytes + KDZK_PADDING);
  for (size_t row = 0; row < column.rows(); row++) {
    const auto value = SortKeys::stored(keys_.of_entry(column.entry_of_row(row)));
    data_.insert(data_.end(), value.begin(), value.begin() + value_bytes);
  }
  data_.insert(data_.end(), KDZK_PADDING, 0);
  for (size_t vector = 0; vector < vectors_of(column.rows()); vector++) add_vector(stretch(vector, encoding_.width));
}

}  // namespace ask

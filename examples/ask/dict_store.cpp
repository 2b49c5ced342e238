// SPDX-License-Identifier: Apache-2.0
#include "dict_store.h"

#include <bit>
#include <cstring>

#include "bit_writer.h"

namespace ask {
namespace {

// The narrowest width that holds the codes and has kernels. An entry's number has 32 bits, so 32 are enough.
uint32_t width_for(uint64_t codes) {
  auto width = static_cast<uint32_t>(codes > 1 ? std::bit_width(codes - 1) : 1);
  while (kdzk_row_of_width(width) == KDZK_NO_ROW_OF_WIDTH) width++;
  return width;
}

}  // namespace

DictStore::DictStore(const Column& column) : Store(column), first_code_(column.nulls() > 0 ? 1 : 0) {
  const uint32_t width = width_for(uint64_t{first_code_} + column.ranks());
  choose_kernels(KDZK_FAMILY_DICT, width);
  encoding_.flags = KDZK_PACKED_DICT;
  encoding_.width = static_cast<uint8_t>(width);

  const size_t rows = column.rows();
  BitWriter codes(width);
  for (size_t row = 0; row < rows; row++) {
    const uint32_t entry = column.entry_of_row(row);
    codes.put(entry == Column::null_entry ? 0 : first_code_ + column.rank_of_entry(entry));
  }
  data_ = codes.finish(KDZK_PADDING);
  for (size_t vector = 0; vector < vectors_of(rows); vector++) add_vector(stretch(vector, width));
}

Call::Constant DictStore::constant(uint32_t rank) const {
  const uint32_t code = first_code_ + rank;
  Call::Constant bytes{};
  std::memcpy(bytes.data(), &code, sizeof code);
  return bytes;
}

}  // namespace ask

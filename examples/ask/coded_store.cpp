// SPDX-License-Identifier: Apache-2.0
#include "coded_store.h"

#include <bit>
#include <cstring>

namespace ask {
namespace {

// The narrowest width that holds the codes and has kernels. An entry's number has 32 bits, so 32 are enough.
uint32_t width_for(uint64_t codes) {
  auto width = static_cast<uint32_t>(codes > 1 ? std::bit_width(codes - 1) : 1);
  while (kdzk_row_of_width(width) == KDZK_NO_ROW_OF_WIDTH) width++;
  return width;
}

}  // namespace

CodedStore::CodedStore(const Column& column, uint32_t further_flags)
    : Store(column), first_code_(column.nulls() > 0 ? 1 : 0) {
  const uint32_t width = width_for(uint64_t{first_code_} + column.ranks());
  choose_kernels(KDZK_FAMILY_DICT, width);
  encoding_.flags = KDZK_PACKED_DICT | further_flags;
  encoding_.width = static_cast<uint8_t>(width);
}

std::vector<uint32_t> CodedStore::codes_of_vector(size_t vector) const {
  std::vector<uint32_t> codes(rows_of_vector(vector, column().rows()));
  for (size_t i = 0; i < codes.size(); i++) {
    const uint32_t entry = column().entry_of_row(vector * vector_rows + i);
    codes[i] = entry == Column::null_entry ? 0 : first_code_ + column().rank_of_entry(entry);
  }
  return codes;
}

Call::Constant CodedStore::constant(uint32_t rank) const {
  const uint32_t code = first_code_ + rank;
  Call::Constant bytes{};
  std::memcpy(bytes.data(), &code, sizeof code);
  return bytes;
}

}  // namespace ask

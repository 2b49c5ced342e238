// SPDX-License-Identifier: Apache-2.0
#include "dict_store.h"

#include <kdzk/host/packed_codes.h>

namespace ask {

DictStore::DictStore(const Column& column) : CodedStore(column) {
  data_.resize(kdzk_host_packed_bytes(column.rows(), width()) + KDZK_PADDING);
  for (size_t vector = 0; vector < vectors_of(column.rows()); vector++) {
    const Stretch place = stretch(vector, width());
    const std::vector<uint32_t> codes = codes_of_vector(vector);
    kdzk_host_pack(codes.data(), codes.size(), width(), &data_[place.first_byte]);
    add_vector(place);
  }
}

}  // namespace ask

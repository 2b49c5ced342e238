// SPDX-License-Identifier: Apache-2.0
#include "blocked_store.h"

#include <kdzk/host/packed_codes.h>
#include <kdzk/host/sqzb.h>

#include <string>

#include "callbacks.h"
#include "error.h"

namespace ask {

BlockedStore::BlockedStore(const Column& column) : CodedStore(column, KDZK_BLOCKED), slots_(vectors_of(column.rows())) {
  std::vector<uint8_t> packed;
  std::vector<Stretch> blocks;
  for (size_t vector = 0; vector < slots_.size(); vector++) {
    const std::vector<uint32_t> codes = codes_of_vector(vector);
    packed.resize(kdzk_host_packed_bytes(codes.size(), width()));
    kdzk_host_pack(codes.data(), codes.size(), width(), packed.data());
    const size_t first_byte = data_.size();
    blocks.push_back({first_byte, append_block(packed)});
  }
  data_.insert(data_.end(), KDZK_PADDING, 0);

  for (size_t vector = 0; vector < slots_.size(); vector++) {
    Vector& added = add_vector(blocks[vector]);
    added.data_bytes = stretch(vector, width()).bytes;
    added.input.decomp_size = static_cast<uint32_t>(added.data_bytes);
    added.input.decomp_slot = &slots_[vector];
    added.input.alloc_tag = Callbacks::tag_of(&slots_[vector]);
  }
}

// The decoder trusts a block, so none gets to it that the check doesn't know to be good.
size_t BlockedStore::append_block(const std::vector<uint8_t>& packed) {
  const auto size = static_cast<uint32_t>(packed.size());
  const size_t first_byte = data_.size();
  const uint64_t room = kdzk_host_sqzb_bound(size, KDZK_HOST_SQZB_ANY_WIDTH);
  data_.resize(first_byte + room);
  uint8_t* const block = &data_[first_byte];
  uint64_t block_size = 0;
  if (kdzk_host_sqzb_write(packed.data(), size, KDZK_HOST_SQZB_ANY_WIDTH, block, room, &block_size) != KDZK_HOST_DONE) {
    throw Error("column " + column().name() + " can't be stored as blocked: no memory to compress it");
  }
  kdzk_host_sqzb_report report{};
  if (kdzk_host_sqzb_check(block, block_size, &report) != KDZK_HOST_DONE || report.decoded_size != size) {
    throw Error("column " + column().name() + " can't be stored as blocked: byte " + std::to_string(report.offset) +
                " of a block is wrong: " + report.reason);
  }
  data_.resize(first_byte + block_size);
  return block_size;
}

}  // namespace ask

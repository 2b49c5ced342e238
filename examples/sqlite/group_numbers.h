// SPDX-License-Identifier: Apache-2.0
//
// Numbers 64-bit keys in the order of their first appearance.
#ifndef KDZK_EXAMPLES_SQLITE_GROUP_NUMBERS_H
#define KDZK_EXAMPLES_SQLITE_GROUP_NUMBERS_H

#include <cstdint>
#include <vector>

namespace packed {

class GroupNumbers {
 public:
  GroupNumbers() : slots_(1024) {}

  uint32_t number_of(uint64_t key) {
    for (size_t slot = first_slot(key);; slot = (slot + 1) & (slots_.size() - 1)) {
      const uint32_t number = slots_[slot];
      if (number == 0) return add(key, slot);
      if (keys_[number - 1] == key) return number - 1;
    }
  }

  const std::vector<uint64_t>& keys() const { return keys_; }  // by number

 private:
  size_t first_slot(uint64_t key) const {
    key *= 0x9e3779b97f4a7c15;  // the upper half is well mixed by a second round
    key = (key ^ key >> 32) * 0x9e3779b97f4a7c15;
    return (key >> 32) & (slots_.size() - 1);
  }

  uint32_t add(uint64_t key, size_t slot) {
    keys_.push_back(key);
    slots_[slot] = static_cast<uint32_t>(keys_.size());
    if (2 * keys_.size() > slots_.size()) grow();
    return static_cast<uint32_t>(keys_.size() - 1);
  }

  void grow() {
    slots_.assign(2 * slots_.size(), 0);
    for (size_t i = 0; i < keys_.size(); i++) {
      size_t slot = first_slot(keys_[i]);
      while (slots_[slot] != 0) slot = (slot + 1) & (slots_.size() - 1);
      slots_[slot] = static_cast<uint32_t>(i + 1);
    }
  }

  std::vector<uint32_t> slots_;  // number + 1, 0: free; a power of two of them, at most half of them taken
  std::vector<uint64_t> keys_;
};

}  // namespace packed

#endif

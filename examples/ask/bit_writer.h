// SPDX-License-Identifier: Apache-2.0
//
// Packs numbers of a few bits each, the first one at the top of the first byte.
#ifndef KDZK_EXAMPLES_ASK_BIT_WRITER_H
#define KDZK_EXAMPLES_ASK_BIT_WRITER_H

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace ask {

class BitWriter {
 public:
  explicit BitWriter(uint32_t bits) : bits_(bits) {}  // of a number, up to 32

  void put(uint32_t number) {
    held_ = held_ << bits_ | number;
    for (held_bits_ += bits_; held_bits_ >= 8; held_bits_ -= 8) {
      bytes_.push_back(static_cast<uint8_t>(held_ >> (held_bits_ - 8)));
    }
  }

  // The whole stream, its last byte filled with zeros, and `padding` zero bytes behind it.
  std::vector<uint8_t> finish(size_t padding) {
    if (held_bits_ > 0) bytes_.push_back(static_cast<uint8_t>(held_ << (8 - held_bits_)));
    bytes_.insert(bytes_.end(), padding, 0);
    return std::move(bytes_);
  }

 private:
  uint32_t bits_;
  uint64_t held_ = 0;       // its lowest bits are not written yet
  uint32_t held_bits_ = 0;  // how many of them
  std::vector<uint8_t> bytes_;
};

}  // namespace ask

#endif

// SPDX-License-Identifier: Apache-2.0
// SQZB blocks in the dullest words: a block as symbols and codes, its bytes, and a decoder that goes bit by bit. And a
// host for the library's decoder, with scratch that ends where the next access faults.
#ifndef TESTS_SUPPORT_SQZB_ORACLE_H
#define TESTS_SUPPORT_SQZB_ORACLE_H

#include <kdzk/kdzk.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "tests/support/host.h"

namespace kdzk_test {

using Bytes = std::vector<uint8_t>;

struct SqzbBlock {
  std::vector<Bytes> symbols;
  std::vector<uint32_t> codes;
  uint8_t format_flags = 2;
  uint16_t aux_count = 0;  // as stored
  uint32_t aux_skip = 4;   // from the first byte of the auxiliary section to the stream
  std::optional<uint32_t> decoded_size;
  uint8_t noise = 0;  // for all that isn't read: reserved bytes, pads, auxiliary sections

  bool has_aux() const { return aux_count > 0 && aux_count < 0x8000; }
  Bytes decoded() const;
  Bytes bytes() const;
};

uint32_t sqzb_code_width(size_t symbols);

// What a well-formed block decodes to, read from its bytes.
Bytes sqzb_plain_decode(std::span<const uint8_t> block);

// A well-formed block with codes of this width. `longest` is the longest symbol's length.
SqzbBlock random_sqzb_block(Random& random, uint32_t width, uint32_t codes, uint32_t longest);

// The callbacks of the decoder. Each scratch buffer ends at a page that faults, but for what its alignment takes.
class SqzbHost {
 public:
  SqzbHost();
  SqzbHost(const SqzbHost&) = delete;

  kdzk_sqzb_ctx ctx{};
  bool leaves_handles = false;  // tmp_alloc writes a handle to the caller's word

  struct Alloc {
    uint64_t size;
    std::string comment;
    uint32_t unit, zero;
    void** out;
    void* out_before;
    void* handle;  // what the word holds afterwards
    void* scratch;
    bool freed;
  };
  std::vector<Alloc> allocs;
  struct Free {
    void *scratch, *out;
  };
  std::vector<Free> frees;
  std::string complaint;  // of the callbacks: a wrong handle, a byte written behind the scratch, ...

  struct Result {
    uint32_t status, written;
    Bytes dst;  // `capacity` bytes
  };
  static constexpr uint32_t not_written = 0xabcdef01;
  static constexpr uint8_t fill = 0xc3;
  // Decodes a block that ends KDZK_PADDING bytes before a page that faults into a destination that ends at one.
  Result decode(std::span<const uint8_t> block, uint32_t capacity, size_t slack = KDZK_PADDING, uint8_t behind = 0xa5);

 private:
  std::vector<std::unique_ptr<GuardedBuffer>> scratch_;
  static void* tmp_alloc(void* hctx, uint64_t size, const char* comment, uint32_t unit, uint32_t zero, void** out);
  static void tmp_free(void* hctx, void* scratch, void* out);
};

}  // namespace kdzk_test

#endif

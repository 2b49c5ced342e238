// SPDX-License-Identifier: Apache-2.0
// A column of up to 64 rows and the records of a call on it, for tests that tell what a page of docs/ says.
#ifndef TESTS_SUPPORT_SMALL_CALL_H
#define TESTS_SUPPORT_SMALL_CALL_H

#include "tests/support/kernel_of.h"
#include "tests/support/streams.h"

namespace kdzk_test {

using Rows = std::vector<uint32_t>;
using Texts = std::vector<std::string>;

struct Call {
  Bytes stream, length_codes;
  uint32_t width;  // the kernel's
  kdzk_enc_ctx enc;
  kdzk_vec input, result;
  kdzk_exec exec{};
  uint64_t bits = ~uint64_t{0};

  Call(Bytes data, uint8_t value_bits, uint32_t nrows, uint32_t flags = KDZK_PACKED_DICT)
      : stream(std::move(data)), width(value_bits), enc{.flags = flags, .width = value_bits} {
    stream.resize(stream.size() + KDZK_PADDING);
    input = {.data = stream.data(), .enc_ctx = &enc, .nrows = nrows};
    result = {.bitvec = &bits, .nrows = nrows};
  }
  Call(const Codes& codes, uint8_t width) : Call(packed(codes, width), width, static_cast<uint32_t>(codes.size())) {}
  Call(const Call&) = delete;

  Call& with_lengths(Bytes codes) {
    length_codes = std::move(codes);
    length_codes.resize(length_codes.size() + KDZK_PADDING);
    input.lengths = length_codes.data();
    return *this;
  }
  kdzk_kernel kernel(uint32_t operation, uint32_t form = KDZK_HOST_FORM_DICT) const {
    return kernel_of(operation, form, width);
  }
  Rows rows() const {
    Rows set;
    for (uint32_t row = 0; row < result.nrows; row++) {
      if ((bits >> row & 1) != 0) set.push_back(row);
    }
    return set;
  }

  Rows compare_stored(uint32_t operation, Bytes constant, uint32_t form = KDZK_HOST_FORM_FIXED, uint8_t length = 0) {
    const kdzk_kargs k{.data = constant.data(), .lengths = &length, .enc_ctx = &enc};
    kernel(operation, form).compare(&result, &input, &k, &exec);
    return rows();
  }
  Rows compare(uint32_t operation, uint32_t code, uint32_t form = KDZK_HOST_FORM_DICT) {
    return compare_stored(operation, bytes_of(Codes{code}), form);
  }
  Rows set(uint64_t codes) {
    const kdzk_vec table{.bitvec = &codes};
    kernel(KDZK_OP_SET).set(&result, &input, &table, &exec);
    return rows();
  }
  Rows unpack(uint32_t room) {
    Codes codes(room);
    exec.flags |= KDZK_EX_UNPACK_WIDE;
    result = {.data = codes.data(), .nrows = room};
    kernel(KDZK_OP_DECODE_UNPACK).decode(&result, &input, &exec);
    codes.resize(result.hits);
    return codes;
  }
  // The symbols of all rows, or of those given; hits stay in `result`.
  Texts symbols(uint32_t operation, Rows of = {}) {
    const size_t count = of.empty() ? input.nrows : of.size();
    std::vector<const char*> addresses(count);
    std::vector<uint16_t> lengths(count), indicators(count);
    exec.ones_vec = of.data();
    exec.ones_vec_size = static_cast<uint32_t>(of.size());
    result = {.data = addresses.data(), .lengths = lengths.data(), .indicators = indicators.data()};
    EXPECT_EQ(kernel(operation).decode(&result, &input, &exec), KDZK_DONE);
    Texts texts;
    for (size_t i = 0; i < count; i++) texts.emplace_back(addresses[i], lengths[i]);
    return texts;
  }
};

// A directory entry's two buckets and room for four more; keys are KDZK_HASH_U32 or hashes, rows numbered from
// `rowbase` unless their ids are given.
struct SmallTable {
  uint8_t buckets[2 * 64] = {}, overflow[4 * 64];
  uint8_t *const table = buckets, *cursor = overflow, *const limit = overflow + sizeof overflow;
  kdzk_htdesc desc;
  kdzk_exec exec{};
  uint64_t pairs[8][2], rowbase = 0;
  kdzk_vec out{.data = pairs, .nrows = 8};

  SmallTable(uint32_t flags, uint8_t top_bit)
      : desc{.flags = flags,
             .bucket_hi = top_bit,
             .dir_hi = top_bit,
             .tables = &table,
             .cursors = &cursor,
             .limits = &limit} {}
  SmallTable(const SmallTable&) = delete;

  static uint64_t hash(const void* key, uint32_t length, uint64_t seed) {
    uint32_t value = 0;
    std::memcpy(&value, key, length);
    return (value + seed) * 0x9e3779b97f4a7c15;
  }
  template <class T>
  uint64_t build(std::vector<T> values, std::vector<uint64_t> row_ids = {}) {
    const kdzk_enc_ctx enc = enc_of<T>(), ids{.flags = row_ids.empty() ? KDZK_IMPLICIT_IDS : 0};
    const kdzk_vec keys{.data = values.data(), .enc_ctx = &enc, .nrows = static_cast<uint32_t>(values.size())};
    const kdzk_vec rows{.data = row_ids.data(), .enc_ctx = &ids, .rowbase = rowbase};
    return library().ht_build(&desc, &keys, &rows, 0, hash, &exec);
  }
  template <class T>
  uint64_t probe(std::vector<T> values) {
    const kdzk_enc_ctx enc = enc_of<T>(), ids{.flags = KDZK_IMPLICIT_IDS};
    const kdzk_vec keys{.data = values.data(), .enc_ctx = &enc, .nrows = static_cast<uint32_t>(values.size())};
    const kdzk_vec rows{.enc_ctx = &ids, .rowbase = rowbase};
    exec = {};
    return library().ht_probe(&out, &keys, &rows, &desc, hash, &exec);
  }
  template <class T>
  static kdzk_enc_ctx enc_of() {
    return {.flags = sizeof(T) == 8 ? KDZK_NUMERIC : KDZK_HASH_U32};
  }
};

// The values of locators of 16 bits in a row store, back to back, and their lengths; as many as there is room for.
struct SmallGather {
  std::vector<uint16_t> locators, lengths;
  kdzk_exec exec{};

  explicit SmallGather(std::vector<uint16_t> of) : locators(std::move(of)), lengths(locators.size()) {
    locators.resize(locators.size() + KDZK_PADDING);
  }
  uint64_t run(const kdzk_rowstore& store, uint64_t room = 64, kdzk_enc_ctx refs = {}) {
    text.assign(room, '\0');
    refs.flags = KDZK_LEN_ARRAY;
    const kdzk_enc_ctx fixed{.flags = KDZK_FIXED_BYTES, .width = 16};
    const kdzk_vec in{.data = locators.data(), .enc_ctx = &fixed, .nrows = static_cast<uint32_t>(lengths.size())};
    const kdzk_vec out{.data = text.data(), .lengths = lengths.data(), .enc_ctx = &refs, .out_size = room};
    return library().ht_gather(&out, &in, &store, &exec);
  }
  std::string text;
};

}  // namespace kdzk_test

#endif

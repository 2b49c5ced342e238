// SPDX-License-Identifier: Apache-2.0

#include "tests/support/value_columns.h"

#include <map>

namespace kdzk_test {

thread_local uint64_t hash_calls = 0;

uint64_t plain_hash(const void* key, uint32_t length, uint64_t seed) {
  hash_calls++;
  uint64_t hash = seed * 31 + length + 0x9e3779b97f4a7c15;
  for (uint32_t i = 0; i < length; i++) hash = (hash ^ static_cast<const uint8_t*>(key)[i]) * 0x100000001b3;
  hash = (hash ^ hash >> 32) * 0xd6e8feb86659fd93;
  return hash ^ hash >> 29;
}

std::string form_name(uint32_t form) {
  const std::map<uint32_t, std::string> names = {{KDZK_FIXED_BYTES, "fixed"},
                                                 {KDZK_PACKED_DICT, "dict"},
                                                 {KDZK_LEN_ARRAY, "len_array"},
                                                 {KDZK_LEN_PREFIXED, "len_prefixed"},
                                                 {KDZK_PTR_LEN, "ptr_len"},
                                                 {KDZK_PAIR16, "pair16"},
                                                 {KDZK_HASH_U32, "u32"},
                                                 {KDZK_NUMERIC, "hashes"},
                                                 {KDZK_KEYED16, "keyed16"},
                                                 {KDZK_KEYED24, "keyed24"},
                                                 {KDZK_LEN_PREFIXED | KDZK_NUMERIC, "records"},
                                                 {KDZK_IMPLICIT_IDS, "implicit"},
                                                 {0, "stored"}};
  return names.at(form);
}

std::vector<Bytes> random_values(uint32_t form, uint32_t n, uint32_t size, Random& random) {
  std::vector<Bytes> values(n);
  for (Bytes& value : values) {
    const uint64_t kind = random.below(200);
    uint64_t length = kind < 150 ? random.below(12) : kind < 195 ? random.below(70) : random.below(400);
    if (form == KDZK_FIXED_BYTES) length = size;
    if (form == KDZK_HASH_U32) length = 4;
    if (form == KDZK_NUMERIC) length = 8;
    value.resize(length);
    for (uint8_t& byte : value) byte = static_cast<uint8_t>(random.bits());
  }
  return values;
}

ValueColumn::ValueColumn(uint32_t form, const std::vector<Bytes>& values, Random& random, uint32_t dict_width)
    : ValueColumn(
          [this](const Bytes& bytes, size_t slack) { return buffers_.emplace_back(std::span(bytes), slack).data(); },
          form, values, random, dict_width) {}

ValueColumn::ValueColumn(Keep k, uint32_t form, const std::vector<Bytes>& values, Random& random, uint32_t dict_width)
    : keep(std::move(k)) {
  enc.flags = form;
  vec.enc_ctx = &enc;
  vec.nrows = static_cast<uint32_t>(values.size());
  if (form == KDZK_PACKED_DICT) {
    store_dictionary(values, dict_width, random);
    return;
  }
  Bytes data, lengths;
  const bool pointers = form == KDZK_PTR_LEN || form == KDZK_PAIR16;
  // The values that pointers lead to lie in any order.
  std::vector<const uint8_t*> addresses(values.size());
  if (pointers) {
    Bytes heap;
    std::vector<size_t> order(values.size()), at(values.size());
    for (size_t i = 0; i < order.size(); i++) order[i] = i;
    for (size_t i = order.size(); i > 1; i--) std::swap(order[i - 1], order[random.below(i)]);
    for (const size_t i : order) {
      at[i] = heap.size();
      heap.insert(heap.end(), values[i].begin(), values[i].end());
    }
    const uint8_t* const start = keep(heap, 0);
    for (size_t i = 0; i < at.size(); i++) addresses[i] = start + at[i];
  }
  for (size_t i = 0; i < values.size(); i++) {
    const auto length = static_cast<uint16_t>(values[i].size());
    positions_.push_back(form == KDZK_LEN_ARRAY || form == KDZK_LEN_PREFIXED ? data.size() : 0);
    append(lengths, length);
    if (form == KDZK_LEN_PREFIXED || form == KDZK_PAIR16) append(data, length);
    if (form == KDZK_PAIR16) data.insert(data.end(), 6, 0xee);
    if (pointers) {
      append(data, addresses[i]);
    } else {
      data.insert(data.end(), values[i].begin(), values[i].end());
    }
  }
  positions_.push_back(form == KDZK_LEN_ARRAY || form == KDZK_LEN_PREFIXED ? data.size() : 0);
  if (form == KDZK_FIXED_BYTES && !values.empty())  // widths that aren't whole bytes are cut
    enc.width = static_cast<uint8_t>(values[0].size() * 8 + random.below(8));
  const bool exact = pointers || form == KDZK_HASH_U32 || form == KDZK_NUMERIC;
  vec.data = keep(data, exact ? 0 : KDZK_PADDING);
  if (form == KDZK_LEN_ARRAY || form == KDZK_PTR_LEN) vec.lengths = keep(lengths, 0);
}

// Codes of all sizes that the width has; the table and the symbols begin where the smallest of them would be found.
void ValueColumn::store_dictionary(const std::vector<Bytes>& values, uint32_t width, Random& random) {
  const uint64_t codes = std::min<uint64_t>(values.size() + 1, uint64_t{1} << width);
  const uint64_t first_code = random.below((uint64_t{1} << width) - codes + 1);
  const uint32_t first_offset = static_cast<uint32_t>(random.below(3) * 0x7000fff0);
  Bytes symbols, offsets, data((values.size() * width + 31) / 32 * 4);
  const auto append_offset = [&] {
    const uint32_t offset = static_cast<uint32_t>(first_offset + symbols.size());
    for (int shift = 24; shift >= 0; shift -= 8) offsets.push_back(static_cast<uint8_t>(offset >> shift));
  };
  append_offset();
  for (size_t i = 0; i < values.size(); i++) {
    const uint64_t code = first_code + i % codes;  // the caller's values repeat after as many as there are codes
    if (i < codes) {
      symbols.insert(symbols.end(), values[i].begin(), values[i].end());
      append_offset();
    }
    for (uint64_t bit = 0; bit < width; bit++) {
      const uint64_t to = i * width + bit;
      data[to / 8] |= static_cast<uint8_t>((code >> (width - 1 - bit) & 1) << (7 - to % 8));
    }
  }
  enc.width = static_cast<uint8_t>(width);
  enc.base = reinterpret_cast<const uint8_t*>(reinterpret_cast<uint64_t>(keep(symbols, 0)) - first_offset);
  enc.offsets = reinterpret_cast<const uint8_t*>(reinterpret_cast<uint64_t>(keep(offsets, 0)) - first_code * 4);
  data.resize((values.size() * width + 7) / 8);
  vec.data = keep(data, KDZK_PADDING);
}

}  // namespace kdzk_test

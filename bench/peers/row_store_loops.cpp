// SPDX-License-Identifier: Apache-2.0

#include "bench/peers/row_store_loops.h"

#include <cstring>

#include "bench/peers/packed.h"

namespace kdzk_bench {
namespace {

struct Entry {
  uint64_t page, reference;
  const uint8_t* at;
  uint32_t length;
};

template <class Each>
void each_entry(const kdzk_rowstore& store, const kdzk_vec& in, const uint64_t* ref_pages, uint64_t ref_bits,
                const Each& each) {
  const auto* const pairs = static_cast<const uint8_t*>(in.data);
  const uint64_t entry_mask = (uint64_t{1} << store.page_lo) - 1, page_mask = (uint64_t{2} << store.page_hi) - 1;
  const uint64_t ref_mask = (uint64_t{1} << ref_bits) - 1;
  const kdzk_rowstore s = store;
  for (uint64_t row = 0, n = in.nrows; row < n; row++) {
    const auto locator = load<uint64_t>(pairs + row * 16 + 8);
    const uint64_t page = (locator & page_mask) >> s.page_lo, entry = locator & entry_mask;
    if (s.flags == KDZK_STORE_PAIRS) {
      const uint8_t* const pair = s.pairs[page] + entry * 16;
      const auto* const at = load<const uint8_t*>(pair + 8);
      each(row, Entry{page, reinterpret_cast<uint64_t>(at) & ref_mask, at, load<uint16_t>(pair)});
    } else if (s.flags == KDZK_STORE_REFS) {
      const auto word = load<uint64_t>(s.refs[page] + entry * 8);
      const uint64_t reference = word >> 16 & ref_mask;
      const auto* const at =
          ref_pages == nullptr ? nullptr : reinterpret_cast<const uint8_t*>(ref_pages[0] + reference);
      each(row, Entry{0, reference, at, static_cast<uint16_t>(word)});
    } else {
      const uint8_t* const offsets = s.offsets[page] + entry * 4;
      const auto start = load<uint32_t>(offsets), end = load<uint32_t>(offsets + 4);
      const uint64_t address = s.bases[page] + start;
      each(row, Entry{page, address & ref_mask, reinterpret_cast<const uint8_t*>(address), end - start});
    }
  }
}

template <class ValueAt>
void fill(uint64_t n, uint8_t* pairs, uint64_t stride, const ValueAt& next) {
  for (uint64_t row = 0; row < n; row++, pairs += stride) {
    const auto [at, length] = next(row);
    std::memcpy(pairs, &length, 2);
    std::memcpy(pairs + 8, &at, 8);
  }
}

struct Pair {
  const uint8_t* at;
  uint16_t length;
};

}  // namespace

void gather_values(const kdzk_rowstore& store, const kdzk_vec& in, const uint64_t* ref_pages, uint64_t ref_bits,
                   uint8_t* data, uint16_t* lengths) {
  if (lengths == nullptr) {
    const uint64_t size = store.width / 8;
    each_entry(store, in, ref_pages, ref_bits, [&](uint64_t, const Entry& entry) {
      std::memcpy(data, entry.at, size);
      data += size;
    });
  } else {
    each_entry(store, in, ref_pages, ref_bits, [&](uint64_t row, const Entry& entry) {
      std::memcpy(data, entry.at, entry.length);
      lengths[row] = static_cast<uint16_t>(entry.length);
      data += entry.length;
    });
  }
}

void gather_words(const kdzk_rowstore& store, const kdzk_vec& in, uint64_t ref_bits, uint64_t* words) {
  each_entry(store, in, nullptr, ref_bits, [&](uint64_t row, const Entry& entry) {
    words[row] = ((entry.page << ref_bits) + entry.reference) << 16 | static_cast<uint16_t>(entry.length);
  });
}

void fill_from_lengths(const kdzk_vec& col, uint8_t* pairs, uint64_t stride) {
  const auto* at = static_cast<const uint8_t*>(col.data);
  const auto* const lengths = static_cast<const uint8_t*>(col.lengths);
  fill(col.nrows, pairs, stride, [&](uint64_t row) {
    const Pair pair = {at, load<uint16_t>(lengths + row * 2)};
    at += pair.length;
    return pair;
  });
}

void fill_from_prefixes(const kdzk_vec& col, uint8_t* pairs, uint64_t stride) {
  const auto* at = static_cast<const uint8_t*>(col.data);
  fill(col.nrows, pairs, stride, [&](uint64_t) {
    const Pair pair = {at + 2, load<uint16_t>(at)};
    at += 2 + pair.length;
    return pair;
  });
}

uint8_t* pack_values(const uint8_t* pairs, uint32_t nrows, uint32_t ncols, bool whole_rows, uint8_t* data,
                     const uint8_t* limit, uint32_t* offsets) {
  uint32_t offset = 0;
  *offsets++ = 0;
  for (uint32_t row = 0; row < nrows; row++) {
    for (uint32_t column = 0; column < ncols; column++, pairs += 16) {
      const auto length = load<uint16_t>(pairs);
      if (limit - data < length + 2) return data;
      if (whole_rows) {
        std::memcpy(data, &length, 2);
        data += 2;
        offset += 2;
      }
      std::memcpy(data, load<const uint8_t*>(pairs + 8), length);
      data += length;
      offset += length;
      if (!whole_rows) *offsets++ = offset;
    }
    if (whole_rows) *offsets++ = offset;
  }
  return data;
}

}  // namespace kdzk_bench

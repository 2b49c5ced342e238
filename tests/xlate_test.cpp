// SPDX-License-Identifier: Apache-2.0
// Translation kernels, every index, element form and `_c2d`, against rows looked up one by one; and the kernels that
// add looked-up elements to group keys.

#include <gtest/gtest.h>

#include <memory>
#include <optional>

#include "tests/support/streams.h"

namespace kdzk_test {
namespace {

struct Kernel {
  std::string index, form;
  bool c2d;

  uint32_t row() const { return form == "bit" ? 0 : form == "nib" ? 1 : form == "ub1" ? 2 : form == "ub2" ? 3 : 4; }
  uint32_t bits() const { return row() == 0 ? 1 : 2u << row(); }
  uint32_t none() const { return ~0u >> (32 - bits()); }
  std::string name() const { return "kdzk_xlate_" + index + "_" + form + (c2d ? "_c2d" : ""); }
  uint32_t id() const {
    return (row() + (c2d ? 32 : 0)) * 128 + (index == "sim" ? 17 : index == "off" ? 49 : index == "ind" ? 81 : 113);
  }
  size_t bytes_of(uint64_t elements) const { return (elements * bits() + 7) / 8; }
  uint32_t get(const uint8_t* at, uint64_t i) const {
    if (bits() == 1) return at[i / 8] >> i % 8 & 1;
    if (bits() == 4) return i % 2 == 0 ? at[i / 2] & 15 : at[i / 2] >> 4;
    uint32_t value = 0;
    std::memcpy(&value, at + bytes_of(i), bits() / 8);
    return value;
  }
  void put(uint8_t* at, uint64_t i, uint32_t value) const {
    if (bits() == 1) at[i / 8] = static_cast<uint8_t>((at[i / 8] & ~(1 << i % 8)) | value << i % 8);
    if (bits() == 4)
      at[i / 2] = static_cast<uint8_t>(i % 2 == 0 ? (at[i / 2] & 0xf0) | value : (at[i / 2] & 15) | value << 4);
    if (bits() >= 8) std::memcpy(at + bytes_of(i), &value, bits() / 8);
  }
};

std::vector<Kernel> kernels() {
  std::vector<Kernel> all;
  for (const char* index : {"sim", "off", "ind"})
    for (const char* form : {"bit", "nib", "ub1", "ub2", "ub4"})
      for (const bool c2d : {false, true})
        if (!c2d || std::string(form) != "bit") all.push_back({index, form, c2d});
  return all;
}

// A table that ends where the next access faults, or pages that each do.
struct Table {
  const Kernel kernel;
  uint32_t entries, base = 0;
  std::vector<std::unique_ptr<GuardedBuffer>> pages;  // null if missing
  std::unique_ptr<GuardedBuffer> directory;
  kdzk_enc_ctx enc{};
  kdzk_vec vec{};

  // Elements: `none` in as many percent, otherwise any other, most often the one next to it. A page has `page`
  // elements.
  Table(const Kernel& k, uint32_t n, unsigned percent_none, unsigned percent_missing, uint32_t page, Random& random)
      : kernel(k), entries(n) {
    const bool paged = k.index == "ind";
    if (k.index == "off") base = static_cast<uint32_t>(random.bits()) | 1;
    if (!paged) page = n;
    std::vector<uint8_t*> addresses;
    for (uint32_t first = 0; first < n; first += page) {
      const uint32_t here = std::min(page, n - first);
      pages.push_back(nullptr);
      if (!paged || random.below(100) >= percent_missing) {
        pages.back() = std::make_unique<GuardedBuffer>(k.bytes_of(here));
        for (uint32_t i = 0; i < here; i++) {
          const bool none = random.below(100) < percent_none;
          const uint32_t other =
              k.bits() == 1 || random.below(2) == 0 ? k.none() - 1 : static_cast<uint32_t>(random.below(k.none()));
          k.put(pages.back()->data(), i, none ? k.none() : other);
        }
      }
      addresses.push_back(pages.back() ? pages.back()->data() : nullptr);
    }
    directory = std::make_unique<GuardedBuffer>(kdzk_test::bytes_of(addresses), 0u);
    enc.xlate_base = base;
    while (1u << enc.page_shift < page) enc.page_shift++;
    enc.page_mask = page - 1;
    vec.bitvec = reinterpret_cast<uint64_t*>(paged ? directory->data() : pages[0]->data());
    if (paged) vec.enc_ctx = &enc;
  }

  uint32_t element(uint32_t entry) const {
    const uint32_t page = kernel.index == "ind" ? enc.page_mask + 1 : entries;
    return pages[entry / page] ? kernel.get(pages[entry / page]->data(), entry % page) : kernel.none();
  }
};

class Xlate : public testing::TestWithParam<Kernel> {
 protected:
  void SetUp() override { ASSERT_STREQ(kdzk_name_of(&library(), GetParam().id()), GetParam().name().c_str()); }
  Random random{GetParam().name()};

  // One call, and all that it wrote, beside rows evaluated one by one.
  void expect_rows(const Table& table, uint32_t start, uint32_t nrows, bool garbage, std::optional<unsigned> selected) {
    const Kernel& k = GetParam();
    const Case now(Message() << k.name() << ", rows " << start << " to " << nrows << ", selecting "
                             << (selected ? int(*selected) : -1) << " %",
                   random);
    Codes entries(nrows), stored;
    for (uint32_t& entry : entries) {
      entry = static_cast<uint32_t>(random.below(table.entries));
      stored.push_back(entry + table.base);
    }
    GuardedBuffer codes(big_endian(stored), 0);  // no byte behind the last code is needed
    GuardedBits bits(nrows, garbage ? random.bits() : 0);
    kdzk_hit_range range;
    GuardedBuffer map(random_bytes(k.c2d ? k.bytes_of(nrows) : 0, random), 0);
    const auto rows = selected ? random.rows(nrows, *selected) : std::vector<bool>(nrows, true);
    GuardedBits selection(rows, random.bits());

    Bytes want_map(map.data(), map.data() + map.size());
    std::vector<bool> want_bits = bits.rows();
    const uint64_t behind = nrows % 64 == 0 ? 0 : bits.word(nrows / 64);
    uint32_t want_hits = 0;
    kdzk_hit_range want_range = {~0u, ~0u};
    const uint32_t head_end = std::min((start + 7) / 8 * 8, nrows),
                   blocks_end = head_end + (nrows - head_end) / 16 * 16;
    for (uint32_t row = start; row < nrows; row++) {
      if (!rows[row]) continue;
      const uint32_t value = table.element(entries[row]);
      if (k.c2d) k.put(want_map.data(), row, value);
      if (value == k.none()) continue;
      if (!selected && row >= head_end && row < blocks_end) {  // the first hit of a block replaces what was there
        const uint32_t block = head_end + (row - head_end) / 16 * 16;
        if (want_range.last == ~0u || want_range.last < block) std::fill_n(want_bits.begin() + block, 16, false);
      }
      want_bits[row] = true;
      want_hits++;
      want_range.first = std::min(want_range.first, row);
      want_range.last = row;
    }

    kdzk_enc_ctx enc{};
    enc.flags = KDZK_NUMERIC | KDZK_BLOCKED;  // the second isn't looked at
    enc.width = 32;
    kdzk_vec input{.data = codes.data(), .enc_ctx = &enc, .nrows = nrows};
    kdzk_vec result{.data = &range, .bitvec = bits.words(), .hits = 4711};
    kdzk_exec exec{.selection = selected ? selection.words() : nullptr,
                   .start_row = start,
                   .xlate_info = k.index == "off" ? &table.enc : nullptr,
                   .xlate_map = k.c2d ? map.data() : nullptr};
    exec.flags = selected ? 0 : KDZK_EX_SELECTIVE;  // plays no part
    exec.out_flags2 = 0x40;
    kdzk_exec want_exec = exec;
    want_exec.out_flags2 |= selected ? 1 : 0;
    EXPECT_EQ(library().dispatch[k.id()].xlate(&result, &input, &table.vec, &exec),
              want_hits > 0 ? KDZK_DONE : KDZK_NO_ROW);
    EXPECT_EQ(result.hits, want_hits);
    EXPECT_TRUE(same_bytes(range, want_range)) << range.first << " to " << range.last;
    expect_bits(bits, want_bits, behind);
    EXPECT_EQ(contents(map), want_map);
    EXPECT_TRUE(same_bytes(exec, want_exec));
  }
};

TEST_P(Xlate, AgreesWithRowsLookedUpOneByOne) {
  for (const unsigned percent_none : {0u, 3u, 50u, 97u, 100u}) {
    for (const unsigned percent_missing : {0u, 5u, 50u, 100u}) {
      if (GetParam().index != "ind" && percent_missing > 0) continue;
      const Table table(GetParam(), 1003, percent_none, percent_missing, 64, random);
      for (const uint32_t nrows : {0u, 1u, 5u, 6u, 15u, 16u, 17u, 40u, 64u, 65u, 130u, 777u}) {
        for (const uint32_t start : {0u, 1u, 5u, 7u, 8u, 13u, 16u, 24u, 64u, nrows}) {
          if (start > nrows) continue;
          for (const bool garbage : {false, true}) {
            expect_rows(table, start, nrows, garbage, std::nullopt);
            for (const unsigned percent : {0u, 4u, 60u, 100u}) expect_rows(table, start, nrows, garbage, percent);
            if (HasFailure()) return;
          }
        }
      }
    }
  }
}

// Pages of one element: the page is the code itself. One page for all: the index is. And a table of one element.
TEST_P(Xlate, TakesPagesOfAnySize) {
  for (const uint32_t page : {1u, 2u, 128u, 1024u}) {
    expect_rows(Table(GetParam(), 600, 40, 30, page, random), 3, 300, true, std::nullopt);
    expect_rows(Table(GetParam(), 600, 40, 30, page, random), 3, 300, true, 50);
  }
  expect_rows(Table(GetParam(), 1, 0, 0, 1, random), 0, 100, false, std::nullopt);
}

TEST_P(Xlate, RefusesOtherFormsUntouched) {
  const Table table(GetParam(), 8, 0, 0, 8, random);
  for (const int width : {-1, 0, 8, 16, 31, 33, 64}) {  // -1: not even numeric
    const uint64_t word = 1;
    for (const uint64_t* const selection : {&word, static_cast<const uint64_t*>(nullptr)}) {
      kdzk_enc_ctx enc{.flags = width < 0 ? KDZK_PACKED_DICT : KDZK_NUMERIC};
      enc.width = static_cast<uint8_t>(std::abs(width) * (width < 0 ? 32 : 1));
      kdzk_vec input{.enc_ctx = &enc, .nrows = 40}, result{.hits = 4711};
      kdzk_exec exec{.selection = selection, .xlate_info = &table.enc};
      EXPECT_EQ(library().dispatch[GetParam().id()].xlate(&result, &input, &table.vec, &exec), KDZK_UNSUPPORTED);
      EXPECT_EQ(result.hits, 4711u);
      EXPECT_EQ(exec.out_flags2, 0);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(All, Xlate, testing::ValuesIn(kernels()), [](const auto& info) { return info.param.name(); });

TEST(XlateGroupkey, AddsElementsTimesTheStride) {
  for (const char* form : {"nib", "ub1", "ub2", "ub4"}) {
    const Kernel k = {"groupkey", form, true};
    ASSERT_STREQ(kdzk_name_of(&library(), k.id()), k.name().c_str());
    Random random(k.name());
    const Kernel flat = {"sim", form, true};
    const Table table(flat, 501, 20, 0, 501, random);
    for (uint32_t nrows = 0; nrows < 70; nrows++) {
      for (const uint32_t stride : {0u, 1u, 77777u, 0xfffffff1u}) {
        const Case now(Message() << k.name() << ", " << nrows << " rows, stride " << stride, random);
        Codes rows(nrows), keys_before(nrows), want(nrows);
        for (uint32_t r = 0; r < nrows; r++) {
          rows[r] = static_cast<uint32_t>(random.below(501));
          keys_before[r] = static_cast<uint32_t>(random.bits());
          want[r] = keys_before[r] + table.element(rows[r]) * stride;
        }
        GuardedBuffer codes(bytes_of(rows)), keys(bytes_of(keys_before));
        kdzk_vec input{.data = codes.data(), .nrows = nrows};
        kdzk_vec result{.data = keys.data(), .hits = 4711};
        kdzk_exec exec{.xlate_map = table.pages[0]->data(), .group_stride = stride};
        exec.start_row = 3;  // isn't looked at
        EXPECT_EQ(library().dispatch[k.id()].xlate(&result, &input, nullptr, &exec),
                  nrows > 0 ? KDZK_DONE : KDZK_NO_ROW);
        ASSERT_EQ(contents(keys), bytes_of(want));
        EXPECT_EQ(result.hits, 4711u);
      }
    }
  }
}

}  // namespace
}  // namespace kdzk_test

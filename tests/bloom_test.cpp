// SPDX-License-Identifier: Apache-2.0
// The bloom filter test in its eight leaves, and the host kit's filters, against plain words.

#include <gtest/gtest.h>
#include <kdzk/host/bloom.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "tests/support/host.h"

namespace kdzk_test {
namespace {

struct Leaf {
  int element;  // bytes
  bool paged;
  int selected;  // percent of the rows, or -1 without a selection
  bool large;    // by its mask: the hashes are such that they stay within the first 2^11 bits
};

// One filter, with pages in buffers of their own, and a column.
struct Tested {
  Leaf leaf;
  uint32_t nrows;
  std::vector<std::unique_ptr<GuardedBuffer>> pages;
  GuardedBuffer column, page_table;
  kdzk_enc_ctx filter_enc{}, column_enc{};
  kdzk_vec filter{}, values{};

  // Of 2^11 bits, in pages of 2^8, so many percent of them set.
  Tested(Leaf l, uint32_t n, unsigned percent, Random& random)
      : leaf(l), nrows(n), column(n * static_cast<size_t>(l.element)), page_table(8 * 8) {
    filter_enc.bloom_mask = leaf.large ? ~0u : 0x7ff;
    filter_enc.bloom_paged = leaf.paged ? 0x80 : 0;
    filter_enc.page_shift = leaf.paged ? 32 + 8 : 77;  // taken modulo 32, and not read
    filter_enc.page_mask = leaf.paged ? 0xff : 0x5;
    for (int page = 0; page < (leaf.paged ? 8 : 1); page++) {
      pages.push_back(std::make_unique<GuardedBuffer>(leaf.paged ? 32 : 256));
      for (size_t i = 0; i < pages.back()->size() * 8; i++) {
        uint8_t& byte = pages.back()->data()[i / 8];
        byte = static_cast<uint8_t>((byte & ~(1 << i % 8)) | (random.below(100) < percent) << i % 8);
      }
      const uint8_t* const at = pages.back()->data();
      std::memcpy(page_table.data() + page * 8, &at, 8);
    }
    for (size_t i = 0; i < column.size(); i++) {
      const size_t from_last = column.size() - 1 - i;
      const int kept = !leaf.large || from_last % 4 == 0 ? 0xff : from_last % 4 == 1 ? 0x07 : 0;
      column.data()[i] = static_cast<uint8_t>(random.bits() & kept);
    }
    filter.enc_ctx = &filter_enc;
    filter.bitvec = reinterpret_cast<uint64_t*>(leaf.paged ? page_table.data() : pages[0]->data());
    column_enc.flags = KDZK_NUMERIC;
    column_enc.width = leaf.element == 4 ? 32 : 64;
    values.enc_ctx = &column_enc;
    values.data = column.data();
    values.nrows = nrows;
  }

  bool has(uint32_t row) const {
    const uint8_t* const at = column.data() + row * static_cast<size_t>(leaf.element) + leaf.element - 4;
    uint32_t v = 0;
    for (int i = 0; i < 4; i++) v = v << 8 | at[i];
    v &= filter_enc.bloom_mask;
    const uint32_t page = leaf.paged ? v >> 8 : 0, bit = leaf.paged ? v & filter_enc.page_mask : v;
    return pages[page]->data()[bit / 8] >> bit % 8 & 1;
  }
};

class Bloom : public testing::TestWithParam<Leaf> {};

std::string leaf_name(const testing::TestParamInfo<Leaf>& info) {
  return std::to_string(info.param.element * 8) + "bit" + (info.param.paged ? "_paged" : "_flat") +
         (info.param.large ? "_large" : "") +
         (info.param.selected < 0 ? "" : "_selected_" + std::to_string(info.param.selected));
}

// On a vector full of garbage, too: what is not written stays.
TEST_P(Bloom, AgreesWithThePlainLoop) {
  const Leaf leaf = GetParam();
  Random random(leaf_name({leaf, 0}));
  const uint32_t sizes[] = {0, 1, 5, 8, 15, 16, 17, 31, 40, 63, 64, 65, 128, 255, 256, 257, 272, 512, 600, 2000};
  for (uint32_t nrows : sizes) {
    for (uint32_t start : {0u, 1u, 7u, 8u, 13u, 63u, 64u, 70u, nrows / 2, nrows}) {
      if (start > nrows) continue;
      for (unsigned percent : {0u, 1u, 12u, 60u, 100u}) {
        SCOPED_TRACE(std::to_string(nrows) + " rows from " + std::to_string(start) + ", " + std::to_string(percent) +
                     " % set, seed " + std::to_string(random.seed()));
        now_running("bloom_test, " + leaf_name({leaf, 0}));
        const Tested t(leaf, nrows, percent, random);
        const uint64_t garbage = random.below(2) == 0 ? 0 : random.bits();
        const auto chosen = random.rows(nrows, leaf.selected < 0 ? 0 : static_cast<unsigned>(leaf.selected));
        GuardedBits selection(chosen, random.bits()), bits(nrows, garbage);
        kdzk_hit_range range = {5, 6};
        kdzk_vec result{};
        result.bitvec = bits.words();
        result.data = &range;
        result.hits = 4711;
        kdzk_exec exec{};
        exec.start_row = start;
        exec.selection = leaf.selected < 0 ? nullptr : selection.words();
        exec.flags = static_cast<uint8_t>(random.bits() & KDZK_EX_SELECTIVE);  // plays no part
        exec.out_flags = 0x40;
        const uint64_t returned = library().bloom_test(&result, &t.values, &t.filter, &exec);

        std::vector<bool> want(nrows);
        for (uint32_t r = 0; r < nrows; r++) want[r] = garbage >> r % 64 & 1;
        uint32_t hits = 0;
        kdzk_hit_range span = {~0u, ~0u};
        const auto is_hit = [&](uint32_t r) { return (leaf.selected < 0 || chosen[r]) && t.has(r); };
        for (uint32_t r = start; r < nrows; r++) {
          if (!is_hit(r)) continue;
          hits++;
          if (span.first == ~0u) span.first = r;
          span.last = r;
          want[r] = true;
        }
        for (uint32_t r = (start + 7) / 8 * 8; leaf.selected < 0 && r + 16 <= nrows; r += 16) {
          bool any = false;
          for (uint32_t i = r; i < r + 16; i++) any |= is_hit(i);
          for (uint32_t i = r; any && i < r + 16; i++) want[i] = is_hit(i);
        }
        EXPECT_EQ(returned, hits > 0 ? KDZK_DONE : KDZK_NO_ROW);
        EXPECT_EQ(result.hits, hits);
        EXPECT_EQ(range.first, span.first);
        EXPECT_EQ(range.last, span.last);
        EXPECT_EQ(exec.out_flags, leaf.selected < 0 ? 0x40 : 0x60);
        const auto got = bits.rows();
        const auto first = std::mismatch(want.begin(), want.end(), got.begin()).first;
        EXPECT_EQ(first, want.end()) << "first row that differs: " << first - want.begin();
        if (nrows % 64 != 0) {
          EXPECT_EQ(bits.word(nrows / 64) >> nrows % 64, garbage >> nrows % 64);
        }
        if (HasFailure()) return;
      }
    }
  }
}

std::vector<Leaf> leaves() {
  std::vector<Leaf> all;
  for (int element : {4, 8}) {
    for (bool paged : {false, true}) {
      for (int selected : {-1, 0, 3, 50, 100}) {
        for (bool large : {false, true}) all.push_back({element, paged, selected, large});
      }
    }
  }
  return all;
}
INSTANTIATE_TEST_SUITE_P(Leaves, Bloom, testing::ValuesIn(leaves()), leaf_name);

TEST(BloomTest, RefusesAColumnThatIsNotNumeric) {
  Random random("bloom");
  Tested t({4, false, -1, false}, 64, 100, random);
  t.column_enc.flags = ~KDZK_NUMERIC;
  GuardedBits bits(64, 0x1234);
  kdzk_hit_range range = {5, 6};
  kdzk_vec result{};
  result.bitvec = bits.words();
  result.data = &range;
  result.hits = 7;
  kdzk_exec exec{};
  exec.selection = bits.words();
  EXPECT_EQ(library().bloom_test(&result, &t.values, &t.filter, &exec), KDZK_UNSUPPORTED);
  EXPECT_EQ(bits.word(0), 0x1234u);
  EXPECT_TRUE(range.first == 5 && range.last == 6 && result.hits == 7 && exec.out_flags == 0);
}

TEST(BloomTest, HasOneBitWithAMaskOfZero) {
  Random random("bloom");
  Tested t({8, false, -1, false}, 100, 0, random);
  t.filter_enc.bloom_mask = 0;
  for (const uint8_t first_byte : {0xfe, 0x01}) {
    t.pages[0]->data()[0] = first_byte;
    GuardedBits bits(100, 0);
    kdzk_hit_range range;
    kdzk_vec result{};
    result.bitvec = bits.words();
    result.data = &range;
    kdzk_exec exec{};
    EXPECT_EQ(library().bloom_test(&result, &t.values, &t.filter, &exec), first_byte == 1 ? 0u : 1u);
    EXPECT_EQ(result.hits, first_byte == 1 ? 100u : 0u);
  }
}

TEST(HostBloom, HasTheBitsAskedFor) {
  EXPECT_EQ(kdzk_host_bloom_mask(0, 8), 63u);
  EXPECT_EQ(kdzk_host_bloom_mask(8, 8), 63u);
  EXPECT_EQ(kdzk_host_bloom_mask(9, 8), 127u);
  EXPECT_EQ(kdzk_host_bloom_mask(1, 65), 127u);
  EXPECT_EQ(kdzk_host_bloom_mask(100, 0), 127u);
  EXPECT_EQ(kdzk_host_bloom_mask(uint64_t{1} << 31, 2), ~0u);
  EXPECT_EQ(kdzk_host_bloom_mask(~uint64_t{0}, ~0u), ~0u);
  kdzk_enc_ctx enc{};
  kdzk_host_bloom_shape(&enc, ~0u, 0);
  EXPECT_EQ(kdzk_host_bloom_bytes(&enc), uint64_t{1} << 29);
  kdzk_host_bloom_shape(&enc, ~0u, KDZK_HOST_BLOOM_MAX_PAGE);
  EXPECT_EQ(kdzk_host_bloom_bytes(&enc), KDZK_HOST_BLOOM_MAX_PAGE);
  EXPECT_EQ(kdzk_host_bloom_pages(&enc), 2u);
  kdzk_host_bloom_shape(&enc, 63, 4096);  // a page larger than the filter
  EXPECT_EQ(kdzk_host_bloom_pages(&enc), 1u);
}

// Every key is found again, few others are, and the filter has no more bits than keys.
TEST(HostBloom, FindsItsKeys) {
  Random random("host_bloom");
  for (const uint32_t page_bytes : {0u, KDZK_HOST_BLOOM_MIN_PAGE, 1024u, 1u << 20}) {
    for (const int element : {4, 8}) {
      const uint32_t keys = 3000;
      kdzk_enc_ctx enc{}, column_enc{};
      kdzk_host_bloom_shape(&enc, kdzk_host_bloom_mask(keys, 10), page_bytes);
      std::vector<std::unique_ptr<GuardedBuffer>> pages;
      std::vector<uint64_t> table;
      for (uint32_t page = 0; page < kdzk_host_bloom_pages(&enc); page++) {
        pages.push_back(std::make_unique<GuardedBuffer>(kdzk_host_bloom_bytes(&enc), 0, 0));
        table.push_back(reinterpret_cast<uint64_t>(pages.back()->data()));
      }
      kdzk_vec filter{};
      filter.enc_ctx = &enc;
      filter.bitvec = page_bytes > 0 ? table.data() : reinterpret_cast<uint64_t*>(pages[0]->data());
      std::vector<uint64_t> column(2 * keys);
      for (uint64_t& value : column) value = random.bits();
      if (element == 8) kdzk_host_bloom_add_hashes(&filter, column.data(), keys);
      if (element == 4) kdzk_host_bloom_add_values(&filter, column.data(), keys);
      uint64_t set = 0;
      for (const auto& page : pages) {
        for (size_t i = 0; i < page->size(); i++) set += static_cast<uint64_t>(__builtin_popcount(page->data()[i]));
      }
      EXPECT_LE(set, keys);

      GuardedBits bits(2 * keys, 0);
      kdzk_hit_range range;
      kdzk_vec values{}, result{};
      column_enc.flags = KDZK_NUMERIC;
      column_enc.width = static_cast<uint8_t>(element * 8);
      values.enc_ctx = &column_enc;
      values.data = column.data();
      values.nrows = 2 * keys;
      result.bitvec = bits.words();
      result.data = &range;
      kdzk_exec exec{};
      EXPECT_EQ(library().bloom_test(&result, &values, &filter, &exec), 0u);
      for (uint32_t row = 0; row < keys; row++) ASSERT_TRUE(bits.row(row)) << row;
      EXPECT_EQ(range.first, 0u);
      EXPECT_LT(result.hits, keys + keys / 5);
    }
  }
}

}  // namespace
}  // namespace kdzk_test

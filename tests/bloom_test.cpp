// SPDX-License-Identifier: Apache-2.0
// The bloom filter test in its eight leaves, and the host kit's filters, against plain words.

#include <gtest/gtest.h>
#include <kdzk/host/bloom.h>

#include <memory>

#include "tests/support/streams.h"

namespace kdzk_test {
namespace {

struct Leaf {
  uint32_t element;  // bytes
  bool paged;
  int selected;   // percent of the rows, or -1 without a selection
  uint32_t mask;  // with all bits, the hashes are such that they stay within the first 2^11
};

// A column, tested against a filter, and the records of a call.
struct BloomCall {
  GuardedBits bits;
  kdzk_hit_range range = {5, 6};
  kdzk_enc_ctx filter_enc{}, column_enc;
  kdzk_vec filter{.enc_ctx = &filter_enc}, values, result{.data = &range, .bitvec = bits.words(), .hits = 4711};
  kdzk_exec exec{};

  BloomCall(uint32_t element, uint32_t nrows, uint64_t garbage)
      : bits(nrows, garbage),
        column_enc{.flags = KDZK_NUMERIC, .width = static_cast<uint8_t>(element * 8)},
        values{.enc_ctx = &column_enc, .nrows = nrows} {}
  BloomCall(const BloomCall&) = delete;
  uint64_t call() { return library().bloom_test(&result, &values, &filter, &exec); }
};

// One filter, with pages in buffers of their own, and a column.
struct Tested : BloomCall {
  Leaf leaf;
  std::vector<std::unique_ptr<GuardedBuffer>> pages;
  GuardedBuffer column, page_table;

  // Of 2^11 bits, in pages of 2^8, so many percent of them set.
  Tested(Leaf l, uint32_t n, unsigned percent, Random& random, uint64_t garbage)
      : BloomCall(l.element, n, garbage),
        leaf(l),
        column(random_bytes(size_t{n} * l.element, random), 0),
        page_table(8 * 8) {
    filter_enc.bloom_mask = leaf.mask;
    filter_enc.bloom_paged = leaf.paged ? 0x80 : 0;
    filter_enc.page_shift = leaf.paged ? 32 + 8 : 77;  // taken modulo 32, and not read
    filter_enc.page_mask = leaf.paged ? 0xff : 0x5;
    for (int page = 0; page < (leaf.paged ? 8 : 1); page++) {
      pages.push_back(std::make_unique<GuardedBuffer>(leaf.paged ? 32 : 256, 0, 0));
      uint8_t* const at = pages.back()->data();
      for (size_t i = 0; i < pages.back()->size() * 8; i++)
        at[i / 8] = static_cast<uint8_t>(at[i / 8] | (random.below(100) < percent) << i % 8);
      std::memcpy(page_table.data() + page * 8, &at, 8);
    }
    for (size_t i = 0; i < column.size() && leaf.mask == ~0u; i++)
      column.data()[i] &= i % 4 == 3 ? 0xff : i % 4 == 2 ? 0x07 : 0;
    filter.bitvec = reinterpret_cast<uint64_t*>(leaf.paged ? page_table.data() : pages[0]->data());
    values.data = column.data();
  }

  bool has(uint32_t row) const {
    const uint8_t* const at = column.data() + size_t{row + 1} * leaf.element - 4;
    const uint32_t v = (at[0] << 24u | at[1] << 16 | at[2] << 8 | at[3]) & filter_enc.bloom_mask;
    const uint32_t page = leaf.paged ? v >> 8 : 0, bit = leaf.paged ? v & filter_enc.page_mask : v;
    return pages[page]->data()[bit / 8] >> bit % 8 & 1;
  }
};

class Bloom : public testing::TestWithParam<Leaf> {};

std::string leaf_name(const testing::TestParamInfo<Leaf>& info) {
  return std::to_string(info.param.element * 8) + "bit" + (info.param.paged ? "_paged" : "_flat") + "_mask_" +
         std::to_string(info.param.mask) +
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
        const Case now(Message() << nrows << " rows from " << start << ", " << percent << " % set", random);
        const uint64_t garbage = random.below(2) == 0 ? 0 : random.bits();
        Tested t(leaf, nrows, percent, random, garbage);
        const auto chosen = random.rows(nrows, leaf.selected < 0 ? 0 : static_cast<unsigned>(leaf.selected));
        GuardedBits selection(chosen, random.bits());
        t.exec.start_row = start;
        t.exec.selection = leaf.selected < 0 ? nullptr : selection.words();
        t.exec.flags = static_cast<uint8_t>(random.bits() & KDZK_EX_SELECTIVE);  // plays no part
        t.exec.out_flags = 0x40;

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
        EXPECT_EQ(t.call(), hits > 0 ? KDZK_DONE : KDZK_NO_ROW);
        EXPECT_EQ(t.result.hits, hits);
        EXPECT_TRUE(same_bytes(t.range, span)) << t.range.first << " to " << t.range.last;
        EXPECT_EQ(t.exec.out_flags, leaf.selected < 0 ? 0x40 : 0x60);
        expect_bits(t.bits, want, garbage);
        if (HasFailure()) return;
      }
    }
  }
}

std::vector<Leaf> leaves() {
  std::vector<Leaf> all;
  for (uint32_t element : {4, 8})
    for (bool paged : {false, true})
      for (int selected : {-1, 0, 3, 50, 100})
        for (uint32_t mask : {0u, 0x7ffu, ~0u}) all.push_back({element, paged, selected, mask});
  return all;
}
INSTANTIATE_TEST_SUITE_P(Leaves, Bloom, testing::ValuesIn(leaves()), leaf_name);

TEST(BloomTest, RefusesAColumnThatIsNotNumeric) {
  Random random("bloom");
  Tested t({4, false, -1, 0x7ff}, 64, 100, random, 0x1234);
  t.column_enc.flags = ~KDZK_NUMERIC;
  t.exec.selection = t.bits.words();
  EXPECT_EQ(t.call(), KDZK_UNSUPPORTED);
  EXPECT_EQ(t.bits.word(0), 0x1234u);
  EXPECT_TRUE(t.range.first == 5 && t.range.last == 6 && t.result.hits == 4711 && t.exec.out_flags == 0);
}

TEST(HostBloom, HasTheBitsAskedFor) {
  const struct {
    uint64_t keys;
    uint32_t bits_each, mask;
  } masks[] = {{0, 8, 63},    {8, 8, 63},           {9, 8, 127},      {1, 65, 127},
               {100, 0, 127}, {1ull << 31, 2, ~0u}, {~0ull, ~0u, ~0u}};
  for (const auto& [keys, bits_each, mask] : masks) EXPECT_EQ(kdzk_host_bloom_mask(keys, bits_each), mask) << keys;
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
    for (const uint32_t element : {4u, 8u}) {
      const uint32_t keys = 3000;
      BloomCall t(element, 2 * keys, 0);
      kdzk_host_bloom_shape(&t.filter_enc, kdzk_host_bloom_mask(keys, 10), page_bytes);
      std::vector<std::unique_ptr<GuardedBuffer>> pages;
      std::vector<uint8_t*> table;
      for (uint32_t page = 0; page < kdzk_host_bloom_pages(&t.filter_enc); page++) {
        pages.push_back(std::make_unique<GuardedBuffer>(kdzk_host_bloom_bytes(&t.filter_enc), 0, 0));
        table.push_back(pages.back()->data());
      }
      t.filter.bitvec =
          reinterpret_cast<uint64_t*>(page_bytes > 0 ? reinterpret_cast<uint8_t*>(table.data()) : table[0]);
      std::vector<uint64_t> column(2 * keys);
      for (uint64_t& value : column) value = random.bits();
      if (element == 8) kdzk_host_bloom_add_hashes(&t.filter, column.data(), keys);
      if (element == 4) kdzk_host_bloom_add_values(&t.filter, column.data(), keys);
      int set = 0;
      for (const auto& page : pages)
        for (size_t i = 0; i < page->size(); i++) set += __builtin_popcount(page->data()[i]);
      EXPECT_LE(set, int{keys});

      t.values.data = column.data();
      EXPECT_EQ(t.call(), KDZK_DONE);
      for (uint32_t row = 0; row < keys; row++) ASSERT_TRUE(t.bits.row(row)) << row;
      EXPECT_EQ(t.range.first, 0u);
      EXPECT_LT(t.result.hits, keys + keys / 5);
    }
  }
}

}  // namespace
}  // namespace kdzk_test

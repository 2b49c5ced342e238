// SPDX-License-Identifier: Apache-2.0
// Group keys of one to five columns of mixed widths, plain and run-length, in both modes, by calls that stop at every
// capacity, against keys computed row by row.

#include <gtest/gtest.h>

#include <memory>

#include "tests/support/sqzb_oracle.h"
#include "tests/support/streams.h"

namespace kdzk_test {
namespace {

struct Column {
  uint32_t width, dict_size;
  bool runs;
  Codes codes;  // of each row
  Bytes data, lengths;
};

Column random_column(Random& random, uint32_t width, uint32_t dict_size, bool runs, uint32_t nrows) {
  Column column = {width, dict_size, runs, {}, {}, {}};
  Codes stored;
  while (column.codes.size() < nrows) {
    stored.push_back(static_cast<uint32_t>(random.below(dict_size)));
    uint64_t rows = 1;
    if (runs) {
      rows = std::min<uint64_t>(1 + random.below(random.below(2) == 0 ? 3 : 100), nrows - column.codes.size());
      column.lengths.push_back(static_cast<uint8_t>(rows));
    }
    column.codes.insert(column.codes.end(), rows, stored.back());
  }
  column.data = packed(stored, width);
  column.data.resize(column.data.size() + KDZK_PADDING, 0xff);
  return column;
}

struct GroupKey {
  std::vector<Column> columns;
  std::vector<kdzk_enc_ctx> enc;
  std::vector<kdzk_vec> vecs;
  SqzbHost scratch;  // for its scratch
  kdzk_env env{.hctx = &scratch, .tmp_alloc = scratch.ctx.tmp_alloc, .tmp_free = scratch.ctx.tmp_free};
  kdzk_exec exec{.env = &env};
  uint32_t key_count = 4711;

  GroupKey(std::vector<Column> c, bool multiplies) : columns(std::move(c)), enc(columns.size()), vecs(columns.size()) {
    for (size_t i = 0; i < columns.size(); i++) {
      Column& column = columns[i];
      enc[i] = {.kind = static_cast<uint8_t>(dict_kernel_id(column.width, 42) / 128 * 4 + 1),
                .dict_size = column.dict_size,
                .unpack_base = reinterpret_cast<uint64_t>(column.lengths.data()),
                .unpack_width = 8,
                .flags = KDZK_PACKED_DICT | (column.runs ? KDZK_RLE : 0),
                .width = static_cast<uint8_t>(column.width)};
      vecs[i] = {.data = column.data.data(), .enc_ctx = &enc[i], .nrows = static_cast<uint32_t>(column.codes.size())};
    }
    scratch.leaves_handles = true;
    exec.flags = multiplies ? KDZK_EX_GROUP_MUL : 0;
    exec.run = {77, 99};  // not this function's
  }
  GroupKey(const GroupKey&) = delete;

  uint32_t key(uint32_t row) const {
    uint32_t key = columns[0].codes[row];
    for (size_t i = 1; i < columns.size(); i++) {
      key = (exec.flags & KDZK_EX_GROUP_MUL) != 0 ? key * columns[i].dict_size : key << columns[i].width % 32;
      key += columns[i].codes[row];
    }
    return key;
  }

  // One call with room for so many keys and so much scratch, and its keys.
  uint64_t call(uint32_t room, uint32_t batch, Codes& keys) {
    GuardedBuffer out(size_t{room} * 4), temp(size_t{batch} * 4);
    kdzk_vec result{.data = out.data(), .hits = 4711, .nrows = room};
    kdzk_vec temp_vec{.data = temp.data(), .nrows = batch};
    const kdzk_exec before = exec;
    const uint64_t ncols = columns.size() | uint64_t{0xabc} << 32;  // the upper half isn't looked at
    const uint64_t code = library().groupkey_dydi(&result, &key_count, vecs.data(), ncols, &temp_vec, &exec);
    EXPECT_TRUE(same_bytes(before, exec) && scratch.allocs.size() == scratch.frees.size());
    EXPECT_EQ(scratch.complaint, "");
    hits = result.hits;
    const auto* const first = reinterpret_cast<const uint32_t*>(out.data());
    keys.assign(first, first + std::min(hits, room));
    return code;
  }
  uint32_t hits = 0;
};

// Columns whose keys fit in 32 bits either way.
std::vector<Column> random_columns(Random& random, uint32_t n, uint32_t nrows) {
  std::vector<Column> columns;
  uint32_t bits_left = 31;
  for (uint32_t i = 0; i < n; i++) {
    uint32_t width = 1 + static_cast<uint32_t>(random.below(std::min(20u, bits_left - (n - 1 - i))));
    bits_left -= width;
    columns.push_back(random_column(random, width, 1 + static_cast<uint32_t>(random.below(1u << width)),
                                    random.below(2) == 0, nrows));
  }
  return columns;
}

TEST(GroupKeys, AgreeWithKeysComputedRowByRow) {
  Random random("groupkeys");
  for (uint32_t ncols = 1; ncols <= 5; ncols++) {
    for (int round = 0; round < 12; round++) {
      for (const bool multiplies : {false, true}) {
        const uint32_t nrows = 1 + static_cast<uint32_t>(random.below(round < 6 ? 60 : 900));
        GroupKey g(random_columns(random, ncols, nrows), multiplies);
        std::vector<bool> rows(nrows, true);
        std::unique_ptr<GuardedBits> selection;
        if (round % 3 == 2) {
          rows = random.rows(nrows, 30);
          selection = std::make_unique<GuardedBits>(rows, random.bits());
          g.exec.selection = selection->words();
          if (round % 2 == 0) g.exec.flags |= KDZK_EX_SELECTIVE;
        }
        Codes wanted;
        for (uint32_t r = 0; r < nrows; r++) {
          if (rows[r]) wanted.push_back(r);
        }
        for (const uint32_t room : {1u, 2u, 10u, 64u, 1000u}) {
          for (const uint32_t batch : {1u, 3u, 10u, 64u, 500u}) {
            const Case now(
                Message() << ncols << " columns, round " << round << ", room " << room << ", batch " << batch, random);
            size_t done = 0;
            uint64_t code = KDZK_OUTPUT_FULL;
            g.exec.row = 0;
            while (code == KDZK_OUTPUT_FULL) {
              Codes keys, want;
              const size_t first = done;
              code = g.call(room, batch, keys);
              for (uint32_t i = 0; i < g.hits && done < wanted.size(); i++) want.push_back(g.key(wanted[done++]));
              ASSERT_EQ(keys, want);
              const bool rows_left = done < wanted.size() || (done > 0 && g.hits == room && wanted.back() + 1 < nrows);
              ASSERT_EQ(code, g.hits == room && rows_left ? KDZK_OUTPUT_FULL : KDZK_DONE);
              ASSERT_TRUE(code == KDZK_DONE || done > first);
              if (done > 0) g.exec.row = wanted[done - 1] + 1;
            }
            ASSERT_EQ(done, wanted.size());
            const auto& alloc = g.scratch.allocs.back();
            ASSERT_TRUE(alloc.size == ncols * 12 && alloc.unit == 4 && alloc.zero == 0 &&
                        alloc.out_before == alloc.out);
            ASSERT_EQ(alloc.comment, "kdzk_groupkey_dydi: temp column info");
          }
        }
      }
    }
  }
}

// Columns that nothing is decoded of.
GroupKey sized(const std::vector<std::pair<uint32_t, uint32_t>>& sizes_and_widths, bool multiplies) {
  std::vector<Column> columns;
  for (const auto& [size, width] : sizes_and_widths) columns.push_back({width, size, false, {}, {}, {}});
  return GroupKey(std::move(columns), multiplies);
}

TEST(GroupKeys, CountTheirSpace) {
  Codes keys;
  const auto expect = [&](GroupKey g, uint64_t code, uint32_t count) {
    EXPECT_EQ(g.call(5, 5, keys), code);
    EXPECT_EQ(g.key_count, count);
    EXPECT_EQ(g.hits, code == KDZK_DONE ? 0u : 4711u);
    EXPECT_EQ(g.scratch.allocs.size(), code == KDZK_DONE ? 1u : 0u);
  };
  expect(sized({{65536, 16}, {65536, 16}}, true), KDZK_KEYS_TOO_MANY, 4711);
  expect(sized({{65536, 16}, {65535, 16}}, true), KDZK_DONE, 4294901760);
  expect(sized({{3, 2}, {5, 3}}, false), KDZK_DONE, 21);
  expect(sized({{1, 2}, {4294967295, 32}}, false), KDZK_DONE, 4294967295);
  expect(sized({{2, 2}, {1, 32}}, false), KDZK_KEYS_TOO_MANY, 4711);
  expect(sized({{0, 2}, {5, 3}}, false), KDZK_KEYS_TOO_MANY, 4711);
  expect(sized({{0, 2}}, false), KDZK_DONE, 0);
  expect(sized({{0, 2}, {5, 3}}, true), KDZK_DONE, 0);
  for (const int unpacked : {0, 1, 2}) {  // an overflow at the second column goes before the third one's form
    GroupKey g = sized({{65536, 16}, {65536, 16}, {1, 1}}, true);
    g.enc[static_cast<size_t>(unpacked)].flags = KDZK_NUMERIC;
    EXPECT_EQ(g.call(5, 5, keys), unpacked == 2 ? KDZK_KEYS_TOO_MANY : KDZK_UNSUPPORTED);
    EXPECT_EQ(g.scratch.allocs.size(), 0u);
  }
}

// Nothing to do, nowhere to put it, no scratch; and a width of 32, by which nothing is shifted.
TEST(GroupKeys, StopWithoutKeys) {
  Random random("groupkeys without");
  GroupKey g({random_column(random, 3, 8, false, 25), random_column(random, 4, 16, true, 25)}, true);
  Codes keys;
  EXPECT_EQ(g.call(0, 10, keys), KDZK_OUTPUT_FULL);
  EXPECT_EQ(g.hits, 0u);
  EXPECT_EQ(g.call(10, 0, keys), KDZK_DONE);
  EXPECT_EQ(g.hits, 0u);
  for (const uint32_t row : {25u, 26u, 4294967295u}) {
    g.exec.row = row;
    EXPECT_EQ(g.call(0, 10, keys), KDZK_DONE);
    EXPECT_EQ(g.hits, 0u);
    EXPECT_EQ(g.key_count, 128u);
  }
  EXPECT_EQ(g.scratch.allocs.size(), 5u);
  GroupKey wide({random_column(random, 3, 1, false, 25), random_column(random, 32, 1000, false, 25)}, false);
  EXPECT_EQ(wide.call(25, 10, keys), KDZK_DONE);
  for (uint32_t r = 0; r < 25; r++) EXPECT_EQ(keys[r], wide.columns[1].codes[r]);
}

// Columns of runs behind the 32nd go on in whatever the one before left, so that they must be done in one batch.
TEST(GroupKeys, TakeMoreThan32Columns) {
  Random random("groupkeys of many");
  for (const uint32_t batch : {7u, 300u}) {
    std::vector<Column> columns;
    for (int i = 0; i < 40; i++)
      columns.push_back(random_column(random, 5, i % 9 == 0 ? 4 : 1, i % 2 == 0 && (i < 32 || batch == 300), 300));
    GroupKey g(std::move(columns), true);
    Codes keys, want;
    EXPECT_EQ(g.call(300, batch, keys), KDZK_DONE);
    for (uint32_t r = 0; r < 300; r++) want.push_back(g.key(r));
    EXPECT_EQ(keys, want);
  }
}

}  // namespace
}  // namespace kdzk_test

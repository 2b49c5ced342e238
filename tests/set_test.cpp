// SPDX-License-Identifier: Apache-2.0
// The set kernels, found by their ids as a host finds them, against a plain loop over codes.

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "tests/support/predicate_oracle.h"

namespace kdzk_test {
namespace {

constexpr size_t set_padding = 8;  // readable bytes behind the last code

// A column of codes, a table in `words`, and what a call has to give. `table` is where word 0 would be.
struct Membership {
  int width;
  std::vector<Row> rows;
  GuardedBuffer data;
  const uint64_t* table;
  std::function<bool(uint64_t)> has;
  kdzk_enc_ctx enc{};
  kdzk_vec input{}, set{};

  Membership(int w, std::vector<Row> r, const void* t, std::function<bool(uint64_t)> h)
      : width(w),
        rows(std::move(r)),
        data(stored_data({0, "dict", w, ""}, rows), set_padding),
        table(static_cast<const uint64_t*>(t)),
        has(std::move(h)) {
    input.data = data.data();
    input.enc_ctx = &enc;
    input.nrows = nrows();
    input.filter = reinterpret_cast<const uint64_t*>(8);  // not looked at
    set.bitvec = const_cast<uint64_t*>(table);
  }

  uint32_t nrows() const { return static_cast<uint32_t>(rows.size()); }
  std::string name() const { return "kdzk_set_dict_" + std::to_string(width) + "bit"; }
  uint32_t id() const {
    const int row = width == 24 ? 20 : width == 32 ? 21 : width - 1;
    return static_cast<uint32_t>(row * 128 + 45);
  }
  uint64_t call(kdzk_vec* result, kdzk_exec* exec) const {
    now_running(name() + ", " + std::to_string(rows.size()) + " rows");
    return library().dispatch[id()].set(result, &input, &set, exec);
  }
  std::vector<bool> expected(const std::vector<bool>& selected = {}) const {
    std::vector<bool> want(rows.size());
    for (size_t r = 0; r < rows.size(); r++) want[r] = has(rows[r].value) && (selected.empty() || selected[r]);
    return want;
  }
};

uint32_t count(const std::vector<bool>& rows) { return static_cast<uint32_t>(std::count(rows.begin(), rows.end(), 1)); }

// `behind`: what the last word has behind the last row.
void expect_result(const std::vector<bool>& want, const GuardedBits& got, uint32_t hits, uint64_t returned,
                   uint64_t behind = 0) {
  const auto rows = got.rows();
  const auto first = std::mismatch(want.begin(), want.end(), rows.begin()).first;
  EXPECT_EQ(first, want.end()) << "first row that differs: " << first - want.begin();
  EXPECT_EQ(hits, count(want));
  EXPECT_EQ(returned, count(want) > 0 ? KDZK_DONE : KDZK_NO_ROW);
  if (want.size() % 64 != 0) {
    EXPECT_EQ(got.word(want.size() / 64) >> want.size() % 64, behind >> want.size() % 64);
  }
}

// Calls the kernel on all rows and expects the plain loop's.
void expect_answer(const Membership& m, uint64_t behind = 0) {
  SCOPED_TRACE(m.name() + ", " + std::to_string(m.rows.size()) + " rows");
  GuardedBits bits(m.rows.size());
  kdzk_vec result{};
  result.bitvec = bits.words();
  result.nrows = m.nrows();
  result.hits = 12345;
  const uint64_t returned = m.call(&result, nullptr);
  expect_result(m.expected(), bits, result.hits, returned, behind);
}

std::vector<Row> rows_between(Random& random, uint32_t nrows, uint64_t first, uint64_t span) {
  std::vector<Row> rows(nrows);
  for (Row& row : rows) row.value = first + random.below(span);
  return rows;
}

class Sets : public testing::TestWithParam<int> {
 protected:
  Random random{"set_dict_" + std::to_string(GetParam())};
  const uint64_t codes = uint64_t{1} << GetParam();
  // The lowest 2^14 codes at most, and a table of as many bits.
  const uint64_t low_codes = std::min(codes, uint64_t{1} << 14);
  GuardedBuffer words{std::max<size_t>(low_codes / 8, 8)};

  // A new table with so many percent of the codes, and `nrows` rows.
  Membership column(uint32_t nrows, unsigned percent) {
    const auto in = random.rows(words.size() * 8, percent);
    std::fill_n(words.data(), words.size(), uint8_t{0});
    for (size_t code = 0; code < in.size(); code++)
      words.data()[code / 8] |= static_cast<uint8_t>(in[code] << code % 8);
    return {GetParam(), rows_between(random, nrows, 0, low_codes), words.data(),
            [in](uint64_t code) { return in[code]; }};
  }
  // With 1 bit, the full evaluation leaves ones behind the last row if code 0 is in the set.
  uint64_t behind(const Membership& m) const { return GetParam() == 1 && m.has(0) ? ~uint64_t{0} : 0; }
};

TEST_P(Sets, AgreeWithThePlainLoop) {
  for (uint32_t nrows : {0u, 1u, 7u, 15u, 31u, 32u, 33u, 63u, 64u, 65u, 70u, 127u, 128u, 129u, 191u, 1000u}) {
    for (unsigned percent : {0u, 3u, 50u, 50u, 97u, 100u}) {
      const Membership m = column(nrows, percent);
      ASSERT_STREQ(kdzk_name_of(&library(), m.id()), m.name().c_str());
      expect_answer(m, behind(m));
      if (HasFailure()) return;
    }
  }
  const Membership all = column(1, 50);  // each code by itself
  for (uint64_t code = 0; code < std::min<uint64_t>(codes, 1024); code++) {
    Membership m(GetParam(), std::vector<Row>(64, {code}), all.table, all.has);
    expect_answer(m, 0);
  }
}

// The host may map a window of the table: here one or two words with a page that faults behind them or in front.
TEST_P(Sets, ReadOnlyTheWordsThatCodesAskFor) {
  for (uint64_t window : {1u, 2u}) {
    if (codes < 64 * window) continue;
    for (uint64_t first : {uint64_t{0}, codes / 64 - window, random.below(codes / 64 - window + 1)}) {
      GuardedBuffer page(4096);
      for (size_t i = 0; i < page.size(); i++) page.data()[i] = static_cast<uint8_t>(random.bits());
      for (const uint8_t* at : {page.data(), page.data() + page.size() - window * 8}) {
        const auto has = [=](uint64_t code) { return at[(code - first * 64) / 8] >> code % 8 & 1; };
        const auto* const table = reinterpret_cast<const uint8_t*>(reinterpret_cast<uint64_t>(at) - first * 8);
        expect_answer({GetParam(), rows_between(random, 200, first * 64, window * 64), table, has});
      }
    }
  }
}

// A table across a page boundary, at any address.
TEST_P(Sets, TakeATableThatAPageBoundaryCuts) {
  if (codes > 1024) return;
  GuardedBuffer pages(8192);
  for (size_t i = 0; i < pages.size(); i++) pages.data()[i] = static_cast<uint8_t>(random.bits());
  for (size_t before = 0; before <= words.size(); before++) {
    const uint8_t* const table = pages.data() + 4096 - before;
    const auto has = [=](uint64_t code) { return table[code / 8] >> code % 8 & 1; };
    const uint64_t first = random.below(codes), word = first / 64 * 64;
    for (const auto& rows :
         {rows_between(random, 130, 0, codes), rows_between(random, 130, word, std::min<uint64_t>(codes - word, 64))}) {
      Membership m(GetParam(), rows, table, has);
      expect_answer(m, behind(m));
    }
  }
}

TEST_P(Sets, ApplyTheSelectionOnBothRoads) {
  for (uint32_t nrows : {1u, 64u, 333u}) {
    for (unsigned in_set : {0u, 50u, 50u, 50u, 100u}) {
      for (unsigned percent : {0u, 5u, 60u, 100u}) {
        const Membership m = column(nrows, in_set);
        const auto selected = random.rows(nrows, percent);
        const uint64_t behind_selected = random.bits();
        GuardedBits selection(selected, behind_selected);
        for (const uint8_t flags : {uint8_t{0}, uint8_t{KDZK_EX_SELECTIVE}}) {
          SCOPED_TRACE(m.name() + ", " + std::to_string(nrows) + " rows, flags " + std::to_string(flags));
          kdzk_exec exec{};
          exec.selection = selection.words();
          exec.flags = flags;
          exec.out_flags = 0x40;
          GuardedBits bits(nrows);
          kdzk_vec result{}, input = m.input;
          result.bitvec = bits.words();
          result.nrows = flags == 0 ? nrows : 0xffffffff;
          input.nrows = flags != 0 ? nrows : 0xffffffff;
          const uint64_t returned = library().dispatch[m.id()].set(&result, &input, &m.set, &exec);
          const bool copied = GetParam() == 1 && m.has(0) && (flags == 0 || m.has(1));
          const uint64_t last = selection.word((nrows - 1) / 64);
          expect_result(m.expected(selected), bits, result.hits, returned, copied ? last : 0);
          EXPECT_EQ(exec.out_flags, 0x40 | 0x10);
        }
      }
    }
  }
}

// Without a selection the flag changes nothing; result and input may be one record.
TEST_P(Sets, TakeOneRecordForBoth) {
  const Membership m = column(300, 50);
  GuardedBits bits(300);
  kdzk_vec vec = m.input;
  vec.bitvec = bits.words();
  kdzk_exec exec{};
  exec.flags = KDZK_EX_SELECTIVE;
  const uint64_t returned = library().dispatch[m.id()].set(&vec, &vec, &m.set, &exec);
  expect_result(m.expected(), bits, vec.hits, returned, behind(m));
  EXPECT_EQ(exec.out_flags, 0);
}

TEST_P(Sets, WorkOnRunsAndReportThem) {
  Membership m = column(150, 50);
  RecordingHost host;
  host.result_cb_returns = 0x87654321;
  const auto selected = random.rows(150, 70);
  GuardedBits selection(selected, 0), run_bits(150), row_bits(150, 0x1111);
  m.enc.flags = KDZK_RLE;
  m.enc.own_nrows = 150;
  m.enc.own_bitvec = run_bits.words();
  m.enc.result_cb = RecordingHost::result_cb;
  kdzk_vec result{};
  result.bitvec = row_bits.words();
  result.nrows = 10;
  kdzk_exec exec{};
  exec.env = &host.env;
  exec.selection = selection.words();
  EXPECT_EQ(m.call(&result, &exec), 0x87654321u);
  const auto want = m.expected(selected);
  EXPECT_EQ(run_bits.rows(), want);
  EXPECT_EQ(row_bits.word(0), 0x1111u);
  ASSERT_EQ(host.reports.size(), 1u);
  const auto& report = host.reports[0];
  EXPECT_EQ(report.env, &host.env);
  EXPECT_EQ(report.result, &result);
  EXPECT_EQ(report.input, &m.input);
  EXPECT_EQ(report.hits_in_result, count(want));
  for (size_t i = 0; i < 16; i++) {
    EXPECT_EQ(report.words[i], i == 1 ? reinterpret_cast<uint64_t>(run_bits.words()) : i == 3 ? count(want) : 0) << i;
  }

  // The selective road knows nothing of runs.
  exec.flags = KDZK_EX_SELECTIVE;
  const GuardedBits untouched(run_bits.rows(), run_bits.word(2) >> 22);
  const uint64_t returned = m.call(&result, &exec);
  expect_result(want, row_bits, result.hits, returned);
  EXPECT_EQ(host.reports.size(), 1u);
  EXPECT_EQ(run_bits.rows(), untouched.rows());
}

// The copy is made first, also for a 1-bit set that doesn't need it; on the selective road the flag stands before.
TEST_P(Sets, DecompressABlockedColumnOnce) {
  struct Decompressor : RecordingHost {
    const kdzk_exec* exec;
    const std::vector<uint8_t>* bytes;
    static uint32_t decompress(const kdzk_sqzb_ctx* ctx, const void*, void* dst, uint32_t*, uint32_t capacity) {
      const auto* const host = reinterpret_cast<const Decompressor*>(static_cast<uint64_t*>(ctx->hctx)[0]);
      EXPECT_EQ(host->exec->out_flags, host->exec->flags != 0 ? 0x10 : 0);
      EXPECT_EQ(capacity, host->bytes->size());
      std::copy(host->bytes->begin(), host->bytes->end(), static_cast<uint8_t*>(dst));
      return 10;
    }
  };
  for (const uint8_t flags : {uint8_t{0}, uint8_t{KDZK_EX_SELECTIVE}}) {
    for (unsigned percent : {0u, 50u, 100u}) {
      Membership m = column(203, percent);
      Decompressor host;
      const std::vector<uint8_t> bytes(m.data.data(), m.data.data() + m.data.size());
      void* slot = nullptr;
      const std::vector<bool> all(203, true);
      GuardedBits selection(all, 0);
      kdzk_exec exec{};
      exec.env = &host.env;
      exec.selection = selection.words();
      exec.flags = flags;
      host.exec = &exec;
      host.bytes = &bytes;
      host.hctx[0] = reinterpret_cast<uint64_t>(&host);
      host.env.decompress = Decompressor::decompress;
      m.enc.flags = KDZK_BLOCKED;
      m.input.data = nullptr;
      m.input.decomp_size = static_cast<uint32_t>(bytes.size());
      m.input.decomp_slot = &slot;
      m.input.alloc_tag = 77;
      for (int call = 0; call < 2; call++) {
        GuardedBits bits(203);
        kdzk_vec result{};
        result.bitvec = bits.words();
        result.nrows = 203;
        const uint64_t returned = m.call(&result, &exec);
        expect_result(m.expected(), bits, result.hits, returned);
      }
      ASSERT_EQ(host.allocs.size(), 1u);
      EXPECT_EQ(host.allocs[0].comment, m.name() + ": vec1_decomp");
      EXPECT_EQ(host.allocs[0].size, bytes.size());
      EXPECT_EQ(host.allocs[0].tag, 77u);
      ASSERT_EQ(host.errors.size(), 1u);
      EXPECT_EQ(host.errors[0].message, m.name() + ": kdzk_sqzb_decode failed");
    }
  }
}

// With 0 rows neither column, table nor bit vector is touched.
TEST_P(Sets, TouchNothingWithoutRows) {
  Membership m = column(0, 100);
  m.set.bitvec = nullptr;
  m.input.data = nullptr;
  uint64_t selection = ~uint64_t{0};
  for (const uint8_t flags : {uint8_t{0}, uint8_t{KDZK_EX_SELECTIVE}}) {
    kdzk_exec exec{};
    exec.selection = &selection;
    exec.flags = flags;
    kdzk_vec result{};
    result.hits = 7;
    EXPECT_EQ(m.call(&result, &exec), KDZK_NO_ROW);
    EXPECT_EQ(result.hits, 0u);
    EXPECT_EQ(exec.out_flags, 0x10);
  }
}

const int widths[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 24, 32};
INSTANTIATE_TEST_SUITE_P(All, Sets, testing::ValuesIn(widths),
                         [](const auto& info) { return std::to_string(info.param) + "bit"; });

}  // namespace
}  // namespace kdzk_test

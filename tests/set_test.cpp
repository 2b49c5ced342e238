// SPDX-License-Identifier: Apache-2.0
// The set kernels, found by their ids as a host finds them, against a plain loop over codes.

#include <gtest/gtest.h>

#include <functional>

#include "tests/support/streams.h"

namespace kdzk_test {
namespace {

constexpr size_t set_padding = 8;  // readable bytes behind the last code

// A column of codes, a table, and the records of a call. `table` is where word 0 would be.
struct Membership {
  uint32_t width, nrows;
  Codes rows;
  GuardedBuffer data;
  GuardedBits bits;
  std::function<bool(uint64_t)> has;
  bool with_exec = true;
  kdzk_enc_ctx enc{};
  kdzk_vec input{.data = data.data(), .enc_ctx = &enc, .filter = no_address<uint64_t>(), .nrows = nrows};
  kdzk_vec result{.bitvec = bits.words(), .hits = 12345, .nrows = nrows}, set;
  kdzk_exec exec{};

  Membership(uint32_t w, Codes codes, const void* table, std::function<bool(uint64_t)> h)
      : width(w),
        nrows(static_cast<uint32_t>(codes.size())),
        rows(std::move(codes)),
        data(packed(rows, w), set_padding),
        bits(nrows),
        has(std::move(h)),
        set{.bitvec = static_cast<uint64_t*>(const_cast<void*>(table))} {}
  Membership(const Membership&) = delete;

  std::string name() const { return dict_kernel("set", width); }
  uint64_t call(kdzk_vec* to, const kdzk_vec* from) {
    return library().dispatch[dict_kernel_id(width, 45)].set(to, from, &set, with_exec ? &exec : nullptr);
  }
  std::vector<bool> expected(const std::vector<bool>& selected = {}) const {
    std::vector<bool> want(nrows);
    for (size_t r = 0; r < nrows; r++) want[r] = has(rows[r]) && (selected.empty() || selected[r]);
    return want;
  }
  // Calls the kernel, which must give these rows. With none, neither column, table nor bits are touched.
  void expect(const std::vector<bool>& want, uint64_t behind) {
    if (nrows == 0) input.data = set.bitvec = result.bitvec = nullptr;
    EXPECT_EQ(call(&result, &input), count(want) > 0 ? KDZK_DONE : KDZK_NO_ROW);
    expect_bits(bits, want, behind);
    EXPECT_EQ(result.hits, count(want));
  }
  // With 1 bit, the full evaluation leaves ones behind the last row if code 0 is in the set.
  void expect_answer() {
    with_exec = false;
    expect(expected(), width == 1 && has(0) ? ~uint64_t{0} : 0);
  }
};

class Sets : public testing::TestWithParam<uint32_t> {
 protected:
  Random random{"set_dict_" + std::to_string(GetParam())};
  const uint64_t codes = uint64_t{1} << GetParam();
  // The lowest 2^14 codes at most, and a table of as many bits.
  const uint64_t low_codes = std::min(codes, uint64_t{1} << 14);
  GuardedBuffer words{std::max<size_t>(low_codes / 8, 8)};

  Codes codes_between(uint32_t nrows, uint64_t first, uint64_t span) {
    Codes rows(nrows);
    for (uint32_t& row : rows) row = static_cast<uint32_t>(first + random.below(span));
    return rows;
  }
  // A new table with so many percent of the codes, and `nrows` rows.
  Membership column(uint32_t nrows, unsigned percent) {
    const auto in = random.rows(words.size() * 8, percent);
    std::fill_n(words.data(), words.size(), uint8_t{0});
    for (size_t code = 0; code < in.size(); code++)
      words.data()[code / 8] |= static_cast<uint8_t>(in[code] << code % 8);
    return {GetParam(), codes_between(nrows, 0, low_codes), words.data(), [in](uint64_t code) { return in[code]; }};
  }
};

TEST_P(Sets, AgreeWithThePlainLoop) {
  ASSERT_EQ(kdzk_name_of(&library(), dict_kernel_id(GetParam(), 45)), dict_kernel("set", GetParam()));
  for (uint32_t nrows : {0u, 1u, 7u, 15u, 31u, 32u, 33u, 63u, 64u, 65u, 70u, 127u, 128u, 129u, 191u, 1000u}) {
    for (unsigned percent : {0u, 3u, 50u, 50u, 97u, 100u}) {
      const Case now(Message() << GetParam() << " bits, " << nrows << " rows, " << percent << " %", random);
      column(nrows, percent).expect_answer();
      if (HasFailure()) return;
    }
  }
  const Membership all = column(1, 50);  // each code by itself
  for (uint32_t code = 0; code < std::min<uint64_t>(codes, 1024); code++)
    Membership(GetParam(), Codes(64, code), all.set.bitvec, all.has).expect_answer();
}

// The host may map a window of the table: here one or two words with a page that faults behind them or in front.
TEST_P(Sets, ReadOnlyTheWordsThatCodesAskFor) {
  const Case now(Message() << GetParam() << " bits, a window of the table", random);
  for (uint64_t window : {1u, 2u}) {
    if (codes < 64 * window) continue;
    for (uint64_t first : {uint64_t{0}, codes / 64 - window, random.below(codes / 64 - window + 1)}) {
      GuardedBuffer page(random_bytes(4096, random), 0);
      for (const uint8_t* at : {page.data(), page.data() + page.size() - window * 8}) {
        const auto has = [=](uint64_t code) { return at[(code - first * 64) / 8] >> code % 8 & 1; };
        const auto* const table = reinterpret_cast<const uint8_t*>(reinterpret_cast<uint64_t>(at) - first * 8);
        Membership(GetParam(), codes_between(200, first * 64, window * 64), table, has).expect_answer();
      }
    }
  }
}

// A table across a page boundary, at any address.
TEST_P(Sets, TakeATableThatAPageBoundaryCuts) {
  if (codes > 1024) return;
  const Case now(Message() << GetParam() << " bits, a table in two pages", random);
  GuardedBuffer pages(random_bytes(8192, random), 0);
  for (size_t before = 0; before <= words.size(); before++) {
    const uint8_t* const table = pages.data() + 4096 - before;
    const auto has = [=](uint64_t code) { return table[code / 8] >> code % 8 & 1; };
    const uint64_t word = random.below(codes) / 64 * 64;
    Membership(GetParam(), codes_between(130, 0, codes), table, has).expect_answer();
    Membership(GetParam(), codes_between(130, word, std::min<uint64_t>(codes - word, 64)), table, has).expect_answer();
  }
}

TEST_P(Sets, ApplyTheSelectionOnBothRoads) {
  for (uint32_t nrows : {0u, 1u, 64u, 333u}) {
    for (unsigned in_set : {0u, 50u, 50u, 50u, 100u}) {
      for (unsigned percent : {0u, 5u, 60u, 100u}) {
        for (const uint8_t flags : {uint8_t{0}, uint8_t{KDZK_EX_SELECTIVE}}) {
          const Case now(Message() << GetParam() << " bits, " << nrows << " rows, flags " << +flags, random);
          Membership m = column(nrows, in_set);
          const auto selected = random.rows(nrows, percent);
          GuardedBits selection(selected, random.bits());
          m.exec.selection = selection.words();
          m.exec.flags = flags;
          m.exec.out_flags = 0x40;
          (flags == 0 ? m.input : m.result).nrows = 0xffffffff;
          const bool copied = nrows > 0 && GetParam() == 1 && m.has(0) && (flags == 0 || m.has(1));
          m.expect(m.expected(selected), copied ? selection.word((nrows - 1) / 64) : 0);
          EXPECT_EQ(m.exec.out_flags, 0x40 | 0x10);
        }
      }
    }
  }
}

// Without a selection the flag changes nothing; result and input may be one record.
TEST_P(Sets, TakeOneRecordForBoth) {
  Membership m = column(300, 50);
  m.input.bitvec = m.bits.words();
  m.exec.flags = KDZK_EX_SELECTIVE;
  EXPECT_EQ(m.call(&m.input, &m.input), count(m.expected()) > 0 ? KDZK_DONE : KDZK_NO_ROW);
  EXPECT_EQ(m.bits.rows(), m.expected());
  EXPECT_EQ(m.input.hits, count(m.expected()));
  EXPECT_EQ(m.exec.out_flags, 0);
}

TEST_P(Sets, WorkOnRunsAndReportThem) {
  Membership m = column(150, 50);
  RecordingHost host;
  host.result_cb_returns = 0x87654321;
  const auto selected = random.rows(150, 70), want = m.expected(selected);
  GuardedBits selection(selected, 0), run_bits(150);
  m.enc.flags = KDZK_RLE;
  m.enc.own_nrows = 150;
  m.enc.own_bitvec = run_bits.words();
  m.enc.result_cb = RecordingHost::result_cb;
  m.result.nrows = 10;
  m.exec.env = &host.env;
  m.exec.selection = selection.words();
  const uint64_t before = m.bits.word(0);
  EXPECT_EQ(m.call(&m.result, &m.input), 0x87654321u);
  EXPECT_EQ(run_bits.rows(), want);
  EXPECT_EQ(m.bits.word(0), before);
  ASSERT_EQ(host.reports.size(), 1u);
  const auto& report = host.reports[0];
  EXPECT_TRUE(report.env == &host.env && report.result == &m.result && report.input == &m.input);
  EXPECT_EQ(report.hits_in_result, count(want));
  for (size_t i = 0; i < 16; i++)
    EXPECT_EQ(report.words[i], i == 1 ? reinterpret_cast<uint64_t>(run_bits.words()) : i == 3 ? count(want) : 0) << i;

  m.exec.flags = KDZK_EX_SELECTIVE;  // this road knows nothing of runs
  m.enc.own_bitvec = no_address<uint64_t>();
  m.expect(want, 0);
  EXPECT_EQ(host.reports.size(), 1u);
}

// The copy is made also for a 1-bit set that doesn't need it.
TEST_P(Sets, DecompressABlockedColumnOnce) {
  for (const uint8_t flags : {uint8_t{0}, uint8_t{KDZK_EX_SELECTIVE}}) {
    for (unsigned percent : {0u, 50u, 100u}) {
      Membership m = column(203, percent);
      Block block(m.input, m.enc, m.exec, contents(m.data));
      GuardedBits selection(std::vector<bool>(203, true), 0);
      m.exec.selection = selection.words();
      m.exec.flags = flags;
      for (int call = 0; call < 2; call++) m.expect(m.expected(), 0);
      block.expect_one_copy(m.name());
    }
  }
}

INSTANTIATE_TEST_SUITE_P(All, Sets, testing::ValuesIn(dict_widths),
                         [](const auto& info) { return std::to_string(info.param) + "bit"; });

}  // namespace
}  // namespace kdzk_test

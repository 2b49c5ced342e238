// SPDX-License-Identifier: Apache-2.0
// Decode-unpack kernels, every width and element size, against rows taken one by one: each way of picking rows, cut
// into calls at every capacity, from plain, blocked and run-length columns.

#include <gtest/gtest.h>

#include <memory>
#include <numeric>

#include "tests/support/streams.h"

namespace kdzk_test {
namespace {

struct Member {
  uint32_t width;
  bool wide;

  uint32_t id() const { return dict_kernel_id(width, 43); }
  std::string name() const { return dict_kernel("decode_unpack", width); }
  uint32_t element() const { return wide || width > 16 ? 4 : width > 8 ? 2 : 1; }
  uint32_t top() const { return static_cast<uint32_t>((uint64_t{1} << width) - 1); }
  uint32_t alignment() const { return std::lcm(width, 8u); }
};

std::vector<Member> members() {
  std::vector<Member> all;
  for (const uint32_t width : dict_widths)
    for (const bool wide : {false, true}) all.push_back({width, wide});
  return all;
}

// A column, plain or run-length coded, and what calls on it need.
struct Column {
  const Member member;
  Codes rows;  // the code of each row
  std::unique_ptr<GuardedBuffer> data, lengths;
  kdzk_enc_ctx enc{.width = static_cast<uint8_t>(member.width)};
  kdzk_vec input{.enc_ctx = &enc};
  kdzk_exec exec{.flags = static_cast<uint8_t>(member.wide ? KDZK_EX_UNPACK_WIDE : 0)};
  uint32_t written_behind = 0;  // elements that a call may write past its hits

  // Runs of these codes and lengths, or plain if there is no length.
  Column(const Member& m, const Codes& codes, const Codes& run_lengths, uint32_t length_bits) : member(m), rows(codes) {
    data = std::make_unique<GuardedBuffer>(packed(codes, m.width));
    if (length_bits != 0) {
      rows.clear();
      for (size_t run = 0; run < codes.size(); run++) rows.insert(rows.end(), run_lengths[run], codes[run]);
      lengths = std::make_unique<GuardedBuffer>(packed(run_lengths, length_bits), 0);
      enc.flags |= KDZK_RLE;
      enc.unpack_base = reinterpret_cast<uint64_t>(lengths->data());
      enc.unpack_width = static_cast<uint8_t>(length_bits);
    }
    input.data = data->data();
    input.nrows = static_cast<uint32_t>(rows.size());
  }
  Column(const Column&) = delete;

  struct Outcome {
    Codes codes;
    uint8_t out_flags;
  };

  // One call with room for `capacity` elements, which end at a page that faults.
  Outcome call(uint32_t capacity) {
    const size_t element = member.element();
    GuardedBuffer out(capacity * element, 0, 0x5a);
    kdzk_vec result{.data = out.data(), .hits = 4711, .nrows = capacity};
    exec.out_flags = 0;
    const uint64_t returned = library().dispatch[member.id()].decode(&result, &input, &exec);
    Outcome outcome = {{}, exec.out_flags};
    EXPECT_LE(result.hits, capacity);
    for (uint32_t i = 0; i < std::min(result.hits, capacity); i++) {
      uint32_t code = 0;
      std::memcpy(&code, out.data() + i * element, element);
      outcome.codes.push_back(code);
    }
    for (size_t at = (uint64_t{result.hits} + written_behind) * element; at < out.size(); at++) {
      EXPECT_EQ(out.data()[at], 0x5a) << "byte " << at << " behind " << result.hits << " elements";
    }
    EXPECT_EQ(returned, result.hits > 0 ? KDZK_DONE : KDZK_NO_ROW);
    return outcome;
  }

  // Calls from row `start` until the column is done, as a host that goes on behind the last row dealt with.
  Codes all_calls(uint32_t start, uint32_t capacity) {
    Codes codes;
    exec.run = {};
    exec.row = start;
    while (exec.row < input.nrows) {
      const Outcome outcome = call(capacity);
      codes.insert(codes.end(), outcome.codes.begin(), outcome.codes.end());
      if (testing::Test::HasFailure()) break;
      exec.row++;
    }
    return codes;
  }
};

// Run lengths up to `longest`, or if that is 0 single rows, short ones, and some up to the longest of 8 or 16 bits.
Codes random_lengths(Random& random, size_t runs, uint32_t length_bits, uint32_t longest) {
  Codes lengths(runs);
  for (uint32_t& length : lengths) {
    const uint64_t kind = random.below(10);
    const uint64_t most = longest != 0 ? longest : kind < 4 ? 1 : kind < 9 ? 12 : length_bits == 8 ? 255 : 1000;
    length = 1 + static_cast<uint32_t>(random.below(most));
  }
  return lengths;
}

class DecodeUnpack : public testing::TestWithParam<Member> {
 protected:
  void SetUp() override { ASSERT_STREQ(kdzk_name_of(&library(), GetParam().id()), GetParam().name().c_str()); }
  Random random{GetParam().name() + (GetParam().wide ? " wide" : "")};

  // A plain column, or one of runs.
  Column column(uint32_t length_bits, size_t n, uint32_t longest = 0) {
    Codes codes(n);
    for (uint32_t& code : codes) code = static_cast<uint32_t>(random.bits()) & GetParam().top();
    return Column(GetParam(), codes, random_lengths(random, n, length_bits, longest), length_bits);
  }
};

TEST_P(DecodeUnpack, RowRangesGiveTheirCodes) {
  const uint32_t a_store = 16 / GetParam().element();  // rows that one store fills
  for (const auto& [length_bits, longest] :
       {std::pair(0u, 0u), {8, 0}, {16, 0}, {8, a_store}, {8, a_store + 1}, {16, a_store}}) {
    Column c = column(length_bits, length_bits == 0 ? 700 : longest == 0 ? 330 : 2000, longest);
    const uint32_t nrows = c.input.nrows, b = GetParam().alignment();
    for (const uint32_t capacity : {1u, 7u, 64u, 129u, nrows, nrows + 100}) {
      for (const uint32_t start : {0u, 1u, b - 1, b, b + 3, nrows - 1}) {
        if (length_bits != 0 && capacity < 64 && start == 0 && nrows > 4000) continue;
        if (start >= nrows) continue;
        const Case now(Message() << GetParam().name() << " from " << start << ", capacity " << capacity
                                 << ", run lengths of " << length_bits << " bits",
                       random);
        EXPECT_EQ(c.all_calls(start, capacity), std::vector(c.rows.begin() + start, c.rows.end()));
        if (HasFailure()) return;
      }
    }
    c.exec.run = {};
    for (const auto& [row, room, last] : {std::tuple(5u, 3u, 7u), {nrows, 3, nrows - 1}, {9, 0, 8}}) {
      c.exec.row = row;
      const auto outcome = c.call(room);
      EXPECT_EQ(outcome.out_flags, 0);  // a range leaves them alone
      EXPECT_EQ(outcome.codes.size(), row == 5 ? 3u : 0u);
      EXPECT_EQ(c.exec.row, last);
    }
  }
}

TEST_P(DecodeUnpack, SelectionsGiveTheirRowsOnBothRoads) {
  for (const uint32_t length_bits : {0u, 8u, 16u}) {
    Column c = column(length_bits, length_bits == 0 ? 900 : 150);
    const uint32_t nrows = c.input.nrows, b = GetParam().alignment();
    for (const unsigned percent : {0u, 2u, 50u, 100u}) {
      const auto selected = random.rows(nrows, percent);
      GuardedBits bits(selected, random.bits());
      c.exec.selection = bits.words();
      uint32_t ignored = nrows + 5;
      c.exec.ones_vec = &ignored;
      c.exec.ones_vec_size = 1;
      for (const bool selective : {false, true}) {
        c.exec.flags =
            static_cast<uint8_t>((GetParam().wide ? KDZK_EX_UNPACK_WIDE : 0) | (selective ? KDZK_EX_SELECTIVE : 0));
        c.written_behind = selective || length_bits != 0 ? 0 : 4;
        for (const uint32_t capacity : {1u, 100u, 300u, nrows}) {
          for (const uint32_t start : {0u, 3u, b}) {
            if (capacity == 1 && nrows > 2000) continue;
            const Case now(Message() << GetParam().name() << " from " << start << ", capacity " << capacity
                                     << ", selecting " << percent << " %, selective " << selective
                                     << ", run lengths of " << length_bits << " bits",
                           random);
            Codes want;
            for (uint32_t r = start; r < nrows; r++) {
              if (selected[r]) want.push_back(c.rows[r]);
            }
            EXPECT_EQ(c.all_calls(start, capacity), want);
            EXPECT_EQ(c.exec.out_flags, KDZK_OUT_UNPACK_ROW);
            if (HasFailure()) return;
          }
        }
        // The row of a full output is the last one written; of an output with room left, the column's last.
        c.exec.row = 0;
        c.exec.run = {};
        const auto one = c.call(1);
        const auto first = std::find(selected.begin(), selected.end(), true) - selected.begin();
        EXPECT_EQ(c.exec.row, one.codes.empty() ? nrows - 1 : static_cast<uint32_t>(first));
        c.exec.row = nrows;
        EXPECT_TRUE(c.call(3).codes.empty());
        EXPECT_EQ(c.exec.row, nrows - 1);
        // Without room: a walk goes one back, blocks stay, runs are done.
        c.exec.row = 9;
        c.exec.run = {};
        EXPECT_EQ(c.call(0).out_flags, KDZK_OUT_UNPACK_ROW);
        EXPECT_EQ(c.exec.row, length_bits != 0 ? nrows - 1 : selective ? 8u : 9u);
        if (length_bits != 0) {
          EXPECT_EQ(c.exec.run.run_index, ~0u);
          EXPECT_EQ(c.exec.run.run_end, 0u);
        }
      }
    }
  }
}

TEST_P(DecodeUnpack, RowListsGiveTheirRows) {
  for (const uint32_t length_bits : {0u, 8u, 16u}) {
    Column c = column(length_bits, 200);
    Codes list(120);
    for (uint32_t& row : list) row = static_cast<uint32_t>(random.below(c.input.nrows));
    if (length_bits != 0) std::sort(list.begin(), list.end());
    c.exec.ones_vec = list.data();
    c.exec.ones_vec_size = static_cast<uint32_t>(list.size());
    Codes want;
    for (uint32_t row : list) want.push_back(c.rows[row]);
    const auto outcome = c.call(120);
    EXPECT_EQ(outcome.codes, want);
    EXPECT_EQ(outcome.out_flags, KDZK_OUT_UNPACK_ROW);
    EXPECT_EQ(c.exec.row, list.back());
    if (length_bits == 0) continue;
    uint32_t end = 0, run = 0;
    for (; end <= list.back(); run++) {
      const uint8_t* const at = c.lengths->data() + run * length_bits / 8;
      end += length_bits == 8 ? at[0] : static_cast<uint32_t>(at[0] << 8 | at[1]);
    }
    EXPECT_EQ(c.exec.run.run_index, run - 1);
    EXPECT_EQ(c.exec.run.run_end, end);
  }
}

TEST_P(DecodeUnpack, EmptyRowListsOfRunsAreTheHostsError) {
  RecordingHost host;
  uint32_t list = 0;
  for (const uint32_t length_bits : {8u, 0u}) {
    Column c = column(length_bits, 20);
    c.exec.env = &host.env;
    c.exec.ones_vec = &list;
    kdzk_vec result{.hits = 3};
    EXPECT_EQ(library().dispatch[GetParam().id()].decode(&result, &c.input, &c.exec),
              length_bits != 0 ? KDZK_DONE : KDZK_NO_ROW);
    EXPECT_EQ(result.hits, 0u);
    EXPECT_EQ(c.exec.out_flags, KDZK_OUT_UNPACK_ROW);
  }
  ASSERT_EQ(host.errors.size(), 1u);
  EXPECT_EQ(host.errors[0].message, GetParam().name() + ": [rle] ones_vec size is zero");
  EXPECT_EQ(host.errors[0].word72, RecordingHost::word72);
}

TEST_P(DecodeUnpack, BlockedColumnsAreDecompressedOnce) {
  for (const uint32_t length_bits : {0u, 8u}) {
    Column c = column(length_bits, 300);
    Block block(c.input, c.enc, c.exec, contents(*c.data));
    const kdzk_vec before = c.input;
    EXPECT_EQ(c.all_calls(0, 70), c.rows);
    EXPECT_TRUE(same_bytes(before, c.input));
    block.expect_one_copy(GetParam().name());
  }
}

// A stale end of run at row 0 is no state.
TEST_P(DecodeUnpack, ScansOfRunsBeginAtRowZero) {
  Column c = column(8, 40);
  c.exec.row = 0;
  c.exec.run = {17, 23};
  EXPECT_EQ(c.call(5).codes, std::vector(c.rows.begin(), c.rows.begin() + 5));
}

INSTANTIATE_TEST_SUITE_P(All, DecodeUnpack, testing::ValuesIn(members()),
                         [](const auto& info) { return info.param.name() + (info.param.wide ? "_wide" : ""); });

}  // namespace
}  // namespace kdzk_test

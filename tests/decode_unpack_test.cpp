// SPDX-License-Identifier: Apache-2.0
// Decode-unpack kernels, every width and element size, against rows taken one by one: each way of picking rows, cut
// into calls at every capacity, from plain, blocked and run-length columns.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <numeric>

#include "tests/support/host.h"

namespace kdzk_test {
namespace {

struct Member {
  int width;
  bool wide;

  uint32_t id() const { return static_cast<uint32_t>(width == 24 ? 20 : width == 32 ? 21 : width - 1) * 128 + 43; }
  std::string name() const { return "kdzk_decode_unpack_dict_" + std::to_string(width) + "bit"; }
  size_t element() const { return wide || width > 16 ? 4 : width > 8 ? 2 : 1; }
  uint32_t top() const { return static_cast<uint32_t>((uint64_t{1} << width) - 1); }
  uint32_t alignment() const { return static_cast<uint32_t>(std::lcm(width, 8)); }
};

std::vector<Member> members() {
  std::vector<Member> all;
  for (int width : {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 24, 32}) {
    for (bool wide : {false, true}) all.push_back({width, wide});
  }
  return all;
}

std::vector<uint8_t> packed(const std::vector<uint32_t>& codes, int width) {
  std::vector<uint8_t> bytes((codes.size() * static_cast<size_t>(width) + 7) / 8);
  size_t at = 0;  // bit
  for (uint32_t code : codes) {
    for (int bit = width - 1; bit >= 0; bit--, at++) {
      if (code >> bit & 1) bytes[at / 8] |= static_cast<uint8_t>(0x80 >> at % 8);
    }
  }
  return bytes;
}

// A column, plain or run-length coded, and what calls on it need.
struct Column {
  const Member member;
  std::vector<uint32_t> rows;  // the code of each row
  std::unique_ptr<GuardedBuffer> data, lengths;
  kdzk_enc_ctx enc{};
  kdzk_vec input{};
  kdzk_exec exec{};
  uint32_t written_behind = 0;  // elements that a call may write past its hits

  Column(const Member& m, std::vector<uint32_t> codes) : member(m), rows(std::move(codes)) {
    data = std::make_unique<GuardedBuffer>(packed(rows, m.width));
    finish();
  }

  // Runs of these codes and lengths.
  Column(const Member& m, const std::vector<uint32_t>& codes, const std::vector<uint32_t>& run_lengths, int length_bits)
      : member(m) {
    std::vector<uint8_t> bytes;
    for (size_t run = 0; run < codes.size(); run++) {
      rows.insert(rows.end(), run_lengths[run], codes[run]);
      if (length_bits == 16) bytes.push_back(static_cast<uint8_t>(run_lengths[run] >> 8));
      bytes.push_back(static_cast<uint8_t>(run_lengths[run]));
    }
    data = std::make_unique<GuardedBuffer>(packed(codes, m.width));
    lengths = std::make_unique<GuardedBuffer>(bytes, length_bits == 16 && bytes.size() % 2 == 1 ? 1u : 0u);
    enc.flags |= KDZK_RLE;
    enc.unpack_base = reinterpret_cast<uint64_t>(lengths->data());
    enc.unpack_width = static_cast<uint8_t>(length_bits);
    finish();
  }

  void finish() {
    enc.width = static_cast<uint8_t>(member.width);
    input.data = data->data();
    input.enc_ctx = &enc;
    input.nrows = static_cast<uint32_t>(rows.size());
    exec.flags = member.wide ? KDZK_EX_UNPACK_WIDE : 0;
  }

  struct Outcome {
    std::vector<uint32_t> codes;
    uint64_t returned;
    uint8_t out_flags;
  };

  // One call with room for `capacity` elements, which end at a page that faults.
  Outcome call(uint32_t capacity) {
    now_running(member.name());
    const size_t element = member.element();
    GuardedBuffer out(capacity * element, 0, 0x5a);
    kdzk_vec result{};
    result.data = out.data();
    result.nrows = capacity;
    result.hits = 4711;
    exec.out_flags = 0;
    const uint64_t returned = library().dispatch[member.id()].decode(&result, &input, &exec);
    Outcome outcome = {{}, returned, exec.out_flags};
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
  std::vector<uint32_t> all_calls(uint32_t start, uint32_t capacity) {
    std::vector<uint32_t> codes;
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

std::vector<uint32_t> random_codes(Random& random, const Member& member, size_t n) {
  std::vector<uint32_t> codes(n);
  for (uint32_t& code : codes) code = static_cast<uint32_t>(random.bits()) & member.top();
  return codes;
}

// Run lengths up to `longest`, or if that is 0 single rows, short ones, and some up to the longest of 8 or 16 bits.
std::vector<uint32_t> random_lengths(Random& random, size_t runs, int length_bits, uint32_t longest) {
  std::vector<uint32_t> lengths(runs);
  if (longest != 0) {
    for (uint32_t& length : lengths) length = 1 + static_cast<uint32_t>(random.below(longest));
    return lengths;
  }
  for (uint32_t& length : lengths) {
    const uint64_t kind = random.below(10);
    const uint64_t most = kind < 4 ? 1 : kind < 9 ? 12 : length_bits == 8 ? 255 : 1000;
    length = 1 + static_cast<uint32_t>(random.below(most));
  }
  return lengths;
}

class DecodeUnpack : public testing::TestWithParam<Member> {
 protected:
  void SetUp() override { ASSERT_STREQ(kdzk_name_of(&library(), GetParam().id()), GetParam().name().c_str()); }
  Random random{GetParam().name() + (GetParam().wide ? " wide" : "")};

  // A plain column, or one of runs.
  std::unique_ptr<Column> column(int length_bits, size_t n, uint32_t longest = 0) {
    const auto codes = random_codes(random, GetParam(), n);
    if (length_bits == 0) return std::make_unique<Column>(GetParam(), codes);
    return std::make_unique<Column>(GetParam(), codes, random_lengths(random, n, length_bits, longest), length_bits);
  }
};

TEST_P(DecodeUnpack, RowRangesGiveTheirCodes) {
  const auto a_store = 16 / static_cast<uint32_t>(GetParam().element());  // rows that one store fills
  for (const auto& [length_bits, longest] :
       {std::pair(0, 0u), {8, 0u}, {16, 0u}, {8, a_store}, {8, a_store + 1}, {16, a_store}}) {
    const auto c = column(length_bits, length_bits == 0 ? 700 : longest == 0 ? 330 : 2000, longest);
    const uint32_t nrows = c->input.nrows, b = GetParam().alignment();
    for (const uint32_t capacity : {1u, 7u, 64u, 129u, nrows, nrows + 100}) {
      for (const uint32_t start : {0u, 1u, b - 1, b, b + 3, nrows - 1}) {
        if (length_bits != 0 && capacity < 64 && start == 0 && nrows > 4000) continue;
        if (start >= nrows) continue;
        SCOPED_TRACE("from " + std::to_string(start) + ", capacity " + std::to_string(capacity) + ", run lengths of " +
                     std::to_string(length_bits) + " bits");
        c->exec.run = {};
        EXPECT_EQ(c->all_calls(start, capacity), std::vector(c->rows.begin() + start, c->rows.end()));
        if (HasFailure()) return;
      }
    }
    c->exec.run = {};
    c->exec.row = 5;
    EXPECT_EQ(c->call(3).out_flags, 0);  // a range leaves them alone
    EXPECT_EQ(c->exec.row, 7u);
    c->exec.row = nrows;
    EXPECT_EQ(c->call(3).codes.size(), 0u);
    EXPECT_EQ(c->exec.row, nrows - 1);
    c->exec.row = 9;
    EXPECT_EQ(c->call(0).codes.size(), 0u);
    EXPECT_EQ(c->exec.row, 8u);
  }
}

TEST_P(DecodeUnpack, SelectionsGiveTheirRowsOnBothRoads) {
  for (const int length_bits : {0, 8, 16}) {
    const auto c = column(length_bits, length_bits == 0 ? 900 : 150);
    const uint32_t nrows = c->input.nrows, b = GetParam().alignment();
    for (const unsigned percent : {0u, 2u, 50u, 100u}) {
      const auto selected = random.rows(nrows, percent);
      GuardedBits bits(selected, random.bits());
      c->exec.selection = bits.words();
      uint32_t ignored = nrows + 5;
      c->exec.ones_vec = &ignored;
      c->exec.ones_vec_size = 1;
      for (const bool selective : {false, true}) {
        c->exec.flags =
            static_cast<uint8_t>((GetParam().wide ? KDZK_EX_UNPACK_WIDE : 0) | (selective ? KDZK_EX_SELECTIVE : 0));
        c->written_behind = selective || length_bits != 0 ? 0 : 4;
        for (const uint32_t capacity : {1u, 100u, 300u, nrows}) {
          for (const uint32_t start : {0u, 3u, b}) {
            if (capacity == 1 && nrows > 2000) continue;
            SCOPED_TRACE("from " + std::to_string(start) + ", capacity " + std::to_string(capacity) + ", selecting " +
                         std::to_string(percent) + " %, selective " + std::to_string(selective) + ", run lengths of " +
                         std::to_string(length_bits) + " bits");
            c->exec.run = {};
            std::vector<uint32_t> want;
            for (uint32_t r = start; r < nrows; r++) {
              if (selected[r]) want.push_back(c->rows[r]);
            }
            EXPECT_EQ(c->all_calls(start, capacity), want);
            EXPECT_EQ(c->exec.out_flags, KDZK_OUT_UNPACK_ROW);
            if (HasFailure()) return;
          }
        }
        // The row of a full output is the last one written; of an output with room left, the column's last.
        c->exec.row = 0;
        c->exec.run = {};
        const auto one = c->call(1);
        const auto first = std::find(selected.begin(), selected.end(), true) - selected.begin();
        EXPECT_EQ(c->exec.row, one.codes.empty() ? nrows - 1 : static_cast<uint32_t>(first));
        c->exec.row = nrows;
        EXPECT_TRUE(c->call(3).codes.empty());
        EXPECT_EQ(c->exec.row, nrows - 1);
        // Without room: a walk goes one back, blocks stay, runs are done.
        c->exec.row = 9;
        c->exec.run = {};
        EXPECT_EQ(c->call(0).out_flags, KDZK_OUT_UNPACK_ROW);
        EXPECT_EQ(c->exec.row, length_bits != 0 ? nrows - 1 : selective ? 8u : 9u);
        if (length_bits != 0) {
          EXPECT_EQ(c->exec.run.run_index, ~0u);
          EXPECT_EQ(c->exec.run.run_end, 0u);
        }
      }
    }
  }
}

TEST_P(DecodeUnpack, RowListsGiveTheirRows) {
  for (const int length_bits : {0, 8, 16}) {
    const auto c = column(length_bits, 200);
    std::vector<uint32_t> list(120);
    for (uint32_t& row : list) row = static_cast<uint32_t>(random.below(c->input.nrows));
    if (length_bits != 0) std::sort(list.begin(), list.end());
    c->exec.ones_vec = list.data();
    c->exec.ones_vec_size = static_cast<uint32_t>(list.size());
    std::vector<uint32_t> want;
    for (uint32_t row : list) want.push_back(c->rows[row]);
    const auto outcome = c->call(120);
    EXPECT_EQ(outcome.codes, want);
    EXPECT_EQ(outcome.out_flags, KDZK_OUT_UNPACK_ROW);
    EXPECT_EQ(c->exec.row, list.back());
    if (length_bits == 0) continue;
    uint32_t end = 0, run = 0;
    for (run = 0; end <= list.back(); run++) {
      const uint8_t* const at = c->lengths->data() + run * static_cast<uint32_t>(length_bits) / 8;
      end += length_bits == 8 ? at[0] : static_cast<uint32_t>(at[0] << 8 | at[1]);
    }
    EXPECT_EQ(c->exec.run.run_index, run - 1);
    EXPECT_EQ(c->exec.run.run_end, end);
  }
}

TEST_P(DecodeUnpack, EmptyRowListsOfRunsAreTheHostsError) {
  RecordingHost host;
  const auto runs = column(8, 20), plain = column(0, 20);
  uint32_t list = 0;
  for (Column* c : {runs.get(), plain.get()}) {
    c->exec.env = &host.env;
    c->exec.ones_vec = &list;
    c->exec.ones_vec_size = 0;
    kdzk_vec result{};
    result.hits = 3;
    EXPECT_EQ(library().dispatch[GetParam().id()].decode(&result, &c->input, &c->exec),
              c == runs.get() ? KDZK_DONE : KDZK_NO_ROW);
    EXPECT_EQ(result.hits, 0u);
    EXPECT_EQ(c->exec.out_flags, KDZK_OUT_UNPACK_ROW);
  }
  ASSERT_EQ(host.errors.size(), 1u);
  EXPECT_EQ(host.errors[0].message, GetParam().name() + ": [rle] ones_vec size is zero");
  EXPECT_EQ(host.errors[0].word72, RecordingHost::word72);
}

TEST_P(DecodeUnpack, BlockedColumnsAreDecompressedOnce) {
  for (const int length_bits : {0, 8}) {
    const auto c = column(length_bits, 300);
    RecordingHost host;
    host.plain.assign(c->data->data(), c->data->data() + c->data->size());
    host.decompress_result = 1;
    void* slot = nullptr;
    uint8_t block = 0;
    c->enc.flags |= KDZK_BLOCKED;
    c->input.data = &block;
    c->input.decomp_size = static_cast<uint32_t>(host.plain.size());
    c->input.decomp_slot = &slot;
    c->exec.env = &host.env;
    const kdzk_vec before = c->input;
    EXPECT_EQ(c->all_calls(0, 70), c->rows);
    EXPECT_EQ(std::memcmp(&before, &c->input, sizeof before), 0);
    ASSERT_EQ(host.allocs.size(), 1u);
    EXPECT_EQ(host.allocs[0].comment, GetParam().name() + ": vec1_decomp");
    ASSERT_EQ(host.errors.size(), 1u);
    EXPECT_EQ(host.errors[0].message, GetParam().name() + ": kdzk_sqzb_decode failed");
  }
}

// A stale end of run at row 0 is no state.
TEST_P(DecodeUnpack, ScansOfRunsBeginAtRowZero) {
  const auto c = column(8, 40);
  c->exec.row = 0;
  c->exec.run = {17, 23};
  EXPECT_EQ(c->call(5).codes, std::vector(c->rows.begin(), c->rows.begin() + 5));
}

INSTANTIATE_TEST_SUITE_P(All, DecodeUnpack, testing::ValuesIn(members()),
                         [](const auto& info) { return info.param.name() + (info.param.wide ? "_wide" : ""); });

}  // namespace
}  // namespace kdzk_test

// SPDX-License-Identifier: Apache-2.0
// The bit vector services of both groups, against loops over single bits.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>

#include "tests/support/host.h"

namespace kdzk_test {
namespace {

enum Group { bv8, bv64 };

const kdzk_bv_services& services(Group group) { return group == bv8 ? library().bv8 : library().bv64; }

// Bytes that a vector of nrows rows has in a group.
size_t bytes_of(Group group, uint64_t nrows) { return group == bv8 ? (nrows + 7) / 8 : (nrows + 63) / 64 * 8; }

bool bit(const uint8_t* bytes, uint64_t at) { return bytes[at / 8] >> at % 8 & 1; }

constexpr uint64_t row_counts[] = {0, 1, 7, 8, 9, 63, 64, 65, 127, 128, 129, 255, 300, 1025};

class BitVectors : public testing::TestWithParam<Group> {
 protected:
  const kdzk_bv_services& bv() { return services(GetParam()); }
};

TEST_P(BitVectors, LogicAgreesWithSingleBits) {
  using Service2 = void (*)(void*, uint32_t*, const void*, const void*, uint64_t);
  using Service3 = void (*)(void*, uint32_t*, const void*, const void*, const void*, uint64_t);
  struct Operation {
    const char* name;
    std::function<void(void*, uint32_t*, const uint8_t* const*, uint64_t)> call;
    std::function<bool(bool, bool, bool)> bit;
  };
  const auto two = [](Service2 f) {
    return [f](void* d, uint32_t* c, const uint8_t* const* s, uint64_t n) { f(d, c, s[0], s[1], n); };
  };
  const auto three = [](Service3 f) {
    return [f](void* d, uint32_t* c, const uint8_t* const* s, uint64_t n) { f(d, c, s[0], s[1], s[2], n); };
  };
  const auto complement = [this](void* d, uint32_t* c, const uint8_t* const* s, uint64_t n) {
    bv().bv_not(d, c, s[0], n);
  };
  const Operation operations[] = {
      {"not", complement, [](bool a, bool, bool) { return !a; }},
      {"and", two(bv().bv_and), [](bool a, bool b, bool) { return a && b; }},
      {"or", two(bv().bv_or), [](bool a, bool b, bool) { return a || b; }},
      {"xor", two(bv().bv_xor), [](bool a, bool b, bool) { return a != b; }},
      {"andnot", two(bv().bv_andnot), [](bool a, bool b, bool) { return !a && b; }},
      {"and3", three(bv().bv_and3), [](bool a, bool b, bool c) { return a && b && c; }},
      {"or3", three(bv().bv_or3), [](bool a, bool b, bool c) { return a || b || c; }},
      {"xor3", three(bv().bv_xor3), [](bool a, bool b, bool c) { return a != (b != c); }},
  };
  Random random("logic");
  for (const Operation& operation : operations) {
    for (uint64_t nrows : row_counts) {
      const size_t bytes = bytes_of(GetParam(), nrows);
      GuardedBuffer a(bytes), b(bytes), c(bytes);
      for (GuardedBuffer* source : {&a, &b, &c}) {
        for (size_t i = 0; i < bytes; i++) source->data()[i] = static_cast<uint8_t>(random.bits());
      }
      const uint8_t* const sources[] = {a.data(), b.data(), c.data()};
      std::vector<bool> want(bytes * 8);
      for (size_t i = 0; i < bytes * 8; i++)
        want[i] = operation.bit(bit(a.data(), i), bit(b.data(), i), bit(c.data(), i));
      const auto want_count =
          static_cast<uint32_t>(std::count(want.begin(), want.begin() + static_cast<long>(nrows), true));
      for (const bool counting : {true, false}) {
        for (const bool in_place : {false, true}) {  // in place last: it changes a source
          SCOPED_TRACE(std::string(operation.name) + ", " + std::to_string(nrows) + " rows" +
                       (counting ? ", counting" : "") + (in_place ? ", in place" : ""));
          now_running(operation.name);
          GuardedBuffer apart(bytes), a_kept(std::span(a.data(), bytes), 0);
          uint8_t* const dst = in_place ? a.data() : apart.data();
          uint32_t count = 4711;
          operation.call(dst, counting ? &count : nullptr, sources, nrows);
          EXPECT_EQ(count, counting ? want_count : 4711u);
          for (size_t i = 0; i < bytes * 8; i++) ASSERT_EQ(bit(dst, i), want[i]) << "bit " << i;
          if (in_place) std::memcpy(a.data(), a_kept.data(), bytes);
        }
      }
      uint32_t count = 4711;
      bv().bv_count(&count, a.data(), nrows);
      uint32_t want_set = 0;
      for (uint64_t r = 0; r < nrows; r++) want_set += bit(a.data(), r);
      EXPECT_EQ(count, want_set);
    }
  }
}

TEST_P(BitVectors, RangesSetAndClearTheirBitsOnly) {
  for (uint64_t first = 0; first < 40; first++) {
    for (uint64_t last = first; last < 40; last++) {
      uint8_t set[6] = {}, clear[6];
      std::memset(clear, 0xff, sizeof clear);
      bv().set_range(set, first, last);
      bv().clear_range(clear, first, last);
      for (uint64_t i = 0; i < 48; i++) {
        ASSERT_EQ(bit(set, i), first <= i && i <= last) << first << " to " << last << ", bit " << i;
        ASSERT_EQ(bit(clear, i), !(first <= i && i <= last)) << first << " to " << last << ", bit " << i;
      }
    }
  }
}

TEST_P(BitVectors, WalksVisitTheRowsInOrder) {
  const uint64_t end = GetParam() == bv8 ? 0xffffffffu : ~uint64_t{0};
  Random random("walk");
  for (uint64_t nrows : row_counts) {
    if (nrows == 0) continue;
    for (unsigned percent : {0u, 1u, 50u, 99u, 100u}) {
      for (const bool clear : {false, true}) {
        const auto rows = random.rows(nrows, percent);
        const GuardedBits whole(rows, random.bits());
        // Only as many bytes as the group may read; the first word is always read whole.
        const size_t bytes = std::max<size_t>(8, bytes_of(GetParam(), nrows));
        GuardedBuffer bits(bytes);
        for (size_t i = 0; i < bytes; i++) bits.data()[i] = static_cast<uint8_t>(whole.word(i / 8) >> i % 8 * 8);
        const auto* const words = reinterpret_cast<const uint64_t*>(bits.data());
        const auto start = static_cast<uint32_t>(nrows > 64 ? 0 : random.below(nrows));
        SCOPED_TRACE(std::to_string(nrows) + " rows, " + std::to_string(percent) + " % set, from " +
                     std::to_string(start) + (clear ? ", clear rows" : ""));
        now_running("walk over " + std::to_string(nrows) + " rows");
        std::vector<uint64_t> want;
        for (uint64_t r = start; r < nrows; r++) {
          if (rows[r] != clear) want.push_back(r);
        }
        kdzk_bv_iter iter;
        // Only the low byte of the flag counts, and there only 1.
        bv().iter_init(&iter, words, static_cast<uint32_t>(nrows), clear ? 0xff01u : 0xff81u, start);
        std::vector<uint64_t> got;
        for (uint64_t r; (r = clear ? bv().next_clear(&iter) : bv().next_set(&iter)) != end;) got.push_back(r);
        EXPECT_EQ(got, want);
        if (clear) continue;
        for (uint32_t capacity : {1u, 8u, 64u}) {
          bv().iter_init(&iter, words, static_cast<uint32_t>(nrows), 0, start);
          got.clear();
          uint64_t stored;
          do {
            std::vector<uint32_t> batch(capacity + 1, 4711);
            stored = bv().next_set_batch(&iter, batch.data(), capacity);
            EXPECT_EQ(batch[stored], 4711u);
            got.insert(got.end(), batch.begin(), batch.begin() + static_cast<long>(stored));
          } while (stored == capacity);
          EXPECT_EQ(got, want) << "capacity " << capacity;
          EXPECT_EQ(bv().next_set_batch(&iter, nullptr, 0), 0u);
        }
      }
    }
  }
}

// Any start row, also deep in the vector, and the fields of the record as a host may see them.
TEST_P(BitVectors, WalksBeginAtTheirStart) {
  const uint64_t end = GetParam() == bv8 ? 0xffffffffu : ~uint64_t{0};
  const uint64_t words[3] = {~uint64_t{0}, 0, uint64_t{1} << 5 | uint64_t{1} << 63};
  for (uint32_t start : {0u, 5u, 63u, 64u, 100u, 133u, 134u}) {
    kdzk_bv_iter iter;
    bv().iter_init(&iter, words, 190, 0, start);
    EXPECT_EQ(iter.next, words + start / 64 + 1);
    EXPECT_EQ(iter.nrows, 190);
    EXPECT_EQ(iter.base, static_cast<int32_t>(start / 64 * 64));
    EXPECT_EQ(iter.pos, start % 64);
    EXPECT_EQ(iter.bits, words[start / 64] >> start % 64 << start % 64);
    EXPECT_EQ(bv().next_set(&iter), start < 64 ? start : start <= 133 ? 133 : end);
    if (start >= 64 && start <= 133) {
      EXPECT_EQ(iter.pos, 5u);
      EXPECT_EQ(iter.base, 128);
      EXPECT_EQ(iter.bits, uint64_t{1} << 63);
      EXPECT_EQ(bv().next_set(&iter), end);  // row 191 is behind the last
      EXPECT_EQ(iter.bits, 0u);
      EXPECT_EQ(iter.pos, 63u);
    }
  }
  kdzk_bv_iter iter;
  bv().iter_init(&iter, words, 0, 0, 0);
  EXPECT_EQ(bv().next_set(&iter), end);
  EXPECT_EQ(bv().no_next(nullptr, 0), end);
  EXPECT_EQ(bv().no_batch(nullptr, nullptr, 0, 0), 0u);
}

INSTANTIATE_TEST_SUITE_P(Groups, BitVectors, testing::Values(bv8, bv64),
                         [](const auto& info) { return info.param == bv8 ? "bv8" : "bv64"; });

}  // namespace
}  // namespace kdzk_test

// SPDX-License-Identifier: Apache-2.0
// The four burst kernels against a loop over rows.

#include <gtest/gtest.h>

#include <memory>

#include "tests/support/streams.h"

namespace kdzk_test {
namespace {

struct BurstKernel {
  const char* name;
  uint32_t id;
  uint32_t length_bits;  // 0: by first rows
};

const BurstKernel burst_kernels[] = {{"kdzk_burst_rle_8bit", 878, 8},
                                     {"kdzk_burst_rle_8bit_cla", 1006, 0},
                                     {"kdzk_burst_rle_16bit", 1902, 16},
                                     {"kdzk_burst_rle_16bit_cla", 2030, 0}};

// A column of runs, and the bits of its runs.
struct Column {
  const BurstKernel& kernel;
  Codes lengths;
  std::vector<bool> chosen;
  std::unique_ptr<GuardedBuffer> runs;
  GuardedBits run_bits;
  kdzk_enc_ctx enc{};
  kdzk_vec src{};

  Column(const BurstKernel& k, Codes run_lengths, std::vector<bool> run_chosen, Random& random)
      : kernel(k), lengths(std::move(run_lengths)), chosen(std::move(run_chosen)), run_bits(chosen, random.bits()) {
    Codes first_rows = {0};
    for (const uint32_t length : lengths) first_rows.push_back(first_rows.back() + length);
    const Bytes bytes = k.length_bits > 0 ? packed(lengths, k.length_bits) : big_endian(first_rows);
    runs = std::make_unique<GuardedBuffer>(bytes, 0, static_cast<uint8_t>(random.bits()));
    enc.flags = KDZK_RLE | KDZK_PACKED_DICT;
    enc.own_nrows = static_cast<uint32_t>(lengths.size());
    if (k.length_bits > 0) {
      enc.unpack_base = reinterpret_cast<uint64_t>(runs->data());
    } else {
      enc.run_offsets = runs->data();
    }
    src.enc_ctx = &enc;
  }
  Column(const Column&) = delete;

  uint64_t call(kdzk_vec* result, uint64_t reported) {
    kdzk_result_report report{.bitvec = run_bits.words(), .hits = reported};
    return library().dispatch[kernel.id].burst(result, &src, &report);
  }

  // Rows, hits and return code must be the expected ones, whatever count of set runs is reported. Rows behind the last
  // run are what most runs are said to be.
  void expect_rows(uint64_t reported, Random& random, uint32_t rows_behind = 0) {
    std::vector<bool> want;
    for (size_t run = 0; run < lengths.size(); run++) want.insert(want.end(), lengths[run], chosen[run]);
    want.insert(want.end(), rows_behind, reported > lengths.size() / 2);
    const Case now(Message() << kernel.name << ", " << lengths.size() << " runs, " << want.size() << " rows, "
                             << count(chosen) << " set, reported " << reported,
                   random);
    GuardedBits bits(want.size(), random.bits());
    kdzk_vec result{.bitvec = bits.words(), .hits = 4711, .nrows = static_cast<uint32_t>(want.size())};
    EXPECT_EQ(call(&result, reported), count(want) > 0 ? KDZK_DONE : KDZK_NO_ROW);
    expect_bits(bits, want, 0);
    EXPECT_EQ(result.hits, count(want));
  }
};

enum class Spread { ones, short_runs, around_a_word, long_runs, longest };
const Spread spreads[] = {Spread::ones, Spread::short_runs, Spread::around_a_word, Spread::long_runs, Spread::longest};

Codes random_lengths(const BurstKernel& kernel, uint32_t runs, Spread spread, Random& random) {
  const uint32_t longest = kernel.length_bits == 8 ? 255 : kernel.length_bits == 16 ? 65535 : 70000;
  const uint32_t edges[] = {55, 56, 57, 63, 64, 65, 112, 113, 127, 128, 129, 191, 192, 193};
  Codes lengths(runs, 1);
  for (uint32_t& length : lengths) {
    if (spread == Spread::short_runs) length = static_cast<uint32_t>(1 + random.below(9));
    if (spread == Spread::around_a_word) length = edges[random.below(std::size(edges))];
    if (spread == Spread::long_runs) length = static_cast<uint32_t>(1 + random.below(std::min(longest, 700u)));
    if (spread == Spread::longest)  // 16 bits and more: a few, so that the oracle's rows stay few
      length =
          runs > 16 && longest > 255 && random.below(32) > 0 ? 3 : longest - static_cast<uint32_t>(random.below(2));
  }
  return lengths;
}

// `set` of `runs` bits at random.
std::vector<bool> random_choice(uint32_t runs, uint32_t set, Random& random) {
  std::vector<bool> chosen(runs);
  for (uint32_t run = 0; run < runs; run++) {
    chosen[run] = random.below(runs - run) < set;
    set -= chosen[run];
  }
  return chosen;
}

class BurstRle : public testing::TestWithParam<BurstKernel> {
 protected:
  void SetUp() override { ASSERT_STREQ(kdzk_name_of(&library(), GetParam().id), GetParam().name); }
  Random random{GetParam().name};
};

// All densities at which the choice of leaf changes, with a run more and less.
TEST_P(BurstRle, AgreesWithALoopOverRows) {
  for (const uint32_t runs : {1u, 2u, 7u, 8u, 9u, 49u, 50u, 51u, 63u, 64u, 65u, 100u, 128u, 150u, 640u, 1001u}) {
    const auto low = static_cast<uint32_t>(0.02 * runs), high = static_cast<uint32_t>(runs * 0.98), half = runs / 2;
    for (const uint32_t set :
         {0u, 1u, low - 1, low, low + 1, half, half + 1, high - 1, high, high + 1, runs - 1, runs}) {
      if (set > runs) continue;
      for (const Spread spread : spreads) {
        if (spread == Spread::longest && runs > 200 && set != half) continue;
        Column column(GetParam(), random_lengths(GetParam(), runs, spread, random), random_choice(runs, set, random),
                      random);
        column.expect_rows(set, random);
        if (HasFailure()) return;
      }
    }
  }
}

// The reported count is only a hint: each leaf gives the same rows.
TEST_P(BurstRle, BearsAWrongCount) {
  for (const uint32_t runs : {1u, 64u, 333u}) {
    for (const unsigned percent : {0u, 3u, 50u, 97u, 100u}) {
      Column column(GetParam(), random_lengths(GetParam(), runs, Spread::long_runs, random), random.rows(runs, percent),
                    random);
      for (const uint64_t reported :
           {uint64_t{0}, uint64_t{runs} / 2, uint64_t{runs} / 2 + 1, uint64_t{runs}, ~uint64_t{0}}) {
        for (const uint32_t rows_behind : {0u, 1u, 150u}) column.expect_rows(reported, random, rows_behind);
      }
    }
  }
}

// A stretch of each length from each bit of a word, also to the last row of the vector.
TEST_P(BurstRle, SetsStretchesAtEveryBit) {
  for (uint32_t before = 1; before <= 66; before++) {
    for (const uint32_t length : {1u, 2u, 55u, 56u, 57u, 62u, 63u, 64u, 65u, 113u, 128u, 200u}) {
      for (const uint32_t behind : {1u, 64u, 128u}) {
        for (const bool inner : {true, false}) {
          Column column(GetParam(), {before, length, behind}, {!inner, inner, !inner}, random);
          for (const uint64_t reported : {0u, 1u, 2u, 3u}) column.expect_rows(reported, random);
        }
      }
      if (HasFailure()) return;
    }
  }
}

TEST_P(BurstRle, BearsNoRuns) {
  Column column(GetParam(), {}, {}, random);
  for (const uint32_t rows : {0u, 70u}) column.expect_rows(0, random, rows);
}

TEST_P(BurstRle, TakesOneRecordForBoth) {
  Column column(GetParam(), {3, 70, 5}, {true, false, true}, random);
  GuardedBits bits(78);
  column.src.bitvec = bits.words();
  column.src.nrows = 78;
  EXPECT_EQ(column.call(&column.src, 2), KDZK_DONE);
  EXPECT_EQ(bits.word(0), 7u);
  EXPECT_EQ(bits.word(1), 31u << 9);
}

// Both invariants end the process in every build, the run-length one first.
TEST_P(BurstRle, EndsTheProcessOnABrokenInvariant) {
  Column column(GetParam(), {3, 4}, {true, false}, random);
  uint64_t bits = 0;
  kdzk_vec result{.bitvec = &bits, .nrows = 7};
  const auto same = [&] {
    result.bitvec = column.run_bits.words();
    column.call(&result, 1);
  };
  const char* const no_runs = "Assertion `KDZK_ENC_CTX_FLAG\\(KDZK_VEC_ENC_CTX\\(src\\), KDZK_RLE\\)' failed";
  EXPECT_DEATH(same(), "x86/burst_rle.cpp:[0-9]+: .*Assertion `kdzk_bv_res != kdzk_bv_aux' failed");
  column.enc.flags = KDZK_PACKED_DICT;
  EXPECT_DEATH(column.call(&result, 1), no_runs);
  EXPECT_DEATH(same(), no_runs);
}

INSTANTIATE_TEST_SUITE_P(All, BurstRle, testing::ValuesIn(burst_kernels),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace kdzk_test

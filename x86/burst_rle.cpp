// SPDX-License-Identifier: Apache-2.0
// Bits per run to bits per row.
//
// Only the edges between set and clear runs count: neighbouring set runs are one stretch of rows. 64 run bits and the
// one before them give the edges of 64 runs at once:
//
//   run bits     0 0 1 1 1 0 1 ...          run lengths   3  1  2  5  1  4  2 ...
//   edges            ^     ^ ^              first rows    0  3  4  6 11 12 16 ...
//   row bits     0 0 0 0 1 1 1 1 1 1 1 1 0 0 0 0 1 1 ...        edges at rows 4, 12, 16
//
// The result is filled with one ground, zeros if few runs are set, ones if many are, and only what differs from it is
// written, front to back. The word with the last edge is kept in a register; an edge flips the bits from its row on,
// there or in what it finds new ground to be, and stores the word. So nothing is loaded that was just stored, which is
// the price of ORing masks into memory run by run, and a branch hangs on the data only where a stretch is longer than a
// word. With half the runs set at 4 rows a run, an edge costs 1.4 ns, tables and all (Zen 4, g++ 12; kdzk_bench,
// burst_rle_8bit/runs_of_4/50%_set).
//
// What differs between the leaves is how an edge's row is found:
//
//   SummedRows   adds up the lengths since the last edge, 16 bytes a step: below 2 % and above 98 % set runs
//   TableRows    running sums of 64 lengths at a time, then one load an edge: everything between
//   OffsetRows   one load from the runs' first rows: the `_cla` kernels
//
// Invariants. No byte behind the result's last word is touched. A row is below the result's row count, but for the end
// of the last stretch. No byte behind the last run length is read: the last few are copied to where there is room.

#include "frame/assertion.h"
#include "frame/families.h"
#include "frame/kernel_name.h"
#include "x86/kdzkc_x86.h"

namespace kdzk {
namespace {

// ---- The rows of edges: row(run) is the first row of a run, asked for in ascending order ----

// Lane i gets the big-endian 16 bits i + first, as 32 bits.
template <int first>
constexpr std::array<uint8_t, 16> widening() {
  std::array<uint8_t, 16> from{};
  for (int at = 0; at < 16; at++)
    from[at] = static_cast<uint8_t>(at % 4 < 2 ? 2 * (first + at / 4) + 1 - at % 4 : 0x80);
  return from;
}
static_assert(widening<4>() == std::array<uint8_t, 16>{9, 8, 0x80, 0x80, 11, 10, 0x80, 0x80,  //
                                                       13, 12, 0x80, 0x80, 15, 14, 0x80, 0x80});

template <int W>
class SummedRows {
 public:
  static constexpr bool has_table = false;
  SummedRows(const uint8_t* lengths, uint64_t runs) : at_(lengths), end_(lengths + runs * (W / 8)) {}

  uint64_t row(uint64_t run) {
    constexpr uint64_t runs_per_step = 128 / W;
    __m128i sums = _mm_setzero_si128();  // two sums, in lanes of 64 bits
    for (; run - run_ >= runs_per_step; run_ += runs_per_step, at_ += 16) sums = _mm_add_epi64(sums, sum(load16(at_)));
    const uint64_t rest = (run - run_) * (W / 8);  // bytes
    const __m128i first_bytes = load16(ones_then_zeros.data() + 16 - rest);
    sums = _mm_add_epi64(sums, sum(_mm_and_si128(end_ - at_ >= 16 ? load16(at_) : last_lengths(), first_bytes)));
    at_ += rest;
    run_ = run;
    row_ += static_cast<uint64_t>(_mm_cvtsi128_si64(_mm_add_epi64(sums, _mm_srli_si128(sums, 8))));
    return row_;
  }
  uint64_t row_behind(uint64_t runs) { return row(runs); }

 private:
  static constexpr std::array<uint8_t, 32> ones_then_zeros = [] {
    std::array<uint8_t, 32> bytes{};
    for (int i = 0; i < 16; i++) bytes[i] = 0xff;
    return bytes;
  }();

  // Two sums of the lengths in 16 bytes.
  static __m128i sum(__m128i lengths) {
    const __m128i zero = _mm_setzero_si128();
    if constexpr (W == 8) return _mm_sad_epu8(lengths, zero);
    const __m128i high = _mm_sad_epu8(_mm_and_si128(lengths, _mm_set1_epi16(0xff)), zero);  // bytes that come first
    const __m128i low = _mm_sad_epu8(_mm_srli_epi16(lengths, 8), zero);
    return _mm_add_epi64(_mm_slli_epi64(high, 8), low);
  }

  // The lengths from at_ on, and zeros; fewer than 16 bytes.
  __m128i last_lengths() const {
    uint8_t bytes[16] = {};
    std::memcpy(bytes, at_, static_cast<size_t>(end_ - at_));
    return load16(bytes);
  }

  const uint8_t* at_;  // the length of run_
  const uint8_t* end_;
  uint64_t run_ = 0, row_ = 0;
};

template <int W>
class TableRows {
 public:
  static constexpr bool has_table = true;
  TableRows(const uint8_t* lengths, uint64_t) : at_(lengths) { sums_[0] = sums_[64] = 0; }

  // Goes on to the next `runs` runs, up to 64, whose rows can then be asked for, and that of the run behind them.
  void next_block(uint64_t runs) {
    base_ += sums_[64];
    __m128i before = _mm_setzero_si128();  // the sum of all lengths so far, in all lanes
    if (runs == 64) {
#pragma GCC unroll 8
      for (int run = 0; run < 64; run += 8) before = add_eight(at_, run, before);
    } else {  // the last block
      uint8_t lengths[64 * W / 8] = {};
      std::memcpy(lengths, at_, runs * (W / 8));
      for (uint64_t run = 0; run < runs; run += 8) before = add_eight(lengths, run, before);
    }
    at_ += 8 * W;
  }
  uint64_t row(uint64_t run) const { return base_ + sums_[run % 64]; }
  uint64_t row_behind(uint64_t runs) const { return base_ + sums_[(runs - 1) % 64 + 1]; }

 private:
  using Sum = LaneInt<2 * W>;  // 64 bytes make 16,320 at most, 64 of 16 bits less than 2^22

  template <int lane_bits>
  static __m128i running_sums(__m128i v) {
    if constexpr (lane_bits == 16) v = _mm_add_epi16(v, _mm_slli_si128(v, 2));
    v = add<lane_bits>(v, _mm_slli_si128(v, 4));
    return add<lane_bits>(v, _mm_slli_si128(v, 8));
  }

  // Entries run + 1 to run + 8, and the last of them in all lanes.
  __m128i add_eight(const uint8_t* lengths, uint64_t run, __m128i before) {
    const auto put = [&](uint64_t entry, __m128i widened) {
      const __m128i sums = add<2 * W>(running_sums<2 * W>(widened), before);
      store16(reinterpret_cast<uint8_t*>(sums_ + entry), sums);
      before = W == 8 ? _mm_shuffle_epi8(sums, _mm_set1_epi16(0x0f0e)) : _mm_shuffle_epi32(sums, 0xff);
    };
    const uint8_t* const at = lengths + run * (W / 8);
    if constexpr (W == 8) {
      put(run + 1, _mm_cvtepu8_epi16(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(at))));  // 8 lengths
    } else {
      static constexpr auto first_four = widening<0>(), last_four = widening<4>();
      const __m128i stored = load16(at);
      put(run + 1, _mm_shuffle_epi8(stored, vector_of(first_four)));  // 4 lengths
      put(run + 5, _mm_shuffle_epi8(stored, vector_of(last_four)));   // 4 lengths
    }
    return before;
  }

  const uint8_t* at_;  // the lengths of the next block
  uint64_t base_ = 0;  // the first row of the block
  Sum sums_[65];       // entry k is the sum of the first k lengths of the block
};

class OffsetRows {
 public:
  static constexpr bool has_table = false;
  explicit OffsetRows(const uint8_t* run_offsets) : run_offsets_(run_offsets) {}
  uint64_t row(uint64_t run) const { return load_be32(run_offsets_ + 4 * run); }
  uint64_t row_behind(uint64_t runs) const { return row(runs); }

 private:
  const uint8_t* run_offsets_;
};

// ---- The result ----

// All rows are `ground` at first, all ones or all zeros, and those of the stretches the opposite.
class RowBits {
 public:
  RowBits(uint64_t* bits, uint32_t nrows, uint64_t ground)
      : bits_(reinterpret_cast<uint8_t*>(bits)), nrows_(nrows), ground_(ground), content_(ground) {
    if (nrows > 0) std::memset(bits_, static_cast<int>(ground & 0xff), 8 * words());
  }

  // A stretch begins with this row, or ends in front of it. In ascending order, and below the row count.
  void begin(uint64_t row) { flip_from(row, ground_); }
  void end(uint64_t row) {
    fill_up_to(row / 64);
    flip_from(row, ~ground_);
  }

  // The last stretch ends in front of this row, which may be behind the last one.
  void end_last(uint64_t row) {
    if (row < nrows_) return end(row);
    fill_up_to(words() - 1);
    if (word_ + 1 < words()) store(bits_ + 8 * (words() - 1), ~ground_);
  }

  void clear_behind_last_row() {
    if (nrows_ % 64 == 0) return;
    uint8_t* const last = bits_ + 8 * (words() - 1);
    store(last, load<uint64_t>(last) & ~uint64_t{0} >> (64 - nrows_ % 64));
  }

 private:
  uint64_t words() const { return (uint64_t{nrows_} + 63) / 64; }

  // `before` is what the rows between the last edge and this one are.
  void flip_from(uint64_t row, uint64_t before) {
    const uint64_t word = row / 64;
    content_ = (word == word_ ? content_ : before) ^ ~uint64_t{0} << row % 64;
    word_ = word;
    store(bits_ + 8 * word, content_);
  }

  // Fills the words between that with the last edge and this one, which may change too.
  void fill_up_to(uint64_t word) {
    const __m128i rows = in_all_lanes<64>(~ground_);  // of two words
    for (uint64_t i = word_ + 1; i < word; i += 2) store16(bits_ + 8 * i, rows);
  }

  uint8_t* bits_;
  uint64_t nrows_;
  uint64_t ground_;
  uint64_t content_;   // the word with the last edge
  uint64_t word_ = 0;  // its number
};

// ---- The leaves ----

struct Runs {
  const uint64_t* bits;
  uint64_t number;
};

// Stretches of set runs on a ground of zeros or, `many`, of clear runs on a ground of ones.
template <class Rows>
uint64_t burst(kdzk_vec* result, Runs runs, Rows rows, bool many) {
  const uint64_t ground = many ? ~uint64_t{0} : 0;
  RowBits out(result->bitvec, result->nrows, ground);
  uint64_t in_stretches = 0;  // rows; less the row where the stretch began that is open
  uint64_t open = 0;          // 1 if the run before is in a stretch
  for (uint64_t first = 0; first < runs.number; first += 64) {
    const uint64_t in_block = runs.number - first < 64 ? runs.number - first : 64;
    const uint64_t block = ~uint64_t{0} >> (64 - in_block);
    const uint64_t chosen = (load<uint64_t>(runs.bits + first / 64) ^ ground) & block;
    uint64_t edges = (chosen ^ (chosen << 1 | open)) & block;
    if constexpr (Rows::has_table) rows.next_block(in_block);
    const auto begin = [&](uint64_t row) {
      out.begin(row);
      in_stretches -= row;
    };
    const auto end = [&](uint64_t row) {
      out.end(row);
      in_stretches += row;
    };
    const auto next_edge = [&] {
      const uint64_t row = rows.row(first + static_cast<uint64_t>(__builtin_ctzll(edges)));
      edges &= edges - 1;
      return row;
    };
    if (open != 0 && edges != 0) end(next_edge());
    while (edges != 0) {
      begin(next_edge());
      if (edges == 0) break;
      end(next_edge());
    }
    open = chosen >> (in_block - 1);
  }
  if (open != 0) {
    const uint64_t row = rows.row_behind(runs.number);
    out.end_last(row);
    in_stretches += row;
  }
  out.clear_behind_last_row();
  result->hits = static_cast<uint32_t>(many ? result->nrows - in_stretches : in_stretches);
  return result->hits != 0 ? KDZK_DONE : KDZK_NO_ROW;
}

}  // namespace

template <int W, bool cla>
uint64_t burst_rle(kdzk_vec* result, const kdzk_vec* src, const kdzk_result_report* report) {
  constexpr char file[] = "x86/burst_rle.cpp";
  constexpr const char* kernel = kernel_name<BurstRle<W, cla>, BurstOp::burst>;
  const kdzk_enc_ctx* const enc = src->enc_ctx;
  if ((enc->flags & KDZK_RLE) == 0)
    __assert_fail("KDZK_ENC_CTX_FLAG(KDZK_VEC_ENC_CTX(src), KDZK_RLE)", file, __LINE__, kernel);
  if (result->bitvec == report->bitvec) __assert_fail("kdzk_bv_res != kdzk_bv_aux", file, __LINE__, kernel);

  const Runs runs = {report->bitvec, enc->own_nrows};
  const uint64_t set = report->hits;  // trusted: a wrong number only costs time
  const bool many = set > runs.number / 2;
  if constexpr (cla) {
    return burst(result, runs, OffsetRows(enc->run_offsets), many);
  } else {
    const auto* const lengths = reinterpret_cast<const uint8_t*>(enc->unpack_base);
    const double number = static_cast<double>(runs.number);
    const auto low = static_cast<uint64_t>(0.02 * number), high = static_cast<uint64_t>(number * 0.98);
    if (set < low) return burst(result, runs, SummedRows<W>(lengths, runs.number), false);
    if (set > high) return burst(result, runs, SummedRows<W>(lengths, runs.number), true);
    return burst(result, runs, TableRows<W>(lengths, runs.number), many);
  }
}

template uint64_t burst_rle<8, false>(kdzk_vec*, const kdzk_vec*, const kdzk_result_report*);
template uint64_t burst_rle<8, true>(kdzk_vec*, const kdzk_vec*, const kdzk_result_report*);
template uint64_t burst_rle<16, false>(kdzk_vec*, const kdzk_vec*, const kdzk_result_report*);
template uint64_t burst_rle<16, true>(kdzk_vec*, const kdzk_vec*, const kdzk_result_report*);

}  // namespace kdzk

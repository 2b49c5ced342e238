// SPDX-License-Identifier: Apache-2.0
// Every predicate kernel of the matrix, found by its id as a host finds it, against a plain loop over codes.

#include <cstdio>
#include <memory>

#include "tests/support/predicate_oracle.h"
#include "tests/support/streams.h"

namespace kdzk_test {
namespace {

class Predicates : public testing::TestWithParam<PredicateKernel> {
 protected:
  void SetUp() override { ASSERT_STREQ(kdzk_name_of(&library(), GetParam().id()), GetParam().name().c_str()); }
};

// One vector of a column with its constants, and what a call on it has to give.
struct Vector {
  const PredicateKernel& kernel;
  std::vector<Row> rows;
  Row low, high;
  GuardedBuffer data, lengths;
  Constant low_constant, high_constant;
  kdzk_enc_ctx enc;
  kdzk_vec input;

  Vector(const PredicateKernel& k, std::vector<Row> r, Row lo, Row hi, uint8_t slack_fill = 0xa5)
      : kernel(k),
        rows(std::move(r)),
        low(lo),
        high(hi),
        data(stored_data(k, rows), KDZK_PADDING, slack_fill),
        lengths(stored_lengths(k, rows), KDZK_PADDING, slack_fill),
        low_constant(k, lo),
        high_constant(k, hi),
        enc{.width = static_cast<uint8_t>(k.value_bytes > 0 ? 8 * k.value_bytes : k.width)},
        input{.data = data.data(),
              .lengths = k.has_lengths() ? lengths.data() : nullptr,
              .enc_ctx = &enc,
              .nrows = nrows()} {}

  uint32_t nrows() const { return static_cast<uint32_t>(rows.size()); }

  std::vector<bool> expected() const {
    std::vector<bool> want(rows.size());
    for (size_t r = 0; r < rows.size(); r++) want[r] = qualifies(kernel, rows[r], low, high);
    return want;
  }

  uint64_t call(kdzk_vec* result, kdzk_exec* exec) const { return call(result, &input, exec); }
  uint64_t call(kdzk_vec* result, const kdzk_vec* other_input, kdzk_exec* exec) const {
    return kernel.call(result, other_input, low_constant.args(), high_constant.args(), exec);
  }

  std::string describe() const {
    const auto text = [](Row row) { return std::to_string(row.value) + ":" + std::to_string(row.length_code); };
    return kernel.title() + ", " + std::to_string(nrows()) + " rows, constants " + text(low) + ", " + text(high);
  }
};

Row half(Row row) { return {row.value / 2, row.length_code}; }

std::vector<bool> both(std::vector<bool> a, const std::vector<bool>& b) {
  for (size_t r = 0; r < a.size(); r++) a[r] = a[r] && b[r];
  return a;
}

// The rows' bits, full of garbage at first, and the result that a call gets.
struct Answer {
  GuardedBits bits;
  kdzk_vec result;
  explicit Answer(uint64_t nrows, uint64_t garbage = 0xdeadbeefcafef00d)
      : bits(nrows, garbage), result{.bitvec = bits.words(), .hits = 12345, .nrows = static_cast<uint32_t>(nrows)} {}

  void expect(const std::vector<bool>& want, uint64_t returned) const { expect(want, returned, result); }
  void expect(const std::vector<bool>& want, uint64_t returned, const kdzk_vec& got) const {
    expect_bits(bits, want);
    EXPECT_EQ(got.hits, count(want));
    EXPECT_EQ(returned, got.hits > 0 ? KDZK_DONE : KDZK_NO_ROW);
  }
};

// Calls the kernel on the vector and expects these rows.
void expect_answer(const Vector& vector, kdzk_exec* exec, const std::vector<bool>& want) {
  Answer answer(want.size());
  const uint64_t returned = vector.call(&answer.result, exec);
  answer.expect(want, returned);
}

// A call's selection.
struct Selection {
  GuardedBits bits;
  kdzk_exec exec;
  explicit Selection(const std::vector<bool>& rows, uint8_t flags, const kdzk_env* env = nullptr)
      : bits(rows, 0), exec{.env = env, .selection = bits.words(), .flags = flags} {}
};
constexpr uint8_t selective_or_not[] = {0, KDZK_EX_SELECTIVE};

// The cases of the 1-bit kernels that answer with all rows are not to be called without rows.
bool undefined_without_rows(const PredicateKernel& kernel) { return kernel.width == 1; }

TEST_P(Predicates, AgreeWithThePlainLoop) {
  const PredicateKernel& kernel = GetParam();
  Random random(kernel.title());
  const auto step = static_cast<uint32_t>(kernel.rows_per_step());
  for (uint32_t nrows : {0u, 1u, 7u, step - 1, step, step + 1, 63u, 64u, 65u, 2 * step + 31, 1000u}) {
    if (nrows == 0 && undefined_without_rows(kernel)) continue;
    for (Fill fill : fills) {
      const auto rows = random_rows(random, kernel, nrows, fill);
      const Row hit = nrows > 0 ? rows[random.below(nrows)] : Row{};
      const Row other = kernel.random_row(random), lowest = kernel.fitting(0, 0), highest = kernel.fitting(~0ull, 255);
      const Row next = kernel.fitting(std::min(hit.value + 1, kernel.top()), hit.length_code);
      const Row longer = kernel.fitting(hit.value, static_cast<uint8_t>(hit.length_code + 1));
      for (const auto& [low, high] :
           {std::pair(hit, other), std::pair(other, hit), std::pair(lowest, highest), std::pair(highest, lowest),
            std::pair(hit, hit), std::pair(hit, next), std::pair(hit, longer)}) {
        const Vector vector(kernel, rows, low, high, static_cast<uint8_t>(random.bits()));
        SCOPED_TRACE(vector.describe() + ", fill " + std::to_string(static_cast<int>(fill)) + ", seed " +
                     std::to_string(random.seed()));
        now_running(vector.describe());
        Answer answer(nrows, random.bits());
        const uint64_t returned = vector.call(&answer.result, nullptr);
        answer.expect(vector.expected(), returned);
        if (HasFailure()) return;
      }
    }
  }
}

TEST_P(Predicates, ApplyFilterAndSelectionOnBothRoads) {
  const PredicateKernel& kernel = GetParam();
  Random random(kernel.title());
  for (uint32_t nrows : {1u, 64u, 333u}) {
    const auto rows = random_rows(random, kernel, nrows, Fill::runs);
    const Vector plain(kernel, rows, half(rows[0]), rows[nrows / 2]);
    for (unsigned percent : {0u, 5u, 60u, 100u}) {
      const auto filter_rows = random.rows(nrows, 50), selected_rows = random.rows(nrows, percent);
      GuardedBits filter(filter_rows, random.bits()), selection(selected_rows, random.bits());
      for (const bool filtered : {false, true}) {
        for (const uint8_t flags : selective_or_not) {
          SCOPED_TRACE(plain.describe() + (filtered ? ", filtered" : "") + ", selecting " + std::to_string(percent) +
                       " %, flags " + std::to_string(flags));
          now_running(plain.describe());
          kdzk_vec input = plain.input;
          input.filter = filtered ? filter.words() : nullptr;
          kdzk_exec exec{.selection = selection.words(), .flags = flags, .out_flags = 0x40};
          Answer answer(nrows);
          // On the selective road the row count is the input's, on the other the result's.
          (flags != 0 && kernel.has_companion() ? answer.result : input).nrows = 0xffffffff;
          const uint64_t returned = plain.call(&answer.result, &input, &exec);
          auto want = both(plain.expected(), selected_rows);
          if (filtered && kernel.reads_filter()) want = both(want, filter_rows);
          answer.expect(want, returned);
          EXPECT_EQ(exec.out_flags, 0x40 | KDZK_OUT_SELECTION);
        }
      }
    }
    // Without a selection the flag changes nothing; result and input may be one record.
    Answer answer(nrows);
    kdzk_vec vec = plain.input;
    vec.bitvec = answer.bits.words();
    kdzk_exec exec{.flags = KDZK_EX_SELECTIVE};
    const uint64_t returned = plain.call(&vec, &vec, &exec);
    answer.expect(plain.expected(), returned, vec);
    EXPECT_EQ(exec.out_flags, 0);
  }
}

TEST_P(Predicates, WorkOnRunsAndReportThem) {
  const PredicateKernel& kernel = GetParam();
  Random random(kernel.title());
  const uint32_t nruns = 150;
  const auto rows = random_rows(random, kernel, nruns, Fill::uniform);
  Vector vector(kernel, rows, half(rows[3]), rows[5]);
  RecordingHost host;
  host.result_cb_returns = 0x87654321;
  const auto selected_rows = random.rows(nruns, 70);
  Selection selection(selected_rows, 0, &host.env);
  GuardedBits run_bits(nruns);
  Answer row_answer(10, 0x1111);
  vector.enc.flags |= KDZK_RLE;
  vector.enc.own_nrows = nruns;
  vector.enc.own_bitvec = run_bits.words();
  vector.enc.result_cb = RecordingHost::result_cb;
  EXPECT_EQ(vector.call(&row_answer.result, &selection.exec), 0x87654321u);
  const auto want = both(vector.expected(), selected_rows);
  EXPECT_EQ(run_bits.rows(), want);
  EXPECT_EQ(row_answer.bits.word(0), 0x1111u);
  ASSERT_EQ(host.reports.size(), 1u);
  const auto& report = host.reports[0];
  EXPECT_EQ(report.env, &host.env);
  EXPECT_EQ(report.result, &row_answer.result);
  EXPECT_EQ(report.input, &vector.input);
  EXPECT_EQ(report.hits_in_result, count(want));
  EXPECT_EQ(row_answer.result.hits, count(want));
  for (size_t i = 0; i < 16; i++)
    EXPECT_EQ(report.words[i], i == 1 ? reinterpret_cast<uint64_t>(run_bits.words()) : i == 3 ? count(want) : 0) << i;

  // The selective road knows nothing of runs: the input's row count, the result's bit vector, no callback.
  if (!kernel.has_companion()) return;
  Answer answer(nruns);
  selection.exec.flags = KDZK_EX_SELECTIVE;
  const uint64_t returned = vector.call(&answer.result, &selection.exec);
  answer.expect(want, returned);
  EXPECT_EQ(host.reports.size(), 1u);
  EXPECT_EQ(run_bits.rows(), want);
}

TEST_P(Predicates, DecompressABlockedColumnOnce) {
  const PredicateKernel& kernel = GetParam();
  Random random(kernel.title());
  const uint32_t nrows = 203;
  const auto rows = random_rows(random, kernel, nrows, Fill::uniform);
  for (const uint8_t flags : selective_or_not) {
    for (const uint32_t failure : {0u, 10u}) {
      SCOPED_TRACE(kernel.title() + ", flags " + std::to_string(flags) + ", decompress returns " +
                   std::to_string(failure));
      Vector vector(kernel, rows, rows[0], rows[1]);
      RecordingHost host;
      host.plain = stored_data(kernel, rows);
      host.decompress_result = failure;
      uint8_t block[1] = {};
      void* slot = nullptr;
      const auto size = static_cast<uint32_t>(host.plain.size());
      vector.enc.flags |= KDZK_BLOCKED;
      vector.input.data = block;
      vector.input.decomp_size = size;
      vector.input.decomp_slot = &slot;
      vector.input.alloc_tag = 0x123456789abcdef0;
      Selection all(std::vector<bool>(nrows, true), flags, &host.env);
      for (int call = 0; call < 2; call++) expect_answer(vector, &all.exec, vector.expected());  // then from the slot
      const kdzk_env& env = host.env;
      ASSERT_EQ(host.allocs.size(), 1u);
      EXPECT_TRUE(host.allocs[0] == (RecordingHost::Alloc{env.hctx, env.heap, size, kernel.name() + ": vec1_decomp", 8,
                                                          16, vector.input.alloc_tag}));
      ASSERT_EQ(host.decompressions.size(), 1u);
      const kdzk_sqzb_ctx ctx = {env.hctx, env.heap, env.tmp_alloc, env.tmp_free, slot};
      EXPECT_TRUE(same_bytes(host.decompressions[0], RecordingHost::Decompress{ctx, block, slot, 0, size}));
      ASSERT_EQ(host.errors.size(), failure != 0 ? 1u : 0u);
      if (failure == 0) continue;
      EXPECT_TRUE(host.errors[0] == (RecordingHost::Error{env.hctx, RecordingHost::word72,
                                                          kernel.name() + ": kdzk_sqzb_decode failed", 0}));
    }
  }
}

// With 0 rows neither column nor bit vector is touched, and the rest of the frame runs.
TEST_P(Predicates, TouchNothingWithoutRows) {
  const PredicateKernel& kernel = GetParam();
  const Constant low(kernel, {}), high(kernel, kernel.fitting(~0ull, 255));
  const kdzk_enc_ctx enc{};
  const kdzk_vec input{.enc_ctx = &enc};
  const uint64_t selection = 0;
  for (const uint8_t flags : selective_or_not) {
    kdzk_exec exec{.selection = &selection, .flags = flags};
    kdzk_vec result{.hits = 7};
    EXPECT_EQ(kernel.call(&result, &input, low.args(), high.args(), &exec), KDZK_NO_ROW);
    EXPECT_EQ(result.hits, 0u);
    EXPECT_EQ(exec.out_flags, KDZK_OUT_SELECTION);
  }
}

INSTANTIATE_TEST_SUITE_P(All, Predicates, testing::ValuesIn(predicate_kernels()),
                         [](const auto& info) { return info.param.title(); });

// ---- All there is: every code, every constant and pair of constants, at every place of a step ----

// Row i of step s has the code (s + i) % codes, so that every code stands at every place of a step; the last rows are a
// step but one. Steps are whole words here, so the 64 rows of a word are 64 codes in a row.
struct EveryCode {
  uint64_t codes, step;
  std::vector<Row> rows;

  explicit EveryCode(const PredicateKernel& kernel)
      : codes(kernel.top() + 1), step(static_cast<uint64_t>(kernel.rows_per_step())), rows(codes * step + step - 1) {
    for (uint64_t r = 0; r < rows.size(); r++) rows[r].value = (r / step + r % step) % codes;
  }

  // The result's words, `holds` being told for each code.
  template <class Holds>
  void put(const Holds& holds, std::vector<uint64_t>& words) const {
    std::vector<uint64_t> around((codes + 191) / 64);  // bit c is of code c % codes
    for (uint64_t c = 0; c < codes; c++) {
      const uint64_t bit = holds(c);
      for (uint64_t at = c; at < 64 * around.size(); at += codes) around[at / 64] |= bit << at % 64;
    }
    for (uint64_t w = 0; w < words.size(); w++) {
      const uint64_t c = rows[64 * w].value;
      words[w] = around[c / 64] >> c % 64 | (c % 64 > 0 ? around[c / 64 + 1] << (64 - c % 64) : 0);
    }
    words.back() &= (uint64_t{1} << rows.size() % 64) - 1;
  }
};

class EveryConstant : public Predicates {
 protected:
  static void TearDownTestSuite() {
    std::printf("figure: %llu calls, %llu rows compared\n", calls, compared);
    std::fflush(stdout);
  }
  static inline unsigned long long calls = 0, compared = 0;
};

TEST_P(EveryConstant, OnEveryCodeAtEveryPlaceOfAStep) {
  const PredicateKernel& kernel = GetParam();
  now_running(kernel.title());
  const EveryCode column(kernel);
  const Vector vector(kernel, column.rows, {}, {});
  std::vector<std::unique_ptr<Constant>> constants;
  for (uint64_t c = 0; c < column.codes; c++) constants.push_back(std::make_unique<Constant>(kernel, Row{c}));
  std::vector<uint64_t> want((column.rows.size() + 63) / 64);
  Answer answer(column.rows.size());
  Selection selective(std::vector<bool>(column.rows.size(), true), KDZK_EX_SELECTIVE);
  for (uint64_t low = 0; low < column.codes; low++) {
    for (uint64_t high = 0; high < (kernel.two_sided() ? column.codes : 1); high++) {
      column.put([&](uint64_t c) { return qualifies(kernel, {c}, {low}, {high}); }, want);
      // Row by row it would take minutes for all pairs of the wider codes.
      for (kdzk_exec* exec : {static_cast<kdzk_exec*>(nullptr), &selective.exec}) {
        if (exec != nullptr && kernel.two_sided() && kernel.width > 5) continue;
        kernel.call(&answer.result, &vector.input, constants[low]->args(), constants[high]->args(), exec);
        const size_t last = want.size() - 1;
        const uint64_t last_word = answer.bits.word(last) & ((uint64_t{1} << column.rows.size() % 64) - 1);
        ASSERT_TRUE(std::equal(want.begin(), want.end() - 1, answer.bits.words()) && want[last] == last_word)
            << kernel.title() << ", constants " << low << ", " << high << (exec != nullptr ? ", row by row" : "");
        calls++;
        compared += column.rows.size();
      }
    }
  }
}

std::vector<PredicateKernel> narrow_kernels() {
  auto kernels = predicate_kernels();
  std::erase_if(kernels, [](const PredicateKernel& kernel) { return kernel.form != "dict" || kernel.width > 8; });
  return kernels;
}

INSTANTIATE_TEST_SUITE_P(Narrow, EveryConstant, testing::ValuesIn(narrow_kernels()),
                         [](const auto& info) { return info.param.title(); });

// What the 1-bit kernels answer is read off their constants as off a table, also where no dictionary has such a code.
TEST(OneBitPredicates, FollowTheirTable) {
  const std::vector<Row> rows = {{1}, {0}, {0}, {1}, {1}, {0}, {1}, {1}, {0}, {1}};
  const uint64_t plain = 0b1011011001, inverted = ~plain, none = 0, all = 0x3ff;
  struct Line {
    int op;
    uint64_t low, high, want;
  };
  const std::vector<Line> of_values = {{0, 0, 0, inverted}, {0, 1, 0, plain}, {0, 2, 0, plain}, {5, 0, 0, plain},
                                       {5, 1, 0, inverted}, {5, 2, 0, plain}, {1, 0, 0, none},  {1, 1, 0, inverted},
                                       {1, 9, 0, inverted}, {2, 0, 0, plain}, {2, 1, 0, none},  {2, 5, 0, none},
                                       {3, 0, 0, inverted}, {3, 1, 0, all},   {3, 2, 0, all},   {4, 0, 0, all},
                                       {4, 1, 0, plain},    {4, 3, 0, plain}, {6, 0, 1, none},  {6, 0, 2, none},
                                       {7, 0, 1, plain},    {7, 0, 2, none},  {7, 1, 1, none},  {8, 0, 1, inverted},
                                       {8, 0, 2, none},     {8, 1, 2, none},  {9, 1, 1, plain}, {9, 0, 0, inverted},
                                       {9, 0, 1, all},      {9, 1, 0, none},  {9, 0, 2, none},  {9, 2, 2, none}};
  const std::vector<Line> with_nulls = {
      {0, 0, 0, none},  {0, 1, 0, plain}, {0, 2, 0, plain}, {3, 0, 0, none},  {3, 1, 0, plain}, {3, 2, 0, plain},
      {5, 0, 0, plain}, {5, 1, 0, none},  {5, 2, 0, none},  {2, 0, 0, plain}, {2, 1, 0, none},  {4, 0, 0, plain},
      {4, 7, 0, plain}, {1, 2, 0, none},  {6, 0, 2, none},  {8, 0, 2, none},  {7, 0, 1, plain}, {7, 0, 2, none},
      {9, 0, 1, plain}, {9, 1, 1, plain}, {9, 2, 1, none},  {9, 0, 0, none}};
  for (const std::vector<Line>* table : {&of_values, &with_nulls}) {
    for (const Line& line : *table) {
      const PredicateKernel kernel = {line.op, "dict", 1, table == &of_values ? "" : "_null"};
      const Vector vector(kernel, rows, {line.low}, {line.high});
      SCOPED_TRACE(vector.describe());
      Answer answer(rows.size());
      const uint64_t returned = vector.call(&answer.result, nullptr);
      // A complement leaves the bits behind the last row set, all others leave them clear.
      EXPECT_EQ(answer.bits.word(0), line.want);
      const auto hits = static_cast<uint32_t>(__builtin_popcountll(line.want & 0x3ff));
      EXPECT_EQ(answer.result.hits, hits);
      EXPECT_EQ(returned, hits > 0 ? KDZK_DONE : KDZK_NO_ROW);
      if (line.want != none && line.want != all) continue;
      const kdzk_vec unread{.enc_ctx = &vector.enc, .nrows = 10};
      vector.call(&answer.result, &unread, nullptr);
      EXPECT_EQ(answer.bits.word(0), line.want);
    }
  }
}

// 8-bit codes with a constant above 255: whole steps see its low byte, single rows all of it.
TEST(EightBitPredicates, CutALargeConstantInWholeSteps) {
  for (const char* suffix : {"", "_null"}) {
    for (int op = 0; op < 10; op++) {
      const PredicateKernel kernel = {op, "dict", 8, suffix};
      std::vector<Row> rows(2 * 128 + 100);
      for (size_t r = 0; r < rows.size(); r++) rows[r] = {r % 256};
      const Vector vector(kernel, rows, {256 + 60}, {512 + 90});
      SCOPED_TRACE(vector.describe());
      std::vector<bool> want(rows.size());
      for (size_t r = 0; r < rows.size(); r++) {
        const bool whole = r < 256;
        want[r] = qualifies(kernel, rows[r], {whole ? 60u : 256 + 60u}, {whole ? 90u : 512 + 90u});
      }
      expect_answer(vector, nullptr, want);
      Selection all(std::vector<bool>(rows.size(), true), KDZK_EX_SELECTIVE);
      expect_answer(vector, &all.exec, vector.expected());
    }
  }
}

// `fixed` values in fewer bytes than their lane, and a constant with more: in whole steps `eq` finds no row, all else
// sees the constant's first bytes.
TEST(FixedPredicates, CutALongConstant) {
  for (const PredicateKernel& kernel : predicate_kernels()) {
    if (kernel.form != "fixed" || kernel.value_bytes * 8 == kernel.width) continue;
    Random random(kernel.title());
    const auto step = static_cast<size_t>(kernel.rows_per_step());
    const auto rows = random_rows(random, kernel, static_cast<uint32_t>(step + step / 2), Fill::runs);
    const Row cut = rows[1], long_constant = {cut.value | 1, cut.length_code};
    const Vector vector(kernel, rows, long_constant, long_constant);
    SCOPED_TRACE(vector.describe());
    std::vector<bool> want(rows.size());
    for (size_t r = 0; r < rows.size(); r++) {
      const bool sees_all = r < step && (kernel.op == 0 || kernel.op == 5);
      want[r] = sees_all ? kernel.op == 5 : qualifies(kernel, rows[r], cut, cut);
    }
    expect_answer(vector, nullptr, want);
  }
}

// A constant's length code may be one above those of the rows. `dynp` kernels refuse a higher one before they do
// anything.
TEST(TzPredicates, TakeLengthCodesUpToTheirLimit) {
  for (const PredicateKernel& kernel : predicate_kernels()) {
    if (!kernel.compares_lengths()) continue;
    Random random(kernel.title());
    const auto rows = random_rows(random, kernel, 200, Fill::one_value);
    const uint8_t limit = static_cast<uint8_t>(kernel.width / 8);
    const Vector vector(kernel, rows, {rows[0].value, limit}, {rows[0].value, limit});
    SCOPED_TRACE(vector.describe());
    expect_answer(vector, nullptr, vector.expected());
    if (kernel.form != "dynp") continue;

    RecordingHost host;
    for (const bool high_too_large : {false, true}) {
      if (high_too_large && !kernel.two_sided()) continue;
      const uint8_t above = static_cast<uint8_t>(limit + 1), low_code = high_too_large ? 0 : above;
      for (const uint32_t nrows : {0u, 200u}) {
        Vector refused(kernel, rows, {rows[0].value, low_code}, {rows[0].value, high_too_large ? above : uint8_t{0}});
        Answer untouched(200, 0x5555);
        Selection all(std::vector<bool>(200, true), KDZK_EX_SELECTIVE, &host.env);
        void* slot = nullptr;
        refused.enc.flags = KDZK_BLOCKED | KDZK_RLE;
        refused.enc.own_nrows = nrows;
        refused.enc.own_bitvec = untouched.bits.words();
        refused.enc.result_cb = RecordingHost::result_cb;
        refused.input.decomp_slot = &slot;
        untouched.result.nrows = nrows;
        EXPECT_EQ(refused.call(&untouched.result, &all.exec), KDZK_UNSUPPORTED);
        EXPECT_EQ(untouched.result.hits, 12345u);
        EXPECT_EQ(all.exec.out_flags, 0);
        EXPECT_EQ(slot, nullptr);
        EXPECT_EQ(untouched.bits.word(0), 0x5555u);
      }
    }
    EXPECT_TRUE(host.allocs.empty() && host.reports.empty() && host.decompressions.empty());
  }
}

}  // namespace
}  // namespace kdzk_test

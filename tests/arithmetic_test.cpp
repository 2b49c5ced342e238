// SPDX-License-Identifier: Apache-2.0
// The arithmetic kernels, found by their ids, against a model that does one operation after the other in the order
// promised. It is compiled without contraction and vectors; results must agree to the bit.

#include <gtest/gtest.h>

#include "tests/support/numbers.h"

namespace kdzk_test {
namespace {

struct ArithmeticKernel {
  uint32_t op;  // 0 add, 1 sub, 2 mul
  bool is_double, left_sortable, right_sortable, has_sum;

  uint32_t id() const {
    const uint32_t row = is_double + 4u * left_sortable + 8u * right_sortable + 32u * has_sum;
    return row * 128 + 19 + op;
  }
  std::string name() const {
    const char* const ops[] = {"add", "sub", "mul"};
    return std::string("kdzk_") + ops[op] + (is_double ? "_double_" : "_float_") + (left_sortable ? "c_" : "n_") +
           (right_sortable ? "c" : "n") + (has_sum ? "_sum" : "");
  }
};

std::vector<ArithmeticKernel> arithmetic_kernels() {
  std::vector<ArithmeticKernel> kernels;
  for (uint32_t i = 0; i < 48; i++) kernels.push_back({i / 16, (i & 1) != 0, (i & 2) != 0, (i & 4) != 0, (i & 8) != 0});
  return kernels;
}

template <class T>
T row_result(uint32_t op, T left, T right) {
  return op == 0 ? left + right : op == 1 ? left - right : left * right;
}

template <class T>
__attribute__((noinline)) std::vector<T> model_rows(uint32_t op, const std::vector<T>& left, bool left_constant,
                                                    const std::vector<T>& right, bool right_constant, size_t n) {
  std::vector<T> rows(n);
  for (size_t row = 0; row < n; row++) {
    rows[row] = row_result(op, left[left_constant ? 0 : row], right[right_constant && !left_constant ? 0 : row]);
  }
  return rows;
}

template <class T>
__attribute__((noinline)) T model_sum(const std::vector<T>& rows, T accumulator) {
  const size_t lanes = 16 / sizeof(T), in_lanes = rows.size() / lanes * lanes;
  T lane[4] = {0, 0, 0, 0};
  for (size_t row = 0; row < in_lanes; row++) lane[row % lanes] = lane[row % lanes] + rows[row];
  T sum = lanes == 2 ? lane[0] + lane[1] : (lane[0] + lane[1]) + (lane[2] + lane[3]);
  for (size_t row = in_lanes; row < rows.size(); row++) sum = sum + rows[row];
  return accumulator + sum;
}

// An operand as a kernel takes it: exactly the bytes of its values, and nothing readable that isn't needed.
struct Stored {
  GuardedBuffer buffer;
  kdzk_enc_ctx enc{};
  kdzk_vec vec{};

  template <class T>
  Stored(const std::vector<T>& values, bool sortable, bool constant, Random& random)
      : buffer(sortable ? sortable_bytes(values) : bytes_of(values), any_slack(random)) {
    enc.flags = (constant ? KDZK_CONST : 0) | (random.bits() & ~uint64_t{KDZK_CONST} & 0xffffffff);
    vec.data = buffer.data();
    vec.enc_ctx = &enc;
  }
};

class Arithmetic : public testing::TestWithParam<ArithmeticKernel> {
 protected:
  template <class T>
  void check(Numbers kind, uint32_t n, bool left_constant, bool right_constant, unsigned mode, Random& random) {
    const ArithmeticKernel kernel = GetParam();
    // A constant is one value, unless both are: then the right one is walked.
    const auto left = numbers<T>(kind, left_constant ? 1 : n, random);
    const auto right = numbers<T>(kind, right_constant && !left_constant ? 1 : n, random);
    Stored stored_left(left, kernel.left_sortable, left_constant, random);
    Stored stored_right(right, kernel.right_sortable, right_constant, random);
    const bool left_has_rows = random.below(2) == 0;
    stored_left.vec.nrows = left_has_rows ? n : static_cast<uint32_t>(random.below(n + 1));
    stored_right.vec.nrows = left_has_rows ? static_cast<uint32_t>(random.below(n + 1)) : n;

    const size_t out_values = kernel.has_sum ? 1 : n, slack = any_slack(random);
    GuardedBuffer out(bytes_of(numbers<T>(kind, out_values, random)), slack);
    T accumulator{};
    if (kernel.has_sum) std::memcpy(&accumulator, out.data(), sizeof accumulator);
    kdzk_vec result{};
    const bool in_place = !kernel.has_sum && !left_constant && !kernel.left_sortable && random.below(3) == 0;
    result.data = in_place ? stored_left.buffer.data() : out.data();
    result.hits = 4711;
    std::vector<T> want, got(out_values);
    {
      const FloatMode with(mode);
      want = model_rows<T>(kernel.op, left, left_constant, right, right_constant, n);
      if (kernel.has_sum) want = {model_sum(want, accumulator)};
      kdzk_exec* const no_exec = reinterpret_cast<kdzk_exec*>(uint64_t{0x10});
      EXPECT_EQ(library().dispatch[kernel.id()].arithmetic(&result, &stored_left.vec, &stored_right.vec, no_exec), 0u);
      EXPECT_EQ(_mm_getcsr() & 0xffc0, mode);
    }
    if (!got.empty()) std::memcpy(got.data(), result.data, got.size() * sizeof(T));
    for (size_t i = 0; i < want.size(); i++)
      ASSERT_TRUE(same_number(want[i], got[i])) << i << ": " << got[i] << ", not " << want[i];
    for (size_t i = 0; i < slack; i++) ASSERT_EQ(out.data()[out_values * sizeof(T) + i], 0xa5);
    EXPECT_EQ(result.hits, 4711u);
  }
};

TEST_P(Arithmetic, AgreesWithTheScalarModelToTheBit) {
  Random random(GetParam().name());
  std::vector<uint32_t> counts = {100, 1000, 1003};
  for (uint32_t n = 0; n <= 35; n++) counts.push_back(n);
  for (const uint32_t n : counts) {
    for (const Numbers kind : kinds_of_numbers) {
      for (uint32_t constants = 0; constants < 4; constants++) {
        const unsigned mode = float_modes[random.below(5)];
        const std::string what = GetParam().name() + ", " + std::to_string(n) + " rows, numbers " +
                                 std::to_string(static_cast<int>(kind)) + ", constants " + std::to_string(constants) +
                                 ", mode " + std::to_string(mode) + ", seed " + std::to_string(random.seed());
        SCOPED_TRACE(what);
        now_running(what);
        if (GetParam().is_double) check<double>(kind, n, constants & 1, constants & 2, mode, random);
        if (!GetParam().is_double) check<float>(kind, n, constants & 1, constants & 2, mode, random);
        if (HasFatalFailure()) return;
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(All, Arithmetic, testing::ValuesIn(arithmetic_kernels()),
                         [](const auto& info) { return info.param.name(); });

// Sums whose order shows in the result, one number added to 100.
TEST(ArithmeticSums, HaveTheirOrder) {
  const auto sum = [](uint32_t id, std::vector<float> left, float accumulator) {
    Random random("order");
    Stored a(left, false, false, random), zeros(std::vector<float>(left.size()), false, false, random);
    a.vec.nrows = static_cast<uint32_t>(left.size());
    kdzk_vec result{};
    result.data = &accumulator;
    library().dispatch[id].arithmetic(&result, &a.vec, &zeros.vec, nullptr);
    return accumulator;
  };
  const uint32_t add_float_n_n_sum = 32 * 128 + 19;
  EXPECT_EQ(sum(add_float_n_n_sum, {1, 2, 3, 4, 5, 6}, 100), 121);
  EXPECT_EQ(sum(add_float_n_n_sum, {1e30f, 1, -1e30f, 1, 1}, 100), 101);
  EXPECT_EQ(bits_of(sum(add_float_n_n_sum, {}, -0.0f)), 0u);
  EXPECT_TRUE(std::isnan(sum(add_float_n_n_sum, {INFINITY, 1, -INFINITY}, 0)));
}

}  // namespace
}  // namespace kdzk_test

// SPDX-License-Identifier: Apache-2.0
// Decoding and sums of sortable columns and of big-endian integers, against a model that adds in the order promised,
// and the host kit's writers of such columns.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <kdzk/host/sortable.h>

#include "tests/support/format_docs.h"
#include "tests/support/numbers.h"
#include "tests/support/streams.h"

namespace kdzk_test {

// The process's assertion handler, which returns once where a test wants it to.
static std::string* failed_assertion = nullptr;
extern "C" __attribute__((visibility("default"))) void replaced_handler(const char*, const char*, unsigned,
                                                                        const char*) __asm__("__assert_fail");
extern "C" void replaced_handler(const char* assertion, const char* file, unsigned line, const char* function) {
  if (failed_assertion != nullptr) {
    *failed_assertion = assertion;
  } else {
    reinterpret_cast<decltype(&replaced_handler)>(dlsym(RTLD_NEXT, "__assert_fail"))(assertion, file, line, function);
  }
}

namespace {

// A column, accumulators or an output behind it, and group ids.
struct Call {
  GuardedBuffer column;
  size_t slack;
  GuardedBuffer out, ids;
  kdzk_enc_ctx enc;
  kdzk_vec input, result{.data = out.data(), .hits = 4711}, groups{.data = ids.data()};
  kdzk_exec exec{};

  Call(uint8_t float_kind, const Bytes& stored, uint32_t nrows, const Bytes& out_before, Random& random,
       const Codes& group_ids = {})
      : column(stored, any_slack(random)),
        slack(any_slack(random)),
        out(out_before, slack),
        ids(bytes_of(group_ids), 0),
        enc{.float_kind = float_kind},
        input{.data = column.data(), .enc_ctx = &enc, .nrows = nrows} {}
  uint64_t decode(const kdzk_exec* with) { return library().decode_sortable(&result, &input, with); }
  uint64_t sum(bool by_group) { return library().sum_sortable(&result, &input, by_group ? &groups : nullptr, &input); }
  Bytes output() {
    for (size_t i = 0; i < slack; i++) EXPECT_EQ(out.data()[out.size() + i], 0xa5);
    EXPECT_EQ(result.hits, 4711u);
    return contents(out);
  }
};

template <class T>
__attribute__((noinline)) T model_in_lanes(const std::vector<T>& rows, T accumulator) {
  const size_t lanes = 16 / sizeof(T), in_lanes = rows.size() / lanes * lanes;
  T lane[4] = {0, 0, 0, 0}, rest = 0;
  for (size_t row = 0; row < in_lanes; row++) lane[row % lanes] = lane[row % lanes] + rows[row];
  accumulator = (lanes == 2 ? lane[0] + lane[1] : (lane[0] + lane[1]) + (lane[2] + lane[3])) + accumulator;
  for (size_t row = in_lanes; row < rows.size(); row++) rest = rest + rows[row];
  return rest + accumulator;
}

template <class T>
__attribute__((noinline)) void model_by_group(const std::vector<T>& rows, const std::vector<uint32_t>& groups,
                                              std::vector<T>& accumulators) {
  T sum = 0;
  for (size_t row = 0; row < rows.size(); row++) {
    if (groups.empty()) sum = sum + rows[row];
    if (!groups.empty()) accumulators[groups[row]] = accumulators[groups[row]] + rows[row];
  }
  if (groups.empty()) accumulators[0] = sum + accumulators[0];
}

template <class T>
void expect_same(const Bytes& got, const std::vector<T>& want) {
  ASSERT_EQ(got.size(), want.size() * sizeof(T));
  for (size_t i = 0; i < want.size(); i++) {
    T number;
    std::memcpy(&number, &got[i * sizeof number], sizeof number);
    ASSERT_TRUE(same_number(number, want[i])) << i << ": " << number << ", not " << want[i];
  }
}

std::vector<uint32_t> row_counts() {
  std::vector<uint32_t> counts = {100, 1000, 1003};
  for (uint32_t n = 0; n <= 35; n++) counts.push_back(n);
  return counts;
}

Codes random_groups(size_t n, Random& random) {
  Codes groups(n);
  for (uint32_t& group : groups) group = static_cast<uint32_t>(random.below(5));
  return groups;
}

template <class T>
class SortableColumns : public testing::Test {};
using FloatTypes = testing::Types<float, double>;
TYPED_TEST_SUITE(SortableColumns, FloatTypes);

// By the host kit, whose readers give back what rows there are from the third on.
template <class T>
void expect_written(const std::vector<T>& rows, const Bytes& stored) {
  Bytes written(stored.size());
  std::vector<T> from_third(rows.begin() + std::min<long>(2, long(rows.size())), rows.end()), read(from_third.size());
  if constexpr (sizeof(T) == 4) {
    kdzk_host_write_sortable_floats(rows.data(), rows.size(), written.data());
    kdzk_host_read_sortable_floats(written.data(), 2, read.size(), read.data());
  } else {
    kdzk_host_write_sortable_doubles(rows.data(), rows.size(), written.data());
    kdzk_host_read_sortable_doubles(written.data(), 2, read.size(), read.data());
  }
  EXPECT_TRUE(written == stored && bytes_of(read) == bytes_of(from_third));
}

TYPED_TEST(SortableColumns, AreDecodedAndSummedToTheBit) {
  using T = TypeParam;
  Random random("sortable" + std::to_string(sizeof(T)));
  const uint8_t kind = sizeof(T) == 4 ? 1 : 2;
  for (const uint32_t n : row_counts()) {
    for (const Numbers numbers_of : kinds_of_numbers) {
      for (const unsigned mode : float_modes) {
        const Case now(Message() << n << " rows, numbers " << int(numbers_of) << ", mode " << mode, random);
        const auto rows = numbers<T>(numbers_of, n, random);
        const Bytes stored = sortable_bytes(rows);
        expect_written(rows, stored);
        // Any kind with the bit, below others.
        const auto loose_kind = static_cast<uint8_t>(kind | (random.bits() & (kind == 1 ? 0xfe : 0xfc)));
        Call decoding(loose_kind, stored, n, Bytes(n * sizeof(T), 0x5a), random);
        decoding.exec.flags = static_cast<uint8_t>(random.bits() & ~uint64_t{KDZK_EX_SUM});
        EXPECT_EQ(decoding.decode(random.below(2) == 0 ? nullptr : &decoding.exec), KDZK_DONE);
        ASSERT_EQ(decoding.output(), bytes_of(rows));

        const auto before = numbers<T>(numbers_of, 1, random);
        Call adding(loose_kind, stored, n, bytes_of(before), random);
        adding.exec.flags = static_cast<uint8_t>(random.bits() | KDZK_EX_SUM);
        adding.enc.flags = random.below(2) == 0 ? KDZK_SUM_ONLY : 0;
        // Accumulators of 5 groups, or of none and rows that are native.
        const bool by_group = random.below(2) == 0, native = random.below(2) == 0;
        const Codes groups = random_groups(by_group ? n : 0, random);
        auto accumulators = numbers<T>(numbers_of, by_group ? 5 : 1, random);
        Call grouping(kind, native ? bytes_of(rows) : stored, n, bytes_of(accumulators), random, groups);
        grouping.enc.flags = (static_cast<uint32_t>(random.bits()) & ~KDZK_SUM_ONLY) | (native ? KDZK_SUM_ONLY : 0);

        const FloatMode with(mode);
        const T want = model_in_lanes(rows, before[0]);
        EXPECT_EQ(adding.decode(&adding.exec), KDZK_DONE);
        expect_same(adding.output(), std::vector{want});
        if (!by_group || n > 0) model_by_group(rows, groups, accumulators);
        EXPECT_EQ(grouping.sum(by_group), KDZK_DONE);
        expect_same(grouping.output(), accumulators);
        if (this->HasFatalFailure()) return;
      }
    }
  }
}

class IntegerColumns : public testing::TestWithParam<uint32_t> {};

TEST_P(IntegerColumns, AreSummed) {
  const uint32_t width = GetParam(), bytes = width / 8;
  Random random("integers" + std::to_string(width));
  const bool known = width == 8 || width == 16 || width == 32 || width == 64;
  std::vector<uint32_t> counts = row_counts();
  counts.push_back(70000);
  for (const uint32_t n : counts) {
    for (const int fill : {-1, 0, 0x7f, 0x80, 0xff}) {
      const Case now(Message() << width << " bits, " << n << " rows, fill " << fill, random);
      std::vector<int64_t> rows(n);
      Bytes stored;
      for (int64_t& row : rows) {
        uint64_t number = 0;
        for (uint32_t i = 0; i < bytes; i++) {
          const auto byte = static_cast<uint8_t>(fill < 0 ? random.bits() : i == 0 ? fill : fill == 0x80 ? 0 : fill);
          stored.push_back(byte);
          number = number << 8 | byte;
        }
        row = bytes == 0 ? 0 : static_cast<int64_t>(number << (64 - 8 * bytes)) >> (64 - 8 * bytes);
      }
      if (!known) stored.clear();  // and not read
      const Codes groups = random_groups(n, random);
      std::vector<uint64_t> sum = {random.bits()}, sums = {1, 2, 3, 4, random.bits()};
      Call decoding(static_cast<uint8_t>(8 | (random.bits() & 0xf4)), stored, n, bytes_of(sum), random);
      Call adding(8, stored, n, bytes_of(sum), random), grouping(8, stored, n, bytes_of(sums), random, groups);
      decoding.exec.flags = KDZK_EX_SUM;
      for (Call* call : {&decoding, &adding, &grouping}) {
        call->enc.width = static_cast<uint8_t>(width);
        call->enc.flags = random.below(2) == 0 ? KDZK_SUM_ONLY : 0;
        EXPECT_EQ(call == &decoding ? call->decode(&call->exec) : call->sum(call == &grouping), KDZK_DONE);
      }
      for (size_t row = 0; known && row < n; row++) {
        sum[0] += static_cast<uint64_t>(rows[row]);
        sums[groups[row]] += static_cast<uint64_t>(rows[row]);
      }
      ASSERT_EQ(decoding.output(), bytes_of(sum));
      ASSERT_EQ(adding.output(), bytes_of(sum));
      ASSERT_EQ(grouping.output(), bytes_of(sums));
      if (bytes == 0) continue;

      // The host kit writes and reads the same form, at all widths.
      Bytes written(n * bytes);
      kdzk_host_write_integers(rows.data(), n, width, written.data());
      if (known) {
        EXPECT_EQ(written, stored);
      }
      std::vector<int64_t> read(n - n / 3);
      kdzk_host_read_integers(written.data(), n / 3, n - n / 3, width, read.data());
      EXPECT_EQ(read, std::vector<int64_t>(rows.begin() + n / 3, rows.end()));
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Widths, IntegerColumns, testing::Values(0, 8, 16, 24, 32, 40, 48, 56, 64));

TEST(Sortable, RefusesWhatItDoesNotKnow) {
  Random random("refusals");
  const Bytes before = bytes_of(std::vector{1.0, 2.0});
  for (int kind = 0; kind < 256; kind++) {
    for (const uint32_t flags : {0u, KDZK_SUM_ONLY}) {
      for (int with = 0; with < 3; with++) {  // no exec, an exec without the request, one with it
        Call call(static_cast<uint8_t>(kind), Bytes(8), 1, before, random);
        call.enc.flags = flags;
        call.enc.width = 64;
        call.exec.flags = with == 2 ? 0xff : 0x7f;
        const bool known = (kind & 11) != 0;
        if ((kind & 3) == 0 && known && flags == 0 && with < 2) continue;  // an assertion, below
        const bool refused = !known || (flags != 0 && with < 2);
        EXPECT_EQ(call.decode(with == 0 ? nullptr : &call.exec), refused ? KDZK_MALFORMED : KDZK_DONE) << kind;
        EXPECT_EQ(call.output() == before, refused || (kind & 3) == 0) << kind;  // an integer 0 adds nothing
      }
      for (const bool by_group : {false, true}) {
        Call call(static_cast<uint8_t>(kind), Bytes(8, 1), 1, before, random, {1});
        call.enc.flags = flags;
        call.enc.width = 64;
        const bool known = kind == 1 || kind == 2 || kind == 8;
        EXPECT_EQ(call.sum(by_group), known ? KDZK_DONE : KDZK_MALFORMED) << kind;
        if (!known) {
          EXPECT_EQ(call.output(), before);
        }
      }
    }
  }
}

TEST(Sortable, AssertsThatIntegersAreNotDecoded) {
  Random random("assertion");
  Call call(8, Bytes(8), 1, Bytes(8, 3), random);
  call.enc.width = 64;
  EXPECT_DEATH(call.decode(nullptr), "numeric/sortable.cpp:[0-9]+: kdzk_decode_sortable: Assertion `FALSE' failed");
  std::string seen;
  failed_assertion = &seen;
  EXPECT_EQ(call.decode(&call.exec), KDZK_MALFORMED);
  failed_assertion = nullptr;
  EXPECT_EQ(seen, "FALSE");
  EXPECT_EQ(call.output(), Bytes(8, 3));
}

// The walk-through of the format's description.
TEST(SortableFormat, IsAsDescribed) {
  const auto documented = documented_bytes("sortable.md");
  const std::vector<float> floats = {-INFINITY, -2.5f, -1, -0.0f, 0, 1, 2.5f, INFINITY};
  EXPECT_EQ(documented.at("floats"), sortable_bytes(floats));
  for (size_t i = 4; i < 32; i += 4)  // what the form is for: bytes that sort as the values do
    EXPECT_LT(std::memcmp(&documented.at("floats")[i - 4], &documented.at("floats")[i], 4), 0);
  EXPECT_EQ(documented.at("doubles"), sortable_bytes(std::vector<double>{-1, -0.0, 0, 1}));
  Bytes integers(6);
  const int64_t three[] = {300, -2, -32768};
  kdzk_host_write_integers(three, 3, 16, integers.data());
  EXPECT_EQ(documented.at("integers"), integers);
  Random random("documented");
  Call call(1, documented.at("floats"), 8, Bytes(32), random);
  EXPECT_EQ(call.decode(nullptr), KDZK_DONE);
  EXPECT_EQ(call.output(), bytes_of(floats));
}

}  // namespace
}  // namespace kdzk_test

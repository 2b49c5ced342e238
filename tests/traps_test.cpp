// SPDX-License-Identifier: Apache-2.0
// The traps of docs/traps.md: one test each, of the same name, which falls into the trap and sees the symptom that the
// page tells, beside the right call. A trap that no longer shows its symptom belongs out of the page.

#include <gtest/gtest.h>
#include <kdzk/host.h>

#include <algorithm>
#include <cstring>
#include <fstream>

#include "tests/support/host.h"
#include "tests/support/kernel_of.h"

namespace kdzk_test {
namespace {

using Bytes = std::vector<uint8_t>;
using Rows = std::vector<uint32_t>;

template <class T>
Bytes bytes_of(const std::vector<T>& values) {
  Bytes bytes(values.size() * sizeof(T));
  std::memcpy(bytes.data(), values.data(), bytes.size());
  return bytes;
}

// A column of up to 64 rows and the records of a call.
struct Call {
  Bytes stream;
  uint32_t width;
  kdzk_enc_ctx enc{};
  kdzk_vec input{}, result{};
  kdzk_exec exec{};
  uint64_t bits = ~uint64_t{0};

  Call(Bytes data, uint8_t value_bits, uint32_t nrows) : stream(std::move(data)), width(value_bits) {
    stream.resize(stream.size() + KDZK_PADDING);
    enc.flags = KDZK_PACKED_DICT;
    enc.width = value_bits;
    input.data = stream.data();
    input.enc_ctx = &enc;
    input.nrows = result.nrows = nrows;
    result.bitvec = &bits;
  }
  Call(const std::vector<uint32_t>& codes, uint8_t width)
      : Call(packed(codes, width), width, static_cast<uint32_t>(codes.size())) {}
  Call(const Call&) = delete;

  static Bytes packed(const std::vector<uint32_t>& codes, uint32_t width) {
    Bytes bytes(kdzk_host_packed_bytes(codes.size(), width));
    kdzk_host_pack(codes.data(), codes.size(), width, bytes.data());
    return bytes;
  }

  Rows rows() const {
    Rows set;
    for (uint32_t row = 0; row < result.nrows; row++) {
      if ((bits >> row & 1) != 0) set.push_back(row);
    }
    return set;
  }

  Rows compare_stored(uint32_t operation, const void* constant, uint32_t form = KDZK_HOST_FORM_DICT) {
    kdzk_kargs k{};
    k.data = const_cast<void*>(constant);
    k.enc_ctx = &enc;
    kernel_of(operation, form, width).compare(&result, &input, &k, &exec);
    return rows();
  }
  Rows compare(uint32_t operation, uint32_t code, uint32_t form = KDZK_HOST_FORM_DICT) {
    return compare_stored(operation, &code, form);
  }

  std::vector<uint32_t> unpack(uint32_t room) {
    std::vector<uint32_t> codes(room);
    exec.flags |= KDZK_EX_UNPACK_WIDE;
    result.data = codes.data();
    result.nrows = room;
    kernel_of(KDZK_OP_DECODE_UNPACK, KDZK_HOST_FORM_DICT, width).decode(&result, &input, &exec);
    codes.resize(result.hits);
    return codes;
  }
};

// Rows 0 to 2 with code 5, 3 to 6 with 2, 7 with 5, 8 and 9 with 7.
struct Runs : Call {
  uint8_t lengths[4] = {3, 4, 1, 2};
  uint64_t run_bits = ~uint64_t{0};

  Runs() : Call({5, 2, 5, 7}, 3) {
    enc.flags |= KDZK_RLE;
    enc.own_nrows = 4;
    enc.own_bitvec = &run_bits;
    enc.unpack_base = reinterpret_cast<uint64_t>(lengths);
    enc.unpack_width = 8;
    enc.result_cb = [](const kdzk_env*, kdzk_vec* result, const kdzk_vec* input, const kdzk_result_report* report) {
      return static_cast<uint32_t>(kernel_of(KDZK_OP_BURST_RLE, KDZK_HOST_FORM_RLE, 8).burst(result, input, report));
    };
    input.nrows = result.nrows = 10;
  }
};

// ---- Memory ----

// 128 codes of 13 bits are 208 bytes, a multiple of 16, and two words of bits.
uint64_t compare_128_rows(size_t padding, size_t selection_bytes) {
  const GuardedBuffer data(Bytes(208), padding), selection(Bytes(selection_bytes), 0);
  uint64_t bits[2];
  Call call(Bytes{}, 13, 128);
  call.input.data = const_cast<uint8_t*>(data.data());
  call.result.bitvec = bits;
  call.exec.selection = reinterpret_cast<const uint64_t*>(selection.data());
  const uint32_t code = 1;
  kdzk_kargs k{};
  k.data = const_cast<uint32_t*>(&code);
  return kernel_of(KDZK_OP_GE, KDZK_HOST_FORM_DICT, 13).compare(&call.result, &call.input, &k, &call.exec);
}

TEST(Traps, PaddingMissing) {
  EXPECT_EQ(compare_128_rows(KDZK_PADDING, 16), KDZK_NO_ROW);
  EXPECT_DEATH(compare_128_rows(0, 16), "");
  EXPECT_EQ(kdzk_host_padded(208), 224u);
}

TEST(Traps, SelectionTooShort) { EXPECT_DEATH(compare_128_rows(KDZK_PADDING, 8), ""); }

TEST(Traps, SlotInUse) {
  RecordingHost host;
  Call call({1, 2, 3}, 8);
  call.enc.flags |= KDZK_BLOCKED;
  void* slot = nullptr;
  call.input.decomp_slot = &slot;
  call.input.decomp_size = 3;
  call.exec.env = &host.env;
  host.plain = {9, 9, 9};
  EXPECT_EQ(call.compare(KDZK_OP_EQ, 9), (Rows{0, 1, 2}));
  host.plain = {4, 4, 4};
  EXPECT_EQ(call.compare(KDZK_OP_EQ, 4), Rows{});  // the earlier block's copy is still there
  slot = nullptr;
  EXPECT_EQ(call.compare(KDZK_OP_EQ, 4), (Rows{0, 1, 2}));
}

TEST(Traps, AllocTag) {
  for (const bool tagged : {true, false}) {
    kdzk_host_memory memory;
    kdzk_host_memory_malloc(&memory, &library());
    memory.env.decompress = [](const kdzk_sqzb_ctx*, const void*, void* dst, uint32_t*, uint32_t capacity) -> uint32_t {
      std::memset(dst, 1, capacity);
      return 0;
    };
    Call call({1, 2, 3}, 8);
    call.enc.flags |= KDZK_BLOCKED;
    void* slot = nullptr;
    call.input.decomp_slot = &slot;
    call.input.decomp_size = 3;
    call.input.alloc_tag = tagged ? kdzk_host_tag(&slot) : 0;
    call.exec.env = &memory.env;
    call.compare(KDZK_OP_EQ, 1);
    EXPECT_NE(slot, nullptr);
    kdzk_host_memory_reset(&memory);
    EXPECT_EQ(slot == nullptr, tagged);
    EXPECT_EQ(kdzk_host_memory_close(&memory), 0u);
  }
}

TEST(Traps, FailedBlock) {
  RecordingHost host;  // whose hostinternalerr returns
  Call call({1, 2, 3}, 8);
  call.enc.flags |= KDZK_BLOCKED;
  void* slot = nullptr;
  call.input.decomp_slot = &slot;
  call.input.decomp_size = 3;
  call.exec.env = &host.env;
  host.plain = {7, 7, 0};
  host.decompress_result = KDZK_MALFORMED;
  EXPECT_EQ(call.compare(KDZK_OP_EQ, 7), (Rows{0, 1}));
  EXPECT_EQ(host.errors.size(), 1u);
}

TEST(Traps, BitsNotCleared) {
  Bytes elements = {1, 0xff, 1, 0xff};
  Bytes codes(4 * 4);
  const int64_t values[4] = {0, 1, 2, 3};
  kdzk_host_write_integers(values, 4, 32, codes.data());
  Call call(codes, 32, 4);
  call.enc.flags = KDZK_NUMERIC;
  kdzk_vec table{};
  table.bitvec = reinterpret_cast<uint64_t*>(elements.data());
  kdzk_hit_range range;
  call.result.data = &range;
  const auto xlate = [&](uint64_t before) {
    call.bits = before;
    kernel_of(KDZK_OP_XLATE, KDZK_HOST_FORM_SIM, 8).xlate(&call.result, &call.input, &table, &call.exec);
    return call.rows();
  };
  EXPECT_EQ(xlate(0), (Rows{0, 2}));
  EXPECT_EQ(xlate(1u << 3), (Rows{0, 2, 3}));
  EXPECT_EQ(call.result.hits, 2u);
}

// ---- Rows and bits ----

TEST(Traps, RowsOfTheResult) {
  Call call({1, 2, 3}, 3);
  call.result.nrows = 0;
  EXPECT_EQ(call.compare(KDZK_OP_GE, 1), Rows{});
  EXPECT_EQ(call.result.hits, 0u);
  call.result.nrows = 3;
  EXPECT_EQ(call.compare(KDZK_OP_GE, 1), (Rows{0, 1, 2}));
}

TEST(Traps, BitsBehindTheLastRow) {
  uint64_t words[2] = {};
  uint32_t count;
  library().bv64.bv_not(words, &count, words, 70);
  EXPECT_EQ(count, 70u);
  EXPECT_EQ(__builtin_popcountll(words[0]) + __builtin_popcountll(words[1]), 128);
}

TEST(Traps, FilterWithASet) {
  Call call({1, 2, 1}, 3);
  const uint64_t filter = 1;
  uint64_t words = 1u << 1;
  call.input.filter = &filter;
  kdzk_vec table{};
  table.bitvec = &words;
  kernel_of(KDZK_OP_SET, KDZK_HOST_FORM_DICT, 3).set(&call.result, &call.input, &table, &call.exec);
  EXPECT_EQ(call.rows(), (Rows{0, 2}));
  call.exec.selection = &filter;
  kernel_of(KDZK_OP_SET, KDZK_HOST_FORM_DICT, 3).set(&call.result, &call.input, &table, &call.exec);
  EXPECT_EQ(call.rows(), Rows{0});
  EXPECT_EQ(call.exec.out_flags, KDZK_OUT_SET_SELECTION);
}

TEST(Traps, FilterWithOneBit) {
  Call call({1, 0, 1}, 1);
  const uint64_t filter = 1;
  call.input.filter = &filter;
  EXPECT_EQ(call.compare(KDZK_OP_EQ, 1, KDZK_HOST_FORM_DICT_NULL), (Rows{0, 2}));
  EXPECT_EQ(call.compare(KDZK_OP_EQ, 1), Rows{0});
}

TEST(Traps, FlagsAreOnlySet) {
  Call call({1, 2, 3}, 3);
  const uint64_t selection = 1;
  call.exec.selection = &selection;
  call.compare(KDZK_OP_GE, 1);
  call.exec.selection = nullptr;
  EXPECT_EQ(call.compare(KDZK_OP_GE, 1), (Rows{0, 1, 2}));
  EXPECT_EQ(call.exec.out_flags, KDZK_OUT_SELECTION);
}

TEST(Traps, OtherBitOrder) {
  const std::vector<uint32_t> codes = {1, 1, 0, 0, 0, 0, 0, 0};
  Call call(codes, 1);
  EXPECT_EQ(call.stream[0], 0xc0);  // taken for a bit vector, rows 6 and 7
  EXPECT_EQ(call.compare(KDZK_OP_EQ, 1), (Rows{0, 1}));
}

TEST(Traps, AndNot) {
  const uint64_t a = 0b0011, b = 0b0110;
  uint64_t result;
  library().bv64.bv_andnot(&result, nullptr, &a, &b, 64);
  EXPECT_EQ(result, 0b0100u);
}

TEST(Traps, EndOfAWalk) {
  kdzk_bv_iter iter;
  const uint64_t none = 0;
  library().bv8.iter_init(&iter, &none, 8, 0, 0);
  const uint64_t end = library().bv8.next_set(&iter);
  EXPECT_EQ(end, KDZK_BV8_END);
  EXPECT_NE(end, KDZK_BV64_END);
}

// ---- Codes and constants ----

TEST(Traps, NoSuchKernel) {
  EXPECT_EQ(library().dispatch[kdzk_id_of(kdzk_row_of_width(13), KDZK_FAMILY_DYNP * 32 + KDZK_OP_EQ)].any, nullptr);
  EXPECT_GE(kdzk_id_of(kdzk_row_of_width(21), KDZK_FAMILY_DICT * 32 + KDZK_OP_EQ), KDZK_DISPATCH_SIZE);
  const kdzk_kernel none = library().dispatch[kdzk_id_of(23, 0)];
  Call call({1}, 3);
  EXPECT_DEATH(none.compare(&call.result, &call.input, nullptr, nullptr), "");
}

TEST(Traps, SumReturnsZero) {
  kdzk_vec result{};
  const kdzk_vec input{};
  for (const uint32_t operation : {KDZK_OP_SUM, KDZK_OP_DISTINCT}) {
    EXPECT_EQ(kernel_of(operation, KDZK_HOST_FORM_DICT, 8).idle(&result, &input, nullptr, nullptr), KDZK_DONE);
  }
  EXPECT_EQ(result.hits, 0u);
}

TEST(Traps, NullIsACode) {
  Call call({0, 3, 1, 0}, 2);
  EXPECT_EQ(call.compare(KDZK_OP_LT, 2), (Rows{0, 2, 3}));
  EXPECT_EQ(call.compare(KDZK_OP_LT, 2, KDZK_HOST_FORM_DICT_NULL), Rows{2});
}

TEST(Traps, NullEqualsNothing) {
  Call call({0, 3, 1, 0}, 2);
  EXPECT_EQ(call.compare(KDZK_OP_EQ, 0, KDZK_HOST_FORM_DICT_NULL), Rows{});
  EXPECT_EQ(call.compare(KDZK_OP_EQ, 0), (Rows{0, 3}));
}

TEST(Traps, ConstantIsNoCode) {
  // 64 rows are whole steps. The constants 11 and 9 are no codes of 3 bits: all rows are below them, none is equal.
  Call call(std::vector<uint32_t>(64, 3), 3);
  EXPECT_EQ(call.compare(KDZK_OP_EQ, 8 + 3).size(), 64u);
  EXPECT_EQ(call.compare(KDZK_OP_LT, 8 + 1).size(), 0u);
}

TEST(Traps, ConstantsByteOrder) {
  Call call(Bytes{0, 0, 0, 1, 0, 0, 1, 0}, 32, 2);
  const uint32_t native = 1;
  const uint8_t stored[4] = {0, 0, 0, 1};
  EXPECT_EQ(call.compare_stored(KDZK_OP_EQ, &native, KDZK_HOST_FORM_FIXED), Rows{});
  EXPECT_EQ(call.compare_stored(KDZK_OP_EQ, stored, KDZK_HOST_FORM_FIXED), Rows{0});
}

TEST(Traps, ConstantsEncoding) {
  Call call(Bytes(8), 32, 2);
  uint8_t stored[4] = {};
  kdzk_kargs k{};
  k.data = stored;
  const kdzk_kernel eq = kernel_of(KDZK_OP_EQ, KDZK_HOST_FORM_FIXED, 32);
  EXPECT_DEATH(eq.compare(&call.result, &call.input, &k, nullptr), "");
  k.enc_ctx = &call.enc;
  EXPECT_EQ(eq.compare(&call.result, &call.input, &k, nullptr), KDZK_DONE);
}

TEST(Traps, SignedIntegers) {
  Bytes column(4);
  const int64_t values[2] = {-1, 5};
  kdzk_host_write_integers(values, 2, 16, column.data());
  const uint8_t zero[2] = {0, 0};
  EXPECT_EQ(Call(column, 16, 2).compare_stored(KDZK_OP_LT, zero, KDZK_HOST_FORM_FIXED), Rows{});
  for (const int at : {0, 2}) column[at] ^= 0x80;
  const uint8_t shifted_zero[2] = {0x80, 0};
  EXPECT_EQ(Call(column, 16, 2).compare_stored(KDZK_OP_LT, shifted_zero, KDZK_HOST_FORM_FIXED), Rows{0});
}

TEST(Traps, MinusZero) {
  Bytes column(8), zero(4);
  const float values[2] = {-0.0f, 0.0f}, plus = 0;
  kdzk_host_write_sortable_floats(values, 2, column.data());
  kdzk_host_write_sortable_floats(&plus, 1, zero.data());
  EXPECT_EQ(Call(column, 32, 2).compare_stored(KDZK_OP_EQ, zero.data(), KDZK_HOST_FORM_FIXED), Rows{1});
}

TEST(Traps, LengthCodes) {
  // Three values of 16 bits: one byte each. With a wrong first code all that follow move by a byte.
  Bytes lengths(1 + KDZK_PADDING);
  Call call(Bytes{1, 2, 3, 4}, 16, 3);
  call.input.lengths = lengths.data();
  const uint8_t two[2] = {2, 0};
  EXPECT_EQ(call.compare_stored(KDZK_OP_EQ, two, KDZK_HOST_FORM_DYNP), Rows{1});
  lengths[0] = 0x80;
  EXPECT_EQ(call.compare_stored(KDZK_OP_EQ, two, KDZK_HOST_FORM_DYNP), Rows{});
  EXPECT_EQ(kdzk_host_check_lengths(lengths.data(), 1, 3, 16, 3, nullptr), KDZK_HOST_MALFORMED);
}

TEST(Traps, CodeWithoutSymbol) {
  const auto decode = [](uint32_t code) {
    const GuardedBuffer offsets(Bytes{0, 0, 0, 0, 0, 0, 0, 1}, 0);
    Call call(std::vector<uint32_t>{code}, 20);
    call.enc.base = reinterpret_cast<const uint8_t*>("x");
    call.enc.offsets = offsets.data();
    call.enc.dict_size = 1;
    call.enc.dict_mode = 1;
    uint32_t row = 0;
    uint64_t address;
    uint16_t length, indicator;
    call.exec.ones_vec = &row;
    call.exec.ones_vec_size = 1;
    call.result.data = &address;
    call.result.lengths = &length;
    call.result.indicators = &indicator;
    kernel_of(KDZK_OP_DECODE, KDZK_HOST_FORM_DICT, 20).decode(&call.result, &call.input, &call.exec);
    return length;
  };
  EXPECT_EQ(decode(0), 1u);
  EXPECT_DEATH(decode(2), "");
  EXPECT_EQ(kdzk_host_check_codes(nullptr, "\0\0\x20", 3, 1, 20, 1, nullptr), KDZK_HOST_MALFORMED);
}

TEST(Traps, GroupShift) {
  Call high(std::vector<uint32_t>{1, 2}, 2), low(std::vector<uint32_t>{3, 3}, 32);
  high.enc.kind = kdzk_kind_of(kdzk_row_of_width(2), KDZK_FAMILY_DICT);
  low.enc.kind = kdzk_kind_of(kdzk_row_of_width(32), KDZK_FAMILY_DICT);
  high.enc.dict_size = low.enc.dict_size = 4;
  kdzk_host_memory memory;
  kdzk_host_memory_malloc(&memory, &library());
  kdzk_exec exec{};
  exec.env = &memory.env;
  uint32_t composed[2], scratch[64], count;
  kdzk_vec result{}, temp{};
  result.data = composed;
  result.nrows = 2;
  temp.data = scratch;
  temp.nrows = 64;
  const kdzk_vec columns[2] = {high.input, low.input};
  EXPECT_EQ(library().groupkey_dydi(&result, &count, columns, 2, &temp, &exec), KDZK_KEYS_TOO_MANY);
  exec.flags = KDZK_EX_GROUP_MUL;
  EXPECT_EQ(library().groupkey_dydi(&result, &count, columns, 2, &temp, &exec), KDZK_DONE);
  EXPECT_EQ(count, 16u);
  EXPECT_EQ(Rows(composed, composed + 2), (Rows{1 * 4 + 3, 2 * 4 + 3}));
  EXPECT_EQ(kdzk_host_memory_close(&memory), 0u);
}

// ---- Runs ----

TEST(Traps, FilterOfRuns) {
  Runs call;
  EXPECT_EQ(call.compare(KDZK_OP_GE, 5), (Rows{0, 1, 2, 7, 8, 9}));
  const uint64_t row_0 = 1;
  call.input.filter = &row_0;
  EXPECT_EQ(call.compare(KDZK_OP_GE, 5), (Rows{0, 1, 2}));  // it was taken for run 0
}

TEST(Traps, SelectiveRuns) {
  Runs call;
  const uint64_t rows_0_and_1 = 3;
  call.exec.selection = &rows_0_and_1;
  call.exec.flags = KDZK_EX_SELECTIVE;
  EXPECT_EQ(call.compare(KDZK_OP_GE, 5), Rows{0});  // run 1 was taken for row 1
}

TEST(Traps, RunsNotCounted) {
  Runs call;
  call.enc.own_nrows = 0;
  EXPECT_EQ(call.compare(KDZK_OP_GE, 5), Rows{});
  call.enc.own_nrows = 4;
  call.enc.own_bitvec = nullptr;
  EXPECT_DEATH(call.compare(KDZK_OP_GE, 5), "");
}

TEST(Traps, HitsAreRuns) {
  Runs call;
  call.enc.result_cb = [](const kdzk_env*, kdzk_vec*, const kdzk_vec*, const kdzk_result_report*) { return KDZK_DONE; };
  call.bits = 0;
  EXPECT_EQ(call.compare(KDZK_OP_GE, 5), Rows{});
  EXPECT_EQ(call.result.hits, 3u);
  EXPECT_EQ(call.run_bits & 0xf, 0b1101u);
}

TEST(Traps, BurstOnAnotherColumn) {
  Runs call;
  call.enc.flags = KDZK_PACKED_DICT;
  kdzk_result_report report{};
  report.bitvec = &call.run_bits;
  EXPECT_DEATH(kernel_of(KDZK_OP_BURST_RLE, KDZK_HOST_FORM_RLE, 8).burst(&call.result, &call.input, &report), "");
}

TEST(Traps, RunState) {
  Runs first, second;
  first.unpack(10);
  second.exec = first.exec;
  second.exec.row = 1;  // the second column's scan begins at row 1
  EXPECT_NE(second.unpack(10), (Rows{5, 5, 2, 2, 2, 2, 5, 7, 7}));
  second.exec = {};
  second.exec.row = 1;
  EXPECT_EQ(second.unpack(10), (Rows{5, 5, 2, 2, 2, 2, 5, 7, 7}));
}

TEST(Traps, EmptyListOfRuns) {
  RecordingHost host;
  Runs call;
  uint32_t none = 0;
  call.exec.env = &host.env;
  call.exec.ones_vec = &none;
  call.exec.ones_vec_size = 0;
  call.unpack(10);
  EXPECT_EQ(host.errors.size(), 1u);
}

// ---- Decoding and sums ----

TEST(Traps, RowNotMovedOn) {
  Call call({1, 2, 3, 4}, 3);
  EXPECT_EQ(call.unpack(2), (Rows{1, 2}));
  EXPECT_EQ(call.unpack(2), (Rows{2, 3}));
  call.exec.row++;
  EXPECT_EQ(call.unpack(2), Rows{4});
}

TEST(Traps, DecodeWithoutSelection) {
  Call call({1, 0, 1}, 8);
  const uint64_t selection = 1;
  const uint8_t two[2] = {0, 2};
  uint32_t rows[2] = {1, 2};
  uint64_t addresses[2];
  uint16_t lengths[2], indicators[2];
  call.enc.base = reinterpret_cast<const uint8_t*>("aabb");
  call.enc.value_len = two;
  call.exec.selection = &selection;
  call.exec.ones_vec = rows;
  call.exec.ones_vec_size = 2;
  call.result.data = addresses;
  call.result.lengths = lengths;
  call.result.indicators = indicators;
  kernel_of(KDZK_OP_DECODE, KDZK_HOST_FORM_DICT, 8).decode(&call.result, &call.input, &call.exec);
  EXPECT_EQ(call.result.hits, 2u);
}

TEST(Traps, SumsAreAdded) {
  Bytes column(16);
  const double values[2] = {1, 2};
  kdzk_host_write_sortable_doubles(values, 2, column.data());
  Call call(column, 64, 2);
  call.enc.float_kind = 2;
  double sum = 10;
  call.result.data = &sum;
  library().sum_sortable(&call.result, &call.input, nullptr, nullptr);
  EXPECT_EQ(sum, 13);
}

TEST(Traps, RowsOfAConstant) {
  Call left(bytes_of(std::vector<double>{10}), 64, 5), right(bytes_of(std::vector<double>{1, 2}), 64, 2);
  left.enc.flags = KDZK_CONST;
  double results[5] = {-1, -1, -1, -1, -1};
  kdzk_vec result{};
  result.data = results;
  const kdzk_kernel add = kernel_of(KDZK_OP_ADD, KDZK_HOST_FORM_N_N, 64);
  right.stream.resize(5 * 8);
  right.input.data = right.stream.data();
  add.arithmetic(&result, &left.input, &right.input, nullptr);
  EXPECT_NE(results[4], -1);  // five rows, as the constant says
  std::fill(results, results + 5, -1);
  left.input.nrows = 1;
  add.arithmetic(&result, &left.input, &right.input, nullptr);
  EXPECT_EQ(results[2], -1);
}

TEST(Traps, IntegersDecoded) {
  Call call(Bytes(8), 64, 1);
  call.enc.float_kind = 8;
  double number;
  call.result.data = &number;
  EXPECT_DEATH(library().decode_sortable(&call.result, &call.input, nullptr), "FALSE");
}

TEST(Traps, OpenPolygon) {
  double x[6] = {4, 0, 0, 4, 4, 4}, y[6] = {4, 4, 0, 0, 4, 4}, one = 1;
  kdzk_vec xs{}, ys{}, point{}, result{};
  uint32_t crossings;
  xs.data = x;
  ys.data = y;
  point.data = &one;
  result.data = &crossings;
  for (const uint32_t vertices : {4u, 6u}) {
    xs.nrows = vertices;
    library().point_in_polygon(&result, &xs, &ys, &point, &point);
    EXPECT_EQ(crossings, vertices == 4 ? 0u : 1u);
  }
}

// ---- The join engine ----

uint64_t mixed(const void* key, uint32_t length, uint64_t seed) {
  uint32_t value = 0;
  std::memcpy(&value, key, length);
  return (value + seed) * 0x9e3779b97f4a7c15;
}

// A table of two buckets with keys of 32 bits as tags, and payloads of 32 bits.
struct Table {
  uint8_t buckets[2 * 64] = {}, overflow[4 * 64];
  uint8_t *const table = buckets, *cursor = overflow, *const limit = overflow + sizeof overflow;
  kdzk_htdesc desc{};
  kdzk_enc_ctx u32{}, ids{};
  kdzk_exec exec{};
  uint64_t pairs[8][2];
  kdzk_vec out{};

  Table() {
    desc.flags = 8 | KDZK_HT_KEY_MODE;
    desc.bucket_hi = desc.dir_hi = 32;
    desc.tables = &table;
    desc.cursors = &cursor;
    desc.limits = &limit;
    u32.flags = KDZK_HASH_U32;
    ids.flags = KDZK_IMPLICIT_IDS;
    out.data = pairs;
    out.nrows = 8;
  }
  Table(const Table&) = delete;

  uint64_t build(std::vector<uint32_t> values, std::vector<uint64_t> row_ids = {}) {
    kdzk_vec keys{}, rows{};
    keys.data = values.data();
    keys.enc_ctx = &u32;
    keys.nrows = static_cast<uint32_t>(values.size());
    kdzk_enc_ctx stored{};
    rows.enc_ctx = row_ids.empty() ? &ids : &stored;
    rows.data = row_ids.data();
    return library().ht_build(&desc, &keys, &rows, 0, mixed, &exec);
  }
  uint64_t probe(std::vector<uint32_t> values) {
    kdzk_vec keys{}, rows{};
    keys.data = values.data();
    keys.enc_ctx = &u32;
    keys.nrows = static_cast<uint32_t>(values.size());
    rows.enc_ctx = &ids;
    exec = {};
    return library().ht_probe(&out, &keys, &rows, &desc, mixed, &exec);
  }
};

TEST(Traps, RowOfAnEarlierVector) {
  Table table;
  EXPECT_EQ(table.build({1, 2}), KDZK_DONE);
  EXPECT_EQ(table.build({3, 4}), KDZK_DONE);  // row 2 is behind both of them
  EXPECT_EQ(table.probe({3, 4}), KDZK_DONE);
  EXPECT_EQ(table.out.nrows, 0u);
  table.exec = {};
  table.build({3, 4});
  table.out.nrows = 8;
  table.probe({3, 4});
  EXPECT_EQ(table.out.nrows, 2u);
}

TEST(Traps, RoomForPairs) {
  Table table;
  table.build({1, 2});
  EXPECT_EQ(table.probe({1}), KDZK_DONE);
  EXPECT_EQ(table.out.nrows, 1u);
  EXPECT_EQ(table.probe({1, 2}), KDZK_PAIRS_FULL);  // the last call's count is this one's room
  table.out.nrows = 8;
  EXPECT_EQ(table.probe({1, 2}), KDZK_DONE);
}

TEST(Traps, BucketsNotCleared) {
  Table table;
  table.build({1});
  table.exec = {};
  table.build({1});  // for another join, in the same memory
  table.probe({1});
  EXPECT_EQ(table.out.nrows, 2u);
}

TEST(Traps, WidthOfRowIds) {
  Table table;  // payloads of 32 bits
  table.build({1, 2}, {100, 101});
  table.probe({1, 2});
  ASSERT_EQ(table.out.nrows, 2u);
  EXPECT_EQ(table.pairs[0][1], 100u);
  EXPECT_EQ(table.pairs[1][1], 0u);  // the upper half of 100
}

TEST(Traps, BloomOfTheOtherKind) {
  const uint64_t hash = 0x1122334455667788;
  uint64_t words[8] = {};
  kdzk_enc_ctx shape{};
  kdzk_host_bloom_shape(&shape, 511, 0);
  kdzk_vec filter{};
  filter.enc_ctx = &shape;
  filter.bitvec = words;
  Call call(bytes_of(std::vector<uint64_t>{hash}), 64, 1);
  call.enc.flags = KDZK_NUMERIC;
  kdzk_hit_range range;
  call.result.data = &range;
  const auto test = [&] {
    call.bits = 0;
    return library().bloom_test(&call.result, &call.input, &filter, &call.exec);
  };
  kdzk_host_bloom_add_values(&filter, &hash, 1);
  EXPECT_EQ(test(), KDZK_NO_ROW);
  kdzk_host_bloom_add_hashes(&filter, &hash, 1);
  EXPECT_EQ(test(), KDZK_DONE);
}

// The values "oak" and "maple" of a page of pairs, gathered with `room` bytes.
struct Gather {
  char text[9];
  uint16_t lengths[2] = {}, locators[2 + KDZK_PADDING] = {0, 1};
  uint64_t pairs[2][2] = {{3, reinterpret_cast<uint64_t>("oak")}, {5, reinterpret_cast<uint64_t>("maple")}};
  uint8_t* const pages[1] = {reinterpret_cast<uint8_t*>(pairs)};
  kdzk_exec exec{};

  uint64_t run(uint64_t room) {
    kdzk_rowstore store{};
    store.flags = KDZK_STORE_PAIRS;
    store.page_lo = 64;
    store.pairs = pages;
    kdzk_enc_ctx fixed{}, bytes{};
    fixed.flags = KDZK_FIXED_BYTES;
    fixed.width = 16;
    bytes.flags = KDZK_LEN_ARRAY;
    kdzk_vec in{}, out{};
    in.data = locators;
    in.enc_ctx = &fixed;
    in.nrows = 2;
    out.data = text;
    out.lengths = lengths;
    out.enc_ctx = &bytes;
    out.out_size = room;
    return library().ht_gather(&out, &in, &store, &exec);
  }
};

TEST(Traps, OutputBeginsAnew) {
  Gather gather;
  EXPECT_EQ(gather.run(5), KDZK_OUTPUT_FULL);
  EXPECT_EQ(std::string(gather.text, 3), "oak");
  EXPECT_EQ(gather.run(5), KDZK_DONE);
  EXPECT_EQ(std::string(gather.text, 5), "maple");  // in the place of "oak"
}

TEST(Traps, NeverFits) {
  Gather gather;
  for (int i = 0; i < 3; i++) EXPECT_EQ(gather.run(4), KDZK_OUTPUT_FULL);
  EXPECT_EQ(gather.exec.row, 1u);
}

// Packs the first rows of a matrix of one column, of values of 3 bytes.
struct Page {
  uint64_t pairs[2][2] = {{3, reinterpret_cast<uint64_t>("oak")}, {3, reinterpret_cast<uint64_t>("elm")}};
  uint8_t* const matrices[1] = {reinterpret_cast<uint8_t*>(pairs)};
  uint8_t bytes[16] = {}, *data_cursor = bytes, *data_limit = bytes;
  uint32_t directory[8] = {};
  uint8_t* offset_cursor = reinterpret_cast<uint8_t*>(directory);
  kdzk_exec exec{};

  uint64_t pack() {
    kdzk_rowstore source{}, target{};
    source.ncols = 1;
    source.pairs = matrices;
    target.flags = KDZK_STORE_OFFSETS;
    target.offset_cursors = &offset_cursor;
    target.data_cursors = &data_cursor;
    target.data_limits = &data_limit;
    return library().pack_rows(&target, &source, 0, 0, exec.row, 1, &exec);
  }
};

TEST(Traps, PageFullAtRow0) {
  for (const bool put_back : {false, true}) {
    Page page;
    EXPECT_EQ(page.pack(), KDZK_PAGE_FULL);
    EXPECT_EQ(page.exec.row, 0u);
    page.data_limit = page.bytes + sizeof page.bytes;
    if (put_back) page.offset_cursor -= 4;
    EXPECT_EQ(page.pack(), KDZK_DONE);
    const auto* const end = reinterpret_cast<uint32_t*>(page.offset_cursor);
    EXPECT_EQ(Rows(page.directory, const_cast<uint32_t*>(end)), put_back ? (Rows{0, 3, 6}) : (Rows{0, 0, 3, 6}));
  }
}

TEST(Traps, MatrixOfCursors) {
  uint64_t pairs[2] = {};
  uint8_t* matrices[1] = {reinterpret_cast<uint8_t*>(pairs)};
  kdzk_rowstore matrix{};
  matrix.flags = KDZK_STORE_PAIRS;
  matrix.ncols = 1;
  matrix.pair_cursors = matrices;
  Call column(Bytes{1, 2}, 16, 1);
  column.enc.flags = KDZK_FIXED_BYTES;
  EXPECT_EQ(library().fill_pairs(&matrix, &column.input, 0, 0), KDZK_DONE);
  uint8_t bytes[16], *cursor = bytes, *const limit = bytes + 16;
  uint32_t directory[2];
  uint8_t* offset_cursor = reinterpret_cast<uint8_t*>(directory);
  kdzk_rowstore target{};
  target.flags = KDZK_STORE_OFFSETS;
  target.offset_cursors = &offset_cursor;
  target.data_cursors = &cursor;
  target.data_limits = &limit;
  kdzk_exec exec{};
  EXPECT_DEATH(library().pack_rows(&target, &matrix, 0, 0, 0, 0, &exec), "");
  matrix.pairs = matrices;
  EXPECT_EQ(library().pack_rows(&target, &matrix, 0, 0, 0, 0, &exec), KDZK_DONE);
}

// ---- The page ----

TEST(TrapsPage, NamesTheTestsOfThisFile) {
  std::ifstream lines(KDZK_SOURCE_DIR "/docs/traps.md");
  std::vector<std::string> named, tested;
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("| **", 0) == 0) named.push_back(line.substr(4, line.find("**", 4) - 4));
  }
  const auto* const unit = testing::UnitTest::GetInstance();
  for (int suite = 0; suite < unit->total_test_suite_count(); suite++) {
    const auto* const tests = unit->GetTestSuite(suite);
    if (std::string(tests->name()) != "Traps") continue;
    for (int i = 0; i < tests->total_test_count(); i++) tested.emplace_back(tests->GetTestInfo(i)->name());
  }
  std::sort(named.begin(), named.end());
  std::sort(tested.begin(), tested.end());
  EXPECT_EQ(named, tested);
}

}  // namespace
}  // namespace kdzk_test

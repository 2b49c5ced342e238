// SPDX-License-Identifier: Apache-2.0
// The traps of docs/traps.md: one test each, of the same name, which falls into the trap and sees the symptom that the
// page tells, beside the right call. A trap that no longer shows its symptom belongs out of the page.

#include <kdzk/host.h>

#include <fstream>

#include "tests/support/small_call.h"

namespace kdzk_test {
namespace {

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
  GuardedBuffer data(Bytes(208), padding), selection(Bytes(selection_bytes), 0);
  uint64_t bits[2];
  Call call(Bytes{}, 13, 128);
  call.input.data = data.data();
  call.result.bitvec = bits;
  call.exec.selection = reinterpret_cast<const uint64_t*>(selection.data());
  uint32_t code = 1;
  const kdzk_kargs k{.data = &code};
  return call.kernel(KDZK_OP_GE).compare(&call.result, &call.input, &k, &call.exec);
}

TEST(Traps, PaddingMissing) {
  EXPECT_EQ(compare_128_rows(KDZK_PADDING, 16), KDZK_NO_ROW);
  EXPECT_DEATH(compare_128_rows(0, 16), "");
  EXPECT_EQ(kdzk_host_padded(208), 224u);
}

TEST(Traps, SelectionTooShort) { EXPECT_DEATH(compare_128_rows(KDZK_PADDING, 8), ""); }

// Three codes of 8 bits in a block.
struct BlockedCall : Call {
  void* slot = nullptr;
  explicit BlockedCall(const kdzk_env& env) : Call({1, 2, 3}, 8) {
    enc.flags |= KDZK_BLOCKED;
    input.decomp_slot = &slot;
    input.decomp_size = 3;
    exec.env = &env;
  }
};

TEST(Traps, SlotInUse) {
  RecordingHost host;
  BlockedCall call(host.env);
  host.plain = {9, 9, 9};
  EXPECT_EQ(call.compare(KDZK_OP_EQ, 9), (Rows{0, 1, 2}));
  host.plain = {4, 4, 4};
  EXPECT_EQ(call.compare(KDZK_OP_EQ, 4), Rows{});  // the earlier block's copy is still there
  call.slot = nullptr;
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
    BlockedCall call(memory.env);
    call.input.alloc_tag = tagged ? kdzk_host_tag(&call.slot) : 0;
    call.compare(KDZK_OP_EQ, 1);
    EXPECT_NE(call.slot, nullptr);
    kdzk_host_memory_reset(&memory);
    EXPECT_EQ(call.slot == nullptr, tagged);
    EXPECT_EQ(kdzk_host_memory_close(&memory), 0u);
  }
}

TEST(Traps, FailedBlock) {
  RecordingHost host;  // whose hostinternalerr returns
  BlockedCall call(host.env);
  host.plain = {7, 7, 0};
  host.decompress_result = KDZK_MALFORMED;
  EXPECT_EQ(call.compare(KDZK_OP_EQ, 7), (Rows{0, 1}));
  EXPECT_EQ(host.errors.size(), 1u);
}

TEST(Traps, BitsNotCleared) {
  uint8_t elements[] = {1, 0xff, 1, 0xff};
  Call call(Codes{0, 1, 2, 3}, 32);
  call.enc.flags = KDZK_NUMERIC;
  const kdzk_vec table{.bitvec = reinterpret_cast<uint64_t*>(elements)};
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
  const uint64_t row_0 = 1;
  call.input.filter = &row_0;
  EXPECT_EQ(call.set(1u << 1), (Rows{0, 2}));
  call.exec.selection = &row_0;
  EXPECT_EQ(call.set(1u << 1), Rows{0});
  EXPECT_EQ(call.exec.out_flags, KDZK_OUT_SET_SELECTION);
}

TEST(Traps, FilterWithOneBit) {
  Call call({1, 0, 1}, 1);
  const uint64_t row_0 = 1;
  call.input.filter = &row_0;
  EXPECT_EQ(call.compare(KDZK_OP_EQ, 1, KDZK_HOST_FORM_DICT_NULL), (Rows{0, 2}));
  EXPECT_EQ(call.compare(KDZK_OP_EQ, 1), Rows{0});
}

TEST(Traps, FlagsAreOnlySet) {
  Call call({1, 2, 3}, 3);
  const uint64_t row_0 = 1;
  call.exec.selection = &row_0;
  call.compare(KDZK_OP_GE, 1);
  call.exec.selection = nullptr;
  EXPECT_EQ(call.compare(KDZK_OP_GE, 1), (Rows{0, 1, 2}));
  EXPECT_EQ(call.exec.out_flags, KDZK_OUT_SELECTION);
}

TEST(Traps, OtherBitOrder) {
  Call call(Codes{1, 1, 0, 0, 0, 0, 0, 0}, 1);
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
  Call call({1}, 8);
  for (const uint32_t operation : {KDZK_OP_SUM, KDZK_OP_DISTINCT})
    EXPECT_EQ(call.kernel(operation).idle(&call.result, &call.input, nullptr, nullptr), KDZK_DONE);
  EXPECT_EQ(call.result.hits, 0u);
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
  Call call(Codes(64, 3), 3);
  EXPECT_EQ(call.compare(KDZK_OP_EQ, 8 + 3).size(), 64u);
  EXPECT_EQ(call.compare(KDZK_OP_LT, 8 + 1).size(), 0u);
}

TEST(Traps, ConstantsByteOrder) {
  Call call(Codes{1, 256}, 32);
  EXPECT_EQ(call.compare(KDZK_OP_EQ, 1, KDZK_HOST_FORM_FIXED), Rows{});
  EXPECT_EQ(call.compare_stored(KDZK_OP_EQ, {0, 0, 0, 1}), Rows{0});
}

TEST(Traps, ConstantsEncoding) {
  Call call(Bytes(8), 32, 2);
  uint8_t stored[4] = {};
  kdzk_kargs k{.data = stored};
  const kdzk_kernel eq = call.kernel(KDZK_OP_EQ, KDZK_HOST_FORM_FIXED);
  EXPECT_DEATH(eq.compare(&call.result, &call.input, &k, nullptr), "");
  k.enc_ctx = &call.enc;
  EXPECT_EQ(eq.compare(&call.result, &call.input, &k, nullptr), KDZK_DONE);
}

TEST(Traps, SignedIntegers) {
  Bytes column(4);
  const int64_t values[2] = {-1, 5};
  kdzk_host_write_integers(values, 2, 16, column.data());
  EXPECT_EQ(Call(column, 16, 2).compare_stored(KDZK_OP_LT, {0, 0}), Rows{});
  for (const int at : {0, 2}) column[at] ^= 0x80;
  EXPECT_EQ(Call(column, 16, 2).compare_stored(KDZK_OP_LT, {0x80, 0}), Rows{0});
}

TEST(Traps, MinusZero) {
  Bytes column(8), zero(4);
  const float values[2] = {-0.0f, 0.0f}, plus = 0;
  kdzk_host_write_sortable_floats(values, 2, column.data());
  kdzk_host_write_sortable_floats(&plus, 1, zero.data());
  EXPECT_EQ(Call(column, 32, 2).compare_stored(KDZK_OP_EQ, zero), Rows{1});
}

TEST(Traps, LengthCodes) {
  // Three values of 16 bits: one byte each. With a wrong first code all that follow move by a byte.
  for (const uint8_t lengths : {0, 0x80}) {
    Call call(Bytes{1, 2, 3, 4}, 16, 3);
    EXPECT_EQ(call.with_lengths({lengths}).compare_stored(KDZK_OP_EQ, {2, 0}, KDZK_HOST_FORM_DYNP),
              lengths == 0 ? Rows{1} : Rows{});
    EXPECT_EQ(kdzk_host_check_lengths(&lengths, 1, 3, 16, 3, nullptr),
              lengths == 0 ? KDZK_HOST_DONE : KDZK_HOST_MALFORMED);
  }
}

TEST(Traps, CodeWithoutSymbol) {
  const auto decode = [](uint32_t code) {
    const GuardedBuffer offsets(big_endian({0, 1}), 0);
    Call call(Codes{code}, 20);
    call.enc.base = reinterpret_cast<const uint8_t*>("x");
    call.enc.offsets = offsets.data();
    call.enc.dict_size = call.enc.dict_mode = 1;
    return call.symbols(KDZK_OP_DECODE, {0});
  };
  EXPECT_EQ(decode(0), Texts{"x"});
  EXPECT_DEATH(decode(2), "");
  EXPECT_EQ(kdzk_host_check_codes(nullptr, "\0\0\x20", 3, 1, 20, 1, nullptr), KDZK_HOST_MALFORMED);
}

TEST(Traps, GroupShift) {
  Call high(Codes{1, 2}, 2), low(Codes{3, 3}, 32);
  for (Call* call : {&high, &low}) {
    call->enc.kind = kdzk_kind_of(kdzk_row_of_width(call->width), KDZK_FAMILY_DICT);
    call->enc.dict_size = 4;
  }
  kdzk_host_memory memory;
  kdzk_host_memory_malloc(&memory, &library());
  kdzk_exec exec{.env = &memory.env};
  uint32_t composed[2], scratch[64], count;
  kdzk_vec result{.data = composed, .nrows = 2};
  const kdzk_vec temp{.data = scratch, .nrows = 64}, columns[2] = {high.input, low.input};
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
  const kdzk_result_report report{.bitvec = &call.run_bits};
  EXPECT_DEATH(kernel_of(KDZK_OP_BURST_RLE, KDZK_HOST_FORM_RLE, 8).burst(&call.result, &call.input, &report), "");
}

TEST(Traps, RunState) {
  Runs first, second;
  first.unpack(10);
  second.exec = first.exec;
  second.exec.row = 1;  // the second column's scan begins at row 1
  EXPECT_NE(second.unpack(10), (Rows{5, 5, 2, 2, 2, 2, 5, 7, 7}));
  second.exec = {.row = 1};
  EXPECT_EQ(second.unpack(10), (Rows{5, 5, 2, 2, 2, 2, 5, 7, 7}));
}

TEST(Traps, EmptyListOfRuns) {
  RecordingHost host;
  Runs call;
  uint32_t none = 0;
  call.exec = {.env = &host.env, .ones_vec = &none, .ones_vec_size = 0};
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
  const uint64_t row_0 = 1;
  const uint8_t two[2] = {0, 2};
  call.enc.base = reinterpret_cast<const uint8_t*>("aabb");
  call.enc.value_len = two;
  call.exec.selection = &row_0;
  EXPECT_EQ(call.symbols(KDZK_OP_DECODE, {1, 2}), (Texts{"aa", "bb"}));
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
  Call left(bytes_of(std::vector<double>{10}), 64, 5, KDZK_CONST), right(bytes_of(std::vector<double>(5)), 64, 2);
  for (const uint32_t rows_of_constant : {5u, 1u}) {
    double results[5] = {-1, -1, -1, -1, -1};
    kdzk_vec result{.data = results};
    left.input.nrows = rows_of_constant;
    const kdzk_kernel add = kernel_of(KDZK_OP_ADD, KDZK_HOST_FORM_N_N, 64);
    add.arithmetic(&result, &left.input, &right.input, nullptr);
    EXPECT_EQ(std::count(results, results + 5, 10), rows_of_constant == 5 ? 5 : 2);  // five, as the constant says
  }
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
  uint32_t crossings;
  const kdzk_vec point{.data = &one}, result{.data = &crossings};
  for (const uint32_t vertices : {4u, 6u}) {
    const kdzk_vec xs{.data = x, .nrows = vertices}, ys{.data = y, .nrows = vertices};
    library().point_in_polygon(&result, &xs, &ys, &point, &point);
    EXPECT_EQ(crossings, vertices == 4 ? 0u : 1u);
  }
}

// ---- The join engine ----

// Keys of 32 bits as tags, and payloads of 32 bits.
struct Table : SmallTable {
  Table() : SmallTable(8 | KDZK_HT_KEY_MODE, 32) {}
};

TEST(Traps, RowOfAnEarlierVector) {
  Table table;
  EXPECT_EQ(table.build(Codes{1, 2}), KDZK_DONE);
  EXPECT_EQ(table.build(Codes{3, 4}), KDZK_DONE);  // row 2 is behind both of them
  EXPECT_EQ(table.probe(Codes{3, 4}), KDZK_DONE);
  EXPECT_EQ(table.out.nrows, 0u);
  table.exec = {};
  table.build(Codes{3, 4});
  table.out.nrows = 8;
  table.probe(Codes{3, 4});
  EXPECT_EQ(table.out.nrows, 2u);
}

TEST(Traps, RoomForPairs) {
  Table table;
  table.build(Codes{1, 2});
  EXPECT_EQ(table.probe(Codes{1}), KDZK_DONE);
  EXPECT_EQ(table.out.nrows, 1u);
  EXPECT_EQ(table.probe(Codes{1, 2}), KDZK_PAIRS_FULL);  // the last call's count is this one's room
  table.out.nrows = 8;
  EXPECT_EQ(table.probe(Codes{1, 2}), KDZK_DONE);
}

TEST(Traps, BucketsNotCleared) {
  Table table;
  table.build(Codes{1});
  table.exec = {};
  table.build(Codes{1});  // for another join, in the same memory
  table.probe(Codes{1});
  EXPECT_EQ(table.out.nrows, 2u);
}

TEST(Traps, WidthOfRowIds) {
  Table table;  // payloads of 32 bits
  table.build(Codes{1, 2}, {100, 101});
  table.probe(Codes{1, 2});
  ASSERT_EQ(table.out.nrows, 2u);
  EXPECT_EQ(table.pairs[0][1], 100u);
  EXPECT_EQ(table.pairs[1][1], 0u);  // the upper half of 100
}

TEST(Traps, BloomOfTheOtherKind) {
  const uint64_t hash = 0x1122334455667788;
  uint64_t words[8] = {};
  kdzk_enc_ctx shape{};
  kdzk_host_bloom_shape(&shape, 511, 0);
  const kdzk_vec filter{.enc_ctx = &shape, .bitvec = words};
  Call call(bytes_of(std::vector<uint64_t>{hash}), 64, 1, KDZK_NUMERIC);
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

// The values "oak" and "maple" of a page of pairs.
struct Gather : SmallGather {
  uint64_t pairs[2][2] = {{3, reinterpret_cast<uint64_t>("oak")}, {5, reinterpret_cast<uint64_t>("maple")}};
  uint8_t* const pages[1] = {reinterpret_cast<uint8_t*>(pairs)};
  Gather() : SmallGather({0, 1}) {}
  uint64_t with_room(uint64_t room) { return run({.flags = KDZK_STORE_PAIRS, .page_lo = 64, .pairs = pages}, room); }
};

TEST(Traps, OutputBeginsAnew) {
  Gather gather;
  EXPECT_EQ(gather.with_room(5), KDZK_OUTPUT_FULL);
  EXPECT_EQ(gather.text.substr(0, 3), "oak");
  EXPECT_EQ(gather.with_room(5), KDZK_DONE);
  EXPECT_EQ(gather.text, "maple");  // in the place of "oak"
}

TEST(Traps, NeverFits) {
  Gather gather;
  for (int i = 0; i < 3; i++) EXPECT_EQ(gather.with_room(4), KDZK_OUTPUT_FULL);
  EXPECT_EQ(gather.exec.row, 1u);
}

// A page of offsets, and the data that they are of.
struct Page {
  uint8_t bytes[16] = {}, *data_cursor = bytes, *data_limit = bytes + sizeof bytes;
  uint32_t directory[8] = {};
  uint8_t* offset_cursor = reinterpret_cast<uint8_t*>(directory);
  kdzk_exec exec{};

  // Packs rows of a matrix of one column, up to `last`.
  uint64_t pack(const kdzk_rowstore& matrix, int32_t last) {
    const kdzk_rowstore target{.flags = KDZK_STORE_OFFSETS,
                               .offset_cursors = &offset_cursor,
                               .data_cursors = &data_cursor,
                               .data_limits = &data_limit};
    return library().pack_rows(&target, &matrix, 0, 0, exec.row, last, &exec);
  }
};

TEST(Traps, PageFullAtRow0) {
  uint64_t pairs[2][2] = {{3, reinterpret_cast<uint64_t>("oak")}, {3, reinterpret_cast<uint64_t>("elm")}};
  uint8_t* const matrices[1] = {reinterpret_cast<uint8_t*>(pairs)};
  const kdzk_rowstore matrix{.ncols = 1, .pairs = matrices};
  for (const bool put_back : {false, true}) {
    Page page;
    page.data_limit = page.bytes;
    EXPECT_EQ(page.pack(matrix, 1), KDZK_PAGE_FULL);
    EXPECT_EQ(page.exec.row, 0u);
    page.data_limit = page.bytes + sizeof page.bytes;
    if (put_back) page.offset_cursor -= 4;
    EXPECT_EQ(page.pack(matrix, 1), KDZK_DONE);
    const auto* const end = reinterpret_cast<uint32_t*>(page.offset_cursor);
    EXPECT_EQ(Rows(page.directory, const_cast<uint32_t*>(end)), put_back ? (Rows{0, 3, 6}) : (Rows{0, 0, 3, 6}));
  }
}

TEST(Traps, MatrixOfCursors) {
  uint64_t pairs[2] = {};
  uint8_t* matrices[1] = {reinterpret_cast<uint8_t*>(pairs)};
  kdzk_rowstore matrix{.flags = KDZK_STORE_PAIRS, .ncols = 1, .pair_cursors = matrices};
  Call column(Bytes{1, 2}, 16, 1, KDZK_FIXED_BYTES);
  EXPECT_EQ(library().fill_pairs(&matrix, &column.input, 0, 0), KDZK_DONE);
  Page page;
  EXPECT_DEATH(page.pack(matrix, 0), "");
  matrix.pairs = matrices;
  EXPECT_EQ(page.pack(matrix, 0), KDZK_DONE);
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

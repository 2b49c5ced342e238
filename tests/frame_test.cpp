// SPDX-License-Identifier: Apache-2.0
// The exported record, the dispatch table and the names table.

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <set>
#include <string>

#include "tests/support/predicate_oracle.h"

namespace kdzk_test {
namespace {

TEST(Record, HoldsItsNumbersAndNames) {
  uint64_t words[67];
  static_assert(sizeof words == sizeof(kdzk_specialized_ctx));
  std::memcpy(words, &library(), sizeof words);
  EXPECT_EQ(words[0], 0xb9018218u);
  EXPECT_STREQ(reinterpret_cast<const char*>(words[1]), "19.1-1");
  EXPECT_EQ(words[2], 3u);
  EXPECT_STREQ(reinterpret_cast<const char*>(words[3]), "vexksse4219");
  for (int i = 4; i <= 10; i++) EXPECT_EQ(words[i], 8u);
  EXPECT_EQ(words[11], 16u);
  EXPECT_EQ(words[12], 0u);
  EXPECT_EQ(words[13], 16u);
  EXPECT_EQ(words[14], reinterpret_cast<uint64_t>(library().dispatch));
}

// Slots 15 to 50, 56 to 59 and 64 to 66 hold functions, distinct but for the six pairs; the others hold none yet.
TEST(Record, HoldsDistinctServices) {
  uint64_t words[67];
  std::memcpy(words, &library(), sizeof words);
  const std::map<int, int> same_as = {{16, 15}, {43, 26}, {44, 27}, {45, 28}, {50, 33}, {66, 65}};
  std::set<uint64_t> distinct;
  for (int slot = 15; slot <= 66; slot++) {
    if (slot >= 51 && slot <= 63 && (slot < 56 || slot > 59)) {
      EXPECT_EQ(words[slot], 0u) << slot;
    } else if (const auto same = same_as.find(slot); same != same_as.end()) {
      EXPECT_EQ(words[slot], words[same->second]) << slot;
    } else {
      EXPECT_NE(words[slot], 0u) << slot;
      EXPECT_TRUE(distinct.insert(words[slot]).second) << slot;
    }
  }
  library().noop1[0](nullptr);
  EXPECT_EQ(library().reserved0[0](), 0u);
}

const int dict_widths[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 24, 32};

uint32_t row_of(int width) {
  return static_cast<uint32_t>(width == 24 ? 20 : width == 32 ? 21 : width == 64 ? 22 : width - 1);
}

std::string named(const char* operation, const char* form, int width) {
  return std::string("kdzk_") + operation + "_" + form + "_" + std::to_string(width) + "bit";
}

// The kernels that do nothing: one function for all.
std::map<uint32_t, std::string> idle_kernels() {
  std::map<uint32_t, std::string> kernels;
  for (int width : {8, 16, 32, 64}) kernels[row_of(width) * 128 + 15] = named("sum", "fixed", width);
  for (int width : dict_widths) {
    kernels[row_of(width) * 128 + 47] = named("sum", "dict", width);
    kernels[row_of(width) * 128 + 48] = named("distinct", "dict", width);
  }
  return kernels;
}

// Decoding, and run bits to row bits.
std::map<uint32_t, std::string> decoding_kernels() {
  std::map<uint32_t, std::string> kernels;
  for (int width : dict_widths) kernels[row_of(width) * 128 + 43] = named("decode_unpack", "dict", width);
  for (int width : dict_widths) kernels[row_of(width) * 128 + 42] = named("decode", "dict", width);
  for (int width : {8, 16, 32}) kernels[row_of(width) * 128 + 44] = named("decode_symbol", "dict", width);
  kernels[6 * 128 + 110] = "kdzk_burst_rle_8bit";
  kernels[7 * 128 + 110] = "kdzk_burst_rle_8bit_cla";
  kernels[14 * 128 + 110] = "kdzk_burst_rle_16bit";
  kernels[15 * 128 + 110] = "kdzk_burst_rle_16bit_cla";
  return kernels;
}

TEST(Dispatch, HoldsTheKernelsOfTheMatrixAndNoOther) {
  const auto idle = idle_kernels();
  std::map<uint32_t, std::string> kernels = decoding_kernels();
  kernels.insert(idle.begin(), idle.end());
  for (const PredicateKernel& kernel : predicate_kernels()) kernels[kernel.id()] = kernel.name();
  EXPECT_EQ(kernels.size(), 600u + 48u + 22u + 22u + 3u + 4u);
  std::set<uint64_t> distinct, idle_addresses;
  const char* shared = kdzk_name_of(&library(), 0);
  for (uint32_t id = 0; id < KDZK_DISPATCH_SIZE; id++) {
    uint64_t address;
    std::memcpy(&address, &library().dispatch[id], sizeof address);
    const auto kernel = kernels.find(id);
    EXPECT_EQ(address != 0, kernel != kernels.end()) << id;
    if (idle.contains(id)) {
      idle_addresses.insert(address);
    } else if (address != 0) {
      EXPECT_TRUE(distinct.insert(address).second) << kernel->second;
    }
    if (id >= KDZK_KERNEL_IDS) continue;
    if (kernel != kernels.end()) {
      EXPECT_STREQ(kdzk_name_of(&library(), id), kernel->second.c_str());
    } else {
      EXPECT_EQ(kdzk_name_of(&library(), id), shared) << id;
      EXPECT_STREQ(shared, "kdzk_invalid_dispatch");
    }
  }
  EXPECT_EQ(idle_addresses.size(), 1u);
  EXPECT_FALSE(distinct.contains(*idle_addresses.begin()));
  EXPECT_EQ(library().dispatch[idle.begin()->first].idle(nullptr, nullptr, nullptr, nullptr), 0u);
}

TEST(Dispatch, IsFoundByTheHeadersArithmetic) {
  for (const PredicateKernel& kernel : predicate_kernels()) {
    const uint32_t row = kdzk_row_of_width(static_cast<uint32_t>(kernel.width)) + (kernel.suffix != "" ? 32 : 0);
    const uint32_t family = kernel.form == "dict" ? KDZK_FAMILY_DICT : kernel.form == "dynp" ? KDZK_FAMILY_DYNP : 0;
    const auto op = static_cast<uint32_t>(kernel.op);
    EXPECT_EQ(kdzk_id_of(row, family * 32 + op), kernel.id());
    EXPECT_EQ(kdzk_id_of_kind(kdzk_kind_of(row, family), op), kernel.id());
  }
  for (uint32_t width : {0u, 21u, 23u, 25u, 31u, 33u, 63u, 65u, 255u}) {
    EXPECT_EQ(kdzk_row_of_width(width), KDZK_NO_ROW_OF_WIDTH) << width;
  }
}

}  // namespace
}  // namespace kdzk_test

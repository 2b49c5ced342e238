// SPDX-License-Identifier: Apache-2.0
// The host kit's loader, its look-up of kernels, and its memory.

#include <kdzk/host.h>
#include <unistd.h>

#include <fstream>
#include <set>

#include "tests/support/kernel_of.h"
#include "tests/support/streams.h"

namespace kdzk_test {
namespace {

// ---- The loader. ----

void expect_refused(const std::string& path, uint32_t code, const std::string& sentence) {
  kdzk_host_library library;
  std::memset(&library, 0x77, sizeof library);
  EXPECT_EQ(kdzk_host_load(path.c_str(), &library), code) << library.text;
  EXPECT_EQ(library.ctx, nullptr);
  EXPECT_EQ(library.handle, nullptr);
  EXPECT_NE(std::string(library.text).find(sentence), std::string::npos) << library.text;
  // Wrong, a colon, what to do; the whole of it fits.
  EXPECT_NE(std::string(library.text).find(": "), std::string::npos) << library.text;
  EXPECT_LT(std::strlen(library.text), sizeof library.text - 1);
  kdzk_host_unload(&library);
}

// Of a file with these bytes.
void expect_bytes_refused(const std::string& bytes, uint32_t code, const std::string& sentence) {
  const std::string path = testing::TempDir() + "kdzk_file_" + std::to_string(getpid());
  std::ofstream(path, std::ios::binary) << bytes;
  expect_refused(path, code, sentence);
  unlink(path.c_str());
}

// The first bytes of a shared object with another 16-bit number at `offset`.
std::string header_with(size_t offset, uint16_t number) {
  std::string bytes(64, '\0');
  std::ifstream(KDZK_LIBRARY, std::ios::binary).read(bytes.data(), 64);
  bytes[offset] = static_cast<char>(number);
  bytes[offset + 1] = static_cast<char>(number >> 8);
  return bytes;
}

TEST(Loader, RefusesFilesThatAreNoLibrary) {
  expect_refused("", KDZK_HOST_NO_FILE, "can't read  (No such file or directory): give the path");
  expect_refused("/nowhere/libvexksse4219.so", KDZK_HOST_NO_FILE,
                 "can't read /nowhere/libvexksse4219.so (No such file or directory): give the path");
  expect_refused(std::string(300, 'x'), KDZK_HOST_NO_FILE, "xxx (File name too long): give");
  expect_refused("/" + std::string(5000, 'x'), KDZK_HOST_NO_FILE, "can't read ...xxx");
  expect_refused("/", KDZK_HOST_NO_FILE, "can't read / (Is a directory)");
  expect_refused(KDZK_SOURCE_DIR "/README.md", KDZK_HOST_NO_OBJECT, "README.md is no shared object");
  expect_bytes_refused("\177ELF", KDZK_HOST_NO_OBJECT, "no ELF header");
  constexpr size_t type_at = 16, machine_at = 18;
  expect_bytes_refused(header_with(machine_at, 183), KDZK_HOST_NO_OBJECT, "for another processor (ELF machine 183)");
  expect_bytes_refused(header_with(4, 0x101), KDZK_HOST_NO_OBJECT, "for another processor");  // of 32 bits
  expect_bytes_refused(header_with(type_at, 2), KDZK_HOST_NO_OBJECT, "(ELF type 2), not a shared object");
  expect_bytes_refused(header_with(type_at, 3), KDZK_HOST_NOT_OPENED, "see that the file is whole");
}

TEST(Loader, RefusesOtherLibraries) {
  expect_refused(KDZK_FAKE_UNBOUND, KDZK_HOST_NOT_OPENED, "kdzk_test_nobody_has_this");  // which it binds at once
  expect_refused(KDZK_FAKE_NO_RECORD, KDZK_HOST_FOREIGN, "it has no kdzk_global_specialized_ctx: give");
  expect_refused(KDZK_FAKE_MAGIC, KDZK_HOST_FOREIGN, "begins with 0xb9018219 and not 0xb9018218: give");
  expect_refused(KDZK_FAKE_VERSION, KDZK_HOST_OTHER_VERSION, "has version \"19.0-7\", and this program was built for");
}

TEST(Loader, LoadsAndUnloads) {
  kdzk_host_library first, second;
  ASSERT_EQ(kdzk_host_load(KDZK_LIBRARY, &first), KDZK_HOST_LOADED) << first.text;
  EXPECT_STREQ(first.text, "19.1-1 vexksse4219");
  EXPECT_EQ(first.ctx, &library());
  ASSERT_EQ(kdzk_host_load(KDZK_LIBRARY, &second), KDZK_HOST_LOADED);
  kdzk_host_unload(&first);
  EXPECT_EQ(first.ctx, nullptr);
  EXPECT_EQ(second.ctx->magic, KDZK_MAGIC);
  kdzk_host_unload(&second);
  kdzk_host_unload(&second);
}

// ---- The look-up. ----

TEST(FindKernel, FindsEachKernelByItsNameAndByItsCombination) {
  std::set<uint32_t> ids;
  for (uint32_t id = 0; id < KDZK_KERNEL_IDS; id++) {
    if (library().dispatch[id].any == nullptr) continue;
    ids.insert(id);
    const char* const name = kdzk_name_of(&library(), id);
    kdzk_host_kernel named, combined;
    ASSERT_EQ(kdzk_host_find_kernel_named(&library(), name, &named), KDZK_HOST_FOUND) << name << ": " << named.text;
    EXPECT_EQ(named.id, id) << name;
    EXPECT_EQ(named.kind, id / 32) << name;
    EXPECT_EQ(named.operation, id % 32) << name;
    EXPECT_EQ(named.entry.any, library().dispatch[id].any) << name;
    EXPECT_STREQ(named.text, name);
    ASSERT_EQ(kdzk_host_find_kernel(&library(), named.operation, named.form, named.width, &combined), KDZK_HOST_FOUND);
    EXPECT_EQ(combined.id, id) << name;
    EXPECT_STREQ(combined.text, name);
  }
  for (uint32_t operation = 0; operation < 40; operation++) {  // and finds no other
    for (uint32_t form = 0; form < 40; form++) {
      for (uint32_t width = 0; width < 200; width++) {
        kdzk_host_kernel kernel;
        if (kdzk_host_find_kernel(&library(), operation, form, width, &kernel) == KDZK_HOST_FOUND) {
          EXPECT_EQ(ids.erase(kernel.id), 1u) << kernel.text << " is found twice";
        } else {
          ASSERT_EQ(kernel.entry.any, nullptr);
          ASSERT_EQ(std::string(kernel.text).substr(0, 21), "no such combination: ");
        }
      }
    }
  }
  EXPECT_TRUE(ids.empty());
}

TEST(FindKernel, KnowsNoOtherNamesWhateverTheTableHas) {
  std::vector<kdzk_kernel> everywhere(KDZK_DISPATCH_SIZE);
  for (kdzk_kernel& entry : everywhere) entry.any = [] {};
  kdzk_specialized_ctx full{};
  full.dispatch = everywhere.data();
  kdzk_host_kernel kernel;
  for (const char* name : {"kdzk_eq_rle_8bit", "kdzk_burst_dict_8bit", "kdzk_burst_rle_9bit", "kdzk_eq_dict_21bit",
                           "kdzk_xlate_dict_8bit", "kdzk_eq_sim_ub1", "kdzk_xlate_float_n_n", "kdzk_add_dict_8bit"})
    EXPECT_EQ(kdzk_host_find_kernel_named(&full, name, &kernel), KDZK_HOST_NO_KERNEL) << name;
}

TEST(FindKernel, SaysWhatThereIs) {
  const auto text = [](uint32_t operation, uint32_t form, uint32_t width) -> std::string {
    kdzk_host_kernel kernel;
    return kdzk_host_find_kernel(&library(), operation, form, width, &kernel) == KDZK_HOST_FOUND ? "" : kernel.text;
  };
  EXPECT_EQ(text(KDZK_OP_EQ, KDZK_HOST_FORM_DICT_NULL, 21),
            "no such combination: eq of dict_null exists at 1 to 20, 24, 32 and 64 bits, not at 21");
  EXPECT_EQ(text(KDZK_OP_GE_LE, KDZK_HOST_FORM_FIXED, 24),
            "no such combination: ge_le of fixed exists at 8, 16, 32 and 64 bits, not at 24");
  EXPECT_EQ(text(KDZK_OP_DECODE, KDZK_HOST_FORM_DYNP, 16),
            "no such combination: decode of dynp exists at no bits, not at 16");
  EXPECT_EQ(text(18, 0, 8), "no such combination: there is no operation of the number 18");
  EXPECT_EQ(text(0, 24, 8), "no such combination: there is no form of the number 24");
  for (const char* name : {"", "kdzk_", "kdzk_eq", "kdzk_eq_dict_13bi", "kdzk_eq_dict_13bits", "kdzk_eq_dict_013bit",
                           "eq_dict_13bit", "kdzk_invalid_dispatch", "kdzk_decode_dict_13bit_nul"}) {
    kdzk_host_kernel kernel;
    EXPECT_EQ(kdzk_host_find_kernel_named(&library(), name, &kernel), KDZK_HOST_NO_KERNEL);
    EXPECT_EQ(kernel.entry.any, nullptr);
    EXPECT_EQ(kernel.text, "no kernel is named \"" + std::string(name) +
                               "\": names are like kdzk_eq_dict_13bit, kdzk_xlate_ind_ub2_c2d and "
                               "kdzk_add_double_n_c_sum");
  }
  kdzk_host_kernel kernel;  // a name by the rule, without a kernel
  EXPECT_EQ(kdzk_host_find_kernel_named(&library(), "kdzk_eq_dynp_8bit", &kernel), KDZK_HOST_NO_KERNEL);
  EXPECT_STREQ(kernel.text, "no such combination: eq of dynp exists at 16, 32 and 64 bits, not at 8");
}

// ---- Sizes. ----

TEST(Sizes, AlwaysAddThePadding) {
  for (uint64_t bytes = 0; bytes < 100; bytes++) {
    EXPECT_GE(kdzk_host_padded(bytes), bytes + 16);
    EXPECT_LT(kdzk_host_padded(bytes), bytes + 32);
    EXPECT_EQ(kdzk_host_padded(bytes) % 16, 0u);
    EXPECT_EQ(kdzk_host_bitvec_bytes(bytes), (bytes + 63) / 64 * 8);
    EXPECT_EQ(kdzk_host_padded_rows(bytes, 13), kdzk_host_padded((bytes * 13 + 7) / 8));
  }
  EXPECT_EQ(kdzk_host_padded_rows(1ull << 60, 64), kdzk_host_padded(1ull << 63));
  EXPECT_EQ(kdzk_host_padded_rows((1ull << 61) + 1, 20), kdzk_host_padded((5ull << 60) + 3));
  EXPECT_EQ(kdzk_host_padded_rows(1ull << 61, 64), UINT64_MAX);
  for (uint64_t less = 0; less < 33; less++) EXPECT_GE(kdzk_host_padded(UINT64_MAX - less), UINT64_MAX - 31);
  EXPECT_EQ(kdzk_host_bitvec_words(UINT64_MAX), 1ull << 58);
}

// ---- Memory, by predicates on blocked columns. ----

enum class Kind { malloc, arena, guarded };

class AnyMemory : public testing::Test {
 protected:
  static constexpr uint32_t rows = 3000;

  explicit AnyMemory(Kind kind) : kind_(kind), room_(1 << 20) {
    Codes codes;
    for (uint32_t row = 0; row < rows; row++) codes.push_back(row * row % 97);
    below_50_ = static_cast<uint32_t>(std::count_if(codes.begin(), codes.end(), [](uint32_t c) { return c < 50; }));
    const Bytes bytes = packed(codes, 13);
    const auto size = static_cast<uint32_t>(bytes.size());
    block_.resize(kdzk_host_sqzb_bound(size, KDZK_HOST_SQZB_ANY_WIDTH) + KDZK_PADDING);
    uint64_t block_size = 0;
    EXPECT_EQ(
        kdzk_host_sqzb_write(bytes.data(), size, KDZK_HOST_SQZB_ANY_WIDTH, block_.data(), block_.size(), &block_size),
        KDZK_HOST_DONE);
    for (int i = 0; i < 3; i++)
      vectors_[i] = {.data = block_.data(),
                     .enc_ctx = &column_,
                     .nrows = rows,
                     .decomp_size = size,
                     .decomp_slot = &slots_[i],
                     .alloc_tag = kdzk_host_tag(&slots_[i])};
    make(room_.size());
  }

  void make(uint64_t room) {
    if (kind_ == Kind::malloc) kdzk_host_memory_malloc(&memory_, &library());
    if (kind_ == Kind::arena) kdzk_host_memory_arena(&memory_, &library(), room_.data(), room);
    if (kind_ == Kind::guarded) kdzk_host_memory_guarded(&memory_, &library());
  }

  // `lt` by 50 on a vector.
  void scan(int vector) {
    std::vector<uint64_t> bits(kdzk_host_bitvec_words(rows));
    uint32_t k = 50;
    kdzk_vec result{.bitvec = bits.data(), .nrows = rows};
    const kdzk_kargs constant{.data = &k};
    kdzk_exec exec{.env = &memory_.env};
    const kdzk_kernel lt = kernel_of(KDZK_OP_LT, KDZK_HOST_FORM_DICT, 13);
    EXPECT_EQ(lt.compare(&result, &vectors_[vector], &constant, &exec), KDZK_DONE);
    EXPECT_EQ(result.hits, below_50_);
  }
  uint8_t* scratch(uint64_t size, uint32_t unit, void** word) {
    return static_cast<uint8_t*>(memory_.env.tmp_alloc(memory_.env.hctx, size, "k: scratch", unit, 0, word));
  }
  void give_back(void* piece, void* word) { memory_.env.tmp_free(memory_.env.hctx, piece, word); }

  const Kind kind_;
  uint32_t below_50_;
  Bytes block_, room_;
  const kdzk_enc_ctx column_{.flags = KDZK_BLOCKED, .width = 13};
  kdzk_vec vectors_[3];
  void* slots_[3] = {};
  kdzk_host_memory memory_;
};

struct Memory : AnyMemory, testing::WithParamInterface<Kind> {
  Memory() : AnyMemory(GetParam()) {}
};
struct Arena : AnyMemory {
  Arena() : AnyMemory(Kind::arena) {}
};
struct GuardedMemory : AnyMemory {
  GuardedMemory() : AnyMemory(Kind::guarded) {}
};

TEST_P(Memory, HoldsCopiesUntilTheyAreGivenBack) {
  for (int round = 0; round < 3; round++) {
    for (int vector = 0; vector < 3; vector++) scan(vector);
    void* const copy = slots_[0];
    scan(0);
    EXPECT_EQ(slots_[0], copy);
    for (void* slot : slots_) EXPECT_EQ(reinterpret_cast<uintptr_t>(slot) % 16, 0u);
    EXPECT_EQ(memory_.copies, 3u);
    EXPECT_EQ(memory_.scratch, 0u);
    kdzk_host_memory_release(&memory_, &slots_[1]);  // neither the first nor the last
    kdzk_host_memory_release(&memory_, &slots_[1]);
    EXPECT_EQ(slots_[1], nullptr);
    EXPECT_EQ(memory_.copies, 2u);
    scan(1);
    kdzk_host_memory_release(&memory_, &slots_[1]);
    kdzk_host_memory_reset(&memory_);
    for (void* slot : slots_) EXPECT_EQ(slot, nullptr);
    EXPECT_EQ(memory_.copies, 0u);
    EXPECT_EQ(memory_.bytes, 0u);
  }
  EXPECT_GE(memory_.high_water, 3 * kdzk_host_padded(vectors_[0].decomp_size));
  EXPECT_EQ(kdzk_host_memory_close(&memory_), 0u);
}

INSTANTIATE_TEST_SUITE_P(Kinds, Memory, testing::Values(Kind::malloc, Kind::arena, Kind::guarded));

TEST_F(Arena, IsEnoughAtItsHighWaterMark) {
  scan(0);
  scan(1);
  kdzk_host_memory_close(&memory_);
  const uint64_t enough = memory_.high_water;
  make(enough + 15);
  scan(0);
  scan(1);
  EXPECT_EQ(kdzk_host_memory_close(&memory_), 0u);
  EXPECT_EQ(memory_.high_water, enough);
  make(enough - 16);
  scan(0);
  EXPECT_EXIT(scan(1), testing::KilledBySignal(SIGABRT), "kdzk: no memory for .* \\([0-9]+ bytes\\)");
  memory_.out_of_memory = [](kdzk_host_memory*, uint64_t, const char*) { std::_Exit(3); };
  EXPECT_EXIT(scan(1), testing::ExitedWithCode(3), "");
  kdzk_host_memory_close(&memory_);
}

TEST_F(Arena, TakesTheLastScratchAgain) {
  void *first_word = &first_word, *second_word = &second_word;
  uint8_t* const first = scratch(20, 8, &first_word);
  const uint64_t bytes = memory_.bytes;
  uint8_t* const second = scratch(41, 8, &second_word);
  EXPECT_LE(second + 41, first);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(first) % 8 + reinterpret_cast<uintptr_t>(second) % 8, 0u);
  give_back(second, second_word);
  EXPECT_EQ(memory_.bytes, bytes);
  EXPECT_EQ(scratch(41, 8, &second_word), second);
  give_back(first, first_word);  // in the other order
  give_back(second, second_word);
  EXPECT_EQ(memory_.bytes, 0u);
}

// What a library with mistakes would do.
TEST_F(GuardedMemory, ReportsMistakes) {
  static std::vector<std::string> sentences;
  memory_.report = [](kdzk_host_memory*, const char* sentence) { sentences.push_back(sentence); };
  const auto expect = [&](const std::string& sentence) {
    EXPECT_EQ(sentences, (std::vector<std::string>{sentence}));
    sentences.clear();
  };
  void *word = &word, *other = nullptr;
  const auto scratch_of = [&](uint64_t size) { return scratch(size, 4, &word); };
  const auto copy = [&](uint32_t size) {
    return static_cast<uint8_t*>(memory_.env.alloc(memory_.env.hctx, nullptr, size, "k: copy", 8, 16, 0));
  };

  uint8_t* piece = scratch_of(100);
  piece[0] = piece[99] = 1;
  EXPECT_DEATH(piece[100] = 1, "");
  give_back(piece, word);
  EXPECT_TRUE(sentences.empty());
  EXPECT_DEATH(piece[0] = 1, "");
  give_back(piece, word);
  expect("\"k: scratch\" (100 bytes) was given back twice");
  give_back(&other, word);
  EXPECT_NE(sentences.at(0).find("was given back, but is no scratch of this memory"), std::string::npos);
  sentences.clear();
  piece = scratch_of(8);
  give_back(piece, &other);
  expect("\"k: scratch\" was given back with another `out` than tmp_alloc left");
  piece = scratch_of(6);
  piece[-3] = 0;
  give_back(piece, word);
  expect("byte 3 before \"k: scratch\" (6 bytes) was written");
  piece = scratch_of(6);
  piece[7] = 0;  // which its alignment leaves
  give_back(piece, word);
  expect("byte 1 behind \"k: scratch\" (6 bytes) was written");

  void* slot = copy(40);
  EXPECT_DEATH(static_cast<uint8_t*>(slot)[64] = 1, "");
  static_cast<uint8_t*>(slot)[40] = 1;
  kdzk_host_memory_release(&memory_, &slot);
  expect("byte 0 behind \"k: copy\" (40 bytes) was written");
  slot = copy(0);
  kdzk_host_memory_release(&memory_, &slot);
  for (int i = 0; i < 1100; i++) {  // more than are remembered
    piece = scratch_of(1);
    give_back(piece, word);
  }
  EXPECT_TRUE(sentences.empty());
  copy(1);
  scratch_of(2);
  EXPECT_EQ(kdzk_host_memory_close(&memory_), 8u);
  EXPECT_EQ(sentences, (std::vector<std::string>{"\"k: scratch\" (2 bytes) was never given back",
                                                 "\"k: copy\" (1 bytes) was never given back"}));
  sentences.clear();
}

}  // namespace
}  // namespace kdzk_test

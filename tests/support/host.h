// SPDX-License-Identifier: Apache-2.0
// The test host: it opens the library as any host does, and its callbacks record what they are asked.
#ifndef TESTS_SUPPORT_HOST_H
#define TESTS_SUPPORT_HOST_H

#include <kdzk/kdzk.h>

#include <cstdint>
#include <random>
#include <span>
#include <string>
#include <vector>

namespace kdzk_test {

// The exported record, found with dlsym. Ends the program with a sentence if the library can't be opened.
const kdzk_specialized_ctx& library();

// Memory that ends where the next access faults. The bytes lie at the end of a mapping, `slack` readable bytes and then
// an inaccessible page behind them; another inaccessible page stands in front of the mapping.
class GuardedBuffer {
 public:
  explicit GuardedBuffer(size_t size, size_t slack = 0, uint8_t fill = 0xa5);
  explicit GuardedBuffer(std::span<const uint8_t> bytes, size_t slack = KDZK_PADDING, uint8_t fill = 0xa5);
  GuardedBuffer(const GuardedBuffer&) = delete;
  GuardedBuffer& operator=(const GuardedBuffer&) = delete;
  ~GuardedBuffer();

  uint8_t* data() { return data_; }
  const uint8_t* data() const { return data_; }
  size_t size() const { return size_; }
  std::span<uint8_t> inside() const;  // everything between the two pages

 private:
  uint8_t* map_;
  size_t map_size_;
  uint8_t* data_;
  size_t size_;
};

// A bit vector of exactly the words that `nrows` rows take, full of garbage at first and followed by a page that
// faults.
class GuardedBits {
 public:
  explicit GuardedBits(uint64_t nrows, uint64_t garbage = 0xdeadbeefcafef00d);
  GuardedBits(const std::vector<bool>& rows, uint64_t behind_the_last);

  uint64_t* words() { return reinterpret_cast<uint64_t*>(buffer_.data()); }
  uint64_t word(size_t i) const;
  bool row(uint64_t r) const { return word(r / 64) >> r % 64 & 1; }
  std::vector<bool> rows() const;

 private:
  uint64_t nrows_;
  GuardedBuffer buffer_;
};

// Deterministic numbers for one test case; KDZK_TEST_SEED in the environment is mixed in.
class Random {
 public:
  explicit Random(const std::string& name);
  uint64_t bits() { return engine_(); }
  uint64_t below(uint64_t n) { return engine_() % n; }
  uint64_t seed() const { return seed_; }
  // Each row set with a probability of percent / 100.
  std::vector<bool> rows(uint64_t nrows, unsigned percent);

 private:
  uint64_t seed_;
  std::mt19937_64 engine_;
};

// What the callbacks were asked since the host was made. One at a time may be alive: hostinternalerr finds it.
class RecordingHost {
 public:
  RecordingHost();
  ~RecordingHost();
  RecordingHost(const RecordingHost&) = delete;

  kdzk_env env;
  uint64_t hctx[80];  // word 72 holds word72

  static constexpr uint64_t word72 = 0x7272727272727272;

  // A "compressed" column: `decompress` gives these bytes, and fails with `decompress_result` if that isn't 0. The copy
  // lies in a GuardedBuffer with KDZK_PADDING bytes of slack.
  std::vector<uint8_t> plain;
  uint32_t decompress_result = 0;

  struct Alloc {
    void *hctx, *heap;
    uint32_t size;
    std::string comment;
    uint32_t unit, alignment;
    uint64_t tag;
    bool operator==(const Alloc&) const = default;
  };
  std::vector<Alloc> allocs;
  struct Decompress {
    kdzk_sqzb_ctx ctx;
    const void* src;
    void* dst;
    uint32_t written_before, capacity;
  };
  std::vector<Decompress> decompressions;
  struct Error {
    void* hctx;
    uint64_t word72;
    std::string message;
    uint64_t zero;
    bool operator==(const Error&) const = default;
  };
  std::vector<Error> errors;
  struct Report {
    const kdzk_env* env;
    kdzk_vec* result;
    const kdzk_vec* input;
    uint64_t words[16];
    uint32_t hits_in_result;
  };
  std::vector<Report> reports;
  uint32_t result_cb_returns = 0;

  static uint32_t result_cb(const kdzk_env* env, kdzk_vec* result, const kdzk_vec* input,
                            const kdzk_result_report* report);

 private:
  std::vector<GuardedBuffer*> copies_;

  static void* alloc(void* hctx, void* heap, uint32_t size, const char* comment, uint32_t unit, uint32_t alignment,
                     uint64_t tag);
  static uint32_t decompress(const kdzk_sqzb_ctx* ctx, const void* src, void* dst, uint32_t* written,
                             uint32_t capacity);
  friend void record_error(void*, uint64_t, const char*, uint64_t);
};

// What hostinternalerr does in this thread, if it isn't for the RecordingHost.
extern thread_local void (*on_internal_error)();

// Names the case that runs, for the report of a fault inside a kernel.
void now_running(const std::string& what);

}  // namespace kdzk_test

#endif

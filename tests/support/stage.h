// SPDX-License-Identifier: Apache-2.0
// A stage for one call, or a few that belong together: it lays out what the call reads and writes, plays the host, and
// keeps what came of it. The same call can be made on stages that differ in what must not matter - where buffers lie,
// what is around them, what outputs held before -, on a stage whose callbacks leave by longjmp, and in many threads on
// stages that share their inputs.
#ifndef TESTS_SUPPORT_STAGE_H
#define TESTS_SUPPORT_STAGE_H

#include <csetjmp>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/host.h"

namespace kdzk_test {

using Bytes = std::vector<uint8_t>;

// What no result may depend on.
struct Surroundings {
  bool in_front = false;  // buffers begin `shift` bytes behind a page that faults, rather than end `shift` before one
  uint32_t shift = 0;     // cut to a buffer's alignment
  uint8_t padding = 0xa5;
  uint8_t before = 0x5a;  // what outputs hold
};

class Stage {
 public:
  // A scene's name fixes its random numbers. With `shared`, a stage that has seen the same scene, all inputs are its.
  explicit Stage(const std::string& scene, Surroundings around = {}, Stage* shared = nullptr);
  Stage(const Stage&) = delete;

  Random random;

  // ---- Buffers ----

  // What a call reads, with so many readable bytes behind it.
  uint8_t* in(const Bytes& bytes, size_t slack = KDZK_PADDING, size_t alignment = 1);
  uint64_t* in_bits(const std::vector<bool>& rows);  // whole words, those behind the last row being garbage
  // What it writes. Words at multiples of 8 that are addresses in the stage's buffers count as the same address.
  uint8_t* out(size_t size, size_t alignment = 1);
  uint8_t* out(const Bytes& before, size_t alignment = 1);
  uint64_t* out_bits(uint64_t nrows, bool cleared = false);  // of which only the bits of rows count
  void counts(const void* out, size_t size);                 // only so many bytes of it count
  void has_value(const void* out, size_t size);              // whatever valgrind takes it for
  // What is filled once, by the first stage of those that share it.
  uint8_t* built(size_t size, const std::function<void(uint8_t*)>& fill);

  // Makes a column a block, whose slot is empty on a stage of its own and filled on one that shares.
  void block(kdzk_vec* column, kdzk_enc_ctx* enc, const Bytes& bytes);

  // ---- Calls ----

  // Makes a call, and again if a callback left it; `restore` brings back what the host has to before that.
  template <class Call>
  uint64_t call(
      const Call& call, const std::function<void()>& restore = [] {}) {
    arrive();
    if (setjmp(back_) != 0) {
      host_after_leaving();
      restore();
    }
    const uint64_t returned = call();
    saw(returned);
    return returned;
  }
  kdzk_env* env() { return &env_; }
  static uint64_t hash(const void* key, uint32_t length, uint64_t seed);
  static uint32_t expand_runs(const kdzk_env* env, kdzk_vec* result, const kdzk_vec* input,
                              const kdzk_result_report* report);  // a result_cb for run lengths of bytes
  uint32_t leaves_at = 0;                                         // the callback that leaves, counted from 1
  bool decompression_fails = false;  // so it says; the copy is good, and hostinternalerr one more callback
  uint32_t callbacks = 0;

  // ---- What came of it ----

  void saw(uint64_t number);
  // Rows and their values, in whatever way they were come by.
  void row_bytes(const void* at, size_t size) {
    rows_.insert(rows_.end(), static_cast<const uint8_t*>(at), static_cast<const uint8_t*>(at) + size);
  }
  void rows(const uint64_t* bits, uint64_t nrows);

  struct Outcome {
    std::vector<uint64_t> numbers;
    std::vector<Bytes> outs;
    Bytes rows;
    uint8_t before;
    std::string complaint;  // of what lies around the buffers, or of inputs that were written
  };
  Outcome outcome();

 private:
  struct Buffer {
    std::unique_ptr<GuardedBuffer> memory;  // null if it is the sharing stage's
    uint8_t* data = nullptr;
    size_t size = 0, slack = 0;
    Bytes input;           // what must still be there afterwards
    uint64_t counted = 0;  // bits of an output
    ~Buffer();
  };
  Buffer& place(std::deque<Buffer>& among, size_t size, size_t slack, size_t alignment);
  uint8_t* shared_input();
  uint64_t named(uint64_t word) const;  // an address as the number of its buffer and a position there
  void arrive();
  void host_after_leaving();
  void* scratch(uint64_t size, size_t slack, size_t alignment);
  static void called();

  static void* alloc(void*, void*, uint32_t size, const char*, uint32_t, uint32_t, uint64_t);
  static void* tmp_alloc(void*, uint64_t size, const char*, uint32_t, uint32_t, void**);
  static void tmp_free(void*, void* scratch, void*);
  static uint32_t decompress(const kdzk_sqzb_ctx*, const void* src, void* dst, uint32_t* written, uint32_t capacity);

  Surroundings around_;
  Stage* shared_;
  std::deque<Buffer> ins_, outs_, scratch_;
  std::deque<void*> slots_;
  size_t scratch_in_use_ = 0;
  std::vector<uint64_t> numbers_;
  Bytes rows_;
  kdzk_env env_{};
  std::jmp_buf back_;
};

// Whether one stage's outcome is another's: what wasn't written differs as it did before.
std::string difference(const Stage::Outcome& a, const Stage::Outcome& b);

}  // namespace kdzk_test

#endif

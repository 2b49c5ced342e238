// SPDX-License-Identifier: Apache-2.0

#include "tests/support/host.h"

#include <dlfcn.h>
#include <sys/mman.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>

namespace kdzk_test {
namespace {

RecordingHost* current_host = nullptr;
char running[1 << 16];

[[noreturn]] void give_up(const std::string& why) {
  std::fprintf(stderr, "%s\n", why.c_str());
  std::exit(2);
}

void name_the_case_and_die(int signal) {
  static constexpr char fault[] = "fault, or no end, in: ";
  (void)!write(2, fault, sizeof fault - 1);
  (void)!write(2, running, std::strlen(running));
  (void)!write(2, "\n", 1);
  std::signal(signal, SIG_DFL);
  std::raise(signal);
}

const kdzk_specialized_ctx* open_library() {
  const char* const file = std::getenv("KDZK_LIBRARY") != nullptr ? std::getenv("KDZK_LIBRARY") : KDZK_LIBRARY;
  void* const handle = dlopen(file, RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) give_up(std::string("can't open the library: ") + dlerror());
  const void* const record = dlsym(handle, KDZK_CONTEXT_SYMBOL);
  if (record == nullptr) give_up(std::string(file) + " has no symbol " KDZK_CONTEXT_SYMBOL);
  for (const int signal : {SIGSEGV, SIGALRM}) {
    if (const auto before = std::signal(signal, name_the_case_and_die); before != SIG_DFL)
      std::signal(signal, before);  // a sanitizer's, which says more
  }
  return static_cast<const kdzk_specialized_ctx*>(record);
}

}  // namespace

const kdzk_specialized_ctx& library() {
  static const kdzk_specialized_ctx* const record = open_library();
  return *record;
}

void now_running(const std::string& what) { std::snprintf(running, sizeof running, "%s", what.c_str()); }

// Mappings are kept for the next buffer of their size: thousands are made, and the kernel's share is most of the time.
std::map<size_t, std::vector<uint8_t*>> spare_mappings;
std::mutex mappings;

struct Guarded {
  unsigned long long buffers = 0, bytes = 0;
  ~Guarded() {
    if (buffers > 0) std::printf("figure: %llu buffers against pages that fault, %llu bytes in all\n", buffers, bytes);
  }
} guarded;

GuardedBuffer::GuardedBuffer(size_t size, size_t slack, uint8_t fill) : size_(size) {
  const std::lock_guard lock(mappings);
  guarded.buffers++;
  guarded.bytes += size + slack;
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  const size_t inside = (size + slack + page - 1) / page * page;
  map_size_ = inside + 2 * page;
  std::vector<uint8_t*>& spare = spare_mappings[map_size_];
  if (!spare.empty()) {
    map_ = spare.back();
    spare.pop_back();
  } else {
    void* const map = mmap(nullptr, map_size_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (map == MAP_FAILED) give_up("out of memory");
    map_ = static_cast<uint8_t*>(map);
    if (inside > 0 && mprotect(map_ + page, inside, PROT_READ | PROT_WRITE) != 0) give_up("mprotect failed");
  }
  data_ = map_ + page + inside - slack - size;
  if (inside > 0) std::memset(map_ + page, fill, inside);
}

GuardedBuffer::GuardedBuffer(std::span<const uint8_t> bytes, size_t slack, uint8_t fill)
    : GuardedBuffer(bytes.size(), slack, fill) {
  if (!bytes.empty()) std::memcpy(data_, bytes.data(), bytes.size());
}

std::span<uint8_t> GuardedBuffer::inside() const {
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  return {map_ + page, map_size_ - 2 * page};
}

GuardedBuffer::~GuardedBuffer() {
  const std::lock_guard lock(mappings);
  spare_mappings[map_size_].push_back(map_);
}

GuardedBits::GuardedBits(uint64_t nrows, uint64_t garbage) : nrows_(nrows), buffer_((nrows + 63) / 64 * 8) {
  for (uint64_t i = 0; i < (nrows + 63) / 64; i++) std::memcpy(buffer_.data() + i * 8, &garbage, 8);
}

GuardedBits::GuardedBits(const std::vector<bool>& rows, uint64_t behind_the_last) : GuardedBits(rows.size()) {
  for (size_t i = 0; i < (rows.size() + 63) / 64; i++) {
    uint64_t word = 0;
    for (size_t bit = 0; bit < 64; bit++) {
      const bool set = i * 64 + bit < rows.size() ? rows[i * 64 + bit] : (behind_the_last >> bit & 1) != 0;
      word |= uint64_t{set} << bit;
    }
    std::memcpy(buffer_.data() + i * 8, &word, 8);
  }
}

uint64_t GuardedBits::word(size_t i) const {
  uint64_t word;
  std::memcpy(&word, buffer_.data() + i * 8, 8);
  return word;
}

std::vector<bool> GuardedBits::rows() const {
  std::vector<bool> rows(nrows_);
  for (uint64_t r = 0; r < nrows_; r++) rows[r] = row(r);
  return rows;
}

Random::Random(const std::string& name) {
  const char* const text = std::getenv("KDZK_TEST_SEED");
  seed_ = text != nullptr ? std::strtoull(text, nullptr, 0) : 1;
  std::seed_seq sequence(name.begin(), name.end());
  std::vector<uint32_t> mixed(2);
  sequence.generate(mixed.begin(), mixed.end());
  engine_.seed((uint64_t{mixed[0]} << 32 | mixed[1]) + seed_);
}

std::vector<bool> Random::rows(uint64_t nrows, unsigned percent) {
  std::vector<bool> rows(nrows);
  for (uint64_t r = 0; r < nrows; r++) rows[r] = below(100) < percent;
  return rows;
}

RecordingHost::RecordingHost() : env{}, hctx{} {
  current_host = this;
  hctx[71] = word72;
  env.hctx = hctx;
  env.heap = &copies_;
  env.alloc = alloc;
  env.decompress = decompress;
}

RecordingHost::~RecordingHost() {
  for (GuardedBuffer* copy : copies_) delete copy;
  current_host = nullptr;
}

void* RecordingHost::alloc(void* hctx, void* heap, uint32_t size, const char* comment, uint32_t unit,
                           uint32_t alignment, uint64_t tag) {
  RecordingHost& host = *current_host;
  host.allocs.push_back({hctx, heap, size, comment, unit, alignment, tag});
  const size_t to_alignment = (16 - (size + KDZK_PADDING) % 16) % 16;
  host.copies_.push_back(new GuardedBuffer(size, KDZK_PADDING + to_alignment));
  return host.copies_.back()->data();
}

uint32_t RecordingHost::decompress(const kdzk_sqzb_ctx* ctx, const void* src, void* dst, uint32_t* written,
                                   uint32_t capacity) {
  RecordingHost& host = *current_host;
  host.decompressions.push_back({*ctx, src, dst, *written, capacity});
  std::memcpy(dst, host.plain.data(), std::min<size_t>(capacity, host.plain.size()));
  *written = capacity;
  return host.decompress_result;
}

uint32_t RecordingHost::result_cb(const kdzk_env* env, kdzk_vec* result, const kdzk_vec* input,
                                  const kdzk_result_report* report) {
  Report entry = {env, result, input, {}, result->hits};
  std::memcpy(entry.words, report, sizeof entry.words);
  current_host->reports.push_back(entry);
  return current_host->result_cb_returns;
}

thread_local void (*on_internal_error)() = nullptr;

void record_error(void* hctx, uint64_t word72, const char* message, uint64_t zero) {
  if (on_internal_error != nullptr) return on_internal_error();
  if (current_host == nullptr) give_up(std::string("internal error: ") + message);
  current_host->errors.push_back({hctx, word72, message, zero});
}

}  // namespace kdzk_test

// What the library imports. It returns, which a kernel must bear.
extern "C" __attribute__((visibility("default"))) void hostinternalerr(void* hctx, uint64_t word72, const char* message,
                                                                       uint64_t zero) {
  kdzk_test::record_error(hctx, word72, message, zero);
}

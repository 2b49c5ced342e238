// SPDX-License-Identifier: Apache-2.0

#include "tests/support/stage.h"

#include <kdzk/host/sqzb.h>

#include <algorithm>
#include <cstring>

#include "tests/support/streams.h"
#include "tests/support/value_columns.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#endif
#if __has_include(<valgrind/memcheck.h>)
#include <valgrind/memcheck.h>
#endif

namespace kdzk_test {
namespace {

constexpr size_t page = 4096;
thread_local Stage* current = nullptr;

enum class Memory { forbidden, undefined, usable };

// Of bytes around buffers: the address sanitizer sees to it that nobody touches those forbidden, valgrind that nothing
// comes of those undefined.
void mark(const uint8_t* from, const uint8_t* to, Memory as) {
  [[maybe_unused]] const auto size = static_cast<size_t>(to - from);
#if defined(__SANITIZE_ADDRESS__)
  as == Memory::forbidden ? __asan_poison_memory_region(from, size) : __asan_unpoison_memory_region(from, size);
#endif
#if defined(VALGRIND_MAKE_MEM_UNDEFINED)
  as == Memory::usable ? VALGRIND_MAKE_MEM_DEFINED(from, size) : VALGRIND_MAKE_MEM_UNDEFINED(from, size);
#endif
}

// What a call gave has a value.
void expect_defined([[maybe_unused]] const void* from, [[maybe_unused]] size_t size) {
#if defined(VALGRIND_CHECK_MEM_IS_DEFINED)
  VALGRIND_CHECK_MEM_IS_DEFINED(from, size);
#endif
}

}  // namespace

// ---- Buffers ----

Stage::Stage(const std::string& scene, Surroundings around, Stage* shared)
    : random(scene), around_(around), shared_(shared) {
  env_ = {this, nullptr, alloc, tmp_alloc, tmp_free, decompress};
}

Stage::Buffer& Stage::place(std::deque<Buffer>& among, size_t size, size_t slack, size_t alignment) {
  Buffer& buffer = among.emplace_back();
  buffer.size = size;
  buffer.slack = slack;
  const size_t shift = around_.shift / alignment * alignment;
  if (around_.in_front) {
    const size_t whole = std::max<size_t>((shift + size + slack + page - 1) / page, 1) * page;
    buffer.memory = std::make_unique<GuardedBuffer>(whole, 0, around_.padding);
    buffer.data = buffer.memory->data() + shift;
  } else {
    const size_t to_alignment = (alignment - (size + slack) % alignment) % alignment;
    buffer.memory = std::make_unique<GuardedBuffer>(size, slack + shift + to_alignment, around_.padding);
    buffer.data = buffer.memory->data();
  }
  const auto inside = buffer.memory->inside();
  if (inside.empty()) return buffer;
  mark(inside.data(), buffer.data, Memory::forbidden);
  mark(buffer.data + size, buffer.data + size + slack, Memory::undefined);
  mark(buffer.data + size + slack, inside.data() + inside.size(), Memory::forbidden);
  return buffer;
}

Stage::Buffer::~Buffer() {
  if (memory) mark(memory->inside().data(), memory->inside().data() + memory->inside().size(), Memory::usable);
}

uint8_t* Stage::shared_input() {
  uint8_t* const data = shared_->ins_[ins_.size()].data;
  ins_.emplace_back().data = data;
  return data;
}

uint8_t* Stage::in(const Bytes& bytes, size_t slack, size_t alignment) {
  if (shared_ != nullptr) return shared_input();
  Buffer& buffer = place(ins_, bytes.size(), slack, alignment);
  std::copy(bytes.begin(), bytes.end(), buffer.data);
  buffer.input = bytes;
  return buffer.data;
}

uint64_t* Stage::in_bits(const std::vector<bool>& rows) {
  std::vector<uint64_t> words((rows.size() + 63) / 64, random.bits());
  for (size_t r = 0; r < rows.size(); r++)
    words[r / 64] = (words[r / 64] & ~(1ull << r % 64)) | uint64_t{rows[r]} << r % 64;
  return reinterpret_cast<uint64_t*>(in(bytes_of(words), 0));
}

uint8_t* Stage::out(const Bytes& before, size_t alignment) {
  Buffer& buffer = place(outs_, before.size(), 0, alignment);
  std::copy(before.begin(), before.end(), buffer.data);
  buffer.counted = 8 * before.size();
  return buffer.data;
}

uint8_t* Stage::out(size_t size, size_t alignment) { return out(Bytes(size, around_.before), alignment); }

uint64_t* Stage::out_bits(uint64_t nrows, bool cleared) {
  uint8_t* const bits = out(Bytes((nrows + 63) / 64 * 8, cleared ? 0 : around_.before));
  outs_.back().counted = nrows;
  return reinterpret_cast<uint64_t*>(bits);
}

void Stage::counts(const void* out, size_t size) {
  for (Buffer& buffer : outs_) {
    if (buffer.data == out) buffer.counted = 8 * size;
  }
}

void Stage::has_value(const void* out, size_t size) {
  mark(static_cast<const uint8_t*>(out), static_cast<const uint8_t*>(out) + size, Memory::usable);
}

uint8_t* Stage::built(size_t size, const std::function<void(uint8_t*)>& fill) {
  if (shared_ != nullptr) return shared_input();
  Buffer& buffer = place(ins_, size, 0, 8);
  std::memset(buffer.data, 0, size);
  fill(buffer.data);
  buffer.input.assign(buffer.data, buffer.data + size);
  return buffer.data;
}

void Stage::block(kdzk_vec* column, kdzk_enc_ctx* enc, const Bytes& bytes) {
  const auto size = static_cast<uint32_t>(bytes.size());
  Bytes packed(kdzk_host_sqzb_bound(size, KDZK_HOST_SQZB_ANY_WIDTH));
  uint64_t packed_size = 0;
  if (kdzk_host_sqzb_write(bytes.data(), size, KDZK_HOST_SQZB_ANY_WIDTH, packed.data(), packed.size(), &packed_size) !=
      KDZK_HOST_DONE)
    std::abort();
  packed.resize(packed_size);
  enc->flags |= KDZK_BLOCKED;
  column->data = in(packed);
  column->decomp_size = size;
  slots_.push_back(nullptr);
  column->decomp_slot = shared_ != nullptr ? &shared_->slots_[slots_.size() - 1] : &slots_.back();
}

// ---- The host ----

void Stage::arrive() {
  current = this;
  on_internal_error = called;
}

void Stage::called() {
  if (++current->callbacks == current->leaves_at) std::longjmp(current->back_, 1);
}

// What a host does when a callback has left: no slot keeps a copy that isn't finished.
void Stage::host_after_leaving() {
  for (void*& slot : slots_) slot = nullptr;
  scratch_in_use_ = 0;
}

void* Stage::scratch(uint64_t size, size_t slack, size_t alignment) {
  return place(scratch_, size, slack, alignment).data;
}

void* Stage::alloc(void* hctx, void*, uint32_t size, const char*, uint32_t, uint32_t alignment, uint64_t) {
  called();
  return static_cast<Stage*>(hctx)->scratch(size, KDZK_PADDING, alignment);
}

void* Stage::tmp_alloc(void* hctx, uint64_t size, const char*, uint32_t unit, uint32_t, void**) {
  called();
  static_cast<Stage*>(hctx)->scratch_in_use_++;
  return static_cast<Stage*>(hctx)->scratch(size, 0, unit);
}

void Stage::tmp_free(void* hctx, void*, void*) {
  called();
  static_cast<Stage*>(hctx)->scratch_in_use_--;
}

uint32_t Stage::decompress(const kdzk_sqzb_ctx* ctx, const void* src, void* dst, uint32_t* written, uint32_t capacity) {
  called();
  const uint32_t status = library().sqzb_decode_x86(ctx, src, dst, written, capacity);
  return static_cast<Stage*>(ctx->hctx)->decompression_fails ? KDZK_MALFORMED : status;
}

uint64_t Stage::hash(const void* key, uint32_t length, uint64_t seed) {
  called();
  return plain_hash(key, length, seed);
}

uint32_t Stage::expand_runs(const kdzk_env* env, kdzk_vec* result, const kdzk_vec* input,
                            const kdzk_result_report* report) {
  called();
  static_cast<Stage*>(env->hctx)->saw(report->hits);
  const uint32_t id = kdzk_id_of(kdzk_row_of_width(input->enc_ctx->unpack_width) - 1, 110);
  return static_cast<uint32_t>(library().dispatch[id].burst(result, input, report));
}

// ---- What came of it ----

void Stage::saw(uint64_t number) {
  expect_defined(&number, sizeof number);
  numbers_.push_back(number);
}

void Stage::rows(const uint64_t* bits, uint64_t nrows) {
  for (uint64_t r = 0; r < nrows; r++) rows_.push_back(reinterpret_cast<const uint8_t*>(bits)[r / 8] >> r % 8 & 1);
}

uint64_t Stage::named(uint64_t word) const {
  uint64_t number = 0;
  for (const std::deque<Buffer>* const buffers : {&ins_, &outs_}) {
    for (const Buffer& buffer : *buffers) {
      number++;
      const auto data = reinterpret_cast<uint64_t>(buffer.data);
      const size_t size = shared_ != nullptr && buffers == &ins_ ? shared_->ins_[number - 1].size : buffer.size;
      if (word >= data && word <= data + size) return number << 48 | (word - data);
    }
  }
  return word;
}

Stage::Outcome Stage::outcome() {
  Outcome outcome = {numbers_, {}, rows_, around_.before, {}};
  if (scratch_in_use_ != 0) outcome.complaint = "scratch isn't given back";
  for (const Buffer& buffer : ins_) {
    if (buffer.memory && !std::equal(buffer.input.begin(), buffer.input.end(), buffer.data))
      outcome.complaint = "an input was written";
  }
  for (const std::deque<Buffer>* const buffers : {&ins_, &outs_, &scratch_}) {
    for (const Buffer& buffer : *buffers) {
      if (!buffer.memory || buffer.memory->inside().empty()) continue;
      const auto inside = buffer.memory->inside();
      mark(inside.data(), buffer.data, Memory::usable);
      mark(buffer.data + buffer.size, inside.data() + inside.size(), Memory::usable);
      const auto is_padding = [&](uint8_t byte) { return byte == around_.padding; };
      if (!std::all_of(inside.data(), buffer.data, is_padding) ||
          !std::all_of(buffer.data + buffer.size, inside.data() + inside.size(), is_padding))
        outcome.complaint = "something was written around a buffer";
    }
  }
  for (const Buffer& buffer : outs_) {
    Bytes bytes(buffer.data, buffer.data + (buffer.counted + 7) / 8);
    if (buffer.counted % 8 != 0) bytes.back() = static_cast<uint8_t>(bytes.back() & ((1 << buffer.counted % 8) - 1));
    expect_defined(bytes.data(), bytes.size());
    for (size_t at = 0; at + 8 <= bytes.size(); at += 8) {
      uint64_t word;
      std::memcpy(&word, &bytes[at], 8);
      word = named(word);
      std::memcpy(&bytes[at], &word, 8);
    }
    outcome.outs.push_back(std::move(bytes));
  }
  return outcome;
}

std::string difference(const Stage::Outcome& a, const Stage::Outcome& b) {
  for (const Stage::Outcome* const one : {&a, &b}) {
    if (one->complaint != "") return one->complaint;
  }
  if (a.numbers != b.numbers) return "other return codes, counts or positions";
  if (a.rows != b.rows) return "other rows";
  if (a.outs.size() != b.outs.size()) return "other outputs";
  for (size_t i = 0; i < a.outs.size(); i++) {
    if (a.outs[i].size() != b.outs[i].size()) return "output " + std::to_string(i) + " is of another size";
    for (size_t at = 0; at < a.outs[i].size(); at++) {
      const uint8_t x = a.outs[i][at], y = b.outs[i][at];
      if (x != y && !(x == a.before && y == b.before))
        return "output " + std::to_string(i) + ", byte " + std::to_string(at) + ": " + std::to_string(x) + ", " +
               std::to_string(y);
    }
  }
  return "";
}

}  // namespace kdzk_test

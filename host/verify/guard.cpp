// SPDX-License-Identifier: Apache-2.0
// malloc and its family for the whole program: the C library's, until guarded pieces are asked for. These are cut from
// one range of addresses, one behind the other, and are never used twice, so that a list of them is in order.
//
//   ... data and up to 15 bytes | page that faults
//
// The symbols are weak: an engine that brings its own malloc keeps it, and gets columns probed page by page only. With
// the address sanitizer malloc is the sanitizer's.

#include "host/verify/guard.h"

#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace kdzk_verify {
namespace {

struct Piece {
  uint8_t* begin;
  size_t size;
};

constexpr size_t page = 4096, range_size = size_t{1} << 34, most_pieces = 1 << 14;  // two mappings each
uint8_t* range = nullptr;
size_t taken = 0, count = 0;
Piece pieces[most_pieces];
bool guarding = false;

// The last one that begins at or before an address; null if the address is in none.
const Piece* piece_of(const void* address) {
  const auto* const at = static_cast<const uint8_t*>(address);
  const auto before = [](const uint8_t* a, const Piece& piece) { return a < piece.begin; };
  const Piece* const behind = std::upper_bound(pieces, pieces + count, at, before);
  return behind == pieces || at >= range + taken ? nullptr : behind - 1;
}

}  // namespace

const uint8_t* guarded_end(const void* address) {
  const Piece* const piece = piece_of(address);
  return piece == nullptr ? nullptr : piece->begin + piece->size;
}

void guard_malloc(bool on) {
  if (range == nullptr) {
    void* const map = mmap(nullptr, range_size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (map == MAP_FAILED) return;
    range = static_cast<uint8_t*>(map);
  }
  guarding = on;
}

}  // namespace kdzk_verify

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define __SANITIZE_ADDRESS__ 1
#endif
#endif
#ifndef __SANITIZE_ADDRESS__

#define KDZK_WEAK __attribute__((weak, visibility("default")))

extern "C" {

using namespace kdzk_verify;

void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* data, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* data);

static void* take_alone(size_t size, size_t alignment) {
  alignment = std::max(alignment, size_t{16});
  const size_t inside = (size + alignment + page) / page * page, all = inside + page;
  if (inside < size || all > range_size - taken || count == most_pieces) return nullptr;
  uint8_t* const end = range + taken + inside;
  if (mprotect(end - inside, inside, PROT_READ | PROT_WRITE) != 0) return nullptr;
  taken += all;
  auto* const data = reinterpret_cast<uint8_t*>((reinterpret_cast<uintptr_t>(end) - size) & -alignment);
  pieces[count++] = {data, size};
  return data;
}

static void* take(size_t size, size_t alignment) {
  static std::atomic_flag busy = ATOMIC_FLAG_INIT;
  while (busy.test_and_set(std::memory_order_acquire)) {
  }
  void* const data = take_alone(size, alignment);
  busy.clear(std::memory_order_release);
  return data;
}

// Where there is no room for more guarded pieces, the C library's have to do.
KDZK_WEAK void* malloc(size_t size) noexcept {
  void* const data = guarding ? take(size, 16) : nullptr;
  return data != nullptr ? data : __libc_malloc(size);
}

KDZK_WEAK void* calloc(size_t count, size_t size) noexcept {
  size_t bytes;
  void* const data = guarding && !__builtin_mul_overflow(count, size, &bytes) ? take(bytes, 16) : nullptr;
  return data != nullptr ? data : __libc_calloc(count, size);  // fresh pages are zero
}

KDZK_WEAK void* realloc(void* data, size_t size) noexcept {
  if (!guarding && piece_of(data) == nullptr) return __libc_realloc(data, size);
  void* const moved = malloc(size);
  if (moved == nullptr || data == nullptr) return moved;
  if (piece_of(data) == nullptr) {  // of unknown size: stays where it is
    free(moved);
    return __libc_realloc(data, size);
  }
  std::memcpy(moved, data, std::min(size, piece_of(data)->size));
  return moved;
}

KDZK_WEAK void* memalign(size_t alignment, size_t size) noexcept {
  void* const data = guarding ? take(size, alignment) : nullptr;
  return data != nullptr ? data : __libc_memalign(alignment, size);
}

KDZK_WEAK void* aligned_alloc(size_t alignment, size_t size) noexcept { return memalign(alignment, size); }

KDZK_WEAK int posix_memalign(void** data, size_t alignment, size_t size) noexcept {
  *data = memalign(alignment, size);
  return *data == nullptr ? ENOMEM : 0;
}

KDZK_WEAK void free(void* data) noexcept {
  if (piece_of(data) == nullptr) __libc_free(data);
}
}

#endif

// SPDX-License-Identifier: Apache-2.0
// Three ways to give kernels memory, which share their books: a piece is described by a Piece, and the pieces in use
// hang in two lists, decompressed copies and scratch. The ways differ in where a piece comes from.
//
//   malloc, arena    Piece | data | padding
//   guarded          canaries ... | data | padding and rest to the alignment, canaries too | page that faults
//
// The Piece of a guarded one is kept elsewhere, so that it outlives what it describes.

#include <kdzk/host/memory.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

struct alignas(16) kdzk_host_piece {  // so that data behind one are aligned
  kdzk_host_piece* next;
  kdzk_host_piece** link;  // what points to this
  uint8_t* data;
  uint64_t size;   // as asked for
  uint64_t taken;  // from the memory's count of bytes, until it is given back
  const char* comment;
  void** slot;   // where a copy is cached, null if that is the host's
  uint8_t* map;  // guarded: the mapping, and its bytes before the page that faults
  uint64_t map_size;
};

namespace {

using Piece = kdzk_host_piece;

constexpr uint64_t unit = 16;  // what sizes are rounded up to, and the alignment of copies

constexpr uint64_t in_whole(uint64_t bytes, uint64_t units) { return (bytes + units - 1) / units * units; }

static_assert(alignof(Piece) == unit);

Piece* piece_before(void* data) { return reinterpret_cast<Piece*>(static_cast<uint8_t*>(data) - sizeof(Piece)); }

void link_first(Piece*& first, Piece* piece) {
  piece->next = first;
  piece->link = &first;
  if (first != nullptr) first->link = &piece->next;
  first = piece;
}

void unlink(Piece* piece) {
  *piece->link = piece->next;
  if (piece->next != nullptr) piece->next->link = piece->link;
}

__attribute__((format(printf, 2, 3))) void report(kdzk_host_memory& memory, const char* format, ...) {
  char sentence[256];
  va_list values;
  va_start(values, format);
  std::vsnprintf(sentence, sizeof sentence, format, values);
  va_end(values);
  memory.faults++;
  if (memory.report != nullptr) {
    memory.report(&memory, sentence);
  } else {
    std::fprintf(stderr, "kdzk: %s\n", sentence);
  }
}

[[noreturn]] void give_up(kdzk_host_memory& memory, uint64_t size, const char* comment) {
  if (memory.out_of_memory != nullptr) memory.out_of_memory(&memory, size, comment);
  std::fprintf(stderr, "kdzk: no memory for %s (%llu bytes)\n", comment, static_cast<unsigned long long>(size));
  std::abort();
}

// What a memory does in its own way.
struct Kind {
  // A piece with `data`, `taken` and what is the kind's own; the caller fills in the rest. Null if there is no memory.
  Piece* (*take)(kdzk_host_memory& memory, uint64_t size, uint64_t padding, uint64_t alignment, bool scratch);
  // The piece in use that the library gave back, or the host; null if there is none.
  Piece* (*find)(kdzk_host_memory& memory, void* data, bool scratch);
  // Ends a piece, which is in no list any more.
  void (*give)(kdzk_host_memory& memory, Piece* piece, bool scratch);
  bool guarded;
};

const Kind& kind_of(const kdzk_host_memory& memory) { return *static_cast<const Kind*>(memory.kind); }

Piece* new_piece(kdzk_host_memory& memory, uint64_t size, uint64_t padding, uint64_t alignment, const char* comment,
                 bool scratch) {
  Piece* const piece = kind_of(memory).take(memory, size, padding, std::max<uint64_t>(alignment, 1), scratch);
  if (piece == nullptr) give_up(memory, size, comment);
  piece->size = size;
  piece->comment = comment;
  piece->slot = nullptr;
  link_first(scratch ? memory.first_scratch : memory.first_copy, piece);
  (scratch ? memory.scratch : memory.copies)++;
  memory.bytes += piece->taken;
  memory.high_water = std::max(memory.high_water, memory.bytes);
  return piece;
}

void end_piece(kdzk_host_memory& memory, Piece* piece, bool scratch) {
  unlink(piece);
  if (piece->slot != nullptr && *piece->slot == piece->data) *piece->slot = nullptr;
  (scratch ? memory.scratch : memory.copies)--;
  memory.bytes -= piece->taken;
  kind_of(memory).give(memory, piece, scratch);
}

void end_all(kdzk_host_memory& memory, bool scratch, bool as_fault) {
  Piece* const& first = scratch ? memory.first_scratch : memory.first_copy;
  while (first != nullptr) {
    Piece* const piece = first;
    if (as_fault) {
      report(memory, "\"%s\" (%llu bytes) was never given back", piece->comment,
             static_cast<unsigned long long>(piece->size));
    }
    end_piece(memory, piece, scratch);
  }
}

// ---- The callbacks. ----

void* env_alloc(void* hctx, void*, uint32_t size, const char* comment, uint32_t, uint32_t alignment, uint64_t tag) {
  auto& memory = *static_cast<kdzk_host_memory*>(hctx);
  Piece* const piece = new_piece(memory, size, KDZK_PADDING, alignment, comment, false);
  piece->slot = reinterpret_cast<void**>(static_cast<uintptr_t>(tag));
  return piece->data;
}

void* env_tmp_alloc(void* hctx, uint64_t size, const char* comment, uint32_t element, uint32_t, void** out) {
  auto& memory = *static_cast<kdzk_host_memory*>(hctx);
  Piece* const piece = new_piece(memory, size, 0, element, comment, true);
  *out = piece;  // which tmp_free is to bring back
  return piece->data;
}

void env_tmp_free(void* hctx, void* scratch, void* out) {
  auto& memory = *static_cast<kdzk_host_memory*>(hctx);
  Piece* const piece = kind_of(memory).find(memory, scratch, true);
  if (piece == nullptr) return;
  if (kind_of(memory).guarded && out != piece) {
    report(memory, "\"%s\" was given back with another `out` than tmp_alloc left", piece->comment);
  }
  end_piece(memory, piece, true);
}

// ---- malloc ----

Piece* take_from_malloc(kdzk_host_memory&, uint64_t size, uint64_t padding, uint64_t alignment, bool) {
  const uint64_t bytes = in_whole(size + padding, unit);
  if (alignment > unit || bytes < size) return nullptr;
  auto* const piece = static_cast<Piece*>(std::aligned_alloc(unit, sizeof(Piece) + bytes));
  if (piece == nullptr) return nullptr;
  piece->data = reinterpret_cast<uint8_t*>(piece + 1);
  piece->taken = bytes;
  return piece;
}

Piece* find_before(kdzk_host_memory&, void* data, bool) { return piece_before(data); }

void give_to_malloc(kdzk_host_memory&, Piece* piece, bool) { std::free(piece); }

// ---- arena: copies from `low` on upwards, scratch from `high` on downwards. `bytes` is what lies outside, so that a
// piece that goes leaves a gap that still counts. ----

Piece* take_from_arena(kdzk_host_memory& memory, uint64_t size, uint64_t padding, uint64_t alignment, bool scratch) {
  const uint64_t bytes = sizeof(Piece) + in_whole(size + padding, unit);
  if (alignment > unit || bytes < size || bytes > memory.high - memory.low) return nullptr;
  uint8_t* const at = memory.room + (scratch ? memory.high - bytes : memory.low);
  (scratch ? memory.high : memory.low) += scratch ? -bytes : bytes;
  auto* const piece = reinterpret_cast<Piece*>(at);
  piece->data = at + sizeof(Piece);
  piece->taken = bytes;
  return piece;
}

void give_to_arena(kdzk_host_memory& memory, Piece* piece, bool scratch) {
  const auto first = static_cast<uint64_t>(reinterpret_cast<uint8_t*>(piece) - memory.room);
  if (scratch) {
    if (memory.first_scratch == nullptr) {
      memory.high = memory.size;
    } else if (first == memory.high) {
      memory.high += piece->taken;
    }
  } else if (memory.first_copy == nullptr) {
    memory.low = 0;
  } else if (first + piece->taken == memory.low) {
    memory.low = first;
  }
  memory.bytes = memory.low + (memory.size - memory.high);
}

// ---- guarded ----

constexpr uint8_t canary = 0xc7, garbage = 0xa5;
constexpr uint64_t least_front = 64, remembered = 1024;

Piece* take_guarded(kdzk_host_memory&, uint64_t size, uint64_t padding, uint64_t alignment, bool) {
  const auto page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
  const uint64_t room = in_whole(size + padding, alignment), inside = in_whole(least_front + room, page);
  if (alignment > page || inside < size) return nullptr;
  auto* const piece = static_cast<Piece*>(std::malloc(sizeof(Piece)));
  void* const map = mmap(nullptr, inside + page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  const bool mapped = map != MAP_FAILED;
  if (piece == nullptr || !mapped || mprotect(map, inside, PROT_READ | PROT_WRITE) != 0) {
    if (mapped) munmap(map, inside + page);
    std::free(piece);
    return nullptr;
  }
  piece->map = static_cast<uint8_t*>(map);
  piece->map_size = inside;
  piece->data = piece->map + inside - room;
  piece->taken = room;
  std::memset(map, canary, inside);
  std::memset(piece->data, garbage, size);
  return piece;
}

Piece* find_guarded(kdzk_host_memory& memory, void* data, bool scratch) {
  const auto in = [data](Piece* piece) {
    while (piece != nullptr && piece->data != data) piece = piece->next;
    return piece;
  };
  Piece* const piece = in(scratch ? memory.first_scratch : memory.first_copy);
  if (piece != nullptr) return piece;
  if (const Piece* const freed = in(memory.first_freed); freed != nullptr) {
    report(memory, "\"%s\" (%llu bytes) was given back twice", freed->comment,
           static_cast<unsigned long long>(freed->size));
  } else {
    report(memory, "%p was given back, but is no %s of this memory", data, scratch ? "scratch" : "copy");
  }
  return nullptr;
}

void check_canaries(kdzk_host_memory& memory, const Piece* piece) {
  const auto size = static_cast<unsigned long long>(piece->size);
  const uint8_t* const end = piece->data + piece->size;
  for (const uint8_t* at = piece->data; at-- > piece->map;) {
    if (*at == canary) continue;
    report(memory, "byte %lld before \"%s\" (%llu bytes) was written", static_cast<long long>(piece->data - at),
           piece->comment, size);
    break;
  }
  for (const uint8_t* at = end; at < piece->map + piece->map_size; at++) {
    if (*at == canary) continue;
    report(memory, "byte %lld behind \"%s\" (%llu bytes) was written", static_cast<long long>(at - end), piece->comment,
           size);
    break;
  }
}

void forget(kdzk_host_memory& memory, Piece* piece) {
  unlink(piece);
  munmap(piece->map, piece->map_size + static_cast<uint64_t>(sysconf(_SC_PAGESIZE)));
  std::free(piece);
  memory.freed--;
}

void give_guarded(kdzk_host_memory& memory, Piece* piece, bool) {
  check_canaries(memory, piece);
  mprotect(piece->map, piece->map_size, PROT_NONE);
  link_first(memory.first_freed, piece);
  if (++memory.freed <= remembered) return;
  auto* oldest = piece;
  while (oldest->next != nullptr) oldest = oldest->next;
  forget(memory, oldest);
}

constexpr Kind from_malloc = {take_from_malloc, find_before, give_to_malloc, false};
constexpr Kind from_arena = {take_from_arena, find_before, give_to_arena, false};
constexpr Kind from_guarded = {take_guarded, find_guarded, give_guarded, true};

void make(kdzk_host_memory* memory, const kdzk_specialized_ctx* ctx, const Kind& kind) {
  *memory = {};
  memory->env = {memory,        nullptr,      env_alloc,
                 env_tmp_alloc, env_tmp_free, ctx == nullptr ? nullptr : ctx->sqzb_decode_x86};
  memory->kind = &kind;
}

}  // namespace

uint64_t kdzk_host_padded(uint64_t bytes) {
  const uint64_t padded = bytes + KDZK_PADDING;
  return padded < bytes || padded > UINT64_MAX - unit ? UINT64_MAX : in_whole(padded, unit);
}

uint64_t kdzk_host_padded_rows(uint64_t nrows, uint32_t bits) {
  uint64_t all_bits;
  if (!__builtin_mul_overflow(nrows, bits, &all_bits)) return kdzk_host_padded(all_bits / 8 + (all_bits % 8 != 0));
  // nrows / 8 groups of 8 rows, each of `bits` bytes, and a rest below one.
  uint64_t bytes;
  if (__builtin_mul_overflow(nrows / 8, bits, &bytes)) return UINT64_MAX;
  const uint64_t rest = (nrows % 8 * bits + 7) / 8;
  return bytes + rest < bytes ? UINT64_MAX : kdzk_host_padded(bytes + rest);
}

uint64_t kdzk_host_bitvec_words(uint64_t nrows) { return nrows / 64 + (nrows % 64 != 0); }
uint64_t kdzk_host_bitvec_bytes(uint64_t nrows) { return 8 * kdzk_host_bitvec_words(nrows); }

void kdzk_host_memory_malloc(kdzk_host_memory* memory, const kdzk_specialized_ctx* ctx) {
  make(memory, ctx, from_malloc);
}

void kdzk_host_memory_arena(kdzk_host_memory* memory, const kdzk_specialized_ctx* ctx, void* room, uint64_t size) {
  make(memory, ctx, from_arena);
  const uint64_t skipped = std::min<uint64_t>(-reinterpret_cast<uintptr_t>(room) % unit, size);
  memory->room = static_cast<uint8_t*>(room) + skipped;
  memory->size = memory->high = (size - skipped) / unit * unit;
}

void kdzk_host_memory_guarded(kdzk_host_memory* memory, const kdzk_specialized_ctx* ctx) {
  make(memory, ctx, from_guarded);
}

void kdzk_host_memory_release(kdzk_host_memory* memory, void** decomp_slot) {
  if (*decomp_slot == nullptr) return;
  if (Piece* const piece = kind_of(*memory).find(*memory, *decomp_slot, false)) end_piece(*memory, piece, false);
  *decomp_slot = nullptr;
}

void kdzk_host_memory_reset(kdzk_host_memory* memory) {
  end_all(*memory, true, kind_of(*memory).guarded);
  end_all(*memory, false, false);
}

uint64_t kdzk_host_memory_close(kdzk_host_memory* memory) {
  end_all(*memory, true, kind_of(*memory).guarded);
  end_all(*memory, false, kind_of(*memory).guarded);
  while (memory->first_freed != nullptr) forget(*memory, memory->first_freed);
  return memory->faults;
}

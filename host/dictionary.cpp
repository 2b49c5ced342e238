// SPDX-License-Identifier: Apache-2.0
// Dictionaries: a hash table finds the distinct values, a sort numbers them, and the same hash table then gives codes.
//
// The bytes of a dictionary, n being its size:
//
//   0      1          2      4          8           16                   16 + 4 (n + 1)
//   type   NULL: 1    zero   n, 4 BE    checksum    n + 1 offsets, BE    symbols
//
// The checksum is native, and of the first 8 bytes and those from 16 on. What keeps numbers and texts apart in the hash
// table: a number's tag is its key, so equal tags are equal values; a text's tag is a hash, and texts are compared.
// Slots are looked at in groups of rows, all of whose places are fetched before the first is: a dictionary of millions
// of values costs a cache miss a row otherwise, one after the other.

#include <kdzk/host/dictionary.h>

#include <algorithm>
#include <new>

#include "host/array.h"
#include "host/keys.h"

namespace kdzk_host {
namespace {

constexpr uint64_t header_bytes = 16;
constexpr uint32_t most_codes = ~0u - 1;

constexpr uint32_t kernel_width(uint64_t codes) {
  uint32_t width = 1;
  while ((codes > uint64_t{1} << width) || kdzk_row_of_width(width) == KDZK_NO_ROW_OF_WIDTH) width++;
  return width;
}
static_assert(kernel_width(0) == 1 && kernel_width(2) == 1 && kernel_width(3) == 2 && kernel_width(1 << 20) == 20 &&
              kernel_width((1 << 20) + 1) == 24 && kernel_width((1 << 24) + 1) == 32);

uint64_t checksum_of(const uint8_t* bytes, uint64_t size) {
  Checksum sum;
  sum.add(bytes, 8);
  sum.add(bytes + header_bytes, size - header_bytes);
  return sum.value();
}

kdzk_host_dictionary view_of(const uint8_t* bytes, uint64_t size) {
  const uint32_t codes = be32(bytes + 4);
  const uint8_t* const offsets = bytes + header_bytes;
  return {bytes, size, offsets, offsets + 4 * (uint64_t{codes} + 1), bytes[0], codes, bytes[1], kernel_width(codes)};
}

uint64_t mixed(uint64_t word) {
  word *= 0x9e3779b97f4a7c15;
  return word ^ word >> 32;
}

uint64_t tag_of(const kdzk_host_text& text) {
  const uint8_t* at = static_cast<const uint8_t*>(text.bytes);
  uint64_t hash = text.size, left = text.size;
  for (; left > 8; left -= 8, at += 8) hash = mixed(hash ^ load<uint64_t>(at));
  return mixed(hash ^ top_of(at, left));
}

}  // namespace
}  // namespace kdzk_host

struct kdzk_host_coder {
  using Text = kdzk_host_text;
  template <class T>
  using Array = kdzk_host::Array<T>;

  // `id` is 0 in a free slot; while values are added, the entry's number from 1; when finished, the code and 1.
  struct Slot {
    uint64_t tag;
    uint32_t id;
  };

  explicit kdzk_host_coder(uint32_t of_type) : type(of_type) {}

  uint64_t place(uint64_t tag) const { return kdzk_host::mixed(tag ^ tag >> 32) & mask; }

  bool grow(uint64_t slot_count) {
    Array<Slot> old;
    old.swap(slots);
    if (!slots.assign(slot_count, Slot{0, 0})) return false;
    mask = slot_count - 1;
    for (const Slot& slot : old) {
      if (slot.id != 0) slots[free_place(slot.tag)] = slot;
    }
    return true;
  }
  bool make_room(uint64_t for_entries) {
    uint64_t slot_count = std::max<uint64_t>(slots.size(), 256);
    while (slot_count < 2 * for_entries) slot_count *= 2;
    return slot_count == slots.size() || grow(slot_count);
  }
  uint64_t free_place(uint64_t tag) const {
    uint64_t at = place(tag);
    while (slots[at].id != 0) at = (at + 1) & mask;
    return at;
  }

  Text entry_text(uint32_t id) const {
    if (finished) return kdzk_host::symbol(dictionary, id - 1);
    return {arena.begin() + starts[id - 1], starts[id] - starts[id - 1]};
  }

  // The slot of a row's value, or the free one where it would be.
  template <uint32_t row_type>
  uint64_t find(const kdzk_host::Rows<row_type>& rows, uint64_t row, uint64_t tag) const {
    uint64_t at = place(tag);
    for (; slots[at].id != 0; at = (at + 1) & mask) {
      if (slots[at].tag != tag) continue;
      if constexpr (row_type != KDZK_HOST_TEXT) break;
      if constexpr (row_type == KDZK_HOST_TEXT) {
        const Text entry = entry_text(slots[at].id), &text = rows.values[row];
        if (entry.size == text.size && (text.size == 0 || std::memcmp(entry.bytes, text.bytes, text.size) == 0)) break;
      }
    }
    return at;
  }

  // Calls function(row, null, tag) for every row; the slots of several rows are fetched before the first is asked for.
  // Stops when it returns false.
  template <uint32_t row_type, class Function>
  bool each(const kdzk_host_values& batch, const kdzk_host::Rows<row_type>& rows, const Function& function) const {
    constexpr uint32_t group = 16;
    for (uint64_t first = 0; first < batch.nrows; first += group) {
      const uint64_t here = std::min<uint64_t>(group, batch.nrows - first);
      uint64_t tags[group];
      bool null[group];
      for (uint64_t i = 0; i < here; i++) {
        null[i] = kdzk_host::is_null_row(batch, rows, first + i);
        tags[i] = 0;
        if (null[i]) continue;
        if constexpr (row_type == KDZK_HOST_TEXT) tags[i] = kdzk_host::tag_of(rows.values[first + i]);
        if constexpr (row_type != KDZK_HOST_TEXT) tags[i] = rows.key(first + i);
        __builtin_prefetch(&slots[place(tags[i])]);
      }
      for (uint64_t i = 0; i < here; i++) {
        if (!function(first + i, null[i], tags[i])) return false;
      }
    }
    return true;
  }

  // A new entry; false if there is no memory.
  template <uint32_t row_type>
  bool push(const kdzk_host::Rows<row_type>& rows, uint64_t row, uint64_t tag) {
    if constexpr (row_type != KDZK_HOST_TEXT) return keys.push(tag);
    if constexpr (row_type == KDZK_HOST_TEXT) {
      const Text& text = rows.values[row];
      if (starts.size() == 0 && !starts.push(0)) return false;
      const uint64_t used = arena.size(), end = used + text.size;
      if (end > arena.capacity() && !arena.reserve(std::max<uint64_t>(end, 2 * arena.capacity()))) return false;
      arena.extend(end);
      if (text.size > 0) std::memcpy(arena.begin() + used, text.bytes, text.size);
      return starts.push(end);
    }
  }

  uint32_t add(const kdzk_host_values& batch) {
    uint32_t status = KDZK_HOST_DONE;
    if (!make_room(entries + 1)) return KDZK_HOST_NO_MEMORY;
    kdzk_host::with_rows(batch, [&](const auto& rows) {
      each(batch, rows, [&](uint64_t row, bool null, uint64_t tag) {
        if (null) {
          seen_null = true;
          return true;
        }
        uint64_t at = find(rows, row, tag);
        if (slots[at].id != 0) return true;
        status = entries == kdzk_host::most_codes - 1 ? KDZK_HOST_TOO_MANY : KDZK_HOST_NO_MEMORY;
        if (status == KDZK_HOST_TOO_MANY || !push(rows, row, tag)) return false;
        entries++;
        slots[at] = {tag, entries};
        if (!make_room(uint64_t{entries} + 1)) return false;
        status = KDZK_HOST_DONE;
        return true;
      });
    });
    return status;
  }

  uint32_t finish(bool with_null);
  bool index(const kdzk_host_dictionary& of);

  uint32_t type;
  bool seen_null = false, finished = false;
  uint32_t entries = 0;
  uint64_t mask = 0;
  Array<Slot> slots;
  Array<uint64_t> keys;    // numbers: by entry
  Array<uint64_t> starts;  // texts: where entries begin in the arena, and where the last ends
  Array<uint8_t> arena;
  Array<uint8_t> bytes;  // of the dictionary
  kdzk_host_dictionary dictionary{};
};

uint32_t kdzk_host_coder::finish(bool with_null) {
  struct Entry {
    uint64_t key;  // of a text: its first bytes
    uint32_t id;
  };
  const bool texts = type == KDZK_HOST_TEXT;
  const uint64_t symbol_bytes = texts ? arena.size() : 8 * uint64_t{entries};
  if (symbol_bytes > UINT32_MAX) return KDZK_HOST_TOO_MANY;
  const uint32_t first_code = with_null || seen_null, size = entries + first_code;
  const uint64_t symbols_at = kdzk_host::header_bytes + 4 * (uint64_t{size} + 1);
  Array<Entry> sorted;
  Array<uint32_t> code_of;
  if (!make_room(1) || !sorted.reserve(entries) || !code_of.assign(entries + uint64_t{1}, 0) ||
      !bytes.assign(symbols_at + symbol_bytes + KDZK_PADDING, 0))
    return KDZK_HOST_NO_MEMORY;
  for (uint32_t id = 1; id <= entries; id++) {
    const Text text = texts ? entry_text(id) : Text{};
    sorted.push({texts ? kdzk_host::top_of(text.bytes, text.size) : keys[id - 1], id});
  }
  std::sort(sorted.begin(), sorted.end(), [&](const Entry& a, const Entry& b) {
    if (a.key != b.key || !texts) return a.key < b.key;
    return kdzk_host::compare(entry_text(a.id), entry_text(b.id)) < 0;
  });

  bytes[0] = static_cast<uint8_t>(type);
  bytes[1] = static_cast<uint8_t>(first_code);
  kdzk_host::put_be32(&bytes[4], size);
  uint8_t* offset = &bytes[kdzk_host::header_bytes + 4 * uint64_t{first_code}];  // NULL has no bytes: both are 0
  uint64_t at = 0;
  for (uint32_t rank = 0; rank < entries; rank++) {
    const Entry& entry = sorted[rank];
    code_of[entry.id] = first_code + rank;
    if (texts) {
      const Text text = entry_text(entry.id);
      if (text.size > 0) std::memcpy(&bytes[symbols_at + at], text.bytes, text.size);
      at += text.size;
    } else {
      kdzk_host::put_be64(&bytes[symbols_at + at], entry.key);
      at += 8;
    }
    kdzk_host::put_be32(offset += 4, static_cast<uint32_t>(at));
  }
  const uint64_t sum = kdzk_host::checksum_of(bytes.begin(), symbols_at + symbol_bytes);
  std::memcpy(&bytes[8], &sum, 8);
  dictionary = kdzk_host::view_of(bytes.begin(), symbols_at + symbol_bytes);
  for (Slot& slot : slots) {
    if (slot.id != 0) slot.id = code_of[slot.id] + 1;
  }
  finished = true;
  Array<uint64_t>().swap(keys);
  Array<uint64_t>().swap(starts);
  Array<uint8_t>().swap(arena);
  return KDZK_HOST_DONE;
}

bool kdzk_host_coder::index(const kdzk_host_dictionary& of) {
  dictionary = of;
  finished = true;
  if (!make_room(uint64_t{of.size} + 1)) return false;
  for (uint32_t code = of.first_code; code < of.size; code++) {
    const uint64_t tag =
        type == KDZK_HOST_TEXT ? kdzk_host::tag_of(kdzk_host::symbol(of, code)) : kdzk_host::key_at(of, code);
    slots[free_place(tag)] = {tag, code + 1};
  }
  return true;
}

kdzk_host_coder* kdzk_host_coder_new(uint32_t type) {
  void* const memory = std::malloc(sizeof(kdzk_host_coder));
  return memory == nullptr ? nullptr : new (memory) kdzk_host_coder(type);
}

void kdzk_host_coder_free(kdzk_host_coder* coder) {
  if (coder == nullptr) return;
  coder->~kdzk_host_coder();
  std::free(coder);
}

kdzk_host_coder* kdzk_host_coder_of(const kdzk_host_dictionary* dictionary) {
  kdzk_host_coder* const coder = kdzk_host_coder_new(dictionary->type);
  if (coder == nullptr || coder->index(*dictionary)) return coder;
  kdzk_host_coder_free(coder);
  return nullptr;
}

uint32_t kdzk_host_coder_add(kdzk_host_coder* coder, const kdzk_host_values* values) { return coder->add(*values); }

uint32_t kdzk_host_coder_finish(kdzk_host_coder* coder, uint32_t null_code) {
  return coder->finish(null_code == KDZK_HOST_NULL_ALWAYS);
}

const kdzk_host_dictionary* kdzk_host_coder_dictionary(const kdzk_host_coder* coder) { return &coder->dictionary; }

uint32_t kdzk_host_coder_codes(const kdzk_host_coder* coder, const kdzk_host_values* values, uint32_t* codes,
                               uint32_t* row) {
  const bool with_null = coder->dictionary.first_code > 0;
  uint64_t at = 0;
  const bool all = kdzk_host::with_rows(*values, [&](const auto& rows) {
    return coder->each(*values, rows, [&](uint64_t r, bool null, uint64_t tag) {
      at = r;
      const uint32_t id = null ? with_null : coder->slots[coder->find(rows, r, tag)].id;
      codes[r] = id - 1;
      return id != 0;
    });
  });
  if (all) return KDZK_HOST_DONE;
  if (row != nullptr) *row = static_cast<uint32_t>(at);
  return KDZK_HOST_NO_CODE;
}

uint32_t kdzk_host_dictionary_open(const void* bytes, uint64_t size, kdzk_host_dictionary* dictionary,
                                   kdzk_host_report* report) {
  using namespace kdzk_host;
  const uint8_t* const at = static_cast<const uint8_t*>(bytes);
  if (size < header_bytes + 4) return malformed(report, "shorter than an empty dictionary", size);
  if (at[0] < KDZK_HOST_INTEGER || at[0] > KDZK_HOST_TEXT) return malformed(report, "unknown type of values", 0);
  if (at[1] > 1) return malformed(report, "neither with NULL nor without", 1);
  if (at[2] != 0 || at[3] != 0) return malformed(report, "a byte is set that must be zero", at[2] != 0 ? 2 : 3);
  const uint32_t codes = be32(at + 4);
  if (codes < at[1] || codes > most_codes) return malformed(report, "an impossible number of codes", 4);
  const uint64_t symbols_at = header_bytes + 4 * (uint64_t{codes} + 1);
  if (size < symbols_at) return malformed(report, "ends in the offsets of the symbols", size);
  kdzk_host_report offsets;
  if (kdzk_host_check_offsets(at + header_bytes, symbols_at - header_bytes, codes, size - symbols_at, &offsets) !=
      KDZK_HOST_DONE)
    return malformed(report, offsets.reason, header_bytes + offsets.offset);
  const kdzk_host_dictionary view = view_of(at, size);
  if (be32(view.offsets + 4 * uint64_t{codes}) != size - symbols_at)
    return malformed(report, "bytes behind the last symbol", symbols_at + be32(view.offsets + 4 * uint64_t{codes}));
  for (uint32_t code = 0; code < codes; code++) {
    const kdzk_host_text text = symbol(view, code);
    const uint64_t offset = header_bytes + 4 * uint64_t{code};
    if (code < view.first_code) {
      if (text.size != 0) return malformed(report, "NULL has bytes", offset);
      continue;
    }
    if (view.type != KDZK_HOST_TEXT && text.size != 8) return malformed(report, "a number isn't 8 bytes", offset);
    if (view.type == KDZK_HOST_DOUBLE) {
      const double number = double_of(be64(text.bytes));
      if (number != number || key_of(number) != be64(text.bytes))
        return malformed(report, "a NaN or -0", static_cast<uint64_t>(static_cast<const uint8_t*>(text.bytes) - at));
    }
    if (code > view.first_code && compare(symbol(view, code - 1), text) >= 0)
      return malformed(report, "values don't ascend",
                       static_cast<uint64_t>(static_cast<const uint8_t*>(text.bytes) - at));
  }
  if (load<uint64_t>(at + 8) != checksum_of(at, size)) return malformed(report, "wrong checksum", 8);
  *dictionary = view;
  return fine(report);
}

void kdzk_host_dictionary_value(const kdzk_host_dictionary* dictionary, uint32_t code, kdzk_host_value* value) {
  *value = {};
  if (code < dictionary->first_code) return;
  value->type = dictionary->type;
  if (value->type == KDZK_HOST_TEXT) value->text = kdzk_host::symbol(*dictionary, code);
  if (value->type == KDZK_HOST_INTEGER) value->integer = kdzk_host::integer_of(kdzk_host::key_at(*dictionary, code));
  if (value->type == KDZK_HOST_DOUBLE) value->number = kdzk_host::double_of(kdzk_host::key_at(*dictionary, code));
}

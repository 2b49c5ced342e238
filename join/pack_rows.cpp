// SPDX-License-Identifier: Apache-2.0
// Row packing: from the pairs of a pair matrix to the bytes of the values, back to back in a page of a row store, with
// a directory that says where each row or each value went.
//
//   layout           bytes of a row (a, b, c)     directory, per row or per value
//   whole rows       1.a 3.bbb 2.cc               offsets: its end, 4 bytes     pairs: its length and address, 16 bytes
//   single values    a bbb cc                     the same
//
// Rows go in turns of about 64 values. First their sizes are added up. If they fit, which they do in every turn but the
// last one, values are copied without looking at the room again, short ones by one vector each (copy_value). In the
// turn that doesn't fit, every value asks for its room; the first one without ends the call, and the cursors stay as
// they were at the beginning of its row.
//
// Invariants. The running offset and a row's size are as wide as they are stored: 32 bits, 16 bits. The length of a
// whole row in a directory of pairs doesn't count the lengths before its values, that in a directory of offsets does.
// What the row without room has written up to there stays in memory behind the cursors.

#include "frame/services.h"
#include "join/rowstore.h"

namespace kdzk {
namespace {

// ---- Directories: `begin` tells where an item's bytes begin, `finish` how many there are ----

struct OffsetDirectory {
  static constexpr uint32_t flag = KDZK_STORE_OFFSETS;
  static constexpr uint32_t counted_prefix = 2;  // of a row's values, each
  static uint8_t** cursors(const kdzk_rowstore* target) { return target->offset_cursors; }

  uint8_t* cursor;
  uint32_t offset = 0;

  // A table begins with an offset of 0, ahead of row 0.
  OffsetDirectory(uint8_t* at, uint32_t first_row) : cursor(at) {
    if (first_row == 0) finish(0);
  }
  void go_on() { offset = load<uint32_t>(cursor - 4); }
  void begin(const uint8_t*) {}
  void finish(uint32_t bytes) {
    offset += bytes;
    store(cursor, offset);
    cursor += 4;
  }
};

struct PairDirectory {
  static constexpr uint32_t flag = KDZK_STORE_PAIRS;
  static constexpr uint32_t counted_prefix = 0;
  static uint8_t** cursors(const kdzk_rowstore* target) { return target->pair_cursors; }

  uint8_t* cursor;

  PairDirectory(uint8_t* at, uint32_t) : cursor(at) {}
  void go_on() {}
  void begin(const uint8_t* data) { store(cursor + 8, data); }
  void finish(uint32_t bytes) {
    store(cursor, static_cast<uint16_t>(bytes));
    cursor += 16;
  }
};

// ---- Rows ----

template <class Directory>
struct Position {
  uint8_t* data;
  Directory directory;
};

enum class Room { known, asked };

// One row from its pairs. Returns false at the first value without room. `end` is the first byte behind the page, or
// with Room::known behind the rows that are sure to be written.
template <bool whole_rows, Room room, class Directory>
inline bool pack_row(Position<Directory>& at, const uint8_t* pairs, uint32_t ncols, const uint8_t* end) {
  constexpr uint32_t prefix = whole_rows ? 2 : 0;
  uint16_t row_bytes = 0;
  if constexpr (whole_rows) at.directory.begin(at.data);
  for (uint32_t column = 0; column < ncols; column++) {
    const Value value = Pair16(pairs).value(column, 0);
    if (room == Room::asked && static_cast<uint64_t>(end - at.data) < value.length + prefix) return false;
    if constexpr (whole_rows) {
      store(at.data, static_cast<uint16_t>(value.length));
      row_bytes = static_cast<uint16_t>(row_bytes + value.length + Directory::counted_prefix);
    } else {
      at.directory.begin(at.data);
      at.directory.finish(value.length);
    }
    copy_value(at.data + prefix, value, room == Room::known ? end : at.data);
    at.data += prefix + value.length;
  }
  if constexpr (whole_rows) at.directory.finish(row_bytes);
  return true;
}

constexpr uint32_t values_per_turn = 64;

// Rows `row` to `end_row` - 1. Returns the row at which it stopped.
template <bool whole_rows, class Directory>
uint64_t pack(Position<Directory>& at, const uint8_t* pairs, uint32_t ncols, uint64_t row, uint64_t end_row,
              const uint8_t* limit) {
  const uint32_t rows_per_turn = ncols == 0 ? values_per_turn : ncols < values_per_turn ? values_per_turn / ncols : 1;
  const uint64_t stride = uint64_t{ncols} * 16;
  Position<Directory> here = at;  // a copy, so that no store makes the loops read it again
  pairs += row * stride;
  while (row < end_row) {
    const uint64_t turn = end_row - row < rows_per_turn ? end_row - row : rows_per_turn;
    uint64_t need = turn * ncols * (whole_rows ? 2 : 0);
    for (uint64_t i = 0; i < turn * ncols; i++) need += load<uint16_t>(pairs + i * 16);
    if (static_cast<uint64_t>(limit - here.data) >= need) {
      const uint8_t* const end = here.data + need;
      for (uint64_t i = 0; i < turn; i++, pairs += stride) pack_row<whole_rows, Room::known>(here, pairs, ncols, end);
      row += turn;
    } else {
      Position<Directory> next = here;
      while (pack_row<whole_rows, Room::asked>(next, pairs, ncols, limit)) {
        here = next;
        pairs += stride;
        row++;
      }
      break;
    }
  }
  at = here;
  return row;
}

template <bool whole_rows, class Directory>
[[gnu::noinline]] uint64_t pack_rows(const kdzk_rowstore* target, const kdzk_rowstore* source, int32_t target_page,
                                     int32_t source_page, uint32_t first_row, int32_t last_row, kdzk_exec* exec) {
  uint8_t*& data = target->data_cursors[target_page];
  uint8_t*& directory = Directory::cursors(target)[target_page];
  Position<Directory> at = {data, Directory(directory, first_row)};
  const int64_t end_row = int64_t{last_row} + 1;
  uint64_t row = first_row;
  if (first_row < end_row) {
    if (first_row > 0) at.directory.go_on();
    row = pack<whole_rows>(at, source->pairs[source_page], source->ncols, first_row, static_cast<uint64_t>(end_row),
                           target->data_limits[target_page]);
  }
  data = at.data;
  directory = at.directory.cursor;
  exec->row = static_cast<uint32_t>(row);
  return static_cast<int64_t>(row) < end_row ? KDZK_PAGE_FULL : KDZK_DONE;
}

}  // namespace

uint64_t kdzk_pack_rows(const kdzk_rowstore* target, const kdzk_rowstore* source, int32_t target_page,
                        int32_t source_page, uint32_t first_row, int32_t last_row, kdzk_exec* exec) {
  if (target == nullptr) return KDZK_UNSUPPORTED;
  return first_form<OffsetDirectory, PairDirectory>(target->flags, [&]<class Directory>() {
    const bool whole_rows = (target->flags & KDZK_STORE_ROWS) != 0 && (source->flags & KDZK_STORE_ROWS) == 0;
    const auto leaf = whole_rows ? pack_rows<true, Directory> : pack_rows<false, Directory>;
    return leaf(target, source, target_page, source_page, first_row, last_row, exec);
  });
}

}  // namespace kdzk

// SPDX-License-Identifier: Apache-2.0
// Hash partitioning: the rows of a vector, scattered to a buffer per partition by a bit field of each row's hash.
//
// A batch's hashes are there before its first row is placed (join/keys.h). Placing a row takes the partition's cursor,
// compares the room up to the partition's limit with what the record needs, writes the record and moves the cursor:
//
//   hash      ........ppppppppp.......        bits part_hi to part_lo
//   cursors   [p] ──► |....records|<record>......|
//   limits    [p] ────────────────────────────────┘
//
// Records, in native byte order and without alignment (n bytes of payload):
//
//   A   row id 8 | hash 8                     hashed keys, stored hashes, or records A of an earlier pass
//   B   hash 8 | key 4 | 4 not written | row id 8     native 32-bit keys
//   C   n + 8, 2 | hash 8 | payload n         any keys, any payloads, or records C of an earlier pass
//   D   hash 8 | payload n                    any keys, payloads of one size
//
// A leaf is the template `partition` over what its records are (Records) and where its hashes come from (join/keys.h).
// Only records C of an earlier pass need a loop of their own, since they hold their hashes end to end with the rest.
//
// Invariants. A row is placed as a whole or not at all: all of a row's loads of `cursors` and `limits` come before its
// first store. A store never reaches behind its record. Short payloads are joined with the end of the hash in one word
// that ends where the record does. Loads end where the value does, or within the padding of the forms that have one.

#include "frame/services.h"
#include "join/keys.h"

namespace kdzk {
namespace {

// The partitions of several rows are computed before the first of them is placed, and the line behind the one that a
// record goes to is fetched. As multiples of a bare scatter loop's speed, over 8 million stored hashes in 256
// partitions 1.56 with the fetch and 1.22 without, over 64 thousand 0.92 and 1.04 (a busy AMD EPYC, g++ 12, one run
// each).
constexpr uint32_t rows_at_once = 4;
constexpr uint32_t bytes_ahead = 64;

constexpr bool has_all(uint32_t flags, uint32_t wanted) { return (flags & wanted) == wanted; }

// The buffers, and the rule that chooses one.
struct Partitions {
  uint8_t** cursors;
  uint8_t* const* limits;
  uint64_t mask;
  uint32_t shift;

  explicit Partitions(const kdzk_partdesc* desc)
      : cursors(desc->cursors),
        limits(desc->limits),
        mask((uint64_t{2} << desc->part_hi) - 1),  // at bit 63, 0 - 1
        shift(desc->part_lo) {}

  uint64_t of(uint64_t hash) const { return (hash & mask) >> shift; }

  // Takes room for a record of partition p: where it goes, in `to`. False if there is too little.
  bool take(uint64_t p, uint64_t bytes, uint8_t*& to) const {
    to = cursors[p];
    if (reinterpret_cast<uint64_t>(limits[p]) - reinterpret_cast<uint64_t>(to) < bytes) return false;
    cursors[p] = to + bytes;
    __builtin_prefetch(to + bytes_ahead, 1);
    return true;
  }
};

// ---- Records ----
//
// What a row becomes. A layout offers:
//   Row                   what a record needs of its row, besides the hash
//   begin_batch(row)      from here on rows count from this one
//   row(i)                that of row i; rows come in ascending order
//   bytes(row)            the size of its record
//   put(to, hash, row)    writes it, which finishes the row
//   stop(exec)            keeps the position of the first row not finished

struct ImplicitIds {
  uint64_t first;
  explicit ImplicitIds(const kdzk_vec* rows) : first(rows->rowbase) {}
  uint64_t id(uint64_t row) const { return first + row; }
};

// One every `stride` bytes.
template <uint32_t stride>
struct StoredIds {
  const uint8_t* ids;
  explicit StoredIds(const kdzk_vec* rows) : ids(bytes_of(rows)) {}
  uint64_t id(uint64_t row) const { return load<uint64_t>(ids + row * stride); }
};

template <class Ids>
struct RecordsA {
  using Row = uint64_t;  // its id
  Ids ids;
  uint64_t first = 0;

  RecordsA(const kdzk_partdesc*, const kdzk_vec*, const kdzk_vec* rows, const kdzk_exec*) : ids(rows) {}
  void begin_batch(uint32_t row) { first = row; }
  Row row(uint32_t i) const { return ids.id(first + i); }
  static constexpr uint64_t bytes(Row) { return 16; }
  static void put(uint8_t* to, uint64_t hash, Row id) {
    store(to, id);
    store(to + 8, hash);
  }
  void stop(kdzk_exec*) const {}
};

template <class Ids>
struct RecordsB {
  struct Row {
    uint64_t id;
    uint32_t key;
  };
  U32Keys keys;
  Ids ids;
  uint64_t first = 0;

  RecordsB(const kdzk_partdesc*, const kdzk_vec* key_column, const kdzk_vec* rows, const kdzk_exec*)
      : keys(key_column), ids(rows) {}
  void begin_batch(uint32_t row) { first = row; }
  Row row(uint32_t i) const { return {ids.id(first + i), keys.key(first + i)}; }
  static constexpr uint64_t bytes(const Row&) { return 24; }
  static void put(uint8_t* to, uint64_t hash, const Row& row) {
    store(to, hash);
    store(to + 8, row.key);
    store(to + 16, row.id);
  }
  void stop(kdzk_exec*) const {}
};

// Copies exactly n bytes.
inline void copy(uint8_t* to, const uint8_t* from, uint64_t n) {
  if (n < 8 || n > 32) {
    std::memcpy(to, from, n);
  } else if (n <= 16) {
    const auto first = load<uint64_t>(from), last = load<uint64_t>(from + n - 8);  // they overlap
    store(to, first);
    store(to + n - 8, last);
  } else {
    using Half = std::array<uint64_t, 2>;
    const auto first = load<Half>(from), last = load<Half>(from + n - 16);
    store(to, first);
    store(to + n - 16, last);
  }
}

// n bytes of payload, below 8, the first one lowest; what is above them has no meaning if `padded`.
template <bool padded>
inline uint64_t short_payload(const uint8_t* from, uint64_t n) {
  if (padded) return load<uint64_t>(from);
  if (n >= 4) return load<uint32_t>(from) | uint64_t{load<uint32_t>(from + n - 4)} << (8 * n - 32);
  if (n == 0) return 0;
  return from[0] | uint64_t{from[n / 2]} << n / 2 * 8 | uint64_t{from[n - 1]} << (8 * n - 8);
}

// The hash and n bytes of payload behind it. A payload shorter than a word is stored together with the end of the hash.
template <bool padded>
inline void put_payload(uint8_t* to, uint64_t hash, const uint8_t* from, uint64_t n) {
  store(to, hash);
  if (n < 8) {
    store(to + n, hash >> 8 * n | short_payload<padded>(from, n) << 1 << (63 - 8 * n));
  } else {
    copy(to + 8, from, n);
  }
}

// Whether a column's padding allows for a load of 8 bytes from the beginning of any of its values.
template <class Payload>
inline constexpr bool has_padding = true;
template <>
inline constexpr bool has_padding<PtrLen> = false;
template <>
inline constexpr bool has_padding<Pair16> = false;

template <class Payload>
struct RecordsC {
  using Row = Value;  // its payload
  Payload column, batch;
  uint64_t start, byte = 0;  // if streamed: where the batch begins, and the next row, relative to that

  RecordsC(const kdzk_partdesc*, const kdzk_vec*, const kdzk_vec* rows, const kdzk_exec* exec)
      : column(rows), batch(column), start(exec->payload_off) {}
  void begin_batch(uint32_t row) {
    start += byte;
    byte = 0;
    batch = column.from(row, start);
  }
  Row row(uint32_t i) const { return batch.value(i, byte); }
  static uint64_t bytes(const Row& payload) { return 10 + uint64_t{payload.length}; }
  void put(uint8_t* to, uint64_t hash, const Row& payload) {
    store(to, static_cast<uint16_t>(payload.length + 8));
    put_payload<has_padding<Payload>>(to + 2, hash, payload.at, payload.length);
    if constexpr (Payload::streamed) byte = Payload::end(byte, payload);
  }
  void stop(kdzk_exec* exec) const {
    if constexpr (Payload::streamed) exec->payload_off = start + byte;
  }
};

struct RecordsD {
  using Row = const uint8_t*;  // its payload
  FixedBytes column, batch;
  uint32_t payload_bytes;

  RecordsD(const kdzk_partdesc* desc, const kdzk_vec*, const kdzk_vec* rows, const kdzk_exec*)
      : column(rows), batch(column), payload_bytes(desc->payload_size) {}
  void begin_batch(uint32_t row) { batch = column.from(row, 0); }
  Row row(uint32_t i) const { return batch.value(i, 0).at; }
  uint64_t bytes(Row) const { return 8 + uint64_t{payload_bytes}; }
  void put(uint8_t* to, uint64_t hash, Row payload) const { put_payload<true>(to, hash, payload, payload_bytes); }
  void stop(kdzk_exec*) const {}
};

// ---- The loop ----

// Places rows of a batch from the first one on, and returns how many of the n have found room.
template <class Records, class Hashes>
inline uint32_t place_rows(const Partitions& partitions, Records& records, const Hashes hashes, uint32_t n) {
  const auto place = [&](uint64_t p, uint32_t i) {
    const auto row = records.row(i);
    uint8_t* to;
    if (!partitions.take(p, records.bytes(row), to)) return false;
    records.put(to, hashes[i], row);
    return true;
  };
  uint32_t i = 0;
  for (; n - i >= rows_at_once; i += rows_at_once) {
    uint64_t p[rows_at_once];
    for (uint32_t k = 0; k < rows_at_once; k++) p[k] = partitions.of(hashes[i + k]);
#pragma GCC unroll 4
    for (uint32_t k = 0; k < rows_at_once; k++) {
      if (!place(p[k], i + k)) return i + k;
    }
  }
  for (; i < n; i++) {
    if (!place(partitions.of(hashes[i]), i)) return i;
  }
  return n;
}

template <class Records, class Hashes>
[[gnu::noinline]] uint32_t scatter(const Partitions partitions, Records& of_call, const Hashes hashes, uint32_t n) {
  Records records = of_call;  // its own copy, which no store to a buffer can touch: it stays in registers
  const uint32_t placed = place_rows(partitions, records, hashes, n);
  of_call = records;
  return placed;
}

uint64_t finish(const kdzk_vec* keys, kdzk_exec* exec) {
  exec->row = keys->nrows;
  return KDZK_DONE;
}

template <class Records, class Keys>
uint64_t partition(const kdzk_partdesc* desc, const kdzk_vec* keys, const kdzk_vec* rows, kdzk_hash_fn hash,
                   kdzk_exec* exec) {
  const Partitions partitions(desc);
  const uint32_t nrows = keys->nrows;
  uint32_t row = exec->row;
  if (row >= nrows) return finish(keys, exec);
  HashBatches<Keys> batches(keys, hash, exec);
  Records records(desc, keys, rows, exec);
  while (row < nrows) {
    const uint32_t n = nrows - row < batch_rows ? nrows - row : batch_rows;
    const auto hashes = batches.hashes_of(row, n);
    records.begin_batch(row);
    const uint32_t placed = scatter(partitions, records, hashes, n);
    if (placed < n) {
      exec->part = static_cast<uint32_t>(partitions.of(hashes[placed]));
      exec->row = row + placed;
      batches.stop_at(placed, exec);
      records.stop(exec);
      return KDZK_PARTITION_FULL;
    }
    batches.finish_batch(n);
    row += n;
  }
  batches.stop_behind(exec);
  records.stop(exec);
  return finish(keys, exec);
}

// Records C of an earlier pass, each copied as a whole.
uint64_t partition_again(const kdzk_partdesc* desc, const kdzk_vec* keys, kdzk_exec* exec) {
  const Partitions partitions(desc);
  const uint8_t* at = bytes_of(keys) + exec->key_off;
  const auto stop = [&] { exec->key_off = static_cast<uint64_t>(at - bytes_of(keys)); };
  for (uint32_t row = exec->row; row < keys->nrows; row++) {
    const uint32_t length = load<uint16_t>(at);
    const auto hash = load<uint64_t>(at + 2);
    const uint64_t p = partitions.of(hash), bytes = uint64_t{length} + 2;
    uint8_t* to;
    if (!partitions.take(p, bytes, to)) {
      exec->part = static_cast<uint32_t>(p);
      exec->row = row;
      stop();
      return KDZK_PARTITION_FULL;
    }
    copy(to, at, bytes);
    at += bytes;
  }
  stop();
  return finish(keys, exec);
}

}  // namespace

uint64_t kdzk_partition_rows(const kdzk_partdesc* desc, const kdzk_vec* keys, const kdzk_vec* rows, kdzk_hash_fn hash,
                             kdzk_exec* exec) {
  const uint32_t layout = desc->flags, key_flags = keys->enc_ctx->flags;
  const auto row_flags = [&] { return rows->enc_ctx->flags; };
  const auto by = [&]<class Records, class Keys>() { return partition<Records, Keys>(desc, keys, rows, hash, exec); };
  if (has_all(layout, KDZK_PART_B)) {
    if ((key_flags & KDZK_HASH_U32) == 0) return KDZK_UNSUPPORTED;
    return (row_flags() & KDZK_IMPLICIT_IDS) != 0 ? by.template operator()<RecordsB<ImplicitIds>, U32Keys>()
                                                  : by.template operator()<RecordsB<StoredIds<8>>, U32Keys>();
  }
  if (has_all(layout, KDZK_PART_A)) {
    return first_form<FixedBytes, LenArray, LenPrefixed, PtrLen, Pair16, Keyed16, HashColumn>(
        key_flags, [&]<class Keys>() {
          if constexpr (std::is_same_v<Keys, Keyed16>) {
            return partition<RecordsA<StoredIds<16>>, Keyed16>(desc, keys, keys, hash, exec);
          } else {
            return (row_flags() & KDZK_IMPLICIT_IDS) != 0 ? by.template operator()<RecordsA<ImplicitIds>, Keys>()
                                                          : by.template operator()<RecordsA<StoredIds<8>>, Keys>();
          }
        });
  }
  if (has_all(layout, KDZK_PART_C)) {
    if (has_all(key_flags, KDZK_LEN_PREFIXED | KDZK_NUMERIC)) return partition_again(desc, keys, exec);
    if ((layout & KDZK_PART_NO_PAYLOAD) != 0) return KDZK_UNSUPPORTED;
    return first_form<FixedBytes, LenArray, LenPrefixed, PtrLen, Pair16, HashColumn>(key_flags, [&]<class Keys>() {
      return first_form<FixedBytes, LenArray, LenPrefixed, PtrLen, Pair16>(
          row_flags(), [&]<class Payload>() { return by.template operator()<RecordsC<Payload>, Keys>(); });
    });
  }
  if (has_all(layout, KDZK_PART_D)) {
    if ((layout & KDZK_PART_NO_PAYLOAD) != 0 || (row_flags() & KDZK_FIXED_BYTES) == 0) return KDZK_UNSUPPORTED;
    return first_form<FixedBytes, LenArray, LenPrefixed, PtrLen, Pair16, HashColumn>(
        key_flags, [&]<class Keys>() { return by.template operator()<RecordsD, Keys>(); });
  }
  return KDZK_UNSUPPORTED;
}

}  // namespace kdzk

// SPDX-License-Identifier: Apache-2.0
// The values of a column, wherever its form keeps them, and their hashes a batch at a time.
//
// A form tells where the value of a row lies. In most, the row number tells it. In the two whose values lie end to end
// it takes the lengths of all rows before, so a walk carries the byte at which the row begins:
//
//   FixedBytes    data  vvvvvv vvvvvv vvvvvv            byte row * size
//   LenArray      data  vvv vvvvvv v   lengths 3 6 1    streamed: byte = sum of the lengths before
//   LenPrefixed   data  3.vvv 6.vvvvvv 1.v              streamed: byte = sum of the lengths before, and of the prefixes
//   PtrLen        data  p p p          lengths 3 6 1    values anywhere
//   Pair16        data  3.......p 6.......p             values anywhere
//   U32Keys       data  vvvv vvvv vvvv                  native numbers
//   HashColumn    data  hhhhhhhh hhhhhhhh               no values but their hashes
//   Keyed16       data  iiiiiiiihhhhhhhh                records of row id and hash
//   Keyed24       data  hhhhhhhhvvvv....iiiiiiii        records of hash, native key and row id
//
// A batch is of up to 1024 rows. All its hashes are computed first, in one loop around the host's callback, together
// with the byte at which each row of a streamed column begins; then they are consumed. Whoever stops amid a batch
// throws the other hashes away: the next call's batch begins at the row where it stopped.
//
// A form is a small value over a column, which may be moved to begin at a later row:
//   flag             its bit of kdzk_enc_ctx.flags
//   streamed         whether values lie end to end
//   from(row, byte)  the form over the rows from `row`, which begins at `byte` if streamed; a byte otherwise not used
//   value(i, byte)   the value of row i, which begins at `byte` if streamed
//   end(byte, value) if streamed: where the row behind this one begins
#ifndef JOIN_KEYS_H
#define JOIN_KEYS_H

#include <kdzk/records.h>

#include <array>

#include "frame/memory.h"

namespace kdzk {

struct Value {
  const uint8_t* at;
  uint32_t length;
};

inline const uint8_t* bytes_of(const kdzk_vec* column) { return static_cast<const uint8_t*>(column->data); }
inline const uint8_t* lengths_of(const kdzk_vec* column) { return static_cast<const uint8_t*>(column->lengths); }

struct FixedBytes {
  static constexpr uint32_t flag = KDZK_FIXED_BYTES;
  static constexpr bool streamed = false;

  const uint8_t* data;
  uint32_t size;

  FixedBytes(const uint8_t* bytes, uint32_t bytes_per_value) : data(bytes), size(bytes_per_value) {}
  explicit FixedBytes(const kdzk_vec* column) : FixedBytes(bytes_of(column), column->enc_ctx->width / 8u) {}
  FixedBytes from(uint32_t row, uint64_t) const { return {data + row * size, size}; }  // modulo 2^32: up to 4 GiB
  Value value(uint64_t i, uint64_t) const { return {data + i * size, size}; }
};

struct LenArray {
  static constexpr uint32_t flag = KDZK_LEN_ARRAY;
  static constexpr bool streamed = true;

  const uint8_t *data, *lengths;

  LenArray(const uint8_t* bytes, const uint8_t* value_lengths) : data(bytes), lengths(value_lengths) {}
  explicit LenArray(const kdzk_vec* column) : LenArray(bytes_of(column), lengths_of(column)) {}
  LenArray from(uint32_t row, uint64_t byte) const { return {data + byte, lengths + uint64_t{row} * 2}; }
  Value value(uint64_t i, uint64_t byte) const { return {data + byte, load<uint16_t>(lengths + i * 2)}; }
  static uint64_t end(uint64_t byte, const Value& value) { return byte + value.length; }
};

struct LenPrefixed {
  static constexpr uint32_t flag = KDZK_LEN_PREFIXED;
  static constexpr bool streamed = true;

  const uint8_t* data;

  explicit LenPrefixed(const uint8_t* bytes) : data(bytes) {}
  explicit LenPrefixed(const kdzk_vec* column) : LenPrefixed(bytes_of(column)) {}
  LenPrefixed from(uint32_t, uint64_t byte) const { return LenPrefixed(data + byte); }
  Value value(uint64_t, uint64_t byte) const { return {data + byte + 2, load<uint16_t>(data + byte)}; }
  static uint64_t end(uint64_t byte, const Value& value) { return byte + 2 + value.length; }
};

struct PtrLen {
  static constexpr uint32_t flag = KDZK_PTR_LEN;
  static constexpr bool streamed = false;

  const uint8_t *pointers, *lengths;

  PtrLen(const uint8_t* addresses, const uint8_t* value_lengths) : pointers(addresses), lengths(value_lengths) {}
  explicit PtrLen(const kdzk_vec* column) : PtrLen(bytes_of(column), lengths_of(column)) {}
  PtrLen from(uint32_t row, uint64_t) const { return {pointers + uint64_t{row} * 8, lengths + uint64_t{row} * 2}; }
  Value value(uint64_t i, uint64_t) const {
    return {load<const uint8_t*>(pointers + i * 8), load<uint16_t>(lengths + i * 2)};
  }
};

struct Pair16 {
  static constexpr uint32_t flag = KDZK_PAIR16;
  static constexpr bool streamed = false;

  const uint8_t* pairs;

  explicit Pair16(const uint8_t* first) : pairs(first) {}
  explicit Pair16(const kdzk_vec* column) : Pair16(bytes_of(column)) {}
  Pair16 from(uint32_t row, uint64_t) const { return Pair16(pairs + uint64_t{row} * 16); }
  Value value(uint64_t i, uint64_t) const {
    return {load<const uint8_t*>(pairs + i * 16 + 8), load<uint16_t>(pairs + i * 16)};
  }
};

struct U32Keys {
  static constexpr uint32_t flag = KDZK_HASH_U32;
  static constexpr bool streamed = false;

  const uint8_t* data;

  explicit U32Keys(const uint8_t* keys) : data(keys) {}
  explicit U32Keys(const kdzk_vec* column) : U32Keys(bytes_of(column)) {}
  U32Keys from(uint32_t row, uint64_t) const { return U32Keys(data + uint64_t{row} * 4); }
  Value value(uint64_t i, uint64_t) const { return {data + i * 4, 4}; }
  uint32_t key(uint64_t i) const { return load<uint32_t>(data + i * 4); }
};

// Forms whose rows hold their hashes, one every `stride` bytes from byte `first`.
template <uint32_t form_flag, uint32_t stride_bytes, uint32_t first_byte>
struct StoredHashes {
  static constexpr uint32_t flag = form_flag;
  static constexpr uint32_t stride = stride_bytes, first = first_byte;
};

using HashColumn = StoredHashes<KDZK_NUMERIC, 8, 0>;
using Keyed16 = StoredHashes<KDZK_KEYED16, 16, 8>;
using Keyed24 = StoredHashes<KDZK_KEYED24, 24, 0>;

// ---- The choice of a form ----

// What `leaf.operator()<Form>()` returns for the first form of the list whose flag is set, or KDZK_UNSUPPORTED.
template <class... Forms, class Leaf>
inline uint64_t first_form(uint32_t flags, const Leaf& leaf) {
  uint64_t result = KDZK_UNSUPPORTED;
  const auto takes = [&]<class Form>() {
    if ((flags & Form::flag) == 0) return false;
    result = leaf.template operator()<Form>();
    return true;
  };
  (void)(takes.template operator()<Forms>() || ...);
  return result;
}

// ---- Batches ----

inline constexpr uint32_t batch_rows = 1024;

// Hashes the first n values of `keys`. In a streamed form also writes n + 1 offsets: that of row i, relative to the
// first, is the i-th, and the last one is the number of bytes that the rows take.
template <class Form>
[[gnu::noinline]] inline void hash_values(Form keys, uint32_t n, kdzk_hash_fn hash, uint64_t* hashes,
                                          uint64_t* offsets) {
  uint64_t byte = 0;
  if constexpr (Form::streamed) offsets[0] = 0;
  for (uint32_t i = 0; i < n; i++) {
    const Value key = keys.value(i, byte);
    hashes[i] = hash(key.at, key.length, 0);
    if constexpr (Form::streamed) offsets[i + 1] = byte = Form::end(byte, key);
  }
}

// The hashes of a batch.
template <uint32_t stride>
struct Hashes {
  const uint8_t* first;
  uint64_t operator[](uint64_t i) const { return load<uint64_t>(first + i * stride); }
};

// A key column's hashes, batch by batch from the row at which a call begins. Large: the arrays are in it.
template <class Form>
class HashBatches {
 public:
  HashBatches(const kdzk_vec* keys, kdzk_hash_fn hash, const kdzk_exec* exec)
      : keys_(keys), hash_(hash), byte_(exec->key_off) {}

  // The hashes of rows `row` to `row` + n - 1, valid until the next batch.
  Hashes<8> hashes_of(uint32_t row, uint32_t n) {
    hash_values(keys_.from(row, byte_), n, hash_, hashes_.data(), offsets_.data());
    return {reinterpret_cast<const uint8_t*>(hashes_.data())};
  }

  // Goes on behind the n rows of the last batch.
  void finish_batch(uint32_t n) {
    if constexpr (Form::streamed) byte_ += offsets_[n];
  }

  // Keeps the position of the row at which the next call goes on: row i of the last batch, or the row behind those
  // finished.
  void stop_at(uint32_t i, kdzk_exec* exec) const {
    if constexpr (Form::streamed) exec->key_off = byte_ + offsets_[i];
  }
  void stop_behind(kdzk_exec* exec) const {
    if constexpr (Form::streamed) exec->key_off = byte_;
  }

 private:
  Form keys_;
  kdzk_hash_fn hash_;
  uint64_t byte_;  // in a streamed form, where the batch begins
  std::array<uint64_t, batch_rows> hashes_;
  std::array<uint64_t, Form::streamed ? batch_rows + 1 : 0> offsets_;
};

// Stored hashes are read where they lie.
template <uint32_t flag, uint32_t stride, uint32_t first>
class HashBatches<StoredHashes<flag, stride, first>> {
 public:
  HashBatches(const kdzk_vec* keys, kdzk_hash_fn, const kdzk_exec*) : data_(bytes_of(keys) + first) {}
  Hashes<stride> hashes_of(uint32_t row, uint32_t) const { return {data_ + uint64_t{row} * stride}; }
  void finish_batch(uint32_t) const {}
  void stop_at(uint32_t, kdzk_exec*) const {}
  void stop_behind(kdzk_exec*) const {}

 private:
  const uint8_t* data_;
};

}  // namespace kdzk

#endif

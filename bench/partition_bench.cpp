// SPDX-License-Identifier: Apache-2.0
// Hash partitioning into 256 partitions, and row hashing. Data of partition_rows are named for layout, form of keys and
// source of ids or payloads, and the number of rows. Bytes per second count the records.
//
// Peers: `bare_scatter` writes the same bytes by a plain loop that never looks for room, from an array of hashes that
// is there before; with `hashing` it fills that array first, by a loop that calls the same hash function by a pointer,
// as the library must. For hash_rows, `bare_loop` is such a loop.

#include <cstring>
#include <memory>
#include <random>

#include "bench/bench.h"
#include "bench/peers/partition_loops.h"

namespace kdzk_bench {
namespace {

constexpr uint32_t partitions = 256;
constexpr uint8_t part_hi = 47, part_lo = 40;

// Two multiplications and shifts, for keys of up to 8 bytes; long ones are folded.
uint64_t short_hash(const void* key, uint32_t length, uint64_t seed) {
  uint64_t hash = seed ^ length * 0x9e3779b97f4a7c15, word;
  const auto* at = static_cast<const uint8_t*>(key);
  for (; length >= 8; length -= 8, at += 8) {
    std::memcpy(&word, at, 8);
    hash = (hash ^ word) * 0xd6e8feb86659fd93;
    hash ^= hash >> 32;
  }
  word = 0;
  std::memcpy(&word, at, length);
  hash = (hash ^ word) * 0xd6e8feb86659fd93;
  hash = (hash ^ hash >> 32) * 0xd6e8feb86659fd93;
  return hash ^ hash >> 32;
}

volatile kdzk_hash_fn called_hash = short_hash;  // no compiler sees through it

enum class From { hashes, u32_keys, fixed_8_keys };

struct Data {
  std::vector<uint64_t> keys, hashes;
  std::vector<uint32_t> keys32;
  std::vector<uint16_t> lengths;
  std::vector<uint8_t> payloads, out;
  std::vector<uint8_t*> starts, cursors, limits;
  kdzk_partdesc desc{};
  kdzk_enc_ctx key_enc{}, row_enc{};
  kdzk_vec key_vec{}, row_vec{};
  Scatter scatter{};
  uint32_t rows, payload_size;
  uint8_t layout;
  From from;

  // Payloads of payload_size bytes in D, of any length up to twice that in C.
  Data(uint8_t layout_flags, From keys_from, uint32_t nrows, uint32_t size)
      : rows(nrows), payload_size(size), layout(layout_flags), from(keys_from) {
    std::mt19937_64 random(1);
    std::vector<uint64_t> bytes(partitions);
    for (uint32_t row = 0; row < rows; row++) {
      keys.push_back(random());
      keys32.push_back(static_cast<uint32_t>(keys[row]));
      hashes.push_back(hash_of(row));
      lengths.push_back(static_cast<uint16_t>(random() % (2 * size + 1)));
      const uint64_t of_row = layout == KDZK_PART_C ? lengths[row] : size;
      for (uint64_t i = 0; i < of_row; i++) payloads.push_back(static_cast<uint8_t>(random()));
      bytes[hashes[row] >> part_lo & (partitions - 1)] += layout == KDZK_PART_A   ? 16
                                                          : layout == KDZK_PART_B ? 24
                                                          : layout == KDZK_PART_C ? of_row + 10
                                                                                  : size + 8;
    }
    payloads.resize(payloads.size() + KDZK_PADDING);
    uint64_t total = 0;
    for (const uint64_t b : bytes) total += b;
    out.resize(total);
    uint8_t* at = out.data();
    for (const uint64_t b : bytes) {
      starts.push_back(at);
      limits.push_back(at += b);
    }
    cursors = starts;
    desc.flags = layout;
    desc.part_hi = part_hi;
    desc.part_lo = part_lo;
    desc.payload_size = static_cast<uint16_t>(size);
    desc.cursors = cursors.data();
    desc.limits = limits.data();
    scatter = {cursors.data(), (uint64_t{2} << part_hi) - 1, part_lo};
    key_enc.flags = from == From::hashes ? KDZK_NUMERIC : from == From::u32_keys ? KDZK_HASH_U32 : KDZK_FIXED_BYTES;
    key_enc.width = 64;
    key_vec.data = from == From::u32_keys ? static_cast<void*>(keys32.data()) : keys.data();
    if (from == From::hashes) key_vec.data = hashes.data();
    key_vec.enc_ctx = &key_enc;
    key_vec.nrows = rows;
    row_enc.flags = layout == KDZK_PART_C   ? KDZK_LEN_ARRAY
                    : layout == KDZK_PART_D ? KDZK_FIXED_BYTES
                                            : KDZK_IMPLICIT_IDS;
    row_enc.width = static_cast<uint8_t>(size * 8);
    row_vec.enc_ctx = &row_enc;
    row_vec.data = payloads.data();
    row_vec.lengths = lengths.data();
  }

  uint64_t hash_of(uint32_t row) const {
    return from == From::u32_keys ? called_hash(&keys32[row], 4, 0) : called_hash(&keys[row], 8, 0);
  }

  void by_kdzk() {
    cursors = starts;
    kdzk_exec exec{};
    library().partition_rows(&desc, &key_vec, &row_vec, called_hash, &exec);
  }

  void by_loop(bool hashing) {
    cursors = starts;
    if (hashing) {
      for (uint32_t row = 0; row < rows; row++) hashes[row] = hash_of(row);
    }
    if (layout == KDZK_PART_A) scatter_ids(scatter, hashes.data(), rows);
    if (layout == KDZK_PART_B) scatter_keys(scatter, hashes.data(), keys32.data(), rows);
    if (layout == KDZK_PART_C) scatter_strings(scatter, hashes.data(), lengths.data(), payloads.data(), rows);
    if (layout == KDZK_PART_D) scatter_payloads(scatter, hashes.data(), payloads.data(), payload_size, rows);
  }

  Answer answer() const {
    Answer all{out.size(), std::vector<uint64_t>(out.size() / 8)};
    std::memcpy(all.bits.data(), out.data(), out.size() / 8 * 8);
    return all;
  }
};

void add_partition_group(const std::string& data, uint8_t layout, From from, uint32_t rows, uint32_t size) {
  const uint64_t record = layout == KDZK_PART_A ? 16 : layout == KDZK_PART_B ? 24 : size + 8;
  add_group("partition_rows", data + "/" + (rows == in_cache ? "64Ki" : "8Mi"), rows, rows * record, [=] {
    auto d = std::make_shared<Data>(layout, from, rows, size);
    const auto answer = [=] { return d->answer(); };
    std::vector<Peer> peers = {{"kdzk", [=] { d->by_kdzk(); }, answer},
                               {"bare_scatter", [=] { d->by_loop(false); }, answer}};
    if (from != From::hashes) peers.push_back({"hashing+bare_scatter", [=] { d->by_loop(true); }, answer});
    return peers;
  });
}

// One fixed key of 8 bytes a row, one seed.
void add_hash_rows(uint32_t rows) {
  add_group("hash_rows", std::string("fixed_8/") + (rows == in_cache ? "64Ki" : "8Mi"), rows, uint64_t{rows} * 8, [=] {
    auto d = std::make_shared<Data>(KDZK_PART_A, From::fixed_8_keys, rows, 0);
    auto seed = std::make_shared<uint64_t>(0);
    auto seed_enc = std::make_shared<kdzk_enc_ctx>();
    seed_enc->flags = KDZK_NUMERIC;
    const auto answer = [=] { return Answer{0, d->hashes}; };
    const auto run = [=] {
      kdzk_vec out{}, seeds{};
      out.data = d->hashes.data();
      seeds.data = seed.get();
      seeds.nrows = 1;
      seeds.enc_ctx = seed_enc.get();
      library().hash_rows(&out, &d->key_vec, &seeds, called_hash);
    };
    std::vector<Peer> peers = {{"kdzk", run, answer},
                               {"bare_loop",
                                [=] {
                                  for (uint32_t row = 0; row < rows; row++) d->hashes[row] = d->hash_of(row);
                                },
                                answer}};
    return peers;
  });
}

}  // namespace

void add_partition() {
  for (const uint32_t rows : {in_cache, in_memory / 8}) {
    add_partition_group("a_hashes_implicit", KDZK_PART_A, From::hashes, rows, 0);
    add_partition_group("a_fixed_8_implicit", KDZK_PART_A, From::fixed_8_keys, rows, 0);
    add_partition_group("b_u32_implicit", KDZK_PART_B, From::u32_keys, rows, 0);
    add_partition_group("c_hashes_len_array_to_8", KDZK_PART_C, From::hashes, rows, 4);
    add_partition_group("c_hashes_len_array_to_32", KDZK_PART_C, From::hashes, rows, 16);
    add_partition_group("d_hashes_fixed_8", KDZK_PART_D, From::hashes, rows, 8);
    add_partition_group("d_hashes_fixed_24", KDZK_PART_D, From::hashes, rows, 24);
    add_hash_rows(rows);
  }
}

}  // namespace kdzk_bench

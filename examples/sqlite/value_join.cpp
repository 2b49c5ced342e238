// SPDX-License-Identifier: Apache-2.0
#include "value_join.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>

namespace packed {
namespace {

constexpr uint32_t bucket_form = 8;  // 32-bit tags and payloads, 6 of each in a bucket of 64 bytes
constexpr uint32_t bucket_entries = 6;
constexpr uint8_t first_bucket_bit = 32;  // of a hash
constexpr uint32_t bloom_bits_per_key = 8;
constexpr uint32_t bloom_pays_from = 4;  // probed values per built one
constexpr uint32_t pairs_at_once = 1024;

uint64_t mixed(uint64_t a, uint64_t b) {
  const auto product = static_cast<unsigned __int128>(a ^ 0x2d358dccaa6c78a5) * (b ^ 0x8bb84b93962eacc9);
  return static_cast<uint64_t>(product) ^ static_cast<uint64_t>(product >> 64);
}

uint64_t hash_bytes(const void* key, uint32_t length, uint64_t seed) {
  const auto* bytes = static_cast<const uint8_t*>(key);
  uint64_t hash = mixed(seed, length);
  for (; length >= 8; length -= 8, bytes += 8) {
    uint64_t word;
    std::memcpy(&word, bytes, 8);
    hash = mixed(hash, word);
  }
  uint64_t word = 0;
  std::memcpy(&word, bytes, length);
  return mixed(mixed(hash, word), 0x9e3779b97f4a7c15);
}

// Equal numbers have equal keys, whichever type they are of.
uint64_t number_key(const Value& value) {
  if (value.type == Type::integer) return static_cast<uint64_t>(value.integer);
  if (value.real >= -0x1p63 && value.real < 0x1p63 && value.real == std::trunc(value.real))
    return static_cast<uint64_t>(static_cast<int64_t>(value.real));
  return std::bit_cast<uint64_t>(value.real);
}

// Values as a key column: pointers and lengths.
class Keys {
 public:
  // Of the codes with a flag in `wanted`; null: of all.
  Keys(const std::vector<Value>& values, const std::vector<bool>* wanted) {
    codes_.reserve(values.size());
    numbers_.reserve(values.size());
    for (uint32_t code = 0; code < values.size(); code++) {
      const Value& value = values[code];
      if (value.type == Type::null || (wanted != nullptr && !(*wanted)[code])) continue;
      codes_.push_back(code);
      if (value.is_number()) {
        numbers_.push_back(number_key(value));
        addresses_.push_back(reinterpret_cast<uintptr_t>(&numbers_.back()));
        lengths_.push_back(sizeof(uint64_t));
      } else {
        addresses_.push_back(reinterpret_cast<uintptr_t>(value.bytes.data()));
        lengths_.push_back(static_cast<uint16_t>(value.bytes.size()));  // of longer ones some bytes are hashed
      }
    }
    encoding_.flags = KDZK_PTR_LEN;
  }

  uint32_t size() const { return static_cast<uint32_t>(codes_.size()); }
  std::vector<uint32_t>& codes() { return codes_; }

  std::vector<uint64_t> hashes(const kdzk_specialized_ctx& library, Statistics& stats) {
    std::vector<uint64_t> hashes(codes_.size());
    kdzk_vec keys{};
    keys.data = addresses_.data();
    keys.lengths = lengths_.data();
    keys.enc_ctx = &encoding_;
    keys.nrows = size();
    uint64_t seed = 0;
    kdzk_enc_ctx seed_encoding{};
    seed_encoding.flags = KDZK_NUMERIC;
    kdzk_vec seeds{};
    seeds.data = &seed;
    seeds.enc_ctx = &seed_encoding;
    seeds.nrows = 1;
    kdzk_vec out{};
    out.data = hashes.data();
    const Timed timed(stats, "kdzk_hash_rows", size());
    library.hash_rows(&out, &keys, &seeds, hash_bytes);
    return hashes;
  }

 private:
  std::vector<uint32_t> codes_;
  std::vector<uint64_t> numbers_;
  std::vector<uint64_t> addresses_;
  std::vector<uint16_t> lengths_;
  kdzk_enc_ctx encoding_{};
};

kdzk_enc_ctx hash_encoding() {
  kdzk_enc_ctx encoding{};
  encoding.flags = KDZK_NUMERIC;
  encoding.width = 64;
  return encoding;
}

class HashTable {
 public:
  HashTable(const kdzk_specialized_ctx& library, Statistics& stats, std::vector<uint64_t>& hashes,
            std::vector<uint32_t>& payloads)
      : library_(library), stats_(stats) {
    const auto entries = static_cast<uint32_t>(hashes.size());
    const uint32_t bits = std::max(1u, static_cast<uint32_t>(std::bit_width(entries / 3)));
    buckets_.resize(size_t{1} << bits);
    overflow_.resize(entries / bucket_entries + 1);  // a chain's new bucket follows on a full one
    first_ = buckets_[0].bytes;
    next_overflow_ = overflow_.data()->bytes;
    overflow_end_ = (overflow_.data() + overflow_.size())->bytes;
    table_.flags = bucket_form;
    table_.bucket_hi = static_cast<uint8_t>(first_bucket_bit + bits - 1);
    table_.dir_hi = table_.dir_lo = table_.bucket_hi;  // a directory of one entry
    table_.tables = &first_;
    table_.cursors = &next_overflow_;
    table_.limits = &overflow_end_;

    kdzk_vec keys = vector_of(hashes);
    kdzk_vec rows{};
    rows.data = payloads.data();
    rows.enc_ctx = &row_encoding_;
    kdzk_exec exec{};
    const Timed timed(stats, "kdzk_ht_build", entries);
    if (library.ht_build(&table_, &keys, &rows, 0, hash_bytes, &exec) != KDZK_DONE)
      throw Error(SQLITE_ERROR, "the library didn't build the hash table");
  }

  // Calls `take` with the id of each probed row and the payload of each entry with its hash.
  template <class Take>
  void probe(std::vector<uint64_t>& hashes, std::vector<uint32_t>& ids, Take&& take) {
    struct Pair {
      uint64_t id;
      uint64_t payload;
    };
    std::vector<Pair> pairs(std::max<size_t>(pairs_at_once, overflow_.size() * bucket_entries + bucket_entries));
    kdzk_vec keys = vector_of(hashes);
    kdzk_vec rows{};
    rows.data = ids.data();
    rows.enc_ctx = &row_encoding_;
    kdzk_exec exec{};
    for (uint64_t rc = KDZK_PAIRS_FULL; rc == KDZK_PAIRS_FULL;) {
      kdzk_vec out{};
      out.data = pairs.data();
      out.nrows = static_cast<uint32_t>(pairs.size());
      {
        const Timed timed(stats_, "kdzk_ht_probe", keys.nrows - exec.row);
        rc = library_.ht_probe(&out, &keys, &rows, &table_, hash_bytes, &exec);
      }
      for (uint32_t i = 0; i < out.nrows; i++) {
        take(static_cast<uint32_t>(pairs[i].id), static_cast<uint32_t>(pairs[i].payload));
      }
      if (rc != KDZK_DONE && rc != KDZK_PAIRS_FULL) throw Error(SQLITE_ERROR, "the library can't probe its hash table");
    }
  }

 private:
  struct alignas(64) Bucket {
    uint8_t bytes[64];
  };

  kdzk_vec vector_of(std::vector<uint64_t>& hashes) {
    kdzk_vec keys{};
    keys.data = hashes.data();
    keys.enc_ctx = &hash_encoding_;
    keys.nrows = static_cast<uint32_t>(hashes.size());
    return keys;
  }

  const kdzk_specialized_ctx& library_;
  Statistics& stats_;
  kdzk_enc_ctx hash_encoding_ = hash_encoding();
  kdzk_enc_ctx row_encoding_{};
  std::vector<Bucket> buckets_;
  std::vector<Bucket> overflow_;
  uint8_t* first_;
  uint8_t* next_overflow_;
  uint8_t* overflow_end_;
  kdzk_htdesc table_{};
};

// Leaves those hashes, and their codes, that may be among `built`.
void keep_possible(const kdzk_specialized_ctx& library, Statistics& stats, const std::vector<uint64_t>& built,
                   std::vector<uint64_t>& hashes, std::vector<uint32_t>& codes) {
  kdzk_enc_ctx shape{};
  kdzk_host_bloom_shape(&shape, kdzk_host_bloom_mask(built.size(), bloom_bits_per_key), 0);
  std::vector<uint64_t> bits(kdzk_host_bloom_bytes(&shape) / 8);
  kdzk_vec filter{};
  filter.enc_ctx = &shape;
  filter.bitvec = bits.data();
  kdzk_host_bloom_add_hashes(&filter, built.data(), built.size());

  kdzk_enc_ctx encoding = hash_encoding();
  kdzk_vec values{};
  values.data = hashes.data();
  values.enc_ctx = &encoding;
  values.nrows = static_cast<uint32_t>(hashes.size());
  std::vector<uint64_t> possible((hashes.size() + 63) / 64);
  kdzk_hit_range range{};
  kdzk_vec result{};
  result.data = &range;
  result.bitvec = possible.data();
  kdzk_exec exec{};
  {
    const Timed timed(stats, "kdzk_bloom_test", values.nrows);
    library.bloom_test(&result, &values, &filter, &exec);
  }
  size_t kept = 0;
  for (size_t i = 0; i < hashes.size(); i++) {
    if ((possible[i / 64] >> (i % 64) & 1) == 0) continue;
    hashes[kept] = hashes[i];
    codes[kept++] = codes[i];
  }
  hashes.resize(kept);
  codes.resize(kept);
}

}  // namespace

void join_values(Connection& connection, const std::vector<Value>& probe, const std::vector<Value>& build,
                 const std::vector<bool>& wanted, const std::function<void(uint32_t, uint32_t)>& take) {
  const kdzk_specialized_ctx& library = connection.library();
  Statistics& stats = connection.statistics();
  Keys build_keys(build, &wanted);
  Keys probe_keys(probe, nullptr);
  if (build_keys.size() == 0 || probe_keys.size() == 0) return;
  std::vector<uint64_t> built = build_keys.hashes(library, stats);
  std::vector<uint64_t> probed = probe_keys.hashes(library, stats);
  std::vector<uint32_t>& probe_numbers = probe_keys.codes();
  if (probed.size() >= bloom_pays_from * built.size()) keep_possible(library, stats, built, probed, probe_numbers);
  HashTable table(library, stats, built, build_keys.codes());
  table.probe(probed, probe_numbers, [&](uint32_t probe_number, uint32_t build_number) {
    const Value& a = probe[probe_number];
    const Value& b = build[build_number];
    if (a.type != Type::null && b.type != Type::null && compare(a, b) == 0) take(probe_number, build_number);
  });
}

}  // namespace packed

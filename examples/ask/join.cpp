// SPDX-License-Identifier: Apache-2.0
//
// Where a row of the other table goes, by the bits of its key's hash, is fixed when the number of its rows is known:
//
//   bits 0 to 31    the tag, which its bucket keeps beside the row's number
//   from bit 32 on  the bucket's number in the hash table of the partition, so many bits that four rows share a bucket
//   next            the partition, 16 of them; each has a hash table of its own, which a thread of its own could build
#include "join.h"

#include <algorithm>
#include <bit>
#include <deque>
#include <string>

#include "error.h"

namespace ask {
namespace {

constexpr uint32_t partition_bits = 4, partitions = 1u << partition_bits;
constexpr uint32_t first_bucket_bit = 32;   // of tables with tags and payloads of 32 bits
constexpr uint32_t table_form = 8;          // these
constexpr uint32_t buckets_at_a_time = 64;  // of overflow room

struct alignas(64) Bucket {
  uint8_t bytes[64];
};
struct Pair {  // as the probe writes it
  uint64_t row, other_row;
};

uint64_t hash_key(const void* key, uint32_t length, uint64_t seed) noexcept {
  return std::hash<std::string_view>()({static_cast<const char*>(key), length}) + seed;
}

void require_done(uint64_t code, const char* function) {
  if (code != KDZK_DONE) throw Error(std::string(function) + " returned " + std::to_string(code));
}

kdzk_vec vec_of(const void* data, size_t rows, const kdzk_enc_ctx* encoding) {
  kdzk_vec vec{};
  vec.data = const_cast<void*>(data);
  vec.nrows = static_cast<uint32_t>(rows);
  vec.enc_ctx = encoding;
  return vec;
}

constexpr kdzk_enc_ctx encoded(uint32_t flags) {
  kdzk_enc_ctx encoding{};
  encoding.flags = flags;
  encoding.width = 64;
  return encoding;
}
constexpr kdzk_enc_ctx hash_column = encoded(KDZK_NUMERIC), records = encoded(KDZK_KEYED16), row_numbers = encoded(0);

// The key column of one side. Values are equal if their dictionaries' symbols are, whatever their codes.
class Keys {
 public:
  Keys(const Engine& engine, const Column& column) : library_(engine.library()), store_(engine.store(column)) {
    if (!store_.is_coded() || store_.has_runs() || store_.is_blocked()) {
      throw Error("column " + column.name() + " is stored as " + store_.form() +
                  ", and the key of a join has to be stored as dict");
    }
  }

  void unpack() { codes_ = store_.codes(); }

  std::vector<uint64_t> hashes() const {
    std::vector<uint64_t> hashes(store_.column().rows());
    const uint64_t seed = 0;
    const kdzk_vec seeds = vec_of(&seed, 1, &hash_column);
    for (size_t i = 0; i < store_.vectors(); i++) {
      const kdzk_vec& keys = store_.vector(i).bound.input;
      const kdzk_vec out = vec_of(&hashes[i * vector_rows], keys.nrows, &hash_column);
      require_done(library_->hash_rows(&out, &keys, &seeds, hash_key), "hash_rows");
    }
    return hashes;
  }

  std::string_view symbol(size_t row) const {  // once the codes are unpacked
    const kdzk_host_dictionary& dictionary = store_.dictionary();
    const uint8_t* const offset = dictionary.offsets + 4 * size_t{codes_[row]};
    const uint32_t begin = big_endian(offset), end = big_endian(offset + 4);
    return {reinterpret_cast<const char*>(dictionary.symbols) + begin, end - begin};
  }

 private:
  static uint32_t big_endian(const uint8_t* bytes) {
    return uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 | uint32_t{bytes[2]} << 8 | bytes[3];
  }

  const Library& library_;
  const Store& store_;
  std::vector<uint32_t> codes_;
};

// The hashes and the numbers of selected rows.
template <class RowNumber>
struct Selected {
  std::vector<uint64_t> hashes;
  std::vector<RowNumber> rows;

  Selected(const Library& library, std::vector<uint64_t> all, const uint64_t* bits) : hashes(std::move(all)) {
    rows.resize(hashes.size());
    size_t count = 0;
    if (hashes.empty()) return;  // there is no word to begin a walk with
    if (bits == nullptr) {
      while (count < rows.size()) rows[count] = static_cast<RowNumber>(count), count++;
      return;
    }
    uint32_t batch[1024];
    kdzk_bv_iter iter;
    library->bv64.iter_init(&iter, bits, static_cast<uint32_t>(hashes.size()), 0, 0);
    while (const uint64_t found = library->bv64.next_set_batch(&iter, batch, 1024)) {
      for (uint64_t i = 0; i < found; i++, count++) {
        hashes[count] = hashes[batch[i]];
        rows[count] = batch[i];
      }
    }
    hashes.resize(count);
    rows.resize(count);
  }
};

// The other side's rows in hash tables, one to a partition.
class HashTables {
 public:
  HashTables(const Library& library, size_t rows) : library_(library) {
    const auto bucket_bits = std::max<uint32_t>(1, std::bit_width(rows / (partitions * 4)));
    desc_.flags = table_form;
    desc_.bucket_hi = static_cast<uint8_t>(first_bucket_bit + bucket_bits - 1);
    desc_.dir_lo = static_cast<uint8_t>(desc_.bucket_hi + 1);
    desc_.dir_hi = static_cast<uint8_t>(desc_.bucket_hi + partition_bits);
    desc_.tables = tables_.data();
    desc_.cursors = cursors_.data();
    desc_.limits = limits_.data();
    room_.resize(partitions);
    for (uint32_t p = 0; p < partitions; p++) {
      room_[p].emplace_back(size_t{1} << bucket_bits);
      tables_[p] = room_[p].front().front().bytes;
      cursors_[p] = limits_[p] = tables_[p];
    }
  }

  HashTables(const HashTables&) = delete;  // desc_ points to this
  HashTables& operator=(const HashTables&) = delete;

  // Sorts the rows by partition, as records of row number and hash.
  void partition(const Selected<uint64_t>& rows) {
    std::array<uint8_t*, partitions> cursors, limits;
    records_.resize(partitions);
    const auto give_room = [&](uint32_t p, size_t bytes) {
      const size_t used = records_[p].empty() ? 0 : static_cast<size_t>(cursors[p] - records_[p].data());
      records_[p].resize(bytes);
      cursors[p] = records_[p].data() + used;
      limits[p] = records_[p].data() + bytes;
    };
    for (uint32_t p = 0; p < partitions; p++) give_room(p, (rows.rows.size() / partitions + 1) * sizeof(Record));

    kdzk_partdesc desc{};
    desc.flags = KDZK_PART_A;
    desc.part_lo = desc_.dir_lo;
    desc.part_hi = desc_.dir_hi;
    desc.cursors = cursors.data();
    desc.limits = limits.data();
    const kdzk_vec keys = vec_of(rows.hashes.data(), rows.hashes.size(), &hash_column);
    const kdzk_vec ids = vec_of(rows.rows.data(), rows.rows.size(), &row_numbers);
    kdzk_exec exec{};
    uint64_t code;
    while ((code = library_->partition_rows(&desc, &keys, &ids, nullptr, &exec)) == KDZK_PARTITION_FULL) {
      give_room(exec.part, records_[exec.part].size() * 2);
    }
    require_done(code, "partition_rows");
    for (uint32_t p = 0; p < partitions; p++) records_[p].resize(static_cast<size_t>(cursors[p] - records_[p].data()));
  }

  void build() {
    for (uint32_t p = 0; p < partitions; p++) {
      const kdzk_vec keys = vec_of(records_[p].data(), records_[p].size() / sizeof(Record), &records);
      const kdzk_vec no_rows = vec_of(nullptr, 0, &row_numbers);
      kdzk_exec exec{};
      uint64_t code;
      while ((code = library_->ht_build(&desc_, &keys, &no_rows, static_cast<int32_t>(p), nullptr, &exec)) ==
             KDZK_OVERFLOW_FULL) {
        std::vector<Bucket>& room = room_[p].emplace_back(buckets_at_a_time);
        cursors_[p] = room.front().bytes;
        limits_[p] = cursors_[p] + room.size() * sizeof(Bucket);
      }
      require_done(code, "ht_build");
    }
  }

  // Calls use(pairs, count) for stretches of the pairs of rows that have the same tag.
  template <class Use>
  void probe(const Selected<uint32_t>& rows, const Use& use) const {
    const kdzk_vec keys = vec_of(rows.hashes.data(), rows.hashes.size(), &hash_column);
    const kdzk_vec ids = vec_of(rows.rows.data(), rows.rows.size(), &row_numbers);
    std::vector<Pair> pairs(1024);
    kdzk_exec exec{};
    uint64_t code;
    do {
      kdzk_vec out = vec_of(pairs.data(), pairs.size(), nullptr);
      code = library_->ht_probe(&out, &keys, &ids, &desc_, nullptr, &exec);
      use(pairs.data(), out.nrows);
      if (code == KDZK_PAIRS_FULL && out.nrows == 0) pairs.resize(pairs.size() * 2);  // they don't hold a row's pairs
    } while (code == KDZK_PAIRS_FULL);
    require_done(code, "ht_probe");
  }

 private:
  struct Record {
    uint64_t row, hash;
  };

  const Library& library_;
  kdzk_htdesc desc_{};
  std::array<uint8_t*, partitions> tables_{}, cursors_{}, limits_{};
  std::vector<std::deque<std::vector<Bucket>>> room_;  // a partition's table, and overflow room
  std::vector<std::vector<uint8_t>> records_;          // a partition's rows
};

// Leaves those of the rows (null: all) in `bits` whose hash the filter of the other rows' hashes lets pass.
void filter(const Library& library, const std::vector<uint64_t>& other_hashes, const std::vector<uint64_t>& hashes,
            const uint64_t* rows, std::vector<uint64_t>& bits) {
  kdzk_enc_ctx shape{};
  kdzk_host_bloom_shape(&shape, kdzk_host_bloom_mask(other_hashes.size(), 16), 0);
  std::vector<uint64_t> filter_bits(kdzk_host_bloom_bytes(&shape) / 8);
  kdzk_vec filter{};
  filter.enc_ctx = &shape;
  filter.bitvec = filter_bits.data();
  kdzk_host_bloom_add_hashes(&filter, other_hashes.data(), other_hashes.size());

  bits.assign(kdzk_host_bitvec_words(hashes.size()), 0);
  const kdzk_vec values = vec_of(hashes.data(), hashes.size(), &hash_column);
  kdzk_hit_range hit_rows;
  kdzk_vec result{};
  result.data = &hit_rows;
  result.bitvec = bits.data();
  kdzk_exec exec{};
  exec.selection = rows;
  const uint64_t code = library->bloom_test(&result, &values, &filter, &exec);
  if (code != KDZK_NO_ROW) require_done(code, "bloom_test");
}

}  // namespace

Joined join(const Request& request, const Engine& engine, const Engine& other, const Answer* rows,
            const Answer* other_rows, bool with_bloom) {
  const Library& library = engine.library();
  Keys keys(engine, *request.columns.front()), other_keys(other, *request.other_key);
  const Store& group_store = other.store(*request.other_group);
  if (!group_store.is_coded()) {
    throw Error("column " + request.other_group->name() + " is stored as " + group_store.form() +
                ", and groups need a dictionary: store it as dict, blocked or runs");
  }

  Joined joined;
  std::vector<uint64_t> counters;
  for (int lap = 0; lap < 5; lap++) {
    std::array<double, Joined::steps> seconds{};
    auto start = std::chrono::steady_clock::now();
    const auto done = [&](Joined::Step step) {
      seconds[step] += seconds_since(start);
      start = std::chrono::steady_clock::now();
    };

    keys.unpack();
    other_keys.unpack();
    const std::vector<uint32_t> groups = group_store.codes();
    done(Joined::unpack);
    std::vector<uint64_t> other_hashes = other_keys.hashes(), hashes = keys.hashes();
    done(Joined::hash);
    const Selected<uint64_t> built(library, std::move(other_hashes), other_rows ? other_rows->bits.data() : nullptr);
    HashTables tables(library, built.rows.size());
    tables.partition(built);
    done(Joined::partition);
    tables.build();
    done(Joined::build);

    const uint64_t* probed_bits = rows ? rows->bits.data() : nullptr;
    std::vector<uint64_t> passed;
    if (with_bloom) {
      filter(library, built.hashes, hashes, probed_bits, passed);
      probed_bits = passed.data();
      done(Joined::bloom);
    }
    const Selected<uint32_t> probed(library, std::move(hashes), probed_bits);
    joined.built = built.rows.size();
    joined.probed = probed.rows.size();
    joined.candidates = joined.matches = 0;
    counters.assign(group_store.dictionary().size, 0);
    tables.probe(probed, [&](const Pair* pairs, size_t count) {
      done(Joined::probe);
      for (size_t i = 0; i < count; i++) {
        if (keys.symbol(pairs[i].row) != other_keys.symbol(pairs[i].other_row)) continue;
        counters[groups[pairs[i].other_row]]++;
        joined.matches++;
      }
      joined.candidates += count;
      done(Joined::compare);
    });
    for (size_t step = 0; step < seconds.size(); step++) {
      joined.seconds[step] = lap == 0 ? seconds[step] : std::min(joined.seconds[step], seconds[step]);
    }
  }
  const uint32_t first_code = group_store.dictionary().first_code;
  for (uint32_t code = 0; code < counters.size(); code++) {
    if (counters[code] > 0) joined.counts[{code + 1 - first_code}] = counters[code];
  }
  return joined;
}

}  // namespace ask

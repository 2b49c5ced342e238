// SPDX-License-Identifier: Apache-2.0
// The join services on the engine's own columns and with its hash function, against plain loops.

#include <algorithm>
#include <cstring>

#include "host/verify/rules.h"

namespace kdzk_verify {
namespace {

// ---- Joins, with the engine's hash function and texts as keys ----

const Wanted texts = {.form = KDZK_VERIFY_TEXTS, .width = 0};

std::vector<uint64_t> hashes_of(const Column& column, uint64_t seed) {
  if (host->hash == nullptr) not_used("hash is null");
  std::vector<uint64_t> hashes;
  const bool coded = column.wanted().form == KDZK_VERIFY_CODES;
  for (uint32_t r = 0; r < column.nrows(); r++) {
    const std::string& key = coded ? column.symbols()[column.values()[r]] : column.texts()[r];
    hashes.push_back(host->hash(key.data(), static_cast<uint32_t>(key.size()), seed));
  }
  return hashes;
}

void hashes_rows() {
  if (host->hash == nullptr) not_used("hash is null");
  const uint64_t seed = 17;
  kdzk_enc_ctx seed_enc{};
  seed_enc.flags = KDZK_NUMERIC;
  kdzk_vec seeds{}, out{};
  seeds.enc_ctx = &seed_enc;
  seeds.data = const_cast<uint64_t*>(&seed);
  seeds.nrows = 1;
  for (const auto& column : columns_of({KDZK_VERIFY_TEXTS, KDZK_VERIFY_CODES})) {
    const bool coded = column->wanted().form == KDZK_VERIFY_CODES;
    if (column->wanted().blocked != 0 || (coded && (column->symbols().empty() || column->enc().dict_mode != 1)))
      continue;
    std::vector<uint64_t> hashes(column->nrows());
    out.data = hashes.data();
    doing("in kdzk_hash_rows on %s", column->name().c_str());
    const uint64_t returned = library->hash_rows(&out, &column->vec(), &seeds, host->hash);
    if (returned != KDZK_DONE || hashes != hashes_of(*column, seed)) {
      broken("kdzk_hash_rows on %s returned %llu and other hashes", column->name().c_str(),
             static_cast<unsigned long long>(returned));
    }
  }
}

kdzk_enc_ctx implicit_ids() {
  kdzk_enc_ctx enc{};
  enc.flags = KDZK_IMPLICIT_IDS;
  return enc;
}

void partitions() {
  const auto column = column_of(texts);
  const auto hashes = hashes_of(*column, 0);
  constexpr uint32_t count = 8;
  std::vector<std::vector<uint64_t>> buffers(count, std::vector<uint64_t>(2 * column->nrows()));
  uint8_t *cursors[count], *limits[count];
  for (uint32_t p = 0; p < count; p++) {
    cursors[p] = reinterpret_cast<uint8_t*>(buffers[p].data());
    limits[p] = cursors[p] + 16 * column->nrows();
  }
  kdzk_partdesc desc{};
  desc.flags = KDZK_PART_A;
  desc.part_lo = 61;
  desc.part_hi = 63;
  desc.cursors = cursors;
  desc.limits = limits;
  const kdzk_enc_ctx ids = implicit_ids();
  kdzk_vec rows{};
  rows.enc_ctx = &ids;
  rows.rowbase = 1000;
  kdzk_exec exec = exec_of_host();
  doing("in kdzk_partition_rows");
  const uint64_t returned = library->partition_rows(&desc, &column->vec(), &rows, host->hash, &exec);
  if (returned != KDZK_DONE) broken("kdzk_partition_rows returned %llu", static_cast<unsigned long long>(returned));
  std::vector<size_t> at(count);
  for (uint32_t r = 0; r < column->nrows(); r++) {
    const uint64_t part = hashes[r] >> 61;
    const uint64_t* const record = buffers[part].data() + 2 * at[part]++;
    if (record[0] != 1000 + r || record[1] != hashes[r])
      broken("the record of row %u isn't in partition %u", r, static_cast<unsigned>(part));
  }
}

// Builds a table of the texts' hashes and looks each of them up: candidates are the rows with the same low bits.
void joins() {
  const auto column = column_of(texts);
  const auto hashes = hashes_of(*column, 0);
  const uint32_t n = column->nrows();
  struct alignas(64) Bucket {
    uint8_t bytes[64];
  };
  std::vector<Bucket> buckets(32), overflow(n);
  uint8_t* tables[] = {buckets[0].bytes};
  uint8_t* cursors[] = {overflow[0].bytes};
  uint8_t* limits[] = {overflow[0].bytes + 64 * overflow.size()};
  kdzk_htdesc desc{};
  desc.flags = 1;  // tags of 16 bits, payloads of 64
  desc.bucket_hi = desc.dir_hi = 20;
  desc.tables = tables;
  desc.cursors = cursors;
  desc.limits = limits;
  const kdzk_enc_ctx ids = implicit_ids();
  kdzk_vec rows{}, out{};
  rows.enc_ctx = &ids;
  kdzk_exec build = exec_of_host(), probe = exec_of_host();
  doing("in kdzk_ht_build");
  uint64_t returned = library->ht_build(&desc, &column->vec(), &rows, 0, host->hash, &build);
  if (returned != KDZK_DONE) broken("kdzk_ht_build returned %llu", static_cast<unsigned long long>(returned));
  std::vector<uint64_t> pairs(2 * uint64_t{n} * n), want;
  out.data = pairs.data();
  out.nrows = n * n;
  doing("in kdzk_ht_probe");
  returned = library->ht_probe(&out, &column->vec(), &rows, &desc, host->hash, &probe);
  for (uint64_t r = 0; r < n; r++) {
    for (uint64_t other = 0; other < n; other++) {
      if (((hashes[r] ^ hashes[other]) & 0x1fffff) == 0) want.insert(want.end(), {r, other});
    }
  }
  pairs.resize(2 * uint64_t{out.nrows});
  if (returned != KDZK_DONE || pairs != want) {
    broken("kdzk_ht_probe returned %llu and %u pairs, of %zu", static_cast<unsigned long long>(returned), out.nrows,
           want.size() / 2);
  }
}

// Texts into a pair matrix, from there into a page, and back from the page in reverse order.
void stores() {
  const auto column = column_of(texts);
  const uint32_t n = column->nrows();
  struct Pair {
    uint16_t length;
    const char* address;
  };
  std::vector<Pair> matrix(n);
  auto* pairs = reinterpret_cast<uint8_t*>(matrix.data());
  kdzk_rowstore source{};
  source.flags = KDZK_STORE_PAIRS;
  source.ncols = 1;
  source.pairs = &pairs;
  source.pair_cursors = &pairs;
  doing("in kdzk_fill_pairs");
  if (library->fill_pairs(&source, &column->vec(), 0, 0) != KDZK_DONE) broken("kdzk_fill_pairs didn't return 0");
  std::string all;
  for (uint32_t r = 0; r < n; r++) {
    const std::string& text = column->texts()[r];
    all += text;
    if (std::string_view(matrix[r].address, matrix[r].length) != text)
      broken("kdzk_fill_pairs has another text in row %u", r);
  }

  std::vector<uint8_t> page(all.size());
  std::vector<uint32_t> directory(n + 1);
  uint8_t *data_cursor = page.data(), *data_limit = page.data() + page.size();
  auto *offsets = reinterpret_cast<uint8_t*>(directory.data()), *offset_cursor = offsets;
  const uint64_t base = reinterpret_cast<uintptr_t>(page.data());
  kdzk_rowstore store{};
  store.flags = KDZK_STORE_OFFSETS;
  store.page_lo = 64;
  store.offsets = &offsets;
  store.offset_cursors = &offset_cursor;
  store.bases = &base;
  store.data_cursors = &data_cursor;
  store.data_limits = &data_limit;
  kdzk_exec exec = exec_of_host();
  doing("in kdzk_pack_rows");
  if (library->pack_rows(&store, &source, 0, 0, 0, static_cast<int32_t>(n) - 1, &exec) != KDZK_DONE ||
      std::string(page.begin(), page.end()) != all || directory[n] != all.size()) {
    broken("kdzk_pack_rows packed %u rows and other bytes", exec.row);
  }

  std::vector<uint64_t> locators(n + KDZK_PADDING / 8);
  for (uint32_t r = 0; r < n; r++) locators[r] = n - 1 - r;
  std::string want;
  for (uint32_t r = n; r-- > 0;) want += column->texts()[r];
  std::string values(all.size(), 0);
  std::vector<uint16_t> lengths(n);
  kdzk_enc_ctx in_enc{}, out_enc{};
  in_enc.flags = KDZK_FIXED_BYTES;
  in_enc.width = 64;
  out_enc.flags = KDZK_LEN_ARRAY;
  kdzk_vec in{}, out{};
  in.enc_ctx = &in_enc;
  in.data = locators.data();
  in.nrows = n;
  out.enc_ctx = &out_enc;
  out.data = values.data();
  out.lengths = lengths.data();
  out.out_size = values.size();
  exec = exec_of_host();
  doing("in kdzk_ht_gather");
  if (library->ht_gather(&out, &in, &store, &exec) != KDZK_DONE || values != want)
    broken("kdzk_ht_gather gave other bytes");
}

void blooms() {
  const auto column = column_of({.form = KDZK_VERIFY_FIXED, .width = 32, .value_bytes = 4});
  kdzk_enc_ctx enc{};
  kdzk_host_bloom_shape(&enc, kdzk_host_bloom_mask(column->nrows(), 8), 0);
  std::vector<uint64_t> words(kdzk_host_bloom_bytes(&enc) / 8);
  kdzk_vec filter{}, result{};
  filter.enc_ctx = &enc;
  filter.bitvec = words.data();
  kdzk_host_bloom_add_values(&filter, column->vec().data, column->nrows() / 2);
  std::vector<bool> rows;
  for (const uint64_t value : column->values()) {
    const uint64_t bit = value & enc.bloom_mask;
    rows.push_back(reinterpret_cast<const uint8_t*>(words.data())[bit / 8] >> bit % 8 & 1);
  }
  Answer answer{};
  answer.bits.resize(words_of(column->nrows()));
  kdzk_hit_range range;
  result.bitvec = answer.bits.data();
  result.data = &range;
  kdzk_exec exec = exec_of_host();
  doing("in kdzk_bloom_test");
  answer.returned = library->bloom_test(&result, &column->vec(), &filter, &exec);
  answer.hits = result.hits;
  expect_rows(answer, rows, "kdzk_bloom_test", column->name());
}

}  // namespace

Rules join_rules() {
  return families({
      {"hash-rows", hashes_rows},
      {"partition", partitions},
      {"build-probe", joins},
      {"pack-gather", stores},
      {"bloom", blooms},
  });
}

}  // namespace kdzk_verify

// SPDX-License-Identifier: Apache-2.0
// A whole join: flights with airports, by the origin's code and a second column; from the hashes of both key columns
// over partitions on two levels, build and probe to the values of the rows that match, against a nested loop. The host
// gives so little room everywhere that every call stops, again and again.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <sstream>

#include "tests/support/value_columns.h"

namespace kdzk_test {
namespace {

// A side of the join: three columns, of which the first two are the keys.
struct Side {
  std::vector<Bytes> columns[3];
  uint32_t nrows() const { return static_cast<uint32_t>(columns[0].size()); }
};

// Of every so many lines of a file: a code, the parity of a field's length, and a value.
Side read_side(const std::string& file, size_t code, size_t parity_of, size_t value, int every) {
  std::ifstream lines(KDZK_SOURCE_DIR "/examples/data/" + file);
  Side side;
  std::string line, field;
  std::getline(lines, line);
  for (int number = 0; std::getline(lines, line); number++) {
    if (number % every != 0) continue;
    std::vector<std::string> fields;
    for (std::istringstream rest(line); std::getline(rest, field, ',');) fields.push_back(field);
    side.columns[0].push_back({fields[code].begin(), fields[code].end()});
    side.columns[1].push_back({static_cast<uint8_t>(fields[parity_of].size() % 2)});
    side.columns[2].push_back({fields[value].begin(), fields[value].end()});
  }
  return side;
}

const Side& airports() {
  static const Side side = read_side("airports.csv", 0, 1, 2, 1);
  return side;
}
const Side& flights() {
  static const Side side = read_side("flights.csv", 4, 3, 5, 20);
  return side;
}

// A column or an output over somebody's memory.
struct Column {
  kdzk_enc_ctx enc{};
  kdzk_vec vec{};
  Column(uint32_t flags, void* data, size_t nrows) {
    enc.flags = flags;
    vec.enc_ctx = &enc;
    vec.data = data;
    vec.nrows = static_cast<uint32_t>(nrows);
  }
  Column(const Column&) = delete;
};

// A partition's rows, as records and as columns.
struct Partition {
  Bytes records;
  std::vector<uint64_t> hashes, ids;
  std::vector<uint32_t> short_ids;
};

// Which side is built, the layout of records, and the form of buckets.
class Join : public testing::TestWithParam<std::tuple<bool, uint8_t, uint32_t>> {
 protected:
  const bool build_flights = std::get<0>(GetParam()), a = std::get<1>(GetParam()) == KDZK_PART_A;
  const uint8_t layout = std::get<1>(GetParam());
  const uint32_t bucket_form = std::get<2>(GetParam());
  const Side &build_side = build_flights ? flights() : airports(), &probe_side = build_flights ? airports() : flights();
  Random random{"join"};
  uint64_t stops[10] = {};

  // Calls until a vector is done, and after every stop, which has this code, something that makes room.
  template <class Call, class MakeRoom>
  void until_done(uint64_t code, const Call& call, const MakeRoom& make_room) {
    for (uint64_t got = call(); got != KDZK_DONE; got = call()) {
      ASSERT_EQ(got, code);
      ASSERT_LT(stops[code]++, 1000000u);
      make_room();
    }
  }

  // One hash per row of both key columns.
  std::vector<uint64_t> hashes_of(const Side& side) {
    std::vector<uint64_t> hashes(side.nrows());
    uint64_t seed = 0x5eed;
    Column out(0, hashes.data(), 0), first_seeds(KDZK_NUMERIC, &seed, 1),
        seeds(KDZK_NUMERIC, hashes.data(), hashes.size());
    const ValueColumn codes(KDZK_LEN_PREFIXED, side.columns[0], random),
        parities(KDZK_FIXED_BYTES, side.columns[1], random);
    EXPECT_EQ(library().hash_rows(&out.vec, &codes.vec, &first_seeds.vec, plain_hash), KDZK_DONE);
    EXPECT_EQ(library().hash_rows(&out.vec, &parities.vec, &seeds.vec, plain_hash), KDZK_DONE);
    return hashes;
  }

  // ---- Partitions: 8 by the top 3 bits of the hash, and 8 of each by the next 3; buffers of a few records ----

  size_t record_bytes(const uint8_t* record) const { return a ? 16u : 2u + record[0] + record[1] * 256u; }

  std::vector<Partition> scatter(const kdzk_vec& keys, const kdzk_vec* rows, uint8_t part_lo) {
    std::vector<Partition> partitions(8);
    std::deque<GuardedBuffer> buffers;
    uint8_t *cursors[8], *limits[8];
    for (size_t p = 0; p < 8; p++) {
      cursors[p] = buffers.emplace_back(26 + random.below(100)).data();
      limits[p] = cursors[p] + buffers[p].size();
    }
    const auto take = [&](size_t p) {
      partitions[p].records.insert(partitions[p].records.end(), buffers[p].data(), cursors[p]);
      cursors[p] = buffers[p].data();
    };
    kdzk_partdesc desc{0, layout, static_cast<uint8_t>(part_lo + 2), part_lo, 0, cursors, limits};
    kdzk_exec exec{};
    const auto place = [&] { return library().partition_rows(&desc, &keys, rows, nullptr, &exec); };
    until_done(KDZK_PARTITION_FULL, place, [&] { take(exec.part); });
    for (size_t p = 0; p < 8; p++) {
      take(p);
      const Bytes& records = partitions[p].records;
      for (size_t at = 0; at < records.size(); at += record_bytes(&records[at])) {
        std::memcpy(&partitions[p].ids.emplace_back(), &records[at + (a ? 0 : 10)], 8);
        std::memcpy(&partitions[p].hashes.emplace_back(), &records[at + (a ? 8 : 2)], 8);
      }
    }
    return partitions;
  }

  // In layout C, id and code are the payload.
  std::vector<Partition> partitions_of(const Side& side, const std::vector<uint64_t>& ids) {
    std::vector<uint64_t> hashes = hashes_of(side);
    std::vector<Bytes> payloads(ids.size());
    for (size_t i = 0; i < ids.size(); i++) {
      append(payloads[i], ids[i]);
      if (!a) payloads[i].insert(payloads[i].end(), side.columns[0][i].begin(), side.columns[0][i].end());
    }
    const ValueColumn rows(a ? KDZK_NUMERIC : KDZK_LEN_ARRAY, payloads, random);
    std::vector<Partition> all;
    for (const Partition& first : scatter(Column(KDZK_NUMERIC, hashes.data(), hashes.size()).vec, &rows.vec, 61)) {
      GuardedBuffer records(first.records, a ? 0 : KDZK_PADDING);
      const Column again(a ? KDZK_KEYED16 : KDZK_LEN_PREFIXED | KDZK_NUMERIC, records.data(), first.ids.size());
      for (Partition& second : scatter(again.vec, nullptr, 58)) all.push_back(std::move(second));
    }
    return all;
  }

  // ---- The row store: pages of up to 2^16 values ----

  std::deque<GuardedBuffer> pages, directories;
  std::vector<uint8_t*> offset_pages;
  std::vector<uint64_t> bases;
  kdzk_rowstore row_store{};

  // Packs the build side. Returns each row's locator: that of the first of its values.
  std::vector<uint64_t> pack_build_side() {
    const uint32_t nrows = build_side.nrows(), forms[] = {KDZK_LEN_ARRAY, KDZK_FIXED_BYTES, KDZK_PTR_LEN};
    GuardedBuffer matrix(size_t{nrows} * 3 * 16);
    uint8_t *first_pair = matrix.data(), *cursor = first_pair, *data, *offsets, *limit;
    kdzk_rowstore source{}, target{};
    source.flags = KDZK_STORE_PAIRS;
    source.ncols = 3;
    source.pairs = &first_pair;
    source.pair_cursors = &cursor;
    std::deque<ValueColumn> columns;
    for (uint32_t c = 0; c < 3; c++) {
      columns.emplace_back(forms[c], build_side.columns[c], random);
      EXPECT_EQ(library().fill_pairs(&source, &columns[c].vec, c, 0), KDZK_DONE);
    }
    target.flags = KDZK_STORE_OFFSETS;
    target.data_cursors = &data;
    target.data_limits = &limit;
    target.offset_cursors = &offsets;
    kdzk_exec exec{};
    std::vector<uint64_t> locators;
    const auto begin_page = [&] {  // and locate the rows of the last one
      for (uint64_t entry = 0; locators.size() < exec.row; entry += 3)
        locators.push_back((pages.size() - 1) << 16 | entry);
      data = pages.emplace_back(50 + random.below(3000)).data();
      limit = data + pages.back().size();
      bases.push_back(reinterpret_cast<uint64_t>(data));
      offset_pages.push_back(offsets = directories.emplace_back((size_t{nrows} * 3 + 1) * 4, 0, 0).data());
      if (exec.row > 0) offsets += 4;  // a first entry of 0
    };
    const auto pack = [&] {
      return library().pack_rows(&target, &source, 0, 0, exec.row, static_cast<int32_t>(nrows) - 1, &exec);
    };
    begin_page();
    until_done(KDZK_PAGE_FULL, pack, begin_page);
    begin_page();
    row_store.flags = KDZK_STORE_OFFSETS;
    row_store.page_hi = 31;
    row_store.page_lo = 16;
    row_store.offsets = offset_pages.data();
    row_store.bases = bases.data();
    return locators;
  }

  // The values of a column of the build side, for pairs whose second words are locators.
  std::vector<Bytes> gather(std::vector<uint64_t> pairs, uint32_t column) {
    for (size_t i = 1; i < pairs.size(); i += 2) pairs[i] += column;
    GuardedBuffer room(100);
    const Column in(KDZK_PROBE_PAIRS, pairs.data(), pairs.size() / 2);
    Column out(KDZK_LEN_PREFIXED, room.data(), 0);
    out.vec.out_size = room.size();
    std::vector<Bytes> values;
    kdzk_exec exec{};
    const auto take = [&] {
      for (const uint8_t* at = room.data(); values.size() < exec.row; at = values.back().size() + at + 2)
        values.emplace_back(at + 2, at + 2 + at[0] + at[1] * 256);
    };
    until_done(
        KDZK_OUTPUT_FULL, [&] { return library().ht_gather(&out.vec, &in.vec, &row_store, &exec); }, take);
    take();
    return values;
  }

  // ---- The table: a directory of 64 entries, one for each partition, with arrays of 8 buckets ----

  std::vector<uint8_t*> tables, cursors, limits;
  std::deque<GuardedBuffer> buckets;
  kdzk_htdesc table{};

  // Of rows whose ids are as wide as the table's payloads.
  Column id_column(Partition& part) const {
    part.short_ids.assign(part.ids.begin(), part.ids.end());
    const bool is_short = bucket_form == 2 || bucket_form == 8;
    return Column(0, is_short ? static_cast<void*>(part.short_ids.data()) : part.ids.data(), 0);
  }

  void build(std::vector<Partition> partitions) {
    for (size_t p = 0; p < 64; p++) tables.push_back(buckets.emplace_back(8 * 64, 0, 0).data());
    cursors = limits = tables;  // no room for overflow yet
    table = {0,
             bucket_form,
             static_cast<uint8_t>(bucket_form <= 2 ? 18 : 34),
             63,
             58,
             tables.data(),
             cursors.data(),
             limits.data(),
             0};
    for (size_t p = 0; p < 64; p++) {
      Partition& part = partitions[p];
      const Column keys(a ? KDZK_KEYED16 : KDZK_NUMERIC,
                        a ? static_cast<void*>(part.records.data()) : part.hashes.data(), part.ids.size());
      const Column ids = id_column(part);
      kdzk_exec exec{};
      const auto insert = [&] {
        return library().ht_build(&table, &keys.vec, &ids.vec, static_cast<int32_t>(p), nullptr, &exec);
      };
      until_done(KDZK_OVERFLOW_FULL, insert, [&] {
        cursors[p] = buckets.emplace_back(64 * (1 + random.below(2))).data();
        limits[p] = cursors[p] + buckets.back().size();
      });
    }
  }

  // (row of the probe side, locator) of all candidates.
  std::vector<uint64_t> probe(std::vector<Partition> partitions) {
    std::vector<uint64_t> candidates;
    for (Partition& part : partitions) {
      const Column hashes(KDZK_NUMERIC, part.hashes.data(), part.ids.size());
      const Column ids = id_column(part);
      kdzk_exec exec{};
      Column out(0, nullptr, 0);
      uint32_t capacity = 2;
      const auto call = [&] {
        GuardedBuffer pairs(capacity * 16);
        out.vec.data = pairs.data();
        out.vec.nrows = capacity;
        const uint64_t code = library().ht_probe(&out.vec, &hashes.vec, &ids.vec, &table, nullptr, &exec);
        const auto* const first = reinterpret_cast<const uint64_t*>(pairs.data());
        candidates.insert(candidates.end(), first, first + out.vec.nrows * 2);
        return code;
      };
      until_done(KDZK_PAIRS_FULL, call, [&] { capacity = out.vec.nrows == 0 ? capacity * 2 : 2; });
    }
    return candidates;
  }
};

TEST_P(Join, GivesTheRowsOfANestedLoop) {
  build(partitions_of(build_side, pack_build_side()));
  std::vector<uint64_t> row_numbers(probe_side.nrows());
  for (uint64_t row = 0; row < row_numbers.size(); row++) row_numbers[row] = row;
  const std::vector<uint64_t> candidates = probe(partitions_of(probe_side, row_numbers));
  const auto codes = gather(candidates, 0), parities = gather(candidates, 1), values = gather(candidates, 2);
  std::vector<std::pair<uint64_t, Bytes>> joined, want;  // row of the probe side, value of the build side
  for (size_t i = 0; i < values.size(); i++) {
    const uint64_t row = candidates[2 * i];
    if (probe_side.columns[0].at(row) == codes[i] && probe_side.columns[1][row] == parities[i])
      joined.push_back({row, values[i]});
  }
  for (size_t row = 0; row < probe_side.nrows(); row++) {
    for (size_t other = 0; other < build_side.nrows(); other++) {
      if (probe_side.columns[1][row] == build_side.columns[1][other] &&
          probe_side.columns[0][row] == build_side.columns[0][other])
        want.push_back({row, build_side.columns[2][other]});
    }
  }
  std::sort(joined.begin(), joined.end());
  std::sort(want.begin(), want.end());
  EXPECT_GT(want.size(), flights().nrows() / 3);
  EXPECT_TRUE(joined == want) << joined.size() << " rows, not " << want.size();
  for (const uint64_t code : {5, 6, 7, 8, 9}) EXPECT_GT(stops[code], 5u) << code;
}

INSTANTIATE_TEST_SUITE_P(All, Join,
                         testing::Combine(testing::Bool(), testing::Values(KDZK_PART_A, KDZK_PART_C),
                                          testing::Values(1u, 2u, 4u, 8u)));

}  // namespace
}  // namespace kdzk_test

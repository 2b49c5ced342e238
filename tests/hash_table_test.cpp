// SPDX-License-Identifier: Apache-2.0
// Hash table build and probe against a model that does a row at a time what the format says, byte for byte: buckets,
// overflow rooms of a few buckets given one after the other, pair arrays of a few pairs.

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <memory>

#include "tests/support/streams.h"
#include "tests/support/value_columns.h"

namespace kdzk_test {
namespace {

struct Form {
  uint32_t flags, tag, payload, capacity, tags_at, payloads_at;  // sizes in bytes
};
constexpr Form forms[] = {{1, 2, 8, 5, 2, 16}, {2, 2, 4, 9, 2, 20}, {4, 4, 8, 4, 4, 24}, {8, 4, 4, 6, 4, 32}};

Form form_of(uint32_t flags) {
  return flags < 16 ? forms[flags == 1 ? 0 : flags == 2 ? 1 : flags == 4 ? 2 : 3] : forms[flags & 4 ? 2 : 3];
}

constexpr uint32_t plain_forms[] = {KDZK_KEYED16, KDZK_FIXED_BYTES, KDZK_LEN_ARRAY, KDZK_LEN_PREFIXED,
                                    KDZK_PTR_LEN, KDZK_PAIR16,      KDZK_NUMERIC};
constexpr uint32_t keyed_forms[] = {KDZK_KEYED24, KDZK_HASH_U32};

bool is_hashed(uint32_t flag) { return flag != KDZK_KEYED16 && flag != KDZK_KEYED24 && flag != KDZK_NUMERIC; }

// ---- Hashes: few tags and few buckets, so that chains get long, or all of them ----

uint64_t hash_mask;
size_t fixed_bytes;  // of a key in KDZK_FIXED_BYTES

uint64_t masked_hash(const void* key, uint32_t length, uint64_t seed) {
  return plain_hash(key, length, seed) & hash_mask;
}

// The fields of the hash, for tags of T bits.
struct Layout {
  uint32_t bucket_hi, dir_hi, dir_lo, low_bits;
  int32_t partition;
  uint64_t mask;

  bool one_table() const { return partition >= 0 || (dir_hi == bucket_hi && low_bits == 0); }
  static uint64_t up_to(uint32_t bit) { return bit == 63 ? ~uint64_t{0} : (uint64_t{1} << (bit + 1)) - 1; }
  uint64_t bucket(uint64_t hash, uint32_t T) const { return (hash & up_to(bucket_hi)) >> T; }
  uint64_t entry(uint64_t hash) const {
    if (one_table()) return static_cast<uint64_t>(std::max(partition, 0));
    return (hash & up_to(dir_hi)) >> dir_lo << low_bits | (hash & ((uint64_t{1} << low_bits) - 1));
  }
  uint32_t part(uint64_t hash) const {
    return one_table() ? 0 : static_cast<uint32_t>(hash & up_to(dir_hi)) >> (bucket_hi + 1) % 32;
  }
};

std::vector<Layout> layouts(uint32_t T) {
  const uint64_t few = uint64_t{3} << T | 5 | uint64_t{1} << (T - 1), top = uint64_t{3} << 62,
                 above = uint64_t{3} << (T + 2);
  return {{T + 1, T + 1, 0, 0, -1, few | top},
          {T + 1, 63, 62, 3, 1, few | top},
          {T + 1, T + 3, T + 2, 0, -1, few | above | top},
          {T + 1, T + 1, T + 1, 2, -1, few | top},
          {T + 1, 63, 62, 1, -1, few | top},
          {63, 63, 0, 0, -1, few},
          {T + 9, T + 9, 5, 0, -1, ~uint64_t{0}},
          {T + 7, T + 9, T + 8, 0, -1, ~uint64_t{0}},
          {T + 8, T + 8, T + 7, 0, 0, ~uint64_t{0}}};
}

// ---- Rows, and columns of them ----

struct Row {
  Bytes key;
  uint64_t hash, id;
  uint32_t u32() const { return get<uint32_t>(key.data()); }  // key mode
};

std::vector<Row> random_rows(Random& random, uint32_t n, uint32_t flag) {
  std::vector<Row> rows(n);
  for (Row& row : rows) {
    row.key.resize(flag == KDZK_FIXED_BYTES ? fixed_bytes : random.below(9));
    if (flag == KDZK_HASH_U32 || flag == KDZK_KEYED24) row.key.resize(4);
    for (uint8_t& byte : row.key) byte = static_cast<uint8_t>(random.below(random.below(3) == 0 ? 256 : 4));
    row.hash = masked_hash(row.key.data(), static_cast<uint32_t>(row.key.size()), 0);
    row.id = random.bits();
  }
  return rows;
}

// The keys of rows in a form, and their ids. The flags of forms that come later in the order may be set too.
struct Columns {
  std::unique_ptr<ValueColumn> keys, ids;

  Columns(Random& random, std::vector<Row>& rows, uint32_t flag, uint32_t id_bytes) {
    const bool records = flag == KDZK_KEYED16 || flag == KDZK_KEYED24, implicit = random.below(2) == 0 && !records;
    const uint64_t rowbase = random.bits() | 0xfffffff0;
    std::vector<Bytes> values, id_values;
    for (size_t i = 0; i < rows.size(); i++) {
      if (implicit) rows[i].id = rowbase + i;
      append(id_values.emplace_back(), rows[i].id), id_values[i].resize(id_bytes);
      Bytes& value = values.emplace_back(is_hashed(flag) ? rows[i].key : Bytes());
      if (flag == KDZK_KEYED16) append(value, rows[i].id);
      if (!is_hashed(flag)) append(value, rows[i].hash);
      if (flag == KDZK_KEYED24) append(value, rows[i].u32() | random.bits() << 32), append(value, rows[i].id);
    }
    keys = std::make_unique<ValueColumn>(is_hashed(flag) ? flag : KDZK_NUMERIC, values, random);
    keys->enc.flags = flag;
    bool later = false;
    for (const uint32_t other : plain_forms) {
      if (later && random.below(2) == 0) keys->enc.flags |= other;
      later |= other == flag;
    }
    if (flag == KDZK_KEYED24 && random.below(2) == 0) keys->enc.flags |= KDZK_HASH_U32;
    ids = std::make_unique<ValueColumn>(id_bytes == 4 ? KDZK_HASH_U32 : KDZK_NUMERIC, id_values, random);
    ids->enc.flags = implicit ? KDZK_IMPLICIT_IDS : 0;
    ids->vec.rowbase = rowbase;
    if (implicit || records) ids->vec.data = nullptr;
  }
};

// ---- The table: the library's memory and, of the same bytes, the model's, which holds the same addresses ----

class Table {
 public:
  const Form form;
  const uint32_t flags, T;
  const Layout layout;
  std::vector<uint8_t*> tables, cursors, limits, model_cursors;
  kdzk_htdesc desc{};
  size_t used;  // bytes of memory that the host gave out

  Table(uint32_t table_flags, const Layout& where, uint32_t rows)
      : form(form_of(table_flags)),
        flags(table_flags),
        T(form.tag * 8),
        layout(where),
        entries_(layout.entry(layout.mask) + 1),
        array_bytes_((layout.bucket(layout.mask, T) + 1) * 64),
        memory_(entries_ * array_bytes_ + (rows + entries_ * 9) * 64) {
    for (uint64_t entry = 0; entry < entries_; entry++)
      tables.push_back(entry < first_entry() ? nullptr : memory_.data() + entry * array_bytes_);
    used = entries_ * array_bytes_;
    std::memset(memory_.data(), 0, used);
    model_.assign(memory_.data(), memory_.data() + memory_.size());
    limits.resize(entries_), cursors.resize(entries_), model_cursors.resize(entries_);
    for (uint64_t entry = first_entry(); entry < entries_; entry++) give_room(entry, entry % 3);
    desc = {.leading = 0xdeadbeef,
            .flags = flags,
            .bucket_hi = static_cast<uint8_t>(layout.bucket_hi),
            .dir_hi = static_cast<uint8_t>(layout.dir_hi),
            .dir_lo = static_cast<uint8_t>(layout.dir_lo),
            .tables = tables.data(),
            .cursors = cursors.data(),
            .limits = limits.data(),
            .low_bits = static_cast<uint8_t>(layout.low_bits)};
  }

  void give_room(uint64_t entry, uint64_t buckets) {
    cursors[entry] = model_cursors[entry] = memory_.data() + used;
    used += buckets * 64;
    limits[entry] = memory_.data() + used - (buckets == 0 ? 64 : 0);  // no room: a limit below the cursor
  }
  bool agrees() const { return std::memcmp(memory_.data(), model_.data(), used) == 0 && cursors == model_cursors; }
  // Changes what headers say of tags that occur once: a probe takes their word for it.
  void tamper(Random& random) {
    for (size_t at = 0; at < used; at += 64)
      if (random.below(4) == 0) memory_.data()[at] = model_[at] ^= 0x40;
  }
  void protect(int how) {
    const auto first = reinterpret_cast<uintptr_t>(memory_.data()) / 4096 * 4096;
    mprotect(reinterpret_cast<void*>(first), reinterpret_cast<uintptr_t>(memory_.data()) + memory_.size() - first, how);
  }

  uint8_t* first_bucket(uint64_t hash) { return model(tables[layout.entry(hash)] + layout.bucket(hash, T) * 64); }
  uint8_t* next(const uint8_t* bucket) { return model(get<uint8_t*>(bucket + 56)); }
  uint64_t tag(const Row& row) const { return flags & 0x1000 ? row.u32() : row.hash & ((uint64_t{1} << T) - 1); }
  uint64_t tag_at(const uint8_t* bucket, uint32_t j) const {
    return number(bucket + form.tags_at + j * form.tag, form.tag);
  }
  uint64_t payload_at(const uint8_t* bucket, uint32_t j) const {
    return number(bucket + form.payloads_at + j * form.payload, form.payload);
  }

  // Inserts a row into the model; false if there is no room.
  bool insert(const Row& row, bool room) {
    uint8_t* b = first_bucket(row.hash);
    const auto store = [&](uint8_t* bucket, uint32_t j) {
      const uint64_t t = tag(row);
      std::memcpy(bucket + form.tags_at + j * form.tag, &t, form.tag);
      std::memcpy(bucket + form.payloads_at + j * form.payload, &row.id, form.payload);
    };
    const auto occurs = [&](const uint8_t* bucket) {
      for (uint32_t j = 0; j < (*bucket & 15u); j++) {
        if (tag_at(bucket, j) == tag(row)) return true;
      }
      return false;
    };
    if (room && (*b & 15u) < form.capacity) {
      const bool twice = occurs(b);
      store(b, *b & 15);
      if (*b == 0) return *b = 0x41, true;
      if ((*b & 0x40) != 0 && twice) *b -= 0x40;
      return *b += 1, true;
    }
    for (; (*b & 0x80) != 0; b = next(b)) {
      if ((*b & 0x40) != 0 && occurs(b)) *b -= 0x40;
    }
    uint8_t header = *b;
    if ((header & 0x40) != 0 && occurs(b)) header -= 0x40;
    if ((header & 15u) < form.capacity) {
      store(b, header & 15);
      return *b = header + 1, true;
    }
    uint8_t*& cursor = model_cursors[layout.entry(row.hash)];
    if (cursor >= limits[layout.entry(row.hash)]) return false;
    *b = header | 0x80;
    put(b + 56, cursor);
    store(model(cursor), 0);
    *model(cursor) = 0x41;
    return cursor += 64, true;
  }

  // A call of the build: the row where it stops.
  uint32_t build(const std::vector<Row>& rows, uint32_t row) {
    if (row > rows.size()) row = static_cast<uint32_t>(rows.size());
    while (row < rows.size()) {
      const uint32_t end = std::min<uint32_t>(row + 1024, static_cast<uint32_t>(rows.size()));
      hashed += end - row;
      bool room = true;
      for (uint32_t i = row; i < end; i++) room = room && (*first_bucket(rows[i].hash) & 15u) < form.capacity;
      for (; row < end; row++) {
        if (!insert(rows[row], room)) return row;
      }
    }
    return row;
  }

  // A call of the probe: the row where it stops. `out` has room for `capacity` pairs.
  uint32_t probe(const std::vector<Row>& rows, uint32_t row, uint32_t capacity, uint8_t* out, uint32_t* pairs) {
    uint32_t written = *pairs = 0;
    if (row > rows.size()) row = static_cast<uint32_t>(rows.size());
    for (uint32_t i = 0; row < rows.size(); row++, i++, *pairs = written) {
      if (i % 1024 == 0) hashed += std::min<uint32_t>(1024, static_cast<uint32_t>(rows.size()) - row);
      bool finished = false;
      for (const uint8_t* b = first_bucket(rows[row].hash); !finished; b = next(b)) {
        for (uint32_t j = 0; j < (*b & 15u) && !finished; j++) {
          if (tag_at(b, j) != tag(rows[row])) continue;
          if (written == capacity) return row;
          const uint64_t pair[2] = {rows[row].id, payload_at(b, j)};
          std::memcpy(out + written++ * size_t{16}, pair, 16);
          finished = (*b & 0x40) != 0;
        }
        if ((*b & 0x80) == 0) break;
      }
    }
    return row;
  }

  uint64_t hashed = 0;  // rows that a call of either has hashed

 private:
  uint64_t entries_, array_bytes_;
  GuardedBuffer memory_;
  Bytes model_;

  uint64_t first_entry() const { return static_cast<uint64_t>(std::max(layout.partition, 0)); }
  uint8_t* model(const uint8_t* real) { return model_.data() + (real - memory_.data()); }
  static uint64_t number(const uint8_t* at, uint32_t bytes) {
    uint64_t number = 0;
    std::memcpy(&number, at, bytes);
    return number;
  }
};

kdzk_exec fresh_exec() {
  kdzk_exec exec;
  std::memset(&exec, 0x77, sizeof exec);
  exec.row = 0;
  exec.key_off = 0;
  return exec;
}

// Everything but the fields named is as it was.
void expect_exec(const kdzk_exec& got, kdzk_exec before, uint32_t row, uint64_t key_off, uint32_t part) {
  before.row = row;
  before.key_off = key_off;
  before.part = part;
  EXPECT_TRUE(same_bytes(got, before)) << "row " << got.row << ", not " << row;
}

// Inserts rows as one vector, with as many calls as it takes.
void build(Random& random, Table& table, std::vector<Row> rows, uint32_t flag) {
  Columns columns(random, rows, flag, table.form.payload);
  kdzk_exec exec = fresh_exec();
  for (int times_done = 0; times_done < 2;) {  // once more at or behind the end, where nothing happens
    const kdzk_exec before = exec;
    const uint32_t stop = table.build(rows, exec.row);
    const bool done = stop == rows.size();
    hash_calls = 0;
    const uint64_t code = library().ht_build(&table.desc, &columns.keys->vec, &columns.ids->vec, table.layout.partition,
                                             is_hashed(flag) ? masked_hash : nullptr, &exec);
    ASSERT_EQ(code, done ? KDZK_DONE : KDZK_OVERFLOW_FULL);
    EXPECT_EQ(hash_calls, is_hashed(flag) ? table.hashed : 0);
    table.hashed = 0;
    expect_exec(exec, before, stop, columns.keys->positions()[stop],
                done ? before.part : table.layout.part(rows[stop].hash));
    ASSERT_TRUE(table.agrees());
    if (testing::Test::HasFailure()) return;
    if (!done) table.give_room(table.layout.entry(rows[stop].hash), 1 + random.below(8));
    if (done && times_done++ == 0) exec.row += static_cast<uint32_t>(random.below(3));
  }
}

// Looks rows up as one vector, with room for so many pairs in each call and more where a row needs it.
void probe(Random& random, Table& table, std::vector<Row> rows, uint32_t flag, uint32_t most) {
  Columns columns(random, rows, flag, table.form.payload);
  if (columns.ids->vec.data != nullptr && table.form.payload == 4) {
    for (Row& row : rows) row.id &= 0xffffffff;
  }
  kdzk_exec exec = fresh_exec();
  for (int times_done = 0; times_done < 2;) {
    const auto capacity = static_cast<uint32_t>(random.below(most + 1));
    GuardedBuffer out(capacity * size_t{16}), want(capacity * size_t{16});
    const kdzk_exec before = exec;
    uint32_t pairs;
    const uint32_t stop = table.probe(rows, exec.row, capacity, want.data(), &pairs);
    const bool done = stop == rows.size();
    kdzk_vec result{.data = out.data(), .nrows = capacity};
    hash_calls = 0;
    const uint64_t code = library().ht_probe(&result, &columns.keys->vec, &columns.ids->vec, &table.desc,
                                             is_hashed(flag) ? masked_hash : nullptr, &exec);
    ASSERT_EQ(code, done ? KDZK_DONE : KDZK_PAIRS_FULL);
    EXPECT_EQ(result.nrows, pairs);
    EXPECT_EQ(hash_calls, is_hashed(flag) ? table.hashed : 0);
    table.hashed = 0;
    expect_exec(exec, before, stop, columns.keys->positions()[stop], before.part);
    ASSERT_EQ(std::memcmp(out.data(), want.data(), out.size()), 0);
    if (testing::Test::HasFailure()) return;
    if (pairs == 0) most = most * 2 + 1;
    if (done && times_done++ == 0) exec.row += static_cast<uint32_t>(random.below(3));
  }
}

class HashTable : public testing::TestWithParam<std::pair<uint32_t, uint32_t>> {};

TEST_P(HashTable, AgreesWithTheModel) {
  const auto [flags, key_form] = GetParam();
  Random random("hash_table" + std::to_string(flags) + "/" + std::to_string(key_form));
  const uint32_t probe_form = key_form == KDZK_KEYED16   ? KDZK_NUMERIC
                              : key_form == KDZK_KEYED24 ? KDZK_HASH_U32
                                                         : key_form;
  int number = 0;
  for (const Layout& layout : layouts(form_of(flags).tag * 8)) {
    for (const uint32_t vector_rows : {0u, 1u, 60u, 1100u, 2100u}) {
      if (vector_rows > 2000 && number % 3 != 0) continue;
      const Case now(Message() << "flags " << flags << ", keys " << key_form << ", layout " << number << ", "
                               << vector_rows << " rows",
                     random);
      hash_mask = layout.mask;
      fixed_bytes = random.below(32);
      Table table(flags, layout, 3 * vector_rows);
      std::vector<Row> looked_up;
      for (int vector = 0; vector < 3; vector++) {
        const auto rows =
            random_rows(random, vector_rows - static_cast<uint32_t>(random.below(vector_rows / 3 + 1)), key_form);
        build(random, table, rows, key_form);
        for (const Row& row : rows) {
          if (random.below(6) == 0) looked_up.push_back(row);
        }
        if (HasFailure()) return;
      }
      const auto others = random_rows(random, vector_rows / 2, key_form);
      looked_up.insert(looked_up.end(), others.begin(), others.end());
      if (table.layout.partition > 0) {  // the probe has no such argument: the host moves the entry to the front
        table.tables[0] = table.tables[1];
        table.desc.dir_hi = table.desc.bucket_hi;
        table.desc.low_bits = 0;
      }
      table.tamper(random);
      table.protect(PROT_READ);
      table.desc.cursors = nullptr;
      table.desc.limits = nullptr;
      for (const uint32_t most : {3u, 1000u, 30000u}) {
        const size_t n = std::min<size_t>(looked_up.size(), most * 50);
        if (!HasFailure())
          probe(random, table, {looked_up.end() - static_cast<long>(n), looked_up.end()}, probe_form, most);
      }
      table.protect(PROT_READ | PROT_WRITE);
      ASSERT_TRUE(table.agrees());
      if (HasFailure()) return;
    }
    number++;
  }
}

std::vector<std::pair<uint32_t, uint32_t>> leaves() {
  std::vector<std::pair<uint32_t, uint32_t>> leaves;
  for (const Form& form : forms) {
    for (const uint32_t keys : plain_forms) leaves.push_back({form.flags, keys});
  }
  for (const uint32_t flags : {0x1004u, 0x1005u, 0x100cu}) {
    for (const uint32_t keys : keyed_forms) leaves.push_back({flags, keys});
  }
  for (const uint32_t flags : {0x1008u, 0x100au}) leaves.push_back({flags, KDZK_HASH_U32});
  return leaves;
}

INSTANTIATE_TEST_SUITE_P(Leaves, HashTable, testing::ValuesIn(leaves()), [](const auto& info) {
  return "flags_" + std::to_string(info.param.first) + "_keys_" + std::to_string(info.param.second);
});

// Flags and forms that have no leaf: nothing is touched, not even with rows left to do.
TEST(HashTableRefusals, LeaveEverythingUntouched) {
  for (const uint32_t flags :
       {0u,  1u,  2u,   3u,   4u,   5u,      6u,      7u,      8u,      9u,      10u,     12u,        16u,
        32u, 64u, 128u, 256u, 512u, 0x1000u, 0x1001u, 0x1002u, 0x1004u, 0x1008u, 0x2004u, 0x80000004u}) {
    const bool key_mode = flags == 0x1004 || flags == 0x1008;
    const bool plain = flags == 1 || flags == 2 || flags == 4 || flags == 8;
    const uint32_t plain_flags = KDZK_KEYED16 | KDZK_FIXED_BYTES | KDZK_LEN_ARRAY | KDZK_LEN_PREFIXED | KDZK_PTR_LEN |
                                 KDZK_PAIR16 | KDZK_NUMERIC;
    const uint32_t keyed_flags = KDZK_HASH_U32 | (flags == 0x1004 ? KDZK_KEYED24 : 0);
    const uint32_t build_takes = plain ? plain_flags : key_mode ? keyed_flags : 0;
    const uint32_t probe_takes = plain ? plain_flags & ~KDZK_KEYED16 : key_mode ? KDZK_HASH_U32 : 0;
    kdzk_htdesc desc{.flags = flags};
    kdzk_enc_ctx enc{};
    kdzk_vec keys{.enc_ctx = &enc, .nrows = 3};
    kdzk_vec out{.nrows = 7};
    kdzk_exec exec = fresh_exec();
    enc.flags = ~build_takes;
    EXPECT_EQ(library().ht_build(&desc, &keys, &keys, -1, nullptr, &exec), KDZK_UNSUPPORTED) << flags;
    enc.flags = ~probe_takes;
    EXPECT_EQ(library().ht_probe(&out, &keys, &keys, &desc, nullptr, &exec), KDZK_UNSUPPORTED) << flags;
    EXPECT_EQ(out.nrows, 7u);
    expect_exec(exec, fresh_exec(), 0, 0, fresh_exec().part);
  }
}

}  // namespace
}  // namespace kdzk_test

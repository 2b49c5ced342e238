// SPDX-License-Identifier: Apache-2.0
// Hash partitioning, every layout, form of keys and source of ids or payloads, against a model that knows each row's
// hash and record and puts the records into buffers one after the other.
//
// The model tells what one call does to given buffers: what they hold then, byte for byte, how far the cursors are,
// what the call returns and leaves in its kdzk_exec, and how often it asks for a hash. One and the same comparison
// serves calls with ample room and those with hardly any.

#include <gtest/gtest.h>

#include <memory>

#include "tests/support/streams.h"
#include "tests/support/value_columns.h"

namespace kdzk_test {
namespace {

constexpr uint32_t records = KDZK_LEN_PREFIXED | KDZK_NUMERIC;  // a key form: records C of an earlier pass
constexpr uint64_t unlimited = ~uint64_t{0};

struct Leaf {
  char layout;
  uint32_t key_form;
  uint32_t source;  // of ids: KDZK_IMPLICIT_IDS or 0; of payloads: their form
};

std::vector<Leaf> leaves() {
  std::vector<Leaf> leaves = {{'A', KDZK_KEYED16, 0}, {'C', records, 0}};
  std::vector<uint32_t> key_forms(std::begin(forms_of_values), std::end(forms_of_values));
  key_forms.push_back(KDZK_NUMERIC);
  for (const uint32_t ids : {KDZK_IMPLICIT_IDS, 0u}) {
    for (const uint32_t form : key_forms) leaves.push_back({'A', form, ids});
    leaves.push_back({'B', KDZK_HASH_U32, ids});
  }
  for (const uint32_t form : key_forms) {
    for (const uint32_t payload : forms_of_values) leaves.push_back({'C', form, payload});
    leaves.push_back({'D', form, KDZK_FIXED_BYTES});
  }
  return leaves;
}

uint8_t flags_of(char layout) {
  return static_cast<uint8_t>(layout == 'A' ? 0x09 : layout == 'B' ? 0x29 : layout == 'C' ? 0x0a : 0x0c);
}

constexpr uint8_t garbage = 0x5b;  // what buffers hold; in layout B, some of it stays in the records

struct Row {
  uint64_t hash;
  Bytes record;
};

// The columns of a call, and what should become of each row.
struct Input {
  Leaf leaf;
  const bool again = leaf.key_form == KDZK_KEYED16 || leaf.key_form == records;  // records of an earlier pass
  const bool hashes = !again && leaf.key_form != KDZK_NUMERIC;                   // whether the callback is called
  std::unique_ptr<ValueColumn> keys, source;
  uint16_t payload_size;
  std::vector<Row> rows;
  std::vector<uint64_t> key_positions, payload_positions;  // empty if the leaf has none

  Input(const Leaf& l, uint32_t n, Random& random) : leaf(l), rows(n) {
    payload_size = static_cast<uint16_t>(random.below(3) == 0 ? random.below(300) : random.below(36));
    const uint64_t rowbase = random.bits();
    const auto ids = random_values(KDZK_NUMERIC, n, 0, random);
    const auto payloads = again ? std::vector<Bytes>() : make_source(n, ids, rowbase, random);
    make_keys(n, random);
    for (uint32_t i = 0; i < n && !again; i++) {
      Bytes id, &record = rows[i].record;
      append(id, rowbase + i);
      if (leaf.source != KDZK_IMPLICIT_IDS) id = ids[i];
      if (leaf.layout == 'A') append(record, id);
      if (leaf.layout == 'C') append(record, static_cast<uint16_t>(payloads[i].size() + 8));
      append(record, rows[i].hash);
      if (leaf.layout == 'B') {
        append(record, get<uint32_t>(static_cast<const uint8_t*>(keys->vec.data) + i * 4));
        record.insert(record.end(), 4, garbage);
        append(record, id);
      }
      if (leaf.layout == 'C' || leaf.layout == 'D') append(record, payloads[i]);
    }
  }
  Input(const Input&) = delete;

 private:
  // The ids or payloads; returns what is copied of each payload.
  std::vector<Bytes> make_source(uint32_t n, const std::vector<Bytes>& ids, uint64_t rowbase, Random& random) {
    const auto size = static_cast<uint32_t>(random.below(32));
    std::vector<Bytes> payloads;
    if (leaf.layout == 'A' || leaf.layout == 'B') {
      source = std::make_unique<ValueColumn>(KDZK_NUMERIC, ids, random);
      source->enc.flags = leaf.source | KDZK_NUMERIC;
    } else if (leaf.layout == 'C') {
      payloads = random_values(leaf.source, n, size, random);
      if (leaf.source != KDZK_FIXED_BYTES && n == 60) payloads[n / 3].assign(65527, 0x3d);
      source = std::make_unique<ValueColumn>(leaf.source, payloads, random);
      if (leaf.source == KDZK_LEN_ARRAY || leaf.source == KDZK_LEN_PREFIXED) payload_positions = source->positions();
      for (const uint32_t other : forms_of_values)
        source->enc.flags |= other > leaf.source && random.below(2) == 0 ? other : 0;
    } else {  // the size copied is another than the distance from one to the next
      const Bytes stream = random_bytes(size_t{n} * size + payload_size, random);
      source = std::make_unique<ValueColumn>(KDZK_LEN_ARRAY, std::vector<Bytes>{stream}, random);
      source->enc.flags = leaf.source;
      source->enc.width = static_cast<uint8_t>(size * 8);
      for (uint32_t i = 0; i < n; i++) {
        const auto first = stream.begin() + static_cast<long>(size) * i;
        payloads.push_back(Bytes(first, first + payload_size));
      }
    }
    source->vec.rowbase = rowbase;
    if (leaf.source == KDZK_IMPLICIT_IDS) source->vec.data = nullptr;
    return payloads;
  }

  void make_keys(uint32_t n, Random& random) {
    std::vector<Bytes> values = random_values(leaf.key_form, n, static_cast<uint32_t>(random.below(32)), random);
    uint32_t stored_as = leaf.key_form;
    for (uint32_t i = 0; i < n; i++) {
      Row& row = rows[i];
      row.hash = hashes ? plain_hash(values[i].data(), static_cast<uint32_t>(values[i].size()), 0) : random.bits();
      Bytes hash;
      append(hash, row.hash);
      if (leaf.key_form == KDZK_NUMERIC) values[i] = hash;
      if (leaf.key_form == KDZK_KEYED16) {
        stored_as = KDZK_NUMERIC;
        append(row.record, random.bits());
        append(row.record, hash);
        values[i] = row.record;
      }
      if (leaf.key_form == records) {  // a hash, and a payload of any length
        stored_as = KDZK_LEN_PREFIXED;
        append(hash, values[i]);
        if (i == n / 2 && n == 60) hash.resize(65535, 0x4e);
        values[i] = hash;
        append(row.record, static_cast<uint16_t>(hash.size()));
        append(row.record, hash);
      }
    }
    keys = std::make_unique<ValueColumn>(stored_as, values, random);
    keys->enc.flags = leaf.key_form;
    if (stored_as == KDZK_LEN_ARRAY || stored_as == KDZK_LEN_PREFIXED) key_positions = keys->positions();
    // Flags that are looked for later have no influence. In layout A, KDZK_KEYED16 comes before KDZK_NUMERIC; in layout
    // C, KDZK_NUMERIC makes records of KDZK_LEN_PREFIXED.
    if (leaf.key_form == KDZK_NUMERIC || leaf.key_form == KDZK_HASH_U32) return;
    if (leaf.layout == 'C' && again) {
      keys->enc.flags |= KDZK_FIXED_BYTES | KDZK_LEN_ARRAY;
      return;
    }
    for (const uint32_t other : forms_of_values)
      keys->enc.flags |= !again && other > leaf.key_form && random.below(2) == 0 ? other : 0;
    const bool prefixed = (keys->enc.flags & KDZK_LEN_PREFIXED) != 0;
    if ((leaf.layout != 'C' || !prefixed) && random.below(2) == 0) keys->enc.flags |= KDZK_NUMERIC;
  }
};

uint64_t partition_of(uint64_t hash, const kdzk_partdesc& desc) {
  const uint64_t mask = desc.part_hi == 63 ? ~uint64_t{0} : (uint64_t{1} << (desc.part_hi + 1)) - 1;
  return (hash & mask) >> desc.part_lo;
}

// One call with this much room in each partition's buffer, compared with the model. Returns where the next one begins.
uint32_t call_and_compare(Input& input, kdzk_partdesc desc, kdzk_exec& exec, const std::vector<uint64_t>& rooms) {
  const auto n = static_cast<uint32_t>(input.rows.size());
  // The model.
  std::vector<Bytes> buffers(rooms.size());
  const uint32_t first = exec.row;
  uint32_t row = first;
  uint64_t part = exec.part, calls = 0;
  bool full = false;
  for (; row < n; row++) {
    if (input.hashes && (row - first) % 1024 == 0) calls += std::min(n - row, 1024u);
    const Row& r = input.rows[row];
    const uint64_t p = partition_of(r.hash, desc);
    full = rooms[p] - buffers[p].size() < r.record.size();
    if (full) part = p;
    if (full) break;
    append(buffers[p], r.record);
  }
  kdzk_exec want = exec;
  want.row = row;
  want.part = static_cast<uint32_t>(part);
  if (!input.key_positions.empty() && first < n) want.key_off = input.key_positions[row];
  if (!input.payload_positions.empty() && first < n) want.payload_off = input.payload_positions[row];
  // The library.
  std::vector<uint8_t*> starts, cursors, limits;
  std::deque<GuardedBuffer> memory;
  for (size_t p = 0; p < rooms.size(); p++) {
    const uint64_t size = rooms[p] == unlimited ? buffers[p].size() : rooms[p];
    starts.push_back(memory.emplace_back(size, 0, garbage).data());
    limits.push_back(rooms[p] == unlimited ? nullptr : starts[p] + size);
  }
  cursors = starts;
  desc.cursors = cursors.data();
  desc.limits = limits.data();
  hash_calls = 0;
  EXPECT_EQ(library().partition_rows(&desc, &input.keys->vec, input.again ? nullptr : &input.source->vec,
                                     input.hashes ? plain_hash : nullptr, &exec),
            full ? KDZK_PARTITION_FULL : KDZK_DONE);
  EXPECT_EQ(hash_calls, calls);
  EXPECT_TRUE(same_bytes(exec, want)) << "row " << exec.row << ", not " << row;
  for (size_t p = 0; p < rooms.size(); p++) {
    EXPECT_EQ(cursors[p], starts[p] + buffers[p].size()) << p;
    buffers[p].resize(memory[p].size(), garbage);
    EXPECT_TRUE(std::equal(buffers[p].begin(), buffers[p].end(), starts[p])) << p;
  }
  return full ? row : n;
}

class Partition : public testing::TestWithParam<Leaf> {};

std::string name_of_leaf(const testing::TestParamInfo<Leaf>& info) {
  return std::string(1, info.param.layout) + "_" + form_name(info.param.key_form) + "_" + form_name(info.param.source);
}

TEST_P(Partition, AgreesWithTheModelInEveryCall) {
  const Leaf leaf = GetParam();
  const std::string name = name_of_leaf({leaf, 0});
  Random random("partition" + name);
  for (const auto& [hi, lo] : {std::pair(63, 61), {63, 63}, {2, 0}, {34, 31}, {47, 40}}) {
    const size_t partitions = size_t{2} << (hi - lo);
    for (const uint32_t n : {0u, 1u, 5u, 60u, 1024u, 1025u, 2500u}) {
      const Case now(Message() << name << ", bits " << lo << " to " << hi << ", " << n << " rows", random);
      Input input(leaf, n, random);
      kdzk_partdesc desc{.leading = 0xffffffff, .flags = flags_of(leaf.layout)};
      if (leaf.key_form == records || leaf.layout < 'C') desc.flags |= static_cast<uint8_t>(0x10 * random.below(2));
      desc.part_hi = static_cast<uint8_t>(hi);
      desc.part_lo = static_cast<uint8_t>(lo);
      desc.payload_size = input.payload_size;
      uint64_t longest = 0;
      std::vector<uint64_t> total(partitions);  // bytes of each partition's records
      for (const Row& row : input.rows) {
        longest = std::max<uint64_t>(longest, row.record.size());
        total[partition_of(row.hash, desc)] += row.record.size();
      }
      enum { ample, no_limits, two_stops, tiny };
      for (const int room : {ample, no_limits, two_stops, tiny}) {
        if (room == tiny && n > 60 && (n != 2500 || partitions > 8)) continue;
        kdzk_exec exec{.part = 4711};
        if (input.key_positions.empty()) exec.key_off = 0x1111;  // not looked at
        if (input.payload_positions.empty()) exec.payload_off = 0x2222;
        std::vector<uint64_t> rooms(partitions);
        for (uint32_t row = 0, stops = 0; row < n || stops == 0; stops++) {
          for (size_t p = 0; p < partitions; p++) {
            rooms[p] = room == no_limits                ? unlimited
                       : room == tiny                   ? random.below(n > 60 ? 2000 : 300)
                       : room == two_stops && stops < 2 ? total[p] / 3
                                                        : total[p];
          }
          if (stops > 0 && room == tiny) rooms[exec.part] = random.below(2) * random.below(300) + longest;
          row = call_and_compare(input, desc, exec, rooms);
          if (HasFailure()) return;
        }
        if (room == ample) call_and_compare(input, desc, exec, rooms);  // nothing is left to do
        if (HasFailure()) return;
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Leaves, Partition, testing::ValuesIn(leaves()), name_of_leaf);

// Which combinations of flags there is a leaf for, told by calls without rows, in which nothing else matters.
TEST(PartitionForms, AreThoseOfTheMatrix) {
  EXPECT_EQ(leaves().size(), 13u + 2 + 31 + 6);
  const uint32_t key_flags[] = {KDZK_FIXED_BYTES, KDZK_LEN_ARRAY, KDZK_LEN_PREFIXED,
                                KDZK_PTR_LEN,     KDZK_PAIR16,    KDZK_NUMERIC,
                                KDZK_KEYED16,     KDZK_HASH_U32,  KDZK_KEYED24 | KDZK_PACKED_DICT};
  uint32_t any_value = 0;
  for (const uint32_t form : forms_of_values) any_value |= form;
  kdzk_enc_ctx key_enc{}, row_enc{};
  kdzk_vec keys{.enc_ctx = &key_enc};
  kdzk_vec rows{.enc_ctx = &row_enc};
  kdzk_partdesc desc{};
  for (uint32_t flags = 0; flags < 256; flags++) {
    desc.flags = static_cast<uint8_t>(flags);
    for (uint32_t key_set = 0; key_set < 512; key_set++) {
      uint32_t k = 0;
      for (int i = 0; i < 9; i++) k |= (key_set >> i & 1) != 0 ? key_flags[i] : 0;
      for (uint32_t row_set = 0; row_set < 64; row_set++) {
        uint32_t r = (row_set & 32) != 0 ? KDZK_IMPLICIT_IDS | KDZK_NUMERIC : 0;
        for (int i = 0; i < 5; i++) r |= (row_set >> i & 1) != 0 ? key_flags[i] : 0;
        bool leaf = false;
        if ((flags & 0x29) == 0x29) {
          leaf = (k & KDZK_HASH_U32) != 0;
        } else if ((flags & 0x09) == 0x09) {
          leaf = (k & (any_value | KDZK_KEYED16 | KDZK_NUMERIC)) != 0;
        } else if ((flags & 0x0a) == 0x0a) {
          leaf = (k & records) == records ||
                 ((flags & 0x10) == 0 && (k & (any_value | KDZK_NUMERIC)) != 0 && (r & any_value) != 0);
        } else if ((flags & 0x0c) == 0x0c) {
          leaf = (flags & 0x10) == 0 && (k & (any_value | KDZK_NUMERIC)) != 0 && (r & KDZK_FIXED_BYTES) != 0;
        }
        key_enc.flags = k;
        row_enc.flags = r;
        kdzk_exec exec{.part = 3, .row = 5};
        exec.key_off = 7;
        exec.payload_off = 9;
        kdzk_exec want = exec;
        if (leaf) want.row = 0;
        ASSERT_EQ(library().partition_rows(&desc, &keys, &rows, nullptr, &exec), leaf ? KDZK_DONE : KDZK_UNSUPPORTED)
            << std::hex << flags << " " << k << " " << r;
        ASSERT_TRUE(same_bytes(exec, want));
      }
    }
  }
}

// A fixed column's position is taken modulo 2^32: row 2^28 of 16 bytes a row is at its beginning.
TEST(PartitionForms, TakesPositionsOfFixedColumnsModulo32Bits) {
  Random random("partition_4gib");
  const auto values = random_values(KDZK_FIXED_BYTES, 3, 16, random);
  ValueColumn column(KDZK_FIXED_BYTES, values, random);
  column.vec.nrows = (1u << 28) + 3;
  GuardedBuffer first(3 * 24), second(3 * 24);
  uint8_t *cursors[2] = {first.data(), second.data()}, *limits[2] = {nullptr, nullptr};
  kdzk_partdesc desc{.flags = 0x0c, .payload_size = 16, .cursors = cursors, .limits = limits};
  kdzk_exec exec{.row = 1u << 28};
  std::vector<Bytes> want(2);
  for (const Bytes& value : values) {
    const uint64_t hash = plain_hash(value.data(), 16, 0);
    append(want[hash & 1], hash);
    append(want[hash & 1], value);
  }
  EXPECT_EQ(library().partition_rows(&desc, &column.vec, &column.vec, plain_hash, &exec), KDZK_DONE);
  EXPECT_EQ(exec.row, column.vec.nrows);
  EXPECT_EQ(Bytes(first.data(), cursors[0]), want[0]);
  EXPECT_EQ(Bytes(second.data(), cursors[1]), want[1]);
}

}  // namespace
}  // namespace kdzk_test

// SPDX-License-Identifier: Apache-2.0
// The walk-throughs of docs/formats: writers give the bytes that stand there, and kernels and services read them as the
// pages say. Formats with a test of their own have theirs beside it.

#include <gtest/gtest.h>
#include <kdzk/host.h>

#include <cstring>

#include "tests/support/format_docs.h"
#include "tests/support/host.h"
#include "tests/support/kernel_of.h"

namespace kdzk_test {
namespace {

using Bytes = std::vector<uint8_t>;
using Rows = std::vector<uint32_t>;

Rows rows_of(uint64_t bits, uint32_t nrows) {
  Rows rows;
  for (uint32_t row = 0; row < nrows; row++) {
    if ((bits >> row & 1) != 0) rows.push_back(row);
  }
  return rows;
}

// The rows of a column of up to 64 that are equal to a constant.
struct Column {
  GuardedBuffer data;
  GuardedBuffer lengths;
  kdzk_enc_ctx enc{};

  Column(const Bytes& bytes, const Bytes& codes, uint8_t width) : data(bytes), lengths(codes) { enc.width = width; }

  Rows equal(uint32_t form, uint32_t width, Bytes constant, uint8_t code, uint32_t nrows) {
    kdzk_vec input{}, result{};
    uint64_t bits = ~uint64_t{0};
    input.data = data.data();
    input.lengths = lengths.data();
    input.enc_ctx = &enc;
    input.nrows = result.nrows = nrows;
    result.bitvec = &bits;
    constant.resize(8);
    kdzk_kargs k{};
    k.data = constant.data();
    k.lengths = &code;
    k.enc_ctx = &enc;
    kernel_of(KDZK_OP_EQ, form, width).compare(&result, &input, &k, nullptr);
    return rows_of(bits, nrows);
  }
};

TEST(PackedCodesFormat, IsAsDescribed) {
  const Bytes stream = documented_bytes("packed_codes.md").at("stream");
  const std::vector<uint32_t> codes = {7, 0, 12, 3, 31, 9, 0, 5};
  Bytes packed(kdzk_host_packed_bytes(codes.size(), 5));
  kdzk_host_pack(codes.data(), codes.size(), 5, packed.data());
  EXPECT_EQ(packed, stream);
  EXPECT_EQ(Column(stream, {}, 5).equal(KDZK_HOST_FORM_DICT, 5, {31}, 0, 8), Rows{4});
}

TEST(BitVectorFormat, IsAsDescribed) {
  const auto documented = documented_bytes("bit_vectors.md");
  const Bytes& vector = documented.at("vector");
  ASSERT_EQ(vector.size(), 16u);
  for (const kdzk_bv_services* bv : {&library().bv8, &library().bv64}) {
    uint64_t words[2] = {};
    for (const uint64_t row : {0, 3, 64, 69}) bv->set_range(words, row, row);
    EXPECT_EQ(std::memcmp(words, vector.data(), 16), 0);
  }
  const std::vector<uint32_t> codes = [] {
    std::vector<uint32_t> rows(70);
    rows[0] = rows[3] = rows[64] = rows[69] = 1;
    return rows;
  }();
  Bytes packed(kdzk_host_packed_bytes(70, 1));
  kdzk_host_pack(codes.data(), 70, 1, packed.data());
  EXPECT_EQ(packed, documented.at("codes"));
}

TEST(ValuesFormat, IsAsDescribed) {
  const auto documented = documented_bytes("values.md");
  const Bytes &fixed = documented.at("fixed"), &dynp = documented.at("dynp"), &lengths = documented.at("lengths");
  ASSERT_EQ(fixed.size(), 20u);
  const std::vector<Rows> same_value = {{0}, {1, 3}, {2}, {1, 3}, {4}};
  const uint8_t codes[5] = {1, 0, 2, 1, 1};
  Bytes cut, narrow;
  for (uint32_t row = 0; row < 5; row++) {
    const Bytes value(&fixed[4 * row], &fixed[4 * row] + 4);
    cut.insert(cut.end(), value.begin(), value.begin() + codes[row] + 1);
    narrow.insert(narrow.end(), value.begin(), value.begin() + 3);
    EXPECT_EQ(Column(fixed, {}, 32).equal(KDZK_HOST_FORM_FIXED, 32, value, 0, 5), same_value[row]);
    EXPECT_EQ(Column(dynp, lengths, 32).equal(KDZK_HOST_FORM_DYNP, 32, value, 0, 5), same_value[row]);
    EXPECT_EQ(Column(dynp, lengths, 32).equal(KDZK_HOST_FORM_DYNP_TZ, 32, value, codes[row], 5), Rows{row});
    EXPECT_EQ(Column(fixed, lengths, 32).equal(KDZK_HOST_FORM_FIXED_TZ, 32, value, codes[row], 5), Rows{row});
    EXPECT_EQ(Column(documented.at("fixed24"), {}, 24).equal(KDZK_HOST_FORM_FIXED, 32, value, 0, 5), same_value[row]);
  }
  EXPECT_EQ(dynp, cut);
  const uint32_t of_two_bits[5] = {1, 0, 2, 1, 1};
  Bytes packed(2);
  kdzk_host_pack(of_two_bits, 5, 2, packed.data());
  EXPECT_EQ(lengths, packed);
  EXPECT_EQ(documented.at("fixed24"), narrow);
  EXPECT_EQ(kdzk_host_check_lengths(lengths.data(), lengths.size(), 5, 32, dynp.size(), nullptr), KDZK_HOST_DONE);
}

TEST(DictionaryFormat, IsAsDescribed) {
  const auto documented = documented_bytes("dictionaries.md");
  const auto symbols = [](kdzk_enc_ctx enc, std::vector<uint8_t> codes) {
    kdzk_vec input{}, result{};
    kdzk_exec exec{};
    input.data = codes.data();
    input.enc_ctx = &enc;
    input.nrows = static_cast<uint32_t>(codes.size());
    std::vector<uint64_t> addresses(codes.size());
    std::vector<uint16_t> lengths(codes.size()), indicators(codes.size());
    result.data = addresses.data();
    result.lengths = lengths.data();
    result.indicators = indicators.data();
    EXPECT_EQ(kernel_of(KDZK_OP_DECODE_SYMBOL, KDZK_HOST_FORM_DICT, 8).decode(&result, &input, &exec), KDZK_DONE);
    std::vector<std::string> texts;
    for (size_t i = 0; i < codes.size(); i++) {
      texts.emplace_back(reinterpret_cast<const char*>(addresses[i]), lengths[i]);
    }
    return texts;
  };
  kdzk_enc_ctx enc{};
  enc.base = documented.at("symbols").data();
  enc.offsets = documented.at("offsets").data();
  enc.dict_size = 4;
  enc.dict_mode = 1;
  EXPECT_EQ(symbols(enc, {0, 1, 2, 3}), (std::vector<std::string>{"", "Gray", "blue", "red"}));
  EXPECT_EQ(kdzk_host_check_offsets(enc.offsets, documented.at("offsets").size(), 4, documented.at("symbols").size(),
                                    nullptr),
            KDZK_HOST_DONE);
  enc.base = documented.at("fixed-symbols").data();
  enc.value_len = documented.at("value_len").data();
  enc.dict_size = 3;
  enc.dict_mode = 0;
  EXPECT_EQ(symbols(enc, {2, 0, 1}), (std::vector<std::string>{"SFO", "ATL", "DEN"}));

  const kdzk_host_text texts[4] = {{"red", 3}, {nullptr, 0}, {"blue", 4}, {"Gray", 4}};
  const uint64_t nulls = 1 << 1;
  const kdzk_host_values values = {KDZK_HOST_TEXT, 4, texts, &nulls};
  kdzk_host_coder* const coder = kdzk_host_coder_new(KDZK_HOST_TEXT);
  ASSERT_EQ(kdzk_host_coder_add(coder, &values), KDZK_HOST_DONE);
  ASSERT_EQ(kdzk_host_coder_finish(coder, KDZK_HOST_NULL_IF_SEEN), KDZK_HOST_DONE);
  const kdzk_host_dictionary* const made = kdzk_host_coder_dictionary(coder);
  EXPECT_EQ(Bytes(made->bytes, made->bytes + made->bytes_size), documented.at("stored"));
  kdzk_host_coder_free(coder);
}

TEST(TableFormat, IsAsDescribed) {
  const auto documented = documented_bytes("tables.md");
  Bytes stream(3 + KDZK_PADDING);
  const uint32_t packed[8] = {0, 1, 2, 3, 4, 5, 6, 7};
  kdzk_host_pack(packed, 8, 3, stream.data());
  kdzk_enc_ctx enc{};
  enc.width = 3;
  kdzk_vec input{}, table{}, result{};
  input.data = stream.data();
  input.enc_ctx = &enc;
  input.nrows = result.nrows = 8;
  uint64_t bits = 0, words;
  result.bitvec = &bits;
  ASSERT_EQ(documented.at("set").size(), sizeof words);
  std::memcpy(&words, documented.at("set").data(), sizeof words);
  EXPECT_EQ(words, 1u << 2 | 1u << 5 | 1u << 6);
  table.bitvec = &words;
  kernel_of(KDZK_OP_SET, KDZK_HOST_FORM_DICT, 3).set(&result, &input, &table, nullptr);
  EXPECT_EQ(rows_of(bits, 8), (Rows{2, 5, 6}));

  // The elements of codes 0 to 5, by the kernel that also stores them; `bit` has none such.
  const int64_t codes[6] = {0, 1, 2, 3, 4, 5};
  Bytes wide(24 + KDZK_PADDING);
  kdzk_host_write_integers(codes, 6, 32, wide.data());
  enc.flags = KDZK_NUMERIC;
  enc.width = 32;
  input.data = wide.data();
  input.nrows = 6;
  kdzk_hit_range range;
  result.data = &range;
  const uint32_t none = ~0u, values[] = {3, none, 1, 2, none, 4, none, none};
  const std::pair<const char*, uint32_t> forms[] = {{"bit", 1}, {"nib", 4}, {"ub1", 8}, {"ub2", 16}, {"ub4", 32}};
  for (const auto& [name, width] : forms) {
    Bytes elements = documented.at(name), stored(elements.size());
    Bytes written(elements.size());  // `bit` has a whole byte
    for (uint32_t i = 0; i < elements.size() * 8; i++) {
      const uint32_t value = width == 1 && values[i] != none ? 0 : values[i / width];
      written[i / 8] |= static_cast<uint8_t>((value >> i % width & 1) << i % 8);
    }
    EXPECT_EQ(elements, written) << name;
    table.bitvec = reinterpret_cast<uint64_t*>(elements.data());
    kdzk_exec exec{};
    exec.xlate_map = stored.data();
    bits = 0;
    const uint32_t form = width == 1 ? KDZK_HOST_FORM_SIM : KDZK_HOST_FORM_SIM_C2D;
    EXPECT_EQ(kernel_of(KDZK_OP_XLATE, form, width).xlate(&result, &input, &table, &exec), KDZK_DONE);
    EXPECT_EQ(rows_of(bits, 6), (Rows{0, 2, 3, 5})) << name;
    if (width != 1) {
      EXPECT_EQ(stored, elements) << name;
    }
  }

  Bytes pages[2] = {documented.at("page0"), documented.at("page1")}, stored(6);
  const uint64_t addresses[3] = {reinterpret_cast<uint64_t>(pages[0].data()),
                                 reinterpret_cast<uint64_t>(pages[1].data()), 0};
  kdzk_enc_ctx paged{};
  paged.page_shift = 2;
  paged.page_mask = 3;
  table.enc_ctx = &paged;
  table.bitvec = const_cast<uint64_t*>(addresses);
  kdzk_exec exec{};
  exec.xlate_map = stored.data();
  bits = 0;
  kernel_of(KDZK_OP_XLATE, KDZK_HOST_FORM_IND_C2D, 8).xlate(&result, &input, &table, &exec);
  EXPECT_EQ(stored, documented.at("ub1"));
  EXPECT_EQ(Bytes(pages[1].begin() + 2, pages[1].end()), Bytes(2, 0xff));
}

TEST(BloomFormat, IsAsDescribed) {
  const auto documented = documented_bytes("bloom.md");
  const int64_t keys[3] = {17, 4711, 90210};
  Bytes stream(12), page0(8), page1(8);
  kdzk_host_write_integers(keys, 3, 32, stream.data());
  EXPECT_EQ(stream, documented.at("keys"));
  kdzk_enc_ctx enc{};
  kdzk_vec filter{};
  filter.enc_ctx = &enc;
  kdzk_host_bloom_shape(&enc, 63, 0);
  filter.bitvec = reinterpret_cast<uint64_t*>(page0.data());
  kdzk_host_bloom_add_values(&filter, stream.data(), 3);
  EXPECT_EQ(page0, documented.at("flat"));

  kdzk_host_bloom_shape(&enc, 127, 8);
  EXPECT_EQ(enc.page_shift, 6u);
  EXPECT_EQ(enc.page_mask, 63u);
  page0.assign(8, 0);
  uint8_t* pages[2] = {page0.data(), page1.data()};
  filter.bitvec = reinterpret_cast<uint64_t*>(pages);
  kdzk_host_bloom_add_values(&filter, stream.data(), 3);
  EXPECT_EQ(page0, documented.at("page0"));
  EXPECT_EQ(page1, documented.at("page1"));
}

uint64_t documented_hash(const void*, uint32_t, uint64_t) { return 0x1122334455667788; }

TEST(PartitionRecordFormat, IsAsDescribed) {
  const auto documented = documented_bytes("partition_records.md");
  uint32_t key = 11;
  uint64_t id = 100;
  Bytes payload = {'o', 'a', 'k', 's'};
  payload.resize(payload.size() + KDZK_PADDING);
  const std::pair<const char*, uint8_t> layouts[] = {
      {"A", KDZK_PART_A}, {"B", KDZK_PART_B}, {"C", KDZK_PART_C}, {"D", KDZK_PART_D}};
  for (const auto& [name, flags] : layouts) {
    const bool has_id = flags == KDZK_PART_A || flags == KDZK_PART_B;
    kdzk_enc_ctx key_enc{}, row_enc{};
    key_enc.flags = flags == KDZK_PART_B ? KDZK_HASH_U32 : KDZK_FIXED_BYTES;
    row_enc.flags = KDZK_FIXED_BYTES;
    key_enc.width = row_enc.width = 32;
    kdzk_vec keys{}, rows{};
    keys.data = &key;
    keys.enc_ctx = &key_enc;
    keys.nrows = 1;
    rows.data = has_id ? static_cast<void*>(&id) : payload.data();
    if (has_id) row_enc.flags = 0;
    rows.enc_ctx = &row_enc;
    Bytes record(documented.at(name).size(), 0xee);
    uint8_t* cursor = record.data();
    uint8_t* const limit = record.data() + record.size();
    kdzk_partdesc desc{};
    desc.flags = flags;
    desc.payload_size = 4;
    desc.cursors = &cursor;
    desc.limits = &limit;
    desc.part_lo = desc.part_hi = 0;  // a clear bit of the hash
    kdzk_exec exec{};
    ASSERT_EQ(library().partition_rows(&desc, &keys, &rows, documented_hash, &exec), KDZK_DONE) << name;
    EXPECT_EQ(cursor, limit) << name;
    EXPECT_EQ(record, documented.at(name)) << name;
  }
}

TEST(HashBucketFormat, IsAsDescribed) {
  const auto documented = documented_bytes("hash_buckets.md");
  const uint64_t base = 0xaabbccdcddee0000;
  uint64_t hashes[5] = {base + 7, base + 0x15, base + 7, base + 1, base + 2};
  const auto hash = [](const void*, uint32_t, uint64_t) -> uint64_t { return 0; };
  for (const uint32_t flags : {1u, 2u, 4u, 8u}) {
    Bytes buckets(2 * 64), overflow(64);
    uint8_t *const table = buckets.data(), *cursor = overflow.data(), *const limit = cursor + 64;
    kdzk_htdesc desc{};
    desc.flags = flags;
    desc.bucket_hi = desc.dir_hi = flags <= 2 ? 16 : 32;
    desc.tables = &table;
    desc.cursors = &cursor;
    desc.limits = &limit;
    kdzk_enc_ctx numeric{}, ids{};
    numeric.flags = KDZK_NUMERIC;
    ids.flags = KDZK_IMPLICIT_IDS;
    kdzk_vec keys{}, rows{};
    keys.data = hashes;
    keys.enc_ctx = &numeric;
    keys.nrows = 3;
    rows.enc_ctx = &ids;
    rows.rowbase = 100;
    kdzk_exec exec{};
    ASSERT_EQ(library().ht_build(&desc, &keys, &rows, 0, hash, &exec), KDZK_DONE);
    EXPECT_EQ(Bytes(table, table + 64), documented.at("form" + std::to_string(flags)));

    uint64_t pairs[4][2];
    kdzk_vec out{}, asked = keys;
    out.data = pairs;
    out.nrows = 4;
    asked.data = &hashes[1];
    asked.nrows = 1;
    rows.rowbase = 5;
    exec = {};
    ASSERT_EQ(library().ht_probe(&out, &asked, &rows, &desc, hash, &exec), KDZK_DONE);
    EXPECT_EQ(out.nrows, 1u);
    EXPECT_EQ(std::memcmp(pairs, documented.at("pair").data(), 16), 0);

    if (flags != 4) continue;  // what the page says about headers
    std::fill(buckets.begin(), buckets.end(), 0);
    keys.data = &hashes[1];
    exec = {};
    ASSERT_EQ(library().ht_build(&desc, &keys, &rows, 0, hash, &exec), KDZK_DONE);
    EXPECT_EQ(table[0], 0x43);
    std::fill(buckets.begin(), buckets.end(), 0);
    keys.data = hashes;
    keys.nrows = 5;
    exec = {};
    ASSERT_EQ(library().ht_build(&desc, &keys, &rows, 0, hash, &exec), KDZK_DONE);
    EXPECT_EQ(table[0], 0x84);
    EXPECT_EQ(overflow[0], 0x41);
  }
}

// The values of locators, back to back, and their lengths.
std::pair<std::string, std::vector<uint16_t>> gathered(const kdzk_rowstore& store,
                                                       const std::vector<uint16_t>& locators,
                                                       const kdzk_enc_ctx& refs = {}) {
  std::vector<uint16_t> padded = locators, lengths(locators.size());
  padded.resize(locators.size() + KDZK_PADDING);
  kdzk_enc_ctx fixed{}, bytes = refs;
  fixed.flags = KDZK_FIXED_BYTES;
  fixed.width = 16;
  bytes.flags = KDZK_LEN_ARRAY;
  kdzk_vec in{}, out{};
  in.data = padded.data();
  in.enc_ctx = &fixed;
  in.nrows = static_cast<uint32_t>(locators.size());
  char text[64];
  out.data = text;
  out.lengths = lengths.data();
  out.enc_ctx = &bytes;
  out.out_size = sizeof text;
  kdzk_exec exec{};
  EXPECT_EQ(library().ht_gather(&out, &in, &store, &exec), KDZK_DONE);
  size_t size = 0;
  for (const uint16_t length : lengths) size += length;
  return {std::string(text, size), lengths};
}

TEST(RowStoreFormat, IsAsDescribed) {
  auto documented = documented_bytes("row_store.md");
  Bytes &values = documented.at("values"), &offsets = documented.at("offsets"), &refs = documented.at("refs");
  const std::pair<std::string, std::vector<uint16_t>> all = {"oakpine", {3, 0, 4}};

  kdzk_rowstore store{};
  uint8_t* const offset_pages[2] = {offsets.data(), offsets.data()};
  const uint64_t bases[2] = {reinterpret_cast<uint64_t>(values.data()), reinterpret_cast<uint64_t>(values.data())};
  store.flags = KDZK_STORE_OFFSETS;
  store.page_lo = 64;
  store.offsets = offset_pages;
  store.bases = bases;
  EXPECT_EQ(gathered(store, {0, 1, 2}), all);
  store.page_lo = store.page_hi = 8;
  std::vector<uint16_t> locators(2);
  ASSERT_EQ(documented.at("locators").size(), 4u);
  std::memcpy(locators.data(), documented.at("locators").data(), 4);
  EXPECT_EQ(locators, (std::vector<uint16_t>{0x102, 0x100}));
  EXPECT_EQ(gathered(store, locators), (std::pair<std::string, std::vector<uint16_t>>{"pineoak", {4, 3}}));

  const uint64_t words[3] = {0x12 << 16 | 3, 0x15 << 16, 0x15 << 16 | 4};
  EXPECT_EQ(refs, Bytes(reinterpret_cast<const uint8_t*>(words), reinterpret_cast<const uint8_t*>(words + 3)));
  Bytes page(18);
  page.insert(page.end(), values.begin(), values.end());
  const uint64_t ref_page = reinterpret_cast<uint64_t>(page.data());
  kdzk_enc_ctx resolved{};
  resolved.ref_bits = 16;
  resolved.ref_pages = &ref_page;
  uint8_t* const ref_pages[1] = {refs.data()};
  store.flags = KDZK_STORE_REFS;
  store.page_lo = 64;
  store.refs = ref_pages;
  EXPECT_EQ(gathered(store, {0, 1, 2}, resolved), all);

  // Two columns through a pair matrix into a page of rows.
  Bytes matrix(3 * 2 * 16), codes = {'a', '1', 'b', '2', 'c', '3'};
  uint8_t* matrices[1] = {matrix.data()};
  kdzk_rowstore pairs{};
  pairs.flags = KDZK_STORE_PAIRS;
  pairs.ncols = 2;
  pairs.page_lo = 64;
  pairs.pairs = pairs.pair_cursors = matrices;
  std::vector<uint16_t> lengths = all.second;
  kdzk_enc_ctx fixed{}, with_lengths{};
  fixed.flags = KDZK_FIXED_BYTES;
  fixed.width = 16;
  with_lengths.flags = KDZK_LEN_ARRAY;
  kdzk_vec column{};
  column.data = codes.data();
  column.enc_ctx = &fixed;
  column.nrows = 3;
  EXPECT_EQ(library().fill_pairs(&pairs, &column, 0, 0), KDZK_DONE);
  column.data = values.data();
  column.lengths = lengths.data();
  column.enc_ctx = &with_lengths;
  EXPECT_EQ(library().fill_pairs(&pairs, &column, 1, 0), KDZK_DONE);
  EXPECT_EQ(Bytes(matrix.begin() + 16, matrix.begin() + 18), (Bytes{3, 0}));
  EXPECT_EQ(gathered(pairs, {1, 3, 5}), all);

  Bytes rows(64), row_offsets(16);
  uint8_t *data_cursor = rows.data(), *offset_cursor = row_offsets.data(), *const data_limit = data_cursor + 64;
  kdzk_rowstore target{};
  target.flags = KDZK_STORE_OFFSETS | KDZK_STORE_ROWS;
  target.offset_cursors = &offset_cursor;
  target.data_cursors = &data_cursor;
  target.data_limits = &data_limit;
  kdzk_exec exec{};
  ASSERT_EQ(library().pack_rows(&target, &pairs, 0, 0, 0, 2, &exec), KDZK_DONE);
  EXPECT_EQ(Bytes(rows.data(), data_cursor), documented.at("rows"));
  EXPECT_EQ(Bytes(row_offsets.data(), offset_cursor), documented.at("row-offsets"));
}

}  // namespace
}  // namespace kdzk_test

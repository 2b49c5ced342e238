// SPDX-License-Identifier: Apache-2.0
// The walk-throughs of docs/formats: writers give the bytes that stand there, and kernels and services read them as the
// pages say. Formats with a test of their own have theirs beside it.

#include <kdzk/host.h>

#include "tests/support/format_docs.h"
#include "tests/support/small_call.h"

namespace kdzk_test {
namespace {

uint64_t address(const Bytes& bytes) { return reinterpret_cast<uint64_t>(bytes.data()); }

Bytes host_packed(const Codes& codes, uint32_t width) {
  Bytes bytes(kdzk_host_packed_bytes(codes.size(), width));
  kdzk_host_pack(codes.data(), codes.size(), width, bytes.data());
  return bytes;
}

TEST(PackedCodesFormat, IsAsDescribed) {
  const Bytes stream = documented_bytes("packed_codes.md").at("stream");
  EXPECT_EQ(host_packed({7, 0, 12, 3, 31, 9, 0, 5}, 5), stream);
  EXPECT_EQ(Call(stream, 5, 8).compare(KDZK_OP_EQ, 31), Rows{4});
}

TEST(BitVectorFormat, IsAsDescribed) {
  const auto documented = documented_bytes("bit_vectors.md");
  for (const kdzk_bv_services* bv : {&library().bv8, &library().bv64}) {
    std::vector<uint64_t> words(2);
    for (const uint64_t row : {0, 3, 64, 69}) bv->set_range(words.data(), row, row);
    EXPECT_EQ(bytes_of(words), documented.at("vector"));
  }
  Codes codes(70);
  for (const uint64_t row : {0, 3, 64, 69}) codes[row] = 1;
  EXPECT_EQ(host_packed(codes, 1), documented.at("codes"));
}

TEST(ValuesFormat, IsAsDescribed) {
  const auto documented = documented_bytes("values.md");
  const Bytes &fixed = documented.at("fixed"), &dynp = documented.at("dynp"), &lengths = documented.at("lengths");
  ASSERT_EQ(fixed.size(), 20u);
  const std::vector<Rows> same_value = {{0}, {1, 3}, {2}, {1, 3}, {4}};
  const Codes codes = {1, 0, 2, 1, 1};
  Bytes cut, narrow;
  for (uint32_t row = 0; row < 5; row++) {
    const auto code = static_cast<uint8_t>(codes[row]);
    const Bytes value(&fixed[4 * row], &fixed[4 * row] + 4);
    cut.insert(cut.end(), value.begin(), value.begin() + code + 1);
    narrow.insert(narrow.end(), value.begin(), value.begin() + 3);
    const auto equal = [&](const Bytes& column, uint8_t value_bits, uint32_t form) {
      Call call(column, value_bits, 5);
      call.width = 32;
      return call.with_lengths(lengths).compare_stored(KDZK_OP_EQ, value, form, code);
    };
    EXPECT_EQ(equal(fixed, 32, KDZK_HOST_FORM_FIXED), same_value[row]);
    EXPECT_EQ(equal(dynp, 32, KDZK_HOST_FORM_DYNP), same_value[row]);
    EXPECT_EQ(equal(dynp, 32, KDZK_HOST_FORM_DYNP_TZ), Rows{row});
    EXPECT_EQ(equal(fixed, 32, KDZK_HOST_FORM_FIXED_TZ), Rows{row});
    EXPECT_EQ(equal(documented.at("fixed24"), 24, KDZK_HOST_FORM_FIXED), same_value[row]);
  }
  EXPECT_EQ(dynp, cut);
  EXPECT_EQ(lengths, host_packed(codes, 2));
  EXPECT_EQ(documented.at("fixed24"), narrow);
  EXPECT_EQ(kdzk_host_check_lengths(lengths.data(), lengths.size(), 5, 32, dynp.size(), nullptr), KDZK_HOST_DONE);
}

TEST(DictionaryFormat, IsAsDescribed) {
  const auto documented = documented_bytes("dictionaries.md");
  const Bytes &symbols = documented.at("symbols"), &offsets = documented.at("offsets");
  const auto decoded = [](const kdzk_enc_ctx& enc, const Codes& codes) {
    Call call(codes, 8);
    call.enc = enc;
    return call.symbols(KDZK_OP_DECODE_SYMBOL);
  };
  EXPECT_EQ(decoded({.base = symbols.data(), .offsets = offsets.data(), .dict_size = 4, .dict_mode = 1}, {0, 1, 2, 3}),
            (Texts{"", "Gray", "blue", "red"}));
  EXPECT_EQ(kdzk_host_check_offsets(offsets.data(), offsets.size(), 4, symbols.size(), nullptr), KDZK_HOST_DONE);
  EXPECT_EQ(decoded({.base = documented.at("fixed-symbols").data(),
                     .value_len = documented.at("value_len").data(),
                     .dict_size = 3},
                    {2, 0, 1}),
            (Texts{"SFO", "ATL", "DEN"}));

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
  auto documented = documented_bytes("tables.md");
  EXPECT_EQ(documented.at("set"), bytes_of(std::vector<uint64_t>{1u << 2 | 1u << 5 | 1u << 6}));
  EXPECT_EQ(Call({0, 1, 2, 3, 4, 5, 6, 7}, 3).set(documented.at("set")[0]), (Rows{2, 5, 6}));

  // The elements of codes 0 to 5, by the kernel that also stores them; `bit` has none such.
  const auto translate = [](uint32_t form, uint32_t width, const kdzk_vec& table, Bytes* stored) {
    Call call(Codes{0, 1, 2, 3, 4, 5}, 32);
    call.enc.flags = KDZK_NUMERIC;
    call.exec.xlate_map = stored->data();
    call.bits = 0;
    kdzk_hit_range range;
    call.result.data = &range;
    EXPECT_EQ(kernel_of(KDZK_OP_XLATE, form, width).xlate(&call.result, &call.input, &table, &call.exec), KDZK_DONE);
    EXPECT_EQ(call.rows(), (Rows{0, 2, 3, 5})) << width;
  };
  const uint32_t none = ~0u, values[] = {3, none, 1, 2, none, 4, none, none};
  const std::pair<const char*, uint32_t> forms[] = {{"bit", 1}, {"nib", 4}, {"ub1", 8}, {"ub2", 16}, {"ub4", 32}};
  for (const auto& [name, width] : forms) {
    Bytes &elements = documented.at(name), stored(elements.size()), written(elements.size());
    for (uint32_t i = 0; i < elements.size() * 8; i++) {  // `bit` has a whole byte
      const uint32_t value = width == 1 && values[i] != none ? 0 : values[i / width];
      written[i / 8] |= static_cast<uint8_t>((value >> i % width & 1) << i % 8);
    }
    EXPECT_EQ(elements, written) << name;
    translate(width == 1 ? KDZK_HOST_FORM_SIM : KDZK_HOST_FORM_SIM_C2D, width,
              {.bitvec = reinterpret_cast<uint64_t*>(elements.data())}, &stored);
    EXPECT_EQ(stored, width == 1 ? Bytes(elements.size()) : elements) << name;
  }

  const Bytes& page1 = documented.at("page1");
  Bytes stored(6);
  uint64_t addresses[3] = {address(documented.at("page0")), address(page1), 0};
  const kdzk_enc_ctx paged{.page_shift = 2, .page_mask = 3};
  translate(KDZK_HOST_FORM_IND_C2D, 8, {.enc_ctx = &paged, .bitvec = addresses}, &stored);
  EXPECT_EQ(stored, documented.at("ub1"));
  EXPECT_EQ(Bytes(page1.begin() + 2, page1.end()), Bytes(2, 0xff));
}

TEST(BloomFormat, IsAsDescribed) {
  const auto documented = documented_bytes("bloom.md");
  const Bytes keys = big_endian({17, 4711, 90210});
  EXPECT_EQ(keys, documented.at("keys"));
  Bytes flat(8), page0(8), page1(8);
  kdzk_enc_ctx enc{};
  kdzk_vec filter{.enc_ctx = &enc, .bitvec = reinterpret_cast<uint64_t*>(flat.data())};
  kdzk_host_bloom_shape(&enc, 63, 0);
  kdzk_host_bloom_add_values(&filter, keys.data(), 3);
  EXPECT_EQ(flat, documented.at("flat"));

  kdzk_host_bloom_shape(&enc, 127, 8);
  EXPECT_EQ(enc.page_shift, 6u);
  EXPECT_EQ(enc.page_mask, 63u);
  uint64_t pages[2] = {address(page0), address(page1)};
  filter.bitvec = pages;
  kdzk_host_bloom_add_values(&filter, keys.data(), 3);
  EXPECT_EQ(page0, documented.at("page0"));
  EXPECT_EQ(page1, documented.at("page1"));
}

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
    const kdzk_enc_ctx key_enc{.flags = flags == KDZK_PART_B ? KDZK_HASH_U32 : KDZK_FIXED_BYTES, .width = 32};
    const kdzk_enc_ctx row_enc{.flags = has_id ? 0 : KDZK_FIXED_BYTES, .width = 32};
    const kdzk_vec keys{.data = &key, .enc_ctx = &key_enc, .nrows = 1};
    const kdzk_vec rows{.data = has_id ? static_cast<void*>(&id) : payload.data(), .enc_ctx = &row_enc};
    Bytes record(documented.at(name).size(), 0xee);
    uint8_t *cursor = record.data(), *const limit = record.data() + record.size();
    const kdzk_partdesc desc{.flags = flags, .payload_size = 4, .cursors = &cursor, .limits = &limit};
    kdzk_exec exec{};
    const auto hash = [](const void*, uint32_t, uint64_t) -> uint64_t { return 0x1122334455667788; };  // bit 0 clear
    ASSERT_EQ(library().partition_rows(&desc, &keys, &rows, hash, &exec), KDZK_DONE) << name;
    EXPECT_EQ(cursor, limit) << name;
    EXPECT_EQ(record, documented.at(name)) << name;
  }
}

TEST(HashBucketFormat, IsAsDescribed) {
  const auto documented = documented_bytes("hash_buckets.md");
  const uint64_t base = 0xaabbccdcddee0000;
  using Hashes = std::vector<uint64_t>;
  for (const uint32_t flags : {1u, 2u, 4u, 8u}) {
    SmallTable table(flags, flags <= 2 ? 16 : 32);
    table.rowbase = 100;
    ASSERT_EQ(table.build(Hashes{base + 7, base + 0x15, base + 7}), KDZK_DONE);
    EXPECT_EQ(Bytes(table.buckets, table.buckets + 64), documented.at("form" + std::to_string(flags)));
    table.rowbase = 5;
    ASSERT_EQ(table.probe(Hashes{base + 0x15}), KDZK_DONE);
    EXPECT_EQ(table.out.nrows, 1u);
    EXPECT_EQ(std::memcmp(table.pairs, documented.at("pair").data(), 16), 0);
  }
  // What the page says about headers.
  SmallTable one(4, 32), five(4, 32);
  ASSERT_EQ(one.build(Hashes{base + 0x15, base + 7, base + 1}), KDZK_DONE);
  EXPECT_EQ(one.buckets[0], 0x43);
  ASSERT_EQ(five.build(Hashes{base + 7, base + 0x15, base + 7, base + 1, base + 2}), KDZK_DONE);
  EXPECT_EQ(five.buckets[0], 0x84);
  EXPECT_EQ(five.overflow[0], 0x41);
}

// The values of locators, back to back, and their lengths.
using Gathered = std::pair<std::string, std::vector<uint16_t>>;
Gathered gathered(const kdzk_rowstore& store, const std::vector<uint16_t>& locators, const kdzk_enc_ctx& refs = {}) {
  SmallGather gather(locators);
  EXPECT_EQ(gather.run(store, 64, refs), KDZK_DONE);
  return {gather.text.c_str(), gather.lengths};  // behind which all is 0
}

TEST(RowStoreFormat, IsAsDescribed) {
  auto documented = documented_bytes("row_store.md");
  Bytes &values = documented.at("values"), &offsets = documented.at("offsets"), &refs = documented.at("refs");
  const Gathered all = {"oakpine", {3, 0, 4}};

  uint8_t* const offset_pages[2] = {offsets.data(), offsets.data()};
  const uint64_t bases[2] = {address(values), address(values)};
  kdzk_rowstore store{.flags = KDZK_STORE_OFFSETS, .page_lo = 64, .offsets = offset_pages, .bases = bases};
  EXPECT_EQ(gathered(store, {0, 1, 2}), all);
  store.page_lo = store.page_hi = 8;
  EXPECT_EQ(bytes_of(std::vector<uint16_t>{0x102, 0x100}), documented.at("locators"));
  EXPECT_EQ(gathered(store, {0x102, 0x100}), (Gathered{"pineoak", {4, 3}}));

  EXPECT_EQ(refs, bytes_of(std::vector<uint64_t>{0x12 << 16 | 3, 0x15 << 16, 0x15 << 16 | 4}));
  Bytes page(18);
  page.insert(page.end(), values.begin(), values.end());
  const uint64_t ref_page = address(page);
  uint8_t* const ref_pages[1] = {refs.data()};
  EXPECT_EQ(gathered({.flags = KDZK_STORE_REFS, .page_lo = 64, .refs = ref_pages}, {0, 1, 2},
                     {.ref_bits = 16, .ref_pages = &ref_page}),
            all);

  // Two columns through a pair matrix into a page of rows.
  Bytes matrix(3 * 2 * 16);
  uint8_t* matrices[1] = {matrix.data()};
  const kdzk_rowstore pairs{
      .flags = KDZK_STORE_PAIRS, .ncols = 2, .page_lo = 64, .pairs = matrices, .pair_cursors = matrices};
  std::vector<uint16_t> lengths = all.second;
  Call fixed({'a', '1', 'b', '2', 'c', '3'}, 16, 3, KDZK_FIXED_BYTES), texts(values, 0, 3, KDZK_LEN_ARRAY);
  texts.input.lengths = lengths.data();
  EXPECT_EQ(library().fill_pairs(&pairs, &fixed.input, 0, 0), KDZK_DONE);
  EXPECT_EQ(library().fill_pairs(&pairs, &texts.input, 1, 0), KDZK_DONE);
  EXPECT_EQ(Bytes(matrix.begin() + 16, matrix.begin() + 18), (Bytes{3, 0}));
  EXPECT_EQ(gathered(pairs, {1, 3, 5}), all);

  Bytes rows(64), row_offsets(16);
  uint8_t *data_cursor = rows.data(), *offset_cursor = row_offsets.data(), *const data_limit = data_cursor + 64;
  const kdzk_rowstore target{.flags = KDZK_STORE_OFFSETS | KDZK_STORE_ROWS,
                             .offset_cursors = &offset_cursor,
                             .data_cursors = &data_cursor,
                             .data_limits = &data_limit};
  kdzk_exec exec{};
  ASSERT_EQ(library().pack_rows(&target, &pairs, 0, 0, 0, 2, &exec), KDZK_DONE);
  EXPECT_EQ(Bytes(rows.data(), data_cursor), documented.at("rows"));
  EXPECT_EQ(Bytes(row_offsets.data(), offset_cursor), documented.at("row-offsets"));
}

}  // namespace
}  // namespace kdzk_test

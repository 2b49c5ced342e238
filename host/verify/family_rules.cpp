// SPDX-License-Identifier: Apache-2.0
// The families of kernels and services, each once on the engine's own columns, against plain loops over what these were
// made of. The records hold when this comes, so that a difference is the library's, or in a field that no rule looks
// at. Here are those that decode, translate and calculate.

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "host/verify/rules.h"

namespace kdzk_verify {

Rules families(std::initializer_list<Family> list) {
  Rules rules;
  for (const Family& family : list) {
    rules.push_back({family.name,
                     "look for a field that no other rule looks at, or report a defect of the library",
                     family.check,
                     {"callbacks", "records"}});
  }
  return rules;
}

kdzk_exec exec_of_host() {
  kdzk_exec exec{};
  exec.env = host->env;
  return exec;
}

namespace {

// ---- Decoding ----

void expect_symbol(const Column& column, uint64_t code, const char* address, uint32_t length, uint32_t indicator,
                   const char* kernel) {
  const std::string& want = column.symbols()[code];
  if (length != want.size() || std::memcmp(address, want.data(), length) != 0 || indicator != (length == 0 ? 2 : 0)) {
    broken("%s of %s gave %u bytes and indicator %u for \"%s\"", kernel, column.name().c_str(), length, indicator,
           want.c_str());
  }
}

void decodes() {
  for (const auto& column : columns_of({KDZK_VERIFY_CODES})) {
    if (column->symbols().empty()) continue;
    std::vector<uint32_t> ones = {0, column->nrows() / 2, column->nrows() / 2, column->nrows() - 1};
    std::vector<const char*> addresses(ones.size());
    std::vector<uint16_t> lengths(ones.size()), indicators(ones.size());
    kdzk_vec result{};
    result.data = addresses.data();
    result.lengths = lengths.data();
    result.indicators = indicators.data();
    kdzk_exec exec = exec_of_host();
    exec.ones_vec = ones.data();
    exec.ones_vec_size = static_cast<uint32_t>(ones.size());
    doing("in decode_dict on %s", column->name().c_str());
    if (kernel_of(column->enc().kind, KDZK_OP_DECODE).decode(&result, &column->vec(), &exec) != KDZK_DONE) {
      broken("decode_dict on %s didn't return 0", column->name().c_str());
    }
    for (size_t i = 0; i < ones.size(); i++) {
      expect_symbol(*column, column->values()[ones[i]], addresses[i], lengths[i], indicators[i], "decode_dict");
    }
  }
}

// The codes of all rows as native uint32_t.
std::vector<uint32_t> unpacked(const Column& column) {
  std::vector<uint32_t> codes(column.nrows());
  kdzk_vec result{};
  result.data = codes.data();
  result.nrows = column.nrows();
  kdzk_exec exec = exec_of_host();
  exec.flags = KDZK_EX_UNPACK_WIDE;
  doing("in decode_unpack_dict on %s", column.name().c_str());
  const uint64_t returned = kernel_of(column.enc().kind, KDZK_OP_DECODE_UNPACK).decode(&result, &column.vec(), &exec);
  if (returned != KDZK_DONE || result.hits != column.nrows()) {
    broken("decode_unpack_dict on %s returned %llu and %u rows", column.name().c_str(),
           static_cast<unsigned long long>(returned), result.hits);
  }
  return codes;
}

void unpacks() {
  for (const auto& column : columns_of({KDZK_VERIFY_CODES, KDZK_VERIFY_RUNS})) {
    const auto codes = unpacked(*column);
    for (uint32_t r = 0; r < column->nrows(); r++) {
      if (codes[r] != column->values()[r])
        broken("decode_unpack_dict on %s has code %u in row %u", column->name().c_str(), codes[r], r);
    }
  }
}

void decodes_symbols() {
  for (const auto& column : columns_of({KDZK_VERIFY_CODES})) {
    if (column->symbols().empty()) continue;
    auto codes = unpacked(*column);
    const auto n = codes.size();
    std::vector<const char*> addresses(n);
    std::vector<uint16_t> lengths(n), indicators(n);
    kdzk_vec input = column->vec(), result{};
    input.data = codes.data();
    result.data = addresses.data();
    result.lengths = lengths.data();
    result.indicators = indicators.data();
    kdzk_exec exec = exec_of_host();
    exec.flags = KDZK_EX_UNPACK_WIDE;
    doing("in decode_symbol_dict on %s", column->name().c_str());
    const uint8_t kind = kdzk_kind_of(kdzk_row_of_width(32), KDZK_FAMILY_DICT);
    if (kernel_of(kind, KDZK_OP_DECODE_SYMBOL).decode(&result, &input, &exec) != KDZK_DONE) {
      broken("decode_symbol_dict on %s didn't return 0", column->name().c_str());
    }
    for (size_t r = 0; r < n; r++) {
      expect_symbol(*column, column->values()[r], addresses[r], lengths[r], indicators[r], "decode_symbol_dict");
    }
  }
}

void decodes_blocks() {
  std::string text;
  for (int i = 0; i < 500; i++) text += "a block of text, " + std::to_string(i) + "; ";
  const auto size = static_cast<uint32_t>(text.size());
  std::vector<uint8_t> block(kdzk_host_sqzb_bound(size, KDZK_HOST_SQZB_ANY_WIDTH) + KDZK_PADDING);
  uint64_t block_size;
  kdzk_host_sqzb_write(text.data(), size, KDZK_HOST_SQZB_ANY_WIDTH, block.data(), block.size() - KDZK_PADDING,
                       &block_size);
  std::string copy(size, 0);
  uint32_t written = 0;
  const kdzk_env& env = *host->env;
  const kdzk_sqzb_ctx ctx = {env.hctx, env.heap, env.tmp_alloc, env.tmp_free, copy.data()};
  doing("in sqzb_decode_x86");
  const uint32_t returned = library->sqzb_decode_x86(&ctx, block.data(), copy.data(), &written, size);
  if (returned != KDZK_DONE || copy != text)
    broken("sqzb_decode_x86 returned %u and %u of %u bytes", returned, written, size);
}

void decodes_prefixes() {
  for (const auto& column : columns_of({KDZK_VERIFY_PREFIX})) {
    std::vector<uint8_t> records(uint64_t{column->nrows()} * column->wanted().value_bytes);
    kdzk_vec result{};
    result.data = records.data();
    doing("in decode_prefix_records on %s", column->name().c_str());
    const uint64_t returned = library->decode_prefix_records(&result, &column->vec(), nullptr);
    if (returned != KDZK_DONE || records != column->expected_data()) {
      broken("decode_prefix_records on %s returned %llu and other records", column->name().c_str(),
             static_cast<unsigned long long>(returned));
    }
  }
}

// ---- Translation and group keys ----

const Wanted small_codes = {.form = KDZK_VERIFY_FIXED, .width = 32, .value_bytes = 4, .small_values = true};

uint8_t element_of(uint64_t code) { return static_cast<uint8_t>(code % 2 == 0 ? code * 7 % 251 : 0xff); }

void translates(uint32_t form) {
  const auto column = column_of(small_codes);
  uint8_t elements[256];
  uint64_t pages[16];
  const uint32_t base = form == KDZK_HOST_FORM_OFF
                            ? static_cast<uint32_t>(*std::min_element(column->values().begin(), column->values().end()))
                            : 0;
  for (uint32_t i = 0; i < 256; i++) elements[i] = element_of(i + base);
  for (uint64_t p = 0; p < 16; p++) pages[p] = p == 2 ? 0 : reinterpret_cast<uintptr_t>(elements + 16 * p);
  std::vector<bool> rows;
  for (const uint64_t code : column->values()) {
    rows.push_back(element_of(code) != 0xff && !(form == KDZK_HOST_FORM_IND && code / 16 == 2));
  }
  kdzk_host_kernel kernel;
  if (kdzk_host_find_kernel(library, KDZK_OP_XLATE, form, 8, &kernel) != KDZK_HOST_FOUND) broken("%s", kernel.text);
  kdzk_enc_ctx table_enc{};
  table_enc.page_shift = 4;
  table_enc.page_mask = 15;
  table_enc.xlate_base = base;
  kdzk_vec table{}, result{};
  table.enc_ctx = &table_enc;
  table.bitvec = form == KDZK_HOST_FORM_IND ? pages : reinterpret_cast<uint64_t*>(elements);
  Answer answer{};
  answer.bits.resize(words_of(column->nrows()));
  kdzk_hit_range range;
  result.bitvec = answer.bits.data();
  result.data = &range;
  kdzk_exec exec = exec_of_host();
  exec.xlate_info = &table_enc;
  doing("in %s on %s", kernel.text, column->name().c_str());
  answer.returned = kernel.entry.xlate(&result, &column->vec(), &table, &exec);
  answer.hits = result.hits;
  expect_rows(answer, rows, kernel.text, column->name());
  if (!rows[range.first] || !rows[range.last])
    broken("%s left rows %u to %u as the range of hits", kernel.text, range.first, range.last);
}

void translates_keys() {
  const auto column = column_of({KDZK_VERIFY_CODES, 7});
  auto codes = unpacked(*column);
  std::vector<uint32_t> keys(codes.size(), 1000);
  uint16_t map[128];
  for (uint32_t i = 0; i < 128; i++) map[i] = static_cast<uint16_t>(i * i);
  kdzk_host_kernel kernel;
  if (kdzk_host_find_kernel(library, KDZK_OP_XLATE, KDZK_HOST_FORM_GROUPKEY, 16, &kernel) != KDZK_HOST_FOUND &&
      kdzk_host_find_kernel(library, KDZK_OP_XLATE, KDZK_HOST_FORM_GROUPKEY_C2D, 16, &kernel) != KDZK_HOST_FOUND)
    broken("%s", kernel.text);
  kdzk_enc_ctx enc{};
  enc.flags = KDZK_NUMERIC;
  enc.width = 32;
  kdzk_vec input{}, result{};
  input.data = codes.data();
  input.enc_ctx = &enc;
  input.nrows = result.nrows = column->nrows();
  result.data = keys.data();
  kdzk_exec exec = exec_of_host();
  exec.xlate_map = map;
  exec.group_stride = 3;
  doing("in %s", kernel.text);
  kernel.entry.xlate(&result, &input, nullptr, &exec);
  for (size_t r = 0; r < keys.size(); r++) {
    const uint64_t code = column->values()[r];
    if (keys[r] != 1000 + 3 * code * code) broken("%s has key %u in row %zu", kernel.text, keys[r], r);
  }
}

void group_keys() {
  const auto first = column_of({KDZK_VERIFY_CODES, 5}), second = column_of({KDZK_VERIFY_CODES, 7});
  const kdzk_vec columns[] = {first->vec(), second->vec()};
  std::vector<uint32_t> keys(first->nrows()), scratch(64);
  kdzk_vec result{}, temp{};
  result.data = keys.data();
  result.nrows = first->nrows();
  temp.data = scratch.data();
  temp.nrows = static_cast<uint32_t>(scratch.size());
  const kdzk_exec exec = exec_of_host();
  uint32_t key_count = 0;
  doing("in kdzk_groupkey_dydi");
  const uint64_t returned = library->groupkey_dydi(&result, &key_count, columns, 2, &temp, &exec);
  if (returned != KDZK_DONE || result.hits != first->nrows())
    broken("kdzk_groupkey_dydi returned %llu", static_cast<unsigned long long>(returned));
  for (uint32_t r = 0; r < first->nrows(); r++) {
    if (keys[r] != (first->values()[r] << 7) + second->values()[r])
      broken("kdzk_groupkey_dydi has key %u in row %u", keys[r], r);
  }
}

// ---- Numbers ----

template <class T>
void numbers_of(const Column& column) {
  const uint32_t n = column.nrows(), bits = 8 * sizeof(T);
  const T constant = static_cast<T>(2.5);
  kdzk_host_kernel kernel;
  if (kdzk_host_find_kernel(library, KDZK_OP_MUL, KDZK_HOST_FORM_C_N, bits, &kernel) != KDZK_HOST_FOUND)
    broken("%s", kernel.text);
  std::vector<T> products(n), decoded(n);
  kdzk_enc_ctx constant_enc{};
  constant_enc.flags = KDZK_CONST;
  kdzk_vec right{}, result{};
  right.data = const_cast<T*>(&constant);
  right.enc_ctx = &constant_enc;
  right.nrows = 1;
  result.data = products.data();
  doing("in %s on %s", kernel.text, column.name().c_str());
  kernel.entry.arithmetic(&result, &column.vec(), &right, nullptr);
  result.data = decoded.data();
  doing("in kdzk_decode_sortable on %s", column.name().c_str());
  library->decode_sortable(&result, &column.vec(), nullptr);
  T sum = 0, want = 0;  // exact, so that the order of additions makes no difference
  result.data = &sum;
  doing("in kdzk_sum_sortable on %s", column.name().c_str());
  library->sum_sortable(&result, &column.vec(), nullptr, nullptr);
  for (uint32_t r = 0; r < n; r++) {
    const T number = static_cast<T>(column.numbers()[r]);
    want += number;
    if (products[r] != number * constant)
      broken("%s has %g in row %u", kernel.text, static_cast<double>(products[r]), r);
    if (decoded[r] != number) broken("kdzk_decode_sortable has %g in row %u", static_cast<double>(decoded[r]), r);
  }
  if (sum != want) broken("kdzk_sum_sortable has %g and not %g", static_cast<double>(sum), static_cast<double>(want));
}

void numbers() {
  for (const auto& column : columns_of({KDZK_VERIFY_NUMBERS})) {
    if (column->wanted().width == 64) {
      numbers_of<double>(*column);
    } else {
      numbers_of<float>(*column);
    }
  }
}

void polygons() {
  double xs[] = {0, 10, 5}, ys[] = {0, 0, 8}, px[] = {5, 20}, py[] = {2, 2};
  for (int i = 0; i < 2; i++) {
    kdzk_vec x{}, y{}, point_x{}, point_y{}, result{};
    uint32_t count = 99;
    x.data = xs, y.data = ys, point_x.data = px + i, point_y.data = py + i, result.data = &count;
    x.nrows = y.nrows = 3;
    doing("in kdzk_point_in_polygon");
    library->point_in_polygon(&result, &x, &y, &point_x, &point_y);
    if (count % 2 != (i == 0 ? 1u : 0u)) broken("kdzk_point_in_polygon counted %u edges", count);
  }
}

// ---- Bit vectors ----

void bit_vectors() {
  for (const auto& column : columns_of({KDZK_VERIFY_BITS})) {
    const uint32_t n = column->nrows();
    std::vector<bool> other, both;
    for (uint32_t r = 0; r < n; r++) {
      other.push_back(r % 3 == 0);
      both.push_back(other[r] && column->values()[r] == 1);
    }
    const auto other_bits = bits_of(other);
    Answer answer{};
    answer.bits.resize(words_of(n));
    doing("in kdzk_bv64_and on %s", column->name().c_str());
    library->bv64.bv_and(answer.bits.data(), &answer.hits, column->vec().bitvec, other_bits.data(), n);
    answer.returned = answer.hits > 0 ? KDZK_DONE : KDZK_NO_ROW;
    expect_rows(answer, both, "kdzk_bv64_and", column->name());
    kdzk_bv_iter iter;
    library->bv64.iter_init(&iter, column->vec().bitvec, n, 0, 0);
    for (uint32_t r = 0; r < n; r++) {
      if (column->values()[r] == 1 && library->bv64.next_set(&iter) != r)
        broken("a walk over %s passes row %u by", column->name().c_str(), r);
    }
    if (library->bv64.next_set(&iter) != KDZK_BV64_END)
      broken("a walk over %s goes on behind its last row", column->name().c_str());
  }
}

}  // namespace

Rules decoding_rules() {
  return families({
      {"decode", decodes},
      {"decode-unpack", unpacks},
      {"decode-symbol", decodes_symbols},
      {"block-decoder", decodes_blocks},
      {"prefix-decoder", decodes_prefixes},
      {"xlate-sim", [] { translates(KDZK_HOST_FORM_SIM); }},
      {"xlate-off", [] { translates(KDZK_HOST_FORM_OFF); }},
      {"xlate-ind", [] { translates(KDZK_HOST_FORM_IND); }},
      {"xlate-groupkey", translates_keys},
      {"groupkey", group_keys},
      {"numbers", numbers},
      {"polygon", polygons},
      {"bit-vectors", bit_vectors},
  });
}

}  // namespace kdzk_verify

// SPDX-License-Identifier: Apache-2.0
// Each family of kernels and services on the engine's own columns, against plain loops over what these were made of.
// The records hold when this comes, so that a difference is the library's, or in a field that no rule looks at.

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "host/verify/rules.h"

namespace kdzk_verify {

kdzk_kernel kernel_of(uint8_t kind, uint32_t operation, bool variant) {
  const uint32_t id = kdzk_id_of_kind(kind, operation) + (variant ? kdzk_id_of(KDZK_ROW_VARIANT, 0) : 0);
  const kdzk_kernel kernel = id < KDZK_KERNEL_IDS ? library->dispatch[id] : kdzk_kernel{};
  if (kernel.any == nullptr) broken("kind %u has no kernel for operation %u: id %u", kind, operation, id);
  return kernel;
}

bool qualifies(uint32_t operation, uint64_t value, uint64_t low, uint64_t high, bool null_at_0) {
  if (null_at_0 && value == 0) return false;
  const bool above = value > low, from = value >= low, below = value < high, to = value <= high;
  const bool holds[] = {value == low, !from,          above,       !above,        from,
                        value != low, above && below, above && to, from && below, from && to};
  return holds[operation];
}

namespace {

// A constant as a kernel of the column reads it.
struct Constant {
  uint8_t bytes[8] = {};
  uint8_t code = 0;
  kdzk_kargs args{};

  Constant(const Column& column, uint64_t value) {
    const Wanted& wanted = column.wanted();
    const auto native = static_cast<uint32_t>(value);
    if (wanted.form <= KDZK_VERIFY_RUNS) {
      std::memcpy(bytes, &native, sizeof native);
    } else {
      std::vector<uint8_t> stored;
      put_big_endian(stored, value, wanted.value_bytes);
      std::copy(stored.begin(), stored.end(), bytes);
      if (length_bits(wanted.width) > 0) code = static_cast<uint8_t>(length_code(value, wanted.width));
    }
    args.data = bytes;
    args.lengths = &code;
    args.enc_ctx = &column.enc();
  }
  Constant(const Constant&) = delete;
  Constant& operator=(const Constant&) = delete;
};

}  // namespace

Answer predicate(const Column& column, uint32_t operation, bool variant, uint64_t low, uint64_t high, kdzk_exec* exec,
                 const uint64_t* filter) {
  const Constant low_constant(column, low), high_constant(column, high);
  const kdzk_kernel kernel = kernel_of(column.enc().kind, operation, variant);
  Answer answer{};
  answer.bits.assign(words_of(column.nrows()), 0x5555555555555555);
  kdzk_vec input = column.vec(), result{};
  if (filter != nullptr) input.filter = filter;
  result.bitvec = answer.bits.data();
  result.nrows = column.nrows();
  answer.returned = operation >= KDZK_OP_GT_LT
                        ? kernel.between(&result, &input, &low_constant.args, &high_constant.args, exec)
                        : kernel.compare(&result, &input, &low_constant.args, exec);
  answer.hits = result.hits;
  return answer;
}

void expect_rows(const Answer& answer, const std::vector<bool>& rows, const char* kernel, const std::string& of) {
  const auto hits = static_cast<uint32_t>(std::count(rows.begin(), rows.end(), true));
  for (size_t r = 0; r < rows.size(); r++) {
    if (bit_of(answer.bits.data(), r) != rows[r]) {
      broken("%s on %s has row %zu %s", kernel, of.c_str(), r,
             rows[r] ? "clear, and it qualifies" : "set, and it doesn't qualify");
    }
  }
  if (answer.hits != hits) broken("%s on %s left %u in hits, of %u rows", kernel, of.c_str(), answer.hits, hits);
  if (answer.returned != (hits > 0 ? KDZK_DONE : KDZK_NO_ROW)) {
    broken("%s on %s returned %llu with %u hits", kernel, of.c_str(), static_cast<unsigned long long>(answer.returned),
           hits);
  }
}

namespace {

// ---- Predicates ----

kdzk_exec exec_of_host() {
  kdzk_exec exec{};
  exec.env = host->env;
  return exec;
}

void predicates(std::initializer_list<uint32_t> forms, bool variant) {
  for (const auto& column : columns_of(forms)) {
    const auto& values = column->values();
    const bool nulls = variant && column->wanted().form == KDZK_VERIFY_CODES;
    const uint64_t low = std::min(values.front(), values.back()), high = std::max(values.front(), values.back());
    for (uint32_t operation = KDZK_OP_EQ; operation <= KDZK_OP_GE_LE; operation++) {
      const std::string name = kdzk_name_of(
          library, kdzk_id_of_kind(column->enc().kind, operation) + (variant ? kdzk_id_of(KDZK_ROW_VARIANT, 0) : 0));
      doing("in %s on %s", name.c_str(), column->name().c_str());
      std::vector<bool> rows;
      for (const uint64_t value : values) rows.push_back(qualifies(operation, value, low, high, nulls));
      kdzk_exec exec = exec_of_host();
      expect_rows(predicate(*column, operation, variant, low, high, &exec), rows, name.c_str(), column->name());
    }
  }
}

// Filter, and a selection on both roads; the engine's own bit vectors if it makes some.
void selections() {
  for (const auto& column : columns_of({KDZK_VERIFY_CODES, KDZK_VERIFY_FIXED, KDZK_VERIFY_DYNP})) {
    if (column->wanted().width == 1 || column->nrows() < 200) continue;
    const Column own({.form = KDZK_VERIFY_BITS, .width = 0, .nrows = column->nrows()});
    std::vector<bool> selected, filtered;
    for (uint32_t r = 0; r < column->nrows(); r++) {
      selected.push_back(own.made() ? own.values()[r] == 1 : r % 3 != 0);
      filtered.push_back(r % 5 != 0);
    }
    const auto bits = bits_of(selected), filter = bits_of(filtered);
    const uint64_t low = column->values()[3];
    std::vector<bool> rows;
    for (uint32_t r = 0; r < column->nrows(); r++)
      rows.push_back(column->values()[r] >= low && selected[r] && filtered[r]);
    for (const uint32_t flags : {0u, KDZK_EX_SELECTIVE}) {
      kdzk_exec exec = exec_of_host();
      exec.selection = own.made() ? own.vec().bitvec : bits.data();
      exec.flags = static_cast<uint8_t>(flags);
      doing("in ge on %s with filter and selection", column->name().c_str());
      expect_rows(predicate(*column, KDZK_OP_GE, false, low, 0, &exec, filter.data()), rows,
                  flags == 0 ? "ge with filter and selection" : "selective ge", column->name());
    }
  }
}

void sets() {
  for (const auto& column : columns_of({KDZK_VERIFY_CODES})) {
    const uint32_t width = column->wanted().width;
    if (width > 20) continue;
    std::vector<uint64_t> set((uint64_t{1} << width) / 64 + 1);
    for (uint64_t code = 0; code < column->dict_size(); code += 3) set[code / 64] |= uint64_t{1} << code % 64;
    std::vector<bool> rows;
    for (const uint64_t value : column->values()) rows.push_back(value % 3 == 0);
    Answer answer{};
    answer.bits.resize(words_of(column->nrows()));
    kdzk_vec table{}, result{};
    table.bitvec = set.data();
    result.bitvec = answer.bits.data();
    result.nrows = column->nrows();
    kdzk_exec exec = exec_of_host();
    doing("in the set kernel on %s", column->name().c_str());
    answer.returned = kernel_of(column->enc().kind, KDZK_OP_SET).set(&result, &column->vec(), &table, &exec);
    answer.hits = result.hits;
    expect_rows(answer, rows, "set", column->name());
  }
}

void bursts() {
  for (const auto& column : columns_of({KDZK_VERIFY_RUNS})) {
    const kdzk_enc_ctx& enc = column->enc();
    const auto runs = column->elements();
    std::vector<bool> set, rows;
    for (const uint64_t code : runs) set.push_back(code % 2 == 0);
    for (const uint64_t code : column->values()) rows.push_back(code % 2 == 0);
    auto run_bits = bits_of(set);
    for (const bool by_offsets : {false, true}) {
      if (by_offsets ? enc.run_offsets == nullptr : enc.unpack_base == 0) continue;
      kdzk_host_kernel kernel;
      if (kdzk_host_find_kernel(library, KDZK_OP_BURST_RLE, by_offsets ? KDZK_HOST_FORM_RLE_CLA : KDZK_HOST_FORM_RLE,
                                by_offsets ? 16 : enc.unpack_width, &kernel) != KDZK_HOST_FOUND)
        broken("%s", kernel.text);
      Answer answer{};
      answer.bits.resize(words_of(column->nrows()));
      kdzk_result_report report{};
      report.bitvec = run_bits.data();
      report.hits = static_cast<uint64_t>(std::count(set.begin(), set.end(), true));
      kdzk_vec result{};
      result.bitvec = answer.bits.data();
      result.nrows = column->nrows();
      doing("in %s on %s", kernel.text, column->name().c_str());
      answer.returned = kernel.entry.burst(&result, &column->vec(), &report);
      answer.hits = result.hits;
      expect_rows(answer, rows, kernel.text, column->name());
    }
  }
}

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

Rules family_rules() {
  constexpr const char* remedy = "a record's field that no other rule looks at, or a defect of the library";
  struct Family {
    const char* name;
    void (*check)();
  };
  const Family families[] = {
      {"dict", [] { predicates({KDZK_VERIFY_CODES}, false); }},
      {"dict-null", [] { predicates({KDZK_VERIFY_CODES}, true); }},
      {"dict-runs", [] { predicates({KDZK_VERIFY_RUNS}, false); }},
      {"fixed", [] { predicates({KDZK_VERIFY_FIXED}, false); }},
      {"dynp", [] { predicates({KDZK_VERIFY_DYNP}, false); }},
      {"tz",
       [] {
         predicates({KDZK_VERIFY_FIXED_TZ, KDZK_VERIFY_DYNP}, true);
       }},
      {"selection", selections},
      {"set", sets},
      {"burst-rle", bursts},
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
      {"hash-rows", hashes_rows},
      {"partition", partitions},
      {"build-probe", joins},
      {"pack-gather", stores},
      {"bloom", blooms},
      {"bit-vectors", bit_vectors},
  };
  Rules rules;
  for (const Family& family : families) {
    rules.push_back({family.name, remedy, family.check, {"callbacks", "records"}});
  }
  return rules;
}

}  // namespace kdzk_verify

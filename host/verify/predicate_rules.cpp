// SPDX-License-Identifier: Apache-2.0
// Predicates of all forms, sets of codes and bursts on the engine's own columns, against a plain loop over their
// values.

#include <algorithm>
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

}  // namespace

Rules predicate_rules() {
  return families({
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
  });
}

}  // namespace kdzk_verify

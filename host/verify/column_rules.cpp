// SPDX-License-Identifier: Apache-2.0
// The records that the engine makes, field by field. Each rule looks at its own fields, so that one mistake breaks one.

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstring>
#include <set>

#include "host/verify/guard.h"
#include "host/verify/rules.h"

namespace kdzk_verify {
namespace {

constexpr uint32_t form_bits = KDZK_SUM_ONLY | KDZK_CONST | KDZK_NUMERIC | KDZK_PACKED_DICT | KDZK_RLE |
                               KDZK_FIXED_BYTES | KDZK_LEN_ARRAY | KDZK_LEN_PREFIXED | KDZK_PTR_LEN | KDZK_PAIR16 |
                               KDZK_BLOCKED | KDZK_KEYED16 | KDZK_PROBE_PAIRS | KDZK_IMPLICIT_IDS | KDZK_REF_WORDS |
                               KDZK_HASH_U32 | KDZK_KEYED24;
constexpr uint32_t text_bits = KDZK_LEN_ARRAY | KDZK_LEN_PREFIXED | KDZK_PTR_LEN | KDZK_PAIR16;

// By form: what the flags must have, what they may have too, the family of the kind.
struct Form {
  uint32_t must, may;
  int family;  // below 0: `kind` isn't read
};
constexpr Form forms[KDZK_VERIFY_FORMS] = {
    {KDZK_PACKED_DICT, 0, KDZK_FAMILY_DICT},             // CODES
    {KDZK_PACKED_DICT | KDZK_RLE, 0, KDZK_FAMILY_DICT},  // RUNS
    {KDZK_NUMERIC, 0, KDZK_FAMILY_FIXED},                // FIXED
    {0, KDZK_NUMERIC, KDZK_FAMILY_FIXED},                // FIXED_TZ
    {0, 0, KDZK_FAMILY_DYNP},                            // DYNP
    {0, KDZK_NUMERIC, -1},                               // NUMBERS
    {0, text_bits, -1},                                  // TEXTS
    {0, 0, -1},                                          // PREFIX
    {0, 0, -1},                                          // BITS
};

constexpr std::initializer_list<uint32_t> with_enc_ctx = {KDZK_VERIFY_CODES,    KDZK_VERIFY_RUNS,  KDZK_VERIFY_FIXED,
                                                          KDZK_VERIFY_FIXED_TZ, KDZK_VERIFY_DYNP,  KDZK_VERIFY_NUMBERS,
                                                          KDZK_VERIFY_TEXTS,    KDZK_VERIFY_PREFIX};
constexpr std::initializer_list<uint32_t> predicate_forms = {KDZK_VERIFY_CODES, KDZK_VERIFY_RUNS, KDZK_VERIFY_FIXED,
                                                             KDZK_VERIFY_FIXED_TZ, KDZK_VERIFY_DYNP};
constexpr std::initializer_list<uint32_t> blockable = {KDZK_VERIFY_CODES, KDZK_VERIFY_RUNS, KDZK_VERIFY_FIXED};

bool blocked(const Column& column) { return column.wanted().blocked != 0; }

// The blocked ones of a list; leaves by not_used() if there are none.
Columns blocked_columns() {
  Columns columns = columns_of(blockable);
  std::erase_if(columns, [](const auto& column) { return !blocked(*column); });
  if (columns.empty()) not_used("the engine makes no blocked columns");
  return columns;
}

void expect_number(const Column& column, const char* field, uint64_t got, uint64_t want) {
  if (got == want) return;
  broken("%s has %s %llu and not %llu", column.name().c_str(), field, static_cast<unsigned long long>(got),
         static_cast<unsigned long long>(want));
}

// `bits`: those of the stream, of which the last byte may have others behind.
void expect_bytes(const Column& column, const char* field, const void* got, const std::vector<uint8_t>& want,
                  uint64_t bits) {
  if (got == nullptr) broken("%s has no %s", column.name().c_str(), field);
  doing("reading %s of %s", field, column.name().c_str());
  const auto* const bytes = static_cast<const uint8_t*>(got);
  for (size_t i = 0; i < want.size(); i++) {
    const uint32_t unused = i < bits / 8 ? 0 : static_cast<uint32_t>(8 - bits % 8);
    if (bytes[i] >> unused != want[i] >> unused) {
      broken("byte %zu of %s of %s is 0x%02x and not 0x%02x", i, field, column.name().c_str(), bytes[i], want[i]);
    }
  }
}

void expect_data(const Column& column, const char* field, const void* got) {
  const auto want = column.expected_data();
  const bool packed = column.wanted().form <= KDZK_VERIFY_RUNS;
  expect_bytes(column, field, got, want, packed ? column.elements().size() * column.wanted().width : 8 * want.size());
}

// ---- Fields of every column ----

void nrows_are_right() {
  for (const auto& column : columns_of(with_enc_ctx)) {
    const bool prefix = column->wanted().form == KDZK_VERIFY_PREFIX;
    expect_number(*column, prefix ? "nrows (groups)" : "nrows", column->vec().nrows,
                  prefix ? kdzk_host_prefix_groups(column->nrows()) : column->nrows());
  }
}

void kinds_are_rows() {
  for (const auto& column : columns_of(predicate_forms)) {
    const auto family = static_cast<uint32_t>(forms[column->wanted().form].family);
    expect_number(*column, "kind", column->enc().kind, kdzk_kind_of(kdzk_row_of_width(column->wanted().width), family));
  }
}

void flags_tell_the_form() {
  for (const auto& column : columns_of(with_enc_ctx)) {
    const Form& form = forms[column->wanted().form];
    const uint32_t must = form.must | (blocked(*column) ? KDZK_BLOCKED : 0), flags = column->enc().flags & form_bits;
    const uint32_t lacking = must & ~flags, foreign = flags & ~(must | form.may);
    if (lacking != 0 || foreign != 0) {
      broken("%s has flags 0x%x: 0x%x is missing, 0x%x is of other forms", column->name().c_str(), flags, lacking,
             foreign);
    }
    if (column->wanted().form == KDZK_VERIFY_TEXTS && !std::has_single_bit(flags)) {
      broken("%s has flags 0x%x, and not one of the forms with lengths", column->name().c_str(), flags);
    }
  }
}

void widths_are_bits() {
  for (const auto& column : columns_of(with_enc_ctx)) {
    const kdzk_enc_ctx& enc = column->enc();
    const Wanted& wanted = column->wanted();
    const bool valued = wanted.form == KDZK_VERIFY_FIXED;
    if (wanted.form <= KDZK_VERIFY_FIXED || wanted.form == KDZK_VERIFY_NUMBERS) {
      expect_number(*column, "width", enc.width, valued ? 8 * wanted.value_bytes : wanted.width);
    }
    if ((enc.width_zero[0] | enc.width_zero[1] | enc.width_zero[2]) != 0) {
      broken("%s has bytes behind width that aren't 0", column->name().c_str());
    }
  }
}

void ranges_are_right() {
  bool any = false;
  for (const auto& column : columns_of(predicate_forms)) {
    if (column->record().has_range == 0) continue;
    any = true;
    const auto [low, high] = std::minmax_element(column->values().begin(), column->values().end());
    expect_number(*column, "smallest", column->record().smallest, *low);
    expect_number(*column, "largest", column->record().largest, *high);
  }
  if (!any) not_used("the engine keeps no smallest and largest");
}

// ---- Contents ----

void data_are_big_endian() {
  for (const auto& column : columns_of(
           {KDZK_VERIFY_CODES, KDZK_VERIFY_FIXED, KDZK_VERIFY_FIXED_TZ, KDZK_VERIFY_DYNP, KDZK_VERIFY_NUMBERS})) {
    if (!blocked(*column)) expect_data(*column, "data", column->vec().data);
  }
}

void lengths_are_codes() {
  for (const auto& column : columns_of({KDZK_VERIFY_FIXED_TZ, KDZK_VERIFY_DYNP})) {
    expect_bytes(*column, "lengths", column->vec().lengths, column->expected_lengths(),
                 uint64_t{column->nrows()} * length_bits(column->wanted().width));
  }
}

void numbers_have_a_kind() {
  for (const auto& column : columns_of({KDZK_VERIFY_NUMBERS})) {
    expect_number(*column, "float_kind", column->enc().float_kind, column->wanted().width == 32 ? 1 : 2);
  }
}

void streams_are_padded() {
  // Before the guard is on, so that the engine has what it keeps.
  { const Column first({.form = KDZK_VERIFY_CODES, .width = 3}); }
  guard_malloc(true);
  bool guarded = true;
  const auto probe = [&](const Column& column, const void* stream, const char* what, uint64_t size) {
    if (stream == nullptr) return;
    guarded = guarded && guarded_end(stream) != nullptr;
    touch(stream, size, size + KDZK_PADDING, what, column.name());
  };
  for (const auto& column : columns_of({KDZK_VERIFY_CODES, KDZK_VERIFY_RUNS, KDZK_VERIFY_FIXED, KDZK_VERIFY_FIXED_TZ,
                                        KDZK_VERIFY_DYNP, KDZK_VERIFY_PREFIX})) {
    const kdzk_vec& vec = column->vec();
    const Wanted& wanted = column->wanted();
    uint64_t size = column->expected_data().size();
    if (blocked(*column)) {  // a block's size is only known of the library's own format
      kdzk_host_sqzb_report report;
      const uint64_t bound = kdzk_host_sqzb_bound(vec.decomp_size, KDZK_HOST_SQZB_ANY_WIDTH);
      if (kdzk_host_sqzb_check(vec.data, bound, &report) != KDZK_HOST_DONE) continue;
      size = report.block_size;
    }
    if (wanted.form == KDZK_VERIFY_PREFIX) {
      size =
          kdzk_host_prefix_records_check(vec.data, kdzk_host_prefix_records_bound(column->nrows(), wanted.value_bytes),
                                         column->nrows(), wanted.value_bytes);
    }
    probe(*column, vec.data, "data with its padding", size);
    if (wanted.form == KDZK_VERIFY_FIXED_TZ || wanted.form == KDZK_VERIFY_DYNP) {
      probe(*column, vec.lengths, "lengths with their padding", column->expected_lengths().size());
    }
  }
  if (!guarded) remark("(not malloc's memory: only seen to be mapped)");
}

void dictionaries_are_right() {
  for (const auto& column : columns_of({KDZK_VERIFY_CODES, KDZK_VERIFY_RUNS})) {
    const kdzk_enc_ctx& enc = column->enc();
    const char* const name = column->name().c_str();
    expect_number(*column, "dict_size", enc.dict_size, column->dict_size());
    const auto& symbols = column->symbols();
    if (symbols.empty()) continue;
    if (enc.base == nullptr) broken("%s has symbols and no base", name);
    if (enc.dict_mode > 1) broken("%s has dict_mode %u, and not 0 or 1", name, enc.dict_mode);
    if (enc.dict_mode == 0 && enc.value_len == nullptr) broken("%s has dict_mode 0 and no value_len", name);
    if (enc.dict_mode == 1 && enc.offsets == nullptr) broken("%s has dict_mode 1 and no offsets", name);
    uint64_t at = 0;
    for (size_t code = 0; code < symbols.size(); code++) {
      doing("reading symbol %zu of %s", code, name);
      uint64_t begin = at, size = 0;
      if (enc.dict_mode == 0) {
        size = big_endian(enc.value_len, 2);
      } else {
        begin = big_endian(enc.offsets + 4 * code, 4);
        size = big_endian(enc.offsets + 4 * code + 4, 4) - begin;
      }
      at = begin + size;
      if (size != symbols[code].size() || std::memcmp(enc.base + begin, symbols[code].data(), size) != 0) {
        broken("symbol %zu of %s, %llu bytes at base + %llu, is not \"%s\"", code, name,
               static_cast<unsigned long long>(size), static_cast<unsigned long long>(begin), symbols[code].c_str());
      }
    }
  }
}

// ---- Runs ----

void runs_add_up() {
  for (const auto& column : columns_of({KDZK_VERIFY_RUNS})) {
    const kdzk_enc_ctx& enc = column->enc();
    const char* const name = column->name().c_str();
    const auto& values = column->values();
    if (enc.unpack_base == 0 && enc.run_offsets == nullptr) broken("%s has neither unpack_base nor run_offsets", name);
    if (enc.unpack_base != 0 && enc.unpack_width != 8 && enc.unpack_width != 16) {
      broken("%s has unpack_width %u, and not 8 or 16", name, enc.unpack_width);
    }
    uint64_t row = 0;
    for (uint32_t run = 0; run < enc.own_nrows; run++) {
      doing("reading run %u of %s", run, name);
      const uint32_t bytes = enc.unpack_width / 8u;
      const auto* const lengths = reinterpret_cast<const uint8_t*>(enc.unpack_base);
      if (enc.run_offsets != nullptr && big_endian(enc.run_offsets + 4 * run, 4) != row) {
        broken("run_offsets[%u] of %s is %llu and not %llu", run, name,
               static_cast<unsigned long long>(big_endian(enc.run_offsets + 4 * run, 4)),
               static_cast<unsigned long long>(row));
      }
      const uint64_t next = lengths != nullptr ? row + big_endian(lengths + run * bytes, bytes)
                                               : big_endian(enc.run_offsets + 4 * (run + 1), 4);
      if (next <= row || next > values.size()) {
        broken("run %u of %s ends before row %llu, of %zu rows", run, name, static_cast<unsigned long long>(next),
               values.size());
      }
      for (uint64_t r = row + 1; r < next; r++) {
        if (values[r] != values[row]) broken("run %u of %s has rows of two codes", run, name);
      }
      row = next;
    }
    if (row != values.size()) {
      broken("the %u runs (own_nrows) of %s have %llu rows and not %zu", enc.own_nrows, name,
             static_cast<unsigned long long>(row), values.size());
    }
    if (enc.run_offsets != nullptr && big_endian(enc.run_offsets + 4 * enc.own_nrows, 4) != row) {
      broken("run_offsets of %s doesn't end with the number of rows", name);
    }
    if (!blocked(*column)) expect_data(*column, "data", column->vec().data);
  }
}

// A word may lie at the end of its page, so the whole of it is read and written.
void take_words(uint64_t* words, uint64_t count, const char* what, const std::string& of) {
  touch(words, 0, 8 * count, what, of);
  for (uint64_t i = 0; i < count; i++) {
    doing("writing word %llu of %s, %s", static_cast<unsigned long long>(i), what, of.c_str());
    uint64_t word;
    std::memcpy(&word, words + i, 8);
    volatile auto* const bytes = reinterpret_cast<volatile uint8_t*>(words + i);
    for (int b = 0; b < 8; b++) bytes[b] = static_cast<uint8_t>(word >> 8 * b);
  }
}

void run_bits_are_words() {
  { const Column first({.form = KDZK_VERIFY_RUNS, .width = 3}); }
  guard_malloc(true);
  for (const auto& column : columns_of({KDZK_VERIFY_RUNS})) {
    const kdzk_enc_ctx& enc = column->enc();
    if (enc.own_bitvec == nullptr) broken("%s has no own_bitvec", column->name().c_str());
    take_words(enc.own_bitvec, words_of(enc.own_nrows), "own_bitvec", column->name());
  }
}

void bits_are_words() {
  { const Column first({.form = KDZK_VERIFY_BITS, .width = 0, .nrows = 5}); }
  guard_malloc(true);
  for (const auto& column : columns_of({KDZK_VERIFY_BITS})) {
    uint64_t* const words = column->vec().bitvec;
    if (words == nullptr) broken("%s have no bitvec", column->name().c_str());
    take_words(words, words_of(column->nrows()), "the whole words of a bit vector", column->name());
    for (uint32_t r = 0; r < column->nrows(); r++) {
      if (bit_of(words, r) != (column->values()[r] == 1)) {
        broken("row %u of %s isn't bit %u of word %u", r, column->name().c_str(), r % 64, r / 64);
      }
    }
  }
}

// Of a column without NULLs, which is all that is asked for; of runs it is for runs.
void filters_are_full() {
  { const Column first({.form = KDZK_VERIFY_CODES, .width = 3}); }
  guard_malloc(true);
  bool any = false;
  for (const auto& column : columns_of(predicate_forms)) {
    const uint64_t* const filter = column->vec().filter;
    if (filter == nullptr) continue;
    any = true;
    const uint32_t rows = column->wanted().form == KDZK_VERIFY_RUNS ? column->enc().own_nrows : column->nrows();
    touch(filter, 0, 8 * words_of(rows), "the whole words of the filter", column->name());
    for (uint32_t r = 0; r < rows; r++) {
      if (!bit_of(filter, r)) broken("the filter of %s leaves out row %u", column->name().c_str(), r);
    }
  }
  if (!any) remark("(the engine sets none)");
}

void result_cb_expands() {
  for (const auto& column : columns_of({KDZK_VERIFY_RUNS})) {
    if (blocked(*column)) continue;
    const std::string& name = column->name();
    if (column->enc().result_cb == nullptr) broken("%s has no result_cb", name.c_str());
    const uint64_t top = column->dict_size() - 1;
    for (const uint64_t low : {column->values()[0], top / 2, uint64_t{0}}) {
      for (const uint32_t operation : {KDZK_OP_EQ, KDZK_OP_GT, KDZK_OP_GE, KDZK_OP_LT}) {
        kdzk_exec exec{};
        exec.env = host->env;
        doing("in result_cb of %s", name.c_str());
        const Answer answer = predicate(*column, operation, false, low, 0, &exec);
        std::vector<bool> rows;
        for (const uint64_t value : column->values()) rows.push_back(qualifies(operation, value, low, 0, false));
        expect_rows(answer, rows, "a predicate with its result_cb", name);
      }
    }
  }
}

// ---- Blocks ----

void blocks_have_a_slot() {
  for (const auto& column : blocked_columns()) {
    const kdzk_vec& vec = column->vec();
    if (vec.data == nullptr) broken("%s has no data", column->name().c_str());
    expect_number(*column, "decomp_size", vec.decomp_size, column->expected_data().size());
    if (vec.decomp_slot == nullptr) broken("%s has no decomp_slot", column->name().c_str());
    if (*vec.decomp_slot != nullptr) broken("the word at decomp_slot of %s isn't null", column->name().c_str());
  }
}

void blocks_decompress() {
  const kdzk_env& env = *host->env;
  for (const auto& column : blocked_columns()) {
    const char* const name = column->name().c_str();
    const auto want = column->expected_data();
    const auto size = static_cast<uint32_t>(want.size());
    for (const bool room : {true, false}) {
      std::vector<uint8_t> copy(size + 64, 0xee);
      const uint32_t capacity = room ? size : size - 1;
      uint32_t written = 0;
      const kdzk_sqzb_ctx ctx = {env.hctx, env.heap, env.tmp_alloc, env.tmp_free, copy.data()};
      doing("in env->decompress of %s, with room for %u of %u bytes", name, capacity, size);
      const uint32_t returned = env.decompress(&ctx, column->vec().data, copy.data(), &written, capacity);
      for (size_t i = capacity; i < copy.size(); i++) {
        if (copy[i] != 0xee) broken("decompress of %s wrote byte %zu, behind its room of %u", name, i, capacity);
      }
      if (!room) {
        if (returned == 0) broken("decompress of %s returned 0 with room for %u of %u bytes", name, capacity, size);
        continue;
      }
      if (returned != 0) broken("decompress of %s returned %u", name, returned);
      if (written != size) broken("decompress of %s stored %u and not %u in *written", name, written, size);
      expect_data(*column, "the decompressed copy", copy.data());
    }
  }
}

struct AllocCall {
  void *hctx, *heap;
  uint32_t size, unit, alignment;
  std::string comment;
  uint64_t tag;
};
std::vector<AllocCall> alloc_calls;

void* recording_alloc(void* hctx, void* heap, uint32_t size, const char* comment, uint32_t unit, uint32_t alignment,
                      uint64_t tag) {
  alloc_calls.push_back({hctx, heap, size, unit, alignment, comment, tag});
  return host->env->alloc(hctx, heap, size, comment, unit, alignment, tag);
}

void copies_are_kept() {
  kdzk_env env = *host->env;
  env.alloc = recording_alloc;
  for (const auto& column : blocked_columns()) {
    if (column->wanted().form == KDZK_VERIFY_RUNS) continue;  // its callback may know its own kdzk_env only
    alloc_calls.clear();
    const kdzk_vec& vec = column->vec();
    for (int turn = 0; turn < 2; turn++) {
      kdzk_exec exec{};
      exec.env = &env;
      predicate(*column, KDZK_OP_EQ, false, column->values()[0], 0, &exec);
    }
    const std::string want =
        std::string(kdzk_name_of(library, kdzk_id_of_kind(column->enc().kind, KDZK_OP_EQ))) + ": vec1_decomp";
    if (alloc_calls.size() != 1) {
      broken("two predicates on %s called alloc %zu times", column->name().c_str(), alloc_calls.size());
    }
    const AllocCall& call = alloc_calls[0];
    if (call.hctx != env.hctx || call.heap != env.heap || call.size != vec.decomp_size || call.unit != 8 ||
        call.alignment != 16 || call.tag != vec.alloc_tag || call.comment != want) {
      broken("alloc got size %u, \"%s\", %u, %u, tag 0x%llx for %s", call.size, call.comment.c_str(), call.unit,
             call.alignment, static_cast<unsigned long long>(call.tag), column->name().c_str());
    }
    expect_data(*column, "the copy at decomp_slot", *vec.decomp_slot);
  }
}

void copies_are_balanced() {
  if (host->in_use == nullptr) not_used("in_use is null");
  const uint64_t before = host->in_use(host->state);
  {
    const Columns columns = blocked_columns();
    for (const auto& column : columns) {
      kdzk_exec exec{};
      exec.env = host->env;
      predicate(*column, KDZK_OP_EQ, false, 1, 0, &exec);
    }
    const uint64_t between = host->in_use(host->state);
    if (between != before + columns.size()) {
      broken("%llu pieces in use, and %llu with the copies of %zu columns", static_cast<unsigned long long>(before),
             static_cast<unsigned long long>(between), columns.size());
    }
  }
  const uint64_t after = host->in_use(host->state);
  if (after != before) {
    broken("%llu pieces in use, and %llu after columns came and went", static_cast<unsigned long long>(before),
           static_cast<unsigned long long>(after));
  }
}

void nothing_is_shared() {
  std::set<const void*> written;
  for (const auto& column : columns_of({KDZK_VERIFY_CODES, KDZK_VERIFY_RUNS, KDZK_VERIFY_FIXED})) {
    if (blocked(*column) && !written.insert(column->vec().decomp_slot).second) {
      broken("%s has the decomp_slot of another column", column->name().c_str());
    }
    if (column->wanted().form == KDZK_VERIFY_RUNS && !written.insert(column->enc().own_bitvec).second) {
      broken("%s has the own_bitvec of another column", column->name().c_str());
    }
  }
}

// ---- Texts and prefix records ----

void texts_are_right() {
  for (const auto& column : columns_of({KDZK_VERIFY_TEXTS})) {
    const auto* data = static_cast<const uint8_t*>(column->vec().data);
    const auto* const lengths = static_cast<const uint8_t*>(column->vec().lengths);
    const uint32_t flags = column->enc().flags;
    for (uint32_t r = 0; r < column->nrows(); r++) {
      doing("reading text %u", r);
      uint16_t length;
      const uint8_t* value = data;
      if (flags & (KDZK_LEN_ARRAY | KDZK_PTR_LEN)) {
        if (lengths == nullptr) broken("flags 0x%x and no lengths", flags);
        std::memcpy(&length, lengths + 2 * r, 2);
      } else {
        std::memcpy(&length, flags & KDZK_PAIR16 ? data + 16 * r : data, 2);
      }
      if (flags & KDZK_LEN_PREFIXED) value = data + 2;
      if (flags & KDZK_PTR_LEN) std::memcpy(&value, data + 8 * r, 8);
      if (flags & KDZK_PAIR16) std::memcpy(&value, data + 16 * r + 8, 8);
      const std::string& want = column->texts()[r];
      if (length != want.size() || std::memcmp(value, want.data(), want.size()) != 0) {
        broken("text %u, of %u bytes by its length, isn't \"%s\" (flags 0x%x)", r, length, want.c_str(), flags);
      }
      if (flags & (KDZK_LEN_ARRAY | KDZK_LEN_PREFIXED)) data = value + length;
    }
  }
}

void prefix_records_are_right() {
  for (const auto& column : columns_of({KDZK_VERIFY_PREFIX})) {
    const uint32_t bytes = column->wanted().value_bytes;
    expect_number(*column, "prefix_group", column->enc().prefix_group, KDZK_HOST_PREFIX_GROUP);
    expect_number(*column, "prefix_width", static_cast<uint64_t>(column->enc().prefix_width), bytes);
    expect_number(*column, "prefix_count", column->enc().prefix_count, column->nrows());
    const auto* at = static_cast<const uint8_t*>(column->vec().data);
    std::vector<uint8_t> records;
    for (uint32_t first = 0; first < column->nrows(); first += KDZK_HOST_PREFIX_GROUP) {
      doing("reading the group of record %u of %s", first, column->name().c_str());
      const uint32_t prefix = *at;
      if (prefix > bytes)
        broken("the group of record %u of %s has a prefix of %u bytes", first, column->name().c_str(), prefix);
      const uint8_t* tail = at + 1 + prefix;
      for (uint32_t r = first; r < std::min(first + KDZK_HOST_PREFIX_GROUP, column->nrows()); r++) {
        records.insert(records.end(), at + 1, at + 1 + prefix);
        records.insert(records.end(), tail, tail + (bytes - prefix));
        tail += bytes - prefix;
      }
      at = tail;
    }
    expect_data(*column, "the records", records.data());
  }
}

}  // namespace

Rules column_rules() {
  return {
      {"nrows", "set kdzk_vec.nrows to the rows of the column, of prefix records to the groups", nrows_are_right, {}},
      {"kind",
       "set kind to kdzk_kind_of(kdzk_row_of_width(width), family), without KDZK_ROW_VARIANT",
       kinds_are_rows,
       {}},
      {"flags", "set the flags of the column's form, and no others", flags_tell_the_form, {}},
      {"width",
       "set width to the bits of a code or stored value, and the three bytes behind it to 0",
       widths_are_bits,
       {}},
      {"range", "keep the lowest and highest code or value of the rows", ranges_are_right, {}},
      {"data",
       "store codes from the top bit of byte 0 on, and values with their highest byte first",
       data_are_big_endian,
       {}},
      {"lengths",
       "store the bytes of each value, less one, in 1, 2 or 4 bits from the top of byte 0 on",
       lengths_are_codes,
       {}},
      {"float-kind", "set float_kind to 1 for floats, to 2 for doubles", numbers_have_a_kind, {}},
      {"dictionary",
       "let dict_size, dict_mode, base, and offsets or value_len (big-endian) tell each code's symbol",
       dictionaries_are_right,
       {}},
      {"bitvec", "give bit vectors whole 64-bit words, row r at bit r % 64 of word r / 64", bits_are_words, {}},
      {"runs", "let own_nrows, unpack_base, unpack_width and run_offsets tell the runs, in row order", runs_add_up, {}},
      {"filter",
       "set kdzk_vec.filter to null or to whole words, with the rows that aren't NULL",
       filters_are_full,
       {"runs"}},
      {"run-bits", "give own_bitvec (own_nrows + 63) / 64 words", run_bits_are_words, {"runs"}},
      {"block",
       "set decomp_size to the bytes that data decompresses to, and the word at decomp_slot to null",
       blocks_have_a_slot,
       {"runs"}},
      {"padding",
       "allocate KDZK_PADDING bytes behind every column, lengths stream and block",
       streams_are_padded,
       {"data", "runs", "block"}},
      {"result-cb",
       "call the burst_rle kernel of the column's run lengths, with the arguments that result_cb got, and "
       "return what it returns",
       result_cb_expands,
       {"kind", "flags", "width", "runs", "run-bits", "filter", "padding"}},
      {"not-shared", "give every column its own decomp_slot and own_bitvec", nothing_is_shared, {}},
      {"decompress",
       "return 0 and *written for a whole block, and anything else, with nothing behind the room, if not",
       blocks_decompress,
       {"block", "env-complete", "tmp-alignment", "tmp-size"}},
      {"copy",
       "hand env, decomp_slot and alloc_tag on as they are",
       copies_are_kept,
       {"block", "decompress", "kind", "flags", "width", "alloc-alignment", "alloc-size", "alloc-padding", "not-shared",
        "filter"}},
      {"copy-balance",
       "give the copy at decomp_slot back once when the column ends",
       copies_are_balanced,
       {"copy", "result-cb", "run-bits", "tmp-balance"}},
      {"texts", "let data and lengths tell each value, with native 16-bit lengths", texts_are_right, {"flags"}},
      {"prefix-records",
       "set prefix_group to 16, and prefix_width and prefix_count to what the stream has",
       prefix_records_are_right,
       {}},
  };
}

}  // namespace kdzk_verify

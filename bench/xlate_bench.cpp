// SPDX-License-Identifier: Apache-2.0
// Translation of random codes through tables of 256 entries to 1 Mi, half of them or one in a hundred with a value, and
// the composition of group keys.
//
// Peers: `plain_loop` does the same row by row, without a branch on the data; `loop_with_if` takes a branch at a hit.
// `keys_loop` composes the keys of three columns row by row, with a scalar fetch each. Bytes are those of the codes.

#include <algorithm>
#include <memory>
#include <random>

#include "bench/bench.h"
#include "bench/peers/xlate_loops.h"

namespace kdzk_bench {
namespace {

constexpr const char* index_words[] = {"sim", "off", "ind", "groupkey"};
constexpr const char* element_words[] = {"bit", "nib", "ub1", "ub2", "ub4"};
constexpr int element_bits[] = {1, 4, 8, 16, 32};

struct Form {
  int index, element;  // of the words
  bool c2d;

  std::string name() const {
    return std::string("xlate_") + index_words[index] + "_" + element_words[element] + (c2d ? "_c2d" : "");
  }
  kdzk_kernel kernel() const {
    const auto row = static_cast<uint32_t>(element) + (c2d ? KDZK_ROW_VARIANT : 0);
    return library().dispatch[kdzk_id_of_kind(kdzk_kind_of(row, static_cast<uint32_t>(index)), KDZK_OP_XLATE)];
  }
};

std::string entries_name(uint32_t entries) {
  return entries >= 1024 * 1024 ? std::to_string(entries >> 20) + "Mi"
         : entries >= 1024      ? std::to_string(entries >> 10) + "Ki"
                                : std::to_string(entries);
}

// A call of a kernel or of a loop: codes, table and output.
struct Translating {
  kdzk_kernel kernel;
  std::vector<uint32_t> codes;
  std::vector<uint64_t> table, bits, elements, selection;
  std::vector<const uint8_t*> pages;
  XlateTable loop_table;
  kdzk_enc_ctx enc{}, info{};
  kdzk_vec result{}, input{}, table_vec{};
  kdzk_hit_range range{};
  kdzk_exec exec{};

  Translating(const Form& form, uint32_t entries, unsigned percent, uint32_t nrows)
      : kernel(form.kernel()),
        codes(nrows + KDZK_PADDING / 4),
        table(uint64_t{entries} * static_cast<uint32_t>(element_bits[form.element]) / 64),
        bits((nrows + 63) / 64),
        elements(form.c2d ? uint64_t{nrows} * static_cast<uint32_t>(element_bits[form.element]) / 64 + 1 : 0) {
    constexpr uint32_t base = 1000, page_shift = 12;
    std::mt19937_64 engine(1);
    const int element = element_bits[form.element];
    const uint64_t none = ~uint64_t{0} >> (64 - element);
    for (uint64_t& word : table) {
      for (int bit = 0; bit < 64; bit += element) {
        const uint64_t random = engine();
        word |= (random % 100 < percent ? (random >> 32) % none : none) << bit;
      }
    }
    for (uint32_t& code : codes) {
      const uint32_t native = static_cast<uint32_t>(engine()) % entries;
      code = form.index == 3 ? native : __builtin_bswap32(native + (form.index == 1 ? base : 0));
    }
    loop_table = {table.data(), element, form.index == 1 ? base : 0, nullptr, page_shift, (1u << page_shift) - 1};
    info.xlate_base = base;
    info.page_shift = page_shift;
    info.page_mask = loop_table.page_mask;
    table_vec.bitvec = table.data();
    table_vec.enc_ctx = &info;
    if (form.index == 2) {  // one page in eight is missing, if there are so many
      const auto* const bytes = reinterpret_cast<const uint8_t*>(table.data());
      for (uint32_t first = 0, page = 0; first < entries; first += 1u << page_shift, page++) {
        pages.push_back(page % 8 == 7 ? nullptr : bytes + uint64_t{first} * static_cast<uint32_t>(element) / 8);
      }
      loop_table.pages = pages.data();
      table_vec.bitvec = reinterpret_cast<uint64_t*>(pages.data());
    }
    enc.flags = KDZK_NUMERIC;
    enc.width = 32;
    input.data = codes.data();
    input.enc_ctx = &enc;
    input.nrows = nrows;
    result.data = &range;
    result.bitvec = bits.data();
    exec.xlate_info = &info;
    exec.xlate_map = form.c2d ? elements.data() : nullptr;
  }
  Translating(const Translating&) = delete;

  void run() { kernel.xlate(&result, &input, &table_vec, &exec); }

  template <class Loop>
  void run_loop(const Loop& loop) {
    XlateOutput out = {bits.data(), exec.xlate_map, 0, 0, 0};
    loop(loop_table, reinterpret_cast<const uint8_t*>(codes.data()), input.nrows, out);
    result.hits = out.hits;
    range = {out.first, out.last};
  }

  Answer answer() const {
    std::vector<uint64_t> all = bits;
    all.insert(all.end(), elements.begin(), elements.end());
    all.push_back(range.first);
    all.push_back(range.last);
    return {result.hits, all};
  }
};

void add_translation(const Form& form, uint32_t entries, unsigned percent, uint32_t nrows) {
  const std::string data =
      entries_name(entries) + "/" + (percent == 50 ? "" : std::to_string(percent) + "%/") + size_name(nrows);
  add_group(form.name(), data, nrows, uint64_t{nrows} * 4, [=] {
    const auto t = std::make_shared<Translating>(form, entries, percent, nrows);
    const auto peer = [&](const char* name, auto run) { return Peer{name, run, [=] { return t->answer(); }}; };
    return std::vector<Peer>{peer("kdzk", [=] { t->run(); }), peer("plain_loop", [=] { t->run_loop(xlate_loop); }),
                             peer("loop_with_if", [=] { t->run_loop(xlate_loop_with_if); })};
  });
}

void add_key_table(int element, uint32_t entries, uint32_t nrows) {
  const Form form = {3, element, true};
  add_group(form.name(), entries_name(entries) + "/" + size_name(nrows), nrows, uint64_t{nrows} * 4, [=] {
    const auto t = std::make_shared<Translating>(form, entries, 50, nrows);
    const auto keys = std::make_shared<std::vector<uint32_t>>(nrows);
    t->result.data = keys->data();
    t->exec.xlate_map = t->table.data();
    t->exec.group_stride = 12345;
    return std::vector<Peer>{
        {"kdzk", [=] { t->run(); }, nullptr},
        {"plain_loop", [=] { add_keys_loop(t->loop_table, t->codes.data(), 12345, keys->data(), nrows); }, nullptr}};
  });
}

// Keys of three columns.
struct Composing {
  kdzk_env env{};
  kdzk_exec exec{};
  kdzk_enc_ctx enc[3]{};
  kdzk_vec columns[3]{}, result{}, temp{};
  std::vector<uint32_t> keys, scratch;
  KeyColumn loop_columns[3];
  uint32_t key_count = 0;
  uint32_t infos[9];
  bool multiplies;

  Composing(const int widths[3], bool by_sizes, uint32_t batch, uint32_t nrows)
      : keys(nrows), scratch(batch), multiplies(by_sizes) {
    for (int i = 0; i < 3; i++) {
      const auto width = static_cast<uint32_t>(widths[i]);
      const uint8_t* const stream = random_bytes(uint64_t{nrows} * width / 8);
      enc[i].kind = kdzk_kind_of(kdzk_row_of_width(width), KDZK_FAMILY_DICT);
      enc[i].flags = KDZK_PACKED_DICT;
      enc[i].width = static_cast<uint8_t>(width);
      enc[i].dict_size = 1u << width;
      columns[i].data = const_cast<uint8_t*>(stream);
      columns[i].enc_ctx = enc + i;
      columns[i].nrows = nrows;
      loop_columns[i] = {stream, widths[i], enc[i].dict_size};
    }
    result.data = keys.data();
    result.nrows = nrows;
    temp.data = scratch.data();
    temp.nrows = batch;
    env.hctx = infos;
    env.tmp_alloc = [](void* hctx, uint64_t, const char*, uint32_t, uint32_t, void**) { return hctx; };
    env.tmp_free = [](void*, void*, void*) {};
    exec.env = &env;
    exec.flags = multiplies ? KDZK_EX_GROUP_MUL : 0;
  }
  Composing(const Composing&) = delete;

  void run() { library().groupkey_dydi(&result, &key_count, columns, 3, &temp, &exec); }
  Answer answer() const { return {keys.size(), std::vector<uint64_t>(keys.begin(), keys.end())}; }
};

void add_composition(const int (&widths)[3], bool multiplies, uint32_t batch, uint32_t nrows) {
  const auto number = [&](int i) { return std::to_string(widths[i]); };
  const std::string name = std::string("groupkey_dydi_") + (multiplies ? "mul" : "shift");
  const std::string data = number(0) + "_" + number(1) + "_" + number(2) + "bit/" + entries_name(batch);
  add_group(name, data + "/" + size_name(nrows), nrows, uint64_t{nrows} * 4, [=] {
    const auto c = std::make_shared<Composing>(widths, multiplies, batch, nrows);
    return std::vector<Peer>{{"kdzk", [=] { c->run(); }, [=] { return c->answer(); }},
                             {"keys_loop", [=] { keys_loop(c->loop_columns, multiplies, c->keys.data(), nrows); },
                              [=] { return c->answer(); }}};
  });
}

}  // namespace

void add_xlate() {
  for (int index = 0; index < 3; index++) {
    for (int element = 0; element < 5; element++) {
      for (const bool c2d : {false, true}) {
        if (c2d && element == 0) continue;
        for (const uint32_t entries : {256u, 16384u, 131072u, 1048576u}) {
          add_translation({index, element, c2d}, entries, 50, in_cache);
        }
      }
    }
    for (const uint32_t entries : {256u, 1048576u}) {
      add_translation({index, 0, false}, entries, 50, in_memory);
      add_translation({index, 2, false}, entries, 50, in_memory);
      add_translation({index, 4, true}, entries, 50, in_memory);
    }
  }
  for (const unsigned percent : {1u, 10u, 99u}) add_translation({0, 2, false}, 16384, percent, in_cache);
  for (const uint32_t nrows : {in_cache, in_memory}) {
    for (int element = 1; element < 5; element++) {
      for (const uint32_t entries : {256u, 16384u, 1048576u}) add_key_table(element, entries, nrows);
    }
    for (const bool multiplies : {true, false}) {
      for (const uint32_t batch : {1024u, 8192u}) {
        add_composition({5, 9, 12}, multiplies, batch, nrows);
        add_composition({8, 13, 10}, multiplies, batch, nrows);
      }
    }
  }
}

}  // namespace kdzk_bench

// SPDX-License-Identifier: Apache-2.0
// The host kit: columns from values, and the checks of what came from a disk.
//
// build_columns: rows like those of a table of flights, all columns of it together. Each column gets one dictionary
// over all rows, which then become packed columns of 65,536 rows. Peer `std_map` does the same with std::unordered_map
// and std::sort, and packs with the same function.
//
// check_codes and check_column: packed codes whose dictionary doesn't fill their width. Peer `ge_kernel` is the bare
// kernel over the same codes, `plain_loop` the same check without the library.

#include <kdzk/host/column.h>
#include <kdzk/host/packed_codes.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <random>
#include <string_view>
#include <unordered_map>

#include "bench/bench.h"

namespace kdzk_bench {
namespace {

constexpr uint32_t segment_rows = 65536;

struct Column {
  uint32_t type;
  std::vector<int64_t> integers;
  std::vector<std::string> words;
  std::vector<kdzk_host_text> texts;
  std::vector<uint64_t> nulls;

  // Rows of `cardinality` values; smaller numbers are more frequent, one row in 50 is NULL if asked for.
  Column(uint32_t of_type, uint32_t rows, uint32_t cardinality, bool with_nulls, std::mt19937_64& random)
      : type(of_type), nulls((rows + 63) / 64) {
    for (uint32_t i = 0; i < cardinality && type == KDZK_HOST_TEXT; i++)
      words.push_back("name " + std::to_string(i * 7919 % cardinality));
    for (uint32_t row = 0; row < rows; row++) {
      const uint64_t i = std::min(random() % cardinality, random() % cardinality);
      if (type == KDZK_HOST_INTEGER) integers.push_back(static_cast<int64_t>(i) - 30);
      if (type == KDZK_HOST_TEXT) texts.push_back({words[i].data(), words[i].size()});
      if (with_nulls && random() % 50 == 0) nulls[row / 64] |= uint64_t{1} << row % 64;
    }
  }

  kdzk_host_values rows(uint32_t first, uint32_t count) const {
    const void* const at =
        type == KDZK_HOST_TEXT ? static_cast<const void*>(texts.data() + first) : integers.data() + first;
    return {type, count, at, nulls.data() + first / 64};
  }
  bool is_null(uint32_t row) const { return (nulls[row / 64] >> row % 64 & 1) != 0; }
};

struct Table {
  uint32_t rows;
  std::vector<Column> columns;
  std::vector<uint8_t> out, peer_out;  // of the columns, segment after segment

  explicit Table(uint32_t n) : rows(n), out(uint64_t{n} * 24 + 4096) { peer_out = out; }

  void build_by_kit() {
    uint8_t* at = out.data();
    for (const Column& column : columns) {
      const std::unique_ptr<kdzk_host_coder, void (*)(kdzk_host_coder*)> coder(kdzk_host_coder_new(column.type),
                                                                               kdzk_host_coder_free);
      const kdzk_host_values all = column.rows(0, rows);
      kdzk_host_coder_add(coder.get(), &all);
      kdzk_host_coder_finish(coder.get(), KDZK_HOST_NULL_IF_SEEN);
      for (uint32_t first = 0; first < rows; first += segment_rows) {
        const kdzk_host_values values = column.rows(first, std::min(segment_rows, rows - first));
        kdzk_host_column record;
        kdzk_host_column_build(&values, coder.get(), KDZK_HOST_PACKED, 0, at,
                               static_cast<uint64_t>(out.data() + out.size() - at), &record);
        at += (record.size + 7) / 8 * 8;
      }
    }
  }

  template <class Value, class ValueOf>
  void build_by_map(const Column& column, const ValueOf& value_of, uint8_t*& at) {
    std::unordered_map<Value, uint32_t> codes;
    bool nulls = false;
    for (uint32_t row = 0; row < rows; row++) {
      if (column.is_null(row)) {
        nulls = true;
      } else {
        codes.try_emplace(value_of(row), 0);
      }
    }
    std::vector<Value> sorted;
    for (const auto& entry : codes) sorted.push_back(entry.first);
    std::sort(sorted.begin(), sorted.end());
    for (uint32_t i = 0; i < sorted.size(); i++) codes[sorted[i]] = i + nulls;
    const uint32_t width = kdzk_host_code_width(static_cast<uint32_t>(sorted.size() + nulls));
    std::vector<uint32_t> segment;
    for (uint32_t first = 0; first < rows; first += segment_rows) {
      segment.clear();
      for (uint32_t row = first; row < rows && row < first + segment_rows; row++)
        segment.push_back(column.is_null(row) ? 0 : codes.find(value_of(row))->second);
      kdzk_host_pack(segment.data(), segment.size(), width, at);
      at += (kdzk_host_packed_bytes(segment.size(), width) + 7) / 8 * 8;
    }
  }

  void build_by_std_map() {
    uint8_t* at = peer_out.data();
    for (const Column& column : columns) {
      if (column.type == KDZK_HOST_INTEGER) {
        build_by_map<int64_t>(
            column, [&](uint32_t row) { return column.integers[row]; }, at);
      } else {
        const auto text = [&](uint32_t row) {
          return std::string_view(static_cast<const char*>(column.texts[row].bytes), column.texts[row].size);
        };
        build_by_map<std::string_view>(column, text, at);
      }
    }
  }
};

struct ColumnKind {
  uint32_t type, cardinality;
  bool nulls;
};

void add_build(const std::string& data, uint32_t rows, const std::vector<ColumnKind>& kinds) {
  const auto make = [=] {
    auto table = std::make_shared<Table>(rows);
    std::mt19937_64 random(1);
    for (const ColumnKind& kind : kinds)
      table->columns.emplace_back(kind.type, rows, kind.cardinality, kind.nulls, random);
    const auto same = [=] { return Answer{table->out == table->peer_out, {}}; };
    table->build_by_std_map();
    std::vector<Peer> peers = {{"kdzk", [=] { table->build_by_kit(); }, same},
                               {"std_map", [=] { table->build_by_std_map(); }, same}};
    return peers;
  };
  uint64_t bytes = 0;
  for (const ColumnKind& kind : kinds) bytes += uint64_t{rows} * (kind.type == KDZK_HOST_TEXT ? 16 : 8);
  add_group("build_columns", data, rows, bytes, make);
}

// Codes of a dictionary of 3 / 4 of what the width allows.
struct Codes {
  uint32_t rows, width, limit;
  uint64_t bytes;
  std::vector<uint64_t> column, bits;
  kdzk_host_column record{};
  std::unique_ptr<kdzk_host_coder, void (*)(kdzk_host_coder*)> coder{nullptr, kdzk_host_coder_free};
  kdzk_enc_ctx enc_ctx{};
  kdzk_vec input{}, result{};
  kdzk_kargs constant{};
  kdzk_compare_fn ge;
  uint64_t outcome = 0;

  Codes(uint32_t n, uint32_t w) : rows(n), width(w), limit((uint32_t{1} << w) / 4 * 3), bits((n + 63) / 64) {
    std::mt19937_64 random(1);
    std::vector<int64_t> values(rows);
    for (uint32_t row = 0; row < rows; row++) values[row] = row < limit ? row : random() % limit;
    const kdzk_host_values all{KDZK_HOST_INTEGER, rows, values.data(), nullptr};
    coder.reset(kdzk_host_coder_new(KDZK_HOST_INTEGER));
    kdzk_host_coder_add(coder.get(), &all);
    kdzk_host_coder_finish(coder.get(), KDZK_HOST_NULL_IF_SEEN);
    column.resize((kdzk_host_column_bound(rows) + KDZK_PADDING) / 8 + 1);
    kdzk_host_column_build(&all, coder.get(), KDZK_HOST_PACKED, 0, column.data(), 8 * column.size(), &record);
    bytes = record.size;
    enc_ctx.width = static_cast<uint8_t>(width);
    input.data = column.data();
    input.enc_ctx = &enc_ctx;
    input.nrows = result.nrows = rows;
    result.bitvec = bits.data();
    constant.data = &limit;
    const uint8_t kind = kdzk_kind_of(kdzk_row_of_width(width), KDZK_FAMILY_DICT);
    ge = library().dispatch[kdzk_id_of_kind(kind, KDZK_OP_GE)].compare;
  }
  void check_codes(const kdzk_specialized_ctx* with) {
    outcome = kdzk_host_check_codes(with, column.data(), bytes, rows, width, limit, nullptr);
  }
  void check_column() {
    outcome = kdzk_host_column_check(&library(), &record, rows, column.data(), bytes,
                                     kdzk_host_coder_dictionary(coder.get()), nullptr);
  }
  void run_ge() { outcome = ge(&result, &input, &constant, nullptr) != KDZK_NO_ROW; }
};

void add_checks(uint32_t rows, uint32_t width) {
  const std::string data = std::to_string(width) + "bit/" + size_name(rows);
  for (const bool whole : {false, true}) {
    const auto make = [=] {
      auto codes = std::make_shared<Codes>(rows, width);
      const auto answer = [=] { return Answer{codes->outcome, {}}; };
      std::vector<Peer> peers = {
          {"kdzk", [=] { whole ? codes->check_column() : codes->check_codes(&library()); }, answer},
          {"ge_kernel", [=] { codes->run_ge(); }, answer},
          {"plain_loop", [=] { codes->check_codes(nullptr); }, answer}};
      return peers;
    };
    add_group(whole ? "check_column" : "check_codes", data, rows, uint64_t{rows} * width / 8, make);
  }
}

}  // namespace

void add_host_kit() {
  constexpr uint32_t rows = 1'000'000;
  add_build("int64_of_300", rows, {{KDZK_HOST_INTEGER, 300, true}});
  add_build("int64_of_500k", rows, {{KDZK_HOST_INTEGER, 500'000, false}});
  add_build("text_of_300", rows, {{KDZK_HOST_TEXT, 300, false}});
  add_build("text_of_500k", rows, {{KDZK_HOST_TEXT, 500'000, false}});
  add_build("6_columns", rows,
            {{KDZK_HOST_INTEGER, 700, true},
             {KDZK_HOST_INTEGER, 1500, false},
             {KDZK_HOST_INTEGER, 90, false},
             {KDZK_HOST_INTEGER, 1440, true},
             {KDZK_HOST_TEXT, 300, false},
             {KDZK_HOST_TEXT, 300, false}});
  for (const uint32_t width : {2u, 8u, 11u, 13u, 16u}) add_checks(in_cache, width);
}

}  // namespace kdzk_bench

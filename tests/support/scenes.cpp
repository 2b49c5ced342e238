// SPDX-License-Identifier: Apache-2.0

#include "tests/support/scenes.h"

#include <kdzk/host/prefix_records.h>
#include <kdzk/host/sqzb.h>

#include <numeric>

#include "tests/support/numbers.h"
#include "tests/support/predicate_oracle.h"
#include "tests/support/streams.h"
#include "tests/support/value_columns.h"

namespace kdzk_test {
namespace {

using Roads = std::vector<Road>;
const Roads one_road = {Road::fast}, plain_roads = {Road::fast, Road::tail},
            all_roads = {Road::fast, Road::tail, Road::selective, Road::blocked};
std::vector<Scene> all;

// A kernel's scene; `play` gets its entry.
template <class Play>
void add(uint32_t row, uint32_t column, const Roads& roads, const std::string& special, const Play& play) {
  const uint32_t id = kdzk_id_of(row, column);
  all.push_back({kdzk_name_of(&library(), id) + special, id, roads,
                 [=](Stage& stage, Road road) { play(stage, road, library().dispatch[id]); }});
}

// A service's.
template <class Play>
void add_slot(uint32_t slot, const std::string& name, const Roads& roads, const Play& play) {
  all.push_back({name, slot_0 + slot, roads, play});
}

// ---- Columns ----

Codes random_codes(Stage& s, size_t n, uint64_t below) {
  Codes codes(n);
  for (uint32_t& code : codes) code = static_cast<uint32_t>(s.random.below(below));
  return codes;
}

Bytes random_bytes(Stage& s, size_t n, uint64_t below = 256) {
  Bytes bytes(n);
  for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(s.random.below(below));
  return bytes;
}

template <class T>
std::vector<T> part_of(const std::vector<T>& rows, size_t first, size_t count) {
  return {rows.begin() + static_cast<std::ptrdiff_t>(first),
          rows.begin() + static_cast<std::ptrdiff_t>(std::min(first + count, rows.size()))};
}

// Calls for a vector of rows: one, or on the road of tails one for every few rows.
template <class Part>
void in_parts(Road road, uint32_t nrows, const Part& part) {
  const uint32_t step = road == Road::tail ? 7 : std::max(nrows, 1u);
  for (uint32_t first = 0; first < nrows; first += step) part(first, std::min(step, nrows - first));
}

// A vector of a column and what it takes besides.
struct Column {
  kdzk_enc_ctx enc;
  kdzk_vec vec;
  explicit Column(const kdzk_enc_ctx& of = {}, uint32_t nrows = 0) : enc(of), vec{.enc_ctx = &enc, .nrows = nrows} {}
  Column(const Column&) = delete;
  void hold(Stage& s, Road road, const Bytes& bytes, size_t slack = KDZK_PADDING) {
    if (road == Road::blocked) return s.block(&vec, &enc, bytes);
    vec.data = s.in(bytes, slack);
  }
};

// Where a call of so many rows puts a bit for each.
struct RowBits {
  kdzk_vec vec;
  RowBits(Stage& s, uint32_t nrows, bool cleared = false) : vec{.bitvec = s.out_bits(nrows, cleared), .nrows = nrows} {}
  void saw(Stage& s) const {
    s.saw(vec.hits);
    s.rows(vec.bitvec, vec.nrows);
  }
};

kdzk_exec exec_of(Stage& s, Road road = Road::fast) {
  kdzk_exec exec{.env = s.env()};
  if (road == Road::selective) exec.flags = KDZK_EX_SELECTIVE;
  return exec;
}

const uint64_t* every_row_if_selective(Stage& s, Road road, uint32_t nrows) {
  return road == Road::selective ? s.in_bits(std::vector<bool>(nrows, true)) : nullptr;
}

// Lengths of runs, and how many rows they make up.
Bytes run_lengths(Stage& s, uint32_t runs) {
  Bytes lengths(runs);
  for (uint8_t& length : lengths) length = static_cast<uint8_t>(1 + s.random.below(s.random.below(3) == 0 ? 40 : 3));
  return lengths;
}
uint32_t sum_of(const Bytes& lengths) { return std::accumulate(lengths.begin(), lengths.end(), 0u); }
uint64_t hold_runs(Stage& s, const Bytes& lengths, uint32_t bits = 8) {
  return reinterpret_cast<uint64_t>(s.in(packed(Codes(lengths.begin(), lengths.end()), bits), 0, 2));
}

// ---- Bit per row: predicates, sets, translation, bloom test ----

void predicates() {
  for (const PredicateKernel& k : predicate_kernels()) {
    const uint32_t row = k.id() / 128, column = k.id() % 128, nrows = 2 * static_cast<uint32_t>(k.rows_per_step()) + 45;
    const std::string of = k.title() == k.name() ? "" : '+' + std::to_string(k.value_bytes) + " bytes";
    const auto width = static_cast<uint8_t>(k.value_bytes > 0 ? 8 * k.value_bytes : k.width);
    const auto hold = [k](Stage& s, Road road, const std::vector<Row>& rows, Column* c) {
      c->hold(s, road, stored_data(k, rows));
      if (k.has_lengths()) c->vec.lengths = s.in(stored_lengths(k, rows));
    };
    add(row, column, k.has_companion() ? all_roads : Roads{Road::fast, Road::tail, Road::blocked}, of,
        [=](Stage& s, Road road, kdzk_kernel) {
          const auto rows = random_rows(s.random, k, nrows, Fill::uniform);
          const auto filter = s.random.rows(nrows, 80), selection = s.random.rows(nrows, 70);
          const Constant low(k, rows[s.random.below(nrows)]), high(k, rows[s.random.below(nrows)]);
          in_parts(road, nrows, [&](uint32_t first, uint32_t count) {
            Column c({.width = width}, count);
            hold(s, road, part_of(rows, first, count), &c);
            if (k.reads_filter()) c.vec.filter = s.in_bits(part_of(filter, first, count));
            kdzk_exec exec = exec_of(s, road);
            exec.selection = s.in_bits(part_of(selection, first, count));
            RowBits result(s, count);
            s.call([&] { return k.call(&result.vec, &c.vec, low.args(), high.args(), &exec); });
            s.saw(exec.out_flags);
            result.saw(s);
          });
        });
    add(row, column, {Road::fast, Road::blocked}, of + "+runs", [=](Stage& s, Road road, kdzk_kernel) {
      const auto rows = random_rows(s.random, k, 100, Fill::uniform);
      const Bytes lengths = run_lengths(s, 100);
      const Constant low(k, rows[3]), high(k, rows[5]);
      Column c({.unpack_base = hold_runs(s, lengths),
                .unpack_width = 8,
                .own_nrows = 100,
                .result_cb = Stage::expand_runs,
                .own_bitvec = s.out_bits(100),
                .flags = KDZK_RLE,
                .width = width});
      hold(s, road, rows, &c);
      kdzk_exec exec = exec_of(s);
      RowBits result(s, sum_of(lengths));
      s.call([&] { return k.call(&result.vec, &c.vec, low.args(), high.args(), &exec); });
      result.saw(s);
    });
  }
}

void sets() {
  for (const uint8_t width : dict_widths) {
    add(kdzk_row_of_width(width), 45, all_roads, "", [width](Stage& s, Road road, kdzk_kernel kernel) {
      const uint32_t nrows = 301;
      const uint64_t codes = std::min<uint64_t>(uint64_t{1} << width, 3000);  // the host maps but the table's first
      const Codes rows = random_codes(s, nrows, codes);
      const auto selection = s.random.rows(nrows, 70);
      const kdzk_vec table{
          .bitvec = s.in_bits(s.random.rows(width <= 11 ? uint64_t{1} << width : (codes + 63) / 64 * 64, 50))};
      in_parts(road, nrows, [&](uint32_t first, uint32_t count) {
        Column c({.width = width}, count);
        c.hold(s, road, packed(part_of(rows, first, count), width), KDZK_SET_PADDING);
        kdzk_exec exec = exec_of(s, road);
        exec.selection = s.in_bits(part_of(selection, first, count));
        RowBits result(s, count);
        s.call([&] { return kernel.set(&result.vec, &c.vec, &table, &exec); });
        result.saw(s);
      });
    });
  }
}

void translations() {
  constexpr uint32_t element_bits[] = {1, 4, 8, 16, 32}, entries = 700, page = 64;
  for (const uint32_t column : {17u, 49u, 81u}) {
    for (const uint32_t row : {0u, 1u, 2u, 3u, 4u, 33u, 34u, 35u, 36u}) {
      add(row, column, {Road::fast, Road::tail, Road::selective}, "",
          [=, bits = element_bits[row % KDZK_ROW_VARIANT]](Stage& s, Road road, kdzk_kernel kernel) {
            Column table({.page_shift = 6, .page_mask = page - 1, .xlate_base = column == 49 ? 0xfffffff0 : 0});
            Bytes elements = random_bytes(s, (entries * bits + 7) / 8);
            for (uint8_t& byte : elements) byte = s.random.below(2) == 0 ? 0xff : byte;
            std::vector<uint64_t> pages;
            for (uint32_t at = 0; column == 81 && at < entries; at += page) {
              uint8_t* const here = s.in(part_of(elements, at * bits / 8, page * bits / 8), 0);
              pages.push_back(s.random.below(5) == 0 ? 0 : reinterpret_cast<uint64_t>(here));
            }
            table.vec.bitvec = reinterpret_cast<uint64_t*>(s.in(column == 81 ? bytes_of(pages) : elements, 0));
            Codes rows = random_codes(s, 301, entries);
            for (uint32_t& code : rows) code += table.enc.xlate_base;
            in_parts(road, 301, [&](uint32_t first, uint32_t count) {
              Column c({.flags = KDZK_NUMERIC, .width = 32}, count);
              c.vec.data = s.in(big_endian(part_of(rows, first, count)), 0);
              kdzk_exec exec = exec_of(s);
              exec.xlate_info = &table.enc;
              exec.selection = every_row_if_selective(s, road, count);
              if (row >= KDZK_ROW_VARIANT) exec.xlate_map = s.out(Bytes((count * bits + 7) / 8));
              RowBits result(s, count, true);
              result.vec.data = s.out(8);
              s.call([&] { return kernel.xlate(&result.vec, &c.vec, &table.vec, &exec); });
              s.saw(exec.out_flags2);
              result.saw(s);
            });
          });
    }
  }
  for (uint32_t form = 1; form < 5; form++) {  // added to group keys
    add(form + KDZK_ROW_VARIANT, 113, plain_roads, "",
        [bits = element_bits[form]](Stage& s, Road road, kdzk_kernel kernel) {
          const Codes rows = random_codes(s, 131, entries), keys = random_codes(s, 131, 1000);
          kdzk_exec exec = exec_of(s);
          exec.xlate_map = s.in(random_bytes(s, entries * bits / 8), 0);
          exec.group_stride = 77;
          in_parts(road, 131, [&](uint32_t first, uint32_t count) {
            Column c({.width = 32}, count);
            c.vec.data = s.in(bytes_of(part_of(rows, first, count)), 0);
            kdzk_vec result{.data = s.out(bytes_of(part_of(keys, first, count)))};
            s.call([&] { return kernel.xlate(&result, &c.vec, nullptr, &exec); });
            s.row_bytes(result.data, count * 4);
          });
        });
  }
}

void bloom() {
  for (const uint8_t width : {32, 64}) {
    for (const bool paged : {false, true}) {
      add_slot(51, "bloom_test+" + std::to_string(width) + (paged ? " bits, pages" : " bits"),
               {Road::fast, Road::tail, Road::selective}, [=](Stage& s, Road road) {
                 Column filter({.bloom_paged = paged, .bloom_mask = 0x1fff, .page_shift = 8, .page_mask = 0xff});
                 const auto bits = s.random.rows(0x2000, 30);
                 filter.vec.bitvec = s.in_bits(bits);
                 std::vector<uint64_t*> pages;
                 for (uint32_t at = 0; paged && at < 0x2000; at += 0x100)
                   pages.push_back(s.in_bits(part_of(bits, at, 0x100)));
                 if (paged) filter.vec.bitvec = reinterpret_cast<uint64_t*>(s.in(bytes_of(pages), 0));
                 const Codes rows = random_codes(s, 301u * width / 32, uint64_t{1} << 32);
                 in_parts(road, 301, [&](uint32_t first, uint32_t count) {
                   Column c({.flags = KDZK_NUMERIC, .width = width}, count);
                   c.vec.data = s.in(big_endian(part_of(rows, first * width / 32, count * width / 32)), 0);
                   kdzk_exec exec = exec_of(s);
                   exec.selection = every_row_if_selective(s, road, count);
                   RowBits result(s, count, true);
                   result.vec.data = s.out(8);
                   s.call([&] { return library().bloom_test(&result.vec, &c.vec, &filter.vec, &exec); });
                   result.saw(s);
                 });
               });
    }
  }
}

// ---- Decoding ----

// The symbols of so many codes, for the fields of a column.
void hold_dictionary(Stage& s, uint32_t mode, uint32_t size, kdzk_enc_ctx* enc) {
  Codes offsets = {0};
  for (uint32_t code = 0; code < size; code++)
    offsets.push_back(offsets.back() + static_cast<uint32_t>(mode == 0 ? 5 : s.random.below(9)));
  enc->dict_mode = mode;
  enc->dict_size = size;
  enc->base = s.in(random_bytes(s, offsets.back()), 0);
  enc->value_len = s.in({0, 5}, 0);
  enc->offsets = s.in(big_endian(offsets), 0);
}

// Where a decoding call writes symbols.
kdzk_vec out_symbols(Stage& s, uint32_t count) {
  return {.data = s.out(count * 8, 8), .lengths = s.out(count * 2, 2), .indicators = s.out(count * 2, 2)};
}

void symbols(uint8_t width, uint32_t mode) {
  const auto dict_size = static_cast<uint32_t>(std::min<uint64_t>(uint64_t{1} << width, 200));
  const std::string of_mode = mode == 0 ? "+0" : "+1";
  add(kdzk_row_of_width(width), 42, {Road::fast, Road::tail, Road::blocked}, of_mode,
      [=](Stage& s, Road road, kdzk_kernel kernel) {
        Column c({.flags = KDZK_PACKED_DICT, .width = width}, 301);
        hold_dictionary(s, mode, dict_size, &c.enc);
        c.hold(s, road, packed(random_codes(s, 301, dict_size), width));
        const Codes rows = random_codes(s, 133, 301);
        in_parts(road, 133, [&](uint32_t first, uint32_t count) {
          kdzk_vec out = out_symbols(s, count);
          kdzk_exec exec = exec_of(s);
          exec.ones_vec = reinterpret_cast<uint32_t*>(s.in(bytes_of(part_of(rows, first, count)), 0, 4));
          exec.ones_vec_size = count;
          s.call([&] { return kernel.decode(&out, &c.vec, &exec); });
          s.has_value(out.data, count * 8);  // made by a product of a code and padding below it, see valgrind.supp
          s.saw(out.hits);
          s.saw(exec.row);
          s.row_bytes(out.lengths, count * 2);
        });
      });
  if (width != 8 && width != 16 && width != 32) return;
  for (const bool copies : {false, true}) {
    if (copies && (mode == 1 || width != 32)) continue;
    add(kdzk_row_of_width(width), 44, plain_roads, of_mode + (copies ? " copies" : ""),
        [=](Stage& s, Road road, kdzk_kernel kernel) {
          Column c({.flags = KDZK_PACKED_DICT, .width = width});
          hold_dictionary(s, mode, dict_size, &c.enc);
          const Codes rows = random_codes(s, 133, dict_size);
          in_parts(road, 133, [&](uint32_t first, uint32_t count) {
            Bytes data;
            for (const uint32_t code : part_of(rows, first, count))
              for (uint32_t bit = 0; bit < width; bit += 8) data.push_back(static_cast<uint8_t>(code >> bit));
            c.vec.data = s.in(data);
            c.vec.nrows = count;
            kdzk_vec out = out_symbols(s, count);
            if (copies) out.data = s.out(count * 5);
            kdzk_exec exec = exec_of(s);
            exec.flags2 = copies ? KDZK_EX_COPY_VALUES : 0;
            s.call([&] { return kernel.decode(&out, &c.vec, &exec); });
            s.saw(out.hits);
            s.row_bytes(copies ? out.data : out.lengths, count * (copies ? 5 : 2));
          });
        });
  }
}

void unpacked(uint8_t width, bool wide, uint8_t runs) {
  const uint32_t element = wide || width > 16 ? 4 : width > 8 ? 2 : 1;
  add(kdzk_row_of_width(width), 43, all_roads,
      std::string(wide ? "+wide" : "") + (runs ? "+runs " : "") + std::to_string(runs),
      [=](Stage& s, Road road, kdzk_kernel kernel) {
        const uint32_t n = runs != 0 ? 100 : 301;
        const Bytes lengths = run_lengths(s, n);
        Column c({.unpack_width = runs, .width = width}, n);
        if (runs != 0) {
          c.enc.flags = KDZK_RLE;
          c.enc.unpack_base = hold_runs(s, lengths, runs);
          c.vec.nrows = sum_of(lengths);
        }
        c.hold(s, road, packed(random_codes(s, n, uint64_t{1} << width), width));
        kdzk_exec exec = exec_of(s, road);
        exec.flags |= wide ? KDZK_EX_UNPACK_WIDE : 0;
        exec.selection = every_row_if_selective(s, road, c.vec.nrows);
        const uint32_t room = road == Road::tail ? 7 : c.vec.nrows;
        for (; exec.row < c.vec.nrows; exec.row++) {
          kdzk_vec result{.data = s.out(room * element), .nrows = room};
          const kdzk_exec before = exec;
          s.call([&] { return kernel.decode(&result, &c.vec, &exec); }, [&] { exec = before; });
          s.counts(result.data, result.hits * element);
          s.saw(result.hits);
          s.saw(exec.row);
          s.row_bytes(result.data, result.hits * element);
        }
      });
}

void bursts() {
  for (const uint32_t row : {6u, 7u, 14u, 15u}) {
    for (const unsigned percent : {1u, 50u, 99u}) {  // each has a way of its own
      add(row, 110, one_road, '+' + std::to_string(percent) + " %", [=](Stage& s, Road, kdzk_kernel kernel) {
        const uint32_t runs = 300;
        const Bytes lengths = run_lengths(s, runs);
        Codes offsets(runs + 1);
        std::partial_sum(lengths.begin(), lengths.end(), offsets.begin() + 1, std::plus<uint32_t>());
        Column c({.unpack_base = hold_runs(s, lengths, row >= 14 ? 16 : 8),
                  .own_nrows = runs,
                  .run_offsets = s.in(big_endian(offsets), 0),
                  .flags = KDZK_RLE});
        const auto set = s.random.rows(runs, percent);
        const auto hits = static_cast<uint64_t>(std::count(set.begin(), set.end(), true));
        const kdzk_result_report report{.bitvec = s.in_bits(set), .hits = hits};
        RowBits result(s, sum_of(lengths));
        s.call([&] { return kernel.burst(&result.vec, &c.vec, &report); });
        s.saw(result.vec.hits);
      });
    }
  }
}

void streams() {
  for (int16_t width = 1; width <= 8; width++) {
    add_slot(56, "decode_prefix_records+" + std::to_string(width) + " bytes", one_road, [=](Stage& s, Road) {
      const uint32_t count = 16 * 9 + 5, of = static_cast<uint32_t>(width);
      Bytes records = random_bytes(s, count * of), stream(kdzk_host_prefix_records_bound(count, of));
      for (uint32_t i = 0; i < records.size(); i++) records[i] = i % of <= i / of / 16 % 9 ? 7 : records[i];
      stream.resize(kdzk_host_prefix_records_write(records.data(), count, of, stream.data()));
      Column c({.prefix_group = 16, .prefix_width = width, .prefix_count = count}, kdzk_host_prefix_groups(count));
      c.vec.data = s.in(stream);
      kdzk_exec exec = exec_of(s);
      exec.xlate_info = s.out(count * sizeof(kdzk_prefix_record));
      const kdzk_vec result{.data = s.out(count * of)};
      s.call([&] { return library().decode_prefix_records(&result, &c.vec, &exec); });
    });
  }
  for (const uint32_t symbols : {1u, 5u, 200u}) {
    add_slot(64, "sqzb_decode_x86+" + std::to_string(symbols), one_road, [=](Stage& s, Road) {
      const Bytes bytes = random_bytes(s, 3000, symbols);
      Bytes block(kdzk_host_sqzb_bound(3000, KDZK_HOST_SQZB_ANY_WIDTH));
      uint64_t size = 0;
      kdzk_host_sqzb_write(bytes.data(), 3000, KDZK_HOST_SQZB_ANY_WIDTH, block.data(), block.size(), &size);
      block.resize(size);
      const uint8_t* const src = s.in(block);
      uint8_t* const dst = s.out(3000);
      const kdzk_sqzb_ctx ctx = {s.env()->hctx, nullptr, s.env()->tmp_alloc, s.env()->tmp_free, dst};
      uint32_t written = 0;
      s.call([&] { return library().sqzb_decode_x86(&ctx, src, dst, &written, 3000); });
      s.saw(written);
    });
  }
}

void group_keys(bool multiplies, bool selected) {
  add_slot(
      53, std::string("groupkey_dydi+") + (multiplies ? "mul" : "shift") + (selected ? " selected" : ""),
      {Road::fast, Road::tail, Road::blocked}, [=](Stage& s, Road road) {
        constexpr uint8_t widths[] = {7, 4, 12};
        const Bytes lengths = run_lengths(s, 60);
        const uint32_t nrows = sum_of(lengths);
        std::deque<Column> held;
        std::vector<kdzk_vec> columns;
        for (const uint8_t width : widths) {
          const bool runs = width == 4;
          Column& c = held.emplace_back(kdzk_enc_ctx{.kind = kdzk_kind_of(kdzk_row_of_width(width), KDZK_FAMILY_DICT),
                                                     .dict_size = (1u << width) - 1,
                                                     .unpack_base = hold_runs(s, lengths),
                                                     .unpack_width = 8,
                                                     .flags = KDZK_PACKED_DICT | (runs ? KDZK_RLE : 0),
                                                     .width = width},
                                        nrows);
          c.hold(s, road, packed(random_codes(s, runs ? 60 : nrows, c.enc.dict_size), width));
          columns.push_back(c.vec);
        }
        kdzk_exec exec = exec_of(s);
        exec.flags = multiplies ? KDZK_EX_GROUP_MUL : 0;
        if (selected) exec.selection = s.in_bits(s.random.rows(nrows, 60));
        const uint32_t room = road == Road::tail && !selected ? 7 : nrows;
        for (uint64_t returned = KDZK_OUTPUT_FULL; returned == KDZK_OUTPUT_FULL;) {
          kdzk_vec result{.data = s.out(room * 4), .nrows = room}, temp{.data = s.out(50 * 4, 4), .nrows = 50};
          s.counts(temp.data, 0);
          uint32_t keys = 0;
          returned = s.call([&] { return library().groupkey_dydi(&result, &keys, columns.data(), 3, &temp, &exec); });
          s.counts(result.data, result.hits * 4);
          s.saw(keys);
          s.row_bytes(result.data, result.hits * 4);
          exec.row += result.hits;
        }
      });
}

// ---- Numbers ----

template <class T>
Bytes stored_numbers(Stage& s, size_t n, bool sortable) {
  const auto values = numbers<T>(Numbers::near_one, n, s.random);
  return sortable ? sortable_bytes(values) : bytes_of(values);
}

template <class T>
void arithmetic_of(uint32_t op, uint32_t row) {
  const bool sums = row >= KDZK_ROW_VARIANT;
  add(row, op, sums ? one_road : plain_roads, "", [=](Stage& s, Road road, kdzk_kernel kernel) {
    const Bytes left = stored_numbers<T>(s, 103, (row & KDZK_ROW_SORTABLE_LEFT) != 0),
                right = stored_numbers<T>(s, 103, (row & KDZK_ROW_SORTABLE_RIGHT) != 0);
    in_parts(road, 103, [&](uint32_t first, uint32_t count) {
      const size_t at = first * sizeof(T), size = count * sizeof(T), result_size = sums ? sizeof(T) : size;
      Column a({}, count), b({}, count);
      a.vec.data = s.in(part_of(left, at, size), 0);
      b.vec.data = s.in(part_of(right, at, size), 0);
      kdzk_vec result{.data = s.out(Bytes(result_size))};
      s.call([&] { return kernel.arithmetic(&result, &a.vec, &b.vec, nullptr); });
      s.row_bytes(result.data, result_size);
    });
  });
}

template <class T>
void sums_of(uint8_t float_kind, uint8_t width) {
  const std::string of = '+' + std::to_string(width) + " bits, kind " + std::to_string(float_kind);
  const auto stored = [=](Stage& s) {
    return s.in(float_kind == 8 ? Bytes(103u * width / 8, 0x81) : stored_numbers<T>(s, 103, true), 0);
  };
  for (const bool grouped : {false, true}) {
    add_slot(54, "sum_sortable" + of + (grouped ? ", groups" : ""), one_road, [=](Stage& s, Road) {
      Column c({.width = width, .float_kind = float_kind}, 103);
      c.vec.data = stored(s);
      const kdzk_vec groups{.data = s.in(bytes_of(random_codes(s, 103, 9)), 0)};
      const kdzk_vec result{.data = s.out(Bytes((grouped ? 9 : 1) * sizeof(T)), 8)};
      s.call([&] { return library().sum_sortable(&result, &c.vec, grouped ? &groups : nullptr, nullptr); });
    });
  }
  for (const bool sums : {false, true}) {
    if (!sums && float_kind == 8) continue;
    add_slot(55, "decode_sortable" + of + (sums ? ", sum" : ""), one_road, [=](Stage& s, Road) {
      Column c({.width = width, .float_kind = float_kind}, 103);
      c.vec.data = stored(s);
      kdzk_exec exec = exec_of(s);
      exec.flags = sums ? KDZK_EX_SUM : 0;
      const kdzk_vec result{.data = s.out(Bytes((sums ? 1 : 103) * sizeof(T)), sums ? 8 : 1)};
      s.call([&] { return library().decode_sortable(&result, &c.vec, &exec); });
    });
  }
}

void numeric() {
  for (uint32_t op = KDZK_OP_ADD; op <= KDZK_OP_MUL; op++) {
    for (const uint32_t row : {0u, 4u, 8u, 12u, 32u, 36u, 40u, 44u}) {
      arithmetic_of<float>(op, row);
      arithmetic_of<double>(op, row + KDZK_ROW_DOUBLE);
    }
  }
  sums_of<float>(1, 32);
  sums_of<double>(2, 64);
  for (const uint8_t width : {8, 16, 32, 64}) sums_of<uint64_t>(8, width);
  for (uint32_t vertices = 1; vertices <= 9; vertices++) {
    add_slot(52, "point_in_polygon+" + std::to_string(vertices), one_road, [=](Stage& s, Road) {
      kdzk_vec in[4] = {};
      for (uint32_t i = 0; i < 4; i++) {
        in[i].nrows = i < 2 ? vertices : 1;
        in[i].data = s.in(stored_numbers<double>(s, in[i].nrows, false), 0);
      }
      const kdzk_vec result{.data = s.out(4)};
      s.call([&] { return library().point_in_polygon(&result, &in[0], &in[1], &in[2], &in[3]); });
    });
  }
}

// ---- Bit vectors ----

void bit_vectors_of(const std::string& group, uint32_t slot, const kdzk_bv_services& bv, uint64_t unit) {
  constexpr uint64_t nrows = 1000;
  const auto bytes_for = [unit](uint64_t rows) { return (rows + unit - 1) / unit * unit / 8; };
  using In = const uint8_t*;
  using Logic = std::function<void(uint8_t * to, uint32_t * count, In a, In b, In c)>;
  const std::pair<const char*, Logic> logic[] = {
      {"bv_count", [&bv](uint8_t*, uint32_t* n, In a, In, In) { bv.bv_count(n, a, nrows); }},
      {"bv_not", [&bv](uint8_t* to, uint32_t* n, In a, In, In) { bv.bv_not(to, n, a, nrows); }},
      {"bv_and", [&bv](uint8_t* to, uint32_t* n, In a, In b, In) { bv.bv_and(to, n, a, b, nrows); }},
      {"bv_or", [&bv](uint8_t* to, uint32_t* n, In a, In b, In) { bv.bv_or(to, n, a, b, nrows); }},
      {"bv_xor", [&bv](uint8_t* to, uint32_t* n, In a, In b, In) { bv.bv_xor(to, n, a, b, nrows); }},
      {"bv_andnot", [&bv](uint8_t* to, uint32_t* n, In a, In b, In) { bv.bv_andnot(to, n, a, b, nrows); }},
      {"bv_and3", [&bv](uint8_t* to, uint32_t* n, In a, In b, In c) { bv.bv_and3(to, n, a, b, c, nrows); }},
      {"bv_or3", [&bv](uint8_t* to, uint32_t* n, In a, In b, In c) { bv.bv_or3(to, n, a, b, c, nrows); }},
      {"bv_xor3", [&bv](uint8_t* to, uint32_t* n, In a, In b, In c) { bv.bv_xor3(to, n, a, b, c, nrows); }}};
  for (const auto& [name, call] : logic) {
    add_slot(
        slot++, group + name, one_road, [=, call = call, counts = name == std::string("bv_count")](Stage& s, Road) {
          In operands[3];
          for (In& bits : operands) bits = s.in(random_bytes(s, bytes_for(nrows)), 0);
          uint32_t count = 0;
          for (uint32_t* const to : {&count, static_cast<uint32_t*>(nullptr)}) {  // without a count in another loop
            if (counts && to == nullptr) continue;
            uint8_t* const dst = s.out(bytes_for(nrows));
            s.call([&] { return call(dst, to, operands[0], operands[1], operands[2]), 0; });
          }
          s.saw(count);
        });
  }
  for (const bool sets : {true, false}) {
    add_slot(slot++, group + (sets ? "set_range" : "clear_range"), one_road, [=, &bv](Stage& s, Road) {
      for (const uint64_t last : {5u, 70u, 999u}) {
        uint8_t* const bits = s.out(Bytes((last / unit + 1) * unit / 8, sets ? 0 : 0xff));
        s.call([&] { return (sets ? bv.set_range : bv.clear_range)(bits, 3, last), 0; });
      }
    });
  }
  for (const std::string name : {"iter_init", "next_set", "next_clear", "next_set_batch", "no_next", "no_batch"}) {
    add_slot(slot++, group + name, one_road, [=, &bv](Stage& s, Road) {
      const bool clear = name == "next_clear";
      const auto rows = s.random.rows(nrows, clear ? 80 : 20);
      Bytes bits(bytes_for(nrows));
      for (uint64_t r = 0; r < nrows; r++) bits[r / 8] = static_cast<uint8_t>(bits[r / 8] | rows[r] << r % 8);
      const auto* const words = reinterpret_cast<const uint64_t*>(s.in(bits, 0));
      kdzk_bv_iter iter{};
      s.call([&] { return bv.iter_init(&iter, words, nrows, clear, 3), 0; });
      s.saw(iter.bits);
      if (name == "no_next") s.call([&] { return bv.no_next(&iter, 0); });
      if (name == "no_batch") s.call([&] { return bv.no_batch(&iter, nullptr, 0, 0); });
      for (uint64_t i = 0, row = 0; (clear || name == "next_set") && row < nrows && i < nrows; i++)
        row = s.call([&] { return (clear ? bv.next_clear : bv.next_set)(&iter); });
      for (uint64_t n = 7; name == "next_set_batch" && n == 7;) {
        auto* const batch = reinterpret_cast<uint32_t*>(s.out(7 * 4, 4));
        n = s.call([&] { return bv.next_set_batch(&iter, batch, 7); });
        s.counts(batch, n * 4);
      }
    });
  }
}

// ---- The join engine ----

const std::vector<uint32_t> value_forms = {KDZK_FIXED_BYTES, KDZK_LEN_ARRAY, KDZK_LEN_PREFIXED, KDZK_PTR_LEN,
                                           KDZK_PAIR16};
constexpr uint32_t join_rows = 150;

std::vector<uint32_t> value_forms_and(uint32_t form) {
  std::vector<uint32_t> forms = value_forms;
  forms.push_back(form);
  return forms;
}

ValueColumn values_in(Stage& s, uint32_t form, uint32_t n = join_rows, uint32_t dict_width = 0) {
  return ValueColumn([&s](const Bytes& bytes, size_t slack) { return s.in(bytes, slack); }, form,
                     random_values(form, n, 11, s.random), s.random, dict_width);
}

// A table of one directory entry, buckets of 32-bit tags and 64-bit payloads, and few buckets, so that chains grow; and
// the rows that it is of.
struct Table {
  static constexpr uint64_t buckets = 16, bytes = (buckets + 300) * 64;
  uint8_t *table = nullptr, *cursor = nullptr, *limit = nullptr;
  kdzk_htdesc desc{};
  ValueColumn keys;
  Column rows;
  Table(Stage& s, uint32_t form, uint32_t flags) : keys(values_in(s, form)), rows({.flags = KDZK_IMPLICIT_IDS}) {
    const uint8_t top = (flags & 3) != 0 ? 19 : 35;
    desc = {.flags = flags, .bucket_hi = top, .dir_hi = top, .tables = &table, .cursors = &cursor, .limits = &limit};
    rows.vec.rowbase = 1000;
  }
  uint64_t build(kdzk_hash_fn hash, kdzk_exec* exec) {
    return library().ht_build(&desc, &keys.vec, &rows.vec, 0, hash, exec);
  }
  void lie_at(uint8_t* memory, uint64_t room) {
    table = memory;
    cursor = memory + buckets * 64;
    limit = memory + room;
  }
};

void hashes_and_partitions() {
  for (const uint32_t form : value_forms_and(KDZK_PACKED_DICT)) {
    add_slot(57, "hash_rows+" + form_name(form), one_road, [=](Stage& s, Road) {
      const ValueColumn keys = values_in(s, form, join_rows, 13);
      Column seeds({.flags = KDZK_NUMERIC, .width = 64}, 1);
      seeds.vec.data = s.in(bytes_of(std::vector<uint64_t>{77}), 0);
      const kdzk_vec out{.data = s.out(join_rows * 8)};
      s.call([&] { return library().hash_rows(&out, &keys.vec, &seeds.vec, Stage::hash); });
    });
  }
  const std::pair<uint8_t, uint32_t> layouts[] = {
      {KDZK_PART_A, KDZK_NUMERIC}, {KDZK_PART_C, KDZK_LEN_PREFIXED}, {KDZK_PART_D, KDZK_FIXED_BYTES}};
  for (const uint32_t form : value_forms_and(KDZK_NUMERIC)) {
    for (const auto& [layout, payload_form] : layouts) {
      add_slot(
          60, "partition_rows+" + form_name(form) + " " + std::to_string(layout), one_road,
          [form, layout = layout, payload_form = payload_form](Stage& s, Road) {
            const ValueColumn keys = values_in(s, form), rows = values_in(s, payload_form);
            uint8_t *buffers[4], *cursors[4], *limits[4];
            for (uint8_t*& buffer : buffers) buffer = s.out(20000);  // more than any partition takes
            const kdzk_partdesc desc{
                .flags = layout, .part_hi = 6, .part_lo = 5, .payload_size = 11, .cursors = cursors, .limits = limits};
            kdzk_exec exec{};
            s.call([&] {
              for (int i = 0; i < 4; i++) {
                cursors[i] = buffers[i];
                limits[i] = buffers[i] + 100;
              }
              exec = exec_of(s);
              const uint64_t stop = library().partition_rows(&desc, &keys.vec, &rows.vec, Stage::hash, &exec);
              for (uint8_t*& limit : limits) limit = nullptr;  // none
              return 16 * stop + library().partition_rows(&desc, &keys.vec, &rows.vec, Stage::hash, &exec);
            });
            s.saw(exec.row);
            for (int i = 0; i < 4; i++) s.saw(static_cast<uint64_t>(cursors[i] - buffers[i]));
          });
    }
  }
}

void hash_tables(uint32_t flags, uint32_t form) {
  const std::string of = form_name(form) + " " + std::to_string(flags);
  add_slot(58, "ht_build+" + of, one_road, [=](Stage& s, Road) {
    Table t(s, form, flags);
    uint8_t* const memory = s.out(Bytes(Table::bytes), 8);
    kdzk_exec exec{};
    s.call([&] {
      std::memset(memory, 0, Table::bytes);
      exec = exec_of(s);
      t.lie_at(memory, (Table::buckets + 2) * 64);
      const uint64_t stop = t.build(Stage::hash, &exec);
      t.limit = memory + Table::bytes;
      return 16 * stop + t.build(Stage::hash, &exec);
    });
    s.saw(exec.row);
    s.saw(static_cast<uint64_t>(t.cursor - memory));
  });
  add_slot(59, "ht_probe+" + of, one_road, [=](Stage& s, Road) {
    Table t(s, form, flags);
    t.table = s.built(Table::bytes, [&](uint8_t* memory) {
      t.lie_at(memory, Table::bytes);
      kdzk_exec exec{};
      t.build(plain_hash, &exec);
    });
    t.desc.cursors = nullptr;
    t.desc.limits = nullptr;
    kdzk_exec exec = exec_of(s);
    for (uint64_t returned = KDZK_PAIRS_FULL; returned == KDZK_PAIRS_FULL;) {
      kdzk_vec out{.data = s.out(60 * 16, 8), .nrows = 60};
      const kdzk_exec before = exec;
      returned = s.call([&] { return library().ht_probe(&out, &t.keys.vec, &t.rows.vec, &t.desc, Stage::hash, &exec); },
                        [&] { exec = before, out.nrows = 60; });
      s.counts(out.data, out.nrows * 16);
      s.saw(out.nrows);
    }
  });
}

// Gathers all rows, as many a call as there is room for.
void gather(Stage& s, const kdzk_vec& in, const kdzk_rowstore* store, uint32_t to, size_t room) {
  Column out({.ref_bits = 4, .flags = to});
  out.vec.out_size = room;
  kdzk_exec exec = exec_of(s);
  while (exec.row < join_rows) {
    out.vec.data = s.out(room);
    out.vec.lengths = s.out(join_rows * 2, 2);
    s.call([&] { return library().ht_gather(&out.vec, &in, store, &exec); });
    if (to == KDZK_REF_WORDS) s.counts(out.vec.data, 0);  // cut from addresses
    s.saw(exec.row);
  }
}

void row_stores() {
  for (const uint32_t from : {KDZK_PTR_LEN, KDZK_PAIR16}) {
    for (const uint32_t to : {KDZK_LEN_ARRAY, KDZK_LEN_PREFIXED}) {
      add_slot(61, "ht_gather+" + form_name(from) + " to " + form_name(to), one_road,
               [=](Stage& s, Road) { gather(s, values_in(s, from).vec, nullptr, to, 900); });
    }
  }
  for (const uint32_t to : value_forms_and(KDZK_REF_WORDS)) {
    for (const uint32_t locators : {KDZK_FIXED_BYTES, KDZK_PROBE_PAIRS}) {
      add_slot(61, "ht_gather+store, " + std::to_string(locators) + " to " + std::to_string(to), one_road,
               [=](Stage& s, Road) {
                 const ValueColumn values = values_in(s, KDZK_FIXED_BYTES, 200);  // whole, and the pairs of a page
                 std::vector<uint64_t> pairs, rows;
                 for (uint64_t i = 0; i < 100; i++)
                   pairs.insert(pairs.end(), {11, reinterpret_cast<uint64_t>(values.vec.data) + 11 * i});
                 for (uint32_t i = 0; i < join_rows; i++) {
                   if (locators == KDZK_PROBE_PAIRS) rows.push_back(7);
                   rows.push_back(s.random.below(100));
                 }
                 uint8_t* const page = s.in(bytes_of(pairs), 0);
                 const kdzk_rowstore store{
                     .flags = KDZK_STORE_PAIRS, .width = 88, .page_hi = 64, .page_lo = 64, .pairs = &page};
                 Column in({.flags = locators, .width = 64}, join_rows);
                 in.vec.data = s.in(bytes_of(rows), locators == KDZK_FIXED_BYTES ? KDZK_PADDING : 0);
                 gather(s, in.vec, &store, to, 2400);
               });
    }
  }
  for (const uint32_t form : value_forms) {
    add_slot(62, "fill_pairs+" + form_name(form), one_road, [=](Stage& s, Road) {
      const ValueColumn values = values_in(s, form);
      uint8_t* matrix_at = s.out(join_rows * 3 * 16, 8);
      const kdzk_rowstore matrix{.flags = KDZK_STORE_PAIRS, .ncols = 3, .pair_cursors = &matrix_at};
      s.call([&] { return library().fill_pairs(&matrix, &values.vec, 1, 0); });
    });
  }
  for (const uint32_t flags : {KDZK_STORE_PAIRS, KDZK_STORE_OFFSETS, KDZK_STORE_PAIRS | KDZK_STORE_ROWS,
                               KDZK_STORE_OFFSETS | KDZK_STORE_ROWS}) {
    add_slot(63, "pack_rows+" + std::to_string(flags), one_road, [=](Stage& s, Road) {
      const ValueColumn values = values_in(s, KDZK_PAIR16);  // a matrix of 75 rows of two
      uint8_t* matrix_at = static_cast<uint8_t*>(values.vec.data);
      const kdzk_rowstore source{.ncols = 2, .pairs = &matrix_at};
      constexpr size_t room = 10000;
      uint8_t *data = s.out(room), *const data_before = data, *limit = data + 500, *const end = data + room;
      uint8_t *offsets = s.out(151 * 4, 4), *pairs = s.out(join_rows * 16, 8);
      const kdzk_rowstore target{.flags = flags,
                                 .pair_cursors = &pairs,
                                 .offset_cursors = &offsets,
                                 .data_cursors = &data,
                                 .data_limits = &limit};
      kdzk_exec exec = exec_of(s);
      for (uint64_t returned = KDZK_PAGE_FULL; returned == KDZK_PAGE_FULL; limit = end)
        returned = s.call([&] { return library().pack_rows(&target, &source, 0, 0, exec.row, 74, &exec); });
      s.counts(data_before, static_cast<size_t>(data - data_before));
      s.saw(exec.row);
    });
  }
}

// ---- What does nothing ----

void idle(uint8_t width, uint32_t column) {
  add(kdzk_row_of_width(width), column, one_road, "", [](Stage& s, Road, kdzk_kernel kernel) {
    s.call([&] { return kernel.idle(nullptr, nullptr, nullptr, nullptr); });
  });
}

}  // namespace

const std::vector<Scene>& scenes() {
  if (!all.empty()) return all;
  predicates();
  sets();
  translations();
  bloom();
  bursts();
  streams();
  numeric();
  bit_vectors_of("bv8.", 17, library().bv8, 8);
  bit_vectors_of("bv64.", 34, library().bv64, 64);
  hashes_and_partitions();
  row_stores();
  for (const uint8_t width : dict_widths) {
    for (const uint32_t mode : {0u, 1u}) symbols(width, mode);
    for (const uint8_t runs : {0, 8, 16}) {
      for (const bool wide : {false, true}) unpacked(width, wide, runs);
    }
    for (const uint32_t column : {47u, 48u}) idle(width, column);
  }
  for (const uint8_t width : {8, 16, 32, 64}) idle(width, 15);
  for (uint32_t i = 0; i < 4; i++) group_keys(i < 2, i % 2 == 0);
  for (const uint32_t flags : {1u, 2u, 4u, 8u}) {
    for (const uint32_t form : value_forms_and(KDZK_NUMERIC)) hash_tables(flags, form);
  }
  for (const uint32_t flags : {4u, 8u}) hash_tables(flags | KDZK_HT_KEY_MODE, KDZK_HASH_U32);
  for (uint32_t i = 0; i < 2; i++) {
    add_slot(15 + i, "noop1", one_road,
             [=](Stage& s, Road) { s.call([&] { return library().noop1[i](nullptr), 0; }); });
    add_slot(65 + i, "reserved0", one_road, [=](Stage& s, Road) { s.call([&] { return library().reserved0[i](); }); });
  }
  return all;
}

}  // namespace kdzk_test

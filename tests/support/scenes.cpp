// SPDX-License-Identifier: Apache-2.0

#include "tests/support/scenes.h"

#include <kdzk/host/packed_codes.h>
#include <kdzk/host/prefix_records.h>
#include <kdzk/host/sqzb.h>

#include <algorithm>
#include <cstring>

#include "tests/support/numbers.h"
#include "tests/support/predicate_oracle.h"
#include "tests/support/value_columns.h"

namespace kdzk_test {
namespace {

using Codes = std::vector<uint32_t>;
using Roads = std::vector<Road>;
const Roads one_road = {Road::fast}, all_roads = {Road::fast, Road::tail, Road::selective, Road::blocked};
const uint32_t dict_widths[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 24, 32};

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
void add_slot(uint32_t slot, const std::string& name, const Play& play, const Roads& roads = one_road) {
  all.push_back({name, slot_0 + slot, roads, play});
}

// ---- Columns ----

Codes random_codes(Stage& s, size_t n, uint64_t below) {
  Codes codes(n);
  for (uint32_t& code : codes) code = static_cast<uint32_t>(s.random.below(below));
  return codes;
}

Bytes packed(const Codes& codes, uint32_t width) {
  Bytes bytes(kdzk_host_packed_bytes(codes.size(), width));
  kdzk_host_pack(codes.data(), codes.size(), width, bytes.data());
  return bytes;
}

Bytes big_endian(const Codes& numbers) { return packed(numbers, 32); }

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
  kdzk_enc_ctx enc{};
  kdzk_vec vec{};
  explicit Column(uint32_t flags = 0, uint32_t width = 0, uint32_t nrows = 0) {
    enc.flags = flags;
    enc.width = static_cast<uint8_t>(width);
    vec.enc_ctx = &enc;
    vec.nrows = nrows;
  }
  Column(const Column&) = delete;
  void hold(Stage& s, Road road, const Bytes& bytes) {
    if (road == Road::blocked) return s.block(&vec, &enc, bytes);
    vec.data = s.in(bytes);
  }
};

kdzk_exec exec_of(Stage& s) {
  kdzk_exec exec{};
  exec.env = s.env();
  return exec;
}

// Lengths of runs that make up so many rows.
Bytes run_lengths(Stage& s, uint32_t runs) {
  Bytes lengths(runs);
  for (uint8_t& length : lengths) length = static_cast<uint8_t>(1 + s.random.below(s.random.below(3) == 0 ? 40 : 3));
  return lengths;
}
uint32_t sum_of(const Bytes& lengths) {
  uint32_t sum = 0;
  for (const uint8_t length : lengths) sum += length;
  return sum;
}

// ---- Bit per row: predicates, sets, translation, bloom test ----

void predicates() {
  for (const PredicateKernel& k : predicate_kernels()) {
    const uint32_t row = k.id() / 128, column = k.id() % 128, nrows = 2 * static_cast<uint32_t>(k.rows_per_step()) + 45;
    const std::string of = k.title() == k.name() ? "" : "+" + std::to_string(k.value_bytes) + " bytes";
    add(row, column, k.has_companion() ? all_roads : Roads{Road::fast, Road::tail, Road::blocked}, of,
        [k, nrows](Stage& s, Road road, kdzk_kernel) {
          const auto rows = random_rows(s.random, k, nrows, Fill::uniform);
          const auto filter = s.random.rows(nrows, 80), selection = s.random.rows(nrows, 70);
          const Constant low(k, rows[s.random.below(nrows)]), high(k, rows[s.random.below(nrows)]);
          in_parts(road, nrows, [&](uint32_t first, uint32_t count) {
            const auto part = part_of(rows, first, count);
            Column c(0, static_cast<uint32_t>(k.value_bytes > 0 ? 8 * k.value_bytes : k.width), count);
            c.hold(s, road, stored_data(k, part));
            if (k.has_lengths()) c.vec.lengths = s.in(stored_lengths(k, part));
            if (k.reads_filter()) c.vec.filter = s.in_bits(part_of(filter, first, count));
            kdzk_exec exec = exec_of(s);
            exec.selection = s.in_bits(part_of(selection, first, count));
            exec.flags = road == Road::selective ? KDZK_EX_SELECTIVE : 0;
            kdzk_vec result{};
            result.bitvec = s.out_bits(count);
            result.nrows = count;
            s.call([&] { return k.call(&result, &c.vec, low.args(), high.args(), &exec); });
            s.saw(result.hits);
            s.saw(exec.out_flags);
            s.rows(result.bitvec, count);
          });
        });
    add(row, column, {Road::fast, Road::blocked}, of + "+runs", [k](Stage& s, Road road, kdzk_kernel) {
      const auto rows = random_rows(s.random, k, 100, Fill::uniform);
      const Bytes lengths = run_lengths(s, 100);
      const Constant low(k, rows[3]), high(k, rows[5]);
      Column c(KDZK_RLE, static_cast<uint32_t>(k.value_bytes > 0 ? 8 * k.value_bytes : k.width));
      c.hold(s, road, stored_data(k, rows));
      if (k.has_lengths()) c.vec.lengths = s.in(stored_lengths(k, rows));
      c.enc.own_nrows = 100;
      c.enc.own_bitvec = s.out_bits(100);
      c.enc.result_cb = Stage::expand_runs;
      c.enc.unpack_base = reinterpret_cast<uint64_t>(s.in(lengths, 0));
      c.enc.unpack_width = 8;
      kdzk_exec exec = exec_of(s);
      kdzk_vec result{};
      result.nrows = sum_of(lengths);
      result.bitvec = s.out_bits(result.nrows);
      s.call([&] { return k.call(&result, &c.vec, low.args(), high.args(), &exec); });
      s.saw(result.hits);
      s.rows(result.bitvec, result.nrows);
    });
  }
}

void sets() {
  for (const uint32_t width : dict_widths) {
    add(kdzk_row_of_width(width), 45, all_roads, "", [width](Stage& s, Road road, kdzk_kernel kernel) {
      const uint32_t nrows = 301;
      const uint64_t codes =
          std::min<uint64_t>(uint64_t{1} << width, 3000);  // the host maps but the first of the table
      const Codes rows = random_codes(s, nrows, codes);
      const auto selection = s.random.rows(nrows, 70);
      kdzk_vec table{};
      table.bitvec = s.in_bits(s.random.rows(width <= 11 ? uint64_t{1} << width : (codes + 63) / 64 * 64, 50));
      in_parts(road, nrows, [&](uint32_t first, uint32_t count) {
        Column c(0, width, count);
        const Bytes data = packed(part_of(rows, first, count), width);
        if (road == Road::blocked) {
          s.block(&c.vec, &c.enc, data);
        } else {
          c.vec.data = s.in(data, KDZK_SET_PADDING);
        }
        kdzk_exec exec = exec_of(s);
        exec.selection = s.in_bits(part_of(selection, first, count));
        exec.flags = road == Road::selective ? KDZK_EX_SELECTIVE : 0;
        kdzk_vec result{};
        result.bitvec = s.out_bits(count);
        result.nrows = count;
        s.call([&] { return kernel.set(&result, &c.vec, &table, &exec); });
        s.saw(result.hits);
        s.rows(result.bitvec, count);
      });
    });
  }
}

void translations() {
  constexpr uint32_t element_bits[] = {1, 4, 8, 16, 32}, columns[] = {17, 49, 81}, entries = 700, page = 64;
  for (uint32_t form = 0; form < 5; form++) {
    for (const uint32_t column : columns) {
      for (const uint32_t twin : {0u, KDZK_ROW_VARIANT}) {
        if (twin != 0 && form == 0) continue;
        add(form + twin, column, {Road::fast, Road::tail, Road::selective}, "",
            [=, bits = element_bits[form]](Stage& s, Road road, kdzk_kernel kernel) {
              const uint32_t nrows = 301;
              Column table;
              Bytes elements(entries * bits / 8 + 1);
              for (uint8_t& byte : elements)
                byte = s.random.below(2) == 0 ? 0xff : static_cast<uint8_t>(s.random.bits());
              elements.resize((entries * bits + 7) / 8);
              table.vec.bitvec = reinterpret_cast<uint64_t*>(s.in(elements, 0));
              if (column == 81) {
                std::vector<uint64_t> pages;
                for (uint32_t at = 0; at < entries; at += page) {
                  uint8_t* const here = s.in(part_of(elements, at * bits / 8, page * bits / 8), 0);
                  pages.push_back(s.random.below(5) == 0 ? 0 : reinterpret_cast<uint64_t>(here));
                }
                table.vec.bitvec = reinterpret_cast<uint64_t*>(s.in(bytes_of(pages), 0));
                table.enc.page_shift = 6;
                table.enc.page_mask = page - 1;
              }
              table.enc.xlate_base = column == 49 ? 0xfffffff0 : 0;
              Codes rows = random_codes(s, nrows, entries);
              for (uint32_t& code : rows) code += table.enc.xlate_base;
              in_parts(road, nrows, [&](uint32_t first, uint32_t count) {
                Column c(KDZK_NUMERIC, 32, count);
                c.vec.data = s.in(big_endian(part_of(rows, first, count)), 0);
                kdzk_exec exec = exec_of(s);
                exec.xlate_info = &table.enc;
                if (road == Road::selective) exec.selection = s.in_bits(std::vector<bool>(count, true));
                if (twin != 0) exec.xlate_map = s.out(Bytes((count * bits + 7) / 8));
                kdzk_vec result{};
                result.bitvec = s.out_bits(count, true);
                result.data = s.out(8);
                s.call([&] { return kernel.xlate(&result, &c.vec, &table.vec, &exec); });
                s.saw(result.hits);
                s.saw(exec.out_flags2);
                s.rows(result.bitvec, count);
              });
            });
      }
    }
    for (const uint32_t twin : {0u, KDZK_ROW_VARIANT}) {  // added to group keys
      if (twin == 0 || form == 0) continue;
      add(form + twin, 113, {Road::fast, Road::tail}, "",
          [bits = element_bits[form]](Stage& s, Road road, kdzk_kernel kernel) {
            const uint32_t nrows = 131;
            const Codes rows = random_codes(s, nrows, entries), keys = random_codes(s, nrows, 1000);
            kdzk_exec exec = exec_of(s);
            Bytes elements(entries * bits / 8);
            for (uint8_t& byte : elements) byte = static_cast<uint8_t>(s.random.bits());
            exec.xlate_map = s.in(elements, 0);
            exec.group_stride = 77;
            in_parts(road, nrows, [&](uint32_t first, uint32_t count) {
              Column c(0, 32, count);
              c.vec.data = s.in(bytes_of(part_of(rows, first, count)), 0);
              kdzk_vec result{};
              result.data = s.out(bytes_of(part_of(keys, first, count)));
              s.call([&] { return kernel.xlate(&result, &c.vec, nullptr, &exec); });
              s.rows({static_cast<uint8_t*>(result.data), static_cast<uint8_t*>(result.data) + count * 4});
            });
          });
    }
  }
}

void bloom() {
  for (const uint32_t width : {32u, 64u}) {
    for (const bool paged : {false, true}) {
      add_slot(51, "bloom_test+" + std::to_string(width) + (paged ? " bits, pages" : " bits"),
               [=](Stage& s, Road road) {
                 const uint32_t nrows = 301;
                 Column filter;
                 filter.enc.bloom_mask = 0x1fff;
                 filter.enc.bloom_paged = paged;
                 filter.enc.page_shift = 8;
                 filter.enc.page_mask = 0xff;
                 const auto bits = s.random.rows(0x2000, 30);
                 filter.vec.bitvec = s.in_bits(bits);
                 if (paged) {
                   std::vector<uint8_t*> pages;
                   for (uint32_t at = 0; at < 0x2000; at += 0x100)
                     pages.push_back(reinterpret_cast<uint8_t*>(s.in_bits(part_of(bits, at, 0x100))));
                   filter.vec.bitvec = reinterpret_cast<uint64_t*>(s.in(bytes_of(pages), 0));
                 }
                 const Codes rows = random_codes(s, nrows * width / 32, uint64_t{1} << 32);
                 in_parts(road, nrows, [&](uint32_t first, uint32_t count) {
                   Column c(KDZK_NUMERIC, width, count);
                   c.vec.data = s.in(big_endian(part_of(rows, first * width / 32, count * width / 32)), 0);
                   kdzk_exec exec = exec_of(s);
                   if (road == Road::selective) exec.selection = s.in_bits(std::vector<bool>(count, true));
                   kdzk_vec result{};
                   result.bitvec = s.out_bits(count, true);
                   result.data = s.out(8);
                   s.call([&] { return library().bloom_test(&result, &c.vec, &filter.vec, &exec); });
                   s.saw(result.hits);
                   s.rows(result.bitvec, count);
                 });
               },
               {Road::fast, Road::tail, Road::selective});
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
  Bytes symbols(offsets.back());
  for (uint8_t& byte : symbols) byte = static_cast<uint8_t>(s.random.bits());
  enc->base = s.in(symbols, 0);
  enc->value_len = s.in({0, 5}, 0);
  enc->offsets = s.in(big_endian(offsets), 0);
}

// Where a decoding call writes symbols.
struct Symbols {
  kdzk_vec vec{};
  Symbols(Stage& s, uint32_t count) {
    vec.data = s.out(count * 8, 8);
    vec.lengths = s.out(count * 2, 2);
    vec.indicators = s.out(count * 2, 2);
  }
};

void symbols() {
  for (const uint32_t width : dict_widths) {
    for (const uint32_t mode : {0u, 1u}) {
      const auto dict_size = static_cast<uint32_t>(std::min<uint64_t>(uint64_t{1} << width, 200));
      add(kdzk_row_of_width(width), 42, {Road::fast, Road::tail, Road::blocked}, mode == 0 ? "+0" : "+1",
          [=](Stage& s, Road road, kdzk_kernel kernel) {
            Column c(KDZK_PACKED_DICT, width, 301);
            hold_dictionary(s, mode, dict_size, &c.enc);
            c.hold(s, road, packed(random_codes(s, 301, dict_size), width));
            const Codes rows = random_codes(s, 133, 301);
            in_parts(road, 133, [&](uint32_t first, uint32_t count) {
              Symbols out(s, count);
              kdzk_exec exec = exec_of(s);
              exec.ones_vec = reinterpret_cast<uint32_t*>(s.in(bytes_of(part_of(rows, first, count)), 0, 4));
              exec.ones_vec_size = count;
              s.call([&] { return kernel.decode(&out.vec, &c.vec, &exec); });
              s.has_value(out.vec.data,
                          count * 8);  // made by a product of a code and padding below it, see valgrind.supp
              s.saw(out.vec.hits);
              s.saw(exec.row);
              const auto* const at = static_cast<uint8_t*>(out.vec.lengths);
              s.rows({at, at + count * 2});
            });
          });
      if (width != 8 && width != 16 && width != 32) continue;
      for (const bool copies : {false, true}) {
        if (copies && (mode == 1 || width != 32)) continue;
        add(kdzk_row_of_width(width), 44, {Road::fast, Road::tail},
            mode == 1 ? "+1"
            : copies  ? "+0 copies"
                      : "+0",
            [=](Stage& s, Road road, kdzk_kernel kernel) {
              Column c(KDZK_PACKED_DICT, width);
              hold_dictionary(s, mode, dict_size, &c.enc);
              const Codes rows = random_codes(s, 133, dict_size);
              in_parts(road, 133, [&](uint32_t first, uint32_t count) {
                Bytes data;
                for (const uint32_t code : part_of(rows, first, count))
                  for (uint32_t bit = 0; bit < width; bit += 8) data.push_back(static_cast<uint8_t>(code >> bit));
                c.vec.data = s.in(data);
                c.vec.nrows = count;
                Symbols out(s, count);
                if (copies) out.vec.data = s.out(count * 5);
                kdzk_exec exec = exec_of(s);
                exec.flags2 = copies ? KDZK_EX_COPY_VALUES : 0;
                s.call([&] { return kernel.decode(&out.vec, &c.vec, &exec); });
                s.saw(out.vec.hits);
                const auto* const at = static_cast<uint8_t*>(copies ? out.vec.data : out.vec.lengths);
                s.rows({at, at + count * (copies ? 5 : 2)});
              });
            });
      }
    }
  }
}

void unpacked() {
  for (const uint32_t width : dict_widths) {
    for (const bool wide : {false, true}) {
      for (const uint32_t runs : {0u, 8u, 16u}) {
        const uint32_t element = wide || width > 16 ? 4 : width > 8 ? 2 : 1;
        add(kdzk_row_of_width(width), 43, all_roads,
            std::string(wide ? "+wide" : "") + (runs ? "+runs " : "") + std::to_string(runs),
            [=](Stage& s, Road road, kdzk_kernel kernel) {
              const uint32_t n = runs != 0 ? 100 : 301;
              Bytes lengths = run_lengths(s, runs != 0 ? n : 0);
              Column c(runs != 0 ? KDZK_RLE : 0, width, runs != 0 ? sum_of(lengths) : n);
              c.hold(s, road, packed(random_codes(s, n, uint64_t{1} << width), width));
              if (runs == 16) {
                for (size_t i = lengths.size(); i-- > 0;)
                  lengths.insert(lengths.begin() + static_cast<std::ptrdiff_t>(i), 0);
              }
              c.enc.unpack_width = static_cast<uint8_t>(runs);
              c.enc.unpack_base = reinterpret_cast<uint64_t>(s.in(lengths, 0, 2));
              kdzk_exec exec = exec_of(s);
              exec.flags = static_cast<uint8_t>((wide ? KDZK_EX_UNPACK_WIDE : 0) |
                                                (road == Road::selective ? KDZK_EX_SELECTIVE : 0));
              if (road == Road::selective) exec.selection = s.in_bits(std::vector<bool>(c.vec.nrows, true));
              const uint32_t room = road == Road::tail ? 7 : c.vec.nrows;
              while (exec.row < c.vec.nrows) {
                kdzk_vec result{};
                result.nrows = room;
                result.data = s.out(room * element);
                const kdzk_exec before = exec;
                s.call([&] { return kernel.decode(&result, &c.vec, &exec); }, [&] { exec = before; });
                s.counts(result.data, result.hits * element);
                s.saw(result.hits);
                s.saw(exec.row);
                s.rows(
                    {static_cast<uint8_t*>(result.data), static_cast<uint8_t*>(result.data) + result.hits * element});
                exec.row++;
              }
            });
      }
    }
  }
}

void bursts() {
  for (const uint32_t row : {6u, 7u, 14u, 15u}) {
    for (const unsigned percent : {1u, 50u, 99u}) {  // each has a way of its own
      add(row, 110, one_road, "+" + std::to_string(percent) + " %", [=](Stage& s, Road, kdzk_kernel kernel) {
        const uint32_t runs = 300;
        Bytes lengths = run_lengths(s, runs);
        const uint32_t nrows = sum_of(lengths);
        Codes offsets = {0};
        for (const uint8_t length : lengths) offsets.push_back(offsets.back() + length);
        if (row >= 14) {
          for (size_t i = lengths.size(); i-- > 0;) lengths.insert(lengths.begin() + static_cast<std::ptrdiff_t>(i), 0);
        }
        Column c(KDZK_RLE);
        c.enc.own_nrows = runs;
        c.enc.unpack_base = reinterpret_cast<uint64_t>(s.in(lengths, 0, 2));
        c.enc.run_offsets = s.in(big_endian(offsets), 0);
        const auto set = s.random.rows(runs, percent);
        kdzk_result_report report{};
        report.bitvec = s.in_bits(set);
        report.hits = static_cast<uint64_t>(std::count(set.begin(), set.end(), true));
        kdzk_vec result{};
        result.nrows = nrows;
        result.bitvec = s.out_bits(nrows);
        s.call([&] { return kernel.burst(&result, &c.vec, &report); });
        s.saw(result.hits);
      });
    }
  }
}

void streams() {
  for (uint32_t width = 1; width <= 8; width++) {
    add_slot(56, "decode_prefix_records+" + std::to_string(width) + " bytes", [=](Stage& s, Road) {
      const uint32_t count = 16 * 9 + 5;
      Bytes records(count * width), stream(kdzk_host_prefix_records_bound(count, width));
      for (uint32_t i = 0; i < records.size(); i++)
        records[i] = static_cast<uint8_t>(i % width <= i / width / 16 % 9 ? 7 : s.random.bits());
      stream.resize(kdzk_host_prefix_records_write(records.data(), count, width, stream.data()));
      Column c(0, 0, kdzk_host_prefix_groups(count));
      c.enc.prefix_group = 16;
      c.enc.prefix_width = static_cast<int16_t>(width);
      c.enc.prefix_count = count;
      c.vec.data = s.in(stream);
      kdzk_exec exec = exec_of(s);
      exec.xlate_info = s.out(count * sizeof(kdzk_prefix_record));
      kdzk_vec result{};
      result.data = s.out(count * width);
      s.call([&] { return library().decode_prefix_records(&result, &c.vec, &exec); });
    });
  }
  for (const uint32_t symbols : {1u, 5u, 200u}) {
    add_slot(64, "sqzb_decode_x86+" + std::to_string(symbols), [=](Stage& s, Road) {
      Bytes bytes(3000), block(kdzk_host_sqzb_bound(3000, KDZK_HOST_SQZB_ANY_WIDTH));
      for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(s.random.below(symbols));
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

void group_keys() {
  for (const bool multiplies : {false, true}) {
    for (const bool selected : {false, true}) {
      add_slot(53, std::string("groupkey_dydi+") + (multiplies ? "mul" : "shift") + (selected ? " selected" : ""),
               [=](Stage& s, Road road) {
                 constexpr uint32_t widths[] = {7, 4, 12};
                 const Bytes lengths = run_lengths(s, 60);
                 const uint32_t nrows = sum_of(lengths);
                 std::vector<kdzk_enc_ctx> enc(3);
                 std::vector<kdzk_vec> columns(3);
                 for (size_t i = 0; i < 3; i++) {
                   const bool runs = i == 1;
                   enc[i].kind = kdzk_kind_of(kdzk_row_of_width(widths[i]), KDZK_FAMILY_DICT);
                   enc[i].flags = KDZK_PACKED_DICT | (runs ? KDZK_RLE : 0);
                   enc[i].width = static_cast<uint8_t>(widths[i]);
                   enc[i].dict_size = (1u << widths[i]) - 1;
                   enc[i].unpack_width = 8;
                   if (runs) enc[i].unpack_base = reinterpret_cast<uint64_t>(s.in(lengths, 0));
                   columns[i].enc_ctx = &enc[i];
                   columns[i].nrows = nrows;
                   const Bytes data = packed(random_codes(s, runs ? 60 : nrows, enc[i].dict_size), widths[i]);
                   if (road == Road::blocked) {
                     s.block(&columns[i], &enc[i], data);
                   } else {
                     columns[i].data = s.in(data);
                   }
                 }
                 kdzk_exec exec = exec_of(s);
                 exec.flags = multiplies ? KDZK_EX_GROUP_MUL : 0;
                 if (selected) exec.selection = s.in_bits(s.random.rows(nrows, 60));
                 const uint32_t room = road == Road::tail && !selected ? 7 : nrows;
                 for (uint64_t returned = KDZK_OUTPUT_FULL; returned == KDZK_OUTPUT_FULL;) {
                   kdzk_vec result{}, temp{};
                   result.data = s.out(room * 4);
                   result.nrows = room;
                   temp.data = s.out(50 * 4, 4);
                   s.counts(temp.data, 0);
                   temp.nrows = 50;
                   uint32_t keys = 0;
                   returned =
                       s.call([&] { return library().groupkey_dydi(&result, &keys, columns.data(), 3, &temp, &exec); });
                   s.counts(result.data, result.hits * 4);
                   s.saw(keys);
                   s.rows({static_cast<uint8_t*>(result.data), static_cast<uint8_t*>(result.data) + result.hits * 4});
                   exec.row += result.hits;
                 }
               },
               {Road::fast, Road::tail, Road::blocked});
    }
  }
}

// ---- Numbers ----

template <class T>
Bytes stored_numbers(Stage& s, size_t n, bool sortable) {
  const auto values = numbers<T>(Numbers::near_one, n, s.random);
  return sortable ? sortable_bytes(values) : native_bytes(values);
}

template <class T>
void arithmetic_of(uint32_t type_row) {
  for (uint32_t op = KDZK_OP_ADD; op <= KDZK_OP_MUL; op++) {
    for (const uint32_t forms : {0u, 4u, 8u, 12u}) {
      for (const bool sums : {false, true}) {
        const uint32_t row = type_row + forms + (sums ? KDZK_ROW_VARIANT : 0);
        add(row, op, sums ? one_road : Roads{Road::fast, Road::tail}, "", [=](Stage& s, Road road, kdzk_kernel kernel) {
          const uint32_t nrows = 103;
          const Bytes left = stored_numbers<T>(s, nrows, (forms & 4) != 0),
                      right = stored_numbers<T>(s, nrows, (forms & 8) != 0);
          in_parts(road, nrows, [&](uint32_t first, uint32_t count) {
            Column a(0, 0, count), b(0, 0, count);
            a.vec.data = s.in(part_of(left, first * sizeof(T), count * sizeof(T)), 0);
            b.vec.data = s.in(part_of(right, first * sizeof(T), count * sizeof(T)), 0);
            kdzk_vec result{};
            const size_t size = sums ? sizeof(T) : count * sizeof(T);
            result.data = s.out(Bytes(size));
            s.call([&] { return kernel.arithmetic(&result, &a.vec, &b.vec, nullptr); });
            s.rows({static_cast<uint8_t*>(result.data), static_cast<uint8_t*>(result.data) + size});
          });
        });
      }
    }
  }
}

template <class T>
void sums_of(uint8_t float_kind, uint32_t width) {
  const std::string of = "+" + std::to_string(width) + " bits, kind " + std::to_string(float_kind);
  for (const bool grouped : {false, true}) {
    add_slot(54, "sum_sortable" + of + (grouped ? ", groups" : ""), [=](Stage& s, Road) {
      Column c(0, width, 103), groups;
      c.enc.float_kind = float_kind;
      c.vec.data = s.in(float_kind == 8 ? Bytes(103 * width / 8, 0x81) : stored_numbers<T>(s, 103, true), 0);
      groups.vec.data = s.in(bytes_of(random_codes(s, 103, 9)), 0);
      kdzk_vec result{};
      result.data = s.out(Bytes((grouped ? 9 : 1) * sizeof(T)), 8);
      s.call([&] { return library().sum_sortable(&result, &c.vec, grouped ? &groups.vec : nullptr, nullptr); });
    });
  }
  for (const bool sums : {false, true}) {
    if (!sums && float_kind == 8) continue;
    add_slot(55, "decode_sortable" + of + (sums ? ", sum" : ""), [=](Stage& s, Road) {
      Column c(0, width, 103);
      c.enc.float_kind = float_kind;
      c.vec.data = s.in(float_kind == 8 ? Bytes(103 * width / 8, 0x81) : stored_numbers<T>(s, 103, true), 0);
      kdzk_exec exec = exec_of(s);
      exec.flags = sums ? KDZK_EX_SUM : 0;
      kdzk_vec result{};
      result.data = s.out(Bytes((sums ? 1 : 103) * sizeof(T)), sums ? 8 : 1);
      s.call([&] { return library().decode_sortable(&result, &c.vec, &exec); });
    });
  }
}

void numeric() {
  arithmetic_of<float>(0);
  arithmetic_of<double>(KDZK_ROW_DOUBLE);
  sums_of<float>(1, 32);
  sums_of<double>(2, 64);
  for (const uint32_t width : {8u, 16u, 32u, 64u}) sums_of<uint64_t>(8, width);
  for (uint32_t vertices = 1; vertices <= 9; vertices++) {
    add_slot(52, "point_in_polygon+" + std::to_string(vertices), [=](Stage& s, Road) {
      kdzk_vec in[4] = {};
      for (uint32_t i = 0; i < 4; i++) {
        in[i].nrows = i < 2 ? vertices : 1;
        in[i].data = s.in(stored_numbers<double>(s, in[i].nrows, false), 0);
      }
      kdzk_vec result{};
      result.data = s.out(4);
      s.call([&] { return library().point_in_polygon(&result, &in[0], &in[1], &in[2], &in[3]); });
    });
  }
}

// ---- Bit vectors ----

void bit_vectors_of(const std::string& group, uint32_t slot, const kdzk_bv_services& bv, uint64_t unit) {
  constexpr uint64_t nrows = 1000;
  const auto operand = [=](Stage& s) {
    Bytes bits((nrows + unit - 1) / unit * unit / 8);
    for (uint8_t& byte : bits) byte = static_cast<uint8_t>(s.random.bits());
    return s.in(bits, 0);
  };
  const auto logic = [=](uint32_t at, const std::string& name, const auto& call) {
    add_slot(slot + at, group + name, [=](Stage& s, Road) {
      const uint8_t *const a = operand(s), *const b = operand(s), *const c = operand(s);
      uint32_t count = 0;
      for (uint32_t* const counts : {&count, static_cast<uint32_t*>(nullptr)}) {  // without a count in another loop
        if (at == 0 && counts == nullptr) continue;
        uint8_t* const dst = s.out((nrows + unit - 1) / unit * unit / 8);
        s.call([&] { return call(dst, counts, a, b, c), 0; });
      }
      s.saw(count);
    });
  };
  using B = const uint8_t*;
  logic(0, "bv_count", [&bv](uint8_t*, uint32_t* n, B a, B, B) { bv.bv_count(n, a, nrows); });
  logic(1, "bv_not", [&bv](uint8_t* to, uint32_t* n, B a, B, B) { bv.bv_not(to, n, a, nrows); });
  using Two = void (*kdzk_bv_services::*)(void*, uint32_t*, const void*, const void*, uint64_t);
  using Three = void (*kdzk_bv_services::*)(void*, uint32_t*, const void*, const void*, const void*, uint64_t);
  const std::pair<const char*, Two> two[] = {{"bv_and", &kdzk_bv_services::bv_and},
                                             {"bv_or", &kdzk_bv_services::bv_or},
                                             {"bv_xor", &kdzk_bv_services::bv_xor},
                                             {"bv_andnot", &kdzk_bv_services::bv_andnot}};
  const std::pair<const char*, Three> three[] = {{"bv_and3", &kdzk_bv_services::bv_and3},
                                                 {"bv_or3", &kdzk_bv_services::bv_or3},
                                                 {"bv_xor3", &kdzk_bv_services::bv_xor3}};
  uint32_t at = 2;
  for (const auto& [name, f] : two)
    logic(at++, name, [&bv, f = f](uint8_t* to, uint32_t* n, B a, B b, B) { (bv.*f)(to, n, a, b, nrows); });
  for (const auto& [name, f] : three)
    logic(at++, name, [&bv, f = f](uint8_t* to, uint32_t* n, B a, B b, B c) { (bv.*f)(to, n, a, b, c, nrows); });
  for (const bool sets : {true, false}) {
    add_slot(slot + at++, group + (sets ? "set_range" : "clear_range"), [=, &bv](Stage& s, Road) {
      for (const uint64_t last : {5u, 70u, 999u}) {
        uint8_t* const bits = s.out(Bytes((last / unit + 1) * unit / 8, sets ? 0 : 0xff));
        s.call([&] { return (sets ? bv.set_range : bv.clear_range)(bits, 3, last), 0; });
      }
    });
  }
  for (uint32_t of = 0; of < 6; of++) {  // iter_init, next_set, next_clear, next_set_batch, no_next, no_batch
    static const char* const names[] = {"iter_init", "next_set", "next_clear", "next_set_batch", "no_next", "no_batch"};
    add_slot(slot + at++, group + names[of], [=, &bv](Stage& s, Road) {
      const auto rows = s.random.rows(nrows, of == 2 ? 80 : 20);
      Bytes bits = bytes_of(std::vector<uint64_t>((nrows + 63) / 64));
      for (uint64_t r = 0; r < nrows; r++) bits[r / 8] = static_cast<uint8_t>(bits[r / 8] | rows[r] << r % 8);
      bits.resize((nrows + unit - 1) / unit * unit / 8);
      const auto* const words = reinterpret_cast<const uint64_t*>(s.in(bits, 0));
      kdzk_bv_iter iter{};
      s.call([&] { return bv.iter_init(&iter, words, nrows, of == 2, 3), 0; });
      s.saw(iter.bits);
      if (of == 4) s.call([&] { return bv.no_next(&iter, 0); });
      if (of == 5) s.call([&] { return bv.no_batch(&iter, nullptr, 0, 0); });
      for (uint64_t i = 0, row = 0; (of == 1 || of == 2) && row < nrows && i < nrows; i++)
        row = s.call([&] { return (of == 1 ? bv.next_set : bv.next_clear)(&iter); });
      for (uint64_t n = 7; of == 3 && n == 7;) {
        auto* const batch = reinterpret_cast<uint32_t*>(s.out(7 * 4, 4));
        n = s.call([&] { return bv.next_set_batch(&iter, batch, 7); });
        s.counts(batch, n * 4);
      }
    });
  }
}

// ---- The join engine ----

const uint32_t value_forms[] = {KDZK_FIXED_BYTES, KDZK_LEN_ARRAY, KDZK_LEN_PREFIXED, KDZK_PTR_LEN, KDZK_PAIR16};

ValueColumn values_in(Stage& s, uint32_t form, uint32_t n, uint32_t dict_width = 0) {
  return ValueColumn([&s](const Bytes& bytes, size_t slack) { return s.in(bytes, slack); }, form,
                     random_values(form, n, 11, s.random), s.random, dict_width);
}

// A table of one directory entry, buckets of 32-bit tags and 64-bit payloads, and few buckets, so that chains grow.
struct Table {
  static constexpr uint64_t buckets = 16, overflow = 300;
  uint8_t *table = nullptr, *cursor = nullptr, *limit = nullptr;
  kdzk_htdesc desc{};
  explicit Table(uint32_t flags) {
    desc.flags = flags;
    desc.bucket_hi = desc.dir_hi = static_cast<uint8_t>((flags & 3) != 0 ? 19 : 35);
    desc.tables = &table;
    desc.cursors = &cursor;
    desc.limits = &limit;
  }
  void lie_at(uint8_t* memory, uint64_t room) {
    table = memory;
    cursor = memory + buckets * 64;
    limit = cursor + room * 64;
  }
};

void join_engine() {
  std::vector<uint32_t> key_forms(std::begin(value_forms), std::end(value_forms));
  key_forms.push_back(KDZK_PACKED_DICT);
  for (const uint32_t form : key_forms) {
    add_slot(57, "hash_rows+" + form_name(form), [=](Stage& s, Road) {
      const ValueColumn keys = values_in(s, form, 150, 13);
      Column seeds(KDZK_NUMERIC, 64, 1);
      seeds.vec.data = s.in(bytes_of(std::vector<uint64_t>{77}), 0);
      kdzk_vec out{};
      out.data = s.out(150 * 8);
      s.call([&] { return library().hash_rows(&out, &keys.vec, &seeds.vec, Stage::hash); });
    });
  }
  key_forms.back() = KDZK_NUMERIC;
  for (const uint32_t form : key_forms) {
    for (const uint8_t layout : {KDZK_PART_A, KDZK_PART_C, KDZK_PART_D}) {
      add_slot(60, "partition_rows+" + form_name(form) + " " + std::to_string(layout), [=](Stage& s, Road) {
        const ValueColumn keys = values_in(s, form, 150);
        const ValueColumn rows = values_in(s,
                                           layout == KDZK_PART_C   ? KDZK_LEN_PREFIXED
                                           : layout == KDZK_PART_D ? KDZK_FIXED_BYTES
                                                                   : KDZK_NUMERIC,
                                           150);
        constexpr size_t room = 20000;  // more than any partition takes
        uint8_t *buffers[4], *cursors[4], *limits[4];
        for (uint8_t*& buffer : buffers) buffer = s.out(room);
        kdzk_partdesc desc{};
        desc.flags = layout;
        desc.part_lo = 5;
        desc.part_hi = 6;
        desc.payload_size = 11;
        desc.cursors = cursors;
        desc.limits = limits;
        kdzk_exec exec = exec_of(s);
        s.call([&] {
          for (int i = 0; i < 4; i++) {
            cursors[i] = buffers[i];
            limits[i] = buffers[i] + 100;
          }
          exec.row = 0;
          exec.key_off = exec.payload_off = 0;
          const uint64_t stop = library().partition_rows(&desc, &keys.vec, &rows.vec, Stage::hash, &exec);
          for (uint8_t*& limit : limits) limit = nullptr;  // none
          return 16 * stop + library().partition_rows(&desc, &keys.vec, &rows.vec, Stage::hash, &exec);
        });
        s.saw(exec.row);
        for (int i = 0; i < 4; i++) s.saw(static_cast<uint64_t>(cursors[i] - buffers[i]));
      });
    }
  }
  for (const uint32_t flags : {1u, 2u, 4u, 8u, 4u | KDZK_HT_KEY_MODE, 8u | KDZK_HT_KEY_MODE}) {
    const std::vector<uint32_t> forms = flags < 16 ? key_forms : std::vector<uint32_t>{KDZK_HASH_U32};
    for (const uint32_t form : forms) {
      add_slot(58, "ht_build+" + form_name(form) + " " + std::to_string(flags), [=](Stage& s, Road) {
        const ValueColumn keys = values_in(s, form, 150);
        Column rows(KDZK_IMPLICIT_IDS);
        rows.vec.rowbase = 1000;
        Table t(flags);
        uint8_t* const memory = s.out(Bytes((Table::buckets + Table::overflow) * 64), 8);
        kdzk_exec exec = exec_of(s);
        s.call([&] {
          std::memset(memory, 0, (Table::buckets + Table::overflow) * 64);
          exec.row = 0;
          exec.key_off = 0;
          t.lie_at(memory, 2);
          const uint64_t stop = library().ht_build(&t.desc, &keys.vec, &rows.vec, 0, Stage::hash, &exec);
          t.limit = memory + (Table::buckets + Table::overflow) * 64;
          return 16 * stop + library().ht_build(&t.desc, &keys.vec, &rows.vec, 0, Stage::hash, &exec);
        });
        s.saw(exec.row);
        s.saw(static_cast<uint64_t>(t.cursor - memory));
      });
      add_slot(59, "ht_probe+" + form_name(form) + " " + std::to_string(flags), [=](Stage& s, Road) {
        const ValueColumn keys = values_in(s, form, 150);
        Column rows(KDZK_IMPLICIT_IDS);
        rows.vec.rowbase = 1000;
        Table t(flags);
        t.table = s.built((Table::buckets + Table::overflow) * 64, [&](uint8_t* memory) {
          t.lie_at(memory, Table::overflow);
          kdzk_exec exec{};
          library().ht_build(&t.desc, &keys.vec, &rows.vec, 0, plain_hash, &exec);
        });
        t.desc.cursors = nullptr;
        t.desc.limits = nullptr;
        kdzk_exec exec = exec_of(s);
        for (uint64_t returned = KDZK_PAIRS_FULL; returned == KDZK_PAIRS_FULL;) {
          kdzk_vec out{};
          out.data = s.out(60 * 16, 8);
          const kdzk_exec before = exec;
          returned = s.call(
              [&] {
                out.nrows = 60;
                return library().ht_probe(&out, &keys.vec, &rows.vec, &t.desc, Stage::hash, &exec);
              },
              [&] { exec = before; });
          s.counts(out.data, out.nrows * 16);
          s.saw(out.nrows);
        }
      });
    }
  }
  for (const uint32_t from : {KDZK_PTR_LEN, KDZK_PAIR16}) {
    for (const uint32_t to : {KDZK_LEN_ARRAY, KDZK_LEN_PREFIXED}) {
      add_slot(61, "ht_gather+" + form_name(from) + " to " + form_name(to), [=](Stage& s, Road) {
        const ValueColumn values = values_in(s, from, 150);
        Column out(to);
        kdzk_exec exec = exec_of(s);
        while (exec.row < 150) {
          out.vec.data = s.out(900);
          out.vec.lengths = s.out(150 * 2, 2);
          out.vec.out_size = 900;
          s.call([&] { return library().ht_gather(&out.vec, &values.vec, nullptr, &exec); });
          s.saw(exec.row);
        }
      });
    }
  }
  for (const uint32_t to :
       {KDZK_FIXED_BYTES, KDZK_LEN_ARRAY, KDZK_LEN_PREFIXED, KDZK_PTR_LEN, KDZK_PAIR16, KDZK_REF_WORDS}) {
    for (const uint32_t locators : {KDZK_FIXED_BYTES, KDZK_PROBE_PAIRS}) {
      add_slot(61, "ht_gather+store, " + std::to_string(locators) + " to " + std::to_string(to), [=](Stage& s, Road) {
        const ValueColumn values = values_in(s, KDZK_FIXED_BYTES, 200);  // whole, and the pairs of a page
        std::vector<uint64_t> pairs, rows;
        for (uint64_t i = 0; i < 100; i++) {
          pairs.push_back(11);
          pairs.push_back(reinterpret_cast<uint64_t>(values.vec.data) + 11 * i);
        }
        for (int i = 0; i < 150; i++) {
          if (locators == KDZK_PROBE_PAIRS) rows.push_back(7);
          rows.push_back(s.random.below(100));
        }
        uint8_t* const page = s.in(bytes_of(pairs), 0);
        kdzk_rowstore store{};
        store.flags = KDZK_STORE_PAIRS;
        store.width = 88;
        store.page_lo = store.page_hi = 64;
        store.pairs = &page;
        Column in(locators, 64, 150), out(to);
        in.vec.data = s.in(bytes_of(rows), locators == KDZK_FIXED_BYTES ? KDZK_PADDING : 0);
        kdzk_exec exec = exec_of(s);
        while (exec.row < 150) {
          out.vec.data = s.out(2400);
          out.vec.lengths = s.out(150 * 2, 2);
          out.vec.out_size = 2400;
          out.enc.ref_bits = 4;
          s.call([&] { return library().ht_gather(&out.vec, &in.vec, &store, &exec); });
          if (to == KDZK_REF_WORDS) s.counts(out.vec.data, 0);  // cut from addresses
          s.saw(exec.row);
        }
      });
    }
  }
  for (const uint32_t form : value_forms) {
    add_slot(62, "fill_pairs+" + form_name(form), [=](Stage& s, Road) {
      const ValueColumn values = values_in(s, form, 150);
      uint8_t* matrix_at = s.out(150 * 3 * 16, 8);
      kdzk_rowstore matrix{};
      matrix.flags = KDZK_STORE_PAIRS;
      matrix.ncols = 3;
      matrix.pair_cursors = &matrix_at;
      s.call([&] { return library().fill_pairs(&matrix, &values.vec, 1, 0); });
    });
  }
  for (const uint32_t flags : {KDZK_STORE_PAIRS, KDZK_STORE_OFFSETS, KDZK_STORE_PAIRS | KDZK_STORE_ROWS,
                               KDZK_STORE_OFFSETS | KDZK_STORE_ROWS}) {
    add_slot(63, "pack_rows+" + std::to_string(flags), [=](Stage& s, Road) {
      const ValueColumn values = values_in(s, KDZK_PAIR16, 150);  // a matrix of 75 rows of two
      uint8_t* matrix_at = static_cast<uint8_t*>(values.vec.data);
      kdzk_rowstore source{}, target{};
      source.ncols = 2;
      source.pairs = &matrix_at;
      target.flags = flags;
      constexpr size_t room = 10000;
      uint8_t *data = s.out(room), *const data_before = data, *limit = data + 500, *const end = data + room;
      uint8_t *offsets = s.out(151 * 4, 4), *pairs = s.out(150 * 16, 8);
      target.data_cursors = &data;
      target.data_limits = &limit;
      target.offset_cursors = &offsets;
      target.pair_cursors = &pairs;
      kdzk_exec exec = exec_of(s);
      for (uint64_t returned = KDZK_PAGE_FULL; returned == KDZK_PAGE_FULL; limit = end)
        returned = s.call([&] { return library().pack_rows(&target, &source, 0, 0, exec.row, 74, &exec); });
      s.counts(data_before, static_cast<size_t>(data - data_before));
      s.saw(exec.row);
    });
  }
}

// ---- What does nothing ----

void idle() {
  for (const uint32_t width : {8u, 16u, 32u, 64u})
    add(kdzk_row_of_width(width), 15, one_road, "", [](Stage& s, Road, kdzk_kernel kernel) {
      s.call([&] { return kernel.idle(nullptr, nullptr, nullptr, nullptr); });
    });
  for (const uint32_t width : dict_widths) {
    for (const uint32_t column : {47u, 48u})
      add(kdzk_row_of_width(width), column, one_road, "", [](Stage& s, Road, kdzk_kernel kernel) {
        s.call([&] { return kernel.idle(nullptr, nullptr, nullptr, nullptr); });
      });
  }
  for (uint32_t i = 0; i < 2; i++) {
    add_slot(15 + i, "noop1", [=](Stage& s, Road) { s.call([&] { return library().noop1[i](nullptr), 0; }); });
    add_slot(65 + i, "reserved0", [=](Stage& s, Road) { s.call([&] { return library().reserved0[i](); }); });
  }
}

}  // namespace

const std::vector<Scene>& scenes() {
  if (all.empty()) {
    predicates();
    sets();
    translations();
    bloom();
    symbols();
    unpacked();
    bursts();
    streams();
    group_keys();
    numeric();
    bit_vectors_of("bv8.", 17, library().bv8, 8);
    bit_vectors_of("bv64.", 34, library().bv64, 64);
    join_engine();
    idle();
  }
  return all;
}

}  // namespace kdzk_test

// SPDX-License-Identifier: Apache-2.0
// Gather by locators in random order, pair matrix and row packing. Data are named for the page form or the column, the
// values' lengths, and the rows: 16Ki of them with their values are in cache, 2Mi come from memory.
//
// Peers: `memcpy_loop` and `plain_loop` do the same row by row. Bytes per second count what is written.

#include <algorithm>
#include <cstring>
#include <memory>
#include <numeric>
#include <random>

#include "bench/bench.h"
#include "bench/peers/row_store_loops.h"

namespace kdzk_bench {
namespace {

constexpr uint32_t few = 16 * 1024, many = 2 * 1024 * 1024;  // rows
std::string rows_name(uint32_t rows) { return rows == few ? "16Ki" : "2Mi"; }

constexpr uint32_t page_entries = 4096, ref_bits = 40;

struct Lengths {
  uint32_t least, most;
  std::string name() const {
    return std::to_string(least) + (least == most ? "" : "_to_" + std::to_string(most)) + "_bytes";
  }
};

// n values back to back, each known by all page forms, and locators of all of them in random order.
struct Rows {
  std::vector<uint8_t> values, pairs, out, named;
  std::vector<uint16_t> lengths, out_lengths;
  std::vector<uint32_t> offsets;  // per page one more than entries
  std::vector<uint64_t> words, locators, bases, out_words;
  std::vector<uint8_t*> pair_pages, ref_pages, offset_pages;
  uint64_t address;
  kdzk_rowstore store{};
  kdzk_enc_ctx in_enc{}, out_enc{};
  kdzk_vec in{}, result{};
  kdzk_exec exec{};
  uint64_t bytes = 0;

  Rows(uint32_t n, Lengths span) : pairs(n * 16ull), lengths(n), out_lengths(n), words(n), locators(n * 2ull) {
    std::mt19937_64 random(1);
    for (uint16_t& length : lengths)
      bytes += length = static_cast<uint16_t>(span.least + random() % (span.most - span.least + 1));
    values.resize(bytes + 64);
    for (uint8_t& byte : values) byte = static_cast<uint8_t>(random());
    out.resize(bytes + 2ull * n);
    out_words.resize(n);
    address = reinterpret_cast<uint64_t>(values.data());
    const uint32_t pages = n / page_entries;
    offsets.resize(pages * (page_entries + 1ull));
    uint64_t at = 0;
    for (uint32_t i = 0; i < n; i++) {
      const uint32_t page = i / page_entries, entry = i % page_entries;
      if (entry == 0) {
        pair_pages.push_back(pairs.data() + i * 16ull);
        ref_pages.push_back(reinterpret_cast<uint8_t*>(words.data() + i));
        offset_pages.push_back(reinterpret_cast<uint8_t*>(offsets.data() + page * (page_entries + 1ull)));
        bases.push_back(address + at);
      }
      const uint64_t value = address + at;
      std::memcpy(&pairs[i * 16ull], &lengths[i], 2);
      std::memcpy(&pairs[i * 16ull + 8], &value, 8);
      words[i] = at << 16 | lengths[i];
      offsets[page * (page_entries + 1ull) + entry] = static_cast<uint32_t>(value - bases.back());
      at += lengths[i];
      offsets[page * (page_entries + 1ull) + entry + 1] = static_cast<uint32_t>(value + lengths[i] - bases.back());
    }
    std::vector<uint32_t> order(n);
    std::iota(order.begin(), order.end(), 0);
    std::shuffle(order.begin(), order.end(), random);
    for (uint32_t i = 0; i < n; i++) locators[i * 2ull + 1] = order[i];
    store.page_lo = 12;
    store.page_hi = 40;
    store.width = static_cast<uint16_t>(span.least * 8);
    store.pairs = pair_pages.data();
    store.refs = ref_pages.data();
    store.offsets = offset_pages.data();
    store.bases = bases.data();
    in_enc.flags = KDZK_PROBE_PAIRS;
    in.enc_ctx = &in_enc;
    in.data = locators.data();
    in.nrows = n;
    out_enc.ref_bits = ref_bits;
    out_enc.ref_pages = &address;
    result.enc_ctx = &out_enc;
    result.data = out.data();
    result.lengths = out_lengths.data();
    result.out_size = out.size();
  }

  void gather() {
    exec.row = 0;
    library().ht_gather(&result, &in, &store, &exec);
  }

  // What was written, which is then spoilt, so that no peer lives on another's work.
  Answer answer() {
    std::vector<uint64_t> all(out.size() / 8 + out_lengths.size() / 4);
    std::memcpy(all.data(), out.data(), out.size() / 8 * 8);
    std::memcpy(all.data() + out.size() / 8, out_lengths.data(), out_lengths.size() / 4 * 8);
    all.insert(all.end(), out_words.begin(), out_words.end());
    std::fill(out.begin(), out.end(), 0xff);
    std::fill(out_lengths.begin(), out_lengths.end(), 0xffff);
    std::fill(out_words.begin(), out_words.end(), ~uint64_t{0});
    return {bytes, all};
  }
};

void add_gather(uint32_t pages, uint32_t form, Lengths span, uint32_t n) {
  const char* const to = form == KDZK_FIXED_BYTES ? "fixed" : form == KDZK_LEN_ARRAY ? "lengths" : "words";
  const std::string kernel = std::string("ht_gather_pages_") + std::to_string(pages) + "_to_" + to;
  const uint64_t mean = (span.least + span.most) / 2;
  const uint64_t bytes = form == KDZK_FIXED_BYTES ? mean : form == KDZK_LEN_ARRAY ? mean + 2 : 8;
  add_group(kernel, span.name() + "/" + rows_name(n), n, n * bytes, [=] {
    const auto rows = std::make_shared<Rows>(n, span);
    rows->store.flags = pages;
    rows->out_enc.flags = form;
    if (form == KDZK_REF_WORDS) rows->result.data = rows->out_words.data();
    const auto plain = [=] {
      if (form == KDZK_REF_WORDS) {
        gather_words(rows->store, rows->in, ref_bits, rows->out_words.data());
      } else {
        gather_values(rows->store, rows->in, &rows->address, ref_bits, rows->out.data(),
                      form == KDZK_LEN_ARRAY ? rows->out_lengths.data() : nullptr);
      }
    };
    const auto answer = [=] { return rows->answer(); };
    answer();
    return std::vector<Peer>{{"kdzk", [=] { rows->gather(); }, answer},
                             {form == KDZK_REF_WORDS ? "plain_loop" : "memcpy_loop", plain, answer}};
  });
}

void add_fill(uint32_t form, uint32_t ncols, uint32_t n) {
  const std::string kernel = form == KDZK_LEN_ARRAY ? "fill_pairs_lengths" : "fill_pairs_prefixed";
  add_group(kernel, std::to_string(ncols) + "_columns/" + rows_name(n), n, n * 10ull, [=] {
    const auto rows = std::make_shared<Rows>(n, Lengths{0, 15});
    rows->named.resize(n * 17ull);
    uint64_t from = 0, to = 0;
    for (const uint16_t length : rows->lengths) {
      std::memcpy(&rows->named[to], &length, 2);
      std::memcpy(&rows->named[to + 2], &rows->values[from], length);
      from += length;
      to += 2u + length;
    }
    rows->in_enc.flags = form;
    rows->in.data = form == KDZK_LEN_ARRAY ? rows->values.data() : rows->named.data();
    rows->in.lengths = rows->lengths.data();
    rows->out.assign(n * 16ull * ncols, 0);
    const auto cursor = std::make_shared<uint8_t*>(rows->out.data());
    rows->store.flags = KDZK_STORE_PAIRS;
    rows->store.ncols = static_cast<uint16_t>(ncols);
    rows->store.pair_cursors = cursor.get();
    const auto answer = [=] { return rows->answer(); };
    answer();
    const uint32_t column = ncols - 1;
    return std::vector<Peer>{
        {"kdzk", [=] { library().fill_pairs(&rows->store, &rows->in, column, *cursor ? 0 : 1); }, answer},
        {"plain_loop",
         [=] {
           uint8_t* const first = rows->out.data() + column * 16;
           if (form == KDZK_LEN_ARRAY) {
             fill_from_lengths(rows->in, first, ncols * 16);
           } else {
             fill_from_prefixes(rows->in, first, ncols * 16);
           }
         },
         answer}};
  });
}

void add_pack(bool whole_rows, Lengths span, uint32_t ncols, uint32_t n) {
  const std::string kernel = whole_rows ? "pack_rows" : "pack_values";
  add_group(kernel, std::to_string(ncols) + "_columns_" + span.name() + "/" + rows_name(n), n,
            n * uint64_t{span.least + span.most} / 2, [=] {
              const auto rows = std::make_shared<Rows>(n, span);  // n values, n / ncols rows
              struct Target {
                kdzk_rowstore store{};
                std::vector<uint32_t> offsets;
                uint8_t *data, *directory, *limit, *matrix;
              };
              const auto target = std::make_shared<Target>();
              rows->out.assign(rows->bytes + 2ull * n, 0);
              rows->out_words.assign(n / 2 + 1, 0);
              rows->store.ncols = static_cast<uint16_t>(ncols);
              target->matrix = rows->pairs.data();
              rows->store.pairs = &target->matrix;
              target->limit = rows->out.data() + rows->out.size();
              target->store.flags = KDZK_STORE_OFFSETS | (whole_rows ? KDZK_STORE_ROWS : 0);
              target->store.data_cursors = &target->data;
              target->store.offset_cursors = &target->directory;
              target->store.data_limits = &target->limit;
              const auto answer = [=] { return rows->answer(); };
              answer();
              return std::vector<Peer>{{"kdzk",
                                        [=] {
                                          target->data = rows->out.data();
                                          target->directory = reinterpret_cast<uint8_t*>(rows->out_words.data());
                                          library().pack_rows(&target->store, &rows->store, 0, 0, 0,
                                                              static_cast<int32_t>(n / ncols) - 1, &rows->exec);
                                        },
                                        answer},
                                       {"memcpy_loop",
                                        [=] {
                                          pack_values(rows->pairs.data(), n / ncols, ncols, whole_rows,
                                                      rows->out.data(), target->limit,
                                                      reinterpret_cast<uint32_t*>(rows->out_words.data()));
                                        },
                                        answer}};
            });
}

}  // namespace

void add_row_store() {
  for (const uint32_t n : {few, many}) {
    for (const uint32_t pages : {KDZK_STORE_PAIRS, KDZK_STORE_REFS, KDZK_STORE_OFFSETS}) {
      add_gather(pages, KDZK_FIXED_BYTES, {8, 8}, n);
      add_gather(pages, KDZK_FIXED_BYTES, {20, 20}, n);
      for (const Lengths span : {Lengths{0, 15}, Lengths{5, 40}}) add_gather(pages, KDZK_LEN_ARRAY, span, n);
      add_gather(pages, KDZK_REF_WORDS, {0, 15}, n);
    }
    for (const uint32_t form : {KDZK_LEN_ARRAY, KDZK_LEN_PREFIXED})
      for (const uint32_t ncols : {1u, 4u}) add_fill(form, ncols, n);
    for (const bool whole_rows : {true, false})
      for (const Lengths span : {Lengths{8, 8}, Lengths{0, 15}, Lengths{5, 40}}) add_pack(whole_rows, span, 4, n);
  }
}

}  // namespace kdzk_bench

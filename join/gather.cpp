// SPDX-License-Identifier: Apache-2.0
// Value gather: from one locator per row to the values, as a column of any form that has values.
//
//   in      locators, in one of seven forms          or values that are named already, in one of three forms:
//              |                                     they are copied, and there is no row store
//   store   page and entry: an address and a length, in one of three page forms
//              |
//   out     a column in one of six forms, from its beginning; of compact words, at the row's own index
//
// A leaf is made of a source of values, which is a form of locators with a page form or a form of column, and a form of
// output. Forms that keep addresses need as much room for every row, so it is known before the loop how many rows fit.
// Those that copy bytes go in turns of 64 rows:
//
//   1. look up addresses and lengths, and fetch the values' bytes into the cache;
//   2. add up the room, and find the first row without, if there is one;
//   3. copy the rows that fit, each value by one vector if it is short (copy_value), as what that writes too much is
//      written by a later row of the turn, and the last rows exactly.
//
// Pass 1 has no branch on the data, so that the processor has as many cache misses under way as it can hold; passes 2
// and 3 miss no more. Fetching the entries too in a pass of their own gave no clear gain (a busy Zen 4, g++ 12).
//
// Invariants. Locators and entries are read ahead of the row at which a call stops, values are not but for being
// fetched. Of a row without room nothing is written, nor behind the last row written.

#include "frame/services.h"
#include "join/rowstore.h"

namespace kdzk {
namespace {

// ---- Locators: what of `in` tells where a row's value is ----

template <class Number>
struct Numbers {
  const uint8_t* data;
  Numbers(const kdzk_vec* in) : data(bytes_of(in)) {}
  uint64_t locator(uint64_t row) const { return load<Number>(data + row * sizeof(Number)); }
};

// Numbers of any other count of bytes, of which up to 8 are used. The position is kept in 32 bits.
struct OddNumbers {
  const uint8_t* data;
  uint32_t size;
  uint64_t used;
  OddNumbers(const kdzk_vec* in)
      : data(bytes_of(in)), size(in->enc_ctx->width / 8u), used(low_bits(size < 8 ? size * 8 : 64)) {}
  uint64_t locator(uint64_t row) const { return load<uint64_t>(data + static_cast<uint32_t>(row * size)) & used; }
};

template <int word>
struct PairWords {
  const uint8_t* data;
  PairWords(const kdzk_vec* in) : data(bytes_of(in) + word * 8) {}
  uint64_t locator(uint64_t row) const { return load<uint64_t>(data + row * 16); }
};

// ---- Sources of values ----

// The entries that locators name.
template <class Pages, class Locators>
struct Located {
  Pages pages;
  Locators locators;
  LocatorBits bits;

  Located(const kdzk_vec* in, const kdzk_rowstore* row_store, const kdzk_enc_ctx* out)
      : pages(row_store, out), locators(in), bits(row_store->page_hi, row_store->page_lo) {}
  Value value(uint64_t row) const { return pages.value(bits.place(locators.locator(row))); }
  uint64_t compact(uint64_t row) const { return pages.compact(bits.place(locators.locator(row))); }
};

// The values of a column.
template <class Form>
struct Named {
  Form column;

  Named(const kdzk_vec* in, const kdzk_rowstore*, const kdzk_enc_ctx*) : column(in) {}
  Value value(uint64_t row) const { return column.value(row, 0); }
};

// Compact words, read by the column's own pages of addresses.
struct RefWords {
  static constexpr uint32_t flag = KDZK_REF_WORDS;
  const uint8_t* words;
  const uint64_t* ref_pages;
  uint32_t ref_bits;

  explicit RefWords(const kdzk_vec* column)
      : words(bytes_of(column)), ref_pages(column->enc_ctx->ref_pages), ref_bits(column->enc_ctx->ref_bits) {}
  Value value(uint64_t i, uint64_t) const {
    const uint64_t word = load<uint64_t>(words + i * 8), reference = word >> 16;
    const uint64_t address = ref_pages[reference >> ref_bits] + (reference & low_bits(ref_bits));
    return {reinterpret_cast<const uint8_t*>(address), static_cast<uint16_t>(word)};
  }
};

// ---- Forms of output: `put` writes the first rows of those from `row` on that fit, and returns their number ----

constexpr uint32_t rows_per_turn = 64;

// How many of n rows fit, each of which needs `size` bytes.
inline uint32_t rows_with_room(uint64_t room, uint32_t size, uint32_t n) {
  return room / size >= n ? n : static_cast<uint32_t>(room / size);
}

// Bytes. A form says what of a value is copied, and what stands before it or beside it.
struct FixedOutput {
  static constexpr uint32_t flag = KDZK_FIXED_BYTES;
  static constexpr uint32_t prefix = 0;
  static constexpr bool has_lengths = false;
  uint32_t size;
  explicit FixedOutput(const kdzk_rowstore* row_store) : size(row_store->width / 8u) {}
  Value copied(const Value& value) const { return {value.at, size}; }
};

template <uint32_t form_flag, uint32_t prefix_bytes>
struct VariableOutput {
  static constexpr uint32_t flag = form_flag;
  static constexpr uint32_t prefix = prefix_bytes;
  static constexpr bool has_lengths = prefix == 0;
  explicit VariableOutput(const kdzk_rowstore*) {}
  static Value copied(const Value& value) { return value; }
};

template <class Form>
struct CopiedBytes {
  static constexpr uint32_t flag = Form::flag;

  template <class Source>
  static uint32_t put(const Source source, const kdzk_vec* out, const kdzk_rowstore* row_store, uint32_t row,
                      uint32_t n) {
    const Form form(row_store);
    auto *to = static_cast<uint8_t*>(out->data), *lengths = static_cast<uint8_t*>(out->lengths);
    uint64_t left = out->out_size;
    Value values[rows_per_turn];
    for (uint32_t done = 0; done < n;) {
      const uint32_t turn = n - done < rows_per_turn ? n - done : rows_per_turn;
      uint64_t need = 0;
      for (uint32_t i = 0; i < turn; i++) {
        values[i] = form.copied(source.value(uint64_t{row} + done + i));
        prefetch(values[i].at);
        need += uint64_t{Form::prefix} + values[i].length;
      }
      uint32_t fit = turn;
      while (need > left) need -= uint64_t{Form::prefix} + values[--fit].length;
      const uint8_t* const end = to + need;
      for (uint32_t i = 0; i < fit; i++) {
        const Value value = values[i];
        if constexpr (Form::prefix == 2) store(to, static_cast<uint16_t>(value.length));
        if constexpr (Form::has_lengths) store(lengths + i * 2, static_cast<uint16_t>(value.length));
        copy_value(to + Form::prefix, value, end);
        to += uint64_t{Form::prefix} + value.length;
      }
      done += fit;
      if (fit < turn) return done;
      left -= need;
      if constexpr (Form::has_lengths) lengths += uint64_t{turn} * 2;
    }
    return n;
  }
};

using OutFixedBytes = CopiedBytes<FixedOutput>;
using OutLenArray = CopiedBytes<VariableOutput<KDZK_LEN_ARRAY, 0>>;
using OutLenPrefixed = CopiedBytes<VariableOutput<KDZK_LEN_PREFIXED, 2>>;

// Addresses and lengths.
struct OutPtrLen {
  static constexpr uint32_t flag = KDZK_PTR_LEN;
  template <class Source>
  static uint32_t put(const Source source, const kdzk_vec* out, const kdzk_rowstore*, uint32_t row, uint32_t n) {
    auto* const pointers = static_cast<uint8_t*>(out->data);
    auto* const lengths = static_cast<uint8_t*>(out->lengths);
    const uint32_t fit = rows_with_room(out->out_size, 8, n);
    for (uint64_t i = 0; i < fit; i++) {
      const Value value = source.value(row + i);
      store(pointers + i * 8, value.at);
      store(lengths + i * 2, static_cast<uint16_t>(value.length));
    }
    return fit;
  }
};

struct OutPair16 {
  static constexpr uint32_t flag = KDZK_PAIR16;
  template <class Source>
  static uint32_t put(const Source source, const kdzk_vec* out, const kdzk_rowstore*, uint32_t row, uint32_t n) {
    auto* const pairs = static_cast<uint8_t*>(out->data);
    const uint32_t fit = rows_with_room(out->out_size, 16, n);
    for (uint64_t i = 0; i < fit; i++) store_pair(pairs + i * 16, source.value(row + i));
    return fit;
  }
};

// Compact words, each at its row's own index; there is always room.
struct OutRefWords {
  static constexpr uint32_t flag = KDZK_REF_WORDS;
  template <class Source>
  static uint32_t put(const Source source, const kdzk_vec* out, const kdzk_rowstore*, uint32_t row, uint32_t n) {
    auto* const words = static_cast<uint8_t*>(out->data);
#pragma GCC unroll 16
    for (uint64_t i = row, end = i + n; i < end; i++) store(words + i * 8, source.compact(i));
    return n;
  }
};

// ---- The leaves, and the choice of one ----

template <class Source, class Out>
[[gnu::noinline]] uint64_t gather(const kdzk_vec* out, const kdzk_vec* in, const kdzk_rowstore* row_store,
                                  kdzk_exec* exec) {
  const uint32_t row = exec->row, nrows = in->nrows;
  exec->row = nrows;
  if (row >= nrows) return KDZK_DONE;
  const uint32_t done = Out::put(Source(in, row_store, out->enc_ctx), out, row_store, row, nrows - row);
  exec->row = row + done;
  return done == nrows - row ? KDZK_DONE : KDZK_OUTPUT_FULL;
}

template <class Pages, class Out>
uint64_t gather_located(const kdzk_vec* out, const kdzk_vec* in, const kdzk_rowstore* row_store, kdzk_exec* exec) {
  if ((in->enc_ctx->flags & KDZK_FIXED_BYTES) != 0) {
    switch (in->enc_ctx->width / 8) {
      case 8:
        return gather<Located<Pages, Numbers<uint64_t>>, Out>(out, in, row_store, exec);
      case 4:
        return gather<Located<Pages, Numbers<uint32_t>>, Out>(out, in, row_store, exec);
      case 2:
        return gather<Located<Pages, Numbers<uint16_t>>, Out>(out, in, row_store, exec);
      case 1:
        return gather<Located<Pages, Numbers<uint8_t>>, Out>(out, in, row_store, exec);
      default:
        return gather<Located<Pages, OddNumbers>, Out>(out, in, row_store, exec);
    }
  }
  if ((in->enc_ctx->flags & KDZK_PROBE_PAIRS) != 0) {
    return (exec->flags & KDZK_EX_PAIR_WORD0) != 0
               ? gather<Located<Pages, PairWords<0>>, Out>(out, in, row_store, exec)
               : gather<Located<Pages, PairWords<1>>, Out>(out, in, row_store, exec);
  }
  return KDZK_UNSUPPORTED;
}

}  // namespace

uint64_t kdzk_ht_gather(const kdzk_vec* out, const kdzk_vec* in, const kdzk_rowstore* row_store, kdzk_exec* exec) {
  const uint32_t out_flags = out->enc_ctx->flags, in_flags = in->enc_ctx->flags;
  const uint64_t named = first_form<OutLenArray, OutLenPrefixed>(out_flags, [&]<class Out>() {
    return first_form<PtrLen, Pair16, RefWords>(
        in_flags, [&]<class Form>() { return gather<Named<Form>, Out>(out, in, row_store, exec); });
  });
  if (named != KDZK_UNSUPPORTED) return named;
  return first_form<Pages32, Pages16, Pages8>(row_store->flags, [&]<class Pages>() {
    return first_form<OutFixedBytes, OutLenArray, OutLenPrefixed, OutPtrLen, OutPair16, OutRefWords>(
        out_flags, [&]<class Out>() { return gather_located<Pages, Out>(out, in, row_store, exec); });
  });
}

}  // namespace kdzk

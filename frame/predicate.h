// SPDX-License-Identifier: Apache-2.0
// The frame of a predicate: what every predicate kernel does around its compares, once for all families.
//
//   compare<Family, op>, between<Family, op>    the kernels: thin, they name themselves and go on to
//   predicate<Family>                           the frame: selective or full, the column's bytes, evaluation, the end
//     Design<Family>::evaluate                    all rows of the vector: whole steps in lanes, then the tail
//     Design<Family>::evaluate_selected           the selective companion: the rows of the selection, one by one
//   finish_predicate                            filter, selection, hits, return code, result_cb
//
// What sets the design apart: the operation is a value, not a template argument. An operation with its constants is a
// set of codes (frame/operation.h), and a family needs only two or three loops, for the shapes that such a set has in
// lanes: equal, above a bound, inside a range, each of them inverted or not. So one instance per family and width
// serves its ten kernels at full speed, and the choice is made once per call, before the loop.
//
// A family says in Design<Family>:
//   static constexpr bool has_companion, has_filter;
//   static bool accepts(const Call&);    optional: false makes the kernel return 2 before anything else
//   static uint32_t evaluate(const Call&, const uint8_t* data, uint8_t* bits, uint32_t nrows);
//   static uint32_t evaluate_selected(const Call&, const uint8_t* data, uint8_t* bits, uint32_t nrows, selection);
// both of which write (nrows + 63) / 64 words at `bits` and return the number of qualifying rows. Most families do that
// with evaluate_steps and evaluate_rows below, and bring a source that knows how to read the column.
#ifndef FRAME_PREDICATE_H
#define FRAME_PREDICATE_H

#include <kdzk/records.h>

#include "frame/decompress.h"
#include "frame/families.h"
#include "frame/kernel_name.h"
#include "frame/memory.h"
#include "frame/operation.h"

namespace kdzk {

template <class Family>
struct Design;

struct PredicateKernel {
  Op op;
  KernelTexts texts;
};

// What a family gets to see of a call. One-sided kernels have the same constant twice.
struct Call {
  Op op;
  const kdzk_vec* input;
  const kdzk_kargs* low;
  const kdzk_kargs* high;
};

inline uint64_t words_for(uint32_t nrows) { return (uint64_t{nrows} + 63) / 64; }

// Zeroes the bit vector from the byte `from` on.
inline void clear_from(uint8_t* bits, uint64_t from, uint32_t nrows) {
  if (words_for(nrows) * 8 > from) std::memset(bits + from, 0, words_for(nrows) * 8 - from);
}

// All rows of a vector. A step gives `words_per_step` words, one or two, of the bit vector of type `Word`, a bit per
// row; the rows behind the last whole step, fewer than one step, are read as codes and tested one by one. The source of
// codes walks over the column:
//   source.begin_step()   called before each step
//   next_word<i>(source)  the bits of the next 8 * sizeof(Word) rows, word i of the step
//   source.next()         moves on to the rows behind them
//   source.tail(row)      the rows from this one on are read by `code`
//   source.code(row)      the code of a row, asked for in ascending order; codes.has(code) tells whether it qualifies
template <class Source, class NextWord, class Codes>
inline uint32_t evaluate_steps(Source source, const NextWord& next_word, const Codes& codes, uint8_t* bits,
                               uint32_t nrows) {
  using Word = typename Source::Word;
  constexpr uint32_t rows_per_step = Source::words_per_step * 8 * sizeof(Word);
  uint32_t hits = 0;
  uint8_t* out = bits;
  for (uint32_t steps = nrows / rows_per_step; steps > 0; steps--) {
    source.begin_step();
    const auto put = [&](Word word) {
      source.next();
      store(out, word);
      out += sizeof(Word);
      hits += bits_set(word);
    };
    put(next_word.template operator()<0>(source));
    if constexpr (Source::words_per_step == 2) put(next_word.template operator()<1>(source));
  }
  uint32_t row = nrows / rows_per_step * rows_per_step;
  clear_from(bits, row / 8, nrows);
  source.tail(row);
  while (row < nrows) {
    const uint32_t word_end = (nrows - 1) / 64 == row / 64 ? nrows : (row / 64 + 1) * 64;
    uint8_t* const at = bits + row / 64 * uint64_t{8};
    uint64_t word = 0;
    for (; row < word_end; row++) word |= uint64_t{codes.has(source.code(row))} << row % 64;
    hits += bits_set(word);
    store(at, load<uint64_t>(at) | word);
  }
  return hits;
}

// The rows of `selection` alone, one by one; all other bits are cleared. Bits of the selection past the last row are
// not looked at.
template <class Source, class Codes>
inline uint32_t evaluate_rows(Source source, const Codes& codes, uint8_t* bits, uint32_t nrows,
                              const uint64_t* selection) {
  uint32_t hits = 0;
  source.tail(0);
  for (uint64_t i = 0; i < words_for(nrows); i++) {
    uint64_t selected = load<uint64_t>(selection + i);
    if (nrows - i * 64 < 64) selected &= ~(~uint64_t{0} << nrows % 64);
    uint64_t word = 0;
    for (; selected != 0; selected &= selected - 1) {
      const uint32_t bit = static_cast<uint32_t>(__builtin_ctzll(selected));
      word |= uint64_t{codes.has(source.code(static_cast<uint32_t>(i * 64 + bit)))} << bit;
    }
    hits += bits_set(word);
    store(bits + i * 8, word);
  }
  return hits;
}

// The end of a full evaluation: ANDs filter and selection into the result, stores hits, runs result_cb under KDZK_RLE.
// `applied` is what exec->out_flags gets for the selection.
uint64_t finish_predicate(kdzk_vec* result, const kdzk_vec* input, kdzk_exec* exec, const uint64_t* filter,
                          uint8_t* bits, uint32_t nrows, uint32_t hits, uint8_t applied);

// The end of the companion: ANDs the filter into the result and stores hits.
uint64_t finish_selected(kdzk_vec* result, const uint64_t* filter, uint8_t* bits, uint32_t nrows, uint32_t hits);

template <class Family>
uint64_t predicate(const PredicateKernel& kernel, kdzk_vec* result, const kdzk_vec* input, const kdzk_kargs* low,
                   const kdzk_kargs* high, kdzk_exec* exec) {
  using D = Design<Family>;
  const kdzk_enc_ctx* const enc = input->enc_ctx;
  const uint64_t* const filter = D::has_filter ? input->filter : nullptr;
  const Call call = {kernel.op, input, low, high};
  if constexpr (requires { D::accepts(call); }) {
    if (!D::accepts(call)) return KDZK_UNSUPPORTED;
  }

  if constexpr (D::has_companion) {
    if (exec != nullptr && exec->selection != nullptr && (exec->flags & KDZK_EX_SELECTIVE) != 0) {
      // Neither the row count of the result nor KDZK_RLE plays a part here.
      const uint32_t nrows = input->nrows;
      uint8_t* const bits = reinterpret_cast<uint8_t*>(result->bitvec);
      const uint8_t* const data = column_bytes(kernel.texts, input, exec);
      exec->out_flags |= KDZK_OUT_SELECTION;
      const uint32_t hits = D::evaluate_selected(call, data, bits, nrows, exec->selection);
      return finish_selected(result, filter, bits, nrows, hits);
    }
  }
  const bool runs = (enc->flags & KDZK_RLE) != 0;
  const uint32_t nrows = runs ? enc->own_nrows : result->nrows;
  uint8_t* const bits = reinterpret_cast<uint8_t*>(runs ? enc->own_bitvec : result->bitvec);
  const uint8_t* const data = column_bytes(kernel.texts, input, exec);
  const uint32_t hits = D::evaluate(call, data, bits, nrows);
  return finish_predicate(result, input, exec, filter, bits, nrows, hits, KDZK_OUT_SELECTION);
}

template <class Family, Op op>
inline constexpr PredicateKernel predicate_kernel = {op, kernel_texts<Family, op>};

template <class Family, Op op>
uint64_t compare(kdzk_vec* result, const kdzk_vec* input, const kdzk_kargs* arg, kdzk_exec* exec) {
  return predicate<Family>(predicate_kernel<Family, op>, result, input, arg, arg, exec);
}

template <class Family, Op op>
uint64_t between(kdzk_vec* result, const kdzk_vec* input, const kdzk_kargs* low, const kdzk_kargs* high,
                 kdzk_exec* exec) {
  return predicate<Family>(predicate_kernel<Family, op>, result, input, low, high, exec);
}

// Instantiates the ten kernels of a family at one width.
#define KDZK_COMPARE(family, op) \
  template uint64_t compare<family, op>(kdzk_vec*, const kdzk_vec*, const kdzk_kargs*, kdzk_exec*);
#define KDZK_BETWEEN(family, op) \
  template uint64_t between<family, op>(kdzk_vec*, const kdzk_vec*, const kdzk_kargs*, const kdzk_kargs*, kdzk_exec*);
#define KDZK_PREDICATES(...)           \
  KDZK_COMPARE(__VA_ARGS__, Op::eq)    \
  KDZK_COMPARE(__VA_ARGS__, Op::lt)    \
  KDZK_COMPARE(__VA_ARGS__, Op::gt)    \
  KDZK_COMPARE(__VA_ARGS__, Op::le)    \
  KDZK_COMPARE(__VA_ARGS__, Op::ge)    \
  KDZK_COMPARE(__VA_ARGS__, Op::ne)    \
  KDZK_BETWEEN(__VA_ARGS__, Op::gt_lt) \
  KDZK_BETWEEN(__VA_ARGS__, Op::gt_le) KDZK_BETWEEN(__VA_ARGS__, Op::ge_lt) KDZK_BETWEEN(__VA_ARGS__, Op::ge_le)

}  // namespace kdzk

#endif

// SPDX-License-Identifier: Apache-2.0
// Group keys: one dense 32-bit integer a row for the combination of the row's values in several columns, modulo 2^32.
//
//   xlate_groupkey_*_c2d   add to each key the element of a table at the row's code, times a stride
//   kdzk_groupkey_dydi     makes the whole keys of several dictionary columns, batch by batch:
//
//      columns[0]   decode-unpack ──►  keys                                      straight into the output
//      columns[i]   decode-unpack ──►  temp,   keys = keys * scale[i] + temp     for each further column
//
// A batch is at most as long as `temp`, so that temp and the batch's keys stay in cache from column to column. A shift
// by w is a multiplication by 2^w: the two modes differ in the scale and nowhere else.
//
// The columns share one kdzk_exec, a copy of the host's: its row is set back for every column, and the place in the
// runs of a run-length column is swapped in and out.

#include "frame/kernels.h"
#include "frame/services.h"
#include "x86/xlate.h"

namespace kdzk {
namespace {

// ---- Keys through a table ----

template <TableElement element>
void add_elements(const FlatTable table, const uint8_t* codes, uint32_t stride, uint8_t* keys, uint32_t nrows) {
  const __m128i strides = _mm_set1_epi32(static_cast<int>(stride));
  for (uint32_t blocks = nrows / 16; blocks > 0; blocks--, codes += 64, keys += 64) {
    for (const int ahead : {640, 704}) {
      _mm_prefetch(reinterpret_cast<const char*>(codes + ahead), _MM_HINT_NTA);
      _mm_prefetch(reinterpret_cast<const char*>(keys + ahead), _MM_HINT_NTA);
    }
    const Elements<element> found(
        SixteenPlaces<element, FlatTable>(table, [codes](int i) { return load16(codes + 16 * i); }));
    const auto add_four = [&]<int i>() {
      const __m128i distances = _mm_mullo_epi32(found.template four<i>(), strides);  // of 4 rows
      store16(keys + 16 * i, _mm_add_epi32(load16(keys + 16 * i), distances));
    };
    add_four.template operator()<0>();
    add_four.template operator()<1>();
    add_four.template operator()<2>();
    add_four.template operator()<3>();
  }
  for (uint32_t i = 0; i < nrows % 16; i++) {
    const ElementPlace place = place_of<element>(table, load<uint32_t>(codes + 4 * i));
    store(keys + 4 * i, load<uint32_t>(keys + 4 * i) + element_at<element>(place.unit, place.index) * stride);
  }
}

// ---- Keys of several columns ----

// What is kept of a column during a call.
struct kdzk_groupkey_col {
  uint32_t run_index;
  uint32_t run_end;
  uint32_t factor;
};
static_assert(sizeof(kdzk_groupkey_col) == 12);

// The number of keys, one more than the highest key; or what the call has to return.
struct KeySpace {
  uint64_t keys = 1;
  uint64_t refusal = KDZK_DONE;

  KeySpace(const kdzk_vec* columns, uint32_t ncols, bool multiplies) {
    for (uint32_t i = 0; i < ncols; i++) {
      const kdzk_enc_ctx* const enc = columns[i].enc_ctx;
      if ((enc->flags & KDZK_PACKED_DICT) == 0) {
        refusal = KDZK_UNSUPPORTED;
        return;
      }
      keys = multiplies ? keys * enc->dict_size : ((keys - 1) << (enc->width & 63)) + enc->dict_size;
      if (keys > ~0u) {
        refusal = KDZK_KEYS_TOO_MANY;
        return;
      }
    }
  }
};

// keys = keys * scale + values
void fold(uint8_t* keys, const uint8_t* values, uint32_t scale, uint32_t n) {
  const __m128i scales = _mm_set1_epi32(static_cast<int>(scale));
  const auto fold_four = [&](uint64_t byte) {
    const __m128i scaled = _mm_mullo_epi32(load16(keys + byte), scales);
    store16(keys + byte, _mm_add_epi32(scaled, load16(values + byte)));
  };
  uint64_t byte = 0;
  const uint64_t bytes = uint64_t{n} * 4;
  for (; bytes - byte >= 64; byte += 64) {
    fold_four(byte);
    fold_four(byte + 16);
    fold_four(byte + 32);
    fold_four(byte + 48);
  }
  for (; byte < bytes; byte += 4)
    store(keys + byte, load<uint32_t>(keys + byte) * scale + load<uint32_t>(values + byte));
}

constexpr uint32_t columns_with_cursor = 32;  // of a column behind them the place in its runs isn't kept

// The columns of one call.
struct KeyColumns {
  const kdzk_vec* columns;
  kdzk_groupkey_col* infos;
  uint32_t run_lengths = 0;  // bit i: column i is of runs
  kdzk_exec exec;

  KeyColumns(const kdzk_vec* c, uint32_t ncols, bool multiplies, void* scratch, const kdzk_exec& e)
      : columns(c), infos(static_cast<kdzk_groupkey_col*>(scratch)), exec(e) {
    for (uint32_t i = 0; i < ncols; i++) {
      const kdzk_enc_ctx* const enc = columns[i].enc_ctx;
      infos[i].factor = multiplies ? enc->dict_size : enc->width;
      if ((enc->flags & KDZK_RLE) == 0) continue;
      infos[i].run_end = 0;
      if (i < columns_with_cursor) run_lengths |= 1u << i;
    }
    exec.flags |= KDZK_EX_UNPACK_WIDE;
  }

  // Column `i` from a row on, as many rows as `out` has room for.
  void decode(uint32_t i, uint32_t row, kdzk_vec* out) {
    const bool keeps = i < columns_with_cursor && (run_lengths >> i & 1) != 0;
    exec.row = row;
    if (keeps) exec.run = {infos[i].run_index, infos[i].run_end};
    kernel_tables.dispatch[kdzk_id_of_kind(columns[i].enc_ctx->kind, KDZK_OP_DECODE_UNPACK)].decode(out, columns + i,
                                                                                                    &exec);
    if (!keeps) return;
    infos[i].run_index = exec.run.run_index;
    infos[i].run_end = exec.run.run_end;
  }
};

}  // namespace

template <TableElement element>
uint64_t xlate_groupkey(kdzk_vec* result, const kdzk_vec* input, const kdzk_vec*, kdzk_exec* exec) {
  add_elements<element>({reinterpret_cast<uint64_t>(exec->xlate_map)}, static_cast<const uint8_t*>(input->data),
                        exec->group_stride, static_cast<uint8_t*>(result->data), input->nrows);
  return input->nrows != 0 ? KDZK_DONE : KDZK_NO_ROW;
}

template uint64_t xlate_groupkey<TableElement::nib>(kdzk_vec*, const kdzk_vec*, const kdzk_vec*, kdzk_exec*);
template uint64_t xlate_groupkey<TableElement::ub1>(kdzk_vec*, const kdzk_vec*, const kdzk_vec*, kdzk_exec*);
template uint64_t xlate_groupkey<TableElement::ub2>(kdzk_vec*, const kdzk_vec*, const kdzk_vec*, kdzk_exec*);
template uint64_t xlate_groupkey<TableElement::ub4>(kdzk_vec*, const kdzk_vec*, const kdzk_vec*, kdzk_exec*);

uint64_t kdzk_groupkey_dydi(kdzk_vec* result, uint32_t* key_count, const kdzk_vec* columns, uint64_t column_count,
                            const kdzk_vec* temp, const kdzk_exec* exec) {
  const auto ncols = static_cast<uint32_t>(column_count);
  const bool multiplies = (exec->flags & KDZK_EX_GROUP_MUL) != 0;
  const KeySpace space(columns, ncols, multiplies);
  if (space.refusal != KDZK_DONE) return space.refusal;
  *key_count = static_cast<uint32_t>(space.keys);

  const kdzk_env* const env = exec->env;
  void* word = &word;  // holds its own address until tmp_alloc writes to it
  void* const infos = env->tmp_alloc(env->hctx, uint64_t{ncols} * sizeof(kdzk_groupkey_col),
                                     "kdzk_groupkey_dydi: temp column info", 4, 0, &word);
  KeyColumns key(columns, ncols, multiplies, infos, *exec);
  const uint32_t nrows = columns[0].nrows;
  uint32_t row = exec->row, room = result->nrows, written = 0;
  uint8_t* keys = static_cast<uint8_t*>(result->data);
  while (room != 0 && temp->nrows != 0 && row < nrows) {
    kdzk_vec out = {};
    out.data = keys;
    out.nrows = room < temp->nrows ? room : temp->nrows;
    key.decode(0, row, &out);
    const uint32_t n = out.hits;
    out.data = temp->data;
    for (uint32_t i = 1; i < ncols; i++) {
      key.decode(i, row, &out);
      const uint32_t factor = key.infos[i].factor;
      fold(keys, static_cast<const uint8_t*>(temp->data), multiplies ? factor : 1u << factor % 32, n);
    }
    room -= n;
    written += n;
    keys += uint64_t{n} * 4;
    row = key.exec.row + 1;
  }
  env->tmp_free(env->hctx, infos, word);
  result->hits = written;
  return room == 0 && row < nrows ? KDZK_OUTPUT_FULL : KDZK_DONE;
}

}  // namespace kdzk

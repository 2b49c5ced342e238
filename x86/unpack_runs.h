// SPDX-License-Identifier: Apache-2.0
// Decode-unpack of a run-length column: one packed code and one length per run come back as rows, as if the column were
// plain. Runs are found by walking forward from where the last call stopped, so a selection and a row list must ascend.
//
// The row range is the fast one. It takes up to 256 runs at a time, up to a multiple of 256, so that their codes are
// whole rounds of a plain column's loops. Each run is filled by stores that may reach into the next run, whose own fill
// overwrites them: by one store of 16 bytes where no run is longer, else by stores of 32 bytes. Only the last bytes of
// the range are filled exactly.
#ifndef X86_UNPACK_RUNS_H
#define X86_UNPACK_RUNS_H

#include "frame/failure.h"
#include "frame/families.h"
#include "frame/kernel_name.h"
#include "frame/services.h"
#include "x86/unpack.h"

namespace kdzk {

template <class Family>
constexpr Draft draft_empty_list() {
  Draft name = draft_name<Family, DecodeOp::decode_unpack>();
  name += ": [rle] ones_vec size is zero";
  return name;
}

// The run under the cursor. Before the first run its index is -1 and its end 0. `Length` is uint8_t or uint16_t.
template <class Length>
struct RunWalk {
  const uint8_t* lengths;
  uint32_t index = ~0u;
  uint32_t end = 0;  // first row behind the run

  RunWalk(const kdzk_enc_ctx* enc, const kdzk_exec* exec)
      : lengths(reinterpret_cast<const uint8_t*>(enc->unpack_base)) {
    if (exec->row != 0 && exec->run.run_end != 0) {
      index = exec->run.run_index;
      end = exec->run.run_end;
    }
  }
  uint32_t length(uint32_t run) const {
    if constexpr (sizeof(Length) == 1) return lengths[run];
    return load_be16(lengths + uint64_t{run} * 2);
  }
  // Moves on to the next run, and returns its length.
  uint32_t next() {
    const uint32_t length_of_next = length(++index);
    end += length_of_next;
    return length_of_next;
  }
  void move_to(uint32_t row) {
    while (end <= row) next();
  }
  void keep(kdzk_exec* exec) const {
    exec->run.run_index = index;
    exec->run.run_end = end;
  }
};

template <int W, int element, class Length>
class RunUnpacking {
 public:
  RunUnpacking(const uint8_t* data, kdzk_vec* result, const kdzk_vec* input, kdzk_exec* exec)
      : data_(data), result_(result), nrows_(input->nrows), exec_(exec), walk_(input->enc_ctx, exec) {}

  uint64_t unpack() {
    if (exec_->selection != nullptr) return selected();
    return exec_->ones_vec != nullptr ? listed() : range();
  }

 private:
  // Writes the codes of ascending rows.
  void write_rows(const uint32_t* rows, uint32_t n, uint8_t* out) {
    for (uint32_t i = 0; i < n;) {
      walk_.move_to(rows[i]);
      const auto code = static_cast<Element<element>>(single_code<W>(data_, walk_.index));
      for (; i < n && rows[i] < walk_.end; i++) store(out + uint64_t{i} * element, code);
    }
  }

  uint64_t finish(uint32_t hits) {
    walk_.keep(exec_);
    exec_->out_flags |= KDZK_OUT_UNPACK_ROW;
    result_->hits = hits;
    return hits != 0 ? KDZK_DONE : KDZK_NO_ROW;
  }

  uint64_t selected() {
    uint32_t written = 0, last = nrows_ - 1;
    if (exec_->row < nrows_) {
      kdzk_bv_iter iter;
      kdzk_bv_iter_init(&iter, exec_->selection, nrows_, 0, exec_->row);
      uint32_t rows[256];
      while (written < result_->nrows) {
        const uint32_t room = std::min(result_->nrows - written, 256u);
        const auto n = static_cast<uint32_t>(kdzk_bv64_next_set_batch(&iter, rows, room));
        write_rows(rows, n, static_cast<uint8_t*>(result_->data) + uint64_t{written} * element);
        written += n;
        if (n < room) break;
        if (written == result_->nrows) last = rows[n - 1];
      }
    }
    exec_->row = last;
    return finish(written);
  }

  uint64_t listed() {
    const uint32_t n = exec_->ones_vec_size;
    if (n == 0) {
      internal_error(exec_->env, text<draft_empty_list<Dict<W>>>.data());
      finish(0);
      return KDZK_DONE;
    }
    write_rows(exec_->ones_vec, n, static_cast<uint8_t*>(result_->data));
    exec_->row = exec_->ones_vec[n - 1];
    return finish(n);
  }

  uint64_t range() {
    const uint32_t start = exec_->row;
    const uint32_t count = std::min(start < nrows_ ? nrows_ - start : 0, result_->nrows);
    result_->hits = count;
    exec_->row = start + count - 1;
    if (count == 0) return KDZK_NO_ROW;
    uint8_t* out = static_cast<uint8_t*>(result_->data);
    uint8_t* const out_end = out + uint64_t{count} * element;
    const uint32_t last_row = start + count - 1;
    // Runs that end here or before may be filled with no regard to the end of the range.
    const uint32_t safe_end = last_row + 1 - std::min(count, fill_slack / element);
    RunWalk<Length> walk = walk_;  // a copy that no store can reach
    walk.move_to(start);
    out = fill(out, out_end, walk.end - start, static_cast<Element<element>>(single_code<W>(data_, walk.index)));
    while (walk.end <= last_row) {
      constexpr uint32_t most = 256;
      const uint32_t first = walk.index + 1, limit = (first | (most - 1)) + 1;
      uint32_t longest = 0;
      if constexpr (sizeof(Length) == 1) longest = walk_vectors(walk, limit, safe_end);
      uint32_t safe = walk.index + 1 - first;
      while (walk.index + 1 < limit && walk.end <= last_row) {
        longest = std::max(longest, walk.next());
        safe += walk.end <= safe_end;
      }
      const uint32_t runs = walk.index + 1 - first, begin = first / 8 * 8;
      alignas(16) uint8_t unpacked[most * element + 4];  // a code may be read as 4 bytes
      unpack_rows<W, element>(data_, begin, first + runs, unpacked, 8);
      const uint8_t* const codes = unpacked + (first - begin) * element;
      const auto code = [&](uint32_t i) { return load<Element<element>>(codes + i * element); };
      const auto length = [&](uint32_t i) { return walk.length(first + i); };
      if (longest <= 16 / element) {
#pragma GCC unroll 4
        for (uint32_t i = 0; i < safe; i++) {
          const __m128i code_first = _mm_cvtsi32_si128(static_cast<int>(load<uint32_t>(codes + i * element)));
          store16(out, _mm_shuffle_epi8(code_first, vector_of(to_all_lanes)));
          out += length(i) * element;
        }
      } else {
        for (uint32_t i = 0; i < safe; i++) {
          uint8_t* const behind = out + uint64_t{length(i)} * element;
          const __m128i elements = in_all_lanes<8 * element>(code(i));
          do {
            store16(out, elements);
            store16(out + 16, elements);
            out += 32;
          } while (out < behind);
          out = behind;
        }
      }
      for (uint32_t i = safe; i < runs; i++) out = fill(out, out_end, length(i), code(i));
    }
    walk.keep(exec_);
    return KDZK_DONE;
  }

  // Moves on by 16 runs at a time, as long as they must end before `safe_end` and lie before run `limit`: then there
  // are that many lengths to read. Returns the longest length.
  static uint32_t walk_vectors(RunWalk<Length>& walk, uint32_t limit, uint32_t safe_end) {
    __m128i longest = _mm_setzero_si128();
    while (walk.index + 16 < limit && walk.end <= safe_end && safe_end - walk.end >= 16 * 255) {
      const __m128i lengths = load16(walk.lengths + walk.index + 1);
      const __m128i sums = _mm_sad_epu8(lengths, _mm_setzero_si128());  // of the lower and of the upper eight
      walk.end += static_cast<uint32_t>(_mm_cvtsi128_si32(sums) + _mm_extract_epi16(sums, 4));
      walk.index += 16;
      longest = _mm_max_epu8(longest, lengths);
    }
    alignas(16) uint8_t lanes[16];
    store16(lanes, longest);
    return *std::max_element(lanes, lanes + 16);
  }

  // Writes a code `length` times, or up to the end of the output, and nothing else.
  static uint8_t* fill(uint8_t* out, const uint8_t* out_end, uint32_t length, Element<element> code) {
    const auto room = static_cast<uint32_t>(static_cast<size_t>(out_end - out) / element);
    const uint8_t* const behind = out + uint64_t{std::min(length, room)} * element;
    for (; out < behind; out += element) store(out, code);
    return out;
  }

  // A shuffle that brings the first element of a vector to all lanes.
  static constexpr auto to_all_lanes = [] {
    std::array<uint8_t, 16> from{};
    for (size_t at = 0; at < 16; at++) from[at] = static_cast<uint8_t>(at % element);
    return from;
  }();

  static constexpr uint32_t fill_slack = 32;  // bytes that a fill may write behind its run

  const uint8_t* data_;
  kdzk_vec* result_;
  uint32_t nrows_;
  kdzk_exec* exec_;
  RunWalk<Length> walk_;
};

}  // namespace kdzk

#endif

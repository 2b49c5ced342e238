// SPDX-License-Identifier: Apache-2.0
// Row hashing: one hash per row of a key column, by the host's callback, with one seed for all rows or one for each.
//
// The seeds of a column may be the hashes of the column before it, which chains several columns to one hash per row;
// they may lie where the hashes go, since a row's seed is read before its hash is stored. What varies is where a row's
// key lies (join/keys.h) and where its seed comes from.

#include "frame/services.h"
#include "join/keys.h"

namespace kdzk {
namespace {

// A dictionary's symbols. Codes are `width` bits each, big-endian, from 1 to 32 bits; code c's symbol lies between the
// big-endian offsets c and c + 1, and its length is their difference modulo 2^16.
struct Dictionary {
  static constexpr uint32_t flag = KDZK_PACKED_DICT;
  static constexpr bool streamed = false;

  const uint8_t *codes, *base, *offsets;
  uint32_t width;

  explicit Dictionary(const kdzk_vec* column)
      : codes(bytes_of(column)),
        base(column->enc_ctx->base),
        offsets(column->enc_ctx->offsets),
        width(column->enc_ctx->width) {}

  // From the 64 bits that begin at the 32-bit word where the code begins.
  uint32_t code(uint64_t i) const {
    const uint64_t bit = i * width;
    return static_cast<uint32_t>(load_be64(codes + bit / 32 * 4) << bit % 32 >> (-width & 63));
  }

  Value value(uint64_t i, uint64_t) const {
    const uint64_t both = load_be64(offsets + uint64_t{code(i)} * 4);  // offset c on top, offset c + 1 below
    return {base + (both >> 32), static_cast<uint16_t>(both - (both >> 32))};
  }
};

struct OneSeed {
  uint64_t seed;
  uint64_t of(uint64_t) const { return seed; }
};

struct SeedPerRow {
  const uint8_t* seeds;
  uint64_t of(uint64_t row) const { return load<uint64_t>(seeds + row * 8); }
};

template <class Form, class Seeds>
void hash_all(const Form keys, uint32_t nrows, const Seeds seeds, kdzk_hash_fn hash, uint8_t* out) {
  uint64_t byte = 0;
  for (uint64_t row = 0; row < nrows; row++) {
    const Value key = keys.value(row, byte);
    store(out + row * 8, hash(key.at, key.length, seeds.of(row)));
    if constexpr (Form::streamed) byte = Form::end(byte, key);
  }
}

}  // namespace

uint64_t kdzk_hash_rows(const kdzk_vec* out, const kdzk_vec* keys, const kdzk_vec* seeds, kdzk_hash_fn hash) {
  if ((seeds->enc_ctx->flags & KDZK_NUMERIC) == 0) return KDZK_UNSUPPORTED;
  return first_form<FixedBytes, Dictionary, LenArray, LenPrefixed, PtrLen, Pair16>(
      keys->enc_ctx->flags, [&]<class Form>() {
        if (keys->nrows == 0) return KDZK_DONE;  // no seed may be there
        const Form form(keys);
        auto* const to = static_cast<uint8_t*>(out->data);
        if (seeds->nrows == 1) {
          hash_all(form, keys->nrows, OneSeed{load<uint64_t>(seeds->data)}, hash, to);
        } else {
          hash_all(form, keys->nrows, SeedPerRow{bytes_of(seeds)}, hash, to);
        }
        return KDZK_DONE;
      });
}

}  // namespace kdzk

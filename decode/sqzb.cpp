// SPDX-License-Identifier: Apache-2.0
// The block decoder: blocks of the format SQZB, a static dictionary coder. docs/formats/sqzb.md has the format.
//
// A code names one of up to 1024 symbols of 1 to 8 bytes; decoding a code is a look-up and a store:
//
//   code stream, W bits a code        symbols, 8 bytes each       lengths        destination
//   [ ..., 2, 0, ...             ]    0: t i o n|. . . .          0: 4           ... p a r t
//                                     1: e|. . . . . . .          1: 1                   t i o n . . . .
//                                     2: p a r t|. . . .          2: 4                           ^ next store
//
// Eight bytes are stored whatever the length, and the next symbol's store overwrites those that were too many. So each
// code costs the same, one load from either table and one store, with no branch on data. What sets the pace is one
// 8-byte store a cycle, and the extraction of codes has to hide behind it: codes of eight bits or less are narrowed to
// bytes in vector registers and leave them eight a word; wider ones leave them in 16-bit lanes, four a word. A word's
// codes come off its low end two a shift, which is half an instruction a code cheaper than an extract per lane.
//
// Codes lie big-endian. Eight codes are W bytes, so that each group of eight begins on a byte and one shuffle serves
// all groups. Width 5, group bytes a to e, digits are codes:   a = 00000111 b = 11222223 c = 33334444 d = 45555566
// e = 66677777. Lane 1 gets a:b = 00000111 11222223; a multiplication by 2^5 takes it to 11111222 22300000, where its
// top five bits are the code, and a shift to the right leaves nothing else.
//
// Invariants. Only the rounds of 32 codes use those wide stores, and the last 32 codes or more are left to a loop that
// stores byte by byte. They make at least 32 bytes, so that no wide store reaches past what the block decodes to, nor
// does one change a byte behind that. The same codes are what a round's loads run ahead into: each 16-byte load begins
// inside the stream and ends within KDZK_PADDING bytes behind it. Symbols are stored in the block back to back, and a
// table entry is the eight bytes that stand at the symbol's place: the last entry reaches past code_count by three
// bytes at most.
//
// The block is trusted: nothing beyond its header is checked here, and codes, lengths and counts that contradict each
// other lead out of the tables or the destination. A host that can't trust a block asks kdzk_host_sqzb_check first.

#include <array>

#include "frame/services.h"
#include "x86/kdzkc_x86.h"

namespace kdzk {
namespace {

constexpr int max_width = 10;  // 1024 symbols
constexpr uint32_t round_codes = 32;

// ---- Fast part: whole rounds ----

// How the eight codes of a group lie in their W bytes, and how they get into 16-bit lanes.
template <int W>
struct Group {
  static constexpr int first_byte(int code) { return code * W / 8; }
  static constexpr int last_byte(int code) { return (code * W + W - 1) / 8; }
  static constexpr int bits_below(int code) { return 8 * (last_byte(code) + 1) - (code + 1) * W; }

  // Lane j gets the byte that ends code j, and above it the one that begins it, or zero if that is the same.
  static constexpr std::array<uint8_t, 16> shuffle() {
    std::array<uint8_t, 16> bytes{};
    for (int j = 0; j < 8; j++) {
      bytes[2 * j] = static_cast<uint8_t>(last_byte(j));
      bytes[2 * j + 1] = first_byte(j) == last_byte(j) ? 0x80 : static_cast<uint8_t>(first_byte(j));
    }
    return bytes;
  }

  // Multiplied by this, a lane has its code at the top and no bit of the code before it.
  static constexpr std::array<uint16_t, 8> to_top() {
    std::array<uint16_t, 8> factors{};
    for (int j = 0; j < 8; j++) factors[j] = static_cast<uint16_t>(1 << (16 - W - bits_below(j)));
    return factors;
  }

  // The eight codes at `in`, one a lane.
  static __m128i codes(const uint8_t* in) {
    static constexpr auto bytes = shuffle();
    static constexpr auto factors = to_top();
    const __m128i lanes = _mm_shuffle_epi8(load16(in), vector_of(bytes));
    return _mm_srli_epi16(_mm_mullo_epi16(lanes, vector_of(factors)), 16 - W);
  }
};
static_assert(Group<3>::bits_below(0) == 5 && Group<3>::bits_below(1) == 2 && Group<3>::bits_below(2) == 7);
static_assert(Group<5>::bits_below(0) == 3 && Group<5>::bits_below(1) == 6 && Group<5>::to_top()[1] == 1 << 5);
static_assert(Group<10>::bits_below(0) == 6 && Group<10>::last_byte(7) == 9 && Group<10>::shuffle()[1] == 0);

struct Tables {
  const uint8_t* lengths;  // a byte a symbol
  const uint8_t* symbols;  // eight bytes a symbol
};

// Stores one symbol and returns where the next one goes.
inline uint8_t* put(uint8_t* out, Tables tables, uint64_t code) {
  const uint64_t length = tables.lengths[code];
  store(out, load<uint64_t>(tables.symbols + 8 * code));
  return out + length;
}

// The codes of one word, lowest first, `bits` bits each.
template <int bits>
inline uint8_t* put_word(uint8_t* out, Tables tables, uint64_t word) {
  constexpr uint64_t mask = (uint64_t{1} << bits) - 1;
#pragma GCC unroll 8
  for (int i = 0; i < 64 / bits; i += 2) {
    out = put(out, tables, word & mask);
    out = put(out, tables, word >> bits & mask);
    word >>= 2 * bits;
    asm("" : "+r"(word));  // or the compiler shifts each code from where it lies, two instructions a code more
  }
  return out;
}

inline uint64_t low_word(__m128i v) { return static_cast<uint64_t>(_mm_cvtsi128_si64(v)); }
inline uint64_t high_word(__m128i v) { return static_cast<uint64_t>(_mm_extract_epi64(v, 1)); }

// The 32 codes of one round, taken from 4 * W bytes of the stream.
template <int W>
struct Round {  // 9 and 10 bits: 16-bit lanes
  __m128i a, b, c, d;

  explicit Round(const uint8_t* in)
      : a(Group<W>::codes(in)),
        b(Group<W>::codes(in + W)),
        c(Group<W>::codes(in + 2 * W)),
        d(Group<W>::codes(in + 3 * W)) {}

  uint8_t* put(uint8_t* out, Tables tables) const {
    for (const __m128i group : {a, b, c, d}) {
      out = put_word<16>(out, tables, low_word(group));
      out = put_word<16>(out, tables, high_word(group));
    }
    return out;
  }
};

template <int W>
requires(W <= 8) struct Round<W> {  // bytes
  __m128i a, b;

  explicit Round(const uint8_t* in) : a(two_groups(in)), b(two_groups(in + 2 * W)) {}

  static __m128i two_groups(const uint8_t* in) {
    if constexpr (W == 8) return load16(in);
    if constexpr (W < 8) return _mm_packus_epi16(Group<W>::codes(in), Group<W>::codes(in + W));
  }

  uint8_t* put(uint8_t* out, Tables tables) const {
    out = put_word<8>(out, tables, low_word(a));
    out = put_word<8>(out, tables, high_word(a));
    out = put_word<8>(out, tables, low_word(b));
    return put_word<8>(out, tables, high_word(b));
  }
};

template <>
struct Round<0> {  // no bytes at all
  explicit Round(const uint8_t*) {}

  static uint8_t* put(uint8_t* out, Tables tables) {
#pragma GCC unroll 32
    for (uint32_t i = 0; i < round_codes; i++) out = kdzk::put(out, tables, 0);
    return out;
  }
};

// Decodes `rounds` rounds of the stream `in`, at least one, and returns the end of the output. Each round's codes are
// taken from the stream before the previous round's symbols are stored: on Zen 4 (g++ 12) that brings 4 bits from 1.8
// to 1.4 cycles a code, 10 bits from 1.9 to 1.6. kdzk_bench, sqzb_decode_*.
template <int W>
uint8_t* put_rounds(uint8_t* out, Tables tables, const uint8_t* in, uint32_t rounds) {
  Round<W> next(in);
  do {
    in += round_codes / 8 * W;
    _mm_prefetch(reinterpret_cast<const char*>(in + 512), _MM_HINT_T0);
    _mm_prefetch(reinterpret_cast<const char*>(out + 512), _MM_HINT_T0);
    const Round<W> now = next;
    next = Round<W>(in);
    out = now.put(out, tables);
  } while (--rounds > 0);
  return out;
}

using PutRounds = uint8_t* (*)(uint8_t*, Tables, const uint8_t*, uint32_t);
constexpr PutRounds put_rounds_of_width[max_width + 1] = {put_rounds<0>, put_rounds<1>, put_rounds<2>, put_rounds<3>,
                                                          put_rounds<4>, put_rounds<5>, put_rounds<6>, put_rounds<7>,
                                                          put_rounds<8>, put_rounds<9>, put_rounds<10>};

// ---- Exact part, and the whole stream ----

// Decodes `count` codes of the stream `in`, which begin on a byte, byte by byte.
uint8_t* put_exactly(uint8_t* out, Tables tables, const uint8_t* in, uint32_t width, uint32_t count) {
  uint32_t bit = 0;
  for (; count > 0; count--) {
    const uint32_t code = load_be16(in) >> (16 - width - bit) & ((1u << width) - 1);  // at 10 bits `bit` is even
    const uint8_t* from = tables.symbols + 8 * code;
    for (uint32_t left = tables.lengths[code]; left > 0; left--) {
      *out++ = *from++;
      asm("" : "+r"(from));  // a few bytes: not worth the vector loop that a compiler makes of this
    }
    bit += width;
    in += bit / 8;
    bit %= 8;
  }
  return out;
}

uint8_t* expand(uint8_t* out, Tables tables, const uint8_t* in, uint32_t width, uint32_t count) {
  const uint32_t rounds = count <= round_codes ? 0 : count / round_codes - 1;
  if (rounds > 0) {
    out = put_rounds_of_width[width](out, tables, in, rounds);
    in += uint64_t{rounds} * (round_codes / 8) * width;
  }
  return put_exactly(out, tables, in, width, count - rounds * round_codes);
}

// ---- The block ----

// Bits of a code of `symbols` symbols; 32 if there are none.
uint32_t code_width(uint32_t symbols) {
  uint32_t width = 0;
  for (uint32_t highest = symbols - 1; highest != 0; highest >>= 1) width++;
  return width;
}

constexpr uint32_t magic = 0x53515a42;  // "SQZB"
constexpr int version_at = 4, flags_at = 5, aux_count_at = 10, decoded_size_at = 12, symbol_count_at = 16;
constexpr int lengths_at = 18;
constexpr uint8_t flag_must_be_set = 0x02, flags_must_be_clear = 0x09;

// Fills the tables and returns what stands behind the symbols' bytes.
const uint8_t* read_tables(const uint8_t* nibbles, const uint8_t* at, uint32_t symbols, uint8_t* lengths,
                           uint8_t* table) {
  const auto add = [&](uint32_t symbol, uint8_t length) {
    lengths[symbol] = length;
    store(table + 8 * symbol, load<uint64_t>(at));
    at += length;
  };
  uint32_t symbol = 0;
  for (; symbol + 2 <= symbols; symbol += 2) {
    const uint8_t both = nibbles[symbol / 2];
    add(symbol, both >> 4);
    add(symbol + 1, both & 15);
  }
  if (symbol < symbols) add(symbol, nibbles[symbol / 2] >> 4);
  return at;
}

}  // namespace

uint32_t sqzb_decode_x86(const kdzk_sqzb_ctx* ctx, const void* src, void* dst, uint32_t* out_len, uint32_t capacity) {
  const auto* const block = static_cast<const uint8_t*>(src);
  if (load_be32(block) != magic || block[version_at] != 0) return KDZK_MALFORMED;
  if ((block[flags_at] & (flag_must_be_set | flags_must_be_clear)) != flag_must_be_set) return KDZK_MALFORMED;
  const uint32_t decoded_size = load_be32(block + decoded_size_at);
  if (decoded_size > capacity) return KDZK_MALFORMED;
  const uint32_t symbols = load_be16(block + symbol_count_at);
  const uint32_t width = code_width(symbols);
  if (width > max_width) return KDZK_MALFORMED;

  // Each word holds its own address until tmp_alloc writes to it, and tmp_free gets what it holds then.
  void* lengths_word = &lengths_word;
  void* symbols_word = &symbols_word;
  void* const hctx = ctx->hctx;
  auto* const lengths =
      static_cast<uint8_t*>(ctx->tmp_alloc(hctx, symbols + 1, "sqzb_decode_x86 length_array", 8, 0, &lengths_word));
  auto* const table = static_cast<uint8_t*>(
      ctx->tmp_alloc(hctx, 8 * uint64_t{symbols}, "sqzb_decode_x86: symbol_array", 8, 0, &symbols_word));

  const bool aux = static_cast<int16_t>(load_be16(block + aux_count_at)) > 0;
  const uint8_t* const nibbles = block + lengths_at;
  const uint8_t* const first_symbol = nibbles + (symbols + 1) / 2 + (aux ? 2 * symbols : 0);
  const uint8_t* const behind = read_tables(nibbles, first_symbol, symbols, lengths, table);
  const uint32_t codes = load_be32(behind);
  const uint8_t* stream = behind + 4;
  if (aux) stream += load_be32(stream) >> 7;

  auto* const out = static_cast<uint8_t*>(dst);
  const auto produced = static_cast<uint32_t>(expand(out, {lengths, table}, stream, width, codes) - out);
  *out_len = produced;
  if (table != nullptr) ctx->tmp_free(hctx, table, symbols_word);
  if (lengths != nullptr) ctx->tmp_free(hctx, lengths, lengths_word);
  return produced == decoded_size ? KDZK_DONE : KDZK_MALFORMED;
}

}  // namespace kdzk

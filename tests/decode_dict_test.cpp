// SPDX-License-Identifier: Apache-2.0
// Dictionary decode and symbol decode: every kernel of both families, found by its id, against plain loops.

#include <gtest/gtest.h>

#include <memory>
#include <numeric>

#include "tests/support/streams.h"

namespace kdzk_test {
namespace {

// The bits of `width` bits from bit `bit` on, read one by one.
uint32_t bits_at(const Bytes& bytes, uint64_t bit, uint32_t width) {
  uint32_t code = 0;
  for (uint64_t b = bit; b < bit + width; b++) code = code << 1 | (bytes[b / 8] >> (7 - b % 8) & 1);
  return code;
}

constexpr uint64_t base_address = 0xffffff0123456789;  // odd, and near enough to the end for no sum to wrap

// A dictionary whose symbols nobody reads. The variable one knows the codes first to first + 63 only.
struct Dictionary {
  static constexpr uint32_t entries = 64;
  uint32_t mode, length, first = 0;
  Codes offsets;
  std::unique_ptr<GuardedBuffer> stored;

  static Dictionary fixed(uint32_t length, Random& random) {
    Dictionary d = {0, length, 0, {}, nullptr};
    d.stored = std::make_unique<GuardedBuffer>(packed({length}, 16), random.below(2));  // at any alignment
    return d;
  }

  // Symbols of all kinds of length: none, short ones, those about the limit of 16 bits, and offsets that go back.
  static Dictionary variable(uint32_t top, Random& random) {
    Dictionary d = {1, 0, random.below(2) == 0 || top < entries ? 0 : top - entries + 1, {}, nullptr};
    uint32_t at = static_cast<uint32_t>(random.bits());
    const uint32_t lengths[] = {0, 1, 7, 65535, 65536, 65537, 131072, 0x7fffffff, 0x80000000, 0xffffffff, 0xffff0000};
    for (uint32_t i = 0; i <= entries; i++) {
      d.offsets.push_back(at);
      at += random.below(2) == 0 ? static_cast<uint32_t>(random.below(300)) : lengths[random.below(11)];
    }
    d.stored = std::make_unique<GuardedBuffer>(big_endian(d.offsets), random.below(4));
    return d;
  }

  Codes random_codes(size_t n, uint32_t top, Random& random) const {
    Codes codes(n);
    for (uint32_t& code : codes) code = random_code(random, top);
    return codes;
  }
  uint32_t random_code(Random& random, uint32_t top) const {
    if (mode == 0) return static_cast<uint32_t>(random.bits()) & top;
    return first + static_cast<uint32_t>(random.below(std::min(entries - 1, top - first) + 1));
  }

  void fill_in(kdzk_enc_ctx& enc) const {
    enc.base = reinterpret_cast<const uint8_t*>(base_address);
    enc.dict_mode = mode;
    enc.value_len = mode == 0 ? stored->data() : no_address<uint8_t>();
    enc.offsets = mode == 1
                      ? reinterpret_cast<const uint8_t*>(reinterpret_cast<uint64_t>(stored->data()) - 4ull * first)
                      : no_address<uint8_t>();
  }
};

constexpr uint8_t garbage = 0xa5;  // what outputs hold before

struct Symbols {
  std::vector<uint64_t> addresses;
  std::vector<uint16_t> lengths, indicators;
};

// What the codes stand for. The lengths of rows below `saturated` saturate.
Symbols looked_up(const Dictionary& dictionary, const Codes& codes, size_t saturated) {
  Symbols want;
  for (size_t i = 0; i < codes.size(); i++) {
    uint64_t address, length;
    if (dictionary.mode == 0) {
      address = base_address + uint64_t{codes[i]} * dictionary.length % 0x100000000;
      length = dictionary.length;
      if (length == 0) std::memset(&address, garbage, 8);
    } else {
      const uint32_t c = codes[i] - dictionary.first;
      const auto difference = static_cast<int32_t>(dictionary.offsets[c + 1] - dictionary.offsets[c]);
      address = base_address + dictionary.offsets[c];
      length = static_cast<uint64_t>(i < saturated ? std::clamp(difference, 0, 65535) : difference & 0xffff);
    }
    want.addresses.push_back(address);
    want.lengths.push_back(static_cast<uint16_t>(length));
    want.indicators.push_back(length == 0 ? 2 : 0);
  }
  return want;
}

struct SymbolOutputs {
  GuardedBuffer addresses, lengths, indicators;
  explicit SymbolOutputs(size_t n)
      : addresses(8 * n, 0, garbage), lengths(2 * n, 0, garbage), indicators(2 * n, 0, garbage) {}

  void fill_in(kdzk_vec& result) {
    result.data = addresses.data();
    result.lengths = lengths.data();
    result.indicators = indicators.data();
  }

  void expect(const Symbols& want, bool indicated = true) {
    EXPECT_EQ(contents(addresses), bytes_of(want.addresses));
    EXPECT_EQ(contents(lengths), bytes_of(want.lengths));
    EXPECT_EQ(contents(indicators), indicated ? bytes_of(want.indicators) : Bytes(indicators.size(), garbage));
  }
};

// ---- Dictionary decode ----

class DecodeDict : public testing::TestWithParam<uint32_t> {
 protected:
  const uint32_t width = GetParam(), id = dict_kernel_id(width, 42);
  const std::string name = dict_kernel("decode", width);
  const uint32_t top = static_cast<uint32_t>((uint64_t{1} << width) - 1);
  Random random{name};
  kdzk_enc_ctx enc{};
  kdzk_vec input{.enc_ctx = &enc, .filter = no_address<uint64_t>()};
  kdzk_exec exec{.selection = no_address<uint64_t>(), .flags = 0xff, .flags2 = 0xff};  // which mean nothing here

  void SetUp() override { ASSERT_STREQ(kdzk_name_of(&library(), id), name.c_str()); }

  Dictionary dictionary(uint32_t mode) {
    if (mode == 1) return Dictionary::variable(top, random);
    const uint32_t lengths[] = {1, 2, 9, 255, 256, 4095, 65535};
    return Dictionary::fixed(lengths[random.below(7)], random);
  }

  // Decodes `rows` of the column and compares with `codes`, theirs.
  void decode_and_expect(const Dictionary& dictionary, const Codes& rows, const Codes& codes, bool one_record = false) {
    const Case now(Message() << name << ", " << rows.size() << " rows, mode " << dictionary.mode, random);
    GuardedBuffer list(bytes_of(rows), 0);
    SymbolOutputs out(rows.size());
    dictionary.fill_in(enc);
    kdzk_vec from = input, to = one_record ? input : kdzk_vec{};
    if (!one_record) to.enc_ctx = no_address<kdzk_enc_ctx>();
    out.fill_in(to);
    exec.row = 77;
    exec.ones_vec = reinterpret_cast<uint32_t*>(list.data());
    exec.ones_vec_size = static_cast<uint32_t>(rows.size());
    exec.out_flags = 0x40;
    kdzk_vec want = to;
    want.hits = exec.ones_vec_size;
    to.hits = 4711;
    kdzk_exec want_exec = exec;
    if (!rows.empty()) {
      want_exec.row = rows.back();
      want_exec.out_flags |= KDZK_OUT_DECODE_ROW;
    }
    EXPECT_EQ(library().dispatch[id].decode(&to, one_record ? &to : &from, &exec), KDZK_DONE);
    out.expect(looked_up(dictionary, codes, 0));
    EXPECT_TRUE(same_bytes(from, input) && same_bytes(to, want) && same_bytes(exec, want_exec));
  }
};

TEST_P(DecodeDict, AgreesWithThePlainLoop) {
  for (const uint32_t mode : {0u, 1u}) {
    for (const size_t n : {0u, 1u, 2u, 3u, 4u, 5u, 7u, 8u, 9u, 12u, 16u, 63u, 64u, 65u, 71u, 72u, 131u, 1000u}) {
      for (const bool ascending : {false, true}) {
        const Dictionary d = dictionary(mode);
        const Codes codes = d.random_codes(300 + random.below(40), top, random);
        GuardedBuffer column(packed(codes, width));
        input.data = column.data();
        Codes rows(n), listed;
        for (uint32_t& row : rows) row = static_cast<uint32_t>(random.below(codes.size()));
        if (n > 0) rows[random.below(n)] = static_cast<uint32_t>(codes.size() - 1);
        if (ascending) std::sort(rows.begin(), rows.end());
        for (const uint32_t row : rows) listed.push_back(codes[row]);
        decode_and_expect(d, rows, listed);
        if (HasFailure()) return;
      }
    }
  }
}

// The last rows whose bit offset fits in 32 bits, and those behind them: packed columns begin again, arrays go on. The
// column's address is set so that only the bytes meant are there.
TEST_P(DecodeDict, WrapsTheBitOffsetOfPackedRows) {
  const uint64_t limit = (0x100000000 + width - 1) / width;  // the first row that begins at or behind bit 2^32
  const uint64_t before = (limit - 40) / 8 * 8;
  const bool is_array = width == 8 || width == 16 || width == 32;
  for (const uint32_t mode : {0u, 1u}) {
    const Dictionary d = dictionary(mode);
    const Codes codes = d.random_codes(is_array && width < 32 ? 80 : limit - before - 1, top, random);
    GuardedBuffer last(packed(codes, width));
    Codes rows(codes.size());
    std::iota(rows.begin(), rows.end(), static_cast<uint32_t>(before));
    input.data = reinterpret_cast<void*>(reinterpret_cast<uint64_t>(last.data()) - before * width / 8);
    decode_and_expect(d, rows, codes);
    if (is_array || mode == 1 || width == 1) continue;

    const Bytes bytes = random_bytes(8 * width, random);
    GuardedBuffer first(bytes);
    Codes wrapped, their_codes;
    for (uint64_t row = limit; row < limit + 61; row++) {
      wrapped.push_back(static_cast<uint32_t>(row));
      their_codes.push_back(bits_at(bytes, row * width % 0x100000000, width));
    }
    input.data = first.data();
    decode_and_expect(d, wrapped, their_codes);
  }
}

// A block is decompressed once; the second call has one record for both. And not at all for symbols without bytes.
TEST_P(DecodeDict, DecompressesABlockOnce) {
  for (const uint32_t mode : {0u, 1u}) {
    const Dictionary d = dictionary(mode);
    const Codes codes = d.random_codes(100, top, random);
    Codes rows(100);
    std::iota(rows.begin(), rows.end(), 0);
    Block block(input, enc, exec, packed(codes, width));
    const Dictionary none = Dictionary::fixed(0, random);
    for (const size_t n : {1u, 9u, 300u}) decode_and_expect(none, Codes(n, 0xfffffff0), Codes(n));
    EXPECT_EQ(block.slot, nullptr);
    decode_and_expect(d, rows, codes);
    decode_and_expect(d, rows, codes, true);
    block.expect_one_copy(name);
  }
}

// Nothing but dict_mode is looked at, all of its 32 bits.
TEST_P(DecodeDict, RefusesOtherModes) {
  for (const uint32_t mode : {2u, 0x100u, 0x10001u, 0x80000000u, 0xffffffffu}) {
    enc.dict_mode = mode;
    enc.flags = KDZK_BLOCKED;
    exec.ones_vec_size = 3;
    kdzk_vec result{};
    const kdzk_exec before = exec;
    EXPECT_EQ(library().dispatch[id].decode(&result, &input, &exec), KDZK_MALFORMED);
    EXPECT_TRUE(same_bytes(result, kdzk_vec{}) && same_bytes(exec, before));
  }
}

INSTANTIATE_TEST_SUITE_P(All, DecodeDict, testing::ValuesIn(dict_widths),
                         [](const auto& info) { return std::to_string(info.param) + "bit"; });

// ---- Symbol decode ----

// A kernel, and whether it is asked for 4-byte codes.
struct SymbolKernel {
  uint32_t width;
  bool wide;
};

class DecodeSymbol : public testing::TestWithParam<SymbolKernel> {
 protected:
  const uint32_t width = GetParam().width, code_bits = GetParam().wide ? 32 : width, id = dict_kernel_id(width, 44);
  const std::string name = dict_kernel("decode_symbol", width);
  const uint32_t top = static_cast<uint32_t>((uint64_t{1} << code_bits) - 1);
  kdzk_enc_ctx enc{};
  kdzk_vec input{.enc_ctx = &enc, .filter = no_address<uint64_t>()}, result{.nrows = 0xffffffff};
  kdzk_exec exec{.env = no_address<kdzk_env>(),
                 .selection = no_address<uint64_t>(),
                 .flags = static_cast<uint8_t>(GetParam().wide ? 0xff : ~KDZK_EX_UNPACK_WIDE),
                 .row = 77,
                 .ones_vec = no_address<uint32_t>(),
                 .out_flags = 0x10};
  Random random{name + (GetParam().wide ? " wide" : "")};

  void SetUp() override { ASSERT_STREQ(kdzk_name_of(&library(), id), name.c_str()); }

  Bytes native(const Codes& codes) const {
    if (code_bits == 32) return bytes_of(codes);
    if (code_bits == 16) return bytes_of(std::vector<uint16_t>(codes.begin(), codes.end()));
    return Bytes(codes.begin(), codes.end());
  }

  // Calls the kernel, which must change nothing but `hits` of the result.
  void call(const Codes& codes, const std::string& what) {
    const Case now(Message() << name << ", " << what, random);
    GuardedBuffer column(native(codes), 0);
    input.data = column.data();
    input.nrows = static_cast<uint32_t>(codes.size());
    result.hits = 12345;
    const kdzk_vec input_before = input;
    const kdzk_exec exec_before = exec;
    kdzk_vec want = result;
    want.hits = input.nrows;
    EXPECT_EQ(library().dispatch[id].decode(&result, &input, &exec), KDZK_DONE);
    EXPECT_TRUE(same_bytes(result, want) && same_bytes(input, input_before) && same_bytes(exec, exec_before));
  }
};

const size_t row_counts[] = {0, 1, 2, 3, 7, 8, 9, 15, 16, 17, 23, 24, 31, 32, 33, 63, 65, 100, 1000};

TEST_P(DecodeSymbol, AgreesWithThePlainLoop) {
  for (const uint32_t length : {1u, 2u, 3u, 255u, 256u, 65535u, 0u, 0x10000u /* variable */}) {
    const bool variable = length == 0x10000;
    // Copying is for dictionaries of fixed length and the 32-bit kernel alone.
    exec.flags2 = variable || width != 32 ? 0xff : static_cast<uint8_t>(~KDZK_EX_COPY_VALUES);
    for (const size_t n : row_counts) {
      for (const bool indicated : {true, false}) {
        if (length == 0 && !indicated) continue;
        const Dictionary d = variable ? Dictionary::variable(top, random) : Dictionary::fixed(length, random);
        d.fill_in(enc);
        const Codes codes = d.random_codes(n, top, random);
        SymbolOutputs out(n);
        out.fill_in(result);
        if (!indicated) result.indicators = nullptr;
        call(codes, std::to_string(n) + " rows, length " + std::to_string(length));
        out.expect(looked_up(d, codes, n / 8 * 8), indicated);
        if (HasFailure()) return;
      }
    }
  }
}

TEST_P(DecodeSymbol, RefusesOtherModes) {
  for (const uint32_t mode : {2u, 0x100u, 0x10001u, 0xffffffffu}) {
    enc.dict_mode = mode;
    input.nrows = 9;
    result.hits = 5;
    exec.flags2 = 0xff;
    const kdzk_vec want = result;
    EXPECT_EQ(library().dispatch[id].decode(&result, &input, &exec), KDZK_MALFORMED);
    EXPECT_TRUE(same_bytes(result, want));
  }
}

INSTANTIATE_TEST_SUITE_P(All, DecodeSymbol,
                         testing::Values(SymbolKernel{8, false}, SymbolKernel{8, true}, SymbolKernel{16, false},
                                         SymbolKernel{16, true}, SymbolKernel{32, false}, SymbolKernel{32, true}),
                         [](const auto& info) {
                           return std::to_string(info.param.width) + "bit" + (info.param.wide ? "_wide" : "");
                         });

// The symbols' bytes. Neither lengths nor indicators are touched: there are none.
class DecodeSymbolValues : public DecodeSymbol {
 protected:
  std::unique_ptr<Dictionary> dictionary;
  void hold(uint32_t length, const GuardedBuffer& symbols) {
    dictionary = std::make_unique<Dictionary>(Dictionary::fixed(length, random));
    dictionary->fill_in(enc);
    enc.base = symbols.data();
    exec.flags2 = KDZK_EX_COPY_VALUES;
  }
  void copy_and_expect(uint32_t length, uint32_t dict_size, size_t n) {
    // The only symbols read past their last byte: up to 16 of one byte, in whole 1, 2, 4, 8 or 16 bytes.
    const size_t vector = dict_size <= 1 ? 1 : dict_size <= 2 ? 2 : dict_size <= 4 ? 4 : dict_size <= 8 ? 8 : 16;
    const Bytes symbols = random_bytes(size_t{dict_size} * length, random);
    GuardedBuffer base(symbols, length == 1 && dict_size <= 16 ? vector - dict_size : 0);
    hold(length, base);
    enc.dict_size = dict_size;
    Codes codes(n);
    Bytes want;
    for (uint32_t& code : codes) {
      code = static_cast<uint32_t>(random.below(dict_size));
      want.insert(want.end(), symbols.begin() + static_cast<long>(size_t{code} * length),
                  symbols.begin() + static_cast<long>((size_t{code} + 1) * length));
    }
    GuardedBuffer out(want.size());
    result.data = out.data();
    const std::string what =
        std::to_string(n) + " of " + std::to_string(dict_size) + " symbols of " + std::to_string(length) + " bytes";
    call(codes, what);
    EXPECT_EQ(contents(out), want) << what;
  }
};

TEST_P(DecodeSymbolValues, AgreeWithThePlainLoop) {
  for (const size_t n : row_counts) {
    for (uint32_t length = 0; length <= 40; length++) copy_and_expect(length, 1 + random.below(100), n);
    for (uint32_t dict_size = 1; dict_size <= 18; dict_size++) copy_and_expect(1, dict_size, n);
    for (const uint32_t length : {64u, 255u, 256u}) copy_and_expect(length, 5, n);
  }
  copy_and_expect(65535, 3, 20);
}

// The product of code and length is taken in 32 bits also here, but for the lengths that make an array.
TEST_P(DecodeSymbolValues, WrapTheProduct) {
  const Bytes symbols = {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 'i', 'j', 'k', 'l'};
  GuardedBuffer base(symbols, 0);
  hold(6, base);
  GuardedBuffer out(12);
  result.data = out.data();
  call({0x80000001, 0x80000000}, "a code far out");
  EXPECT_EQ(contents(out), (Bytes{'g', 'h', 'i', 'j', 'k', 'l', 'a', 'b', 'c', 'd', 'e', 'f'}));
}

INSTANTIATE_TEST_SUITE_P(All, DecodeSymbolValues, testing::Values(SymbolKernel{32, false}, SymbolKernel{32, true}),
                         [](const auto& info) { return info.param.wide ? "32bit_wide" : "32bit"; });

}  // namespace
}  // namespace kdzk_test

// SPDX-License-Identifier: Apache-2.0
// The block decoder through its slot of the exported record, against a decoder that goes bit by bit; and the host kit's
// writer and check of blocks.

#include <gtest/gtest.h>
#include <kdzk/host/sqzb.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <sstream>

#include "tests/support/format_docs.h"
#include "tests/support/sqzb_oracle.h"
#include "tests/support/streams.h"

namespace kdzk_test {
namespace {

Bytes from_text(const std::string& text) { return Bytes(text.begin(), text.end()); }

// ---- Decoder ----

// A well-formed block decodes to what the plain decoder makes of it, at a destination of exactly that size.
void expect_decodes(const Bytes& block, const Bytes& want, uint8_t behind = 0xa5) {
  SqzbHost host;
  const auto size = static_cast<uint32_t>(want.size());
  for (const uint32_t spare : {0u, 1u, 40u}) {
    const auto got = host.decode(block, size + spare, KDZK_PADDING, behind);
    EXPECT_EQ(got.status, KDZK_DONE);
    EXPECT_EQ(got.written, size);
    Bytes all = want;
    all.resize(size + spare, SqzbHost::fill);
    const auto differs = std::mismatch(all.begin(), all.end(), got.dst.begin()).first;
    EXPECT_EQ(differs, all.end()) << "of " << size << " bytes, first that differs: " << differs - all.begin();
  }
  EXPECT_EQ(host.allocs.size(), host.frees.size());
  EXPECT_EQ(host.complaint, "");
}

class SqzbWidths : public testing::TestWithParam<uint32_t> {};

TEST_P(SqzbWidths, DecodeWhatThePlainDecoderDoes) {
  const uint32_t width = GetParam();
  Random random("sqzb " + std::to_string(width));
  for (const uint32_t codes : {0u,  1u,  2u,  7u,  8u,  31u,  32u,  33u,  40u,  62u,   63u,  64u,
                               65u, 71u, 95u, 96u, 97u, 127u, 128u, 129u, 160u, 1000u, 4099u}) {
    if ((width == 1 || width == 2) && codes >= 64) continue;
    for (const uint32_t longest : {1u, 2u, 3u, 5u, 8u}) {
      for (int repeat = 0; repeat < 4; repeat++) {
        SqzbBlock block = random_sqzb_block(random, width, codes, longest);
        if (repeat == 3) {  // the shortest output: what the wide stores have least room for
          for (Bytes& symbol : block.symbols) symbol.resize(1);
        }
        const Bytes bytes = block.bytes(), want = block.decoded();
        const Case now(Message() << "width " << width << ", " << block.symbols.size() << " symbols to " << longest
                                 << " bytes, " << codes << " codes",
                       random);
        EXPECT_EQ(sqzb_plain_decode(bytes), want);
        expect_decodes(bytes, want, static_cast<uint8_t>(random.bits()));
        EXPECT_EQ(kdzk_host_sqzb_check(bytes.data(), bytes.size(), nullptr), KDZK_HOST_DONE);
        if (HasFailure()) return;
      }
    }
  }
}

// A symbol of each length in the rounds, and one-byte symbols behind, so that each kind of store is the last somewhere.
TEST_P(SqzbWidths, StayInsideTheDestination) {
  const uint32_t width = GetParam();
  Random random("sqzb ends");
  if (width == 1 || width == 2) return;
  SqzbBlock block;
  for (uint32_t i = 0; i < 1u << width; i++)
    block.symbols.push_back(Bytes(width == 0 ? 1 : i % 8 + 1, static_cast<uint8_t>(i + 7)));
  for (uint32_t codes = 60; codes < 134; codes++) {
    for (uint32_t longest = 1; longest <= 8; longest++) {
      const Case now(Message() << codes << " codes, " << longest << " bytes", random);
      block.codes.assign(codes, 0);
      for (uint32_t k = 0; k + 32 < codes && width > 0; k++) block.codes[k] = longest - 1;
      expect_decodes(block.bytes(), block.decoded());
      if (HasFailure()) return;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(All, SqzbWidths, testing::Range(0u, 11u), testing::PrintToStringParamName());

const Bytes five_symbols = {0x53, 0x51, 0x5a, 0x42, 0x00, 0x02, 0,    0,    0,    0,    0,    0,    0,
                            0,    0,    7,    0,    5,    0x12, 0x34, 0x10, 0x41, 0x42, 0x42, 0x43, 0x43,
                            0x43, 0x44, 0x44, 0x44, 0x44, 0x45, 0,    0,    0,    4,    0x22, 0x20};

TEST(Sqzb, DecodesABlockWrittenByHand) { expect_decodes(five_symbols, from_text("BBAECCC")); }

TEST(Sqzb, AsksForScratchAndGivesItBack) {
  for (const bool leaves_handles : {false, true}) {
    SqzbHost host;
    host.leaves_handles = leaves_handles;
    host.decode(five_symbols, 7);
    ASSERT_EQ(host.allocs.size(), 2u);
    ASSERT_EQ(host.frees.size(), 2u);
    const char* const comments[] = {"sqzb_decode_x86 length_array", "sqzb_decode_x86: symbol_array"};
    const uint64_t sizes[] = {6, 40};
    for (size_t i = 0; i < 2; i++) {
      const auto& alloc = host.allocs[i];
      EXPECT_EQ(alloc.comment, comments[i]);
      EXPECT_EQ(alloc.size, sizes[i]);
      EXPECT_TRUE(alloc.unit == 8 && alloc.zero == 0 && alloc.out_before == static_cast<void*>(alloc.out));
      EXPECT_TRUE(host.frees[1 - i].scratch == alloc.scratch && host.frees[1 - i].out == alloc.handle);
    }
    EXPECT_NE(host.allocs[0].out, host.allocs[1].out);
    EXPECT_EQ(host.complaint, "");
  }
}

Bytes with(Bytes block, size_t at, int value) {
  block[at] = static_cast<uint8_t>(value);
  return block;
}

// The header alone is looked at, nothing is asked for, and nothing is written.
void expect_refused(Bytes block, uint32_t capacity = 7) {
  SqzbHost host;
  block.resize(18);
  const auto got = host.decode(block, capacity, 0);
  EXPECT_EQ(got.status, KDZK_MALFORMED) << testing::PrintToString(block);
  EXPECT_EQ(got.written, SqzbHost::not_written);
  EXPECT_EQ(got.dst, Bytes(capacity, SqzbHost::fill));
  EXPECT_TRUE(host.allocs.empty() && host.frees.empty());
}

TEST(Sqzb, RefusesBadHeaders) {
  for (size_t i = 0; i < 4; i++) expect_refused(with(five_symbols, i, five_symbols[i] ^ 0x20));
  for (const int version : {1, 2, 128, 255}) expect_refused(with(five_symbols, 4, version));
  for (int flags = 0; flags < 256; flags++) {
    const Bytes block = with(five_symbols, 5, flags);
    if ((flags & 2) != 0 && (flags & 9) == 0) {
      expect_decodes(block, from_text("BBAECCC"));
    } else {
      expect_refused(block);
    }
  }
  for (const uint32_t capacity : {6u, 0u}) expect_refused(five_symbols, capacity);
  expect_refused(with(five_symbols, 12, 0x80));  // a decoded size above 2^31
  for (const int symbols : {0, 1025, 2048, 0x8000, 0xffff})
    expect_refused(with(with(five_symbols, 16, symbols >> 8), 17, symbols));
}

// A stream that makes another number of bytes than the header says is decoded whole, and told by the result.
TEST(Sqzb, TellsAWrongSize) {
  Random random("sqzb sizes");
  for (const uint32_t width : {0u, 3u, 8u, 9u, 10u}) {
    for (const uint32_t codes : {0u, 5u, 64u, 333u}) {
      SqzbBlock block = random_sqzb_block(random, width, codes, 8);
      Bytes all = block.decoded();
      const auto size = static_cast<uint32_t>(all.size());
      all.resize(size + 50, SqzbHost::fill);
      for (const uint32_t claimed : {0u, size / 2, size - 1, size + 1, size + 50}) {
        if (claimed == size || claimed > size + 50) continue;
        block.decoded_size = claimed;
        SqzbHost host;
        const auto got = host.decode(block.bytes(), size + 50);
        EXPECT_EQ(got.status, KDZK_MALFORMED);
        EXPECT_EQ(got.written, size);
        EXPECT_EQ(got.dst, all);
        EXPECT_EQ(host.frees.size(), 2u);
        EXPECT_EQ(host.complaint, "");
      }
    }
  }
}

// The stream may begin inside the four bytes that say where it begins.
TEST(Sqzb, TakesAnOverlappingAuxiliarySectionLiterally) {
  SqzbBlock block;
  for (int i = 0; i < 256; i++) block.symbols.push_back({static_cast<uint8_t>(i)});
  block.aux_count = 1;
  block.codes = {1, 2, 3, 4, 5};
  Bytes bytes = block.bytes();
  const size_t x = bytes.size() - 9;
  for (uint8_t skip = 0; skip < 4; skip++) {
    bytes[x + 2] = skip >> 1;
    bytes[x + 3] = static_cast<uint8_t>(skip << 7 | 0x55);
    const auto from = bytes.begin() + static_cast<std::ptrdiff_t>(x) + skip;
    expect_decodes(bytes, Bytes(from, from + 5));
    kdzk_host_sqzb_report report;
    EXPECT_EQ(kdzk_host_sqzb_check(bytes.data(), bytes.size(), &report), KDZK_HOST_DONE);
    EXPECT_EQ(report.block_size, x + std::max(4, skip + 5));
  }
}

// ---- Writer ----

constexpr uint32_t any_width = KDZK_HOST_SQZB_ANY_WIDTH;

// Writes into as much room as `room`, or else as the bound tells; the block, which is empty without success.
Bytes write(const Bytes& data, uint32_t width = any_width, uint32_t status = KDZK_HOST_DONE, uint64_t room = ~0ull) {
  const GuardedBuffer src(data, 0);
  const auto size = static_cast<uint32_t>(data.size());
  GuardedBuffer block(std::min(kdzk_host_sqzb_bound(size, width), room));
  uint64_t block_size = 12345;
  EXPECT_EQ(kdzk_host_sqzb_write(src.data(), size, width, block.data(), block.size(), &block_size), status) << width;
  if (status != KDZK_HOST_DONE) {
    EXPECT_EQ(block_size, 12345u);
    return {};
  }
  EXPECT_LE(block_size, block.size());
  return Bytes(block.data(), block.data() + block_size);
}

// Writes, checks and decodes; returns the block's size.
size_t round_trip(const Bytes& data, uint32_t width = any_width) {
  const Bytes block = write(data, width);
  kdzk_host_sqzb_report report;
  EXPECT_EQ(kdzk_host_sqzb_check(block.data(), block.size(), &report), KDZK_HOST_DONE)
      << report.reason << " at " << report.offset;
  EXPECT_EQ(report.block_size, block.size());
  EXPECT_EQ(report.decoded_size, data.size());
  if (width != any_width) {
    EXPECT_EQ(report.code_width, width);
  }
  expect_decodes(block, data);
  return block.size();
}

Bytes random_bytes(Random& random, size_t size, uint32_t values) {
  Bytes data(size);
  for (uint8_t& byte : data) byte = static_cast<uint8_t>(random.below(values) * 37);
  return data;
}

// Random words from a small dictionary.
Bytes random_words(Random& random, size_t size) {
  std::vector<Bytes> words;
  for (int i = 0; i < 100; i++) words.push_back(random_bytes(random, 1 + random.below(12), 30));
  Bytes data;
  while (data.size() < size) {
    const Bytes& word = words[random.below(random.below(100) + 1)];
    data.insert(data.end(), word.begin(), word.end());
  }
  data.resize(size);
  return data;
}

TEST(SqzbWriter, WritesWhatDecodesToTheSame) {
  Random random("sqzb writer");
  for (const size_t size :
       {0u, 1u, 2u, 3u, 7u, 8u, 9u, 16u, 17u, 63u, 64u, 65u, 100u, 300u, 511u, 512u, 2000u, 20000u}) {
    const Case now(Message() << size << " bytes", random);
    round_trip(random_words(random, size));
    for (const uint32_t values : {1u, 2u, 3u, 4u, 5u, 9u, 60u, 256u}) round_trip(random_bytes(random, size, values));
    if (HasFailure()) return;
  }
}

TEST(SqzbWriter, WritesTheWidthThatIsAskedFor) {
  Random random("sqzb writer widths");
  for (uint32_t width = 3; width <= 10; width++) {
    for (const size_t size : {0u, 1u, 50u, 5000u}) {
      const Case now(Message() << size << " bytes, width " << width, random);
      for (const uint32_t values : {1u, 2u, 8u}) round_trip(random_bytes(random, size, values), width);
      if (width >= 5) round_trip(random_words(random, size), width);
      if (width >= 8) round_trip(random_bytes(random, size, 256), width);
    }
  }
  for (const uint32_t width : {1u, 2u}) expect_decodes(write(from_text("abababbab"), width), from_text("abababbab"));
  round_trip(Bytes(1000, 'x'), 0);
  round_trip({}, 0);
}

TEST(SqzbWriter, SaysWhenThereIsNoSuchBlock) {
  Random random("sqzb no block");
  write(random_bytes(random, 1000, 9), 3, KDZK_HOST_NO_BLOCK);
  write(random_bytes(random, 10000, 256), 7, KDZK_HOST_NO_BLOCK);
  write(from_text("ab"), 0);  // a single symbol, once
  write(from_text("aab aab b"), 0, KDZK_HOST_NO_BLOCK);
  for (const uint32_t width : {1u, 2u, 11u, 16u, 0xfeu})
    write(random_bytes(random, 2000, 2), width, KDZK_HOST_NO_BLOCK);
}

// And writes the same block each time.
TEST(SqzbWriter, StaysInItsRoomAndItsBound) {
  Random random("sqzb room");
  for (const size_t size : {0u, 40u, 3000u, 400000u}) {
    const Bytes data = random_words(random, size), want = write(data);
    EXPECT_EQ(write(data, any_width, KDZK_HOST_DONE, want.size()), want);
    for (const size_t room : {want.size() - 1, want.size() / 2, size_t{1}, size_t{0}})
      write(data, any_width, KDZK_HOST_NO_ROOM, room);
  }
}

// Where the sample has nothing of what makes up the data, the block is no longer than one with a code for each byte.
TEST(SqzbWriter, BearsDataThatTheSampleMisses) {
  Random random("sqzb sample");
  constexpr uint32_t size = 4 * KDZK_HOST_SQZB_SAMPLE, stripe = 256, stripes = KDZK_HOST_SQZB_SAMPLE / stripe;
  Bytes data = random_bytes(random, size, 256);
  for (uint64_t i = 0; i < stripes; i++) {
    const uint64_t from = uint64_t{size - stripe} * i / (stripes - 1);
    std::fill_n(data.begin() + static_cast<std::ptrdiff_t>(from), stripe, uint8_t{0});
  }
  EXPECT_LE(round_trip(data), kdzk_host_sqzb_bound(size, any_width));
  EXPECT_LT(round_trip(random_words(random, size)), size / 2);
}

// The values of a column, one behind the other; a comma in a quoted field divides it, too.
Bytes example_column(const std::string& file, size_t column) {
  std::ifstream lines(KDZK_SOURCE_DIR "/examples/data/" + file);
  std::string line, field, values;
  for (std::getline(lines, line); std::getline(lines, line); values += field) {
    std::istringstream fields(line);
    for (size_t i = 0; i <= column; i++) std::getline(fields, field, ',');
  }
  return from_text(values);
}

void expect_shrinks(const Bytes& column) {
  const size_t size = round_trip(column);
  EXPECT_GE(static_cast<double>(column.size()), 1.8 * static_cast<double>(size)) << column.size() << " to " << size;
  for (uint32_t width = 8; width <= 10; width++) round_trip(column, width);
}

TEST(SqzbWriter, ShrinksRealColumns) {
  for (const size_t column : {1u, 2u}) expect_shrinks(example_column("airports.csv", column));
  for (const size_t column : {4u, 5u}) expect_shrinks(example_column("flights.csv", column));
  std::ifstream file("/usr/share/dict/american-english", std::ios::binary);
  const std::string words((std::istreambuf_iterator<char>(file)), {});
  if (words.empty()) GTEST_SKIP() << "wamerican is not installed";
  expect_shrinks(from_text(words));
  for (size_t from = 0; from < words.size(); from += 65536 * 4) expect_shrinks(from_text(words.substr(from, 65536)));
}

// The document's example block is what the writer makes of the document's text, byte for byte.
TEST(SqzbWriter, MakesTheDocumentsExample) {
  std::ifstream file(KDZK_SOURCE_DIR "/docs/formats/sqzb.md");
  const std::string page((std::istreambuf_iterator<char>(file)), {}), marker = "The text is `";
  const size_t at = page.find(marker) + marker.size();
  const Bytes text = from_text(page.substr(at, page.find('`', at) - at));
  std::map<size_t, Bytes> by_offset;
  for (const auto& [offset, bytes] : documented_bytes("sqzb.md")) by_offset[std::stoul(offset)] = bytes;
  Bytes block;
  for (const auto& [offset, bytes] : by_offset) {
    EXPECT_EQ(block.size(), offset);
    block.insert(block.end(), bytes.begin(), bytes.end());
  }
  EXPECT_EQ(write(text), block);
  expect_decodes(block, text);
}

// ---- Check ----

kdzk_host_sqzb_report check(const Bytes& block) {
  const GuardedBuffer guarded(block, 0);
  kdzk_host_sqzb_report report;
  const uint32_t status = kdzk_host_sqzb_check(guarded.data(), block.size(), &report);
  EXPECT_EQ(status == KDZK_HOST_DONE, report.reason == std::string("well formed"));
  return report;
}

TEST(SqzbCheck, NamesReasonAndOffset) {
  struct Broken {
    Bytes block;
    const char* reason;
    uint64_t offset;
  };
  SqzbBlock small;
  small.symbols = {{'a'}, {'b'}, {'c', 'd'}};
  small.codes.assign(63, 2);
  EXPECT_EQ(check(small.bytes()).reason, std::string("well formed"));
  small.codes.push_back(0);
  const Bytes many = small.bytes();
  small.codes.resize(10);
  small.aux_count = 1;
  small.aux_skip = 9;
  const Bytes aux = small.bytes();
  EXPECT_EQ(check(aux).reason, std::string("well formed"));
  const auto cut = [&](std::ptrdiff_t size) { return Bytes(aux.begin(), aux.begin() + size); };
  const Bytes& five = five_symbols;
  EXPECT_EQ(check(five).reason, std::string("well formed"));
  const Broken all[] = {
      {with(five, 1, 'q'), "doesn't begin with SQZB", 1},
      {with(five, 4, 1), "unknown version", 4},
      {with(five, 5, 0), "the format flag is clear that must be set", 5},
      {with(five, 5, 3), "a format flag is set that must be clear", 5},
      {with(five, 5, 10), "a format flag is set that must be clear", 5},
      {with(five, 15, 8), "the codes make another number of bytes than the header says", 12},
      {with(five, 17, 0), "no symbol", 16},
      {with(five, 16, 4), "more than 1024 symbols", 16},
      {with(five, 19, 0x04), "a symbol of length 0", 19},
      {with(five, 20, 0x90), "a symbol longer than 8 bytes", 20},
      {with(five, 20, 0x60), "ends in the number of codes", 38},
      {with(five, 20, 0x80), "ends in the bytes of the symbols", 38},
      {with(five, 35, 6), "ends in the code stream", 38},
      {with(five, 36, 0x36), "a code without a symbol", 36},
      {with(five, 37, 0x70), "a code without a symbol", 37},
      {with(five, 11, 1), "ends in the bytes of the symbols", 38},
      {{}, "shorter than a header", 0},
      {many, "64 or more codes of 1 or 2 bits", 24},
      {with(aux, 34, 0xff), "the auxiliary section reaches past the end", 34},
      {cut(37), "ends in the auxiliary section", 37},
      {cut(25), "ends in the auxiliary table", 25},
      {cut(19), "ends in the lengths of the symbols", 19},
  };
  for (const Broken& broken : all) {
    const kdzk_host_sqzb_report got = check(broken.block);
    EXPECT_STREQ(got.reason, broken.reason);
    EXPECT_EQ(got.offset, broken.offset) << broken.reason;
  }
}

// No part of a block is well formed, whatever is missing; more bytes behind it are not looked at. sqzb_fuzz.cpp has
// other changes of blocks.
TEST(SqzbCheck, SeesEachTruncation) {
  Random random("sqzb truncation");
  for (uint32_t width = 0; width <= 10; width++) {
    SqzbBlock block = random_sqzb_block(random, width, 50, 8);
    if (width == 0) block.aux_count = 0;  // with no stream, the four bytes of the section may be the last
    Bytes bytes = block.bytes();
    for (size_t size = 0; size < bytes.size(); size++) {
      const auto got = check(Bytes(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size)));
      EXPECT_STRNE(got.reason, "well formed") << size << " of " << bytes.size();
      EXPECT_LE(got.offset, size);
    }
    bytes.push_back(1);
    EXPECT_EQ(check(bytes).block_size, bytes.size() - 1);
  }
}

}  // namespace
}  // namespace kdzk_test

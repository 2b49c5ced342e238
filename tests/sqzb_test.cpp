// SPDX-License-Identifier: Apache-2.0
// The block decoder through its slot of the exported record, against a decoder that goes bit by bit; and the host kit's
// writer and check of blocks.

#include <gtest/gtest.h>
#include <kdzk/host/sqzb.h>

#include <algorithm>
#include <csetjmp>
#include <fstream>
#include <sstream>

#include "tests/support/sqzb_oracle.h"

namespace kdzk_test {
namespace {

Bytes from_text(const std::string& text) { return Bytes(text.begin(), text.end()); }

// ---- Decoder ----

// A well-formed block decodes to what the plain decoder makes of it, at a destination of exactly that size.
void expect_decodes(const Bytes& block, const Bytes& want, uint8_t behind = 0xa5) {
  const testing::TestInfo& test = *testing::UnitTest::GetInstance()->current_test_info();
  now_running(std::string(test.test_suite_name()) + "." + test.name() + ", " + std::to_string(block.size()) +
              " bytes to " + std::to_string(want.size()));
  SqzbHost host;
  const auto size = static_cast<uint32_t>(want.size());
  for (const uint32_t spare : {0u, 1u, 40u}) {
    const auto got = host.decode(block, size + spare, KDZK_PADDING, behind);
    EXPECT_EQ(got.status, KDZK_DONE);
    EXPECT_EQ(got.written, size);
    const auto differs = std::mismatch(want.begin(), want.end(), got.dst.begin()).first;
    EXPECT_EQ(differs, want.end()) << "first byte that differs: " << differs - want.begin();
    EXPECT_TRUE(std::all_of(got.dst.begin() + size, got.dst.end(), [](uint8_t b) { return b == SqzbHost::fill; }))
        << "written past what was produced";
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
        SCOPED_TRACE("width " + std::to_string(width) + ", " + std::to_string(block.symbols.size()) + " symbols to " +
                     std::to_string(longest) + " bytes, " + std::to_string(codes) + " codes, seed " +
                     std::to_string(random.seed()));
        EXPECT_EQ(sqzb_plain_decode(bytes), want);
        expect_decodes(bytes, want, static_cast<uint8_t>(random.bits()));
        EXPECT_EQ(kdzk_host_sqzb_check(bytes.data(), bytes.size(), nullptr), KDZK_HOST_DONE);
        if (HasFailure()) return;
      }
    }
  }
}

// A symbol of each length at each place around the split, so that each kind of store is the last one somewhere.
TEST_P(SqzbWidths, StayInsideTheDestination) {
  const uint32_t width = GetParam();
  if (width == 1 || width == 2) return;
  SqzbBlock block;
  for (uint32_t i = 0; i < std::max(1u, 1u << width); i++) {
    Bytes symbol(width == 0 ? 1 : i % 8 + 1);
    for (uint8_t& byte : symbol) byte = static_cast<uint8_t>(i + 7);
    block.symbols.push_back(symbol);
  }
  for (uint32_t codes = 60; codes < 134; codes++) {
    for (uint32_t longest = 1; longest <= 8; longest++) {
      // Long symbols in the rounds, and one-byte symbols behind.
      block.codes.assign(codes, 0);
      for (uint32_t k = 0; k + 32 < codes && width > 0; k++) block.codes[k] = longest - 1;
      expect_decodes(block.bytes(), block.decoded());
      if (HasFailure()) FAIL() << codes << " codes, " << longest << " bytes";
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
    const auto &lengths = host.allocs[0], &symbols = host.allocs[1];
    EXPECT_EQ(lengths.size, 6u);
    EXPECT_EQ(symbols.size, 40u);
    EXPECT_EQ(lengths.comment, "sqzb_decode_x86 length_array");
    EXPECT_EQ(symbols.comment, "sqzb_decode_x86: symbol_array");
    for (const auto& alloc : host.allocs) {
      EXPECT_EQ(alloc.unit, 8u);
      EXPECT_EQ(alloc.zero, 0u);
      EXPECT_EQ(alloc.out_before, static_cast<void*>(alloc.out));
    }
    EXPECT_NE(lengths.out, symbols.out);
    ASSERT_EQ(host.frees.size(), 2u);
    EXPECT_EQ(host.frees[0].scratch, symbols.scratch);
    EXPECT_EQ(host.frees[0].out, symbols.handle);
    EXPECT_EQ(host.frees[1].scratch, lengths.scratch);
    EXPECT_EQ(host.frees[1].out, lengths.handle);
    EXPECT_EQ(host.complaint, "");
  }
}

std::jmp_buf leave;
int calls_until_leaving;

// Callbacks may leave by longjmp, at any of the calls, and the decoder can be called again.
TEST(Sqzb, BearsCallbacksThatLeave) {
  static SqzbHost host;
  static const GuardedBuffer src(five_symbols);
  static GuardedBuffer dst(7);
  for (int calls = 0; calls < 4; calls++) {
    calls_until_leaving = calls;
    kdzk_sqzb_ctx ctx = host.ctx;
    ctx.tmp_alloc = [](void* hctx, uint64_t size, const char* comment, uint32_t unit, uint32_t zero, void** out) {
      if (calls_until_leaving-- == 0) std::longjmp(leave, 1);
      return host.ctx.tmp_alloc(hctx, size, comment, unit, zero, out);
    };
    ctx.tmp_free = [](void* hctx, void* scratch, void* out) {
      if (calls_until_leaving-- == 0) std::longjmp(leave, 1);
      host.ctx.tmp_free(hctx, scratch, out);
    };
    static uint32_t written;
    written = 99;
    if (setjmp(leave) == 0) {
      library().sqzb_decode_x86(&ctx, src.data(), dst.data(), &written, 7);
      ADD_FAILURE() << "came back";
    }
    EXPECT_EQ(written, calls < 2 ? 99u : 7u);
  }
  expect_decodes(five_symbols, from_text("BBAECCC"));
}

// The header alone is looked at, nothing is asked for, and nothing is written.
void expect_refused(Bytes block, uint32_t capacity, const std::string& why) {
  SCOPED_TRACE(why);
  SqzbHost host;
  block.resize(18);
  const auto got = host.decode(block, capacity, 0);
  EXPECT_EQ(got.status, KDZK_MALFORMED);
  EXPECT_EQ(got.written, SqzbHost::not_written);
  EXPECT_EQ(got.dst, Bytes(capacity, SqzbHost::fill));
  EXPECT_TRUE(host.allocs.empty());
  EXPECT_TRUE(host.frees.empty());
}

TEST(Sqzb, RefusesBadHeaders) {
  for (size_t i = 0; i < 4; i++) {
    Bytes block = five_symbols;
    block[i] ^= 0x20;
    expect_refused(block, 7, "magic");
  }
  for (int version : {1, 2, 128, 255}) {
    Bytes block = five_symbols;
    block[4] = static_cast<uint8_t>(version);
    expect_refused(block, 7, "version");
  }
  for (int flags = 0; flags < 256; flags++) {
    Bytes block = five_symbols;
    block[5] = static_cast<uint8_t>(flags);
    if ((flags & 2) != 0 && (flags & 9) == 0) {
      expect_decodes(block, from_text("BBAECCC"));
    } else {
      expect_refused(block, 7, "flags " + std::to_string(flags));
    }
  }
  expect_refused(five_symbols, 6, "capacity 6");
  expect_refused(five_symbols, 0, "capacity 0");
  Bytes block = five_symbols;
  block[12] = 0x80;
  expect_refused(block, 7, "decoded size above 2^31");
  for (const uint32_t symbols : {0u, 1025u, 2048u, 0x8000u, 0xffffu}) {
    block = five_symbols;
    block[16] = static_cast<uint8_t>(symbols >> 8);
    block[17] = static_cast<uint8_t>(symbols);
    expect_refused(block, 7, std::to_string(symbols) + " symbols");
  }
}

// A stream that makes another number of bytes than the header says is decoded whole, and told by the result.
TEST(Sqzb, TellsAWrongSize) {
  Random random("sqzb sizes");
  for (const uint32_t width : {0u, 3u, 8u, 9u, 10u}) {
    for (const uint32_t codes : {0u, 5u, 64u, 333u}) {
      SqzbBlock block = random_sqzb_block(random, width, codes, 8);
      const Bytes want = block.decoded();
      const auto size = static_cast<uint32_t>(want.size());
      for (const uint32_t claimed : {0u, size / 2, size - 1, size + 1, size + 50}) {
        if (claimed == size || claimed > size + 50) continue;
        block.decoded_size = claimed;
        SqzbHost host;
        const auto got = host.decode(block.bytes(), size + 50);
        EXPECT_EQ(got.status, KDZK_MALFORMED);
        EXPECT_EQ(got.written, size);
        Bytes all = want;
        all.resize(size + 50, SqzbHost::fill);
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

// A blocked column through a kernel, with the slot's function as the host's decompressor.
TEST(Sqzb, ServesAsAKernelsDecompressor) {
  Random random("sqzb kernel");
  Bytes codes(5000);
  for (uint8_t& code : codes) code = static_cast<uint8_t>(random.below(20));
  Bytes block(kdzk_host_sqzb_bound(5000, KDZK_HOST_SQZB_ANY_WIDTH));
  uint64_t size = 0;
  ASSERT_EQ(kdzk_host_sqzb_write(codes.data(), 5000, KDZK_HOST_SQZB_ANY_WIDTH, block.data(), block.size(), &size),
            KDZK_HOST_DONE);
  block.resize(size);
  const GuardedBuffer src(block);
  SqzbHost scratch;
  static Bytes copy;
  copy.assign(5000 + KDZK_PADDING, 0);
  kdzk_env env{};
  env.hctx = &scratch;
  env.alloc = [](void*, void*, uint32_t, const char*, uint32_t, uint32_t, uint64_t) -> void* { return copy.data(); };
  env.tmp_alloc = scratch.ctx.tmp_alloc;
  env.tmp_free = scratch.ctx.tmp_free;
  env.decompress = library().sqzb_decode_x86;
  kdzk_enc_ctx enc{};
  enc.flags = KDZK_PACKED_DICT | KDZK_BLOCKED;
  enc.width = 8;
  void* slot = nullptr;
  kdzk_vec input{}, result{};
  GuardedBits bits(5000);
  input.data = const_cast<uint8_t*>(src.data());
  input.enc_ctx = &enc;
  input.decomp_size = 5000;
  input.decomp_slot = &slot;
  result.bitvec = bits.words();
  result.nrows = 5000;
  uint32_t seven = 7;
  kdzk_kargs constant{};
  constant.data = &seven;
  kdzk_exec exec{};
  exec.env = &env;
  const uint32_t id = kdzk_id_of_kind(kdzk_kind_of(kdzk_row_of_width(8), KDZK_FAMILY_DICT), KDZK_OP_EQ);
  EXPECT_EQ(library().dispatch[id].compare(&result, &input, &constant, &exec), KDZK_DONE);
  EXPECT_EQ(result.hits, static_cast<uint32_t>(std::count(codes.begin(), codes.end(), 7)));
  for (uint32_t r = 0; r < 5000; r++) ASSERT_EQ(bits.row(r), codes[r] == 7) << r;
  EXPECT_EQ(scratch.frees.size(), 2u);
}

// ---- Writer ----

constexpr uint32_t any_width = KDZK_HOST_SQZB_ANY_WIDTH;

struct Written {
  uint32_t status;
  Bytes block;
};

Written write(const Bytes& data, uint32_t width = any_width) {
  const GuardedBuffer src(data, 0);
  const auto size = static_cast<uint32_t>(data.size());
  GuardedBuffer block(kdzk_host_sqzb_bound(size, width));
  uint64_t block_size = 12345;
  const uint32_t status = kdzk_host_sqzb_write(src.data(), size, width, block.data(), block.size(), &block_size);
  if (status != KDZK_HOST_DONE) {
    EXPECT_EQ(block_size, 12345u);
    return {status, {}};
  }
  return {status, Bytes(block.data(), block.data() + block_size)};
}

// Writes, checks and decodes; returns the block's size.
size_t round_trip(const Bytes& data, uint32_t width = any_width) {
  const Written written = write(data, width);
  EXPECT_EQ(written.status, KDZK_HOST_DONE);
  if (written.status != KDZK_HOST_DONE) return 0;
  kdzk_host_sqzb_report report;
  EXPECT_EQ(kdzk_host_sqzb_check(written.block.data(), written.block.size(), &report), KDZK_HOST_DONE)
      << report.reason << " at " << report.offset;
  EXPECT_EQ(report.block_size, written.block.size());
  EXPECT_EQ(report.decoded_size, data.size());
  if (width != any_width) {
    EXPECT_EQ(report.code_width, width);
  }
  expect_decodes(written.block, data);
  return written.block.size();
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
    for (const uint32_t values : {1u, 2u, 3u, 4u, 5u, 9u, 60u, 256u}) {
      SCOPED_TRACE(std::to_string(size) + " bytes of " + std::to_string(values) + " values");
      round_trip(random_bytes(random, size, values));
      if (HasFailure()) return;
    }
    SCOPED_TRACE(std::to_string(size) + " bytes of words");
    round_trip(random_words(random, size));
    if (HasFailure()) return;
  }
}

TEST(SqzbWriter, WritesTheWidthThatIsAskedFor) {
  Random random("sqzb writer widths");
  for (uint32_t width = 3; width <= 10; width++) {
    for (const size_t size : {0u, 1u, 50u, 5000u}) {
      SCOPED_TRACE(std::to_string(size) + " bytes, width " + std::to_string(width));
      round_trip(random_bytes(random, size, 1), width);
      round_trip(random_bytes(random, size, 2), width);
      round_trip(random_bytes(random, size, 8), width);
      if (width >= 5) round_trip(random_words(random, size), width);
      if (width >= 8) round_trip(random_bytes(random, size, 256), width);
    }
  }
  for (const uint32_t width : {1u, 2u}) {
    const Written written = write(from_text("abababbab"), width);
    EXPECT_EQ(written.status, KDZK_HOST_DONE);
    expect_decodes(written.block, from_text("abababbab"));
  }
  round_trip(Bytes(1000, 'x'), 0);
  round_trip({}, 0);
}

TEST(SqzbWriter, SaysWhenThereIsNoSuchBlock) {
  Random random("sqzb no block");
  EXPECT_EQ(write(random_bytes(random, 1000, 9), 3).status, KDZK_HOST_NO_BLOCK);
  EXPECT_EQ(write(random_bytes(random, 10000, 256), 7).status, KDZK_HOST_NO_BLOCK);
  EXPECT_EQ(write(from_text("ab"), 0).status, KDZK_HOST_DONE);  // a single symbol, once
  EXPECT_EQ(write(from_text("aab aab b"), 0).status, KDZK_HOST_NO_BLOCK);
  for (const uint32_t width : {1u, 2u, 11u, 16u, 0xfeu})
    EXPECT_EQ(write(random_bytes(random, 2000, 2), width).status, KDZK_HOST_NO_BLOCK) << width;
}

TEST(SqzbWriter, StaysInItsRoomAndItsBound) {
  Random random("sqzb room");
  for (const Bytes& data : {random_bytes(random, 3000, 256), random_words(random, 3000), Bytes(500, 'x'),
                            random_bytes(random, 40, 3), Bytes{}}) {
    const Bytes want = write(data).block;
    EXPECT_LE(want.size(), kdzk_host_sqzb_bound(static_cast<uint32_t>(data.size()), any_width));
    for (const size_t room : {want.size(), want.size() - 1, want.size() / 2, size_t{30}, size_t{1}, size_t{0}}) {
      GuardedBuffer block(room);
      uint64_t size = 77;
      const uint32_t status =
          kdzk_host_sqzb_write(data.data(), static_cast<uint32_t>(data.size()), any_width, block.data(), room, &size);
      if (room >= want.size()) {
        EXPECT_EQ(status, KDZK_HOST_DONE);
        EXPECT_EQ(size, want.size());
        EXPECT_EQ(Bytes(block.data(), block.data() + size), want);
      } else {
        EXPECT_EQ(status, KDZK_HOST_NO_ROOM);
        EXPECT_EQ(size, 77u);
      }
    }
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

TEST(SqzbWriter, IsDeterministic) {
  Random random("sqzb deterministic");
  for (const size_t size : {100u, 30000u, 400000u}) {
    const Bytes data = random_words(random, size);
    EXPECT_EQ(write(data).block, write(data).block);
  }
}

// One column of a file with a header line, the values one behind the other.
Bytes csv_column(const std::string& name, size_t column) {
  std::ifstream file(std::string(KDZK_SOURCE_DIR "/examples/data/") + name, std::ios::binary);
  std::string all((std::istreambuf_iterator<char>(file)), {});
  EXPECT_FALSE(all.empty()) << name;
  Bytes values;
  size_t at = 0, line = 0;
  bool quoted = false;
  for (const char c : all) {
    if (c == '"') {
      quoted = !quoted;
    } else if (c == ',' && !quoted) {
      at++;
    } else if (c == '\n' && !quoted) {
      at = 0;
      line++;
    } else if (at == column && line > 0) {
      values.push_back(static_cast<uint8_t>(c));
    }
  }
  return values;
}

Bytes word_list() {
  std::ifstream file("/usr/share/dict/american-english", std::ios::binary);
  return Bytes((std::istreambuf_iterator<char>(file)), {});
}

void expect_shrinks(const Bytes& column, const std::string& name) {
  SCOPED_TRACE(name);
  const size_t size = round_trip(column);
  EXPECT_GE(static_cast<double>(column.size()), 1.8 * static_cast<double>(size)) << column.size() << " to " << size;
  for (uint32_t width = 8; width <= 10; width++) round_trip(column, width);
}

TEST(SqzbWriter, ShrinksRealColumns) {
  expect_shrinks(csv_column("airports.csv", 1), "names");
  expect_shrinks(csv_column("airports.csv", 2), "cities");
  expect_shrinks(csv_column("flights.csv", 4), "origins");
  expect_shrinks(csv_column("flights.csv", 5), "destinations");
  const Bytes words = word_list();
  if (words.empty()) GTEST_SKIP() << "wamerican is not installed";
  expect_shrinks(words, "words");
  for (size_t from = 0; from < words.size(); from += 65536 * 4) {
    const auto begin = words.begin() + static_cast<std::ptrdiff_t>(from);
    expect_shrinks(Bytes(begin, begin + static_cast<std::ptrdiff_t>(std::min<size_t>(65536, words.size() - from))),
                   "64 KiB");
  }
}

// The document's example block is what the writer makes of the document's text, byte for byte.
TEST(SqzbWriter, MakesTheDocumentsExample) {
  std::ifstream file(KDZK_SOURCE_DIR "/docs/formats/sqzb.md");
  std::string line, text;
  Bytes block;
  while (std::getline(file, line)) {
    static const std::string marker = "The text is `";
    if (line.starts_with(marker)) text = line.substr(marker.size(), line.rfind('`') - marker.size());
    // | offset | bytes in hexadecimal | what they are |
    std::istringstream cells(line);
    std::string bar, offset;
    if (text.empty() || !(cells >> bar >> offset) || bar != "|" || !std::isdigit(static_cast<unsigned char>(offset[0])))
      continue;
    if (!(cells >> bar) || block.size() != std::stoul(offset)) continue;
    for (std::string byte; cells >> byte && byte != "|";)
      block.push_back(static_cast<uint8_t>(std::stoul(byte, nullptr, 16)));
  }
  ASSERT_FALSE(text.empty());
  EXPECT_EQ(write(from_text(text)).block, block);
  expect_decodes(block, from_text(text));
}

// ---- Check ----

struct Broken {
  std::string reason;
  uint64_t offset;
};

Broken check(const Bytes& block) {
  const GuardedBuffer guarded(block, 0);
  kdzk_host_sqzb_report report;
  const uint32_t status = kdzk_host_sqzb_check(guarded.data(), block.size(), &report);
  EXPECT_EQ(status == KDZK_HOST_DONE, report.reason == std::string("well formed"));
  return {report.reason, report.offset};
}

void expect_broken(const Bytes& block, const std::string& reason, uint64_t offset) {
  const Broken got = check(block);
  EXPECT_EQ(got.reason, reason);
  EXPECT_EQ(got.offset, offset) << reason;
}

TEST(SqzbCheck, NamesReasonAndOffset) {
  const auto with = [](size_t at, uint8_t value) {
    Bytes block = five_symbols;
    block[at] = value;
    return block;
  };
  EXPECT_EQ(check(five_symbols).reason, "well formed");
  expect_broken(with(1, 'q'), "doesn't begin with SQZB", 1);
  expect_broken(with(4, 1), "unknown version", 4);
  expect_broken(with(5, 0), "the format flag is clear that must be set", 5);
  expect_broken(with(5, 3), "a format flag is set that must be clear", 5);
  expect_broken(with(5, 10), "a format flag is set that must be clear", 5);
  expect_broken(with(15, 8), "the codes make another number of bytes than the header says", 12);
  expect_broken(with(17, 0), "no symbol", 16);
  expect_broken(with(16, 4), "more than 1024 symbols", 16);
  expect_broken(with(19, 0x04), "a symbol of length 0", 19);
  expect_broken(with(20, 0x90), "a symbol longer than 8 bytes", 20);
  expect_broken(with(20, 0x60), "ends in the number of codes", 38);
  expect_broken(with(20, 0x80), "ends in the bytes of the symbols", 38);
  expect_broken(with(35, 6), "ends in the code stream", 38);
  expect_broken(with(36, 0x36), "a code without a symbol", 36);
  expect_broken(with(37, 0x70), "a code without a symbol", 37);
  expect_broken(with(11, 1), "ends in the bytes of the symbols", 38);
  expect_broken({}, "shorter than a header", 0);

  SqzbBlock block;
  block.symbols = {{'a'}, {'b'}, {'c', 'd'}};
  block.codes.assign(63, 2);
  EXPECT_EQ(check(block.bytes()).reason, "well formed");
  block.codes.push_back(0);
  expect_broken(block.bytes(), "64 or more codes of 1 or 2 bits", 24);
  block.codes.resize(10);
  block.aux_count = 1;
  block.aux_skip = 9;
  Bytes bytes = block.bytes();
  EXPECT_EQ(check(bytes).reason, "well formed");
  bytes[34] = 0xff;
  expect_broken(bytes, "the auxiliary section reaches past the end", 34);
  bytes.resize(37);
  expect_broken(bytes, "ends in the auxiliary section", 37);
  bytes.resize(25);
  expect_broken(bytes, "ends in the auxiliary table", 25);
  bytes.resize(19);
  expect_broken(bytes, "ends in the lengths of the symbols", 19);
}

// No part of a block is well formed, whatever is missing; more bytes behind it are not looked at.
TEST(SqzbCheck, SeesEachTruncation) {
  Random random("sqzb truncation");
  for (uint32_t width = 0; width <= 10; width++) {
    SqzbBlock block = random_sqzb_block(random, width, 50, 8);
    Bytes bytes = block.bytes();
    const size_t whole = bytes.size();
    if (width == 0) {  // with no stream, the four bytes of the auxiliary section may be the last
      block.aux_count = 0;
      bytes = block.bytes();
    }
    for (size_t size = 0; size < bytes.size(); size++) {
      const Broken got = check(Bytes(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size)));
      EXPECT_NE(got.reason, "well formed") << size << " of " << whole;
      EXPECT_LE(got.offset, size);
    }
    bytes.push_back(1);
    kdzk_host_sqzb_report report;
    EXPECT_EQ(kdzk_host_sqzb_check(bytes.data(), bytes.size(), &report), KDZK_HOST_DONE);
    EXPECT_EQ(report.block_size, bytes.size() - 1);
  }
}

}  // namespace
}  // namespace kdzk_test

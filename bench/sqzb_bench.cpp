// SPDX-License-Identifier: Apache-2.0
// The block decoder on blocks of up to 64 KiB of real text columns, at codes of 8, 9 and 10 bits, beside LZ4's decoder,
// a loop that copies symbols byte by byte, and a copy of the output. And on random codes of each width, where the rate
// per code is what counts: rows are codes throughout, bytes are those of the output.

#include <kdzk/host/sqzb.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>

#include "bench/bench.h"
#include "bench/peers/sqzb_peers.h"

namespace kdzk_bench {
namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t block_bytes = 64 * 1024;

[[noreturn]] void give_up(const std::string& why) {
  std::fprintf(stderr, "%s\n", why.c_str());
  std::exit(2);
}

// ---- Columns ----

using Column = std::vector<Bytes>;  // a string a row

Bytes whole_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return Bytes((std::istreambuf_iterator<char>(file)), {});
}

// Lines with their ends.
Column lines_of(const Bytes& text) {
  Column lines(1);
  for (const uint8_t c : text) {
    lines.back().push_back(c);
    if (c == '\n') lines.emplace_back();
  }
  lines.pop_back();
  return lines;
}

// One column of a file with a header line.
Column csv_column(const std::string& name, uint32_t column) {
  Column values;
  for (const Bytes& line : lines_of(whole_file(std::string(KDZK_SOURCE_DIR "/examples/data/") + name))) {
    Bytes value;
    uint32_t at = 0;
    bool quoted = false;
    for (const uint8_t c : line) {
      if (c == '"') {
        quoted = !quoted;
      } else if (c == ',' && !quoted) {
        at++;
      } else if (at == column && c != '\n') {
        value.push_back(c);
      }
    }
    values.push_back(value);
  }
  values.erase(values.begin());
  return values;
}

// Eight pieces of 64 KiB from all over a column; of a shorter column, all of it in eight orders of its rows.
std::vector<Bytes> pieces_of(Column column) {
  constexpr size_t count = 8;
  size_t size = 0;
  for (const Bytes& value : column) size += value.size();
  std::mt19937_64 random(1);
  std::vector<Bytes> pieces(count);
  for (size_t i = 0; i < count; i++) {
    size_t row = size < count * block_bytes ? 0 : column.size() / count * i;
    for (; row < column.size() && pieces[i].size() + column[row].size() <= block_bytes; row++)
      pieces[i].insert(pieces[i].end(), column[row].begin(), column[row].end());
    if (size < count * block_bytes) std::shuffle(column.begin(), column.end(), random);
  }
  return pieces;
}

// ---- Decoding ----

// Scratch that costs next to nothing: two pieces of one buffer.
struct Scratch {
  alignas(64) uint8_t bytes[16 * 1024];
  size_t used = 0;

  static void* take(void* self, uint64_t size, const char*, uint32_t, uint32_t, void**) {
    auto& scratch = *static_cast<Scratch*>(self);
    uint8_t* const at = scratch.bytes + scratch.used;
    scratch.used += (size + 63) / 64 * 64;
    return at;
  }
  static void give_back(void* self, void*, void*) { static_cast<Scratch*>(self)->used = 0; }
};

struct Block {
  Bytes bytes;  // and KDZK_PADDING behind them
  Bytes plain;
  uint32_t codes;
  Bytes lz4;
};

// A call decodes all blocks, one after the other to the same place, as a scan does: over and over the same block would
// let the branch predictor learn the symbols' lengths by heart, which helps those that branch on them.
struct Decoding {
  std::vector<Block> blocks;
  std::vector<uint64_t> words = std::vector<uint64_t>(block_bytes / 8);  // the destination
  uint64_t written = 0;
  Scratch scratch;
  kdzk_sqzb_ctx ctx{};

  explicit Decoding(std::vector<Block> made) : blocks(std::move(made)) {
    ctx.hctx = &scratch;
    ctx.tmp_alloc = Scratch::take;
    ctx.tmp_free = Scratch::give_back;
    ctx.dest = dst();
    for (Block& block : blocks) {
      if (lz4_version() != nullptr) block.lz4 = lz4_compress(block.plain.data(), size_of(block));
    }
  }

  uint8_t* dst() { return reinterpret_cast<uint8_t*>(words.data()); }
  static uint32_t size_of(const Block& block) { return static_cast<uint32_t>(block.plain.size()); }

  template <class Decode>  // gives the bytes produced
  void run(Decode decode) {
    written = 0;
    for (const Block& block : blocks) {
      written += decode(block);
      benchmark::ClobberMemory();
    }
  }

  // Before timing: that each block decodes to its bytes.
  template <class Decode>
  void check(Decode decode) {
    run([&](const Block& block) {
      std::memset(dst(), 0, block_bytes);
      const uint32_t size = decode(block);
      if (size != block.plain.size() || std::memcmp(dst(), block.plain.data(), size) != 0) give_up("a wrong decoder");
      return size;
    });
  }
};

void add_decoding(const std::string& kernel, const std::string& data, const std::vector<Block>& blocks,
                  bool with_peers) {
  uint64_t codes = 0, bytes = 0;
  for (const Block& block : blocks) {
    codes += block.codes;
    bytes += block.plain.size();
  }
  const auto make = [=] {
    auto d = std::make_shared<Decoding>(blocks);
    const auto answer = [=] { return Answer{d->written, d->words}; };
    std::vector<Peer> peers;
    const auto add = [&](const std::string& name, auto decode) {
      d->check(decode);
      peers.push_back({name, [=] { d->run(decode); }, answer});
    };
    add("kdzk", [d = d.get()](const Block& block) {
      uint32_t size = 0;
      library().sqzb_decode_x86(&d->ctx, block.bytes.data(), d->dst(), &size, Decoding::size_of(block));
      return size;
    });
    if (!with_peers) return peers;
    if (lz4_version() != nullptr) {
      add(lz4_version(),
          [d = d.get()](const Block& block) { return lz4_decompress(block.lz4, d->dst(), Decoding::size_of(block)); });
    }
    add("byte_loop", [d = d.get()](const Block& block) { return sqzb_byte_loop(block.bytes.data(), d->dst()); });
    add("memcpy", [d = d.get()](const Block& block) {
      std::memcpy(d->dst(), block.plain.data(), block.plain.size());
      return Decoding::size_of(block);
    });
    return peers;
  };
  add_group(kernel, data, codes, bytes, make);
}

void add_column(const std::string& name, const Column& column) {
  if (column.empty()) {
    std::fprintf(stderr, "%s: not there, left out\n", name.c_str());
    return;
  }
  for (const uint32_t width : {8u, 9u, 10u}) {
    std::vector<Block> blocks;
    for (const Bytes& plain : pieces_of(column)) {
      const auto size = static_cast<uint32_t>(plain.size());
      Bytes bytes(kdzk_host_sqzb_bound(size, width));
      uint64_t bytes_size = 0;
      kdzk_host_sqzb_report report;
      if (kdzk_host_sqzb_write(plain.data(), size, width, bytes.data(), bytes.size(), &bytes_size) != KDZK_HOST_DONE ||
          kdzk_host_sqzb_check(bytes.data(), bytes_size, &report) != KDZK_HOST_DONE)
        give_up("can't make a block of " + name);
      bytes.resize(bytes_size + KDZK_PADDING);
      blocks.push_back({bytes, plain, report.code_count, {}});
    }
    add_decoding("sqzb_decode_" + std::to_string(width) + "bit", name, blocks, true);
  }
}

// A block of uniformly distributed codes, with symbols of 1 to `longest` bytes. Width 0 is one symbol of that length.
void add_random(uint32_t width, uint32_t longest) {
  std::mt19937_64 random(width * 8 + longest);
  const uint32_t symbols = 1u << width;
  Bytes block = {'S', 'Q', 'Z', 'B', 0, 2, 0, 0, 0, 0, 0, 0}, bytes, plain, stream;
  std::vector<uint32_t> length(symbols), first(symbols);
  for (uint32_t i = 0; i < symbols; i++) {
    length[i] = width == 0 ? longest : static_cast<uint32_t>(1 + random() % longest);
    first[i] = static_cast<uint32_t>(bytes.size());
    for (uint32_t j = 0; j < length[i]; j++) bytes.push_back(static_cast<uint8_t>(random()));
  }
  uint32_t codes = 0, window = 0, bits = 0;
  for (; plain.size() + longest <= block_bytes; codes++) {
    const auto code = static_cast<uint32_t>(random() % symbols);
    const auto from = bytes.begin() + first[code];
    plain.insert(plain.end(), from, from + length[code]);
    window = window << width | code;
    for (bits += width; bits >= 8; bits -= 8) stream.push_back(static_cast<uint8_t>(window >> (bits - 8)));
  }
  stream.push_back(static_cast<uint8_t>(window << (8 - bits)));
  const auto append = [&](size_t number, int count) {
    for (int i = count - 1; i >= 0; i--) block.push_back(static_cast<uint8_t>(number >> (8 * i)));
  };
  append(plain.size(), 4);
  append(symbols, 2);
  for (uint32_t i = 0; i < symbols; i += 2) {
    block.push_back(static_cast<uint8_t>(length[i] << 4 | (i + 1 < symbols ? length[i + 1] : 0)));
  }
  block.insert(block.end(), bytes.begin(), bytes.end());
  append(codes, 4);
  block.insert(block.end(), stream.begin(), stream.end());
  const std::string data = (width == 0 ? "bytes_" : "bytes_1to") + std::to_string(longest);
  block.resize(block.size() + KDZK_PADDING);
  add_decoding("sqzb_decode_" + std::to_string(width) + "bit", data, {{block, plain, codes, {}}}, false);
}

}  // namespace

void add_sqzb() {
  add_column("words", lines_of(whole_file("/usr/share/dict/words")));
  add_column("names", csv_column("airports.csv", 1));
  add_column("cities", csv_column("airports.csv", 2));
  add_column("origins", csv_column("flights.csv", 4));
  add_column("destinations", csv_column("flights.csv", 5));
  for (const uint32_t width : {0u, 3u, 4u, 5u, 6u, 7u, 8u, 9u, 10u}) {
    add_random(width, 3);
    add_random(width, 8);
  }
}

}  // namespace kdzk_bench

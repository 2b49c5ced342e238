// SPDX-License-Identifier: Apache-2.0

#include "tests/support/sqzb_oracle.h"

#include <algorithm>

namespace kdzk_test {
namespace {

void append(Bytes& to, uint32_t value, int bytes) {
  for (int i = bytes - 1; i >= 0; i--) to.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

uint32_t number(std::span<const uint8_t> block, size_t at, int bytes) {
  uint32_t value = 0;
  for (int i = 0; i < bytes; i++) value = value << 8 | block[at + static_cast<size_t>(i)];
  return value;
}

constexpr size_t first_handle = 0x1000;

}  // namespace

uint32_t sqzb_code_width(size_t symbols) {
  uint32_t width = 0;
  while ((size_t{1} << width) < symbols) width++;
  return width;
}

Bytes SqzbBlock::decoded() const {
  Bytes out;
  for (const uint32_t code : codes) out.insert(out.end(), symbols[code].begin(), symbols[code].end());
  return out;
}

Bytes SqzbBlock::bytes() const {
  Bytes b = {'S', 'Q', 'Z', 'B', 0, format_flags, noise, noise, noise, noise};
  append(b, aux_count, 2);
  append(b, decoded_size.value_or(static_cast<uint32_t>(decoded().size())), 4);
  append(b, static_cast<uint32_t>(symbols.size()), 2);
  for (size_t i = 0; i < symbols.size(); i += 2) {
    const size_t low = i + 1 < symbols.size() ? symbols[i + 1].size() : noise & 15;
    b.push_back(static_cast<uint8_t>(symbols[i].size() << 4 | low));
  }
  if (has_aux()) b.insert(b.end(), 2 * symbols.size(), noise);
  for (const Bytes& symbol : symbols) b.insert(b.end(), symbol.begin(), symbol.end());
  append(b, static_cast<uint32_t>(codes.size()), 4);
  if (has_aux()) {
    append(b, aux_skip << 7 | (noise & 0x7f), 4);
    b.insert(b.end(), aux_skip - 4, noise);
  }
  const uint32_t width = sqzb_code_width(symbols.size());
  const size_t stream_bit = b.size() * 8, bits = codes.size() * width;
  b.insert(b.end(), (bits + 7) / 8, noise);
  for (size_t i = 0; i < bits; i++) {
    const bool set = codes[i / width] >> (width - 1 - i % width) & 1;
    uint8_t& byte = b[(stream_bit + i) / 8];
    const auto mask = static_cast<uint8_t>(0x80 >> i % 8);
    byte = static_cast<uint8_t>(set ? byte | mask : byte & ~mask);
  }
  return b;
}

Bytes sqzb_plain_decode(std::span<const uint8_t> block) {
  const bool aux = number(block, 10, 2) > 0 && number(block, 10, 2) < 0x8000;
  const size_t symbols = number(block, 16, 2);
  size_t at = 18 + (symbols + 1) / 2 + (aux ? 2 * symbols : 0);
  std::vector<Bytes> table;
  for (size_t i = 0; i < symbols; i++) {
    const uint32_t both = number(block, 18 + i / 2, 1), length = i % 2 == 0 ? both / 16 : both % 16;
    const auto from = block.begin() + static_cast<std::ptrdiff_t>(at);
    table.emplace_back(from, from + length);
    at += length;
  }
  const size_t codes = number(block, at, 4), width = sqzb_code_width(symbols);
  at += 4;
  if (aux) at += number(block, at, 4) >> 7;
  Bytes out;
  for (size_t k = 0; k < codes; k++) {
    size_t code = 0;
    for (size_t bit = k * width; bit < (k + 1) * width; bit++)
      code = code * 2 + (block[at + bit / 8] >> (7 - bit % 8) & 1);
    out.insert(out.end(), table[code].begin(), table[code].end());
  }
  return out;
}

SqzbBlock random_sqzb_block(Random& random, uint32_t width, uint32_t codes, uint32_t longest) {
  SqzbBlock block;
  const uint64_t most = uint64_t{1} << width, fewest = width == 0 ? 1 : most / 2 + 1;
  const uint64_t symbols = random.below(2) == 0 ? most : fewest + random.below(most - fewest + 1);
  for (uint64_t i = 0; i < symbols; i++) {
    Bytes symbol(1 + random.below(longest));
    for (uint8_t& byte : symbol) byte = static_cast<uint8_t>(random.bits());
    block.symbols.push_back(symbol);
  }
  for (uint32_t k = 0; k < codes; k++) block.codes.push_back(static_cast<uint32_t>(random.below(symbols)));
  block.noise = static_cast<uint8_t>(random.bits());
  block.format_flags = static_cast<uint8_t>((random.bits() | 2) & ~9u);
  switch (random.below(4)) {
    case 0:
      block.aux_count = static_cast<uint16_t>(0x8000 + random.below(0x8000));
      break;
    case 1:
      block.aux_count = static_cast<uint16_t>(1 + random.below(0x7fff));
      block.aux_skip = static_cast<uint32_t>(4 + random.below(20));
      break;
    default:
      break;
  }
  return block;
}

SqzbHost::SqzbHost() {
  ctx.hctx = this;
  ctx.heap = this + 1;  // not to be touched, nor is dest
  ctx.tmp_alloc = tmp_alloc;
  ctx.tmp_free = tmp_free;
  ctx.dest = nullptr;
}

void* SqzbHost::tmp_alloc(void* hctx, uint64_t size, const char* comment, uint32_t unit, uint32_t zero, void** out) {
  SqzbHost& host = *static_cast<SqzbHost*>(hctx);
  Alloc entry = {size, comment, unit, zero, out, *out, *out, nullptr, false};
  if (host.leaves_handles) *out = entry.handle = reinterpret_cast<void*>(first_handle + host.allocs.size());
  const size_t behind = (8 - size % 8) % 8;
  host.scratch_.push_back(std::make_unique<GuardedBuffer>(size, behind, fill));
  entry.scratch = host.scratch_.back()->data();
  host.allocs.push_back(entry);
  return entry.scratch;
}

void SqzbHost::tmp_free(void* hctx, void* scratch, void* out) {
  SqzbHost& host = *static_cast<SqzbHost*>(hctx);
  host.frees.push_back({scratch, out});
  for (size_t i = host.allocs.size(); i-- > 0;) {
    Alloc& alloc = host.allocs[i];
    if (alloc.scratch != scratch || alloc.freed) continue;
    alloc.freed = true;
    if (alloc.handle != out) host.complaint = "tmp_free gets another word than tmp_alloc left";
    const auto* const end = static_cast<const uint8_t*>(scratch) + alloc.size;
    if (std::any_of(end, end + (8 - alloc.size % 8) % 8, [](uint8_t byte) { return byte != fill; }))
      host.complaint = "written behind the scratch: " + alloc.comment;
    host.scratch_[i].reset();
    return;
  }
  host.complaint = "tmp_free of what wasn't allocated";
}

SqzbHost::Result SqzbHost::decode(std::span<const uint8_t> block, uint32_t capacity, size_t slack, uint8_t behind) {
  const GuardedBuffer src(block, slack, behind);
  GuardedBuffer dst(capacity, 0, fill);
  uint32_t written = not_written;
  const uint32_t status = library().sqzb_decode_x86(&ctx, src.data(), dst.data(), &written, capacity);
  return {status, written, Bytes(dst.data(), dst.data() + capacity)};
}

}  // namespace kdzk_test

// SPDX-License-Identifier: Apache-2.0
// The writer of SQZB blocks: chooses the symbols and encodes with them.
//
// All codes of a block have the same width, so the best parse of the data is the one with the fewest symbols, and
// dynamic programming from the end finds it: the fewest symbols from byte i on are one more than the fewest from behind
// the best symbol that stands at i. What is hard is the choice of symbols. They are found from above: the strings of 2
// to 8 bytes that repeat in the data, thousands of them, are all symbols at first, and then
//
//   parse with what there is --> what would it cost to lose each symbol? --> drop the cheapest --> parse ...
//
// until 1024 are left, 512, 256 and so on. A symbol costs its bytes and half a byte of length in the block; losing it
// costs, for each time the parse used it, the further codes that spell it by others. Dropping only a part at a time
// matters: those that could stand in for each other are used more when some of them are gone. At each power of two a
// few rounds also try symbols made of two neighbours in the parse, which strings that were dropped early come back by.
// The width whose block is the smallest wins.
//
//   candidates  8192          1024  ...  512  ...  256  ...      (each "..." several parses)
//                              |          |         |
//                           10 bits     9 bits    8 bits
//
// Invariants. While symbols are chosen, every byte value of the data is one and stays, so that each parse succeeds;
// those that the last parse doesn't use go at the end. Parsing uses integers alone and all sorts have total orders: the
// same data make the same block on every machine. Among parses with equally few symbols, training prefers the one with
// the commonest symbols, which makes rare ones rarer until they are dropped.

#include <kdzk/host/sqzb.h>

#include <algorithm>
#include <cstring>

#include "host/array.h"
#include "host/sqzb_format.h"

namespace kdzk_host::sqzb {
namespace {

constexpr uint32_t none = ~0u;
constexpr uint32_t max_candidates = 8192;
constexpr uint32_t stripe = 256;         // bytes of the sample that lie together
constexpr int refinements = 3;           // rounds of new symbols at each width
constexpr uint32_t extra_of_rarity = 8;  // of Parse::unit, in training, each time that a symbol is half as common

// A symbol's bytes, the first one on top, so that symbols compare as numbers.
struct Symbol {
  uint64_t bytes;
  uint8_t length;
  uint32_t uses;  // by the last parse
  int64_t worth;  // bits that the block would grow by without this symbol

  uint8_t byte(uint32_t i) const { return static_cast<uint8_t>(bytes >> (56 - 8 * i)); }
  bool same(const Symbol& other) const { return bytes == other.bytes && length == other.length; }
};

// By bytes. Of those that are the same, the one used most is first: `unique` keeps it.
bool in_order(const Symbol& a, const Symbol& b) {
  if (a.bytes != b.bytes) return a.bytes < b.bytes;
  return a.length != b.length ? a.length < b.length : a.uses > b.uses;
}

uint64_t top_bytes(uint64_t word, uint32_t length) {
  return length == 8 ? word : word >> (64 - 8 * length) << (64 - 8 * length);
}

uint64_t word_at(const uint8_t* at, uint64_t left) {
  uint64_t word = 0;
  if (left > 0) std::memcpy(&word, at, left < 8 ? left : 8);
  return __builtin_bswap64(word);
}

// ---- Finding the symbols that stand at a place: a trie ----

class Trie {
 public:
  bool build(const Array<Symbol>& symbols) {
    uint64_t nodes = 1;
    for (const Symbol& symbol : symbols) nodes += symbol.length;
    uint32_t log = 10;
    while ((uint64_t{1} << log) < 2 * nodes) log++;
    shift_ = 64 - log;
    mask_ = (1u << log) - 1;
    if (!edges_.assign(uint64_t{1} << log, Edge{none, none})) return false;
    if (!symbol_of_.assign(nodes, none)) return false;
    for (uint32_t& node : first_) node = none;
    used_ = 0;
    for (uint32_t i = 0; i < symbols.size(); i++) {
      uint32_t& first = first_[symbols[i].byte(0)];
      if (first == none) first = used_++;
      uint32_t node = first;
      for (uint32_t j = 1; j < symbols[i].length; j++) {
        Edge& edge = edges_[slot(key(node, symbols[i].byte(j)))];
        if (edge.key == none) edge = {key(node, symbols[i].byte(j)), used_++};
        node = edge.node;
      }
      symbol_of_[node] = i;
    }
    return true;
  }

  // Calls found(symbol, length) for each symbol that the `left` bytes at `at` begin with, shorter ones first.
  template <class Found>
  void each(const uint8_t* at, uint64_t left, Found found) const {
    const uint32_t most = left < max_length ? static_cast<uint32_t>(left) : max_length;
    uint32_t node = first_[at[0]];
    for (uint32_t length = 1; node != none; length++) {
      if (symbol_of_[node] != none) found(symbol_of_[node], length);
      if (length == most) return;
      node = edges_[slot(key(node, at[length]))].node;
    }
  }

 private:
  struct Edge {
    uint32_t key, node;
  };

  static uint32_t key(uint32_t node, uint8_t byte) { return node << 8 | byte; }

  // Where the edge is, or the free place where it would be.
  uint32_t slot(uint32_t key) const {
    uint32_t at = static_cast<uint32_t>(key * UINT64_C(0x9e3779b97f4a7c15) >> shift_);
    while (edges_[at].key != key && edges_[at].key != none) at = (at + 1) & mask_;
    return at;
  }

  uint32_t first_[256];
  Array<Edge> edges_;
  Array<uint32_t> symbol_of_;
  uint32_t shift_ = 0, mask_ = 0, used_ = 0;
};

// ---- Parsing ----

// The cheapest way to spell some bytes, by dynamic programming from the end.
class Parse {
 public:
  // What a code costs. In training rarer symbols cost a little more, by the `extra` of each; null for none.
  static constexpr uint32_t unit = 1024;
  static constexpr uint64_t most_bytes = KDZK_HOST_SQZB_SAMPLE;  // whose cost stays below `impossible`
  static constexpr uint32_t impossible = 1u << 31;               // some bytes have no symbol

  bool run(const Trie& trie, const uint8_t* data, uint64_t size, const uint16_t* extra) {
    if (!cost_.assign(size + 1, 0) || !choice_.assign(size, Choice{0, 0})) return false;
    for (uint64_t i = size; i-- > 0;) {
      uint32_t best = impossible;
      Choice choice{0, 0};
      trie.each(data + i, size - i, [&](uint32_t symbol, uint32_t length) {
        const uint32_t cost = cost_[i + length] + unit + (extra != nullptr ? extra[symbol] : 0);
        if (cost > best) return;  // among equals the longest
        best = cost;
        choice = {static_cast<uint16_t>(symbol), static_cast<uint16_t>(length)};
      });
      cost_[i] = best;
      choice_[i] = choice;
    }
    return true;
  }

  // The symbols of the parse, in order.
  template <class Visit>
  void each(Visit visit) const {
    for (uint64_t i = 0; i < choice_.size(); i += choice_[i].length) visit(uint32_t{choice_[i].symbol});
  }

 private:
  struct Choice {
    uint16_t symbol, length;
  };
  Array<uint32_t> cost_;
  Array<Choice> choice_;
};

// ---- Choosing the symbols ----

// Bits that a symbol takes in the block, besides its codes.
int64_t table_bits(const Symbol& symbol) { return 8 * symbol.length + 4; }

// Each byte value of the data.
bool add_single_bytes(const uint8_t* data, uint64_t size, Array<Symbol>& symbols) {
  bool present[256] = {};
  for (uint64_t i = 0; i < size; i++) present[data[i]] = true;
  for (uint32_t byte = 0; byte < 256; byte++) {
    if (present[byte] && !symbols.push({uint64_t{byte} << 56, 1, 0, 0})) return false;
  }
  return true;
}

class Training {
 public:
  // The best set of symbols so far, and the size of its block as far as the sample tells.
  Array<Symbol> best;
  uint64_t best_bytes = ~uint64_t{0};

  bool start(const uint8_t* data, uint32_t size) {
    size_ = size;
    if (!take_sample(data, size) || !add_single_bytes(data, size, symbols_)) return false;
    singles_ = static_cast<uint32_t>(symbols_.size());
    return add_candidates();
  }

  uint32_t single_bytes() const { return singles_; }

  // Drops symbols until no more than `target` are left, tries further ones, and keeps the best set in `best`.
  bool go_down_to(uint32_t target) {
    width_ = width_of(target);
    if (!drop_to(target) || !keep_if_better()) return false;
    for (int i = 0; i < refinements; i++) {
      if (!add_neighbours(target / 4) || !drop_to(target) || !keep_if_better()) return false;
    }
    return true;
  }

 private:
  Array<uint8_t> sample_;
  Array<Symbol> symbols_;
  Array<uint16_t> extra_;
  Trie trie_;
  Parse parse_;
  uint64_t size_ = 0;
  uint64_t codes_ = 0;  // of the last parse
  uint32_t singles_ = 0;
  uint32_t width_ = 0;

  bool take_sample(const uint8_t* data, uint64_t size) {
    if (!sample_.assign(std::min<uint64_t>(size, KDZK_HOST_SQZB_SAMPLE), 0)) return false;
    if (size <= KDZK_HOST_SQZB_SAMPLE) {
      if (size > 0) std::memcpy(sample_.begin(), data, size);
      return true;
    }
    constexpr uint64_t stripes = KDZK_HOST_SQZB_SAMPLE / stripe;
    for (uint64_t i = 0; i < stripes; i++) {
      std::memcpy(sample_.begin() + i * stripe, data + (size - stripe) * i / (stripes - 1), stripe);
    }
    return true;
  }

  // Strings that repeat. Where all that begin alike go on alike, only the longest of them counts.
  bool add_candidates() {
    const uint64_t n = sample_.size();
    Array<uint64_t> words;
    Array<Symbol> found;
    if (!words.reserve(n)) return false;
    for (uint64_t i = 0; i < n; i++) {
      if (!words.push(word_at(&sample_[i], n - i))) return false;
    }
    std::sort(words.begin(), words.end());
    for (uint32_t length = 2; length <= max_length; length++) {
      for (uint64_t i = 0; i < n;) {
        const uint64_t bytes = top_bytes(words[i], length);
        uint64_t end = i, longer_begin = i, longer_most = 0;
        for (; end < n && top_bytes(words[end], length) == bytes; end++) {
          if (length == max_length) continue;
          if (top_bytes(words[end], length + 1) != top_bytes(words[longer_begin], length + 1)) longer_begin = end;
          longer_most = std::max(longer_most, end + 1 - longer_begin);
        }
        const uint64_t count = end - i;
        i = end;
        if (count < 2 || longer_most == count) continue;
        const auto worth = static_cast<int64_t>(count * (length - 1));
        if (!found.push({bytes, static_cast<uint8_t>(length), static_cast<uint32_t>(count), worth})) return false;
      }
    }
    return add_best(found, max_candidates);
  }

  // Adds the `most` symbols of most worth that are worth something and aren't there yet.
  bool add_best(Array<Symbol>& found, uint32_t most) {
    std::sort(found.begin(), found.end(),
              [](const Symbol& a, const Symbol& b) { return a.worth != b.worth ? a.worth > b.worth : in_order(a, b); });
    for (uint64_t i = 0; i < found.size() && i < most && found[i].worth > 0; i++) {
      if (!symbols_.push(found[i])) return false;
    }
    std::sort(symbols_.begin(), symbols_.end(), in_order);
    const Symbol* const end =
        std::unique(symbols_.begin(), symbols_.end(), [](const Symbol& a, const Symbol& b) { return a.same(b); });
    symbols_.shrink(static_cast<size_t>(end - symbols_.begin()));
    return true;
  }

  // Parses the sample with all symbols and notes their uses. Uses of the parse before make the `extra` costs.
  bool parse() {
    if (!trie_.build(symbols_) || !extra_.assign(symbols_.size(), 0)) return false;
    for (uint64_t i = 0; i < symbols_.size(); i++) {
      uint32_t rarity = 0;
      for (uint64_t uses = symbols_[i].uses; uses < sample_.size() && rarity < 16; uses = 2 * uses + 1) rarity++;
      extra_[i] = static_cast<uint16_t>(extra_of_rarity * rarity);
    }
    if (!parse_.run(trie_, sample_.begin(), sample_.size(), extra_.begin())) return false;
    for (Symbol& symbol : symbols_) symbol.uses = 0;
    codes_ = 0;
    parse_.each([&](uint32_t symbol) {
      symbols_[symbol].uses++;
      codes_++;
    });
    for (Symbol& symbol : symbols_) {
      symbol.worth =
          symbol.length == 1
              ? INT64_MAX
              : static_cast<int64_t>(scaled(symbol.uses) * (codes_without(symbol) - 1) * width_) - table_bits(symbol);
    }
    return true;
  }

  uint64_t scaled(uint64_t in_sample) const { return sample_.size() == 0 ? 0 : in_sample * size_ / sample_.size(); }

  // Codes that spell a symbol without itself.
  uint32_t codes_without(const Symbol& symbol) const {
    uint8_t bytes[max_length];
    for (uint32_t i = 0; i < symbol.length; i++) bytes[i] = symbol.byte(i);
    uint32_t codes[max_length + 1] = {};
    for (uint32_t i = symbol.length; i-- > 0;) {
      codes[i] = max_length;
      trie_.each(bytes + i, symbol.length - i, [&](uint32_t, uint32_t length) {
        if (length < symbol.length) codes[i] = std::min(codes[i], codes[i + length] + 1);
      });
    }
    return codes[0];
  }

  // Parses and drops until no more than `target` symbols are left and each one is worth its place. Single bytes stay.
  bool drop_to(uint32_t target) {
    for (;;) {
      if (!parse()) return false;
      const uint64_t n = symbols_.size();
      uint64_t worthless = 0;
      for (const Symbol& symbol : symbols_) worthless += symbol.worth <= 0;
      // At most a quarter at once, and an eighth of those that there would be room for: what stands in for them gains.
      uint64_t drop = n > target ? std::min(n - target, std::max<uint64_t>(n / 4, 1)) : 0;
      drop = std::max(drop, std::min(worthless, std::max<uint64_t>(n / 8, 1)));
      drop = std::min(drop, n - std::min<uint64_t>(n, singles_));
      if (drop == 0) return true;
      std::sort(symbols_.begin(), symbols_.end(), [](const Symbol& a, const Symbol& b) {
        return a.worth != b.worth ? a.worth > b.worth : in_order(a, b);
      });
      symbols_.shrink(n - drop);
      std::sort(symbols_.begin(), symbols_.end(), in_order);
    }
  }

  bool keep_if_better() {
    uint64_t symbol_bytes = 0;
    for (const Symbol& symbol : symbols_) symbol_bytes += symbol.length;
    auto n = static_cast<uint32_t>(symbols_.size());
    if (narrow(width_of(n)) && codes_ >= narrow_codes_below) n = fewest_symbols(3);  // it would have to be padded
    const uint64_t bytes = block_bytes(n, symbol_bytes, scaled(codes_));
    if (bytes >= best_bytes) return true;
    best_bytes = bytes;
    return best.copy(symbols_);
  }

  // Adds up to `most` symbols made of two neighbours in the last parse.
  bool add_neighbours(uint32_t most) {
    Array<uint32_t> pairs;
    if (!pairs.reserve(codes_)) return false;
    uint32_t before = none;
    bool pushed = true;
    parse_.each([&](uint32_t symbol) {
      if (before != none && symbols_[before].length + symbols_[symbol].length <= int{max_length})
        pushed = pairs.push(before << 16 | symbol) && pushed;
      before = symbol;
    });
    if (!pushed) return false;
    std::sort(pairs.begin(), pairs.end());
    Array<Symbol> found;
    for (uint64_t i = 0; i < pairs.size();) {
      uint64_t end = i;
      while (end < pairs.size() && pairs[end] == pairs[i]) end++;
      const Symbol &left = symbols_[pairs[i] >> 16], &right = symbols_[pairs[i] & 0xffff];
      Symbol both = {left.bytes | right.bytes >> 8 * left.length, static_cast<uint8_t>(left.length + right.length),
                     static_cast<uint32_t>(end - i), 0};
      both.worth = static_cast<int64_t>(scaled(both.uses) * width_) - table_bits(both);
      i = end;
      if (!found.push(both)) return false;
    }
    return add_best(found, most);
  }
};

// ---- Writing the block ----

void put_be16(uint8_t* at, uint32_t value) {
  at[0] = static_cast<uint8_t>(value >> 8);
  at[1] = static_cast<uint8_t>(value);
}
void put_be32(uint8_t* at, uint32_t value) {
  put_be16(at, value >> 16);
  put_be16(at + 2, value);
}

// The longest string of 1 to 8 bytes that repeated makes the data, or 0.
uint32_t period_of(const uint8_t* data, uint32_t size) {
  for (uint32_t period = max_length; period > 0; period--) {
    if (size % period == 0 && size >= period && std::memcmp(data, data + period, size - period) == 0) return period;
  }
  return 0;
}

// Writes header and tables and returns their end, or 0 if there is no room.
uint64_t write_tables(const Array<Symbol>& symbols, uint32_t decoded_size, uint8_t* block, uint64_t room) {
  const auto n = static_cast<uint32_t>(symbols.size());
  uint64_t symbol_bytes = 0;
  for (const Symbol& symbol : symbols) symbol_bytes += symbol.length;
  if (block_bytes(n, symbol_bytes, 0) > room) return 0;
  std::memset(block, 0, lengths_at + (n + 1) / 2);
  std::memcpy(block, magic, sizeof magic);
  block[flags_at] = flag_must_be_set;
  put_be32(block + decoded_size_at, decoded_size);
  put_be16(block + symbol_count_at, n);
  uint64_t at = lengths_at + (n + 1) / 2;
  for (uint32_t i = 0; i < n; i++) {
    block[lengths_at + i / 2] |= static_cast<uint8_t>(i % 2 == 0 ? symbols[i].length << 4 : symbols[i].length);
    for (uint32_t j = 0; j < symbols[i].length; j++) block[at++] = symbols[i].byte(j);
  }
  return at;
}

// The stream, most significant bit first.
class Stream {
 public:
  Stream(uint8_t* at, const uint8_t* end, uint32_t width) : at_(at), end_(end), width_(width) {}

  bool put(uint32_t code) {
    window_ = window_ << width_ | code;
    bits_ += width_;
    count_++;
    while (bits_ >= 8) {
      if (at_ == end_) return false;
      bits_ -= 8;
      *at_++ = static_cast<uint8_t>(window_ >> bits_);
    }
    return true;
  }

  bool finish() {
    if (bits_ == 0) return true;
    if (at_ == end_) return false;
    *at_++ = static_cast<uint8_t>(window_ << (8 - bits_));
    return true;
  }

  uint8_t* end() const { return at_; }
  uint32_t count() const { return count_; }

 private:
  uint8_t* at_;
  const uint8_t* end_;
  uint32_t width_, bits_ = 0, count_ = 0;
  uint64_t window_ = 0;
};

uint32_t write_with(const Array<Symbol>& symbols, const uint8_t* data, uint32_t size, uint8_t* block, uint64_t room,
                    uint64_t* block_size) {
  const uint64_t count_at = write_tables(symbols, size, block, room);
  if (count_at == 0) return KDZK_HOST_NO_ROOM;
  const uint32_t width = width_of(static_cast<uint32_t>(symbols.size()));
  Stream stream(block + count_at + 4, block + room, width);
  Trie trie;
  Parse parse;
  if (!trie.build(symbols)) return KDZK_HOST_NO_MEMORY;
  for (uint64_t from = 0; from < size; from += Parse::most_bytes) {
    const uint64_t bytes = std::min<uint64_t>(size - from, Parse::most_bytes);
    if (!parse.run(trie, data + from, bytes, nullptr)) return KDZK_HOST_NO_MEMORY;
    bool fits = true;
    parse.each([&](uint32_t code) { fits = fits && stream.put(code); });
    if (!fits) return KDZK_HOST_NO_ROOM;
  }
  if (!stream.finish()) return KDZK_HOST_NO_ROOM;
  if (narrow(width) && stream.count() >= narrow_codes_below) return KDZK_HOST_NO_BLOCK;
  put_be32(block + count_at, stream.count());
  *block_size = static_cast<uint64_t>(stream.end() - block);
  return KDZK_HOST_DONE;
}

// Drops the symbols that no code would name, single bytes too, if one parse sees all the data.
bool drop_unused(Array<Symbol>& symbols, const uint8_t* data, uint32_t size) {
  if (size > Parse::most_bytes) return true;
  Trie trie;
  Parse parse;
  if (!trie.build(symbols) || !parse.run(trie, data, size, nullptr)) return false;
  for (Symbol& symbol : symbols) symbol.uses = 0;
  parse.each([&](uint32_t symbol) { symbols[symbol].uses++; });
  const Symbol* const end =
      std::remove_if(symbols.begin(), symbols.end(), [](const Symbol& symbol) { return symbol.uses == 0; });
  symbols.shrink(static_cast<size_t>(end - symbols.begin()));
  return true;
}

// Symbols that no code names, up to the fewest that a width has.
bool pad(Array<Symbol>& symbols, uint32_t fewest) {
  const Symbol filler = symbols.size() > 0 ? Symbol{symbols[0].bytes, symbols[0].length, 0, 0} : Symbol{0, 1, 0, 0};
  while (symbols.size() < fewest) {
    if (!symbols.push(filler)) return false;
  }
  return true;
}

uint32_t write(const uint8_t* data, uint32_t size, uint32_t width, uint8_t* block, uint64_t room,
               uint64_t* block_size) {
  const bool any = width == KDZK_HOST_SQZB_ANY_WIDTH;
  if (!any && width > KDZK_HOST_SQZB_MAX_WIDTH) return KDZK_HOST_NO_BLOCK;
  if (any || width == 0) {
    Array<Symbol> one;
    const uint32_t period = size == 0 ? 1 : period_of(data, size);
    if (period > 0) {
      if (!one.push({top_bytes(word_at(data, size), period), static_cast<uint8_t>(period), 0, 0}))
        return KDZK_HOST_NO_MEMORY;
      return write_with(one, data, size, block, room, block_size);
    }
    if (!any) return KDZK_HOST_NO_BLOCK;
  }

  Training training;
  if (!training.start(data, size)) return KDZK_HOST_NO_MEMORY;
  const uint32_t singles = training.single_bytes();
  if (!any) {
    if (singles > 1u << width) return KDZK_HOST_NO_BLOCK;
    if (!training.go_down_to(1u << width) || !drop_unused(training.best, data, size) ||
        !pad(training.best, fewest_symbols(width)))
      return KDZK_HOST_NO_MEMORY;
    return write_with(training.best, data, size, block, room, block_size);
  }
  const uint32_t narrowest = size < narrow_codes_below * max_length ? 1 : 3;
  int worse = 0;
  for (uint32_t down = KDZK_HOST_SQZB_MAX_WIDTH; down >= narrowest && singles <= 1u << down && worse < 2; down--) {
    const uint64_t before = training.best_bytes;
    if (!training.go_down_to(1u << down)) return KDZK_HOST_NO_MEMORY;
    worse = training.best_bytes < before ? 0 : worse + 1;
  }
  if (!drop_unused(training.best, data, size)) return KDZK_HOST_NO_MEMORY;
  // What the sample promised may not come true: no block is longer than the one with a code for each byte.
  const uint64_t plain_bytes =
      block_bytes(std::max(singles, fewest_symbols(3)), std::max(singles, fewest_symbols(3)), size);
  const uint64_t enough = std::min(room, plain_bytes);
  uint32_t status = write_with(training.best, data, size, block, enough, block_size);
  if (status == KDZK_HOST_NO_BLOCK) {
    if (!pad(training.best, fewest_symbols(3))) return KDZK_HOST_NO_MEMORY;
    status = write_with(training.best, data, size, block, enough, block_size);
  }
  if (status != KDZK_HOST_NO_ROOM || room < plain_bytes) return status;
  training.best.clear();
  if (!add_single_bytes(data, size, training.best) || !pad(training.best, fewest_symbols(3)))
    return KDZK_HOST_NO_MEMORY;
  return write_with(training.best, data, size, block, room, block_size);
}

}  // namespace
}  // namespace kdzk_host::sqzb

uint64_t kdzk_host_sqzb_bound(uint32_t size, uint32_t width) {
  using namespace kdzk_host::sqzb;
  // Any width: all 256 bytes as symbols, with codes of 8 bits, are always possible.
  if (width == KDZK_HOST_SQZB_ANY_WIDTH) return block_bytes(256, 256, size);
  const uint32_t symbols = 1u << (width < KDZK_HOST_SQZB_MAX_WIDTH ? width : KDZK_HOST_SQZB_MAX_WIDTH);
  return block_bytes(symbols, uint64_t{max_length} * symbols, size);
}

uint32_t kdzk_host_sqzb_write(const void* src, uint32_t size, uint32_t width, void* block, uint64_t room,
                              uint64_t* block_size) {
  return kdzk_host::sqzb::write(static_cast<const uint8_t*>(src), size, width, static_cast<uint8_t*>(block), room,
                                block_size);
}

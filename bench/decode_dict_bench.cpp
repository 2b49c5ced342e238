// SPDX-License-Identifier: Apache-2.0
// Dictionary decode of a row list, symbol decode of native codes, and the copy of the symbols' bytes.
//
// Peers: `plain_loop` does the same row by row, without a branch on the data; `memcpy_loop` copies each symbol by a
// call of memcpy; `bare_write` only stores as many bytes. Bytes per second count what is written.

#include <algorithm>
#include <cstring>
#include <memory>
#include <numeric>
#include <random>

#include "bench/bench.h"
#include "bench/peers/decode_dict_loops.h"

namespace kdzk_bench {
namespace {

constexpr uint32_t beyond_caches = 8 * 1024 * 1024;  // rows; 96 MiB of output
std::string size_of(uint32_t rows) { return rows == beyond_caches ? "8Mi" : size_name(rows); }

enum class Order { ascending, shuffled };

// Codes below `dict_size` and all they stand for, in every form that a peer reads.
struct Column {
  std::vector<uint32_t> codes, rows, offsets;
  std::vector<uint8_t> stream, native, symbols, value_len;
  std::vector<uint64_t> addresses, lengths, indicators, values;
  kdzk_enc_ctx enc{};
  kdzk_vec input{}, result{};
  kdzk_exec exec{};

  // A symbol length of 0 makes a dictionary of lengths 0 to 15.
  Column(uint32_t n, uint32_t dict_size, uint32_t length, uint32_t copied_bytes = 0)
      : codes(n), offsets(dict_size + 1), value_len{static_cast<uint8_t>(length >> 8), static_cast<uint8_t>(length)} {
    std::mt19937 engine(1);
    for (uint32_t& code : codes) code = engine() % dict_size;
    uint32_t at = 0;
    for (uint32_t& offset : offsets) {
      offset = __builtin_bswap32(at);
      at += engine() % 16;
    }
    symbols.resize(uint64_t{dict_size} * std::max(length, 16u));
    for (uint8_t& byte : symbols) byte = static_cast<uint8_t>(engine());
    enc.base = symbols.data();
    enc.value_len = value_len.data();
    enc.offsets = reinterpret_cast<const uint8_t*>(offsets.data());
    enc.dict_size = dict_size;
    enc.dict_mode = length == 0 ? 1 : 0;
    input.enc_ctx = &enc;
    input.nrows = n;
    if (copied_bytes == 0) {
      addresses.resize(n);
      lengths.resize(n / 4);
      indicators.resize(n / 4);
    }
    values.resize((uint64_t{n} * copied_bytes + 7) / 8);
    result.data = copied_bytes > 0 ? values.data() : addresses.data();
    result.lengths = lengths.data();
    result.indicators = indicators.data();
  }

  void pack(int width) {
    stream.resize(codes.size() * static_cast<size_t>(width) / 8 + KDZK_PADDING);
    uint64_t bit = 0;
    for (uint32_t code : codes) {
      for (int b = width - 1; b >= 0; b--, bit++) {
        stream[bit / 8] |= static_cast<uint8_t>((code >> b & 1) << (7 - bit % 8));
      }
    }
    input.data = stream.data();
  }

  void list(Order order) {
    rows.resize(codes.size());
    std::iota(rows.begin(), rows.end(), 0);
    if (order == Order::shuffled) std::shuffle(rows.begin(), rows.end(), std::mt19937(2));
    exec.ones_vec = rows.data();
    exec.ones_vec_size = static_cast<uint32_t>(rows.size());
  }

  void widen(int bytes) {
    native.resize(codes.size() * static_cast<size_t>(bytes));
    for (size_t i = 0; i < codes.size(); i++) {
      std::memcpy(native.data() + i * static_cast<size_t>(bytes), &codes[i], static_cast<size_t>(bytes));
    }
    input.data = native.data();
  }

  Dictionary dictionary() const {
    const uint32_t length = static_cast<uint32_t>(value_len[0] << 8 | value_len[1]);
    return {symbols.data(), length, offsets.data()};
  }
  SymbolArrays out() {
    return {addresses.data(), reinterpret_cast<uint16_t*>(lengths.data()),
            reinterpret_cast<uint16_t*>(indicators.data())};
  }
  Answer answer() {
    std::vector<uint64_t> all = addresses;
    for (const auto* part : {&lengths, &indicators, &values}) all.insert(all.end(), part->begin(), part->end());
    std::memset(addresses.data(), 0xff, addresses.size() * 8);  // so that no peer lives on another's work
    std::memset(lengths.data(), 0xff, lengths.size() * 8);
    std::memset(indicators.data(), 0xff, indicators.size() * 8);
    std::memset(values.data(), 0xff, values.size() * 8);
    return {codes.size(), all};
  }
  void run(kdzk_kernel kernel) { kernel.decode(&result, &input, &exec); }
};

kdzk_kernel kernel_of(int width, uint32_t operation) {
  const uint32_t row = kdzk_row_of_width(static_cast<uint32_t>(width));
  return library().dispatch[kdzk_id_of_kind(kdzk_kind_of(row, KDZK_FAMILY_DICT), operation)];
}

const char* form(uint32_t length) { return length == 0 ? "_variable" : "_fixed"; }

void add_listed(int width, uint32_t length, Order order, uint32_t n) {
  const std::string data = size_of(n) + (order == Order::ascending ? "_ascending" : "_shuffled");
  add_group("decode_dict_" + std::to_string(width) + "bit" + form(length), data, n, uint64_t{n} * 12, [=] {
    const uint32_t dict_size = width < 12 ? 1u << width : 4096;
    const auto column = std::make_shared<Column>(n, dict_size, length);
    column->pack(width);
    column->list(order);
    const kdzk_kernel kernel = kernel_of(width, KDZK_OP_DECODE);
    const auto answer = [=] { return column->answer(); };
    return std::vector<Peer>{{"kdzk", [=] { column->run(kernel); }, answer},
                             {"plain_loop",
                              [=] {
                                decode_listed(column->stream.data(), width, column->rows.data(), n,
                                              column->dictionary(), column->out());
                              },
                              answer},
                             {"bare_write", [=] { bare_write(n, column->out()); }, nullptr}};
  });
}

void add_native(int width, uint32_t length, uint32_t n) {
  add_group("decode_symbol_" + std::to_string(width) + "bit" + form(length), size_of(n), n, uint64_t{n} * 12, [=] {
    const auto column = std::make_shared<Column>(n, width == 8 ? 256 : 4096, length);
    column->widen(width / 8);
    const kdzk_kernel kernel = kernel_of(width, KDZK_OP_DECODE_SYMBOL);
    const auto answer = [=] { return column->answer(); };
    return std::vector<Peer>{
        {"kdzk", [=] { column->run(kernel); }, answer},
        {"plain_loop", [=] { decode_native(column->native.data(), width / 8, n, column->dictionary(), column->out()); },
         answer},
        {"bare_write", [=] { bare_write(n, column->out()); }, nullptr}};
  });
}

void add_copy(uint32_t length, uint32_t dict_size, uint32_t n) {
  const std::string symbols = std::to_string(dict_size) + "_symbols_of_" + std::to_string(length);
  add_group("copy_values_32bit", size_of(n) + "_" + symbols, n, uint64_t{n} * length, [=] {
    const auto column = std::make_shared<Column>(n, dict_size, length, length);
    column->widen(4);
    column->exec.flags2 = KDZK_EX_COPY_VALUES;
    const kdzk_kernel kernel = kernel_of(32, KDZK_OP_DECODE_SYMBOL);
    const auto answer = [=] { return column->answer(); };
    const auto out = [=] { return reinterpret_cast<uint8_t*>(column->values.data()); };
    std::vector<Peer> peers = {
        {"kdzk", [=] { column->run(kernel); }, answer},
        {"memcpy_loop", [=] { copy_symbols(column->codes.data(), n, column->dictionary(), out()); }, answer}};
    if (length == 1 || length == 2 || length == 4 || length == 8) {
      peers.push_back({"plain_loop",
                       [=] { copy_symbols_of_constant_length(column->codes.data(), n, column->dictionary(), out()); },
                       answer});
    }
    return peers;
  });
}

}  // namespace

void add_decode_dict() {
  for (const uint32_t n : {in_cache, beyond_caches}) {
    for (const uint32_t length : {12u, 0u}) {
      for (const int width : {1, 5, 8, 13, 16, 20, 32}) {
        for (const Order order : {Order::ascending, Order::shuffled}) add_listed(width, length, order, n);
      }
      for (const int width : {8, 16, 32}) add_native(width, length, n);
    }
    add_copy(1, 10, n);
    for (const uint32_t length : {1u, 2u, 3u, 4u, 6u, 8u, 12u, 20u, 40u}) add_copy(length, 1000, n);
  }
}

}  // namespace kdzk_bench

// SPDX-License-Identifier: Apache-2.0
// Predicates on uniformly distributed codes and values, in cache and from memory.
//
// Peers: `plain_loop` compares the same stored bytes row by row, without a branch on the data; `loop_with_if` with one;
// `unpacked` is a plain loop over native codes that somebody has unpacked before; `unpack_first` unpacks and then
// compares; `bare_read` only reads the same bytes; `twin` and `lt` are other kernels of ours on the same bytes.

#include <cmath>
#include <cstring>
#include <memory>

#include "bench/bench.h"
#include "bench/peers/plain_loops.h"

namespace kdzk_bench {
namespace {

struct Family {
  const char* form;
  const char* suffix;
  uint32_t family, variant;
};
constexpr Family dict = {"dict", "", KDZK_FAMILY_DICT, 0}, dict_null = {"dict", "_null", KDZK_FAMILY_DICT, 32};
constexpr Family fixed = {"fixed", "", KDZK_FAMILY_FIXED, 0}, fixed_tz = {"fixed", "_tz", KDZK_FAMILY_FIXED, 32};
constexpr Family dynp = {"dynp", "", KDZK_FAMILY_DYNP, 0}, dynp_tz = {"dynp", "_tz", KDZK_FAMILY_DYNP, 32};

struct Op {
  const char* word;
  uint32_t number;
};
constexpr Op eq = {"eq", KDZK_OP_EQ}, lt = {"lt", KDZK_OP_LT}, ne = {"ne", KDZK_OP_NE};
constexpr Op gt_lt = {"gt_lt", KDZK_OP_GT_LT}, ge_le = {"ge_le", KDZK_OP_GE_LE};

std::string name_of(Op op, const Family& family, int width) {
  return std::string(op.word) + "_" + family.form + "_" + std::to_string(width) + "bit" + family.suffix;
}

// The value below which this part of all values of `width` bits lies.
uint64_t at_part(double part, int width) { return static_cast<uint64_t>(std::ldexp(part, width)); }

uint64_t stream_bytes(int width, uint32_t nrows) { return uint64_t{nrows} * static_cast<uint64_t>(width) / 8; }

// One call of a kernel, with all that it needs. Constants are native here, values left-aligned in the width.
class Call {
 public:
  kdzk_vec result{};
  std::vector<uint64_t> bits;

  Call(Op op, const Family& family, int width, int value_bytes, uint64_t low, uint64_t high, const uint8_t* data,
       const uint8_t* lengths, uint32_t nrows)
      : bits((uint64_t{nrows} + 63) / 64), two_sided_(op.number >= KDZK_OP_GT_LT) {
    const uint32_t row = kdzk_row_of_width(static_cast<uint32_t>(width)) + family.variant;
    kernel_ = library().dispatch[kdzk_id_of_kind(kdzk_kind_of(row, family.family), op.number)];
    enc_.width = static_cast<uint8_t>(8 * value_bytes);
    input_.data = const_cast<uint8_t*>(data);
    input_.lengths = const_cast<uint8_t*>(lengths);
    input_.enc_ctx = &enc_;
    input_.nrows = result.nrows = nrows;
    result.bitvec = bits.data();
    const bool native = family.family == KDZK_FAMILY_DICT;
    constants_[0] = native ? low : __builtin_bswap64(low) >> (64 - width);
    constants_[1] = native ? high : __builtin_bswap64(high) >> (64 - width);
    for (int side = 0; side < 2; side++) {
      args_[side].data = &constants_[side];
      args_[side].lengths = &length_code;
      args_[side].enc_ctx = &enc_;
    }
  }
  Call(const Call&) = delete;

  void run() {
    if (two_sided_) {
      kernel_.between(&result, &input_, &args_[0], &args_[1], nullptr);
    } else {
      kernel_.compare(&result, &input_, &args_[0], nullptr);
    }
  }
  Answer answer() const { return {result.hits, bits}; }

  uint8_t length_code = 1;

 private:
  kdzk_kernel kernel_;
  bool two_sided_;
  kdzk_enc_ctx enc_{};
  kdzk_vec input_{};
  kdzk_kargs args_[2] = {};
  uint64_t constants_[2];
};

using SharedCall = std::shared_ptr<Call>;

// A peer that works on the call's own bit vector.
template <class Loop>
Peer loop_peer(const char* name, const SharedCall& call, const Loop& loop) {
  return {name, [=] { call->result.hits = loop(call->bits.data()); }, [=] { return call->answer(); }};
}

Peer bare_read_peer(const uint8_t* from, uint64_t bytes) {
  return {"bare_read", [=] { benchmark::DoNotOptimize(bare_read(from, bytes)); }, nullptr};
}

Peer call_peer(const char* name, const SharedCall& call) {
  return {name, [=] { call->run(); }, nullptr};
}

// `lt` over packed codes.
void add_packed(int width, uint32_t nrows) {
  add_group(name_of(lt, dict, width), size_name(nrows), nrows, stream_bytes(width, nrows), [=] {
    const uint64_t k = std::max<uint64_t>(1, at_part(0.37, width));
    const uint8_t* const stream = random_bytes(stream_bytes(width, nrows));
    const auto call = std::make_shared<Call>(lt, dict, width, 0, k, 0, stream, nullptr, nrows);
    const auto native =
        std::make_shared<std::vector<uint64_t>>(uint64_t{nrows} * static_cast<uint64_t>(native_bytes(width)) / 8);
    unpack(stream, width, native->data(), nrows);
    std::vector<Peer> peers = {{"kdzk", [=] { call->run(); }, [=] { return call->answer(); }}};
    if (width <= 32 && nrows == in_cache) {
      peers.push_back(loop_peer("plain_loop", call, [=](uint64_t* bits) {
        return lt_packed(stream, width, static_cast<uint32_t>(k), bits, nrows);
      }));
      peers.push_back(loop_peer("loop_with_if", call, [=](uint64_t* bits) {
        std::memset(bits, 0, nrows / 8);
        return lt_packed_with_if(stream, width, static_cast<uint32_t>(k), bits, nrows);
      }));
    }
    peers.push_back(
        loop_peer("unpacked", call, [=](uint64_t* bits) { return lt_native(native->data(), width, k, bits, nrows); }));
    peers.push_back(loop_peer("unpack_first", call,
                              [=](uint64_t* bits) { return lt_unpack_then_compare(stream, width, k, bits, nrows); }));
    peers.push_back(bare_read_peer(stream, stream_bytes(width, nrows)));
    return peers;
  });
}

// Another operation beside `lt` of the same width, or a null-aware kernel beside its plain twin.
void add_beside(Op op, const Family& family, Op other_op, const Family& other_family, const char* other, int width,
                uint32_t nrows) {
  add_group(name_of(op, family, width), size_name(nrows), nrows, stream_bytes(width, nrows), [=] {
    const uint64_t low = at_part(0.25, width), high = at_part(0.62, width);
    const uint8_t* const stream = random_bytes(stream_bytes(width, nrows));
    const auto call = std::make_shared<Call>(op, family, width, width / 8, low, high, stream, nullptr, nrows);
    const auto twin =
        std::make_shared<Call>(other_op, other_family, width, width / 8, low, high, stream, nullptr, nrows);
    return std::vector<Peer>{call_peer("kdzk", call), call_peer(other, twin),
                             bare_read_peer(stream, stream_bytes(width, nrows))};
  });
}

// At 1 bit the ceiling is a copy of the column.
void add_one_bit(Op op, uint32_t nrows) {
  add_group(name_of(op, dict, 1), size_name(nrows), nrows, nrows / 8, [=] {
    const uint8_t* const stream = random_bytes(nrows / 8);
    const auto call = std::make_shared<Call>(op, dict, 1, 0, 1, 0, stream, nullptr, nrows);
    const auto copy = std::make_shared<std::vector<uint64_t>>(nrows / 64);
    return std::vector<Peer>{call_peer("kdzk", call),
                             {"memcpy",
                              [=] {
                                std::memcpy(copy->data(), stream, nrows / 8);
                                benchmark::ClobberMemory();
                              },
                              nullptr}};
  });
}

// `fixed` values of `bytes` bytes in lanes of `width` bits.
void add_fixed(int width, int bytes, uint32_t nrows) {
  const std::string narrow = bytes * 8 == width ? "" : "_of_" + std::to_string(bytes) + "_bytes";
  add_group(name_of(lt, fixed, width) + narrow, size_name(nrows), nrows, stream_bytes(8 * bytes, nrows), [=] {
    const uint64_t k = at_part(0.37, 8 * bytes) << (width - 8 * bytes);
    const uint8_t* const data = random_bytes(stream_bytes(8 * bytes, nrows));
    const auto call = std::make_shared<Call>(lt, fixed, width, bytes, k, 0, data, nullptr, nrows);
    std::vector<Peer> peers = {{"kdzk", [=] { call->run(); }, [=] { return call->answer(); }}};
    peers.push_back(
        loop_peer("plain_loop", call, [=](uint64_t* bits) { return lt_stored(data, width, bytes, k, bits, nrows); }));
    if (bytes * 8 == width) {
      const auto native = std::make_shared<std::vector<uint64_t>>(stream_bytes(width, nrows) / 8);
      unpack(data, width, native->data(), nrows);
      peers.push_back(loop_peer("unpacked", call,
                                [=](uint64_t* bits) { return lt_native(native->data(), width, k, bits, nrows); }));
      peers.push_back(loop_peer("unpack_first", call,
                                [=](uint64_t* bits) { return lt_unpack_then_compare(data, width, k, bits, nrows); }));
    }
    peers.push_back(bare_read_peer(data, stream_bytes(8 * bytes, nrows)));
    return peers;
  });
}

// Length codes of uniform distribution, as the stream has them.
std::shared_ptr<std::vector<uint8_t>> random_lengths(int width, uint32_t nrows, uint64_t& data_bytes) {
  const uint32_t code_bits = width == 16 ? 1 : width == 32 ? 2 : 4;
  auto lengths = std::make_shared<std::vector<uint8_t>>(uint64_t{nrows} * code_bits / 8 + KDZK_PADDING);
  const uint8_t* const random = random_bytes(lengths->size());
  const uint8_t mask = width == 64 ? 0x77 : 0xff;  // no code above 7
  data_bytes = 0;
  for (size_t i = 0; i < lengths->size(); i++) {
    (*lengths)[i] = random[i] & mask;
    for (uint32_t bit = 0; bit < 8 && i < lengths->size() - KDZK_PADDING; bit += code_bits)
      data_bytes += ((*lengths)[i] >> bit & ((1u << code_bits) - 1)) + 1;
  }
  return lengths;
}

void add_tz(int width, uint32_t nrows) {
  add_group(name_of(lt, fixed_tz, width), size_name(nrows), nrows, stream_bytes(width, nrows), [=] {
    const uint64_t k = at_part(0.37, width);
    const uint8_t* const data = random_bytes(stream_bytes(width, nrows));
    uint64_t unused = 0;
    const auto lengths = random_lengths(width, nrows, unused);
    const auto call = std::make_shared<Call>(lt, fixed_tz, width, width / 8, k, 0, data, lengths->data(), nrows);
    const auto twin = std::make_shared<Call>(lt, fixed, width, width / 8, k, 0, data, nullptr, nrows);
    return std::vector<Peer>{
        {"kdzk", [=] { call->run(); }, [=] { return call->answer(); }},
        loop_peer("plain_loop", call,
                  [=](uint64_t* bits) { return lt_pairs(data, lengths->data(), width, k, 1, bits, nrows); }),
        call_peer("twin", twin),
        bare_read_peer(data, stream_bytes(width, nrows))};
  });
}

// `plain_loop` is what the kernel's own tail does; `tail` is that tail, called for one row less than a step at a time.
void add_dynp(int width, uint32_t nrows) {
  uint64_t bytes = 0;
  random_lengths(width, in_cache, bytes);
  bytes = bytes * (nrows / in_cache);
  add_group(name_of(lt, dynp, width), size_name(nrows), nrows, bytes, [=] {
    const uint64_t k = at_part(0.37, width);
    uint64_t data_bytes = 0;
    const auto lengths = random_lengths(width, nrows, data_bytes);
    const uint8_t* const data = random_bytes(data_bytes);
    const auto call = std::make_shared<Call>(lt, dynp, width, 0, k, 0, data, lengths->data(), nrows);
    const auto tz = std::make_shared<Call>(lt, dynp_tz, width, 0, k, 0, data, lengths->data(), nrows);
    std::vector<Peer> peers = {
        {"kdzk", [=] { call->run(); }, [=] { return call->answer(); }},
        loop_peer("plain_loop", call,
                  [=](uint64_t* bits) { return lt_cut(data, lengths->data(), width, k, bits, nrows); }),
        call_peer("lt_dynp_tz", tz),
        bare_read_peer(data, data_bytes)};
    if (nrows == in_cache) {
      const uint32_t less = 512 / static_cast<uint32_t>(width) - 1;
      const auto tail = std::make_shared<Call>(lt, dynp, width, 0, k, 0, data, lengths->data(), less);
      peers.push_back({"tail",
                       [=] {
                         for (uint32_t row = 0; row < nrows; row += less) tail->run();
                       },
                       nullptr});
    }
    return peers;
  });
}

}  // namespace

void add_predicates() {
  for (const uint32_t nrows : {in_cache, in_memory}) {
    for (const Op op : {eq, ne}) add_one_bit(op, nrows);
    for (int width = 2; width <= 64; width++) {
      if (kdzk_row_of_width(static_cast<uint32_t>(width)) == KDZK_NO_ROW_OF_WIDTH) continue;
      add_packed(width, nrows);
      add_beside(eq, dict, lt, dict, "lt", width, nrows);
      for (const Op op : {gt_lt, ge_le}) {
        if (nrows == in_cache) add_beside(op, dict, lt, dict, "lt", width, nrows);
      }
      for (const Op op : {eq, lt, ne, ge_le}) add_beside(op, dict_null, op, dict, "twin", width, nrows);
    }
    for (int width : {8, 16, 32, 64}) {
      add_fixed(width, width / 8, nrows);
      add_beside(eq, fixed, lt, fixed, "lt", width, nrows);
    }
    add_fixed(32, 3, nrows);
    for (int bytes : {3, 5, 6, 7}) add_fixed(64, bytes, nrows);
    for (int width : {16, 32, 64}) {
      add_tz(width, nrows);
      add_dynp(width, nrows);
    }
  }
}

}  // namespace kdzk_bench

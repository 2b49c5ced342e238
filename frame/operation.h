// SPDX-License-Identifier: Apache-2.0
// The ten predicates, and each of them as the set of codes that qualify.
#ifndef FRAME_OPERATION_H
#define FRAME_OPERATION_H

#include <cstdint>
#include <string_view>

namespace kdzk {

enum class Op : uint8_t { eq, lt, gt, le, ge, ne, gt_lt, gt_le, ge_lt, ge_le };  // in the order of their columns

inline constexpr Op all_ops[] = {Op::eq, Op::lt,    Op::gt,    Op::le,    Op::ge,
                                 Op::ne, Op::gt_lt, Op::gt_le, Op::ge_lt, Op::ge_le};

constexpr std::string_view word_of(Op op) {
  constexpr std::string_view words[] = {"eq", "lt", "gt", "le", "ge", "ne", "gt_lt", "gt_le", "ge_lt", "ge_le"};
  return words[static_cast<int>(op)];
}

// The other operations of dictionary columns. The values are their operation numbers.
enum class DecodeOp : uint8_t { decode = 10, decode_unpack = 11, decode_symbol = 12 };
enum class IdleOp : uint8_t { sum = 15, distinct = 16 };  // kernels that do nothing

constexpr std::string_view word_of(DecodeOp op) {
  if (op == DecodeOp::decode) return "decode";
  return op == DecodeOp::decode_unpack ? "decode_unpack" : "decode_symbol";
}
constexpr std::string_view word_of(IdleOp op) { return op == IdleOp::sum ? "sum" : "distinct"; }

enum class SetOp : uint8_t { set = 13 };
constexpr std::string_view word_of(SetOp) { return "set"; }

enum class BurstOp : uint8_t { burst = 14 };
constexpr std::string_view word_of(BurstOp) { return "burst"; }

// Arithmetic on two numeric columns. The values are their operation numbers.
enum class ArithmeticOp : uint8_t { add = 19, sub = 20, mul = 21 };
constexpr std::string_view word_of(ArithmeticOp op) {
  if (op == ArithmeticOp::add) return "add";
  return op == ArithmeticOp::sub ? "sub" : "mul";
}

constexpr bool two_sided(Op op) { return op >= Op::gt_lt; }

// A set of codes with one interval: those from `first` to `first + span` if `inside`, otherwise all but these. Whatever
// the constants are, each predicate is such a set, and a row is tested by one subtraction and one compare.
template <class Code>
struct CodeSet {
  Code first;
  Code span;
  bool inside;

  constexpr bool has(Code code) const { return (static_cast<Code>(code - first) <= span) == inside; }
};

// The codes from 0 to `top` that qualify for `op` with the constant `low`, or with both constants if it is two-sided.
// Constants must not be above `top`.
template <class Code>
constexpr CodeSet<Code> qualifying(Op op, Code low, Code high, Code top) {
  const auto from = [&](Code first) { return CodeSet<Code>{first, static_cast<Code>(top - first), true}; };
  const auto up_to = [](Code last) { return CodeSet<Code>{0, last, true}; };
  const auto between = [](Code first, Code last) {
    return CodeSet<Code>{first, static_cast<Code>(last - first), true};
  };
  const auto all_but = [](CodeSet<Code> set) { return CodeSet<Code>{set.first, set.span, !set.inside}; };
  const CodeSet<Code> none = all_but(from(0));
  const Code above_low = static_cast<Code>(low + 1), below_high = static_cast<Code>(high - 1);
  switch (op) {
    case Op::eq:
      return between(low, low);
    case Op::lt:
      return all_but(from(low));
    case Op::gt:
      return all_but(up_to(low));
    case Op::le:
      return up_to(low);
    case Op::ge:
      return from(low);
    case Op::ne:
      return all_but(between(low, low));
    case Op::gt_lt:
      return low < high && above_low < high ? between(above_low, below_high) : none;
    case Op::gt_le:
      return low < high ? between(above_low, high) : none;
    case Op::ge_lt:
      return low < high ? between(low, below_high) : none;
    case Op::ge_le:
      return low <= high ? between(low, high) : none;
  }
  __builtin_unreachable();
}

}  // namespace kdzk

#endif

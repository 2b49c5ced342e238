// SPDX-License-Identifier: Apache-2.0
// The name of a kernel and the texts made from it, composed at compile time from the same parts as its id.
#ifndef FRAME_KERNEL_NAME_H
#define FRAME_KERNEL_NAME_H

#include <array>
#include <cstddef>
#include <string_view>

#include "frame/families.h"
#include "frame/operation.h"

namespace kdzk {

// A text under construction; longer than any name.
struct Draft {
  char chars[96] = {};
  size_t size = 0;

  constexpr Draft& operator+=(std::string_view text) {
    for (char c : text) chars[size++] = c;
    return *this;
  }
  constexpr Draft& operator+=(int number) {
    if (number >= 10) *this += number / 10;
    chars[size++] = static_cast<char>('0' + number % 10);
    return *this;
  }
};

// The text that `compose` drafts, in an array of just its length and a closing zero.
template <Draft (*compose)()>
inline constexpr auto text = [] {
  constexpr Draft draft = compose();
  std::array<char, draft.size + 1> chars{};
  for (size_t i = 0; i < draft.size; i++) chars[i] = draft.chars[i];
  return chars;
}();

template <class Family, auto op>
constexpr Draft draft_name() {
  Draft name;
  name += "kdzk_";
  name += word_of(op);
  name += "_";
  name += Family::form;
  name += "_";
  name += Family::width;
  name += "bit";
  name += Family::suffix;
  return name;
}

template <class Family, auto op>
constexpr Draft draft_alloc_comment() {
  Draft name = draft_name<Family, op>();
  name += ": vec1_decomp";
  return name;
}

template <class Family, auto op>
constexpr Draft draft_failure() {
  Draft name = draft_name<Family, op>();
  name += ": kdzk_sqzb_decode failed";
  return name;
}

// "kdzk_eq_dict_13bit"
template <class Family, auto op>
inline constexpr const char* kernel_name = text<draft_name<Family, op>>.data();

// "kdzk_eq_dict_13bit: vec1_decomp"
template <class Family, auto op>
inline constexpr const char* alloc_comment = text<draft_alloc_comment<Family, op>>.data();

// "kdzk_eq_dict_13bit: kdzk_sqzb_decode failed"
template <class Family, auto op>
inline constexpr const char* decode_failure = text<draft_failure<Family, op>>.data();

template <class Operands, ArithmeticOp op>
constexpr Draft draft_arithmetic_name() {
  const auto letter = [](Form form) { return form == Form::native ? "_n" : "_c"; };
  Draft name;
  name += "kdzk_";
  name += word_of(op);
  name += sizeof(typename Operands::Value) == 4 ? "_float" : "_double";
  name += letter(Operands::left);
  name += letter(Operands::right);
  name += Operands::has_sum ? "_sum" : "";
  return name;
}

// "kdzk_add_float_n_c_sum"
template <class Operands, ArithmeticOp op>
inline constexpr const char* arithmetic_name = text<draft_arithmetic_name<Operands, op>>.data();

// The texts that a kernel shows to the host; both bear the kernel's own name.
struct KernelTexts {
  const char* alloc_comment;
  const char* decode_failure;
};

template <class Family, auto op>
inline constexpr KernelTexts kernel_texts = {alloc_comment<Family, op>, decode_failure<Family, op>};

}  // namespace kdzk

#endif

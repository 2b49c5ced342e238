// SPDX-License-Identifier: Apache-2.0
// Names and ids of kernels from the rule of the matrix. The kit has no list of kernels: the rule gives more
// combinations than there are kernels, and whether there is one is what the library's dispatch table says. Names are
// looked up by composing those that could be it, so that the rule is written in one direction only.

#include <kdzk/host/find_kernel.h>

#include <cstdio>
#include <cstring>
#include <string_view>

#include "frame/families.h"
#include "frame/kernel_name.h"
#include "frame/operation.h"

namespace {

using kdzk::Draft;

// What a form's number is made of: a kind of form, and in it a family, or the left and right operand, and a variant.
enum FormKind : uint32_t { columns, tables, operands, form_kinds };
constexpr uint32_t kind_of_form(uint32_t form) { return form / 8; }
constexpr uint32_t family_of(uint32_t form) { return form % 4; }
constexpr bool is_variant(uint32_t form) { return (form & 4) != 0; }
static_assert(family_of(KDZK_HOST_FORM_DYNP_TZ) == KDZK_FAMILY_DYNP && is_variant(KDZK_HOST_FORM_DYNP_TZ));
static_assert(kind_of_form(KDZK_HOST_FORM_GROUPKEY_C2D) == tables && kind_of_form(KDZK_HOST_FORM_N_N) == operands);
static_assert(KDZK_HOST_FORMS == 8 * form_kinds);

constexpr uint32_t last_operation = KDZK_OP_MUL;
constexpr uint32_t widest = 64;

// Empty if the number stands for none.
constexpr std::string_view operation_word(uint32_t operation) {
  if (operation <= KDZK_OP_GE_LE) return word_of(static_cast<kdzk::Op>(operation));
  if (operation <= KDZK_OP_DECODE_SYMBOL) return word_of(static_cast<kdzk::DecodeOp>(operation));
  if (operation == KDZK_OP_SUM || operation == KDZK_OP_DISTINCT) return word_of(static_cast<kdzk::IdleOp>(operation));
  switch (operation) {
    case KDZK_OP_SET:
      return "set";
    case KDZK_OP_BURST_RLE:
      return word_of(kdzk::BurstOp::burst);
    case KDZK_OP_XLATE:
      return "xlate";
    case KDZK_OP_ADD:
      return "add";
    case KDZK_OP_SUB:
      return "sub";
    case KDZK_OP_MUL:
      return "mul";
    default:
      return {};
  }
}

struct Affixes {
  std::string_view form, suffix;
};

template <uint32_t family>
constexpr Affixes affixes_of(bool variant) {
  return {kdzk::Place<8, family, false>::form, variant ? kdzk::Place<8, family, true>::suffix : ""};
}

constexpr Affixes affixes_of(uint32_t form) {
  const bool variant = is_variant(form);
  if (kind_of_form(form) == tables) {
    constexpr std::string_view families[] = {"sim", "off", "ind", "groupkey"};
    return {families[family_of(form)], variant ? "_c2d" : ""};
  }
  if (kind_of_form(form) == operands) {
    constexpr std::string_view left_and_right[] = {"n_n", "c_n", "n_c", "c_c"};
    return {left_and_right[family_of(form)], variant ? "_sum" : ""};
  }
  switch (family_of(form)) {
    case KDZK_FAMILY_FIXED:
      return affixes_of<KDZK_FAMILY_FIXED>(variant);
    case KDZK_FAMILY_DICT:
      return affixes_of<KDZK_FAMILY_DICT>(variant);
    case KDZK_FAMILY_DYNP:
      return affixes_of<KDZK_FAMILY_DYNP>(variant);
    default:
      return {kdzk::BurstRle<8, false>::form, variant ? kdzk::BurstRle<8, true>::suffix : ""};
  }
}

// Where a combination stands, and what it is called, if the rule has it: then `name` is not empty.
struct Combination {
  uint32_t id = KDZK_KERNEL_IDS;
  Draft name;
};

// "kdzk_" operation "_" form and width in their order, suffix.
constexpr Combination combined(uint32_t id, uint32_t operation, std::string_view first, std::string_view second,
                               std::string_view suffix) {
  Combination made;
  made.id = id;
  for (std::string_view part : {std::string_view("kdzk_"), operation_word(operation), std::string_view("_"), first,
                                std::string_view("_"), second, suffix}) {
    made.name += part;
  }
  return made;
}

constexpr Combination combine(uint32_t operation, uint32_t form, uint32_t width) {
  if (operation > last_operation || operation_word(operation).empty() || form >= KDZK_HOST_FORMS) return {};
  const auto [form_word, suffix] = affixes_of(form);
  const uint32_t variant = is_variant(form) ? KDZK_ROW_VARIANT : 0;
  const uint32_t family = family_of(form);
  if (kind_of_form(form) == tables) {
    constexpr std::string_view elements[] = {"bit", "nib", "ub1", "ub2", "ub4"};
    const uint32_t row = width == 1 ? 0u : width == 4 ? 1u : width == 8 ? 2u : width == 16 ? 3u : width == 32 ? 4u : 5u;
    if (operation != KDZK_OP_XLATE || row == 5) return {};
    return combined(kdzk_id_of_kind(kdzk_kind_of(row + variant, family), operation), operation, form_word,
                    elements[row], suffix);
  }
  if (kind_of_form(form) == operands) {
    if (operation < KDZK_OP_ADD || (width != 32 && width != 64)) return {};
    const uint32_t row = (width == 64 ? 1 : 0) + 4 * family + variant;
    return combined(kdzk_id_of(row, operation), operation, width == 64 ? "double" : "float", form_word, suffix);
  }
  const uint32_t row = kdzk_row_of_width(width);
  const bool is_rle = family == KDZK_FAMILY_FURTHER;
  if (operation >= KDZK_OP_XLATE || is_rle != (operation == KDZK_OP_BURST_RLE) || row == KDZK_NO_ROW_OF_WIDTH)
    return {};
  if (is_rle && width % 8 != 0) return {};
  // Without `_cla` these stand a row below their width's own, with it in that.
  const uint32_t true_row = is_rle ? row - (variant == 0 ? 1 : 0) : row + variant;
  Draft bits;
  bits += static_cast<int>(width);
  bits += "bit";
  return combined(kdzk_id_of_kind(kdzk_kind_of(true_row, family), operation), operation, form_word,
                  {bits.chars, bits.size}, suffix);
}

constexpr bool is_called(const Combination& made, std::string_view name) {
  return std::string_view(made.name.chars, made.name.size) == name;
}
static_assert(is_called(combine(KDZK_OP_EQ, KDZK_HOST_FORM_DICT, 13), "kdzk_eq_dict_13bit"));
static_assert(combine(KDZK_OP_EQ, KDZK_HOST_FORM_DICT, 13).id == 12 * 128 + 32);
static_assert(is_called(combine(KDZK_OP_XLATE, KDZK_HOST_FORM_IND_C2D, 16), "kdzk_xlate_ind_ub2_c2d"));
static_assert(combine(KDZK_OP_XLATE, KDZK_HOST_FORM_IND_C2D, 16).id == 35 * 128 + 81);
static_assert(is_called(combine(KDZK_OP_ADD, KDZK_HOST_FORM_N_C_SUM, 64), "kdzk_add_double_n_c_sum"));
static_assert(combine(KDZK_OP_ADD, KDZK_HOST_FORM_N_C_SUM, 64).id == 41 * 128 + 19);
static_assert(is_called(combine(KDZK_OP_BURST_RLE, KDZK_HOST_FORM_RLE, 16), "kdzk_burst_rle_16bit"));
static_assert(combine(KDZK_OP_BURST_RLE, KDZK_HOST_FORM_RLE, 16).id == 14 * 128 + 110);

bool exists(const kdzk_specialized_ctx* ctx, const Combination& made) {
  return made.id < KDZK_KERNEL_IDS && ctx->dispatch[made.id].any != nullptr;
}

// "1 to 20, 24 and 32 bits": the widths that `exists_at` has.
template <class ExistsAt>
Draft list_of_widths(const ExistsAt& exists_at) {
  Draft list;
  int parts = 0;
  for (uint32_t first = 1; first <= widest; first++) {
    if (!exists_at(first)) continue;
    uint32_t last = first;
    while (last < widest && exists_at(last + 1)) last++;
    uint32_t next = last + 1;
    while (next <= widest && !exists_at(next)) next++;
    if (parts++ > 0) list += next > widest ? " and " : ", ";
    list += static_cast<int>(first);
    if (last > first) {
      list += " to ";
      list += static_cast<int>(last);
    }
    first = last;
  }
  if (parts == 0) list += "no";
  list += " bits";
  return list;
}

void say_no_combination(const kdzk_specialized_ctx* ctx, uint32_t operation, uint32_t form, uint32_t width,
                        kdzk_host_kernel* kernel) {
  if (operation > last_operation || operation_word(operation).empty() || form >= KDZK_HOST_FORMS) {
    std::snprintf(kernel->text, sizeof kernel->text, "no such combination: there is no %s of the number %u",
                  form >= KDZK_HOST_FORMS ? "form" : "operation", form >= KDZK_HOST_FORMS ? form : operation);
    return;
  }
  const auto exists_at = [&](uint32_t other) { return exists(ctx, combine(operation, form, other)); };
  const Draft widths = list_of_widths(exists_at);
  const auto [form_word, suffix] = affixes_of(form);
  std::snprintf(kernel->text, sizeof kernel->text, "no such combination: %s of %s%s exists at %.*s, not at %u",
                operation_word(operation).data(), form_word.data(), suffix.data(), static_cast<int>(widths.size),
                widths.chars, width);
}

}  // namespace

uint32_t kdzk_host_find_kernel(const kdzk_specialized_ctx* ctx, uint32_t operation, uint32_t form, uint32_t width,
                               kdzk_host_kernel* kernel) {
  *kernel = {};
  kernel->id = KDZK_KERNEL_IDS;
  kernel->operation = operation;
  kernel->form = form;
  kernel->width = width;
  const Combination made = combine(operation, form, width);
  if (!exists(ctx, made)) {
    say_no_combination(ctx, operation, form, width, kernel);
    return KDZK_HOST_NO_KERNEL;
  }
  kernel->entry = ctx->dispatch[made.id];
  kernel->id = made.id;
  kernel->kind = static_cast<uint8_t>(made.id / 32);
  std::memcpy(kernel->text, made.name.chars, made.name.size);
  return KDZK_HOST_FOUND;
}

uint32_t kdzk_host_find_kernel_named(const kdzk_specialized_ctx* ctx, const char* name, kdzk_host_kernel* kernel) {
  constexpr std::string_view prefix = "kdzk_";
  const std::string_view wanted = name == nullptr ? "" : name;
  for (uint32_t operation = 0; operation <= last_operation && wanted.starts_with(prefix); operation++) {
    const std::string_view word = operation_word(operation);
    if (word.empty() || !wanted.substr(prefix.size()).starts_with(word)) continue;
    for (uint32_t form = 0; form < KDZK_HOST_FORMS; form++) {
      const Affixes affixes = affixes_of(form);
      if (wanted.find(affixes.form) == wanted.npos || !wanted.ends_with(affixes.suffix)) continue;  // for speed
      for (uint32_t width = 1; width <= widest; width++) {
        if (is_called(combine(operation, form, width), wanted)) {
          return kdzk_host_find_kernel(ctx, operation, form, width, kernel);
        }
      }
    }
  }
  *kernel = {};
  kernel->id = KDZK_KERNEL_IDS;
  std::snprintf(kernel->text, sizeof kernel->text,
                "no kernel is named \"%.48s\": names are like kdzk_eq_dict_13bit, kdzk_xlate_ind_ub2_c2d and "
                "kdzk_add_double_n_c_sum",
                name == nullptr ? "" : name);
  return KDZK_HOST_NO_KERNEL;
}

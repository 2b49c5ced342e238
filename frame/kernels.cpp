// SPDX-License-Identifier: Apache-2.0
// Which kernels exist: the one list from which ids, names and addresses are made, at compile time. A family that isn't
// listed has zero entries and no names.

#include "frame/kernels.h"

#include <utility>

#include "frame/families.h"
#include "frame/kernel_name.h"

namespace kdzk {
namespace {

constexpr char no_kernel[] = "kdzk_invalid_dispatch";

template <class Family, auto op>
constexpr uint32_t id_of() {
  const uint32_t row = kdzk_row_of_width(Family::width) + Family::variant;
  return kdzk_id_of_kind(kdzk_kind_of(row, Family::family), static_cast<uint32_t>(op));
}

template <class Family, Op op>
constexpr void list_predicate(KernelTables& tables) {
  const uint32_t id = id_of<Family, op>();
  if constexpr (two_sided(op)) {
    tables.dispatch[id].between = between<Family, op>;
  } else {
    tables.dispatch[id].compare = compare<Family, op>;
  }
  tables.names[id] = kernel_name<Family, op>;
}

template <class Family, int... op>
constexpr void list_all_ops(KernelTables& tables, std::integer_sequence<int, op...>) {
  (list_predicate<Family, static_cast<Op>(op)>(tables), ...);
}

template <template <int> class Family, int... W>
constexpr void list_predicates(KernelTables& tables) {
  (list_all_ops<Family<W>>(tables, std::make_integer_sequence<int, 10>()), ...);
}

template <class Family, DecodeOp op>
constexpr kdzk_decode_fn decode_kernel() {
  if constexpr (op == DecodeOp::decode) return decode<Family>;
  if constexpr (op == DecodeOp::decode_unpack) return decode_unpack<Family>;
  if constexpr (op == DecodeOp::decode_symbol) return decode_symbol<Family>;
}

template <DecodeOp op, int... W>
constexpr void list_decode(KernelTables& tables) {
  ((tables.dispatch[id_of<Dict<W>, op>()].decode = decode_kernel<Dict<W>, op>()), ...);
  ((tables.names[id_of<Dict<W>, op>()] = kernel_name<Dict<W>, op>), ...);
}

template <int... W>
constexpr void list_set(KernelTables& tables) {
  ((tables.dispatch[id_of<Dict<W>, SetOp::set>()].set = set<Dict<W>>), ...);
  ((tables.names[id_of<Dict<W>, SetOp::set>()] = kernel_name<Dict<W>, SetOp::set>), ...);
}

uint64_t idle(kdzk_vec*, const kdzk_vec*, const kdzk_vec*, kdzk_exec*) { return 0; }

template <template <int> class Family, IdleOp op, int... W>
constexpr void list_idle(KernelTables& tables) {
  ((tables.dispatch[id_of<Family<W>, op>()].idle = idle), ...);
  ((tables.names[id_of<Family<W>, op>()] = kernel_name<Family<W>, op>), ...);
}

template <class Operands, ArithmeticOp... op>
constexpr void list_operations(KernelTables& tables) {
  ((tables.dispatch[kdzk_id_of(Operands::row, uint32_t(op))].arithmetic = arithmetic<Operands, op>), ...);
  ((tables.names[kdzk_id_of(Operands::row, uint32_t(op))] = arithmetic_name<Operands, op>), ...);
}

template <class T, bool is_sum, ArithmeticOp... op>
constexpr void list_arithmetic(KernelTables& tables) {
  list_operations<Operands<T, Form::native, Form::native, is_sum>, op...>(tables);
  list_operations<Operands<T, Form::native, Form::sortable, is_sum>, op...>(tables);
  list_operations<Operands<T, Form::sortable, Form::native, is_sum>, op...>(tables);
  list_operations<Operands<T, Form::sortable, Form::sortable, is_sum>, op...>(tables);
}

// Without `cla` they stand a row below their width's own.
template <int W, bool cla>
constexpr void list_burst(KernelTables& tables) {
  const uint32_t column = KDZK_FAMILY_FURTHER * 32 + KDZK_OP_BURST_RLE;
  const uint32_t id = kdzk_id_of(kdzk_row_of_width(W) - (cla ? 0 : 1), column);
  tables.dispatch[id].burst = burst_rle<W, cla>;
  tables.names[id] = kernel_name<BurstRle<W, cla>, BurstOp::burst>;
}

template <TableIndex index, TableElement element, bool c2d>
constexpr Draft draft_xlate_name() {
  constexpr std::string_view index_words[] = {"sim", "off", "ind", "groupkey"};
  constexpr std::string_view element_words[] = {"bit", "nib", "ub1", "ub2", "ub4"};
  Draft name;
  name += "kdzk_xlate_";
  name += index_words[static_cast<int>(index)];
  name += "_";
  name += element_words[static_cast<int>(element)];
  if (c2d) name += "_c2d";
  return name;
}

template <TableIndex index, bool c2d, TableElement... element>
constexpr void list_xlate(KernelTables& tables) {
  const auto id = [](TableElement e) {
    const uint32_t row = static_cast<uint32_t>(e) + (c2d ? KDZK_ROW_VARIANT : 0);
    return kdzk_id_of_kind(kdzk_kind_of(row, static_cast<uint32_t>(index)), KDZK_OP_XLATE);
  };
  if constexpr (index == TableIndex::groupkey) {
    ((tables.dispatch[id(element)].xlate = xlate_groupkey<element>), ...);
  } else {
    ((tables.dispatch[id(element)].xlate = xlate<index, element, c2d>), ...);
  }
  ((tables.names[id(element)] = text<draft_xlate_name<index, element, c2d>>.data()), ...);
}

template <TableIndex... index>
constexpr void list_xlates(KernelTables& tables) {
  using enum TableElement;
  (list_xlate<index, false, bit, nib, ub1, ub2, ub4>(tables), ...);
  (list_xlate<index, true, nib, ub1, ub2, ub4>(tables), ...);
}

constexpr KernelTables list_kernels() {
  KernelTables tables{};
  for (const char*& name : tables.names) name = no_kernel;
  list_predicates<Dict, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 24, 32, 64>(tables);
  list_predicates<DictNull, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 24, 32, 64>(tables);
  list_predicates<Fixed, 8, 16, 32, 64>(tables);
  list_predicates<FixedTz, 8, 16, 32, 64>(tables);
  list_predicates<Dynp, 16, 32, 64>(tables);
  list_predicates<DynpTz, 16, 32, 64>(tables);
  list_decode<DecodeOp::decode, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 24, 32>(tables);
  list_decode<DecodeOp::decode_symbol, 8, 16, 32>(tables);
  list_decode<DecodeOp::decode_unpack, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 24, 32>(
      tables);
  list_set<1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 24, 32>(tables);
  list_burst<8, false>(tables);
  list_burst<8, true>(tables);
  list_burst<16, false>(tables);
  list_burst<16, true>(tables);
  list_arithmetic<float, false, ArithmeticOp::add, ArithmeticOp::sub, ArithmeticOp::mul>(tables);
  list_arithmetic<float, true, ArithmeticOp::add, ArithmeticOp::sub, ArithmeticOp::mul>(tables);
  list_arithmetic<double, false, ArithmeticOp::add, ArithmeticOp::sub, ArithmeticOp::mul>(tables);
  list_arithmetic<double, true, ArithmeticOp::add, ArithmeticOp::sub, ArithmeticOp::mul>(tables);
  list_xlates<TableIndex::sim, TableIndex::off, TableIndex::ind>(tables);
  list_xlate<TableIndex::groupkey, true, TableElement::nib, TableElement::ub1, TableElement::ub2, TableElement::ub4>(
      tables);
  list_idle<Fixed, IdleOp::sum, 8, 16, 32, 64>(tables);
  list_idle<Dict, IdleOp::sum, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 24, 32>(tables);
  list_idle<Dict, IdleOp::distinct, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 24, 32>(
      tables);
  return tables;
}

constexpr int kernels_in(const KernelTables& tables) {
  int kernels = 0;
  for (const char* name : tables.names) kernels += name != no_kernel;
  return kernels;
}

}  // namespace

constinit const KernelTables kernel_tables = list_kernels();
static_assert(kernels_in(list_kernels()) == 800);
static_assert(sizeof(KernelTables) == (KDZK_DISPATCH_SIZE + KDZK_KERNEL_IDS) * 8);

}  // namespace kdzk

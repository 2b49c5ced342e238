// SPDX-License-Identifier: Apache-2.0
// Which kernels exist: the one list from which ids, names and addresses are made, at compile time. A family that isn't
// listed has zero entries and no names.

#include "frame/kernels.h"

#include "frame/families.h"
#include "frame/kernel_name.h"

namespace kdzk {
namespace {

constexpr char no_kernel[] = "kdzk_invalid_dispatch";

template <class Family, Op op>
constexpr void list_predicate(KernelTables& tables) {
  const uint32_t row = kdzk_row_of_width(Family::width) + Family::variant;
  const uint32_t id = kdzk_id_of_kind(kdzk_kind_of(row, Family::family), static_cast<uint32_t>(op));
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

constexpr KernelTables list_kernels() {
  KernelTables tables{};
  for (const char*& name : tables.names) name = no_kernel;
  list_predicates<Dict, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 24, 32, 64>(tables);
  list_predicates<DictNull, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 24, 32, 64>(tables);
  list_predicates<Fixed, 8, 16, 32, 64>(tables);
  list_predicates<FixedTz, 8, 16, 32, 64>(tables);
  list_predicates<Dynp, 16, 32, 64>(tables);
  list_predicates<DynpTz, 16, 32, 64>(tables);
  return tables;
}

constexpr int kernels_in(const KernelTables& tables) {
  int kernels = 0;
  for (const char* name : tables.names) kernels += name != no_kernel;
  return kernels;
}

}  // namespace

constinit const KernelTables kernel_tables = list_kernels();
static_assert(kernels_in(list_kernels()) == 600);
static_assert(sizeof(KernelTables) == (KDZK_DISPATCH_SIZE + KDZK_KERNEL_IDS) * 8);

}  // namespace kdzk

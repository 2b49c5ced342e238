// SPDX-License-Identifier: Apache-2.0
//
// A library whose kernels never find a row. The program must notice.
#include <kdzk/kdzk.h>

#include <cstring>

namespace {

uint64_t no_row(kdzk_vec* result) {
  std::memset(result->bitvec, 0, (result->nrows + 63) / 64 * sizeof(uint64_t));
  result->hits = 0;
  return KDZK_NO_ROW;
}

uint64_t compare(kdzk_vec* result, const kdzk_vec*, const kdzk_kargs*, kdzk_exec*) { return no_row(result); }
uint64_t between(kdzk_vec* result, const kdzk_vec*, const kdzk_kargs*, const kdzk_kargs*, kdzk_exec*) {
  return no_row(result);
}

struct Tables {
  kdzk_kernel dispatch[KDZK_DISPATCH_SIZE];
  const char* names[KDZK_KERNEL_IDS];
};

constexpr Tables all_widths() {
  Tables tables{};
  for (uint32_t row = 0; row < 23; row++) {
    for (uint32_t operation = KDZK_OP_EQ; operation <= KDZK_OP_GE_LE; operation++) {
      const uint32_t id = row * 128 + KDZK_FAMILY_DICT * 32 + operation;
      if (operation < KDZK_OP_GT_LT) {
        tables.dispatch[id].compare = compare;
      } else {
        tables.dispatch[id].between = between;
      }
      tables.names[id] = "no_row";
    }
  }
  return tables;
}

constexpr Tables tables = all_widths();

constexpr kdzk_specialized_ctx context() {
  kdzk_specialized_ctx record{};
  record.magic = KDZK_MAGIC;
  record.version = KDZK_VERSION;
  record.dispatch = tables.dispatch;
  return record;
}

}  // namespace

extern "C" constexpr kdzk_specialized_ctx kdzk_global_specialized_ctx = context();

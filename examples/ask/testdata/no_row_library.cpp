// SPDX-License-Identifier: Apache-2.0
//
// A library whose functions never find a row, and say that all is well. The program must notice.
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

uint64_t set(kdzk_vec* result, const kdzk_vec*, const kdzk_vec*, kdzk_exec*) { return no_row(result); }
uint64_t decode(kdzk_vec*, const kdzk_vec*, kdzk_exec*) { return KDZK_NO_ROW; }
uint64_t arithmetic(kdzk_vec*, const kdzk_vec*, const kdzk_vec*, kdzk_exec*) { return KDZK_DONE; }

// A service that does nothing.
template <class Function>
struct Idle;
template <class... Arguments>
struct Idle<uint64_t (*)(Arguments...)> {
  static uint64_t call(Arguments...) { return KDZK_DONE; }
};
uint64_t probe(kdzk_vec* out, const kdzk_vec*, const kdzk_vec*, const kdzk_htdesc*, kdzk_hash_fn, kdzk_exec*) {
  out->nrows = 0;
  return KDZK_DONE;
}
void begin_walk(kdzk_bv_iter*, const uint64_t*, uint32_t, uint32_t, uint32_t) {}

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
    const uint32_t dict = row * 128 + KDZK_FAMILY_DICT * 32;
    tables.dispatch[dict + KDZK_OP_SET].set = set;
    tables.names[dict + KDZK_OP_SET] = "no_row";
    tables.dispatch[dict + KDZK_OP_DECODE_UNPACK].decode = decode;
  }
  for (uint32_t row = 0; row < 64; row++) {
    tables.dispatch[row * 128 + KDZK_OP_MUL].arithmetic = arithmetic;
    tables.names[row * 128 + KDZK_OP_MUL] = "no_sum";
  }
  return tables;
}

constexpr Tables tables = all_widths();

constexpr kdzk_specialized_ctx context() {
  kdzk_specialized_ctx record{};
  record.magic = KDZK_MAGIC;
  record.version = KDZK_VERSION;
  record.dispatch = tables.dispatch;
  record.bloom_test = Idle<kdzk_bloom_fn>::call;
  record.point_in_polygon = Idle<kdzk_polygon_fn>::call;
  record.groupkey_dydi = Idle<kdzk_groupkey_fn>::call;
  record.hash_rows = Idle<kdzk_hash_rows_fn>::call;
  record.partition_rows = Idle<kdzk_partition_fn>::call;
  record.ht_build = Idle<kdzk_ht_build_fn>::call;
  record.ht_probe = probe;
  record.bv64.iter_init = begin_walk;
  record.bv64.next_set_batch = Idle<decltype(record.bv64.next_set_batch)>::call;
  return record;
}

}  // namespace

extern "C" constexpr kdzk_specialized_ctx kdzk_global_specialized_ctx = context();

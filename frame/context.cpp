// SPDX-License-Identifier: Apache-2.0
// The exported record. Constant data: no code runs at load, and the pages are read-only after relocation.

#include <kdzk/context.h>

#include "frame/kernels.h"
#include "frame/services.h"

namespace kdzk {

void kdzk_noop1(void*) {}
uint64_t kdzk_reserved0() { return 0; }

}  // namespace kdzk

extern "C" __attribute__((visibility("default"))) constinit const kdzk_specialized_ctx kdzk_global_specialized_ctx = {
    .magic = KDZK_MAGIC,
    .version = KDZK_VERSION,
    .count = 3,
    .name = "vexksse4219",
    .numbers = {8, 8, 8, 8, 8, 8, 8, 16, 0, 16},
    .dispatch = kdzk::kernel_tables.dispatch,
    .noop1 = {kdzk::kdzk_noop1, kdzk::kdzk_noop1},
    .bv8 =
        {
            .bv_count = kdzk::kdzk_bv8_count,
            .bv_not = kdzk::kdzk_bv8_not,
            .bv_and = kdzk::kdzk_bv8_and,
            .bv_or = kdzk::kdzk_bv8_or,
            .bv_xor = kdzk::kdzk_bv8_xor,
            .bv_andnot = kdzk::kdzk_bv8_andnot,
            .bv_and3 = kdzk::kdzk_bv8_and3,
            .bv_or3 = kdzk::kdzk_bv8_or3,
            .bv_xor3 = kdzk::kdzk_bv8_xor3,
            .set_range = kdzk::kdzk_bv_set_range,
            .clear_range = kdzk::kdzk_bv_clear_range,
            .iter_init = kdzk::kdzk_bv_iter_init,
            .next_set = kdzk::kdzk_bv8_next_set,
            .next_clear = kdzk::kdzk_bv8_next_clear,
            .next_set_batch = kdzk::kdzk_bv8_next_set_batch,
            .no_next = kdzk::kdzk_bv8_no_next,
            .no_batch = kdzk::kdzk_bv_no_batch,
        },
    .bv64 =
        {
            .bv_count = kdzk::kdzk_bv64_count,
            .bv_not = kdzk::kdzk_bv64_not,
            .bv_and = kdzk::kdzk_bv64_and,
            .bv_or = kdzk::kdzk_bv64_or,
            .bv_xor = kdzk::kdzk_bv64_xor,
            .bv_andnot = kdzk::kdzk_bv64_andnot,
            .bv_and3 = kdzk::kdzk_bv64_and3,
            .bv_or3 = kdzk::kdzk_bv64_or3,
            .bv_xor3 = kdzk::kdzk_bv64_xor3,
            .set_range = kdzk::kdzk_bv_set_range,
            .clear_range = kdzk::kdzk_bv_clear_range,
            .iter_init = kdzk::kdzk_bv_iter_init,
            .next_set = kdzk::kdzk_bv64_next_set,
            .next_clear = kdzk::kdzk_bv64_next_clear,
            .next_set_batch = kdzk::kdzk_bv64_next_set_batch,
            .no_next = kdzk::kdzk_bv64_no_next,
            .no_batch = kdzk::kdzk_bv_no_batch,
        },
    .bloom_test = kdzk::kdzk_bloom_test,
    .point_in_polygon = kdzk::kdzk_point_in_polygon,
    .groupkey_dydi = kdzk::kdzk_groupkey_dydi,
    .sum_sortable = kdzk::kdzk_sum_sortable,
    .decode_sortable = kdzk::kdzk_decode_sortable,
    .decode_prefix_records = kdzk::kdzk_decode_prefix_records,
    .hash_rows = kdzk::kdzk_hash_rows,
    .ht_build = kdzk::kdzk_ht_build,
    .ht_probe = kdzk::kdzk_ht_probe,
    .partition_rows = kdzk::kdzk_partition_rows,
    .ht_gather = kdzk::kdzk_ht_gather,
    .fill_pairs = kdzk::kdzk_fill_pairs,
    .pack_rows = kdzk::kdzk_pack_rows,
    .sqzb_decode_x86 = kdzk::sqzb_decode_x86,
    .reserved0 = {kdzk::kdzk_reserved0, kdzk::kdzk_reserved0},
};

/* SPDX-License-Identifier: Apache-2.0
 *
 * Kernels by operation, form and width, or by name. In the static library kdzk_host. A look-up by name takes some ten
 * microseconds: it is for the time when a plan is made. A host that knows a column's `kind` needs neither
 * (kdzk_id_of_kind). Functions keep nothing between calls and may run on any number of threads. */
#ifndef KDZK_HOST_FIND_KERNEL_H
#define KDZK_HOST_FIND_KERNEL_H

#include <kdzk/context.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Forms: what stands around the width in a kernel's name. The operation is one of KDZK_OP_*. ---- */

/* Columns, by the bits of a code or value: kdzk_eq_dict_13bit_null. RLE is for KDZK_OP_BURST_RLE. */
#define KDZK_HOST_FORM_FIXED 0u
#define KDZK_HOST_FORM_DICT 1u
#define KDZK_HOST_FORM_DYNP 2u
#define KDZK_HOST_FORM_RLE 3u
#define KDZK_HOST_FORM_FIXED_TZ 4u
#define KDZK_HOST_FORM_DICT_NULL 5u
#define KDZK_HOST_FORM_DYNP_TZ 6u
#define KDZK_HOST_FORM_RLE_CLA 7u

/* Tables of KDZK_OP_XLATE, by the bits of an element, which the name calls bit (1), nib (4), ub1 (8), ub2 (16) and ub4
 * (32): kdzk_xlate_ind_ub2_c2d. */
#define KDZK_HOST_FORM_SIM 8u
#define KDZK_HOST_FORM_OFF 9u
#define KDZK_HOST_FORM_IND 10u
#define KDZK_HOST_FORM_GROUPKEY 11u
#define KDZK_HOST_FORM_SIM_C2D 12u
#define KDZK_HOST_FORM_OFF_C2D 13u
#define KDZK_HOST_FORM_IND_C2D 14u
#define KDZK_HOST_FORM_GROUPKEY_C2D 15u

/* Operands of KDZK_OP_ADD, KDZK_OP_SUB and KDZK_OP_MUL, native (N) or sortable (C), by the bits of a float (32) or
 * double (64): kdzk_add_double_n_c_sum. */
#define KDZK_HOST_FORM_N_N 16u
#define KDZK_HOST_FORM_C_N 17u
#define KDZK_HOST_FORM_N_C 18u
#define KDZK_HOST_FORM_C_C 19u
#define KDZK_HOST_FORM_N_N_SUM 20u
#define KDZK_HOST_FORM_C_N_SUM 21u
#define KDZK_HOST_FORM_N_C_SUM 22u
#define KDZK_HOST_FORM_C_C_SUM 23u

#define KDZK_HOST_FORMS 24u

/* ---- What the functions return. ---- */

#define KDZK_HOST_FOUND 0u
#define KDZK_HOST_NO_KERNEL 1u

#define KDZK_HOST_KERNEL_TEXT 192u

typedef struct kdzk_host_kernel {
  kdzk_kernel entry;                /* Out: the kernel; entry.any is null if there is none. */
  uint32_t id;                      /* Out: its id; KDZK_KERNEL_IDS if there is none. */
  uint8_t kind;                     /* Out: for kdzk_enc_ctx.kind of the column; 0 if there is none. */
  uint32_t operation;               /* Out: as asked for, or as the name says; 0 if the name says nothing */
  uint32_t form;                    /* Out: the same */
  uint32_t width;                   /* Out: the same */
  char text[KDZK_HOST_KERNEL_TEXT]; /* Out: the kernel's name; if there is none, a sentence with what there is, such as
                                       "no such combination: eq of fixed exists at 8, 16, 32 and 64 bits, not at 24" */
} kdzk_host_kernel;

/* Fills in `kernel` with the kernel of `ctx` for this operation, form and width, and returns KDZK_HOST_FOUND or
 * KDZK_HOST_NO_KERNEL. Any numbers may be asked for. */
uint32_t kdzk_host_find_kernel(const kdzk_specialized_ctx* ctx, uint32_t operation, uint32_t form, uint32_t width,
                               kdzk_host_kernel* kernel);

/* The same for a name such as "kdzk_ge_le_dict_11bit". */
uint32_t kdzk_host_find_kernel_named(const kdzk_specialized_ctx* ctx, const char* name, kdzk_host_kernel* kernel);

#ifdef __cplusplus
}
#endif

#endif

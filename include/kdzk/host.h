/* SPDX-License-Identifier: Apache-2.0
 *
 * The host kit: everything for the host's side, in the static library kdzk_host. */
#ifndef KDZK_HOST_H
#define KDZK_HOST_H

#include <kdzk/host/bloom.h>
#include <kdzk/host/check.h>
#include <kdzk/host/column.h>
#include <kdzk/host/comparison.h>
#include <kdzk/host/dictionary.h>
#include <kdzk/host/errors.h>
#include <kdzk/host/find_kernel.h>
#include <kdzk/host/loader.h>
#include <kdzk/host/memory.h>
#include <kdzk/host/packed_codes.h>
#include <kdzk/host/prefix_records.h>
#include <kdzk/host/run_length.h>
#include <kdzk/host/sortable.h>
#include <kdzk/host/sqzb.h>
#include <kdzk/kdzk.h>

#endif

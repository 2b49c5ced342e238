/* SPDX-License-Identifier: Apache-2.0
 *
 * Everything that a host compiles against. */
#ifndef KDZK_KDZK_H
#define KDZK_KDZK_H

#include <kdzk/context.h>
#include <kdzk/kernels.h>
#include <kdzk/records.h>

#endif

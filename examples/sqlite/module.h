// SPDX-License-Identifier: Apache-2.0
#ifndef KDZK_EXAMPLES_SQLITE_MODULE_H
#define KDZK_EXAMPLES_SQLITE_MODULE_H

#include "storage.h"

namespace packed {

// Registers the virtual table module `kdzk`; see module.cpp. Returns a code of SQLite.
int register_module(const std::shared_ptr<Connection>& connection);

}  // namespace packed

#endif

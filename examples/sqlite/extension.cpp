// SPDX-License-Identifier: Apache-2.0
// The extension's entry. `.load ./kdzk` in the shell of SQLite, or sqlite3_load_extension, comes here.
#include <exception>

#include "functions.h"
#include "module.h"
#include "storage.h"

SQLITE_EXTENSION_INIT1

extern "C" __attribute__((visibility("default"))) int sqlite3_kdzk_init(sqlite3* db, char** message,
                                                                        const sqlite3_api_routines* api) {
  SQLITE_EXTENSION_INIT2(api);
  constexpr int oldest = 3038000;  // which brought sqlite3_vtab_in
  if (sqlite3_libversion_number() < oldest) {
    *message = sqlite3_mprintf("kdzk needs SQLite 3.38 or later, this is %s", sqlite3_libversion());
    return SQLITE_ERROR;
  }
  try {
    const auto connection = std::make_shared<packed::Connection>(db);
    const int code = packed::register_module(connection);
    return code == SQLITE_OK ? packed::register_functions(db, connection) : code;
  } catch (const std::exception& error) {
    *message = sqlite3_mprintf("%s", error.what());
    return SQLITE_ERROR;
  }
}

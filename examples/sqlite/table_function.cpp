// SPDX-License-Identifier: Apache-2.0
#include "table_function.h"

#include <algorithm>
#include <new>
#include <string_view>

namespace packed {
namespace {

struct Registered {
  const TableFunction* function;
  std::shared_ptr<Connection> connection;
  int columns;  // of rows; the arguments follow
  int arguments;
};

struct FunctionTable : sqlite3_vtab {
  Registered* registered;
};

struct Cursor : sqlite3_vtab_cursor {
  std::unique_ptr<Answer> answer;
  Arguments arguments;
  sqlite3_int64 row;
  bool at_end;
};

const Registered& registered_of(const Cursor& cursor) { return *static_cast<FunctionTable*>(cursor.pVtab)->registered; }

// Calls `call`; what it throws becomes the table's message and a result code.
template <class Call>
int guarded(sqlite3_vtab* table, Call&& call) {
  int code = SQLITE_OK;
  std::string message;
  try {
    call();
    return SQLITE_OK;
  } catch (const std::bad_alloc&) {
    return SQLITE_NOMEM;
  } catch (const Error& error) {
    code = error.code;
    message = error.what();
  } catch (const std::exception& error) {
    code = SQLITE_ERROR;
    message = error.what();
  }
  sqlite3_free(table->zErrMsg);
  table->zErrMsg = sqlite3_mprintf("%s", message.c_str());
  return code;
}

int count_names(const char* list) {
  const std::string_view names(list);
  return names.empty() ? 0 : 1 + static_cast<int>(std::count(names.begin(), names.end(), ','));
}

int connect(sqlite3* db, void* aux, int, const char* const*, sqlite3_vtab** out, char**) {
  auto* registered = static_cast<Registered*>(aux);
  std::string declaration = std::string("CREATE TABLE x(") + registered->function->columns;
  std::string_view names(registered->function->arguments);
  while (!names.empty()) {
    const size_t comma = std::min(names.find(','), names.size());
    declaration += ", " + std::string(names.substr(0, comma)) + " HIDDEN";
    names.remove_prefix(std::min(names.size(), comma + 2));
  }
  declaration += ")";
  const int rc = sqlite3_declare_vtab(db, declaration.c_str());
  if (rc != SQLITE_OK) return rc;
  sqlite3_vtab_config(db, SQLITE_VTAB_DIRECTONLY);
  auto* table = new (std::nothrow) FunctionTable();
  if (table == nullptr) return SQLITE_NOMEM;
  table->registered = registered;
  *out = table;
  return SQLITE_OK;
}

int disconnect(sqlite3_vtab* table) {
  delete static_cast<FunctionTable*>(table);
  return SQLITE_OK;
}

// idxNum has a bit for each argument that is given; their values come in their order.
int best_index(sqlite3_vtab* vtab, sqlite3_index_info* info) {
  const Registered& registered = *static_cast<FunctionTable*>(vtab)->registered;
  std::vector<int> constraint_of(static_cast<size_t>(registered.arguments), -1);
  for (int i = 0; i < info->nConstraint; i++) {
    const auto& constraint = info->aConstraint[i];
    const int argument = constraint.iColumn - registered.columns;
    if (argument < 0 || constraint.op != SQLITE_INDEX_CONSTRAINT_EQ) continue;
    if (!constraint.usable) return SQLITE_CONSTRAINT;  // an argument of a table that comes later: no plan
    constraint_of[static_cast<size_t>(argument)] = i;
  }
  int given = 0;
  int position = 1;
  for (size_t argument = 0; argument < constraint_of.size(); argument++) {
    if (constraint_of[argument] < 0) continue;
    auto& usage = info->aConstraintUsage[constraint_of[argument]];
    usage.argvIndex = position++;
    usage.omit = 1;
    given |= 1 << argument;
  }
  info->idxNum = given;
  info->estimatedRows = static_cast<sqlite3_int64>(registered.function->rows);
  info->estimatedCost = registered.function->rows * 10;
  return SQLITE_OK;
}

int open(sqlite3_vtab*, sqlite3_vtab_cursor** out) {
  auto* cursor = new (std::nothrow) Cursor();
  if (cursor == nullptr) return SQLITE_NOMEM;
  *out = cursor;
  return SQLITE_OK;
}

int close(sqlite3_vtab_cursor* cursor) {
  delete static_cast<Cursor*>(cursor);
  return SQLITE_OK;
}

void go_on(Cursor& cursor) {
  cursor.at_end = !cursor.answer->next();
  cursor.row++;
}

int filter(sqlite3_vtab_cursor* base, int given, const char*, int, sqlite3_value** values) {
  auto& cursor = *static_cast<Cursor*>(base);
  const Registered& registered = registered_of(cursor);
  return guarded(cursor.pVtab, [&] {
    cursor.answer.reset();
    cursor.at_end = true;
    cursor.row = 0;
    cursor.arguments.assign(static_cast<size_t>(registered.arguments), std::nullopt);
    for (size_t argument = 0; argument < cursor.arguments.size(); argument++) {
      if ((given >> argument & 1) == 0) continue;
      sqlite3_value* value = *values++;
      const auto* text = reinterpret_cast<const char*>(sqlite3_value_text(value));
      if (text != nullptr)
        cursor.arguments[argument] = std::string(text, static_cast<size_t>(sqlite3_value_bytes(value)));
    }
    for (size_t argument = 0; argument < registered.function->required; argument++) {
      if (cursor.arguments[argument]) continue;
      throw Error(SQLITE_ERROR, std::string("it has to be ") + registered.function->name + "(" +
                                    registered.function->arguments + "), of which the first " +
                                    std::to_string(registered.function->required) + " can't be left out");
    }
    cursor.answer = registered.function->open(*registered.connection, cursor.arguments);
    go_on(cursor);
  });
}

int next(sqlite3_vtab_cursor* base) {
  auto& cursor = *static_cast<Cursor*>(base);
  return guarded(cursor.pVtab, [&] { go_on(cursor); });
}

int at_end(sqlite3_vtab_cursor* cursor) { return static_cast<Cursor*>(cursor)->at_end ? 1 : 0; }

int write_column(sqlite3_vtab_cursor* base, sqlite3_context* out, int column) {
  auto& cursor = *static_cast<Cursor*>(base);
  const int columns = registered_of(cursor).columns;
  if (column >= columns) {
    const auto& argument = cursor.arguments[static_cast<size_t>(column - columns)];
    if (argument) sqlite3_result_text64(out, argument->data(), argument->size(), SQLITE_TRANSIENT, SQLITE_UTF8);
    return SQLITE_OK;
  }
  return guarded(cursor.pVtab, [&] { cursor.answer->write_column(out, column); });
}

int rowid(sqlite3_vtab_cursor* cursor, sqlite3_int64* row) {
  *row = static_cast<Cursor*>(cursor)->row;
  return SQLITE_OK;
}

constexpr sqlite3_module make_module() {
  sqlite3_module module{};  // without xCreate: there is nothing to create
  module.xConnect = connect;
  module.xBestIndex = best_index;
  module.xDisconnect = disconnect;
  module.xOpen = open;
  module.xClose = close;
  module.xFilter = filter;
  module.xNext = next;
  module.xEof = at_end;
  module.xColumn = write_column;
  module.xRowid = rowid;
  return module;
}
constexpr sqlite3_module module = make_module();

}  // namespace

int register_table_function(sqlite3* db, const TableFunction& function, const std::shared_ptr<Connection>& connection) {
  auto* registered = new (std::nothrow)
      Registered{&function, connection, count_names(function.columns), count_names(function.arguments)};
  if (registered == nullptr) return SQLITE_NOMEM;
  return sqlite3_create_module_v2(db, function.name, &module, registered,
                                  [](void* aux) { delete static_cast<Registered*>(aux); });
}

}  // namespace packed

// SPDX-License-Identifier: Apache-2.0
// The virtual table module `kdzk`: packed tables for SQL.
//
//   .load ./kdzk
//   CREATE VIRTUAL TABLE flights USING kdzk(csv='flights.csv');
//   CREATE VIRTUAL TABLE late USING kdzk(select='SELECT * FROM flights WHERE delay > 60', form(date)=runs);
//   CREATE VIRTUAL TABLE log USING kdzk(columns='at INTEGER, what TEXT');
//
// A CSV file has a header line; a column of integers, or numbers, becomes one; an empty field is NULL, "" isn't. Of a
// SELECT the columns' names and declared types are taken. form(column) asks for a form of storage, one or several of
// packed, runs, fixed and dynp, or all of them for `plain`, and with blocked before them for compressed blocks; the
// smallest that can hold the column is taken.
//
// INSERT appends: rows wait in a plain table until 65,536 of them become a segment. Rowids are given by the table.
// DELETE sets bits that kernels take as their filter. UPDATE of a packed row deletes it and appends the new one, with a
// new rowid. Transactions, savepoints, backups and VACUUM INTO are SQLite's: everything is in shadow tables.
//
// What WHERE has goes to kernels as far as they give what SQLite would: =, <>, <, <=, >, >=, of which a low and a high
// one become one BETWEEN; IS NULL, IS NOT NULL; IN, with a list or a SELECT; LIKE and GLOB, asked of SQLite once per
// dictionary entry; rowid ranges; LIMIT and OFFSET. EXPLAIN QUERY PLAN names the kernels in their order.
//
// Comparisons across types depend on affinities, and of the right side's SQLite tells only the value, if at all. With a
// column of numeric affinity that makes no difference. With others, where it might, a condition takes in all rows that
// could qualify under any affinity, and SQLite looks at these again.
#include "module.h"

#include <strings.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>

#include "load.h"
#include "scan.h"

namespace packed {
namespace {

// One constraint of a plan, and where its value is among the arguments of xFilter.
struct Use {
  enum class Kind { compare, in, like, glob, rowid, limit, offset };
  Kind kind;
  int column;
  uint32_t operation;  // KDZK_OP_EQ and so on
  bool text_known;     // the value is a text, whatever it is
  int argument;        // 0: none

  std::string key() const {
    return std::to_string(static_cast<int>(kind)) + "," + std::to_string(column) + "," + std::to_string(operation) +
           (text_known ? "t" : "") + "," + std::to_string(argument) + ";";
  }
};
using Plan = std::vector<Use>;

struct VirtualTable : sqlite3_vtab {
  VirtualTable() : sqlite3_vtab{} {}
  std::shared_ptr<Connection> connection;
  std::shared_ptr<Table> table;
  std::deque<Plan> plans;  // xFilter gets the index of one
  std::map<std::string, int> plan_numbers;
};

struct Cursor : sqlite3_vtab_cursor {
  Cursor() : sqlite3_vtab_cursor{} {}
  struct Column {
    bool decoded = false;
    bool keeps_texts = false;  // they stay as long as the table is connected
    std::shared_ptr<Part> part;
    std::vector<uint32_t> codes;
    std::vector<Value> values;
  };

  VirtualTable& owner() const { return *static_cast<VirtualTable*>(pVtab); }

  std::shared_ptr<const Snapshot> snapshot;
  std::unique_ptr<Query> query;
  std::deque<std::string> texts;  // of constants
  int64_t first_rowid = 1, last_rowid = INT64_MAX;
  int64_t rows_left = -1, rows_to_skip = 0;  // -1: no limit
  size_t segment = 0;                        // behind the one that rows are of
  const Segment* here = nullptr;
  std::vector<uint64_t> bits, range;
  std::vector<uint32_t> rows;
  uint32_t count = 0, at = 0;               // rows of this segment, and the current one among them
  uint32_t batch_first = 0, batch_end = 0;  // of them, those that are decoded at once
  std::vector<Column> columns;
};

// What is called from SQLite: errors become its codes and messages.
template <class Body>
int guarded(char** message, const Body& body) {
  const auto set = [&](const char* text) {
    sqlite3_free(*message);
    *message = sqlite3_mprintf("%s", text);
  };
  try {
    body();
    return SQLITE_OK;
  } catch (const Error& error) {
    set(error.what());
    return error.code;
  } catch (const std::bad_alloc&) {
    return SQLITE_NOMEM;
  } catch (const std::exception& error) {
    set(error.what());
    return SQLITE_ERROR;
  }
}

// ---- Creation ----

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || (text.front() >= '\t' && text.front() <= '\r')))
    text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || (text.back() >= '\t' && text.back() <= '\r'))) text.remove_suffix(1);
  return text;
}

std::string unquoted(std::string_view text) {
  text = trimmed(text);
  if (text.size() < 2 || (text[0] != '\'' && text[0] != '"') || text.back() != text[0]) return std::string(text);
  std::string result;
  for (size_t i = 1; i + 1 < text.size(); i++) {
    result += text[i];
    if (text[i] == text[0]) i++;
  }
  return result;
}

uint32_t forms_of(const std::string& words) {
  uint32_t forms = 0;
  bool blocked = false;
  for (size_t at = 0; at < words.size();) {
    const size_t end = std::min(words.find(' ', at), words.size());
    const std::string word = words.substr(at, end - at);
    at = end + 1;
    if (word.empty()) continue;
    if (word == "blocked")
      blocked = true;
    else if (word == "packed")
      forms |= KDZK_HOST_PACKED;
    else if (word == "runs")
      forms |= KDZK_HOST_RUNS;
    else if (word == "fixed")
      forms |= KDZK_HOST_FIXED;
    else if (word == "dynp")
      forms |= KDZK_HOST_DYNP;
    else if (word == "plain")
      forms |= KDZK_HOST_PLAIN_FORMS;
    else
      throw Error(SQLITE_ERROR, "no form '" + word + "'; the forms are: packed, runs, fixed, dynp, plain, blocked");
  }
  if (forms == 0) forms = KDZK_HOST_PLAIN_FORMS;
  return blocked ? KDZK_HOST_BLOCKED(forms) : forms;
}

void create(const std::shared_ptr<Connection>& connection, const std::string& schema, const std::string& name, int argc,
            const char* const* argv) {
  std::map<std::string, std::string> options;
  for (int i = 3; i < argc; i++) {
    const std::string_view argument(argv[i]);
    const size_t equals = argument.find('=');
    if (equals == std::string_view::npos)
      throw Error(SQLITE_ERROR, "'" + std::string(argument) + "' isn't option=value");
    options[std::string(trimmed(argument.substr(0, equals)))] = unquoted(argument.substr(equals + 1));
  }
  std::vector<ColumnInfo> columns;
  std::unique_ptr<Rows> rows;
  int sources = 0;
  for (const auto& [option, value] : options) {
    if (option == "csv") rows = std::make_unique<Rows>(read_csv(value, columns));
    if (option == "select") rows = std::make_unique<Rows>(read_select(connection->db(), value, columns));
    if (option == "columns") columns = columns_of(value);
    sources += option == "csv" || option == "select" || option == "columns";
    if (sources > 1) break;
  }
  if (sources != 1)
    throw Error(SQLITE_ERROR, "kdzk takes one of csv='file', select='SELECT ...', columns='name TYPE, ...'");
  for (const auto& [option, value] : options) {
    if (option == "csv" || option == "select" || option == "columns") continue;
    if (option.rfind("form(", 0) != 0 || option.back() != ')') throw Error(SQLITE_ERROR, "no option '" + option + "'");
    const std::string column = unquoted(option.substr(5, option.size() - 6));
    const auto found = std::find_if(columns.begin(), columns.end(), [&](const ColumnInfo& info) {
      return strcasecmp(info.name.c_str(), column.c_str()) == 0;
    });
    if (found == columns.end()) throw Error(SQLITE_ERROR, "form(): there is no column '" + column + "'");
    found->forms = forms_of(value);
  }
  Table::create(*connection, schema, name, columns);
  if (rows == nullptr) return;
  Table table(*connection, schema, name);
  table.append(*rows);
  table.flush();
}

int connect(sqlite3* db, void* aux, int argc, const char* const* argv, sqlite3_vtab** vtab, char** message,
            bool creates) {
  return guarded(message, [&] {
    const auto& connection = *static_cast<std::shared_ptr<Connection>*>(aux);
    if (creates) create(connection, argv[1], argv[2], argc, argv);
    auto made = std::make_unique<VirtualTable>();
    made->connection = connection;
    made->table = connection->connect(argv[1], argv[2]);
    std::string declaration;
    for (const ColumnInfo& info : made->table->columns()) {
      declaration += declaration.empty() ? "CREATE TABLE x(" : ", ";
      declaration += quoted(info.name) + " " + info.type;
    }
    if (sqlite3_declare_vtab(db, (declaration + ")").c_str()) != SQLITE_OK)
      throw Error(SQLITE_ERROR, sqlite3_errmsg(db));
    *vtab = made.release();
  });
}

int x_create(sqlite3* db, void* aux, int argc, const char* const* argv, sqlite3_vtab** vtab, char** message) {
  return connect(db, aux, argc, argv, vtab, message, true);
}

int x_connect(sqlite3* db, void* aux, int argc, const char* const* argv, sqlite3_vtab** vtab, char** message) {
  return connect(db, aux, argc, argv, vtab, message, false);
}

VirtualTable& of(sqlite3_vtab* vtab) { return *static_cast<VirtualTable*>(vtab); }

int x_disconnect(sqlite3_vtab* vtab) {
  of(vtab).connection->disconnect(*of(vtab).table);
  delete &of(vtab);
  return SQLITE_OK;
}

int x_destroy(sqlite3_vtab* vtab) {
  const int code = guarded(&vtab->zErrMsg, [&] {
    Table& table = *of(vtab).table;
    table.close();
    Table::drop(*of(vtab).connection, table.schema(), table.name());
  });
  return code == SQLITE_OK ? x_disconnect(vtab) : code;
}

int x_rename(sqlite3_vtab* vtab, const char* new_name) {
  return guarded(&vtab->zErrMsg, [&] {
    Table& table = *of(vtab).table;
    table.flush();
    table.close();
    Table::rename(*of(vtab).connection, table.schema(), table.name(), new_name);
  });
}

int x_shadow_name(const char* suffix) {
  for (const std::string& name : Table::shadow_names()) {
    if (strcasecmp(suffix, name.c_str()) == 0) return 1;
  }
  return 0;
}

// ---- Conditions ----

bool holds(uint32_t operation, const Value& a, const Value& b) {
  const int order = compare(a, b);
  switch (operation) {
    case KDZK_OP_EQ:
      return order == 0;
    case KDZK_OP_NE:
      return order != 0;
    case KDZK_OP_LT:
      return order < 0;
    case KDZK_OP_LE:
      return order <= 0;
    case KDZK_OP_GT:
      return order > 0;
    default:
      return order >= 0;
  }
}

// Whether the condition holds for a column's value as it is, or under one of the affinities that the right side may
// bring about.
template <class Holds>
bool holds_somehow(const Value& value, const Holds& holds) {
  if (holds(value)) return true;
  std::deque<std::string> texts;
  return holds(applied(Affinity::numeric, value, texts)) || holds(applied(Affinity::text, value, texts));
}

// Whether kernels, or a set of all entries that qualify, give exactly what SQLite would.
bool is_exact(const ColumnInfo& column, const Use& use) {
  if (use.operation >= KDZK_HOST_OP_IS_NULL || use.kind == Use::Kind::like || use.kind == Use::Kind::glob) return true;
  if (is_numeric(column.affinity)) return true;
  if (column.affinity == Affinity::none) return false;
  return use.kind == Use::Kind::in || use.text_known;
}

// Asks SQLite for "value LIKE pattern", whatever LIKE is in this connection.
std::function<bool(const Value&)> asked_of_sqlite(sqlite3* db, const char* operation, const Value& pattern) {
  auto statement = std::make_shared<Statement>(db, std::string("SELECT ?1 ") + operation + " ?2");
  const auto bind = [](sqlite3_stmt* to, int parameter, const Value& value) {
    const char* const bytes = value.bytes.empty() ? "" : value.bytes.data();
    if (value.type == Type::integer) sqlite3_bind_int64(to, parameter, value.integer);
    if (value.type == Type::real) sqlite3_bind_double(to, parameter, value.real);
    if (value.type == Type::text)
      sqlite3_bind_text64(to, parameter, bytes, value.bytes.size(), SQLITE_STATIC, SQLITE_UTF8);
    if (value.type == Type::blob) sqlite3_bind_blob64(to, parameter, bytes, value.bytes.size(), SQLITE_STATIC);
  };
  bind(statement->get(), 2, pattern);
  return [statement, bind](const Value& value) {
    const Borrowed asked(*statement);
    bind(asked->get(), 1, value);
    return asked->step() && asked->integer(0) != 0;
  };
}

Value kept(const Value& value, std::deque<std::string>& texts) {
  Value result = value;
  if (value.type == Type::text || value.type == Type::blob) result.bytes = texts.emplace_back(value.bytes);
  return result;
}

// The condition of a use and its value; a null value: not known yet.
Condition condition_of(const Table& table, const Use& use, sqlite3_value* given, std::deque<std::string>& texts) {
  const Affinity affinity = table.columns()[static_cast<size_t>(use.column)].affinity;
  Condition condition;
  condition.column = use.column;
  condition.operation = use.operation;
  if (use.kind != Use::Kind::compare) condition.kind = Condition::Kind::match;
  if (use.operation >= KDZK_HOST_OP_IS_NULL) return condition;
  if (given == nullptr) {
    condition.known = false;
    return condition;
  }
  if (use.kind == Use::Kind::in) {
    condition.kind = Condition::Kind::in;
    sqlite3_value* value = nullptr;
    bool numbers = false;
    int code = sqlite3_vtab_in_first(given, &value);
    for (; code == SQLITE_OK && value != nullptr; code = sqlite3_vtab_in_next(given, &value)) {
      Value item = kept(Value::of(value), texts);
      if (is_numeric(affinity)) item = applied(Affinity::numeric, item, texts);
      numbers = numbers || item.is_number();
      condition.list.push_back(item);
    }
    if (code != SQLITE_OK && code != SQLITE_DONE) throw Error(code, "can't read the list of IN");
    if (affinity == Affinity::none || (affinity == Affinity::text && numbers)) {
      const auto below = [](const Value& a, const Value& b) { return compare(a, b) < 0; };
      std::erase_if(condition.list, [](const Value& item) { return item.type == Type::null; });
      std::sort(condition.list.begin(), condition.list.end(), below);
      condition.kind = Condition::Kind::match;
      // Numbers in the list of a column of texts: SQLite compares numbers, and the others as they are.
      condition.match = [list = std::move(condition.list), affinity, below](const Value& entry) {
        const auto is_in = [&](const Value& value) {
          return std::binary_search(list.begin(), list.end(), value, below);
        };
        if (affinity == Affinity::none) return holds_somehow(entry, is_in);
        std::deque<std::string> made;
        return is_in(applied(Affinity::numeric, entry, made));
      };
    }
    return condition;
  }
  Value value = kept(Value::of(given), texts);
  if (use.kind == Use::Kind::like || use.kind == Use::Kind::glob) {
    if (value.type == Type::null) {
      condition.match = [](const Value&) { return false; };
    } else {
      condition.match = asked_of_sqlite(const_cast<Table&>(table).connection().db(),
                                        use.kind == Use::Kind::like ? "LIKE" : "GLOB", value);
    }
    return condition;
  }
  condition.low = is_numeric(affinity) ? applied(Affinity::numeric, value, texts) : value;
  const ColumnInfo& info = table.columns()[static_cast<size_t>(use.column)];
  if (is_exact(info, use) || value.type == Type::null || value.type == Type::blob) {
    if (affinity != Affinity::none || value.type == Type::null) return condition;
  }
  const bool downwards = use.operation == KDZK_OP_LT || use.operation == KDZK_OP_LE;
  if (affinity == Affinity::text && value.type == Type::text && !downwards) return condition;
  condition.kind = Condition::Kind::match;
  Value as_text = value;
  if (affinity == Affinity::text) as_text = applied(Affinity::text, value, texts);
  condition.match = [value, as_text, operation = use.operation](const Value& entry) {
    return holds(operation, entry, as_text) ||
           holds_somehow(entry, [&](const Value& other) { return holds(operation, other, value); });
  };
  return condition;
}

// A low and a high comparison of a column become one.
void merge_ranges(std::vector<Condition>& conditions) {
  const auto is = [](const Condition& condition, uint32_t a, uint32_t b) {
    return condition.kind == Condition::Kind::compare && (condition.operation == a || condition.operation == b);
  };
  for (size_t low = 0; low < conditions.size(); low++) {
    if (!is(conditions[low], KDZK_OP_GT, KDZK_OP_GE)) continue;
    for (size_t high = 0; high < conditions.size(); high++) {
      Condition &a = conditions[low], &b = conditions[high];
      if (!is(b, KDZK_OP_LT, KDZK_OP_LE) || a.column != b.column || a.known != b.known) continue;
      const bool closed = b.operation == KDZK_OP_LE;
      a.operation = a.operation == KDZK_OP_GT ? (closed ? KDZK_OP_GT_LE : KDZK_OP_GT_LT)
                                              : (closed ? KDZK_OP_GE_LE : KDZK_OP_GE_LT);
      a.high = b.low;
      conditions.erase(conditions.begin() + static_cast<ptrdiff_t>(high));
      if (high < low) low--;
      break;
    }
  }
}

// ---- Plans ----

bool operation_of(int constraint, Use& use) {
  switch (constraint) {
    case SQLITE_INDEX_CONSTRAINT_EQ:
      use.operation = KDZK_OP_EQ;
      return true;
    case SQLITE_INDEX_CONSTRAINT_NE:
      use.operation = KDZK_OP_NE;
      return true;
    case SQLITE_INDEX_CONSTRAINT_LT:
      use.operation = KDZK_OP_LT;
      return true;
    case SQLITE_INDEX_CONSTRAINT_LE:
      use.operation = KDZK_OP_LE;
      return true;
    case SQLITE_INDEX_CONSTRAINT_GT:
      use.operation = KDZK_OP_GT;
      return true;
    case SQLITE_INDEX_CONSTRAINT_GE:
      use.operation = KDZK_OP_GE;
      return true;
    case SQLITE_INDEX_CONSTRAINT_ISNULL:
      use.operation = KDZK_HOST_OP_IS_NULL;
      return true;
    case SQLITE_INDEX_CONSTRAINT_ISNOTNULL:
      use.operation = KDZK_HOST_OP_IS_NOT_NULL;
      return true;
    case SQLITE_INDEX_CONSTRAINT_LIKE:
      use.kind = Use::Kind::like;
      return true;
    case SQLITE_INDEX_CONSTRAINT_GLOB:
      use.kind = Use::Kind::glob;
      return true;
    default:
      return false;
  }
}

int number_of(VirtualTable& owner, const Plan& plan) {
  std::string key;
  for (const Use& use : plan) key += use.key();
  const auto [number, is_new] = owner.plan_numbers.emplace(key, static_cast<int>(owner.plans.size()));
  if (is_new) owner.plans.push_back(plan);
  return number->second;
}

void choose_plan(VirtualTable& owner, sqlite3_index_info* info) {
  Table& table = *owner.table;
  const std::shared_ptr<const Snapshot> snapshot = table.snapshot();
  Plan plan;
  std::vector<Condition> conditions;
  std::deque<std::string> texts;
  std::string rowid_text;
  bool exact = true;  // all that WHERE has is left to this table
  int arguments = 0, limit = -1, offset = -1;
  double rowid_share = 1;
  const auto take = [&](int constraint, const Use& use, bool omit) {
    info->aConstraintUsage[constraint].argvIndex = use.argument;
    info->aConstraintUsage[constraint].omit = omit;
    plan.push_back(use);
  };
  for (int i = 0; i < info->nConstraint; i++) {
    const auto& constraint = info->aConstraint[i];
    if (constraint.op == SQLITE_INDEX_CONSTRAINT_LIMIT) limit = constraint.usable ? i : -1;
    if (constraint.op == SQLITE_INDEX_CONSTRAINT_OFFSET) offset = i;
    if (constraint.op == SQLITE_INDEX_CONSTRAINT_LIMIT || constraint.op == SQLITE_INDEX_CONSTRAINT_OFFSET) continue;
    Use use{Use::Kind::compare, constraint.iColumn, KDZK_OP_EQ, false, 0};
    const bool known = constraint.usable && operation_of(constraint.op, use);
    const bool pattern = use.kind != Use::Kind::compare, null = use.operation >= KDZK_HOST_OP_IS_NULL;
    const bool of_rowid = constraint.iColumn < 0;
    const char* const collation = known && !pattern && !null && !of_rowid ? sqlite3_vtab_collation(info, i) : nullptr;
    if (!known || (of_rowid && (pattern || null || use.operation == KDZK_OP_NE)) ||
        (collation != nullptr && strcasecmp(collation, "BINARY") != 0)) {
      exact = false;
      continue;
    }
    const bool in = constraint.op == SQLITE_INDEX_CONSTRAINT_EQ && sqlite3_vtab_in(info, i, -1) != 0;
    if (in && !of_rowid) {
      sqlite3_vtab_in(info, i, 1);
      use.kind = Use::Kind::in;
    }
    use.argument = ++arguments;
    if (of_rowid) {
      use.kind = Use::Kind::rowid;
      exact = exact && !in;
      rowid_share *= use.operation == KDZK_OP_EQ ? 1 / std::max(1.0, static_cast<double>(snapshot->live)) : 0.5;
      rowid_text = "rowid";
      take(i, use, true);
      continue;
    }
    sqlite3_value* value = nullptr;
    if (use.kind != Use::Kind::in && !null && sqlite3_vtab_rhs_value(info, i, &value) != SQLITE_OK) value = nullptr;
    use.text_known = value != nullptr && sqlite3_value_type(value) == SQLITE_TEXT;
    const bool omit = is_exact(table.columns()[static_cast<size_t>(use.column)], use);
    exact = exact && omit;
    take(i, use, omit);
    conditions.push_back(condition_of(table, use, value, texts));
  }
  merge_ranges(conditions);
  const auto live = static_cast<double>(snapshot->live);
  double share = rowid_share;
  std::string text;
  if (!snapshot->segments.empty() && !conditions.empty()) {
    Query query(table, std::move(conditions));
    text = query.plan(*snapshot->segments.front());
    share *= query.planned_share();
  }
  if (!rowid_text.empty()) text += (text.empty() ? "" : ", ") + rowid_text;
  const bool in_order = info->nOrderBy == 1 && info->aOrderBy[0].iColumn < 0 && !info->aOrderBy[0].desc;
  info->orderByConsumed = in_order;
  if (exact && (info->nOrderBy == 0 || in_order) && limit >= 0) {
    take(limit, {Use::Kind::limit, 0, 0, false, ++arguments}, false);
    if (offset >= 0 && info->aConstraint[offset].usable)
      take(offset, {Use::Kind::offset, 0, 0, false, ++arguments}, true);
    text += text.empty() ? "limit" : ", limit";
  }
  info->idxNum = number_of(owner, plan);
  info->idxStr = sqlite3_mprintf("%s", text.empty() ? "all rows" : text.c_str());
  info->needToFreeIdxStr = 1;
  const double rows = std::max(1.0, live * share);
  info->estimatedRows = static_cast<sqlite3_int64>(rows);
  info->estimatedCost = 10 + live / 500 * static_cast<double>(std::max<size_t>(1, plan.size())) + 2 * rows;
}

int x_best_index(sqlite3_vtab* vtab, sqlite3_index_info* info) {
  return guarded(&vtab->zErrMsg, [&] {
    try {
      choose_plan(of(vtab), info);
    } catch (const Error& error) {
      // The scan will find the same, and then SQLite passes on the code, which it doesn't from here.
      if ((error.code & 0xff) != SQLITE_CORRUPT) throw;
      for (int i = 0; i < info->nConstraint; i++) info->aConstraintUsage[i] = {};
      info->orderByConsumed = 0;
      info->idxNum = number_of(of(vtab), {});
    }
  });
}

// ---- Cursors ----

Cursor& of(sqlite3_vtab_cursor* cursor) { return *static_cast<Cursor*>(cursor); }

int x_open(sqlite3_vtab* vtab, sqlite3_vtab_cursor** cursor) {
  return guarded(&vtab->zErrMsg, [&] { *cursor = new Cursor(); });
}

int x_close(sqlite3_vtab_cursor* cursor) {
  delete &of(cursor);
  return SQLITE_OK;
}

// Narrows the rowids of a cursor to those that compare so with a value.
void narrow(Cursor& cursor, uint32_t operation, sqlite3_value* given) {
  std::deque<std::string> texts;
  const Value value = applied(Affinity::numeric, Value::of(given), texts);
  const auto none = [&] { cursor.last_rowid = 0; };
  if (value.type == Type::null) return none();
  const bool downwards = operation == KDZK_OP_LT || operation == KDZK_OP_LE;
  if (!value.is_number()) {
    if (!downwards) none();
    return;
  }
  // The rowids that aren't below the value begin at `from`, those above it at `above`; both may be past the ends.
  const long double number =
      value.type == Type::integer ? static_cast<long double>(value.integer) : static_cast<long double>(value.real);
  const long double from = std::ceil(number), above = std::floor(number) + 1;
  const auto clamped = [](long double rowid) {
    return rowid < 0 ? int64_t{0} : rowid > 9e18L ? int64_t{9000000000000000000} : static_cast<int64_t>(rowid);
  };
  if (operation == KDZK_OP_EQ && from == above) return none();
  const bool has_low = !downwards, has_high = downwards || operation == KDZK_OP_EQ;
  if (has_low) cursor.first_rowid = std::max(cursor.first_rowid, clamped(operation == KDZK_OP_GT ? above : from));
  if (has_high) cursor.last_rowid = std::min(cursor.last_rowid, clamped(operation == KDZK_OP_LT ? from : above) - 1);
}

// Goes to the next segment with rows, or to the end.
void find_rows(Cursor& cursor) {
  Connection& connection = *cursor.owner().connection;
  const auto& segments = cursor.snapshot->segments;
  cursor.here = nullptr;
  cursor.at = cursor.count = 0;
  while (cursor.here == nullptr && cursor.rows_left != 0 && cursor.segment < segments.size()) {
    const Segment& segment = *segments[cursor.segment++];
    const uint32_t nrows = segment.nrows();
    const int64_t first = std::max<int64_t>(0, cursor.first_rowid - segment.rowid(0));
    const int64_t last = std::min<int64_t>(nrows, cursor.last_rowid - segment.rowid(0) + 1) - 1;
    if (first > last) continue;
    uint32_t hits = 0;
    if (first == last && cursor.query->has_no_conditions()) {
      const uint64_t* const live = segment.filter();
      hits = live == nullptr || (live[first / 64] >> first % 64 & 1) != 0;
      std::fill(cursor.bits.begin(), cursor.bits.end(), 0);
      cursor.bits[static_cast<size_t>(first) / 64] = uint64_t{1} << first % 64;
    } else if (first > 0 || last + 1 < nrows) {
      std::fill(cursor.range.begin(), cursor.range.end(), 0);
      connection.library().bv64.set_range(cursor.range.data(), static_cast<uint64_t>(first),
                                          static_cast<uint64_t>(last));
      hits =
          cursor.query->scan(segment, cursor.range.data(), static_cast<uint32_t>(last - first + 1), cursor.bits.data());
    } else {
      hits = cursor.query->scan(segment, cursor.bits.data());
    }
    if (hits <= cursor.rows_to_skip) {
      cursor.rows_to_skip -= hits;
      continue;
    }
    cursor.count = connection.rows_of(cursor.bits.data(), nrows, cursor.rows.data());
    cursor.at = static_cast<uint32_t>(cursor.rows_to_skip);
    cursor.rows_to_skip = 0;
    if (cursor.rows_left >= 0) {
      cursor.count = static_cast<uint32_t>(std::min<int64_t>(cursor.count, cursor.at + cursor.rows_left));
      cursor.rows_left -= cursor.count - cursor.at;
    }
    cursor.here = &segment;
    cursor.batch_first = cursor.at;
    cursor.batch_end = std::min(cursor.count, cursor.at + 64);  // a short one: there may be a LIMIT
    for (Cursor::Column& column : cursor.columns) {
      column.decoded = false;
      column.part = nullptr;
    }
  }
}

int x_filter(sqlite3_vtab_cursor* base, int number, const char*, int argc, sqlite3_value** argv) {
  return guarded(&base->pVtab->zErrMsg, [&] {
    Cursor& cursor = of(base);
    VirtualTable& owner = cursor.owner();
    Table& table = *owner.table;
    cursor.query = nullptr;
    cursor.texts.clear();
    cursor.snapshot = table.snapshot();
    cursor.first_rowid = 1;
    cursor.last_rowid = INT64_MAX;
    cursor.rows_left = -1;
    cursor.rows_to_skip = 0;
    cursor.segment = 0;
    cursor.bits.resize(segment_words);
    cursor.range.resize(segment_words);
    cursor.rows.resize(segment_rows);
    cursor.columns.resize(table.columns().size());
    std::vector<Condition> conditions;
    for (const Use& use : owner.plans[static_cast<size_t>(number)]) {
      sqlite3_value* const value = use.argument >= 1 && use.argument <= argc ? argv[use.argument - 1] : nullptr;
      if (use.kind == Use::Kind::rowid) {
        narrow(cursor, use.operation, value);
      } else if (use.kind == Use::Kind::limit) {
        cursor.rows_left = std::max<int64_t>(-1, sqlite3_value_int64(value));
      } else if (use.kind == Use::Kind::offset) {
        cursor.rows_to_skip = std::max<int64_t>(0, sqlite3_value_int64(value));
      } else {
        conditions.push_back(condition_of(table, use, value, cursor.texts));
      }
    }
    merge_ranges(conditions);
    cursor.query = std::make_unique<Query>(table, std::move(conditions));
    find_rows(cursor);
  });
}

int x_next(sqlite3_vtab_cursor* base) {
  Cursor& cursor = of(base);
  if (++cursor.at < cursor.batch_end) return SQLITE_OK;
  if (cursor.at >= cursor.count) return guarded(&base->pVtab->zErrMsg, [&] { find_rows(cursor); });
  cursor.batch_first = cursor.at;
  cursor.batch_end = std::min(cursor.count, cursor.at + 1024);
  for (Cursor::Column& column : cursor.columns) column.decoded = false;
  return SQLITE_OK;
}

int x_eof(sqlite3_vtab_cursor* base) { return of(base).here == nullptr; }

int x_rowid(sqlite3_vtab_cursor* base, sqlite3_int64* rowid) {
  *rowid = of(base).here->rowid(of(base).rows[of(base).at]);
  return SQLITE_OK;
}

// Only columns that are asked for are decoded, for all rows of the batch.
void decode(Cursor& cursor, Cursor::Column& column, int number) {
  if (column.part == nullptr) column.part = cursor.here->part(number);
  const uint32_t* const rows = cursor.rows.data() + cursor.batch_first;
  const uint32_t count = cursor.batch_end - cursor.batch_first;
  if (column.part->is_coded()) {
    column.codes.resize(count);
    column.part->codes(rows, count, column.codes.data());
    column.keeps_texts = column.part->dictionary()->id() > 0;
  } else {
    column.values.resize(count);
    column.part->values(rows, count, column.values.data());
    column.keeps_texts = false;
  }
  column.decoded = true;
}

int x_column(sqlite3_vtab_cursor* base, sqlite3_context* context, int number) {
  Cursor& cursor = of(base);
  Cursor::Column& column = cursor.columns[static_cast<size_t>(number)];
  if (!column.decoded) {
    char* message = nullptr;
    const int code = guarded(&message, [&] { decode(cursor, column, number); });
    if (code != SQLITE_OK) {
      if (message != nullptr) sqlite3_result_error(context, message, -1);
      sqlite3_result_error_code(context, code);
      sqlite3_free(message);
      return code;
    }
  }
  const uint32_t at = cursor.at - cursor.batch_first;
  const Value& value = column.part->is_coded() ? column.part->dictionary()->value(column.codes[at]) : column.values[at];
  const auto destructor = column.keeps_texts ? SQLITE_STATIC : SQLITE_TRANSIENT;
  const char* const bytes = value.bytes.empty() ? "" : value.bytes.data();
  switch (value.type) {
    case Type::integer:
      sqlite3_result_int64(context, value.integer);
      break;
    case Type::real:
      sqlite3_result_double(context, value.real);
      break;
    case Type::text:
      sqlite3_result_text64(context, bytes, value.bytes.size(), destructor, SQLITE_UTF8);
      break;
    case Type::blob:
      sqlite3_result_blob64(context, bytes, value.bytes.size(), destructor);
      break;
    default:
      sqlite3_result_null(context);
  }
  return SQLITE_OK;
}

// ---- Changes and transactions ----

int x_update(sqlite3_vtab* vtab, int argc, sqlite3_value** argv, sqlite3_int64* rowid) {
  return guarded(&vtab->zErrMsg, [&] {
    Table& table = *of(vtab).table;
    if (argc == 1) {
      table.remove(sqlite3_value_int64(argv[0]));
      return;
    }
    std::vector<Value> values;
    for (int i = 2; i < argc; i++) values.push_back(Value::of(argv[i]));
    const bool updates = sqlite3_value_type(argv[0]) != SQLITE_NULL;
    const bool has_rowid = sqlite3_value_type(argv[1]) != SQLITE_NULL;
    const int64_t given = has_rowid ? sqlite3_value_int64(argv[1]) : 0;
    if (!updates) {
      *rowid = table.insert(values, has_rowid ? &given : nullptr);
      return;
    }
    const int64_t before = sqlite3_value_int64(argv[0]);
    if (given != before) throw Error(SQLITE_CONSTRAINT_ROWID, table.name() + " numbers its rows itself");
    if (table.replace(before, values)) return;
    if (table.remove(before)) table.insert(values, nullptr);
  });
}

int x_begin(sqlite3_vtab* vtab) {
  of(vtab).table->forget();
  return SQLITE_OK;
}

int x_sync(sqlite3_vtab* vtab) {
  return guarded(&vtab->zErrMsg, [&] { of(vtab).table->flush(); });
}

int x_commit(sqlite3_vtab*) { return SQLITE_OK; }

int x_rollback(sqlite3_vtab* vtab) { return x_begin(vtab); }

int x_savepoint(sqlite3_vtab* vtab, int) { return x_sync(vtab); }

int x_release(sqlite3_vtab*, int) { return SQLITE_OK; }

int x_rollback_to(sqlite3_vtab* vtab, int) { return x_begin(vtab); }

constexpr sqlite3_module module{
    .iVersion = 3,
    .xCreate = x_create,
    .xConnect = x_connect,
    .xBestIndex = x_best_index,
    .xDisconnect = x_disconnect,
    .xDestroy = x_destroy,
    .xOpen = x_open,
    .xClose = x_close,
    .xFilter = x_filter,
    .xNext = x_next,
    .xEof = x_eof,
    .xColumn = x_column,
    .xRowid = x_rowid,
    .xUpdate = x_update,
    .xBegin = x_begin,
    .xSync = x_sync,
    .xCommit = x_commit,
    .xRollback = x_rollback,
    .xFindFunction = nullptr,
    .xRename = x_rename,
    .xSavepoint = x_savepoint,
    .xRelease = x_release,
    .xRollbackTo = x_rollback_to,
    .xShadowName = x_shadow_name,
};

}  // namespace

int register_module(const std::shared_ptr<Connection>& connection) {
  return sqlite3_create_module_v2(connection->db(), "kdzk", &module, new std::shared_ptr<Connection>(connection),
                                  [](void* aux) { delete static_cast<std::shared_ptr<Connection>*>(aux); });
}

}  // namespace packed

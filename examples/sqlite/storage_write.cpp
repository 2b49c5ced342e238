// SPDX-License-Identifier: Apache-2.0
// Packed tables: their making, and changes.
#include <algorithm>
#include <cstring>

#include "load.h"
#include "storage.h"
#include "stored_form.h"

namespace packed {
namespace {

// Each step can be undone, so that any change of a single word changes the sum.
uint64_t checksum_of(uint64_t sum, const void* bytes, size_t size) {
  const auto* at = static_cast<const uint8_t*>(bytes);
  for (; size > 0; size -= std::min<size_t>(size, 8), at += 8) {
    uint64_t word = 0;
    std::memcpy(&word, at, std::min<size_t>(size, 8));
    sum = (sum ^ word) * 0x9e3779b97f4a7c15;
    sum ^= sum >> 32;
  }
  return sum;
}

uint64_t checksum_of(int64_t segment, int64_t column, int64_t dictionary, const kdzk_host_column& record) {
  const int64_t numbers[3] = {segment, column, dictionary};
  return checksum_of(checksum_of(1, numbers, sizeof numbers), &record, sizeof record);
}

int64_t random_number() {
  int64_t number = 0;
  sqlite3_randomness(sizeof number, &number);
  number &= INT64_MAX;
  return number == 0 ? 1 : number;
}

std::string column_list(size_t columns, const char* prefix, size_t first) {
  std::string list;
  for (size_t column = 0; column < columns; column++) list += ", " + (prefix + std::to_string(column + first));
  return list;
}

void bind_value(sqlite3_stmt* statement, int parameter, const Value& value) {
  if (value.type == Type::null) sqlite3_bind_null(statement, parameter);
  if (value.type == Type::integer) sqlite3_bind_int64(statement, parameter, value.integer);
  if (value.type == Type::real) sqlite3_bind_double(statement, parameter, value.real);
  const char* const bytes = value.bytes.empty() ? "" : value.bytes.data();
  if (value.type == Type::text)
    sqlite3_bind_text64(statement, parameter, bytes, value.bytes.size(), SQLITE_STATIC, SQLITE_UTF8);
  if (value.type == Type::blob) sqlite3_bind_blob64(statement, parameter, bytes, value.bytes.size(), SQLITE_STATIC);
}

}  // namespace

// ---- Stored forms ----

StoredRecord::StoredRecord(int64_t segment, int64_t column, int64_t dictionary, std::string_view blob) {
  uint64_t checksum = 0;
  if (blob.size() != sizeof record + sizeof checksum) return;
  std::memcpy(&record, blob.data(), sizeof record);
  std::memcpy(&checksum, blob.data() + sizeof record, sizeof checksum);
  good = checksum == checksum_of(segment, column, dictionary, record);
}

std::vector<uint8_t> stored_record(int64_t segment, int64_t column, int64_t dictionary,
                                   const kdzk_host_column& record) {
  const uint64_t checksum = checksum_of(segment, column, dictionary, record);
  std::vector<uint8_t> blob(sizeof record + sizeof checksum);
  std::memcpy(blob.data(), &record, sizeof record);
  std::memcpy(blob.data() + sizeof record, &checksum, sizeof checksum);
  return blob;
}

bool read_deletions(std::string_view blob, int64_t segment, uint32_t nrows, std::vector<uint64_t>& deleted) {
  const size_t words = (nrows + 63) / 64;
  if (blob.size() != 8 * (words + 1)) return false;
  deleted.resize(words + 1);
  std::memcpy(deleted.data(), blob.data(), blob.size());
  const uint64_t checksum = deleted.front();
  deleted.erase(deleted.begin());
  if (nrows % 64 != 0 && deleted.back() >> nrows % 64 != 0) return false;
  return checksum == checksum_of(static_cast<uint64_t>(segment) + 1, deleted.data(), 8 * words);
}

std::vector<uint64_t> stored_deletions(int64_t segment, const std::vector<uint64_t>& deleted) {
  std::vector<uint64_t> blob{checksum_of(static_cast<uint64_t>(segment) + 1, deleted.data(), 8 * deleted.size())};
  blob.insert(blob.end(), deleted.begin(), deleted.end());
  return blob;
}

bool read_tail(sqlite3* db, const std::string& tail, int64_t base, Rows& rows, std::vector<uint64_t>& live_bits,
               uint32_t& live) {
  Statement read(db, "SELECT * FROM " + tail + " ORDER BY id");
  live = 0;
  while (read.step()) {
    const int64_t row = read.integer(0) - base - 1;
    if (row < static_cast<int64_t>(rows.count()) || row >= segment_rows) return false;
    while (static_cast<int64_t>(rows.count()) < row) {
      for (size_t column = 0; column < rows.columns(); column++) rows.add(column, Value());
    }
    for (size_t column = 0; column < rows.columns(); column++)
      rows.add(column, Value::of(sqlite3_column_value(read.get(), static_cast<int>(column) + 1)));
    live_bits[static_cast<size_t>(row) / 64] |= uint64_t{1} << row % 64;
    live++;
  }
  live_bits.resize(std::max<size_t>(1, (rows.count() + 63) / 64));
  return true;
}

// ---- Shadow tables ----

const std::vector<std::string>& Table::shadow_names() {
  static const std::vector<std::string> names{"meta", "columns", "dictionaries", "segments", "data", "tail"};
  return names;
}

void Table::create(Connection& connection, const std::string& schema, const std::string& name,
                   const std::vector<ColumnInfo>& columns) {
  const auto make = [&](const char* suffix, const std::string& definition) {
    execute(connection.db(), "CREATE TABLE " + quoted(schema) + "." + quoted(name + "_" + suffix) + definition);
  };
  make("meta", "(key TEXT PRIMARY KEY, value)");
  make("columns", "(id INTEGER PRIMARY KEY, name TEXT, type TEXT, forms INTEGER)");
  make("dictionaries", "(id INTEGER PRIMARY KEY, col INTEGER, mixed INTEGER, bytes BLOB)");
  make("segments", "(id INTEGER PRIMARY KEY, nrows INTEGER, ndeleted INTEGER, deleted BLOB)");
  make("data", "(id INTEGER PRIMARY KEY, seg INTEGER, col INTEGER, dict INTEGER, record BLOB, bytes BLOB)");
  make("tail", "(id INTEGER PRIMARY KEY" + column_list(columns.size(), "c", 0) + ")");
  const std::string prefix = quoted(schema) + "." + quoted(name + "_meta");
  execute(connection.db(), "INSERT INTO " + prefix + " VALUES('format', " + std::to_string(format_of_tables) +
                               "), ('stamp', " + std::to_string(random_number()) + ")");
  Statement insert(connection.db(),
                   "INSERT INTO " + quoted(schema) + "." + quoted(name + "_columns") + " VALUES(?1, ?2, ?3, ?4)");
  for (size_t column = 0; column < columns.size(); column++) {
    const ColumnInfo& info = columns[column];
    insert.bind(1, static_cast<int64_t>(column)).bind(2, std::string_view(info.name));
    insert.bind(3, std::string_view(info.type)).bind(4, int64_t{info.forms}).run();
  }
}

void Table::drop(Connection& connection, const std::string& schema, const std::string& name) {
  for (const std::string& suffix : shadow_names())
    execute(connection.db(), "DROP TABLE IF EXISTS " + quoted(schema) + "." + quoted(name + "_" + suffix));
}

void Table::rename(Connection& connection, const std::string& schema, const std::string& name,
                   const std::string& new_name) {
  for (const std::string& suffix : shadow_names())
    execute(connection.db(), "ALTER TABLE " + quoted(schema) + "." + quoted(name + "_" + suffix) + " RENAME TO " +
                                 quoted(new_name + "_" + suffix));
}

// ---- Segments ----

int64_t Table::store_dictionary(int column, const Dictionary& dictionary) {
  const int64_t id = random_number();
  const Borrowed insert =
      prepared("store_dictionary", "INSERT INTO " + shadow("dictionaries") + " VALUES(?1, ?2, ?3, ?4)");
  insert->bind(1, id).bind(2, int64_t{column}).bind(3, int64_t{dictionary.mixed()});
  insert->bind_blob(4, dictionary.kit().bytes, dictionary.kit().bytes_size).run();
  return id;
}

void Table::store_segment(int64_t id, uint32_t nrows, const std::vector<uint64_t>& live_bits, uint32_t live) {
  const Borrowed insert = prepared("store_segment", "INSERT INTO " + shadow("segments") + " VALUES(?1, ?2, ?3, ?4)");
  insert->bind(1, id).bind(2, int64_t{nrows}).bind(3, int64_t{nrows - live});
  std::vector<uint64_t> blob;
  if (live < nrows) {
    std::vector<uint64_t> deleted((nrows + 63) / 64);
    for (uint32_t row = 0; row < nrows; row++) deleted[row / 64] |= (~live_bits[row / 64] >> row % 64 & 1) << row % 64;
    blob = stored_deletions(id, deleted);
    insert->bind_blob(4, blob.data(), 8 * blob.size());
  } else {
    sqlite3_bind_null(insert->get(), 4);
  }
  insert->run();
}

void Table::store_column(int64_t segment, int column, const PackedColumn& packed, int64_t dictionary) {
  const Borrowed insert = prepared("store_column", "INSERT INTO " + shadow("data") + " VALUES(?1, ?2, ?3, ?4, ?5, ?6)");
  const std::vector<uint8_t> record = stored_record(segment, column, dictionary, packed.record);
  const auto ncolumns = static_cast<int64_t>(columns_.size());
  insert->bind(1, segment * ncolumns + column + 1).bind(2, segment).bind(3, int64_t{column}).bind(4, dictionary);
  insert->bind_blob(5, record.data(), record.size()).bind_blob(6, packed.bytes.data(), packed.record.size).run();
}

void Table::append(Rows& rows) {
  if (rows.count() == 0) return;
  if (next_rowid() != tail_base_ + 1) throw Error(SQLITE_INTERNAL, "rows can't be packed behind a tail");
  pack(rows, {}, 0);
}

// Rows as segments behind all others; with bits, as one segment of which these are live.
void Table::pack(Rows& rows, const std::vector<uint64_t>& live_bits, uint32_t live) {
  std::vector<std::unique_ptr<Packer>> packers;
  std::vector<int64_t> dictionaries;
  int64_t segment = tail_base_ / segment_rows;
  for (size_t column = 0; column < columns_.size(); column++) {
    std::shared_ptr<const Dictionary> earlier;
    {
      const Borrowed read = prepared("last_dictionary", "SELECT dict FROM " + shadow("data") + " WHERE id = ?1");
      const auto ncolumns = static_cast<int64_t>(columns_.size()), id = static_cast<int64_t>(column) + 1;
      if (read->bind(1, (segment - 1) * ncolumns + id).step() && read->integer(0) > 0)
        earlier = dictionary(read->integer(0));
    }
    packers.push_back(std::make_unique<Packer>(rows.column(column), columns_[column], earlier));
    const Dictionary* const used = packers.back()->dictionary().get();
    dictionaries.push_back(used == nullptr  ? 0
                           : used->id() > 0 ? used->id()
                                            : store_dictionary(static_cast<int>(column), *used));
  }
  for (uint64_t first = 0; first < rows.count(); first += segment_rows, segment++) {
    const auto nrows = static_cast<uint32_t>(std::min<uint64_t>(segment_rows, rows.count() - first));
    store_segment(segment, nrows, live_bits, live_bits.empty() ? nrows : live);
    for (size_t column = 0; column < columns_.size(); column++)
      store_column(segment, static_cast<int>(column), packers[column]->pack(first, nrows), dictionaries[column]);
  }
  changed_ = true;
  next_rowid_ = 0;
}

// ---- Inserted and deleted rows ----

int64_t Table::next_rowid() {
  if (next_rowid_ == 0) {
    const Borrowed last = prepared("last_segment", "SELECT max(id) FROM " + shadow("segments"));
    last->step();
    const bool none = sqlite3_column_type(last->get(), 0) == SQLITE_NULL;
    if (!none && (last->integer(0) < 0 || last->integer(0) > max_segment))
      throw_malformed(name_ + ": too many segments");
    tail_base_ = none ? 0 : (last->integer(0) + 1) * segment_rows;
    const Borrowed tail = prepared("last_row", "SELECT max(id) FROM " + shadow("tail"));
    tail->step();
    next_rowid_ = sqlite3_column_type(tail->get(), 0) == SQLITE_NULL ? tail_base_ + 1 : tail->integer(0) + 1;
    if (next_rowid_ <= tail_base_ || next_rowid_ > tail_base_ + segment_rows) {
      next_rowid_ = 0;
      throw_malformed(name_ + ": the inserted rows have impossible rowids");
    }
  }
  return next_rowid_;
}

int64_t Table::insert(const std::vector<Value>& values, const int64_t* rowid) {
  const int64_t next = next_rowid();
  if (rowid != nullptr && *rowid != next)
    throw Error(SQLITE_CONSTRAINT_ROWID, name_ + " numbers its rows itself: the next rowid is " + std::to_string(next));
  const Borrowed insert =
      prepared("insert", "INSERT INTO " + shadow("tail") + " VALUES(?1" + column_list(columns_.size(), "?", 2) + ")");
  insert->bind(1, next);
  std::deque<std::string> texts;
  for (size_t column = 0; column < columns_.size(); column++) {
    const Value value = applied(columns_[column].affinity, values[column], texts);
    bind_value(insert->get(), static_cast<int>(column) + 2, value);
  }
  insert->run();
  changed_ = true;
  next_rowid_ = next + 1;
  if (next == tail_base_ + segment_rows) pack_tail();
  return next;
}

bool Table::replace(int64_t rowid, const std::vector<Value>& values) {
  next_rowid();
  if (rowid <= tail_base_) return false;
  const Borrowed replace =
      prepared("replace", "REPLACE INTO " + shadow("tail") + " VALUES(?1" + column_list(columns_.size(), "?", 2) + ")");
  replace->bind(1, rowid);
  std::deque<std::string> texts;
  for (size_t column = 0; column < columns_.size(); column++) {
    const Value value = applied(columns_[column].affinity, values[column], texts);
    bind_value(replace->get(), static_cast<int>(column) + 2, value);
  }
  replace->run();
  changed_ = true;
  return true;
}

// The tail is full: it becomes a segment.
void Table::pack_tail() {
  flush();
  Rows rows(columns_.size());
  std::vector<uint64_t> live_bits(segment_words);
  uint32_t live = 0;
  if (!read_tail(connection_.db(), shadow("tail"), tail_base_, rows, live_bits, live))
    throw_malformed(name_ + ": the inserted rows have impossible rowids");
  pack(rows, live_bits, live);
  prepared("empty_tail", "DELETE FROM " + shadow("tail"))->run();
}

bool Table::remove(int64_t rowid) {
  next_rowid();
  if (rowid < 1) return false;
  if (rowid > tail_base_) {
    prepared("remove", "DELETE FROM " + shadow("tail") + " WHERE id = ?1")->bind(1, rowid).run();
    if (sqlite3_changes(connection_.db()) == 0) return false;
    next_rowid_ = 0;
  } else {
    deletions_[(rowid - 1) / segment_rows].push_back(static_cast<uint32_t>((rowid - 1) % segment_rows));
  }
  changed_ = true;
  return true;
}

void Table::flush() {
  if (!changed_) return;
  for (const auto& [segment, rows] : deletions_) {
    const Borrowed read = prepared("deletions", "SELECT nrows, deleted FROM " + shadow("segments") + " WHERE id = ?1");
    if (!read->bind(1, segment).step()) continue;
    const int64_t nrows = read->integer(0);
    std::vector<uint64_t> deleted(nrows < 1 || nrows > segment_rows ? 0 : static_cast<size_t>(nrows + 63) / 64);
    const bool has = sqlite3_column_type(read->get(), 1) != SQLITE_NULL;
    if (deleted.empty() || (has && !read_deletions(read->blob(1), segment, static_cast<uint32_t>(nrows), deleted)))
      throw_malformed(name_ + ": the list of deleted rows is broken");
    for (const uint32_t row : rows) {
      if (row < nrows) deleted[row / 64] |= uint64_t{1} << row % 64;
    }
    uint32_t count = 0;
    connection_.library().bv64.bv_count(&count, deleted.data(), static_cast<uint64_t>(nrows));
    const std::vector<uint64_t> blob = stored_deletions(segment, deleted);
    const Borrowed update =
        prepared("delete", "UPDATE " + shadow("segments") + " SET ndeleted = ?2, deleted = ?3 WHERE id = ?1");
    update->bind(1, segment).bind(2, int64_t{count}).bind_blob(3, blob.data(), 8 * blob.size()).run();
  }
  deletions_.clear();
  prepared("draw", "UPDATE " + shadow("meta") + " SET value = ?1 WHERE key = 'stamp'")->bind(1, random_number()).run();
  changed_ = false;
}

void Table::forget() {
  deletions_.clear();
  changed_ = false;
  next_rowid_ = 0;
}

}  // namespace packed

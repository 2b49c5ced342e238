// SPDX-License-Identifier: Apache-2.0
//
// Packed tables inside a SQLite database: what is stored, and how it becomes what kernels read.
//
// A table's rows lie in segments of 65,536 rows, one blob per column and segment, which is a column of the host kit
// (kdzk/host/column.h) as it stands. Shadow tables of a table t:
//
//   t_meta           key, value: 'stamp', a number drawn anew by every change of what follows; 'format'
//   t_columns        id, name, type, forms
//   t_dictionaries   id, col, mixed, bytes: shared by all segments that were loaded at once
//   t_segments       id, nrows, ndeleted, deleted: a checksum and a bit vector of deleted rows, or NULL
//   t_data           id, seg, col, dict, record: kdzk_host_column and a checksum; bytes: the column
//   t_tail           id, c0, c1, ...: rows that were inserted and don't fill a segment yet
//
// Row r of segment s, both from 0 on, has rowid s * 65536 + r + 1; rows of the tail have their rowids for good. The
// tail is packed in memory when it is read, so that whoever reads a table sees segments and nothing else.
//
// Nothing read from the database is trusted: dictionaries and columns are checked when they are first touched, and a
// broken one throws an Error with SQLITE_CORRUPT_VTAB and the reason.
//
// What is in memory belongs to the stamp that was read with it. Whoever changes a table draws a new stamp, so that a
// rollback, of whatever depth, and changes by other connections are noticed by the next Table::snapshot().
//
// All of this is for the thread that has the connection. A scan, from the beginning:
//
//   const std::shared_ptr<Table> table = connection.table("main", "flights");
//   const std::shared_ptr<const Snapshot> snapshot = table->snapshot();
//   Query query(*table, std::move(conditions));                        // scan.h
//   for (const auto& segment : snapshot->segments) {
//     const uint32_t hits = query.scan(*segment, bits);                // deleted rows are left out
//     if (hits == 0) continue;
//     const std::shared_ptr<Part> part = segment->part(column);
//     part->values(rows, connection.rows_of(bits, segment->nrows(), rows), values);
//   }
#ifndef KDZK_EXAMPLES_SQLITE_STORAGE_H
#define KDZK_EXAMPLES_SQLITE_STORAGE_H

#include <kdzk/host.h>

#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "sqlite_api.h"
#include "values.h"

namespace packed {

constexpr uint32_t segment_rows = 65536;
constexpr uint32_t segment_words = segment_rows / 64;

class Table;

// ---- What kernels and services did in this connection. ----

struct Statistic {
  uint64_t calls = 0, rows = 0, nanoseconds = 0;
};

class Statistics {
 public:
  // `name` is a constant text: of a kernel, kdzk_name_of.
  void add(const char* name, uint64_t rows, uint64_t nanoseconds);
  std::map<std::string, Statistic> by_name() const;
  void clear() { statistics_.clear(); }

 private:
  std::unordered_map<const char*, Statistic> statistics_;
};

// Adds a call to the statistics when it goes out of scope.
class Timed {
 public:
  Timed(Statistics& statistics, const char* name, uint64_t rows)
      : statistics_(statistics), name_(name), rows_(rows), start_(std::chrono::steady_clock::now()) {}
  ~Timed() {
    const auto passed = std::chrono::steady_clock::now() - start_;
    statistics_.add(name_, rows_, static_cast<uint64_t>(std::chrono::nanoseconds(passed).count()));
  }
  Timed(const Timed&) = delete;
  Timed& operator=(const Timed&) = delete;

 private:
  Statistics& statistics_;
  const char* name_;
  uint64_t rows_;
  std::chrono::steady_clock::time_point start_;
};

// ---- A connection: the kernel library, its memory, and the tables that are open. ----

class SegmentColumns;

class Connection {
 public:
  explicit Connection(sqlite3* db);  // throws if the library can't be loaded
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  sqlite3* db() const { return db_; }
  const kdzk_specialized_ctx& library() const { return *library_.ctx; }
  const kdzk_env& env() const { return memory_.env; }  // for kdzk_exec.env; copies are given back by their Part
  kdzk_host_memory& memory() { return memory_; }
  Statistics& statistics() { return statistics_; }

  // The packed table of this name, whose virtual table SQLite connects if it hasn't yet. Throws with SQLITE_ERROR if
  // there is none. A null schema: the first that has one.
  std::shared_ptr<Table> table(const char* schema, const std::string& name);
  // For the virtual table module, which holds the table as long as it is connected.
  std::shared_ptr<Table> connect(const std::string& schema, const std::string& name);
  void disconnect(const Table& table);

  // The set rows of a bit vector, ascending; returns how many. `rows` has room for nrows.
  uint32_t rows_of(const uint64_t* bits, uint32_t nrows, uint32_t* rows) const;

  // For the cache of checked columns: its bound in bytes, with decompressed copies.
  void set_cache_limit(uint64_t bytes);
  void keep(const std::shared_ptr<SegmentColumns>& columns, int column, uint64_t bytes);

 private:
  struct Kept {
    std::weak_ptr<SegmentColumns> columns;
    int column;
    uint64_t bytes;
  };

  sqlite3* db_;
  kdzk_host_library library_{};
  kdzk_host_memory memory_{};
  Statistics statistics_;
  std::map<std::string, std::weak_ptr<Table>> tables_;
  std::deque<Kept> kept_;
  uint64_t kept_bytes_ = 0, cache_limit_ = uint64_t{512} << 20;
};

// ---- Dictionaries and columns of segments. ----

// A dictionary, checked, in memory. Codes ascend with their values; code 0 is NULL if there is NULL (first_code() 1).
// Values of a mixed column: see values.h.
class Dictionary {
 public:
  // Takes the bytes, which have KDZK_PADDING behind them. Throws if they are malformed.
  Dictionary(int64_t id, bool mixed, std::vector<uint8_t> padded_bytes);
  Dictionary(const Dictionary&) = delete;
  Dictionary& operator=(const Dictionary&) = delete;

  int64_t id() const { return id_; }  // -1: of the tail, not stored
  bool mixed() const { return mixed_; }
  const kdzk_host_dictionary& kit() const { return kit_; }
  uint32_t size() const { return kit_.size; }
  uint32_t first_code() const { return kit_.first_code; }
  const Value& value(uint32_t code) const { return values_[code]; }  // code below size(); texts are the dictionary's
  const std::vector<Value>& values() const { return values_; }

 private:
  int64_t id_;
  bool mixed_;
  std::vector<uint8_t> bytes_;
  kdzk_host_dictionary kit_{};
  std::vector<Value> values_;
};

// A column of a segment, checked and ready for kernels. bound().input is what they take as `input`, with
// bound().enc_ctx and the padding; results of other kernels than predicates (which Query runs) are the caller's.
class Part {
 public:
  Part(Connection& connection, const kdzk_host_column& record, std::vector<uint64_t> padded_bytes,
       std::shared_ptr<const Dictionary> dictionary);
  ~Part();
  Part(const Part&) = delete;
  Part& operator=(const Part&) = delete;

  const kdzk_host_column& record() const { return record_; }
  const std::shared_ptr<const Dictionary>& dictionary() const { return dictionary_; }  // null: FIXED and DYNP
  bool is_coded() const { return dictionary_ != nullptr; }
  kdzk_host_bound& bound() { return bound_; }
  const void* bytes() const { return bytes_.data(); }

  // The codes of rows, native, of a coded column, by the column's decode_unpack kernel. `rows` ascend.
  void codes(const uint32_t* rows, uint32_t count, uint32_t* codes);
  // The values of rows. Texts hold as long as the dictionary or, without one, this part.
  void values(const uint32_t* rows, uint32_t count, Value* values);

 private:
  void unpack_all();

  Connection& connection_;
  kdzk_host_column record_;
  std::vector<uint64_t> bytes_, run_bits_;
  std::shared_ptr<const Dictionary> dictionary_;
  kdzk_host_bound bound_{};
  std::vector<uint64_t> all_, all_nulls_, text_room_;  // of DYNP, and FIXED in a block: every row's value
};

// The columns of a segment, which never change; parts are loaded and checked one by one.
class SegmentColumns : public std::enable_shared_from_this<SegmentColumns> {
 public:
  struct Entry {
    int64_t row = 0;         // in t_data; 0: in memory only
    int64_t dictionary = 0;  // in t_dictionaries; 0: none
    kdzk_host_column record{};
    std::shared_ptr<Part> part;
  };

  SegmentColumns(Table& table, int64_t id, uint32_t nrows) : table_(table), id_(id), nrows_(nrows) {}

  int64_t id() const { return id_; }
  uint32_t nrows() const { return nrows_; }
  std::vector<Entry>& entries() { return entries_; }
  const kdzk_host_column& record(int column) const { return entries_[static_cast<size_t>(column)].record; }
  std::shared_ptr<Part> part(int column);

 private:
  Table& table_;
  int64_t id_;
  uint32_t nrows_;
  std::vector<Entry> entries_;
};

class Segment {
 public:
  Segment(std::shared_ptr<SegmentColumns> columns, std::vector<uint64_t> live_bits, uint32_t live)
      : columns_(std::move(columns)), live_bits_(std::move(live_bits)), live_(live) {}

  int64_t id() const { return columns_->id(); }
  int64_t rowid(uint32_t row) const { return id() * segment_rows + row + 1; }
  uint32_t nrows() const { return columns_->nrows(); }
  uint32_t live() const { return live_; }  // rows that aren't deleted
  // The rows that aren't deleted, as a kernel's filter; null: all of them.
  const uint64_t* filter() const { return live_bits_.empty() ? nullptr : live_bits_.data(); }

  // Form, width, smallest and largest code, NULLs, sizes: known without reading the column.
  const kdzk_host_column& record(int column) const { return columns_->record(column); }
  int64_t dictionary_id(int column) const { return columns_->entries()[static_cast<size_t>(column)].dictionary; }
  // Reads and checks the column on first touch. Hold the pointer while its pointers are used.
  std::shared_ptr<Part> part(int column) const { return columns_->part(column); }
  const std::shared_ptr<SegmentColumns>& columns() const { return columns_; }

 private:
  std::shared_ptr<SegmentColumns> columns_;
  std::vector<uint64_t> live_bits_;
  uint32_t live_;
};

// A table as the current transaction sees it. The tail, if there is one, is the last segment; its dictionaries are its
// own. It holds after the table has changed.
struct Snapshot {
  std::vector<std::shared_ptr<const Segment>> segments;
  uint64_t live = 0;  // rows that aren't deleted
  bool tail = false;  // the last segment is in memory only
};

// ---- Tables. ----

struct ColumnInfo {
  std::string name, type;  // type as declared; may be empty
  Affinity affinity = Affinity::none;
  uint32_t forms = KDZK_HOST_PLAIN_FORMS;  // KDZK_HOST_PACKED and so on: those asked for, or all plain ones
};

// Rows of values that wait to be packed; load.h.
class Rows;
struct PackedColumn;

class Table {
 public:
  // Opens what is stored. Throws if there is no such table.
  Table(Connection& connection, std::string schema, std::string name);
  // Makes the shadow tables of a new table, without rows.
  static void create(Connection& connection, const std::string& schema, const std::string& name,
                     const std::vector<ColumnInfo>& columns);
  static void drop(Connection& connection, const std::string& schema, const std::string& name);
  static void rename(Connection& connection, const std::string& schema, const std::string& name,
                     const std::string& new_name);
  static const std::vector<std::string>& shadow_names();

  Connection& connection() { return connection_; }
  const std::string& schema() const { return schema_; }
  const std::string& name() const { return name_; }
  const std::vector<ColumnInfo>& columns() const { return columns_; }
  int column_named(std::string_view name) const;  // ASCII letters of either case; -1: none

  std::shared_ptr<const Snapshot> snapshot();
  std::shared_ptr<const Dictionary> dictionary(int64_t id);  // read and checked on first touch, kept from then on
  // Bytes of the stored dictionary, without checking it; 0: not stored.
  uint64_t dictionary_bytes(int64_t id);

  // ---- Changes: seen by the next snapshot(), stored by flush(). ----

  // Packs rows into segments, with dictionaries shared by all of them, behind all other rows. Not with a tail.
  void append(Rows& rows);
  int64_t insert(const std::vector<Value>& values, const int64_t* rowid);  // returns the rowid
  bool replace(int64_t rowid, const std::vector<Value>& values);           // false: not in the tail, or no such row
  bool remove(int64_t rowid);                                              // false: no such row
  void flush();                                                            // before a savepoint, a read, a commit
  void forget();                                                           // what isn't flushed, after a rollback
  void close() { statements_.clear(); }                                    // before the shadow tables go

 private:
  friend class SegmentColumns;
  std::string shadow(const char* suffix) const;
  Borrowed prepared(const char* key, const std::string& sql);
  std::shared_ptr<Part> load(const SegmentColumns::Entry& entry, uint32_t nrows, const std::string& place);
  std::shared_ptr<Snapshot> read_snapshot();
  void add_tail(Snapshot& snapshot);
  int64_t stored_stamp();
  int64_t next_rowid();
  void pack(Rows& rows, const std::vector<uint64_t>& live_bits, uint32_t live);
  void pack_tail();
  void store_segment(int64_t id, uint32_t nrows, const std::vector<uint64_t>& live_bits, uint32_t live);
  void store_column(int64_t segment, int column, const PackedColumn& packed, int64_t dictionary);
  int64_t store_dictionary(int column, const Dictionary& dictionary);

  Connection& connection_;
  std::string schema_, name_;
  std::vector<ColumnInfo> columns_;
  std::map<std::string, Statement> statements_;
  std::unordered_map<int64_t, std::shared_ptr<const Dictionary>> dictionaries_;
  std::shared_ptr<Snapshot> snapshot_;
  int64_t stamp_ = 0;
  bool changed_ = false;                                // a stamp is to be drawn
  int64_t next_rowid_ = 0, tail_base_ = 0;              // 0: not known
  std::map<int64_t, std::vector<uint32_t>> deletions_;  // by segment: rows not stored as deleted yet
};

}  // namespace packed

#endif

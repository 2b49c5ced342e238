// SPDX-License-Identifier: Apache-2.0
// Reading packed tables: the connection, dictionaries, columns of segments, snapshots. Changes are in
// storage_write.cpp.
#include "storage.h"

#include <dlfcn.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cctype>
#include <cstdlib>
#include <cstring>

#include "load.h"
#include "stored_form.h"

namespace packed {
namespace {

// The kernels' file: as the environment says, beside this extension, or where it was built.
std::string library_path() {
  if (const char* const given = std::getenv("KDZK_LIBRARY"); given != nullptr) return given;
  Dl_info here{};
  static const int inside = 0;
  if (dladdr(&inside, &here) != 0 && here.dli_fname != nullptr) {
    std::string path(here.dli_fname);
    path = path.substr(0, path.rfind('/') + 1) + "libvexksse4219.so";
    if (path.find('/') == std::string::npos) path = "./" + path;
    if (access(path.c_str(), R_OK) == 0) return path;
  }
  return KDZK_LIBRARY;
}

bool has_word(std::string text, const char* upper_case_word) {
  for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text.find(upper_case_word) != std::string::npos;
}

std::string key_of(const std::string& schema, const std::string& name) {
  std::string key = schema + '\0' + name;
  for (char& c : key) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
  return key;
}

}  // namespace

// ---- Statistics ----

void Statistics::add(const char* name, uint64_t rows, uint64_t nanoseconds) {
  Statistic& statistic = statistics_[name];
  statistic.calls++;
  statistic.rows += rows;
  statistic.nanoseconds += nanoseconds;
}

std::map<std::string, Statistic> Statistics::by_name() const {
  std::map<std::string, Statistic> result;
  for (const auto& [name, statistic] : statistics_) {
    Statistic& sum = result[name];
    sum.calls += statistic.calls;
    sum.rows += statistic.rows;
    sum.nanoseconds += statistic.nanoseconds;
  }
  return result;
}

// ---- Connection ----

Connection::Connection(sqlite3* db) : db_(db) {
  if (kdzk_host_load(library_path().c_str(), &library_) != KDZK_HOST_LOADED)
    throw Error(SQLITE_ERROR, std::string("can't load the kernel library: ") + library_.text);
  kdzk_host_memory_malloc(&memory_, library_.ctx);
}

Connection::~Connection() {
  kdzk_host_memory_close(&memory_);
  kdzk_host_unload(&library_);
}

std::shared_ptr<Table> Connection::connect(const std::string& schema, const std::string& name) {
  auto table = std::make_shared<Table>(*this, schema, name);
  tables_[key_of(schema, name)] = table;
  return table;
}

void Connection::disconnect(const Table& table) {
  const auto found = tables_.find(key_of(table.schema(), table.name()));
  if (found == tables_.end()) return;
  const std::shared_ptr<Table> there = found->second.lock();
  if (there == nullptr || there.get() == &table) tables_.erase(found);
}

std::shared_ptr<Table> Connection::table(const char* schema, const std::string& name) {
  std::vector<std::string> schemas;
  if (schema != nullptr) {
    schemas.emplace_back(schema);
  } else {
    Statement list(db_, "SELECT name FROM pragma_database_list ORDER BY seq = 1 DESC, seq");
    while (list.step()) schemas.push_back(list.text(0));
  }
  for (const std::string& candidate : schemas) {
    const auto lookup = [&]() -> std::shared_ptr<Table> {
      const auto found = tables_.find(key_of(candidate, name));
      return found == tables_.end() ? nullptr : found->second.lock();
    };
    if (auto found = lookup(); found != nullptr) return found;
    Statement exists(db_, "SELECT 1 FROM " + quoted(candidate) + ".sqlite_schema WHERE type = 'table' AND name = ?1 " +
                              "COLLATE NOCASE");
    if (!exists.bind(1, std::string_view(name)).step()) continue;
    const Statement connects(db_, "SELECT 1 FROM " + quoted(candidate) + "." + quoted(name));
    if (auto found = lookup(); found != nullptr) return found;
  }
  throw Error(SQLITE_ERROR, "no such packed table: " + name);
}

uint32_t Connection::rows_of(const uint64_t* bits, uint32_t nrows, uint32_t* rows) const {
  if (nrows == 0) return 0;
  kdzk_bv_iter iter;
  library().bv64.iter_init(&iter, bits, nrows, 0, 0);
  return static_cast<uint32_t>(library().bv64.next_set_batch(&iter, rows, nrows));
}

void Connection::set_cache_limit(uint64_t bytes) { cache_limit_ = bytes; }

void Connection::keep(const std::shared_ptr<SegmentColumns>& columns, int column, uint64_t bytes) {
  kept_.push_back({columns, column, bytes});
  kept_bytes_ += bytes;
  for (size_t looked_at = kept_.size(); kept_bytes_ > cache_limit_ && looked_at > 1; looked_at--) {
    const Kept oldest = kept_.front();
    kept_.pop_front();
    if (const auto there = oldest.columns.lock(); there != nullptr) {
      std::shared_ptr<Part>& part = there->entries()[static_cast<size_t>(oldest.column)].part;
      if (part.use_count() > 1) {  // somebody reads it
        kept_.push_back(oldest);
        continue;
      }
      part.reset();
    }
    kept_bytes_ -= oldest.bytes;
  }
}

// ---- Dictionary ----

Dictionary::Dictionary(int64_t id, bool mixed, std::vector<uint8_t> padded_bytes)
    : id_(id), mixed_(mixed), bytes_(std::move(padded_bytes)) {
  kdzk_host_report report;
  const std::string place = "dictionary " + std::to_string(id) + ": ";
  if (kdzk_host_dictionary_open(bytes_.data(), bytes_.size() - KDZK_PADDING, &kit_, &report) != KDZK_HOST_DONE)
    throw_malformed(place + report.reason + " at byte " + std::to_string(report.offset));
  if (mixed_ && kit_.type != KDZK_HOST_TEXT) throw_malformed(place + "a mixed column's has no numbers");
  values_.resize(kit_.size);
  for (uint32_t code = kit_.first_code; code < kit_.size; code++) {
    kdzk_host_value value;
    kdzk_host_dictionary_value(&kit_, code, &value);
    values_[code] = value_of(value);
    if (mixed_ && !value_of_mixed(values_[code].bytes, values_[code]))
      throw_malformed(place + "code " + std::to_string(code) + " is no value");
  }
}

// ---- Part ----

Part::Part(Connection& connection, const kdzk_host_column& record, std::vector<uint64_t> padded_bytes,
           std::shared_ptr<const Dictionary> dictionary)
    : connection_(connection),
      record_(record),
      bytes_(std::move(padded_bytes)),
      run_bits_(KDZK_HOST_PLAIN(record.form) == KDZK_HOST_RUNS ? record.elements / 64 + 1 : 0),
      dictionary_(std::move(dictionary)) {
  kdzk_host_column_bind(&connection.library(), &record_, bytes_.data(),
                        dictionary_ == nullptr ? nullptr : &dictionary_->kit(), run_bits_.data(), &bound_);
  bound_.input.alloc_tag = kdzk_host_tag(&bound_.copy);
}

Part::~Part() { kdzk_host_memory_release(&connection_.memory(), &bound_.copy); }

void Part::codes(const uint32_t* rows, uint32_t count, uint32_t* codes) {
  if (count == 0) return;
  const uint32_t id = kdzk_id_of_kind(bound_.enc_ctx.kind, KDZK_OP_DECODE_UNPACK);
  kdzk_vec result{};
  result.data = codes;
  result.nrows = count;
  kdzk_exec exec{};
  exec.env = &connection_.env();
  exec.flags = KDZK_EX_UNPACK_WIDE;
  exec.ones_vec = const_cast<uint32_t*>(rows);
  exec.ones_vec_size = count;
  const Timed timed(connection_.statistics(), kdzk_name_of(&connection_.library(), id), count);
  connection_.library().dispatch[id].decode(&result, &bound_.input, &exec);
}

void Part::unpack_all() {
  all_.resize(record_.nrows * (record_.type == KDZK_HOST_TEXT ? 2 : 1) + 1);
  all_nulls_.resize(record_.nrows / 64 + 1);
  text_room_.resize(record_.type == KDZK_HOST_TEXT ? record_.nrows + 1 : 0);
  if (kdzk_host_column_values(&connection_.library(), &record_, bytes_.data(), nullptr, all_.data(), all_nulls_.data(),
                              text_room_.data()) != KDZK_HOST_DONE)
    throw Error(SQLITE_NOMEM, "out of memory");
}

void Part::values(const uint32_t* rows, uint32_t count, Value* values) {
  if (is_coded()) {
    constexpr uint32_t batch = 1024;
    uint32_t batch_codes[batch];
    for (uint32_t first = 0; first < count; first += batch) {
      const uint32_t here = std::min(batch, count - first);
      codes(rows + first, here, batch_codes);
      for (uint32_t i = 0; i < here; i++) values[first + i] = dictionary_->value(batch_codes[i]);
    }
    return;
  }
  if (record_.form != KDZK_HOST_FIXED || record_.type == KDZK_HOST_TEXT) {
    if (all_.empty()) unpack_all();
    for (uint32_t i = 0; i < count; i++) {
      const uint32_t row = rows[i];
      values[i] = Value();
      if ((all_nulls_[row / 64] >> row % 64 & 1) != 0) continue;
      kdzk_host_value value{};
      value.type = record_.type;
      const char* const at = reinterpret_cast<const char*>(all_.data());
      if (record_.type == KDZK_HOST_INTEGER) std::memcpy(&value.integer, at + 8 * row, 8);
      if (record_.type == KDZK_HOST_DOUBLE) std::memcpy(&value.number, at + 8 * row, 8);
      if (record_.type == KDZK_HOST_TEXT) std::memcpy(&value.text, at + 16 * row, 16);
      values[i] = value_of(value);
    }
    return;
  }
  const auto* const data = reinterpret_cast<const uint8_t*>(bytes_.data());
  for (uint32_t i = 0; i < count; i++) {
    const uint32_t row = rows[i];
    if (bound_.present != nullptr && (bound_.present[row / 64] >> row % 64 & 1) == 0) {
      values[i] = Value();
      continue;
    }
    uint64_t stored = 0;
    for (uint32_t byte = 0; byte < record_.value_bytes; byte++)
      stored = stored << 8 | data[uint64_t{row} * record_.value_bytes + byte];
    const uint64_t key = record_.base + (stored << record_.shift), sign = uint64_t{1} << 63;
    values[i] = record_.type == KDZK_HOST_INTEGER
                    ? Value::of(static_cast<int64_t>(key ^ sign))
                    : Value::of(std::bit_cast<double>((key & sign) != 0 ? key ^ sign : ~key));
  }
}

// ---- Segments ----

std::shared_ptr<Part> SegmentColumns::part(int column) {
  Entry& entry = entries_[static_cast<size_t>(column)];
  if (entry.part != nullptr) return entry.part;
  const std::shared_ptr<Part> part =
      table_.load(entry, nrows_,
                  table_.name() + "." + table_.columns()[static_cast<size_t>(column)].name + ", segment " +
                      std::to_string(id_) + ": ");
  entry.part = part;
  const bool blocked = entry.record.form > KDZK_HOST_PLAIN_FORMS;
  table_.connection().keep(shared_from_this(), column,
                           entry.record.size + (blocked ? entry.record.data_size : 0) + sizeof(Part));
  return part;
}

// ---- Table ----

Table::Table(Connection& connection, std::string schema, std::string name)
    : connection_(connection), schema_(std::move(schema)), name_(std::move(name)) {
  Statement format(connection.db(), "SELECT value FROM " + shadow("meta") + " WHERE key = 'format'");
  if (!format.step() || format.integer(0) != format_of_tables) throw_malformed(name_ + ": another format than 1");
  Statement columns(connection.db(), "SELECT id, name, type, forms FROM " + shadow("columns") + " ORDER BY id");
  while (columns.step()) {
    ColumnInfo info{columns.text(1), columns.text(2), affinity_of(columns.text(2)),
                    static_cast<uint32_t>(columns.integer(3)) & KDZK_HOST_EVERY_FORM};
    if (columns.integer(0) != static_cast<int64_t>(columns_.size())) throw_malformed(name_ + ": a column is missing");
    // It goes into a declaration of SQL.
    const auto is_plain = [](char c) { return std::isalnum(static_cast<unsigned char>(c)) || std::strchr("_ (),", c); };
    if (!std::all_of(info.type.begin(), info.type.end(), is_plain) || has_word(info.type, "PRIMARY"))
      throw Error(SQLITE_ERROR, "'" + info.type + "' isn't taken for a type");
    columns_.push_back(std::move(info));
  }
  if (columns_.empty()) throw_malformed(name_ + ": no columns");
}

std::string Table::shadow(const char* suffix) const { return quoted(schema_) + "." + quoted(name_ + "_" + suffix); }

Borrowed Table::prepared(const char* key, const std::string& sql) {
  Statement& statement = statements_[key];
  if (!statement) statement = Statement(connection_.db(), sql);
  return Borrowed(statement);
}

int Table::column_named(std::string_view name) const {
  for (size_t column = 0; column < columns_.size(); column++) {
    const std::string& here = columns_[column].name;
    if (here.size() == name.size() && strncasecmp(here.data(), name.data(), name.size()) == 0)
      return static_cast<int>(column);
  }
  return -1;
}

std::shared_ptr<const Dictionary> Table::dictionary(int64_t id) {
  std::shared_ptr<const Dictionary>& kept = dictionaries_[id];
  if (kept != nullptr) return kept;
  const Borrowed read = prepared("dictionary", "SELECT mixed, bytes FROM " + shadow("dictionaries") + " WHERE id = ?1");
  if (!read->bind(1, id).step()) throw_malformed(name_ + ": dictionary " + std::to_string(id) + " is missing");
  const bool mixed = read->integer(0) != 0;
  const std::string_view bytes = read->blob(1);
  std::vector<uint8_t> padded(bytes.size() + KDZK_PADDING);
  if (!bytes.empty()) std::memcpy(padded.data(), bytes.data(), bytes.size());
  kept = std::make_shared<const Dictionary>(id, mixed, std::move(padded));
  return kept;
}

uint64_t Table::dictionary_bytes(int64_t id) {
  const Borrowed read =
      prepared("dictionary_bytes", "SELECT length(bytes) FROM " + shadow("dictionaries") + " WHERE id = ?1");
  const uint64_t bytes = read->bind(1, id).step() ? static_cast<uint64_t>(read->integer(0)) : 0;
  return bytes;
}

std::shared_ptr<Part> Table::load(const SegmentColumns::Entry& entry, uint32_t nrows, const std::string& place) {
  std::shared_ptr<const Dictionary> of_codes;
  if (entry.dictionary != 0) of_codes = dictionary(entry.dictionary);
  const bool coded = (entry.record.form & KDZK_HOST_CODED_FORMS) != 0;
  if (coded != (of_codes != nullptr)) throw_malformed(place + "a dictionary too many or too few");
  const Borrowed read = prepared("bytes", "SELECT bytes FROM " + shadow("data") + " WHERE id = ?1");
  if (!read->bind(1, entry.row).step()) throw_malformed(place + "no bytes");
  const std::string_view bytes = read->blob(0);
  std::vector<uint64_t> padded(bytes.size() / 8 + 1 + KDZK_PADDING / 8);
  if (!bytes.empty()) std::memcpy(padded.data(), bytes.data(), bytes.size());
  const uint64_t size = bytes.size();
  kdzk_host_report report;
  const uint32_t status = kdzk_host_column_check(&connection_.library(), &entry.record, nrows, padded.data(), size,
                                                 coded ? &of_codes->kit() : nullptr, &report);
  if (status == KDZK_HOST_NO_MEMORY) throw Error(SQLITE_NOMEM, "out of memory");
  if (status != KDZK_HOST_DONE) throw_malformed(place + report.reason + " at byte " + std::to_string(report.offset));
  return std::make_shared<Part>(connection_, entry.record, std::move(padded), std::move(of_codes));
}

int64_t Table::stored_stamp() {
  const Borrowed read = prepared("stamp", "SELECT value FROM " + shadow("meta") + " WHERE key = 'stamp'");
  if (!read->step()) throw_malformed(name_ + ": no stamp");
  const int64_t stamp = read->integer(0);
  return stamp;
}

std::shared_ptr<const Snapshot> Table::snapshot() {
  flush();
  const int64_t stamp = stored_stamp();
  if (snapshot_ == nullptr || stamp != stamp_) {
    snapshot_ = read_snapshot();
    stamp_ = stamp;
  }
  return snapshot_;
}

std::shared_ptr<Snapshot> Table::read_snapshot() {
  std::unordered_map<int64_t, std::shared_ptr<SegmentColumns>> earlier;
  if (snapshot_ != nullptr) {
    for (const auto& segment : snapshot_->segments) earlier[segment->id()] = segment->columns();
    if (snapshot_->tail) earlier.erase(snapshot_->segments.back()->id());
  }
  auto result = std::make_shared<Snapshot>();
  const Borrowed data =
      prepared("records", "SELECT id, seg, col, dict, record FROM " + shadow("data") + " ORDER BY id");
  const Borrowed read = prepared("segments", "SELECT id, nrows, deleted FROM " + shadow("segments") + " ORDER BY id");
  while (read->step()) {
    const int64_t id = read->integer(0), nrows = read->integer(1);
    const std::string place = name_ + ", segment " + std::to_string(id) + ": ";
    if (id < 0 || id > max_segment || nrows < 1 || nrows > segment_rows)
      throw_malformed(place + "impossible row count");
    auto columns = std::make_shared<SegmentColumns>(*this, id, static_cast<uint32_t>(nrows));
    for (size_t column = 0; column < columns_.size(); column++) {
      if (!data->step()) throw_malformed(place + "a column is missing");
      const StoredRecord stored(data->integer(1), data->integer(2), data->integer(3), data->blob(4));
      if (data->integer(1) != id || data->integer(2) != static_cast<int64_t>(column) || !stored.good)
        throw_malformed(place + "the record of a column is broken");
      if (stored.record.nrows != nrows) throw_malformed(place + "a column with another number of rows");
      columns->entries().push_back({data->integer(0), data->integer(3), stored.record, nullptr});
    }
    if (const auto found = earlier.find(id); found != earlier.end()) {
      const std::vector<SegmentColumns::Entry>& before = found->second->entries();
      bool same = found->second->nrows() == nrows;
      for (size_t column = 0; column < columns_.size(); column++) {
        const SegmentColumns::Entry &a = before[column], &b = columns->entries()[column];
        same = same && a.row == b.row && a.dictionary == b.dictionary &&
               std::memcmp(&a.record, &b.record, sizeof a.record) == 0;
      }
      if (same) columns = found->second;
    }
    std::vector<uint64_t> live_bits;
    auto live = static_cast<uint32_t>(nrows);
    if (sqlite3_column_type(read->get(), 2) != SQLITE_NULL) {
      if (!read_deletions(read->blob(2), id, static_cast<uint32_t>(nrows), live_bits))
        throw_malformed(place + "the list of deleted rows is broken");
      connection_.library().bv64.bv_not(live_bits.data(), &live, live_bits.data(), static_cast<uint64_t>(nrows));
    }
    result->live += live;
    result->segments.push_back(std::make_shared<const Segment>(std::move(columns), std::move(live_bits), live));
  }
  if (data->step()) throw_malformed(name_ + ": columns without a segment");
  add_tail(*result);
  return result;
}

// The tail's rows as a segment. Rows that were deleted, or never were, are NULL and not live.
void Table::add_tail(Snapshot& snapshot) {
  const int64_t id = snapshot.segments.empty() ? 0 : snapshot.segments.back()->id() + 1, base = id * segment_rows;
  Rows rows(columns_.size());
  std::vector<uint64_t> live_bits(segment_words);
  uint32_t live = 0;
  if (!read_tail(connection_.db(), shadow("tail"), base, rows, live_bits, live))
    throw_malformed(name_ + ": the inserted rows have impossible rowids");
  if (live == 0) return;
  auto columns = std::make_shared<SegmentColumns>(*this, id, static_cast<uint32_t>(rows.count()));
  for (size_t column = 0; column < columns_.size(); column++) {
    Packer packer(rows.column(column), columns_[column], nullptr);
    PackedColumn packed = packer.pack(0, static_cast<uint32_t>(rows.count()));
    columns->entries().push_back(
        {0, packer.dictionary() == nullptr ? 0 : -1, packed.record,
         std::make_shared<Part>(connection_, packed.record, std::move(packed.bytes), packer.dictionary())});
  }
  if (live == rows.count()) live_bits.clear();
  snapshot.live += live;
  snapshot.tail = true;
  snapshot.segments.push_back(std::make_shared<const Segment>(std::move(columns), std::move(live_bits), live));
}

}  // namespace packed

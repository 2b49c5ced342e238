// SPDX-License-Identifier: Apache-2.0
#include "load.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <charconv>
#include <cstring>

namespace packed {
namespace {

constexpr size_t page_bytes = 1 << 16;

uint64_t mixed_bits(uint64_t word) {
  word *= 0x9e3779b97f4a7c15;
  return word ^ word >> 29;
}

uint32_t hash_of(const Value& value) {
  uint64_t hash = static_cast<uint64_t>(value.type);
  if (value.is_number()) {
    hash = mixed_bits(hash ^ static_cast<uint64_t>(value.integer) * 0xff51afd7ed558ccd);
  } else {
    const char* at = value.bytes.data();
    size_t left = value.bytes.size();
    hash ^= left << 8;
    uint64_t word = 0;
    for (; left >= 8; left -= 8, at += 8) {
      std::memcpy(&word, at, 8);
      hash = mixed_bits(hash ^ word);
    }
    word = 0;
    if (left > 0) std::memcpy(&word, at, left);
    hash = mixed_bits(hash ^ word);
  }
  return static_cast<uint32_t>(mixed_bits(hash) >> 32);
}

bool is_same(const Value& a, const Value& b) {
  return a.type == b.type && (a.is_number() ? a.integer == b.integer : a.bytes == b.bytes);
}

void check_kit(uint32_t status, const char* what) {
  if (status == KDZK_HOST_NO_MEMORY) throw Error(SQLITE_NOMEM, "out of memory");
  if (status == KDZK_HOST_TOO_MANY) throw Error(SQLITE_TOOBIG, "a column has more distinct values than a dictionary");
  if (status != KDZK_HOST_DONE) throw Error(SQLITE_INTERNAL, std::string("can't make ") + what);
}

}  // namespace

// ---- Numbering ----

Numbering::Numbering() : slots_(1024), values_(1) {}

std::string_view Numbering::kept(std::string_view bytes) {
  if (bytes.size() > page_left_) {
    page_left_ = std::max(page_bytes, bytes.size());
    pages_.push_back(std::make_unique<char[]>(page_left_));
  }
  // Pages are filled from their end, so that what is left tells where to go on.
  char* const to = pages_.back().get() + (page_left_ - bytes.size());
  if (!bytes.empty()) std::memcpy(to, bytes.data(), bytes.size());
  page_left_ -= bytes.size();
  return {to, bytes.size()};
}

void Numbering::grow() {
  std::vector<Slot> slots(2 * slots_.size());
  for (const Slot& slot : slots_) {
    if (slot.number == 0) continue;
    size_t at = slot.hash & (slots.size() - 1);
    while (slots[at].number != 0) at = (at + 1) & (slots.size() - 1);
    slots[at] = slot;
  }
  slots_.swap(slots);
}

uint32_t Numbering::number(const Value& value) {
  if (value.type == Type::null) return 0;
  if (is_same(values_[last_], value)) return last_;
  const uint32_t hash = hash_of(value);
  size_t at = hash & (slots_.size() - 1);
  for (; slots_[at].number != 0; at = (at + 1) & (slots_.size() - 1)) {
    if (slots_[at].hash == hash && is_same(values_[slots_[at].number], value)) return last_ = slots_[at].number;
  }
  if (values_.size() >= UINT32_MAX - 1) throw Error(SQLITE_TOOBIG, "a column has too many distinct values");
  last_ = static_cast<uint32_t>(values_.size());
  slots_[at] = {hash, last_};
  values_.push_back(value);
  if (!value.is_number()) values_.back().bytes = kept(value.bytes);
  if (values_.size() > slots_.size() / 2) grow();
  return last_;
}

// ---- Packer ----

Packer::Packer(Rows::Column& column, const ColumnInfo& info, std::shared_ptr<const Dictionary> earlier)
    : column_(column), info_(info) {
  for (Value& value : column.numbering.values()) value = applied(info.affinity, value, column.numbering.texts());
  nulls_ = std::find(column.numbers.begin(), column.numbers.end(), 0u) != column.numbers.end();
  choose_type();
  if (earlier != nullptr && column.numbering.values().size() == 1 && !earlier->mixed()) type_ = earlier->kit().type;
  if (earlier != nullptr && is_covered(*earlier)) {
    dictionary_ = std::move(earlier);
    coder_ = kdzk_host_coder_of(&dictionary_->kit());
    if (coder_ == nullptr) throw Error(SQLITE_NOMEM, "out of memory");
  } else {
    make_dictionary();
  }
}

Packer::~Packer() { kdzk_host_coder_free(coder_); }

void Packer::choose_type() {
  bool seen[5] = {};
  const std::vector<Value>& values = column_.numbering.values();
  for (size_t number = 1; number < values.size(); number++) seen[static_cast<size_t>(values[number].type)] = true;
  const bool integers = seen[1], reals = seen[2], texts = seen[3];
  mixed_ = integers + reals + texts > 1 || seen[4];
  type_ = texts || mixed_ ? KDZK_HOST_TEXT : reals ? KDZK_HOST_DOUBLE : KDZK_HOST_INTEGER;
  if (!integers && !reals && !texts && info_.affinity == Affinity::text) type_ = KDZK_HOST_TEXT;
  typed_texts_.resize(values.size());
  if (type_ != KDZK_HOST_TEXT) return;
  keys_.resize(mixed_ ? values.size() : 0);
  for (size_t number = 1; number < values.size(); number++) {
    if (values[number].type == Type::null) continue;
    if (mixed_) keys_[number] = mixed_key(values[number]);
    const std::string_view text = mixed_ ? std::string_view(keys_[number]) : values[number].bytes;
    typed_texts_[number] = {text.data(), text.size()};
  }
}

bool Packer::is_covered(const Dictionary& earlier) const {
  const std::vector<Value>& values = column_.numbering.values();
  if (earlier.mixed() != mixed_ || (nulls_ && earlier.first_code() == 0)) return false;
  if (earlier.kit().type != type_) return false;
  for (size_t number = 1; number < values.size(); number++) {
    kdzk_host_value value = kit_value(values[number]);
    if (mixed_) value.type = KDZK_HOST_TEXT, value.text = typed_texts_[number];
    uint32_t code = 0;
    if (values[number].type != Type::null && kdzk_host_dictionary_code(&earlier.kit(), &value, &code) == 0)
      return false;
  }
  return true;
}

kdzk_host_values Packer::kit_values(const std::vector<uint32_t>& numbers, uint64_t first, uint32_t count) {
  const std::vector<Value>& values = column_.numbering.values();
  kdzk_host_values result{type_, count, nullptr, nullptr};
  const uint32_t* const from = numbers.data() + first;
  const auto fill = [&](auto& to, auto of) {
    to.resize(count);
    for (uint32_t row = 0; row < count; row++) to[row] = of(from[row]);
    result.values = to.data();
  };
  if (type_ == KDZK_HOST_INTEGER) fill(integers_, [&](uint32_t number) { return values[number].integer; });
  if (type_ == KDZK_HOST_DOUBLE) fill(reals_, [&](uint32_t number) { return values[number].real; });
  if (type_ == KDZK_HOST_TEXT) fill(texts_, [&](uint32_t number) { return typed_texts_[number]; });
  if (nulls_) {
    null_bits_.assign(count / 64 + 1, 0);
    for (uint32_t row = 0; row < count; row++) null_bits_[row / 64] |= uint64_t{from[row] == 0} << row % 64;
    result.nulls = null_bits_.data();
  }
  return result;
}

void Packer::make_dictionary() {
  const bool wants_none = (info_.forms & KDZK_HOST_CODED_FORMS) == 0 && type_ != KDZK_HOST_TEXT;
  if (wants_none) return;
  std::vector<uint32_t> every(column_.numbering.values().size());
  for (size_t number = 0; number < every.size(); number++) every[number] = static_cast<uint32_t>(number);
  coder_ = kdzk_host_coder_new(type_);
  if (coder_ == nullptr) throw Error(SQLITE_NOMEM, "out of memory");
  for (size_t first = 1; first < every.size(); first += segment_rows) {
    const auto count = static_cast<uint32_t>(std::min<size_t>(segment_rows, every.size() - first));
    const kdzk_host_values values = kit_values(every, first, count);
    check_kit(kdzk_host_coder_add(coder_, &values), "a dictionary");
  }
  check_kit(kdzk_host_coder_finish(coder_, nulls_ ? KDZK_HOST_NULL_ALWAYS : KDZK_HOST_NULL_IF_SEEN), "a dictionary");
  const kdzk_host_dictionary& made = *kdzk_host_coder_dictionary(coder_);
  if (is_better_without(made)) {
    kdzk_host_coder_free(coder_);
    coder_ = nullptr;
    return;
  }
  std::vector<uint8_t> bytes(made.bytes, made.bytes + made.bytes_size);
  bytes.resize(bytes.size() + KDZK_PADDING);
  dictionary_ = std::make_shared<const Dictionary>(-1, mixed_, std::move(bytes));
}

// Numbers that hardly repeat take less room as they are. Kept to columns whose declared type says numbers: there a
// comparison is one with the stored values.
bool Packer::is_better_without(const kdzk_host_dictionary& dictionary) const {
  const uint32_t plain = info_.forms & (KDZK_HOST_FIXED | KDZK_HOST_DYNP);
  if (plain == 0 || type_ == KDZK_HOST_TEXT || !is_numeric(info_.affinity) || dictionary.size < 4096) return false;
  uint64_t bits = 64;
  if (type_ == KDZK_HOST_INTEGER) {
    kdzk_host_value low, high;
    kdzk_host_dictionary_value(&dictionary, dictionary.first_code, &low);
    kdzk_host_dictionary_value(&dictionary, dictionary.size - 1, &high);
    const uint64_t range = static_cast<uint64_t>(high.integer) - static_cast<uint64_t>(low.integer);
    bits = (static_cast<uint64_t>(std::bit_width(range | 1)) + 7) / 8 * 8;
  }
  const uint64_t rows = column_.numbers.size();
  return rows * bits / 8 < rows * dictionary.width / 8 + dictionary.bytes_size;
}

PackedColumn Packer::pack(uint64_t first_row, uint32_t nrows) {
  const kdzk_host_values values = kit_values(column_.numbers, first_row, nrows);
  const uint32_t coded = dictionary_ == nullptr ? ~KDZK_HOST_CODED_FORMS & KDZK_HOST_EVERY_FORM : KDZK_HOST_CODED_FORMS;
  uint32_t forms = info_.forms & coded;
  if (forms == 0) forms = KDZK_HOST_PLAIN_FORMS & coded;
  const uint64_t room = kdzk_host_column_bound(nrows);
  PackedColumn packed;
  packed.bytes.resize(room / 8 + 1 + KDZK_PADDING / 8);
  check_kit(kdzk_host_column_build(&values, coder_, forms, 0, packed.bytes.data(), room, &packed.record), "a column");
  packed.bytes.resize(packed.record.size / 8 + 1 + KDZK_PADDING / 8);
  return packed;
}

// ---- CSV ----

namespace {

class MappedFile {
 public:
  explicit MappedFile(const std::string& path) {
    const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat status {};
    if (file < 0 || fstat(file, &status) != 0) {
      const int error = errno;
      if (file >= 0) ::close(file);
      throw Error(SQLITE_CANTOPEN, "can't read " + path + ": " + std::strerror(error));
    }
    size_ = static_cast<size_t>(status.st_size);
    if (size_ > 0) bytes_ = mmap(nullptr, size_, PROT_READ, MAP_PRIVATE, file, 0);
    ::close(file);
    if (bytes_ == MAP_FAILED) throw Error(SQLITE_CANTOPEN, "can't map " + path + " into memory");
    if (bytes_ != nullptr) madvise(bytes_, size_, MADV_SEQUENTIAL);
  }
  ~MappedFile() {
    if (bytes_ != nullptr) munmap(bytes_, size_);
  }
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;
  std::string_view text() const { return {static_cast<const char*>(bytes_), size_}; }

 private:
  void* bytes_ = nullptr;
  size_t size_ = 0;
};

// Fields of a CSV text, one after the other.
class CsvReader {
 public:
  CsvReader(std::string_view text, const std::string& path) : at_(text.data()), end_(at_ + text.size()), path_(path) {}

  bool at_end() const { return at_ == end_; }
  bool at_line_end() const { return line_ended_; }  // the last field was its line's last
  bool was_quoted() const { return quoted_; }
  [[noreturn]] void fail(const std::string& what) const {
    throw Error(SQLITE_ERROR, path_ + ":" + std::to_string(line_) + ": " + what);
  }

  std::string_view field() {
    if (line_ended_) line_++;
    line_ended_ = false;
    quoted_ = at_ < end_ && *at_ == '"';
    return quoted_ ? quoted_field() : plain_field();
  }

 private:
  std::string_view plain_field() {
    const char* const first = at_;
    while (at_ < end_ && *at_ != ',' && *at_ != '\n') at_++;
    const char* last = at_;
    if (last > first && last[-1] == '\r' && (at_ == end_ || *at_ == '\n')) last--;
    pass_separator();
    return {first, static_cast<size_t>(last - first)};
  }

  std::string_view quoted_field() {
    const size_t first_line = line_;
    unquoted_.clear();
    for (at_++;; at_++) {
      if (at_ == end_) {
        line_ = first_line;
        fail("the quote opened here is never closed");
      }
      if (*at_ == '\n') line_++;
      if (*at_ == '"') {
        if (at_ + 1 == end_ || at_[1] != '"') break;
        at_++;
      }
      unquoted_ += *at_;
    }
    at_++;
    if (at_ < end_ && *at_ == '\r') at_++;
    if (at_ < end_ && *at_ != ',' && *at_ != '\n') fail("stray quote");
    pass_separator();
    return unquoted_;
  }

  void pass_separator() {
    line_ended_ = at_ == end_ || *at_ == '\n';
    if (at_ < end_) at_++;
  }

  const char *at_, *end_;
  const std::string& path_;
  std::string unquoted_;
  size_t line_ = 1;
  bool quoted_ = false, line_ended_ = false;
};

// A number written in the one way that it is printed in, so that "007" stays a text; a real in any decimal way.
Value number_of_field(std::string_view field) {
  int64_t integer = 0;
  const char* const end = field.data() + field.size();
  const std::string_view digits = field.substr(!field.empty() && field[0] == '-' ? 1 : 0);
  if (digits.empty() || digits[0] < '0' || digits[0] > '9') return {};
  if (digits.size() > 1 && digits[0] == '0' && digits[1] != '.') return {};
  const auto whole = std::from_chars(field.data(), end, integer);
  if (whole.ec == std::errc() && whole.ptr == end) return field == "-0" ? Value() : Value::of(integer);
  double real = 0;
  const auto decimal = std::from_chars(field.data(), end, real);
  return decimal.ec == std::errc() && decimal.ptr == end ? Value::of(real) : Value();
}

}  // namespace

Rows read_csv(const std::string& path, std::vector<ColumnInfo>& columns) {
  const MappedFile file(path);
  std::string_view text = file.text();
  if (text.substr(0, 3) == "\xef\xbb\xbf") text.remove_prefix(3);
  if (text.empty()) throw Error(SQLITE_ERROR, path + ":1: the file is empty");
  CsvReader reader(text, path);
  do {
    columns.push_back({std::string(reader.field()), "", Affinity::none});
    if (columns.back().name.empty()) reader.fail("a column has no name");
  } while (!reader.at_line_end());

  Rows rows(columns.size());
  while (!reader.at_end()) {
    for (size_t column = 0; column < columns.size(); column++) {
      const std::string_view field = reader.field();
      if (reader.at_line_end() != (column + 1 == columns.size())) {
        reader.fail((reader.at_line_end() ? "fewer fields than the header's " : "more fields than the header's ") +
                    std::to_string(columns.size()));
      }
      rows.add(column, field.empty() && !reader.was_quoted() ? Value() : Value::of(field));
    }
  }
  // A column of nothing but integers, or numbers, becomes one.
  for (size_t column = 0; column < columns.size(); column++) {
    std::vector<Value>& values = rows.column(column).numbering.values();
    std::vector<Value> numbers(values.size());
    bool integers = true, all = values.size() > 1;
    for (size_t number = 1; number < values.size() && all; number++) {
      numbers[number] = number_of_field(values[number].bytes);
      all = numbers[number].type != Type::null;
      integers = integers && numbers[number].type == Type::integer;
    }
    if (all) values.swap(numbers);
    columns[column].type = !all ? "TEXT" : integers ? "INTEGER" : "REAL";
    columns[column].affinity = affinity_of(columns[column].type);
  }
  return rows;
}

// ---- SELECT, and columns alone ----

Rows read_select(sqlite3* db, const std::string& select, std::vector<ColumnInfo>& columns) {
  Statement statement(db, select);
  if (!statement) throw Error(SQLITE_ERROR, "select= is empty");
  const int count = sqlite3_column_count(statement.get());
  if (count == 0 || sqlite3_stmt_readonly(statement.get()) == 0)
    throw Error(SQLITE_ERROR, "select= takes a statement that returns rows and changes nothing");
  for (int column = 0; column < count; column++) {
    const char* const type = sqlite3_column_decltype(statement.get(), column);
    const char* const name = sqlite3_column_name(statement.get(), column);
    columns.push_back({name == nullptr ? "" : name, type == nullptr ? "" : type, Affinity::none});
    columns.back().affinity = affinity_of(columns.back().type);
  }
  Rows rows(columns.size());
  while (statement.step()) {
    for (int column = 0; column < count; column++)
      rows.add(static_cast<size_t>(column), Value::of(sqlite3_column_value(statement.get(), column)));
  }
  // An expression has no declared type: its values tell.
  for (size_t column = 0; column < columns.size(); column++) {
    if (!columns[column].type.empty()) continue;
    bool seen[5] = {};
    const std::vector<Value>& values = rows.column(column).numbering.values();
    for (size_t number = 1; number < values.size(); number++) seen[static_cast<size_t>(values[number].type)] = true;
    if (seen[1] + seen[2] + seen[3] + seen[4] != 1 || seen[4]) continue;
    columns[column].type = seen[1] ? "INTEGER" : seen[2] ? "REAL" : "TEXT";
    columns[column].affinity = affinity_of(columns[column].type);
  }
  return rows;
}

std::vector<ColumnInfo> columns_of(const std::string& declarations) {
  std::vector<ColumnInfo> columns;
  size_t at = 0;
  while (at <= declarations.size()) {
    size_t end = declarations.find(',', at);
    if (end == std::string::npos) end = declarations.size();
    std::string_view declaration = std::string_view(declarations).substr(at, end - at);
    while (!declaration.empty() && declaration.front() == ' ') declaration.remove_prefix(1);
    while (!declaration.empty() && declaration.back() == ' ') declaration.remove_suffix(1);
    const size_t blank = std::min(declaration.find(' '), declaration.size());
    ColumnInfo info;
    info.name = declaration.substr(0, blank);
    info.type = blank < declaration.size() ? declaration.substr(blank + 1) : "";
    info.affinity = affinity_of(info.type);
    if (info.name.empty()) throw Error(SQLITE_ERROR, "columns= has a column without a name");
    columns.push_back(std::move(info));
    at = end + 1;
  }
  return columns;
}

}  // namespace packed

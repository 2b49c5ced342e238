// SPDX-License-Identifier: Apache-2.0
#include "csv_file.h"

#include <csv.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <set>

namespace ask {
namespace {

constexpr size_t chunk_bytes = 256 * 1024;
constexpr std::string_view byte_order_mark = "\xef\xbb\xbf";

size_t newlines_in(std::string_view text) { return static_cast<size_t>(std::count(text.begin(), text.end(), '\n')); }

std::string plural(size_t count, const std::string& thing) {
  return std::to_string(count) + " " + thing + (count == 1 ? "" : "s");
}

bool is_number(std::string_view text) {
  double number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size();
}

// One parse. libcsv calls back from C, which no exception may cross: the first one waits in failure_.
class Reader {
 public:
  Reader(std::string file, RowSink& sink) : file_(std::move(file)), sink_(sink) {
    if (csv_init(&parser_, CSV_STRICT | CSV_STRICT_FINI | CSV_REPALL_NL) != 0) throw std::bad_alloc();
    csv_set_blk_size(&parser_, 4096);  // the entry buffer grows by so much: long fields in few steps
  }
  ~Reader() { csv_free(&parser_); }
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  void parse(std::string_view bytes) {
    const size_t parsed = csv_parse(&parser_, bytes.data(), bytes.size(), on_field, on_row_end, this);
    if (failure_) std::rethrow_exception(failure_);
    if (parsed != bytes.size()) throw_parse_error();
  }

  void finish() {
    const bool complete = csv_fini(&parser_, on_field, on_row_end, this) == 0;
    if (failure_) std::rethrow_exception(failure_);
    if (!complete) throw CsvError(file_, line_, "the quote opened here is never closed");
    if (names_.empty()) throw CsvError(file_, 1, "no header: the first line must name the columns");
  }

  size_t rows() const { return rows_; }

 private:
  [[noreturn]] void throw_parse_error() {
    if (csv_error(&parser_) != CSV_EPARSE) throw std::bad_alloc();
    if (!parser_.quoted) {
      throw CsvError(file_, line_, "stray quote: a field with a quote in it must be quoted, and the quote doubled");
    }
    const auto* entry = reinterpret_cast<const char*>(parser_.entry_buf);
    const size_t newlines = newlines_in({entry, parser_.entry_pos});
    std::string message = "text behind a closing quote";
    if (newlines > 0) message += "; the quote was opened on line " + std::to_string(line_);
    throw CsvError(file_, line_ + newlines, message);
  }

  void take_field(std::string_view text) {
    if (fields_ == 0) row_line_ = line_;
    after_cr_ = false;
    if (in_header_) {
      names_.emplace_back(text);
    } else if (fields_ < names_.size()) {
      sink_.add_field(fields_, text);
    }
    fields_++;
    line_ += newlines_in(text);
  }

  void take_row_end(int terminator) {
    if (fields_ > 0) {  // otherwise a blank line, or the second half of a CR LF
      if (in_header_) {
        check_header();
        sink_.name_columns(names_);
        in_header_ = false;
      } else if (fields_ != names_.size()) {
        throw CsvError(file_, row_line_,
                       plural(fields_, "field") + ", but the header has " + plural(names_.size(), "column"));
      } else {
        rows_++;
      }
      fields_ = 0;
    }
    if (terminator == '\r' || (terminator == '\n' && !after_cr_)) line_++;
    after_cr_ = terminator == '\r';
  }

  void check_header() const {
    std::set<std::string_view> seen;
    for (const std::string& name : names_) {
      if (name.empty()) {
        throw CsvError(file_, row_line_, "column " + std::to_string(seen.size() + 1) + " has no name");
      }
      if (!seen.insert(name).second) throw CsvError(file_, row_line_, "two columns have the name '" + name + "'");
    }
    if (std::all_of(names_.begin(), names_.end(), is_number)) {
      throw CsvError(file_, row_line_, "no header: the first line must name the columns, and this one is all numbers");
    }
  }

  template <typename Step>
  void unless_failed(Step step) noexcept {
    if (failure_) return;
    try {
      step();
    } catch (...) {
      failure_ = std::current_exception();
    }
  }

  static void on_field(void* text, size_t size, void* reader) {
    auto* self = static_cast<Reader*>(reader);
    self->unless_failed([&] { self->take_field({static_cast<const char*>(text), size}); });
  }

  static void on_row_end(int terminator, void* reader) {
    auto* self = static_cast<Reader*>(reader);
    self->unless_failed([&] { self->take_row_end(terminator); });
  }

  std::string file_;
  RowSink& sink_;
  csv_parser parser_{};
  std::exception_ptr failure_;
  std::vector<std::string> names_;
  bool in_header_ = true;
  bool after_cr_ = false;  // the last byte was a CR that ended a line
  size_t line_ = 1;        // where the field begins that is being read
  size_t row_line_ = 1;    // where its row begins
  size_t fields_ = 0;      // of this row so far
  size_t rows_ = 0;
};

struct CloseFile {
  void operator()(std::FILE* file) const {
    if (file != stdin) std::fclose(file);
  }
};

bool needs_quotes(std::string_view field) {
  if (field.empty()) return false;
  const auto is_blank = [](char c) { return c == ' ' || c == '\t'; };
  return is_blank(field.front()) || is_blank(field.back()) || field.find_first_of(",\"\r\n") != field.npos;
}

}  // namespace

std::string display_name(const std::string& path) { return path == "-" ? "standard input" : path; }

void read_csv(const std::string& path, RowSink& sink, Progress& progress) {
  const std::string name = display_name(path);
  const std::unique_ptr<std::FILE, CloseFile> file(path == "-" ? stdin : std::fopen(path.c_str(), "rb"));
  if (!file) throw Error(name + ": " + std::strerror(errno));

  Reader reader(name, sink);
  std::vector<char> buffer(chunk_bytes);
  size_t bytes = 0;
  while (const size_t size = std::fread(buffer.data(), 1, buffer.size(), file.get())) {
    std::string_view chunk(buffer.data(), size);
    if (bytes == 0 && chunk.substr(0, byte_order_mark.size()) == byte_order_mark) {
      chunk.remove_prefix(byte_order_mark.size());
    }
    reader.parse(chunk);
    bytes += size;
    progress.report(reader.rows(), bytes);
  }
  if (std::ferror(file.get())) throw Error(name + ": " + std::strerror(errno));
  if (bytes == 0) throw CsvError(name, 1, "the file is empty");
  reader.finish();
}

void write_csv_line(std::FILE* out, const std::vector<std::string_view>& fields) {
  const char* separator = "";
  for (const std::string_view field : fields) {
    std::fputs(separator, out);
    if (needs_quotes(field)) {
      csv_fwrite(out, field.data(), field.size());
    } else {
      std::fwrite(field.data(), 1, field.size(), out);
    }
    separator = ",";
  }
  std::fputc('\n', out);
}

}  // namespace ask

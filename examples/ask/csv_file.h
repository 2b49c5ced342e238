// SPDX-License-Identifier: Apache-2.0
//
// Reading and writing of CSV. The parser is libcsv, in its strict mode; this adds the header line and the line numbers.
#ifndef KDZK_EXAMPLES_ASK_CSV_FILE_H
#define KDZK_EXAMPLES_ASK_CSV_FILE_H

#include <cstddef>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "error.h"
#include "progress.h"

namespace ask {

// "file:line: what is wrong there".
struct CsvError : Error {
  CsvError(const std::string& file, size_t line, const std::string& what)
      : Error(file + ":" + std::to_string(line) + ": " + what) {}
};

// Who gets the rows.
class RowSink {
 public:
  virtual ~RowSink() = default;
  virtual void name_columns(const std::vector<std::string>& names) = 0;  // once, before the first field
  virtual void add_field(size_t column, std::string_view text) = 0;      // each field of each row, in order
};

// What messages call the file: its path, or "standard input" for "-".
std::string display_name(const std::string& path);

// Reads the whole file, "-" for standard input. Throws CsvError if it is malformed, Error if it can't be read; the sink
// may have seen a part of it then.
void read_csv(const std::string& path, RowSink& sink, Progress& progress);

// Writes fields as one CSV line, quoted where reading them back needs it.
void write_csv_line(std::FILE* out, const std::vector<std::string_view>& fields);

}  // namespace ask

#endif

// SPDX-License-Identifier: Apache-2.0
//
// A column of a snapshot as codes, whatever form its segments are stored in, with what functions do with codes.
#ifndef KDZK_EXAMPLES_SQLITE_CODED_COLUMN_H
#define KDZK_EXAMPLES_SQLITE_CODED_COLUMN_H

#include <map>
#include <memory>
#include <vector>

#include "storage.h"

namespace packed {

// Rows of a segment.
struct Selected {
  const uint64_t* bits;  // null: all rows
  uint32_t hits;         // how many they are
  uint32_t nrows;        // rows that the segment has

  Selected(const uint64_t* words, uint32_t selected, uint32_t rows)
      : bits(selected == rows ? nullptr : words), hits(selected), nrows(rows) {}
  kdzk_exec exec(const Connection& connection) const;  // with them as the selection
};

class CodedColumn {
 public:
  CodedColumn(Connection& connection, std::shared_ptr<const Snapshot> snapshot, int column);

  // Reads and checks it. Of a segment without codes they are made now, and for all such segments of that type at once:
  // that takes some 100 ns a row, and memory until this object goes.
  std::shared_ptr<Part> part(size_t segment);

  // Writes the codes of selected rows, in row order.
  void unpack(Part& part, const Selected& selected, uint32_t* codes);

 private:
  void make_codes(uint8_t type);

  Connection& connection_;
  std::shared_ptr<const Snapshot> snapshot_;
  int column_;
  std::map<size_t, std::shared_ptr<Part>> made_;
};

}  // namespace packed

#endif

// SPDX-License-Identifier: Apache-2.0
//
// What stands in the shadow tables beside the host kit's own columns and dictionaries: records and lists of deleted
// rows, each with a checksum, because a wrong one would lead to a wrong answer and not only to a crash.
#ifndef KDZK_EXAMPLES_SQLITE_STORED_FORM_H
#define KDZK_EXAMPLES_SQLITE_STORED_FORM_H

#include "load.h"

namespace packed {

constexpr int64_t format_of_tables = 1;
constexpr int64_t max_segment = INT64_MAX / segment_rows - 2;

// t_data.record: the kit's record, then a checksum of it and of the row's numbers.
struct StoredRecord {
  kdzk_host_column record{};
  bool good = false;

  StoredRecord(int64_t segment, int64_t column, int64_t dictionary, std::string_view blob);
};
std::vector<uint8_t> stored_record(int64_t segment, int64_t column, int64_t dictionary, const kdzk_host_column& record);

// t_segments.deleted: a checksum, then a bit per row. Bits past the last row are clear.
bool read_deletions(std::string_view blob, int64_t segment, uint32_t nrows, std::vector<uint64_t>& deleted);
std::vector<uint64_t> stored_deletions(int64_t segment, const std::vector<uint64_t>& deleted);

// t_tail: all its rows, those between them that don't exist as NULLs, and which ones exist. False: a rowid is none of
// the tail's.
bool read_tail(sqlite3* db, const std::string& tail, int64_t base, Rows& rows, std::vector<uint64_t>& live_bits,
               uint32_t& live);

}  // namespace packed

#endif

// SPDX-License-Identifier: Apache-2.0
#include "functions.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>

#include "table_function.h"

namespace packed {
namespace {

class StatsAnswer : public Answer {
 public:
  explicit StatsAnswer(std::map<std::string, Statistic> statistics)
      : statistics_(std::move(statistics)), row_(statistics_.begin()) {}

  bool next() override {
    if (!is_first_) ++row_;
    is_first_ = false;
    return row_ != statistics_.end();
  }

  void write_column(sqlite3_context* out, int column) override {
    const auto& [name, statistic] = *row_;
    if (column == 0) return sqlite3_result_text64(out, name.data(), name.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
    const uint64_t value = column == 1 ? statistic.calls : column == 2 ? statistic.rows : statistic.nanoseconds;
    sqlite3_result_int64(out, static_cast<int64_t>(value));
  }

 private:
  std::map<std::string, Statistic> statistics_;
  std::map<std::string, Statistic>::const_iterator row_;
  bool is_first_ = true;
};

// ---- The time of a query ----

// Of this thread: other programs make it no longer.
int64_t processor_time() {
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return time.tv_sec * int64_t{1000000000} + time.tv_nsec;
}

uint64_t mixed(uint64_t hash, std::string_view bytes) {  // FNV-1a
  for (const char byte : bytes) hash = (hash ^ static_cast<unsigned char>(byte)) * 0x100000001b3;
  return hash;
}

// Equal for equal rows, in whatever order.
uint64_t digest_of_row(sqlite3_stmt* statement) {
  uint64_t hash = 0xcbf29ce484222325;
  for (int column = 0; column < sqlite3_column_count(statement); column++) {
    const int type = sqlite3_column_type(statement, column);
    hash = mixed(hash, std::string_view(reinterpret_cast<const char*>(&type), 1));
    if (type == SQLITE_INTEGER) {
      const int64_t value = sqlite3_column_int64(statement, column);
      hash = mixed(hash, std::string_view(reinterpret_cast<const char*>(&value), sizeof value));
    } else if (type == SQLITE_FLOAT) {
      const double value = sqlite3_column_double(statement, column);
      hash = mixed(hash, std::string_view(reinterpret_cast<const char*>(&value), sizeof value));
    } else if (type != SQLITE_NULL) {
      const auto* bytes = static_cast<const char*>(sqlite3_column_blob(statement, column));
      hash = mixed(hash, std::string_view(bytes, static_cast<size_t>(sqlite3_column_bytes(statement, column))));
    }
  }
  return hash;
}

class TimedAnswer : public Answer {
 public:
  TimedAnswer(Connection& connection, const Arguments& arguments) {
    const int times = arguments[1] ? std::max(1, std::atoi(arguments[1]->c_str())) : 1;
    Statement statement(connection.db(), *arguments[0]);
    if (!statement) throw Error(SQLITE_ERROR, "there is no query");
    if (sqlite3_stmt_readonly(statement.get()) == 0) throw Error(SQLITE_ERROR, "only queries that read are timed");
    for (int run = 0; run < times; run++) {
      const int64_t start = processor_time();
      rows_ = 0;
      digest_ = 0;
      while (statement.step()) {
        rows_++;
        digest_ += digest_of_row(statement.get());
      }
      statement.reset();
      nanoseconds_ = std::min(nanoseconds_, processor_time() - start);
    }
  }

  bool next() override { return row_++ == 0; }

  void write_column(sqlite3_context* out, int column) override {
    sqlite3_result_int64(out, column == 0 ? rows_ : column == 1 ? static_cast<int64_t>(digest_) : nanoseconds_);
  }

 private:
  int64_t rows_ = 0;
  uint64_t digest_ = 0;
  int64_t nanoseconds_ = INT64_MAX;
  int row_ = 0;
};

constexpr TableFunction functions[] = {
    {"kdzk_aggregate", "group1, group2, group3, group4, value1, value2, value3, value4, value5, value6, value7, value8",
     "packed_table, aggregates, groups, conditions", 2, 1000, aggregate_answer},
    {"kdzk_join", "left_rowid INTEGER, right_rowid INTEGER",
     "left_table, left_column, right_table, right_column, left_conditions, right_conditions", 4, 1e6, join_answer},
    {"kdzk_join_count", "group1, matches INTEGER",
     "left_table, left_column, right_table, right_column, group_column, left_conditions, right_conditions", 4, 1000,
     join_count_answer},
    {"kdzk_in_polygon", "id INTEGER", "packed_table, x_column, y_column, vertices", 4, 1000, polygon_answer},
    {"kdzk_columns",
     "name TEXT, type TEXT, encoding TEXT, bits INTEGER, distinct_values INTEGER, nulls INTEGER, "
     "dictionary_bytes INTEGER, bytes INTEGER, ordinary_bytes INTEGER, ratio REAL",
     "packed_table", 1, 10, columns_answer},
    {"kdzk_stats", "kernel TEXT, calls INTEGER, \"rows\" INTEGER, nanoseconds INTEGER", "", 0, 100, stats_answer},
    {"kdzk_timed", "\"rows\" INTEGER, digest INTEGER, nanoseconds INTEGER", "query, times", 1, 1, timed_answer},
};

}  // namespace

std::unique_ptr<Answer> stats_answer(Connection& connection, const Arguments&) {
  return std::make_unique<StatsAnswer>(connection.statistics().by_name());
}

std::unique_ptr<Answer> timed_answer(Connection& connection, const Arguments& arguments) {
  return std::make_unique<TimedAnswer>(connection, arguments);
}

int register_functions(sqlite3* db, const std::shared_ptr<Connection>& connection) {
  for (const TableFunction& function : functions) {
    const int code = register_table_function(db, function, connection);
    if (code != SQLITE_OK) return code;
  }
  return SQLITE_OK;
}

}  // namespace packed

// SPDX-License-Identifier: Apache-2.0
//
// The table-valued functions of the extension. SQLite asks virtual tables for rows and never for aggregates or joins,
// so these are asked for by a function, which does them on codes.
//
//   kdzk_aggregate(table, aggregates, groups, conditions)   group1 to group4, value1 to value8
//   kdzk_join(left_table, left_column, right_table, right_column, left_conditions, right_conditions)
//                                                           left_rowid, right_rowid
//   kdzk_join_count(left_table, left_column, right_table, right_column, group_column, left_conditions,
//                   right_conditions)                       group1, matches
//   kdzk_in_polygon(table, x_column, y_column, vertices)    id: a rowid
//   kdzk_columns(table)                                     what each column is stored as
//   kdzk_stats()                                            what kernels and services did in this connection
//   kdzk_timed(query, times)                                processor time of a query, and a digest of its rows
//
// Trailing arguments may be left out where the list in the source says so.
#ifndef KDZK_EXAMPLES_SQLITE_FUNCTIONS_H
#define KDZK_EXAMPLES_SQLITE_FUNCTIONS_H

#include <memory>

#include "storage.h"
#include "table_function.h"

namespace packed {

std::unique_ptr<Answer> aggregate_answer(Connection& connection, const Arguments& arguments);
std::unique_ptr<Answer> join_answer(Connection& connection, const Arguments& arguments);
std::unique_ptr<Answer> join_count_answer(Connection& connection, const Arguments& arguments);
std::unique_ptr<Answer> polygon_answer(Connection& connection, const Arguments& arguments);
std::unique_ptr<Answer> columns_answer(Connection& connection, const Arguments& arguments);
std::unique_ptr<Answer> stats_answer(Connection& connection, const Arguments& arguments);
std::unique_ptr<Answer> timed_answer(Connection& connection, const Arguments& arguments);

// Registers them all; returns a result code of SQLite.
int register_functions(sqlite3* db, const std::shared_ptr<Connection>& connection);

}  // namespace packed

#endif

// SPDX-License-Identifier: Apache-2.0
//
// What the arguments of table-valued functions stand for.
#ifndef KDZK_EXAMPLES_SQLITE_FUNCTION_ARGUMENTS_H
#define KDZK_EXAMPLES_SQLITE_FUNCTION_ARGUMENTS_H

#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "aggregation.h"
#include "scan.h"

namespace packed {

// "flights" or "schema.flights".
std::shared_ptr<Table> table_argument(Connection& connection, const std::string& name);

// These throw with the place in the text where something can't be understood.
int column_argument(const Table& table, const std::string& name);
std::vector<int> columns_argument(const Table& table, const std::optional<std::string>& names);
std::vector<Aggregate> aggregates_argument(const Table& table, const std::string& aggregates);

// Conditions, with the texts of their constants.
class Conditions {
 public:
  Conditions(const Table& table, const std::optional<std::string>& text);
  const std::vector<Condition>& list() const { return list_; }

 private:
  std::vector<Condition> list_;
  std::deque<std::string> texts_;
};

}  // namespace packed

#endif

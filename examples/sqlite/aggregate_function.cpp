// SPDX-License-Identifier: Apache-2.0
#include "function_arguments.h"
#include "functions.h"

namespace packed {
namespace {

constexpr size_t most_groups = 4;
constexpr size_t most_values = 8;

class AggregateAnswer : public Answer {
 public:
  AggregateAnswer(Connection& connection, const Arguments& arguments)
      : table_(table_argument(connection, *arguments[0])),
        aggregates_(aggregates_argument(*table_, *arguments[1])),
        group_columns_(columns_argument(*table_, arguments[2])),
        conditions_(*table_, arguments[3]) {
    if (group_columns_.size() > most_groups) throw Error(SQLITE_ERROR, "there can't be more than 4 group columns");
    if (aggregates_.size() > most_values) throw Error(SQLITE_ERROR, "there can't be more than 8 aggregates");
    aggregation_ = std::make_unique<Aggregation>(*table_, aggregates_, group_columns_, conditions_.list());
  }

  bool next() override { return ++group_ < aggregation_->groups(); }

  void write_column(sqlite3_context* out, int column) override {
    const auto place = static_cast<size_t>(column);
    if (place < most_groups) {
      if (place < group_columns_.size()) write_value(out, aggregation_->group_value(group_, place));
    } else if (place - most_groups < aggregates_.size()) {
      aggregation_->write(out, group_, place - most_groups);
    }
  }

 private:
  std::shared_ptr<Table> table_;
  std::vector<Aggregate> aggregates_;
  std::vector<int> group_columns_;
  Conditions conditions_;
  std::unique_ptr<Aggregation> aggregation_;
  size_t group_ = static_cast<size_t>(-1);
};

}  // namespace

std::unique_ptr<Answer> aggregate_answer(Connection& connection, const Arguments& arguments) {
  return std::make_unique<AggregateAnswer>(connection, arguments);
}

}  // namespace packed

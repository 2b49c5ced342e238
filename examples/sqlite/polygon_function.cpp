// SPDX-License-Identifier: Apache-2.0
//
// Rows whose point lies in a polygon. Two range kernels leave the rows in its bounding box; for each of these the
// library counts the edges that a ray crosses, an odd number inside.
#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "condition_list.h"
#include "function_arguments.h"
#include "functions.h"

namespace packed {
namespace {

// A closed polygon as a vertex list for point_in_polygon. That service has no edge from the last vertex to the first.
// Of an even number n of vertices it has the edges from each of the first n - 1 to the next, and the last edge twice,
// which leaves the parity alone. So behind the vertices the first one follows, and once or twice more, to make the
// number even:
//
//   vertices     a b c d          a b c
//   list         a b c d a a      a b c a a a
//   edges        ab bc cd da      ab bc ca aa    and aa, twice; aa is horizontal: nothing crosses it
class Polygon {
 public:
  explicit Polygon(const std::string& text) {
    const char* at = text.c_str();
    const auto number = [&] {
      char* end = nullptr;
      const double value = std::strtod(at, &end);
      if (end == at || !std::isfinite(value)) fail(text, at, "expected a number");
      at = end;
      while (*at == ' ') at++;
      return value;
    };
    while (true) {
      xs_.push_back(number());
      if (*at++ != ',') fail(text, at - 1, "expected a comma between x and y");
      ys_.push_back(number());
      if (*at == '\0') break;
      if (*at++ != ';') fail(text, at - 1, "expected ; between vertices");
      while (*at == ' ') at++;
      if (*at == '\0') break;
    }
    if (xs_.size() < 3) fail(text, at, "a polygon has at least 3 vertices");
    low_x = *std::min_element(xs_.begin(), xs_.end());
    high_x = *std::max_element(xs_.begin(), xs_.end());
    low_y = *std::min_element(ys_.begin(), ys_.end());
    high_y = *std::max_element(ys_.begin(), ys_.end());
    do {
      xs_.push_back(xs_[0]);
      ys_.push_back(ys_[0]);
    } while (xs_.size() % 2 != 0 || xs_[xs_.size() - 2] != xs_[0] || ys_[ys_.size() - 2] != ys_[0]);
  }

  bool has(const kdzk_specialized_ctx& library, double x, double y) {
    uint32_t crossings = 0;
    const auto vec = [](void* data, size_t nrows) {
      kdzk_vec vec{};
      vec.data = data;
      vec.nrows = static_cast<uint32_t>(nrows);
      return vec;
    };
    const kdzk_vec result = vec(&crossings, 1), xs = vec(xs_.data(), xs_.size()), ys = vec(ys_.data(), ys_.size());
    const kdzk_vec px = vec(&x, 1), py = vec(&y, 1);
    library.point_in_polygon(&result, &xs, &ys, &px, &py);
    return crossings % 2 != 0;
  }

  double low_x, high_x, low_y, high_y;

 private:
  [[noreturn]] static void fail(const std::string& text, const char* at, const char* what) {
    throw ListError("list of vertices x,y;x,y;...", text, static_cast<size_t>(at - text.c_str()), what);
  }

  std::vector<double> xs_, ys_;
};

Condition in_range(int column, double low, double high) {
  Condition condition;
  condition.column = column;
  condition.operation = KDZK_OP_GE_LE;
  condition.low = Value::of(low);
  condition.high = Value::of(high);
  return condition;
}

class PolygonAnswer : public Answer {
 public:
  PolygonAnswer(Connection& connection, const Arguments& arguments)
      : table_(table_argument(connection, *arguments[0])),
        snapshot_(table_->snapshot()),
        x_(column_argument(*table_, *arguments[1])),
        y_(column_argument(*table_, *arguments[2])),
        polygon_(*arguments[3]),
        query_(*table_,
               {in_range(x_, polygon_.low_x, polygon_.high_x), in_range(y_, polygon_.low_y, polygon_.high_y)}) {}

  bool next() override {
    while (++place_ >= rowids_.size()) {
      if (segment_ >= snapshot_->segments.size()) return false;
      take_segment(*snapshot_->segments[segment_++]);
      place_ = static_cast<size_t>(-1);
    }
    return true;
  }

  void write_column(sqlite3_context* out, int) override { sqlite3_result_int64(out, rowids_[place_]); }

 private:
  void take_segment(const Segment& segment) {
    Connection& connection = table_->connection();
    rowids_.clear();
    uint64_t bits[segment_words];
    if (query_.scan(segment, bits) == 0) return;
    rows_.resize(segment.nrows());
    rows_.resize(connection.rows_of(bits, segment.nrows(), rows_.data()));
    xs_.resize(rows_.size());
    ys_.resize(rows_.size());
    const auto count = static_cast<uint32_t>(rows_.size());
    const std::shared_ptr<Part> x = segment.part(x_), y = segment.part(y_);
    x->values(rows_.data(), count, xs_.data());
    y->values(rows_.data(), count, ys_.data());
    const Timed timed(connection.statistics(), "kdzk_point_in_polygon", count);
    for (uint32_t i = 0; i < count; i++) {
      if (polygon_.has(connection.library(), number_of(xs_[i]), number_of(ys_[i])))
        rowids_.push_back(segment.rowid(rows_[i]));
    }
  }

  static double number_of(const Value& value) {  // a number: it is in a range of numbers
    return value.type == Type::real ? value.real : static_cast<double>(value.integer);
  }

  std::shared_ptr<Table> table_;
  std::shared_ptr<const Snapshot> snapshot_;
  int x_, y_;
  Polygon polygon_;
  Query query_;
  std::vector<uint32_t> rows_;
  std::vector<Value> xs_, ys_;
  std::vector<int64_t> rowids_;
  size_t segment_ = 0;
  size_t place_ = static_cast<size_t>(-1);
};

}  // namespace

std::unique_ptr<Answer> polygon_answer(Connection& connection, const Arguments& arguments) {
  return std::make_unique<PolygonAnswer>(connection, arguments);
}

}  // namespace packed

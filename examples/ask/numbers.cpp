// SPDX-License-Identifier: Apache-2.0
#include "numbers.h"

#include <cstring>

namespace ask {
namespace {

std::vector<double> numbers_of(const Column& column) {
  std::vector<double> numbers(column.rows());
  for (size_t row = 0; row < numbers.size(); row++) {
    const uint32_t entry = column.entry_of_row(row);
    numbers[row] = entry == Column::null_entry ? 0 : column.number_of_entry(entry);
  }
  return numbers;
}

// Calls work(i, row) for the rows of a vector that are set, i counting them, and returns how many they are.
template <class Work>
uint32_t for_each_row(const Library& library, const uint64_t* bits, uint32_t nrows, const Work& work) {
  uint32_t rows[1024], done = 0;
  kdzk_bv_iter iter;
  library->bv64.iter_init(&iter, bits, nrows, 0, 0);
  while (const uint64_t count = library->bv64.next_set_batch(&iter, rows, 1024)) {
    for (uint64_t i = 0; i < count; i++) work(done++, rows[i]);
  }
  return done;
}

// A column in sortable form, and the values of a vector's selected rows side by side, as the kernels take them.
class Factor {
 public:
  explicit Factor(const Column& column)
      : data_(column.rows() * sizeof(double)), selected_(vector_rows * sizeof(double)) {
    kdzk_host_write_sortable_doubles(numbers_of(column).data(), column.rows(), data_.data());
  }

  uint8_t* of_vector(size_t vector) { return data_.data() + vector * selected_.size(); }
  uint8_t* selected() { return selected_.data(); }
  void select(size_t vector, uint32_t to, uint32_t row) {
    std::memcpy(&selected_[to * sizeof(double)], of_vector(vector) + row * sizeof(double), sizeof(double));
  }

 private:
  std::vector<uint8_t> data_, selected_;
};

kdzk_vec numbers(const void* data, uint32_t rows) {
  static constexpr kdzk_enc_ctx plain{};
  kdzk_vec vec{};
  vec.data = const_cast<void*>(data);
  vec.nrows = rows;
  vec.enc_ctx = &plain;
  return vec;
}

// As point_in_polygon goes over an even number of vertices, edges lead from each to the next up to the last but one,
// and twice from there to the last, which no parity shows. So the first vertex is put behind the others, once to close
// the polygon and again until the number is even.
std::vector<Point> closed(std::vector<Point> polygon) {
  const Point first = polygon.front();
  polygon.insert(polygon.end(), 2 + polygon.size() % 2, first);
  return polygon;
}

}  // namespace

Sum sum_products(const Engine& engine, const Column& a, const Column& b, const Answer* rows) {
  const Library& library = engine.library();
  const uint32_t id =
      kdzk_id_of(KDZK_ROW_DOUBLE + KDZK_ROW_SORTABLE_LEFT + KDZK_ROW_SORTABLE_RIGHT + KDZK_ROW_VARIANT, KDZK_OP_MUL);
  Factor left(a), right(b);
  Sum sum;
  sum.kernel = library.name(id);
  sum.laps = timed([&] {
    sum.value = 0;
    sum.rows = 0;
    kdzk_vec result{};
    result.data = &sum.value;  // to which each call adds
    for (size_t vector = 0; vector < vectors_of(a.rows()); vector++) {
      uint32_t count = rows_of_vector(vector, a.rows());
      uint8_t *left_data = left.of_vector(vector), *right_data = right.of_vector(vector);
      if (rows != nullptr) {
        left_data = left.selected(), right_data = right.selected();
        count = for_each_row(library, &rows->bits[vector * vector_words], count, [&](uint32_t to, uint32_t row) {
          left.select(vector, to, row);
          right.select(vector, to, row);
        });
      }
      const kdzk_vec left_numbers = numbers(left_data, count), right_numbers = numbers(right_data, count);
      library.kernel(id).arithmetic(&result, &left_numbers, &right_numbers, nullptr);
      sum.rows += count;
    }
  });
  return sum;
}

Inside rows_inside(const Engine& engine, const Column& x, const Column& y, const std::vector<Point>& polygon,
                   const Answer* rows) {
  std::vector<double> polygon_x, polygon_y;
  for (const Point& point : closed(polygon)) {
    polygon_x.push_back(point.x);
    polygon_y.push_back(point.y);
  }
  const auto vertices = static_cast<uint32_t>(polygon_x.size());
  const kdzk_vec xs = numbers(polygon_x.data(), vertices), ys = numbers(polygon_y.data(), vertices);
  const std::vector<double> point_x = numbers_of(x), point_y = numbers_of(y);

  Inside inside;
  inside.rows.resize(x.rows());
  inside.laps = timed([&] {
    inside.hits = 0;
    for (size_t row = 0; row < inside.rows.size(); row++) {
      uint32_t crossings = 0;
      if (rows == nullptr || rows->has(row)) {
        const kdzk_vec result = numbers(&crossings, 1), px = numbers(&point_x[row], 1), py = numbers(&point_y[row], 1);
        engine.library()->point_in_polygon(&result, &xs, &ys, &px, &py);
      }
      inside.rows[row] = crossings % 2 == 1;
      inside.hits += crossings % 2;
    }
  });
  return inside;
}

}  // namespace ask

// SPDX-License-Identifier: Apache-2.0
// The crossing count against the list of edges that it is promised for, and the figures that it was described by.

#include <gtest/gtest.h>

#include <array>

#include "tests/support/numbers.h"

namespace kdzk_test {
namespace {

struct Point {
  double x, y;
};

uint32_t crossings(const std::vector<Point>& vertices, Point point, Random& random) {
  std::vector<double> x, y;
  for (const Point& vertex : vertices) {
    x.push_back(vertex.x);
    y.push_back(vertex.y);
  }
  GuardedBuffer xs(bytes_of(x), any_slack(random)), ys(bytes_of(y), any_slack(random));
  GuardedBuffer out(4), px(bytes_of(std::vector{point.x}), 0), py(bytes_of(std::vector{point.y}), 0);
  kdzk_vec vecs[5] = {};
  GuardedBuffer* const buffers[5] = {&out, &xs, &ys, &px, &py};
  for (int i = 0; i < 5; i++) vecs[i].data = buffers[i]->data();
  vecs[1].nrows = static_cast<uint32_t>(vertices.size());
  EXPECT_EQ(library().point_in_polygon(&vecs[0], &vecs[1], &vecs[2], &vecs[3], &vecs[4]), 0u);
  uint32_t count;
  std::memcpy(&count, out.data(), 4);
  return count;
}

// The edges by vertex numbers, and whether the formula without a division is theirs.
struct Edge {
  size_t from, to;
  bool in_chain;
};
std::vector<Edge> edges_of(size_t n) {
  if (n <= 1) return {};
  if (n == 2) return {{1, 0, false}, {0, 1, false}};
  if (n == 3) return {{2, 0, false}, {0, 1, false}, {1, 2, false}};
  std::vector<Edge> edges;
  for (size_t i = 0; i + (n % 2 == 0 ? 2 : 3) < n; i++) edges.push_back({i, i + 1, true});
  if (n % 2 == 0) {
    edges.push_back({n - 1, n - 2, false});
    edges.push_back({n - 2, n - 1, false});
  } else {
    edges.push_back({n - 1, n - 3, false});
    edges.push_back({n - 3, n - 2, false});
    edges.push_back({n - 2, n - 1, false});
  }
  return edges;
}

__attribute__((noinline)) bool crosses(const Edge& edge, const std::vector<Point>& v, Point p) {
  const Point a = v[edge.from], b = v[edge.to];
  if ((p.y < a.y) == (p.y < b.y)) return false;
  if (!edge.in_chain) return (a.x - b.x) * (p.y - b.y) / (a.y - b.y) + b.x > p.x;
  const double dy = b.y - a.y, left = (p.x - a.x) * dy, right = (b.x - a.x) * (p.y - a.y);
  return dy < 0 ? right < left : left < right;
}

TEST(Polygon, CountsTheEdgesOfTheTable) {
  Random random("polygon");
  std::vector<size_t> sizes = {20, 31, 100, 1001};
  for (size_t n = 0; n <= 9; n++) sizes.insert(sizes.end(), 600, n);
  uint32_t counts[8] = {};
  for (const size_t n : sizes) {
    const unsigned mode = float_modes[random.below(5)];
    const uint64_t way = random.below(4);
    // On a small grid, so that points lie on vertices, edges and their heights; or anywhere; or with NaNs and the like.
    const auto coordinate = [&] {
      if (way < 2) return static_cast<double>(random.below(6)) - 1;
      return numbers<double>(way == 2 ? Numbers::near_one : kinds_of_numbers[random.below(4)], 1, random)[0];
    };
    std::vector<Point> vertices(n);
    for (Point& vertex : vertices) vertex = {coordinate(), coordinate()};
    const Point point = {coordinate(), coordinate()};
    SCOPED_TRACE(std::to_string(n) + " vertices, way " + std::to_string(way) + ", mode " + std::to_string(mode) +
                 ", seed " + std::to_string(random.seed()));
    const FloatMode with(mode);
    uint32_t want = 0;
    for (const Edge& edge : edges_of(n)) want += crosses(edge, vertices, point);
    ASSERT_EQ(crossings(vertices, point, random), want);
    counts[std::min(want, 7u)]++;
  }
  for (int i = 0; i < 5; i++) EXPECT_GT(counts[i], 20u) << i;
}

TEST(Polygon, CountsWorkedExamples) {
  const std::vector<Point> triangle = {{0, 0}, {4, 0}, {0, 4}}, square = {{0, 0}, {4, 0}, {4, 4}, {0, 4}},
                           segment = {{1, 0}, {1, 2}}, pentagon = {{0, 0}, {4, 0}, {4, 4}, {2, 6}, {0, 4}},
                           hexagon = {{0, 0}, {4, 0}, {6, 2}, {4, 4}, {0, 4}, {-2, 2}};
  const struct {
    std::vector<Point> vertices;
    Point point;
    uint32_t crossings;
  } examples[] = {{triangle, {1, 1}, 1},  {triangle, {-1, 1}, 2}, {triangle, {5, 1}, 0}, {square, {1, 1}, 1},
                  {square, {5, 1}, 0},    {square, {-1, 1}, 1},   {segment, {0, 1}, 2},  {pentagon, {-1, 1}, 1},
                  {pentagon, {-1, 5}, 2}, {pentagon, {1, 5}, 1},  {hexagon, {-5, 3}, 3}, {hexagon, {-5, 1}, 1},
                  {square, {1, 0}, 1},    {square, {1, 4}, 0},    {{}, {0, 0}, 0},       {{{1, 1}}, {0, 1}, 0}};
  Random random("figures");
  for (const auto& example : examples) {
    EXPECT_EQ(crossings(example.vertices, example.point, random), example.crossings)
        << example.vertices.size() << " vertices, " << example.point.x << ", " << example.point.y;
  }
}

}  // namespace
}  // namespace kdzk_test

// SPDX-License-Identifier: Apache-2.0
// How many edges of a vertex list a ray from a point to the right crosses.
//
// The chain of edges from vertex 0 to vertex e is taken two edges at a time, without a division. What is left, two or
// three vertices, or up to three if there are no more, is taken as a closed list of its own, which doesn't lead back to
// vertex 0. Seven vertices, e = 4:
//
//   0 --- 1 --- 2 --- 3 --- 4 --- 5 --- 6         4, 5, 6 are closed by 6 to 4: there is no edge from 6 to 0
//    two edges   two edges   \_________/
//
// Hosts count on that, and on the two formulas as they stand, which differ within rounding distance of an edge: so no
// operation may be fused, moved or left out. An edge has its lower end and not its upper one, by the same compare for
// both ends; compares with a NaN don't hold.

#include "frame/services.h"
#include "x86/kdzkc_x86.h"

namespace kdzk {
namespace {

double vertex(const uint8_t* coordinates, uint64_t i) { return load<double>(coordinates + i * sizeof(double)); }

__m128d two_vertices(const uint8_t* coordinates, uint64_t i) {
  return _mm_castsi128_pd(load16(coordinates + i * sizeof(double)));
}

// The edges from vertex 0 on to vertex `end`, an even number.
uint32_t chain_crossings(const uint8_t* xs, const uint8_t* ys, uint64_t end, double x, double y) {
  const __m128d px = _mm_set1_pd(x), py = _mm_set1_pd(y);
  uint32_t crossings = 0;
  for (uint64_t i = 0; i < end; i += 2) {
    const __m128d y0 = two_vertices(ys, i), y1 = two_vertices(ys, i + 1);  // where two edges begin and end
    const __m128d straddles = _mm_xor_pd(_mm_cmplt_pd(py, y0), _mm_cmplt_pd(py, y1));
    if (_mm_movemask_pd(straddles) == 0) [[likely]]
      continue;
    const __m128d x0 = two_vertices(xs, i), x1 = two_vertices(xs, i + 1);
    const __m128d dy = _mm_sub_pd(y1, y0);
    const __m128d a = _mm_mul_pd(_mm_sub_pd(px, x0), dy), b = _mm_mul_pd(_mm_sub_pd(x1, x0), _mm_sub_pd(py, y0));
    // By the sign bit of dy: where that isn't dy < 0, dy is a NaN, or a difference flushed to zero, and so is what a
    // and b are made from; then neither is less than the other.
    const __m128d left_of_it = _mm_cmplt_pd(_mm_blendv_pd(a, b, dy), _mm_blendv_pd(b, a, dy));
    crossings += bits_set(_mm_movemask_pd(_mm_and_pd(straddles, left_of_it)));
  }
  return crossings;
}

// The edges of `n` vertices that are a closed list.
uint32_t closed_crossings(const uint8_t* xs, const uint8_t* ys, uint64_t n, double x, double y) {
  uint32_t crossings = 0;
  for (uint64_t i = 0, k = n - 1; i < n; k = i++) {
    const double yi = vertex(ys, i), yk = vertex(ys, k);
    if ((y < yi) == (y < yk)) continue;
    const double xi = vertex(xs, i), xk = vertex(xs, k);
    crossings += (xk - xi) * (y - yi) / (yk - yi) + xi > x;
  }
  return crossings;
}

}  // namespace

uint64_t kdzk_point_in_polygon(const kdzk_vec* result, const kdzk_vec* xs, const kdzk_vec* ys, const kdzk_vec* px,
                               const kdzk_vec* py) {
  const auto *const x = static_cast<const uint8_t*>(xs->data), *const y = static_cast<const uint8_t*>(ys->data);
  const double point_x = load<double>(px->data), point_y = load<double>(py->data);
  const uint64_t n = xs->nrows, half = n / 2;
  const uint64_t end = half >= 2 ? 2 * (half - 1) : 0;
  const uint64_t offset = end * sizeof(double);
  store(result->data, chain_crossings(x, y, end, point_x, point_y) +
                          closed_crossings(x + offset, y + offset, n - end, point_x, point_y));
  return KDZK_DONE;
}

}  // namespace kdzk

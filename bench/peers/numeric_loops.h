// SPDX-License-Identifier: Apache-2.0
// What the numeric kernels are measured against: plain loops, as the compiler makes of them what it may, and the floors
// that no kernel can get below.
#ifndef BENCH_PEERS_NUMERIC_LOOPS_H
#define BENCH_PEERS_NUMERIC_LOOPS_H

#include <cstdint>

namespace kdzk_bench {

// T is float or double. A sortable column is bytes, a native one an array.
template <class T>
struct PlainLoops {
  static void add(const T* left, const T* right, uint32_t n, T* out);
  static void multiply(const T* left, T right, uint32_t n, T* out);
  static void add_sortable(const uint8_t* left, const uint8_t* right, uint32_t n, T* out);
  static void decode(const uint8_t* column, uint32_t n, T* out);

  // Adds up in row order.
  static T sum(const T* left, const T* right, uint32_t n);
  static T sum_sortable(const uint8_t* column, uint32_t n);
  static void sum_by_group(const uint8_t* column, const uint32_t* groups, uint32_t n, T* sums);

  // As many additions of vectors, each of which waits for the last one, as a sum in lanes over n rows has.
  static void adder_chain(uint32_t n);
};

template <class Integer>  // int8_t, int16_t, int32_t, int64_t
uint64_t sum_integers(const uint8_t* column, uint32_t n);

// Loads as many bytes of both, 16 at a time.
void read_both(const void* left, const void* right, uint64_t bytes);

// The edges from each of n vertices to the next one, one by one.
uint32_t crossings_of_chain(const double* xs, const double* ys, uint32_t n, double px, double py);

}  // namespace kdzk_bench

#endif

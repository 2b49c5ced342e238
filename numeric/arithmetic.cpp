// SPDX-License-Identifier: Apache-2.0
// Sum, difference and product of two columns of floats or doubles, row by row, or the sum of all these.
//
// One template over operation, type, the forms of both operands, and sum or array. An operand is a column or a
// constant, which decides between three loops; a source of rows, one row or one vector at a time, hides form and
// constant from them. Rows are never read beyond the last one: what whole vectors leave is taken one by one.
//
//   sum of 11 floats      lanes    t0 + t4   t1 + t5   t2 + t6   t3 + t7       each from +0 on, in row order
//                         s        (lane 0 + lane 1) + (lane 2 + lane 3)
//                         s        s + t8 + t9 + t10                           from the left
//                         result   result + s
//
// The next addition to a lane waits for the last one, 3 cycles a vector; all else hides behind that.

#include "numeric/sortable.h"

namespace kdzk {
namespace {

// The rows of one operand.
template <class T, Form form, bool constant>
struct Operand {
  using Vector = typename Values<T>::Vector;
  const uint8_t* data;
  T value{};  // of all rows

  explicit Operand(const kdzk_vec* vec) : data(static_cast<const uint8_t*>(vec->data)) {
    if constexpr (constant) value = value_at<T, form>(data);
  }
  T one(uint64_t row) const {
    if constexpr (constant) return value;
    return value_at<T, form>(data + row * sizeof(T));
  }
  Vector several(uint64_t row) const {
    if constexpr (constant) return Values<T>::in_all_lanes(value);
    return values_at<T, form>(data + row * sizeof(T));
  }
};

template <class T, ArithmeticOp op>
inline T applied(T left, T right) {
  if constexpr (op == ArithmeticOp::add) return left + right;
  if constexpr (op == ArithmeticOp::sub) return left - right;
  if constexpr (op == ArithmeticOp::mul) return left * right;
}

template <class T, ArithmeticOp op, class Vector>
inline Vector applied_in_lanes(Vector left, Vector right) {
  if constexpr (op == ArithmeticOp::add) return Values<T>::add(left, right);
  if constexpr (op == ArithmeticOp::sub) return Values<T>::sub(left, right);
  if constexpr (op == ArithmeticOp::mul) return Values<T>::mul(left, right);
}

template <class T, ArithmeticOp op, bool has_sum, class Left, class Right>
inline void combine(uint8_t* out, const Left& left, const Right& right, uint64_t n) {
  const auto vector = [&](uint64_t row) { return applied_in_lanes<T, op>(left.several(row), right.several(row)); };
  const auto value = [&](uint64_t row) { return applied<T, op>(left.one(row), right.one(row)); };
  if constexpr (has_sum) {
    const uint64_t in_vectors = rows_in_vectors<T>(n);
    const T sum = sum_in_order(sum_in_lanes<T>(vector, in_vectors), value, in_vectors, n);
    store(out, load<T>(out) + sum);
  } else {
    write_rows<T>(out, vector, value, n);
  }
}

}  // namespace

template <class O, ArithmeticOp op>
uint64_t arithmetic(kdzk_vec* result, const kdzk_vec* left, const kdzk_vec* right, kdzk_exec*) {
  using T = typename O::Value;
  auto* const out = static_cast<uint8_t*>(result->data);
  const uint64_t n = left->nrows > right->nrows ? left->nrows : right->nrows;
  if ((left->enc_ctx->flags & KDZK_CONST) != 0) {
    combine<T, op, O::has_sum>(out, Operand<T, O::left, true>(left), Operand<T, O::right, false>(right), n);
  } else if ((right->enc_ctx->flags & KDZK_CONST) != 0) {
    combine<T, op, O::has_sum>(out, Operand<T, O::left, false>(left), Operand<T, O::right, true>(right), n);
  } else {
    combine<T, op, O::has_sum>(out, Operand<T, O::left, false>(left), Operand<T, O::right, false>(right), n);
  }
  return KDZK_DONE;
}

#define KDZK_ARITHMETIC(...)                                                                                          \
  template uint64_t arithmetic<Operands<__VA_ARGS__>, ArithmeticOp::add>(kdzk_vec*, const kdzk_vec*, const kdzk_vec*, \
                                                                         kdzk_exec*);                                 \
  template uint64_t arithmetic<Operands<__VA_ARGS__>, ArithmeticOp::sub>(kdzk_vec*, const kdzk_vec*, const kdzk_vec*, \
                                                                         kdzk_exec*);                                 \
  template uint64_t arithmetic<Operands<__VA_ARGS__>, ArithmeticOp::mul>(kdzk_vec*, const kdzk_vec*, const kdzk_vec*, \
                                                                         kdzk_exec*);
KDZK_ARITHMETIC(float, Form::native, Form::native, false)
KDZK_ARITHMETIC(float, Form::native, Form::native, true)
KDZK_ARITHMETIC(float, Form::native, Form::sortable, false)
KDZK_ARITHMETIC(float, Form::native, Form::sortable, true)
KDZK_ARITHMETIC(float, Form::sortable, Form::native, false)
KDZK_ARITHMETIC(float, Form::sortable, Form::native, true)
KDZK_ARITHMETIC(float, Form::sortable, Form::sortable, false)
KDZK_ARITHMETIC(float, Form::sortable, Form::sortable, true)
KDZK_ARITHMETIC(double, Form::native, Form::native, false)
KDZK_ARITHMETIC(double, Form::native, Form::native, true)
KDZK_ARITHMETIC(double, Form::native, Form::sortable, false)
KDZK_ARITHMETIC(double, Form::native, Form::sortable, true)
KDZK_ARITHMETIC(double, Form::sortable, Form::native, false)
KDZK_ARITHMETIC(double, Form::sortable, Form::native, true)
KDZK_ARITHMETIC(double, Form::sortable, Form::sortable, false)
KDZK_ARITHMETIC(double, Form::sortable, Form::sortable, true)
#undef KDZK_ARITHMETIC

}  // namespace kdzk

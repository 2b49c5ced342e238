// SPDX-License-Identifier: Apache-2.0
#include "dict_store.h"

#include <bit>
#include <cstring>
#include <string>

#include "error.h"

namespace ask {
namespace {

constexpr uint32_t widest_code = 32;

bool has_all_comparisons(const Library& library, uint32_t width) {
  const uint32_t row = kdzk_row_of_width(width);
  if (row == KDZK_NO_ROW_OF_WIDTH) return false;
  for (uint32_t operation = KDZK_OP_EQ; operation <= KDZK_OP_GE_LE; operation++) {
    if (!library.has(kdzk_kind_of(row, KDZK_FAMILY_DICT), operation)) return false;
  }
  return true;
}

// The narrowest width that holds the codes and has kernels.
uint32_t width_for(const Column& column, uint64_t codes, const Library& library) {
  const auto needed = static_cast<uint32_t>(codes > 1 ? std::bit_width(codes - 1) : 1);
  for (uint32_t width = needed; width <= widest_code; width++) {
    if (has_all_comparisons(library, width)) return width;
  }
  throw Error("column " + column.name() + " needs codes of " + std::to_string(needed) +
              " bits, and the library has no kernels for that many");
}

Call::Constant constant_of(uint32_t code) {
  Call::Constant bytes{};
  std::memcpy(bytes.data(), &code, sizeof code);
  return bytes;
}

}  // namespace

DictStore::DictStore(const Column& column, const Library& library)
    : column_(column), library_(library), first_code_(column.nulls() > 0 ? 1 : 0) {
  const uint32_t width = width_for(column, uint64_t{first_code_} + column.ranks(), library);
  const uint32_t row = kdzk_row_of_width(width);
  encoding_.kind = kdzk_kind_of(row, KDZK_FAMILY_DICT);
  encoding_.flags = KDZK_PACKED_DICT;
  encoding_.width = static_cast<uint8_t>(width);
  null_kind_ = kdzk_kind_of(row + KDZK_ROW_VARIANT, KDZK_FAMILY_DICT);
  pack();
}

// A vector's rows fill whole bytes at any width, so the vectors stand end to end.
void DictStore::pack() {
  const size_t rows = column_.rows();
  const uint32_t width = encoding_.width;
  bytes_.assign((rows * width + 7) / 8 + KDZK_PADDING, 0);

  uint64_t bits = 0;  // the last ones are not written yet
  uint32_t held = 0;  // how many
  size_t at = 0;
  for (size_t row = 0; row < rows; row++) {
    const uint32_t entry = column_.entry_of_row(row);
    const uint32_t code = entry == Column::null_entry ? 0 : first_code_ + column_.rank_of_entry(entry);
    bits = bits << width | code;
    for (held += width; held >= 8; held -= 8) bytes_[at++] = static_cast<uint8_t>(bits >> (held - 8));
  }
  if (held > 0) bytes_[at] = static_cast<uint8_t>(bits << (8 - held));

  for (size_t vector = 0; vector < vectors_of(rows); vector++) {
    kdzk_vec input{};
    input.data = bytes_.data() + vector * vector_rows / 8 * width;
    input.enc_ctx = &encoding_;
    input.nrows = rows_of_vector(vector, rows);
    vectors_.push_back(input);
  }
}

// No constant beyond the dictionary reaches a kernel: a comparison with a value that isn't there is one with its
// neighbour above, or holds for every value or for none.
Plan DictStore::plan(const Comparison& comparison) const {
  const Relation relation = comparison.relation;
  if (relation == Relation::is_null) return null();
  if (relation == Relation::is_not_null) return not_null();

  const uint32_t below = column_.ranks_below(comparison.low);
  const uint32_t up_to = column_.ranks_up_to(comparison.low);
  const bool exists = below < up_to;
  const bool is_highest = up_to == column_.ranks();
  switch (relation) {
    case Relation::eq:
      return between(below, up_to);
    case Relation::ne:
      return exists ? all_but(below) : not_null();
    case Relation::lt:
      return before(below);
    case Relation::le:
      return exists && !is_highest ? values(KDZK_OP_LE, below) : before(up_to);
    case Relation::gt:
      return exists && !is_highest ? values(KDZK_OP_GT, below) : from(up_to);
    case Relation::ge:
      return from(below);
    case Relation::between:
      return between(below, column_.ranks_up_to(comparison.high));
    default:  // not_between
      return not_between(below, std::max(below, column_.ranks_up_to(comparison.high)));
  }
}

Plan DictStore::null() const {
  if (column_.nulls() == 0) return {Plan::Kind::no_row};
  if (column_.ranks() == 0) return {Plan::Kind::every_row};
  return call(encoding_.kind, KDZK_OP_EQ, 0);
}

Plan DictStore::not_null() const {
  if (column_.ranks() == 0) return {Plan::Kind::no_row};
  if (column_.nulls() == 0) return {Plan::Kind::every_row};
  return call(encoding_.kind, KDZK_OP_GE, first_code_);
}

Plan DictStore::all_but(uint32_t rank) const {
  return column_.ranks() == 1 ? Plan{Plan::Kind::no_row} : values(KDZK_OP_NE, rank);
}

Plan DictStore::before(uint32_t end) const {
  if (end == 0) return {Plan::Kind::no_row};
  return end == column_.ranks() ? not_null() : values(KDZK_OP_LT, end);
}

Plan DictStore::from(uint32_t first) const {
  if (first == column_.ranks()) return {Plan::Kind::no_row};
  return first == 0 ? not_null() : values(KDZK_OP_GE, first);
}

Plan DictStore::between(uint32_t first, uint32_t end) const {
  if (first >= end) return {Plan::Kind::no_row};
  if (first == 0) return before(end);
  if (end == column_.ranks()) return from(first);
  return end - first == 1 ? values(KDZK_OP_EQ, first) : values(KDZK_OP_GE_LE, first, end - 1);
}

Plan DictStore::not_between(uint32_t first, uint32_t end) const {
  if (column_.nulls() == 0) return complement_of(between(first, end));
  return any_of({before(first), from(end)});
}

Plan DictStore::values(uint32_t operation, uint32_t rank, uint32_t high_rank) const {
  const uint32_t code = first_code_ + rank;
  const uint32_t high_code = first_code_ + high_rank;
  if (column_.nulls() == 0) return call(encoding_.kind, operation, code, high_code);
  if (library_.has(null_kind_, operation)) return call(null_kind_, operation, code, high_code);

  // The plain kernels take 0 for a code like any other, and it is below all of ours.
  switch (operation) {
    case KDZK_OP_LT:
      return call(encoding_.kind, KDZK_OP_GE_LT, first_code_, code);
    case KDZK_OP_LE:
      return call(encoding_.kind, KDZK_OP_GE_LE, first_code_, code);
    case KDZK_OP_NE:
      return all_of({not_null(), call(encoding_.kind, KDZK_OP_NE, code)}, library_);
    default:
      return call(encoding_.kind, operation, code, high_code);
  }
}

Plan DictStore::call(uint8_t kind, uint32_t operation, uint32_t code, uint32_t high_code) const {
  return {Plan::Kind::call, Call{this, kind, operation, constant_of(code), constant_of(high_code)}};
}

}  // namespace ask

// SPDX-License-Identifier: Apache-2.0
#include "store.h"

#include <string>

#include "blocked_store.h"
#include "dict_store.h"
#include "dynp_store.h"
#include "error.h"
#include "fixed_store.h"
#include "runs_store.h"

namespace ask {
namespace {

template <class Form>
std::unique_ptr<Store> make(const Column& column) {
  return std::make_unique<Form>(column);
}

struct KnownForm {
  const char* name;
  std::unique_ptr<Store> (*make)(const Column& column);
};

constexpr KnownForm known_forms[] = {{DictStore::name, make<DictStore>},
                                     {BlockedStore::name, make<BlockedStore>},
                                     {RunsStore::name, make<RunsStore>},
                                     {FixedStore::name, make<FixedStore>},
                                     {DynpStore::name, make<DynpStore>}};

}  // namespace

size_t Store::bytes() const {
  size_t bytes = 0;
  for (const Vector& vector : vectors_) bytes += vector.data_bytes + vector.length_bytes;
  return bytes;
}

void Store::require_kernels(const Library& library) const {
  bool complete = helpers_in(library);
  for (const uint8_t kind : {encoding_.kind, value_kind_}) {
    for (uint32_t operation = KDZK_OP_EQ; operation <= KDZK_OP_GE_LE; operation++) {
      complete &= library.has(kind, operation);
    }
  }
  if (!complete) {
    throw Error("column " + column_.name() + " is stored as " + std::to_string(width()) + "-bit " + form() +
                ", and the library lacks functions for that");
  }
}

void Store::choose_kernels(uint32_t family, uint32_t width) {
  const uint32_t row = kdzk_row_of_width(width);
  encoding_.kind = kdzk_kind_of(row, family);
  value_kind_ = column_.nulls() == 0 ? encoding_.kind : kdzk_kind_of(row + KDZK_ROW_VARIANT, family);
}

// A vector's rows fill whole bytes at any width, so the vectors stand end to end.
Store::Stretch Store::stretch(size_t vector, uint32_t bits) const {
  return {vector * vector_rows / 8 * bits, (size_t{rows_of_vector(vector, column_.rows())} * bits + 7) / 8};
}

Store::Vector& Store::add_vector(Stretch data, Stretch lengths) {
  Vector vector{};
  vector.input.data = data_.data() + data.first_byte;
  vector.input.lengths = lengths_.data() + lengths.first_byte;
  vector.input.enc_ctx = &encoding_;
  vector.input.nrows = rows_of_vector(vectors_.size(), column_.rows());
  vector.data_bytes = data.bytes;
  vector.length_bytes = lengths.bytes;
  return vectors_.emplace_back(vector);
}

// The kernels get only constants that are values of the column: a comparison with a value that isn't there is one with
// its neighbour above, or holds for every value or for none. So it doesn't matter what a form could not store.
Plan Store::plan(const Comparison& comparison) const {
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

// Forms that have a NULL store it as 0, which the kernels for columns without NULLs take for a value like any other.
Plan Store::null() const {
  if (column_.nulls() == 0) return {Plan::Kind::no_row};
  if (column_.ranks() == 0) return {Plan::Kind::every_row};
  return {Plan::Kind::call, Call{this, encoding_.kind, KDZK_OP_EQ, {}, {}}};
}

Plan Store::not_null() const {
  if (column_.ranks() == 0) return {Plan::Kind::no_row};
  if (column_.nulls() == 0) return {Plan::Kind::every_row};
  return values(KDZK_OP_GE, 0);
}

Plan Store::all_but(uint32_t rank) const {
  return column_.ranks() == 1 ? Plan{Plan::Kind::no_row} : values(KDZK_OP_NE, rank);
}

Plan Store::before(uint32_t end) const {
  if (end == 0) return {Plan::Kind::no_row};
  return end == column_.ranks() ? not_null() : values(KDZK_OP_LT, end);
}

Plan Store::from(uint32_t first) const {
  if (first == column_.ranks()) return {Plan::Kind::no_row};
  return first == 0 ? not_null() : values(KDZK_OP_GE, first);
}

Plan Store::between(uint32_t first, uint32_t end) const {
  if (first >= end) return {Plan::Kind::no_row};
  if (first == 0) return before(end);
  if (end == column_.ranks()) return from(first);
  return end - first == 1 ? values(KDZK_OP_EQ, first) : values(KDZK_OP_GE_LE, first, end - 1);
}

Plan Store::not_between(uint32_t first, uint32_t end) const {
  if (column_.nulls() == 0) return complement_of(between(first, end));
  return any_of({before(first), from(end)});
}

Plan Store::values(uint32_t operation, uint32_t rank, uint32_t high_rank) const {
  return {Plan::Kind::call, Call{this, value_kind_, operation, constant(rank), constant(high_rank)}};
}

std::unique_ptr<Store> make_store(std::string_view form, const Column& column, const Library& library) {
  std::string names;
  for (const KnownForm& known : known_forms) {
    if (form == known.name) {
      auto store = known.make(column);
      store->require_kernels(library);
      return store;
    }
    names += (names.empty() ? "" : ", ") + std::string(known.name);
  }
  throw Error("there is no storage form '" + std::string(form) + "'; the forms are: " + names);
}

}  // namespace ask

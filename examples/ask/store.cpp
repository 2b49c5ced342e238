// SPDX-License-Identifier: Apache-2.0
#include "store.h"

#include <string>

#include "error.h"

namespace ask {
namespace {

struct KnownForm {
  const char* name;
  uint32_t form;
};
constexpr KnownForm known_forms[] = {{"dict", KDZK_HOST_PACKED},
                                     {"blocked", KDZK_HOST_BLOCKED(KDZK_HOST_PACKED)},
                                     {"runs", KDZK_HOST_RUNS},
                                     {"fixed", KDZK_HOST_FIXED},
                                     {"dynp", KDZK_HOST_DYNP}};

uint32_t form_named(std::string_view name) {
  std::string names;
  for (const KnownForm& known : known_forms) {
    if (name == known.name) return known.form;
    names += (names.empty() ? "" : ", ") + std::string(known.name);
  }
  throw Error("there is no storage form '" + std::string(name) + "'; the forms are: " + names);
}

// Values of a column in the arrays that the kit reads.
class Values {
 public:
  explicit Values(const Column& column) : column_(column) {}

  void add(uint32_t entry) {
    if (rows_ % 64 == 0) nulls_.push_back(0);
    nulls_[rows_ / 64] |= uint64_t{entry == Column::null_entry} << rows_ % 64;
    rows_++;
    if (column_.type() == Type::whole) {
      wholes_.push_back(entry == Column::null_entry ? 0 : column_.whole_of_entry(entry));
    } else if (column_.type() == Type::decimal) {
      decimals_.push_back(entry == Column::null_entry ? 0 : column_.decimal_of_entry(entry));
    } else {
      const std::string_view text = column_.text_of_entry(entry);
      texts_.push_back({text.data(), text.size()});
    }
  }

  kdzk_host_values get() const {
    if (column_.type() == Type::whole) return {KDZK_HOST_INTEGER, rows_, wholes_.data(), nulls_.data()};
    if (column_.type() == Type::decimal) return {KDZK_HOST_DOUBLE, rows_, decimals_.data(), nulls_.data()};
    return {KDZK_HOST_TEXT, rows_, texts_.data(), nulls_.data()};
  }

 private:
  const Column& column_;
  uint32_t rows_ = 0;
  std::vector<int64_t> wholes_;
  std::vector<double> decimals_;
  std::vector<kdzk_host_text> texts_;
  std::vector<uint64_t> nulls_;
};

}  // namespace

Store::Store(std::string_view form, const Column& column, const Library& library)
    : column_(column), library_(library), form_(form_named(form)) {
  if ((form_ & KDZK_HOST_CODED_FORMS) != 0) make_dictionary();
  while (vectors_.size() < vectors_of(column.rows())) add_vector();
  require_kernels();
}

void Store::make_dictionary() {
  Values distinct(column_);
  for (uint32_t rank = 0; rank < column_.ranks(); rank++) distinct.add(column_.entry_of_rank(rank));
  const kdzk_host_values values = distinct.get();
  coder_.reset(kdzk_host_coder_new(values.type));
  if (coder_ == nullptr || kdzk_host_coder_add(coder_.get(), &values) != KDZK_HOST_DONE ||
      kdzk_host_coder_finish(coder_.get(), column_.nulls() > 0 ? KDZK_HOST_NULL_ALWAYS : KDZK_HOST_NULL_IF_SEEN) !=
          KDZK_HOST_DONE) {
    throw Error("no memory for the dictionary of column " + column_.name());
  }
}

void Store::add_vector() {
  const size_t first_row = vectors_.size() * vector_rows;
  const uint32_t rows = rows_of_vector(vectors_.size(), column_.rows());
  Values rows_values(column_);
  for (uint32_t row = 0; row < rows; row++) rows_values.add(column_.entry_of_row(first_row + row));
  const kdzk_host_values values = rows_values.get();

  Vector& vector = *vectors_.emplace_back(std::make_unique<Vector>());
  vector.bytes.resize(kdzk_host_column_bound(rows));
  const uint32_t status =
      kdzk_host_column_build(&values, coder_.get(), form_, 0, vector.bytes.data(), vector.bytes.size(), &vector.column);
  if (status != KDZK_HOST_DONE) {
    throw Error("column " + column_.name() + " can't be stored as " + form() +
                (status == KDZK_HOST_NO_FORM
                     ? ", which takes numbers, and texts of up to 8 bytes that don't end with a zero byte"
                     : ": there is no memory for it"));
  }
  vector.bytes.resize(kdzk_host_padded(vector.column.size));
  vector.bytes.shrink_to_fit();
  vector.run_bits.resize(kdzk_host_bitvec_words(vector.column.elements));
  kdzk_host_column_bind(library_.ctx(), &vector.column, vector.bytes.data(), is_coded() ? &dictionary() : nullptr,
                        vector.run_bits.data(), &vector.bound);
  vector.bound.input.alloc_tag = kdzk_host_tag(vector.bound.input.decomp_slot);
}

// All predicates for the width of each vector, and what its form needs beside them.
void Store::require_kernels() const {
  for (const auto& vector : vectors_) {
    const uint32_t eq = kdzk_id_of_kind(vector->bound.enc_ctx.kind, KDZK_OP_EQ);
    bool complete = !is_blocked() || library_->sqzb_decode_x86 != nullptr;
    if (has_runs()) complete &= library_.has(burst_kernel(*vector));
    for (uint32_t operation = KDZK_OP_EQ; operation <= KDZK_OP_GE_LE; operation++) {
      complete &= library_.has(eq + operation);
      if (is_coded() && column_.nulls() > 0) complete &= library_.has(eq + operation + kdzk_id_of(KDZK_ROW_VARIANT, 0));
    }
    if (!complete) {
      throw Error("column " + column_.name() + " is stored as " + std::to_string(width()) + "-bit " + form() +
                  ", and the library lacks functions for that");
    }
  }
}

const char* Store::form() const {
  return std::find_if(std::begin(known_forms), std::end(known_forms),
                      [&](const KnownForm& known) { return known.form == form_; })
      ->name;
}

uint32_t Store::width() const {
  uint32_t width = 0;
  for (const auto& vector : vectors_) {
    const kdzk_host_column& column = vector->column;
    width = std::max<uint32_t>(width, form_ == KDZK_HOST_FIXED ? 8 * column.value_bytes : column.width);
  }
  return width;
}

size_t Store::packed_bytes() const {
  size_t bytes = 0;
  for (const auto& vector : vectors_) {
    const kdzk_host_column& column = vector->column;
    bytes += is_coded() ? kdzk_host_packed_bytes(column.nrows, column.width) : column.size;
  }
  return bytes;
}

size_t Store::compressed_bytes() const {
  size_t bytes = 0;
  for (const auto& vector : vectors_) {
    if (has_runs() || is_blocked()) bytes += vector->column.size;
  }
  return bytes;
}

uint32_t Store::burst_kernel(const Vector& vector) const {
  kdzk_host_kernel kernel;
  kdzk_host_find_kernel(library_.ctx(), KDZK_OP_BURST_RLE, KDZK_HOST_FORM_RLE, vector.column.length_bits, &kernel);
  return kernel.id;
}

std::vector<uint32_t> Store::codes() const {
  std::vector<uint32_t> codes(column_.rows());
  Memory memory(library_);
  for (size_t i = 0; i < vectors_.size(); i++) {
    const kdzk_vec& input = vectors_[i]->bound.input;
    kdzk_vec result{};
    result.data = &codes[i * vector_rows];
    result.nrows = input.nrows;
    kdzk_exec exec{};
    exec.env = memory.env();
    exec.flags = KDZK_EX_UNPACK_WIDE;
    library_.kernel(kdzk_id_of_kind(input.enc_ctx->kind, KDZK_OP_DECODE_UNPACK)).decode(&result, &input, &exec);
    memory.release();
  }
  return codes;
}

}  // namespace ask

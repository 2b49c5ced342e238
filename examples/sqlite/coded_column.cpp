// SPDX-License-Identifier: Apache-2.0
#include "coded_column.h"

#include "scan.h"

namespace packed {
namespace {

bool has_codes(const kdzk_host_column& record) { return (record.form & KDZK_HOST_CODED_FORMS) != 0; }

void require_done(uint32_t rc) {
  if (rc == KDZK_HOST_NO_MEMORY) throw std::bad_alloc();
  if (rc != KDZK_HOST_DONE) throw Error(SQLITE_ERROR, "the values of a column can't be numbered");
}

// The values of a column without codes, for the kit's coder.
class PlainValues {
 public:
  PlainValues(const kdzk_specialized_ctx& library, std::shared_ptr<Part> part)
      : part_(std::move(part)), nulls_((part_->record().nrows + 63) / 64) {
    const kdzk_host_column& record = part_->record();
    if (record.type == KDZK_HOST_TEXT) {
      text_room_.resize(record.nrows);
      values_.resize(size_t{2} * record.nrows);
    } else {
      values_.resize(record.nrows);
    }
    require_done(kdzk_host_column_values(&library, &record, part_->bytes(), nullptr, values_.data(), nulls_.data(),
                                         text_room_.data()));
  }

  kdzk_host_values view() const {
    const kdzk_host_column& record = part_->record();
    return {record.type, record.nrows, values_.data(), nulls_.data()};
  }

 private:
  std::shared_ptr<Part> part_;
  std::vector<uint64_t> values_;  // or kdzk_host_text, which are two words
  std::vector<uint64_t> nulls_;
  std::vector<uint64_t> text_room_;
};
static_assert(sizeof(kdzk_host_text) == 2 * sizeof(uint64_t));

}  // namespace

kdzk_exec Selected::exec(const Connection& connection) const {
  kdzk_exec exec{};
  exec.env = &connection.env();
  exec.selection = bits;
  if (bits != nullptr && hits < nrows / selective_from) exec.flags = KDZK_EX_SELECTIVE;
  return exec;
}

CodedColumn::CodedColumn(Connection& connection, std::shared_ptr<const Snapshot> snapshot, int column)
    : connection_(connection), snapshot_(std::move(snapshot)), column_(column) {}

std::shared_ptr<Part> CodedColumn::part(size_t segment) {
  const kdzk_host_column& record = snapshot_->segments[segment]->record(column_);
  if (has_codes(record)) return snapshot_->segments[segment]->part(column_);
  if (!made_.contains(segment)) make_codes(record.type);
  return made_.at(segment);
}

void CodedColumn::make_codes(uint8_t type) {
  const kdzk_specialized_ctx& library = connection_.library();
  const auto for_each = [&](auto&& visit) {
    for (size_t i = 0; i < snapshot_->segments.size(); i++) {
      const kdzk_host_column& record = snapshot_->segments[i]->record(column_);
      if (!has_codes(record) && record.type == type)
        visit(i, PlainValues(library, snapshot_->segments[i]->part(column_)).view());
    }
  };
  const std::unique_ptr<kdzk_host_coder, void (*)(kdzk_host_coder*)> coder(kdzk_host_coder_new(type),
                                                                           kdzk_host_coder_free);
  if (coder == nullptr) throw std::bad_alloc();
  for_each([&](size_t, const kdzk_host_values& values) { require_done(kdzk_host_coder_add(coder.get(), &values)); });
  require_done(kdzk_host_coder_finish(coder.get(), KDZK_HOST_NULL_IF_SEEN));
  const kdzk_host_dictionary& numbered = *kdzk_host_coder_dictionary(coder.get());
  std::vector<uint8_t> dictionary_bytes(numbered.bytes, numbered.bytes + numbered.bytes_size);
  dictionary_bytes.resize(dictionary_bytes.size() + KDZK_PADDING);
  const auto dictionary = std::make_shared<const Dictionary>(-1, false, std::move(dictionary_bytes));
  for_each([&](size_t segment, const kdzk_host_values& values) {
    std::vector<uint64_t> bytes((kdzk_host_column_bound(values.nrows) + KDZK_PADDING + 7) / 8);
    kdzk_host_column record;
    require_done(kdzk_host_column_build(&values, coder.get(), KDZK_HOST_PACKED, 0, bytes.data(),
                                        8 * bytes.size() - KDZK_PADDING, &record));
    bytes.resize((record.size + KDZK_PADDING + 7) / 8);
    bytes.shrink_to_fit();
    made_[segment] = std::make_shared<Part>(connection_, record, std::move(bytes), dictionary);
  });
}

void CodedColumn::unpack(Part& part, const Selected& selected, uint32_t* codes) {
  const kdzk_specialized_ctx& library = connection_.library();
  const kdzk_vec& input = part.bound().input;
  const uint32_t id = kdzk_id_of_kind(input.enc_ctx->kind, KDZK_OP_DECODE_UNPACK);
  if (library.dispatch[id].any == nullptr)
    throw Error(SQLITE_ERROR, "the library has no kernel that unpacks codes of this width");
  kdzk_vec result{};
  result.data = codes;
  result.nrows = selected.hits;
  kdzk_exec exec = selected.exec(connection_);
  exec.flags |= KDZK_EX_UNPACK_WIDE;
  const Timed timed(connection_.statistics(), kdzk_name_of(&library, id), selected.nrows);
  library.dispatch[id].decode(&result, &input, &exec);
}

}  // namespace packed

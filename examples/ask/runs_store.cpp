// SPDX-License-Identifier: Apache-2.0
#include "runs_store.h"

#include <kdzk/host/packed_codes.h>
#include <kdzk/host/run_length.h>

#include <algorithm>

#include "callbacks.h"

namespace ask {

RunsStore::RunsStore(const Column& column) : CodedStore(column, KDZK_RLE) {
  std::vector<Stretch> code_places, offset_places;
  uint32_t most_runs = 0;
  for (size_t vector = 0; vector < vectors_of(column.rows()); vector++) {
    const std::vector<uint32_t> codes = codes_of_vector(vector);
    const auto rows = static_cast<uint32_t>(codes.size());
    const uint32_t runs = kdzk_host_count_runs(codes.data(), rows, KDZK_HOST_RUNS_UNLIMITED);
    most_runs = std::max(most_runs, runs);

    offset_places.push_back({offsets_.size(), (runs + size_t{1}) * sizeof(uint32_t)});
    offsets_.resize(offsets_.size() + offset_places.back().bytes);
    std::vector<uint32_t> run_codes(runs);
    kdzk_host_write_runs(codes.data(), rows, KDZK_HOST_RUNS_UNLIMITED, run_codes.data(), nullptr,
                         &offsets_[offset_places.back().first_byte]);

    code_places.push_back({data_.size(), kdzk_host_packed_bytes(runs, width())});
    data_.resize(data_.size() + code_places.back().bytes);
    kdzk_host_pack(run_codes.data(), runs, width(), &data_[code_places.back().first_byte]);

    kdzk_enc_ctx& encoding = encodings_.emplace_back(encoding_);
    encoding.own_nrows = runs;
    encoding.result_cb = Callbacks::rows_of_runs;
  }
  data_.insert(data_.end(), KDZK_PADDING, 0);
  run_bits_.resize((size_t{most_runs} + 63) / 64);

  for (size_t vector = 0; vector < encodings_.size(); vector++) {
    encodings_[vector].run_offsets = &offsets_[offset_places[vector].first_byte];
    encodings_[vector].own_bitvec = run_bits_.data();
    Vector& added = add_vector(code_places[vector]);
    added.input.enc_ctx = &encodings_[vector];
    added.length_bytes = offset_places[vector].bytes;
  }
}

size_t RunsStore::packed_bytes() const {
  size_t bytes = 0;
  for (size_t vector = 0; vector < encodings_.size(); vector++) bytes += stretch(vector, width()).bytes;
  return bytes;
}

bool RunsStore::helpers_in(const Library& library) const {
  return library.has(Callbacks::burst_kind, KDZK_OP_BURST_RLE);
}

}  // namespace ask

// SPDX-License-Identifier: Apache-2.0
// Bits per run to bits per row, over columns of 64 Ki rows and, from memory, 64 Mi rows. Data are named for the average
// number of rows of a run, their lengths being spread evenly around it, and the percentage of set runs, at random.
//
// Peers: `mask_per_run` looks at each run's bit and ORs a mask for its rows; `set_runs` walks over the set bits and
// sums up the lengths between them, so that no branch hangs on a run's bit; `memset` writes the result's bytes.

#include <kdzk/host/run_length.h>

#include <cstring>
#include <memory>
#include <random>

#include "bench/bench.h"
#include "bench/peers/burst_rle_loops.h"

namespace kdzk_bench {
namespace {

struct Kernel {
  const char* name;
  uint32_t row;
  int bits;  // of an element that tells of a run
};
constexpr Kernel kernels[] = {{"burst_rle_8bit", 6, 8}, {"burst_rle_16bit", 14, 16}, {"burst_rle_8bit_cla", 7, 32}};

struct Burst {
  std::vector<uint8_t> runs;
  std::vector<uint64_t> run_bits, bits;
  kdzk_enc_ctx enc{};
  kdzk_vec src{}, result{};
  kdzk_result_report report{};
  RunColumn column{};

  Burst(const Kernel& kernel, uint32_t nrows, uint32_t average, unsigned percent) : bits((nrows + 63) / 64 + 1) {
    std::mt19937 random(1);
    std::vector<uint32_t> codes(nrows);
    for (uint32_t row = 0, run = 0; row < nrows; run++) {
      for (uint32_t left = 1 + random() % (2 * average - 1); left > 0 && row < nrows; left--) codes[row++] = run;
    }
    const auto length_bits = static_cast<uint32_t>(kernel.bits);
    const uint32_t nruns = kdzk_host_count_runs(codes.data(), nrows, length_bits);
    runs.resize((nruns + 1) * uint64_t{length_bits / 8} + KDZK_PADDING);
    kdzk_host_write_runs(codes.data(), nrows, length_bits, nullptr, length_bits < 32 ? runs.data() : nullptr,
                         length_bits == 32 ? runs.data() : nullptr);
    run_bits.resize((nruns + 63) / 64);
    for (uint32_t run = 0; run < nruns; run++) {
      const uint64_t set = random() % 100 < percent;
      run_bits[run / 64] |= set << run % 64;
      report.hits += set;
    }
    column = {runs.data(), kernel.bits, nruns, nrows};
    enc.flags = KDZK_RLE;
    enc.own_nrows = nruns;
    enc.unpack_base = reinterpret_cast<uint64_t>(runs.data());
    enc.run_offsets = runs.data();
    src.enc_ctx = &enc;
    result.bitvec = bits.data();
    result.nrows = nrows;
    report.bitvec = run_bits.data();
  }
  uint64_t result_bytes() const { return bits.size() * 8 - 8; }
};

void add_burst(const Kernel& kernel, uint32_t nrows, uint32_t average, unsigned percent) {
  const auto make = [=] {
    auto b = std::make_shared<Burst>(kernel, nrows, average, percent);
    auto hits = std::make_shared<uint32_t>(0);
    const kdzk_burst_fn burst =
        library().dispatch[kdzk_id_of(kernel.row, KDZK_FAMILY_FURTHER * 32 + KDZK_OP_BURST_RLE)].burst;
    const auto answer = [=] { return Answer{*hits, b->bits}; };
    return std::vector<Peer>{
        {"kdzk", [=] { burst(&b->result, &b->src, &b->report), *hits = b->result.hits; }, answer},
        {"mask_per_run", [=] { *hits = burst_by_masks(b->column, b->run_bits.data(), b->bits.data()); }, answer},
        {"set_runs", [=] { *hits = burst_set_runs(b->column, b->run_bits.data(), b->bits.data()); }, answer},
        {"memset", [=] { std::memset(b->bits.data(), 0xff, b->result_bytes()); }, nullptr}};
  };
  const std::string data = "runs_of_" + std::to_string(average) + "/" + std::to_string(percent) + "%_set/";
  add_group(kernel.name, data + size_name(nrows), nrows, nrows / 8, make);
}

}  // namespace

void add_burst_rle() {
  for (const Kernel& kernel : kernels) {
    for (const uint32_t average : {4u, 16u, 100u, 1000u}) {
      if (kernel.bits == 8 && average > 100) continue;
      for (const unsigned percent : {1u, 10u, 50u, 90u, 99u}) add_burst(kernel, in_cache, average, percent);
    }
    add_burst(kernel, in_memory, 16, 50);
  }
}

}  // namespace kdzk_bench

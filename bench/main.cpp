// SPDX-License-Identifier: Apache-2.0
// The benchmark program: Google Benchmark, group by group, and a closing table of ratios. The repetitions of a group's
// peers are interleaved at random and the fastest of each counts, since a shared machine can only make a loop slower.
// --benchmark_filter is a regular expression on <kernel>/<data>; a group's peers always run together.

#include <dlfcn.h>
#include <regex.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>

#include "bench/bench.h"

extern "C" __attribute__((visibility("default"))) void hostinternalerr(void*, uint64_t, const char* message, uint64_t) {
  std::fprintf(stderr, "internal error: %s\n", message);
  std::abort();
}

namespace kdzk_bench {
namespace {

const kdzk_specialized_ctx* open_library() {
  void* const handle = dlopen(KDZK_LIBRARY, RTLD_NOW | RTLD_LOCAL);
  const void* const record = handle != nullptr ? dlsym(handle, KDZK_CONTEXT_SYMBOL) : nullptr;
  if (record == nullptr) {
    std::fprintf(stderr, "can't open the library: %s\n", dlerror());
    std::exit(2);
  }
  return static_cast<const kdzk_specialized_ctx*>(record);
}

struct Group {
  std::string name;  // <kernel>/<data>
  uint64_t rows, bytes;
  std::function<std::vector<Peer>()> make_peers;
};

std::vector<Group>& groups() {
  static std::vector<Group> groups;
  return groups;
}

// Keeps the fastest repetition of each peer of a group.
class FastestRuns : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context&) override { return true; }

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.error_occurred) {
        std::printf("%s: %s\n", run.benchmark_name().c_str(), run.error_message.c_str());
        failed = true;
      } else if (run.run_type != Run::RT_Aggregate) {
        const std::string peer = run.run_name.function_name.substr(run.run_name.function_name.rfind('/') + 1);
        auto known = std::find_if(seconds.begin(), seconds.end(), [&](const auto& s) { return s.first == peer; });
        if (known == seconds.end()) known = seconds.insert(known, {peer, 1e300});
        known->second = std::min(known->second, run.real_accumulated_time / static_cast<double>(run.iterations));
      }
    }
  }

  bool failed = false;
  std::vector<std::pair<std::string, double>> seconds;
};

// Whether all peers that give an answer give the same.
bool agree(const std::vector<Peer>& peers) {
  for (const Peer& peer : peers) {
    if (!peer.answer) continue;
    peers[0].run();
    const Answer want = peers[0].answer();
    peer.run();
    if (peer.answer() != want) {
      std::printf("%s disagrees with %s\n", peer.name.c_str(), peers[0].name.c_str());
      return false;
    }
  }
  return true;
}

// Returns false if the peers disagree.
bool run_group(const Group& group) {
  const std::vector<Peer> peers = group.make_peers();
  if (!agree(peers)) return false;
  for (const Peer& peer : peers) {
    benchmark::RegisterBenchmark((group.name + "/" + peer.name).c_str(), [&peer](benchmark::State& state) {
      for (auto _ : state) peer.run();
    });
  }
  FastestRuns fastest;
  benchmark::RunSpecifiedBenchmarks(&fastest, ".");
  benchmark::ClearRegisteredBenchmarks();
  double kdzk = 0;
  for (const auto& [peer, seconds] : fastest.seconds) kdzk = peer == "kdzk" ? seconds : kdzk;
  std::printf("%-36s %10.1f %8.2f  ", group.name.c_str(), static_cast<double>(group.rows) / kdzk / 1e6,
              static_cast<double>(group.bytes) / kdzk / 1e9);
  for (const Peer& peer : peers) {
    for (const auto& [name, seconds] : fastest.seconds) {
      if (name == peer.name && name != "kdzk") std::printf(" %s %.2f", name.c_str(), seconds / kdzk);
    }
  }
  std::printf("\n");
  std::fflush(stdout);
  return !fastest.failed;
}

}  // namespace

const kdzk_specialized_ctx& library() {
  static const kdzk_specialized_ctx* const record = open_library();
  return *record;
}

std::string size_name(uint32_t rows) { return rows == in_cache ? "64Ki" : "64Mi"; }

const uint8_t* random_bytes(uint64_t bytes) {
  static std::vector<uint64_t> words;
  static std::mt19937_64 engine(1);
  // An address that was given out must stay, so the room is there from the beginning.
  if (words.empty()) words.reserve(uint64_t{in_memory} + KDZK_PADDING);
  while (words.size() * 8 < bytes + KDZK_PADDING) words.push_back(engine());
  return reinterpret_cast<const uint8_t*>(words.data());
}

void add_group(const std::string& kernel, const std::string& data, uint64_t rows, uint64_t bytes,
               std::function<std::vector<Peer>()> make_peers) {
  groups().push_back({kernel + "/" + data, rows, bytes, std::move(make_peers)});
}

}  // namespace kdzk_bench

int main(int argc, char** argv) {
  using namespace kdzk_bench;
  std::vector<std::string> arguments(argv, argv + argc);
  const auto add_default = [&](const std::string& flag, const std::string& value) {
    const bool given = std::any_of(arguments.begin(), arguments.end(), [&](auto& a) { return a.starts_with(flag); });
    if (!given) arguments.insert(arguments.begin() + 1, flag + value);
  };
  add_default("--benchmark_min_time=", "0.005");
  add_default("--benchmark_repetitions=", "15");
  add_default("--benchmark_enable_random_interleaving=", "true");
  std::vector<char*> pointers;
  for (std::string& argument : arguments) pointers.push_back(argument.data());
  int count = static_cast<int>(pointers.size());
  benchmark::Initialize(&count, pointers.data());
  if (benchmark::ReportUnrecognizedArguments(count, pointers.data())) return 2;

  add_predicates();
  add_bit_vectors();
  add_bloom();
  add_burst_rle();
  add_hash_table();
  add_prefix_records();
  add_row_store();
  add_decode_dict();
  add_decode_unpack();
  add_numeric();
  add_set();
  add_sqzb();
  add_host_kit();
  add_partition();
  add_xlate();
  const std::string filter = benchmark::GetBenchmarkFilter();
  regex_t wanted;
  if (regcomp(&wanted, filter == "all" ? "." : filter.c_str(), REG_EXTENDED | REG_NOSUB) != 0) {
    std::fprintf(stderr, "the filter is no regular expression: %s\n", filter.c_str());
    return 2;
  }
  std::printf("%-36s %10s %8s   kdzk as a multiple of its peers' speed\n", "kernel/data", "M rows/s", "GB/s");
  bool good = true;
  for (const Group& group : groups()) {
    if (regexec(&wanted, group.name.c_str(), 0, nullptr, 0) == 0) good = run_group(group) && good;
  }
  return good ? 0 : 1;
}

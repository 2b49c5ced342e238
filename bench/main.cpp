// SPDX-License-Identifier: Apache-2.0
// The benchmark program: Google Benchmark, and a closing table of ratios. Repetitions of all benchmarks are interleaved
// at random and the fastest one counts, since a shared machine can only make a loop slower.

#include <dlfcn.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
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

// Keeps the fastest repetition of each benchmark and prints the peers of each kernel side by side.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  bool ReportContext(const Context& context) override { return ConsoleReporter::ReportContext(context); }

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.error_occurred) {
        std::printf("%s: %s\n", run.benchmark_name().c_str(), run.error_message.c_str());
        failed = true;
      }
      if (run.error_occurred || run.run_type == Run::RT_Aggregate) continue;
      const std::string name = run.run_name.function_name;
      const size_t slash = name.rfind('/');
      Speed& speed = speeds_[{name.substr(0, slash), name.substr(slash + 1)}];
      speed.rows = std::max<double>(speed.rows, run.counters.at("items_per_second"));
      speed.bytes = std::max<double>(speed.bytes, run.counters.at("bytes_per_second"));
    }
  }

  void Finalize() override {
    std::printf("\n%-34s %12s %9s   kdzk as a multiple of\n", "kernel/data", "M rows/s", "GB/s");
    std::string kernel;
    for (const auto& [key, speed] : speeds_) {
      if (key.second != "kdzk") continue;
      std::printf("%-34s %12.1f %9.2f  ", key.first.c_str(), speed.rows / 1e6, speed.bytes / 1e9);
      for (const auto& [other, peer] : speeds_) {
        if (other.first == key.first && other.second != "kdzk")
          std::printf(" %s %.2f", other.second.c_str(), speed.rows / peer.rows);
      }
      std::printf("\n");
    }
  }

  bool failed = false;

 private:
  struct Speed {
    double rows = 0, bytes = 0;
  };
  std::map<std::pair<std::string, std::string>, Speed> speeds_;
};

}  // namespace

const kdzk_specialized_ctx& library() {
  static const kdzk_specialized_ctx* const record = open_library();
  return *record;
}

std::string size_name(uint32_t rows) { return rows == in_cache ? "64Ki" : "64Mi"; }

const uint8_t* random_bytes(uint64_t bytes) {
  static std::vector<uint64_t> words;
  static std::mt19937_64 engine(1);
  // Grows to the largest size asked for at once: an address that was given out must stay.
  if (words.empty()) words.reserve(uint64_t{in_memory} + KDZK_PADDING);
  while (words.size() * 8 < bytes + KDZK_PADDING) words.push_back(engine());
  return reinterpret_cast<const uint8_t*>(words.data());
}

void register_peers(const std::string& kernel, const std::string& data, uint64_t rows, uint64_t bytes,
                    std::function<std::vector<Peer>()> make_peers, const std::vector<std::string>& names) {
  for (size_t i = 0; i < names.size(); i++) {
    const std::string name = kernel + "/" + data + "/" + names[i];
    benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State& state) {
      const std::vector<Peer> peers = make_peers();
      const Peer& peer = peers[i];
      peer.run();
      if (peer.answer && i > 0) {
        peers[0].run();
        const Answer want = peers[0].answer();
        peer.run();
        if (peer.answer() != want) {
          state.SkipWithError("the peers disagree");
          return;
        }
      }
      for (auto _ : state) peer.run();
      state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * rows));
      state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
    });
  }
}

}  // namespace kdzk_bench

int main(int argc, char** argv) {
  std::vector<char*> arguments(argv, argv + argc);
  const auto add_default = [&](const char* flag, const char* value) {
    const bool given = std::any_of(argv, argv + argc, [&](const char* a) { return std::string(a).starts_with(flag); });
    static std::vector<std::string> kept;
    kept.reserve(8);
    if (given) return;
    kept.push_back(std::string(flag) + value);
    arguments.insert(arguments.begin() + 1, kept.back().data());
  };
  add_default("--benchmark_min_time=", "0.02");
  add_default("--benchmark_repetitions=", "9");
  add_default("--benchmark_enable_random_interleaving=", "true");
  int count = static_cast<int>(arguments.size());
  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 2;
  kdzk_bench::register_predicates();
  kdzk_bench::register_bit_vectors();
  kdzk_bench::RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  return reporter.failed ? 1 : 0;
}

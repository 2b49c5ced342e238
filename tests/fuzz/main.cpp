// SPDX-License-Identifier: Apache-2.0
// Random and mutated inputs of one format or of all, each for as many seconds as asked.
//
//   kdzk_fuzz [FORMAT|all [SECONDS [SEED]]]
//   kdzk_fuzz replay FORMAT HEX

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "tests/fuzz/formats.h"

namespace kdzk_test {
namespace {

// Where mutations are most likely to matter: what chooses, the header, the lengths; or anywhere.
void mutate(Bytes& input, Random& random) {
  for (uint64_t left = random.below(4); left-- > 0 && !input.empty();) {
    const size_t at = random.below(random.below(3) == 0 ? std::min<size_t>(input.size(), 64) : input.size());
    const auto place = input.begin() + static_cast<std::ptrdiff_t>(at);
    const auto byte = static_cast<uint8_t>(random.bits());
    const uint64_t way = random.below(7);
    if (way == 0) *place = byte;
    if (way == 1) *place ^= static_cast<uint8_t>(1u << byte % 8);
    if (way == 2) *place = static_cast<uint8_t>(*place + (byte % 2 == 0 ? 1 : -1));
    if (way == 3) input.erase(place);
    if (way == 4) input.insert(place, byte);
    if (way == 5) input.resize(at);
    if (way == 6) input.pop_back();
  }
}

// False if nothing was well formed, or everything.
bool fuzz(const Format& format, double seconds, const std::string& seed) {
  Random random(std::string(format.name) + " " + seed);
  const auto start = std::chrono::steady_clock::now();
  unsigned long long inputs = 0, well_formed = 0;
  while (std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() < seconds) {
    for (int i = 0; i < 100; i++, inputs++) {
      Bytes input = format.make(random);
      mutate(input, random);
      alarm(10);  // for what never comes to its end
      well_formed += try_input(format, input);
    }
  }
  alarm(0);
  std::printf("figure: %s: %llu inputs, %llu of them well formed\n", format.name, inputs, well_formed);
  std::fflush(stdout);
  return well_formed > 0 && well_formed < inputs;
}

Bytes bytes_of(const std::string& hex) {
  Bytes bytes;
  for (size_t i = 0; i + 1 < hex.size(); i += 2)
    bytes.push_back(static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
  return bytes;
}

}  // namespace
}  // namespace kdzk_test

int main(int argc, char** argv) {
  const std::vector<std::string> words(argv + 1, argv + argc);
  const auto word = [&](size_t i, const char* otherwise) { return i < words.size() ? words[i] : otherwise; };
  const bool replay = word(0, "all") == "replay";
  const std::string name = word(replay ? 1 : 0, "all");
  bool found = false, good = true;
  for (const kdzk_test::Format& format : kdzk_test::formats) {
    if (name != "all" && name != format.name) continue;
    found = true;
    if (replay)
      std::puts(kdzk_test::try_input(format, kdzk_test::bytes_of(word(2, ""))) ? "well formed" : "not well formed");
    else
      good = kdzk_test::fuzz(format, std::stod(word(1, "10")), word(2, "1")) && good;
  }
  return found && good ? 0 : 1;
}

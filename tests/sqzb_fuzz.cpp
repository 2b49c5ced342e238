// SPDX-License-Identifier: Apache-2.0
// Random and mutated SQZB blocks, for as many seconds as asked. Each goes to the host kit's check, in memory that ends
// at a page that faults. What passes goes to the library's decoder, with no more around it than the check promises:
// KDZK_PADDING bytes behind the block, a destination and scratch of exactly their sizes; and the result must be the
// plain decoder's. Under the address sanitizer scratch and check are watched more closely still.
//
//   kdzk_sqzb_fuzz [seconds [seed]]

#include <kdzk/host/sqzb.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "tests/support/sqzb_oracle.h"

namespace {

using kdzk_test::Bytes;
using kdzk_test::Random;

[[noreturn]] void complain(const Bytes& block, const std::string& what, uint64_t round, uint64_t seed) {
  std::fprintf(stderr, "%s, in round %llu of seed %llu, with this block:\n", what.c_str(),
               static_cast<unsigned long long>(round), static_cast<unsigned long long>(seed));
  for (const uint8_t byte : block) std::fprintf(stderr, "%02x", byte);
  std::fprintf(stderr, "\n");
  std::exit(1);
}

// A block with codes of any width, from the generator or from the writer.
Bytes some_block(Random& random) {
  if (random.below(8) == 0) {
    Bytes data(random.below(400));
    const uint64_t values = 1 + random.below(256);
    for (uint8_t& byte : data) byte = static_cast<uint8_t>(random.below(values));
    const auto size = static_cast<uint32_t>(data.size());
    Bytes block(kdzk_host_sqzb_bound(size, KDZK_HOST_SQZB_ANY_WIDTH));
    uint64_t block_size = 0;
    if (kdzk_host_sqzb_write(data.data(), size, KDZK_HOST_SQZB_ANY_WIDTH, block.data(), block.size(), &block_size) !=
        KDZK_HOST_DONE)
      std::abort();
    block.resize(block_size);
    return block;
  }
  const auto width = static_cast<uint32_t>(random.below(random.below(4) == 0 ? 11 : 6));
  return random_sqzb_block(random, width, static_cast<uint32_t>(random.below(200)),
                           static_cast<uint32_t>(1 + random.below(8)))
      .bytes();
}

// Where mutations are most likely to matter: the header, the lengths, the counts; or anywhere.
void mutate(Bytes& block, Random& random) {
  for (uint64_t left = random.below(4); left-- > 0 && !block.empty();) {
    const size_t near = random.below(3) == 0 ? std::min<size_t>(block.size(), 64) : block.size();
    const size_t at = random.below(near);
    switch (random.below(6)) {
      case 0:
        block[at] = static_cast<uint8_t>(random.bits());
        break;
      case 1:
        block[at] ^= static_cast<uint8_t>(1u << random.below(8));
        break;
      case 2:
        block[at] = static_cast<uint8_t>(block[at] + (random.below(2) == 0 ? 1 : 255));
        break;
      case 3:
        block.erase(block.begin() + static_cast<std::ptrdiff_t>(at));
        break;
      case 4:
        block.insert(block.begin() + static_cast<std::ptrdiff_t>(at), static_cast<uint8_t>(random.bits()));
        break;
      default:
        block.resize(at);
        break;
    }
  }
}

// A size in the header that agrees with the stream, so that more of the mutated blocks pass.
void repair_size(Bytes& block, Random& random) {
  for (int tries = 0; tries < 2; tries++) {
    kdzk_host_sqzb_report report;
    if (kdzk_host_sqzb_check(block.data(), block.size(), &report) == KDZK_HOST_DONE || report.offset != 12 ||
        block.size() == 12)
      return;
    if (block[16] == 0 && block[17] == 1) return;  // one symbol, perhaps four thousand million times
    for (size_t i = 12; i < 16; i++) block[i] = 0;
    const size_t size = kdzk_test::sqzb_plain_decode(block).size() + (random.below(8) == 0 ? 1 : 0);
    block[14] = static_cast<uint8_t>(size >> 8);
    block[15] = static_cast<uint8_t>(size);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const double seconds = argc > 1 ? std::atof(argv[1]) : 10;
  if (argc > 2) setenv("KDZK_TEST_SEED", argv[2], 1);
  Random random("sqzb fuzz");
  const auto start = std::chrono::steady_clock::now();
  uint64_t rounds = 0, passed = 0;
  while (std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() < seconds) {
    for (int i = 0; i < 100; i++, rounds++) {
      Bytes block = some_block(random);
      mutate(block, random);
      repair_size(block, random);
      kdzk_test::now_running("sqzb fuzz, round " + std::to_string(rounds) + " of seed " +
                             std::to_string(random.seed()));
      kdzk_host_sqzb_report report;
      {
        const kdzk_test::GuardedBuffer guarded(block, 0);
        if (kdzk_host_sqzb_check(guarded.data(), block.size(), &report) != KDZK_HOST_DONE) {
          if (report.offset > block.size()) complain(block, "an offset outside the block", rounds, random.seed());
          continue;
        }
      }
      passed++;
      const auto behind = static_cast<uint8_t>(random.bits());
      kdzk_test::SqzbHost host;
      const Bytes just_the_block(block.begin(), block.begin() + static_cast<std::ptrdiff_t>(report.block_size));
      const auto got = host.decode(just_the_block, report.decoded_size, KDZK_PADDING, behind);
      if (got.status != KDZK_DONE) complain(block, "the decoder refuses what passed the check", rounds, random.seed());
      if (got.written != report.decoded_size || got.dst != kdzk_test::sqzb_plain_decode(block))
        complain(block, "the decoder disagrees with the plain one", rounds, random.seed());
      if (host.allocs.size() != 2 || host.frees.size() != 2 || host.complaint != "")
        complain(block, "scratch is not used as it should: " + host.complaint, rounds, random.seed());
    }
  }
  std::printf("figure: %llu blocks, %llu of them well formed\n", static_cast<unsigned long long>(rounds),
              static_cast<unsigned long long>(passed));
  return passed == 0 ? 1 : 0;
}

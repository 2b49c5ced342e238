// SPDX-License-Identifier: Apache-2.0
// What holds for all kernels and services alike, shown on a scene of each: results don't depend on what is around
// buffers, nor on where they lie, nor on the road that a call takes; callbacks may leave; inputs may be shared.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <set>
#include <thread>

#include "tests/support/scenes.h"

namespace kdzk_test {
namespace {

Stage::Outcome outcome_of(const Scene& scene, Road road, Surroundings around = {}) {
  Stage stage(scene.name, around);
  scene.play(stage, road);
  return stage.outcome();
}

TEST(Scenes, AreOfAllKernelsAndServices) {
  std::set<uint32_t> played, there;
  for (const Scene& scene : scenes()) played.insert(scene.number);
  for (uint32_t id = 0; id < KDZK_KERNEL_IDS; id++) {
    if (library().dispatch[id].any != nullptr) there.insert(id);
  }
  EXPECT_EQ(there.size(), 800u);
  for (uint32_t slot = 15; slot <= 66; slot++) there.insert(slot_0 + slot);
  EXPECT_EQ(played, there);
}

class Promises : public testing::TestWithParam<const Scene*> {
 protected:
  static inline std::atomic<unsigned long long> plays = 0;
  const Scene& scene = *GetParam();
  void SetUp() override { now_running(scene.name); }
  static void TearDownTestSuite() {
    std::printf("figure: %zu scenes of all kernels and services, played %llu times\n", scenes().size(), plays.load());
  }
};

// At all 64 bytes of a cache line, behind a page that faults and before one, in other padding and garbage.
TEST_P(Promises, NothingDependsOnTheSurroundings) {
  for (const Road road : scene.roads) {
    const Stage::Outcome plain = outcome_of(scene, road);
    ASSERT_EQ(difference(plain, outcome_of(scene, road, {false, 0, 0x00, 0xff})), "") << road_names[int(road)];
    plays += 2;
    for (uint32_t shift = 0; shift < 64; shift++, plays++) {
      const Surroundings around = {true, shift, static_cast<uint8_t>(shift * 37 + 90),
                                   static_cast<uint8_t>(shift * 89)};
      ASSERT_EQ(difference(plain, outcome_of(scene, road, around)), "")
          << road_names[int(road)] << ", at byte " << shift;
    }
  }
}

TEST_P(Promises, AllRoadsGiveTheSameRows) {
  const Bytes rows = outcome_of(scene, scene.roads[0]).rows;
  for (const Road road : scene.roads) EXPECT_EQ(rows, outcome_of(scene, road).rows) << road_names[int(road)];
  plays += scene.roads.size() + 1;
}

// The callback called first, second and so on leaves by longjmp; the host calls again, and gets what it would have got.
// Nothing but outputs and the host's scratch was written, which the outcome's complaint would tell.
TEST_P(Promises, CallbacksMayLeave) {
  for (const Road road : scene.roads) {
    for (const bool fails : {false, true}) {
      Stage plain(scene.name);
      plain.decompression_fails = fails;  // and hostinternalerr returns
      scene.play(plain, road);
      const uint32_t callbacks = plain.callbacks;
      const Stage::Outcome want = plain.outcome();
      EXPECT_EQ(difference(want, outcome_of(scene, road)), "") << road_names[int(road)];
      for (uint32_t n = 1; n <= callbacks; n++, plays++) {
        Stage left(scene.name);
        left.decompression_fails = fails;
        left.leaves_at = n;
        scene.play(left, road);
        EXPECT_GT(left.callbacks, callbacks - n);
        ASSERT_EQ(difference(want, left.outcome()), "")
            << road_names[int(road)] << ", left at " << n << " of " << callbacks;
      }
      if (road != Road::blocked) break;
    }
  }
}

// All inputs, and with them dictionaries, filters, hash tables, bloom filters and filled slots.
TEST_P(Promises, ThreadsMayShareInputs) {
  for (const Road road : scene.roads) {
    Stage first(scene.name);
    scene.play(first, road);
    const Stage::Outcome want = first.outcome();
    std::string differences[3];
    std::vector<std::thread> threads;
    for (std::string& found : differences) {
      threads.emplace_back([&] {
        for (int i = 0; i < 3; i++) {
          Stage stage(scene.name, {false, 0, 0xa5, 0x77}, &first);
          scene.play(stage, road);
          const std::string here = difference(want, stage.outcome());
          if (here != "") found = here;
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    plays += 10;
    for (const std::string& found : differences) EXPECT_EQ(found, "") << road_names[int(road)];
  }
}

std::vector<const Scene*> each_scene() {
  std::vector<const Scene*> each;
  for (const Scene& scene : scenes()) each.push_back(&scene);
  return each;
}

INSTANTIATE_TEST_SUITE_P(All, Promises, testing::ValuesIn(each_scene()), [](const auto& info) {
  std::string name = info.param->name;
  for (char& c : name) c = std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
  return std::to_string(info.index) + "_" + name;
});

}  // namespace
}  // namespace kdzk_test

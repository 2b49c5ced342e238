// SPDX-License-Identifier: Apache-2.0
// A small call, or a few that belong together, for every kernel of the dispatch table and every slot of the record.
#ifndef TESTS_SUPPORT_SCENES_H
#define TESTS_SUPPORT_SCENES_H

#include <functional>
#include <string>
#include <vector>

#include "tests/support/stage.h"

namespace kdzk_test {

// How a scene comes by its rows: a whole vector at once, a few rows a call, row by row of a selection, from a block.
enum class Road { fast, tail, selective, blocked };
inline constexpr const char* road_names[] = {"fast", "tail", "selective", "blocked"};

struct Scene {
  std::string name;         // the kernel's or service's, and behind a '+' what is special
  uint32_t number;          // id of the kernel; of a service 10000 + its slot
  std::vector<Road> roads;  // which all give the same rows
  std::function<void(Stage&, Road)> play;
};
constexpr uint32_t slot_0 = 10000;

const std::vector<Scene>& scenes();

}  // namespace kdzk_test

#endif

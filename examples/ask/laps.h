// SPDX-License-Identifier: Apache-2.0
//
// How long a piece of work takes.
#ifndef KDZK_EXAMPLES_ASK_LAPS_H
#define KDZK_EXAMPLES_ASK_LAPS_H

#include <chrono>

namespace ask {

struct Laps {
  double seconds = 0;  // that the work takes, in the fastest of the laps
  unsigned laps = 0;   // timed, in each of which the work is done once or more
};

inline double seconds_since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Does the work again and again for a while, five laps at least.
template <class Work>
Laps timed(const Work& work) {
  constexpr double shortest_lap = 50e-6;  // beside which reading the clock takes no time
  constexpr double enough = 50e-3;
  constexpr unsigned fewest_laps = 5;
  unsigned times_a_lap = 1;
  Laps result;
  for (const auto start = std::chrono::steady_clock::now();
       result.laps < fewest_laps || seconds_since(start) < enough;) {
    const auto lap_start = std::chrono::steady_clock::now();
    for (unsigned i = 0; i < times_a_lap; i++) work();
    const double lap = seconds_since(lap_start);
    if (lap < shortest_lap) {
      times_a_lap *= 2;
      continue;
    }
    if (result.laps == 0 || lap / times_a_lap < result.seconds) result.seconds = lap / times_a_lap;
    result.laps++;
  }
  return result;
}

}  // namespace ask

#endif

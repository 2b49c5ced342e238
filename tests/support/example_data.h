// SPDX-License-Identifier: Apache-2.0
// The tables of examples/data.
#ifndef TESTS_SUPPORT_EXAMPLE_DATA_H
#define TESTS_SUPPORT_EXAMPLE_DATA_H

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace kdzk_test {

// The fields of all lines but the first; a comma in a quoted field divides it, too.
inline std::vector<std::vector<std::string>> example_lines(const std::string& file) {
  std::ifstream stream(KDZK_SOURCE_DIR "/examples/data/" + file);
  std::vector<std::vector<std::string>> lines;
  std::string line, field;
  for (std::getline(stream, line); std::getline(stream, line);) {
    std::vector<std::string>& fields = lines.emplace_back();
    for (std::istringstream rest(line); std::getline(rest, field, ',');) fields.push_back(field);
  }
  return lines;
}

}  // namespace kdzk_test

#endif

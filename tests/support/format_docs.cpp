// SPDX-License-Identifier: Apache-2.0

#include "tests/support/format_docs.h"

#include <fstream>
#include <sstream>

namespace kdzk_test {

std::map<std::string, std::vector<uint8_t>> documented_bytes(const std::string& file) {
  std::ifstream lines(KDZK_SOURCE_DIR "/docs/formats/" + file);
  std::map<std::string, std::vector<uint8_t>> bytes;
  for (std::string line; std::getline(lines, line);) {
    std::istringstream cells(line);
    std::string bar, name, byte;
    if (!(cells >> bar >> name) || bar != "|") continue;
    cells >> bar;
    while (cells >> byte && byte.size() == 2 && byte.find_first_not_of("0123456789abcdef") == std::string::npos)
      bytes[name].push_back(static_cast<uint8_t>(std::stoul(byte, nullptr, 16)));
  }
  return bytes;
}

}  // namespace kdzk_test

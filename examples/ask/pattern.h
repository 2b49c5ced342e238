// SPDX-License-Identifier: Apache-2.0
//
// Patterns of `like`: % stands for any bytes, _ for any one character of UTF-8, all else for itself.
#ifndef KDZK_EXAMPLES_ASK_PATTERN_H
#define KDZK_EXAMPLES_ASK_PATTERN_H

#include <cstddef>
#include <string>
#include <string_view>

namespace ask {

struct Pattern {
  std::string text;

  // Goes along both; where they part, the last % takes in one more byte.
  bool fits(std::string_view value) const {
    size_t at = 0, p = 0, behind_percent = std::string::npos, taken = 0;
    while (at < value.size() || p < text.size()) {
      if (p < text.size() && text[p] == '%') {
        behind_percent = ++p;
        taken = at;
      } else if (p < text.size() && at < value.size() && (text[p] == '_' || text[p] == value[at])) {
        at += text[p++] == '_' ? character(value.substr(at)) : 1;
      } else if (behind_percent != std::string::npos && taken < value.size()) {
        p = behind_percent;
        at = ++taken;
      } else {
        return false;
      }
    }
    return true;
  }

  static size_t character(std::string_view value) {  // bytes of the first one
    size_t bytes = 1;
    while (bytes < value.size() && (static_cast<unsigned char>(value[bytes]) & 0xc0) == 0x80) bytes++;
    return bytes;
  }
};

}  // namespace ask

#endif

// SPDX-License-Identifier: Apache-2.0
// The bytes of the walk-throughs in docs/formats, so that tests can check them.
#ifndef TESTS_SUPPORT_FORMAT_DOCS_H
#define TESTS_SUPPORT_FORMAT_DOCS_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace kdzk_test {

// By name, the bytes of all rows `| name | bytes in hexadecimal | ... |` of the tables of a description, in their
// order.
std::map<std::string, std::vector<uint8_t>> documented_bytes(const std::string& file);

}  // namespace kdzk_test

#endif

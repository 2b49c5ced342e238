// SPDX-License-Identifier: Apache-2.0
//
// Numbers and tables for people to read.
#ifndef KDZK_EXAMPLES_ASK_REPORT_H
#define KDZK_EXAMPLES_ASK_REPORT_H

#include <cstdint>
#include <string>
#include <vector>

namespace ask {

std::string grouped(uint64_t number);                   // 1,234,567
std::string scaled(double number);                      // three digits and a decimal prefix: "1.23 M", "45.6 k", "789"
std::string byte_size(uint64_t bytes);                  // "3.23 MB"
std::string percentage(uint64_t part, uint64_t whole);  // "(1.23 %)"
std::string left(const std::string& text, size_t width);   // padded behind
std::string right(const std::string& text, size_t width);  // padded before

// Prints rows of cells as aligned columns. Those of the first `left_columns` stand left, all others right.
void print_aligned(const std::vector<std::vector<std::string>>& rows, size_t left_columns);

}  // namespace ask

#endif

// SPDX-License-Identifier: Apache-2.0
#include "report.h"

#include <algorithm>
#include <cstdio>

namespace ask {
namespace {

size_t characters_in(const std::string& text) {  // UTF-8
  return static_cast<size_t>(
      std::count_if(text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xc0) != 0x80; }));
}

std::string padding(const std::string& text, size_t width) {
  return std::string(width - std::min(width, characters_in(text)), ' ');
}

std::string three_digits(double number) {
  char text[32];
  std::snprintf(text, sizeof text, "%.*f", number < 9.995 ? 2 : number < 99.95 ? 1 : 0, number);
  return text;
}

}  // namespace

std::string grouped(uint64_t number) {
  std::string text = std::to_string(number);
  for (size_t at = text.size(); at > 3;) text.insert(at -= 3, 1, ',');
  return text;
}

std::string scaled(double number) {
  static constexpr const char* prefixes[] = {"", " k", " M", " G", " T"};
  size_t prefix = 0;
  for (; number >= 999.5 && prefix < 4; prefix++) number /= 1000;
  return three_digits(number) + prefixes[prefix];
}

std::string byte_size(uint64_t bytes) {
  return bytes < 1000 ? std::to_string(bytes) + " B" : scaled(static_cast<double>(bytes)) + "B";
}

std::string percentage(uint64_t part, uint64_t whole) {
  const double percent = whole == 0 ? 0 : 100 * static_cast<double>(part) / static_cast<double>(whole);
  std::string text = "(";
  text += three_digits(percent);
  return text += " %)";
}

std::string left(const std::string& text, size_t width) { return text + padding(text, width); }
std::string right(const std::string& text, size_t width) { return padding(text, width) + text; }

void print_aligned(const std::vector<std::vector<std::string>>& rows, size_t left_columns) {
  std::vector<size_t> widths;
  for (const auto& row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (size_t i = 0; i < row.size(); i++) widths[i] = std::max(widths[i], characters_in(row[i]));
  }
  for (const auto& row : rows) {
    std::string line;
    for (size_t i = 0; i < row.size(); i++) {
      line += "  " + (i < left_columns ? left(row[i], widths[i]) : right(row[i], widths[i]));
    }
    std::puts(line.c_str());
  }
}

}  // namespace ask

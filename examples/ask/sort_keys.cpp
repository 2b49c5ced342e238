// SPDX-License-Identifier: Apache-2.0
#include "sort_keys.h"

#include <algorithm>
#include <bit>
#include <string>
#include <string_view>

#include "error.h"

namespace ask {
namespace {

constexpr uint32_t key_bytes = 8;

std::string names_of(std::initializer_list<Type> types) {
  std::string names;
  for (const Type type : types) names += (names.empty() ? "" : " or ") + std::string(name_of(type));
  return names;
}

}  // namespace

SortKeys::SortKeys(const Column& column, const char* form, std::initializer_list<Type> types) : column_(column) {
  const auto refuse = [&](const std::string& reason) {
    throw Error("column " + column.name() + " can't be stored as " + form + ": " + reason);
  };
  if (column.nulls() > 0) refuse("it has NULLs, for which this form has no value");
  if (column.ranks() == 0) return;  // no row, and no type
  if (std::find(types.begin(), types.end(), column.type()) == types.end()) {
    refuse(std::string("it holds ") + name_of(column.type()) + ", and this form takes " + names_of(types));
  }

  if (column.type() == Type::whole) {
    const uint64_t range = distance(column.entry_of_rank(column.ranks() - 1));
    bytes_ = std::max(1u, (static_cast<uint32_t>(std::bit_width(range)) + 7) / 8);
    return;
  }
  size_t longest = 0;
  for (uint32_t rank = 0; rank < column.ranks(); rank++) {
    const std::string_view text = column.text_of_entry(column.entry_of_rank(rank));
    if (text.find('\0') != text.npos) refuse("it has a zero byte in a text, which this form takes for the text's end");
    longest = std::max(longest, text.size());
  }
  if (longest > key_bytes) {
    refuse("it has texts of up to " + std::to_string(longest) + " bytes, and this form takes " +
           std::to_string(key_bytes) + " at most");
  }
  bytes_ = static_cast<uint32_t>(longest);
}

uint64_t SortKeys::of_entry(uint32_t entry) const {
  if (column_.type() == Type::whole) return distance(entry) << (8 * (key_bytes - bytes_));
  uint64_t key = 0;
  uint32_t shift = 8 * key_bytes;
  for (const char byte : column_.text_of_entry(entry)) key |= uint64_t{static_cast<uint8_t>(byte)} << (shift -= 8);
  return key;
}

uint64_t SortKeys::distance(uint32_t entry) const {
  const auto number = [&](uint32_t e) { return static_cast<uint64_t>(column_.whole_of_entry(e)); };
  return number(entry) - number(column_.entry_of_rank(0));
}

std::array<uint8_t, 8> SortKeys::stored(uint64_t key) {
  std::array<uint8_t, 8> bytes{};
  for (uint32_t i = 0; i < key_bytes; i++) bytes[i] = static_cast<uint8_t>(key >> (8 * (key_bytes - 1 - i)));
  return bytes;
}

}  // namespace ask

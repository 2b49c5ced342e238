// SPDX-License-Identifier: Apache-2.0
#include "column.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <numeric>
#include <system_error>

namespace ask {
namespace {

template <typename Number>
std::optional<Number> number_in(std::string_view text) {
  Number number{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

std::optional<double> decimal_in(std::string_view text) {
  const auto number = number_in<double>(text);
  return number && std::isfinite(*number) ? number : std::nullopt;  // "nan" and "inf" are words
}

// Exact also where a double doesn't hold every whole number.
std::weak_ordering compare_exactly(int64_t whole, double decimal) {
  constexpr double beyond_all = 0x1p63;
  if (decimal >= beyond_all) return std::weak_ordering::less;
  if (decimal < -beyond_all) return std::weak_ordering::greater;
  const double floor = std::floor(decimal);
  const auto floor_whole = static_cast<int64_t>(floor);
  if (whole != floor_whole) return whole <=> floor_whole;
  return floor < decimal ? std::weak_ordering::less : std::weak_ordering::equivalent;
}

std::weak_ordering compare_finite(double a, double b) {
  return a < b ? std::weak_ordering::less : b < a ? std::weak_ordering::greater : std::weak_ordering::equivalent;
}

}  // namespace

const char* name_of(Type type) {
  return type == Type::whole ? "whole numbers" : type == Type::decimal ? "decimal numbers" : "text";
}

void Column::add(std::string_view field) {
  csv_bytes_ += field.size() + 1;
  if (field.empty()) {
    nulls_++;
    entry_of_row_.push_back(null_entry);
    return;
  }
  const auto known = entries_.find(field);
  if (known != entries_.end()) {
    entry_of_row_.push_back(*known);
    return;
  }
  auto* bytes = static_cast<char*>(arena_.allocate(field.size(), 1));
  std::memcpy(bytes, field.data(), field.size());
  texts_.emplace_back(bytes, field.size());
  const auto entry = static_cast<uint32_t>(texts_.size() - 1);
  entries_.insert(entry);
  entry_of_row_.push_back(entry);
}

void Column::finish() {
  entries_ = EntrySet(0, {this}, {this});
  find_type();

  std::vector<uint32_t> sorted(texts_.size() - 1);
  std::iota(sorted.begin(), sorted.end(), null_entry + 1);
  std::sort(sorted.begin(), sorted.end(), [&](uint32_t a, uint32_t b) { return less(a, b); });
  rank_of_entry_.resize(texts_.size());
  for (const uint32_t entry : sorted) {
    if (entry_of_rank_.empty() || less(entry_of_rank_.back(), entry)) entry_of_rank_.push_back(entry);
    rank_of_entry_[entry] = ranks() - 1;
  }
}

void Column::find_type() {
  const size_t entries = texts_.size();
  if (entries == 1) return;  // no value to tell by

  wholes_.assign(1, 0);
  for (size_t entry = 1; entry < entries; entry++) {
    const auto number = number_in<int64_t>(texts_[entry]);
    if (!number) break;
    wholes_.push_back(*number);
  }
  if (wholes_.size() == entries) {
    type_ = Type::whole;
    return;
  }
  wholes_ = {};

  decimals_.assign(1, 0);
  for (size_t entry = 1; entry < entries; entry++) {
    const auto number = decimal_in(texts_[entry]);
    if (!number) break;
    decimals_.push_back(*number);
  }
  if (decimals_.size() == entries) {
    type_ = Type::decimal;
    return;
  }
  decimals_ = {};
}

bool Column::less(uint32_t a, uint32_t b) const {
  if (type_ == Type::whole) return wholes_[a] < wholes_[b];
  if (type_ == Type::decimal) return decimals_[a] < decimals_[b];
  return texts_[a] < texts_[b];
}

std::optional<Value> Column::constant(std::string_view text) const {
  if (type_ == Type::text) return Value(std::string(text));
  if (type_ == Type::whole) {
    if (const auto number = number_in<int64_t>(text)) return Value(*number);
  }
  if (const auto number = decimal_in(text)) return Value(*number);
  return std::nullopt;
}

std::weak_ordering Column::compare(uint32_t entry, const Value& constant) const {
  if (type_ == Type::text) return texts_[entry] <=> std::string_view(std::get<std::string>(constant));
  if (type_ == Type::decimal) return compare_finite(decimals_[entry], std::get<double>(constant));
  if (const auto* whole = std::get_if<int64_t>(&constant)) return wholes_[entry] <=> *whole;
  return compare_exactly(wholes_[entry], std::get<double>(constant));
}

uint32_t Column::ranks_below(const Value& constant) const {
  const auto end = std::partition_point(entry_of_rank_.begin(), entry_of_rank_.end(),
                                        [&](uint32_t entry) { return compare(entry, constant) < 0; });
  return static_cast<uint32_t>(end - entry_of_rank_.begin());
}

uint32_t Column::ranks_up_to(const Value& constant) const {
  const auto end = std::partition_point(entry_of_rank_.begin(), entry_of_rank_.end(),
                                        [&](uint32_t entry) { return compare(entry, constant) <= 0; });
  return static_cast<uint32_t>(end - entry_of_rank_.begin());
}

}  // namespace ask

// SPDX-License-Identifier: Apache-2.0
// The columns that the engine is asked for, and their contents. Expected bytes are made here by plain loops.

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstring>

#include "host/verify/guard.h"
#include "host/verify/rules.h"

namespace kdzk_verify {

uint64_t big_endian(const void* bytes, uint32_t size) {
  uint64_t number = 0;
  for (uint32_t i = 0; i < size; i++) number = number << 8 | static_cast<const uint8_t*>(bytes)[i];
  return number;
}

void put_big_endian(std::vector<uint8_t>& bytes, uint64_t number, uint32_t size) {
  while (size-- > 0) bytes.push_back(static_cast<uint8_t>(number >> 8 * size));
}

uint32_t length_bits(uint32_t width) { return width == 8 ? 0 : width / 16; }

uint32_t length_code(uint64_t value, uint32_t width) {
  uint32_t bytes = width / 8;
  while (bytes > 1 && (value & 0xff) == 0) value >>= 8, bytes--;
  return bytes - 1;
}

std::vector<uint64_t> bits_of(const std::vector<bool>& rows) {
  std::vector<uint64_t> words(words_of(rows.size()));
  for (size_t r = 0; r < rows.size(); r++) words[r / 64] |= uint64_t{rows[r]} << r % 64;
  return words;
}

const char* form_name(uint32_t form) {
  constexpr const char* names[] = {"codes",       "codes in runs",    "fixed values", "fixed values with lengths",
                                   "dynp values", "sortable numbers", "texts",        "prefix records",
                                   "bits"};
  return names[form];
}

void touch(const void* base, uint64_t first, uint64_t end, const char* what, const std::string& of) {
  const auto* const bytes = static_cast<const uint8_t*>(base);
  if (const uint8_t* const last = guarded_end(base); last != nullptr && last < bytes + end) {
    broken("%llu bytes are allocated for %s, %s, and %llu are read", static_cast<unsigned long long>(last - bytes),
           what, of.c_str(), static_cast<unsigned long long>(end));
  }
  for (uint64_t i = first; i < end; i++) {
    doing("reading byte %llu of %s, %s", static_cast<unsigned long long>(i), what, of.c_str());
    static_cast<void>(static_cast<const volatile uint8_t*>(base)[i]);
  }
}

namespace {

// Everything that is asked for. Widths that an engine doesn't have it refuses.
std::vector<Wanted> all_wanted() {
  std::vector<Wanted> all;
  const auto add = [&](Wanted wanted) { all.push_back(wanted); };
  for (uint32_t width = 1; width <= 20; width++) add({KDZK_VERIFY_CODES, width});
  for (const uint32_t width : {24u, 32u}) add({KDZK_VERIFY_CODES, width});
  add({.form = KDZK_VERIFY_CODES, .width = 7, .equal_symbols = true});
  for (const uint32_t width : {5u, 9u, 16u}) add({.form = KDZK_VERIFY_CODES, .width = width, .blocked = 1});
  for (const uint32_t width : {1u, 3u, 8u, 11u, 20u}) {
    add({.form = KDZK_VERIFY_RUNS, .width = width, .nrows = 1500});
  }
  add({.form = KDZK_VERIFY_RUNS, .width = 6, .blocked = 1, .nrows = 1500});
  for (uint32_t bytes = 1; bytes <= 8; bytes++) {
    add({.form = KDZK_VERIFY_FIXED, .width = std::bit_ceil(bytes) * 8, .value_bytes = bytes});
  }
  add({.form = KDZK_VERIFY_FIXED, .width = 32, .value_bytes = 4, .small_values = true});
  add({.form = KDZK_VERIFY_FIXED, .width = 16, .value_bytes = 2, .blocked = 1});
  for (const uint32_t width : {16u, 32u, 64u}) {
    add({.form = KDZK_VERIFY_FIXED_TZ, .width = width, .value_bytes = width / 8});
    add({.form = KDZK_VERIFY_DYNP, .width = width, .value_bytes = width / 8});
  }
  for (const uint32_t width : {32u, 64u}) add({.form = KDZK_VERIFY_NUMBERS, .width = width, .value_bytes = width / 8});
  add({.form = KDZK_VERIFY_TEXTS, .width = 0});
  for (const uint32_t bytes : {3u, 8u}) add({.form = KDZK_VERIFY_PREFIX, .width = 0, .value_bytes = bytes});
  for (const uint32_t rows : {1u, 64u, 65u, 203u, 1500u}) add({.form = KDZK_VERIFY_BITS, .width = 0, .nrows = rows});
  // Ends of all kinds.
  for (uint32_t rows = 1; rows <= 16; rows++) {
    add({.form = KDZK_VERIFY_CODES, .width = 8, .nrows = rows});
    add({.form = KDZK_VERIFY_FIXED, .width = 8, .value_bytes = 1, .nrows = rows});
  }
  return all;
}

constexpr uint32_t most_symbols = 5000;

}  // namespace

Column::Column(const Wanted& wanted) : wanted_(wanted) {
  const uint32_t form = wanted.form, width = wanted.width;
  char text[160];
  name_ = (width > 0 ? std::to_string(width) + "-bit " : std::string()) +
          (wanted.value_bytes > 0 ? std::to_string(wanted.value_bytes) + "-byte " : std::string()) +
          (wanted.blocked != 0 ? "blocked " : "") + form_name(form) + ", " + std::to_string(wanted.nrows) + " rows";
  Random random{width * 1000003u + form * 101u + wanted.nrows + wanted.value_bytes * 7u + wanted.blocked};
  const bool coded = form == KDZK_VERIFY_CODES || form == KDZK_VERIFY_RUNS;
  if (coded) dict_size_ = width == 32 ? 0xffffffffu : width <= 12 ? std::min(1u << width, most_symbols) : 1u << width;
  const uint64_t top = wanted.value_bytes == 8 ? ~uint64_t{0} : (uint64_t{1} << 8 * wanted.value_bytes) - 1;

  uint64_t value = 0, left = 0;
  for (uint32_t r = 0; r < wanted.nrows; r++) {
    switch (form) {
      case KDZK_VERIFY_RUNS:
        if (left-- == 0) value = random.below(dict_size_), left = random.below(40) * (random.below(30) == 0 ? 20 : 1);
        values_.push_back(value);
        break;
      case KDZK_VERIFY_CODES:
        values_.push_back(random.below(4) == 0 ? 0 : random.below(dict_size_));
        break;
      case KDZK_VERIFY_FIXED:
        values_.push_back(wanted.small_values ? random.below(200) : random.bits() & top);
        break;
      case KDZK_VERIFY_FIXED_TZ:
      case KDZK_VERIFY_DYNP:
        values_.push_back((random.bits() & top) >> 8 * random.below(2) << 8 * random.below(wanted.value_bytes) & top);
        break;
      case KDZK_VERIFY_PREFIX:
        values_.push_back((uint64_t{r} * 3 + (top >> 2)) & top);
        break;
      case KDZK_VERIFY_BITS:
        values_.push_back(random.below(2));
        break;
      case KDZK_VERIFY_NUMBERS:
        numbers_.push_back((static_cast<double>(random.below(20001)) - 10000) / 8);  // exact as floats, and so are sums
        break;
      default:
        texts_.push_back("text " + std::to_string(random.below(100)) + std::string(random.below(9), 'x'));
        if (random.below(16) == 0) texts_.back().clear();
    }
  }
  if (coded && dict_size_ <= most_symbols) {
    for (uint32_t code = 0; code < dict_size_; code++) {
      std::snprintf(text, sizeof text, "s%04u", code);
      symbols_.push_back(text + std::string(wanted.equal_symbols ? 0 : code % 4, '+'));
    }
  }

  std::vector<kdzk_host_text> text_views, symbol_views;
  for (const std::string& t : texts_) text_views.push_back({t.data(), t.size()});
  for (const std::string& s : symbols_) symbol_views.push_back({s.data(), s.size()});
  kdzk_verify_request request{};
  request.form = form;
  request.width = width;
  request.nrows = wanted.nrows;
  request.blocked = wanted.blocked;
  request.value_bytes = wanted.value_bytes;
  request.dict_size = dict_size_;
  request.values = values_.empty() ? nullptr : values_.data();
  request.numbers = numbers_.empty() ? nullptr : numbers_.data();
  request.texts = text_views.empty() ? nullptr : text_views.data();
  request.symbols = symbol_views.empty() ? nullptr : symbol_views.data();
  doing("while the engine made %s", name_.c_str());
  made_ = host->make(host->state, &request, &column_) == KDZK_DONE;
  if (made_ && (column_.vec == nullptr || (form != KDZK_VERIFY_BITS && column_.vec->enc_ctx == nullptr))) {
    broken("%s: make returned KDZK_DONE without a vector or its enc_ctx", name_.c_str());
  }
  doing("with %s", name_.c_str());
}

Column::~Column() { end(); }

void Column::end() {
  if (!made_) return;
  doing("while the engine ended %s", name_.c_str());
  host->end(host->state, &column_);
  made_ = false;
}

std::vector<uint64_t> Column::elements() const {
  if (wanted_.form != KDZK_VERIFY_RUNS) return values_;
  // Where runs are cut is the engine's: by its own lengths or offsets.
  std::vector<uint64_t> runs;
  uint64_t row = 0;
  for (uint32_t run = 0; run < enc().own_nrows && row < values_.size(); run++) {
    runs.push_back(values_[row]);
    const uint32_t bytes = enc().unpack_width / 8u;
    row += enc().unpack_base != 0 ? big_endian(reinterpret_cast<const uint8_t*>(enc().unpack_base) + run * bytes, bytes)
                                  : big_endian(enc().run_offsets + 4 * (run + 1), 4) - row;
  }
  return runs;
}

std::vector<uint8_t> Column::expected_data() const {
  std::vector<uint8_t> bytes;
  switch (wanted_.form) {
    case KDZK_VERIFY_CODES:
    case KDZK_VERIFY_RUNS: {
      const auto codes = elements();
      bytes.resize((codes.size() * wanted_.width + 7) / 8);
      size_t bit = 0;
      for (const uint64_t code : codes) {
        for (uint32_t b = wanted_.width; b-- > 0; bit++) {
          bytes[bit / 8] |= static_cast<uint8_t>((code >> b & 1) << (7 - bit % 8));
        }
      }
      break;
    }
    case KDZK_VERIFY_NUMBERS:
      for (const double number : numbers_) {  // sign bit inverted, or all bits of a negative number
        if (wanted_.width == 64) {
          const auto bits = std::bit_cast<uint64_t>(number);
          put_big_endian(bytes, bits >> 63 != 0 ? ~bits : bits | uint64_t{1} << 63, 8);
        } else {
          const auto bits = std::bit_cast<uint32_t>(static_cast<float>(number));
          put_big_endian(bytes, bits >> 31 != 0 ? ~bits : bits | 1u << 31, 4);
        }
      }
      break;
    case KDZK_VERIFY_DYNP:
      for (const uint64_t value : values_) {
        const uint32_t kept = length_code(value, wanted_.width) + 1;
        put_big_endian(bytes, value >> (wanted_.width - 8 * kept), kept);
      }
      break;
    default:
      for (const uint64_t value : values_) put_big_endian(bytes, value, wanted_.value_bytes);
  }
  return bytes;
}

std::vector<uint8_t> Column::expected_lengths() const {
  const uint32_t bits = length_bits(wanted_.width);
  std::vector<uint8_t> bytes((values_.size() * bits + 7) / 8);
  for (size_t r = 0; r < values_.size(); r++) {
    const size_t bit = r * bits;
    bytes[bit / 8] |= static_cast<uint8_t>(length_code(values_[r], wanted_.width) << (8 - bits - bit % 8));
  }
  return bytes;
}

Columns columns_of(std::initializer_list<uint32_t> forms) {
  Columns columns;
  for (const Wanted& wanted : all_wanted()) {
    if (std::find(forms.begin(), forms.end(), wanted.form) == forms.end()) continue;
    auto column = std::make_unique<Column>(wanted);
    if (column->made()) columns.push_back(std::move(column));
  }
  if (columns.empty()) not_used("the engine makes no such columns");
  return columns;
}

std::unique_ptr<Column> column_of(const Wanted& wanted) {
  auto column = std::make_unique<Column>(wanted);
  if (!column->made()) not_used(("the engine makes no " + column->name()).c_str());
  return column;
}

}  // namespace kdzk_verify

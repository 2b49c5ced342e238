// SPDX-License-Identifier: Apache-2.0
#include "values.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstring>

namespace packed {
namespace {

// Bytes of a number's key: tag, extended form, type.
constexpr size_t number_bytes = 10, number_key = 1 + number_bytes + 1;
constexpr char number_tag = 1, text_tag = 2, blob_tag = 3;

// Extended form as x86-64 has it: a 64-bit mantissa, then 15 bits of exponent and the sign.
void put_extended(long double number, std::string& key) {
  uint8_t native[sizeof number];
  std::memcpy(native, &number, sizeof number);
  uint8_t bytes[number_bytes];
  std::reverse_copy(native, native + number_bytes, bytes);
  const bool negative = (bytes[0] & 0x80) != 0;
  for (uint8_t& byte : bytes) byte = negative ? static_cast<uint8_t>(~byte) : byte;
  if (!negative) bytes[0] |= 0x80;
  key.append(reinterpret_cast<const char*>(bytes), number_bytes);
}

long double extended_of(std::string_view key) {
  uint8_t native[sizeof(long double)] = {};
  const bool negative = (key[0] & 0x80) == 0;
  for (size_t i = 0; i < number_bytes; i++) {
    const auto byte = static_cast<uint8_t>(key[i]);
    native[number_bytes - 1 - i] = negative ? static_cast<uint8_t>(~byte) : byte;
  }
  if (!negative) native[number_bytes - 1] &= 0x7f;
  long double number;
  std::memcpy(&number, native, sizeof number);
  return number;
}

int class_of(Type type) { return type == Type::null ? 0 : type <= Type::real ? 1 : type == Type::text ? 2 : 3; }

long double extended(const Value& value) {
  return value.type == Type::integer ? static_cast<long double>(value.integer) : static_cast<long double>(value.real);
}

// A real that SQLite would store as an integer in a column of numeric affinity.
Value as_integer_if_exact(double number) {
  if (number > -9223372036854775808.0 && number < 9223372036854775808.0) {
    const auto integer = static_cast<int64_t>(number);
    if (static_cast<double>(integer) == number && integer > INT64_MIN && integer < INT64_MAX) return Value::of(integer);
  }
  return Value::of(number);
}

bool is_space(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

// What SQLite takes for a number: blanks around it, digits with a point, an exponent; no hexadecimal, no infinity.
bool number_of_text(std::string_view text, Value& number) {
  while (!text.empty() && is_space(text.front())) text.remove_prefix(1);
  while (!text.empty() && is_space(text.back())) text.remove_suffix(1);
  size_t at = !text.empty() && (text[0] == '-' || text[0] == '+') ? 1 : 0;
  const auto digits = [&] {
    const size_t first = at;
    while (at < text.size() && text[at] >= '0' && text[at] <= '9') at++;
    return at - first;
  };
  size_t found = digits();
  const bool whole = at == text.size();
  if (at < text.size() && text[at] == '.') {
    at++;
    found += digits();
  }
  if (found == 0) return false;
  if (at < text.size() && (text[at] == 'e' || text[at] == 'E')) {
    at++;
    if (at < text.size() && (text[at] == '-' || text[at] == '+')) at++;
    if (digits() == 0) return false;
  }
  if (at != text.size()) return false;
  if (text[0] == '+') text.remove_prefix(1);
  if (whole) {
    int64_t integer = 0;
    if (std::from_chars(text.data(), text.data() + text.size(), integer).ec == std::errc()) {
      number = Value::of(integer);
      return true;
    }
  }
  number = Value::of(std::strtod(std::string(text).c_str(), nullptr));
  return true;
}

}  // namespace

Value Value::of(int64_t integer) {
  Value value;
  value.type = Type::integer;
  value.integer = integer;
  return value;
}

Value Value::of(double real) {
  Value value;
  if (std::isnan(real)) return value;
  value.type = Type::real;
  value.real = real == 0 ? 0.0 : real;
  return value;
}

Value Value::of(std::string_view text) {
  Value value;
  value.type = Type::text;
  value.bytes = text;
  return value;
}

Value Value::of(sqlite3_value* given) {
  Value value;
  switch (sqlite3_value_type(given)) {
    case SQLITE_INTEGER:
      return of(static_cast<int64_t>(sqlite3_value_int64(given)));
    case SQLITE_FLOAT:
      return of(sqlite3_value_double(given));
    case SQLITE_TEXT: {
      const auto* const text = reinterpret_cast<const char*>(sqlite3_value_text(given));
      return of(std::string_view(text, static_cast<size_t>(sqlite3_value_bytes(given))));
    }
    case SQLITE_BLOB: {
      const auto* const bytes = static_cast<const char*>(sqlite3_value_blob(given));
      value.type = Type::blob;
      if (bytes != nullptr) value.bytes = {bytes, static_cast<size_t>(sqlite3_value_bytes(given))};
      return value;
    }
    default:
      return value;
  }
}

int compare(const Value& a, const Value& b) {
  if (class_of(a.type) != class_of(b.type)) return class_of(a.type) - class_of(b.type);
  if (!a.is_number()) return a.bytes.compare(b.bytes);
  const long double x = extended(a), y = extended(b);
  return x < y ? -1 : x > y ? 1 : 0;
}

Affinity affinity_of(std::string_view declared_type) {
  std::string type(declared_type);
  for (char& c : type) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  const auto has = [&](const char* word) { return type.find(word) != std::string::npos; };
  if (has("INT")) return Affinity::integer;
  if (has("CHAR") || has("CLOB") || has("TEXT")) return Affinity::text;
  if (type.empty() || has("BLOB")) return Affinity::none;
  if (has("REAL") || has("FLOA") || has("DOUB")) return Affinity::real;
  return Affinity::numeric;
}

bool is_numeric(Affinity affinity) { return affinity >= Affinity::numeric; }

Value applied(Affinity affinity, const Value& value, std::deque<std::string>& texts) {
  if (affinity == Affinity::none || value.type == Type::null || value.type == Type::blob) return value;
  if (affinity == Affinity::text) {
    if (value.type == Type::text) return value;
    char* const text = value.type == Type::integer ? sqlite3_mprintf("%lld", static_cast<long long>(value.integer))
                                                   : sqlite3_mprintf("%!.15g", value.real);
    texts.emplace_back(text == nullptr ? "" : text);
    sqlite3_free(text);
    return Value::of(std::string_view(texts.back()));
  }
  Value number = value;
  if (value.type == Type::text && !number_of_text(value.bytes, number)) return value;
  if (affinity == Affinity::real)
    return number.type == Type::integer ? Value::of(static_cast<double>(number.integer)) : number;
  return number.type == Type::real ? as_integer_if_exact(number.real) : number;
}

kdzk_host_value kit_value(const Value& value) {
  kdzk_host_value result{};
  if (value.type == Type::integer) {
    result.type = KDZK_HOST_INTEGER;
    result.integer = value.integer;
  } else if (value.type == Type::real) {
    result.type = KDZK_HOST_DOUBLE;
    result.number = value.real;
  } else if (value.type == Type::text) {
    result.type = KDZK_HOST_TEXT;
    result.text = {value.bytes.data(), value.bytes.size()};
  }
  return result;
}

Value value_of(const kdzk_host_value& value) {
  if (value.type == KDZK_HOST_INTEGER) return Value::of(value.integer);
  if (value.type == KDZK_HOST_DOUBLE) return Value::of(value.number);
  if (value.type != KDZK_HOST_TEXT) return {};
  return Value::of(value.text.size == 0
                       ? std::string_view("")
                       : std::string_view(static_cast<const char*>(value.text.bytes), value.text.size));
}

std::string mixed_key_below(const Value& value) {
  std::string key(1, value.is_number() ? number_tag : value.type == Type::text ? text_tag : blob_tag);
  if (value.is_number()) {
    put_extended(extended(value), key);
  } else {
    key += value.bytes;
  }
  return key;
}

std::string mixed_key(const Value& value) {
  std::string key = mixed_key_below(value);
  if (value.is_number()) key += value.type == Type::integer ? '\0' : '\1';
  return key;
}

std::string mixed_key_above(const Value& value) { return mixed_key_below(value) + (value.is_number() ? "\2" : ""); }

bool value_of_mixed(std::string_view key, Value& value) {
  if (key.empty()) return false;
  if (key[0] == text_tag || key[0] == blob_tag) {
    value = Value::of(key.substr(1));
    if (key[0] == blob_tag) value.type = Type::blob;
    return true;
  }
  if (key[0] != number_tag || key.size() != number_key || static_cast<uint8_t>(key.back()) > 1) return false;
  const long double number = extended_of(key.substr(1));
  if (key.back() == '\0') {
    if (!(number >= -9223372036854775808.0L && number <= 9223372036854775807.0L)) return false;
    value = Value::of(static_cast<int64_t>(number));
  } else {
    value = Value::of(static_cast<double>(number));
  }
  return mixed_key(value) == key;
}

}  // namespace packed

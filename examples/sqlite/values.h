// SPDX-License-Identifier: Apache-2.0
//
// Values as SQLite has them: of five types, whatever the column, in one order: NULL, numbers by value, texts, blobs.
//
// A dictionary of the host kit holds values of one type. A column whose rows hold several, a real 1.5 among integers
// or a text among numbers, is `mixed`: its dictionary is one of texts that sort as the values do.
//
//   number   01   its 80-bit extended form, sign inverted, big-endian   00 integer, 01 real
//   text     02   its bytes
//   blob     03   its bytes
//
// Every 64-bit integer and every double has an exact extended form, so that numbers compare exactly. An integer and a
// real that are equal are two entries, one behind the other; comparisons are ranges that take in both.
#ifndef KDZK_EXAMPLES_SQLITE_VALUES_H
#define KDZK_EXAMPLES_SQLITE_VALUES_H

#include <kdzk/host.h>

#include <deque>
#include <string>
#include <string_view>

#include "sqlite_api.h"

namespace packed {

enum class Type : uint8_t { null, integer, real, text, blob };

struct Value {
  Type type = Type::null;
  union {
    int64_t integer = 0;
    double real;
  };
  std::string_view bytes;  // of a text or blob, whose owner is someone else

  static Value of(int64_t integer);
  static Value of(double real);
  static Value of(std::string_view text);
  static Value of(sqlite3_value* value);  // bytes hold as long as `value` does
  bool is_number() const { return type == Type::integer || type == Type::real; }
};

int compare(const Value& a, const Value& b);  // below, at or above 0, as SQLite orders them; not for NULL

// ---- Affinities: what SQLite makes of a value that is stored in a column. ----

enum class Affinity : uint8_t { none, text, numeric, integer, real };

Affinity affinity_of(std::string_view declared_type);  // by SQLite's rules for CREATE TABLE
bool is_numeric(Affinity affinity);

// The value with the affinity applied. Texts that are made of numbers are put into `texts`.
Value applied(Affinity affinity, const Value& value, std::deque<std::string>& texts);

// ---- Values of the host kit and of mixed columns. ----

kdzk_host_value kit_value(const Value& value);  // not for blobs
Value value_of(const kdzk_host_value& value);

std::string mixed_key(const Value& value);                // not for NULL
std::string mixed_key_below(const Value& value);          // the key without what tells an integer from a real
std::string mixed_key_above(const Value& value);          // a key behind all of equal values
bool value_of_mixed(std::string_view key, Value& value);  // false: no such key. A text's bytes are the key's.

}  // namespace packed

#endif

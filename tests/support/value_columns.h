// SPDX-License-Identifier: Apache-2.0
// Columns of values in every form that the join engine takes as keys or payloads, and a hash function for them.
#ifndef TESTS_SUPPORT_VALUE_COLUMNS_H
#define TESTS_SUPPORT_VALUE_COLUMNS_H

#include <cstring>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/host.h"

namespace kdzk_test {

using Bytes = std::vector<uint8_t>;

// The hash function that tests hand to the library, and how often it was called since somebody set this to 0.
uint64_t plain_hash(const void* key, uint32_t length, uint64_t seed);
extern thread_local uint64_t hash_calls;

// The forms of values that aren't numbers; where flags of several are set, the first of them counts.
inline constexpr uint32_t forms_of_values[] = {KDZK_FIXED_BYTES, KDZK_LEN_ARRAY, KDZK_LEN_PREFIXED, KDZK_PTR_LEN,
                                               KDZK_PAIR16};

std::string form_name(uint32_t form);  // of one flag of kdzk_enc_ctx.flags

// `n` values that a column of this form can hold, short ones mostly; those of KDZK_FIXED_BYTES have `size` bytes.
std::vector<Bytes> random_values(uint32_t form, uint32_t n, uint32_t size, Random& random);

// Values in a column of one form, each stream behind guards: forms whose bytes are read by vectors end KDZK_PADDING
// bytes before a page that faults, the others, and the values that pointers lead to, exactly there.
// Forms: KDZK_FIXED_BYTES, KDZK_PACKED_DICT, KDZK_LEN_ARRAY, KDZK_LEN_PREFIXED, KDZK_PTR_LEN, KDZK_PAIR16,
// KDZK_HASH_U32, and KDZK_NUMERIC, for native 64-bit numbers.
class ValueColumn {
 public:
  ValueColumn(uint32_t form, const std::vector<Bytes>& values, Random& random, uint32_t dict_width = 0);
  // The same with streams in memory of the caller's, to whom each is given with its slack.
  using Keep = std::function<uint8_t*(const Bytes& bytes, size_t slack)>;
  ValueColumn(Keep keep, uint32_t form, const std::vector<Bytes>& values, Random& random, uint32_t dict_width = 0);
  ValueColumn(const ValueColumn&) = delete;

  kdzk_enc_ctx enc{};
  kdzk_vec vec{};

  // Byte position of a row in the forms whose values lie end to end, and of the end; 0 in the others.
  const std::vector<uint64_t>& positions() const { return positions_; }

 private:
  void store_dictionary(const std::vector<Bytes>& values, uint32_t width, Random& random);

  std::deque<GuardedBuffer> buffers_;
  Keep keep;
  std::vector<uint64_t> positions_;
};

// Appends a native number.
template <class T>
void append(Bytes& to, T number) {
  const auto* const bytes = reinterpret_cast<const uint8_t*>(&number);
  to.insert(to.end(), bytes, bytes + sizeof number);
}

inline void append(Bytes& to, const Bytes& bytes) { to.insert(to.end(), bytes.begin(), bytes.end()); }

// Native numbers anywhere in memory.
template <class T>
T get(const uint8_t* at) {
  T value;
  std::memcpy(&value, at, sizeof value);
  return value;
}
template <class T>
void put(uint8_t* at, T value) {
  std::memcpy(at, &value, sizeof value);
}

}  // namespace kdzk_test

#endif

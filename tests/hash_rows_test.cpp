// SPDX-License-Identifier: Apache-2.0
// Row hashing against a loop over the values, for every form of key and both kinds of seeds.

#include <gtest/gtest.h>

#include <cstring>

#include "tests/support/value_columns.h"

namespace kdzk_test {
namespace {

// A form, and a number that varies it: the bytes of a fixed key, the width of a code.
using Form = std::pair<uint32_t, uint32_t>;

class HashRows : public testing::TestWithParam<Form> {};

std::vector<Form> forms() {
  std::vector<Form> forms = {{KDZK_LEN_ARRAY, 0}, {KDZK_LEN_PREFIXED, 0}, {KDZK_PTR_LEN, 0}, {KDZK_PAIR16, 0}};
  for (uint32_t bytes : {0, 1, 4, 8, 12, 31}) forms.push_back({KDZK_FIXED_BYTES, bytes});
  for (uint32_t width = 1; width <= 32; width++) forms.push_back({KDZK_PACKED_DICT, width});
  return forms;
}

std::string name_of_form(const testing::TestParamInfo<Form>& info) {
  return form_name(info.param.first) + "_" + std::to_string(info.param.second);
}

// The forms in the order in which they are looked for.
const uint32_t ordered[] = {KDZK_FIXED_BYTES,  KDZK_PACKED_DICT, KDZK_LEN_ARRAY,
                            KDZK_LEN_PREFIXED, KDZK_PTR_LEN,     KDZK_PAIR16};

TEST_P(HashRows, AgreesWithALoopOverTheValues) {
  const auto [form, variant] = GetParam();
  Random random("hash_rows" + form_name(form) + std::to_string(variant));
  for (const uint32_t n : {0u, 1u, 2u, 7u, 33u, 1024u, 3000u}) {
    now_running("hash_rows, " + form_name(form) + ", " + std::to_string(n) + " rows");
    std::vector<Bytes> values = random_values(form, n, variant, random);
    if (form == KDZK_PACKED_DICT) {
      const uint64_t codes = std::min<uint64_t>(n + 1, uint64_t{1} << variant);
      for (uint32_t i = 0; i < n; i++) values[i] = values[i % codes];
    } else if (n > 0 && form != KDZK_FIXED_BYTES) {
      values[n / 2].assign(65535, 0x17);
    }
    ValueColumn keys(form, values, random, variant);
    const auto* const later = std::find(std::begin(ordered), std::end(ordered), form) + 1;
    for (const auto* other = later; other != std::end(ordered); other++) {
      if (random.below(2) == 0) keys.enc.flags |= *other;
    }
    enum { one, per_row, in_place };
    for (const int mode : {one, per_row, in_place}) {
      if (mode != one && n == 1) continue;
      const uint32_t count = n == 0 ? 0 : mode == one ? 1 : n;
      const auto seed_values = random_values(KDZK_NUMERIC, count, 0, random);
      ValueColumn seeds(KDZK_NUMERIC, seed_values, random);
      if (n == 0) seeds.vec.data = nullptr, seeds.vec.nrows = mode;
      seeds.enc.flags |= KDZK_LEN_ARRAY;
      GuardedBuffer hashes(n * 8);
      kdzk_vec out{};
      out.data = mode == in_place ? seeds.vec.data : hashes.data();
      hash_calls = 0;
      ASSERT_EQ(library().hash_rows(&out, &keys.vec, &seeds.vec, plain_hash), KDZK_DONE);
      ASSERT_EQ(hash_calls, n);
      for (uint32_t i = 0; i < n; i++) {
        uint64_t seed, hash;
        std::memcpy(&seed, seed_values[mode == one ? 0 : i].data(), 8);
        std::memcpy(&hash, static_cast<uint8_t*>(out.data) + i * 8, 8);
        ASSERT_EQ(hash, plain_hash(values[i].data(), static_cast<uint32_t>(values[i].size()), seed))
            << i << " of " << n;
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Forms, HashRows, testing::ValuesIn(forms()), name_of_form);

TEST(HashRowsForms, RefusesOthersUntouched) {
  Random random("hash_rows_refused");
  for (uint32_t bit = 0; bit < 32; bit++) {
    const uint32_t flag = uint32_t{1} << bit;
    const bool known = std::find(std::begin(ordered), std::end(ordered), flag) != std::end(ordered);
    for (const bool seeded : {false, true}) {
      for (const uint32_t n : {0u, 3u}) {
        if (known && seeded && n > 0) continue;  // the test above
        kdzk_enc_ctx key_enc{}, seed_enc{};
        key_enc.flags = flag;
        seed_enc.flags = seeded ? KDZK_NUMERIC : ~KDZK_NUMERIC;
        kdzk_vec out{}, keys{}, seeds{};
        Bytes hashes(24, 0x5c);
        out.data = hashes.data();
        keys.enc_ctx = &key_enc;
        keys.nrows = n;
        seeds.enc_ctx = &seed_enc;
        seeds.nrows = 1;
        EXPECT_EQ(library().hash_rows(&out, &keys, &seeds, nullptr), known && seeded ? KDZK_DONE : KDZK_UNSUPPORTED);
        EXPECT_EQ(hashes, Bytes(24, 0x5c));
      }
    }
  }
}

// A width that isn't whole bytes: 12 bits are a byte.
TEST(HashRowsForms, CutsWidthsToWholeBytes) {
  Bytes data = {1, 2, 3};
  uint64_t hashes[3], seed = 5;
  kdzk_enc_ctx key_enc{}, seed_enc{};
  key_enc.flags = KDZK_FIXED_BYTES;
  key_enc.width = 12;
  seed_enc.flags = KDZK_NUMERIC;
  kdzk_vec out{}, keys{}, seeds{};
  out.data = hashes;
  keys.data = data.data();
  keys.enc_ctx = &key_enc;
  keys.nrows = 3;
  seeds.data = &seed;
  seeds.enc_ctx = &seed_enc;
  seeds.nrows = 1;
  EXPECT_EQ(library().hash_rows(&out, &keys, &seeds, plain_hash), KDZK_DONE);
  for (size_t i = 0; i < 3; i++) EXPECT_EQ(hashes[i], plain_hash(&data[i], 1, 5));
}

}  // namespace
}  // namespace kdzk_test

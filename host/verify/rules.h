// SPDX-License-Identifier: Apache-2.0
// What the rules of verify-host share. Each rule is a function that runs in a process of its own and looks at one thing
// only; it returns if the rule holds, and otherwise leaves by broken(). A fault in it ends only this process, and the
// report says what it was doing().
#ifndef HOST_VERIFY_RULES_H
#define HOST_VERIFY_RULES_H

#include <kdzk/host.h>
#include <kdzk/host/verify.h>

#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace kdzk_verify {

struct Rule {
  const char* name;
  const char* remedy;  // what to do, an imperative
  void (*check)();
  std::vector<std::string_view> needs;  // rules, or groups of them, that must hold for this one to be looked at
};

using Rules = std::vector<Rule>;
Rules env_rules();        // group "callbacks"
Rules column_rules();     // group "records"
Rules predicate_rules();  // group "families"
Rules decoding_rules();   // the same
Rules join_rules();       // the same

// A rule of that group, which all rules of the other groups come before.
struct Family {
  const char* name;
  void (*check)();
};
Rules families(std::initializer_list<Family> list);

extern const kdzk_specialized_ctx* library;
extern const kdzk_verify_host* host;

// ---- How a rule ends. ----

[[noreturn]] void broken(const char* format, ...) __attribute__((format(printf, 1, 2)));
[[noreturn]] void not_used(const char* why);
void remark(const char* format, ...) __attribute__((format(printf, 1, 2)));  // stands behind "ok"

// What happens from here on; a crash is reported with it.
void doing(const char* format, ...) __attribute__((format(printf, 1, 2)));

// From here on the end of the process is fine, if it isn't by a fault.
void may_end();

// Reads the bytes first to end - 1 from `base` on, after it has said what they are; leaves by broken() if a guarded
// malloc gave less.
void touch(const void* base, uint64_t first, uint64_t end, const char* what, const std::string& of);

// ---- Columns that the engine makes. ----

// One request: form, width in bits, bytes of a value, and what else distinguishes it.
struct Wanted {
  uint32_t form, width, value_bytes = 0, blocked = 0;
  uint32_t nrows = 203;
  bool equal_symbols = false, small_values = false;
};

// A column with its contents, as asked for; ends with its scope.
class Column {
 public:
  explicit Column(const Wanted& wanted);
  ~Column();
  Column(const Column&) = delete;
  Column& operator=(const Column&) = delete;

  bool made() const { return made_; }
  const Wanted& wanted() const { return wanted_; }
  const std::string& name() const { return name_; }  // "13-bit codes, 203 rows"
  kdzk_vec& vec() const { return *column_.vec; }
  const kdzk_enc_ctx& enc() const { return *column_.vec->enc_ctx; }
  const kdzk_verify_column& record() const { return column_; }
  const std::vector<uint64_t>& values() const { return values_; }
  const std::vector<double>& numbers() const { return numbers_; }
  const std::vector<std::string>& texts() const { return texts_; }
  const std::vector<std::string>& symbols() const { return symbols_; }
  uint32_t nrows() const { return wanted_.nrows; }
  uint32_t dict_size() const { return dict_size_; }

  // The bytes that kernels read as `data`: its own ones, or those of the block. By the verifier's own writer.
  std::vector<uint8_t> expected_data() const;
  std::vector<uint8_t> expected_lengths() const;
  std::vector<uint64_t> elements() const;  // RUNS: a value per run; otherwise per row

  void end();

 private:
  Wanted wanted_;
  std::string name_;
  bool made_ = false;
  uint32_t dict_size_ = 0;
  kdzk_verify_column column_{};
  std::vector<uint64_t> values_;
  std::vector<double> numbers_;
  std::vector<std::string> texts_, symbols_;
};

using Columns = std::vector<std::unique_ptr<Column>>;

// Those of all that are ever asked for that are of these forms and that the engine makes; leaves by not_used() if it
// makes none.
Columns columns_of(std::initializer_list<uint32_t> forms);
std::unique_ptr<Column> column_of(const Wanted& wanted);  // the same of one

kdzk_exec exec_of_host();  // zero but for the engine's env

// ---- Predicates ----

struct Answer {
  std::vector<uint64_t> bits;
  uint32_t hits;
  uint64_t returned;
};

// Calls the kernel of the column's kind for an operation, KDZK_OP_EQ to KDZK_OP_GE_LE; `variant` calls its `_null` or
// `_tz` twin. `exec` may be null.
Answer predicate(const Column& column, uint32_t operation, bool variant, uint64_t low, uint64_t high, kdzk_exec* exec,
                 const uint64_t* filter = nullptr);

bool qualifies(uint32_t operation, uint64_t value, uint64_t low, uint64_t high, bool null_at_0);

// Leaves by broken() if `answer` isn't these rows.
void expect_rows(const Answer& answer, const std::vector<bool>& rows, const char* kernel, const std::string& of);

kdzk_kernel kernel_of(uint8_t kind, uint32_t operation, bool variant = false);  // leaves by broken() if there is none

// ---- Numbers ----

struct Random {
  uint64_t state;
  uint64_t bits() {
    uint64_t z = state += 0x9e3779b97f4a7c15;
    z = (z ^ z >> 30) * 0xbf58476d1ce4e5b9;
    z = (z ^ z >> 27) * 0x94d049bb133111eb;
    return z ^ z >> 31;
  }
  uint64_t below(uint64_t n) { return bits() % n; }
};

inline uint64_t words_of(uint64_t rows) { return (rows + 63) / 64; }
inline bool bit_of(const uint64_t* words, uint64_t row) { return words[row / 64] >> row % 64 & 1; }
uint64_t big_endian(const void* bytes, uint32_t size);
void put_big_endian(std::vector<uint8_t>& bytes, uint64_t number, uint32_t size);
uint32_t length_bits(uint32_t width);                  // of a length code
uint32_t length_code(uint64_t value, uint32_t width);  // bytes without the zero bytes behind, less one
std::vector<uint64_t> bits_of(const std::vector<bool>& rows);
const char* form_name(uint32_t form);

}  // namespace kdzk_verify

#endif

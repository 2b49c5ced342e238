// SPDX-License-Identifier: Apache-2.0
#include "groups.h"

#include <algorithm>
#include <string>

#include "error.h"

namespace ask {
namespace {

constexpr uint32_t most_keys = 1u << 26;  // 256 MiB of counters

// Counts the rows by their keys.
class Counting {
 public:
  Counting(const Engine& engine, const std::vector<const Column*>& columns, const Answer* rows)
      : engine_(engine), rows_(rows), memory_(engine.library()), keys_(vector_rows) {
    for (const Column* column : columns) {
      stores_.push_back(&engine.store(*column));
      if (!stores_.back()->is_coded()) {
        throw Error("column " + column->name() + " is stored as " + stores_.back()->form() +
                    ", and groups need a dictionary: store it as dict, blocked or runs");
      }
    }
  }

  void run() {
    counters_.clear();
    for (size_t vector = 0; vector < stores_.front()->vectors(); vector++) {
      const uint32_t keys = compose(vector);
      for (uint32_t i = 0; i < keys; i++) counters_[keys_[i]]++;
    }
  }

  // The counters that aren't 0. The last column's code is the lowest digit of a key.
  Counts counts() const {
    Counts counts;
    for (uint32_t key = 0; key < counters_.size(); key++) {
      if (counters_[key] == 0) continue;
      std::vector<uint32_t> group(stores_.size());
      uint32_t rest = key;
      for (size_t i = stores_.size(); i-- > 0;) {
        const kdzk_host_dictionary& dictionary = stores_[i]->dictionary();
        group[i] = rest % dictionary.size + 1 - dictionary.first_code;
        rest /= dictionary.size;
      }
      counts[group] = counters_[key];
    }
    return counts;
  }

  size_t keys() const { return counters_.size(); }

 private:
  // Writes the keys of a vector's rows to keys_, which has room for all, and returns how many they are.
  uint32_t compose(size_t vector) {
    std::vector<kdzk_vec> inputs;
    for (const Store* store : stores_) inputs.push_back(store->vector(vector).bound.input);
    kdzk_vec result{}, temp{};
    result.data = keys_.data();
    result.nrows = vector_rows;
    temp.data = scratch_.data();
    temp.nrows = static_cast<uint32_t>(scratch_.size());
    kdzk_exec exec{};
    exec.env = memory_.env();
    exec.flags = KDZK_EX_GROUP_MUL;
    exec.selection = rows_ == nullptr ? nullptr : &rows_->bits[vector * vector_words];
    uint32_t key_count = 0;
    const uint64_t code =
        engine_.library()->groupkey_dydi(&result, &key_count, inputs.data(), inputs.size(), &temp, &exec);
    memory_.release();
    if (code == KDZK_KEYS_TOO_MANY || (code == KDZK_DONE && key_count > most_keys)) {
      throw Error("these columns have too many combinations of values to count them in an array");
    }
    if (code != KDZK_DONE) throw Error("groupkey_dydi returned " + std::to_string(code));
    counters_.resize(key_count);
    return result.hits;
  }

  const Engine& engine_;
  std::vector<const Store*> stores_;
  const Answer* rows_;
  Memory memory_;
  std::vector<uint32_t> keys_;
  std::vector<uint32_t> scratch_ = std::vector<uint32_t>(2048);
  std::vector<uint32_t> counters_;
};

}  // namespace

Groups count_groups(const Engine& engine, const std::vector<const Column*>& columns, const Answer* rows) {
  Counting counting(engine, columns, rows);
  Groups groups;
  groups.laps = timed([&] { counting.run(); });
  groups.counts = counting.counts();
  groups.keys = static_cast<uint32_t>(counting.keys());
  return groups;
}

}  // namespace ask

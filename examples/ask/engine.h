// SPDX-License-Identifier: Apache-2.0
//
// Answers questions with the kernels.
#ifndef KDZK_EXAMPLES_ASK_ENGINE_H
#define KDZK_EXAMPLES_ASK_ENGINE_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "library.h"
#include "plan.h"
#include "question.h"
#include "store.h"
#include "table.h"

namespace ask {

struct Answer {
  std::vector<uint64_t> bits;  // row r at bit r % 64 of word r / 64; bits behind the last row have no meaning
  uint64_t hits;
  double seconds;        // that a run over all vectors takes, in the fastest of the laps
  uint64_t input_bytes;  // of the columns that the kernels go through in a run
  unsigned laps;         // timed, of one run or more; 0: known without looking at a row

  bool has(size_t row) const { return bits[row / 64] >> (row % 64) & 1; }
};

class Engine {
 public:
  // The forms by column name; the other columns are stored as "dict". The table must outlive the engine.
  Engine(const Table& table, const Library& library, const std::map<std::string, std::string>& forms);

  const Store& store(const Column& column) const { return *stores_.at(&column); }

  Plan plan(const Question& question) const { return plan(question, false); }
  Answer answer(const Plan& plan) const;

 private:
  Plan plan(const Question& question, bool negated) const;

  const Table& table_;
  const Library& library_;
  std::map<const Column*, std::unique_ptr<Store>> stores_;
};

// The names of the library's functions that a plan needs, each once: kernels, and what works on their columns.
std::vector<std::string> function_names(const Plan& plan, const Library& library);

}  // namespace ask

#endif

// SPDX-License-Identifier: Apache-2.0
//
// Finds rows with the kernels.
#ifndef KDZK_EXAMPLES_ASK_ENGINE_H
#define KDZK_EXAMPLES_ASK_ENGINE_H

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "laps.h"
#include "library.h"
#include "plan.h"
#include "question.h"
#include "store.h"
#include "table.h"

namespace ask {

struct Answer {
  std::vector<uint64_t> bits;  // row r at bit r % 64 of word r / 64; bits behind the last row have no meaning
  uint64_t hits = 0;
  Laps laps;                           // of a run over all vectors; none: known without looking at a row
  uint64_t input_bytes = 0;            // of the columns that the kernels go through in a run
  std::vector<std::string> functions;  // of the library that were called, each once

  bool has(size_t row) const { return bits[row / 64] >> (row % 64) & 1; }
};

class Engine {
 public:
  // The forms by column name; the other columns are stored as "dict". The table must outlive the engine.
  Engine(const Table& table, const Library& library, const std::map<std::string, std::string>& forms);

  const Table& table() const { return table_; }
  const Library& library() const { return library_; }
  const Store& store(const Column& column) const { return *stores_.at(&column); }

  Answer answer(const Question& question) const;

  // The rows for which `where` holds and none of the columns is NULL; nothing if these are all rows.
  std::optional<Answer> rows(std::optional<Question> where, const std::vector<const Column*>& columns) const;

 private:
  Plan plan(const Question& question, bool negated) const;

  const Table& table_;
  const Library& library_;
  std::map<const Column*, std::unique_ptr<Store>> stores_;
};

}  // namespace ask

#endif

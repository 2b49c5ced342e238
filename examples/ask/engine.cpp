// SPDX-License-Identifier: Apache-2.0
#include "engine.h"

#include <algorithm>
#include <array>
#include <deque>
#include <utility>

#include "error.h"

namespace ask {
namespace {

using Bits = std::array<uint64_t, vector_words>;

// Rows of a vector that are still in question.
struct Selection {
  const uint64_t* bits = nullptr;  // null: all of them
  uint32_t rows = 0;
};

Relation opposite(Relation relation) {
  static constexpr std::pair<Relation, Relation> opposites[] = {{Relation::eq, Relation::ne},
                                                                {Relation::lt, Relation::ge},
                                                                {Relation::gt, Relation::le},
                                                                {Relation::between, Relation::not_between},
                                                                {Relation::in_set, Relation::not_in_set},
                                                                {Relation::is_null, Relation::is_not_null}};
  for (const auto& [one, other] : opposites) {
    if (relation == one) return other;
    if (relation == other) return one;
  }
  throw Error("a relation without an opposite");
}

// Runs one plan over the vectors of a table, one after the other.
class Run {
 public:
  explicit Run(const Library& library) : library_(library), memory_(library) {}

  // Writes the rows that the plan finds to answer.bits, and all else of the answer but its laps.
  void over_table(const Plan& plan, size_t rows, Answer& answer) {
    answer.hits = 0;
    input_bytes_ = 0;
    for (size_t vector = 0; vector < vectors_of(rows); vector++) {
      answer.hits += evaluate(plan, vector, rows_of_vector(vector, rows), {}, &answer.bits[vector * vector_words]);
      memory_.release();
    }
    answer.input_bytes = input_bytes_;
    answer.functions = functions_;
  }

 private:
  // Writes the rows of the selection that the plan finds in the vector to `out`, and returns their number.
  uint32_t evaluate(const Plan& plan, size_t vector, uint32_t rows, Selection selection, uint64_t* out) {
    if (plan.kind == Plan::Kind::all_of) return all_of(plan.terms, vector, rows, selection, out);
    if (plan.kind == Plan::Kind::any_of) return any_of(plan.terms, vector, rows, selection, out);
    return test(plan, vector, rows, selection, out);
  }

  uint32_t test(const Plan& plan, size_t number, uint32_t rows, Selection selection, uint64_t* out) {
    const Store& store = *plan.store;
    Store::Vector& vector = store.vector(number);
    kdzk_host_test test;
    if (plan.kind == Plan::Kind::set) {
      kdzk_host_column_set_test(&vector.column, plan.set.data(), &test);
    } else {
      kdzk_host_column_test(&vector.column, &plan.ranges[number], &test);
    }
    kdzk_exec exec{};
    exec.env = memory_.env();
    exec.selection = selection.bits;
    if (selection.bits != nullptr && is_worth_visits(store, selection.rows, rows)) exec.flags = KDZK_EX_SELECTIVE;
    uint32_t hits = 0;
    if (kdzk_host_test_run(&vector.bound, &test, nullptr, &exec, out, &hits) == KDZK_UNSUPPORTED) {
      throw Error("the library has no kernel for " + std::to_string(store.width()) + "-bit " + store.form());
    }
    if (test.kind == KDZK_HOST_TEST_KERNEL || test.kind == KDZK_HOST_TEST_SET) {
      note(store, vector, test.kernel);
      const uint64_t bytes = vector.column.data_size;
      input_bytes_ += exec.flags == KDZK_EX_SELECTIVE ? bytes * selection.rows / rows : bytes;
    }
    return hits;
  }

  // Whether visiting the selected rows one by one is the faster way. At one row in 64, a `ge` over all 65,536 rows
  // takes 3.0 us at 2 bits and 5.8 us at 24, a visit 3.0 and 2.8 us. In dynp a visit still goes over the lengths of all
  // rows: a `ge` takes 10.0 us at 32 bits, a visit of one row in 64 takes 12.9 us, in 1,024 10.5 us, in 8,192 8.6 us
  // (AMD EPYC, family 25; g++ 12).
  static bool is_worth_visits(const Store& store, uint32_t selected, uint32_t rows) {
    return selected < rows / (store.has_lengths() ? 1024 : 64) && !store.has_runs();
  }

  // Notes the functions that a kernel call takes.
  void note(const Store& store, const Store::Vector& vector, uint32_t kernel) {
    if (noted_[kernel]) return;
    noted_[kernel] = true;
    const auto add = [&](const char* name) {
      if (std::find(functions_.begin(), functions_.end(), name) == functions_.end()) functions_.emplace_back(name);
    };
    if (store.is_blocked()) add("sqzb_decode_x86");
    add(library_.name(kernel));
    if (store.has_runs()) add(library_.name(store.burst_kernel(vector)));
  }

  // Each term looks only at the rows that the terms before it left.
  uint32_t all_of(const std::vector<Plan>& terms, size_t vector, uint32_t rows, Selection selection, uint64_t* out) {
    const Scratch scratch(*this);
    uint64_t* target = terms.size() % 2 == 1 ? out : scratch.words();  // so that the last term's is `out`
    for (const Plan& term : terms) {
      selection = {target, evaluate(term, vector, rows, selection, target)};
      if (selection.rows == 0) {
        std::fill_n(out, (rows + 63) / 64, 0);
        return 0;
      }
      target = target == out ? scratch.words() : out;
    }
    return selection.rows;
  }

  uint32_t any_of(const std::vector<Plan>& terms, size_t vector, uint32_t rows, Selection selection, uint64_t* out) {
    const Scratch scratch(*this);
    uint32_t hits = evaluate(terms.front(), vector, rows, selection, out);
    for (size_t i = 1; i < terms.size(); i++) {
      evaluate(terms[i], vector, rows, selection, scratch.words());
      library_->bv64.bv_or(out, &hits, out, scratch.words(), rows);
    }
    return hits;
  }

  // Room for a vector's bits, from the spare ones of the run.
  class Scratch {
   public:
    explicit Scratch(Run& run) : run_(run) {
      if (run.depth_ == run.scratch_.size()) run.scratch_.emplace_back();
      bits_ = &run.scratch_[run.depth_++];
    }
    ~Scratch() { run_.depth_--; }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;
    uint64_t* words() const { return bits_->data(); }

   private:
    Run& run_;
    Bits* bits_;
  };

  const Library& library_;
  Memory memory_;
  std::deque<Bits> scratch_;
  size_t depth_ = 0;
  uint64_t input_bytes_ = 0;
  std::vector<bool> noted_ = std::vector<bool>(KDZK_KERNEL_IDS);
  std::vector<std::string> functions_;
};

}  // namespace

Engine::Engine(const Table& table, const Library& library, const std::map<std::string, std::string>& forms)
    : table_(table), library_(library) {
  for (const auto& [name, form] : forms) {
    if (table.find(name) == nullptr) throw Error("--store: there is no column '" + name + "' in " + table.file);
  }
  for (const Column& column : table.columns) {
    const auto form = forms.find(column.name());
    stores_[&column] = std::make_unique<Store>(form == forms.end() ? "dict" : form->second, column, library);
  }
}

// Negations go down to the comparisons, where NULL fulfils neither a relation nor its opposite.
Plan Engine::plan(const Question& question, bool negated) const {
  if (question.kind == Question::Kind::negation) return plan(question.terms.front(), !negated);
  if (question.kind == Question::Kind::comparison) {
    Comparison comparison = question.comparison;
    if (negated) comparison.relation = opposite(comparison.relation);
    return plan_of(comparison, store(*comparison.column));
  }
  std::vector<Plan> terms;
  for (const Question& term : question.terms) terms.push_back(plan(term, negated));
  const bool all = (question.kind == Question::Kind::all_of) != negated;
  return all ? all_of(std::move(terms)) : any_of(std::move(terms));
}

Answer Engine::answer(const Question& question) const {
  const Plan plan = this->plan(question, false);
  Answer answer{};
  answer.bits.resize(vectors_of(table_.rows()) * vector_words);
  Run run(library_);
  const auto work = [&] { run.over_table(plan, table_.rows(), answer); };
  work();
  if (!answer.functions.empty()) answer.laps = timed(work);
  return answer;
}

std::optional<Answer> Engine::rows(std::optional<Question> where, const std::vector<const Column*>& columns) const {
  Question all{Question::Kind::all_of};
  if (where) all.terms.push_back(*std::move(where));
  for (const Column* column : columns) {
    if (column->nulls() == 0) continue;
    Question& present = all.terms.emplace_back();
    present.kind = Question::Kind::comparison;
    present.comparison.column = column;
    present.comparison.relation = Relation::is_not_null;
  }
  if (all.terms.empty()) return std::nullopt;
  return answer(all);
}

}  // namespace ask

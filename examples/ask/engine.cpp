// SPDX-License-Identifier: Apache-2.0
#include "engine.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <deque>
#include <utility>

#include "callbacks.h"
#include "error.h"

namespace ask {
namespace {

constexpr size_t vector_words = vector_rows / 64;
using Bits = std::array<uint64_t, vector_words>;

// Rows of a vector that are still in question.
struct Selection {
  const uint64_t* bits = nullptr;  // null: all of them
  uint32_t rows = 0;
};

Relation opposite(Relation relation) {
  switch (relation) {
    case Relation::eq:
      return Relation::ne;
    case Relation::ne:
      return Relation::eq;
    case Relation::lt:
      return Relation::ge;
    case Relation::le:
      return Relation::gt;
    case Relation::gt:
      return Relation::le;
    case Relation::ge:
      return Relation::lt;
    case Relation::between:
      return Relation::not_between;
    case Relation::not_between:
      return Relation::between;
    case Relation::is_null:
      return Relation::is_not_null;
    default:
      return Relation::is_null;
  }
}

// Runs one plan over the vectors of a table, one after the other.
class Run {
 public:
  explicit Run(const Library& library) : library_(library), bits_(library.bits()), callbacks_(library) {}

  // Writes the rows that the plan finds to `bits`, and returns their number.
  uint64_t over_table(const Plan& plan, size_t rows, std::vector<uint64_t>& bits) {
    uint64_t hits = 0;
    for (size_t vector = 0; vector < vectors_of(rows); vector++) {
      hits += evaluate(plan, vector, rows_of_vector(vector, rows), {}, &bits[vector * vector_words]);
      callbacks_.release_copies();
    }
    return hits;
  }

  uint64_t input_bytes() const { return input_bytes_; }

 private:
  // Writes the rows of the selection that the plan finds in the vector to `out`, and returns their number.
  uint32_t evaluate(const Plan& plan, size_t vector, uint32_t rows, Selection selection, uint64_t* out) {
    switch (plan.kind) {
      case Plan::Kind::call:
        return call(plan.call, vector, rows, selection, out);
      case Plan::Kind::all_of:
        return all_of(plan.terms, vector, rows, selection, out);
      case Plan::Kind::any_of:
        return any_of(plan.terms, vector, rows, selection, out);
      case Plan::Kind::complement:
        return complement(plan.terms.front(), vector, rows, selection, out);
      default:
        throw Error("a plan has a term that is known without its rows");
    }
  }

  uint32_t call(const Call& call, size_t vector, uint32_t rows, Selection selection, uint64_t* out) {
    const Store& store = *call.store;
    const auto& [input, data_bytes, length_bytes] = store.vector(vector);
    kdzk_vec result{};
    result.bitvec = out;
    result.nrows = rows;
    kdzk_kargs low{};
    low.data = const_cast<uint8_t*>(call.low.data());
    low.enc_ctx = input.enc_ctx;
    kdzk_kargs high{};
    high.data = const_cast<uint8_t*>(call.high.data());
    high.enc_ctx = input.enc_ctx;
    kdzk_exec exec{};
    exec.env = callbacks_.env();
    // A selection would be one of runs where there are runs, so it has to wait for the rows.
    exec.selection = store.has_runs() ? nullptr : selection.bits;
    // Where a row lies is known from the lengths before it, so these are read in any case.
    const bool selective =
        exec.selection != nullptr && selection.rows < rows / store.selective_part() && store.width() > 1;
    if (selective) exec.flags = KDZK_EX_SELECTIVE;
    input_bytes_ += length_bytes + (selective ? data_bytes * selection.rows / rows : data_bytes);

    const kdzk_kernel& kernel = library_.kernel(call.kind, call.operation);
    const uint64_t code = call.operation < KDZK_OP_GT_LT ? kernel.compare(&result, &input, &low, &exec)
                                                         : kernel.between(&result, &input, &low, &high, &exec);
    if (code != KDZK_DONE && code != KDZK_NO_ROW) {
      throw Error(std::string(library_.name(call.kind, call.operation)) + " returned " + std::to_string(code));
    }
    if (selection.bits != exec.selection) bits_.bv_and(out, &result.hits, out, selection.bits, rows);
    return result.hits;
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
      bits_.bv_or(out, &hits, out, scratch.words(), rows);
    }
    return hits;
  }

  uint32_t complement(const Plan& term, size_t vector, uint32_t rows, Selection selection, uint64_t* out) {
    uint32_t hits = evaluate(term, vector, rows, selection, out);
    if (selection.bits != nullptr) {
      bits_.bv_andnot(out, &hits, out, selection.bits, rows);
    } else {
      bits_.bv_not(out, &hits, out, rows);
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
  const kdzk_bv_services& bits_;
  Callbacks callbacks_;
  std::deque<Bits> scratch_;
  size_t depth_ = 0;
  uint64_t input_bytes_ = 0;
};

void add_function_names(const Plan& plan, const Library& library, std::vector<std::string>& names) {
  const auto add = [&](const char* name) {
    if (std::find(names.begin(), names.end(), name) == names.end()) names.push_back(name);
  };
  if (plan.kind == Plan::Kind::call) {
    if (plan.call.store->is_blocked()) add("sqzb_decode_x86");
    add(library.name(plan.call.kind, plan.call.operation));
    if (plan.call.store->has_runs()) add(library.name(Callbacks::burst_kind, KDZK_OP_BURST_RLE));
  }
  for (const Plan& term : plan.terms) add_function_names(term, library, names);
}

}  // namespace

Engine::Engine(const Table& table, const Library& library, const std::map<std::string, std::string>& forms)
    : table_(table), library_(library) {
  for (const auto& [name, form] : forms) {
    if (table.find(name) == nullptr) throw Error("--store: there is no column '" + name + "' in " + table.file);
  }
  for (const Column& column : table.columns) {
    const auto form = forms.find(column.name());
    stores_[&column] = make_store(form == forms.end() ? "dict" : form->second, column, library);
  }
}

// Negations go down to the comparisons, where NULL fulfils neither a relation nor its opposite.
Plan Engine::plan(const Question& question, bool negated) const {
  if (question.kind == Question::Kind::negation) return plan(question.terms.front(), !negated);
  if (question.kind == Question::Kind::comparison) {
    Comparison comparison = question.comparison;
    if (negated) comparison.relation = opposite(comparison.relation);
    return store(*comparison.column).plan(comparison);
  }
  std::vector<Plan> terms;
  for (const Question& term : question.terms) terms.push_back(plan(term, negated));
  const bool all = (question.kind == Question::Kind::all_of) != negated;
  return all ? all_of(std::move(terms)) : any_of(std::move(terms));
}

Answer Engine::answer(const Plan& plan) const {
  const size_t rows = table_.rows();
  Answer answer{};
  answer.bits.resize(vectors_of(rows) * vector_words);
  if (plan.kind == Plan::Kind::no_row) return answer;
  if (plan.kind == Plan::Kind::every_row) {
    std::fill(answer.bits.begin(), answer.bits.end(), ~uint64_t{0});
    answer.hits = rows;
    return answer;
  }

  using Clock = std::chrono::steady_clock;
  constexpr std::chrono::microseconds shortest_lap(50);  // beside which reading the clock takes no time
  constexpr std::chrono::milliseconds enough(50);
  constexpr unsigned fewest_laps = 5;
  unsigned runs_a_lap = 1;
  std::chrono::duration<double> fastest(0);
  for (const auto start = Clock::now(); answer.laps < fewest_laps || Clock::now() - start < enough;) {
    Run run(library_);
    const auto lap_start = Clock::now();
    for (unsigned i = 0; i < runs_a_lap; i++) answer.hits = run.over_table(plan, rows, answer.bits);
    const std::chrono::duration<double> lap = Clock::now() - lap_start;
    answer.input_bytes = run.input_bytes() / runs_a_lap;
    if (lap < shortest_lap) {
      runs_a_lap *= 2;
      continue;
    }
    if (answer.laps == 0 || lap / runs_a_lap < fastest) fastest = lap / runs_a_lap;
    answer.laps++;
  }
  answer.seconds = fastest.count();
  return answer;
}

std::vector<std::string> function_names(const Plan& plan, const Library& library) {
  std::vector<std::string> names;
  add_function_names(plan, library, names);
  return names;
}

}  // namespace ask

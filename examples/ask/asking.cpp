// SPDX-License-Identifier: Apache-2.0
#include "asking.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <optional>
#include <utility>
#include <vector>

#include "csv_file.h"
#include "groups.h"
#include "join.h"
#include "numbers.h"
#include "report.h"
#include "scan.h"

namespace ask {
namespace {

template <class Has>
void print_rows(const Table& table, const Has& has, size_t count) {
  std::vector<std::string_view> names;
  for (const Column& column : table.columns) names.push_back(column.name());
  write_csv_line(stdout, names);
  for (size_t row = 0; row < table.rows() && count > 0; row++) {
    if (!has(row)) continue;
    write_csv_line(stdout, table.fields(row));
    count--;
  }
}

class Asker {
 public:
  Asker(const Engine& engine, const Engine* other, size_t show)
      : engine_(engine), other_(other), table_(engine.table()), rows_(table_.rows()), show_(show) {}

  bool ask(const std::string& text, const Request& request) const {
    std::printf("%s\n", text.c_str());
    const bool right = answer(text, request);
    std::puts("");
    std::fflush(stdout);
    return right;
  }

 private:
  bool answer(const std::string& text, const Request& request) const {
    switch (request.kind) {
      case Request::Kind::rows:
        return find_rows(text, *request.where);
      case Request::Kind::groups:
        return count_rows(text, request);
      case Request::Kind::sum:
        return sum(text, request);
      case Request::Kind::inside:
        return inside(text, request);
      default:
        return join(text, request);
    }
  }

  bool find_rows(const std::string& text, const Question& question) const {
    const Answer answer = engine_.answer(question);
    std::string speed = "known beforehand, no kernel called";
    if (answer.laps.laps > 0) {
      speed = rows_a_second(rows_, answer.laps) + "  " +
              right(scaled(static_cast<double>(answer.input_bytes) / answer.laps.seconds) + "B/s", 9) +
              best_of(answer.laps);
    }
    const auto has = [&](size_t row) { return answer.has(row); };
    const auto plain = [&](size_t row) { return std::optional<bool>(truth(question, row) == Truth::yes); };
    return check_rows(text, answer.hits, speed, has, plain, answer.functions);
  }

  bool inside(const std::string& text, const Request& request) const {
    const std::optional<Answer> rows = engine_.rows(request.where, request.columns);
    const Inside inside =
        rows_inside(engine_, *request.columns[0], *request.columns[1], request.polygon, pointer(rows));
    const auto has = [&](size_t row) { return inside.rows[row]; };
    const auto plain = [&](size_t row) { return inside_plainly(request, row); };
    return check_rows(text, inside.hits, rows_a_second(rows ? rows->hits : rows_, inside.laps) + best_of(inside.laps),
                      has, plain, functions(rows, "point_in_polygon"));
  }

  // Prints what was found, and holds each row against plain(row), which is nothing where either answer is right.
  template <class Has, class Plain>
  bool check_rows(const std::string& text, uint64_t hits, const std::string& speed, const Has& has, const Plain& plain,
                  const std::vector<std::string>& functions) const {
    std::optional<size_t> wrong_row;
    uint64_t found = 0;
    for (size_t row = 0; row < rows_; row++) {
      found += has(row);
      if (!wrong_row && has(row) != plain(row).value_or(has(row))) wrong_row = row;
    }
    const std::string total = grouped(rows_);
    std::printf("  %s of %s rows %s  %s  %s\n", right(grouped(hits), total.size()).c_str(), total.c_str(),
                right(percentage(hits, rows_), 8).c_str(), left(speed, 43).c_str(),
                verdict(!wrong_row && found == hits));
    print_functions(functions);
    if (show_ > 0) print_rows(table_, has, show_);
    if (wrong_row) {
      std::fprintf(stderr, "kdzk-ask: wrong answer to %s: the kernels %s row %zu, the plain scan doesn't agree:\n",
                   text.c_str(), has(*wrong_row) ? "find" : "leave out", *wrong_row + 1);
      write_csv_line(stderr, table_.fields(*wrong_row));
      return false;
    }
    return explained(found == hits, text, "the right rows, but another count of them");
  }

  bool count_rows(const std::string& text, const Request& request) const {
    const std::optional<Answer> rows = engine_.rows(request.where, {});
    const Groups groups = count_groups(engine_, request.columns, pointer(rows));
    const bool right = groups.counts == count_plainly(request);
    std::printf("  %s of %s possible groups  %s%s  %s\n", grouped(groups.counts.size()).c_str(),
                grouped(groups.keys).c_str(), rows_a_second(rows ? rows->hits : rows_, groups.laps).c_str(),
                best_of(groups.laps).c_str(), verdict(right));
    print_functions(functions(rows, "groupkey_dydi"));
    print_groups(groups.counts, request.columns);
    return explained(right, text, "the groups or their counts differ from the plain ones");
  }

  bool sum(const std::string& text, const Request& request) const {
    const std::optional<Answer> rows = engine_.rows(request.where, request.columns);
    const Sum sum = sum_products(engine_, *request.columns[0], *request.columns[1], pointer(rows));
    const double plain = sum_plainly(request);
    const bool right = sum.value == plain || (std::isnan(sum.value) && std::isnan(plain));
    std::printf("  %.15g over %s rows  %s%s  %s\n", sum.value, grouped(sum.rows).c_str(),
                rows_a_second(sum.rows, sum.laps).c_str(), best_of(sum.laps).c_str(), verdict(right));
    print_functions(functions(rows, sum.kernel));
    return explained(right, text, "the plain sum isn't the same");
  }

  bool join(const std::string& text, const Request& request) const {
    const std::optional<Answer> rows = engine_.rows(request.where, request.columns);
    const std::optional<Answer> other_rows = other_->rows(request.other_where, {request.other_key});
    const Joined plain = ask::join(request, engine_, *other_, pointer(rows), pointer(other_rows), false);
    const Joined bloom = ask::join(request, engine_, *other_, pointer(rows), pointer(other_rows), true);
    const Counts expected = join_plainly(request);
    const bool right = plain.counts == expected && bloom.counts == expected;
    std::printf("  %s pairs of rows, groups: %s  %s\n", grouped(plain.matches).c_str(),
                grouped(plain.counts.size()).c_str(), verdict(right));
    std::vector<std::string> names = functions(rows, "hash_rows");
    if (other_rows) names.insert(names.begin(), other_rows->functions.begin(), other_rows->functions.end());
    for (const char* name : {"partition_rows", "ht_build", "ht_probe", "bloom_test"}) names.emplace_back(name);
    print_functions(names);
    print_steps({rows ? rows->laps.seconds : 0, other_rows ? other_rows->laps.seconds : 0}, plain, bloom);
    print_groups(plain.counts, {request.other_group});
    return explained(right, text, "the pairs of the plain join are others");
  }

  void print_steps(std::pair<double, double> where, const Joined& plain, const Joined& bloom) const {
    const auto cell = [](double seconds) { return seconds == 0 ? "-" : scaled(seconds * 1e6) + " us"; };
    std::vector<std::vector<std::string>> lines{{"step", "no filter", "bloom filter"}};
    const double both = where.first + where.second;
    lines.push_back({"find the rows of both tables", cell(both), cell(both)});
    for (size_t step = 0; step < Joined::steps; step++) {
      lines.push_back({Joined::step_names[step], cell(plain.seconds[step]), cell(bloom.seconds[step])});
    }
    lines.push_back({"rows in the hash tables", grouped(plain.built), grouped(bloom.built)});
    lines.push_back({"rows looked up", grouped(plain.probed), grouped(bloom.probed)});
    lines.push_back({"pairs with the same tag", grouped(plain.candidates), grouped(bloom.candidates)});
    print_aligned(lines, 1);
  }

  // The groups with the most rows.
  void print_groups(const Counts& counts, const std::vector<const Column*>& columns) const {
    const size_t count = std::min(counts.size(), show_ > 0 ? show_ : 3);
    std::vector<std::pair<std::vector<uint32_t>, uint64_t>> largest(count);
    std::partial_sort_copy(
        counts.begin(), counts.end(), largest.begin(), largest.end(),
        [](const auto& a, const auto& b) { return a.second != b.second ? a.second > b.second : a.first < b.first; });
    std::vector<std::vector<std::string>> lines;
    for (const auto& [group, rows] : largest) {
      std::vector<std::string>& line = lines.emplace_back();
      for (size_t i = 0; i < columns.size(); i++) {
        line.emplace_back(group[i] == 0 ? "NULL" : columns[i]->text_of_entry(columns[i]->entry_of_rank(group[i] - 1)));
      }
      line.push_back(grouped(rows));
    }
    print_aligned(lines, columns.size());
  }

  static void print_functions(const std::vector<std::string>& names) {
    std::string line;
    for (const std::string& name : names) line += "  " + name;
    if (!line.empty()) std::printf("%s\n", line.c_str());
  }

  static std::vector<std::string> functions(const std::optional<Answer>& rows, const std::string& last) {
    std::vector<std::string> names = rows ? rows->functions : std::vector<std::string>();
    names.push_back(last);
    return names;
  }

  static bool explained(bool right, const std::string& text, const char* reason) {
    if (!right) std::fprintf(stderr, "kdzk-ask: wrong answer to %s: %s\n", text.c_str(), reason);
    return right;
  }

  static std::string rows_a_second(uint64_t rows, const Laps& laps) {
    return right(scaled(static_cast<double>(rows) / laps.seconds) + " rows/s", 13);
  }
  static std::string best_of(const Laps& laps) { return "  best of " + std::to_string(laps.laps); }
  static const char* verdict(bool right) { return right ? "checked" : "WRONG"; }
  static const Answer* pointer(const std::optional<Answer>& rows) { return rows ? &*rows : nullptr; }

  const Engine& engine_;
  const Engine* other_;
  const Table& table_;
  const size_t rows_;
  const size_t show_;
};

}  // namespace

bool ask(const std::string& text, const Request& request, const Engine& engine, const Engine* other, size_t show) {
  return Asker(engine, other, show).ask(text, request);
}

}  // namespace ask

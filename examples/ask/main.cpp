// SPDX-License-Identifier: Apache-2.0
//
// kdzk-ask: reads a CSV file into packed columns, answers questions about its rows with the kernels, and checks every
// row of every answer against a plain scan.
#include <getopt.h>

#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "asking.h"
#include "csv_file.h"
#include "engine.h"
#include "error.h"
#include "library.h"
#include "progress.h"
#include "question.h"
#include "report.h"
#include "table.h"

namespace ask {
namespace {

constexpr int status_good = 0, status_wrong_answer = 1, status_refused = 2;

constexpr const char* help = R"help(Answers questions about the rows of a CSV file with the kdzk kernels.

  kdzk-ask [OPTIONS] FILE.csv [QUESTION...]
  kdzk-ask [OPTIONS] --demo DIRECTORY

FILE is a CSV file whose first line names the columns, or - for standard input. Fields may be "quoted", with quotes
within doubled. Blanks around an unquoted field don't count, nor do blank lines. An empty field is NULL. A column is
stored as whole numbers if all its fields are that, otherwise as decimal numbers, otherwise as text.

Options:
  --show N              print the first N rows of each answer, as CSV, and the N largest groups
  --library FILE        use this build of the kernel library
  --store COLUMN=FORM   store a column in this form; may be given for several columns. The forms:
                          dict     any column, as codes of as few bits as its distinct values need; the default
                          blocked  the same, compressed block by block, and decompressed for each question
                          runs     the same, but one code for rows on end that have the same value
                          fixed    numbers or short text, each in the 1 to 8 bytes that the column's range needs
                          dynp     the same, each in as many bytes as it has, and its length beside it
  --join FILE           another CSV file, for questions that join
  --progress            tell how far the file is read, even if standard error is no terminal
  --demo DIRECTORY      ask some questions about flights.csv and airports.csv in that directory
  --help                print this

Questions are made of comparisons, `and`, `or`, `not` and parentheses; `and` binds closer than `or`:
  delay >= 60                        = != <> < <= > >=; numbers compare by value, text byte by byte
  delay between 60 and 120           both ends belong to it; also `not between`
  origin is SFO, origin is not SFO   the same as = and !=
  state is null, state is not null   is the field empty?
  origin in (SFO, OAK, SJC)          one of these; also `not in`
  city like 'San %'                  text with any bytes for % and any one character for _; also `not like`
  name = 'O''Hare'                   a value with blanks, quotes or symbols in it is put in quotes
  "arrival time" < 06:00             so is a column, in double quotes

NULL fulfils no comparison, nor a negated one: rows without a state are not found by `state = CA`, nor by
`state != CA`, nor by `not (state = CA)`.

Other questions count, add up or join; each may end with `where` and a question as above:
  count by origin, destination       the rows of each combination of values, the most frequent ones first
  sum delay * distance               the sum of a product of two columns, in double precision; NULLs don't count
  inside longitude, latitude of -125 42, -114 42, -114 32
                                     the rows whose point lies in the polygon with these vertices
  join on origin = iata count by state
                                     pairs of a row and one of the --join file where origin = iata, by its state;
                                     `join where latitude > 40 on ...` takes only such rows of that file. Answered
                                     twice, with a bloom filter and without

For each question: how many rows it finds, how many rows and bytes of packed columns per second the kernels went
through (the best of several laps over all rows, on one thread, so that a small table is in the cache; decompression is
part of a lap, but finding the rows that are counted or added up is not), which kernels and services those were, what
they needed done to the columns, and "checked" if a plain scan over the values as they were read gives the same answer
for every row, for every group, or to the last bit of a sum. For a join, how long each step takes.

Exit status: 0 all answers checked, 1 an answer was wrong, 2 the file, a question or the library was refused.

Examples:
  kdzk-ask flights.csv
  kdzk-ask flights.csv "delay between 60 and 120" "origin = SFO and not (delay > 0)"
  kdzk-ask flights.csv "count by origin where delay > 60 and destination in (SFO, OAK)"
  kdzk-ask --join airports.csv flights.csv "join on origin = iata count by state where time < 06:00"
  kdzk-ask --show 5 airports.csv "city = 'San Francisco' or latitude > 70"
  kdzk-ask --store distance=fixed --store origin=dynp flights.csv "origin = SFO and distance > 1000"
  kdzk-ask --store date=runs --store destination=blocked flights.csv "date > 2001-06-01 and destination = SFO"
  xz -dc flights-3m.csv.xz | kdzk-ask - "date = 2001-02-14 and destination is SFO"
)help";

using Forms = std::map<std::string, std::string>;  // by column name
using Questions = std::vector<std::string>;

struct Options {
  std::string library = KDZK_LIBRARY;
  Forms forms;
  Progress::When progress = Progress::When::on_terminal;
  size_t show = 0;
  std::string demo;
  std::string file;
  std::string join;
  Questions questions;
};

const Questions flight_questions = {
    "delay between 60 and 120",
    "origin = SFO and distance > 1000",
    "origin is not ORD",
    "not (delay > 0) and date between 2001-03-01 and 2001-03-31",
    "(origin = JFK or origin = LGA or origin = EWR) and time < 06:00",
    "delay > 0 and delay < 15",
    "distance not between 200 and 2000",
    "date = 2001-02-14 and destination is BOS and delay >= 30",
    "delay > 100000",
    "origin in (JFK, LGA, EWR) and time < 06:00",
    "destination like 'S_N' and origin not in (SFO, OAK) and delay > 60",
    "count by origin",
    "count by origin, destination where delay > 60",
    "sum delay * distance",
    "sum delay * distance where origin = SFO",
    "join on origin = iata count by state",
    "join where latitude > 60 on origin = iata count by state",
    "join where state in (CA, OR, WA) on origin = iata count by city where delay > 120",
};

const Forms other_flight_forms = {{"date", "runs"},      {"time", "dynp"},   {"delay", "fixed"},
                                  {"distance", "fixed"}, {"origin", "dynp"}, {"destination", "blocked"}};

const Questions flight_questions_again = {
    "delay between 60 and 120",
    "origin = SFO and distance > 1000",
    "(origin = JFK or origin = LGA or origin = EWR) and time < 06:00",
    "distance not between 200 and 2000",
    "not (delay > 0) and date between 2001-03-01 and 2001-03-31",
    "destination is BOS",
    "date = 2001-02-14 and destination is BOS and delay >= 30",
};

const Questions airport_questions = {
    "state = CA",
    "city = 'San Francisco'",
    "latitude < 20 and not state = HI",
    "longitude between -90 and -85 and (state = IL or state = WI)",
    "name >= 'Z' or iata < '00S'",
    "name like '%International%' and state not in (CA, TX, FL)",
    "inside longitude, latitude of -109.05 41, -102.05 41, -102.05 37, -109.05 37",
    "inside longitude, latitude of -125 49, -114 42, -120 39, -114.6 35, -117 32, -125 40 where name like '%Muni%'",
};

Options parse_options(int count, char** words) {
  enum : int { show = 1, library, store, join, progress, demo, help_wanted };
  static constexpr option known[] = {
      {"show", required_argument, nullptr, show},   {"library", required_argument, nullptr, library},
      {"store", required_argument, nullptr, store}, {"join", required_argument, nullptr, join},
      {"progress", no_argument, nullptr, progress}, {"demo", required_argument, nullptr, demo},
      {"help", no_argument, nullptr, help_wanted},  {nullptr, 0, nullptr, 0}};
  Options options;
  for (int found; (found = getopt_long(count, words, "h", known, nullptr)) != -1;) {
    switch (found) {
      case show: {
        const char* end = optarg + std::strlen(optarg);
        const auto [stop, error] = std::from_chars(optarg, end, options.show);
        if (stop != end || error != std::errc())
          throw Error("--show takes a number of rows, not '" + std::string(optarg) + "'");
        break;
      }
      case library:
        options.library = optarg;
        break;
      case store: {
        const std::string choice = optarg;
        const size_t equals = choice.rfind('=');
        if (equals == choice.npos) throw Error("--store takes COLUMN=FORM, not '" + choice + "'");
        options.forms[choice.substr(0, equals)] = choice.substr(equals + 1);
        break;
      }
      case join:
        options.join = optarg;
        break;
      case progress:
        options.progress = Progress::When::always;
        break;
      case demo:
        options.demo = optarg;
        break;
      case 'h':
      case help_wanted:
        std::fputs(help, stdout);
        std::exit(status_good);
      default:  // getopt_long has said what is wrong
        throw Error("see kdzk-ask --help");
    }
  }
  if (optind < count) options.file = words[optind++];
  options.questions.assign(words + optind, words + count);
  if (options.file.empty() == options.demo.empty()) {
    throw Error(options.demo.empty() ? "no file to ask about; see kdzk-ask --help" : "--demo takes no file of yours");
  }
  if (!options.demo.empty() && (!options.forms.empty() || !options.join.empty())) {
    throw Error("--demo chooses storage forms and files itself");
  }
  return options;
}

void print_columns(const Table& table, const Engine& engine, double load_seconds) {
  size_t csv_bytes = 0;
  std::vector<std::vector<std::string>> lines{
      {"column", "type", "distinct", "nulls", "stored as", "in CSV", "packed", "compressed"}};
  for (const Column& column : table.columns) {
    const Store& store = engine.store(column);
    csv_bytes += column.csv_bytes();
    lines.push_back({column.name(), name_of(column.type()), grouped(column.ranks()), grouped(column.nulls()),
                     std::to_string(store.width()) + "-bit " + store.form(), byte_size(column.csv_bytes()),
                     byte_size(store.packed_bytes()),
                     store.compressed_bytes() > 0 ? byte_size(store.compressed_bytes()) : "-"});
  }
  std::printf("%s: %s %s, %s of CSV, loaded in %.2f s\n\n", table.file.c_str(), grouped(table.rows()).c_str(),
              table.rows() == 1 ? "row" : "rows", byte_size(csv_bytes).c_str(), load_seconds);
  print_aligned(lines, 2);
  std::puts("");
}

// A table with its columns as the kernels take them.
struct Loaded {
  Table table;
  Engine engine;
  double seconds;

  Loaded(const std::string& path, const Forms& forms, const Options& options, const Library& library,
         std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now())
      : table(load_table(path, options.progress)), engine(table, library, forms), seconds(seconds_since(start)) {}
};

// Whether all answers are right.
bool ask_file(const std::string& path, const std::string& join, const Questions& questions, const Forms& forms,
              const Options& options, const Library& library) {
  const Loaded file(path, forms, options, library);
  std::unique_ptr<Loaded> other;
  if (!join.empty()) other = std::make_unique<Loaded>(join, Forms(), options, library);

  std::vector<Request> requests;
  for (const std::string& text : questions) {
    requests.push_back(parse_request(text, file.table, other ? &other->table : nullptr));
  }
  print_columns(file.table, file.engine, file.seconds);
  bool all_right = true;
  for (size_t i = 0; i < questions.size(); i++) {
    all_right &= ask(questions[i], requests[i], file.engine, other ? &other->engine : nullptr, options.show);
  }
  return all_right;
}

int run(int count, char** words) {
  const Options options = parse_options(count, words);
  const Library library(options.library);
  if (options.demo.empty()) {
    const bool right = ask_file(options.file, options.join, options.questions, options.forms, options, library);
    return right ? status_good : status_wrong_answer;
  }
  const std::string flights = options.demo + "/flights.csv", airports = options.demo + "/airports.csv";
  bool right = ask_file(flights, airports, flight_questions, {}, options, library);
  std::puts("The same flights, stored otherwise\n");
  right &= ask_file(flights, "", flight_questions_again, other_flight_forms, options, library);
  right &= ask_file(airports, "", airport_questions, {}, options, library);
  return right ? status_good : status_wrong_answer;
}

}  // namespace
}  // namespace ask

int main(int count, char** words) {
  try {
    const int status = ask::run(count, words);
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) throw ask::Error("can't write the answers");
    return status;
  } catch (const ask::CsvError& error) {  // begins with file and line, as compilers' messages do
    std::fprintf(stderr, "%s\n", error.what());
  } catch (const std::exception& error) {
    std::fprintf(stderr, "kdzk-ask: %s\n", error.what());
  }
  return ask::status_refused;
}

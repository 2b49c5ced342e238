// SPDX-License-Identifier: Apache-2.0
//
// The table-valued functions of the SQLite extension against plain SQL on an ordinary table with the same rows.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

using Rows = std::vector<std::string>;

struct Answer {
  Rows rows;          // sorted; the values of a row behind one another
  std::string error;  // empty: none
};

class Database {
 public:
  explicit Database(const std::string& path = ":memory:") {
    sqlite3_open(path.c_str(), &db_);
    sqlite3_create_function(
        db_, "rnd", 0, SQLITE_UTF8, &numbers_,
        [](sqlite3_context* out, int, sqlite3_value**) {
          sqlite3_result_int64(out, static_cast<int64_t>((*static_cast<std::mt19937_64*>(sqlite3_user_data(out)))()));
        },
        nullptr, nullptr);
    sqlite3_enable_load_extension(db_, 1);
    char* message = nullptr;
    if (sqlite3_load_extension(db_, KDZK_EXTENSION, nullptr, &message) != SQLITE_OK) {
      ADD_FAILURE() << message;
      sqlite3_free(message);
    }
  }
  ~Database() { sqlite3_close(db_); }

  // A whole number and the same as a real are told apart only if `types` says so.
  Answer ask(const std::string& sql, bool types = true) {
    Answer answer;
    sqlite3_stmt* statement = nullptr;
    int code = sqlite3_prepare_v2(db_, sql.c_str(), -1, &statement, nullptr);
    while (code == SQLITE_OK || code == SQLITE_ROW) {
      code = sqlite3_step(statement);
      if (code != SQLITE_ROW) break;
      std::string row;
      for (int i = 0; i < sqlite3_column_count(statement); i++) {
        const int type = sqlite3_column_type(statement, i);
        char number[64];
        if (type == SQLITE_INTEGER && types) {
          row += "int " + std::string(reinterpret_cast<const char*>(sqlite3_column_text(statement, i)));
        } else if (type == SQLITE_INTEGER || type == SQLITE_FLOAT) {
          std::snprintf(number, sizeof number, "%.10g", sqlite3_column_double(statement, i));
          row += number;
        } else if (type != SQLITE_NULL) {
          row += type == SQLITE_TEXT ? "text " : "blob ";
          row.append(static_cast<const char*>(sqlite3_column_blob(statement, i)),
                     static_cast<size_t>(sqlite3_column_bytes(statement, i)));
        }
        row += " | ";
      }
      answer.rows.push_back(row);
    }
    if (code != SQLITE_DONE) answer.error = sqlite3_errmsg(db_);
    sqlite3_finalize(statement);
    std::sort(answer.rows.begin(), answer.rows.end());
    return answer;
  }

  void run(const std::string& sql) {
    const Answer answer = ask(sql);
    EXPECT_EQ(answer.error, "") << sql;
  }

 private:
  sqlite3* db_ = nullptr;
  std::mt19937_64 numbers_;  // rnd(), the same in every run
};

std::string in_quotes(const std::string& text) {
  std::string quoted = "'";
  for (const char c : text) {
    quoted += c;
    if (c == '\'') quoted += c;
  }
  return quoted + "'";
}

// Columns of table t: small and large integers, reals, few and many texts, numbers of both types, values of all types.
constexpr const char* columns[] = {"n", "large", "r", "s", "u", "numbers", "anything"};
constexpr const char* declarations = "n INTEGER, large INTEGER, r REAL, s TEXT, u TEXT, numbers NUMERIC, anything";

class SqliteFunctions : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    database_ = std::make_unique<Database>();
    // 66,000 rows loaded at once, behind them a tail, and every 97th deleted. Rows have the same rowids in both.
    database_->run(std::string("CREATE TABLE t(") + declarations + ")");
    database_->run(
        "WITH RECURSIVE i(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM i WHERE i < 65999) INSERT INTO t SELECT "
        "nullif(abs(rnd() % 40), 7) - 20, rnd() % (1 << 50), nullif(rnd() % 1000, 3) / 8.0, "
        "nullif(substr('ASKSTRONG', 1 + abs(rnd() % 9), 1 + abs(rnd() % 2)), 'K'), "
        "'u' || abs(rnd() % 30000), iif(rnd() % 2, rnd() % 10, rnd() % 10 / 2.0), "
        "CASE abs(rnd() % 5) WHEN 0 THEN NULL WHEN 1 THEN rnd() % 5 WHEN 2 THEN rnd() % 5 / 2.0 "
        "WHEN 3 THEN char(65 + abs(rnd() % 4)) ELSE x'4142' END FROM i");
    database_->run("CREATE VIRTUAL TABLE p USING kdzk(select='SELECT * FROM t')");
    database_->run(
        "INSERT INTO p SELECT n + 100, large, r + 0.25, s || 'x', 'v' || u, numbers + 100, n FROM t LIMIT 900");
    database_->run(
        "INSERT INTO t(rowid, n, large, r, s, u, numbers, anything) SELECT rowid, * FROM p WHERE rowid > 66000");
    database_->run("DELETE FROM p WHERE rowid % 97 = 5");
    database_->run("DELETE FROM t WHERE rowid % 97 = 5");
    ASSERT_EQ(database_->ask("SELECT sum(rowid), count(*) FROM p").rows,
              database_->ask("SELECT sum(rowid), count(*) FROM t").rows);
    database_->run("CREATE TABLE d(s TEXT, n INTEGER, r REAL, w)");
    database_->run(
        "WITH RECURSIVE i(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM i WHERE i < 299) INSERT INTO d SELECT "
        "nullif(char(65 + i % 26), 'T'), nullif(i % 60, 9) - 20, i % 50 / 4.0, iif(i % 3, i, NULL) FROM i");
    database_->run("CREATE VIRTUAL TABLE pd USING kdzk(select='SELECT * FROM d')");
  }
  static void TearDownTestSuite() { database_.reset(); }

  size_t below(size_t limit) { return random_() % limit; }
  template <size_t n>
  const char* one_of(const char* const (&texts)[n]) {
    return texts[below(n)];
  }

  std::string literal(const std::string& column) {
    const auto number = [this](int range) { return std::to_string(static_cast<int>(below(2 * range)) - range); };
    switch (below(12)) {
      case 0:
        return "NULL";
      case 1:
        return in_quotes(number(20));
      case 2:
        return number(20) + ".5";
    }
    if (column == "n" || column == "numbers") return number(25);
    if (column == "large") return std::to_string(static_cast<int64_t>(random_()) >> 13);
    if (column == "r") return number(125) + (below(2) ? ".125" : "");
    if (column == "u") return in_quotes("u" + std::to_string(below(30000)));
    return in_quotes(std::string(1, static_cast<char>('A' + below(20))));
  }

  std::string condition() {
    const std::string column = one_of(columns);
    switch (below(8)) {
      case 0:
        return column + (below(2) ? " BETWEEN " : " NOT BETWEEN ") + literal(column) + " AND " + literal(column);
      case 1: {
        std::string list = literal(column);
        for (size_t i = below(4); i > 0; i--) list += ", " + literal(column);
        return column + (below(2) ? " IN (" : " not in (") + list + ")";
      }
      case 2:
        return column + one_of({" LIKE ", " NOT LIKE "}) + one_of({"'s%'", "'%O%'", "'u1_'", "'-1%'", "'%.5'"});
      case 3:
        return column + " GLOB " + one_of({"'S*'", "'u1?'", "'[A-M]*'"});
      case 4:
        return column + one_of({" IS NULL", " is not null"});
      default:
        return column + " " + one_of({"=", "<>", "<", "<=", ">", ">=", "==", "!="}) + " " + literal(column);
    }
  }

  std::string conditions() {
    std::string list;
    for (size_t i = below(4); i > 0; i--) list += (list.empty() ? "" : " AND ") + condition();
    return list;
  }

  static std::string where(const std::string& conditions) { return conditions.empty() ? "" : " WHERE " + conditions; }

  void expect_same(const std::string& function, const std::string& plain, bool types) {
    const Answer got = database_->ask(function, types);
    const Answer want = database_->ask(plain, types);
    EXPECT_EQ(got.error, want.error) << function;
    EXPECT_EQ(got.rows == want.rows, true)
        << function << "\n  " << plain << "\n  " << got.rows.size() << " rows, not " << want.rows.size()
        << ", first: " << (got.rows.empty() ? "-" : got.rows[0]) << " not " << (want.rows.empty() ? "-" : want.rows[0]);
  }

  static std::unique_ptr<Database> database_;
  std::mt19937_64 random_{std::getenv("KDZK_TEST_SEED") ? std::strtoull(std::getenv("KDZK_TEST_SEED"), nullptr, 10)
                                                        : 1};
};
std::unique_ptr<Database> SqliteFunctions::database_;

TEST_F(SqliteFunctions, AggregateLikeSql) {
  for (int round = 0; round < 150 && !HasFailure(); round++) {
    std::string groups, aggregates, group_outputs, value_outputs;
    bool types = true;
    const size_t ngroups = below(5) == 0 ? 3 + below(2) : below(3);
    for (size_t i = 0; i < ngroups; i++) {
      const std::string column = one_of(columns);
      types &= column != "numbers" && column != "anything";
      groups += (i == 0 ? "" : ", ") + column;
      group_outputs += "group" + std::to_string(i + 1) + ", ";
    }
    const size_t naggregates = 1 + below(4);
    for (size_t i = 0; i < naggregates; i++) {
      std::string aggregate = one_of({"count(*)", "count(", "sum(", "min(", "max(", "avg("});
      if (aggregate.back() == '(') {
        const bool adds = aggregate == "sum(" || aggregate == "avg(";
        const std::string column = adds ? one_of({"n", "large", "r", "numbers"}) : one_of(columns);
        types &= column != "numbers" && column != "anything";
        aggregate += column + ")";
      }
      aggregates += (i == 0 ? "" : ", ") + aggregate;
      value_outputs += (i == 0 ? "value" : ", value") + std::to_string(i + 1);
    }
    const std::string list = conditions();
    expect_same("SELECT " + group_outputs + value_outputs + " FROM kdzk_aggregate('p', " + in_quotes(aggregates) +
                    ", " + (groups.empty() ? "NULL" : in_quotes(groups)) + ", " + in_quotes(list) + ")",
                "SELECT " + (groups.empty() ? "" : groups + ", ") + aggregates + " FROM t" + where(list) +
                    (groups.empty() ? "" : " GROUP BY " + groups),
                types);
  }
}

TEST_F(SqliteFunctions, JoinLikeSql) {
  for (int round = 0; round < 40 && !HasFailure(); round++) {
    const std::string left = one_of({"s", "n", "numbers", "r", "anything"}), right = one_of({"s", "n", "r"});
    if ((left == "s") != (right == "s") && left != "anything") continue;  // SQL would make numbers of texts
    if (left == "anything" && right != "n") continue;
    const std::string on_left = conditions();
    const std::string narrow =
        (on_left.empty() ? "" : on_left + " AND ") + "large BETWEEN -99999999999999 AND 9999999999999";
    const std::string on_right = below(2) ? "" : one_of({"n > 30", "w IS NULL", "s IN ('A', 'S')", "n = 1000"});
    std::string right_sql = on_right.empty() ? "" : " WHERE " + on_right;
    const std::string arguments = "'p', '" + left + "', 'pd', '" + right + "', ";
    const std::string from = " FROM (SELECT rowid AS a, * FROM t" + where(narrow) +
                             ") AS x JOIN (SELECT rowid AS b, * FROM d" + right_sql + ") AS y ON +x." + left +
                             " = +y." + right;
    expect_same("SELECT left_rowid, right_rowid FROM kdzk_join(" + arguments + in_quotes(narrow) + ", " +
                    in_quotes(on_right) + ")",
                "SELECT a, b" + from, true);
    const std::string group = one_of({"right.w", "left.s", "w", "left.n", "right.n"});
    const std::string column =
        group == "w" ? "y.w" : (group[0] == 'l' ? "x." : "y.") + group.substr(group.find('.') + 1);
    expect_same("SELECT group1, matches FROM kdzk_join_count(" + arguments + in_quotes(group) + ", " +
                    in_quotes(narrow) + ", " + in_quotes(on_right) + ")",
                "SELECT " + column + ", count(*)" + from + " GROUP BY 1", true);
    expect_same("SELECT matches FROM kdzk_join_count(" + arguments + "NULL, " + in_quotes(narrow) + ", " +
                    in_quotes(on_right) + ")",
                "SELECT count(*)" + from, true);
  }
}

// Even-odd rule, edge by edge.
TEST_F(SqliteFunctions, FindsPointsInPolygons) {
  database_->run("CREATE TABLE points(x REAL, y REAL)");
  database_->run(
      "WITH RECURSIVE i(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM i WHERE i < 1999) INSERT INTO points SELECT "
      "rnd() % 1000000 / 10007.0, nullif(rnd() % 1000000, 5) / 10007.0 FROM i");
  database_->run("CREATE VIRTUAL TABLE pp USING kdzk(select='SELECT * FROM points')");
  for (int round = 0; round < 40; round++) {
    std::string vertices, edges;
    const size_t count = 3 + below(7);
    std::vector<std::pair<double, double>> polygon(count);
    for (auto& [x, y] : polygon) x = static_cast<double>(below(200)) - 100, y = static_cast<double>(below(200)) - 100;
    if (round % 3 == 0) polygon.push_back(polygon[0]);  // closed already
    for (size_t i = 0; i < polygon.size(); i++) {
      const auto [x1, y1] = polygon[i];
      const auto [x2, y2] = polygon[(i + 1) % polygon.size()];
      vertices += (i == 0 ? "" : "; ") + std::to_string(x1) + ", " + std::to_string(y1);
      edges += (i == 0 ? "(" : ", (") + std::to_string(x1) + ", " + std::to_string(y1) + ", " + std::to_string(x2) +
               ", " + std::to_string(y2) + ")";
    }
    expect_same(
        "SELECT id FROM kdzk_in_polygon('pp', 'x', 'y', " + in_quotes(vertices) + ")",
        "SELECT rowid FROM points WHERE (SELECT count(*) FROM (SELECT column1 AS x1, column2 AS y1, column3 AS x2, "
        "column4 AS y2 FROM (VALUES " +
            edges +
            ")) WHERE (y1 > y) <> (y2 > y) AND "
            "x < (x2 - x1) * (y - y1) / (y2 - y1) + x1) % 2 = 1",
        true);
  }
}

TEST_F(SqliteFunctions, SayWhatIsWrongAndWhere) {
  const std::pair<const char*, const char*> cases[] = {
      {"kdzk_aggregate('p', 'count(*)', NULL, 'n > ')",
       "condition list, byte 5: expected a number, 'text' or null, not the end"},
      {"kdzk_aggregate('p', 'count(*)', NULL, 'n > 3 OR n < 2')",
       "condition list, byte 7: expected and, not OR: n > 3  >>> OR n < 2"},
      {"kdzk_aggregate('p', 'count(*)', NULL, 'n > 3 AND nn < 2')", "condition list, byte 11: there is no column 'nn'"},
      {"kdzk_aggregate('p', 'count(*)', NULL, 's = ''abc')", "byte 5: the quote opened here is never closed"},
      {"kdzk_aggregate('p', 'count(*)', NULL, 'n in (1, 2')", "expected ), not the end"},
      {"kdzk_aggregate('p', 'count(*)', NULL, 'n = 12abc')", "byte 5: this is no number"},
      {"kdzk_aggregate('p', 'median(n)')", "list of aggregates, byte 1: expected count, sum, min, max or avg"},
      {"kdzk_aggregate('p', 'sum(*)')", "byte 5: expected a column"},
      {"kdzk_aggregate('p', 'count(*) n')", "byte 10: expected a comma"},
      {"kdzk_aggregate('p', 'count(*)', 'n, q')", "list of columns, byte 4: there is no column 'q'"},
      {"kdzk_aggregate('p', 'count(*)', 'n, n, n, n, n')", "more than 4 group columns"},
      {"kdzk_aggregate('p', 'sum(s)')", "sum and avg are for numbers"},
      {"kdzk_aggregate('p')", "of which the first 2 can't be left out"},
      {"kdzk_aggregate('nothing', 'count(*)')", "nothing"},
      {"kdzk_join_count('p', 's', 'pd', 's', 's')", "both tables have a column 's'"},
      {"kdzk_in_polygon('p', 'n', 'r', '1,2;3')", "byte 6: expected a comma between x and y"},
      {"kdzk_in_polygon('p', 'n', 'r', '1,2;3,4')", "at least 3 vertices"},
      {"kdzk_timed('DELETE FROM t')", "only queries that read"}};
  for (const auto& [call, message] : cases) {
    const Answer answer = database_->ask(std::string("SELECT * FROM ") + call);
    EXPECT_NE(answer.error.find(message), std::string::npos) << call << "\n  " << answer.error;
  }
  database_->run("CREATE VIRTUAL TABLE o USING kdzk(select='SELECT 9223372036854775807 AS i UNION ALL SELECT 1')");
  EXPECT_EQ(database_->ask("SELECT value1 FROM kdzk_aggregate('o', 'sum(i)')").error, "integer overflow");
}

// A byte of a shadow table's blob is changed: the right answer, or an error that says so.
TEST_F(SqliteFunctions, RefuseBrokenColumns) {
  const std::string path = testing::TempDir() + "kdzk_functions_test.db";
  const std::string questions[] = {"SELECT * FROM kdzk_aggregate('b', 'count(*), sum(n), min(r)', 's, n', 'r > 3')",
                                   "SELECT * FROM kdzk_join('b', 's', 'b', 's', 'n = 3', 'n = 4')",
                                   "SELECT * FROM kdzk_join_count('b', 'n', 'b', 'r', 'left.s')",
                                   "SELECT * FROM kdzk_in_polygon('b', 'n', 'r', '0,0;9,0;9,9')"};
  std::remove(path.c_str());
  Rows want[std::size(questions)];
  {
    Database database(path);
    database.run(
        "CREATE VIRTUAL TABLE b USING kdzk(select='WITH RECURSIVE i(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM i "
        "WHERE "
        "i < 3000) SELECT nullif(i * 7 % 13, 5) AS n, i * i % 97 / 4.0 AS r, char(65 + i * i % 26) AS s FROM i')");
    for (size_t i = 0; i < std::size(questions); i++) want[i] = database.ask(questions[i]).rows;
  }
  size_t errors = 0;
  for (int round = 0; round < 60; round++) {
    const std::string table = round % 3 == 0 ? "b_dictionaries" : "b_data";
    const std::string blob = round % 6 == 1 ? "record" : "bytes";
    std::string row, before;
    {
      Database database(path);
      row = " WHERE id = (SELECT id FROM " + table + " ORDER BY id LIMIT 1 OFFSET " + std::to_string(below(3)) + ")";
      before = database.ask("SELECT hex(" + blob + ") FROM " + table + row).rows.at(0).substr(5);
      before.resize(before.find(' '));
      std::string after = before;
      char& digit = after[below(after.size())];
      digit = digit == '0' ? '9' : '0';
      database.run("UPDATE " + table + " SET " + blob + " = x'" + after + "'" + row);
    }
    {
      Database database(path);
      for (size_t i = 0; i < std::size(questions); i++) {
        const Answer got = database.ask(questions[i]);
        errors += !got.error.empty();
        if (got.error.empty()) {
          EXPECT_EQ(got.rows == want[i], true) << questions[i];
        } else {
          EXPECT_NE(got.error.find("malformed"), std::string::npos) << got.error;
        }
      }
      database.run("UPDATE " + table + " SET " + blob + " = x'" + before + "'" + row);
    }
  }
  EXPECT_GT(errors, 60u);
  std::remove(path.c_str());
}

TEST_F(SqliteFunctions, TellAboutColumnsAndKernels) {
  EXPECT_EQ(database_->ask("SELECT name, distinct_values, nulls FROM kdzk_columns('pd')").rows,
            database_
                ->ask("SELECT 's', count(DISTINCT s), sum(s IS NULL) FROM d UNION ALL "
                      "SELECT 'n', count(DISTINCT n), sum(n IS NULL) FROM d UNION ALL "
                      "SELECT 'r', count(DISTINCT r), sum(r IS NULL) FROM d UNION ALL "
                      "SELECT 'w', count(DISTINCT w), sum(w IS NULL) FROM d")
                .rows);
  database_->run("SELECT * FROM kdzk_aggregate('p', 'count(*)', 's', 'n > 3')");
  EXPECT_EQ(
      database_->ask("SELECT count(*) > 0, min(calls > 0) FROM kdzk_stats WHERE kernel = 'kdzk_groupkey_dydi'").rows,
      Rows{"int 1 | int 1 | "});
  EXPECT_EQ(database_
                ->ask("SELECT a.\"rows\", a.digest = b.digest FROM kdzk_timed('SELECT s, r FROM pd', 2) a, "
                      "kdzk_timed('SELECT s, r FROM d ORDER BY r') b")
                .rows,
            Rows{"int 300 | int 1 | "});
}

}  // namespace

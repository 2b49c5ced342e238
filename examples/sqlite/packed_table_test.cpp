// SPDX-License-Identifier: Apache-2.0
// Packed tables against ordinary ones: generated queries on both, which must give the same rows, also after changes,
// rollbacks and in other connections, and after a byte of any blob was changed: then the same rows or an error.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdio>
#include <random>
#include <string>
#include <vector>

namespace {

struct Answer {
  int code = SQLITE_OK;
  std::string rows;  // or the error's text
};

class Database {
 public:
  explicit Database(const std::string& path) {
    char* message = nullptr;
    EXPECT_EQ(sqlite3_open(path.c_str(), &db_), SQLITE_OK);
    sqlite3_enable_load_extension(db_, 1);
    EXPECT_EQ(sqlite3_load_extension(db_, KDZK_EXTENSION, nullptr, &message), SQLITE_OK) << message;
    sqlite3_free(message);
    run("PRAGMA synchronous = OFF");
  }
  ~Database() { EXPECT_EQ(sqlite3_close(db_), SQLITE_OK); }
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;
  sqlite3* get() const { return db_; }

  Answer ask(const std::string& sql, const std::string& parameter = {}) {
    Answer answer;
    sqlite3_stmt* statement = nullptr;
    answer.code = sqlite3_prepare_v2(db_, sql.c_str(), -1, &statement, nullptr);
    if (answer.code == SQLITE_OK) {
      if (sqlite3_bind_parameter_count(statement) > 0)
        sqlite3_bind_text(statement, 1, parameter.c_str(), -1, SQLITE_TRANSIENT);
      while ((answer.code = sqlite3_step(statement)) == SQLITE_ROW) {
        for (int column = 0; column < sqlite3_column_count(statement); column++) {
          const auto* const text = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
          answer.rows += text == nullptr ? "NULL" : text;
          answer.rows += column + 1 < sqlite3_column_count(statement) ? '|' : '\n';
        }
      }
    }
    if (answer.code == SQLITE_DONE) answer.code = SQLITE_OK;
    if (answer.code != SQLITE_OK) answer.rows = sqlite3_errmsg(db_);
    sqlite3_finalize(statement);
    return answer;
  }
  void run(const std::string& sql) {
    const Answer answer = ask(sql);
    ASSERT_EQ(answer.code, SQLITE_OK) << sql << "\n" << answer.rows;
  }

 private:
  sqlite3* db_ = nullptr;
};

class Generator {
 public:
  explicit Generator(uint32_t seed) : random_(seed) {}
  uint32_t below(uint32_t limit) { return static_cast<uint32_t>(random_() % limit); }
  template <class T>
  const T& one_of(const std::vector<T>& choices) {
    return choices[below(static_cast<uint32_t>(choices.size()))];
  }

  // Any constant, also of types that a column hasn't.
  std::string constant() {
    switch (below(10)) {
      case 0:
      case 1:
      case 2:
        return std::to_string(static_cast<int>(below(60)) - 10);
      case 3:
        return std::to_string(static_cast<int>(below(200)) - 20) + (below(2) != 0 ? ".5" : ".0");
      case 4:
      case 5:
        return "'" + word() + "'";
      case 6:
        return "'" + std::to_string(below(50)) + one_of<std::string>({"", ".0", ".5", " ", "x", "e1"}) + "'";
      case 7:
        return one_of<std::string>({"NULL", "x'6162'", "''", "x''", "9223372036854775807", "-9223372036854775808",
                                    "1e999", "9007199254740993", "9007199254740992.0", "'-0'", "0.0", "' 7'", "?1",
                                    "CAST('5' AS INTEGER)", "CAST(12 AS TEXT)", "9223372036854775808.0"});
      case 8:
        return std::to_string(1000000 + below(70000) * 17);
      default:
        return "?1";
    }
  }
  std::string word() { return std::string(1 + below(3), static_cast<char>('a' + below(26))); }
  std::string column() { return one_of<std::string>({"i", "r", "t", "n", "u", "s", "x"}); }

  std::string condition() {
    const std::string name = below(12) == 0 ? "rowid" : column();
    switch (below(12)) {
      case 0:
        return name + " BETWEEN " + constant() + " AND " + constant();
      case 1:
        return name + (below(2) != 0 ? " IN (" : " NOT IN (") + constant() + ", " + constant() + ", " + constant() +
               ")";
      case 2:
        return name + " IN (SELECT " + column() + " FROM other WHERE " + column() + " > " + constant() + ")";
      case 3:
        return name + one_of<std::string>({" LIKE '", " NOT LIKE '", " GLOB '"}) +
               one_of<std::string>({"a%", "%B", "1_", "*c", "[a-m]*", "%"}) + "'";
      case 4:
        return name + (below(2) != 0 ? " IS NULL" : " IS NOT NULL");
      case 5:
        return name + one_of<std::string>({" IS ", " IS NOT "}) + constant();
      case 6:
        return name + " = " + constant() + " COLLATE NOCASE";
      case 7:
        return "(" + condition() + one_of<std::string>({" OR ", " AND "}) + condition() + ")";
      default:
        return name + one_of<std::string>({" = ", " <> ", " < ", " <= ", " > ", " >= "}) + constant();
    }
  }

  // A query with % where the table's name goes.
  std::string query() {
    std::string where = " WHERE " + condition();
    for (uint32_t more = below(4); more > 0; more--) where += " AND " + condition();
    const std::string all = "rowid, quote(i), quote(r), quote(t), quote(n), quote(u), quote(s), quote(x)";
    switch (below(6)) {
      case 0:
        return "SELECT count(*), total(i), min(t), max(n), count(r) FROM %" + where;
      case 1:
        return "SELECT n, count(*), typeof(n) FROM %" + where + " GROUP BY n, typeof(n) ORDER BY 1, 3";
      case 2:
        return "SELECT " + all + " FROM %" + where + " ORDER BY rowid LIMIT " + std::to_string(below(30)) + " OFFSET " +
               std::to_string(below(50));
      case 3:
        return "SELECT count(*) FROM other AS o JOIN % AS p ON p." + column() +
               one_of<std::string>({" = ", " < ", " >= "}) + "o." + column() + " WHERE o.rowid < 6 AND p.i > " +
               constant();
      default:
        return "SELECT " + all + " FROM %" + where + " ORDER BY rowid";
    }
  }

  // A row's values, of many types in n, of several in x, hardly repeating in u, in runs in s.
  std::string row(uint32_t number) {
    const auto or_null = [&](const std::string& value) { return below(9) == 0 ? std::string("NULL") : value; };
    std::string mixed = constant();
    if (mixed == "?1") mixed = "'q'";
    return or_null(std::to_string(static_cast<int>(below(60)) - 10)) + ", " +
           or_null(std::to_string(below(400)) + one_of<std::string>({".0", ".5", ".25"})) + ", " +
           or_null("'" + word() + "'") + ", " + mixed + ", " + std::to_string(1000000 + number * 17) + ", " +
           std::to_string(number / 50) + ", " +
           or_null(one_of<std::string>({"0", "1", "2.5", "9007199254740993", "9007199254740992.0", "'ab'", "x'62'"}));
  }

 private:
  std::mt19937 random_;
};

std::string new_path(const std::string& name) {
  const std::string path = testing::TempDir() + "kdzk_" + std::to_string(getpid()) + "_" + name + ".db";
  std::remove(path.c_str());
  return path;
}

constexpr const char* column_types = "i INTEGER, r REAL, t TEXT, n, u INTEGER, s INTEGER, x NUMERIC";

std::string with_table(std::string query, const std::string& table) {
  for (size_t at = query.find(" % "); at != std::string::npos; at = query.find(" % ")) query.replace(at + 1, 1, table);
  if (const size_t at = query.find(" %"); at != std::string::npos && at + 2 == query.size())
    query.replace(at + 1, 1, table);
  return query;
}

// A database with a packed table and an ordinary one with the same rows, some deleted and some inserted afterwards.
void make_tables(Database& db, Generator& generate, uint32_t nrows, const std::string& forms) {
  db.run(std::string("CREATE TABLE source(") + column_types + ")");
  db.run("BEGIN");
  for (uint32_t row = 0; row < nrows; row++) db.run("INSERT INTO source VALUES(" + generate.row(row) + ")");
  db.run("COMMIT");
  db.run("CREATE TABLE other AS SELECT i, r, t, n, u, s, x FROM source WHERE rowid % 97 = 1 LIMIT 40");
  db.run("CREATE VIRTUAL TABLE packed USING kdzk(select='SELECT * FROM source'" + forms + ")");
  db.run("DELETE FROM packed WHERE rowid % 13 = 5");
  db.run("BEGIN");
  for (uint32_t row = 0; row < 200; row++) db.run("INSERT INTO packed VALUES(" + generate.row(nrows + row) + ")");
  db.run("COMMIT");
  db.run("DELETE FROM packed WHERE rowid % 17 = 2");
  db.run(std::string("CREATE TABLE plain(") + column_types + ")");
  db.run("INSERT INTO plain(rowid, i, r, t, n, u, s, x) SELECT rowid, * FROM packed");
}

void expect_same(Database& db, Generator& generate, uint32_t queries) {
  for (uint32_t query = 0; query < queries; query++) {
    const std::string text = generate.query(), parameter = generate.below(2) != 0 ? generate.word() : "12";
    const Answer packed = db.ask(with_table(text, "packed"), parameter),
                 plain = db.ask(with_table(text, "plain"), parameter);
    ASSERT_EQ(packed.code, plain.code) << with_table(text, "packed") << "\n" << packed.rows << plain.rows;
    ASSERT_EQ(packed.rows, plain.rows) << with_table(text, "packed") << "\nwith ?1 = '" << parameter << "'";
  }
}

constexpr const char* every_row =
    "SELECT rowid, quote(i), quote(r), quote(t), quote(n), quote(u), quote(s), quote(x) FROM ";

TEST(PackedTable, AnswersAsAnOrdinaryOne) {
  const std::vector<std::string> forms{"",
                                       ", form(i)=runs, form(r)='blocked packed', form(t)='blocked runs', form(u)=dynp",
                                       ", form(i)=fixed, form(r)=dynp, form(u)='blocked fixed'"};
  for (size_t seed = 0; seed < 6; seed++) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Generator generate(static_cast<uint32_t>(seed) + 1);
    Database db(":memory:");
    make_tables(db, generate, 1500, forms[seed % forms.size()]);
    expect_same(db, generate, 600);
    if (HasFatalFailure()) return;
  }
}

TEST(PackedTable, AnswersOverSegments) {
  Generator generate(77);
  Database db(":memory:");
  make_tables(db, generate, 70000, "");
  expect_same(db, generate, 60);
}

TEST(PackedTable, ImplementsTransactions) {
  Generator generate(5);
  const std::string path = new_path("transactions");
  {
    Database db(path), second(path);
    make_tables(db, generate, 500, "");
    for (uint32_t round = 0; round < 60; round++) {
      db.run("BEGIN");
      uint32_t savepoints = 0;
      for (uint32_t step = 0; step < 8; step++) {
        switch (generate.below(6)) {
          case 0:
            db.run("SAVEPOINT s" + std::to_string(savepoints++));
            break;
          case 1:
            if (savepoints > 0) db.run("ROLLBACK TO s" + std::to_string(generate.below(savepoints)));
            savepoints = 0;  // names may be used again
            break;
          case 2: {
            const std::string where = " WHERE rowid % 29 = " + std::to_string(generate.below(29));
            db.run("DELETE FROM packed" + where);
            db.run("DELETE FROM plain" + where);
            break;
          }
          case 3: {
            const std::string set = " SET t = 'new' WHERE rowid = (SELECT max(rowid) FROM plain)";
            if (db.ask("SELECT max(rowid) > 65536 FROM plain").rows != "1\n") break;  // of the tail: the rowid stays
            db.run("UPDATE packed" + set);
            db.run("UPDATE plain" + set);
            break;
          }
          default: {
            db.run("INSERT INTO packed VALUES(" + generate.row(round) + ")");
            db.run(
                "INSERT INTO plain(rowid, i, r, t, n, u, s, x) SELECT rowid, * FROM packed WHERE rowid = "
                "last_insert_rowid()");
            break;
          }
        }
        if (generate.below(2) == 0) {
          ASSERT_EQ(db.ask(std::string(every_row) + "packed").rows, db.ask(std::string(every_row) + "plain").rows);
        }
      }
      db.run(generate.below(2) == 0 ? "ROLLBACK" : "COMMIT");
      for (Database* const reader : {&db, &second}) {
        ASSERT_EQ(reader->ask(std::string(every_row) + "packed").rows,
                  reader->ask(std::string(every_row) + "plain").rows);
      }
    }
    // A statement that fails in its midst leaves nothing behind.
    const std::string before = db.ask("SELECT count(*) FROM packed").rows;
    EXPECT_NE(db.ask("INSERT INTO packed(i) SELECT CASE WHEN value < 5 THEN value ELSE abs(-9223372036854775808) END "
                     "FROM (SELECT 1 AS value UNION ALL SELECT 2 UNION ALL SELECT 9)")
                  .code,
              SQLITE_OK);
    EXPECT_EQ(db.ask("SELECT count(*) FROM packed").rows, before);
    db.run("VACUUM INTO '" + path + ".copy'");
  }
  for (const std::string& reopened : {path, path + ".copy"}) {
    Database db(reopened);
    EXPECT_EQ(db.ask(std::string(every_row) + "packed").rows, db.ask(std::string(every_row) + "plain").rows);
    db.run("ALTER TABLE packed RENAME TO renamed");
    EXPECT_EQ(db.ask(std::string(every_row) + "renamed").rows, db.ask(std::string(every_row) + "plain").rows);
    db.run("DROP TABLE renamed");
    EXPECT_EQ(db.ask("SELECT count(*) FROM sqlite_schema WHERE name LIKE 'packed%' OR name LIKE 'renamed%'").rows,
              "0\n");
  }
  std::remove(path.c_str());
  std::remove((path + ".copy").c_str());
}

TEST(PackedTable, PacksInsertedRows) {
  Database db(":memory:");
  db.run("CREATE VIRTUAL TABLE packed USING kdzk(columns='a INTEGER, b TEXT')");
  db.run(
      "INSERT INTO packed WITH RECURSIVE r(n) AS (VALUES(1) UNION ALL SELECT n + 1 FROM r WHERE n < 150000) "
      "SELECT n % 1000, 'text ' || n % 77 FROM r");
  db.run("DELETE FROM packed WHERE a = 500");
  db.run("CREATE TABLE plain AS SELECT * FROM packed");
  EXPECT_EQ(db.ask("SELECT count(*), sum(a), min(rowid), max(rowid) FROM packed").rows, "149850|74850000|1|150000\n");
  EXPECT_EQ(db.ask("SELECT count(*) FROM packed_segments").rows, "2\n");
  EXPECT_EQ(db.ask("SELECT b, count(*), sum(a) FROM packed WHERE a > 700 GROUP BY b").rows,
            db.ask("SELECT b, count(*), sum(a) FROM plain WHERE a > 700 GROUP BY b").rows);
}

TEST(PackedTable, NamesKernelsInThePlan) {
  Database db(":memory:");
  db.run("CREATE VIRTUAL TABLE f USING kdzk(csv='" KDZK_FLIGHTS "')");
  EXPECT_NE(db.ask("EXPLAIN QUERY PLAN SELECT * FROM f WHERE delay BETWEEN 60 AND 90 AND origin IN ('SFO', 'LAX') AND "
                   "distance = 337")
                .rows.find("eq 11bit(distance), set 8bit(origin) selective, ge_le 9bit(delay) selective"),
            std::string::npos);
}

// Every blob of a table in turn, at every so many bytes.
TEST(PackedTable, SurvivesAnyChangedByte) {
  Generator generate(9);
  const std::string path = new_path("bytes");
  std::vector<std::string> queries, expected;
  std::vector<std::string> blobs;  // table, column, rowid
  {
    Database db(path);
    make_tables(db, generate, 700, ", form(i)=runs, form(r)='blocked packed', form(t)=packed, form(u)=dynp");
    queries.push_back(std::string(every_row) + "packed");
    expected.push_back(db.ask(queries[0]).rows);
    for (int query = 0; query < 6; query++) {
      queries.push_back(with_table(generate.query(), "packed"));
      expected.push_back(db.ask(queries.back()).rows);
    }
    for (const char* const of : {"data|record", "data|bytes", "dictionaries|bytes", "segments|deleted"}) {
      const std::string table(of, std::string(of).find('|')), column(std::string(of).substr(table.size() + 1));
      std::string ids = db.ask("SELECT id FROM packed_" + table).rows;
      for (size_t at = 0; at < ids.size(); at = ids.find('\n', at) + 1)
        blobs.push_back("packed_" + table + "|" + column + "|" + ids.substr(at, ids.find('\n', at) - at));
    }
  }
  uint32_t refused = 0, right = 0;
  for (const std::string& place : blobs) {
    const std::string table = place.substr(0, place.find('|')), id = place.substr(place.rfind('|') + 1);
    const std::string column = place.substr(table.size() + 1, place.rfind('|') - table.size() - 1);
    for (uint32_t trial = 0; trial < 20; trial++) {
      uint8_t byte = 0;
      int at = -1;
      const auto change = [&](uint8_t with) {
        sqlite3* db = nullptr;
        sqlite3_blob* blob = nullptr;
        ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
        sqlite3_exec(db, "PRAGMA synchronous = OFF", nullptr, nullptr, nullptr);
        ASSERT_EQ(sqlite3_blob_open(db, "main", table.c_str(), column.c_str(), std::stoll(id), 1, &blob), SQLITE_OK);
        if (at < 0) at = static_cast<int>(generate.below(static_cast<uint32_t>(sqlite3_blob_bytes(blob))));
        sqlite3_blob_read(blob, &byte, 1, at);
        byte ^= with;
        sqlite3_blob_write(blob, &byte, 1, at);
        sqlite3_blob_close(blob);
        sqlite3_close(db);
      };
      const auto with = static_cast<uint8_t>(1 + generate.below(255));
      change(with);
      {
        Database db(path);
        for (size_t query = 0; query < queries.size(); query++) {
          const Answer answer = db.ask(queries[query]);
          if (answer.code != SQLITE_OK) {
            EXPECT_NE(answer.rows.find("malformed"), std::string::npos) << answer.rows;
            refused++;
          } else {
            right++;
            EXPECT_EQ(answer.rows, expected[query]) << place << ", byte " << at << "\n" << queries[query];
          }
        }
        EXPECT_EQ(db.ask(queries[0]).code & 0xff, SQLITE_CORRUPT) << place << ", byte " << at;
      }
      change(with);
    }
  }
  EXPECT_GT(refused, 2 * blobs.size());
  EXPECT_GT(right, 0u);
  Database db(path);
  EXPECT_EQ(db.ask(queries[0]).rows, expected[0]);
  std::remove(path.c_str());
}

TEST(PackedTable, RefusesWhatItCannotDo) {
  Database db(":memory:");
  const auto error_of = [&](const std::string& sql) { return db.ask(sql).rows; };
  EXPECT_EQ(error_of("CREATE VIRTUAL TABLE a USING kdzk(columns='a', forms=1)"), "no option 'forms'");
  EXPECT_EQ(error_of("CREATE VIRTUAL TABLE a USING kdzk(columns='a', form(b)=runs)"), "form(): there is no column 'b'");
  EXPECT_NE(error_of("CREATE VIRTUAL TABLE a USING kdzk(columns='a', form(a)=flat)").find("no form 'flat'"),
            std::string::npos);
  EXPECT_NE(error_of("CREATE VIRTUAL TABLE a USING kdzk(csv='/no/such/file')").find("can't read /no/such/file"),
            std::string::npos);
  EXPECT_NE(error_of("CREATE VIRTUAL TABLE a USING kdzk()").find("kdzk takes one of"), std::string::npos);
  EXPECT_EQ(error_of("SELECT count(*) FROM sqlite_schema"), "0\n");
  db.run("CREATE VIRTUAL TABLE a USING kdzk(columns='a')");
  EXPECT_EQ(error_of("INSERT INTO a(rowid, a) VALUES(7, 1)"), "a numbers its rows itself: the next rowid is 1");
}

}  // namespace

#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
#
# Asks the shell of SQLite the same questions twice: of ordinary tables and of packed ones with the same rows. The
# answers must be equal; times and sizes are printed side by side. Anything else ends it with an error.
#
#   examples/sqlite/demo.sh EXTENSION [FLIGHTS.csv [AIRPORTS.csv]]
#
# EXTENSION is the built one, build/examples/sqlite/kdzk.so. FLIGHTS.csv has the columns date, time, delay, distance,
# origin and destination, and may have any number of rows. The databases stay in the folder `demo` beside the extension.
set -eu

here=$(cd "$(dirname "$0")" && pwd)
extension=$(realpath "$1")
flights=$(realpath "${2-$here/../data/flights.csv}")
airports=$(realpath "${3-$here/../data/airports.csv}")
work=$(dirname "$extension")/demo
mkdir -p "$work"
cd "$work"
rm -f ordinary.db packed.db

say() { printf '\n%s\n' "$*"; }
now() { date +%s%N; }

# ---- The same rows twice ----

start=$(now)
sqlite3 -bail ordinary.db >/dev/null <<SQL
PRAGMA journal_mode = OFF;
PRAGMA synchronous = OFF;
CREATE TABLE flights(date TEXT, time TEXT, delay INTEGER, distance INTEGER, origin TEXT, destination TEXT);
.import --csv --skip 1 "$flights" flights
CREATE TABLE airports(iata TEXT, name TEXT, city TEXT, state TEXT, country TEXT, latitude REAL, longitude REAL);
.import --csv --skip 1 "$airports" airports
UPDATE airports SET state = NULL WHERE state = 'NA';
SQL
ordinary_time=$(($(now) - start))

start=$(now)
sqlite3 -bail packed.db <<SQL
.load $extension
ATTACH 'ordinary.db' AS ordinary;
CREATE VIRTUAL TABLE flights USING kdzk(csv='$flights');
CREATE VIRTUAL TABLE airports USING kdzk(select='SELECT * FROM ordinary.airports');
SQL
packed_time=$(($(now) - start))

rows=$(sqlite3 ordinary.db 'SELECT count(*) FROM flights')
say "The same $(sqlite3 :memory: "SELECT printf('%,d', $rows)") flights, as an ordinary table and as a packed one"
cat <<TEXT
The packed one is a virtual table: CREATE VIRTUAL TABLE flights USING kdzk(csv='flights.csv'). Its rows are columns of
dictionary codes in this database's own tables, 65,536 rows at a time, in the form that the kernels read.
TEXT
sqlite3 :memory: <<SQL
.mode box
SELECT name AS '', printf('%,d', bytes) AS 'bytes of the file', printf('%.1f', bytes * 1.0 / $rows) AS 'a flight',
       printf('%,d', $rows * 1000000000 / time) AS 'rows/s when loaded'
  FROM (SELECT 'ordinary' AS name, $(stat -c %s ordinary.db) AS bytes, $ordinary_time AS time
        UNION ALL SELECT 'packed', $(stat -c %s packed.db), $packed_time);
SQL

say 'What the columns became: SELECT * FROM kdzk_columns('"'flights'"')'
sqlite3 -box packed.db -cmd ".load $extension" "SELECT * FROM kdzk_columns('flights')"

# ---- Questions ----

# An index for the look-up, where ordinary tables are at their best; the other questions don't use it (NOT INDEXED).
sqlite3 ordinary.db 'CREATE INDEX flights_by_route ON flights(origin, destination, date)'

say 'A dozen questions to both'
cat <<TEXT
"rows" goes through the virtual table, which hands each row that is left to SQLite; "inside" is a table-valued function
that counts, groups or joins codes. Each is asked twice, and the faster time counts: processor time, with both files in
memory.
TEXT
cat > questions.sql <<'SQL'
CREATE TEMP TABLE questions(number INTEGER PRIMARY KEY, question TEXT, how TEXT, ordinary TEXT, packed TEXT);
INSERT INTO questions(question, how, ordinary, packed) VALUES
('count(*) of all, delay >= 60', 'inside',
 'SELECT count(*) FROM ordinary.flights NOT INDEXED WHERE delay >= 60',
 'SELECT value1 FROM kdzk_aggregate(''flights'', ''count(*)'', NULL, ''delay >= 60'')'),
('rows with delay >= 60', 'rows',
 'SELECT rowid, origin, delay FROM ordinary.flights NOT INDEXED WHERE delay >= 60',
 'SELECT rowid, origin, delay FROM flights WHERE delay >= 60'),
('1 in 10: delay > :tenth', 'rows',
 'SELECT sum(distance) FROM ordinary.flights NOT INDEXED WHERE delay > :tenth',
 'SELECT sum(distance) FROM flights WHERE delay > :tenth'),
('1 in 1000: delay > :thousandth', 'rows',
 'SELECT sum(distance) FROM ordinary.flights NOT INDEXED WHERE delay > :thousandth',
 'SELECT sum(distance) FROM flights WHERE delay > :thousandth'),
('delay BETWEEN 60 AND 120', 'inside',
 'SELECT count(*), sum(delay) FROM ordinary.flights NOT INDEXED WHERE delay BETWEEN 60 AND 120',
 'SELECT value1, value2 FROM kdzk_aggregate(''flights'', ''count(*), sum(delay)'', NULL, ''delay BETWEEN 60 AND 120'')'),
('delay >= 120 AND distance > 2000 AND origin = ''SFO''', 'rows',
 'SELECT * FROM ordinary.flights NOT INDEXED WHERE delay >= 120 AND distance > 2000 AND origin = ''SFO''',
 'SELECT * FROM flights WHERE delay >= 120 AND distance > 2000 AND origin = ''SFO'''),
('airports: state <> ''CA'', where some are NULL', 'rows',
 'SELECT count(*), count(state) FROM ordinary.airports WHERE state <> ''CA''',
 'SELECT count(*), count(state) FROM airports WHERE state <> ''CA'''),
('origin IN (5 airports)', 'inside',
 'SELECT count(*) FROM ordinary.flights NOT INDEXED WHERE origin IN (''SFO'', ''LAX'', ''SAN'', ''SJC'', ''OAK'')',
 'SELECT value1 FROM kdzk_aggregate(''flights'', ''count(*)'', NULL, ''origin IN (''''SFO'''', ''''LAX'''', ''''SAN'''', ''''SJC'''', ''''OAK'''')'')'),
('origin IN (SELECT iata ... state = ''HI'')', 'rows',
 'SELECT count(*), sum(delay) FROM ordinary.flights NOT INDEXED WHERE origin IN (SELECT iata FROM ordinary.airports WHERE state = ''HI'')',
 'SELECT count(*), sum(delay) FROM flights WHERE origin IN (SELECT iata FROM airports WHERE state = ''HI'')'),
('destination LIKE ''S%''', 'inside',
 'SELECT count(*) FROM ordinary.flights NOT INDEXED WHERE destination LIKE ''S%''',
 'SELECT value1 FROM kdzk_aggregate(''flights'', ''count(*)'', NULL, ''destination LIKE ''''S%'''''')'),
('count, sum, min, max, avg BY origin', 'inside',
 'SELECT origin, count(*), sum(delay), min(delay), max(delay), avg(delay) FROM ordinary.flights NOT INDEXED GROUP BY origin',
 'SELECT group1, value1, value2, value3, value4, value5 FROM kdzk_aggregate(''flights'', ''count(*), sum(delay), min(delay), max(delay), avg(delay)'', ''origin'')'),
('count(*) BY origin, destination', 'inside',
 'SELECT origin, destination, count(*) FROM ordinary.flights NOT INDEXED GROUP BY origin, destination',
 'SELECT group1, group2, value1 FROM kdzk_aggregate(''flights'', ''count(*)'', ''origin, destination'')'),
('the 10 latest flights', 'both',
 'SELECT rowid, delay FROM ordinary.flights NOT INDEXED ORDER BY delay DESC, rowid LIMIT 10',
 'WITH late AS (SELECT group1 AS delay, sum(value1) OVER (ORDER BY group1 DESC) AS flights FROM kdzk_aggregate(''flights'', ''count(*)'', ''delay'')) SELECT rowid, delay FROM flights WHERE delay >= (SELECT max(delay) FROM late WHERE flights >= 10) ORDER BY delay DESC, rowid LIMIT 10'),
('flights JOIN airports, count(*) BY state', 'inside',
 'SELECT state, count(*) FROM ordinary.flights AS f NOT INDEXED JOIN ordinary.airports AS a ON f.origin = a.iata GROUP BY state',
 'SELECT group1, matches FROM kdzk_join_count(''flights'', ''origin'', ''airports'', ''iata'', ''state'')'),
('pairs of flights and airports in Alaska', 'inside',
 'SELECT f.rowid, a.rowid FROM ordinary.flights AS f NOT INDEXED JOIN ordinary.airports AS a ON f.destination = a.iata WHERE a.state = ''AK''',
 'SELECT left_rowid, right_rowid FROM kdzk_join(''flights'', ''destination'', ''airports'', ''iata'', NULL, ''state = ''''AK'''''')'),
('airports in a polygon around California', 'inside',
 'WITH edges(x1, y1, x2, y2) AS (VALUES (-124.4, 42, -120, 42), (-120, 42, -120, 39), (-120, 39, -114.6, 35), (-114.6, 35, -114.5, 32.6), (-114.5, 32.6, -117.2, 32.5), (-117.2, 32.5, -120.7, 34.4), (-120.7, 34.4, -124.4, 40.3), (-124.4, 40.3, -124.4, 42)) SELECT rowid FROM ordinary.airports AS a WHERE (SELECT count(*) FROM edges WHERE (y1 > a.latitude) <> (y2 > a.latitude) AND a.longitude < (x2 - x1) * (a.latitude - y1) / (y2 - y1) + x1) % 2 = 1',
 'SELECT id FROM kdzk_in_polygon(''airports'', ''longitude'', ''latitude'', ''-124.4,42; -120,42; -120,39; -114.6,35; -114.5,32.6; -117.2,32.5; -120.7,34.4; -124.4,40.3'')'),
('one route on one day; the ordinary table has an index', 'rows',
 'SELECT * FROM ordinary.flights INDEXED BY flights_by_route WHERE origin = ''SFO'' AND destination = ''LAX'' AND date = ''2001-02-14''',
 'SELECT * FROM flights WHERE origin = ''SFO'' AND destination = ''LAX'' AND date = ''2001-02-14'''),
('one flight by its rowid', 'rows',
 'SELECT * FROM ordinary.flights WHERE rowid = 54321',
 'SELECT * FROM flights WHERE rowid = 54321'),
('SELECT * of all flights', 'rows',
 'SELECT * FROM ordinary.flights NOT INDEXED',
 'SELECT * FROM flights');

-- The delay that one flight in 10, and in 1000, is beyond.
CREATE TEMP TABLE late AS SELECT delay, sum(flights) OVER (ORDER BY delay DESC) AS beyond, sum(flights) OVER () AS flights
  FROM (SELECT group1 AS delay, value1 AS flights FROM kdzk_aggregate('flights', 'count(*)', 'delay'));
UPDATE questions SET question = replace(replace(question, ':tenth', t), ':thousandth', m),
                     ordinary = replace(replace(ordinary, ':tenth', t), ':thousandth', m),
                     packed = replace(replace(packed, ':tenth', t), ':thousandth', m)
  FROM (SELECT (SELECT max(delay) FROM late WHERE beyond >= flights / 10) AS t,
               (SELECT max(delay) FROM late WHERE beyond >= flights / 1000) AS m);
SQL
status=0
sqlite3 -bail packed.db > answers.txt <<SQL || status=$?
.load $extension
PRAGMA cache_size = -2000000;
ATTACH 'ordinary.db' AS ordinary;
PRAGMA ordinary.cache_size = -2000000;
PRAGMA temp_store = MEMORY;
.read questions.sql
CREATE TEMP TABLE answers AS SELECT number, question, how, o."rows" AS "rows", o.nanoseconds AS ordinary_time,
    p.nanoseconds AS packed_time, o."rows" = p."rows" AND o.digest = p.digest AS same
  FROM questions AS q CROSS JOIN kdzk_timed(q.ordinary, 2) AS o CROSS JOIN kdzk_timed(q.packed, 2) AS p;
.mode box
SELECT question, how, printf('%,d', "rows") AS "rows", printf('%.3f', ordinary_time / 1e6) AS 'ordinary ms',
       printf('%.3f', packed_time / 1e6) AS 'packed ms',
       CASE WHEN packed_time <= ordinary_time THEN printf('%.1f times as fast', 1.0 * ordinary_time / packed_time)
            ELSE printf('%.1f times as slow', 1.0 * packed_time / ordinary_time) END AS 'packed is',
       iif(same, 'same', 'DIFFERENT') AS answers
  FROM answers ORDER BY number;
.mode list
SELECT 'different answers: ' || count(*) FROM answers WHERE NOT same;
.mode box
.print
.print How SQLite plans a condition on three columns: EXPLAIN QUERY PLAN
EXPLAIN QUERY PLAN SELECT * FROM flights WHERE delay BETWEEN 60 AND 120 AND distance > 2000 AND origin IN ('SFO', 'OAK');
.print What the kernels did in this connection: SELECT * FROM kdzk_stats
SELECT kernel, printf('%,d', calls) AS calls, printf('%,d', "rows") AS "rows", printf('%.3f', nanoseconds / 1e6) AS ms,
       printf('%.2f', "rows" * 1.0 / nanoseconds) AS 'rows/ns'
  FROM kdzk_stats WHERE "rows" > 0 ORDER BY nanoseconds DESC LIMIT 12;
SQL
sed '/^different answers: /d' answers.txt
if [ "$status" -ne 0 ]; then
  echo 'demo.sh: a question failed' >&2
  exit 1
fi
if ! grep -qx 'different answers: 0' answers.txt; then
  echo 'demo.sh: some answers differ' >&2
  exit 1
fi

say 'The same shell for yourself'
cat <<TEXT
  sqlite3 $work/packed.db -cmd '.load $extension' -cmd "ATTACH '$work/ordinary.db' AS ordinary"

  sqlite> .timer on
  sqlite> SELECT * FROM flights WHERE delay > 600;
  sqlite> SELECT group1 AS origin, value1 AS mean FROM kdzk_aggregate('flights', 'avg(delay)', 'origin', 'distance > 1000') ORDER BY 2 DESC LIMIT 5;
  sqlite> INSERT INTO flights VALUES ('2001-07-01', '00:05', 3, 337, 'SFO', 'LAX');
TEXT

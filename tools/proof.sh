#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
#
# Runs the checks of what the library promises, and writes docs/proof.md: for each promise the figures that its check
# printed ("figure: ..."), and the command that repeats it. If a check fails the page stays as it is.
#
#   tools/proof.sh [build directory]    builds everything, then the checks of a quarter of an hour
#   tools/proof.sh --long [check ...]   those that take long, in builds of their own, or just these of them:
#                                       sanitizers threads o1 clang emulated coverage mutants fuzzing
#
# Either leaves the other's lines on the page as they are, with their day.
set -eu
cd "$(dirname "$0")/.."
page=docs/proof.md
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
touch "$work/open" "$work/table"

# Runs a command that shows a promise, and makes a line of the table of it; or of the list of what isn't shown, if the
# check didn't run here.
shown() {
  promise=$1 command=$2
  echo "$promise"
  if ! sh -c "$command" >"$work/output" 2>&1; then
    tail -n 40 "$work/output"
    echo "This doesn't hold: $promise. To repeat it: $command" >&2
    exit 1
  fi
  if grep -Eq 'No tests were found|\*\*\*(Skipped|Not Run)|Not Run \(Disabled\)' "$work/output" &&
    ! grep -Eq '100% tests passed.* out of ([2-9]|[1-9][0-9]+)$' "$work/output"; then
    echo "- $promise: the check needs something that wasn't there (\`$command\`)." >>"$work/open"
    return
  fi
  {
    sed -nE 's/^\[==========\] ([0-9]+ tests?) from .* ran.*/\1/p' "$work/output"
    sed -nE 's/^([0-9]+: )?figure: //p' "$work/output"
    sed -nE 's/^(number of executed units|stat::number_of_executed_units): */executions: /p' "$work/output"
    grep -Eq '^(\[=|[0-9: ]*figure: )' "$work/output" ||
      sed -nE 's/^100% tests passed.* out of ([0-9]+)$/\1 of CTest'"'"'s tests/p' "$work/output"
  } | sed -z 's/\n$//; s/\n/<br>/g' >"$work/figures"
  echo "| $promise | $(cat "$work/figures") | \`$command\` | $(date +%Y-%m-%d) |" >>"$work/table"
}

# A check that takes long: runs if it is asked for, otherwise its line stays.
long() {
  name=$1
  if [ "$kind" = long ] && { [ -z "$wanted" ] || echo " $wanted " | grep -q " $name "; }; then
    shown "$2" "$3"
  elif ! grep -F "| $2 |" "$page" >>"$work/table"; then
    echo "- $2: \`tools/proof.sh --long $name\`." >>"$work/open"
  fi
}

ctest_of() { echo "ctest --test-dir $build -V -R '^($1)\$'"; }
cases_of() { echo "$build/tests/kdzk_tests --gtest_brief=1 --gtest_filter='$1'"; }
promises_of() { echo "$build/tests/kdzk_promises --gtest_brief=1 --gtest_filter='$1'"; }
preset() { echo "cmake --preset $1 && cmake --build --preset $1 && ctest --preset $1"; }

kind=short build=build wanted=
if [ "${1-}" = --long ]; then
  kind=long
  shift
  wanted="$*"
else
  build=${1-build}
fi

if [ "$kind" = long ]; then
  grep -q '^## What takes long' "$page" || { echo "Please run tools/proof.sh first." >&2 && exit 1; }
  sed '/^## What takes long/,$d' "$page" >"$work/page"
  grep '^- .*: the check needs' "$page" >"$work/open" || true
else
  cmake --build "$build"

  # ---- Exact results ----
  shown "Every kernel and service gives what a plain loop over rows gives, whatever is in the output before and behind \
the last row; inputs end behind their slack, and outputs at their end, against a page that faults" "$(cases_of '*')"
  shown "The 600 predicates, with filters, selections, runs and blocks, at all widths and forms" "$(cases_of '*Predicates*')"
  shown "All codes times all constants and pairs of constants up to 8 bits, ten operations, plain and null-aware, at \
every place of a step; up to 5 bits, and with one constant, row by row too" "$(cases_of 'Narrow/EveryConstant*')"
  shown "Prefix records of all widths, with prefixes of all lengths and last groups of all sizes" \
    "$(cases_of 'Widths/PrefixRecords*')"
  shown "The crossing count of up to 9 vertices and some more, against the list of edges" "$(cases_of 'Polygon*')"

  # ---- What holds for all kernels and services alike ----
  shown "No result depends on what is around buffers or was in outputs, nor on where in a cache line buffers lie; nothing \
else is written" "$(promises_of '*NothingDepends*')"
  shown "The whole vector, a few rows at a time, row by row of a selection, and the copy of a block: the same rows" \
    "$(promises_of '*AllRoads*')"
  shown "Any callback may leave by longjmp at any call of it, and hostinternalerr return or not" "$(promises_of '*CallbacksMayLeave*')"
  shown "Threads may share inputs, filters, filled slots, hash tables and bloom filters" "$(promises_of '*ThreadsMayShare*')"
  shown "Under valgrind, what is around buffers having no value, all that a call gives has one" "$(ctest_of promises_in_valgrind)"

  # ---- The processor ----
  shown "No instruction above SSE4.2 and POPCNT" "$(ctest_of library_instructions)"
  shown "Every kernel and service runs on an emulated processor of just that level" "$(ctest_of promises_at_their_level)"
  shown "On a processor below it the loader refuses in words" "$(ctest_of kit_old_processor)"

  # ---- What hosts may rely on ----
  shown "The interface doesn't move unnoticed" "$(ctest_of interface)"
  shown "A host compiled against the oldest header runs on this library" "$(ctest_of oldest_host)"
  shown "One symbol out; in, the C library and hostinternalerr; nothing runs at load" "$(ctest_of library_binary)"
  shown "Hosts build against an installed copy, by CMake and by pkg-config" "$(ctest_of installed_package)"
  shown "4 KiB of stack, but for documented frames" "$(ctest_of library_stack)"

  # ---- Data from anywhere ----
  shown "Blocks, prefix streams, run-length columns and packed codes that pass their checks are safe to work on, and give \
what plain decoders give" "$(ctest_of fuzz)"
  cat >"$work/page" <<END
<!-- SPDX-License-Identifier: Apache-2.0 -->
<!-- Written by tools/proof.sh; do not edit. -->

# What is shown of what the library promises

\`tools/proof.sh\` wrote this page after all of these checks passed, on a build of type $(
    sed -n 's/^CMAKE_BUILD_TYPE:[A-Z]*=//p' "$build/CMakeCache.txt") by $(cat "$build"/CMakeFiles/*/CMakeCXXCompiler.cmake |
      sed -nE 's/^set\(CMAKE_CXX_COMPILER_(ID|VERSION) "(.*)"\)/\2/p' | paste -sd' ').
Figures are what the checks printed, on the day of the last column.

| promise | figures | command | day |
|---|---|---|---|
$(cat "$work/table")

END
  : >"$work/table"
fi

# ---- What takes long ----
long sanitizers "All tests under the address and undefined-behaviour sanitizers, without suppressions" "$(preset sanitize)"
long threads "Threads that share inputs, under the thread sanitizer" "cmake --preset threads && cmake --build --preset \
threads && TSAN_OPTIONS=halt_on_error=1 build-threads/tests/kdzk_promises --gtest_brief=1 --gtest_filter='*ThreadsMayShare*'"
long o1 "All tests at -O1 (a release is built at -O3)" "$(preset o1)"
long clang "All tests with clang++" "$(preset clang)"
long emulated "All tests of kernels and services on an emulated Nehalem, but for those of all pairs of constants" \
  "qemu-x86_64 -cpu Nehalem $build/tests/kdzk_tests --gtest_brief=1 --gtest_filter='-Narrow/*' && \
qemu-x86_64 -cpu Nehalem $build/tests/kdzk_promises --gtest_brief=1"
long coverage "Every branch of the library is taken both ways, or tests/branches.txt says why not" "tools/coverage.py"
long mutants "Single changes of the library fail a test, or tests/mutants.txt says why not" "tools/mutate.py --quick --sample 80 '*/*.cpp'"
long fuzzing "An hour of that by libFuzzer, with the sanitizers (CONTRIBUTING.md tells of the last one)" "set -e; cmake \
--preset fuzz; cmake --build --preset fuzz; for format in sqzb prefix_records run_length packed_codes; do \
build-fuzz/tests/kdzk_fuzz_\$format -max_len=8192 -max_total_time=900 -print_final_stats=1; done"

{
  cat <<END
## What takes long

Checks in builds of their own, by \`tools/proof.sh --long\`.

| promise | figures | command | day |
|---|---|---|---|
$(cat "$work/table")
END
  if [ -s "$work/open" ]; then
    printf '\n## What this page doesn'"'"'t show\n\n'
    cat "$work/open"
  fi
} >>"$work/page"
cp "$work/page" "$page"
echo "Written: $page"

#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
#
# Builds everything, runs the checks of what the library promises, and writes docs/proof.md: for each promise the figures
# that its check printed ("figure: ..."), and the command that repeats it. If a check fails the page stays as it is.
#
#   tools/proof.sh [build directory]
set -eu
cd "$(dirname "$0")/.."
build=${1-build}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

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
  if grep -Eq 'No tests were found|\*\*\*(Skipped|Not Run)|Not Run \(Disabled\)' "$work/output"; then
    echo "- $promise: the check needs something that wasn't there (\`$command\`)." >>"$work/open"
    return
  fi
  {
    sed -nE 's/^\[==========\] ([0-9]+ tests?) from .* ran.*/\1/p' "$work/output"
    sed -nE 's/^([0-9]+: )?figure: //p' "$work/output"
    grep -Eq '^(\[=|[0-9: ]*figure: )' "$work/output" ||
      sed -nE 's/^100% tests passed.* out of ([0-9]+)$/\1 test/p' "$work/output"
  } | sed -z 's/\n$//; s/\n/<br>/g' >"$work/figures"
  echo "| $promise | $(cat "$work/figures") | \`$command\` |" >>"$work/table"
}

ctest_of() { echo "ctest --test-dir $build -V -R '^($1)\$'"; }
cases_of() { echo "$build/tests/kdzk_tests --gtest_brief=1 --gtest_filter='$1'"; }
not_shown() { echo "- $1" >>"$work/open"; }

cmake --build "$build"

# ---- Exact results ----
shown "Every kernel and service gives what a plain loop over rows gives, whatever is in the output before and behind the \
last row; inputs end behind their slack, and outputs at their end, against a page that faults" "$(cases_of '*')"
shown "The 600 predicates, with filters, selections, runs and blocks, at all widths and forms" "$(cases_of '*Predicates*')"
shown "All codes times all constants and pairs of constants up to 8 bits, ten operations, plain and null-aware, at every \
place of a step; up to 5 bits, and with one constant, row by row too" "$(cases_of 'Narrow/EveryConstant*')"
shown "Prefix records of all widths, with prefixes of all lengths and last groups of all sizes" "$(cases_of 'Widths/PrefixRecords*')"
shown "The crossing count of up to 9 vertices and some more, against the list of edges" "$(cases_of 'Polygon*')"

# ---- The processor ----
shown "No instruction above SSE4.2 and POPCNT" "$(ctest_of library_instructions)"
shown "A sample of the tests passes on an emulated processor of just that level" "$(ctest_of kernels_at_their_level)"
shown "On a processor below it the loader refuses in words" "$(ctest_of kit_old_processor)"

# ---- What hosts may rely on ----
shown "The interface doesn't move unnoticed" "$(ctest_of interface)"
shown "A host compiled against the oldest header runs on this library" "$(ctest_of oldest_host)"
shown "One symbol out; in, the C library and hostinternalerr; nothing runs at load" "$(ctest_of library_binary)"
shown "Hosts build against an installed copy, by CMake and by pkg-config" "$(ctest_of installed_package)"
shown "4 KiB of stack, but for documented frames" "$(ctest_of library_stack)"

# ---- Bytes from anywhere ----
shown "A block, prefix stream, run-length column or stream of codes that passes the host kit's check is safe to run, and \
gives what a plain decoder gives" "$(ctest_of fuzz)"

not_shown "The suite under the address and undefined-behaviour sanitizers: a build of its own, see CONTRIBUTING.md."
not_shown "The whole suite on the emulated processor, not just a sample."
not_shown "Threads that share a slot, a filter, a hash table or a bloom filter."
not_shown "Columns at all 64 offsets in a cache line; two paddings that give one result, for every kernel and slot."
not_shown "Callbacks that leave by \`longjmp\`."
not_shown "Undefined slack under valgrind; branches taken; single changes of the library that no test notices."

{
  cat <<EOF
<!-- SPDX-License-Identifier: Apache-2.0 -->
<!-- Written by tools/proof.sh; do not edit. -->

# What is shown of what the library promises

\`tools/proof.sh\` wrote this page on $(date +%Y-%m-%d), after all of these checks passed on one build
($(sed -n 's/^CMAKE_BUILD_TYPE:[A-Z]*=//p' "$build/CMakeCache.txt"), $(cat "$build"/CMakeFiles/*/CMakeCXXCompiler.cmake |
    sed -nE 's/^set\(CMAKE_CXX_COMPILER_(ID|VERSION) "(.*)"\)/\2/p' | paste -sd' ')). Figures are what the checks printed.

| promise | figures | command |
|---|---|---|
$(cat "$work/table")

## What this run doesn't show

EOF
  cat "$work/open"
} >docs/proof.md
echo "Written: docs/proof.md"

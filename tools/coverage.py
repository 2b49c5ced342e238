#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
#
# Every condition and case in the library goes both ways somewhere in the tests, or tests/branches.txt says in a line why
# it can't.
#
#   tools/coverage.py [build directory]
#
# Builds the library with clang's counters (preset `coverage`), runs kdzk_tests, and prints what no test takes; exits
# with 1 if that is anything without a reason. Instances of a template count together. Conditions that are constant in an
# instance are none there, and functions that only run at compile time don't count.
import json
import os
import re
import subprocess
import sys
from collections import Counter

os.chdir(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
build = sys.argv[1] if len(sys.argv) > 1 else "build-coverage"
folders = ("bitvec/", "decode/", "frame/", "join/", "numeric/", "x86/")
reasons = "tests/branches.txt"


def measure():
    """What the whole suite counted, function by function, an instance of a template being one of its own."""
    counters, merged = f"{build}/suite.profraw", f"{build}/suite.profdata"
    commands = [["cmake", "--preset", "coverage", "-B", build],
                ["cmake", "--build", build, "--target", "kdzk_tests"],
                ["rm", "-f", counters],
                [f"{build}/tests/kdzk_tests", "--gtest_brief=1"],
                ["llvm-profdata", "merge", counters, "-o", merged]]
    # %c: the counters live in the file, so that those of processes that a death test ends are there too.
    environment = os.environ | {"LLVM_PROFILE_FILE": counters.replace(".profraw", "%c.profraw")}
    for command in commands:
        done = subprocess.run(command, env=environment, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        if done.returncode != 0:
            sys.exit("\n".join(done.stdout.split("\n")[-40:]) + f"\nThis failed: {' '.join(command)}")
    command = ["llvm-cov", "export", f"{build}/libvexksse4219.so", f"-instr-profile={merged}"]
    return json.loads(subprocess.run(command, stdout=subprocess.PIPE, check=True).stdout)["data"][0]["functions"]


def text_of(place, lines, is_condition):
    """The line, with the condition between braces."""
    file, line, column, end_line, end_column = place
    if not is_condition:
        return lines[file][line - 1].strip()
    part = lines[file][line - 1:end_line]
    part[-1] = part[-1][:end_column - 1] + "}}" + part[-1][end_column - 1:]
    part[0] = part[0][:column - 1] + "{{" + part[0][column - 1:]
    return re.sub(r"\s+", " ", " ".join(part)).strip()


def main():
    calls, true, false = Counter(), Counter(), Counter()
    for function in measure():
        files = [os.path.relpath(file) for file in function["filenames"]]
        body = function["regions"][0]
        if not files[body[5]].startswith(folders):
            continue
        calls[(files[body[5]], *body[:4])] += function["count"]
        for *place, times_true, times_false, file, _, _ in function["branches"]:
            true[(files[file], *place)] += times_true
            false[(files[file], *place)] += times_false

    lines = {place[0]: open(place[0]).read().split("\n") for place in [*calls, *true]}
    missing = []
    for place, times in calls.items():
        line = text_of(place, lines, False)
        if times == 0 and not re.search(r"\bconst(expr|eval) ", line):
            missing.append((*place[:2], f"{line}: never called"))
    for place in true:
        line = text_of(place, lines, True)
        if "switch ({{" in line:  # "true" is a value without a case
            ways = [("another value", true)]
        else:
            ways = [("true", true), ("false", false)]
        missing += [(*place[:2], f"{line}: never {way}") for way, times in ways if times[place] == 0]

    # A line of reasons is "file: line of code: never what -- reason", and stands for one place.
    explained = Counter(line.split(" -- ")[0] for line in open(reasons) if not line.startswith("#"))
    unused, unexplained = explained.copy(), 0
    for file, number, what in sorted(missing):
        if unused[f"{file}: {what}"] > 0:
            unused[f"{file}: {what}"] -= 1
        else:
            unexplained += 1
            print(f"{file}:{number}: {what}")
    for entry in unused.elements():
        print(f"{reasons}: this is taken, or is no more: {entry}")
    branches = sum(1 if "switch ({{" in text_of(place, lines, True) else 2 for place in true)
    print(f"figure: {branches} branches in {len({place[:2] for place in true})} lines, "
          f"{branches - sum('never called' not in what for *_, what in missing)} taken, "
          f"{explained.total() - unused.total()} explained; {sum(map(bool, calls.values()))} functions called")
    sys.exit(unexplained + unused.total() > 0)


main()

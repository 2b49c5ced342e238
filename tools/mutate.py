#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Changes one place of the library at a time, rebuilds it, runs the tests, and lists the changes that none notices.

    tools/mutate.py --sample 50 'x86/*.cpp' join/keys.h

The changes are made in copies of the tree. The tests are those of --tests, which must be built; they are given the
changed library by KDZK_LIBRARY. A survivor is printed as `file:line: before -> after (pattern)`. If no test can see the
change, it belongs into tests/mutants.txt, with the reason; it is left out then.
"""
import argparse
import concurrent.futures
import fnmatch
import glob
import hashlib
import itertools
import os
import pathlib
import queue
import random
import re
import resource
import shutil
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
SOURCES = ["frame", "bitvec", "x86", "decode", "numeric", "join"]

# ---- What is changed: a name, a regular expression whose first group is the place, and what goes there instead ----


def near(text):
    """Numbers beside a number, written as it is."""
    prefix, digits, suffix = re.fullmatch(r"(0x)?([0-9a-f]+?)([uUlL]*)", text).groups()
    if prefix:
        number, bits = int(digits, 16), len(digits) * 4
        others = (number ^ 1, number ^ 1 << bits - 1, number >> 1)
        return [f"0x{other:0{len(digits)}x}{suffix}" for other in others if other != number]
    number = int(digits)
    return [f"{other}{suffix}" for other in (number + 1, number - 1) if other >= 0]


def family(*names):
    return {name: [other for other in names if other != name] for name in names}


def pairs(*names):
    return {a: [b] for x, y in names for a, b in ((x, y), (y, x))}


COMPARISONS = {"<": ["<=", ">="], "<=": ["<", ">"], ">": [">=", "<="], ">=": [">", "<"], "==": ["!="], "!=": ["=="]}
FLAGS = {}
for group in re.findall(r"(?:#define KDZK_\w+ 0x\w+u.*\n(?: .*\n)*)+", "".join(
        (ROOT / f"include/kdzk/{name}.h").read_text() for name in ("records", "join"))):
    FLAGS.update(family(*re.findall(r"#define (KDZK_\w+)", group)))
CODES = family("KDZK_DONE", "KDZK_NO_ROW", "KDZK_UNSUPPORTED", "KDZK_MALFORMED")
CODES.update({full: ["KDZK_DONE"] for full in
              "KDZK_KEYS_TOO_MANY KDZK_PARTITION_FULL KDZK_OVERFLOW_FULL KDZK_PAIRS_FULL KDZK_PAGE_FULL "
              "KDZK_OUTPUT_FULL".split()})
TWINS = pairs(("min", "max"), ("unpacklo", "unpackhi"), ("add", "sub"), ("adds", "subs"), ("cmpgt", "cmpeq"),
              ("packs", "packus"), ("srli", "srai"), ("mullo", "mulhi"), ("shufflelo", "shufflehi"))
TWINS.update({"and": ["andnot", "or"], "andnot": ["and"], "or": ["and"], "xor": ["or"], "cmplt": ["cmpgt"],
              "slli": ["srli"], "hadd": ["hsub"]})

PATTERNS = [
    ("compare", r" (<=|>=|==|!=|<|>) ", COMPARISONS),
    ("logic", r" (&&|\|\|) ", pairs(("&&", "||"))),
    ("shift", r" (<<|>>) ", pairs(("<<", ">>"))),
    ("amount", r" (?:<<|>>)=? (\d+u?)\b", near),
    ("bits", r" ([&|^]) ", {"&": ["|"], "|": ["&"], "^": ["|"]}),
    ("complement", r"(?<=[ (])([~-])(?=[\w(])", {"~": [""], "-": [""]}),
    ("update", r" ((?:[-+|&^]|<<|>>)=) ", {**pairs(("+=", "-="), ("<<=", ">>=")),
                                            "|=": ["&=", "="], "&=": ["|=", "="], "^=": ["|="]}),
    ("mask", r"(?<!\w)(0x[0-9a-f]+u?)\b", near),
    ("bound", r" (?:<=?|>=?|==|!=|=|\*|/|%|[-+|&]=?|\?|:) (\d+u?)\b(?!\.)", near),
    ("argument", r"[(,{<] ?(?:uint64_t\{)?-?(\d+u?)(?=[,)}>])", near),
    ("sum", r" ([-+]) ", pairs(("+", "-"))),
    ("scale", r" ([*/%]) (?=\w)", {"*": ["/"], "/": ["*"], "%": ["/"]}),
    ("twin", r"\b_mm_([a-z]+?)_", TWINS),
    ("min_max", r"\bstd::(min|max)\b", pairs(("min", "max"))),
    ("flag", r"\b(KDZK_\w+)\b", FLAGS),
    ("code", r"\b(KDZK_\w+)\b", CODES),
    ("bool", r"\b(true|false)\b", pairs(("true", "false"))),
    ("condition", r"\bif (\((?:[^()]|\((?:[^()]|\([^()]*\))*\))*\))", lambda text: [f"(!{text})"]),
    ("delete", r"^ +(?!return|using|delete)([\w.>\[\]*:-]+(?: (?:[-+*|&^]|<<|>>)?= [^;\n]*|\([^;\n]*\)|\+\+|--);)$",
     lambda text: [";"] if text.count("(") == text.count(")") else []),
]

# ---- What is run: for each source the tests of its family, the strong ones first; other sources are tested by all ----

PREDICATES = ["*Predicates.Agree*", "*Predicates*", "Narrow/EveryConstant*"]
DECODE = ["*DecodeUnpack*", "All/DecodeDict*:All/DecodeSymbol*:Widths/CheckedCodes*", "Traps.*"]
SETS = ["All/Sets*"]
TESTS = {
    "frame/operation.h": PREDICATES, "frame/predicate.*": PREDICATES + SETS,
    "frame/decompress.*": ["*Decompress*:*Sqzb.*", "*Predicates*"],
    "frame/*": ["Record.*:Dispatch.*:FindKernel.*:Traps.*", "Arena.*:*BurstRle*"],
    "bitvec/*": ["*BitVector*:Traps.*", "*Predicates.Apply*"],
    "decode/prefix_records.cpp": ["*PrefixRecords*"], "decode/sqzb.cpp": ["*Sqzb*-SqzbWriter*", "SqzbWriter.*"],
    "join/bloom.cpp": ["*Bloom*"], "join/gather.cpp": ["*Gather*"], "join/hash_rows.cpp": ["*HashRows*"],
    "join/pack_rows.cpp": ["*PackRows*"], "join/pair_matrix.cpp": ["*PairMatrix*:*Gather*", "*PackRows*"],
    "join/partition.cpp": ["*Partition*"], "join/buckets.h": ["*HashTable*:Traps.*"],
    "join/ht_*": ["*HashTable*:Traps.*", "All/Join*"],
    "join/keys.h": ["*HashRows*", "*HashTable*:*Partition*", "*Gather*:*PairMatrix*:*PackRows*"],
    "join/rowstore.h": ["*Gather*:*PairMatrix*", "*PackRows*"],
    "numeric/arithmetic.cpp": ["*Arithmetic*"], "numeric/polygon.cpp": ["*Polygon*"],
    "numeric/sortable.*": ["*Sortable*:*Arithmetic*:*IntegerColumns*"],
    "x86/bit_tests.h": SETS + ["*Bloom*"], "x86/burst_rle.cpp": ["*BurstRle*"],
    "x86/decode_*": DECODE, "x86/symbols.h": DECODE[1:], "x86/unpack_runs.h": DECODE,
    "x86/unpack.h": DECODE + ["GroupKeys*"], "x86/groupkey.cpp": ["GroupKeys*:XlateGroupkey*"],
    "x86/set.cpp": SETS, "x86/one_bit.h": ["*Predicates*"] + SETS, "x86/xlate.*": ["*Xlate*", "GroupKeys*"],
    "x86/kdzkc_x86.h": ["*Predicates*:*Sets*", "*DecodeUnpack*:*Xlate*:*BurstRle*:*PrefixRecords*:*Sqzb.*"],
    "x86/*": PREDICATES,
}
# For survivors. Left out is what takes long and adds little to other families, and what loads the library by itself.
ALL = "*-Narrow/EveryConstant*:SqzbWriter.*:Loader.*"


def tests_of(file, quick):
    stages = next((stages for pattern, stages in TESTS.items() if fnmatch.fnmatch(file, pattern)), [])
    return stages if quick and stages else stages + [ALL]


# ---- Places ----

NO_CODE = re.compile(r'//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\\n])*"|(?<!\w)\'(?:\\.|[^\'\\\n])*\'|^#[^\n]*'
                     r'|^[^\n]*prefetch[^\n]*|\basm\("[^\n]*|^KDZK_\w+\([^\n]*'  # only speed; instances
                     r"|\bstatic_assert\((?:[^()]|\((?:[^()]|\([^()]*\))*\))*\)|\btemplate <[^\n]*>$|\boperator\W+\(",
                     re.S | re.M)
TYPE_LIST = re.compile(r"(?<=\w)<(?:[^<>()\n]|<[^<>()\n]*>)*>(?![\w(])")  # with a call behind it, it is code


def blank(match):
    return re.sub(r"[^\n]", "\x01", match.group())


class Mutant:
    def __init__(self, file, text, start, end, pattern, after):
        self.file, self.start, self.end, self.pattern, self.after = file, start, end, pattern, after
        self.line = text.count("\n", 0, start) + 1
        # What is changed, with as many words around it as make it the only one of the file, but two at least.
        first, last = text.rfind("\n", 0, start) + 1, text.index("\n", end)
        first = last - len(text[first:last].lstrip())
        a, b, words = start, end, 0
        while (words < 2 or text.count(text[a:b]) > 1) and (a, b) != (first, last):
            a = max(first, text.rfind(" ", first, max(a - 1, first)) + 1)
            b = text.find(" ", b + 1, last) if " " in text[b + 1:last] else last
            words += 2
        self.change = f"{text[a:b]} -> {text[a:start]}{after}{text[end:b]}"

    def __str__(self):
        return f"{self.file}:{self.line}: {self.change} ({self.pattern})"


def mutants_of(file):
    text = (ROOT / file).read_text()
    code = TYPE_LIST.sub(blank, NO_CODE.sub(blank, text))
    mutants = {}  # two patterns may make the same change
    for name, expression, replacements in PATTERNS:
        for match in re.finditer(f"(?={expression})" if expression[0] == " " else expression, code, re.M):
            before, start, end = match.group(1), match.start(1), match.end(1)
            for after in replacements(before) if callable(replacements) else replacements.get(before, []):
                mutants.setdefault((start, after), Mutant(file, text, start, end, name, after))
    return list(mutants.values())


def in_turn(lists, dice):
    """One of each list, then another of each, and so on; in which order, is left to the dice."""
    dice.shuffle(lists)
    return [each for turn in itertools.zip_longest(*lists) for each in turn if each]


def sample(mutants, count, seed):
    """So many of them, from all files in turn, and from all patterns of a file in turn."""
    dice, files = random.Random(seed), {}
    for mutant in dice.sample(mutants, len(mutants)):
        files.setdefault(mutant.file, {}).setdefault(mutant.pattern, []).append(mutant)
    return in_turn([in_turn(list(patterns.values()), dice) for patterns in files.values()], dice)[:count]


# ---- Runs ----


class Copy:
    """A copy of the tree, with a build directory of its own."""

    def __init__(self, path, tests, quick):
        self.path, self.build, self.tests, self.quick, self.seconds = path, path / "build", tests, quick, {}
        files = subprocess.run(["git", "ls-files"], cwd=ROOT, capture_output=True, text=True, check=True).stdout.split()
        for file in filter(lambda file: (ROOT / file).exists(), files):
            (path / file).parent.mkdir(parents=True, exist_ok=True)
            shutil.copyfile(ROOT / file, path / file)
        # -O1: the tests see results, not speed, and it compiles several times as fast.
        subprocess.run(["cmake", "-S", path, "-B", self.build, "-DBUILD_TESTING=OFF", "-DCMAKE_BUILD_TYPE=Release",
                        "-DCMAKE_CXX_FLAGS_RELEASE=-O1"], stdout=subprocess.DEVNULL, check=True)
        if error := self.compile():
            sys.exit(error)
        self.library = next(self.build.glob("libvexksse4219.so"))
        self.same = self.code()

    def compile(self):
        made = subprocess.run(["cmake", "--build", self.build, "--target", "vexksse4219", "--parallel", "1"],
                              capture_output=True, text=True)
        return made.stdout + made.stderr if made.returncode else None

    def code(self):
        """What is loaded of the library."""
        stripped = self.build / "stripped.so"
        strip = ["objcopy", "--strip-all", "--remove-section=.note.gnu.build-id"]
        subprocess.run(strip + [self.library, stripped], check=True)
        return hashlib.sha256(stripped.read_bytes()).digest()

    def passes(self, stage, seconds):
        run = ["timeout", "--signal=KILL", str(seconds), self.tests, "--gtest_brief=1", "--gtest_fail_fast",
               f"--gtest_filter={stage}"]  # in a session of its own, so that it is killed with the tests' children
        return subprocess.run(run, env={**os.environ, "KDZK_LIBRARY": str(self.library)}, stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL, start_new_session=True).returncode == 0

    def time(self, stages):
        """How long the tests take on the library as it is, which must pass them."""
        for stage in sorted(stages):
            start = time.monotonic()
            if not self.passes(stage, 0):
                sys.exit(f"The unchanged library fails {stage}.")
            self.seconds[stage] = time.monotonic() - start

    def outcome(self, mutant):
        stages = tests_of(mutant.file, self.quick)
        path = self.path / mutant.file
        original = path.read_text()
        try:
            path.write_text(original[:mutant.start] + mutant.after + original[mutant.end:])
            if error := self.compile():
                return "killed" if "static assertion failed" in error else "stillborn"
            if self.code() == self.same:
                return "same code"
            alive = all(self.passes(stage, 5 * self.seconds[stage] + 10) for stage in stages)
            return "survivor" if alive else "killed"
        finally:
            path.write_text(original)


def read_explained(file):
    """The lines `file: before -> after # reason`."""
    lines = [line for line in file.read_text().splitlines() if line and line[0] != "#"]
    return {tuple(line.rsplit(" # ", 1)[0].split(": ", 1)): line for line in lines}


def main():
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    resource.setrlimit(resource.RLIMIT_AS, (8 << 30, 8 << 30))  # for mutants that ask for too much
    arguments = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    arguments.add_argument("files", nargs="*", default=[f"{folder}/*.*" for folder in SOURCES])
    arguments.add_argument("--sample", type=int, metavar="N", help="so many, spread over files and patterns")
    arguments.add_argument("--seed", type=int, default=1)
    arguments.add_argument("--jobs", type=int, default=1)
    arguments.add_argument("--quick", action="store_true", help="only the tests of the source's family")
    arguments.add_argument("--list", action="store_true", help="only print the changes")
    arguments.add_argument("--tests", type=pathlib.Path, default=ROOT / "build/tests/kdzk_tests")
    options = arguments.parse_args()

    files = sorted({file for pattern in options.files for file in glob.glob(pattern, root_dir=ROOT)
                    if file.split("/")[0] in SOURCES})
    everything = [mutant for file in files for mutant in mutants_of(file)]
    explained = read_explained(ROOT / "tests/mutants.txt")
    names = {(mutant.file, mutant.change) for mutant in everything}
    stale = [line for name, line in explained.items()
             if name not in names and (name[0] in files or not (ROOT / name[0]).exists())]
    chosen = [mutant for mutant in everything if (mutant.file, mutant.change) not in explained]
    chosen = sample(chosen, options.sample, options.seed)
    for line in stale:
        print(f"tests/mutants.txt explains what isn't there: {line}")
    if options.list:
        print(*chosen, sep="\n")
        return len(stale) > 0
    with tempfile.TemporaryDirectory(prefix="kdzk_mutants") as work:
        counts = run_all(sorted(chosen, key=lambda mutant: mutant.file), options, work)

    def figure(outcomes, places):
        born = [outcome for outcome in outcomes if outcome != "stillborn"]
        return (f"{len(born)} mutants of {places} places, {born.count('killed')} killed, "
                f"{born.count('same code')} with the same code, {born.count('survivor')} survivors")

    for file, outcomes in sorted(counts.items()):
        print(f"{file}: {figure(outcomes, sum(mutant.file == file for mutant in everything))}")
    total = [outcome for outcomes in counts.values() for outcome in outcomes]
    print(f"figure: {figure(total, len(everything))}")
    return "survivor" in total or len(stale) > 0


def run_all(chosen, options, work):
    """The outcomes of each file's mutants. Survivors are printed as they are found, the others as progress."""
    copies = queue.Queue()
    for job in range(options.jobs):
        copy = Copy(pathlib.Path(work) / str(job), options.tests, options.quick)
        copy.time({stage for mutant in chosen for stage in tests_of(mutant.file, options.quick)})
        copies.put(copy)
    counts = {}

    def run(mutant):
        copy = copies.get()
        outcome = copy.outcome(mutant)
        copies.put(copy)
        counts.setdefault(mutant.file, []).append(outcome)
        print(f"{outcome}: {mutant}" if outcome != "survivor" else str(mutant), flush=True,
              file=sys.stdout if outcome == "survivor" else sys.stderr)

    with concurrent.futures.ThreadPoolExecutor(options.jobs) as pool:
        list(pool.map(run, chosen))
    return counts


if __name__ == "__main__":
    sys.exit(main())

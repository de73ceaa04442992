#!/usr/bin/env python3
"""Plants faults one at a time and shows that the tests meant to see each of them do: see faults.toml.

    run.py [--short] [--table] [NAME…]

Each fault is planted in a view of the tree that only its own processes see (an overlay in a mount name space of its own, its
changes in memory): the tree and its dev build, which must be there, stay untouched, and only what a fault touches is built.
Fails when a fault is not caught, when it does not build, when its tests do not all pass without it, and when the text that any
fault replaces, planted this time or not, does not stand exactly once in its file.
"""

import argparse
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import time
import tomllib

HERE = pathlib.Path(__file__).resolve()
ROOT = HERE.parents[2]
BUILD = ROOT / "build" / "dev"
FAULT_SECONDS = 100  # a fault may also show in tests that never end
WHOLE_SECONDS = 1200

# In the name space: mounts the view, then plants, builds and tests.
VIEW = """set -e
mount --make-rprivate /
mount -t tmpfs none "$1"
mkdir "$1/upper" "$1/work"
mount -t overlay overlay -o "lowerdir=$2,upperdir=$1/upper,workdir=$1/work" "$2"
cd "$2"
exec "$3" "$4" --inside "$5"
"""


def load():
    with open(HERE.with_name("faults.toml"), "rb") as file:
        return tomllib.load(file)["fault"]


def misplaced(faults):
    """The faults whose text does not stand exactly once in its file, or that are not told of."""
    counts = {fault["name"]: (ROOT / fault["file"]).read_text(encoding="utf-8").count(fault["old"]) for fault in faults}
    proof = (ROOT / "docs" / "proof.md").read_text(encoding="utf-8")
    return [*(f"{name}: the text to replace stands {count} times in its file" for name, count in counts.items() if count != 1),
            *(f"{fault['name']} is not in docs/proof.md" for fault in faults if f"| {fault['text']} |" not in proof)]


def plant(fault):
    path = ROOT / fault["file"]
    path.write_text(path.read_text(encoding="utf-8").replace(fault["old"], fault["new"]), encoding="utf-8")


def build(program):
    run = subprocess.run(["cmake", "--build", BUILD, "--target", program], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                         text=True, check=False)
    if run.returncode != 0:
        sys.exit(f"{program} does not build:\n{run.stdout[-3000:]}")


def test(program, tests, seconds):
    """The first test that fails, or None; and how many ran."""
    command = [BUILD / "bin" / program, f"--gtest_filter={tests}", "--gtest_color=no", "--gtest_fail_fast"]
    try:
        output = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, cwd=BUILD, text=True, errors="replace",
                                timeout=seconds, check=False).stdout
    except subprocess.TimeoutExpired as late:
        output = (late.stdout or b"").decode(errors="replace")
    begun = re.findall(r"^\[ RUN      \] (\S+)", output, re.MULTILINE)
    passed = set(re.findall(r"^\[       OK \] (\S+)", output, re.MULTILINE))
    return next((name for name in begun if name not in passed), None), len(begun)


def inside(fault):
    plant(fault)
    build(fault["program"])
    failed, _ = test(fault["program"], fault["tests"], FAULT_SECONDS)
    print(failed or "")


def plant_and_test(fault):
    """The name of the first test that fails, empty when none does; and what went wrong."""
    with tempfile.TemporaryDirectory(prefix="qel-mutation.") as folder:
        run = subprocess.run([*AS_ROOT, "unshare", "--mount", "bash", "-c", VIEW, "view", folder, ROOT, sys.executable, HERE,
                              fault["name"]], stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False)
    return run.stdout.strip(), "" if run.returncode == 0 else run.stderr.strip()


def without_faults(faults):
    """All named tests must pass, and there must be some, before a failure of theirs proves anything."""
    filters = {}
    for fault in faults:
        filters.setdefault(fault["program"], []).append(fault["tests"])
    problems = []
    for program, tests in filters.items():
        failed, _ = test(program, ":".join(tests), WHOLE_SECONDS)
        if failed:
            problems.append(f"{failed} of {program} fails without any fault")
    for fault in faults:
        listed = subprocess.run([BUILD / "bin" / fault["program"], f"--gtest_filter={fault['tests']}", "--gtest_list_tests"],
                                capture_output=True, text=True, check=False).stdout
        if "\n  " not in "\n" + listed:
            problems.append(f"{fault['name']}: there is no test {fault['tests']} in {fault['program']}")
    return problems


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--short", action="store_true", help="only the faults marked short")
    parser.add_argument("--table", action="store_true", help="print the outcome as a table for docs/proof.md")
    parser.add_argument("--inside", metavar="NAME", help=argparse.SUPPRESS)
    parser.add_argument("names", metavar="NAME", nargs="*")
    arguments = parser.parse_args()
    faults = load()
    known = {fault["name"]: fault for fault in faults}
    if arguments.inside:
        inside(known[arguments.inside])
        return 0
    for name in arguments.names:
        if name not in known:
            parser.error(f"there is no fault {name}")
    faults = [fault for fault in faults if fault["name"] in arguments.names or
              (not arguments.names and (fault.get("short") or not arguments.short))]
    problems = misplaced(known.values()) or without_faults(faults)
    rows = []
    for fault in [] if problems else faults:
        begin = time.monotonic()
        caught, problem = plant_and_test(fault)
        seconds = time.monotonic() - begin
        if problem:
            problems.append(f"{fault['name']}: {problem}")
        elif not caught:
            problems.append(f"{fault['name']} is not caught by {fault['tests']} of {fault['program']}: {fault['text']}")
        print(f"{fault['name']:34} {'FAILED' if problem else caught or 'NOT CAUGHT':72} {seconds:5.0f} s", flush=True)
        rows.append(f"| {fault['text']} | `{caught}` |")
    if arguments.table:
        print("\n".join(["| planted fault | first test that fails |", "|---|---|", *rows]))
    for problem in problems:
        print(problem)
    print(f"{len(rows) - len(problems)} of {len(faults)} planted faults caught" if rows else "nothing was planted")
    return 1 if problems else 0


AS_ROOT = [] if os.geteuid() == 0 else ["sudo"]
sys.exit(main())

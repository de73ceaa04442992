#!/usr/bin/env python3
"""Holds the report pages against the independent model, on many random logs.

Usage: compare_reports.py WRITE_REPORTS [COUNT]
WRITE_REPORTS is the test program that writes usage, detailed usage and teleradiology pages for each folder.
"""

import json
import pathlib
import subprocess
import sys
import tempfile

import page_reader
import random_logs
import report_model

CHARTS_AND_TABLES = 19 + 3


def latin1(groups):
    def turn(text):
        return text.encode("utf-8").decode("latin-1")

    return {turn(user): [turn(group) for group in names] for user, names in groups.items()}


def write_case(folder, seed):
    interaction, audit, groups = random_logs.make(seed)
    folder.mkdir()
    (folder / "interaction.csv").write_bytes(interaction)
    (folder / "audit.csv").write_bytes(audit)
    lines = [";".join([user] + names) + "\n" for user, names in groups.items()]
    (folder / "groups.txt").write_bytes("".join(lines).encode("utf-8"))


def differences(folder, seed, seen):
    interaction, audit, groups = random_logs.make(seed)
    groups = latin1(groups)
    for name, expected, read in [
            ("usage", report_model.usage(interaction, audit, groups, False), page_reader.charts),
            ("details", report_model.usage(interaction, audit, groups, True), page_reader.charts),
            ("teleradiology", report_model.teleradiology(audit), page_reader.tables)]:
        page = "teleradiology_report.html" if name == "teleradiology" else "usage_report.html"
        found = read((folder / name / page).read_bytes().decode("latin-1"))
        seen.update(shown["title"] for shown in found)
        if found != expected:
            yield name, expected, found


def main():
    program, count = sys.argv[1], int(sys.argv[2]) if len(sys.argv) > 2 else 200
    failures, compared, seen = 0, 0, set()
    with tempfile.TemporaryDirectory() as top:
        folders = [pathlib.Path(top) / str(seed) for seed in range(count)]
        for seed, folder in enumerate(folders):
            write_case(folder, seed)
        subprocess.run([program] + [str(folder) for folder in folders], check=True)
        for seed, folder in enumerate(folders):
            for name, expected, found in differences(folder, seed, seen):
                failures += 1
                print("seed %d, %s:\n expected %s\n found    %s" % (seed, name, json.dumps(expected), json.dumps(found)))
            compared += 1
    print("%d logs compared, %d pages differ, %d kinds of charts and tables seen" % (compared, failures, len(seen)))
    sys.exit(1 if failures or compared < count or len(seen) < CHARTS_AND_TABLES else 0)


main()

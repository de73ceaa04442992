#!/usr/bin/env python3
"""Breaks everything at once, and then counts: no event lost, doubled, altered or attributed to somebody else.

Recorders append numbered, checksummed events at several workstations while their agents forward them to one daemon. A
scheduler kills, stops, cuts, fills, faults and steps clocks. At every checkpoint the damage ends, the queues drain, and
both central logs are compared with the ledger of what was reported as recorded. Fails with the seed to repeat it.
"""

import argparse
import collections
import json
import os
import random
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from entries import EntryComparison  # noqa: E402
from faults import DOWNLOADED, Faults  # noqa: E402
from hospital_site import Site, wait_for  # noqa: E402
from ledger import LOGS, MAYBE, MUST, NEVER, Ledger  # noqa: E402
from proxy import Proxy  # noqa: E402
from recorder import Pace, Recorder  # noqa: E402

MOST_WAITING = 30000  # events of one workstation's queues, beyond which its recorder waits for the agent
MAKING_UP_SECONDS = 120  # at the end, for the kinds of faults that have not happened
KILLS = ("kill_daemon", "kill_agent", "kill_recorder", "kill_tool")


class Torture:
    def __init__(self, arguments):
        self.seed = arguments.seed
        self.minutes = arguments.minutes
        self.checkpoint_seconds = arguments.checkpoint_seconds
        self.work = tempfile.mkdtemp(prefix="qel-torture.", dir=arguments.work)
        self.site = Site(self.work, arguments.binaries, arguments.workstations)
        self.ledger = Ledger(self.site.identities)
        self.settled = self.ledger.settled()  # the states at the last checkpoint
        self.paused = threading.Event()
        self.over = threading.Event()
        self.full_queues = [False] * arguments.workstations
        self.counts = collections.Counter()
        self.counting = threading.Lock()
        self.findings = []
        self.found = 0
        self.recorders = []
        self.random = random.Random(arguments.seed)
        self.rate = arguments.faults_per_minute / 60
        self.pace = Pace(arguments.events_per_second)
        self.problem = None
        self.faults = Faults(self, self.random.random())

    def count(self, what):
        with self.counting:
            self.counts[what] += 1

    def fault(self, text):
        with self.counting:
            self.findings.append(text)

    # ----- comparing

    def compare(self, files, folder, settled):
        """Copies of both logs made while work went on; with `settled`, all that was known then must be there."""
        path = os.path.join(folder, "ledger")
        self.ledger.save(path, settled)
        self.compare_saved(path, files, [] if settled else ["--partly"])

    def compare_saved(self, path, files, options):
        ledger = os.path.join(os.path.dirname(os.path.abspath(__file__)), "ledger.py")
        run = subprocess.run([sys.executable, ledger, path, *files, *options], capture_output=True, text=True, check=False)
        if run.returncode != 0:
            raise RuntimeError(f"comparing {' '.join(files)}: {run.stderr}")
        result = json.loads(run.stdout)
        for text in result["faults"]:
            self.fault(text)
        return result

    def export(self, store, folder):
        files = [os.path.join(folder, f"{log}.csv") for log in LOGS]
        for log, file in zip(LOGS, files):
            self.site.run("export", "--store", store, "--log", log, "--from", "2000", "--to", "2035", "--out", file)
        return files

    def compare_exports(self, store, folder, settled):
        self.compare(self.export(store, folder), folder, settled)

    def look_at_queues(self):
        """With nobody at work: what waits in the queues is whole, and must arrive."""
        waiting = 0
        for station, identity in enumerate(self.site.identities):
            run = self.site.run("queue", "--config", self.site.station_config(identity), "--json", "--show", "1000000000")
            queue = json.loads(run.stdout)
            waiting += queue["count"]
            for log, content in queue["logs"].items():
                events = [event["event"] for event in content["events"]]
                for text in self.ledger.wait_in_queue(station, log, events):
                    self.fault(text)
                if content["damaged"] or content["parked"]:
                    self.fault(f"the {log} queue of workstation {station} kept entries aside")
        return waiting

    def compare_all(self):
        """With nobody at work and empty queues: the exported logs against the ledger, and the ledger settled."""
        self.site.run("store", "prune", "--store", self.site.store_url(), "--log", "audit", "--before", "2020-01-01")
        files = self.export(self.site.store_url(), self.work)
        path = os.path.join(self.work, "ledger")
        self.ledger.save(path)
        result = self.compare_saved(path, files, [])
        if result["old"]:
            self.fault(f"{result['old']} pruned events are still there")
        self.found = result["found"]
        self.ledger.states = Ledger.load(path).states
        self.settled = self.ledger.settled()
        self.site.run("store", "verify", "--store", self.site.store_url())
        return files

    def compare_ways(self, files):
        """The same logs by other ways: the store's entries one by one, and the remote call."""
        entries = EntryComparison(self.site.identities)
        for log, file in zip(LOGS, files):
            for text in entries.compare(self.site.audit, self.site.store_url(), log, file):
                self.fault(text)
        folder = os.path.join(self.work, "download")
        self.site.run("download", "--config", self.site.station_config(self.site.auditor), "--from", "2000", "--to", "2035",
                      "--into", folder)
        for name, file in zip(DOWNLOADED, files):
            # Downloading leaves a trace of its own in the audit trail.
            same = subprocess.run(["bash", "-c", 'cmp <(grep -v ";AuditLogUsed;" "$1") <(grep -v ";AuditLogUsed;" "$2")', "cmp",
                                   os.path.join(folder, name), file], capture_output=True, text=True, check=False)
            if same.returncode != 0:
                self.fault(f"download and export differ: {same.stdout}{same.stderr}")
        shutil.rmtree(folder)

    def read_daemon_log(self):
        with open(self.site.daemon_log, encoding="utf-8", errors="replace") as file:
            for line in file:
                if "overwritten with other content" in line:
                    self.fault(f"daemon.log: {line.strip()}")

    # ----- the run

    def watch_queues(self):
        """Tells the recorders whose queue is long, as a clock beside everything else."""
        while not self.over.wait(2.0):
            for station, identity in enumerate(self.site.identities):
                run = self.site.run("queue", "--config", self.site.station_config(identity), "--json", check=False)
                if run.returncode not in (0, 73, 74, 75):
                    self.fault(f"qel-audit queue: exit {run.returncode}: {run.stderr}")
                elif run.returncode == 0:
                    self.full_queues[station] = json.loads(run.stdout)["count"] > MOST_WAITING

    def injure(self, until):
        while time.monotonic() < until and not self.findings:
            time.sleep(self.random.expovariate(self.rate))
            self.faults.inflict_one()
            self.faults.revive_daemon()
            self.site.ensure_agents()
            self.tell_problem()

    def inflict_missing(self):
        """What chance or a slow machine left out, one after the other: no kind goes unproved."""
        until = time.monotonic() + MAKING_UP_SECONDS
        while self.faults.missing() and time.monotonic() < until and not self.findings:
            for kind in self.faults.missing():
                self.faults.inflict(kind)
                self.faults.revive_daemon()
                self.site.ensure_agents()
                self.tell_problem()
            time.sleep(0.1)

    def tell_problem(self):
        if self.problem:
            raise self.problem
        while self.site.unexpected:
            self.fault(self.site.unexpected.pop())

    def drained(self):
        self.site.ensure_agents()
        return sum(self.waiting(identity) for identity in self.site.identities) == 0

    def waiting(self, identity):
        return json.loads(self.site.run("queue", "--config", self.site.station_config(identity), "--json").stdout)["count"]

    def checkpoint(self):
        begin = time.monotonic()
        self.paused.set()
        self.faults.heal()
        self.faults.revive_daemon()
        time.sleep(0.2)  # a recorder that saw no pause a moment ago is busy by now
        wait_for("the recorders to finish", lambda: not any(recorder.busy for recorder in self.recorders), 300)
        self.site.end_agents()
        waiting = self.look_at_queues()
        self.site.ensure_agents()
        wait_for("the queues to drain", self.drained, 600, pause=0.5)
        files = self.compare_all()
        self.tell_problem()
        print(f"checkpoint: {self.ledger.taken()} events begun, {waiting} of them in queues, {self.found} arrived, "
              f"{sum(self.counts[kill] for kill in KILLS)} kills, {len(self.findings)} faults, "
              f"{time.monotonic() - begin:.0f} s", flush=True)
        return files

    def run(self):
        self.site.make()
        self.site.start_daemon()
        self.site.proxy = Proxy(self.site.daemon_port)
        self.site.point_at(self.site.proxy.port)
        self.site.ensure_agents()
        for station in range(len(self.site.identities)):
            recorder = Recorder(self, station, self.random.random())
            self.recorders.append(recorder)
            recorder.start()
        threading.Thread(target=self.watch_queues, daemon=True).start()
        end = time.monotonic() + self.minutes * 60
        files = []
        while not self.findings and time.monotonic() < end:
            self.paused.clear()
            self.injure(min(end, time.monotonic() + self.checkpoint_seconds))
            files = self.checkpoint()
        if not self.findings and self.faults.missing():
            self.paused.clear()
            self.inflict_missing()
            files = self.checkpoint()
        if not self.findings:
            begin = time.monotonic()
            self.compare_ways(files)
            print(f"compared with the store's entries and a download, {time.monotonic() - begin:.0f} s", flush=True)
        self.read_daemon_log()
        for kind in self.faults.missing():
            self.fault(f"{kind.name} never happened: the run was too short")

    def summary(self):
        kills = sum(self.counts[kill] for kill in KILLS)
        print(f"seed {self.seed}, {self.minutes:g} min: {self.found} events, {kills} kills of processes at work, "
              f"{self.site.io.happened()} failed writes or flushes, {len(self.findings)} faults found")
        print(f"  {'reported as recorded or found':36} {self.ledger.count(MUST)}")
        print(f"  {'of killed or failed recorders, gone':36} {self.ledger.count(NEVER)}")
        print(f"  {'not yet known':36} {self.ledger.count(MAYBE)}")
        for name, count in sorted(self.counts.items()):
            print(f"  {name:36} {count}")
        for kind in self.faults.kinds:
            if not self.faults.possible(kind):
                print(f"  not possible here: {kind.name}")
        for text in self.findings:
            print(f"FAULT: {text}")

    def close(self, keep):
        self.over.set()
        for recorder in self.recorders:
            recorder.stopping = True
        self.paused.set()
        if self.findings:
            # The disks are in memory and go with the mounts: keep what they hold.
            self.site.stop_everything()
            for disk in (self.site.central_disk, self.site.queue_disk):
                if disk.mounted:
                    shutil.copytree(disk.folder, disk.folder + ".kept", dirs_exist_ok=True)
            print(f"repeat with --seed {self.seed}; everything is kept in {self.work}")
        self.site.close()
        if not self.findings and not keep:
            shutil.rmtree(self.work, ignore_errors=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--binaries", required=True)
    parser.add_argument("--minutes", type=float, default=3)
    parser.add_argument("--seed", type=int, default=None)
    parser.add_argument("--workstations", type=int, default=4)
    parser.add_argument("--faults-per-minute", type=float, default=170)
    parser.add_argument("--checkpoint-seconds", type=float, default=60)
    parser.add_argument("--events-per-second", type=float, default=4300)
    parser.add_argument("--work", default=None)
    parser.add_argument("--keep", action="store_true", help="keep the folder even when all went well")
    arguments = parser.parse_args()
    if arguments.seed is None:
        arguments.seed = random.SystemRandom().randrange(1 << 32)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit("ended by a signal"))
    torture = Torture(arguments)
    try:
        torture.run()
    except Exception as problem:  # whatever stopped the run, the seed and the folder must be told
        torture.fault(f"{type(problem).__name__}: {problem}")
        raise
    finally:
        torture.summary()
        torture.close(arguments.keep)
        print("0 passed, 1 failed" if torture.findings else "1 passed, 0 failed", flush=True)
    return 1 if torture.findings else 0


sys.exit(main())

#!/usr/bin/env python3
"""Breaks everything at once, and then counts: no event lost, doubled, altered or attributed to somebody else.

Recorders append numbered, checksummed events at several workstations while their agents forward them to one daemon. A
scheduler kills, stops, cuts, fills, faults and steps clocks. At every checkpoint the damage ends, the queues drain, and
both central logs are compared with the ledger of what was reported as recorded. Fails with the seed to repeat it.
"""

import argparse
import collections
import itertools
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
from ledger import LOGS, Comparison, Ledger  # noqa: E402
from proxy import Proxy  # noqa: E402
from hospital_site import Site, wait_for  # noqa: E402

FAKETIME = "/usr/lib/x86_64-linux-gnu/faketime/libfaketime.so.1"
CLOCK_STEPS = ["-1d", "-3h", "-61s", "+45s", "+2h", "+5d"]
OLD = "2019-05-01T00:00:00"  # events of the past that pruning takes away


class Recorder(threading.Thread):
    """Appends batch after batch at one workstation; what its process reported with exit code 0 counts as recorded."""

    def __init__(self, torture, station, seed):
        super().__init__(daemon=True)
        self.torture = torture
        self.station = station
        self.random = random.Random(seed)
        self.process = None
        self.busy = False
        self.stopping = False
        self.clock_step = None

    def run(self):
        while not self.stopping:
            self.busy = True
            if not self.torture.paused.is_set():
                self.batch()
            self.busy = False
            time.sleep(0.01)

    def batch(self):
        site, ledger = self.torture.site, self.torture.ledger
        log = self.random.choice(LOGS)
        numbers = ledger.take(self.station, log, self.random.choice([1, 20, 400, 2000, 5000]))
        self.torture.pace(len(numbers))
        text = "".join(ledger.line(self.station, log, number) for number in numbers)
        environment = site.environment()
        if self.clock_step is not None:
            environment["LD_PRELOAD"] += ":" + FAKETIME
            environment["FAKETIME"] = self.clock_step
            environment["FAKETIME_DONT_FAKE_MONOTONIC"] = "1"
        self.process = subprocess.Popen(
            [site.audit, "record", "--config", site.station_config(site.identities[self.station]), "--log", log, "--from", "-",
             "--quiet"], stdin=subprocess.PIPE, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True, env=environment)
        _, errors = self.process.communicate(text)
        if self.process.returncode == 0:
            ledger.report(self.station, log, numbers)
        else:
            self.torture.count(f"recorder exit {self.process.returncode}")
            if self.process.returncode not in (-signal.SIGKILL, 73, 74, 75):
                self.torture.note(f"recorder of workstation {self.station}: exit {self.process.returncode}: {errors.strip()[-300:]}")
                time.sleep(0.2)


class Torture:
    def __init__(self, arguments):
        self.random = random.Random(arguments.seed)
        self.seed = arguments.seed
        self.minutes = arguments.minutes
        self.checkpoint_seconds = arguments.checkpoint_seconds
        self.work = tempfile.mkdtemp(prefix="qel-torture.", dir=arguments.work)
        self.site = Site(self.work, arguments.binaries, arguments.workstations)
        self.ledger = Ledger(arguments.workstations)
        self.paused = threading.Event()
        self.counts = collections.Counter()
        self.notes = []
        self.recorders = []
        self.proxy = None
        self.can_fake_time = os.path.exists(FAKETIME)
        self.generations = itertools.count()
        self.rate = arguments.faults_per_minute / 60
        self.events_per_second = arguments.events_per_second
        self.allowance = 0.0
        self.allowance_time = time.monotonic()
        self.pacing = threading.Lock()
        self.daemon_lock = threading.RLock()
        self.lasting = []
        self.problem = None

    def pace(self, count):
        """Holds a recorder back so that all together keep to the rate that was asked for."""
        with self.pacing:
            now = time.monotonic()
            self.allowance = min(self.allowance + (now - self.allowance_time) * self.events_per_second, 2 * self.events_per_second)
            self.allowance_time = now
            self.allowance -= count
            debt = -self.allowance
        if debt > 0:
            time.sleep(debt / self.events_per_second)

    def count(self, what):
        self.counts[what] += 1

    def note(self, text):
        if len(self.notes) < 200:
            self.notes.append(text)

    # ----- the faults; each returns False when it cannot happen here

    def kill_daemon(self):
        with self.daemon_lock:
            self.site.end_daemon(signal.SIGKILL)
            time.sleep(self.random.choice([0, 0, 0.05, 0.5]))
            self.revive_daemon()

    def revive_daemon(self):
        with self.daemon_lock:
            self.site.ensure_daemon()
            self.proxy.target = ("127.0.0.1", self.site.daemon_port)

    def restart_daemon_otherwise(self):
        """The daemon ends in an orderly way and comes back with other limits."""
        with self.daemon_lock:
            self.site.end_daemon(signal.SIGTERM)
            self.site.edit(self.site.config, "idle_seconds", str(self.random.choice([60, 90, 120])))
            self.site.edit(self.site.config, "frame_bytes", str(self.random.choice([1 << 20, 1 << 21])))
            self.revive_daemon()

    def stop_process(self, process):
        if process is None or process.poll() is not None:
            return False
        process.send_signal(signal.SIGSTOP)
        time.sleep(self.random.uniform(0.1, 2.0))
        process.send_signal(signal.SIGCONT)
        return True

    def stop_daemon(self):
        return self.stop_process(self.site.daemon)

    def kill_agent(self):
        index = self.random.randrange(len(self.site.agents))
        agent = self.site.agents[index]
        if agent is not None and agent.poll() is None:
            agent.kill()
            agent.wait()
        self.site.start_agent(index)

    def stop_agent(self):
        return self.stop_process(self.random.choice(self.site.agents))

    def running_recorder(self):
        """The process of a recorder in the middle of its work; they are short, so this waits for one."""
        for _ in range(200):
            process = self.random.choice(self.recorders).process
            if process is not None and process.poll() is None:
                return process
            time.sleep(0.005)
        return None

    def kill_recorder(self):
        process = self.running_recorder()
        if process is None:
            return False
        time.sleep(self.random.choice([0, 0.002, 0.01, 0.03]))
        process.kill()
        return True

    def stop_recorder(self):
        return self.stop_process(self.running_recorder())

    def cut_connections(self):
        self.proxy.cut()

    def delay_connections(self):
        self.proxy.delay = self.random.uniform(0.01, 0.3)
        time.sleep(self.random.uniform(0.5, 2.0))
        self.proxy.delay = 0.0

    def block_connections(self):
        self.proxy.blocked = True
        time.sleep(self.random.uniform(0.5, 3.0))
        self.proxy.blocked = False

    def fill_disk(self, disk):
        if not disk.fill():
            return False
        time.sleep(self.random.uniform(0.3, 2.0))
        disk.free()
        return True

    def fill_central_disk(self):
        return self.fill_disk(self.site.central_disk)

    def fill_queue_disk(self):
        return self.fill_disk(self.site.queue_disk)

    def fail_writes(self):
        """EIO, ENOSPC or half a write, at a call soon to come, in whichever process makes it."""
        self.site.io.plan(self.random.randrange(1, 200), self.random.choice([1, 2, 3]), self.random.choice([1, 1, 2, 5]))

    def step_clock(self):
        if not self.can_fake_time:
            return False
        self.random.choice(self.recorders).clock_step = self.random.choice([None, *CLOCK_STEPS])
        return True

    def renew_certificate(self):
        """A new certificate and key for one workstation, put in place under the running agent."""
        identity = self.random.choice(self.site.identities)
        fresh = os.path.join(self.work, f"renewed{next(self.generations)}")
        self.site.run("enroll", self.site.folder, "--user", identity[0], "--device", identity[1], "--out", fresh)
        for name in ("workstation.key", "workstation.crt"):
            path = os.path.join(self.site.station(identity), name)
            shutil.copy2(os.path.join(fresh, name), path + ".new")
            os.replace(path + ".new", path)
        shutil.rmtree(fresh)

    def reload_daemon(self):
        self.site.daemon.send_signal(signal.SIGHUP)

    def back_up(self):
        """A copy of the store in use must be whole: it is restored and verified."""
        folder = os.path.join(self.work, f"backup{next(self.generations)}")
        os.makedirs(folder)
        copy, restored = os.path.join(folder, "store.backup"), "lmdb:" + os.path.join(folder, "store")
        run = self.site.run("store", "backup", "--store", self.store_url(), "--out", copy, check=False)
        # Its trace in the audit trail needs the disk that another fault may have filled.
        if run.returncode not in (0, 74, 75):
            raise RuntimeError(f"store backup: exit {run.returncode}: {run.stderr}")
        if run.returncode == 0:
            self.site.run("store", "restore", "--from", copy, "--store", restored)
            self.site.run("store", "verify", "--store", restored)
        shutil.rmtree(folder)

    def prune_old(self):
        """Records events of years ago, lets them arrive, and prunes them while new ones are written."""
        identity = self.random.choice(self.site.identities)
        lines = "".join(json.dumps({"time": f"{OLD}.{number:06d}Z", "event": ["OldEvent", number]}) + "\n" for number in range(200))
        run = self.site.run("record", "--config", self.site.station_config(identity), "--log", "audit", "--replay", "--from", "-",
                            input=lines, check=False)
        if run.returncode != 0:
            return False
        self.site.run("store", "prune", "--store", self.store_url(), "--log", "audit", "--before", "2020-01-01", check=False)
        return True

    def download(self):
        folder = os.path.join(self.work, f"download{next(self.generations)}")
        run = self.site.run("download", "--config", self.site.station_config(self.site.auditor), "--from", "2020", "--to", "2035",
                            "--into", folder, check=False, timeout=300)
        if run.returncode not in (0, 69, 74, 75):
            raise RuntimeError(f"download: exit {run.returncode}: {run.stderr}")
        shutil.rmtree(folder, ignore_errors=True)

    def faults(self):
        """Each with its weight, and whether it lasts: those run beside the others."""
        return [
            (self.kill_daemon, 16, False), (self.restart_daemon_otherwise, 2, False), (self.stop_daemon, 3, True),
            (self.kill_agent, 24, False), (self.stop_agent, 4, True), (self.kill_recorder, 24, False),
            (self.stop_recorder, 4, True), (self.cut_connections, 8, False), (self.delay_connections, 2, True),
            (self.block_connections, 2, True), (self.fill_central_disk, 2, True), (self.fill_queue_disk, 2, True),
            (self.fail_writes, 8, False), (self.step_clock, 4, False), (self.renew_certificate, 2, True),
            (self.reload_daemon, 2, False), (self.back_up, 1, True), (self.prune_old, 1, True), (self.download, 1, True),
        ]

    # ----- the run

    def store_url(self):
        return "lmdb:" + os.path.join(self.site.folder, "store")

    def injure(self, until):
        faults = self.faults()
        weights = [weight for _, weight, _ in faults]
        while time.monotonic() < until:
            time.sleep(self.random.expovariate(self.rate))
            fault, _, lasts = self.random.choices(faults, weights)[0]
            self.lasting = [thread for thread in self.lasting if thread.is_alive()]
            if not lasts:
                self.inflict(fault)
            elif len(self.lasting) < 3:
                thread = threading.Thread(target=self.inflict, args=(fault,), daemon=True)
                self.lasting.append(thread)
                thread.start()
            self.revive_daemon()
            self.site.ensure_agents()
            if self.problem:
                raise self.problem

    def inflict(self, fault):
        try:
            if fault() is not False:
                self.count(fault.__name__)
        except Exception as problem:  # told by the main thread
            self.problem = problem

    def heal(self):
        for thread in self.lasting:
            thread.join(400)
        self.site.io.clear()
        self.site.central_disk.free()
        self.site.queue_disk.free()
        self.proxy.blocked = False
        self.proxy.delay = 0.0
        self.revive_daemon()
        self.site.ensure_agents()
        if self.problem:
            raise self.problem

    def recorders_idle(self):
        return not any(recorder.busy for recorder in self.recorders)

    def waiting(self):
        total = 0
        for identity in self.site.identities:
            run = self.site.run("queue", "--config", self.site.station_config(identity), "--json")
            total += json.loads(run.stdout)["count"]
        return total

    def drained(self):
        self.site.ensure_agents()
        return self.waiting() == 0

    def checkpoint(self):
        self.paused.set()
        self.heal()
        time.sleep(0.2)  # a recorder that saw no pause a moment ago is busy by now
        wait_for("the recorders to finish", self.recorders_idle, 120)
        wait_for("the queues to drain", self.drained, 300)
        comparison = Comparison(self.ledger, self.site.identities)
        for log in LOGS:
            path = os.path.join(self.work, f"{log}.csv")
            self.site.run("export", "--store", self.store_url(), "--log", log, "--from", "2020", "--to", "2035", "--out", path)
            comparison.read(log, path)
            os.remove(path)
        faults = comparison.finish()
        self.site.run("store", "verify", "--store", self.store_url())
        print(f"checkpoint: {self.ledger.reported()} reported, {self.ledger.taken()} begun, {comparison.found} found, "
              f"{len(faults)} faults", flush=True)
        self.paused.clear()
        return faults

    def run(self):
        self.site.make()
        self.site.start_daemon()
        self.proxy = Proxy(("127.0.0.1", self.site.daemon_port))
        self.site.point_at(self.proxy.port)
        self.site.ensure_agents()
        for station in range(len(self.site.identities)):
            recorder = Recorder(self, station, self.random.random())
            self.recorders.append(recorder)
            recorder.start()
        end = time.monotonic() + self.minutes * 60
        faults = []
        while not faults and time.monotonic() < end:
            self.injure(min(end, time.monotonic() + self.checkpoint_seconds))
            faults = self.checkpoint()
        for recorder in self.recorders:
            recorder.stopping = True
        return faults

    def summary(self, faults):
        kills = sum(self.counts[name] for name in ("kill_daemon", "kill_agent", "kill_recorder"))
        print(f"seed {self.seed}, {self.minutes} min: {self.ledger.reported()} events, {kills} kills, "
              f"{self.site.io.happened()} failed writes or flushes, {len(faults)} faults found")
        for name, count in sorted(self.counts.items()):
            print(f"  {name:28} {count}")
        for text in self.notes[:20]:
            print(f"  note: {text}")
        for text in faults:
            print(f"FAULT: {text}")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--binaries", required=True)
    parser.add_argument("--minutes", type=float, default=3)
    parser.add_argument("--seed", type=int, default=None)
    parser.add_argument("--workstations", type=int, default=3)
    parser.add_argument("--faults-per-minute", type=float, default=90)
    parser.add_argument("--checkpoint-seconds", type=float, default=60)
    parser.add_argument("--events-per-second", type=float, default=5000)
    parser.add_argument("--work", default=None)
    parser.add_argument("--keep", action="store_true", help="keep the folder even when all went well")
    arguments = parser.parse_args()
    if arguments.seed is None:
        arguments.seed = random.SystemRandom().randrange(1 << 32)
    torture = Torture(arguments)
    failed = True
    try:
        faults = torture.run()
        torture.summary(faults)
        failed = bool(faults)
    except Exception as problem:  # whatever stopped the run, the seed and the folder must be told
        torture.summary([f"{type(problem).__name__}: {problem}"])
        raise
    finally:
        if failed:
            # The disks are in memory and go with the mounts: keep what they hold.
            torture.site.stop_everything()
            for disk in (torture.site.central_disk, torture.site.queue_disk):
                if disk.mounted:
                    shutil.copytree(disk.folder, disk.folder + ".kept", dirs_exist_ok=True)
            print(f"repeat with --seed {torture.seed}; everything is kept in {torture.work}")
        torture.site.close()
        if torture.proxy is not None:
            torture.proxy.stop()
        if not failed and not arguments.keep:
            shutil.rmtree(torture.work, ignore_errors=True)
    print("1 passed, 0 failed" if not failed else "0 passed, 1 failed")
    return 1 if failed else 0


sys.exit(main())

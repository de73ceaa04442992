"""What the workstations' viewers do: append batch after batch, in processes of their own."""

import contextlib
import os
import random
import signal
import subprocess
import threading
import time

from ledger import LOGS

FAKETIME = "/usr/lib/x86_64-linux-gnu/faketime/libfaketime.so.1"
BATCHES = [1, 20, 400, 2000, 5000]


def sweep_clocks():
    """Takes away what killed processes with a stepped clock left: a later one that gets the number of one of them could not start."""
    for name in os.listdir("/dev/shm"):
        kind, _, number = name.rpartition("_")
        if kind in ("faketime_shm", "sem.faketime_sem") and not os.path.exists(f"/proc/{number}"):
            with contextlib.suppress(OSError):
                os.unlink(f"/dev/shm/{name}")


class Pace:
    """Holds recorders back so that all together keep to a rate of events, and to what the queues can take."""

    def __init__(self, events_per_second):
        self.rate = events_per_second
        self.allowance = 0.0
        self.time = time.monotonic()
        self.lock = threading.Lock()

    def wait(self, count):
        with self.lock:
            now = time.monotonic()
            self.allowance = min(self.allowance + (now - self.time) * self.rate, 10 * self.rate) - count
            self.time = now
            debt = -self.allowance
        if debt > 0:
            time.sleep(debt / self.rate)


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
            if not self.torture.paused.is_set() and not self.torture.full_queues[self.station]:
                self.batch()
            self.busy = False
            time.sleep(0.01)

    def batch(self):
        site, ledger = self.torture.site, self.torture.ledger
        log = self.random.choice(LOGS)
        numbers = ledger.take(self.station, log, self.random.choice(BATCHES))
        self.torture.pace.wait(len(numbers))
        text = "".join([ledger.line(self.station, log, number) for number in numbers])
        self.process = subprocess.Popen(
            [site.audit, "record", "--config", site.station_config(site.identities[self.station]), "--log", log, "--from", "-",
             "--quiet"], stdin=subprocess.PIPE, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True,
            env=site.environment(self.clock_step))
        _, errors = self.process.communicate(text)
        code = self.process.returncode
        if code == 0:
            ledger.report(self.station, log, numbers)
        elif code != -signal.SIGKILL:
            self.torture.count(f"recorder exit {code}")
            if code not in (73, 74, 75):
                self.torture.fault(f"recorder of workstation {self.station}: exit {code}: {errors.strip()[-300:]}")

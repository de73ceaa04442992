"""What is done to the site: every kind of fault, and whom it meets."""

import datetime
import itertools
import os
import random
import shutil
import signal
import subprocess
import threading
import time

from ledger import OLD_EVENT
from recorder import FAKETIME

CLOCK_STEPS = ["-1d", "-3h", "-61s", "+45s", "+2h", "+5d"]
SMALL_CLOCK_STEPS = ["-61s", "+45s", "+2h"]  # those that the certificates' dates bear
BUSY_NANOSECONDS = 500_000
DOWNLOADED = ("constancy_export.csv", "audit_export.csv")  # the interaction log and the audit trail


def processor_time(pid):
    """Nanoseconds that all threads of a process ran or waited for a processor."""
    total = 0
    try:
        for thread in os.listdir(f"/proc/{pid}/task"):
            with open(f"/proc/{pid}/task/{thread}/schedstat", encoding="ascii") as file:
                ran, waited, _ = file.read().split()
                total += int(ran) + int(waited)
    except (OSError, ValueError):
        pass
    return total


def is_at_work(pid):
    """Whether it used the processor in the last five milliseconds."""
    begin = processor_time(pid)
    time.sleep(0.005)
    return processor_time(pid) - begin >= BUSY_NANOSECONDS


class Kind:
    """One kind of fault. A lasting one runs beside the others; a heavy one may take a tenth of the time at most."""

    def __init__(self, function, weight, lasting=False, heavy=False):
        self.function = function
        self.name = function.__name__
        self.weight = weight
        self.lasting = lasting
        self.heavy = heavy
        self.running = False
        self.not_before = 0.0


class Faults:
    """A fault's function returns False when it did not happen: nobody was busy, or this machine does not allow it."""

    def __init__(self, torture, seed):
        self.torture = torture
        self.site = torture.site
        self.random = random.Random(seed)
        self.generations = itertools.count(1)
        self.daemon_lock = threading.RLock()
        self.threads = []
        self.diary = os.path.join(torture.work, "faults.log")
        self.durations = {}
        self.kinds = [
            Kind(self.kill_daemon, 14), Kind(self.restart_daemon_otherwise, 2), Kind(self.stop_daemon, 3, lasting=True),
            Kind(self.kill_agent, 28), Kind(self.stop_agent, 4, lasting=True), Kind(self.kill_recorder, 28),
            Kind(self.stop_recorder, 4, lasting=True), Kind(self.cut_connections, 8),
            Kind(self.delay_connections, 2, lasting=True), Kind(self.block_connections, 2, lasting=True),
            Kind(self.fill_central_disk, 2, lasting=True), Kind(self.fill_queue_disk, 2, lasting=True),
            Kind(self.fail_writes, 8), Kind(self.step_recorder_clock, 4), Kind(self.step_agent_clock, 2),
            Kind(self.step_daemon_clock, 1), Kind(self.renew_workstation, 2, lasting=True),
            Kind(self.renew_server, 1, lasting=True), Kind(self.reload_daemon, 2),
            Kind(self.back_up, 2, lasting=True, heavy=True), Kind(self.prune, 2, lasting=True),
            Kind(self.download_all, 1, lasting=True, heavy=True), Kind(self.download_some, 1, lasting=True, heavy=True),
        ]

    # ----- how they are inflicted

    def possible(self, kind):
        if kind.name.startswith("fill_"):
            return self.site.central_disk.mounted
        return not kind.name.startswith("step_") or os.path.exists(FAKETIME)

    def missing(self):
        """The kinds that could have happened and did not yet."""
        return [kind for kind in self.kinds if not self.torture.counts[kind.name] and self.possible(kind)]

    def choose(self):
        """One that has not happened yet, half of the time; else one by weight."""
        now = time.monotonic()
        self.threads = [thread for thread in self.threads if thread.is_alive()]
        ready = [kind for kind in self.kinds if not kind.running and now >= kind.not_before and self.possible(kind) and
                 (not kind.lasting or len(self.threads) < 4)]
        fresh = [kind for kind in ready if not self.torture.counts[kind.name]]
        if fresh and self.random.random() < 0.5:
            return self.random.choice(fresh)
        return self.random.choices(ready, [kind.weight for kind in ready])[0]

    def inflict_one(self):
        kind = self.choose()
        kind.running = True
        if not kind.lasting:
            self.inflict(kind)
        else:
            thread = threading.Thread(target=self.inflict, args=(kind,), daemon=True)
            self.threads.append(thread)
            thread.start()

    def inflict(self, kind):
        begin = time.monotonic()
        happened = False
        try:
            happened = kind.function() is not False
            if happened:
                self.torture.count(kind.name)
        except Exception as problem:  # told by the main thread
            self.torture.problem = problem
        end = time.monotonic()
        with open(self.diary, "a", encoding="utf-8") as diary:
            diary.write(f"{time.strftime('%H:%M:%S')} {kind.name}: {end - begin:.1f} s{'' if happened else ', did not happen'}\n")
        if kind.heavy:
            kind.not_before = end + 10 * (end - begin)
        kind.running = False

    def heal(self):
        for thread in self.threads:
            thread.join(600)
        self.site.io.clear()
        self.site.central_disk.free()
        self.site.queue_disk.free()
        self.site.proxy.tell("block 0")
        self.site.proxy.tell("delay 0")

    # ----- kills

    def kill(self, process):
        """In the midst of its work: False when it had none within a second."""
        end = time.monotonic() + 1.0
        while process.poll() is None and time.monotonic() < end:
            if is_at_work(process.pid):
                if process.poll() is not None:
                    return False
                process.kill()
                return True
        return False

    def kill_daemon(self):
        with self.daemon_lock:
            if not self.kill(self.site.daemon):
                return False
            self.site.daemon.wait()
            time.sleep(self.random.choice([0, 0, 0.05, 0.5]))
            self.revive_daemon()
        return True

    def revive_daemon(self, clock_step=None):
        with self.daemon_lock:
            self.site.ensure_daemon(clock_step)

    def restart_daemon(self, clock_step=None):
        with self.daemon_lock:
            self.site.end_daemon(signal.SIGTERM)
            self.revive_daemon(clock_step)

    def restart_daemon_otherwise(self):
        """The daemon ends in an orderly way and comes back with other limits."""
        with self.daemon_lock:
            self.site.end_daemon(signal.SIGTERM)
            try:
                self.site.edit(self.site.config, "idle_seconds", str(self.random.choice([60, 90, 120])))
                self.site.edit(self.site.config, "frame_bytes", str(self.random.choice([1 << 20, 1 << 21])))
            except OSError:  # the disk is full at the moment
                return False
            finally:
                self.revive_daemon()
        return True

    def kill_agent(self):
        index = self.random.randrange(len(self.site.agents))
        agent = self.site.agents[index]
        if agent is None or not self.kill(agent):
            return False
        agent.wait()
        self.site.start_agent(index)
        return True

    def running_recorder(self):
        """The process of a recorder in the middle of its work; they are short, so this waits for one."""
        for _ in range(200):
            process = self.random.choice(self.torture.recorders).process
            if process is not None and process.poll() is None:
                return process
            time.sleep(0.005)
        return None

    def kill_recorder(self):
        process = self.running_recorder()
        if process is None:
            return False
        time.sleep(self.random.choice([0, 0.002, 0.01, 0.03]))
        if process.poll() is not None or not is_at_work(process.pid) or process.poll() is not None:
            return False
        process.kill()
        return True

    # ----- stops

    def stop_process(self, process):
        if process is None or process.poll() is not None:
            return False
        process.send_signal(signal.SIGSTOP)
        time.sleep(self.random.uniform(0.1, 2.0))
        process.send_signal(signal.SIGCONT)
        return True

    def stop_daemon(self):
        return self.stop_process(self.site.daemon)

    def stop_agent(self):
        return self.stop_process(self.random.choice(self.site.agents))

    def stop_recorder(self):
        return self.stop_process(self.running_recorder())

    # ----- the network

    def cut_connections(self):
        self.site.proxy.tell("cut")

    def delay_connections(self):
        self.site.proxy.tell(f"delay {self.random.uniform(0.01, 0.3)}")
        time.sleep(self.random.uniform(0.5, 2.0))
        self.site.proxy.tell("delay 0")

    def block_connections(self):
        self.site.proxy.tell("block 1")
        time.sleep(self.random.uniform(0.5, 3.0))
        self.site.proxy.tell("block 0")

    # ----- the disks

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

    # ----- the clocks

    def step_recorder_clock(self):
        self.random.choice(self.torture.recorders).clock_step = self.random.choice([None, *CLOCK_STEPS])

    def step_agent_clock(self):
        index = self.random.randrange(len(self.site.agents))
        self.site.end_agent(index, signal.SIGTERM)
        self.site.start_agent(index, self.random.choice(SMALL_CLOCK_STEPS))

    def step_daemon_clock(self):
        self.restart_daemon(self.random.choice(SMALL_CLOCK_STEPS))

    # ----- certificates

    def renew_workstation(self):
        """A new certificate and key for one workstation, put in place under the running agent."""
        identity = self.random.choice(self.site.identities)
        fresh = os.path.join(self.torture.work, f"renewed{next(self.generations)}")
        try:
            self.site.run("enroll", self.site.folder, "--user", identity[0], "--device", identity[1], "--out", fresh)
            for name in ("workstation.key", "workstation.crt"):
                path = os.path.join(self.site.station(identity), name)
                shutil.copy2(os.path.join(fresh, name), path + ".new")
                os.replace(path + ".new", path)
        except (OSError, RuntimeError):  # the disk is full at the moment
            return False
        finally:
            shutil.rmtree(fresh, ignore_errors=True)
        return True

    def renew_server(self):
        if self.site.run("renew", self.site.folder, check=False).returncode != 0:
            return False  # the disk is full at the moment
        self.reload_daemon()
        return True

    def reload_daemon(self):
        with self.daemon_lock:  # one that is only being started knows the signal not yet
            self.site.daemon.send_signal(signal.SIGHUP)

    # ----- tools that work on the store in use; one of four is killed on the way

    def tool(self, name, *arguments):
        """Its exit code, or None when it was killed."""
        begin = time.monotonic()
        process = subprocess.Popen([self.site.audit, *arguments], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                   stderr=subprocess.PIPE, text=True)
        patience = self.random.uniform(0, self.durations.get(name, 0.2)) if self.random.random() < 0.25 else 600
        try:
            errors = process.communicate(timeout=patience)[1]
        except subprocess.TimeoutExpired:
            process.kill()
            process.communicate()
            if patience == 600:
                raise
            self.torture.count("kill_tool")
            return None
        self.durations[name] = time.monotonic() - begin
        # Nothing is expected of them while a disk is full or the service away, but that they say so.
        if process.returncode not in (0, 69, 73, 74, 75):
            raise RuntimeError(f"qel-audit {' '.join(arguments)}: exit {process.returncode}: {errors}")
        return process.returncode

    def back_up(self):
        """A copy of the store in use is whole: restored, it verifies and holds what was there when it was begun."""
        folder = os.path.join(self.torture.work, f"backup{next(self.generations)}")
        os.makedirs(folder)
        settled = self.torture.settled
        copy, restored = os.path.join(folder, "store.backup"), "lmdb:" + os.path.join(folder, "store")
        done = self.tool("backup", "store", "backup", "--store", self.site.store_url(), "--out", copy) == 0
        # A backup that was killed left no file, or a whole one.
        if os.path.exists(copy):
            self.site.run("store", "restore", "--from", copy, "--store", restored)
            self.site.run("store", "verify", "--store", restored)
            os.remove(copy)
            self.torture.compare_exports(restored, folder, settled)
        elif done:
            raise RuntimeError(f"{copy} is not there after its backup")
        shutil.rmtree(folder)
        return done

    def prune(self):
        """Records events of years ago, lets them arrive or not, and prunes them while new ones are written."""
        identity = self.random.choice(self.site.identities)
        second = (datetime.datetime(2019, 5, 1) + datetime.timedelta(seconds=next(self.generations))).isoformat()
        lines = "".join(f'{{"time":"{second}.{number:06d}Z","event":["{OLD_EVENT}",{number}]}}\n' for number in range(200))
        run = self.site.run("record", "--config", self.site.station_config(identity), "--log", "audit", "--replay", "--from", "-",
                            input=lines, check=False)
        if run.returncode != 0:
            return False
        time.sleep(self.random.uniform(0.0, 0.5))
        return self.tool("prune", "store", "prune", "--store", self.site.store_url(), "--log", "audit", "--before", "2020-01-01") == 0

    def download(self, first, settled):
        folder = os.path.join(self.torture.work, f"download{next(self.generations)}")
        done = self.tool("download", "download", "--config", self.site.station_config(self.site.auditor), "--from", first,
                         "--to", "2035", "--into", folder) == 0
        if done:
            self.torture.compare([os.path.join(folder, name) for name in DOWNLOADED], folder, settled)
        shutil.rmtree(folder, ignore_errors=True)
        return done

    def download_all(self):
        """Holds at least what was there when it was begun."""
        return self.download("2020", self.torture.settled)

    def download_some(self):
        """A range that begins a moment ago: whole lines, none altered, none twice."""
        first = time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(time.time() - self.random.uniform(0, 60)))
        return self.download(first, None)

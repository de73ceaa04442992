"""A real site below one folder: daemon, workstations with their agents and recorders, disks that can be filled."""

import os
import re
import shutil
import signal
import struct
import subprocess
import mmap
import time

from recorder import FAKETIME, sweep_clocks


def wait_for(what, condition, seconds=60.0, pause=0.05):
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            raise TimeoutError(f"waited {seconds:.0f} s for {what}")
        time.sleep(pause)


class FaultIo:
    """The harness's end of faultio.cpp."""

    def __init__(self, path):
        self.path = path
        with open(path, "wb") as file:
            file.write(bytes(4096))
        with open(path, "r+b") as file:
            self.memory = mmap.mmap(file.fileno(), 4096)

    def plan(self, calls, kind, count):
        struct.pack_into("<4I", self.memory, 0, 0, kind, count, self.happened())
        struct.pack_into("<I", self.memory, 0, calls)

    def clear(self):
        struct.pack_into("<I", self.memory, 0, 0)

    def happened(self):
        return struct.unpack_from("<I", self.memory, 12)[0]


class Disk:
    """A file system of its own where mounting is allowed, else a plain folder that cannot be filled."""

    def __init__(self, folder, megabytes):
        self.folder = folder
        self.megabytes = megabytes
        os.makedirs(folder)
        run = subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={megabytes}m,mode=0755", "none", folder],
                             capture_output=True, check=False)
        self.mounted = run.returncode == 0

    def resize(self, kilobytes):
        return subprocess.run(["mount", "-o", f"remount,size={kilobytes}k", self.folder], capture_output=True,
                              check=False).returncode == 0

    def fill(self):
        """Makes it as small as what it holds; False when it grew faster than that."""
        for _ in range(10):
            status = os.statvfs(self.folder)
            if self.mounted and self.resize((status.f_blocks - status.f_bfree) * status.f_frsize // 1024):
                return True
        return False

    def free(self):
        if self.mounted and not self.resize(self.megabytes * 1024):
            raise OSError(f"{self.folder} does not get its size back")

    def unmount(self):
        if self.mounted:
            subprocess.run(["umount", "-l", self.folder], check=False)
            self.mounted = False


class Site:
    def __init__(self, work, binaries, stations):
        self.work = work
        self.audit = os.path.join(binaries, "qel-audit")
        self.auditd = os.path.join(binaries, "qel-auditd")
        self.central_disk = Disk(os.path.join(work, "central"), 8192)
        self.queue_disk = Disk(os.path.join(work, "workstations"), 4096)
        self.io = FaultIo(os.path.join(work, "faultio"))
        self.faultio = os.path.join(work, "libfaultio.so")
        source = os.path.join(os.path.dirname(os.path.abspath(__file__)), "faultio.cpp")
        subprocess.run(["g++", "-std=c++20", "-O1", "-shared", "-fPIC", source, "-o", self.faultio], check=True)
        self.folder = os.path.join(self.central_disk.folder, "site")
        self.config = os.path.join(self.folder, "qel-auditd.toml")
        self.identities = [(f"user{n}", f"device{n}") for n in range(stations)]
        self.auditor = ("auditor", "desk")
        self.daemon = None
        self.daemon_port = None
        self.proxy = None
        self.unexpected = []  # ends that nobody caused
        self.daemon_log = os.path.join(work, "daemon.log")
        self.agents = [None] * stations

    def run(self, *arguments, check=True, **options):
        run = subprocess.run([self.audit, *arguments], capture_output=True, text=True, check=False, **options)
        if check and run.returncode != 0:
            raise RuntimeError(f"qel-audit {' '.join(arguments)}: exit {run.returncode}: {run.stderr}")
        return run

    def make(self):
        self.run("init", self.folder, "--server", "localhost")
        self.edit(self.config, "listen", '"127.0.0.1:0"')
        self.edit(self.config, "auditors", f'["{self.auditor[0]}"]')
        for identity in [*self.identities, self.auditor]:
            self.run("enroll", self.folder, "--user", identity[0], "--device", identity[1], "--out", self.station(identity))

    def station(self, identity):
        return os.path.join(self.queue_disk.folder, "@".join(identity))

    def station_config(self, identity):
        return os.path.join(self.station(identity), "qel-audit.toml")

    @staticmethod
    def edit(path, key, value):
        with open(path, encoding="utf-8") as file:
            text = file.read()
        text, count = re.subn(rf"(?m)^{key} = .*$", lambda _: f"{key} = {value}", text, count=1)
        if count != 1:
            raise RuntimeError(f"{path} has no line '{key} = …'")
        with open(path + ".new", "w", encoding="utf-8") as file:
            file.write(text)
        shutil.copystat(path, path + ".new")
        os.replace(path + ".new", path)

    def store_url(self):
        return "lmdb:" + os.path.join(self.folder, "store")

    def point_at(self, port):
        for identity in [*self.identities, self.auditor]:
            self.edit(self.station_config(identity), "address", f'"localhost:{port}"')

    def environment(self, clock_step=None):
        environment = {**os.environ, "LD_PRELOAD": self.faultio, "QEL_FAULTIO": self.io.path}
        if clock_step is not None:
            sweep_clocks()
            environment |= {"LD_PRELOAD": f"{self.faultio}:{FAKETIME}", "FAKETIME": clock_step,
                            "FAKETIME_DONT_FAKE_MONOTONIC": "1"}
        return environment

    def ended(self, name, process):
        """Takes note of a process that ended by itself. With failing disks it may, with an exit code that says so."""
        if process.returncode not in (69, 73, 74, 75):
            self.unexpected.append(f"{name} ended with {process.returncode}")

    # ----- the daemon

    def start_daemon(self, clock_step=None):
        begin = os.path.getsize(self.daemon_log) if os.path.exists(self.daemon_log) else 0
        with open(self.daemon_log, "ab") as log:
            self.daemon = subprocess.Popen([self.auditd, "--config", self.config], stdout=log, stderr=log,
                                           stdin=subprocess.DEVNULL, env=self.environment(clock_step))

        def listening():
            if self.daemon.poll() is not None:
                self.ended("the daemon", self.daemon)
                raise ChildProcessError(f"the daemon ended with {self.daemon.returncode}")
            with open(self.daemon_log, "rb") as log:
                log.seek(begin)
                match = re.search(rb"listening on \S*:(\d+)\n", log.read())
            if match:
                self.daemon_port = int(match.group(1))
            return match

        wait_for("the daemon to listen", listening, pause=0.01)
        if self.proxy is not None:
            self.proxy.tell(f"target {self.daemon_port}")

    def ensure_daemon(self, clock_step=None):
        """Starts the daemon if it does not run; a start that fails because a fault is still on is tried again."""
        if self.daemon is not None and self.daemon.poll() is None:
            return
        for _ in range(200):
            try:
                self.start_daemon(clock_step)
                return
            except ChildProcessError:
                time.sleep(0.2)
        raise RuntimeError("the daemon does not start any more; see daemon.log")

    def end_daemon(self, sig):
        if self.daemon is not None and self.daemon.poll() is None:
            self.daemon.send_signal(signal.SIGCONT)
            self.daemon.send_signal(sig)
            self.daemon.wait(600)  # an export that a download asked for is written to its end first

    # ----- the agents

    def start_agent(self, index, clock_step=None):
        with open(os.path.join(self.work, f"agent{index}.log"), "ab") as log:
            self.agents[index] = subprocess.Popen(
                [self.audit, "forward", "--config", self.station_config(self.identities[index])],
                stdout=log, stderr=log, stdin=subprocess.DEVNULL, env=self.environment(clock_step))

    def end_agent(self, index, sig):
        agent = self.agents[index]
        if agent is not None and agent.poll() is None:
            agent.send_signal(signal.SIGCONT)
            agent.send_signal(sig)
            agent.wait(60)

    def ensure_agents(self):
        for index, agent in enumerate(self.agents):
            if agent is not None and agent.poll() is None:
                continue
            if agent is not None:
                self.ended(f"agent {index}", agent)
            self.start_agent(index)

    def end_agents(self):
        for index in range(len(self.agents)):
            self.end_agent(index, signal.SIGKILL)
            self.agents[index] = None

    def stop_everything(self):
        for process in [*self.agents, self.daemon]:
            if process is not None and process.poll() is None:
                process.send_signal(signal.SIGCONT)
                process.kill()
                process.wait()

    def close(self):
        self.stop_everything()
        if self.proxy is not None:
            self.proxy.stop()
        self.central_disk.unmount()
        self.queue_disk.unmount()

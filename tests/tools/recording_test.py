#!/usr/bin/env python3
"""Records what the real programs say to each other, through a relay, and reads it with tools/qel.lua in tshark, which
takes off TLS with the keys that a preloaded library logged: recording_test.py PROGRAMS KEY-LOG-LIBRARY"""

import datetime
import json
import os
import re
import selectors
import socket
import subprocess
import sys
import tempfile
import threading

from dissector_test import PORT, dissect, expect, write_recording

EVENTS = 150
LARGEST_PIECE = 16000


class Relay:
    """Carries connections to a port and keeps (connection, from the client?, bytes) of all that passes."""

    def __init__(self, target):
        self.target = target
        self.pieces = []
        self.connections = 0
        self.relays = []
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        threading.Thread(target=self.accept, daemon=True).start()

    def accept(self):
        while True:
            client, _ = self.listener.accept()
            self.connections += 1
            relay = threading.Thread(target=self.carry, args=(self.connections, client), daemon=True)
            self.relays.append(relay)
            relay.start()

    def carry(self, connection, client):
        server = socket.create_connection(("127.0.0.1", self.target))
        other = {client: server, server: client}
        with selectors.DefaultSelector() as ready:
            for end in other:
                ready.register(end, selectors.EVENT_READ)
            while ready.get_map():
                for key, _ in ready.select():
                    data = self.receive(key.fileobj)
                    if data:
                        self.pieces.append((connection, key.fileobj is client, data))
                        other[key.fileobj].sendall(data)
                    else:
                        ready.unregister(key.fileobj)
                        other[key.fileobj].shutdown(socket.SHUT_WR)

    @staticmethod
    def receive(end):
        try:
            return end.recv(LARGEST_PIECE)
        except ConnectionError:
            return b""


class Site:
    """A site with one workstation, whose agent and whose downloads go through the relay and log their keys."""

    def __init__(self, folder, programs, library):
        self.folder = folder
        self.program = os.path.join(programs, "qel-audit")
        self.keys = os.path.join(folder, "keys.txt")
        self.logging = {**os.environ, "LD_PRELOAD": library, "QEL_KEY_LOG": self.keys}
        self.run("init", self.path("site"), "--server", "127.0.0.1")
        self.set("site/qel-auditd.toml", "listen", '"127.0.0.1:0"')
        self.set("site/qel-auditd.toml", "auditors", '["anna"]')
        self.run("enroll", self.path("site"), "--user", "anna", "--device", "pc-1", "--out", self.path("anna"))
        self.config = self.path("anna/qel-audit.toml")
        self.daemon = subprocess.Popen([os.path.join(programs, "qel-auditd"), "--config",
                                        self.path("site/qel-auditd.toml")], stderr=subprocess.PIPE, text=True)
        port = None
        while port is None:
            line = self.daemon.stderr.readline()
            if not line:
                sys.exit("the daemon does not listen")
            port = re.search(r"listening on [^ ]*:(\d+)", line)
        threading.Thread(target=self.daemon.stderr.read, daemon=True).start()
        self.relay = Relay(int(port.group(1)))
        self.set("anna/qel-audit.toml", "address", '"127.0.0.1:%d"' % self.relay.port)

    def path(self, name):
        return os.path.join(self.folder, name)

    def run(self, *arguments, logging=False, text=None):
        return subprocess.run([self.program, *arguments], check=True, capture_output=True, text=True, input=text,
                              env=self.logging if logging else None).stdout

    def set(self, name, key, value):
        with open(self.path(name), encoding="utf-8") as file:
            text = file.read()
        with open(self.path(name), "w", encoding="utf-8") as file:
            file.write(re.sub("^%s *=.*$" % key, lambda _: "%s = %s" % (key, value), text, count=1, flags=re.M))

    def end(self):
        self.daemon.terminate()
        expect(self.daemon.wait(30), 0, "exit code of the daemon")
        for relay in self.relay.relays:
            relay.join(30)


def microseconds(text):
    """Of a time as `queue --show` prints it."""
    moment = datetime.datetime.fromisoformat(text.replace("Z", "+00:00"))
    epoch = datetime.datetime(1970, 1, 1, tzinfo=datetime.timezone.utc)
    return (moment - epoch) // datetime.timedelta(microseconds=1)


def values(rows, name):
    return [value for row in rows for value in row.get(name, "").split(",") if value]


def read(site, connection):
    """The rows of one connection, and whatever somebody complained of."""
    path = site.path("recording.pcap")
    write_recording(path, [(client, data) for number, client, data in site.relay.pieces if number == connection])
    rows, errors = dissect(path, ["-d", "tls.port==%d,qel" % PORT, "-o", "tls.keylog_file:" + site.keys])
    expect("Lua" in errors or "error" in errors.lower(), False, "complaints of tshark: " + errors)
    expect(values(rows, "qel.malformed"), [], "malformed frames")
    return rows


def check_events(site, times):
    rows = read(site, 1)
    kinds = values(rows, "qel.kind")
    expect(kinds[:4], ["1", "2", "3", "3"], "first kinds")
    expect(sorted(values(rows, "qel.service")), ["audit", "interaction"], "services")
    expect(kinds.count("4"), 2, "opened sessions")
    expect(kinds.count("5"), 2 * EVENTS, "packets")
    expect(kinds[-1], "7", "the last kind")
    both = list(zip(values(rows, "qel.packet.type"), values(rows, "qel.packet.time")))
    expect([int(time) for kind, time in both if kind == "301"], times, "times of the events sent")
    expect([int(time) for kind, time in both if kind == "302"], times, "times acknowledged")
    for at, (kind, time) in enumerate(both):
        if kind == "302" and ("301", time) not in both[:at]:
            sys.exit("the event of %s was acknowledged before it was sent" % time)


def check_call(site):
    rows = read(site, 2)
    expect(values(rows, "qel.kind")[:3], ["1", "2", "3"], "first kinds of the call")
    expect(values(rows, "qel.session_type"), ["4"], "session type of the call")
    expect("5" in values(rows, "qel.kind"), True, "packets in the call")


def main():
    programs, library = sys.argv[1:]
    with tempfile.TemporaryDirectory() as folder:
        site = Site(folder, programs, library)
        try:
            events = "".join(json.dumps(["SeriesOpened", "1.2.840.113619", i]) + "\n" for i in range(EVENTS))
            site.run("record", "--config", site.config, "--log", "interaction", "--from", "-", text=events)
            shown = site.run("queue", "--config", site.config, "--show", str(EVENTS))
            times = [microseconds(time) for time in re.findall(r"^  (\S+)", shown, re.M)]
            expect(len(times), EVENTS, "events in the queue")
            site.run("forward", "--config", site.config, "--once", logging=True)
            site.run("lines", "--config", site.config, "--from", "2000", "--to", "2100", logging=True)
        finally:
            site.end()
        check_events(site, times)
        check_call(site)
        # Without the keys there is nothing to see.
        os.truncate(site.keys, 0)
        expect(values(read(site, 1), "qel.kind"), [], "frames without keys")
    print("the dissector reads %d pieces of recorded connections" % len(site.relay.pieces))


if __name__ == "__main__":
    main()

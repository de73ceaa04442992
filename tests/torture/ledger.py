"""What was recorded, what was reported as recorded, and what is found in the central logs.

Every event carries its workstation, a number of its own and a checksum over everything in it. The ledger knows nothing of
the system under torture: it compares multisets of numbers, and contents.
"""

import threading
import zlib

UNKNOWN, MAYBE, REPORTED = 0, 1, 2
EVENT = "TortureEvent"
LOGS = ("interaction", "audit")
PADDING = "1.2.840.113619.2.55.3.604688119.971.1234567890.467"


def checksum(station, log, number, payload):
    return f"{zlib.crc32(f'{station}|{log}|{number}|{payload}'.encode()):08x}"


def payload_of(number):
    return f"{PADDING}.{number * 2654435761 % 4294967296}"


class Ledger:
    """Thread-safe. One state per event; numbers of one workstation and log begin at 0 and have no gaps."""

    def __init__(self, stations):
        self.lock = threading.Lock()
        self.states = {(station, log): bytearray() for station in range(stations) for log in LOGS}

    def take(self, station, log, count):
        """The numbers of the next events; they may be recorded from now on."""
        with self.lock:
            states = self.states[station, log]
            first = len(states)
            states.extend(bytes([MAYBE]) * count)
            return range(first, first + count)

    def report(self, station, log, numbers):
        with self.lock:
            self.states[station, log][numbers.start:numbers.stop] = bytes([REPORTED]) * len(numbers)

    def reported(self):
        with self.lock:
            return sum(states.count(REPORTED) for states in self.states.values())

    def taken(self):
        with self.lock:
            return sum(len(states) for states in self.states.values())

    @staticmethod
    def line(station, log, number):
        payload = payload_of(number)
        return f'["{EVENT}",{station},{number},"{checksum(station, log, number, payload)}","{payload}"]\n'


class Comparison:
    """The faults found in one pass over both exported logs."""

    def __init__(self, ledger, identities):
        self.ledger = ledger
        self.identities = identities
        self.seen = {key: bytearray(len(states)) for key, states in ledger.states.items()}
        self.last = {key: -1 for key in ledger.states}
        self.found = 0
        self.faults = []

    def fault(self, text):
        if len(self.faults) < 50:
            self.faults.append(text)

    def read(self, log, path):
        with open(path, encoding="utf-8", newline="\n") as file:
            header = file.readline().rstrip("\r\n")
            if not header.startswith("Time;User;Device;Event;Param0"):
                self.fault(f"{path}: the header is {header!r}")
            for number, line in enumerate(file, 2):
                self.read_line(log, path, number, line)

    def read_line(self, log, path, number, line):
        fields = line.rstrip("\r\n").split(";")
        if len(fields) > 3 and fields[3] != EVENT:
            return
        if len(fields) != 12:
            self.fault(f"{path}:{number}: {len(fields)} fields: {line!r}")
            return
        _, user, device, _, station, serial, check, payload = fields[:8]
        try:
            station, serial = int(station), int(serial)
            key = station, log
            states = self.seen[key]
        except (ValueError, KeyError):
            self.fault(f"{path}:{number}: no such event: {line!r}")
            return
        if payload != payload_of(serial) or check != checksum(station, log, serial, payload):
            self.fault(f"{path}:{number}: altered: {line!r}")
        if (user, device) != self.identities[station]:
            self.fault(f"{path}:{number}: attributed to {user}, {device} instead of {self.identities[station]}")
        if serial >= len(states):
            self.fault(f"{path}:{number}: event {serial} of workstation {station} was never recorded")
            return
        if serial <= self.last[key] and not states[serial]:
            self.fault(f"{path}:{number}: event {serial} of workstation {station} stands behind {self.last[key]}")
        self.last[key] = max(self.last[key], serial)
        self.found += 1
        if states[serial] < 255:
            states[serial] += 1
        if states[serial] == 2:
            self.fault(f"{path}:{number}: event {serial} of workstation {station} is there twice: {line!r}")

    def finish(self):
        lost = 0
        for (station, log), states in self.ledger.states.items():
            seen = self.seen[station, log]
            for number, state in enumerate(states):
                if state == REPORTED and not seen[number]:
                    lost += 1
                    if lost <= 10:
                        self.fault(f"lost: event {number} of workstation {station} in the {log} log")
        if lost > 10:
            self.fault(f"lost: {lost} events in all")
        return self.faults

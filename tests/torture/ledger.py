"""What was recorded, what was reported as recorded, and what is found in the central logs.

Every event carries its workstation, a number of its own and a checksum over everything in it. The ledger knows nothing of
the system under torture: it compares multisets of numbers, and contents.

Comparing millions of lines is a process of its own, so that it holds nobody up:

    ledger.py LEDGER [--partly] INTERACTION.csv AUDIT.csv

prints {"found": …, "old": …, "faults": […]} and leaves in LEDGER what is known by then. --partly: the files need not hold
everything.
"""

import json
import sys
import threading
import zlib

# What is known of an event. It may be there; it must be there; it cannot be there, because nothing of it was anywhere
# when nobody was recording and all queues were empty.
MAYBE, MUST, NEVER = 1, 2, 3
EVENT = "TortureEvent"
OLD_EVENT = "OldEvent"  # recorded as of years ago, pruned again
TRACES = ("AuditLogUsed",)  # what reading the logs leaves behind
LOGS = ("interaction", "audit")
PADDING = "1.2.840.113619.2.55.3.604688119.971.1234567890.467"


def checksum(station, log, number, payload):
    return f"{zlib.crc32(f'{station}|{log}|{number}|{payload}'.encode()):08x}"


def payload_of(number):
    return f"{PADDING}.{number * 2654435761 % 4294967296}"


class Ledger:
    """Thread-safe. One state per event; numbers of one workstation and log begin at 0 and have no gaps."""

    def __init__(self, identities):
        self.lock = threading.Lock()
        self.identities = [tuple(identity) for identity in identities]
        self.states = {(station, log): bytearray() for station in range(len(identities)) for log in LOGS}

    def take(self, station, log, count):
        """The numbers of the next events; they may be recorded from now on."""
        with self.lock:
            states = self.states[station, log]
            first = len(states)
            states.extend(bytes([MAYBE]) * count)
            return range(first, first + count)

    def report(self, station, log, numbers):
        """They were reported as recorded."""
        with self.lock:
            self.states[station, log][numbers.start:numbers.stop] = bytes([MUST]) * len(numbers)

    def count(self, state):
        with self.lock:
            return sum(states.count(state) for states in self.states.values())

    def taken(self):
        with self.lock:
            return sum(len(states) for states in self.states.values())

    def settled(self):
        """A copy of all states, of which later ledgers of copies can be made."""
        with self.lock:
            return {key: bytes(states) for key, states in self.states.items()}

    def save(self, path, settled=None):
        """Into a file. With `settled`, an older copy of the states, all that came later only may be there."""
        with self.lock:
            if settled is None:
                states = {key: bytes(states) for key, states in self.states.items()}
            else:
                states = {key: settled[key] + bytes([MAYBE]) * (len(states) - len(settled[key]))
                          for key, states in self.states.items()}
        with open(path, "wb") as file:
            sizes = [[station, log, len(states[station, log])] for station, log in states]
            file.write(json.dumps({"identities": self.identities, "sizes": sizes}).encode() + b"\n")
            for content in states.values():
                file.write(content)

    @staticmethod
    def load(path):
        with open(path, "rb") as file:
            head = json.loads(file.readline())
            ledger = Ledger(head["identities"])
            for station, log, size in head["sizes"]:
                ledger.states[station, log] = bytearray(file.read(size))
        return ledger

    @staticmethod
    def line(station, log, number):
        payload = payload_of(number)
        return f'["{EVENT}",{station},{number},"{checksum(station, log, number, payload)}","{payload}"]\n'

    def wait_in_queue(self, station, log, events):
        """Takes note of the events that wait in a queue, as texts: they must arrive. Returns what is wrong with them."""
        faults = []
        seen = set()
        with self.lock:
            states = self.states[station, log]
            for event in events:
                fields = json.loads(event)
                if fields[0] == OLD_EVENT:
                    continue
                number = fields[2] if len(fields) == 5 else -1
                if event + "\n" != self.line(station, log, number) or not 0 <= number < len(states):
                    faults.append(f"the {log} queue of workstation {station} holds {event}")
                elif number in seen:
                    faults.append(f"the {log} queue of workstation {station} holds event {number} twice")
                elif states[number] == NEVER:
                    faults.append(f"the {log} queue of workstation {station} holds event {number}, which was gone")
                else:
                    seen.add(number)
                    states[number] = MUST
        return faults


class Comparison:
    """The faults found in one pass over both exported logs."""

    def __init__(self, ledger, partly=False):
        self.ledger = ledger
        self.partly = partly
        self.seen = {key: bytearray(len(states)) for key, states in ledger.states.items()}
        self.stations = {str(station): station for station in range(len(ledger.identities))}
        self.found = 0
        self.old = 0
        self.faults = []

    def fault(self, text):
        if len(self.faults) < 50:
            self.faults.append(text)

    def read(self, log, path):
        identities = self.ledger.identities
        people = set(identities)
        last = [-1] * len(identities)
        seen_of = [self.seen[station, log] for station in range(len(identities))]
        crc32, stations = zlib.crc32, self.stations
        found = 0
        with open(path, encoding="utf-8", newline="\n") as file:
            header = file.readline().rstrip("\r\n")
            if header != "Time;User;Device;Event;Param0;Param1;Param2;Param3;Param4;Param5;Param6;Param7":
                self.fault(f"{path}: the header is {header!r}")
            for number, line in enumerate(file, 2):
                fields = line.rstrip("\n").split(";")
                if len(fields) != 12 or fields[3] != EVENT:
                    self.other_line(path, number, line, fields, people)
                    continue
                _, user, device, _, where, serial_text, check, payload, *rest = fields
                try:
                    station, serial = stations[where], int(serial_text)
                except (ValueError, KeyError):
                    self.fault(f"{path}:{number}: no such event: {line!r}")
                    continue
                expected = f"{PADDING}.{serial * 2654435761 % 4294967296}"
                if (payload != expected or rest != ["", "", "", ""] or
                        check != f"{crc32(f'{station}|{log}|{serial}|{payload}'.encode()):08x}"):
                    self.fault(f"{path}:{number}: altered: {line!r}")
                if (user, device) != identities[station]:
                    self.fault(f"{path}:{number}: attributed to {user}, {device} instead of {identities[station]}")
                seen = seen_of[station]
                if not 0 <= serial < len(seen):
                    self.fault(f"{path}:{number}: event {serial} of workstation {station} was never recorded")
                    continue
                if seen[serial]:
                    self.fault(f"{path}:{number}: event {serial} of workstation {station} is there twice: {line!r}")
                elif serial <= last[station]:
                    self.fault(f"{path}:{number}: event {serial} of workstation {station} stands behind {last[station]}")
                else:
                    last[station] = serial
                seen[serial] = 1
                found += 1
        self.found += found

    def other_line(self, path, number, line, fields, people):
        if len(fields) != 12:
            self.fault(f"{path}:{number}: {len(fields)} fields: {line!r}")
        elif fields[3] == OLD_EVENT and tuple(fields[1:3]) in people:
            self.old += 1
        elif fields[3] not in TRACES or tuple(fields[1:3]) in people:
            self.fault(f"{path}:{number}: nobody recorded this: {line!r}")

    def finish(self):
        """Looks for losses, and turns what was found out into the ledger's states."""
        lost = 0
        for (station, log), states in self.ledger.states.items():
            seen = self.seen[station, log]
            for number, state in enumerate(states):
                if seen[number]:
                    if state == NEVER:
                        self.fault(f"event {number} of workstation {station} was gone, and is in the {log} log now")
                    states[number] = MUST
                elif state == MUST and not self.partly:
                    lost += 1
                    if lost <= 10:
                        self.fault(f"lost: event {number} of workstation {station} in the {log} log")
                elif state == MAYBE and not self.partly:
                    states[number] = NEVER
        if lost > 10:
            self.fault(f"lost: {lost} events in all")
        return self.faults


def main(arguments):
    partly = "--partly" in arguments
    path, *files = [argument for argument in arguments if argument != "--partly"]
    ledger = Ledger.load(path)
    comparison = Comparison(ledger, partly)
    for log, file in zip(LOGS, files, strict=True):
        comparison.read(log, file)
    faults = comparison.finish()
    ledger.save(path)
    print(json.dumps({"found": comparison.found, "old": comparison.old, "faults": faults}))


if __name__ == "__main__":
    main(sys.argv[1:])

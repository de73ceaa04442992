"""The entries of a central log, read one by one from the store, against the exported file: same order, times and texts."""

import datetime
import functools
import itertools
import json
import subprocess
import zoneinfo

BERLIN = zoneinfo.ZoneInfo("Europe/Berlin")


@functools.lru_cache(maxsize=8)
def german_time(utc):
    """The exported form of a time like 2026-03-01T07:00:00."""
    return datetime.datetime.fromisoformat(utc + "+00:00").astimezone(BERLIN).strftime("%m/%d/%Y %H:%M:%S")


class EntryComparison:
    def __init__(self, identities):
        self.identities = set(identities)
        self.origins = {}  # by user and device

    def exported(self, entry):
        """The line that an entry must have been exported as."""
        time, origin, event = entry.rstrip("\n").split(" ", 2)
        fields = json.loads(event)
        sender = tuple(fields[:2])
        if sender in self.identities and self.origins.setdefault(sender, origin) != origin:
            return f"{sender} with the origins {self.origins[sender]} and {origin}"
        texts = [str(field) for field in fields]
        return ";".join([german_time(time[:19]), *texts, *[""] * (11 - len(texts))]) + "\n"

    def compare(self, audit, store, log, path):
        """What is wrong, in sentences. The traces that reading leaves are left out on both sides."""
        faults = []
        with (open(path, encoding="utf-8", newline="\n") as file,
              subprocess.Popen([audit, "store", "ls", "--store", store, "--log", log, "--quiet"], stdout=subprocess.PIPE,
                               text=True) as listing):
            next(file)
            lines = (line for line in file if ";AuditLogUsed;" not in line)
            entries = (entry for entry in listing.stdout if ',"AuditLogUsed",' not in entry)
            for line, entry in itertools.zip_longest(lines, entries):
                if line is None or entry is None or line != self.exported(entry):
                    faults.append(f"the {log} log has the entry {entry!r}, exported as {line!r}")
                if len(faults) >= 10:
                    break
        if listing.returncode != 0 and not faults:
            faults.append(f"store ls of the {log} log ended with {listing.returncode}")
        return faults

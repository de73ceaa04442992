#!/usr/bin/env python3
"""Whether the torture's comparisons see what they are there for: each kind of damage to a sound log is told."""

import os
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from entries import EntryComparison  # noqa: E402
from ledger import LOGS, MAYBE, MUST, NEVER, Comparison, Ledger, checksum, payload_of  # noqa: E402

PEOPLE = [("anna", "room-1"), ("ben", "room-2")]
HEADER = "Time;User;Device;Event;Param0;Param1;Param2;Param3;Param4;Param5;Param6;Param7"


def exported(station, log, number, sender=None):
    user, device = sender or PEOPLE[station]
    payload = payload_of(number)
    return f"03/01/2026 09:00:00;{user};{device};TortureEvent;{station};{number};{checksum(station, log, number, payload)};{payload};;;;"


class Comparisons(unittest.TestCase):
    def setUp(self):
        self.ledger = Ledger(PEOPLE)
        self.lines = {log: [] for log in LOGS}
        for log in LOGS:
            for station in range(2):
                self.ledger.report(station, log, self.ledger.take(station, log, 5))
                self.lines[log] += [exported(station, log, number) for number in range(5)]

    def faults(self, partly=False):
        comparison = Comparison(self.ledger, partly)
        with tempfile.TemporaryDirectory() as folder:
            for log in LOGS:
                path = os.path.join(folder, log)
                with open(path, "w", encoding="utf-8") as file:
                    file.write("\n".join([HEADER, *self.lines[log]]) + "\n")
                comparison.read(log, path)
        return " | ".join(comparison.finish())

    def test_a_sound_log_has_no_fault(self):
        self.assertEqual(self.faults(), "")

    def test_a_missing_event_is_lost(self):
        del self.lines["audit"][7]
        self.assertIn("lost: event 2 of workstation 1 in the audit log", self.faults())
        self.assertEqual(self.faults(partly=True), "")

    def test_an_event_of_a_killed_recorder_may_be_missing(self):
        self.ledger.take(0, "audit", 1)
        self.assertEqual(self.faults(), "")
        self.assertEqual(self.ledger.count(NEVER), 1)

    def test_an_event_that_was_gone_may_not_come_back(self):
        self.ledger.take(0, "audit", 1)
        self.faults()
        self.lines["audit"].append(exported(0, "audit", 5))
        self.assertIn("event 5 of workstation 0 was gone", self.faults())

    def test_an_event_that_was_seen_once_must_stay(self):
        self.ledger.take(0, "audit", 1)
        self.lines["audit"].append(exported(0, "audit", 5))
        self.assertEqual(self.faults(), "")
        self.lines["audit"].pop()
        self.assertIn("lost: event 5", self.faults())

    def test_a_doubled_event_is_told(self):
        self.lines["audit"].insert(3, self.lines["audit"][2])
        self.assertIn("event 2 of workstation 0 is there twice", self.faults())

    def test_another_order_is_told(self):
        lines = self.lines["audit"]
        lines[2], lines[3] = lines[3], lines[2]
        self.assertIn("stands behind", self.faults())

    def test_an_altered_text_is_told(self):
        self.lines["audit"][2] = self.lines["audit"][2].replace("1.2.840", "1.2.841")
        self.assertIn("altered", self.faults())

    def test_a_further_parameter_is_told(self):
        self.lines["audit"][2] += "x"
        self.assertIn("altered", self.faults())

    def test_an_event_in_the_other_log_is_told(self):
        self.lines["audit"].append(exported(0, "interaction", 4))
        self.assertIn("altered", self.faults())

    def test_another_sender_is_told(self):
        self.lines["audit"][2] = exported(0, "audit", 2, PEOPLE[1])
        self.assertIn("attributed to ben, room-2", self.faults())

    def test_an_event_that_nobody_recorded_is_told(self):
        self.lines["audit"].append(exported(0, "audit", 5))
        self.assertIn("event 5 of workstation 0 was never recorded", self.faults())

    def test_another_event_of_a_workstation_is_told(self):
        self.lines["audit"].append("03/01/2026 09:00:00;anna;room-1;Else;;;;;;;;")
        self.assertIn("nobody recorded this", self.faults())

    def test_a_cut_line_is_told(self):
        self.lines["audit"][2] = self.lines["audit"][2][:30]
        self.assertIn("3 fields", self.faults())

    def test_what_waits_in_a_queue_must_arrive(self):
        number = self.ledger.take(0, "audit", 1).start
        line = self.ledger.line(0, "audit", number).strip()
        self.assertEqual(self.ledger.wait_in_queue(0, "audit", [line]), [])
        self.assertIn("lost: event 5", self.faults())
        self.assertIn("twice", self.ledger.wait_in_queue(0, "audit", [line, line])[0])
        self.assertIn("holds", self.ledger.wait_in_queue(0, "audit", [line.replace("1.2.840", "1.2.841")])[0])

    def test_a_saved_ledger_is_the_same(self):
        self.ledger.take(0, "audit", 3)
        with tempfile.TemporaryDirectory() as folder:
            path = os.path.join(folder, "ledger")
            self.ledger.save(path)
            self.assertEqual(Ledger.load(path).states, self.ledger.states)
            settled = self.ledger.settled()
            self.ledger.report(0, "audit", self.ledger.take(0, "audit", 2))
            self.ledger.save(path, settled)
            self.assertEqual(Ledger.load(path).states[0, "audit"], bytes([MUST] * 5 + [MAYBE] * 5))

    def test_an_entry_is_exported_with_its_time_and_texts(self):
        entries = EntryComparison(PEOPLE)
        line = entries.exported('2026-03-01T08:00:00.000001Z 17 ["anna","room-1","Seen",7,"x"]\n')
        self.assertEqual(line, "03/01/2026 09:00:00;anna;room-1;Seen;7;x;;;;;;\n")
        self.assertIn("origins", entries.exported('2026-03-01T08:00:00.000002Z 18 ["anna","room-1","Seen"]\n'))


if __name__ == "__main__":
    unittest.main()

#!/usr/bin/env python3
"""Runs tools/qel.lua in tshark over the conversation of docs/protocol.md, whose bytes another test holds to what is
spoken, once frame by frame and once with all bytes of a direction cut into small segments."""

import os
import re
import struct
import subprocess
import sys
import tempfile

ROOT = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))
PORT = 7410


def conversation():
    """(from the client?, bytes) for each frame of the page."""
    page = open(os.path.join(ROOT, "docs", "protocol.md"), encoding="utf-8").read()
    page = page[page.index("## A conversation"):]
    for who, block in re.findall(r"^(client|service) → \w+\n\n```\n(.*?)```", page, re.S | re.M):
        tokens = []
        for line in block.splitlines():
            tokens += re.findall(r"\b[0-9a-f]{2}\b", line.split("  ")[0])
        yield who == "client", bytes.fromhex("".join(tokens))


def segment(from_client, sequence, acknowledged, data):
    """An Ethernet frame with one TCP segment of it."""
    ports = (40000, PORT) if from_client else (PORT, 40000)
    tcp = struct.pack(">HHIIBBHHH", *ports, sequence, acknowledged, 0x50, 0x18, 65535, 0, 0) + data
    hosts = (b"\x7f\0\0\x01", b"\x7f\0\0\x02")
    ends = hosts if from_client else hosts[::-1]
    ip = struct.pack(">BBHHHBBH", 0x45, 0, 20 + len(tcp), 0, 0, 64, 6, 0) + ends[0] + ends[1]
    return b"\0" * 12 + b"\x08\0" + ip + tcp


def write_recording(path, pieces):
    """A capture file of (from the client?, bytes) pieces."""
    sent = {True: 1, False: 1}
    with open(path, "wb") as out:
        out.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 1))
        for number, (from_client, data) in enumerate(pieces):
            frame = segment(from_client, sent[from_client], sent[not from_client], data)
            sent[from_client] += len(data)
            out.write(struct.pack("<IIII", 1700000000, number, len(frame), len(frame)) + frame)


def dissect(path, options=("-d", "tcp.port==%d,qel" % PORT)):
    fields = ["qel.kind", "qel.session", "qel.session_type", "qel.service", "qel.packet.type", "qel.packet.time",
              "qel.reason", "qel.limit.frame", "qel.malformed", "_ws.expert"]
    command = ["tshark", "-X", "lua_script:" + os.path.join(ROOT, "tools", "qel.lua"), *options, "-r", path, "-T", "fields"]
    for field in fields:
        command += ["-e", field]
    done = subprocess.run(command, capture_output=True, text=True, check=True,
                          env={**os.environ, "HOME": os.path.dirname(path)})
    rows = [line.split("\t") for line in done.stdout.splitlines()]
    return [{name: value for name, value in zip(fields, row) if value} for row in rows], done.stderr


def cut(pieces, size):
    """The same bytes in segments of that size, as long as the direction stays."""
    for from_client, data in pieces:
        for at in range(0, len(data), size):
            yield from_client, data[at:at + size]


def expect(found, wanted, what):
    if found != wanted:
        sys.exit("%s: found %r, expected %r" % (what, found, wanted))


def main():
    frames = list(conversation())
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "conversation.pcap")
        write_recording(path, frames)
        rows, errors = dissect(path)
        expect("Lua" in errors or "error" in errors.lower(), False, "complaints of tshark: " + errors)
        expect([row["qel.kind"] for row in rows], ["1", "2", "3", "4", "5", "5", "8", "9", "7"], "kinds")
        expect(rows[0]["qel.limit.frame"], "1048576", "frame limit of the hello")
        expect(rows[2]["qel.service"], "audit", "name of the service")
        expect([row["qel.packet.type"] for row in rows[4:6]], ["301", "302"], "packet types")
        expect([row["qel.packet.time"] for row in rows[4:6]], ["1700000000000000"] * 2, "times")
        expect(rows[8]["qel.reason"], "the client is done", "reason of the close")
        expect([row for row in rows if "_ws.expert" in row], [], "complaints about frames")
        write_recording(path, list(cut(frames, 7)))
        pieces, _ = dissect(path)
        expect([row["qel.kind"] for row in pieces if "qel.kind" in row],
               ["1", "2", "3", "4", "5", "5", "8", "9", "7"], "kinds of frames in small segments")
        write_recording(path, [(True, bytes.fromhex("0000000163")), (True, bytes.fromhex("000000020151"))])
        strange, _ = dissect(path)
        expect(["_ws.expert" in row for row in strange], [True, True], "complaints about malformed frames")
    print("the dissector reads %d frames" % len(frames))


if __name__ == "__main__":
    main()

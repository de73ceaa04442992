#!/usr/bin/env python3
"""Draws the two images that lie beside every report: zorvik-slogan.png and zorvik-icon.png.

Everything is made of strokes with round ends, filled by their distance to each pixel, so the result is
smooth without a drawing library and the same bytes on every machine.  Usage: draw-images.py [DIRECTORY]
"""

import math
import os
import struct
import sys
import zlib

GRAPHITE = (0x4D, 0x4D, 0x4D)
AMBER = (0xFA, 0xC7, 0x3C)
STONE = (0x79, 0x76, 0x75)
WHITE = (0xFF, 0xFF, 0xFF)


class Canvas:
    """A picture with transparency; shapes are laid over it one after the other."""

    def __init__(self, width, height):
        self.width, self.height = width, height
        self.pixels = [[0.0, 0.0, 0.0, 0.0] for _ in range(width * height)]

    def fill(self, box, distance, colour):
        """Lays colour wherever distance(x, y) is negative inside box; the edge is one pixel soft."""
        left, top = max(0, int(box[0]) - 1), max(0, int(box[1]) - 1)
        right, bottom = min(self.width, int(box[2]) + 2), min(self.height, int(box[3]) + 2)
        for y in range(top, bottom):
            for x in range(left, right):
                cover = min(1.0, max(0.0, 0.5 - distance(x + 0.5, y + 0.5)))
                if cover > 0.0:
                    self.blend(y * self.width + x, colour, cover)

    def blend(self, at, colour, cover):
        pixel = self.pixels[at]
        alpha = cover + pixel[3] * (1.0 - cover)
        for i in range(3):
            pixel[i] = (colour[i] * cover + pixel[i] * pixel[3] * (1.0 - cover)) / alpha
        pixel[3] = alpha

    def stroke(self, points, thickness, colour):
        half = thickness / 2
        xs, ys = [p[0] for p in points], [p[1] for p in points]
        box = (min(xs) - half, min(ys) - half, max(xs) + half, max(ys) + half)
        pairs = list(zip(points, points[1:]))
        self.fill(box, lambda x, y: min(to_segment(x, y, a, b) for a, b in pairs) - half, colour)

    def rounded(self, left, top, right, bottom, radius, colour):
        cx, cy = (left + right) / 2, (top + bottom) / 2
        hx, hy = (right - left) / 2 - radius, (bottom - top) / 2 - radius

        def distance(x, y):
            dx, dy = abs(x - cx) - hx, abs(y - cy) - hy
            return math.hypot(max(dx, 0), max(dy, 0)) + min(max(dx, dy), 0) - radius

        self.fill((left, top, right, bottom), distance, colour)

    def save(self, path):
        rows = bytearray()
        for y in range(self.height):
            rows.append(0)
            for pixel in self.pixels[y * self.width:(y + 1) * self.width]:
                rows += bytes([round(pixel[0]), round(pixel[1]), round(pixel[2]), round(pixel[3] * 255)])
        with open(path, "wb") as out:
            out.write(b"\x89PNG\r\n\x1a\n")
            out.write(chunk(b"IHDR", struct.pack(">IIBBBBB", self.width, self.height, 8, 6, 0, 0, 0)))
            out.write(chunk(b"IDAT", zlib.compress(bytes(rows), 9)))
            out.write(chunk(b"IEND", b""))


def chunk(kind, data):
    return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))


def to_segment(x, y, a, b):
    dx, dy = b[0] - a[0], b[1] - a[1]
    length = dx * dx + dy * dy
    t = 0.0 if length == 0 else min(1.0, max(0.0, ((x - a[0]) * dx + (y - a[1]) * dy) / length))
    return math.hypot(x - a[0] - t * dx, y - a[1] - t * dy)


def arc(cx, cy, rx, ry, start, end, steps=28):
    """Points on an ellipse; angles in degrees, 0 to the right, growing downwards."""
    return [(cx + rx * math.cos(math.radians(start + (end - start) * i / steps)),
             cy + ry * math.sin(math.radians(start + (end - start) * i / steps))) for i in range(steps + 1)]


# Glyphs: width and strokes in units of the x height; y 0 is the line on which letters stand, upwards negative.
BOWL = arc(0.45, -0.5, 0.45, 0.5, 0, 360)
LOWER = {
    "a": (0.9, [BOWL, [(0.9, -1.0), (0.9, 0)]]),
    "c": (0.8, [arc(0.45, -0.5, 0.45, 0.5, -45, -315)]),
    "d": (0.9, [BOWL, [(0.9, -1.55), (0.9, 0)]]),
    "e": (0.88, [[(0.0, -0.52), (0.88, -0.52)], arc(0.45, -0.5, 0.45, 0.5, -3, -318)]),
    "f": (0.5, [arc(0.52, -1.2, 0.3, 0.35, -70, -180, 12) + [(0.22, 0)], [(0.0, -1.0), (0.5, -1.0)]]),
    "g": (0.9, [BOWL, [(0.9, -1.0), (0.9, 0.08)] + arc(0.45, 0.08, 0.45, 0.42, 0, 150, 16)]),
    "i": (0.0, [[(0, -1.0), (0, 0)], [(0, -1.45), (0, -1.44)]]),
    "n": (0.78, [[(0, -1.0), (0, 0)], arc(0.39, -0.61, 0.39, 0.39, 180, 360) + [(0.78, 0)]]),
    "o": (0.9, [BOWL]),
    "r": (0.5, [[(0, -1.0), (0, 0)], arc(0.42, -0.55, 0.42, 0.45, 180, 285, 14)]),
    "t": (0.5, [[(0.22, -1.4), (0.22, -0.3)] + arc(0.5, -0.3, 0.28, 0.3, 180, 80, 12), [(0.0, -1.0), (0.5, -1.0)]]),
    "u": (0.78, [[(0, -1.0), (0, -0.39)] + arc(0.39, -0.39, 0.39, 0.39, 180, 0) + [(0.78, -1.0)], [(0.78, -1), (0.78, 0)]]),
    "v": (0.78, [[(0, -1.0), (0.39, 0), (0.78, -1.0)]]),
    "y": (0.78, [[(0, -1.0), (0.4, -0.02)], [(0.78, -1.0), (0.24, 0.45)]]),
    ".": (0.0, [[(0, -0.03), (0, 0)]]),
    " ": (0.2, []),
    "E": (0.72, [[(0.72, -1.5), (0, -1.5), (0, 0), (0.72, 0)], [(0, -0.78), (0.62, -0.78)]]),
}
UPPER = {
    "Z": (0.8, [[(0, -1), (0.8, -1), (0, 0), (0.8, 0)]]),
    "O": (1.0, [arc(0.5, -0.5, 0.5, 0.5, 0, 360, 48)]),
    "R": (0.72, [[(0, 0), (0, -1), (0.4, -1)] + arc(0.42, -0.72, 0.28, 0.28, -90, 90, 18) + [(0, -0.44)],
                 [(0.38, -0.44), (0.72, 0)]]),
    "V": (0.88, [[(0, -1), (0.44, 0), (0.88, -1)]]),
    "I": (0.12, [[(0.03, -1), (0.03, 0)]]),
    "K": (0.76, [[(0, -1), (0, 0)], [(0.72, -1), (0, -0.36)], [(0.26, -0.58), (0.76, 0)]]),
}


def write(canvas, glyphs, text, x, base, size, spacing, thickness, colour):
    for letter in text:
        width, strokes = glyphs[letter]
        for stroke in strokes:
            canvas.stroke([(x + px * size, base + py * size) for px, py in stroke], thickness, colour)
        x += (width + spacing) * size
    return x


def mark(canvas, left, top, size):
    """The sign: a reading screen whose image is crossed by the light path of a Z."""
    unit = size / 100
    canvas.rounded(left, top, left + size, top + size, 22 * unit, GRAPHITE)

    def at(points):
        return [(left + x * unit, top + y * unit) for x, y in points]

    canvas.stroke(at([(27, 29), (73, 29), (27, 71), (73, 71)]), 11 * unit, AMBER)
    canvas.stroke(at(arc(50, 50, 36, 36, -28, 28, 20)), 4.5 * unit, WHITE)
    canvas.stroke(at(arc(50, 50, 36, 36, 152, 208, 20)), 4.5 * unit, WHITE)


def slogan():
    canvas = Canvas(920, 230)
    mark(canvas, 4, 20, 190)
    end = write(canvas, UPPER, "ZORVIK", 262, 128, 96, 0.36, 15, GRAPHITE)
    canvas.stroke([(262, 158), (end - 0.36 * 96, 158)], 4, AMBER)
    write(canvas, LOWER, "Every reading accounted for.", 264, 208, 22, 0.36, 3.6, STONE)
    return canvas


def icon():
    canvas = Canvas(128, 128)
    mark(canvas, 2, 2, 124)
    return canvas


def main():
    folder = sys.argv[1] if len(sys.argv) > 1 else os.path.dirname(os.path.abspath(__file__))
    slogan().save(os.path.join(folder, "zorvik-slogan.png"))
    icon().save(os.path.join(folder, "zorvik-icon.png"))


main()

#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""Draws the editor's background picture and writes it as plugin/resources/background.png.

Standard library only, so the artwork can be regenerated on any machine with Python 3:
a small anti-aliased rasteriser (signed distances), a 5x7 bitmap font and a PNG writer
that embeds an sRGB colour profile built here.

The editor shows the top-left 700 x 193 pixels; the panels below line up with the
knobs the editor places over them (tilt on the left, the shelves in the middle, trim on
the right).  The picture is deterministic: the same script always writes the same bytes.
"""

import math
import os
import struct
import sys
import zlib

WIDTH, HEIGHT = 707, 196


# ---------------------------------------------------------------------------------------
# Canvas

class Canvas:
    def __init__(self, width, height, colour):
        self.width = width
        self.height = height
        self.pixels = [list(colour) for _ in range(width * height)]

    def blend(self, x, y, colour, alpha):
        if alpha <= 0.0 or not (0 <= x < self.width and 0 <= y < self.height):
            return
        alpha = min(alpha, 1.0)
        p = self.pixels[y * self.width + x]
        for c in range(3):
            p[c] += (colour[c] - p[c]) * alpha

    def shade(self, x0, y0, x1, y1, coverage, colour_at):
        """Blends colour_at(x, y) weighted by coverage(px, py) over a pixel rectangle."""
        for y in range(max(0, int(y0)), min(self.height, int(math.ceil(y1)))):
            for x in range(max(0, int(x0)), min(self.width, int(math.ceil(x1)))):
                a = coverage(x + 0.5, y + 0.5)
                if a > 0.0:
                    colour, alpha = colour_at(x, y)
                    self.blend(x, y, colour, a * alpha)

    def rgb_rows(self):
        for y in range(self.height):
            row = bytearray()
            for x in range(self.width):
                for v in self.pixels[y * self.width + x]:
                    row.append(max(0, min(255, int(round(v)))))
            yield bytes(row)


def clamp01(v):
    return 0.0 if v < 0.0 else 1.0 if v > 1.0 else v


def mix(a, b, t):
    return tuple(a[i] + (b[i] - a[i]) * t for i in range(3))


def hex_colour(value):
    return ((value >> 16) & 0xff, (value >> 8) & 0xff, value & 0xff)


def rounded_rect_distance(px, py, x, y, w, h, r):
    cx, cy = x + w / 2.0, y + h / 2.0
    qx = abs(px - cx) - (w / 2.0 - r)
    qy = abs(py - cy) - (h / 2.0 - r)
    outside = math.hypot(max(qx, 0.0), max(qy, 0.0))
    return outside + min(max(qx, qy), 0.0) - r


# ---------------------------------------------------------------------------------------
# Primitives

def fill_rounded_rect(canvas, x, y, w, h, r, top, bottom=None, alpha=1.0):
    bottom = top if bottom is None else bottom
    canvas.shade(x - 1, y - 1, x + w + 1, y + h + 1,
                 lambda px, py: clamp01(0.5 - rounded_rect_distance(px, py, x, y, w, h, r)),
                 lambda px, py: (mix(top, bottom, clamp01((py - y) / max(h, 1))), alpha))


def stroke_rounded_rect(canvas, x, y, w, h, r, thickness, colour, alpha=1.0):
    half = thickness / 2.0
    canvas.shade(x - thickness - 1, y - thickness - 1, x + w + thickness + 1, y + h + thickness + 1,
                 lambda px, py: clamp01(half + 0.5 - abs(rounded_rect_distance(px, py, x, y, w, h, r))),
                 lambda px, py: (colour, alpha))


def recessed_panel(canvas, x, y, w, h, r):
    """A panel sunk into the face plate: darker inside, shadow on the top edge, light below."""
    fill_rounded_rect(canvas, x, y, w, h, r, (27, 33, 37), (35, 43, 48))
    stroke_rounded_rect(canvas, x + 0.5, y + 1.5, w - 1, h - 1, r, 1.0, (255, 255, 255), 0.06)
    stroke_rounded_rect(canvas, x, y, w, h, r, 1.0, (10, 13, 15), 0.85)


def fill_disc(canvas, cx, cy, radius, colour, alpha=1.0):
    canvas.shade(cx - radius - 1, cy - radius - 1, cx + radius + 1, cy + radius + 1,
                 lambda px, py: clamp01(radius + 0.5 - math.hypot(px - cx, py - cy)),
                 lambda px, py: (colour, alpha))


def line(canvas, x0, y0, x1, y1, thickness, colour, alpha=1.0):
    dx, dy = x1 - x0, y1 - y0
    length2 = dx * dx + dy * dy
    half = thickness / 2.0

    def coverage(px, py):
        t = clamp01(((px - x0) * dx + (py - y0) * dy) / length2)
        return clamp01(half + 0.5 - math.hypot(px - (x0 + t * dx), py - (y0 + t * dy)))

    canvas.shade(min(x0, x1) - thickness - 1, min(y0, y1) - thickness - 1,
                 max(x0, x1) + thickness + 1, max(y0, y1) + thickness + 1,
                 coverage, lambda px, py: (colour, alpha))


# The framework's rotary knobs sweep from 7 o'clock to 5 o'clock, clockwise.
ROTARY_START = math.pi * 1.2
ROTARY_END = math.pi * 2.8


def knob_scale(canvas, cx, cy, inner, outer, ticks, colour, major=()):
    """Tick marks around a knob; major ticks are longer and brighter."""
    fill_disc(canvas, cx, cy, inner - 2, (20, 25, 28), 0.55)
    for i in range(ticks):
        angle = ROTARY_START + (ROTARY_END - ROTARY_START) * i / (ticks - 1)
        sx, sy = math.sin(angle), -math.cos(angle)
        is_major = i in major
        length_end = outer + (3 if is_major else 0)
        line(canvas, cx + sx * inner, cy + sy * inner, cx + sx * length_end, cy + sy * length_end,
             1.4 if is_major else 1.0, colour, 0.9 if is_major else 0.45)


# ---------------------------------------------------------------------------------------
# Bitmap font: 5 x 7 cells, one string of five characters per row.

GLYPHS = {
    "A": ["01110", "10001", "10001", "11111", "10001", "10001", "10001"],
    "B": ["11110", "10001", "10001", "11110", "10001", "10001", "11110"],
    "D": ["11110", "10001", "10001", "10001", "10001", "10001", "11110"],
    "E": ["11111", "10000", "10000", "11110", "10000", "10000", "11111"],
    "F": ["11111", "10000", "10000", "11110", "10000", "10000", "10000"],
    "G": ["01111", "10000", "10000", "10111", "10001", "10001", "01111"],
    "H": ["10001", "10001", "10001", "11111", "10001", "10001", "10001"],
    "I": ["01110", "00100", "00100", "00100", "00100", "00100", "01110"],
    "L": ["10000", "10000", "10000", "10000", "10000", "10000", "11111"],
    "N": ["10001", "11001", "10101", "10011", "10001", "10001", "10001"],
    "O": ["01110", "10001", "10001", "10001", "10001", "10001", "01110"],
    "P": ["11110", "10001", "10001", "11110", "10000", "10000", "10000"],
    "Q": ["01110", "10001", "10001", "10001", "10101", "10010", "01101"],
    "R": ["11110", "10001", "10001", "11110", "10100", "10010", "10001"],
    "S": ["01111", "10000", "10000", "01110", "00001", "00001", "11110"],
    "T": ["11111", "00100", "00100", "00100", "00100", "00100", "00100"],
    "U": ["10001", "10001", "10001", "10001", "10001", "10001", "01110"],
    "V": ["10001", "10001", "10001", "10001", "10001", "01010", "00100"],
    "Z": ["11111", "00001", "00010", "00100", "01000", "10000", "11111"],
    "0": ["01110", "10001", "10011", "10101", "11001", "10001", "01110"],
    "1": ["00100", "01100", "00100", "00100", "00100", "00100", "01110"],
    " ": ["00000"] * 7,
}


def text_width(text, scale, spacing=1):
    return len(text) * (5 + spacing) * scale - spacing * scale


def draw_text(canvas, x, y, text, scale, top, bottom=None, alpha=1.0, spacing=1):
    """Draws text with its top-left corner at (x, y); each font pixel is scale x scale."""
    bottom = top if bottom is None else bottom
    height = 7 * scale
    for index, ch in enumerate(text):
        glyph = GLYPHS[ch]
        gx = x + index * (5 + spacing) * scale
        for row, bits in enumerate(glyph):
            for col, bit in enumerate(bits):
                if bit != "1":
                    continue
                for py in range(scale):
                    for px in range(scale):
                        yy = y + row * scale + py
                        colour = mix(top, bottom, (row * scale + py) / max(height - 1, 1))
                        canvas.blend(int(gx + col * scale + px), int(yy), colour, alpha)


def draw_text_centred(canvas, cx, y, text, scale, colour, alpha=1.0, spacing=1):
    draw_text(canvas, int(round(cx - text_width(text, scale, spacing) / 2.0)), y, text, scale,
              colour, alpha=alpha, spacing=spacing)


# ---------------------------------------------------------------------------------------
# The picture

def face_plate(canvas):
    """Vertical gradient, a soft vignette, brushed streaks and fine grain."""
    seed = 0x5eed
    top, bottom = (58, 70, 77), (36, 44, 49)
    streaks = []
    for _ in range(canvas.height):
        seed = (seed * 1103515245 + 12345) & 0x7fffffff
        streaks.append(((seed >> 8) % 7 - 3) * 0.6)
    for y in range(canvas.height):
        base = mix(top, bottom, y / (canvas.height - 1))
        for x in range(canvas.width):
            seed = (seed * 1103515245 + 12345) & 0x7fffffff
            grain = ((seed >> 16) % 5 - 2) * 0.7
            nx = (x - canvas.width / 2.0) / (canvas.width / 2.0)
            ny = (y - canvas.height / 2.0) / (canvas.height / 2.0)
            vignette = 1.0 - 0.18 * (nx * nx * 0.6 + ny * ny)
            canvas.pixels[y * canvas.width + x] = [c * vignette + streaks[y] + grain for c in base]


def draw(canvas):
    face_plate(canvas)

    orange = hex_colour(0xff8b00)
    engraving = (150, 165, 172)

    # Tilt: the big knob and the two switches.
    recessed_panel(canvas, 6, 16, 316, 170, 7)
    knob_scale(canvas, 209.5, 77.0, 53, 59, 21, engraving, major=(0, 10, 20))

    # Product name under the switches, with an accent rule.
    draw_text(canvas, 20, 124, "QUENDA", 3, (8, 10, 12), alpha=0.55)
    draw_text(canvas, 19, 123, "QUENDA", 3, (242, 244, 245), (182, 192, 198))
    fill_rounded_rect(canvas, 19, 149, 105, 2, 1, orange)
    draw_text(canvas, 19, 157, "LINEAR TILT EQ", 1, engraving, alpha=0.85)

    # Shelves: low column, high column, gain on top and corner below.
    recessed_panel(canvas, 330, 16, 234, 170, 7)
    line(canvas, 446.5, 26, 446.5, 176, 1.0, (10, 13, 15), 0.6)
    line(canvas, 447.5, 26, 447.5, 176, 1.0, (255, 255, 255), 0.05)
    for cx in (389.0, 502.0):
        knob_scale(canvas, cx, 52.0, 26, 30, 11, engraving, major=(0, 5, 10))
        knob_scale(canvas, cx, 132.0, 26, 30, 11, engraving, major=(0, 10))

    # Trim: the output stage and the maker's line.
    recessed_panel(canvas, 570, 10, 122, 176, 7)
    knob_scale(canvas, 629.5, 64.0, 31, 35, 13, engraving, major=(0, 6, 12))
    draw_text_centred(canvas, 631, 142, "OUTPUT", 1, engraving, alpha=0.85)
    fill_rounded_rect(canvas, 600, 153, 62, 1, 0.5, orange, alpha=0.8)


# ---------------------------------------------------------------------------------------
# PNG with an sRGB profile

def s15fixed16(v):
    return struct.pack(">i", int(round(v * 65536)))


def icc_tag_xyz(x, y, z):
    return b"XYZ " + b"\0" * 4 + s15fixed16(x) + s15fixed16(y) + s15fixed16(z)


def icc_tag_text(text):
    return b"text" + b"\0" * 4 + text.encode("ascii") + b"\0"


def icc_tag_desc(text):
    ascii_bytes = text.encode("ascii") + b"\0"
    return (b"desc" + b"\0" * 4 + struct.pack(">I", len(ascii_bytes)) + ascii_bytes
            + struct.pack(">II", 0, 0) + struct.pack(">HB", 0, 0) + b"\0" * 67)


def icc_tag_srgb_curve(entries=1024):
    values = []
    for i in range(entries):
        v = i / (entries - 1)
        linear = v / 12.92 if v <= 0.04045 else ((v + 0.055) / 1.055) ** 2.4
        values.append(int(round(linear * 65535)))
    return b"curv" + b"\0" * 4 + struct.pack(">I", entries) + struct.pack(">%dH" % entries, *values)


def srgb_icc_profile():
    """A version 2 display profile: sRGB primaries adapted to D50 and the sRGB tone curve."""
    curve = icc_tag_srgb_curve()
    tags = [
        (b"desc", icc_tag_desc("sRGB")),
        (b"cprt", icc_tag_text("No copyright, use freely")),
        (b"wtpt", icc_tag_xyz(0.9642, 1.0, 0.8249)),
        (b"rXYZ", icc_tag_xyz(0.4361, 0.2225, 0.0139)),
        (b"gXYZ", icc_tag_xyz(0.3851, 0.7169, 0.0971)),
        (b"bXYZ", icc_tag_xyz(0.1431, 0.0606, 0.7141)),
        (b"rTRC", curve),
        (b"gTRC", curve),
        (b"bTRC", curve),
    ]

    table_size = 4 + 12 * len(tags)
    offset = 128 + table_size
    table = struct.pack(">I", len(tags))
    data = b""
    placed = {}
    for signature, body in tags:
        if body not in placed:  # the three tone curves share one copy
            while (offset + len(data)) % 4:
                data += b"\0"
            placed[body] = offset + len(data)
            data += body
        table += signature + struct.pack(">II", placed[body], len(body))
    while len(data) % 4:
        data += b"\0"

    size = 128 + table_size + len(data)
    header = (struct.pack(">I", size) + b"\0" * 4 + struct.pack(">I", 0x02100000)
              + b"mntr" + b"RGB " + b"XYZ "
              + struct.pack(">6H", 2024, 1, 1, 0, 0, 0)
              + b"acsp" + b"\0" * 4 + struct.pack(">I", 0) + b"\0" * 4 + b"\0" * 4
              + b"\0" * 8 + struct.pack(">I", 0)
              + s15fixed16(0.9642) + s15fixed16(1.0) + s15fixed16(0.8249)
              + b"\0" * 4 + b"\0" * 16 + b"\0" * 28)
    assert len(header) == 128
    return header + table + data


def chunk(kind, body):
    return (struct.pack(">I", len(body)) + kind + body
            + struct.pack(">I", zlib.crc32(kind + body) & 0xffffffff))


def png_bytes(canvas):
    raw = b"".join(b"\0" + row for row in canvas.rgb_rows())
    return b"".join([
        b"\x89PNG\r\n\x1a\n",
        chunk(b"IHDR", struct.pack(">IIBBBBB", canvas.width, canvas.height, 8, 2, 0, 0, 0)),
        chunk(b"pHYs", struct.pack(">IIB", 23622, 23622, 1)),
        chunk(b"iCCP", b"sRGB\0\0" + zlib.compress(srgb_icc_profile(), 9)),
        chunk(b"gAMA", struct.pack(">I", 45454)),
        chunk(b"cHRM", struct.pack(">8I", 31270, 32900, 64000, 33000, 30000, 60000, 15000, 6000)),
        chunk(b"IDAT", zlib.compress(raw, 9)),
        chunk(b"IEND", b""),
    ])


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    target = sys.argv[1] if len(sys.argv) > 1 else os.path.join(here, "..", "plugin", "resources", "background.png")
    canvas = Canvas(WIDTH, HEIGHT, (0, 0, 0))
    draw(canvas)
    with open(target, "wb") as f:
        f.write(png_bytes(canvas))


if __name__ == "__main__":
    main()

#!/usr/bin/env python3
"""Draws Vellgrund's icon sheets, vellgrund_icons.tif and vellgrund_blendmodes.tif.

Usage: scripts/make_icons.py [OUTPUT_DIR]      (default: the repository's res/)

Each icon is a few shapes on a 64 x 64 grid, rasterised with S x S samples per pixel so that
edges are anti-aliased. oiiotool joins the colour and alpha planes into an 8-bit RGBA TIFF
with straight alpha. The output depends on nothing but this file.
"""
import math
import os
import re
import subprocess
import sys
import tempfile

S = 4  # samples per pixel along each axis
N = 64 * S  # samples along each side of a cell
ONES = b"\x01" * N
DARK, MID, LIGHT, WHITE = (22, 78, 92), (38, 150, 170), (126, 211, 224), (236, 248, 250)


def ramp(v):
    """Maps 0 .. 1 onto the accent family, from dark to white."""
    stops = ((0.0, DARK), (0.5, MID), (0.8, LIGHT), (1.0, WHITE))
    v = min(1.0, max(0.0, v))
    for (v0, c0), (v1, c1) in zip(stops, stops[1:]):
        if v <= v1:
            return tuple(round(a + (b - a) * (v - v0) / (v1 - v0)) for a, b in zip(c0, c1))


class Mask:
    """The samples of one cell that a union of shapes covers (one byte each, 0 or 1)."""

    def __init__(self, bits=None):
        self.bits = bits if bits is not None else bytearray(N * N)

    def _rows(self, y0, y1):
        for j in range(max(0, math.ceil(y0 * S - 0.5)), min(N, math.ceil(y1 * S - 0.5))):
            yield j, (j + 0.5) / S

    def _span(self, j, xa, xb):
        a, b = max(0, math.ceil(xa * S - 0.5)), min(N, math.ceil(xb * S - 0.5))
        if b > a:
            self.bits[j * N + a:j * N + b] = ONES[:b - a]

    def poly(self, *contours):
        """Even-odd fill, so that a second contour inside the first cuts a hole."""
        edges = [(p, q) for c in contours for p, q in zip(c, c[1:] + c[:1]) if p[1] != q[1]]
        ys = [p[1] for c in contours for p in c]
        for j, y in self._rows(min(ys), max(ys)):
            xs = sorted(p[0] + (y - p[1]) * (q[0] - p[0]) / (q[1] - p[1])
                        for p, q in edges if (p[1] <= y) != (q[1] <= y))
            for xa, xb in zip(xs[::2], xs[1::2]):
                self._span(j, xa, xb)
        return self

    def rect(self, x0, y0, x1, y1):
        return self.poly([(x0, y0), (x1, y0), (x1, y1), (x0, y1)])

    def circle(self, cx, cy, r):
        for j, y in self._rows(cy - r, cy + r):
            d = r * r - (y - cy) ** 2
            if d > 0:
                self._span(j, cx - math.sqrt(d), cx + math.sqrt(d))
        return self

    def line(self, pts, w=3.0, closed=False):
        """A stroke of width w along a polyline, with round joins and ends."""
        pts = list(pts) + [pts[0]] if closed else list(pts)
        h = w / 2
        for (x0, y0), (x1, y1) in zip(pts, pts[1:]):
            length = math.hypot(x1 - x0, y1 - y0) or 1.0
            nx, ny = -(y1 - y0) / length * h, (x1 - x0) / length * h
            self.poly([(x0 + nx, y0 + ny), (x1 + nx, y1 + ny), (x1 - nx, y1 - ny), (x0 - nx, y0 - ny)])
        for x, y in pts:
            self.circle(x, y, h)
        return self

    def dashed(self, p, q, w, on=4.0, off=3.0):
        length = math.hypot(q[0] - p[0], q[1] - p[1])
        at = lambda t: (p[0] + (q[0] - p[0]) * t / length, p[1] + (q[1] - p[1]) * t / length)
        for k in range(int(length / (on + off)) + 1):
            self.line([at(k * (on + off)), at(min(k * (on + off) + on, length))], w)
        return self

    # Set operations on whole masks: Python integers do them on all bytes at once.
    def _op(self, other, f):
        a, b = int.from_bytes(self.bits, "big"), int.from_bytes(other.bits, "big")
        return Mask(bytearray(f(a, b).to_bytes(N * N, "big")))

    __or__ = lambda self, other: self._op(other, int.__or__)
    __and__ = lambda self, other: self._op(other, int.__and__)
    __sub__ = lambda self, other: self._op(other, lambda a, b: a & ~b)


class Icon:
    """One cell: premultiplied R, G, B and alpha per sample, painted back to front."""

    def __init__(self):
        self.planes = [bytearray(N * N) for _ in range(4)]

    def paint(self, mask, colour):
        """colour is RGB, or a function of the point (x, y) giving RGB or (R, G, B, alpha 0 .. 1)."""
        for run in re.finditer(b"\x01+", mask.bits):
            a, b = run.span()
            if not callable(colour):
                for plane, value in zip(self.planes, colour + (255,)):
                    plane[a:b] = bytes((value,)) * (b - a)
                continue
            for i in range(a, b):
                c = colour((i % N + 0.5) / S, (i // N + 0.5) / S)
                k = c[3] if len(c) > 3 else 1.0
                for plane, value in zip(self.planes, c[:3] + (255,)):
                    plane[i] = round(value * k + plane[i] * (1.0 - k))

    def erase(self, mask):
        for run in re.finditer(b"\x01+", mask.bits):
            for plane in self.planes:
                plane[run.start():run.end()] = bytes(run.end() - run.start())

    def pixels(self):
        """The 64 x 64 straight-alpha RGBA pixels, averaged from the samples, row by row."""
        out = []
        for y in range(64):
            sums = []
            for plane in self.planes:
                column = [sum(t) for t in zip(*(plane[(y * S + k) * N:(y * S + k + 1) * N] for k in range(S)))]
                sums.append([sum(column[x * S:(x + 1) * S]) for x in range(64)])
            for r, g, b, a in zip(*sums):
                out.append((0, 0, 0, 0) if a == 0 else
                           tuple(min(255, round(c * 255 / a)) for c in (r, g, b)) + (round(a / (S * S)),))
        return out


# ---- shapes --------------------------------------------------------------------------------

def arc(cx, cy, r, a0, a1, n=24):
    """Points on a circle from angle a0 to a1 in degrees (y points down, so 90 is below)."""
    return [(cx + r * math.cos(math.radians(a0 + (a1 - a0) * k / n)),
             cy + r * math.sin(math.radians(a0 + (a1 - a0) * k / n))) for k in range(n + 1)]


def rrect(x0, y0, x1, y1, r):
    return [p for cx, cy, a in ((x1 - r, y0 + r, -90), (x1 - r, y1 - r, 0), (x0 + r, y1 - r, 90),
                                (x0 + r, y0 + r, 180)) for p in arc(cx, cy, r, a, a + 90, 6)]


def graph(f, x0, x1, n=64):
    return [(x0 + (x1 - x0) * k / n, f(x0 + (x1 - x0) * k / n)) for k in range(n + 1)]


def bezier(p0, p1, p2, p3, n=40):
    return [tuple((1 - t) ** 3 * a + 3 * (1 - t) ** 2 * t * b + 3 * (1 - t) * t * t * c + t ** 3 * d
                  for a, b, c, d in zip(p0, p1, p2, p3)) for t in (k / n for k in range(n + 1))]


def strokes(*polylines, w=3.0):
    m = Mask()
    for pts in polylines:
        m.line(pts, w)
    return m


def shape(g, pts, fill=MID, edge=DARK, w=2.5):
    """A filled polygon with an outline, the basic solid of the style."""
    g.paint(Mask().poly(pts), fill)
    g.paint(Mask().line(pts, w, closed=True), edge)


def disc(g, cx, cy, r, fill=MID, edge=DARK, w=2.5):
    g.paint(Mask().circle(cx, cy, r), fill)
    g.paint(Mask().circle(cx, cy, r + w / 2) - Mask().circle(cx, cy, r - w / 2), edge)


def drop(x, y):
    return Mask().circle(x, y + 2, 4.5).poly([(x - 4.2, y + 0.4), (x, y - 7), (x + 4.2, y + 0.4)])


def sun(x, y):
    rays = [[(x + 5 * math.cos(a), y + 5 * math.sin(a)), (x + 7 * math.cos(a), y + 7 * math.sin(a))]
            for a in (math.radians(45 * k) for k in range(8))]
    return strokes(*rays, w=1.8).circle(x, y, 3.2)


# Signs for the corner badge, drawn around (x, y) within a radius of about 7.
GLYPHS = {
    "=": lambda x, y: strokes([(x - 6, y - 3), (x + 6, y - 3)], [(x - 6, y + 3), (x + 6, y + 3)]),
    "+": lambda x, y: strokes([(x - 6, y), (x + 6, y)], [(x, y - 6), (x, y + 6)]),
    "-": lambda x, y: strokes([(x - 6, y), (x + 6, y)]),
    "x": lambda x, y: strokes([(x - 4.5, y - 4.5), (x + 4.5, y + 4.5)], [(x - 4.5, y + 4.5), (x + 4.5, y - 4.5)]),
    "/": lambda x, y: strokes([(x - 6, y), (x + 6, y)]).circle(x, y - 5, 2).circle(x, y + 5, 2),
    "min": lambda x, y: strokes([(x, y - 6), (x, y + 6)], [(x - 5, y + 1), (x, y + 6), (x + 5, y + 1)], w=2.6),
    "max": lambda x, y: strokes([(x, y + 6), (x, y - 6)], [(x - 5, y - 1), (x, y - 6), (x + 5, y - 1)], w=2.6),
    "delta": lambda x, y: Mask().line([(x, y - 6), (x + 6.5, y + 5), (x - 6.5, y + 5)], 2.4, closed=True),
    "drop": drop,
    "half": lambda x, y: (Mask().circle(x, y, 7) - Mask().circle(x, y, 5)).poly(arc(x, y, 6, 90, 270, 12)),
    "not": lambda x, y: strokes([(x - 6, y - 2), (x + 5, y - 2), (x + 5, y + 4)]),
    "sun": sun,
    "bolt": lambda x, y: Mask().poly([(x + 2, y - 8), (x - 5, y + 1), (x - 0.5, y + 1), (x - 2, y + 8),
                                      (x + 5, y - 1), (x + 0.5, y - 1)]),
    "next": lambda x, y: Mask().poly([(x - 3.5, y - 6.5), (x + 6.5, y), (x - 3.5, y + 6.5)]),
    "previous": lambda x, y: Mask().poly([(x + 3.5, y - 6.5), (x - 6.5, y), (x + 3.5, y + 6.5)]),
}


def badge(g, glyph, inverse=False, x=49, y=49, r=12):
    """A round sign in the lower right corner, set off from the picture by a clear gap."""
    g.erase(Mask().circle(x, y, r + 2.5))
    g.paint(Mask().circle(x, y, r), WHITE if inverse else DARK)
    if inverse:
        g.paint(Mask().circle(x, y, r) - Mask().circle(x, y, r - 2), DARK)
    g.paint(GLYPHS[glyph](x, y), DARK if inverse else WHITE)


# ---- the icons -----------------------------------------------------------------------------

def terrain(g):
    shape(g, [(6, 52), (18, 24), (25, 32), (40, 8), (52, 28), (58, 22), (62, 34), (62, 52)], LIGHT)
    front = [(2, 58), (14, 38), (22, 46), (34, 24), (46, 42), (52, 36), (62, 58)]
    shape(g, front, MID)
    g.paint(Mask().poly([(34, 24), (39.3, 32), (37, 30.5), (34.5, 33.5), (31.5, 30.5), (29.2, 32)]), WHITE)
    g.paint(Mask().line(front[2:5], 2.5), DARK)


def noise(g):
    frame = Mask().poly(rrect(6, 6, 58, 58, 7))
    for i in range(5):
        for j in range(5):
            shade = ((i * 7 + j * 13 + i * j * 5) % 11) / 10  # a fixed scatter, the same every run
            g.paint(Mask().rect(6 + 10.4 * i, 6 + 10.4 * j, 16.4 + 10.4 * i, 16.4 + 10.4 * j) & frame,
                    ramp(0.15 + 0.85 * shade))
    g.paint(Mask().line(rrect(6, 6, 58, 58, 7), 2.5, closed=True), DARK)


def gradient(g):
    g.paint(Mask().poly(rrect(6, 12, 58, 52, 6)), lambda x, y: ramp((x - 8) / 48))
    g.paint(Mask().line(rrect(6, 12, 58, 52, 6), 2.5, closed=True), DARK)


def shader(g):
    # A picture whose brightness is height: a range lit at its summits, under a sun.
    frame = rrect(6, 10, 58, 54, 5)
    inside = Mask().poly(frame)
    g.paint(inside, WHITE)
    g.paint(sun(48, 20) & inside, MID)
    ridge = [(4, 56), (4, 42), (18, 26), (27, 36), (39, 21), (60, 46), (60, 56)]
    g.paint(Mask().poly(ridge) & inside, lambda x, y: ramp(0.9 - 0.8 * (y - 21) / 33))
    g.paint(Mask().line(frame, 2.5, closed=True), DARK)


def spline(g):
    p = [(8, 52), (12, 10), (52, 54), (56, 12)]
    g.paint(strokes(p[:2], p[2:], w=2), DARK)
    g.paint(Mask().line(bezier(*p), 4.5), MID)
    for x, y in p[1:3]:
        shape(g, [(x - 4, y - 4), (x + 4, y - 4), (x + 4, y + 4), (x - 4, y + 4)], WHITE, DARK, 2)
    for x, y in (p[0], p[3]):
        disc(g, x, y, 4, LIGHT, DARK, 2)


def group_op(g):
    shape(g, rrect(8, 10, 56, 54, 7), MID)
    g.paint(strokes([(22, 32), (42, 32)]), DARK)
    for x in (14, 36):
        shape(g, rrect(x, 24, x + 14, 40, 3), WHITE, DARK, 2)
    for x in (8, 56):
        disc(g, x, 32, 4.5, LIGHT, DARK, 2)


def adjust(g):
    for y, at in ((16, 42), (32, 20), (48, 32)):
        g.paint(strokes([(8, y), (56, y)]), DARK)
        g.paint(strokes([(8, y), (at, y)], w=5), MID)
        disc(g, at, y, 6, LIGHT, DARK)


def blur(g):
    def soft(x, y):
        d = math.hypot(x - 32, y - 32)
        return MID + (1.0 if d < 11 else max(0.0, 1 - (d - 11) / 18) ** 1.6,)
    g.paint(Mask().circle(32, 32, 29), soft)
    g.paint(Mask().circle(32, 32, 7), LIGHT)


def clamp(g):
    wave = graph(lambda x: 32 - 24 * math.sin((x - 6) / 52 * 2.5 * math.pi), 6, 58)
    g.paint(Mask().line(wave, 1.5) - Mask().rect(0, 17, 64, 47), LIGHT)  # what was cut off
    g.paint(Mask().dashed((4, 17), (60, 17), 2).dashed((4, 47), (60, 47), 2), DARK)
    g.paint(Mask().line([(x, min(47, max(17, y))) for x, y in wave], 4.5), MID)


def curve(g):
    g.paint(strokes(*(line for k in (20, 32, 44) for line in ([(k, 8), (k, 56)], [(8, k), (56, k)])), w=1.2), LIGHT)
    g.paint(strokes([(8, 6), (8, 56), (58, 56)]), DARK)
    g.paint(Mask().line(graph(lambda x: 54 - 44 * ((x - 10) / 44) ** 2 * (3 - 2 * (x - 10) / 44), 10, 54), 4.5), MID)
    disc(g, 32, 32, 4, WHITE, DARK, 2)


def mirror(g):
    shape(g, [(27, 12), (27, 54), (6, 54), (14, 38)], MID)
    shape(g, [(37, 12), (37, 54), (58, 54), (50, 38)], LIGHT)
    g.paint(Mask().dashed((32, 4), (32, 60), 2.5), MID)


def erosion(g):
    hill = [(4, 58), (20, 32), (26, 36), (36, 12), (48, 34), (60, 58)]
    gullies = strokes([(36, 22), (33, 32), (35, 42), (31, 60)], [(27, 42), (23, 50), (24, 60)],
                      [(44, 36), (45, 46), (42, 60)], w=2.5)
    g.paint(Mask().poly(hill) - gullies, MID)
    g.paint(Mask().line(hill, 2.5), DARK)
    g.paint(drop(13, 14), MID)
    g.paint(Mask().circle(11.5, 17, 1.5), WHITE)


def sign(glyph):
    def draw(g):
        disc(g, 32, 32, 26)
        g.paint(glyph, WHITE)
    return draw


def nodes(g, at, glyph):
    """Three linked nodes and a dashed frame: inside it to group them, spread out to ungroup."""
    g.paint(Mask().dashed((5, 5), (44, 5), 2.2).dashed((44, 5), (44, 44), 2.2)
            .dashed((44, 44), (5, 44), 2.2).dashed((5, 44), (5, 5), 2.2), DARK)
    g.paint(Mask().line([(x + 6, y + 6) for x, y in at], 2.5), DARK)
    for x, y in at:
        shape(g, rrect(x, y, x + 12, y + 12, 2.5), MID, DARK, 2)
    badge(g, glyph)


def fold(g):
    hump = graph(lambda x: 56 - 46 * math.sin(math.pi * (x - 6) / 52), 6, 58)
    g.paint(Mask().line(hump, 1.5) - Mask().rect(0, 26, 64, 64), LIGHT)  # the part folded down
    g.paint(Mask().dashed((4, 26), (60, 26), 2), DARK)
    g.paint(Mask().line([(x, y if y >= 26 else 52 - y) for x, y in hump], 4.5), MID)


def grid(n, glyph):
    def draw(g):
        step = 40 / n
        for i in range(n):
            for j in range(n):
                g.paint(Mask().rect(6 + i * step, 6 + j * step, 6 + (i + 1) * step, 6 + (j + 1) * step),
                        MID if (i + j) % 2 else LIGHT)
        g.paint(Mask().line([(6, 6), (46, 6), (46, 46), (6, 46)], 2.5, closed=True), DARK)
        badge(g, glyph)
    return draw


def sharpen(g):
    gem = [(12, 24), (22, 12), (42, 12), (52, 24), (32, 56)]
    g.paint(Mask().poly(gem), MID)
    g.paint(Mask().poly([(22, 12), (42, 12), (38, 24), (26, 24)]).poly([(26, 24), (38, 24), (32, 56)]), LIGHT)
    g.paint(Mask().line(gem, 2.5, closed=True) | strokes([(12, 24), (52, 24)],
            [(22, 12), (26, 24), (32, 56), (38, 24), (42, 12)], w=2), DARK)


def quantize(g):
    steps = [(8, 56), (8, 44), (20, 44), (20, 32), (32, 32), (32, 20), (44, 20), (44, 8), (56, 8), (56, 56)]
    shape(g, steps, MID)
    g.paint(Mask().dashed((10, 54), (54, 10), 2, 3, 3) & Mask().poly(steps), WHITE)  # the ramp it steps


def pair(g, overlap, a=0.5, b=0.8):
    """Two overlapping discs of the values a and b; overlap gives the value where they meet."""
    first, second = Mask().circle(21, 23, 16), Mask().circle(37, 31, 16)
    g.paint(first, ramp(a))
    g.paint(second, ramp(b))
    g.paint(first & second, ramp(overlap(a, b)))
    g.paint(strokes(arc(21, 23, 16, 0, 360, 48), arc(37, 31, 16, 0, 360, 48), w=1.8), DARK)


ICONS = {
    (0, 0): terrain, (64, 0): noise, (128, 0): gradient, (192, 0): shader, (256, 0): spline,
    (320, 0): group_op, (384, 0): adjust, (448, 0): blur, (512, 0): clamp, (576, 0): curve,
    (0, 64): mirror, (64, 64): erosion,
    (128, 64): sign(Mask().circle(32, 18, 4.5).poly(rrect(28, 26, 36, 48, 2))),
    (192, 64): lambda g: nodes(g, [(11, 11), (27, 16), (14, 28)], "+"),
    (256, 64): sign(Mask().line(arc(32, 24, 8.5, 180, 400, 20) + [(32, 36), (32, 39)], 6).circle(32, 47.5, 4)),
    (320, 64): fold, (384, 64): lambda g: nodes(g, [(2, 2), (30, 10), (6, 34)], "-"),
    (448, 64): grid(4, "+"), (512, 64): grid(2, "-"), (576, 64): sharpen, (0, 128): quantize,
    (64, 128): lambda g: (pair(g, lambda a, b: b), badge(g, "next")),
    (128, 128): lambda g: (pair(g, lambda a, b: b), badge(g, "previous")),
}

# Blend modes in the order of the sheet: the sign, whether the sign is inverted (a mode that
# is the inverse of another shares its sign) and the value where the overlay b meets the base a.
BLENDS = [
    ("=", 0, lambda a, b: b), ("+", 0, lambda a, b: a + b), ("-", 0, lambda a, b: a - b),
    ("x", 0, lambda a, b: a * b), ("/", 0, lambda a, b: a / b), ("min", 0, min), ("max", 0, max),
    ("delta", 0, lambda a, b: abs(a - b)), ("drop", 0, lambda a, b: min(a, b) - max(a, b) + (a + b) / 2),
    ("drop", 1, lambda a, b: max(a, b) - min(a, b) + (a + b) / 2),
    ("half", 0, lambda a, b: 2 * a * b if a < 0.5 else 1 - 2 * (1 - a) * (1 - b)),
    ("not", 0, lambda a, b: 1 - abs(1 - a - b)), ("x", 1, lambda a, b: 1 - (1 - a) * (1 - b)),
    ("sun", 0, lambda a, b: a * a + 2 * a * b - 2 * a * a * b if b < 0.5
     else 2 * math.sqrt(a) * b - math.sqrt(a) + 2 * a - 2 * a * b),
    ("bolt", 0, lambda a, b: 2 * a * b if b < 0.5 else 1 - 2 * (1 - b) * (1 - a)),
]


def blend_icon(glyph, inverse, f):
    # A light base under a dark overlay keeps most overlaps apart from both discs.
    return lambda g: (pair(g, f, 0.75, 0.3), badge(g, glyph, inverse))


def write(path, width, height, cells):
    rgb, alpha = bytearray(width * height * 3), bytearray(width * height)
    for (x0, y0), draw in cells.items():
        g = Icon()
        draw(g)
        for k, (r, gr, b, a) in enumerate(g.pixels()):
            i = (y0 + k // 64) * width + x0 + k % 64
            rgb[3 * i:3 * i + 3], alpha[i] = bytes((r, gr, b)), a
    with tempfile.TemporaryDirectory() as folder:
        colour, cover = os.path.join(folder, "rgb.ppm"), os.path.join(folder, "alpha.pgm")
        with open(colour, "wb") as f:
            f.write(b"P6\n%d %d\n255\n" % (width, height) + rgb)
        with open(cover, "wb") as f:
            f.write(b"P5\n%d %d\n255\n" % (width, height) + alpha)
        # No command line and a fixed date in the metadata, so that the same drawing gives the same file.
        subprocess.run(["oiiotool", "--nosoftwareattrib", colour, cover, "--chappend", "--chnames", "R,G,B,A",
                        "--attrib:type=int", "oiio:UnassociatedAlpha", "1", "--sattrib", "DateTime",
                        "2000:01:01 00:00:00", "-d", "uint8", "-o", path], check=True)


def main():
    folder = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "res")
    os.makedirs(folder, exist_ok=True)
    write(os.path.join(folder, "vellgrund_icons.tif"), 640, 192, ICONS)
    write(os.path.join(folder, "vellgrund_blendmodes.tif"), 640, 128,
          {(64 * (k % 10), 64 * (k // 10)): blend_icon(*mode) for k, mode in enumerate(BLENDS)})


if __name__ == "__main__":
    main()

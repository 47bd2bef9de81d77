#!/usr/bin/env python3
"""Writes an analytic elevation model as a GeoTIFF and as a 16-bit greyscale PNG.

Usage: scripts/make_elevation.py OUTPUT_BASE [--size N] [--spacing METRES] [--nodata]

OUTPUT_BASE.tif  float32 GeoTIFF, heights in metres, north-up, UTM zone 33N (EPSG:32633),
                 one sample every --spacing metres (default 30), pixel-is-point.
OUTPUT_BASE.png  the same heights, the lowest to the highest mapped onto 0 .. 65535; the
                 range is printed and stored in the PNG's text chunks.

--size is the number of samples per side (default 1025). With --nodata a round lake in the
south-west holds no data (-9999 in the GeoTIFF; the PNG cannot say so and holds 0 there).

The terrain: a massif with two summits, a ridge running north-east, a valley cut along it
and rolling hills: plain Python, no libraries beyond the standard ones.
"""
import argparse
import math
import struct
import sys
import zlib

NODATA = -9999.0


def height(u, v):
    """Metres at (u, v) in 0 .. 1, u east and v north."""
    def peak(cu, cv, h, r):
        return h * math.exp(-((u - cu) ** 2 + (v - cv) ** 2) / (r * r))
    h = 600.0 + peak(0.42, 0.58, 1700.0, 0.16) + peak(0.62, 0.40, 1100.0, 0.12)
    along = (u - v) * math.sqrt(0.5)  # across the ridge that runs north-east
    h += 350.0 * math.exp(-(along / 0.07) ** 2)
    h -= 280.0 * math.exp(-((along - 0.22) / 0.035) ** 2)  # the valley beside it
    h += 60.0 * math.sin(17.0 * u + 3.0 * v) * math.cos(13.0 * v - 2.0 * u)
    return h


def in_lake(u, v):
    return (u - 0.2) ** 2 + (v - 0.2) ** 2 < 0.08 ** 2


def samples(size, nodata):
    """Rows from the north edge (row 0) to the south, as GeoTIFF and PNG store them."""
    last = size - 1
    rows = []
    for j in range(size):
        v = 1.0 - j / last
        rows.append([NODATA if nodata and in_lake(i / last, v) else height(i / last, v) for i in range(size)])
    return rows


def write_geotiff(path, rows, spacing):
    height_, width = len(rows), len(rows[0])
    strip = b"".join(struct.pack("<%df" % width, *row) for row in rows)
    # Pixel is point: the tie point is the first sample's centre.
    easting, northing = 500000.0, 4100000.0 + spacing * (height_ - 1)
    extra = [
        ("scale", struct.pack("<3d", spacing, spacing, 0.0)),
        ("tie", struct.pack("<6d", 0.0, 0.0, 0.0, easting, northing, 0.0)),
        # GeoKey directory: version 1.1.0, three keys: projected model, pixel is point, EPSG:32633.
        ("keys", struct.pack("<16H", 1, 1, 0, 3, 1024, 0, 1, 1, 1025, 0, 1, 2, 3072, 0, 1, 32633)),
        ("nodata", b"%g\0" % NODATA),
    ]
    entries = 15
    offset = 8 + 2 + entries * 12 + 4
    where = {}
    for name, data in extra:
        where[name] = offset
        offset += len(data) + (len(data) & 1)
    strip_at = offset
    SHORT, LONG, ASCII, DOUBLE = 3, 4, 2, 12
    tags = [
        (256, LONG, 1, width), (257, LONG, 1, height_), (258, SHORT, 1, 32), (259, SHORT, 1, 1),
        (262, SHORT, 1, 1), (273, LONG, 1, strip_at), (277, SHORT, 1, 1), (278, LONG, 1, height_),
        (279, LONG, 1, len(strip)), (284, SHORT, 1, 1), (339, SHORT, 1, 3),
        (33550, DOUBLE, 3, where["scale"]), (33922, DOUBLE, 6, where["tie"]), (34735, SHORT, 16, where["keys"]),
        (42113, ASCII, len(extra[3][1]), where["nodata"]),  # GDAL's NoData tag
    ]
    assert len(tags) == entries
    ifd = struct.pack("<H", len(tags))
    for tag, kind, count, value in tags:
        inline = kind == SHORT and count == 1
        ifd += struct.pack("<HHI", tag, kind, count) + (struct.pack("<HH", value, 0) if inline else struct.pack("<I", value))
    ifd += struct.pack("<I", 0)
    header = b"II" + struct.pack("<HI", 42, 8)
    with open(path, "wb") as f:
        f.write(header + ifd)
        for name, data in extra:
            f.write(data + (b"\0" if len(data) & 1 else b""))
        f.write(strip)


def write_png(path, rows, low, high):
    height_, width = len(rows), len(rows[0])
    span = high - low if high > low else 1.0
    raw = bytearray()
    for row in rows:
        raw.append(0)
        for h in row:
            level = 0 if h == NODATA else round((h - low) / span * 65535.0)
            raw += struct.pack(">H", level)

    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data) & 0xFFFFFFFF)

    with open(path, "wb") as f:
        f.write(b"\x89PNG\r\n\x1a\n")
        f.write(chunk(b"IHDR", struct.pack(">IIBBBBB", width, height_, 16, 0, 0, 0, 0)))
        f.write(chunk(b"tEXt", b"Vellgrund:HeightMinimum\0%.17g" % low))
        f.write(chunk(b"tEXt", b"Vellgrund:HeightMaximum\0%.17g" % high))
        f.write(chunk(b"IDAT", zlib.compress(bytes(raw), 6)))
        f.write(chunk(b"IEND", b""))


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("output_base")
    parser.add_argument("--size", type=int, default=1025)
    parser.add_argument("--spacing", type=float, default=30.0)
    parser.add_argument("--nodata", action="store_true")
    args = parser.parse_args()
    if not 2 <= args.size <= 8193:
        sys.exit("--size must be 2 .. 8193 samples")
    if not (args.spacing > 0.0 and math.isfinite(args.spacing)):
        sys.exit("--spacing must be a positive number of metres")
    rows = samples(args.size, args.nodata)
    valid = [h for row in rows for h in row if h != NODATA]
    low, high = min(valid), max(valid)
    write_geotiff(args.output_base + ".tif", rows, args.spacing)
    write_png(args.output_base + ".png", rows, low, high)
    print("%s.tif and %s.png: %d x %d samples, %g m apart, heights %.2f .. %.2f m"
          % (args.output_base, args.output_base, args.size, args.size, args.spacing, low, high))


if __name__ == "__main__":
    main()

"""A seed sweep: the default landscape with eight seeds of its base noise, as a contact
sheet of height maps (seed_sweep.png) to pick from.

    PYTHONPATH=build/release/python python3 examples/python/seed_sweep.py
"""

import numpy as np

import vellgrund

doc = vellgrund.Document.new()
terrain = doc.nodes()[0]
terrain["TERRAINOBJECT_RESOLUTION_X"] = 200
terrain["TERRAINOBJECT_RESOLUTION_Z"] = 200
base = terrain.children[0]

tiles = []
for seed in range(8):
    base["NOISEOPERATOR_SEED"] = seed  # only the base noise and what follows it rebuild
    heights = doc.build()[0]["heights"]
    low, high = heights.min(), heights.max()
    tiles.append((heights - low) / (high - low if high > low else 1.0))

sheet = np.vstack([np.hstack(tiles[:4]), np.hstack(tiles[4:])])
# A plain 8-bit grey PNG, written without an imaging library: row 0 of a height grid is
# the terrain's far edge, the image's top line.
pixels = (sheet * 255.0).round().astype(np.uint8)


def png(path, image):
    import struct
    import zlib

    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))

    rows = b"".join(b"\0" + row.tobytes() for row in image)
    header = struct.pack(">IIBBBBB", image.shape[1], image.shape[0], 8, 0, 0, 0, 0)
    with open(path, "wb") as f:
        f.write(b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) + chunk(b"IDAT", zlib.compress(rows)) + chunk(b"IEND", b""))


png("seed_sweep.png", pixels)
print(f"wrote seed_sweep.png: seeds 0-7, {pixels.shape[1]} x {pixels.shape[0]} pixels")

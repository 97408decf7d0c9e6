#!/usr/bin/env python3
"""Writes a procedural RGB sample image as PNG, using only the Python standard library.

usage: make_sample.py OUTPUT.png [WIDTH HEIGHT]

The picture mixes what block compressors find easy and hard: smooth colour gradients, a
soft-edged disc, sharp coloured stripes, a checkerboard and fine noise.
"""
import math
import random
import struct
import sys
import zlib


def png_bytes(width, height, rows):
    def chunk(kind, data):
        body = kind + data
        return struct.pack(">I", len(data)) + body + struct.pack(">I", zlib.crc32(body) & 0xFFFFFFFF)

    raw = b"".join(b"\x00" + bytes(row) for row in rows)
    header = struct.pack(">IIBBBBB", width, height, 8, 2, 0, 0, 0)  # 8-bit RGB
    return b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) + chunk(b"IDAT", zlib.compress(raw, 9)) + chunk(b"IEND", b"")


def pixel(x, y, width, height, rng):
    u, v = x / max(width - 1, 1), y / max(height - 1, 1)
    # Background: diagonal hue sweep.
    r = 0.5 + 0.5 * math.sin(6.283 * (u + 0.0))
    g = 0.5 + 0.5 * math.sin(6.283 * (u * 0.7 + v * 0.5 + 0.33))
    b = 0.5 + 0.5 * math.sin(6.283 * (v + 0.66))
    # Soft disc in the upper left.
    d = math.hypot(u - 0.3, v - 0.3)
    t = min(max((0.22 - d) / 0.04, 0.0), 1.0)
    r, g, b = r * (1 - t) + 0.95 * t, g * (1 - t) + 0.8 * t, b * (1 - t) + 0.2 * t
    # Sharp stripes in the right third.
    if u > 0.66 and v < 0.5:
        stripe = int(x / 3) % 3
        r, g, b = [(0.9, 0.1, 0.1), (0.1, 0.8, 0.2), (0.1, 0.2, 0.9)][stripe]
    # Checkerboard in the lower right.
    if u > 0.66 and v >= 0.5:
        c = 0.85 if (x // 8 + y // 8) % 2 else 0.15
        r, g, b = c, c, c
    # Fine noise in the lower left.
    if u < 0.33 and v > 0.66:
        n = rng.random() * 0.3 - 0.15
        r, g, b = r + n, g + n, b + n
    return [max(0, min(255, int(c * 255 + 0.5))) for c in (r, g, b)]


def main():
    if len(sys.argv) not in (2, 4):
        sys.exit(__doc__.strip().splitlines()[2])
    width, height = (int(sys.argv[2]), int(sys.argv[3])) if len(sys.argv) == 4 else (256, 256)
    rng = random.Random(12345)
    rows = []
    for y in range(height):
        row = []
        for x in range(width):
            row += pixel(x, y, width, height, rng)
        rows.append(row)
    with open(sys.argv[1], "wb") as f:
        f.write(png_bytes(width, height, rows))


if __name__ == "__main__":
    main()

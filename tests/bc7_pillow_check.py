#!/usr/bin/env python3
"""Decodes <dir>/blocks.dds (BC7, DX10 header) with Pillow and compares every
texel with <dir>/expected.rgba, the same blocks decoded by the library.
<dir>/labels.txt names each block. Exit status 0 when all texels agree."""
import os
import sys

from PIL import Image


def main():
    folder = sys.argv[1]
    image = Image.open(os.path.join(folder, "blocks.dds"))
    image.load()
    decoded = image.convert("RGBA").tobytes()
    with open(os.path.join(folder, "expected.rgba"), "rb") as f:
        expected = f.read()
    with open(os.path.join(folder, "labels.txt")) as f:
        labels = [line.strip() for line in f]
    width, height = image.size
    if len(decoded) != len(expected):
        print("size mismatch: %d decoded bytes, %d expected" % (len(decoded), len(expected)))
        return 1
    columns = width // 4
    bad = 0
    for index, label in enumerate(labels):
        bx, by = index % columns, index // columns
        for y in range(4):
            row = ((by * 4 + y) * width + bx * 4) * 4
            if decoded[row:row + 16] != expected[row:row + 16]:
                if bad < 10:
                    print("block %d (%s) row %d: pillow %s, library %s" % (
                        index, label, y, list(decoded[row:row + 16]), list(expected[row:row + 16])))
                bad += 1
                break
    print("%d of %d blocks differ" % (bad, len(labels)))
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())

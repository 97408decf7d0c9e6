#!/usr/bin/env python3
"""Writes the seed corpora of the fuzzers, one folder per fuzzer, all generated here.

usage: make_seeds.py OUTPUT_DIR

fuzz_convert, fuzz_server_request (after its 380-byte record) and fuzz_container_write read
their input through libFuzzer's FuzzedDataProvider: integers from the end of the input, strings
and bytes from the front. Seeds spelled with the same rules start the fuzzers on real requests:
every format at every quality, both source types, edge sizes. The image seeds are small files
of every kind the loaders read, written by Pillow and by the small writers below.
"""
import io, itertools, math, os, struct, sys

try:
    from PIL import Image
except ImportError:
    Image = None


class Provider:
    """Builds an input that a FuzzedDataProvider reads back as the values given, in order."""

    def __init__(self):
        self.front, self.back = bytearray(), bytearray()

    def integer(self, value, low, high):
        span, count = high - low, 0
        while count < 8 and span >> (8 * count):
            count += 1
        offset = value - low
        self.back += bytes((offset >> (8 * (count - 1 - i))) & 0xFF for i in range(count))

    def string(self, text):
        data = text.encode("latin-1") if isinstance(text, str) else text
        self.front += data.replace(b"\\", b"\\\\") + b"\\e"

    def bytes(self, data):
        self.front += data

    def build(self):
        return bytes(self.front) + bytes(reversed(self.back))


# The lists of fuzz_convert.cpp, by index.
DESTINATIONS = ["unorm_bc1", "srgb_bc1", "snorm_bc1", "unorm_bc2", "srgb_bc2", "unorm_bc3", "srgb_bc3", "unorm_bc4",
                "snorm_bc4", "unorm_bc5", "snorm_bc5", "ufloat_bc6", "float_bc6", "unorm_bc7", "srgb_bc7",
                "unorm_bc6", "srgb_bc4", "unorm_astc", "unorm_astc_4x4", "srgb_astc_5x4", "unorm_astc_5x5",
                "srgb_astc_6x5", "unorm_astc_6x6", "unorm_astc_8x5", "srgb_astc_8x6", "unorm_astc_8x8",
                "unorm_astc_10x5", "srgb_astc_10x6", "unorm_astc_10x8", "unorm_astc_10x10", "srgb_astc_12x10",
                "unorm_astc_12x12", "unorm_8_8_8_8", ""]
SOURCES = ["unorm_8_8_8_8", "snorm_8_8_8_8", "srgb_8_8_8_8", "float_32_32_32_32", "ufloat_32_32_32_32",
           "UNORM_8_8_8_8", ""]
OPTION_COUNT, ASTC_WEIGHT_COUNT, GPU_AUTO_COUNT = 14, 5, 3
DIMENSIONS = [0, 1, 2, 3, 4, 0xFFFFFFFF]


def convert_seed(destination, source, option, flags=0, dimension=0, size=(8, 8, 1, 1), pixels=b""):
    p = Provider()
    for names, index in ((DESTINATIONS, destination), (SOURCES, source)):
        p.integer(0, 0, 7)
        p.integer(index, 0, len(names) - 1)
    p.integer(0, 0, 7)
    p.integer(option, 0, OPTION_COUNT - 1)
    p.integer(flags, 0, 0xFFFFFFFF)
    p.integer(DIMENSIONS.index(dimension), 0, len(DIMENSIONS) - 1)
    width, height, depth, levels = size
    p.integer(0, 0, 3)  # the small sizes
    for value, low, high in ((width, 1, 40), (height, 1, 40), (depth, 1, 3), (levels, 1, 7)):
        p.integer(value, low, high)
    p.integer(0, 0, ASTC_WEIGHT_COUNT - 1)
    p.integer(0, 0, GPU_AUTO_COUNT - 1)
    p.bytes(pixels)
    return p.build()


def picture(width, height, alpha=True):
    """RGBA bytes of a small picture: gradients, an edge and, optionally, varying alpha."""
    out = bytearray()
    for y in range(height):
        for x in range(width):
            edge = 255 if x > width // 2 else 0
            out += bytes((x * 255 // max(width - 1, 1), y * 255 // max(height - 1, 1), edge,
                          (x * 37 + y * 11) % 256 if alpha else 255))
    return bytes(out)


def convert_seeds():
    seeds = {}
    ramp = picture(6, 5)
    for d in range(len(DESTINATIONS) - 2):
        for option in (0, 1, 2, 3):
            seeds[f"{DESTINATIONS[d] or 'empty'}-q{option}"] = convert_seed(d, 0, option, size=(6, 5, 1, 2),
                                                                             pixels=ramp)
        seeds[f"{DESTINATIONS[d]}-float"] = convert_seed(d, 3, 1, size=(5, 7, 1, 3), pixels=bytes(range(256)))
    seeds["bc1-perceptual-snorm"] = convert_seed(0, 1, 10, size=(9, 4, 2, 3), pixels=ramp)
    seeds["bc7-volume"] = convert_seed(13, 2, 1, dimension=2, size=(8, 8, 3, 4), pixels=ramp)
    seeds["astc-luminance-alpha"] = convert_seed(22, 0, 1, flags=0x2, size=(13, 7, 1, 2), pixels=ramp)
    seeds["bc3-gpu-fallback"] = convert_seed(5, 0, 1, flags=0x50, size=(8, 8, 1, 1), pixels=ramp)
    seeds["bc7-gpu"] = convert_seed(13, 0, 0, flags=0x10, size=(8, 8, 1, 1), pixels=ramp)
    seeds["unknown-destination"] = convert_seed(15, 0, 1)
    seeds["unknown-source"] = convert_seed(0, 5, 1)
    return seeds


def request_record(destination, source, options, flags=0, dimension=0, width=8, height=8, depth=1, levels=1):
    def text(value, size):
        return value.encode().ljust(size, b"\0")
    return (text("GlyptoraFuzzDst", 128) + text("GlyptoraFuzzSrc", 128) + text(destination, 32) +
            text(source, 32) + text(options, 32) +
            struct.pack("<7I", flags, dimension, width, height, depth, levels, 4242))


def server_seeds():
    seeds = {}
    cases = [("unorm_bc1", "unorm_8_8_8_8", "fastest", 8, 8, 1, 1), ("srgb_bc7", "srgb_8_8_8_8", "normal", 8, 4, 1, 2),
             ("ufloat_bc6", "float_32_32_32_32", "normal", 4, 4, 1, 1),
             ("unorm_astc_6x6", "unorm_8_8_8_8", "production", 7, 7, 1, 1),
             ("snorm_bc5", "snorm_8_8_8_8", "highest", 8, 8, 1, 4), ("unorm_bc3", "unorm_8_8_8_8", "0", 16, 2, 2, 1),
             ("unorm_bc9", "unorm_8_8_8_8", "", 4, 4, 1, 1), ("unorm_bc4", "float_32_32_32_32", "1", 4, 4, 1, 1)]
    for i, (dst, src, options, w, h, d, levels) in enumerate(cases):
        record = request_record(dst, src, options, 0, 0, w, h, d, levels)
        for which in (3, 1):
            p = Provider()
            p.integer(which, 0, 3)
            p.integer(1 << 12, 0, 1 << 16)  # destination section: room enough
            p.integer(1 << 11, 0, 1 << 11)  # source section: all of it
            p.bytes(picture(8, 8))
            seeds[f"{i}-{dst}-{which}"] = record + p.build()
    seeds["short"] = request_record("unorm_bc1", "unorm_8_8_8_8", "")[:200]
    seeds["unterminated"] = request_record("unorm_bc1", "unorm_8_8_8_8", "")[:256] + b"x" * 124
    return seeds


def container_seeds():
    seeds = {}
    for index in range(0, 42, 3):  # every third format of the table
        for container, path in enumerate(("out.dds", "OUT.KTX2", "a/b.astc")):
            p = Provider()
            p.string(path)
            p.integer(index, 0, 41)
            p.integer(container, 0, 2)
            p.integer(1, 0, 1)
            p.integer(13, 1, 64)
            p.integer(1, 0, 1)
            p.integer(7, 1, 64)
            p.integer(3, 1, 4)
            p.bytes(bytes(range(64)))
            seeds[f"{index}-{path.replace('/', '_')}"] = p.build()
    return seeds


def pillow_image(width, height, mode):
    image = Image.frombytes("RGBA", (width, height), picture(width, height))
    return image.convert(mode)


def saved(image, kind, **options):
    out = io.BytesIO()
    image.save(out, kind, **options)
    return out.getvalue()


def psd(width, height, channels=4, compression=0):
    """Photoshop file: header, empty sections, one merged image, raw or PackBits rows."""
    data = picture(width, height)
    planes = [bytes(data[c::4]) for c in range(channels)]
    out = b"8BPS" + struct.pack(">H6xHIIHH", 1, channels, height, width, 8, 3) + struct.pack(">III", 0, 0, 0)
    if compression == 0:
        return out + struct.pack(">H", 0) + b"".join(planes)
    rows, counts = [], []
    for plane in planes:
        for y in range(height):
            row = plane[y * width:(y + 1) * width]
            packed = b"".join(bytes([len(row[i:i + 128]) - 1]) + row[i:i + 128] for i in range(0, width, 128))
            rows.append(packed)
            counts.append(len(packed))
    return out + struct.pack(">H", 1) + struct.pack(f">{len(counts)}H", *counts) + b"".join(rows)


def hdr(width, height, rle):
    """Radiance picture, flat or with run-length encoded scanlines."""
    out = f"#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n\n-Y {height} +X {width}\n".encode()
    for y in range(height):
        pixels = []
        for x in range(width):
            value = (x + 1) * (y + 1) / 8.0
            mantissa, exponent = math.frexp(value)
            pixels.append((int(mantissa * 255), int(mantissa * 128), int(mantissa * 64), exponent + 128))
        if not rle:
            out += b"".join(bytes(p) for p in pixels)
            continue
        out += bytes((2, 2, width >> 8, width & 0xFF))
        for c in range(4):
            channel = bytes(p[c] for p in pixels)
            out += b"".join(bytes([len(channel[i:i + 100])]) + channel[i:i + 100] for i in range(0, width, 100))
    return out


def exr(width, height, half):
    """Single-part scanline OpenEXR without compression, channels A, B, G, R."""
    kind, size = (1, 2) if half else (2, 4)
    window, one = struct.pack("<4i", 0, 0, width - 1, height - 1), struct.pack("<f", 1.0)
    chlist = b"".join(c.encode() + b"\0" + struct.pack("<iB3xii", kind, 0, 1, 1) for c in "ABGR") + b"\0"
    attributes = [("channels", "chlist", chlist), ("compression", "compression", b"\0"),
                  ("dataWindow", "box2i", window), ("displayWindow", "box2i", window),
                  ("lineOrder", "lineOrder", b"\0"), ("pixelAspectRatio", "float", one),
                  ("screenWindowCenter", "v2f", bytes(8)), ("screenWindowWidth", "float", one)]
    header = b"\x76\x2f\x31\x01" + struct.pack("<i", 2) + b"".join(
        f"{name}\0{kind_name}\0".encode() + struct.pack("<i", len(value)) + value
        for name, kind_name, value in attributes) + b"\0"
    pack = (lambda v: struct.pack("<e", v)) if half else (lambda v: struct.pack("<f", v))
    lines = []
    for y in range(height):
        channels = [b"".join(pack((x + y + c) / 7.0 if c else 1.0) for x in range(width)) for c in range(4)]
        lines.append(struct.pack("<ii", y, 4 * size * width) + b"".join(channels))
    offsets = itertools.accumulate([len(line) for line in lines[:-1]], initial=len(header) + 8 * height)
    return header + struct.pack(f"<{height}Q", *offsets) + b"".join(lines)


def image_seeds():
    seeds = {"psd-raw": psd(5, 3), "psd-packbits": psd(7, 4, 3, 1), "hdr-flat": hdr(6, 3, False),
             "hdr-rle": hdr(9, 2, True), "exr-float": exr(5, 3, False), "exr-half": exr(3, 4, True)}
    if Image is None:
        print("make_seeds.py: Pillow is missing; no PNG, JPEG, TGA or BMP seeds", file=sys.stderr)
        return seeds
    for mode in ("RGBA", "RGB", "LA", "L", "P"):
        seeds[f"png-{mode}"] = saved(pillow_image(7, 5, mode), "PNG")
    seeds["png-interlaced"] = saved(pillow_image(9, 9, "RGBA"), "PNG", optimize=False, interlace=1)
    seeds["png-16bit"] = saved(Image.frombytes("I;16", (4, 3), bytes(range(24))), "PNG")
    for mode in ("RGB", "L"):
        seeds[f"jpeg-{mode}"] = saved(pillow_image(17, 9, mode), "JPEG", quality=80)
        seeds[f"jpeg-{mode}-progressive"] = saved(pillow_image(17, 9, mode), "JPEG", progressive=True)
    seeds["jpeg-subsampled"] = saved(pillow_image(19, 11, "RGB"), "JPEG", subsampling=2)
    for mode in ("RGBA", "RGB", "L", "P"):
        seeds[f"tga-{mode}"] = saved(pillow_image(6, 4, mode), "TGA")
        seeds[f"tga-{mode}-rle"] = saved(pillow_image(6, 4, mode), "TGA", compression="tga_rle")
    for mode in ("RGB", "L", "P", "1"):
        seeds[f"bmp-{mode}"] = saved(pillow_image(5, 3, mode), "BMP")
    seeds["gif"] = saved(pillow_image(4, 4, "P"), "GIF")
    seeds["ppm"] = saved(pillow_image(4, 3, "RGB"), "PPM")
    return seeds


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    root = sys.argv[1]
    corpora = {"fuzz_convert": convert_seeds(), "fuzz_server_request": server_seeds(),
               "fuzz_container_write": container_seeds(), "fuzz_image_load": image_seeds()}
    for target, seeds in corpora.items():
        folder = os.path.join(root, target)
        os.makedirs(folder, exist_ok=True)
        for name, data in seeds.items():
            with open(os.path.join(folder, "seed-" + name), "wb") as f:
                f.write(data)
    print(f"make_seeds.py: {sum(len(s) for s in corpora.values())} seeds in {root}")


if __name__ == "__main__":
    main()

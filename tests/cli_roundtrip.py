#!/usr/bin/env python3
"""End-to-end tests of the glyptora command-line tool.

usage: cli_roundtrip.py --glyptora PATH/TO/glyptora [unittest arguments]

Generated images go through the tool; what it writes is read back three ways: by a
third-party reader (Pillow, as a black box), by the small block decoders below (written from
the published block layouts, used where Pillow has no decoder or rounds differently), and by
parsing the container headers. Bad inputs must give one error line, a non-zero exit and no
output file.
"""
import argparse
import math
import os
import re
import stat
import struct
import subprocess
import sys
import tempfile
import unittest

try:
    import numpy as np
    from PIL import Image
except ImportError as missing:  # reported as skipped by CTest
    print(f"skipped: {missing}")
    sys.exit(77)

GLYPTORA = None

# Formats the tool offers today; the tests adapt to what `glyptora formats` reports.
BC_FORMATS = ["unorm_bc1", "srgb_bc1", "unorm_bc2", "srgb_bc2", "unorm_bc3", "srgb_bc3", "unorm_bc4",
              "snorm_bc4", "unorm_bc5", "snorm_bc5", "unorm_bc7", "srgb_bc7"]
# Pillow opens these DDS files (legacy FourCC or DX10 code) and decodes them as the formats define.
PILLOW_EXACT = {"unorm_bc1", "unorm_bc2", "unorm_bc3", "unorm_bc7"}
# Pillow opens these but rounds the interpolated values down, so its values may be one below.
PILLOW_ROUNDS_DOWN = {"unorm_bc4", "unorm_bc5"}

BLOCK_BYTES = {"bc1": 8, "bc2": 16, "bc3": 16, "bc4": 8, "bc5": 16, "bc7": 16}
DXGI = {"unorm_bc1": 71, "srgb_bc1": 72, "unorm_bc2": 74, "srgb_bc2": 75, "unorm_bc3": 77, "srgb_bc3": 78,
        "unorm_bc4": 80, "snorm_bc4": 81, "unorm_bc5": 83, "snorm_bc5": 84, "unorm_bc7": 98, "srgb_bc7": 99}
FOURCC = {"unorm_bc1": b"DXT1", "unorm_bc2": b"DXT3", "unorm_bc3": b"DXT5", "unorm_bc4": b"ATI1",
          "unorm_bc5": b"ATI2"}
VKFORMAT = {"unorm_bc1": 133, "srgb_bc1": 134, "unorm_bc2": 135, "srgb_bc2": 136, "unorm_bc3": 137,
            "srgb_bc3": 138, "unorm_bc4": 139, "snorm_bc4": 140, "unorm_bc5": 141, "snorm_bc5": 142,
            "unorm_bc7": 145, "srgb_bc7": 146}
KTX2_IDENTIFIER = bytes([0xAB, 0x4B, 0x54, 0x58, 0x20, 0x32, 0x30, 0xBB, 0x0D, 0x0A, 0x1A, 0x0A])


def family(fmt):
    return fmt.split("_")[1]


def is_signed(fmt):
    return fmt.startswith("snorm_")


def channels_of(fmt):
    """Channels a format keeps: 1 (R), 2 (RG) or 3 (RGB; RGBA is measured too when alpha exists)."""
    return {"bc4": 1, "bc5": 2}.get(family(fmt), 3)


# ---------------------------------------------------------------------------------------------
# Test images


def photo_like(width, height, alpha=False, seed=1):
    """Smooth gradients, a hard edge, a soft disc and some noise, like a small photograph."""
    rng = np.random.default_rng(seed)
    y, x = np.mgrid[0:height, 0:width].astype(np.float64)
    u, v = x / max(width - 1, 1), y / max(height - 1, 1)
    r = 0.5 + 0.45 * np.sin(5.0 * u + 1.0)
    g = 0.4 + 0.4 * v
    b = 0.5 + 0.4 * np.cos(4.0 * (u + v))
    disc = np.clip((0.25 - np.hypot(u - 0.35, v - 0.4)) / 0.05, 0, 1)
    r, g, b = r * (1 - disc) + 0.9 * disc, g * (1 - disc) + 0.7 * disc, b * (1 - disc) + 0.1 * disc
    edge = u > 0.7
    r, g, b = np.where(edge, 0.15, r), np.where(edge, 0.25, g), np.where(edge, 0.6 + 0.3 * v, b)
    rgb = np.stack([r, g, b], axis=-1) + rng.normal(0, 0.02, (height, width, 3))
    img = np.clip(np.rint(rgb * 255), 0, 255).astype(np.uint8)
    if alpha:
        a = np.clip(np.rint(255 * (0.5 + 0.5 * np.sin(3 * u) * np.cos(2 * v))), 0, 255).astype(np.uint8)
        a[: height // 3, : width // 3] = 0  # a fully transparent corner
        img = np.dstack([img, a])
    return img


def normal_map(width, height):
    """Tangent-space normals of a bumpy height field, encoded as RGB = (n + 1) / 2."""
    y, x = np.mgrid[0:height, 0:width].astype(np.float64)
    h = np.sin(x / 3.0) * np.cos(y / 4.0) + 0.3 * np.sin((x + y) / 2.0)
    dx, dy = np.gradient(h, axis=1), np.gradient(h, axis=0)
    n = np.stack([-dx, -dy, np.ones_like(h)], axis=-1)
    n /= np.linalg.norm(n, axis=-1, keepdims=True)
    return np.clip(np.rint((n + 1) * 127.5), 0, 255).astype(np.uint8)


def random_image(width, height, channels, seed):
    return np.random.default_rng(seed).integers(0, 256, (height, width, channels), dtype=np.uint8)


def save_png(path, pixels):
    Image.fromarray(pixels, "RGBA" if pixels.shape[2] == 4 else "RGB").save(path)


def as_rgba(pixels):
    if pixels.shape[2] == 4:
        return pixels
    return np.dstack([pixels, np.full(pixels.shape[:2], 255, np.uint8)])


def read_bytes(path):
    with open(path, "rb") as f:
        return f.read()


def write_exr(path, rgba):
    """Single-part scanline OpenEXR without compression, 32-bit float channels A, B, G, R."""
    height, width = rgba.shape[:2]

    def attribute(name, kind, value):
        return name.encode() + b"\0" + kind.encode() + b"\0" + struct.pack("<i", len(value)) + value

    channels = b"".join(name.encode() + b"\0" + struct.pack("<iB3xii", 2, 0, 1, 1) for name in "ABGR") + b"\0"
    window = struct.pack("<4i", 0, 0, width - 1, height - 1)
    header = (b"\x76\x2f\x31\x01" + struct.pack("<i", 2)
              + attribute("channels", "chlist", channels)
              + attribute("compression", "compression", b"\0")
              + attribute("dataWindow", "box2i", window)
              + attribute("displayWindow", "box2i", window)
              + attribute("lineOrder", "lineOrder", b"\0")
              + attribute("pixelAspectRatio", "float", struct.pack("<f", 1.0))
              + attribute("screenWindowCenter", "v2f", struct.pack("<2f", 0.0, 0.0))
              + attribute("screenWindowWidth", "float", struct.pack("<f", 1.0))
              + b"\0")
    lines = []
    for y in range(height):
        data = b"".join(rgba[y, :, c].astype("<f4").tobytes() for c in (3, 2, 1, 0))
        lines.append(struct.pack("<ii", y, len(data)) + data)
    offsets, position = [], len(header) + 8 * height
    for line in lines:
        offsets.append(position)
        position += len(line)
    with open(path, "wb") as f:
        f.write(header + struct.pack(f"<{height}Q", *offsets) + b"".join(lines))


def write_hdr(path, rgb):
    """Radiance RGBE picture with flat (not run-length encoded) scanlines. Returns the values
    it stores: mantissa byte times 2^(exponent - 136)."""
    height, width = rgb.shape[:2]
    out = bytearray(f"#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n\n-Y {height} +X {width}\n".encode())
    stored = []
    for r, g, b in rgb.reshape(-1, 3):
        v = max(r, g, b)
        if v < 1e-32:
            out += b"\0\0\0\0"
            stored.append([0.0, 0.0, 0.0])
            continue
        mantissa, exponent = math.frexp(v)
        scale = mantissa * 256.0 / v
        texel = [int(r * scale), int(g * scale), int(b * scale)]
        out += bytes(texel + [exponent + 128])
        stored.append([c * math.ldexp(1.0, exponent - 8) for c in texel])
    with open(path, "wb") as f:
        f.write(bytes(out))
    return np.array(stored, np.float32).reshape(height, width, 3)


def to_unorm8(values):
    """Float to 8-bit as the library reads float sources: clamp to 0..1, scale, round half up."""
    return np.floor(np.clip(np.nan_to_num(values), 0.0, 1.0) * np.float32(255.0) + np.float32(0.5)).astype(np.int64)


def linear_to_srgb(v):
    v = np.clip(v, 0.0, 1.0)
    return np.where(v <= 0.0031308, v * 12.92, 1.055 * np.power(v, 1 / 2.4) - 0.055)


# ---------------------------------------------------------------------------------------------
# Block decoders, from the published block layouts. Interpolants: BC1 colour divisions
# truncate; BC3 alpha, BC4 and BC5 values follow `interpolant` below.


def expand565(c):
    r, g, b = (c >> 11) & 31, (c >> 5) & 63, c & 31
    return [(r << 3) | (r >> 2), (g << 2) | (g >> 4), (b << 3) | (b >> 2)]


def decode_colour(block, allow_three):
    c0, c1, bits = struct.unpack("<HHI", block)
    e0, e1 = expand565(c0), expand565(c1)
    if c0 > c1 or not allow_three:
        palette = [e0 + [255], e1 + [255], [(2 * a + b) // 3 for a, b in zip(e0, e1)] + [255],
                   [(a + 2 * b) // 3 for a, b in zip(e0, e1)] + [255]]
    else:
        palette = [e0 + [255], e1 + [255], [(a + b) // 2 for a, b in zip(e0, e1)] + [255], [0, 0, 0, 0]]
    return [palette[(bits >> (2 * i)) & 3] for i in range(16)]


def decode_interpolated(block, signed):
    if signed:
        a0, a1 = [max(v, -127) for v in struct.unpack("<bb", block[:2])]
    else:
        a0, a1 = block[0], block[1]
    bits = int.from_bytes(block[2:8], "little")
    if a0 > a1:
        palette = [a0, a1] + [interpolant((8 - k) * a0 + (k - 1) * a1, 7) for k in range(2, 8)]
    else:
        palette = [a0, a1] + [interpolant((6 - k) * a0 + (k - 1) * a1, 5) for k in range(2, 6)]
        palette += [-127, 127] if signed else [0, 255]
    return [palette[(bits >> (3 * i)) & 7] for i in range(16)]


def interpolant(n, d):
    """The 8-bit value of n / d as the library's decoders give it: (n + d // 2) / d with the
    division truncating toward zero. For unsigned values this is rounding to nearest; signed
    values below zero come out up to one step above the nearest value."""
    m = n + d // 2
    q = abs(m) // d
    return q if m >= 0 else -q


def decode_block(fmt, block):
    """16 RGBA texels of one block as ints (signed formats: -127..127)."""
    fam = family(fmt)
    if fam == "bc1":
        return decode_colour(block, True)
    if fam in ("bc2", "bc3"):
        texels = decode_colour(block[8:], False)
        if fam == "bc2":
            alpha = [((block[i >> 1] >> (4 * (i & 1))) & 15) * 17 for i in range(16)]
        else:
            alpha = decode_interpolated(block[:8], False)
        return [t[:3] + [a] for t, a in zip(texels, alpha)]
    signed = is_signed(fmt)
    opaque = 127 if signed else 255
    if fam == "bc4":
        return [[r, 0, 0, opaque] for r in decode_interpolated(block, signed)]
    if fam == "bc5":
        red, green = decode_interpolated(block[:8], signed), decode_interpolated(block[8:], signed)
        return [[r, g, 0, opaque] for r, g in zip(red, green)]
    raise ValueError(f"no decoder for {fmt}")


def decode_level(fmt, data, width, height):
    """Decodes the first level in `data` (blocks in row-major order) into an int array (height, width, 4)."""
    size = BLOCK_BYTES[family(fmt)]
    across, down = (width + 3) // 4, (height + 3) // 4
    assert len(data) >= across * down * size, (len(data), across, down)
    out = np.zeros((down * 4, across * 4, 4), np.int64)
    for by in range(down):
        for bx in range(across):
            offset = (by * across + bx) * size
            texels = decode_block(fmt, data[offset:offset + size])
            out[by * 4:by * 4 + 4, bx * 4:bx * 4 + 4] = np.array(texels).reshape(4, 4, 4)
    return out[:height, :width]


def psnr(reference, decoded, channels):
    ref = np.asarray(reference, np.int64)[..., :channels]
    dec = np.asarray(decoded, np.int64)[..., :channels]
    mse = float(np.mean((ref - dec) ** 2))
    return math.inf if mse == 0 else 10 * math.log10(255.0 ** 2 / mse)


def encoder_reference(fmt, rgba):
    """Pixels as the encoder sees them: signed formats map an unsigned byte u to u - 128 (0 to -127)."""
    ref = np.asarray(rgba, np.int64)
    if is_signed(fmt):
        ref = np.where(ref == 0, -127, ref - 128)
    return ref


# ---------------------------------------------------------------------------------------------
# Containers


def level_sizes(fmt, width, height, levels):
    size = BLOCK_BYTES[family(fmt)]
    out = []
    for m in range(levels):
        w, h = max(width >> m, 1), max(height >> m, 1)
        out.append(((w + 3) // 4) * ((h + 3) // 4) * size)
    return out


def full_levels(width, height):
    return max(width, height).bit_length()


def parse_dds(data):
    """Header fields and the level data of a DDS file."""
    assert data[:4] == b"DDS ", data[:4]
    size, flags, height, width, linear_size, depth, levels = struct.unpack_from("<7I", data, 4)
    pf_size, pf_flags, fourcc = struct.unpack_from("<II4s", data, 76)
    caps = struct.unpack_from("<I", data, 108)[0]
    info = dict(size=size, flags=flags, width=width, height=height, linear_size=linear_size, levels=levels,
                pf_size=pf_size, pf_flags=pf_flags, fourcc=fourcc, caps=caps, dxgi=None)
    offset = 128
    if fourcc == b"DX10":
        info["dxgi"], info["dimension"], _, info["array_size"], _ = struct.unpack_from("<5I", data, 128)
        offset += 20
    info["payload"] = data[offset:]
    return info


def parse_ktx2(data):
    ident = data[:12]
    (vk_format, type_size, width, height, depth, layers, faces, levels,
     supercompression) = struct.unpack_from("<9I", data, 12)
    dfd_offset, dfd_length, kvd_offset, kvd_length = struct.unpack_from("<4I", data, 48)
    sgd_offset, sgd_length = struct.unpack_from("<2Q", data, 64)
    index = [struct.unpack_from("<3Q", data, 80 + 24 * m) for m in range(levels)]
    return dict(ident=ident, vk_format=vk_format, type_size=type_size, width=width, height=height, depth=depth,
                layers=layers, faces=faces, levels=levels, supercompression=supercompression,
                dfd_offset=dfd_offset, dfd_length=dfd_length, kvd_offset=kvd_offset, kvd_length=kvd_length,
                sgd_offset=sgd_offset, sgd_length=sgd_length, index=index)


# ---------------------------------------------------------------------------------------------
# Running the tool

STATS_RE = re.compile(r"stats: level 0 PSNR (R|RG|RGB) (inf|[0-9.]+) dB(?:, RGBA (inf|[0-9.]+) dB)?")


def run(*args):
    return subprocess.run([GLYPTORA, *args], capture_output=True, text=True, timeout=300)


def parse_stats(stdout):
    match = STATS_RE.search(stdout)
    assert match, f"no stats line in: {stdout!r}"
    value = lambda s: math.inf if s == "inf" else float(s)
    return match.group(1), value(match.group(2)), value(match.group(3)) if match.group(3) else None


def available_formats():
    result = run("formats")
    assert result.returncode == 0, result.stderr
    found = set()
    for line in result.stdout.splitlines():
        parts = line.split()
        if len(parts) >= 4 and parts[3] == "available":
            found.add(parts[0])
    return found


class ToolCase(unittest.TestCase):
    """A temporary folder per test and helpers to convert into it."""

    @classmethod
    def setUpClass(cls):
        cls.available = available_formats()

    def setUp(self):
        self._dir = tempfile.TemporaryDirectory(prefix="glyptora_cli_")
        self.dir = self._dir.name

    def tearDown(self):
        self._dir.cleanup()

    def path(self, name):
        return os.path.join(self.dir, name)

    def image(self, name, pixels):
        path = self.path(name)
        save_png(path, pixels)
        return path

    def convert(self, source, output, fmt, *extra):
        result = run("convert", source, "-o", output, "-f", fmt, *extra)
        self.assertEqual(result.returncode, 0, f"{fmt}: {result.stdout}{result.stderr}")
        self.assertEqual(result.stderr, "")
        return result

    def formats(self, candidates):
        chosen = [f for f in candidates if f in self.available]
        self.assertTrue(chosen or not candidates, "none of the formats is available")
        return chosen

    def assertNoStrayFiles(self, expected):
        self.assertEqual(sorted(os.listdir(self.dir)), sorted(expected))


# ---------------------------------------------------------------------------------------------
# Round trips through DDS


class DdsRoundTrip(ToolCase):
    SIZES = [(5, 3), (1, 1), (13, 7), (64, 48)]

    def sources(self):
        """(name, RGB or RGBA pixels) of every test image."""
        return [("odd5x3", random_image(5, 3, 3, seed=3)), ("single1x1", random_image(1, 1, 4, seed=4)),
                ("odd13x7", photo_like(13, 7, alpha=True, seed=5)), ("photo64x48", photo_like(64, 48, seed=6)),
                ("alpha64x48", photo_like(64, 48, alpha=True, seed=7)), ("normal30x22", normal_map(30, 22))]

    def test_headers_and_levels(self):
        """Header fields, FourCC or DX10 code, and the full mip chain in the file size."""
        for fmt in self.formats(BC_FORMATS):
            for name, pixels in self.sources():
                with self.subTest(fmt=fmt, image=name):
                    height, width = pixels.shape[:2]
                    out = self.path(f"{name}_{fmt}.dds")
                    self.convert(self.image(f"{name}.png", pixels), out, fmt)
                    info = parse_dds(read_bytes(out))
                    levels = full_levels(width, height)
                    sizes = level_sizes(fmt, width, height, levels)
                    self.assertEqual((info["size"], info["pf_size"], info["pf_flags"]), (124, 32, 4))
                    self.assertEqual((info["width"], info["height"], info["levels"]), (width, height, levels))
                    self.assertEqual(info["linear_size"], sizes[0])
                    if fmt in FOURCC:
                        self.assertEqual(info["fourcc"], FOURCC[fmt])
                    else:
                        self.assertEqual((info["fourcc"], info["dxgi"], info["dimension"], info["array_size"]),
                                         (b"DX10", DXGI[fmt], 3, 1))
                    self.assertEqual(len(info["payload"]), sum(sizes))
                    if levels > 1:
                        self.assertTrue(info["caps"] & 0x400000 and info["flags"] & 0x20000)

    def test_no_mips(self):
        pixels = photo_like(64, 48)
        out = self.path("one.dds")
        self.convert(self.image("in.png", pixels), out, "bc1", "--no-mips")
        info = parse_dds(read_bytes(out))
        self.assertEqual(info["levels"], 1)
        self.assertEqual(len(info["payload"]), level_sizes("unorm_bc1", 64, 48, 1)[0])

    def test_pillow_reads_level_zero(self):
        """Pillow's decode of level 0 is close to the source and gives the PSNR --stats printed."""
        for fmt in self.formats(sorted(PILLOW_EXACT | PILLOW_ROUNDS_DOWN)):
            for name, pixels in self.sources():
                with self.subTest(fmt=fmt, image=name):
                    height, width = pixels.shape[:2]
                    out = self.path(f"{name}_{fmt}.dds")
                    result = self.convert(self.image(f"{name}.png", pixels), out, fmt, "--stats", "-q", "fastest")
                    label, stats_main, stats_rgba = parse_stats(result.stdout)
                    channels = channels_of(fmt)
                    self.assertEqual(label, {1: "R", 2: "RG", 3: "RGB"}[channels])
                    with Image.open(out) as opened:
                        self.assertEqual(opened.size, (width, height))
                        pillow = np.asarray(opened.convert("RGBA") if opened.mode != "L" else opened, np.int64)
                    if pillow.ndim == 2:
                        pillow = pillow[..., None]
                    source = as_rgba(pixels).astype(np.int64)
                    payload = parse_dds(read_bytes(out))["payload"]
                    # BC7 has no decoder in this script: Pillow is its independent check.
                    ours = decode_level(fmt, payload, width, height) if family(fmt) != "bc7" else pillow
                    if fmt in PILLOW_EXACT:
                        np.testing.assert_array_equal(pillow[..., :channels], ours[..., :channels])
                        self.assertAlmostEqual(psnr(source, pillow, channels), stats_main, delta=0.01)
                        if stats_rgba is not None:
                            self.assertAlmostEqual(psnr(source, pillow, 4), stats_rgba, delta=0.01)
                    else:
                        difference = ours[..., :channels] - pillow[..., :channels]
                        self.assertTrue(np.all((difference >= 0) & (difference <= 1)), "Pillow differs by more than rounding")
                        self.assertAlmostEqual(psnr(source, ours, channels), stats_main, delta=0.01)
                    if name == "photo64x48":  # lossy but close on a photograph-like image
                        floor = {"bc4": 38, "bc5": 38, "bc7": 38}.get(family(fmt), 30)
                        self.assertGreater(psnr(source, pillow, channels), floor)

    def test_stats_match_independent_decode(self):
        """--stats agrees with an independent decode of the written blocks for every format."""
        for fmt in self.formats(BC_FORMATS):
            if family(fmt) not in BLOCK_BYTES or family(fmt) == "bc7":
                continue
            for name, pixels in self.sources():
                with self.subTest(fmt=fmt, image=name):
                    height, width = pixels.shape[:2]
                    out = self.path(f"{name}_{fmt}.dds")
                    result = self.convert(self.image(f"{name}.png", pixels), out, fmt, "--stats")
                    label, stats_main, stats_rgba = parse_stats(result.stdout)
                    decoded = decode_level(fmt, parse_dds(read_bytes(out))["payload"], width, height)
                    reference = encoder_reference(fmt, as_rgba(pixels))
                    self.assertAlmostEqual(psnr(reference, decoded, channels_of(fmt)), stats_main, delta=0.01)
                    has_alpha = pixels.shape[2] == 4 and np.any(pixels[..., 3] < 255)
                    self.assertEqual(stats_rgba is not None, has_alpha and channels_of(fmt) == 3)
                    if stats_rgba is not None:
                        self.assertAlmostEqual(psnr(reference, decoded, 4), stats_rgba, delta=0.01)

    def test_bc1_punch_through_alpha(self):
        """BC1 keeps one bit of alpha: fully transparent pixels decode transparent, opaque ones opaque."""
        pixels = photo_like(64, 48, alpha=True)
        out = self.path("alpha.dds")
        self.convert(self.image("alpha.png", pixels), out, "bc1")
        decoded = decode_level("unorm_bc1", parse_dds(read_bytes(out))["payload"], 64, 48)
        alpha = pixels[..., 3]
        self.assertTrue(np.all(decoded[..., 3][alpha == 0] == 0))
        self.assertTrue(np.all(decoded[..., 3][alpha == 255] == 255))


class MipChain(ToolCase):
    """Level 1 of the written chain against a box filter of level 0."""

    def level(self, out, fmt, width, height, m):
        payload = parse_dds(read_bytes(out))["payload"]
        sizes = level_sizes(fmt, width, height, m + 1)
        return decode_level(fmt, payload[sum(sizes[:m]):sum(sizes)], max(width >> m, 1), max(height >> m, 1))

    def test_box_filter_levels(self):
        pixels = photo_like(64, 48)
        out = self.path("chain.dds")
        self.convert(self.image("chain.png", pixels), out, "bc1")
        box = pixels.astype(np.float64).reshape(24, 2, 32, 2, 3).mean(axis=(1, 3))
        self.assertGreater(psnr(box, self.level(out, "unorm_bc1", 64, 48, 1), 3), 30)
        last = self.level(out, "unorm_bc1", 64, 48, full_levels(64, 48) - 1)
        self.assertEqual(last.shape[:2], (1, 1))
        self.assertLess(np.max(np.abs(last[0, 0, :3] - pixels.reshape(-1, 3).mean(axis=0))), 12)

    def test_srgb_averages_in_linear_light(self):
        """A black and white checkerboard halves to sRGB 188 for sRGB formats and to 128 otherwise."""
        checker = (np.indices((32, 32)).sum(axis=0) % 2 * 255).astype(np.uint8)
        pixels = np.dstack([checker] * 3)
        source = self.image("checker.png", pixels)
        for fmt, expected in (("unorm_bc1", 128), ("srgb_bc1", 188)):
            with self.subTest(fmt=fmt):
                out = self.path(f"{fmt}.dds")
                self.convert(source, out, fmt)
                level1 = self.level(out, fmt, 32, 32, 1)
                self.assertLess(np.max(np.abs(level1[..., :3] - expected)), 6)

    def test_odd_sizes_keep_every_column(self):
        """13x7 halves to 6x3 from all 13 columns: a bright last column still shows."""
        pixels = np.zeros((7, 13, 3), np.uint8)
        pixels[:, 12] = 255
        out = self.path("odd.dds")
        self.convert(self.image("odd.png", pixels), out, "bc1")
        level1 = self.level(out, "unorm_bc1", 13, 7, 1)
        self.assertEqual(level1.shape[:2], (3, 6))
        self.assertGreater(level1[:, 5, :3].min(), 40)   # the last column's weight reaches the edge pixel
        self.assertLess(level1[:, :4, :3].max(), 8)


# ---------------------------------------------------------------------------------------------
# KTX2


class Ktx2Container(ToolCase):
    def test_structure(self):
        for fmt in self.formats(["unorm_bc1", "srgb_bc1", "unorm_bc3", "snorm_bc5", "srgb_bc7"]):
            for width, height in ((64, 48), (13, 7), (1, 1)):
                with self.subTest(fmt=fmt, size=(width, height)):
                    source = self.image("in.png", photo_like(width, height, alpha=True))
                    out = self.path("out.ktx2")
                    self.convert(source, out, fmt)
                    data = read_bytes(out)
                    k = parse_ktx2(data)
                    levels = full_levels(width, height)
                    sizes = level_sizes(fmt, width, height, levels)
                    self.assertEqual(k["ident"], KTX2_IDENTIFIER)
                    self.assertEqual(k["vk_format"], VKFORMAT[fmt])
                    self.assertEqual((k["type_size"], k["width"], k["height"], k["depth"], k["layers"], k["faces"]),
                                     (1, width, height, 0, 0, 1))
                    self.assertEqual((k["levels"], k["supercompression"]), (levels, 0))
                    # Level index: inside the file, aligned, right sizes, smallest level stored first.
                    block = BLOCK_BYTES[family(fmt)]
                    end_of_index = 80 + 24 * levels
                    for m, (offset, length, uncompressed) in enumerate(k["index"]):
                        self.assertEqual((length, uncompressed), (sizes[m], sizes[m]))
                        self.assertGreaterEqual(offset, end_of_index)
                        self.assertLessEqual(offset + length, len(data))
                        self.assertEqual(offset % block, 0)
                    offsets = [entry[0] for entry in k["index"]]
                    self.assertEqual(offsets, sorted(offsets, reverse=True))
                    for m in range(levels - 1):
                        self.assertGreaterEqual(offsets[m], offsets[m + 1] + sizes[m + 1])
                    self.assertEqual(offsets[0] + sizes[0], len(data))
                    # Data Format Descriptor.
                    self.assertEqual(k["dfd_offset"] % 4, 0)
                    self.assertGreaterEqual(k["dfd_offset"], end_of_index)
                    dfd = data[k["dfd_offset"]:k["dfd_offset"] + k["dfd_length"]]
                    total, vendor_type, version_size = struct.unpack_from("<3I", dfd, 0)
                    model, primaries, transfer, _ = dfd[12:16]
                    self.assertEqual(total, k["dfd_length"])
                    self.assertEqual(vendor_type, 0)
                    self.assertEqual(version_size & 0xFFFF, 2)
                    samples = ((version_size >> 16) - 24) // 16
                    self.assertEqual(total, 4 + 24 + 16 * samples)
                    self.assertEqual(model, {"bc1": 128, "bc2": 129, "bc3": 130, "bc4": 131, "bc5": 132,
                                             "bc7": 134}[family(fmt)])
                    self.assertEqual(transfer, 2 if fmt.startswith("srgb_") else 1)
                    self.assertEqual(primaries, 1)
                    self.assertEqual(tuple(dfd[16:20]), (3, 3, 0, 0))
                    self.assertEqual(dfd[20], block)
                    self.assertEqual(samples, {"bc2": 2, "bc3": 2, "bc5": 2}.get(family(fmt), 1))
                    if k["kvd_length"]:
                        self.assertLessEqual(k["kvd_offset"] + k["kvd_length"], min(offsets))
                        self.assertIn(b"KTXwriter\0", data[k["kvd_offset"]:k["kvd_offset"] + k["kvd_length"]])

    def test_same_blocks_as_dds(self):
        source = self.image("in.png", photo_like(64, 48))
        self.convert(source, self.path("a.ktx2"), "bc1")
        self.convert(source, self.path("a.dds"), "bc1")
        ktx = read_bytes(self.path("a.ktx2"))
        k = parse_ktx2(ktx)
        payload = parse_dds(read_bytes(self.path("a.dds")))["payload"]
        sizes = level_sizes("unorm_bc1", 64, 48, k["levels"])
        for m, (offset, length, _) in enumerate(k["index"]):
            start = sum(sizes[:m])
            self.assertEqual(ktx[offset:offset + length], payload[start:start + length], f"level {m}")


# ---------------------------------------------------------------------------------------------
# Bad input: one line on stderr, a non-zero exit, no output left behind


class BadInput(ToolCase):
    def assertRefused(self, result, mention=None):
        self.assertNotEqual(result.returncode, 0)
        lines = result.stderr.splitlines()
        self.assertEqual(len(lines), 1, result.stderr)
        self.assertTrue(lines[0].startswith("glyptora: "), lines[0])
        if mention:
            self.assertIn(mention, lines[0])
        self.assertNotIn("Traceback", result.stderr)

    def test_missing_file(self):
        result = run("convert", self.path("missing.png"), "-o", self.path("out.dds"), "-f", "bc1")
        self.assertRefused(result, "missing.png")
        self.assertNoStrayFiles([])

    def test_garbage_named_png(self):
        with open(self.path("garbage.png"), "wb") as f:
            f.write(b"this is not an image at all" * 20)
        self.assertRefused(run("convert", self.path("garbage.png"), "-o", self.path("out.dds"), "-f", "bc1"),
                           "garbage.png")
        self.assertNoStrayFiles(["garbage.png"])

    def test_truncated_png(self):
        data = read_bytes(self.image("whole.png", photo_like(64, 48)))
        with open(self.path("cut.png"), "wb") as f:
            f.write(data[: len(data) // 2])
        self.assertRefused(run("convert", self.path("cut.png"), "-o", self.path("out.dds"), "-f", "bc1"), "cut.png")
        self.assertNoStrayFiles(["whole.png", "cut.png"])

    def test_empty_file(self):
        open(self.path("empty.png"), "wb").close()
        self.assertRefused(run("convert", self.path("empty.png"), "-o", self.path("out.dds"), "-f", "bc1"),
                           "empty.png")
        self.assertNoStrayFiles(["empty.png"])

    def test_huge_dimensions(self):
        """A BMP header claiming 40000 x 40000 pixels is refused before any pixel is read."""
        header = struct.pack("<2sIHHI", b"BM", 54, 0, 0, 54)
        header += struct.pack("<IiiHHIIiiII", 40, 40000, 40000, 1, 24, 0, 0, 2835, 2835, 0, 0)
        with open(self.path("huge.bmp"), "wb") as f:
            f.write(header + b"\0" * 64)
        self.assertRefused(run("convert", self.path("huge.bmp"), "-o", self.path("out.dds"), "-f", "bc1"), "huge.bmp")
        self.assertNoStrayFiles(["huge.bmp"])

    def test_unknown_format(self):
        source = self.image("in.png", photo_like(8, 8))
        self.assertRefused(run("convert", source, "-o", self.path("out.dds"), "-f", "bc99"), "bc99")
        self.assertNoStrayFiles(["in.png"])

    def test_unavailable_formats_refused(self):
        source = self.image("in.png", photo_like(8, 8))
        for fmt in ("bc6h", "float_bc6", "astc6x6"):
            with self.subTest(fmt=fmt):
                self.assertRefused(run("convert", source, "-o", self.path("out.ktx2"), "-f", fmt), "not available")
        self.assertNoStrayFiles(["in.png"])

    def test_unwritable_output(self):
        source = self.image("in.png", photo_like(8, 8))
        # A path through a regular file and a missing folder fail for every user, root included.
        for output in (os.path.join(source, "out.dds"), self.path("no/such/folder/out.dds")):
            with self.subTest(output=output):
                self.assertRefused(run("convert", source, "-o", output, "-f", "bc1"))
        if os.geteuid() != 0:
            locked = self.path("locked")
            os.mkdir(locked)
            os.chmod(locked, stat.S_IRUSR | stat.S_IXUSR)
            try:
                self.assertRefused(run("convert", source, "--output-dir", locked, "-f", "bc1"), "locked")
                self.assertEqual(os.listdir(locked), [])
            finally:
                os.chmod(locked, stat.S_IRWXU)
            os.rmdir(locked)
        self.assertNoStrayFiles(["in.png"])

    def test_unknown_extension_and_container_mismatch(self):
        source = self.image("in.png", photo_like(8, 8))
        self.assertRefused(run("convert", source, "-o", self.path("out.png"), "-f", "bc1"), "out.png")
        self.assertRefused(run("convert", source, "-o", self.path("out.astc"), "-f", "bc1"), "out.astc")
        self.assertNoStrayFiles(["in.png"])

    def test_usage_errors(self):
        source = self.image("in.png", photo_like(8, 8))
        for args in (["convert", source, "-f", "bc1"],                       # no output
                     ["convert", source, "-o", self.path("o.dds")],         # no format
                     ["convert", source, source, "-o", self.path("o.dds"), "-f", "bc1"],  # -o with two inputs
                     ["convert", source, "-o", self.path("o.dds"), "-f", "bc1", "-q", "best"],
                     ["convert", source, "-o", self.path("o.dds"), "-f", "bc1", "--frobnicate"],
                     ["transmogrify"]):
            with self.subTest(args=args[-2:]):
                self.assertRefused(run(*args))
        self.assertNoStrayFiles(["in.png"])

    def test_batch_keeps_going(self):
        """A bad file in a batch is reported; the good ones are still converted; progress is shown."""
        good1 = self.image("a.png", photo_like(16, 16, seed=1))
        good2 = self.image("c.png", photo_like(16, 16, seed=2))
        with open(self.path("b.png"), "wb") as f:
            f.write(b"\x89PNG\r\n\x1a\nbroken")
        out = self.path("out")
        os.mkdir(out)
        result = run("convert", good1, self.path("b.png"), good2, "--output-dir", out, "-f", "bc1", "--stats")
        self.assertRefused(result, "b.png")
        self.assertEqual(sorted(os.listdir(out)), ["a.dds", "c.dds"])
        for i, name in enumerate(["a.png", "b.png", "c.png"], 1):
            self.assertIn(f"[{i}/3] {self.path(name)}", result.stdout)
        self.assertEqual(len(STATS_RE.findall(result.stdout)), 2)

    def test_existing_output_survives_failure(self):
        """A failed conversion leaves an existing output file as it was."""
        out = self.path("keep.dds")
        with open(out, "wb") as f:
            f.write(b"previous contents")
        with open(self.path("bad.png"), "wb") as f:
            f.write(b"nope")
        self.assertRefused(run("convert", self.path("bad.png"), "-o", out, "-f", "bc1"))
        self.assertEqual(read_bytes(out), b"previous contents")
        self.assertNoStrayFiles(["keep.dds", "bad.png"])


class Reporting(ToolCase):
    def test_summary_line(self):
        source = self.image("in.png", photo_like(64, 48))
        result = self.convert(source, self.path("o.dds"), "bc1", "-q", "3")
        line = result.stdout.splitlines()[0]
        for part in ("64x48", "unorm_bc1", "quality highest", "7 levels", " ms"):
            self.assertIn(part, line)

    def test_aliases_and_quality_words(self):
        source = self.image("in.png", photo_like(8, 8))
        for alias, word in (("BC1", "unorm_bc1"), ("bc1_srgb", "srgb_bc1"), ("dxt5", "unorm_bc3"),
                            ("bc4s", "snorm_bc4"), ("unorm_bc5", "unorm_bc5")):
            if word not in self.available:
                continue
            with self.subTest(alias=alias):
                result = self.convert(source, self.path("o.dds"), alias, "-q", "production")
                self.assertIn(word, result.stdout)
                self.assertIn("quality production", result.stdout)

    def test_gpu_flags(self):
        """--gpu-fallback always gives a file; --gpu gives one or, without a usable GPU, one error line."""
        source = self.image("in.png", photo_like(32, 32))
        self.convert(source, self.path("fallback.dds"), "bc1", "--gpu-fallback")
        self.assertEqual(parse_dds(read_bytes(self.path("fallback.dds")))["width"], 32)
        with open(self.path("gpu.dds"), "wb") as f:
            f.write(b"previous contents")
        result = run("convert", source, "-o", self.path("gpu.dds"), "-f", "bc1", "--gpu")
        if result.returncode == 0:
            self.assertEqual(parse_dds(read_bytes(self.path("gpu.dds")))["width"], 32)
        else:
            # The library refused after the output was opened: the old file stays, no temporary is left.
            self.assertEqual(len(result.stderr.splitlines()), 1, result.stderr)
            self.assertIn("GPU", result.stderr)
            self.assertEqual(read_bytes(self.path("gpu.dds")), b"previous contents")
            self.assertNoStrayFiles(["in.png", "fallback.dds", "gpu.dds"])

    def test_output_dir_with_ktx2(self):
        a = self.image("a.png", photo_like(16, 8, seed=1))
        b = self.image("b.png", photo_like(8, 16, seed=2))
        out = self.path("out")
        os.mkdir(out)
        result = run("convert", a, b, "--output-dir", out, "--ext", "ktx2", "-f", "bc1")
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(sorted(os.listdir(out)), ["a.ktx2", "b.ktx2"])
        for name, size in (("a.ktx2", (16, 8)), ("b.ktx2", (8, 16))):
            k = parse_ktx2(read_bytes(os.path.join(out, name)))
            self.assertEqual((k["ident"], k["width"], k["height"]), (KTX2_IDENTIFIER, *size))

    def test_higher_quality_is_not_worse(self):
        """On a noisy image the highest BC1 quality is at least as close as the fastest."""
        source = self.image("in.png", random_image(32, 32, 3, seed=9))
        outputs = []
        for q in ("fastest", "highest"):
            out = self.path(f"{q}.dds")
            outputs.append(parse_stats(self.convert(source, out, "bc1", "-q", q, "--stats").stdout)[1])
        self.assertGreaterEqual(outputs[1], outputs[0] - 0.01)


# ---------------------------------------------------------------------------------------------
# Other input formats


class InputFormats(ToolCase):
    def stats_against(self, source, fmt, reference, *extra):
        out = self.path("out.dds")
        result = self.convert(source, out, fmt, "--stats", *extra)
        _, stats_main, stats_rgba = parse_stats(result.stdout)
        height, width = reference.shape[:2]
        decoded = decode_level(fmt, parse_dds(read_bytes(out))["payload"], width, height)
        self.assertAlmostEqual(psnr(reference, decoded, 3), stats_main, delta=0.01)
        return result, stats_main, stats_rgba, decoded

    def test_lossless_8bit_files(self):
        """BMP and TGA give exactly the pixels a PNG gives."""
        pixels = photo_like(37, 21, alpha=True)
        for ext in ("png", "bmp", "tga"):
            with self.subTest(ext=ext):
                path = self.path(f"in.{ext}")
                Image.fromarray(pixels, "RGBA").save(path)
                _, main, rgba, _ = self.stats_against(path, "unorm_bc3", pixels.astype(np.int64))
                self.assertIsNotNone(rgba)
                self.assertGreater(main, 30)

    def test_jpeg(self):
        pixels = photo_like(40, 24)
        path = self.path("in.jpg")
        Image.fromarray(pixels, "RGB").save(path, quality=95)
        with Image.open(path) as opened:
            jpeg = np.asarray(opened.convert("RGB"), np.int64)
        out = self.path("jpeg.dds")
        result = self.convert(path, out, "bc1", "--stats")
        decoded = decode_level("unorm_bc1", parse_dds(read_bytes(out))["payload"], 40, 24)
        self.assertIn("JPEG", result.stdout)
        self.assertGreater(psnr(jpeg, decoded, 3), 30)  # decoders of JPEG may differ by a little

    def test_exr_is_read_as_linear_float(self):
        """EXR values are clamped and quantised by the library; sRGB formats get them encoded first."""
        rng = np.random.default_rng(11)
        base = photo_like(24, 20).astype(np.float32) / 255.0
        # Alpha stays at or above one half so that BC1 keeps every pixel opaque.
        rgba = np.dstack([base * 1.2, np.clip(rng.random((20, 24)), 0.6, 1.0)]).astype(np.float32)
        rgba[0, 0, :3] = [4.0, -1.0, 0.5]  # out-of-range values clamp
        path = self.path("in.exr")
        write_exr(path, rgba)
        exr_values = rgba.astype(np.float16).astype(np.float32)  # the reader goes through half floats
        for fmt, encode in (("unorm_bc1", lambda v: v), ("srgb_bc1", linear_to_srgb)):
            with self.subTest(fmt=fmt):
                reference = np.dstack([to_unorm8(encode(exr_values[..., :3])), to_unorm8(exr_values[..., 3])])
                result, main, rgba_psnr, _ = self.stats_against(path, fmt, reference, "--no-mips")
                self.assertIn("EXR", result.stdout)
                self.assertIsNotNone(rgba_psnr)
                self.assertGreater(main, 28)

    def test_hdr(self):
        rgb = (photo_like(16, 12).astype(np.float32) / 255.0) ** 2.2
        path = self.path("in.hdr")
        stored = write_hdr(path, rgb)
        reference = np.dstack([to_unorm8(stored), np.full((12, 16), 255)])
        result, main, rgba, _ = self.stats_against(path, "unorm_bc1", reference)
        self.assertIn("HDR", result.stdout)
        self.assertIsNone(rgba)
        self.assertGreater(main, 20)

    def test_garbage_exr(self):
        path = self.path("bad.exr")
        with open(path, "wb") as f:
            f.write(b"\x76\x2f\x31\x01" + b"\xff" * 100)
        result = run("convert", path, "-o", self.path("out.dds"), "-f", "bc1")
        self.assertNotEqual(result.returncode, 0)
        self.assertEqual(len(result.stderr.splitlines()), 1, result.stderr)
        self.assertNoStrayFiles(["bad.exr"])


def main():
    global GLYPTORA
    parser = argparse.ArgumentParser()
    parser.add_argument("--glyptora", required=True)
    args, rest = parser.parse_known_args()
    GLYPTORA = os.path.abspath(args.glyptora)
    unittest.main(argv=[sys.argv[0], *rest], verbosity=2)


if __name__ == "__main__":
    main()

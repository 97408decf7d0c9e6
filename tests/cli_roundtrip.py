#!/usr/bin/env python3
"""End-to-end tests of the glyptora command-line tool.

usage: cli_roundtrip.py --glyptora PATH/TO/glyptora [unittest arguments]

Generated images go through the tool. What it writes is decoded by Pillow as a black box (BC1,
BC2, BC3 colour, BC7) and by the small interpolated-block decoder below (BC3 alpha, BC4, BC5:
Pillow rounds those values down and reads no signed BC4), and its container headers are parsed.
Bad inputs give one error line, exit status 1 (2 for command-line errors) and no output file.
"""
import argparse, io, math, os, re, shutil, struct, subprocess, sys, tempfile, unittest
from pathlib import Path

try:
    import numpy as np
    from PIL import Image
except ImportError as missing:  # reported as skipped by CTest
    print(f"skipped: {missing}")
    sys.exit(77)

GLYPTORA = None  # set from --glyptora
# format: (DXGI code, Vulkan format, legacy FourCC or None for a DX10 header)
FORMATS = {"unorm_bc1": (71, 133, b"DXT1"), "srgb_bc1": (72, 134, None), "unorm_bc2": (74, 135, b"DXT3"),
           "srgb_bc2": (75, 136, None), "unorm_bc3": (77, 137, b"DXT5"), "srgb_bc3": (78, 138, None),
           "unorm_bc4": (80, 139, b"ATI1"), "snorm_bc4": (81, 140, None), "unorm_bc5": (83, 141, b"ATI2"),
           "snorm_bc5": (84, 142, None), "unorm_bc7": (98, 145, None), "srgb_bc7": (99, 146, None)}
# The float formats take EXR and HDR sources and are checked on their own.
HDR_FORMATS = {"ufloat_bc6": (95, 143, None), "float_bc6": (96, 144, None)}
BLOCK_BYTES = {"bc1": 8, "bc2": 16, "bc3": 16, "bc4": 8, "bc5": 16, "bc6": 16, "bc7": 16}
# Pillow opens these files as written; the other formats' blocks are handed to it in a legacy DDS.
PILLOW_OPENS = {"unorm_bc1", "unorm_bc2", "unorm_bc3", "unorm_bc4", "unorm_bc5", "unorm_bc7", "srgb_bc7"}
KTX2_IDENTIFIER = bytes([0xAB, 0x4B, 0x54, 0x58, 0x20, 0x32, 0x30, 0xBB, 0x0D, 0x0A, 0x1A, 0x0A])
QUALITIES = ["fastest", "normal", "production", "highest"]
STATS_RE = re.compile(r"stats: level 0 PSNR (R|RG|RGB) (inf|[0-9.]+) dB(?:, RGBA (inf|[0-9.]+) dB)?")
HDR_STATS_RE = re.compile(r"stats: level 0 RMSLE RGB ([0-9.]+), PSNR RGB clamped to \[0, 1\] (inf|[0-9.]+)")
family = lambda fmt: fmt.split("_")[1]
channels_of = lambda fmt: {"bc4": 1, "bc5": 2}.get(family(fmt), 3)  # R, RG or RGB (plus RGBA with alpha)

def photo_like(width, height, alpha=False, seed=1):
    """Smooth gradients, a hard edge, a soft disc and some noise, like a small photograph."""
    y, x = np.mgrid[0:height, 0:width].astype(np.float64)
    u, v = x / max(width - 1, 1), y / max(height - 1, 1)
    r, g, b = 0.5 + 0.45 * np.sin(5.0 * u + 1.0), 0.4 + 0.4 * v, 0.5 + 0.4 * np.cos(4.0 * (u + v))
    disc = np.clip((0.25 - np.hypot(u - 0.35, v - 0.4)) / 0.05, 0, 1)
    r, g, b = r * (1 - disc) + 0.9 * disc, g * (1 - disc) + 0.7 * disc, b * (1 - disc) + 0.1 * disc
    edge = u > 0.7
    r, g, b = np.where(edge, 0.15, r), np.where(edge, 0.25, g), np.where(edge, 0.6 + 0.3 * v, b)
    rgb = np.stack([r, g, b], axis=-1) + np.random.default_rng(seed).normal(0, 0.02, (height, width, 3))
    img = np.clip(np.rint(rgb * 255), 0, 255).astype(np.uint8)
    if not alpha:
        return img
    a = np.clip(np.rint(255 * (0.5 + 0.5 * np.sin(3 * u) * np.cos(2 * v))), 0, 255).astype(np.uint8)
    a[: height // 3, : width // 3] = 0  # a fully transparent corner
    return np.dstack([img, a])

def normal_map(width, height):
    """Tangent-space normals of a bumpy height field, encoded as RGB = (n + 1) / 2."""
    y, x = np.mgrid[0:height, 0:width].astype(np.float64)
    h = np.sin(x / 3.0) * np.cos(y / 4.0) + 0.3 * np.sin((x + y) / 2.0)
    n = np.stack([-np.gradient(h, axis=1), -np.gradient(h, axis=0), np.ones_like(h)], axis=-1)
    return np.clip(np.rint((n / np.linalg.norm(n, axis=-1, keepdims=True) + 1) * 127.5), 0, 255).astype(np.uint8)

def random_image(width, height, channels, seed):
    return np.random.default_rng(seed).integers(0, 256, (height, width, channels), dtype=np.uint8)

def as_rgba(pixels):
    return pixels if pixels.shape[2] == 4 else np.dstack([pixels, np.full(pixels.shape[:2], 255, np.uint8)])

def write_exr(path, rgba):
    """Single-part scanline OpenEXR without compression, 32-bit float channels A, B, G, R."""
    height, width = rgba.shape[:2]
    window, one = struct.pack("<4i", 0, 0, width - 1, height - 1), struct.pack("<f", 1.0)
    chlist = b"".join(c.encode() + b"\0" + struct.pack("<iB3xii", 2, 0, 1, 1) for c in "ABGR") + b"\0"
    attributes = [("channels", "chlist", chlist), ("compression", "compression", b"\0"),
                  ("dataWindow", "box2i", window), ("displayWindow", "box2i", window),
                  ("lineOrder", "lineOrder", b"\0"), ("pixelAspectRatio", "float", one),
                  ("screenWindowCenter", "v2f", bytes(8)), ("screenWindowWidth", "float", one)]
    header = b"\x76\x2f\x31\x01" + struct.pack("<i", 2) + b"".join(f"{name}\0{kind}\0".encode() + struct.pack(
        "<i", len(value)) + value for name, kind, value in attributes) + b"\0"
    lines = [struct.pack("<ii", y, 16 * width) + rgba[y, :, ::-1].T.astype("<f4").tobytes() for y in range(height)]
    offsets = len(header) + 8 * height + np.arange(height) * len(lines[0])
    Path(path).write_bytes(header + struct.pack(f"<{height}Q", *offsets) + b"".join(lines))

def write_hdr(path, rgb):
    """Radiance RGBE picture with flat scanlines. Returns the values it stores: mantissa byte
    times 2^(exponent - 136)."""
    rgb = rgb.astype(np.float64)
    peak = rgb.max(axis=-1)
    mantissa, exponent = np.frexp(peak)
    dark = peak < 1e-32
    scale = np.where(dark, 0, mantissa * 256.0 / np.where(dark, 1, peak))
    texel = (rgb * scale[..., None]).astype(np.uint8)
    rgbe = np.dstack([texel, np.where(dark, 0, exponent + 128)]).astype(np.uint8)
    header = f"#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n\n-Y {rgb.shape[0]} +X {rgb.shape[1]}\n".encode()
    Path(path).write_bytes(header + rgbe.tobytes())
    return (texel * np.ldexp(1.0, exponent - 8)[..., None]).astype(np.float32)

def to_unorm8(values):
    """Float to 8-bit as the library reads float sources: clamp to 0..1, scale, round half up."""
    return np.floor(np.clip(np.nan_to_num(values), 0.0, 1.0) * np.float32(255.0) + np.float32(0.5)).astype(np.int64)

def linear_to_srgb(v):
    v = np.clip(v, 0.0, 1.0)
    return np.where(v <= 0.0031308, v * 12.92, 1.055 * np.power(v, 1 / 2.4) - 0.055)

def decode_interpolated(block, signed):
    """16 values of an interpolated block (BC3 alpha, BC4, a BC5 half), signed ones in -127..127.
    Entries are (n + d / 2) / d with the division truncating toward zero, as the library decodes."""
    a0, a1 = [max(v, -127) for v in struct.unpack("<bb", block[:2])] if signed else block[:2]
    if a0 > a1:
        palette = [a0, a1] + [int(((8 - k) * a0 + (k - 1) * a1 + 3) / 7) for k in range(2, 8)]
    else:
        palette = [a0, a1] + [int(((6 - k) * a0 + (k - 1) * a1 + 2) / 5) for k in range(2, 6)]
        palette += [-127, 127] if signed else [0, 255]
    bits = int.from_bytes(block[2:8], "little")
    return [palette[(bits >> (3 * i)) & 7] for i in range(16)]

def decode(fmt, data, width, height, path=None):
    """One level (blocks in row-major order) as an int array (height, width, 4). Pillow decodes the
    DDS file at `path` where it reads that format, else a legacy DDS around `data`; BC3 alpha, BC4
    and BC5 come from decode_interpolated, and Pillow's unsigned values may only be one below."""
    fam, signed = family(fmt), fmt.startswith("snorm_")
    across, down, size = (width + 3) // 4, (height + 3) // 4, BLOCK_BYTES[fam]
    out = np.zeros((height, width, 4), np.int64)
    if not signed:
        if not (path and fmt in PILLOW_OPENS):
            legacy = {"bc1": b"DXT1", "bc2": b"DXT3", "bc3": b"DXT5", "bc4": b"ATI1", "bc5": b"ATI2"}.get(fam, b"DX10")
            path = io.BytesIO(struct.pack("<4s7I44x2I4s40x", b"DDS ", 124, 0x1007, height, width, 0, 0, 1, 32, 4,
                                          legacy) + (struct.pack("<5I", 98, 3, 0, 1, 0) if fam == "bc7" else b"")
                              + data[:across * down * size])
        with Image.open(path) as opened:
            assert opened.size == (width, height), opened.size
            out = np.asarray(opened.convert("RGBA"), np.int64).copy()
    for channel, start in {"bc3": [(3, 0)], "bc4": [(0, 0)], "bc5": [(0, 0), (1, 8)]}.get(fam, []):
        values = np.array([decode_interpolated(data[b * size + start:b * size + start + 8], signed)
                           for b in range(across * down)])
        values = values.reshape(down, across, 4, 4).transpose(0, 2, 1, 3).reshape(down * 4, across * 4)
        values = values[:height, :width]
        if not signed:
            below = values - out[..., channel]
            assert np.all((below >= 0) & (below <= 1)), "Pillow differs by more than rounding"
        out[..., channel] = values
    return out

def psnr(reference, decoded, channels):
    ref = np.asarray(reference, np.int64)[..., :channels]
    mse = float(np.mean((ref - np.asarray(decoded, np.int64)[..., :channels]) ** 2))
    return math.inf if mse == 0 else 10 * math.log10(255.0 ** 2 / mse)

def encoder_reference(fmt, rgba):
    """Pixels as the encoder sees them: signed formats map an unsigned byte u to u - 128 (0 to -127)."""
    ref = np.asarray(rgba, np.int64)
    return np.where(ref == 0, -127, ref - 128) if fmt.startswith("snorm_") else ref

def level_sizes(fmt, width, height, levels):
    return [((max(width >> m, 1) + 3) // 4) * ((max(height >> m, 1) + 3) // 4) * BLOCK_BYTES[family(fmt)]
            for m in range(levels)]

def run(*args):
    return subprocess.run([GLYPTORA, *args], capture_output=True, text=True, timeout=300)

def parse_stats(stdout):
    match = STATS_RE.search(stdout)
    assert match, f"no stats line in: {stdout!r}"
    value = lambda s: None if s is None else math.inf if s == "inf" else float(s)
    return match.group(1), value(match.group(2)), value(match.group(3))

class ToolCase(unittest.TestCase):
    """A temporary folder per test and helpers to convert into it and to check what was written."""

    @classmethod
    def setUpClass(cls):
        result = run("formats")
        assert result.returncode == 0, result.stderr
        rows = [line.split() for line in result.stdout.splitlines()]
        cls.available = {row[0] for row in rows if len(row) >= 4 and row[3] == "available"}

    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix="glyptora_cli_")
        self.addCleanup(shutil.rmtree, self.dir)

    def path(self, name):
        return os.path.join(self.dir, name)

    def image(self, name, pixels):
        Image.fromarray(pixels, "RGBA" if pixels.shape[2] == 4 else "RGB").save(self.path(name))
        return self.path(name)

    def convert(self, source, output, fmt, *extra):
        result = run("convert", source, "-o", output, "-f", fmt, *extra)
        self.assertEqual((result.returncode, result.stderr), (0, ""), f"{fmt}: {result.stdout}{result.stderr}")
        return result.stdout

    def check_dds(self, path, fmt, width, height, levels=None):
        """Header fields, FourCC or DX10 code, the level count and sizes; returns the level data."""
        data = Path(path).read_bytes()
        levels = levels or max(width, height).bit_length()
        sizes = level_sizes(fmt, width, height, levels)
        dxgi, _, legacy = {**FORMATS, **HDR_FORMATS}[fmt]
        size, flags, h, w, linear_size, _, count = struct.unpack_from("<7I", data, 4)
        pf_size, pf_flags, fourcc = struct.unpack_from("<II4s", data, 76)
        start = 128 if legacy else 148
        self.assertEqual((data[:4], size, pf_size, pf_flags, fourcc, w, h, count, linear_size, len(data) - start),
                         (b"DDS ", 124, 32, 4, legacy or b"DX10", width, height, levels, sizes[0], sum(sizes)))
        if not legacy:  # DXGI code, 2D texture, array size 1
            self.assertEqual(struct.unpack_from("<2I", data, 128) + struct.unpack_from("<I", data, 140), (dxgi, 3, 1))
        if levels > 1:
            self.assertTrue(struct.unpack_from("<I", data, 108)[0] & 0x400000 and flags & 0x20000)
        return data[start:]

    def check_ktx2(self, path, fmt, width, height, dds_levels):
        """Header; level index (aligned, in order: index, descriptor, key/values, smallest level
        first, largest last up to the end); Data Format Descriptor; the DDS file's blocks."""
        data, fam = Path(path).read_bytes(), family(fmt)
        sizes = level_sizes(fmt, width, height, max(width, height).bit_length())
        self.assertEqual((data[:12],) + struct.unpack_from("<9I", data, 12),
                         (KTX2_IDENTIFIER, {**FORMATS, **HDR_FORMATS}[fmt][1], 1, width, height, 0, 0, 1, len(sizes), 0))
        dfd_offset, dfd_length, kvd_offset, kvd_length = struct.unpack_from("<4I", data, 48)
        edges = [80 + 24 * len(sizes), dfd_offset, dfd_offset + dfd_length]
        edges += [kvd_offset, kvd_offset + kvd_length] if kvd_length else []
        for m in reversed(range(len(sizes))):
            offset, length, uncompressed = struct.unpack_from("<3Q", data, 80 + 24 * m)
            self.assertEqual((length, uncompressed, offset % BLOCK_BYTES[fam]), (sizes[m], sizes[m], 0))
            self.assertEqual(data[offset:offset + length], dds_levels[sum(sizes[:m]):sum(sizes[:m + 1])], f"level {m}")
            edges += [offset, offset + length]
        self.assertEqual((edges, edges[-1], dfd_offset % 4), (sorted(edges), len(data), 0))
        dfd, samples = data[dfd_offset:dfd_offset + dfd_length], {"bc2": 2, "bc3": 2, "bc5": 2}.get(fam, 1)
        model = {"bc1": 128, "bc2": 129, "bc3": 130, "bc4": 131, "bc5": 132, "bc6": 133, "bc7": 134}[fam]
        # total size, vendor and type, version and block size; model, primaries, transfer; block shape, bytes
        self.assertEqual(struct.unpack_from("<3I", dfd) + tuple(dfd[12:15]) + tuple(dfd[16:21]),
                         (28 + 16 * samples, 0, 2 | (24 + 16 * samples) << 16, model, 1,
                          2 if fmt.startswith("srgb_") else 1, 3, 3, 0, 0, BLOCK_BYTES[fam]))
        self.assertEqual(dfd_length, 28 + 16 * samples)
        if kvd_length:
            self.assertIn(b"KTXwriter\0", data[kvd_offset:kvd_offset + kvd_length])

    def level(self, path, fmt, width, height, m):
        """Level m of a DDS file holding the full chain, decoded."""
        sizes = level_sizes(fmt, width, height, m + 1)
        data = self.check_dds(path, fmt, width, height)[sum(sizes[:m]):sum(sizes)]
        return decode(fmt, data, max(width >> m, 1), max(height >> m, 1))

class RoundTrip(ToolCase):
    def test_every_format_odd_sizes_and_qualities(self):
        """DDS and KTX2 structure, a decode that gives the PSNR --stats printed, BC1's one-bit alpha,
        and a quality floor on the photograph (at the fastest quality) and the normal map."""
        sources = [("odd5x3", random_image(5, 3, 3, seed=3)), ("single1x1", random_image(1, 1, 4, seed=4)),
                   ("odd13x7", photo_like(13, 7, alpha=True, seed=5)), ("photo64x48", photo_like(64, 48, seed=6)),
                   ("alpha64x48", photo_like(64, 48, alpha=True, seed=7)), ("normal30x22", normal_map(30, 22))]
        formats = [f for f in FORMATS if f in self.available]
        self.assertTrue(formats, "no BC format is available")
        for fmt in formats:
            for i, (name, pixels) in enumerate(sources):
                quality, (height, width), channels = QUALITIES[(i + 1) % 4], pixels.shape[:2], channels_of(fmt)
                with self.subTest(fmt=fmt, image=name, quality=quality):
                    source, dds, ktx2 = self.image(f"{name}.png", pixels), self.path("o.dds"), self.path("o.ktx2")
                    label, main, rgba = parse_stats(self.convert(source, dds, fmt, "--stats", "-q", quality))
                    self.convert(source, ktx2, fmt, "-q", quality)
                    levels = self.check_dds(dds, fmt, width, height)
                    self.check_ktx2(ktx2, fmt, width, height, levels)
                    decoded = decode(fmt, levels, width, height, dds)
                    reference = encoder_reference(fmt, as_rgba(pixels))
                    self.assertEqual(label, ["R", "RG", "RGB"][channels - 1])
                    self.assertAlmostEqual(psnr(reference, decoded, channels), main, delta=0.01)
                    has_alpha = pixels.shape[2] == 4 and np.any(pixels[..., 3] < 255)
                    self.assertEqual(rgba is not None, has_alpha and channels == 3)
                    if rgba is not None:
                        self.assertAlmostEqual(psnr(reference, decoded, 4), rgba, delta=0.01)
                    if name in ("photo64x48", "normal30x22"):  # lossy but close
                        self.assertGreater(main, {"bc4": 38, "bc5": 38, "bc7": 38}.get(family(fmt), 30))
                    if family(fmt) == "bc1" and has_alpha:  # fully transparent stays so, opaque stays opaque
                        self.assertTrue(np.all(decoded[..., 3][pixels[..., 3] == 0] == 0))
                        self.assertTrue(np.all(decoded[..., 3][pixels[..., 3] == 255] == 255))

    def test_mip_chain(self):
        """Level 1 is a box filter of level 0, the last level the mean; --no-mips writes one level;
        13x7 halves to 6x3 from all 13 columns, so a bright last column still shows; sRGB formats
        average in linear light: a black and white checkerboard halves to 188 (128 otherwise)."""
        pixels, out = photo_like(64, 48), self.path("chain.dds")
        self.convert(self.image("chain.png", pixels), out, "bc1")
        box = pixels.astype(np.float64).reshape(24, 2, 32, 2, 3).mean(axis=(1, 3))
        self.assertGreater(psnr(box, self.level(out, "unorm_bc1", 64, 48, 1), 3), 30)
        last = self.level(out, "unorm_bc1", 64, 48, 6)
        self.assertLess(np.max(np.abs(last[0, 0, :3] - pixels.reshape(-1, 3).mean(axis=0))), 12)
        self.convert(self.path("chain.png"), out, "bc1", "--no-mips")
        self.check_dds(out, "unorm_bc1", 64, 48, levels=1)
        odd = np.zeros((7, 13, 3), np.uint8)
        odd[:, 12] = 255
        self.convert(self.image("odd.png", odd), out, "bc1")
        level1 = self.level(out, "unorm_bc1", 13, 7, 1)
        self.assertGreater(level1[:, 5, :3].min(), 40)  # the last column's weight reaches the edge pixel
        self.assertLess(level1[:, :4, :3].max(), 8)
        checker = (np.indices((32, 32)).sum(axis=0) % 2 * 255).astype(np.uint8)
        self.image("checker.png", np.dstack([checker] * 3))
        for fmt, expected in (("unorm_bc1", 128), ("srgb_bc1", 188), ("srgb_bc7", 188)):
            self.convert(self.path("checker.png"), out, fmt)
            self.assertLess(np.max(np.abs(self.level(out, fmt, 32, 32, 1)[..., :3] - expected)), 6, fmt)

    def test_input_formats(self):
        """PNG, BMP and TGA give the same pixels; JPEG is close to Pillow's reading of it; EXR and HDR
        floats are clamped and quantised by the library (sRGB formats encode them first)."""
        pixels = photo_like(37, 21, alpha=True)
        for ext in ("png", "bmp", "tga"):
            Image.fromarray(pixels, "RGBA").save(self.path(f"in.{ext}"))
        Image.fromarray(photo_like(40, 24), "RGB").save(self.path("in.jpg"), quality=95)
        with Image.open(self.path("in.jpg")) as opened:
            jpeg = as_rgba(np.asarray(opened.convert("RGB")))
        base = photo_like(24, 20).astype(np.float32) / 255.0
        # Alpha stays at or above one half so that BC1 keeps every pixel opaque; (4, -1) clamp.
        alpha = np.clip(np.random.default_rng(11).random((20, 24)), 0.6, 1.0)
        exr = np.dstack([base * 1.2, alpha]).astype(np.float32)
        exr[0, 0, :3] = [4.0, -1.0, 0.5]
        write_exr(self.path("in.exr"), exr)
        exr = exr.astype(np.float16).astype(np.float32)  # the reader goes through half floats
        hdr = write_hdr(self.path("in.hdr"), (photo_like(16, 12).astype(np.float32) / 255.0) ** 2.2)
        hdr = as_rgba(to_unorm8(hdr))
        # file, format, reference, whether --stats measured exactly it, PSNR floor, kind, options
        cases = [(f"in.{ext}", "unorm_bc3", pixels, True, 30, ext.upper(), []) for ext in ("png", "bmp", "tga")]
        cases += [("in.jpg", "unorm_bc1", jpeg, False, 30, "JPEG", []),
                  ("in.hdr", "unorm_bc1", hdr, True, 20, "HDR", [])]
        cases += [("in.exr", fmt, np.dstack([to_unorm8(encode(exr[..., :3])), to_unorm8(exr[..., 3])]), True, 28, "EXR",
                   ["--no-mips"]) for fmt, encode in (("unorm_bc1", lambda v: v), ("srgb_bc1", linear_to_srgb))]
        for name, fmt, reference, exact, floor, kind, extra in cases:
            with self.subTest(name=name, fmt=fmt):
                (height, width), out = reference.shape[:2], self.path("out.dds")
                stdout = self.convert(self.path(name), out, fmt, "--stats", *extra)
                _, main, rgba = parse_stats(stdout)
                decoded = decode(fmt, self.check_dds(out, fmt, width, height, 1 if extra else None), width, height)
                self.assertIn(f"{width}x{height} {kind},", stdout)
                self.assertEqual(rgba is not None, bool(np.any(reference[..., 3] < 255)))
                self.assertGreater(psnr(reference, decoded, 3), floor)
                if exact:
                    self.assertAlmostEqual(psnr(reference, decoded, 3), main, delta=0.01)
                if exact and rgba is not None:
                    self.assertAlmostEqual(psnr(reference, decoded, 4), rgba, delta=0.01)

def pillow_bc6(data, width, height, signed):
    """One BC6H level decoded by Pillow (as 8-bit RGB, which clamps to 0..1) from a DDS made around it."""
    header = struct.pack("<4s7I44x2I4s40x", b"DDS ", 124, 0x1007, height, width, 0, 0, 1, 32, 4, b"DX10")
    with Image.open(io.BytesIO(header + struct.pack("<5I", 96 if signed else 95, 3, 0, 1, 0) + data)) as opened:
        assert opened.size == (width, height), opened.size
        return np.asarray(opened.convert("RGB"), np.int64)

class HdrRoundTrip(ToolCase):
    def test_bc6h_from_exr_and_hdr(self):
        """EXR and Radiance HDR sources to BC6H, unsigned and signed, DDS (DX10) and KTX2, at the fast
        and the search quality: Pillow's decode (clamped to 0..1, rounded down) agrees with the
        clamped PSNR that --stats printed, the search's RMSLE is below the fast encoder's, and the
        mip chain is averaged in linear float."""
        base = (photo_like(30, 22).astype(np.float32) / 255.0) ** 2.2
        exr = np.dstack([base * np.float32(6.0), np.ones((22, 30), np.float32)])
        exr[0, 0, :3] = [0.5, -1.0, 0.25]  # a negative: 0 unsigned, kept signed
        write_exr(self.path("in.exr"), exr)
        hdr = write_hdr(self.path("in.hdr"), base)
        rmsle = {}
        for fmt in HDR_FORMATS:
            self.assertIn(fmt, self.available)
            for source, values, quality in (("in.exr", exr[..., :3], "normal"), ("in.exr", exr[..., :3], "production"),
                                            ("in.hdr", hdr, "fastest")):
                with self.subTest(fmt=fmt, source=source, quality=quality):
                    (height, width), dds, ktx2 = values.shape[:2], self.path("o.dds"), self.path("o.ktx2")
                    match = HDR_STATS_RE.search(self.convert(self.path(source), dds, fmt, "--stats", "-q", quality))
                    self.assertTrue(match, "no HDR stats line")
                    rmsle[fmt, source, quality] = float(match.group(1))
                    self.assertLess(rmsle[fmt, source, quality], 0.1)
                    levels = self.check_dds(dds, fmt, width, height)
                    self.convert(self.path(source), ktx2, fmt, "-q", quality)
                    self.check_ktx2(ktx2, fmt, width, height, levels)
                    decoded = pillow_bc6(levels[:level_sizes(fmt, width, height, 1)[0]], width, height,
                                         fmt == "float_bc6")
                    reference = np.floor(np.clip(values, 0.0, 1.0) * 255.0)
                    self.assertAlmostEqual(psnr(reference, decoded, 3), float(match.group(2)), delta=1.0)
                    self.assertGreater(psnr(reference, decoded, 3), 25)
            self.assertLess(rmsle[fmt, "in.exr", "production"], rmsle[fmt, "in.exr", "normal"])
        # Level 1 of a checkerboard of 0 and 0.8 is 0.4 in linear float.
        checker = (np.indices((16, 16)).sum(axis=0) % 2 * 0.8).astype(np.float32)
        write_exr(self.path("checker.exr"), np.dstack([checker] * 3 + [np.ones_like(checker)]))
        self.convert(self.path("checker.exr"), self.path("c.dds"), "ufloat_bc6")
        sizes = level_sizes("ufloat_bc6", 16, 16, 2)
        level1 = self.check_dds(self.path("c.dds"), "ufloat_bc6", 16, 16)[sizes[0]:sum(sizes)]
        self.assertLess(np.max(np.abs(pillow_bc6(level1, 8, 8, False) - 102)), 3)

class CommandLine(ToolCase):
    def assertRefused(self, result, status=1, mention=""):
        lines = result.stderr.splitlines()
        self.assertEqual((result.returncode, len(lines)), (status, 1), result.stderr)
        self.assertTrue(lines[0].startswith("glyptora: ") and mention in lines[0], lines[0])

    def test_refused_without_output(self):
        """Bad files (status 1) and command lines (status 2); a failure keeps an existing output."""
        source = self.image("in.png", photo_like(8, 8))
        whole = Path(self.image("whole.png", photo_like(64, 48))).read_bytes()
        huge = struct.pack("<2sIHHI", b"BM", 54, 0, 0, 54) + struct.pack(  # 40000 x 40000, refused before reading
            "<IiiHHIIiiII", 40, 40000, 40000, 1, 24, 0, 0, 2835, 2835, 0, 0) + b"\0" * 64
        files = {"garbage.png": b"this is not an image at all" * 20, "cut.png": whole[:len(whole) // 2],
                 "empty.png": b"", "huge.bmp": huge, "bad.exr": b"\x76\x2f\x31\x01" + b"\xff" * 100,
                 "keep.dds": b"previous contents"}
        for name, data in files.items():
            Path(self.path(name)).write_bytes(data)
        out = self.path("out.dds")
        cases = [([self.path(n), "-o", out, "-f", "bc1"], 1, n)
                 for n in ("missing.png", "garbage.png", "cut.png", "empty.png", "huge.bmp", "bad.exr")]
        cases += [([self.path("garbage.png"), "-o", self.path("keep.dds"), "-f", "bc1"], 1, "garbage.png"),
                  ([source, "-o", self.path("out.png"), "-f", "bc1"], 1, "out.png"),
                  ([source, "-o", self.path("out.astc"), "-f", "bc1"], 1, "out.astc"),
                  ([source, "-o", os.path.join(source, "out.dds"), "-f", "bc1"], 1, ""),  # through a file
                  ([source, "-o", self.path("no/such/folder/out.dds"), "-f", "bc1"], 1, ""),
                  ([source, "-o", out, "-f", "bc99"], 2, "bc99"), ([source, "-f", "bc1"], 2, "-o OUTPUT"),
                  ([source, "-o", out], 2, "no format"), ([source, source, "-o", out, "-f", "bc1"], 2, "-o takes one"),
                  ([source, "-o", out, "-f", "bc1", "-q", "best"], 2, "best"),
                  ([source, "-o", out, "-f", "bc1", "--frobnicate"], 2, "--frobnicate")]
        cases += [([source, "-o", self.path("o.ktx2"), "-f", f], 2, "not available")
                  for f in ("unorm_astc_6x6", "srgb_astc_12x12") if f not in self.available]
        for args, status, mention in cases:
            with self.subTest(args=args[-3:]):
                self.assertRefused(run("convert", *args), status, mention)
        self.assertRefused(run("transmogrify"), 2, "transmogrify")
        self.assertEqual(Path(self.path("keep.dds")).read_bytes(), b"previous contents")
        self.assertEqual(sorted(os.listdir(self.dir)), sorted(["in.png", "whole.png", *files]))

    def test_batch_keeps_going(self):
        """A bad file in a batch is reported; the good ones are still converted; progress is shown."""
        good = [self.image("a.png", photo_like(16, 8, seed=1)), self.image("c.png", photo_like(8, 16, seed=2))]
        Path(self.path("b.png")).write_bytes(b"\x89PNG\r\n\x1a\nbroken")
        os.mkdir(self.path("out"))
        result = run("convert", good[0], self.path("b.png"), good[1], "--output-dir", self.path("out"), "-f", "bc1",
                     "--stats")
        self.assertRefused(result, 1, "b.png")
        for i, name in enumerate(["a.png", "b.png", "c.png"], 1):
            self.assertIn(f"[{i}/3] {self.path(name)}", result.stdout)
        self.assertEqual(len(STATS_RE.findall(result.stdout)), 2)
        result = run("convert", *good, "--output-dir", self.path("out"), "--ext", "ktx2", "-f", "bc1")
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(sorted(os.listdir(self.path("out"))), ["a.dds", "a.ktx2", "c.dds", "c.ktx2"])
        for name, size in (("a", (16, 8)), ("c", (8, 16))):
            levels = self.check_dds(self.path(f"out/{name}.dds"), "unorm_bc1", *size)
            self.check_ktx2(self.path(f"out/{name}.ktx2"), "unorm_bc1", *size, levels)

    def test_gpu_flags(self):
        """--gpu-fallback always gives a file; --gpu gives one or, without a usable GPU, one error line
        (after the output was opened: the old file stays, no temporary is left)."""
        source = self.image("in.png", photo_like(32, 32))
        self.convert(source, self.path("fallback.dds"), "bc1", "--gpu-fallback")
        self.check_dds(self.path("fallback.dds"), "unorm_bc1", 32, 32)
        Path(self.path("gpu.dds")).write_bytes(b"previous contents")
        result = run("convert", source, "-o", self.path("gpu.dds"), "-f", "bc1", "--gpu")
        if result.returncode == 0:
            self.check_dds(self.path("gpu.dds"), "unorm_bc1", 32, 32)
        else:
            self.assertRefused(result, 1, "GPU")
            self.assertEqual(Path(self.path("gpu.dds")).read_bytes(), b"previous contents")
            self.assertEqual(sorted(os.listdir(self.dir)), ["fallback.dds", "gpu.dds", "in.png"])

    def test_aliases_and_quality(self):
        """Aliases and quality words or numbers reach the summary line; on a noisy image the highest
        BC1 quality is at least as close as the fastest."""
        source = self.image("in.png", random_image(32, 32, 3, seed=9))
        for alias, word, q, quality in (("BC1", "unorm_bc1", "3", "highest"), ("dxt5", "unorm_bc3", "0", "fastest"),
                                        ("bc1_srgb", "srgb_bc1", "production", "production"),
                                        ("bc4s", "snorm_bc4", "normal", "normal"),
                                        ("unorm_bc5", "unorm_bc5", "2", "production")):
            if word in self.available:
                stdout = self.convert(source, self.path("o.dds"), alias, "-q", q)
                self.assertRegex(stdout, f"32x32 PNG, {word}, quality {quality}, 6 levels, [0-9]+ bytes, .* ms")
        fastest, highest = (parse_stats(self.convert(source, self.path("o.dds"), "bc1", "-q", q, "--stats"))[1]
                            for q in ("fastest", "highest"))
        self.assertGreaterEqual(highest, fastest - 0.01)

    def test_replaced_output_keeps_mode_links_stay_and_huge_png(self):
        """A replaced output keeps its permissions; a symbolic link (relative, dangling at first) is
        written through to its target and stays a link; a PNG header claiming more than the limit
        is refused as too large, with its size."""
        source = self.image("in.png", photo_like(8, 8))
        out = self.path("old.dds")
        Path(out).write_bytes(b"previous contents")
        os.chmod(out, 0o604)
        self.convert(source, out, "bc1")
        self.assertEqual(os.stat(out).st_mode & 0o7777, 0o604)
        self.check_dds(out, "unorm_bc1", 8, 8)
        os.mkdir(self.path("real"))
        os.symlink("real/target.dds", self.path("link.dds"))
        for _ in range(2):  # creates the target, then replaces it
            self.convert(source, self.path("link.dds"), "bc1")
            self.assertTrue(os.path.islink(self.path("link.dds")))
            self.check_dds(self.path("real/target.dds"), "unorm_bc1", 8, 8)
        self.assertEqual(os.listdir(self.path("real")), ["target.dds"])
        png = Path(source).read_bytes()
        for width, height in ((40000, 8), (1 << 25, 1 << 25)):  # beyond our limit; beyond the decoder's too
            Path(self.path("huge.png")).write_bytes(png[:16] + struct.pack(">II", width, height) + png[24:])
            self.assertRefused(run("convert", self.path("huge.png"), "-o", self.path("h.dds"), "-f", "bc1"), 1,
                               f"image too large ({width} x {height})")

if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--glyptora", required=True)
    args, rest = parser.parse_known_args()
    GLYPTORA = os.path.abspath(args.glyptora)
    unittest.main(argv=[sys.argv[0], *rest], verbosity=2)

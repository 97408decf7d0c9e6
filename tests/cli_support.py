"""What the command-line tool tests (cli_roundtrip.py, cli_astc.py, cli_texture_files.py) share:
running the tool, generated images, EXR and HDR source files, the block decoders (Pillow as a
black box for BC1, BC2, BC3 colour, BC6H and BC7; the interpolated-block decoder below for BC3
alpha, BC4 and BC5, which Pillow rounds down and reads unsigned only; astcenc for ASTC), PSNR,
the DDS and KTX2 checks, and a test case with a temporary folder.
"""
import argparse, io, math, os, re, shutil, struct, subprocess, sys, tempfile, unittest
from pathlib import Path

try:
    import numpy as np
    from PIL import Image
except ImportError as missing:  # reported as skipped by CTest
    print(f"skipped: {missing}")
    sys.exit(77)

GLYPTORA = None  # set by main() from --glyptora
# format: (DXGI code, Vulkan format, legacy FourCC or None for a DX10 header)
FORMATS = {"unorm_bc1": (71, 133, b"DXT1"), "srgb_bc1": (72, 134, None), "unorm_bc2": (74, 135, b"DXT3"),
           "srgb_bc2": (75, 136, None), "unorm_bc3": (77, 137, b"DXT5"), "srgb_bc3": (78, 138, None),
           "unorm_bc4": (80, 139, b"ATI1"), "snorm_bc4": (81, 140, None), "unorm_bc5": (83, 141, b"ATI2"),
           "snorm_bc5": (84, 142, None), "unorm_bc7": (98, 145, None), "srgb_bc7": (99, 146, None)}
# The float formats take EXR and HDR sources and are checked on their own.
HDR_FORMATS = {"ufloat_bc6": (95, 143, None), "float_bc6": (96, 144, None)}
BLOCK_BYTES = {"bc1": 8, "bc2": 16, "bc3": 16, "bc4": 8, "bc5": 16, "bc6": 16, "bc7": 16, "astc": 16}
ASTC_FOOTPRINTS = [(4, 4), (5, 4), (5, 5), (6, 5), (6, 6), (8, 5), (8, 6), (8, 8), (10, 5), (10, 6), (10, 8), (10, 10),
                   (12, 10), (12, 12)]  # in Vulkan format order: unorm 157 + 2 i, sRGB one more
# Pillow opens these files as written; the other formats' blocks are handed to it in a legacy DDS.
PILLOW_OPENS = {"unorm_bc1", "unorm_bc2", "unorm_bc3", "unorm_bc4", "unorm_bc5", "unorm_bc7", "srgb_bc7"}
KTX2_IDENTIFIER = bytes([0xAB, 0x4B, 0x54, 0x58, 0x20, 0x32, 0x30, 0xBB, 0x0D, 0x0A, 0x1A, 0x0A])
STATS_RE = re.compile(r"stats: level 0 PSNR (R|RG|RGB) (inf|[0-9.]+) dB(?:, RGBA (inf|[0-9.]+) dB)?")
family = lambda fmt: fmt.split("_")[1]

def photo_like(width, height, alpha=False, seed=1):
    """Smooth gradients, a hard edge, a soft disc and some noise, like a small photograph; with
    alpha a ramp and a fully transparent corner."""
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
    a[: height // 3, : width // 3] = 0
    return np.dstack([img, a])

def normal_map(width, height):
    """Tangent-space normals of a bumpy height field, encoded as RGB = (n + 1) / 2."""
    y, x = np.mgrid[0:height, 0:width].astype(np.float64)
    h = np.sin(x / 3.0) * np.cos(y / 4.0) + 0.3 * np.sin((x + y) / 2.0)
    n = np.stack([-np.gradient(h, axis=1), -np.gradient(h, axis=0), np.ones_like(h)], axis=-1)
    return np.clip(np.rint((n / np.linalg.norm(n, axis=-1, keepdims=True) + 1) * 127.5), 0, 255).astype(np.uint8)

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

def pillow_decode(data, width, height, fourcc, dxgi=0, mode="RGBA"):
    """Pillow's decode of one level of blocks in a DDS made around them (DX10 when `dxgi` is set)."""
    header = struct.pack("<4s7I44x2I4s40x", b"DDS ", 124, 0x1007, height, width, 0, 0, 1, 32, 4,
                         b"DX10" if dxgi else fourcc) + (struct.pack("<5I", dxgi, 3, 0, 1, 0) if dxgi else b"")
    with Image.open(io.BytesIO(header + data)) as opened:
        assert opened.size == (width, height), opened.size
        return np.asarray(opened.convert(mode), np.int64).copy()

def pillow_bc6(data, width, height, signed):
    """One BC6H level decoded by Pillow as 8-bit RGB, which clamps to 0..1 and rounds down."""
    return pillow_decode(data, width, height, None, 96 if signed else 95, "RGB")

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
    if not signed and path and fmt in PILLOW_OPENS:
        with Image.open(path) as opened:
            assert opened.size == (width, height), opened.size
            out = np.asarray(opened.convert("RGBA"), np.int64).copy()
    elif not signed:
        legacy = {"bc1": b"DXT1", "bc2": b"DXT3", "bc3": b"DXT5", "bc4": b"ATI1", "bc5": b"ATI2"}.get(fam)
        out = pillow_decode(data[:across * down * size], width, height, legacy, 0 if legacy else 98)
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

def astcenc_decode(path):
    """The .astc file at `path` decoded by astcenc -dl (run as a program only), as RGBA ints."""
    result = subprocess.run(["astcenc", "-dl", path, path + ".png"], capture_output=True, text=True, timeout=60)
    assert result.returncode == 0, result.stdout + result.stderr
    with Image.open(path + ".png") as opened:
        return np.asarray(opened.convert("RGBA"), np.int64)

def psnr(reference, decoded, channels):
    ref = np.asarray(reference, np.int64)[..., :channels]
    mse = float(np.mean((ref - np.asarray(decoded, np.int64)[..., :channels]) ** 2))
    return math.inf if mse == 0 else 10 * math.log10(255.0 ** 2 / mse)

def footprint(fmt):
    """Block width and height: 4x4, or the ASTC footprint the format word names."""
    return tuple(map(int, fmt.split("_")[2].split("x"))) if family(fmt) == "astc" else (4, 4)

def vk_format(fmt):
    if family(fmt) == "astc":
        return 157 + 2 * ASTC_FOOTPRINTS.index(footprint(fmt)) + fmt.startswith("srgb_")
    return {**FORMATS, **HDR_FORMATS}[fmt][1]

def level_sizes(fmt, width, height, levels):
    (bw, bh), size = footprint(fmt), BLOCK_BYTES[family(fmt)]
    return [-(-max(width >> m, 1) // bw) * -(-max(height >> m, 1) // bh) * size for m in range(levels)]

def run(*args):
    return subprocess.run([GLYPTORA, *args], capture_output=True, text=True, timeout=300)

def parse_stats(stdout):
    """The channels measured, their PSNR and the RGBA PSNR (None when not printed) of --stats."""
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

    def convert(self, sources, output, fmt, *extra):
        result = run("convert", *([sources] if isinstance(sources, str) else sources), "-o", output, "-f", fmt, *extra)
        self.assertEqual((result.returncode, result.stderr), (0, ""), f"{fmt}: {result.stdout}{result.stderr}")
        return result.stdout

    def assertRefused(self, result, status=1, mention=""):
        """One error line naming `mention`, and the exit status (1 for bad files, 2 for command lines)."""
        lines = result.stderr.splitlines()
        self.assertEqual((result.returncode, len(lines)), (status, 1), result.stderr)
        self.assertTrue(lines[0].startswith("glyptora: ") and mention in lines[0], lines[0])

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

    def check_ktx2(self, path, fmt, width, height, levels):
        """Header; level index (aligned, in order: index, descriptor, key/values, smallest level
        first, largest last up to the end); Data Format Descriptor; the blocks of the levels
        `levels` holds (a DDS file's chain, an .astc file's level 0)."""
        data, fam = Path(path).read_bytes(), family(fmt)
        sizes = level_sizes(fmt, width, height, max(width, height).bit_length())
        self.assertEqual((data[:12],) + struct.unpack_from("<9I", data, 12),
                         (KTX2_IDENTIFIER, vk_format(fmt), 1, width, height, 0, 0, 1, len(sizes), 0))
        dfd_offset, dfd_length, kvd_offset, kvd_length = struct.unpack_from("<4I", data, 48)
        edges = [80 + 24 * len(sizes), dfd_offset, dfd_offset + dfd_length]
        edges += [kvd_offset, kvd_offset + kvd_length] if kvd_length else []
        for m in reversed(range(len(sizes))):
            offset, length, uncompressed = struct.unpack_from("<3Q", data, 80 + 24 * m)
            self.assertEqual((length, uncompressed, offset % BLOCK_BYTES[fam]), (sizes[m], sizes[m], 0))
            if sum(sizes[:m + 1]) <= len(levels):
                self.assertEqual(data[offset:offset + length], levels[sum(sizes[:m]):sum(sizes[:m + 1])], f"level {m}")
            edges += [offset, offset + length]
        self.assertEqual((edges, edges[-1], dfd_offset % 4), (sorted(edges), len(data), 0))
        dfd, samples = data[dfd_offset:dfd_offset + dfd_length], {"bc2": 2, "bc3": 2, "bc5": 2}.get(fam, 1)
        model = {"bc1": 128, "bc2": 129, "bc3": 130, "bc4": 131, "bc5": 132, "bc6": 133, "bc7": 134, "astc": 162}[fam]
        # total size, vendor and type, version and block size; model, primaries, transfer; block shape, bytes
        self.assertEqual(struct.unpack_from("<3I", dfd) + tuple(dfd[12:15]) + tuple(dfd[16:21]),
                         (28 + 16 * samples, 0, 2 | (24 + 16 * samples) << 16, model, 1,
                          2 if fmt.startswith("srgb_") else 1, footprint(fmt)[0] - 1, footprint(fmt)[1] - 1, 0, 0,
                          BLOCK_BYTES[fam]))
        self.assertEqual(dfd_length, 28 + 16 * samples)
        if kvd_length:
            self.assertIn(b"KTXwriter\0", data[kvd_offset:kvd_offset + kvd_length])

def main():
    """Runs the calling script's tests with the tool given by --glyptora."""
    global GLYPTORA
    parser = argparse.ArgumentParser()
    parser.add_argument("--glyptora", required=True)
    args, rest = parser.parse_known_args()
    GLYPTORA = os.path.abspath(args.glyptora)
    unittest.main(module="__main__", argv=[sys.argv[0], *rest], verbosity=2)

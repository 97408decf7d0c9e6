#!/usr/bin/env python3
"""End-to-end tests of the glyptora command-line tool for ASTC.

usage: cli_astc.py --glyptora PATH/TO/glyptora [unittest arguments]

Generated images (a photograph-like picture, one with alpha, a normal map, odd sizes down to
1x1) go through `glyptora convert` to every ASTC footprint at the fastest and the normal
quality. The .astc files are decoded by Debian's astcenc (run as a program only), whose PSNR
against the source must equal the one --stats printed from the library's own decoder; the
.astc header and the KTX2 container (whole mip chain, Data Format Descriptor) are parsed.
"""
import argparse, math, os, re, shutil, struct, subprocess, sys, tempfile, unittest
from pathlib import Path

try:
    import numpy as np
    from PIL import Image
except ImportError as missing:  # reported as skipped by CTest
    print(f"skipped: {missing}")
    sys.exit(77)
if not shutil.which("astcenc"):
    print("skipped: astcenc is not installed (apt-get install astcenc)")
    sys.exit(77)

GLYPTORA = None  # set from --glyptora
FOOTPRINTS = [(4, 4), (5, 4), (5, 5), (6, 5), (6, 6), (8, 5), (8, 6), (8, 8), (10, 5), (10, 6), (10, 8), (10, 10),
              (12, 10), (12, 12)]
VK_FORMAT = {fp: 157 + 2 * i for i, fp in enumerate(FOOTPRINTS)}  # unorm; sRGB is one more
KTX2_IDENTIFIER = bytes([0xAB, 0x4B, 0x54, 0x58, 0x20, 0x32, 0x30, 0xBB, 0x0D, 0x0A, 0x1A, 0x0A])
STATS_RE = re.compile(r"stats: level 0 PSNR RGB (inf|[0-9.]+) dB(?:, RGBA (inf|[0-9.]+) dB)?")

def photo_like(width, height, alpha=False, seed=1):
    """Smooth gradients, a hard edge, a soft disc and some noise; with alpha a ramp and a
    fully transparent corner."""
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

def psnr(reference, decoded, channels):
    diff = np.asarray(reference, np.int64)[..., :channels] - np.asarray(decoded, np.int64)[..., :channels]
    mse = float(np.mean(diff ** 2))
    return math.inf if mse == 0 else 10 * math.log10(255.0 ** 2 / mse)

def rgba(pixels):
    return pixels if pixels.shape[2] == 4 else np.dstack([pixels, np.full(pixels.shape[:2], 255, np.uint8)])

def run(*args):
    return subprocess.run([GLYPTORA, *args], capture_output=True, text=True, timeout=300)

class AstcCase(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix="glyptora_cli_astc_")
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

    def astcenc_decode(self, path):
        out = path + ".png"
        result = subprocess.run(["astcenc", "-dl", path, out], capture_output=True, text=True, timeout=60)
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
        with Image.open(out) as opened:
            return np.asarray(opened.convert("RGBA"), np.int64)

    def check_astc_file(self, path, footprint, width, height):
        """16-byte header (magic, block size, 24-bit sizes) and one level of blocks."""
        data = Path(path).read_bytes()
        magic, bw, bh, bd = struct.unpack_from("<I3B", data)
        size = [int.from_bytes(data[7 + 3 * i:10 + 3 * i], "little") for i in range(3)]
        blocks = -(-width // footprint[0]) * -(-height // footprint[1])
        self.assertEqual((magic, bw, bh, bd, size, len(data)), (0x5CA1AB13, *footprint, 1, [width, height, 1],
                                                                 16 + 16 * blocks))
        return data[16:]

class EveryFootprint(AstcCase):
    def test_stats_equal_the_reference_decode(self):
        """Every footprint at both levels on six images: astcenc decodes the .astc file to the
        PSNR --stats printed (RGB, and RGBA for images with alpha); opaque images decode
        opaque; the quality is that of a working encoder."""
        sources = [("photo64x48", photo_like(64, 48, seed=2)), ("alpha37x23", photo_like(37, 23, alpha=True, seed=3)),
                   ("normal30x22", normal_map(30, 22)), ("one1x1", photo_like(1, 1, seed=4)),
                   ("odd13x7", photo_like(13, 7, alpha=True, seed=5)), ("odd37x23", photo_like(37, 23, seed=6))]
        for name, pixels in sources:
            source = self.image(f"{name}.png", pixels)
            height, width = pixels.shape[:2]
            has_alpha = pixels.shape[2] == 4 and bool(np.any(pixels[..., 3] < 255))
            for footprint in FOOTPRINTS:
                for quality in ("fastest", "normal"):
                    fmt = f"astc{footprint[0]}x{footprint[1]}"
                    with self.subTest(image=name, fmt=fmt, quality=quality):
                        out = self.path("o.astc")
                        match = STATS_RE.search(self.convert(source, out, fmt, "-q", quality, "--stats"))
                        self.assertTrue(match, "no stats line")
                        self.check_astc_file(out, footprint, width, height)
                        decoded = self.astcenc_decode(out)
                        value = lambda s: math.inf if s == "inf" else float(s)
                        self.assertAlmostEqual(psnr(rgba(pixels), decoded, 3), value(match.group(1)), delta=0.0015)
                        self.assertEqual(match.group(2) is not None, has_alpha)
                        if has_alpha:
                            self.assertAlmostEqual(psnr(pixels, decoded, 4), value(match.group(2)), delta=0.0015)
                        else:
                            self.assertTrue(np.all(decoded[..., 3] == 255))
                        if name == "photo64x48":  # noise of 0.02 caps it near 37 dB
                            self.assertGreater(value(match.group(1)), 33.5 - 0.8 * FOOTPRINTS.index(footprint))

class Containers(AstcCase):
    def test_ktx2_holds_the_chain_and_the_astc_file_level_0(self):
        """KTX2: format code (sRGB one above unorm), the whole mip chain, level 0 equal to the .astc
        file's blocks, the ASTC Data Format Descriptor with the block size; sRGB words and aliases
        (astc6x6_srgb, ASTC_8X5) reach the summary line."""
        pixels = photo_like(45, 30, seed=8)
        source = self.image("in.png", pixels)
        for footprint, fmt, word, srgb in (((6, 6), "astc6x6_srgb", "srgb_astc_6x6", True),
                                          ((8, 5), "ASTC_8X5", "unorm_astc_8x5", False),
                                          ((4, 4), "unorm_astc_4x4", "unorm_astc_4x4", False)):
            with self.subTest(fmt=fmt):
                ktx2, astc = self.path("o.ktx2"), self.path("o.astc")
                stdout = self.convert(source, ktx2, fmt)
                self.assertIn(f"45x30 PNG, {word}, quality normal, 6 levels", stdout)
                self.convert(source, astc, fmt, "--no-mips")
                blocks = self.check_astc_file(astc, footprint, 45, 30)
                data = Path(ktx2).read_bytes()
                self.assertEqual((data[:12],) + struct.unpack_from("<9I", data, 12),
                                 (KTX2_IDENTIFIER, VK_FORMAT[footprint] + srgb, 1, 45, 30, 0, 0, 1, 6, 0))
                sizes = [-(-max(45 >> m, 1) // footprint[0]) * -(-max(30 >> m, 1) // footprint[1]) * 16
                         for m in range(6)]
                for m, size in enumerate(sizes):
                    offset, length, uncompressed = struct.unpack_from("<3Q", data, 80 + 24 * m)
                    self.assertEqual((length, uncompressed, offset % 16), (size, size, 0))
                    if m == 0:
                        self.assertEqual(data[offset:offset + length], blocks)
                dfd_offset = struct.unpack_from("<I", data, 48)[0]
                model, primaries, transfer = data[dfd_offset + 12:dfd_offset + 15]
                self.assertEqual((model, primaries, transfer, data[dfd_offset + 16], data[dfd_offset + 17]),
                                 (162, 1, 2 if srgb else 1, footprint[0] - 1, footprint[1] - 1))

    def test_astc_container_takes_astc_only(self):
        """A BC format into .astc and an ASTC format into .dds are refused with one line and no file."""
        source = self.image("in.png", photo_like(16, 16))
        for out, fmt in (("o.astc", "bc7"), ("o.dds", "astc6x6")):
            result = run("convert", source, "-o", self.path(out), "-f", fmt)
            self.assertEqual((result.returncode, len(result.stderr.splitlines())), (1, 1), result.stderr)
            self.assertFalse(os.path.exists(self.path(out)))

if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--glyptora", required=True)
    args, rest = parser.parse_known_args()
    GLYPTORA = os.path.abspath(args.glyptora)
    unittest.main(argv=[sys.argv[0], *rest], verbosity=2)

#!/usr/bin/env python3
"""End-to-end tests of the glyptora command-line tool.

usage: cli_roundtrip.py --glyptora PATH/TO/glyptora [unittest arguments]

Generated images go through the tool. What it writes is decoded by the independent decoders of
cli_support.py, and its container headers are parsed. Bad inputs give one error line, exit
status 1 (2 for command-line errors) and no output file.
"""
import os, re, struct
from pathlib import Path

from cli_support import (FORMATS, HDR_FORMATS, STATS_RE, Image, ToolCase, as_rgba, decode, family, level_sizes,
                         main, normal_map, np, photo_like, pillow_bc6, parse_stats, psnr, run, write_exr, write_hdr)

QUALITIES = ["fastest", "normal", "production", "highest"]
HDR_STATS_RE = re.compile(r"stats: level 0 RMSLE RGB ([0-9.]+), PSNR RGB clamped to \[0, 1\] (inf|[0-9.]+)")
channels_of = lambda fmt: {"bc4": 1, "bc5": 2}.get(family(fmt), 3)  # R, RG or RGB (plus RGBA with alpha)

def random_image(width, height, channels, seed):
    return np.random.default_rng(seed).integers(0, 256, (height, width, channels), dtype=np.uint8)

def to_unorm8(values):
    """Float to 8-bit as the library reads float sources: clamp to 0..1, scale, round half up."""
    return np.floor(np.clip(np.nan_to_num(values), 0.0, 1.0) * np.float32(255.0) + np.float32(0.5)).astype(np.int64)

def linear_to_srgb(v):
    v = np.clip(v, 0.0, 1.0)
    return np.where(v <= 0.0031308, v * 12.92, 1.055 * np.power(v, 1 / 2.4) - 0.055)

def encoder_reference(fmt, rgba):
    """Pixels as the encoder sees them: signed formats map an unsigned byte u to u - 128 (0 to -127)."""
    ref = np.asarray(rgba, np.int64)
    return np.where(ref == 0, -127, ref - 128) if fmt.startswith("snorm_") else ref

class RoundTrip(ToolCase):
    def level(self, path, fmt, width, height, m):
        """Level m of a DDS file holding the full chain, decoded."""
        sizes = level_sizes(fmt, width, height, m + 1)
        data = self.check_dds(path, fmt, width, height)[sum(sizes[:m]):sum(sizes)]
        return decode(fmt, data, max(width >> m, 1), max(height >> m, 1))

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
    main()

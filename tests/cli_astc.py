#!/usr/bin/env python3
"""End-to-end tests of the glyptora command-line tool for ASTC.

usage: cli_astc.py --glyptora PATH/TO/glyptora [unittest arguments]

Generated images (a photograph-like picture, one with alpha, a normal map, odd sizes down to
1x1) go through `glyptora convert` to every ASTC footprint at the fastest and the normal
quality. The .astc files are decoded by Debian's astcenc (run as a program only), whose PSNR
against the source must equal the one --stats printed from the library's own decoder; the
.astc header and the KTX2 container (whole mip chain, Data Format Descriptor) are parsed.
"""
import os, shutil, struct, sys
from pathlib import Path

from cli_support import (ASTC_FOOTPRINTS, ToolCase, as_rgba, astcenc_decode, footprint, main, normal_map, np,
                         parse_stats, photo_like, psnr, run)

if not shutil.which("astcenc"):
    print("skipped: astcenc is not installed (apt-get install astcenc)")
    sys.exit(77)

class AstcCase(ToolCase):
    def check_astc_file(self, path, fp, width, height):
        """16-byte header (magic, block size, 24-bit sizes) and one level of blocks."""
        data = Path(path).read_bytes()
        magic, bw, bh, bd = struct.unpack_from("<I3B", data)
        size = [int.from_bytes(data[7 + 3 * i:10 + 3 * i], "little") for i in range(3)]
        blocks = -(-width // fp[0]) * -(-height // fp[1])
        self.assertEqual((magic, bw, bh, bd, size, len(data)),
                         (0x5CA1AB13, *fp, 1, [width, height, 1], 16 + 16 * blocks))
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
            for fp in ASTC_FOOTPRINTS:
                for quality in ("fastest", "normal"):
                    fmt = f"astc{fp[0]}x{fp[1]}"
                    with self.subTest(image=name, fmt=fmt, quality=quality):
                        out = self.path("o.astc")
                        label, rgb, rgba = parse_stats(self.convert(source, out, fmt, "-q", quality, "--stats"))
                        self.check_astc_file(out, fp, width, height)
                        decoded = astcenc_decode(out)
                        self.assertEqual((label, rgba is not None), ("RGB", has_alpha))
                        self.assertAlmostEqual(psnr(as_rgba(pixels), decoded, 3), rgb, delta=0.0015)
                        if has_alpha:
                            self.assertAlmostEqual(psnr(pixels, decoded, 4), rgba, delta=0.0015)
                        else:
                            self.assertTrue(np.all(decoded[..., 3] == 255))
                        if name == "photo64x48":  # noise of 0.02 caps it near 37 dB
                            self.assertGreater(rgb, 33.5 - 0.8 * ASTC_FOOTPRINTS.index(fp))

class Containers(AstcCase):
    def test_ktx2_holds_the_chain_and_the_astc_file_level_0(self):
        """KTX2: format code (sRGB one above unorm), the whole mip chain, level 0 equal to the .astc
        file's blocks, the ASTC Data Format Descriptor with the block size; sRGB words and aliases
        (astc6x6_srgb, ASTC_8X5) reach the summary line."""
        pixels = photo_like(45, 30, seed=8)
        source = self.image("in.png", pixels)
        for fmt, word in (("astc6x6_srgb", "srgb_astc_6x6"), ("ASTC_8X5", "unorm_astc_8x5"),
                          ("unorm_astc_4x4", "unorm_astc_4x4")):
            with self.subTest(fmt=fmt):
                ktx2, astc = self.path("o.ktx2"), self.path("o.astc")
                stdout = self.convert(source, ktx2, fmt)
                self.assertIn(f"45x30 PNG, {word}, quality normal, 6 levels", stdout)
                self.convert(source, astc, fmt, "--no-mips")
                blocks = self.check_astc_file(astc, footprint(word), 45, 30)
                self.check_ktx2(ktx2, word, 45, 30, blocks)

    def test_astc_container_takes_astc_only(self):
        """A BC format into .astc and an ASTC format into .dds are refused with one line and no file."""
        source = self.image("in.png", photo_like(16, 16))
        for out, fmt in (("o.astc", "bc7"), ("o.dds", "astc6x6")):
            self.assertRefused(run("convert", source, "-o", self.path(out), "-f", fmt))
            self.assertFalse(os.path.exists(self.path(out)))

if __name__ == "__main__":
    main()

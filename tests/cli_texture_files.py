#!/usr/bin/env python3
"""End-to-end tests of `glyptora decompress`, `glyptora info`, arrays and cube maps, normal maps,
alpha treatments and Zstandard KTX2 files.

usage: cli_texture_files.py --glyptora PATH/TO/glyptora [unittest arguments]

Decoded images are checked against the independent decoders of cli_support.py (Pillow and the
interpolated-block decoder for BC, Debian's astcenc for ASTC); array and cube map files are
parsed here from the published DDS and KTX2 layouts, each slice compared with the same image
converted on its own; Zstandard levels are inflated with python3-zstandard.
"""
import os, shutil, struct, sys
from pathlib import Path

from cli_support import (BLOCK_BYTES, FORMATS, Image, ToolCase, astcenc_decode, decode, family, level_sizes, main, np,
                         photo_like, pillow_bc6, psnr, run, write_exr)

try:
    import zstandard
except ImportError as missing:
    print(f"skipped: {missing} (apt-get install python3-zstandard)")
    sys.exit(77)

FACES = ["px", "nx", "py", "ny", "pz", "nz"]

def read_png(path):
    with Image.open(path) as opened:
        assert opened.mode == "RGBA", opened.mode
        return np.asarray(opened, np.int64)

def parse_dds(data):
    """Header fields and the blocks of each slice and level, from the DDS layout: slice after
    slice (cube faces within a layer), each with its whole chain."""
    height, width, _, _, levels = struct.unpack_from("<5I", data, 12)
    caps, caps2 = struct.unpack_from("<2I", data, 108)
    fourcc, fields = data[84:88], {"width": width, "height": height, "levels": max(levels, 1), "caps2": caps2,
                                   "caps": caps}
    start, layers, faces = 128, 1, 6 if caps2 & 0x200 else 1
    if fourcc == b"DX10":
        dxgi, dimension, misc, layers, alpha = struct.unpack_from("<5I", data, 128)
        fields.update(dxgi=dxgi, dimension=dimension, misc=misc, array_size=layers, alpha_mode=alpha)
        start, faces = 148, 6 if misc & 4 else 1
    fields.update(fourcc=fourcc, layers=layers, faces=faces, start=start)
    return fields

def dds_slices(data, fmt):
    f = parse_dds(data)
    sizes, at, slices = level_sizes(fmt, f["width"], f["height"], f["levels"]), f["start"], []
    for _ in range(f["layers"] * f["faces"]):
        slices.append([data[at + sum(sizes[:m]):at + sum(sizes[:m + 1])] for m in range(len(sizes))])
        at += sum(sizes)
    assert at == len(data), (at, len(data))
    return f, slices

def parse_ktx2(data, fmt):
    """Header, level index and each level's slices (layer after layer, face after face), levels
    inflated when supercompressed; checks the index order (smallest level first in the file)."""
    names = ["vk_format", "type_size", "width", "height", "depth", "layers", "faces", "levels", "scheme"]
    f = dict(zip(names, struct.unpack_from("<9I", data, 12)))
    f["dfd_offset"], f["dfd_length"] = struct.unpack_from("<2I", data, 48)
    slices, sizes = max(f["layers"], 1) * f["faces"], level_sizes(fmt, f["width"], f["height"], f["levels"])
    index = [struct.unpack_from("<3Q", data, 80 + 24 * m) for m in range(f["levels"])]
    offsets = [offset for offset, _, _ in index]
    assert offsets == sorted(offsets, reverse=True) and offsets[0] + index[0][1] == len(data), index
    levels = []
    for m, (offset, length, uncompressed) in enumerate(index):
        stored = data[offset:offset + length]
        level = zstandard.ZstdDecompressor().decompress(stored) if f["scheme"] == 2 else stored
        assert uncompressed == len(level) == sizes[m] * slices, (m, uncompressed, len(level))
        assert f["scheme"] == 2 or offset % BLOCK_BYTES[family(fmt)] == 0
        levels.append([level[s * sizes[m]:(s + 1) * sizes[m]] for s in range(slices)])
    f["index"] = index
    return f, [[levels[m][s] for m in range(f["levels"])] for s in range(slices)]

def info(path):
    result = run("info", path)
    assert result.returncode == 0, result.stderr
    return dict(line.split(": ", 1) for line in result.stdout.splitlines() if not line.startswith("level "))

class TextureFiles(ToolCase):
    def decompress(self, source, output, *extra):
        result = run("decompress", source, "-o", output, *extra)
        self.assertEqual((result.returncode, result.stderr), (0, ""), result.stdout)
        return result.stdout

    def test_decompress_against_independent_decoders(self):
        """Every level of every BC format (odd size, alpha) decompressed to PNG equals the reference
        decode; BC6H to PNG is Pillow's clamped decode; ASTC from .astc and KTX2 equals astcenc -dl;
        --level picks one level."""
        pixels = photo_like(13, 7, alpha=True, seed=21)
        source = self.image("in.png", pixels)
        for fmt in [f for f in FORMATS if f in self.available]:
            with self.subTest(fmt=fmt):
                dds = self.path(f"{fmt}.dds")
                self.convert(source, dds, fmt)
                f, (chain,) = dds_slices(Path(dds).read_bytes(), fmt)
                self.decompress(dds, self.path(f"{fmt}.png"))
                channels = {"bc4": [0], "bc5": [0, 1]}.get(family(fmt), [0, 1, 2, 3])
                shift = 128 if fmt.startswith("snorm_") else 0
                for m, blocks in enumerate(chain):
                    width, height = max(13 >> m, 1), max(7 >> m, 1)
                    ours = read_png(self.path(f"{fmt}_mip{m}.png"))
                    self.assertEqual(ours.shape, (height, width, 4))
                    reference = decode(fmt, blocks, width, height)
                    self.assertTrue(np.array_equal(ours[..., channels], reference[..., channels] + shift), f"level {m}")
        # BC6H: Pillow clamps to 0..1 and rounds down; we round to nearest.
        write_exr(self.path("in.exr"), np.dstack([photo_like(12, 8).astype(np.float32) / 200.0,
                                                      np.ones((8, 12), np.float32)]))
        self.convert(self.path("in.exr"), self.path("h.dds"), "bc6h", "--no-mips")
        _, ((blocks,),) = dds_slices(Path(self.path("h.dds")).read_bytes(), "ufloat_bc6")
        self.decompress(self.path("h.dds"), self.path("h.png"))
        difference = read_png(self.path("h.png"))[..., :3] - pillow_bc6(blocks, 12, 8, False)
        self.assertTrue(np.all((difference >= 0) & (difference <= 1)))
        # ASTC: .astc and the KTX2 chain's level 0 against astcenc.
        for footprint in ("4x4", "6x5", "12x12"):
            fmt = f"unorm_astc_{footprint}"
            if fmt not in self.available or not shutil.which("astcenc"):
                continue
            with self.subTest(fmt=fmt):
                astc, ktx2 = self.path(f"{footprint}.astc"), self.path(f"{footprint}.ktx2")
                self.convert(source, astc, fmt, "-q", "fastest")
                self.convert(source, ktx2, fmt, "-q", "fastest")
                self.decompress(astc, self.path(f"a{footprint}.png"))
                self.decompress(ktx2, self.path(f"k{footprint}.png"), "--level", "0")
                expected = astcenc_decode(astc)
                for ours in (f"a{footprint}.png", f"k{footprint}.png"):
                    self.assertTrue(np.array_equal(read_png(self.path(ours)), expected), ours)

    def test_arrays_and_cube_maps(self):
        """DDS (DX10 array size, cube flag, cube count) and KTX2 (layers, faces) arrays, cube maps
        and cube map arrays: headers parsed here agree with `info`, and every slice's chain equals
        the same input converted alone; decompress names each layer and face, --strip joins them."""
        inputs = [self.image(f"s{i}.png", photo_like(16, 16, seed=30 + i)) for i in range(12)]
        singles = {}
        for fmt in ("unorm_bc1", "unorm_bc7"):
            for i, source in enumerate(inputs):
                self.convert(source, self.path(f"single{i}.dds"), fmt)
                singles[fmt, i] = dds_slices(Path(self.path(f"single{i}.dds")).read_bytes(), fmt)[1][0]
        cases = [(["--array"], 3, 3, 1), (["--cubemap"], 6, 1, 6), (["--array", "--cubemap"], 12, 2, 6),
                 (["--array"], 1, 1, 1)]
        for fmt in ("unorm_bc1", "unorm_bc7"):
            for options, count, layers, faces in cases:
                for ext in ("dds", "ktx2"):
                    with self.subTest(fmt=fmt, options=options, count=count, ext=ext):
                        out = self.path(f"t.{ext}")
                        self.convert(inputs[:count], out, fmt, *options)
                        data = Path(out).read_bytes()
                        if ext == "dds":
                            f, slices = dds_slices(data, fmt)
                            self.assertEqual((f["fourcc"], f["dxgi"], f["dimension"], f["array_size"], f["misc"]),
                                             (b"DX10", FORMATS[fmt][0], 3, layers, 4 if faces == 6 else 0))
                            self.assertEqual(f["caps2"], 0xFE00 if faces == 6 else 0)
                        else:
                            f, slices = parse_ktx2(data, fmt)
                            self.assertEqual((f["vk_format"], f["depth"], f["layers"], f["faces"], f["scheme"]),
                                             (FORMATS[fmt][1], 0, layers if "--array" in options else 0, faces, 0))
                        self.assertEqual((f["width"], f["height"], f["levels"]), (16, 16, 5))
                        self.assertEqual(len(slices), count)
                        for i, chain in enumerate(slices):
                            self.assertEqual(chain, singles[fmt, i], f"slice {i}")
                        shown = info(out)
                        self.assertEqual((shown["container"], shown["format"], shown["size"], shown["levels"],
                                          shown["faces"].split()[0], shown["supercompression"],
                                          shown["size on disk"]),
                                         (ext.upper(), fmt, "16x16", "5", str(faces), "none", f"{len(data)} bytes"))
                        array = "--array" in options and (ext == "ktx2" or layers > 1)  # DDS: arrays of one look plain
                        self.assertEqual(shown["layers"], f"{layers} (array)" if array else "1")
        # Names of decompressed slices, and the strip of one level.
        self.convert(inputs, self.path("ca.ktx2"), "bc1", "--array", "--cubemap")
        os.mkdir(self.path("d"))
        self.decompress(self.path("ca.ktx2"), self.path("d/x.png"), "--level", "1")
        self.assertEqual(sorted(os.listdir(self.path("d"))), sorted(f"x_layer{l}_{face}.png" for l in (0, 1) for face in FACES))
        self.convert(inputs[3], self.path("single3.dds"), "bc1")
        self.decompress(self.path("single3.dds"), self.path("one.png"), "--level", "1")
        self.assertTrue(np.array_equal(read_png(self.path("d/x_layer0_ny.png")), read_png(self.path("one.png"))))
        self.decompress(self.path("ca.ktx2"), self.path("strip.png"), "--level", "1", "--strip")
        strip = read_png(self.path("strip.png"))
        self.assertEqual(strip.shape, (8, 96, 4))
        self.assertTrue(np.array_equal(strip[:, 24:32], read_png(self.path("one.png"))))

    def test_zstd_ktx2(self):
        """--zstd stores every level as one Zstandard frame (scheme 2, no alignment, DFD bytesPlane0 0)
        whose content equals the plain file's level byte for byte; info and decompress read it."""
        inputs = [self.image(f"s{i}.png", photo_like(24, 24, alpha=True, seed=50 + i)) for i in range(6)]
        for options in ([], ["--cubemap"]):
            with self.subTest(options=options):
                sources = inputs if options else inputs[:1]
                plain, packed = self.path("plain.ktx2"), self.path("packed.ktx2")
                for out, extra in ((plain, []), (packed, ["--zstd", "19"])):
                    self.convert(sources, out, "bc7", *options, *extra)
                p, plain_slices = parse_ktx2(Path(plain).read_bytes(), "unorm_bc7")
                z, packed_slices = parse_ktx2(Path(packed).read_bytes(), "unorm_bc7")
                self.assertEqual((p["scheme"], z["scheme"]), (0, 2))
                self.assertEqual(packed_slices, plain_slices)
                data = Path(packed).read_bytes()
                for offset, length, _ in z["index"]:
                    self.assertEqual(data[offset:offset + 4], b"\x28\xb5\x2f\xfd")  # one frame a level
                self.assertEqual(data[z["dfd_offset"] + 20], 0)
                self.assertEqual(info(packed)["supercompression"], "Zstandard")
                self.decompress(plain, self.path("p.png"), "--strip")
                self.decompress(packed, self.path("z.png"), "--strip")
                for m in range(5):
                    self.assertTrue(np.array_equal(read_png(self.path(f"p_mip{m}.png")),
                                                   read_png(self.path(f"z_mip{m}.png"))))

    def test_normal_map_renormalised(self):
        """BC5 with --normal-map: on every level each decoded texel's X and Y, with the Z rebuilt from
        them, are within 0.08 of the normalised mean of the level-0 normals the texel covers;
        without the option the shortened vectors of the smaller levels are well off."""
        y, x = np.mgrid[0:32, 0:32]  # a fine checker of X tilts over a smooth Y slope: averages shorten
        normals = np.dstack([np.where((x + y) % 2, 0.7, -0.7), 0.5 * np.sin(x / 5.0) * np.cos(y / 7.0),
                             np.full((32, 32), 0.6)])
        pixels = np.rint((normals / np.linalg.norm(normals, axis=-1, keepdims=True) + 1.0) * 127.5).astype(np.uint8)
        source = self.image("n.png", pixels)
        normals = pixels.astype(np.float64) / 127.5 - 1.0
        worst = {}
        for extra in (["--normal-map"], []):
            self.convert(source, self.path("n.dds"), "bc5", *extra)
            _, (chain,) = dds_slices(Path(self.path("n.dds")).read_bytes(), "unorm_bc5")
            worst[bool(extra)] = 0.0
            for m, blocks in enumerate(chain):
                size = 32 >> m
                decoded = decode("unorm_bc5", blocks, size, size)[..., :2] / 127.5 - 1.0
                self.assertLessEqual(np.max(np.sum(decoded ** 2, axis=-1)), 1.03 if extra else 2.0)
                z = np.sqrt(np.clip(1.0 - np.sum(decoded ** 2, axis=-1), 0.0, 1.0))
                mean = normals.reshape(size, 32 // size, size, 32 // size, 3).mean(axis=(1, 3))
                expected = mean / np.linalg.norm(mean, axis=-1, keepdims=True)
                error = np.abs(np.dstack([decoded, z]) - expected).max()
                worst[bool(extra)] = max(worst[bool(extra)], float(error))
        self.assertLess(worst[True], 0.08)
        self.assertGreater(worst[False], 0.15)

    def test_alpha_coverage_and_premultiply(self):
        """--alpha-coverage 0.5 keeps the fraction of decoded BC3 alpha above one half within 0.025
        of level 0's on every level of 8x8 texels or more (without it, it drifts); --premultiply
        stores colour times alpha and marks the file premultiplied (DDS alpha mode, KTX2 DFD)."""
        y, x = np.mgrid[0:64, 0:64]
        leaves = np.sin(x / 2.3) * np.cos(y / 3.1) + 0.35 * np.sin((x + 2 * y) / 1.7)  # thin soft-edged blobs
        alpha = np.clip(128 + (leaves - 0.55) * 500, 0, 255).astype(np.uint8)
        source = self.image("leaves.png", np.dstack([photo_like(64, 64, seed=60), alpha]))
        drift = {}
        for extra in (["--alpha-coverage", "0.5"], []):
            self.convert(source, self.path("a.dds"), "bc3", *extra)
            _, (chain,) = dds_slices(Path(self.path("a.dds")).read_bytes(), "unorm_bc3")
            coverage = [np.mean(decode("unorm_bc3", blocks, 64 >> m, 64 >> m)[..., 3] > 127.5)
                        for m, blocks in enumerate(chain) if (64 >> m) >= 8]
            drift[bool(extra)] = max(abs(c - coverage[0]) for c in coverage)
        self.assertLess(drift[True], 0.025)
        self.assertGreater(drift[False], 0.1)

        pixels = photo_like(16, 16, alpha=True, seed=61)
        source = self.image("p.png", pixels)
        premultiplied = np.dstack([np.rint(pixels[..., :3] * (pixels[..., 3:] / 255.0)), pixels[..., 3]])
        for ext in ("dds", "ktx2"):
            out = self.path(f"p.{ext}")
            self.convert(source, out, "bc3", "--premultiply", "--no-mips")
            self.assertEqual(info(out)["alpha"], "premultiplied")
            self.decompress(out, self.path(f"p_{ext}.png"))
            decoded = read_png(self.path(f"p_{ext}.png"))
            self.assertGreater(psnr(premultiplied, decoded, 4), 25)
            self.assertLess(psnr(pixels, decoded, 4), 15)
        self.assertEqual(parse_dds(Path(self.path("p.dds")).read_bytes())["alpha_mode"], 2)
        self.convert(source, self.path("s.dds"), "bc3")
        self.assertEqual(info(self.path("s.dds"))["alpha"], "straight")

    def test_bad_inputs(self):
        """Wrong cube face counts, inputs of different sizes or kinds, non-square faces, corrupt and
        truncated containers, a missing level: one error line, status 1 (2 for command lines), no output."""
        a, b = self.image("a.png", photo_like(16, 16)), self.image("b.png", photo_like(8, 16))
        self.convert(a, self.path("good.ktx2"), "bc1", "--zstd", "3")
        self.convert(a, self.path("good.dds"), "bc1")
        good_ktx2, good_dds = Path(self.path("good.ktx2")).read_bytes(), Path(self.path("good.dds")).read_bytes()
        offset, length, _ = struct.unpack_from("<3Q", good_ktx2, 80)
        corrupt = {"garbage.dds": b"definitely not a texture" * 4, "cut.dds": good_dds[:200],
                   "fourcc.dds": good_dds[:84] + b"XYZW" + good_dds[88:],
                   "zstd.ktx2": good_ktx2[:offset + 4] + bytes(length - 4) + good_ktx2[offset + length:],
                   "index.ktx2": good_ktx2[:80] + struct.pack("<Q", len(good_ktx2)) + good_ktx2[88:],
                   "empty.ktx2": b""}
        for name, data in corrupt.items():
            Path(self.path(name)).write_bytes(data)
        before = sorted(os.listdir(self.dir))
        out = self.path("out.dds")
        cases = [(["convert", a, a, a, a, a, "--cubemap", "-o", out, "-f", "bc1"], 2, "six inputs"),
                 (["convert", a, b, "--array", "-o", out, "-f", "bc1"], 1, "is 8x16"),
                 (["convert", b, b, b, b, b, b, "--cubemap", "-o", out, "-f", "bc1"], 1, "square"),
                 (["convert", a, a, "--array", "--output-dir", self.dir, "-f", "bc1"], 2, "-o OUTPUT"),
                 (["convert", a, "-o", out, "-f", "bc1", "--zstd", "5"], 2, ".ktx2"),
                 (["convert", a, "-o", self.path("o.ktx2"), "-f", "bc1", "--zstd", "99"], 2, "99"),
                 (["convert", a, "-o", out, "-f", "bc1", "--alpha-coverage", "2"], 2, "between 0 and 1"),
                 (["convert", a, "-o", out, "-f", "bc1_srgb", "--normal-map"], 2, "linear"),
                 (["decompress", self.path("good.dds"), "-o", self.path("x.png"), "--level", "5"], 1, "no level 5"),
                 (["decompress", self.path("good.dds"), "-o", self.path("x.jpg")], 1, "x.jpg"),
                 (["info", self.path("missing.dds")], 1, "missing.dds")]
        for name in corrupt:
            cases += [(["info", self.path(name)], 1, name),
                      (["decompress", self.path(name), "-o", self.path("x.png")], 1, name)]
        for args, status, mention in cases:
            with self.subTest(args=args[:3]):
                self.assertRefused(run(*args), status, mention)
        self.assertEqual(sorted(os.listdir(self.dir)), before)

if __name__ == "__main__":
    main()

"""The package against the glyptora command (byte for byte) and Pillow (decoded pixels)."""
import os

import numpy as np
import pytest
from PIL import Image

import glyptora
from cli_support import photo_like, write_exr, write_hdr

W, H = 37, 21  # odd sizes: partial blocks, uneven area averages down the chain


def source_image(folder, kind):
    """(pixels as handed to the package, image file the command reads)."""
    path = folder / ("source.exr" if kind == "exr" else "source.hdr" if kind == "hdr" else "source.png")
    if kind == "exr":
        rgb = photo_like(W, H).astype(np.float32) / 64.0  # up to about 4: HDR values
        pixels = np.dstack([rgb, np.full((H, W), 0.5, np.float32)])
        write_exr(path, pixels)
    elif kind == "hdr":
        pixels = write_hdr(path, photo_like(W, H).astype(np.float32) / 32.0)  # HxWx3: alpha 1 is added
    else:
        pixels = photo_like(W, H, alpha=kind == "rgba")
        pixels = pixels[:, :, 0] if kind == "grey" else pixels
        Image.fromarray(pixels).save(path)
    return pixels, path


@pytest.mark.parametrize("kind, fmt, container, options", [
    ("rgba", "bc1", "dds", {}),                                    # one-bit alpha
    ("rgba", "bc3", "dds", {"perceptual": True, "quality": 0}),
    ("rgb", "bc7_srgb", "ktx2", {"quality": "fastest"}),           # chain averaged in linear light
    ("grey", "bc4", "dds", {"mips": False}),
    ("rgba", "astc6x6", "ktx2", {}),
    ("hdr", "bc6h", "dds", {}),
    ("exr", "bc6hs", "ktx2", {"quality": "fastest"}),
    ("exr", "srgb_bc7", "dds", {"quality": "fastest"}),             # float chain encoded to sRGB
])
def test_files_equal_the_command_output(tmp_path, command, kind, fmt, container, options):
    pixels, source = source_image(tmp_path, kind)
    flags = [f"--quality={options['quality']}"] if "quality" in options else []
    flags += ["--no-mips"] * (options.get("mips") is False) + ["--perceptual"] * bool(options.get("perceptual"))
    expected_path = tmp_path / f"command.{container}"
    command("convert", source, "-o", expected_path, "-f", fmt, *flags)
    ours = tmp_path / f"package.{container}"
    (glyptora.save_dds if container == "dds" else glyptora.save_ktx2)(ours, pixels, fmt, **options)
    expected = expected_path.read_bytes()
    assert ours.read_bytes() == expected
    if container == "dds":  # header, then the blocks of every level
        assert expected.endswith(glyptora.compress(pixels, fmt, **options))


@pytest.mark.parametrize("fmt", ["bc1", "bc7", "bc7_srgb"])
def test_decompress_equals_pillow(tmp_path, fmt):
    pixels = photo_like(30, 22, alpha=True, seed=3)
    glyptora.save_dds(tmp_path / "t.dds", pixels, fmt, mips=False)
    with Image.open(tmp_path / "t.dds") as opened:
        reference = np.asarray(opened.convert("RGBA"))
    decoded = glyptora.decompress(glyptora.compress(pixels, fmt, mips=False), fmt, 30, 22)
    assert decoded.dtype == np.uint8 and decoded.shape == (22, 30, 4)
    np.testing.assert_array_equal(decoded, reference)


def test_decompress_levels_and_value_types():
    flat = np.full((12, 20, 4), (200, 100, 50, 255), np.uint8)  # every level decodes to one colour
    blocks = glyptora.compress(flat, "bc7")
    for level, shape in enumerate([(12, 20), (6, 10), (3, 5), (1, 2), (1, 1)]):
        decoded = glyptora.decompress(blocks, "bc7", 20, 12, level=level)
        assert decoded.shape == shape + (4,)
        assert (np.abs(decoded.astype(int) - (200, 100, 50, 255)) <= 1).all(), level
    hdr = np.array([[0.25, 2.0], [16.0, 100.0]], np.float32).repeat(4, 0).repeat(4, 1)[:, :, None].repeat(3, 2)
    decoded = glyptora.decompress(glyptora.compress(hdr, "bc6h", mips=False), "bc6h", 8, 8)
    assert decoded.dtype == np.float32 and np.allclose(decoded, np.dstack([hdr, np.ones((8, 8))]), rtol=0.02)
    signed = glyptora.decompress(glyptora.compress(flat, "bc4s", mips=False), "bc4s", 20, 12)
    assert signed.dtype == np.int8 and (signed[:, :, 0] == 72).all()  # 8-bit 200 stored as 200 - 128


def test_errors(tmp_path):
    image = np.zeros((8, 8, 4), np.uint8)
    with pytest.raises(ValueError, match="unknown format 'bc99'"):
        glyptora.compress(image, "bc99")
    with pytest.raises(ValueError, match="unknown quality 'best'"):
        glyptora.compress(image, "bc1", quality="best")
    with pytest.raises(ValueError, match="shape"):
        glyptora.compress(np.zeros((8, 8, 5), np.uint8), "bc1")
    with pytest.raises(TypeError, match="uint16"):
        glyptora.compress(np.zeros((8, 8, 4), np.uint16), "bc1")
    with pytest.raises(ValueError, match="needed"):
        glyptora.decompress(bytes(8), "bc7", 8, 8)
    with pytest.raises(glyptora.GlyptoraError, match="not .dds"):
        glyptora.save_dds(tmp_path / "a.dds", image, "astc6x6")
    with pytest.raises(glyptora.GlyptoraError, match="cannot write output"):
        glyptora.save_dds(tmp_path / "missing" / "a.dds", image, "bc1")
    assert os.listdir(tmp_path) == []  # nothing half-written
    if not glyptora.gpu_available():  # the library's own reason, from its standard error
        with pytest.raises(glyptora.GlyptoraError, match="no usable CUDA GPU"):
            glyptora.compress(image, "bc7", gpu=True)

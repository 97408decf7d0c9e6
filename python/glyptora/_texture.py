"""Compression, decompression and texture files from numpy arrays, through libglyptora and the
command's own level chain, containers and block decoders (libglyptora_tools)."""
import ctypes
import os

import numpy as np

from ._native import Format, GlyptoraError, call_capturing_errors, libraries

_FLAG_GPU = 0x10
_FLAG_GPU_FALLBACK = 0x40


def _format(name):
    info = Format()
    if not isinstance(name, str) or not libraries()[1].glyptora_tools_find_format(name.encode(), ctypes.byref(info)):
        raise ValueError(f"unknown format {name!r} (a library word such as 'unorm_bc7' or an alias such as "
                         "'bc7', 'bc6h', 'astc6x6'; `glyptora formats` lists them)")
    if info.unavailable:
        raise ValueError(f"format {name!r} ({info.word.decode()}) is not available: {info.unavailable.decode()}")
    return info


def _quality(quality):
    level = libraries()[1].glyptora_tools_parse_quality(str(quality).encode())
    if level < 0:
        raise ValueError(f"unknown quality {quality!r} (fastest, normal, production, highest or 0-3)")
    return level


def _rgba(array):
    """Four-channel pixels as the command loads them: grey becomes (g, g, g), a missing alpha
    full coverage. uint8 stays 8-bit; float arrays become float32 (linear HDR)."""
    pixels = np.asarray(array)
    if pixels.ndim == 2:
        pixels = pixels[:, :, None]
    if pixels.ndim != 3 or pixels.shape[2] not in (1, 2, 3, 4) or 0 in pixels.shape:
        raise ValueError(f"expected an HxW, HxWx2, HxWx3 or HxWx4 image, got shape {pixels.shape}")
    if pixels.dtype == np.uint8:
        opaque = 255
    elif pixels.dtype.kind == "f":
        pixels, opaque = pixels.astype(np.float32, copy=False), 1.0
    else:
        raise TypeError(f"expected uint8 (8-bit) or float (HDR) pixels, got {pixels.dtype}")
    colour, alpha = (pixels[:, :, :1], pixels[:, :, 1:]) if pixels.shape[2] <= 2 else (pixels[:, :, :3],
                                                                                      pixels[:, :, 3:])
    if colour.shape[2] == 1:
        colour = np.repeat(colour, 3, axis=2)
    if alpha.shape[2] == 0:
        alpha = np.full(pixels.shape[:2] + (1,), opaque, pixels.dtype)
    return np.ascontiguousarray(np.concatenate([colour, alpha], axis=2))


def _encode(array, format, quality, mips, perceptual, gpu, gpu_fallback):
    """(format, width, height, levels, blocks of every level)."""
    main, tools = libraries()
    fmt, level, pixels = _format(format), _quality(quality), _rgba(array)
    height, width = pixels.shape[:2]
    is_float = pixels.dtype == np.float32
    side = tools.glyptora_tools_max_image_side()
    if width > side or height > side:
        raise ValueError(f"image is {width}x{height}; at most {side} pixels a side are accepted")
    levels = tools.glyptora_tools_full_level_count(width, height) if mips else 1
    source_bytes = tools.glyptora_tools_source_bytes(width, height, levels, is_float)
    if source_bytes > tools.glyptora_tools_max_source_bytes():
        raise ValueError(f"image is {width}x{height}; its level chain would take more than "
                         f"{tools.glyptora_tools_max_source_bytes() >> 20} MiB")
    chain = np.empty(source_bytes, np.uint8)
    if not tools.glyptora_tools_build_chain(pixels.ctypes.data, is_float, width, height, levels, fmt.is_srgb,
                                            chain.ctypes.data):
        raise MemoryError(f"out of memory building the levels of a {width}x{height} image")
    blocks = ctypes.create_string_buffer(tools.glyptora_tools_texture_bytes(fmt.word, width, height, levels))
    word = fmt.word.decode()
    source = "float_32_32_32_32" if is_float else ("srgb_8_8_8_8" if fmt.is_srgb else "unorm_8_8_8_8")
    options = tools.glyptora_tools_quality_word(level).decode() + (" perceptual" if perceptual else "")
    flags = (_FLAG_GPU if gpu or gpu_fallback else 0) | (_FLAG_GPU_FALLBACK if gpu_fallback else 0)
    ok, reason = call_capturing_errors(main.GlyptoraConvert, blocks, chain.ctypes.data, word, source, options, flags,
                                       0, width, height, 1, levels)
    if not ok:
        raise GlyptoraError(reason or f"the library could not convert the image to {word}")
    return fmt, width, height, levels, blocks.raw


def compress(array, format, quality="normal", mips=True, perceptual=False, gpu=False, gpu_fallback=False):
    """Compresses an image to the blocks of every level (level 0 first), as `glyptora convert`
    does. `array`: HxW, HxWx2, HxWx3 or HxWx4 pixels, uint8 or float (HDR, for BC6H).
    `format`: a library word ("srgb_bc7") or alias ("bc7_srgb", "astc6x6"). `quality`:
    "fastest", "normal", "production", "highest" or 0-3. `mips`: the full chain down to 1x1,
    each level an area average of the one before (in linear light for sRGB formats), else level
    0 only. `gpu` encodes on a CUDA GPU (GlyptoraError without one), `gpu_fallback` too but
    on the CPU when there is none."""
    return _encode(array, format, quality, mips, perceptual, gpu, gpu_fallback)[4]


def _save(path, container, array, format, options):
    fmt, width, height, levels, blocks = _encode(array, format, **options)
    error = ctypes.create_string_buffer(512)
    if not libraries()[1].glyptora_tools_write_texture(os.fsencode(path), container.encode(), fmt.word, width, height,
                                                       levels, blocks, error, len(error)):
        raise GlyptoraError(f"{os.fspath(path)}: {error.value.decode('utf-8', 'replace')}")


def save_dds(path, array, format, quality="normal", mips=True, perceptual=False, gpu=False, gpu_fallback=False):
    """Compresses like `compress` and writes a DDS file equal byte for byte to what
    `glyptora convert` writes for the same pixels and options. The file is written
    all-or-nothing (a temporary file renamed over `path`)."""
    _save(path, "dds", array, format, dict(quality=quality, mips=mips, perceptual=perceptual, gpu=gpu,
                                           gpu_fallback=gpu_fallback))


def save_ktx2(path, array, format, quality="normal", mips=True, perceptual=False, gpu=False, gpu_fallback=False):
    """As `save_dds`, for a KTX 2.0 file."""
    _save(path, "ktx2", array, format, dict(quality=quality, mips=mips, perceptual=perceptual, gpu=gpu,
                                            gpu_fallback=gpu_fallback))


def decompress(data, format, width, height, level=0):
    """Decodes level `level` of `data` (the blocks of every level of a `width` x `height`
    texture, level 0 first, as `compress` returns them; or of that one level when `level` is 0
    and data holds only it) with the library's block decoders. Returns HxWx4 uint8 pixels,
    int8 for the signed formats, float32 for BC6H."""
    tools = libraries()[1]
    fmt = _format(format)
    if width < 1 or height < 1 or not 0 <= level < 32:
        raise ValueError(f"bad size {width}x{height} or level {level}")
    offset = tools.glyptora_tools_texture_bytes(fmt.word, width, height, level)
    level_width, level_height = max(width >> level, 1), max(height >> level, 1)
    size = tools.glyptora_tools_texture_bytes(fmt.word, level_width, level_height, 1)
    blocks = np.frombuffer(data, np.uint8)
    if blocks.size < offset + size:
        raise ValueError(f"{blocks.size} bytes hold no level {level} of a {width}x{height} "
                         f"{fmt.word.decode()} texture ({offset + size} bytes needed)")
    blocks = np.ascontiguousarray(blocks[offset:offset + size])
    pixels = np.empty((level_height, level_width, 4), np.float32 if fmt.is_float else np.uint8)
    if not tools.glyptora_tools_decode_level(fmt.word, blocks.ctypes.data, level_width, level_height,
                                             pixels.ctypes.data):
        raise GlyptoraError(f"no block decoder for {fmt.word.decode()}")
    return pixels.view(np.int8) if fmt.is_signed and not fmt.is_float else pixels


def gpu_available():
    """True when a CUDA GPU usable by the GPU encoders is present."""
    return bool(libraries()[0].GlyptoraIsGpuEncodingAvailable())

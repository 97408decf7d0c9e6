"""Glyptora: block compression of textures (BC1-BC7, ASTC) from numpy arrays.

    import glyptora
    blocks = glyptora.compress(pixels, "bc7", quality="production")
    glyptora.save_dds("albedo.dds", pixels, "bc7_srgb")
    pixels = glyptora.decompress(blocks, "bc7", width, height)

`python -m glyptora.batch SRC DST -f FORMAT` converts folders of images on Dask.
The package loads libglyptora.so and libglyptora_tools.so: see glyptora._native for where.
"""
from ._native import GlyptoraError
from ._texture import compress, decompress, gpu_available, save_dds, save_ktx2

__all__ = ["GlyptoraError", "compress", "decompress", "gpu_available", "save_dds", "save_ktx2"]
__version__ = "0.1"

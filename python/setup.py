"""Packs the native parts into the package when they are built: libglyptora.so and
libglyptora_tools.so into glyptora/lib, the glyptora command into glyptora/bin, from
GLYPTORA_BUILD_DIR (default: build/release of this source tree). Without them the package
finds the libraries at run time (see glyptora/_native.py)."""
import os
import shutil
from pathlib import Path

from setuptools import setup
from setuptools.command.build_py import build_py

NATIVE = [("lib", "libglyptora.so"), ("lib", "libglyptora_tools.so"), ("bin", "glyptora")]


class BuildWithNativeParts(build_py):
    def run(self):
        super().run()
        build = Path(os.environ.get("GLYPTORA_BUILD_DIR", Path(__file__).resolve().parent.parent / "build" / "release"))
        for folder, name in NATIVE:
            if (build / folder / name).is_file():
                target = Path(self.build_lib) / "glyptora" / folder
                target.mkdir(parents=True, exist_ok=True)
                shutil.copy2(build / folder / name, target / name)


setup(cmdclass={"build_py": BuildWithNativeParts})

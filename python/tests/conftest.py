"""Shared set-up of the package tests: the build that provides libglyptora, libglyptora_tools
and the glyptora command (GLYPTORA_BUILD_DIR, default build/release), and the image writers
of the command's own tests."""
import os
import subprocess
import sys
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "python"))
sys.path.insert(0, str(ROOT / "tests"))  # cli_support: photo_like, write_exr, write_hdr
BUILD = Path(os.environ.get("GLYPTORA_BUILD_DIR", ROOT / "build" / "release"))
os.environ.setdefault("GLYPTORA_BUILD_DIR", str(BUILD))
os.environ.setdefault("GLYPTORA_COMMAND", str(BUILD / "bin" / "glyptora"))
# The workers of local Dask clusters import the package from here too.
os.environ["PYTHONPATH"] = os.pathsep.join(filter(None, [str(ROOT / "python"), os.environ.get("PYTHONPATH")]))


@pytest.fixture(scope="session")
def command():
    """Runs `glyptora ARGS...` and returns its standard output; fails the test on an error."""
    path = os.environ["GLYPTORA_COMMAND"]
    if not os.access(path, os.X_OK):
        pytest.skip(f"the glyptora command is not built ({path})")

    def run(*args):
        done = subprocess.run([path, *map(str, args)], capture_output=True, text=True)
        assert done.returncode == 0, done.stderr
        return done.stdout

    return run

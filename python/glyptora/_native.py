"""Loading of libglyptora and libglyptora_tools with ctypes, and capture of the library's
error lines.

The libraries are looked for, in this order:
  1. GLYPTORA_LIBRARY: the path of libglyptora.so (libglyptora_tools.so lies beside it);
  2. the package's own lib/ folder (filled by `pip install` from GLYPTORA_BUILD_DIR);
  3. GLYPTORA_BUILD_DIR/lib, then build/release/lib of the source tree this package sits in.
"""
import ctypes
import os
import sys
import tempfile
import threading
from pathlib import Path

LIBRARY_NAME = "libglyptora.so"
TOOLS_LIBRARY_NAME = "libglyptora_tools.so"
COMMAND_NAME = "glyptora"
_PACKAGE_DIR = Path(__file__).resolve().parent
_SOURCE_ROOT = _PACKAGE_DIR.parent.parent  # python/glyptora -> the repository, when run from it


class GlyptoraError(RuntimeError):
    """A conversion or file write failed; the message is the library's own reason."""


def _candidate_dirs():
    if os.environ.get("GLYPTORA_LIBRARY"):
        yield Path(os.environ["GLYPTORA_LIBRARY"]).parent
    yield _PACKAGE_DIR / "lib"
    if os.environ.get("GLYPTORA_BUILD_DIR"):
        yield Path(os.environ["GLYPTORA_BUILD_DIR"]) / "lib"
    yield _SOURCE_ROOT / "build" / "release" / "lib"


def library_paths():
    """(libglyptora.so, libglyptora_tools.so) to load."""
    chosen = os.environ.get("GLYPTORA_LIBRARY")
    if chosen:  # taken as given: no quiet fall-back to another build
        tools = Path(chosen).parent / TOOLS_LIBRARY_NAME
        for path in (Path(chosen), tools):
            if not path.is_file():
                raise GlyptoraError(f"{path} not found (GLYPTORA_LIBRARY is {chosen})")
        return Path(chosen), tools
    tried = []
    for folder in _candidate_dirs():
        if (folder / LIBRARY_NAME).is_file() and (folder / TOOLS_LIBRARY_NAME).is_file():
            return folder / LIBRARY_NAME, folder / TOOLS_LIBRARY_NAME
        tried.append(str(folder))
    raise GlyptoraError(f"{LIBRARY_NAME} and {TOOLS_LIBRARY_NAME} not found (looked in {', '.join(tried)}); "
                        "set GLYPTORA_LIBRARY to the path of libglyptora.so")


def command_path():
    """The glyptora command: GLYPTORA_COMMAND, the package's bin/, the build's bin/, or PATH."""
    if os.environ.get("GLYPTORA_COMMAND"):
        return os.environ["GLYPTORA_COMMAND"]
    for folder in (_PACKAGE_DIR / "bin", *(d.parent / "bin" for d in _candidate_dirs())):
        if (folder / COMMAND_NAME).is_file():
            return str(folder / COMMAND_NAME)
    return COMMAND_NAME


class Format(ctypes.Structure):
    _fields_ = [("word", ctypes.c_char_p), ("block_width", ctypes.c_int32), ("block_height", ctypes.c_int32),
                ("block_bytes", ctypes.c_int32), ("is_float", ctypes.c_int32), ("is_signed", ctypes.c_int32),
                ("is_srgb", ctypes.c_int32), ("is_astc", ctypes.c_int32), ("unavailable", ctypes.c_char_p)]


def _declare(function, result, *arguments):
    function.restype = result
    function.argtypes = list(arguments)


_u32, _u64, _int, _ptr, _str = ctypes.c_uint32, ctypes.c_uint64, ctypes.c_int, ctypes.c_void_p, ctypes.c_char_p
_libraries = None
_load_lock = threading.Lock()


def libraries():
    """(libglyptora, libglyptora_tools), loaded once."""
    global _libraries
    with _load_lock:
        if _libraries is None:
            main_path, tools_path = library_paths()
            main = ctypes.CDLL(str(main_path))
            _declare(main.GlyptoraConvert, _u32, _ptr, _ptr, ctypes.c_wchar_p, ctypes.c_wchar_p, ctypes.c_wchar_p,
                     _u32, _u32, _u32, _u32, _u32, _u32)
            _declare(main.GlyptoraIsGpuEncodingAvailable, _u32)
            tools = ctypes.CDLL(str(tools_path))
            _declare(tools.glyptora_tools_find_format, _int, _str, ctypes.POINTER(Format))
            _declare(tools.glyptora_tools_parse_quality, _int, _str)
            _declare(tools.glyptora_tools_quality_word, _str, _int)
            _declare(tools.glyptora_tools_full_level_count, _u32, _u32, _u32)
            _declare(tools.glyptora_tools_source_bytes, _u64, _u32, _u32, _u32, _int)
            _declare(tools.glyptora_tools_max_source_bytes, _u64)
            _declare(tools.glyptora_tools_max_image_side, _u32)
            _declare(tools.glyptora_tools_texture_bytes, _u64, _str, _u32, _u32, _u32)
            _declare(tools.glyptora_tools_build_chain, _int, _ptr, _int, _u32, _u32, _u32, _int, _ptr)
            _declare(tools.glyptora_tools_decode_level, _int, _str, _ptr, _u32, _u32, _ptr)
            _declare(tools.glyptora_tools_write_texture, _int, _str, _str, _str, _u32, _u32, _u32, _ptr,
                     ctypes.c_char_p, ctypes.c_size_t)
            _libraries = (main, tools)
        return _libraries


_stderr_lock = threading.Lock()


def call_capturing_errors(function, *arguments):
    """Calls `function` with the process's standard error sent to a file, since the library
    explains a failure in one "Glyptora: ..." line there. Returns (result, the library's reason
    or None when it succeeded). Everything else is passed on to standard error. Calls are serialised: the
    redirection is process-wide (each conversion already uses every core)."""
    with _stderr_lock, tempfile.TemporaryFile() as captured:
        sys.stderr.flush()
        saved = os.dup(2)
        try:
            os.dup2(captured.fileno(), 2)
            try:
                result = function(*arguments)
            finally:
                os.dup2(saved, 2)
        finally:
            os.close(saved)
        captured.seek(0)
        text = captured.read().decode("utf-8", "replace")
    reason = None
    for line in text.splitlines():
        if line.startswith("Glyptora: ") and not result:
            reason = line[len("Glyptora: "):]  # the one line that says why the call failed
        elif line:
            print(line, file=sys.stderr)
    return result, reason

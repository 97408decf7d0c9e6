#!/usr/bin/env bash
# Builds Glyptora.dll and glyptora.exe for 64-bit Windows with mingw-w64 (cross build, see
# cmake/mingw-w64-x86_64.cmake) and packs them with glyptora.h and a short README into
#   build/glyptora-windows-x64.zip    (or the path given as the first argument)
# Extra CMake arguments may follow, e.g. -DGLYPTORA_ENABLE_CUDA=OFF for a build without GPU kernels.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
zip_path=$(realpath -m "${1:-$root/build/glyptora-windows-x64.zip}")
shift $(( $# > 0 ? 1 : 0 ))
"$root/scripts/install-deps.sh" g++-mingw-w64-x86-64-posix
build="$root/build/mingw"
cmake -S "$root" -B "$build" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-x86_64.cmake" -DCMAKE_BUILD_TYPE=Release \
  "$@" >/dev/null
cmake --build "$build" -j "$(nproc)" --target glyptora glyptora_cli

staging=$(mktemp -d)
trap 'rm -rf "$staging"' EXIT
cp "$build/bin/Glyptora.dll" "$build/bin/glyptora.exe" "$root/include/glyptora.h" "$staging/"
cat > "$staging/README.txt" <<'TEXT'
Glyptora for Windows x64
========================

Glyptora.dll   the texture compression library (BC1-BC7 and ASTC, CPU, and CUDA GPUs when
               the NVIDIA driver is installed). It needs no other DLL than those of Windows.
glyptora.h     the C declarations of its exports: GlyptoraConvert,
               GlyptoraIsGpuEncodingAvailable, ServerMain and NvOptimusEnablementCuda.
glyptora.exe   the command-line tool; it loads Glyptora.dll from its own folder.

Using the library from a host program
-------------------------------------
Load it with LoadLibraryA("Glyptora.dll") and find the exports, plain C functions with
undecorated names, with GetProcAddress. Sizes, format names and flags are described in
glyptora.h. Flag 0x20 runs
the conversion in a detached server process, "rundll32.exe Glyptora.dll,ServerMain", which
the library starts by itself and which ends after 20 s without clients
(HALVORAN_GLYPTORA_PROCESS_TIMEOUT, in milliseconds, or INFINITE).

Using the command-line tool
---------------------------
  glyptora.exe convert picture.png -o picture.dds -f bc7 -q production
  glyptora.exe info picture.dds
  glyptora.exe formats
This build reads PNG, JPEG, TGA, BMP, PSD and HDR images; it has no OpenEXR and no
Zstandard, so it neither reads nor writes EXR images or Zstandard-supercompressed KTX2.
TEXT
rm -f "$zip_path"
(cd "$staging" && python3 -m zipfile -c "$zip_path" Glyptora.dll glyptora.exe glyptora.h README.txt)
echo "$zip_path"

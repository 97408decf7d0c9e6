#!/usr/bin/env bash
# Cross-builds Glyptora.dll, glyptora.exe and the test suite for Windows (mingw-w64) and runs
# the tests under wine64 in a wine prefix of the build tree. The comparison of the DLL's blocks
# with the Linux library's uses the Linux build in $GLYPTORA_LINUX_BUILD (default
# build/release, made first by scripts/test.sh); without it that test is skipped.
# Extra CMake arguments may follow.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build="$root/build/mingw"
linux_build=${GLYPTORA_LINUX_BUILD:-$root/build/release}
export WINEPREFIX=${WINEPREFIX:-$root/build/wineprefix} WINEDEBUG=${WINEDEBUG:--all}
# No display: wine must not try to open windows or install Gecko and Mono.
export DISPLAY= WINEDLLOVERRIDES=${WINEDLLOVERRIDES:-mscoree,mshtml=}

# The Linux build's fat binary is the one the Windows build would compile: reuse it.
kernels=()
if [ -f "$linux_build/glyptora_kernels/glyptora_kernels.fatbin" ]; then
  kernels=(-DGLYPTORA_CUDA_FATBIN="$linux_build/glyptora_kernels/glyptora_kernels.fatbin")
fi
cmake -S "$root" -B "$build" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-x86_64.cmake" -DCMAKE_BUILD_TYPE=Release \
  -DGLYPTORA_LINUX_REFERENCE_BUILD="$linux_build" "${kernels[@]}" "$@" >/dev/null
cmake --build "$build" -j "$(nproc)"

if [ ! -d "$WINEPREFIX" ]; then
  wine wineboot --init >/dev/null 2>&1 || true
  wineserver -w 2>/dev/null || true  # the new prefix is complete once its set-up processes end
fi
wineserver -p 30 2>/dev/null || true  # one wine server for all the test processes
# The first start of rundll32.exe in a prefix takes wine several seconds, longer than a client
# waits for the server it starts: start it once beforehand.
wine rundll32.exe >/dev/null 2>&1 || true
status=0
(cd "$build" && ctest --output-on-failure -j "$(nproc)") || status=$?
wineserver -k 2>/dev/null || true
exit $status

#!/usr/bin/env bash
# Installs what the build needs, then builds and runs every test twice: a Release
# build, and a Debug build with AddressSanitizer and UndefinedBehaviorSanitizer.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh"
jobs=$(nproc)

run_suite() {
  local dir=$1; shift
  cmake -S "$root" -B "$dir" "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
  (cd "$dir" && ctest --output-on-failure -j "$jobs")
}

echo "== Release build =="
run_suite "$root/build/release" -DCMAKE_BUILD_TYPE=Release
echo "== Python package and batch conversion (pytest, on the Release build) =="
"$root/scripts/install-deps.sh" python3-pytest python3-distributed python3-psutil || true
if /usr/bin/python3 -c "import pytest, numpy, PIL, distributed, psutil" 2>/dev/null; then
  GLYPTORA_BUILD_DIR="$root/build/release" /usr/bin/python3 -m pytest -q -p no:cacheprovider "$root/python/tests"
else
  echo "skipped: pytest, NumPy, Pillow, Dask distributed or psutil missing (python3-pytest, python3-distributed)"
fi
echo "== Glyptora.dll: Windows cross build (mingw-w64), its tests under wine =="
"$root/scripts/install-deps.sh" g++-mingw-w64-x86-64-posix wine64 || true
if command -v x86_64-w64-mingw32-g++-posix >/dev/null 2>&1 && [ -x /usr/lib/wine/wine64 ]; then
  GLYPTORA_LINUX_BUILD="$root/build/release" "$root/scripts/test-windows.sh"
else
  echo "skipped: mingw-w64 or wine missing (g++-mingw-w64-x86-64-posix, wine64)"
fi
echo "== Debug build with AddressSanitizer + UndefinedBehaviorSanitizer =="
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
run_suite "$root/build/sanitize" -DCMAKE_BUILD_TYPE=Debug -DGLYPTORA_SANITIZE=ON -DGLYPTORA_ENABLE_CUDA=OFF
echo "== Fuzzers, ${GLYPTORA_FUZZ_SECONDS:-60} s each (kept findings replayed first) =="
if command -v clang++ >/dev/null 2>&1 || "$root/scripts/install-deps.sh" clang; then
  "$root/scripts/fuzz.sh" "${GLYPTORA_FUZZ_SECONDS:-60}"
else
  echo "clang could not be installed: the fuzzers were not run"
fi

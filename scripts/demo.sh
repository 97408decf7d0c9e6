#!/usr/bin/env bash
# Installs what the build needs, builds the library and the glyptora tool (Release, in
# build/release, or GLYPTORA_BUILD_DIR), generates a sample picture and converts it to BC1,
# printing PSNR and time.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${GLYPTORA_BUILD_DIR:-$root/build/release}
"$root/scripts/install-deps.sh"

echo "== Building (Release) =="
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$build" -j "$(nproc)" --target glyptora_cli

demo="$build/demo"
mkdir -p "$demo"
cd "$demo"
echo "== Generating sample.png (scripts/make_sample.py) =="
python3 "$root/scripts/make_sample.py" sample.png 512 512
echo "== glyptora convert sample.png -o sample.dds -f bc1 --stats =="
"$build/bin/glyptora" convert sample.png -o sample.dds -f bc1 --stats
echo "Wrote $demo/sample.dds"

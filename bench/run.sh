#!/usr/bin/env bash
# Builds the bench (Release, in build/release), makes sure the photographs of the corpus are
# present (Debian's python3-skimage ships them) and prints a markdown report to stdout.
#
# usage: bench/run.sh [--quality fastest,normal,...] [--threads N] [--min-time SECONDS] [FORMAT...]
# Without formats every format the tool offers is measured. GLYPTORA_BUILD_DIR overrides the
# build folder.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${GLYPTORA_BUILD_DIR:-$root/build/release}
corpus=/usr/lib/python3/dist-packages/skimage/data
photos=(astronaut.png chelsea.png coffee.png logo.png rocket.jpg hubble_deep_field.jpg)

missing=0
for p in "${photos[@]}"; do [ -f "$corpus/$p" ] || missing=1; done
if [ "$missing" = 1 ]; then
  "$root/scripts/install-deps.sh" python3-skimage >&2
else
  "$root/scripts/install-deps.sh" >&2
fi

cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$build" -j "$(nproc)" --target glyptora_bench >&2
exec "$build/bin/glyptora_bench" --corpus "$corpus" "$@"

#!/usr/bin/env bash
# Builds the bench (Release, in build/release), makes sure the photographs of the corpus are
# present (Debian's python3-skimage ships them), and the EXR matcaps the HDR formats run on
# (Debian's blender-data), and prints a markdown report to stdout.
#
# usage: bench/run.sh [--quality fastest,normal,...] [--threads N] [--min-time SECONDS] [FORMAT...]
# Without formats every format the tool offers is measured. GLYPTORA_BUILD_DIR overrides the
# build folder.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${GLYPTORA_BUILD_DIR:-$root/build/release}
corpus=/usr/lib/python3/dist-packages/skimage/data
photos=(astronaut.png chelsea.png coffee.png logo.png rocket.jpg hubble_deep_field.jpg)

hdr_corpus=/usr/share/blender/datafiles/studiolights/matcap
extra=()
for p in "${photos[@]}"; do [ -f "$corpus/$p" ] || { extra+=(python3-skimage); break; }; done
[ -d "$hdr_corpus" ] || extra+=(blender-data)
"$root/scripts/install-deps.sh" "${extra[@]}" >&2

cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$build" -j "$(nproc)" --target glyptora_bench >&2
exec "$build/bin/glyptora_bench" --corpus "$corpus" --hdr-corpus "$hdr_corpus" "$@"

#!/usr/bin/env bash
# Batch throughput: the bench photographs (Debian's python3-skimage) replicated to FILES image
# files, converted by `python -m glyptora.batch` on a local Dask cluster of 1 and of 2 workers
# and by a shell loop over `glyptora convert`. Prints a markdown table: wall time of each whole
# run (cluster start included), files/s and Mpix/s of level 0 (every output has its full chain).
#
# usage: bench/batch_bench.sh [-n FILES] [FORMAT:QUALITY ...]   (default: -n 300 bc1:fastest bc7:normal)
# GLYPTORA_BUILD_DIR overrides the build folder (default build/release).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${GLYPTORA_BUILD_DIR:-$root/build/release}
files=300
if [ "${1:-}" = "-n" ]; then files=$2; shift 2; fi
runs=("$@")
[ ${#runs[@]} -gt 0 ] || runs=(bc1:fastest bc7:normal)
corpus=/usr/lib/python3/dist-packages/skimage/data
photos=(astronaut.png chelsea.png coffee.png logo.png rocket.jpg hubble_deep_field.jpg)

"$root/scripts/install-deps.sh" python3-skimage python3-distributed >&2
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$build" -j "$(nproc)" --target glyptora glyptora_tools glyptora_cli >&2
glyptora=$build/bin/glyptora
export PYTHONPATH=$root/python${PYTHONPATH:+:$PYTHONPATH} GLYPTORA_BUILD_DIR=$build GLYPTORA_COMMAND=$glyptora

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/src"
for ((i = 0; i < files; i++)); do
  p=${photos[i % ${#photos[@]}]}
  cp "$corpus/$p" "$work/src/$(printf %04d "$i")_$p"
done
mpix=$(/usr/bin/python3 -c "
import sys, pathlib
from PIL import Image
sizes = [Image.open(p).size for p in pathlib.Path(sys.argv[1]).iterdir()]
print(sum(w * h for w, h in sizes) / 1e6)" "$work/src")

now() { date +%s.%N; }
row() {  # runner, seconds
  awk -v r="$1" -v s="$2" -v n="$files" -v m="$mpix" \
    'BEGIN { printf "| %s | %s | %.1f | %.2f | %.2f |\n", r, n, s, n / s, m / s }'
}

echo "Images: ${photos[*]} from $corpus, replicated to $files files, $(printf %.1f "$mpix") Mpix of level 0."
echo
echo "| format:quality / runner | files | seconds | files/s | Mpix/s |"
echo "|---|---:|---:|---:|---:|"
for run in "${runs[@]}"; do
  format=${run%%:*} quality=${run#*:}
  rm -rf "$work/out"; mkdir "$work/out"
  start=$(now)
  for f in "$work"/src/*; do
    name=$(basename "$f"); "$glyptora" convert "$f" -o "$work/out/${name%.*}.dds" -f "$format" -q "$quality" >/dev/null
  done
  row "$run, shell loop over glyptora convert" "$(awk -v a="$start" -v b="$(now)" 'BEGIN { print b - a }')"
  for workers in 1 2; do
    rm -rf "$work/out"
    start=$(now)
    /usr/bin/python3 -m glyptora.batch "$work/src" "$work/out" -f "$format" -q "$quality" --workers "$workers" \
      --no-progress >/dev/null
    row "$run, glyptora.batch, $workers local worker(s)" "$(awk -v a="$start" -v b="$(now)" 'BEGIN { print b - a }')"
  done
done

#!/usr/bin/env bash
# The yardstick for the ASTC encoder: Debian's astcenc (run as a program only) on the six
# bench photographs, one thread, per footprint and preset. Prints a markdown table of the
# aggregate RGB PSNR (summed squared error over the set, decoded with astcenc -dl) and the
# coding rate astcenc reports (pixels over its summed coding time). With --ours PATH the
# glyptora_bench binary at PATH measures our qualities (default fastest,normal: levels 0 and 1)
# on the same photographs in the same run, one thread, so that the two sets of figures share
# the machine's load.
#
# usage: bench/astcenc_yardstick.sh [--ours PATH/TO/glyptora_bench] [--presets "-fastest -fast"]
#                                   [--qualities production,highest] [FOOTPRINT...]
#                                   (default footprints: 4x4 6x6 8x8 12x12)
set -euo pipefail
corpus=/usr/lib/python3/dist-packages/skimage/data
photos=(astronaut.png chelsea.png coffee.png logo.png rocket.jpg hubble_deep_field.jpg)
presets="-fastest"
ours=""
qualities=fastest,normal
footprints=()
while [ $# -gt 0 ]; do
    case "$1" in
        --ours) ours=$2; shift 2 ;;
        --presets) presets=$2; shift 2 ;;
        --qualities) qualities=$2; shift 2 ;;
        -h|--help) sed -n '2,12p' "$0"; exit 0 ;;
        *) footprints+=("$1"); shift ;;
    esac
done
[ ${#footprints[@]} -gt 0 ] || footprints=(4x4 6x6 8x8 12x12)
command -v astcenc >/dev/null || { echo "astcenc_yardstick: astcenc is not installed (apt-get install astcenc)" >&2; exit 1; }
python=/usr/bin/python3
"$python" -c "import PIL, numpy" 2>/dev/null || { echo "astcenc_yardstick: needs python3-pil and python3-numpy" >&2; exit 1; }

work=$(mktemp -d /tmp/astcenc_yardstick.XXXXXX)
trap 'rm -rf "$work"' EXIT
# astcenc reads PNG; the JPEG photographs are converted once (lossless from here on).
for p in "${photos[@]}"; do
    "$python" -c "import sys; from PIL import Image; Image.open(sys.argv[1]).save(sys.argv[2])" \
        "$corpus/$p" "$work/${p%.*}.png"
done

echo "| footprint | encoder | aggregate PSNR RGB (dB) | Mpix/s, 1 thread |"
echo "|---|---|---:|---:|"
for fp in "${footprints[@]}"; do
    for preset in $presets; do
        seconds=0
        for p in "${photos[@]}"; do
            name=${p%.*}
            log=$(astcenc -cl "$work/$name.png" "$work/$name.astc" "$fp" "$preset" -j 1 2>&1) ||
                { echo "astcenc failed on $name: $log" >&2; exit 1; }
            coding=$(awk '/Coding time:/ {print $3}' <<<"$log")
            seconds=$("$python" -c "print($seconds + $coding)")
            astcenc -dl "$work/$name.astc" "$work/$name.dec.png" -silent >/dev/null
        done
        "$python" - "$work" "$fp" "$preset" "$seconds" "${photos[@]}" <<'EOF'
import sys
import numpy as np
from PIL import Image
work, footprint, preset, seconds, photos = sys.argv[1], sys.argv[2], sys.argv[3], float(sys.argv[4]), sys.argv[5:]
squared, values, pixels = 0.0, 0, 0
for p in photos:
    name = p.rsplit(".", 1)[0]
    ref = np.asarray(Image.open(f"{work}/{name}.png").convert("RGB"), np.int64)
    dec = np.asarray(Image.open(f"{work}/{name}.dec.png").convert("RGB"), np.int64)
    squared += float(np.sum((ref - dec) ** 2))
    values += ref.size
    pixels += ref.shape[0] * ref.shape[1]
psnr = 10 * np.log10(255.0 ** 2 / (squared / values))
print(f"| {footprint} | astcenc {preset} | {psnr:.2f} | {pixels / seconds * 1e-6:.2f} |")
EOF
    done
    if [ -n "$ours" ]; then
        # Our figures: the bench's photo aggregate at the qualities asked, one thread.
        "$ours" --corpus "$corpus" --threads 1 --photos-only --quality "$qualities" "astc$fp" 2>/dev/null |
            awk -F'|' -v fp="$fp" '/^## PSNR per image/ { done = 1 } !done && /^\| unorm_astc_/ {
                gsub(/ /, "", $3); gsub(/ /, "", $4); gsub(/ /, "", $6);
                printf "| %s | glyptora %s | %s | %s |\n", fp, $3, $6, $4 }'
    fi
done

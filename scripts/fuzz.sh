#!/usr/bin/env bash
# Builds the libFuzzer targets of tests/fuzz with clang and runs them one after the other,
# each in a single process for the time asked. Before fuzzing, each target replays the kept
# findings of tests/fuzz/regressions/<target>/ and the generated seeds.
#
#   scripts/fuzz.sh [SECONDS_PER_TARGET] [TARGET...]     (default: 600 s, every target)
#
# The corpus grows in build/fuzz/corpus/<target> from run to run; findings (crash-*,
# timeout-*, oom-*, leak-*) go to build/fuzz/findings/<target>/. The last lines are one
# summary row per target: executions, coverage (edges, features), corpus and findings.
# Exit status 1 when any target found something.
#
# Environment: FUZZ_BUILD_DIR (default build/fuzz), FUZZ_BUILD_JOBS (default nproc),
# FUZZ_NICE (niceness of the fuzzing processes, default 15), FUZZ_TIMEOUT (seconds one input
# may take before it counts as a finding, default 30).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
seconds=${1:-600}
shift || true
build=${FUZZ_BUILD_DIR:-$root/build/fuzz}
jobs=${FUZZ_BUILD_JOBS:-$(nproc)}
niceness=${FUZZ_NICE:-15}
unit_timeout=${FUZZ_TIMEOUT:-30}

if ! command -v clang++ >/dev/null 2>&1; then
  "$root/scripts/install-deps.sh" clang
fi
CC=clang CXX=clang++ cmake -S "$root/tests/fuzz" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
nice -n 10 cmake --build "$build" -j "$jobs"

targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  for source in "$root"/tests/fuzz/fuzz_*.cpp; do targets+=("$(basename "$source" .cpp)"); done
fi

seeds="$build/seeds"
rm -rf "$seeds"
# The system interpreter first: Debian's python3-pil installs there.
python=$(command -v /usr/bin/python3 || command -v python3)
"$python" "$root/tests/fuzz/make_seeds.py" "$seeds"

summary=()
found=0
for target in "${targets[@]}"; do
  binary="$build/bin/$target"
  corpus="$build/corpus/$target"
  findings="$build/findings/$target"
  log="$build/$target.log"
  mkdir -p "$corpus" "$findings" "$seeds/$target"
  dict=()
  [ -f "$root/tests/fuzz/$target.dict" ] && dict=(-dict="$root/tests/fuzz/$target.dict")
  common=(-timeout="$unit_timeout" -rss_limit_mb=2048 -close_fd_mask=3 -artifact_prefix="$findings/")

  echo "== $target: kept findings and seeds =="
  regressions=()
  [ -d "$root/tests/fuzz/regressions/$target" ] && regressions=("$root/tests/fuzz/regressions/$target")
  if ! nice -n "$niceness" "$binary" "${common[@]}" -runs=0 "$seeds/$target" "${regressions[@]}" >"$log" 2>&1; then
    tail -n 30 "$log"
    summary+=("$target: a kept finding or seed fails again (see $log)")
    found=1
    continue
  fi

  echo "== $target: fuzzing for $seconds s =="
  status=0
  started=$SECONDS
  nice -n "$niceness" "$binary" "${common[@]}" "${dict[@]}" -max_total_time="$seconds" -print_final_stats=1 \
    "$corpus" "$seeds/$target" >"$log" 2>&1 || status=$?
  last=$(grep -E '^#[0-9]+' "$log" | tail -n 1 || true)
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  coverage=$(sed -n 's/.* cov: \([0-9]*\) ft: \([0-9]*\) corp: \([0-9]*\).*/edges \1, features \2, corpus \3/p' <<<"$last")
  artifacts=$(find "$findings" -type f \( -name 'crash-*' -o -name 'timeout-*' -o -name 'oom-*' -o -name 'leak-*' \) | wc -l)
  if [ "$status" -ne 0 ] || [ "$artifacts" -ne 0 ]; then
    grep -E 'ERROR|SUMMARY|fuzz check failed|internal check failed|runtime error' "$log" | head -n 5 || true
    found=1
  fi
  summary+=("$target: ${runs:-?} executions in $((SECONDS - started)) s, ${coverage:-no coverage line}, findings $artifacts")
done

echo "== Summary =="
printf '%s\n' "${summary[@]}"
exit "$found"

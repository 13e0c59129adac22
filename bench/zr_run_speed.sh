#!/usr/bin/env bash
# How many times faster than real time `zr run` processes a file: a generated 10-minute,
# 16 kHz, 4-channel recording through SoundLevel, results written and discarded.
#
#   bench/zr_run_speed.sh [path/to/zr]      (default: build-bench/tools/zr/zr, a Release build)
set -euo pipefail
cd "$(dirname "$0")/.."
zr=${1:-build-bench/tools/zr/zr}
[ -x "$zr" ] || { echo "no zr at $zr: ./setup.sh bench builds one" >&2; exit 1; }
input=${TMPDIR:-/tmp}/zr_bench_10min_4ch.wav
[ -f "$input" ] || sox -R -n -r 16000 -c 4 -b 16 "$input" synth 600 pinknoise vol 0.3
for format in jsonl table; do
  for run in 1 2 3; do
    start=$(date +%s.%N)
    "$zr" run "$input" --extractor SoundLevel --format "$format" --output /dev/null --log-level error 2>/dev/null
    end=$(date +%s.%N)
    awk -v s="$start" -v e="$end" -v f="$format" -v r="$run" \
      'BEGIN { printf "zr run, 600 s x 4 ch @ 16 kHz, SoundLevel, %s, run %d: %.3f s wall = %.0fx real time\n", f, r, e - s, 600 / (e - s) }'
  done
done

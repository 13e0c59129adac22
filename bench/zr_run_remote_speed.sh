#!/usr/bin/env bash
# The pipeline across three processes against the same in one: a generated 10-minute, 16 kHz,
# 4-channel file through SoundLevel, once with the device and memory service in one `zr host`,
# SoundLevel in a second and `zr run --directory` as the client, once as `zr run FILE`; at the
# default period and at --period 10 (60 000 windows). Each three-process run must print the very
# windows the one-process run prints.
#
#   bench/zr_run_remote_speed.sh [path/to/zr] [runs]   (default: build-bench/tools/zr/zr, 3 runs)
source "$(dirname "$0")/zr_network.sh"
runs=${2:-3}
input=${TMPDIR:-/tmp}/zr_bench_10min_4ch.wav
[ -f "$input" ] || sox -R -n -r 16000 -c 4 -b 16 "$input" synth 600 pinknoise vol 0.3

serve device --memory --device "$input" --log-level error
"$zr" host --name extractor -e SoundLevel --log-level error >"$work/extractor.log" 2>&1 &
hosts+=($!)
# Ready once the client sees all three modules.
for _ in $(seq 100); do
  n=$("$zr" list --format jsonl 2>/dev/null | grep -cE '"name":"(ZRMemory|ZRAudioDevice|SoundLevel)"' || true)
  [ "$n" = 3 ] && break
  sleep 0.1
done

seconds() { awk -v s="$1" -v e="$2" 'BEGIN { printf "%.3f", e - s }'; }
for period in default 10; do
  args=(--extractor SoundLevel --format jsonl --log-level error)
  [ "$period" = default ] || args+=(--period "$period")
  "$zr" run "$input" "${args[@]}" --output "$work/one.jsonl"
  for run in $(seq "$runs"); do
    start=$(date +%s.%N)
    "$zr" run "$input" "${args[@]}" --output "$work/one.jsonl"
    mid=$(date +%s.%N)
    "$zr" run --directory "$ZR_DIRECTORY" "${args[@]}" --output "$work/three.jsonl"
    end=$(date +%s.%N)
    one=$(seconds "$start" "$mid")
    three=$(seconds "$mid" "$end")
    same=$(cmp -s "$work/one.jsonl" "$work/three.jsonl" && echo identical || echo DIFFERENT)
    awk -v p="$period" -v r="$run" -v o="$one" -v t="$three" -v n="$(wc -l <"$work/three.jsonl")" \
      -v s="$same" 'BEGIN { printf "period %s, run %d: one process %.0fx, three processes %.0fx real time (ratio %.2f), %d windows, %s\n", p, r, 600 / o, 600 / t, o / t, n, s }'
  done
done

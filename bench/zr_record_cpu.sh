#!/usr/bin/env bash
# The CPU that recording costs a live run: zr run on 8 channels of 16 kHz white noise (what
# compresses least) paced at real time with the stock extractors (SoundLocalization on an 8-mic
# circle), SECONDS long (default 30), without and with --record; prints each run's user+system
# CPU seconds and the difference as a share of one core.
#   bench/zr_record_cpu.sh [ZR] [SECONDS]
set -euo pipefail
zr=${1:-build/tools/zr/zr}
seconds=${2:-30}
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
cpu() {
  /usr/bin/time -f "%U %S" -o "$out/time" timeout -s INT "$seconds" "$zr" run noise --channels 8 \
    --realtime -e SoundLevel -e VoiceActivity -e SoundLocalization --array circular8-r50mm -f jsonl -o "$out/results.jsonl" "$@" 2>/dev/null || true
  tail -1 "$out/time" | awk '{print $1 + $2}'
}
plain=$(cpu)
recorded=$(cpu --record "$out/live.mcap")
echo "without --record: ${plain} s CPU in ${seconds} s"
echo "with --record:    ${recorded} s CPU in ${seconds} s ($(du -k "$out/live.mcap" | cut -f1) kB)"
awk -v a="$plain" -v b="$recorded" -v s="$seconds" \
  'BEGIN { printf "recording costs %.2f %% of one core\n", (b - a) / s * 100 }'

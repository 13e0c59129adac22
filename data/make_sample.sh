#!/usr/bin/env bash
# Makes the bundled sample: sample.wav, a few seconds of synthetic speech with known pauses over
# quiet background noise (16 kHz, mono, 16-bit), and sample.segments.csv, where each phrase
# starts and ends in seconds. Each phrase is trimmed of its own silence before the pauses are
# laid between them, so the boundaries are known to the sample.
set -euo pipefail
cd "$(dirname "$0")"
command -v espeak-ng >/dev/null && command -v sox >/dev/null || {
  echo "make_sample.sh needs espeak-ng and sox (apt-get install espeak-ng sox)" >&2
  exit 1
}
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
RATE=16000
phrases=(
  "Robots listen to the world around them."
  "The quick brown fox jumps over the lazy dog."
  "Sound tells them where to look."
)
# Silence before each phrase, and after the last one.
pauses=(0.80 0.90 0.70 0.60)
fmt=(-r "$RATE" -c 1 -b 16 -e signed-integer)

parts=()
for i in "${!phrases[@]}"; do
  sox -D -n "${fmt[@]}" "$tmp/pause$i.wav" trim 0 "${pauses[$i]}"
  espeak-ng -v en-us -s 155 -w "$tmp/raw$i.wav" "${phrases[$i]}"
  # Trim the synthesiser's own leading and trailing silence.
  sox -D "$tmp/raw$i.wav" "${fmt[@]}" "$tmp/phrase$i.wav" \
    silence 1 0.005 0.3% reverse silence 1 0.005 0.3% reverse
  parts+=("$tmp/pause$i.wav" "$tmp/phrase$i.wav")
done
last=${#phrases[@]}
sox -D -n "${fmt[@]}" "$tmp/pause$last.wav" trim 0 "${pauses[$last]}"
parts+=("$tmp/pause$last.wav")
sox -D "${parts[@]}" "$tmp/speech.wav"

total=$(soxi -D "$tmp/speech.wav")
# -R: the same noise on every run.
sox -R -D -n "${fmt[@]}" "$tmp/noise.wav" synth "$total" whitenoise vol 0.01
sox -R -D -m -v 1 "$tmp/speech.wav" -v 1 "$tmp/noise.wav" "${fmt[@]}" sample.wav

{
  echo "start,end"
  t=0
  for i in "${!phrases[@]}"; do
    d=$(soxi -D "$tmp/phrase$i.wav")
    awk -v t="$t" -v p="${pauses[$i]}" -v d="$d" 'BEGIN { printf "%.3f,%.3f\n", t + p, t + p + d }'
    t=$(awk -v t="$t" -v p="${pauses[$i]}" -v d="$d" 'BEGIN { printf "%.6f", t + p + d }')
  done
} > sample.segments.csv
echo "sample.wav: $(soxi -D sample.wav) s; segments in sample.segments.csv" >&2
